#include "exporter.h"

#include "fbuf_writer.h"

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

bool receivesLight(PassRole r)
{
    return r == PassRole::Beauty || r == PassRole::Diffuse || r == PassRole::Specular ||
           r == PassRole::Shadow || r == PassRole::LightGroup;
}

} // namespace

std::vector<uint32_t> buildFbufBlock(const SceneDesc &scene, const PassLayout &layout,
                                     const std::function<miTag(const std::string &)> &nameTag)
{
    fbufw::FbufContent c;
    for (int pi : layout.constantPass)
        c.nonMaterialPasses.push_back(nameTag(scene.passes[static_cast<size_t>(pi)].name));
    for (int pi : layout.entryPass) {
        const PassDesc &p = scene.passes[static_cast<size_t>(pi)];
        FrameBufferInfoRecord r{};
        r.frameBufferName = nameTag(p.name);
        /* flag word k -> flag bit 1 << (k - 1) */
        r.flag[8 - 1] = receivesLight(p.role) ? 1 : 0;
        r.flag[9 - 1] = p.allOccluders ? 1 : 0;
        r.hostData[0] = static_cast<miUint>(p.role);
        r.hostData[1] = static_cast<miUint>(pi);
        if (p.role == PassRole::LightGroup)
            for (size_t g = 0; g < layout.groups.size(); ++g)
                if (layout.groups[g] == p.group)
                    r.hostData[2] = static_cast<miUint>(g + 1);
        c.records.push_back(r);
    }
    c.typeCounts = layout.typeCounts;
    return fbufw::writeFbuf(c);
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
