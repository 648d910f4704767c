/*
 * druxmerge: assembles the partial renders of one render (druxrender --tile,
 * --region) into the files of the whole render.
 *
 *   druxmerge [--image-stats FILE] OUT PARTIAL...
 *
 * Writes OUT/render.exr, a PNG per pass and OUT/contact.png exactly as a
 * single druxrender run would (and the image statistics to FILE).  Refuses,
 * naming the files, parts of different renders, overlapping parts, parts
 * that leave pixels uncovered and damaged files: exit 2, nothing written.
 * Exit 3 when the files went to a fallback folder (named), 1 on other errors.
 */
#include "file_read.h"
#include "outputs.h"
#include "partial.h"

#include <cerrno>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

using namespace druxhost;

int main(int argc, char **argv)
{
    std::string stats, out;
    std::vector<std::string> parts;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            std::cout << "usage: druxmerge [--image-stats FILE] OUT PARTIAL...\n"
                         "Merges the partial renders of one render (druxrender --tile I/N or --region) into\n"
                         "OUT/render.exr, a PNG per pass and OUT/contact.png, as one druxrender run writes them.\n";
            return 0;
        }
        if (a == "--image-stats" && i + 1 < argc) {
            stats = argv[++i];
        } else if (a.size() > 1 && a[0] == '-') {
            std::cerr << "druxmerge: unknown option " << a << " (usage: druxmerge [--image-stats FILE] OUT PARTIAL...)\n";
            return 2;
        } else if (out.empty()) {
            out = a;
        } else {
            parts.push_back(a);
        }
    }
    if (out.empty() || parts.empty()) {
        std::cerr << "usage: druxmerge [--image-stats FILE] OUT PARTIAL...\n";
        return 2;
    }
    if (!makeDirs(out)) {
        std::cerr << "druxmerge: cannot create " << out << ": " << std::strerror(errno) << "\n";
        return 2;
    }
    WrittenOutputs written;
    try {
        written = mergeAndWrite(parts, out, stats);
    } catch (const PartialError &e) {
        std::cerr << "druxmerge: " << e.what() << "; nothing written\n";
        return 2;
    } catch (const std::exception &e) {
        std::cerr << "druxmerge: " << e.what() << "\n";
        return 1;
    }
    if (!written.failure.empty()) {
        std::cerr << "druxmerge: cannot write the images to " << out << " (" << written.failure
                  << "); they were written to " << written.dir << " instead\n";
        return 3;
    }
    std::cout << "druxmerge: " << parts.size() << " part" << (parts.size() == 1 ? "" : "s") << " merged into "
              << written.files.size() << " files in " << written.dir << "\n";
    return 0;
}
