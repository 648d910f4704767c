#include "fbuf_builder.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <stdexcept>

namespace fbtest {

namespace {

constexpr size_t kFixed = sizeof(FrameBufferDataBlock); /* 96 */
constexpr size_t kRecord = sizeof(FrameBufferInfoRecord); /* 60 */
constexpr size_t kNonMatSlot = offsetof(FrameBufferDataBlock, nonMaterialPasses);
constexpr size_t kRecordSlot = offsetof(FrameBufferDataBlock, frameBufferInfo);
constexpr size_t kTypeSlot = offsetof(FrameBufferDataBlock, typeCounts);

/* Smallest offset >= at that lies a whole number of elements past slot. */
size_t alignTo(size_t at, size_t slot, size_t elem)
{
    size_t k = (at - slot + elem - 1) / elem;
    return slot + k * elem;
}

void put(std::vector<uint32_t> &w, size_t byteOffset, uint32_t value)
{
    w.at(byteOffset / 4) = value;
}

} // namespace

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

miUint FrameBufferDecl::flagBits() const
{
    miUint bits = 0;
    for (int k = 1; k <= 9; ++k)
        if (words[k - 1] != 0)
            bits |= 1u << (k - 1);
    return bits;
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

FbufBuilder::Layout FbufBuilder::layout() const
{
    Layout l;
    l.typeCountsLen = tcLength_;
    size_t at = kFixed;
    if (inline_ && l.typeCountsLen <= 1) {
        l.typeCounts = kTypeSlot;
    } else {
        l.typeCounts = at;
        at += 4 * static_cast<size_t>(l.typeCountsLen);
    }
    if (inline_ && nonMat_.size() <= 1) {
        l.nonMat = kNonMatSlot;
    } else {
        l.nonMat = at;
        at += 4 * nonMat_.size();
    }
    if (inline_ && fbs_.size() <= 1) {
        l.records = kRecordSlot;
    } else {
        l.records = alignTo(at, kRecordSlot, kRecord);
        at = l.records + kRecord * fbs_.size();
    }
    l.total = at;
    return l;
}

size_t FbufBuilder::typeCountsOffset() const { return layout().typeCounts; }
size_t FbufBuilder::nonMaterialOffset() const { return layout().nonMat; }
size_t FbufBuilder::recordsOffset() const { return layout().records; }

std::vector<uint32_t> FbufBuilder::words() const
{
    const Layout l = layout();
    std::vector<uint32_t> w(l.total / 4, 0u);

    put(w, 0, FBUF_MAGIC);

    /* non-material passes */
    const int nmFirst = static_cast<int>((l.nonMat - kNonMatSlot) / 4);
    put(w, 4, static_cast<uint32_t>(nonMatFirst_.value_or(nmFirst)));
    put(w, 8, static_cast<uint32_t>(nonMatCount_.value_or(static_cast<int>(nonMat_.size()))));
    for (size_t k = 0; k < nonMat_.size(); ++k) {
        const NonMaterialDecl &d = nonMat_[k];
        miTag tag = d.nullName ? 0 : mirt::db_create_string(d.name.c_str());
        put(w, l.nonMat + 4 * k, tag);
    }

    /* frame-buffer records, sorted by type */
    const std::vector<FrameBufferDecl> fbs = frameBuffers();
    const int fbFirst = static_cast<int>((l.records - kRecordSlot) / kRecord);
    put(w, 16, static_cast<uint32_t>(fbFirst_.value_or(fbFirst)));
    put(w, 20, static_cast<uint32_t>(fbCount_.value_or(static_cast<int>(fbs.size()))));
    for (size_t k = 0; k < fbs.size(); ++k) {
        const FrameBufferDecl &d = fbs[k];
        const size_t at = l.records + kRecord * k;
        miTag tag = 0;
        if (d.nameTagOverride)
            tag = d.nameTagOverride;
        else if (!d.nullName)
            tag = mirt::db_create_string(d.name.c_str());
        put(w, at, tag);
        for (int i = 0; i < 9; ++i)
            put(w, at + 4 + 4 * i, static_cast<uint32_t>(d.words[i]));
        for (int i = 0; i < 4; ++i)
            put(w, at + 40 + 4 * i, d.hostData[i]);
        put(w, at + 56, d.hostTail);
    }

    /* type counts */
    std::vector<int> counts = typeCounts();
    for (const auto &o : tcOverride_)
        if (o.first >= 0 && o.first < DRUX_PASS_TYPES)
            counts[o.first] = o.second;
    const int tcFirst = static_cast<int>((l.typeCounts - kTypeSlot) / 4);
    put(w, 84, static_cast<uint32_t>(tcFirst_.value_or(tcFirst)));
    put(w, 88, static_cast<uint32_t>(l.typeCountsLen));
    for (int t = 0; t < l.typeCountsLen; ++t) {
        int v = t < DRUX_PASS_TYPES ? counts[t] : tcFill_;
        put(w, l.typeCounts + 4 * static_cast<size_t>(t), static_cast<uint32_t>(v));
    }

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

uint32_t byteSwap32(uint32_t v)
{
    return (v >> 24) | ((v >> 8) & 0xFF00u) | ((v << 8) & 0xFF0000u) | (v << 24);
}

} // namespace fbtest
