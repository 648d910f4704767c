// Constants, messages, user-data chains, scratch allocators and stacks, camera
// origin, colour conversion and the motion time sampler.
#include "DruxShaderSDK.h"
#include "expect_values.h"
#include "runtime_fixture.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <set>
#include <thread>
#include <vector>

namespace {


// ------------------------------------------------------------ constants

TEST(Constants, FloatBitPatterns)
{
    EXPECT_EQ(bitsOf(KELU_EPS), 0x3727C5ACu);
    EXPECT_EQ(static_cast<double>(KELU_EPS), 0.00000999999974737875163555145263671875);
    EXPECT_EQ(bitsOf(KELU_LUMINANCE_RED), 0x3E99999Au);
    EXPECT_EQ(bitsOf(KELU_LUMINANCE_GREEN), 0x3F170A3Du);
    EXPECT_EQ(bitsOf(KELU_LUMINANCE_BLUE), 0x3DE147AEu);
    EXPECT_EQ(bitsOf(TRANSLUCENCE_ANGLE_FAC), 0xC1380000u);
    EXPECT_EQ(bitsOf(TRANSLUCENCE_FADE), 0x3E19999Au);
}

TEST(Constants, IntegersAndBits)
{
    EXPECT_EQ(KELU_MAGIC, 0x4B656C75);
    const unsigned char le[4] = {0x75, 0x6C, 0x65, 0x4B};
    EXPECT_EQ(std::memcmp(&KELU_MAGIC, le, 4), 0) << "little-endian bytes of 'Kelu'";
    EXPECT_EQ(KELU_CUBE_SIDE, 32);
    const int seq[] = {KELU_BIT_BUMP2D, KELU_BIT_IMAGEPLANE, KELU_BIT_ENVLIGHTFOG, KELU_BIT_VOLUMEFOG,
                       KELU_BIT_FLUID,  KELU_BIT_NOAF,       KELU_BIT_MOTION};
    for (int i = 0; i < 7; ++i)
        EXPECT_EQ(seq[i], 1 << i) << "bit " << i;
    EXPECT_EQ(miRAY_MRFM_DISPLACE, 66);
}

TEST(Constants, ColoursMatricesKeys)
{
    expectColor(BLACK, 0, 0, 0, 0);
    expectColor(WHITE, 1, 1, 1, 1);
    EXPECT_EQ(std::memcmp(&KELU_BLACK, &BLACK, sizeof(miColor)), 0);
    EXPECT_EQ(std::memcmp(&KELU_WHITE, &WHITE, sizeof(miColor)), 0);
    for (int i = 0; i < 16; ++i) {
        EXPECT_EQ(KELU_NULL_MATRIX[i], 0.0f);
        EXPECT_EQ(KELU_IDENTITY_MATRIX[i], (i % 5 == 0) ? 1.0f : 0.0f) << i;
    }
    EXPECT_STREQ(KELU_FRAMEBUFFER_DATA_SUFFIX, ":fbdata");
    EXPECT_STREQ(PASS_TYPE_INFO_KEY, "druxPassState");
    EXPECT_STREQ(FRAME_BUFFER_INFO_KEY, "druxFBInfo");
    EXPECT_STREQ(FRAME_BUFFER_STATE_KEY, "druxFBState");
}

TEST(Constants, DefaultLightData)
{
    static_assert(sizeof(LightData) == 48, "48 bytes");
    const unsigned char *raw = reinterpret_cast<const unsigned char *>(&defaultLightDataArray);
    std::vector<int> ints(4);
    std::memcpy(ints.data(), raw, 16);
    EXPECT_EQ(ints, (std::vector<int>{0, 1, 1, 0}));
    miColor c;
    std::memcpy(&c, raw + 16, 16);
    expectColor(c, 1, 1, 1, 1);
    void *corners;
    std::memcpy(&corners, raw + 32, 8);
    EXPECT_EQ(corners, nullptr);
    for (int i = 40; i < 48; ++i)
        EXPECT_EQ(raw[i], 0) << "byte " << i;
}

// ------------------------------------------------------------ messages

// Each level's text is passed on verbatim (no format expansion); the fatal
// one does not return.
TEST(Messages, VerbatimWithLevels)
{
    const struct {
        void (*fn)(const std::string &);
        const char *text;
        mirt::Level level;
    } cases[] = {{druxError, "100% done %s %d", mirt::Level::Error},
                 {druxWarning, "w%n", mirt::Level::Warning},
                 {druxInfo, "info\n", mirt::Level::Info},
                 {druxFatal, "stop 5%", mirt::Level::Fatal}};
    for (const auto &c : cases) {
        mirt::clear_messages();
        bool returned = false;
        try {
            c.fn(c.text);
            returned = true;
        } catch (const mirt::FatalError &e) {
            EXPECT_EQ(e.text, c.text);
        }
        EXPECT_EQ(returned, c.level != mirt::Level::Fatal) << c.text;
        const auto msgs = mirt::messages();
        ASSERT_EQ(msgs.size(), 1u);
        EXPECT_EQ(msgs[0].level, c.level);
        EXPECT_EQ(msgs[0].text, c.text);
    }
}

// ------------------------------------------------------------ test fixture

// The shared fixture's check after each test: it fails on a pinned item and
// on live memory under an ordinary tag, names them, and lets the process-wide
// noise table's tag live.
TEST(Fixture, AfterTestCheckFindsPinsAndLiveMemory)
{
    struct Probe : RuntimeTest {
        Probe() : RuntimeTest(2, 2) {}
        void TestBody() override {}
        using RuntimeTest::SetUp;
        using RuntimeTest::TearDown;
    } probe;
    probe.SetUp();
    const miTag item = mirt::db_create_string("pinned");
    ASSERT_NE(mi_db_access(item), nullptr);
    void *mem = mi_mem_int_allocate("tests/fixture", 1, 40);
    void *kept = mi_mem_int_allocate("SDK/druxNoise", 2, 24);
    EXPECT_EQ(RuntimeTest::liveBytesOutsideProcessTags(), 40);
    const std::string left = RuntimeTest::leftovers();
    EXPECT_NE(left.find("1 pin(s) on item(s) " + std::to_string(item)), std::string::npos) << left;
    EXPECT_NE(left.find("40 byte(s) live [tests/fixture: 40]"), std::string::npos) << left;
    EXPECT_EQ(left.find("druxNoise"), std::string::npos) << left;
    EXPECT_NONFATAL_FAILURE(probe.TearDown(), "40 byte(s) live");
    mi_mem_int_release("tests/fixture", 3, mem);
    mi_mem_int_release("SDK/druxNoise", 4, kept);
    EXPECT_EQ(RuntimeTest::leftovers(), "") << "the reset after the test drops the database and its pins";
}

// ------------------------------------------------------------ user data

constexpr int FBUF = 0x46427566;
constexpr int SWAPPED_FBUF = 0x66754246;

struct Chain : RuntimeTest {
    std::vector<miTag> blocks;
    miTag block(int magic, int payload, miTag next)
    {
        int words[2] = {magic, payload};
        miTag t = mirt::db_create_userdata(words, sizeof words, next);
        blocks.push_back(t);
        return t;
    }
    miTag object(miTag userdata)
    {
        miTag t = mirt::db_create(miSCENE_OBJECT, sizeof(miObject));
        static_cast<miObject *>(mirt::db_data(t))->userdata = userdata;
        return t;
    }
    miTag instance(miTag item)
    {
        miTag t = mirt::db_create(miSCENE_INSTANCE, sizeof(miInstance));
        static_cast<miInstance *>(mirt::db_data(t))->item = item;
        return t;
    }
};

int payloadOf(void *params) { return static_cast<int *>(params)[1]; }

TEST_F(Chain, FindsByMagicAndLeavesOnlyTheMatchPinned)
{
    miTag c = block(KELU_MAGIC, 3, 0);
    miTag b = block(SWAPPED_FBUF, 2, c);
    miTag a = block(0x12345678, 1, b);

    miTag found = 0;
    int swapped = -1;
    void *p = get_userdata(KELU_MAGIC, miSCENE_USERDATA, a, &found, &swapped);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(payloadOf(p), 3);
    EXPECT_EQ(found, c);
    EXPECT_EQ(swapped, 0);
    EXPECT_EQ(mirt::db_pin_count(c), 1);
    EXPECT_EQ(mirt::db_pin_count(a), 0);
    EXPECT_EQ(mirt::db_pin_count(b), 0);
    mi_db_unpin(c);
}

TEST_F(Chain, ObjectsAndInstances)
{
    miTag ud = block(KELU_MAGIC, 5, 0);
    miTag obj = object(ud);
    miTag inst = instance(obj);
    miTag found = 0;

    void *p = get_userdata(KELU_MAGIC, miSCENE_OBJECT, obj, &found, nullptr);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(payloadOf(p), 5);
    mi_db_unpin(found);

    p = get_userdata(KELU_MAGIC, miSCENE_OBJECT, inst, &found, nullptr);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(payloadOf(p), 5);
    EXPECT_EQ(found, ud);
    mi_db_unpin(found);

    // An instance of something that is not an object (a light, a camera).
    miTag light = mirt::db_create(miSCENE_LIGHT, sizeof(miLight));
    EXPECT_EQ(get_userdata(KELU_MAGIC, miSCENE_OBJECT, instance(light), &found, nullptr), nullptr);
    // Asking for an instance type: the element is not an object.
    EXPECT_EQ(get_userdata(KELU_MAGIC, miSCENE_INSTANCE, inst, &found, nullptr), nullptr);
    // An object without user data, tag 0, an unknown tag.
    EXPECT_EQ(get_userdata(KELU_MAGIC, miSCENE_OBJECT, object(0), &found, nullptr), nullptr);
    EXPECT_EQ(get_userdata(KELU_MAGIC, miSCENE_USERDATA, 0, &found, nullptr), nullptr);
    EXPECT_EQ(get_userdata(KELU_MAGIC, miSCENE_OBJECT, 0, &found, nullptr), nullptr);
    EXPECT_EQ(get_userdata(KELU_MAGIC, miSCENE_OBJECT, 0x7fffff00u, &found, nullptr), nullptr);
}

TEST_F(Chain, BrokenChainsAndMissingMagic)
{
    // A chain that runs into an item that is not user data.
    miTag text = mirt::db_create_string("not user data");
    miTag a = block(0x11, 0, text);
    static_cast<miUserdata *>(mirt::db_data(a))->next_data = text;
    EXPECT_EQ(get_userdata(KELU_MAGIC, miSCENE_USERDATA, a, nullptr, nullptr), nullptr);
    // A chain that points at a deleted item.
    miTag gone = block(KELU_MAGIC, 0, 0);
    miTag b = block(0x22, 0, gone);
    mirt::db_delete(gone);
    EXPECT_EQ(get_userdata(KELU_MAGIC, miSCENE_USERDATA, b, nullptr, nullptr), nullptr);
    // A complete chain without the magic.
    miTag c = block(0x33, 0, block(0x44, 0, 0));
    EXPECT_EQ(get_userdata(KELU_MAGIC, miSCENE_USERDATA, c, nullptr, nullptr), nullptr);
    // An object given as type 34 is not a user-data block.
    EXPECT_EQ(get_userdata(KELU_MAGIC, miSCENE_USERDATA, object(c), nullptr, nullptr), nullptr);
}

// ------------------------------------------------------------ scratch allocators and stacks

// The fixture's check after each test finds any scratch memory left live.
struct Scratch : RuntimeTest {
    miLock lock = nullptr;
    void prepare() override { mi_init_lock(&lock); }
    void finish() override
    {
        clr_tla_list(lock);
        mi_delete_lock(&lock);
    }
};

TEST_F(Scratch, OneAllocatorPerThreadAndSize)
{
    miMemblk *a = get_tla(lock, 0, 64);
    EXPECT_EQ(get_tla(lock, 0, 64), a);
    EXPECT_NE(get_tla(lock, 1, 64), a);
    EXPECT_NE(get_tla(lock, 0, 32), a);
    EXPECT_GT(mirt::mem_live_bytes("SDK/druxKeluState"), 0);
}

TEST_F(Scratch, ConcurrentThreadsGetTheirOwnAllocators)
{
    constexpr int kThreads = 8;
    std::vector<miMemblk *> first(kThreads), second(kThreads);
    std::vector<std::thread> pool;
    for (int t = 0; t < kThreads; ++t)
        pool.emplace_back([&, t] {
            first[t] = get_tla(lock, t, 48);
            // Each thread works its allocator while the list grows.
            void *p = mi_mem_blkfallocate(first[t]);
            std::memset(p, t, 48);
            mi_mem_blkfrelease(first[t], p);
            second[t] = get_tla(lock, t, 48);
        });
    for (auto &th : pool)
        th.join();
    std::set<miMemblk *> distinct(first.begin(), first.end());
    EXPECT_EQ(distinct.size(), static_cast<size_t>(kThreads));
    EXPECT_EQ(first, second);
}

struct Elem {
    void *link;
    int value;
};

TEST_F(Scratch, StackPushPop)
{
    mirt::Context ctx;
    miState *state = ctx.begin_state(3);
    state->global_lock = lock;
    ScratchStack st{};
    miMemblk *blk = stack_create(state, &st, sizeof(Elem));
    EXPECT_EQ(blk, get_tla(lock, 3, sizeof(Elem)));
    EXPECT_EQ(st.top, nullptr);
    EXPECT_EQ(st.count, 0);

    Elem *e[3];
    for (int i = 0; i < 3; ++i) {
        e[i] = static_cast<Elem *>(stack_push(&st));
        e[i]->value = 10 + i;
    }
    EXPECT_EQ(st.count, 3);
    EXPECT_EQ(st.top, e[2]);
    EXPECT_EQ(e[2]->link, e[1]);
    stack_pop(&st);
    EXPECT_EQ(st.count, 2);
    ASSERT_EQ(st.top, e[1]);
    EXPECT_EQ(static_cast<Elem *>(st.top)->value, 11);
    stack_pop(&st);
    stack_pop(&st);
    EXPECT_EQ(st.count, 0);
    EXPECT_EQ(st.top, nullptr);
    stack_pop(&st); // empty: nothing happens
    EXPECT_EQ(st.count, 0);
    // Abandon two pushed elements: clr_tla_list still frees them.
    stack_push(&st);
    stack_push(&st);
    ctx.end_state(state);
}

// ------------------------------------------------------------ camera origin

// The translation row divided by w; w = 0 leaves it undivided.
TEST(Camera, OriginFromTranslationRow)
{
    mirt::Context ctx;
    miState *state = ctx.begin_state(0);
    for (float w : {2.0f, 0.0f}) {
        const miMatrix m = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 4, -6, 8, w};
        ctx.set_camera_transform(m);
        miVector o{};
        origin_from_camera(state, &o);
        const float d = w == 0 ? 1 : w;
        expectVec(o, 4 / d, -6 / d, 8 / d, 0);
    }
    EXPECT_EQ(mirt::db_total_pins(), 0);
    ctx.end_state(state);
}

