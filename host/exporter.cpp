#include "exporter.h"

#include <algorithm>
#include <cstddef>

namespace druxhost {

int PassLayout::entryOf(int passIndex) const
{
    for (size_t i = 0; i < entryPass.size(); ++i)
        if (entryPass[i] == passIndex)
            return static_cast<int>(i);
    return -1;
}

PassLayout layoutPasses(const SceneDesc &scene)
{
    PassLayout l;
    l.typeCounts.assign(DRUX_PASS_TYPES, 0);
    for (size_t i = 0; i < scene.passes.size(); ++i) {
        const PassDesc &p = scene.passes[i];
        if (p.role == PassRole::Constant) {
            l.constantPass.push_back(static_cast<int>(i));
            continue;
        }
        l.entryPass.push_back(static_cast<int>(i));
        l.typeCounts[static_cast<size_t>(passTypeOf(p.role))] += 1;
        if (p.role == PassRole::LightGroup &&
            std::find(l.groups.begin(), l.groups.end(), p.group) == l.groups.end())
            l.groups.push_back(p.group);
    }
    /* records ordered by type, scene order within a type */
    std::stable_sort(l.entryPass.begin(), l.entryPass.end(), [&](int a, int b) {
        return passTypeOf(scene.passes[static_cast<size_t>(a)].role) <
               passTypeOf(scene.passes[static_cast<size_t>(b)].role);
    });
    return l;
}

namespace {

constexpr size_t kFixed = sizeof(FrameBufferDataBlock); /* 96 */
constexpr size_t kNonMatSlot = offsetof(FrameBufferDataBlock, nonMaterialPasses);
constexpr size_t kRecordSlot = offsetof(FrameBufferDataBlock, frameBufferInfo);
constexpr size_t kTypeSlot = offsetof(FrameBufferDataBlock, typeCounts);
constexpr size_t kRecord = sizeof(FrameBufferInfoRecord);

void put(std::vector<uint32_t> &w, size_t byteOffset, uint32_t v) { w.at(byteOffset / 4) = v; }

bool receivesLight(PassRole r)
{
    return r == PassRole::Beauty || r == PassRole::Diffuse || r == PassRole::Specular ||
           r == PassRole::Shadow || r == PassRole::LightGroup;
}

} // namespace

std::vector<uint32_t> buildFbufBlock(const SceneDesc &scene, const PassLayout &layout,
                                     const std::function<miTag(const std::string &)> &nameTag)
{
    /* Layout: the fixed 96 bytes, then the 35 type counts, the non-material
       name tags, and the 60-byte records, each array stored so that element k
       lies at its storage slot + (first + k) elements. */
    const size_t typeAt = kFixed;
    const size_t nonMatAt = typeAt + 4 * DRUX_PASS_TYPES;
    const size_t afterNonMat = nonMatAt + 4 * layout.constantPass.size();
    const size_t recFirst = (afterNonMat - kRecordSlot + kRecord - 1) / kRecord;
    const size_t recAt = kRecordSlot + recFirst * kRecord;
    const size_t total = recAt + kRecord * layout.entryPass.size();

    std::vector<uint32_t> w(total / 4, 0u);
    put(w, 0, FBUF_MAGIC);

    put(w, 4, static_cast<uint32_t>((nonMatAt - kNonMatSlot) / 4));
    put(w, 8, static_cast<uint32_t>(layout.constantPass.size()));
    for (size_t k = 0; k < layout.constantPass.size(); ++k)
        put(w, nonMatAt + 4 * k, nameTag(scene.passes[static_cast<size_t>(layout.constantPass[k])].name));

    put(w, 16, static_cast<uint32_t>(recFirst));
    put(w, 20, static_cast<uint32_t>(layout.entryPass.size()));
    for (size_t k = 0; k < layout.entryPass.size(); ++k) {
        const int pi = layout.entryPass[k];
        const PassDesc &p = scene.passes[static_cast<size_t>(pi)];
        const size_t at = recAt + kRecord * k;
        put(w, at, nameTag(p.name));
        /* words 1..9 -> flag bits 0x1 .. 0x100 */
        put(w, at + 4 * 8, receivesLight(p.role) ? 1u : 0u);
        put(w, at + 4 * 9, p.allOccluders ? 1u : 0u);
        put(w, at + 40, static_cast<uint32_t>(p.role));
        put(w, at + 44, static_cast<uint32_t>(pi));
        uint32_t group = 0;
        if (p.role == PassRole::LightGroup)
            for (size_t g = 0; g < layout.groups.size(); ++g)
                if (layout.groups[g] == p.group)
                    group = static_cast<uint32_t>(g + 1);
        put(w, at + 48, group);
    }

    put(w, 84, static_cast<uint32_t>((typeAt - kTypeSlot) / 4));
    put(w, 88, static_cast<uint32_t>(DRUX_PASS_TYPES));
    for (int t = 0; t < DRUX_PASS_TYPES; ++t)
        put(w, typeAt + 4 * static_cast<size_t>(t), static_cast<uint32_t>(layout.typeCounts[static_cast<size_t>(t)]));
    return w;
}

std::string maskText(const std::vector<bool> &on)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string s((on.size() + 3) / 4, '0');
    for (size_t i = 0; i < on.size(); ++i)
        if (on[i])
            s[i / 4] = digits[(s[i / 4] <= '9' ? s[i / 4] - '0' : s[i / 4] - 'A' + 10) | (1 << (i % 4))];
    return s;
}

std::string lightMask(const SceneDesc &scene, const PassLayout &layout, const LightDesc &light)
{
    if (layout.groups.empty())
        return std::string();
    std::vector<bool> on;
    for (int pi : layout.entryPass) {
        const PassDesc &p = scene.passes[static_cast<size_t>(pi)];
        on.push_back(p.role != PassRole::LightGroup || p.group == light.group);
    }
    return maskText(on);
}

std::string occluderMask(const SceneDesc &scene, const PassLayout &layout, const InstanceDesc &instance)
{
    if (instance.shadowPasses.empty())
        return std::string();
    std::vector<bool> on;
    for (int pi : layout.entryPass) {
        const std::string &name = scene.passes[static_cast<size_t>(pi)].name;
        on.push_back(std::find(instance.shadowPasses.begin(), instance.shadowPasses.end(), name) !=
                     instance.shadowPasses.end());
    }
    /* All zeros is a valid mask ("no pass"): it is not empty text. */
    return maskText(on);
}

} // namespace druxhost
