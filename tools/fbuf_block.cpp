/*
 * fbuf_block: writes an "FBuf" frame-buffer description block (the
 * parameter area, this machine's byte order) to standard output, laid out by
 * the same writer the host exporter uses.  fuzz/make_seeds.py builds the
 * frame-buffer seeds with it.
 *
 *   fbuf_block [--inline] [--set FIELD=N]... [--nonmat TAG]...
 *              [--counts N,N,...] [--record TAG[:W1,..,W9[:H0,H1,H2,H3[:TAIL]]]]...
 *
 *   --record   one frameBufferInfo record, in entry order: name tag, the nine
 *              flag words, the four host words and the tail word (missing
 *              ones are 0)
 *   --nonmat   one nonMaterialPasses name tag
 *   --counts   the type-count array as written (any length)
 *   --set      a header word written instead of the layout's: FIELD is one of
 *              nonMaterialPassesFirst, nonMaterialPassesCount,
 *              frameBufferInfoFirst, frameBufferInfoCount, typeCountsFirst,
 *              typeCountsCount
 *   --inline   arrays of at most one element in their own storage slot
 */
#include "fbuf_writer.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

[[noreturn]] void usage(const std::string &why)
{
    std::fprintf(stderr, "fbuf_block: %s\n", why.c_str());
    std::exit(2);
}

long number(const std::string &text)
{
    char *end = nullptr;
    const long v = std::strtol(text.c_str(), &end, 0);
    if (text.empty() || *end != '\0')
        usage("not a number: \"" + text + "\"");
    return v;
}

/* Comma-separated numbers, at most `most` of them. */
std::vector<long> numbers(const std::string &text, size_t most)
{
    std::vector<long> v;
    size_t at = 0;
    while (at <= text.size() && !text.empty()) {
        const size_t comma = text.find(',', at);
        v.push_back(number(text.substr(at, comma == std::string::npos ? std::string::npos : comma - at)));
        if (comma == std::string::npos)
            break;
        at = comma + 1;
    }
    if (v.size() > most)
        usage("too many numbers in \"" + text + "\"");
    return v;
}

FrameBufferInfoRecord record(const std::string &text)
{
    std::vector<std::string> parts;
    size_t at = 0;
    for (size_t colon; (colon = text.find(':', at)) != std::string::npos; at = colon + 1)
        parts.push_back(text.substr(at, colon - at));
    parts.push_back(text.substr(at));
    if (parts.size() > 4)
        usage("a record has at most four parts: \"" + text + "\"");
    FrameBufferInfoRecord r{};
    r.frameBufferName = static_cast<miTag>(number(parts[0]));
    const std::vector<long> flags = parts.size() > 1 ? numbers(parts[1], 9) : std::vector<long>();
    for (size_t k = 0; k < flags.size(); ++k)
        r.flag[k] = static_cast<int>(flags[k]);
    const std::vector<long> host = parts.size() > 2 ? numbers(parts[2], 4) : std::vector<long>();
    for (size_t k = 0; k < host.size(); ++k)
        r.hostData[k] = static_cast<miUint>(host[k]);
    if (parts.size() > 3)
        r.hostTail = static_cast<miUint>(number(parts[3]));
    return r;
}

void setHeaderWord(fbufw::FbufContent &c, const std::string &text)
{
    const size_t eq = text.find('=');
    if (eq == std::string::npos)
        usage("--set takes FIELD=N");
    const std::string field = text.substr(0, eq);
    const int v = static_cast<int>(number(text.substr(eq + 1)));
    if (field == "nonMaterialPassesFirst") c.nonMaterialPassesFirst = v;
    else if (field == "nonMaterialPassesCount") c.nonMaterialPassesCount = v;
    else if (field == "frameBufferInfoFirst") c.frameBufferInfoFirst = v;
    else if (field == "frameBufferInfoCount") c.frameBufferInfoCount = v;
    else if (field == "typeCountsFirst") c.typeCountsFirst = v;
    else if (field == "typeCountsCount") c.typeCountsCount = v;
    else usage("unknown header word \"" + field + "\"");
}

} // namespace

int main(int argc, char **argv)
{
    fbufw::FbufContent c;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--inline") {
            c.inlineSingleElements = true;
            continue;
        }
        if (i + 1 >= argc)
            usage("\"" + arg + "\" needs a value");
        const std::string value = argv[++i];
        if (arg == "--record")
            c.records.push_back(record(value));
        else if (arg == "--nonmat")
            c.nonMaterialPasses.push_back(static_cast<miTag>(number(value)));
        else if (arg == "--counts")
            for (long n : numbers(value, 4096))
                c.typeCounts.push_back(static_cast<int>(n));
        else if (arg == "--set")
            setHeaderWord(c, value);
        else
            usage("unknown option \"" + arg + "\"");
    }
    const std::vector<uint32_t> words = fbufw::writeFbuf(c);
    if (std::fwrite(words.data(), 4, words.size(), stdout) != words.size())
        return 1;
    return std::fflush(stdout) == 0 ? 0 : 1;
}