// ------------------------------------------------------------ colour

miColor hsv(float h, float s, float v, float a = 0.5f) { return miColor{h, s, v, a}; }

// Primaries and secondaries take their hue in [0, 1) at full saturation and
// value; grey (channels within 1e-5) and dark colours are hueless.
TEST(Colour, RgbToHsvCases)
{
    const struct {
        miColor rgb, hsv;
    } cases[] = {{{1, 0, 0, 1}, {0, 1, 1, 1}},
                 {{0, 1, 0, 1}, {1.0f / 3, 1, 1, 1}},
                 {{0, 0, 1, 1}, {2.0f / 3, 1, 1, 1}},
                 {{1, 0, 1, 1}, {5.0f / 6, 1, 1, 1}},
                 {{0.5f, 0.500009f, 0.5f, 0.25f}, {0, 0, 0.500009f, 0.25f}},
                 {{0.00001f, 0, 0, 0}, {0, 0, 0.00001f, 0}}};
    for (const auto &c : cases) {
        miColor out;
        rgb_to_hsv(&c.rgb, &out);
        expectColor(out, c.hsv.r, c.hsv.g, c.hsv.b, c.hsv.a, 1e-6f);
    }
}

// Hue wraps (1.25 as 0.25, 1 as 0); saturation 0 is grey whatever the hue; a
// negative or NaN hue leaves the colour channels alone and sets only alpha.
TEST(Colour, HueWrapsSaturationZeroAndNegativeHue)
{
    miColor a, b;
    for (float h : {1.25f, 1.0f}) {
        miColor wrapped = hsv(h, 0.8f, 0.6f), base = hsv(h - 1, 0.8f, 0.6f);
        hsv_to_rgb(&wrapped, &a);
        hsv_to_rgb(&base, &b);
        EXPECT_EQ(std::memcmp(&a, &b, sizeof a), 0) << h;
    }
    miColor grey = hsv(0.7f, 0.0f, 0.5f, 0.3f);
    hsv_to_rgb(&grey, &a);
    expectColor(a, 0.5f, 0.5f, 0.5f, 0.3f);
    for (float h : {-0.25f, std::nanf("")}) {
        miColor in = hsv(h, 1.0f, 1.0f, 0.75f), untouched{9, 8, 7, 6};
        hsv_to_rgb(&in, &untouched);
        expectColor(untouched, 9, 8, 7, 0.75f);
    }
}

