// drux::MaterialPasses (DruxMaterial.h) on a built pass block: which light
// and which components each pass type receives, that the additive passes
// sum to beauty, the custom-pass rules and the slot bookkeeping; and the
// vector helpers.  DruxMaterial.h is included first, so this file also
// checks that the header compiles on its own.
#include "DruxMaterial.h"

#include "fbuf_builder.h"
#include "expect_values.h"
#include "runtime.h"
#include "runtime_fixture.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

/* One entry per listed pass type, named by `names` ("" for p<index>). */
fbtest::FbufBuilder passBlock(const std::vector<int> &types, const std::vector<std::string> &names)
{
    fbtest::FbufBuilder b;
    for (size_t i = 0; i < types.size(); ++i)
        b.add(names[i].empty() ? "p" + std::to_string(i) : names[i], types[i]);
    return b;
}

class MaterialHelper : public RuntimeTest {};

/* One light sample as the test feeds it: diffuse and specular weights. */
struct Sample {
    float wd, ws;
};

TEST_F(MaterialHelper, EachPassTypeTakesItsComponents)
{
    // Entries in type order (the block lists them so): beauty, diffuse,
    // specular, data, shadow, coverage, light group, reflection, refraction,
    // background, indirect, scatter, two custom passes, one of type 7.
    const std::vector<int> types = {0, 1, 4, 7, 11, 12, 16, 20, 26, 28, 31, 32, 33, 34, 34};
    const std::vector<std::string> names = {"", "", "", "", "", "", "", "", "", "", "", "", "", "mine", "theirs"};
    fbtest::PassRig r(passBlock(types, names));
    PassTypeInfo *pt = r.types;
    FrameBufferInfo *e = r.e;
    const miUint n = r.n;
    ASSERT_EQ(n, types.size());
    for (miUint i = 0; i < n; ++i) {
        ASSERT_EQ(drux_pass_type(pt, i), types[i]) << i;
        e[i].slots[0].accum = miColor{9, 9, 9, 9}; // left over from another material
        e[i].slots[0].slotFlags = 1;
    }

    const miColor dcol{0.5f, 0.25f, 1.0f, 1}, scol{0.2f, 0.4f, 0.8f, 1}, opacity{1.0f, 0.5f, 0.25f, 1};
    drux::MaterialPasses passes(r.st, dcol, scol, opacity);
    ASSERT_EQ(passes.entry_count(), static_cast<int>(n));
    ASSERT_EQ(passes.depth(), 0);
    for (miUint i = 0; i < n; ++i) {
        expectColor(e[i].slots[0].accum, 0, 0, 0, 0, 0, "begin empties the slot");
        EXPECT_EQ(e[i].slots[0].slotFlags, 0u) << i;
    }

    // One light, two samples.  Beauty, diffuse and specular see the same
    // light; the other entries each a light of their own (as a light shader
    // with contribution masks and shadows leaves them).
    auto lightOf = [](miUint i) {
        const float k = i < 3 ? 0.0f : static_cast<float>(i);
        return miColor{1.5f + 0.5f * k, 2.0f, 0.75f + 0.25f * k, 1};
    };
    const Sample samples[2] = {{0.5f, 0.25f}, {1.0f, 0.0f}};
    passes.begin_light();
    e[0].flags &= ~static_cast<miUint>(FBINFO_LIGHT_SETUP_PENDING);
    for (const Sample &s : samples) {
        for (miUint i = 0; i < n; ++i)
            e[i].light = lightOf(i);
        passes.add_sample(s.wd, s.ws);
    }
    passes.end_light(2);

    // The average a pass with weights (cd, cs) gathers, channel by channel.
    auto gathered = [&](miUint i, float cd, float cs) {
        const miColor L = lightOf(i);
        miColor g{0, 0, 0, 0};
        for (const Sample &s : samples) {
            g.r += opacity.r * (cd * s.wd * dcol.r + cs * s.ws * scol.r) * L.r / 2;
            g.g += opacity.g * (cd * s.wd * dcol.g + cs * s.ws * scol.g) * L.g / 2;
            g.b += opacity.b * (cd * s.wd * dcol.b + cs * s.ws * scol.b) * L.b / 2;
        }
        return g;
    };
    // The material's own sums use the beauty pass's light, without opacity.
    const miColor Lb = lightOf(0);
    expectColor(passes.diffuse(), (0.5f * 0.5f + 0.5f) * Lb.r / 2, (0.5f * 0.25f + 0.25f) * Lb.g / 2,
                (0.5f + 1.0f) * Lb.b / 2, 0, 1e-6f, "diffuse sum");
    expectColor(passes.specular(), 0.25f * 0.2f * Lb.r / 2, 0.25f * 0.4f * Lb.g / 2, 0.25f * 0.8f * Lb.b / 2, 0, 1e-6f,
                "specular sum");

    // What the reflection and refraction rays would have added (the library
    // adds them into the passes that take traced light), and traced light in
    // the custom passes.
    drux::PassComponents parts;
    parts.indirect = miColor{0.1f, 0.2f, 0.3f, 0};
    parts.scatter = miColor{0.01f, 0.02f, 0.03f, 0};
    parts.reflection = miColor{0.3f, 0.2f, 0.1f, 0};
    parts.refraction = miColor{0.05f, 0.06f, 0.07f, 0};
    parts.emitted_specular = miColor{0.4f, 0.0f, 0.125f, 0};
    const miColor traced = drux::add(parts.reflection, parts.refraction);
    e[0].slots[0].accum = drux::add(e[0].slots[0].accum, traced);
    for (miUint i : {13u, 14u}) // custom passes took no light: this is all they hold
        e[i].slots[0].accum = drux::add(e[i].slots[0].accum, miColor{0.6f, 0.5f, 0.4f, 0});
    EXPECT_TRUE(passes.set_custom("mine", miColor{0.7f, 0.6f, 0.5f, 1}));
    EXPECT_FALSE(passes.set_custom("nosuchpass", WHITE));
    passes.end(parts);

    auto result = [&](miUint i) -> const miColor & { return e[i].slots[0].result; };
    const miColor beauty = gathered(0, 1, 1);
    expectColor(result(0), beauty.r + traced.r + opacity.r * 0.1f + 0.01f + 0.4f,
                beauty.g + traced.g + opacity.g * 0.2f + 0.02f, beauty.b + traced.b + opacity.b * 0.3f + 0.03f + 0.125f,
                1, 1e-6f, "beauty");
    const miColor diffuse = gathered(1, 1, 0), specular = gathered(2, 0, 1);
    expectColor(result(1), diffuse.r, diffuse.g, diffuse.b, 1, 1e-6f, "diffuse");
    expectColor(result(2), specular.r + 0.4f, specular.g, specular.b + 0.125f, 1, 1e-6f, "specular");
    expectColor(result(3), 0, 0, 0, 1, 0, "type 7 takes no light");
    expectColor(result(4), 0, 0, 0, 0, 0, "data");
    expectColor(e[4].slots[0].opacity, 0, 0, 0, 0, 0, "data opacity");
    const miColor shadow = gathered(5, 1, 1), group = gathered(7, 1, 1);
    expectColor(result(5), shadow.r, shadow.g, shadow.b, 1, 1e-6f, "shadow");
    expectColor(result(6), 1, 1, 1, 1, 0, "coverage of an eye ray's hit");
    expectColor(result(7), group.r, group.g, group.b, 1, 1e-6f, "light group");
    expectColor(result(8), 0.3f, 0.2f, 0.1f, 1, 0, "reflection");
    expectColor(result(9), 0.05f, 0.06f, 0.07f, 1, 0, "refraction");
    expectColor(result(10), 0, 0, 0, 0, 0, "background");
    expectColor(result(11), opacity.r * 0.1f, opacity.g * 0.2f, opacity.b * 0.3f, 1, 0, "indirect");
    expectColor(result(12), 0.01f, 0.02f, 0.03f, 1, 0, "scatter");
    expectColor(result(13), 0.7f, 0.6f, 0.5f, 1, 0, "the custom pass the material fills");
    expectColor(result(14), 0.6f, 0.5f, 0.4f, 1, 0, "another custom pass: traced light only");
    for (miUint i = 0; i < n; ++i)
        if (types[i] != DRUX_PASS_DATA)
            expectColor(e[i].slots[0].opacity, 1, 1, 1, 1, 0, ("opacity of entry " + std::to_string(i)).c_str());

    // The additive passes sum to beauty.
    for (int c = 0; c < 3; ++c) {
        float sum = 0;
        for (miUint i : {1u, 2u, 8u, 9u, 10u, 11u, 12u})
            sum += (&result(i).r)[c];
        EXPECT_NEAR(sum, (&result(0).r)[c], 1e-6f) << "channel " << c;
    }
}

