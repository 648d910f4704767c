/*
 * Fuzz target: the per-object KELU_MAGIC user-data block read by
 * compute_irradiance.
 *
 * Every input rewrites a chain of user-data blocks (sizes from none to past
 * the settings, magics native, byte-reversed or other, word 5 and the
 * settings words, links anywhere), the object that heads the chain, the
 * instance shaded, the final-gather options and the host's path-weight
 * thresholds, then calls compute_irradiance as a material would.
 *
 * The call is compared with an independent model: whether the renderer is
 * asked at all, and with which irradiance-options record (the block's words
 * when the block carries settings and is long enough for them, the
 * options' values or none otherwise, the ray count scaled by the path
 * weight), and the path weight is restored.
 *
 * Input layout:
 *   per block (4):  size choice, magic choice, word 5 choice, link choice,
 *                   then words 6 to 16 (word 6, the ray count, kept to
 *                   -64..64 so that no input asks for millions of rays)
 *   object:         chain-head choice; instance: item choice; the state's
 *                   instance choice
 *   render:         final gathering on/off, the options' ray count,
 *                   threshold choices, path weight, material colours,
 *                   diffuse, gain
 */
#include "harness.h"

const fz::Target fz::kTarget = {"irradiance_fuzz", 2, 2};

namespace {

constexpr int kBlocks = 4;

struct World {
    miTag block[kBlocks] = {};
    miTag object = 0, instance = 0, light = 0, text = 0;
};

World gWorld;

miTag choose(const World &w, fz::Input &in)
{
    const int r = in.u8() % 12;
    if (r < kBlocks)
        return w.block[r];
    switch (r) {
    case 4: case 5: return w.object;
    case 6: case 7: return w.instance;
    case 8: return w.light;
    case 9: return w.text;
    case 10: return 0;
    default: return in.u32();
    }
}

/* The settings block the library must find from `instance`, or 0. */
miTag expectedKelu(miTag instance)
{
    int swapped = 0;
    return fz::expectedUserdata(static_cast<uint32_t>(KELU_MAGIC), miSCENE_OBJECT, instance, false, swapped);
}

uint32_t wordAt(miTag block, int n)
{
    uint32_t v;
    std::memcpy(&v, static_cast<const char *>(mirt::db_data(block)) + offsetof(miUserdata, parameters) + 4 * n, 4);
    return v;
}

} // namespace

void fz::setUp()
{
    World &w = gWorld;
    for (miTag &t : w.block)
        t = mirt::db_create_userdata(nullptr, 0, 0);
    w.object = mirt::db_create(miSCENE_OBJECT, sizeof(miObject));
    w.instance = mirt::db_create(miSCENE_INSTANCE, sizeof(miInstance));
    w.light = mirt::db_create(miSCENE_LIGHT, sizeof(miLight));
    w.text = mirt::db_create_string("Kelu");
}