TEST(Colour, RoundTripsAndInPlace)
{
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> u(0.0f, 1.0f);
    for (int i = 0; i < 2000; ++i) {
        miColor rgb{u(rng), u(rng), u(rng), u(rng)}, h, back;
        rgb_to_hsv(&rgb, &h);
        ASSERT_GE(h.r, 0.0f);
        ASSERT_LT(h.r, 1.0f);
        hsv_to_rgb(&h, &back);
        expectRGB(back, rgb.r, rgb.g, rgb.b, 2e-5f);
        EXPECT_EQ(back.a, rgb.a);
        hsv_to_rgb(&h, &h); // in place
        EXPECT_EQ(std::memcmp(&h, &back, sizeof h), 0);
    }
}

// ------------------------------------------------------------ time sampler

struct TimeSampler : RuntimeTest {
    miState *state = nullptr;
    TimeSampler() : RuntimeTest(8, 8) {}
    void prepare() override
    {
        state = beginState();
        ctx->options().shutter_delay = 0.0f;
        ctx->options().shutter = 1.0f;
        ctx->options().time_contrast = miColor{0.2f, 0.25f, 0.5f, 1.0f};
        ctx->set_query_int(miQ_MOTION_BY_RENDERER, 0);
        ctx->set_query_int(miQ_PRECOMPUTE_PASS, 0);
    }
    TmSampler init(int motion = 1)
    {
        TmSampler s;
        tmsampler_init(&s, state, motion);
        return s;
    }
    std::vector<double> run(int motion, double start)
    {
        TmSampler s;
        state->time = start;
        tmsampler_init(&s, state, motion);
        std::vector<double> times;
        while (!tmsampler_isDone(&s)) {
            times.push_back(state->time);
            tmsampler_next(&s, state);
            if (times.size() > 200)
                break;
        }
        return times;
    }
};