TEST_F(MaterialHelper, WhichPassTypesTakeLight)
{
    for (int t = -1; t < DRUX_PASS_TYPES; ++t) {
        float cd = -1, cs = -1;
        const bool takes = drux::pass_light_weights(t, cd, cs);
        const bool both = t == DRUX_PASS_BEAUTY || (t >= 12 && t <= 15) || t == DRUX_PASS_LIGHT_GROUP;
        EXPECT_EQ(takes, both || t == DRUX_PASS_DIFFUSE || t == DRUX_PASS_SPECULAR) << t;
        if (takes) {
            EXPECT_EQ(cd, t == DRUX_PASS_SPECULAR ? 0.0f : 1.0f) << t;
            EXPECT_EQ(cs, t == DRUX_PASS_DIFFUSE ? 0.0f : 1.0f) << t;
        }
    }
}

TEST_F(MaterialHelper, WritesOnlyTheSlotOfItsDepth)
{
    fbtest::PassRig r(passBlock({0, 16}, {"", ""}));
    FrameBufferInfo *e = r.e;
    ASSERT_EQ(r.n, 2u);
    for (int d = 0; d < 4; ++d)
        e[0].slots[d].result = e[1].slots[d].result = miColor{5, 5, 5, 5};
    // A reflected ray's hit: slot 1, coverage only for an eye ray's first hit.
    r.st->reflection_level = 1;
    {
        drux::MaterialPasses passes(r.st, WHITE, WHITE);
        EXPECT_EQ(passes.depth(), 1);
        passes.end(drux::PassComponents{});
    }
    expectColor(e[0].slots[1].result, 0, 0, 0, 1, 0, "beauty at depth 1");
    expectColor(e[1].slots[1].result, 0, 0, 0, 0, 0, "coverage at depth 1");
    expectColor(e[1].slots[1].opacity, 0, 0, 0, 0, 0, "coverage opacity at depth 1");
    for (int d : {0, 2, 3})
        expectColor(e[0].slots[d].result, 5, 5, 5, 5, 0, "other depths untouched");
    // The last slot (trace depth 2: slots 0..3) is written; past it nothing.
    r.st->reflection_level = 3;
    {
        drux::MaterialPasses last(r.st, WHITE, WHITE);
        EXPECT_EQ(last.entry_count(), 2);
        last.end(drux::PassComponents{});
    }
    expectColor(e[0].slots[3].result, 0, 0, 0, 1, 0, "beauty at the last depth");
    e[0].slots[3].result = miColor{5, 5, 5, 5};
    r.st->reflection_level = 4;
    drux::MaterialPasses deep(r.st, WHITE, WHITE);
    EXPECT_EQ(deep.entry_count(), 0);
    EXPECT_EQ(deep.entries(), nullptr);
    deep.begin_light();
    deep.light_sample(WHITE, 0);
    deep.add_sample(1, 1);
    deep.end_light(1);
    deep.end(drux::PassComponents{});
    expectColor(deep.diffuse(), 1, 1, 1, 0, 0, "colour sums work without passes");
    for (int d = 0; d < 4; ++d)
        if (d != 1)
            expectColor(e[0].slots[d].result, 5, 5, 5, 5, 0, "no slot written past the limit");
}

