#include "fbuf_builder.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <stdexcept>

namespace fbtest {

/* ------------------------------------------------------------ declarations */

FrameBufferDecl &FrameBufferDecl::flag(int word, int value)
{
    if (word < 1 || word > 9)
        throw std::out_of_range("frameBufferInfo flag words are 1..9");
    words[word - 1] = value;
    return *this;
}

FrameBufferDecl &FrameBufferDecl::host(miUint a, miUint b, miUint c, miUint d, miUint tail)
{
    hostData[0] = a;
    hostData[1] = b;
    hostData[2] = c;
    hostData[3] = d;
    hostTail = tail;
    return *this;
}

FrameBufferDecl &FrameBufferDecl::undeclared()
{
    declared = false;
    return *this;
}

FrameBufferDecl &FrameBufferDecl::noName()
{
    nullName = true;
    declared = false;
    return *this;
}

/* ------------------------------------------------------------ builder */

FrameBufferDecl &FbufBuilder::add(const std::string &name, int passType)
{
    FrameBufferDecl d;
    d.name = name;
    d.passType = passType;
    fbs_.push_back(d);
    return fbs_.back();
}

NonMaterialDecl &FbufBuilder::addNonMaterialPass(const std::string &name)
{
    NonMaterialDecl d;
    d.name = name;
    nonMat_.push_back(d);
    return nonMat_.back();
}

std::vector<FrameBufferDecl> FbufBuilder::frameBuffers() const
{
    std::vector<FrameBufferDecl> sorted = fbs_;
    std::stable_sort(sorted.begin(), sorted.end(),
                     [](const FrameBufferDecl &a, const FrameBufferDecl &b) {
                         return a.passType < b.passType;
                     });
    return sorted;
}

std::vector<int> FbufBuilder::typeCounts() const
{
    std::vector<int> counts(DRUX_PASS_TYPES, 0);
    for (const FrameBufferDecl &d : fbs_)
        if (d.passType >= 0 && d.passType < DRUX_PASS_TYPES)
            counts[d.passType] += 1;
    return counts;
}

FbufBuilder &FbufBuilder::nonMaterialFirst(int first) { nonMatFirst_ = first; return *this; }
FbufBuilder &FbufBuilder::frameBufferInfoFirst(int first) { fbFirst_ = first; return *this; }
FbufBuilder &FbufBuilder::typeCountsFirst(int first) { tcFirst_ = first; return *this; }
FbufBuilder &FbufBuilder::nonMaterialCount(int count) { nonMatCount_ = count; return *this; }
FbufBuilder &FbufBuilder::frameBufferInfoCount(int count) { fbCount_ = count; return *this; }

FbufBuilder &FbufBuilder::typeCountsLength(int length, int fill)
{
    tcLength_ = std::max(0, length);
    tcFill_ = fill;
    return *this;
}

FbufBuilder &FbufBuilder::typeCount(int type, int count)
{
    tcOverride_.emplace_back(type, count);
    return *this;
}

FbufBuilder &FbufBuilder::inlineSingleElements(bool on) { inline_ = on; return *this; }
FbufBuilder &FbufBuilder::byteSwapped(bool on) { swapped_ = on; return *this; }
FbufBuilder &FbufBuilder::byteSwappedMagic(bool on) { swappedMagic_ = on; return *this; }
FbufBuilder &FbufBuilder::truncate(size_t bytes) { truncate_ = bytes; return *this; }
FbufBuilder &FbufBuilder::parameterSizeOverride(int size) { paramSize_ = size; return *this; }

fbufw::FbufContent FbufBuilder::content(bool makeNames) const
{
    fbufw::FbufContent c;
    for (const NonMaterialDecl &d : nonMat_)
        c.nonMaterialPasses.push_back(makeNames && !d.nullName ? mirt::db_create_string(d.name.c_str()) : 0);
    for (const FrameBufferDecl &d : frameBuffers()) {
        FrameBufferInfoRecord r{};
        if (d.nameTagOverride)
            r.frameBufferName = d.nameTagOverride;
        else if (makeNames && !d.nullName)
            r.frameBufferName = mirt::db_create_string(d.name.c_str());
        std::copy(d.words, d.words + 9, r.flag);
        std::copy(d.hostData, d.hostData + 4, r.hostData);
        r.hostTail = d.hostTail;
        c.records.push_back(r);
    }
    c.typeCounts = typeCounts();
    for (const auto &o : tcOverride_)
        if (o.first >= 0 && o.first < DRUX_PASS_TYPES)
            c.typeCounts[static_cast<size_t>(o.first)] = o.second;
    c.typeCounts.resize(static_cast<size_t>(tcLength_), tcFill_);
    c.inlineSingleElements = inline_;
    c.nonMaterialPassesFirst = nonMatFirst_;
    c.nonMaterialPassesCount = nonMatCount_;
    c.frameBufferInfoFirst = fbFirst_;
    c.frameBufferInfoCount = fbCount_;
    c.typeCountsFirst = tcFirst_;
    return c;
}

size_t FbufBuilder::recordsOffset() const { return fbufw::fbufLayout(content(false)).records; }

std::vector<uint32_t> FbufBuilder::words() const
{
    std::vector<uint32_t> w = fbufw::writeFbuf(content(true));
    /* damage on top of the writer's block */
    if (truncate_ && *truncate_ / 4 < w.size())
        w.resize((*truncate_ + 3) / 4);
    if (swapped_)
        for (uint32_t &v : w)
            v = byteSwap32(v);
    else if (swappedMagic_ && !w.empty())
        w[0] = byteSwap32(w[0]);
    return w;
}

miTag FbufBuilder::build(miTag next) const
{
    std::vector<uint32_t> w = words();
    size_t bytes = w.size() * 4;
    if (truncate_ && *truncate_ < bytes)
        bytes = *truncate_;
    miTag tag = mirt::db_create_userdata(w.data(), bytes, next);
    miUserdata *ud = static_cast<miUserdata *>(mirt::db_data(tag));
    ud->parameter_size = paramSize_.value_or(static_cast<int>(bytes));
    return tag;
}

/* ------------------------------------------------------------ context wiring */

namespace {
/* State shaders take a fourth argument; the shader record stores them under
   the common shader type and the renderer calls them with the operation. */
template <class F> miShader_fn asShader(F *fn)
{
    return reinterpret_cast<miShader_fn>(reinterpret_cast<void (*)(void)>(fn));
}
} // namespace

miTag makeStateShader()
{
    return mirt::make_function(miSHADER_STATE, asShader(&druxFrameBufferState),
                               nullptr, 0, 0, false, "druxFrameBufferState");
}

miTag makeInitShader(const InitRequest &request)
{
    druxFrameBufferInit_params p;
    p.nonMaterialPass = request.nonMaterialPass;
    p.initColor = request.initColor;
    return mirt::make_function(miSHADER_STATE, asShader(&druxFrameBufferInit),
                               &p, sizeof p, 0, request.connectable, "druxFrameBufferInit");
}

FbufSetup install(mirt::Context &ctx, const FbufBuilder &builder, const InstallOptions &options)
{
    FbufSetup s;
    std::map<std::string, int> declared;
    auto declare = [&](const std::string &name) {
        auto it = declared.find(name);
        if (it != declared.end())
            return it->second;
        int index = ctx.add_framebuffer(name);
        declared[name] = index;
        return index;
    };
    for (const FrameBufferDecl &d : builder.frameBuffers())
        s.fbIndex.push_back(d.declared && !d.nullName ? declare(d.name) : 0);
    for (const NonMaterialDecl &d : builder.nonMaterialPasses())
        s.nonMaterialIndex.push_back(d.declared && !d.nullName ? declare(d.name) : 0);

    s.block = builder.build();
    if (options.attachBlock)
        ctx.attach_camera_userdata(s.block);
    if (options.registerStateShader) {
        s.stateShader = makeStateShader();
        ctx.add_state_shader(s.stateShader);
    }
    for (const InitRequest &r : options.inits) {
        miTag fn = makeInitShader(r);
        s.initShaders.push_back(fn);
        ctx.add_state_shader(fn);
    }
    return s;
}

PassRig::PassRig(const FbufBuilder &builder, int traceDepth)
{
    ctx.options().trace_depth = traceDepth;
    install(ctx, builder);
    st = ctx.begin_state();
    ctx.begin_sample(st, 0, 0);
    n = getFrameBufferInfo(st, &types, &e);
}

PassRig::~PassRig() { ctx.end_state(st); }

uint32_t byteSwap32(uint32_t v)
{
    return (v >> 24) | ((v >> 8) & 0xFF00u) | ((v << 8) & 0xFF0000u) | (v << 24);
}

} // namespace fbtest
