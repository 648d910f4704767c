#include "render.h"

#include "contact_sheet.h"
#include "pass_images.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace druxhost {

std::vector<std::string> outputFileNames(const std::vector<std::string> &passNames)
{
    std::vector<std::string> names{"render.exr", "main.png"};
    for (const std::string &p : passNames)
        names.push_back(p + ".png");
    names.push_back("contact.png");
    return names;
}

std::vector<std::string> writeOutputs(const RenderResult &r, const std::string &dir)
{
    const std::vector<std::string> names = outputFileNames(r.passNames);
    std::vector<std::string> files;
    std::vector<Layer> layers;
    layers.push_back(Layer{"", &r.main});
    bool zWritten = false;
    for (size_t i = 0; i < r.passes.size(); ++i) {
        /* the first depth pass is the file's Z channel, any other <name>.Z */
        const bool depth = r.passRoles[i] == PassRole::Depth;
        layers.push_back(Layer{depth && !zWritten ? std::string() : r.passNames[i], &r.passes[i], depth});
        zWritten = zWritten || depth;
    }
    std::vector<std::pair<std::string, std::string>> attributes;
    for (const CryptoMatte &m : r.mattes) {
        for (size_t l = 0; l < m.layers.size(); ++l)
            layers.push_back(Layer{m.layerName(static_cast<int>(l)), &m.layers[l]});
        for (const auto &a : m.attributes())
            attributes.push_back(a);
    }
    files.push_back(dir + "/" + names[0]);
    writeExr(files.back(), layers, attributes);
    files.push_back(dir + "/" + names[1]);
    writePng(files.back(), r.main);
    for (size_t i = 0; i < r.passes.size(); ++i) {
        files.push_back(dir + "/" + names[2 + i]);
        writePng(files.back(), displayImage(r.passRoles[i], r.passes[i]));
    }
    files.push_back(dir + "/" + names.back());
    writePng(files.back(), makeContactSheet(contactTiles(r)).image);
    return files;
}

std::string probeOutputs(const std::string &dir, const std::vector<std::string> &files)
{
    for (const std::string &name : files) {
        const std::string path = dir + "/" + name;
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd >= 0) {
            ::close(fd);
            if (::unlink(path.c_str()) != 0)
                return "cannot remove the test file " + path + ": " + std::strerror(errno);
            continue;
        }
        if (errno == EEXIST) { /* an earlier render's file: may it be replaced? */
            const int old = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
            if (old >= 0) {
                ::close(old);
                continue;
            }
        }
        return "cannot write " + path + ": " + std::strerror(errno);
    }
    return "";
}

WrittenOutputs writeOutputsOrFallback(const RenderResult &r, const std::string &dir)
{
    WrittenOutputs out;
    try {
        out.files = writeOutputs(r, dir);
        out.dir = dir;
        return out;
    } catch (const std::exception &e) {
        out.failure = e.what();
    }
    std::error_code ec;
    const std::filesystem::path tmp = std::filesystem::temp_directory_path(ec);
    if (ec)
        throw std::runtime_error(out.failure + "; no temporary directory for the images: " + ec.message());
    const std::string base = (tmp / ("druxrender-" + std::to_string(::getpid()) + "-")).string();
    for (int k = 0; k < 1000 && out.dir.empty(); ++k)
        if (::mkdir((base + std::to_string(k)).c_str(), 0777) == 0)
            out.dir = base + std::to_string(k);
    if (out.dir.empty())
        throw std::runtime_error(out.failure + "; cannot create a folder under " + tmp.string() + " either: " +
                                 std::strerror(errno));
    try {
        out.files = writeOutputs(r, out.dir);
    } catch (const std::exception &e) {
        throw std::runtime_error(out.failure + "; writing to " + out.dir + " failed too: " + e.what());
    }
    return out;
}

} // namespace druxhost