TEST(MaterialVectors, Helpers)
{
    const miVector a{1, 2, 3}, b{-2, 0.5f, 4};
    const miVector c = drux::cross(a, b);
    expectVec(c, 2 * 4 - 3 * 0.5f, 3 * -2 - 1 * 4, 1 * 0.5f - 2 * -2, 0);
    EXPECT_EQ(drux::dot(c, a), 0.0f);
    EXPECT_EQ(drux::dot(a, b), -2 + 1 + 12);
    EXPECT_EQ(drux::length(miVector{3, 4, 12}), 13.0f);
    const miVector u = drux::normalize(miVector{0, 3, 4});
    expectVec(u, 0, 0.6f, 0.8f, kUlps);
    const miVector zero = drux::normalize(miVector{0, 0, 0});
    EXPECT_EQ(zero.x + zero.y + zero.z, 0.0f);
    // A ray going down onto a floor facing up leaves going up.
    const miVector out = drux::reflect(miVector{0.6f, 0, -0.8f}, miVector{0, 0, 1});
    expectVec(out, 0.6f, 0, 0.8f, kUlps);
    const miVector s = drux::sub(drux::add(a, b), drux::scale(b, 2));
    expectVec(s, 3, 1.5f, -1, 0);
    const miColor m = drux::mul(miColor{0.5f, 2, 4, 1}, drux::scale(miColor{2, 0.25f, 0.5f, 1}, 2));
    expectColor(m, 2, 1, 4, 2, 0, "colour mul and scale");
}

} // namespace
