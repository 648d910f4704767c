#include "image_io.h"

#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfFrameBuffer.h>
#include <OpenEXR/ImfHeader.h>
#include <OpenEXR/ImfIO.h>
#include <OpenEXR/ImfInputFile.h>
#include <OpenEXR/ImfOutputFile.h>
#include <OpenEXR/ImfStringAttribute.h>
#include <png.h>

#include <cerrno>
#include <cstdint>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <memory>
#include <stdexcept>
#include <unistd.h>

namespace druxhost {

namespace {

const char *const kChannels[4] = {"R", "G", "B", "A"};

std::string channelName(const std::string &layer, int c)
{
    return layer.empty() ? std::string(kChannels[c]) : layer + "." + kChannels[c];
}

struct FileCloser {
    void operator()(FILE *f) const
    {
        if (f)
            std::fclose(f);
    }
};

/* An OpenEXR output stream on a file descriptor that keeps the first write
   error: OpenEXR writes the line offset table from the output file's
   destructor and drops any error there, so the writer asks error() once the
   file object is gone. */
class FdOStream : public Imf::OStream {
public:
    FdOStream(int fd, const std::string &path) : Imf::OStream(path.c_str()), fd_(fd) {}
    void write(const char c[], int n) override
    {
        while (n > 0) {
            const ssize_t k = ::write(fd_, c, static_cast<size_t>(n));
            if (k < 0 && errno == EINTR)
                continue;
            if (k <= 0)
                fail(k < 0 ? errno : EIO);
            c += k;
            n -= static_cast<int>(k);
            pos_ += static_cast<uint64_t>(k);
        }
    }
    uint64_t tellp() override { return pos_; }
    void seekp(uint64_t pos) override
    {
        if (::lseek(fd_, static_cast<off_t>(pos), SEEK_SET) < 0)
            fail(errno);
        pos_ = pos;
    }
    int error() const { return error_; }

private:
    [[noreturn]] void fail(int e)
    {
        if (!error_)
            error_ = e;
        throw std::runtime_error(std::strerror(e));
    }
    int fd_;
    int error_ = 0;
    uint64_t pos_ = 0;
};

/* Ends a write: the data must reach the disk (flush, sync) and the file
   must close without error, else the file is not whole. */
std::string syncAndClose(int fd)
{
    std::string why;
    if (::fsync(fd) != 0)
        why = std::strerror(errno);
    if (::close(fd) != 0 && why.empty())
        why = std::strerror(errno);
    return why;
}

} // namespace

void closeWrittenFile(FILE *f, const std::string &path)
{
    std::string why;
    if (std::fflush(f) != 0 || std::ferror(f))
        why = std::strerror(errno ? errno : EIO);
    const int fd = ::dup(fileno(f));
    if (std::fclose(f) != 0 && why.empty())
        why = std::strerror(errno);
    if (fd >= 0) {
        const std::string synced = syncAndClose(fd);
        if (why.empty())
            why = synced;
    } else if (why.empty()) {
        why = std::strerror(errno);
    }
    if (!why.empty())
        throw std::runtime_error("cannot write " + path + ": " + why);
}

void writeExr(const std::string &path, const std::vector<Layer> &layers,
              const std::vector<std::pair<std::string, std::string>> &attributes, const ExrWindow &window)
{
    if (layers.empty())
        throw std::runtime_error("writeExr: no layers");
    const int w = layers.front().image->width, h = layers.front().image->height;
    for (const Layer &l : layers)
        if (!l.image || l.image->width != w || l.image->height != h)
            throw std::runtime_error("writeExr: layer \"" + l.name + "\" has another size");
    try {
        const bool whole = window.displayWidth <= 0 || window.displayHeight <= 0;
        const Imath::Box2i display(Imath::V2i(0, 0), whole ? Imath::V2i(w - 1, h - 1)
                                                           : Imath::V2i(window.displayWidth - 1,
                                                                        window.displayHeight - 1));
        const int x0 = whole ? 0 : window.x0, y0 = whole ? 0 : window.y0;
        const Imath::Box2i data(Imath::V2i(x0, y0), Imath::V2i(x0 + w - 1, y0 + h - 1));
        Imf::Header header(display, data);
        header.compression() = Imf::ZIP_COMPRESSION;
        for (const auto &a : attributes)
            header.insert(a.first, Imf::StringAttribute(a.second));
        Imf::FrameBuffer fb;
        for (const Layer &l : layers)
            for (int c = 0; c < (l.depth ? 1 : 4); ++c) {
                const std::string name = l.depth ? (l.name.empty() ? "Z" : l.name + ".Z") : channelName(l.name, c);
                header.channels().insert(name, Imf::Channel(Imf::FLOAT));
                /* the frame buffer is addressed by the file's pixel coordinates */
                char *base = reinterpret_cast<char *>(const_cast<float *>(l.image->rgba.data())) + c * sizeof(float) -
                             (size_t(x0) + size_t(y0) * size_t(w)) * 4 * sizeof(float);
                fb.insert(name, Imf::Slice(Imf::FLOAT, base, 4 * sizeof(float), 4 * sizeof(float) * size_t(w)));
            }
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
        if (fd < 0)
            throw std::runtime_error(std::strerror(errno));
        FdOStream out(fd, path);
        try {
            Imf::OutputFile file(out, header);
            file.setFrameBuffer(fb);
            file.writePixels(h);
        } catch (...) {
            ::close(fd);
            throw;
        }
        std::string why = out.error() ? std::strerror(out.error()) : "";
        const std::string closed = syncAndClose(fd);
        if (why.empty())
            why = closed;
        if (!why.empty())
            throw std::runtime_error(why);
    } catch (const std::exception &ex) {
        throw std::runtime_error("cannot write " + path + ": " + ex.what());
    }
}

std::vector<std::pair<std::string, Image>> readExr(const std::string &path, ExrWindow *window)
{
    std::vector<std::pair<std::string, Image>> out;
    try {
        Imf::InputFile file(path.c_str());
        const Imath::Box2i dw = file.header().dataWindow();
        const Imath::Box2i disp = file.header().displayWindow();
        const int w = dw.max.x - dw.min.x + 1, h = dw.max.y - dw.min.y + 1;
        if (w <= 0 || h <= 0 || uint64_t(w) * uint64_t(h) > (uint64_t(1) << 31))
            throw std::runtime_error("a data window this reader does not take");
        if (window)
            *window = ExrWindow{disp.max.x - disp.min.x + 1, disp.max.y - disp.min.y + 1, dw.min.x, dw.min.y};
        std::map<std::string, size_t> layerIndex;
        for (Imf::ChannelList::ConstIterator it = file.header().channels().begin();
             it != file.header().channels().end(); ++it) {
            const std::string name = it.name();
            const size_t dot = name.rfind('.');
            std::string layer = dot == std::string::npos ? std::string() : name.substr(0, dot);
            if (name == "Z")
                layer = "Z";
            if (layerIndex.emplace(layer, out.size()).second)
                out.emplace_back(layer, Image(w, h));
        }
        Imf::FrameBuffer fb;
        for (auto &entry : out)
            for (int c = 0; c < 4; ++c) {
                std::string name = channelName(entry.first, c);
                if (c == 0 && !file.header().channels().findChannel(name))
                    name = entry.first == "Z" ? "Z" : entry.first + ".Z";
                if (!file.header().channels().findChannel(name))
                    continue;
                char *base = reinterpret_cast<char *>(entry.second.rgba.data()) + c * sizeof(float) -
                             (size_t(dw.min.x) + size_t(dw.min.y) * size_t(w)) * 4 * sizeof(float);
                fb.insert(name, Imf::Slice(Imf::FLOAT, base, 4 * sizeof(float), 4 * sizeof(float) * size_t(w)));
            }
        file.setFrameBuffer(fb);
        file.readPixels(dw.min.y, dw.max.y);
    } catch (const std::exception &ex) {
        throw std::runtime_error("cannot read " + path + ": " + ex.what());
    }
    return out;
}

std::vector<std::pair<std::string, std::string>> readExrAttributes(const std::string &path)
{
    std::vector<std::pair<std::string, std::string>> out;
    try {
        Imf::InputFile file(path.c_str());
        for (Imf::Header::ConstIterator it = file.header().begin(); it != file.header().end(); ++it)
            if (const Imf::StringAttribute *a = dynamic_cast<const Imf::StringAttribute *>(&it.attribute()))
                out.emplace_back(it.name(), a->value());
    } catch (const std::exception &ex) {
        throw std::runtime_error("cannot read " + path + ": " + ex.what());
    }
    return out;
}

namespace {

/* The sRGB code by the formula: linear segment near black, power 1/2.4
   above it, rounded to the nearest code. */
unsigned char srgbCode(float v)
{
    if (!(v > 0.0f))
        return 0;
    if (v >= 1.0f)
        return 255;
    const float s = v <= 0.0031308f ? 12.92f * v : 1.055f * std::pow(v, 1.0f / 2.4f) - 0.055f;
    return static_cast<unsigned char>(std::lround(s * 255.0f));
}

/* For each code k from 1 to 255, the smallest float whose code is k or
   more: the code grows with the value, so a value's code is the number of
   these it reaches.  Found once by bisecting the float bit patterns of
   (0, 1) with the formula itself, so every value gets exactly the formula's
   code at a few compares instead of a power per channel. */
struct SrgbSteps {
    float at[256];
    SrgbSteps()
    {
        at[0] = 0.0f;
        uint32_t one;
        const float f1 = 1.0f;
        std::memcpy(&one, &f1, sizeof one);
        for (int k = 1; k < 256; ++k) {
            uint32_t lo = 0, hi = one; /* code(lo) < k <= code(hi) */
            while (hi - lo > 1) {
                const uint32_t mid = lo + (hi - lo) / 2;
                float v;
                std::memcpy(&v, &mid, sizeof v);
                (srgbCode(v) >= k ? hi : lo) = mid;
            }
            std::memcpy(&at[k], &hi, sizeof hi);
        }
    }
};

} // namespace

unsigned char srgbByte(float v)
{
    if (!(v > 0.0f))
        return 0;
    if (v >= 1.0f)
        return 255;
    static const SrgbSteps steps;
    /* the number of steps at or below v, k = 1 .. 255 */
    int k = 0;
    for (int half = 128; half > 0; half >>= 1)
        if (k + half < 256 && steps.at[k + half] <= v)
            k += half;
    return static_cast<unsigned char>(k);
}

namespace {

/* A PNG file open for reading or writing with its libpng structures, all
   released on every way out.  libpng reports errors by longjmp to the
   setjmp of the function using the file, which throws. */
struct PngFile {
    bool writing;
    std::unique_ptr<FILE, FileCloser> f;
    png_structp png = nullptr;
    png_infop info = nullptr;

