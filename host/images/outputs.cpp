#include "outputs.h"

#include "contact_sheet.h"
#include "image_stats.h"
#include "partial.h"
#include "pass_images.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace druxhost {

const Image *RenderImages::pass(const std::string &name) const
{
    for (size_t i = 0; i < passNames.size(); ++i)
        if (passNames[i] == name)
            return &passes[i];
    return nullptr;
}

std::vector<std::string> outputFileNames(const std::vector<std::string> &passNames)
{
    std::vector<std::string> names{"render.exr", "main.png"};
    for (const std::string &p : passNames)
        names.push_back(p + ".png");
    names.push_back("contact.png");
    return names;
}

namespace {

bool exists(const std::string &path)
{
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

void syncFolder(const std::string &dir)
{
    const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        ::fsync(fd);
        ::close(fd);
    }
}

} // namespace

StagedFiles::StagedFiles(const std::string &dir) : dir_(dir) {}

StagedFiles::~StagedFiles()
{
    for (const Entry &e : entries_)
        ::unlink(e.temp.c_str());
}

std::string StagedFiles::stage(const std::string &name)
{
    const std::string prefix = dir_ + "/.druxrender-" + std::to_string(::getpid()) + "-";
    entries_.push_back(Entry{dir_ + "/" + name, prefix + "new-" + name, prefix + "old-" + name});
    return entries_.back().temp;
}

std::vector<std::string> StagedFiles::commit()
{
    /* Hard links keep every earlier file under a second name, so that a
       rename failing half-way can put the earlier render back whole. */
    std::vector<bool> kept(entries_.size(), false);
    auto dropKept = [&] {
        for (size_t i = 0; i < entries_.size(); ++i)
            if (kept[i])
                ::unlink(entries_[i].backup.c_str());
    };
    for (size_t i = 0; i < entries_.size(); ++i) {
        const Entry &e = entries_[i];
        if (!exists(e.path))
            continue;
        ::unlink(e.backup.c_str());
        if (::link(e.path.c_str(), e.backup.c_str()) != 0) {
            const int err = errno;
            dropKept();
            throw std::runtime_error("cannot keep the earlier " + e.path + " while replacing it: " +
                                     std::strerror(err));
        }
        kept[i] = true;
    }
    for (size_t i = 0; i < entries_.size(); ++i) {
        if (::rename(entries_[i].temp.c_str(), entries_[i].path.c_str()) == 0)
            continue;
        const int err = errno;
        for (size_t j = 0; j < i; ++j) {
            const Entry &e = entries_[j];
            if (kept[j])
                ::rename(e.backup.c_str(), e.path.c_str());
            else
                ::unlink(e.path.c_str());
            kept[j] = false;
        }
        dropKept();
        throw std::runtime_error("cannot move " + entries_[i].temp + " to " + entries_[i].path + ": " +
                                 std::strerror(err));
    }
    dropKept();
    syncFolder(dir_);
    std::vector<std::string> paths;
    for (const Entry &e : entries_)
        paths.push_back(e.path);
    entries_.clear();
    return paths;
}

std::vector<std::string> writeOutputs(const RenderImages &r, const std::string &dir, const std::atomic<int> *stop)
{
    const std::vector<std::string> names = outputFileNames(r.passNames);
    StagedFiles staged(dir);
    /* a stop asked for while writing leaves the earlier render as it was */
    auto next = [&](const std::string &name) {
        if (stop && stop->load())
            throw RenderInterrupted(stop->load());
        return staged.stage(name);
    };
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
    if (!r.fingerprint.empty())
        attributes.emplace_back("druxrender/fingerprint", r.fingerprint);
    for (const CryptoMatte &m : r.mattes) {
        for (size_t l = 0; l < m.layers.size(); ++l)
            layers.push_back(Layer{m.layerName(static_cast<int>(l)), &m.layers[l]});
        for (const auto &a : m.attributes())
            attributes.push_back(a);
    }
    writeExr(next(names[0]), layers, attributes);
    writePng(next(names[1]), r.main);
    for (size_t i = 0; i < r.passes.size(); ++i)
        writePng(next(names[2 + i]), displayImage(r.passRoles[i], r.passes[i]));
    writePng(next(names.back()), makeContactSheet(contactTiles(r)).image);
    if (stop && stop->load())
        throw RenderInterrupted(stop->load());
    return staged.commit();
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

WrittenOutputs writeOutputsOrFallback(const RenderImages &r, const std::string &dir, const std::atomic<int> *stop)
{
    WrittenOutputs out;
    try {
        out.files = writeOutputs(r, dir, stop);
        out.dir = dir;
        return out;
    } catch (const RenderInterrupted &) {
        throw;
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
        out.files = writeOutputs(r, out.dir, stop);
    } catch (const RenderInterrupted &) {
        ::rmdir(out.dir.c_str());
        throw;
    } catch (const std::exception &e) {
        throw std::runtime_error(out.failure + "; writing to " + out.dir + " failed too: " + e.what());
    }
    return out;
}

/* Written under a temporary name in the file's folder and moved into
   place: an earlier statistics file stays whole when writing fails. */
void writeStatsFile(const RenderImages &result, const std::string &path)
{
    writeTextFile(path, formatStats(imageStats(result)));
}

void writeTextFile(const std::string &path, const std::string &text)
{
    const size_t slash = path.rfind('/');
    StagedFiles staged(slash == std::string::npos ? std::string(".") : path.substr(0, slash));
    const std::string temp = staged.stage(path.substr(slash == std::string::npos ? 0 : slash + 1));
    FILE *f = std::fopen(temp.c_str(), "w");
    if (!f)
        throw std::runtime_error("cannot write " + path + ": " + std::strerror(errno));
    const bool wrote = std::fwrite(text.data(), 1, text.size(), f) == text.size();
    closeWrittenFile(f, temp);
    if (!wrote)
        throw std::runtime_error("cannot write " + path);
    staged.commit();
}

WrittenOutputs mergeAndWrite(const std::vector<std::string> &partials, const std::string &dir,
                             const std::string &statsPath, const std::atomic<int> *stop)
{
    const RenderImages whole = mergePartials(partials);
    WrittenOutputs written = writeOutputsOrFallback(whole, dir, stop);
    if (!statsPath.empty())
        writeStatsFile(whole, statsPath);
    return written;
}

} // namespace druxhost