void fz::runInput(fz::Input &in)
{
    World &w = gWorld;
    mirt::Context &ctx = fz::context();

    for (miTag b : w.block) {
        static const size_t sizes[8] = {0, 4, 20, 24, 64, 68, 72, 0};
        const uint8_t sel = in.u8();
        const size_t bytes = (sel & 7) == 7 ? in.u8() % 80 : sizes[sel & 7];
        uint32_t words[20] = {};
        switch (in.u8() % 4) {
        case 0: case 1: words[0] = static_cast<uint32_t>(KELU_MAGIC); break;
        case 2: words[0] = fz::byteSwap32(static_cast<uint32_t>(KELU_MAGIC)); break;
        default: words[0] = in.u32(); break;
        }
        const uint8_t w5 = in.u8();
        words[5] = (w5 & 3) == 3 ? in.u32() : ((w5 & 3) != 0 ? 1u : 0u);
        const miTag next = choose(w, in);
        for (int k = 6; k <= 16; ++k)
            words[k] = in.u32();
        words[6] = static_cast<uint32_t>(static_cast<int32_t>(words[6]) % 65);
        fz::setUserdata(b, words, bytes, next);
    }
    static_cast<miObject *>(mirt::db_data(w.object))->userdata = choose(w, in);
    static_cast<miInstance *>(mirt::db_data(w.instance))->item = choose(w, in);

    miOptions &opt = ctx.options();
    const uint8_t render = in.u8();
    opt.finalgather = render & 1;
    opt.finalgather_rays = in.u8() % 33;
    opt.finalgather_maxradius = 2.0f;
    opt.finalgather_minradius = 0.5f;
    opt.finalgather_view = 1;
    opt.finalgather_filter = 2;
    opt.globillum_accuracy = 100;
    opt.globillum_radius = 0.25f;
    opt.caustic_accuracy = 50;
    opt.caustic_radius = 0.125f;

    miState *state = ctx.begin_state(0);
    state->instance = choose(w, in);
    state->normal = miVector{0, 0, 1};
    state->dir = miVector{0, 0, -1};

    static const float thresholds[8] = {0.0f, 0.001f, 0.01f, 0.1f, 0.25f, 0.5f, 1.0f, 2.0f};
    BaseShaderState bss;
    std::memset(&bss, 0, sizeof bss);
    bss.minContribution = thresholds[in.u8() % 8];
    bss.fullSampleContribution = thresholds[in.u8() % 8];
    bss.pathWeight = miColor{in.bounded(0, 1), in.bounded(0, 1), in.bounded(0, 1), in.bounded(0, 1)};
    mi_shaderstate_set(state, KELU_BASE_STATE_KEY, &bss, sizeof bss, 2);
    BaseShaderState *live = static_cast<BaseShaderState *>(mi_shaderstate_get(state, KELU_BASE_STATE_KEY, nullptr));
    FZ_CHECK(live != nullptr, "the host's record is stored");

    miColor tint{in.bounded(0, 2), in.bounded(0, 2), in.bounded(0, 2), 1};
    const miColor color{in.bounded(0, 1), in.bounded(0, 1), in.bounded(0, 1), 1};
    const miColor transparency{in.bounded(0, 1), in.bounded(0, 1), in.bounded(0, 1), 0};
    const float diffuse = in.bounded(0, 2);
    const float gain = in.bounded(0, 3);

    /* The model. */
    const miColor k{(diffuse * color.r) * tint.r, (diffuse * color.g) * tint.g, (diffuse * color.b) * tint.b, 0};
    bool called = false;
    miIrrad_options expect;
    std::memset(&expect, 0, sizeof expect);
    if (!(k.r < KELU_EPS && k.g < KELU_EPS && k.b < KELU_EPS)) {
        miColor pw = bss.pathWeight;
        pw.r = ((1.0f - transparency.r) * k.r) * bss.pathWeight.r;
        pw.g = ((1.0f - transparency.g) * k.g) * bss.pathWeight.g;
        pw.b = ((1.0f - transparency.b) * k.b) * bss.pathWeight.b;
        if (gain > 1.0f) {
            pw.r *= gain;
            pw.g *= gain;
            pw.b *= gain;
        }
        const float m = std::fmax(pw.r, std::fmax(pw.g, pw.b));
        if (!(m < bss.minContribution)) {
            bool have = false;
            const miTag block = state->instance ? expectedKelu(state->instance) : 0;
            if (block && static_cast<const miUserdata *>(mirt::db_data(block))->parameter_size >= 68 &&
                wordAt(block, 5) == 1u) {
                have = true;
                expect.size = 52;
                uint32_t v;
                v = wordAt(block, 6); std::memcpy(&expect.finalgather_rays, &v, 4);
                v = wordAt(block, 7); std::memcpy(&expect.finalgather_maxradius, &v, 4);
                v = wordAt(block, 8); std::memcpy(&expect.finalgather_minradius, &v, 4);
                expect.finalgather_view = static_cast<miUchar>(wordAt(block, 9));
                expect.finalgather_filter = static_cast<miUchar>(wordAt(block, 10));
                v = wordAt(block, 11); std::memcpy(&expect.globillum_accuracy, &v, 4);
                v = wordAt(block, 12); std::memcpy(&expect.globillum_radius, &v, 4);
                v = wordAt(block, 13); std::memcpy(&expect.caustic_accuracy, &v, 4);
                v = wordAt(block, 14); std::memcpy(&expect.caustic_radius, &v, 4);
                v = wordAt(block, 15); std::memcpy(&expect.importon_accuracy, &v, 4);
                v = wordAt(block, 16); std::memcpy(&expect.finalgather_scale, &v, 4);
            }
            called = true;
            if (opt.finalgather) {
                const float minC = bss.minContribution, full = bss.fullSampleContribution;
                if (full > m) {
                    if (!have) {
                        have = true;
                        expect.size = 52;
                        expect.finalgather_rays = opt.finalgather_rays;
                        expect.finalgather_maxradius = opt.finalgather_maxradius;
                        expect.finalgather_minradius = opt.finalgather_minradius;
                        expect.finalgather_view = opt.finalgather_view;
                        expect.finalgather_filter = opt.finalgather_filter;
                        expect.globillum_accuracy = opt.globillum_accuracy;
                        expect.globillum_radius = opt.globillum_radius;
                        expect.caustic_accuracy = opt.caustic_accuracy;
                        expect.caustic_radius = opt.caustic_radius;
                        expect.finalgather_scale = -1.0f;
                    }
                    expect.finalgather_rays = static_cast<int>(static_cast<float>(expect.finalgather_rays) *
                                                               ((m - minC) / (full - minC)));
                }
                const int rays = have ? expect.finalgather_rays : opt.finalgather_rays;
                if (rays <= 0)
                    called = false; /* no ray left: the renderer is not asked */
            }
        }
    }

    ctx.clear_irradiance_calls();
    miColor result{-1, -1, -1, -1};
    compute_irradiance(&result, &tint, &color, &transparency, nullptr, state, diffuse, gain);
    const std::vector<miIrrad_options> calls = ctx.irradiance_calls();
    FZ_CHECK(calls.size() == (called ? 1u : 0u), "the renderer is asked exactly when the model says so");
    if (called) {
        const miIrrad_options &got = calls[0];
        FZ_CHECK(got.size == expect.size, "options record present exactly when the model has one");
        if (expect.size) {
            /* Bytes 0 to 43 are the library's; 44 to 51 are not written from a block. */
            FZ_CHECK(std::memcmp(&got, &expect, 44) == 0, "the options record holds the block's words or the options");
        }
    }
    FZ_CHECK(std::memcmp(&live->pathWeight, &bss.pathWeight, sizeof(miColor)) == 0, "the path weight is restored");
    FZ_CHECK(std::isfinite(result.r) && std::isfinite(result.g) && std::isfinite(result.b), "a finite result");

    ctx.end_state(state);
}