    PngFile(const std::string &path, bool write) : writing(write), f(std::fopen(path.c_str(), write ? "wb" : "rb"))
    {
        const std::string cannot = std::string(write ? "cannot write " : "cannot read ") + path;
        if (!f)
            throw std::runtime_error(cannot);
        png = write ? png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr)
                    : png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
        info = png ? png_create_info_struct(png) : nullptr;
        if (!png || !info) {
            release();
            throw std::runtime_error(cannot + ": libpng set-up failed");
        }
        png_init_io(png, f.get());
    }
    ~PngFile() { release(); }
    PngFile(const PngFile &) = delete;
    PngFile &operator=(const PngFile &) = delete;

    void release()
    {
        if (writing)
            png_destroy_write_struct(&png, &info);
        else
            png_destroy_read_struct(&png, &info, nullptr);
    }
};

} // namespace

void writePng(const std::string &path, const Image &image)
{
    PngFile file(path, true);
    png_structp png = file.png;
    png_infop info = file.info;
    std::vector<unsigned char> row(static_cast<size_t>(image.width) * 3);
    if (setjmp(png_jmpbuf(png)))
        throw std::runtime_error("cannot write " + path + ": libpng error");
    /* previews: fast compression (a render writes one per pass) */
    png_set_compression_level(png, 1);
    png_set_IHDR(png, info, static_cast<png_uint_32>(image.width), static_cast<png_uint_32>(image.height), 8,
                 PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_set_sRGB(png, info, PNG_sRGB_INTENT_PERCEPTUAL);
    png_write_info(png, info);
    for (int y = 0; y < image.height; ++y) {
        for (int x = 0; x < image.width; ++x) {
            const miColor c = image.at(x, y);
            row[size_t(x) * 3] = srgbByte(c.r);
            row[size_t(x) * 3 + 1] = srgbByte(c.g);
            row[size_t(x) * 3 + 2] = srgbByte(c.b);
        }
        png_write_row(png, row.data());
    }
    png_write_end(png, nullptr);
    closeWrittenFile(file.f.release(), path);
}

std::vector<unsigned char> readPng(const std::string &path, int &width, int &height)
{
    PngFile file(path, false);
    png_structp png = file.png;
    png_infop info = file.info;
    std::vector<unsigned char> pixels;
    if (setjmp(png_jmpbuf(png)))
        throw std::runtime_error("cannot read " + path + ": not a PNG this reader understands");
    png_read_info(png, info);
    if (png_get_color_type(png, info) != PNG_COLOR_TYPE_RGB || png_get_bit_depth(png, info) != 8)
        throw std::runtime_error("cannot read " + path + ": not 8-bit RGB");
    width = static_cast<int>(png_get_image_width(png, info));
    height = static_cast<int>(png_get_image_height(png, info));
    pixels.resize(static_cast<size_t>(width) * static_cast<size_t>(height) * 3);
    for (int y = 0; y < height; ++y)
        png_read_row(png, pixels.data() + static_cast<size_t>(y) * static_cast<size_t>(width) * 3, nullptr);
    png_read_end(png, nullptr);
    return pixels;
}

} // namespace druxhost