TEST_F(TimeSampler, FiveSamplesWrapIntoTheShutter)
{
    const TmSampler s = init();
    EXPECT_EQ(s.count, 5u);
    EXPECT_FLOAT_EQ(s.step, 0.2f);
    auto t = run(1, 0.9);
    ASSERT_EQ(t.size(), 5u);
    const double want[] = {0.9, 0.1, 0.3, 0.5, 0.7};
    for (int i = 0; i < 5; ++i)
        EXPECT_NEAR(t[i], want[i], 1e-6) << i;
}

TEST_F(TimeSampler, CountsFromTheSmallestContrast)
{
    // The smallest of r, g and b sets the count (1 / m, at most 100); none
    // below 1 gives one sample stepping the whole shutter.
    const struct {
        miColor contrast;
        unsigned count;
    } cases[] = {{{1, 0.3f, 1, 1}, 3}, {{1, 0.005f, 1, 1}, 100}, {{1, 0.0099f, 1, 1}, 100}, {{1, 2, 1.5f, 0}, 1}};
    for (const auto &c : cases) {
        ctx->options().time_contrast = c.contrast;
        const TmSampler s = init();
        EXPECT_EQ(s.count, c.count) << c.contrast.g;
        EXPECT_FLOAT_EQ(s.step, 1.0f / static_cast<float>(c.count)) << c.contrast.g;
    }
    // A contrast of exactly 1/k must give k samples: 1/(1/k) rounds to just
    // below k for some k (29.99998 for k = 30), so the count may not truncate.
    for (int k = 2; k <= 100; ++k) {
        ctx->options().time_contrast = miColor{1.0f / static_cast<float>(k), 1.0f, 1.0f, 1.0f};
        const TmSampler s = init();
        EXPECT_EQ(s.count, static_cast<unsigned>(k)) << "m = 1/" << k;
        EXPECT_FLOAT_EQ(s.step, 1.0f / static_cast<float>(k)) << k;
    }
}

TEST_F(TimeSampler, SingleSampleCases)
{
    auto expectSingle = [&](const char *why, int motion = 1) {
        const TmSampler s = init(motion);
        EXPECT_EQ(s.count, 1u) << why;
        EXPECT_EQ(s.step, 0.0f) << why;
    };
    expectSingle("no motion", 0);
    {
        TmSampler s = init(0);
        state->time = 0.4;
        tmsampler_next(&s, state);
        EXPECT_EQ(state->time, 0.4) << "adds nothing";
        EXPECT_TRUE(tmsampler_isDone(&s));
        state->time = 1.5; // already beyond the shutter: wrapped once
        tmsampler_next(&s, state);
        EXPECT_NEAR(state->time, 0.5, 1e-9);
    }
    ctx->set_query_int(miQ_PRECOMPUTE_PASS, 1);
    expectSingle("precompute pass");
    ctx->set_query_int(miQ_PRECOMPUTE_PASS, 0);
    ctx->set_query_int(miQ_MOTION_BY_RENDERER, 1);
    expectSingle("renderer samples motion");
    ctx->fail_query(miQ_MOTION_BY_RENDERER);
    expectSingle("query fails");
    ctx->set_query_int(miQ_MOTION_BY_RENDERER, 0);
    ctx->options().shutter = 0.0f;
    expectSingle("shutter closed");
    ctx->options().shutter = 1.0f;
    ctx->options().time_contrast = miColor{0.5f, 0.0f, 0.5f, 1.0f};
    expectSingle("zero contrast");
    ctx->options().time_contrast = miColor{0.5f, 0.5f, -1.0f, 1.0f};
    expectSingle("negative contrast");
}

} // namespace
