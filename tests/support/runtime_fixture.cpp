#include "runtime_fixture.h"

#include <map>

namespace {

/* Memory that lives for the process by design: made once on first use and
   kept until exit. */
const char *const kProcessTags[] = {"SDK/druxNoise"};

bool processTag(const std::string &tag)
{
    for (const char *t : kProcessTags)
        if (tag == t)
            return true;
    return false;
}

} // namespace

int64_t RuntimeTest::liveBytesOutsideProcessTags()
{
    int64_t live = mirt::mem_live_bytes_total();
    for (const char *tag : kProcessTags)
        live -= mirt::mem_live_bytes(tag);
    return live;
}

std::string RuntimeTest::leftovers()
{
    std::string out;
    if (const long pins = mirt::db_total_pins()) {
        out += std::to_string(pins) + " pin(s) on item(s)";
        for (miTag t : mirt::db_pinned())
            out += " " + std::to_string(t);
        out += "; ";
    }
    if (const int handles = mirt::shader_interface_outstanding())
        out += std::to_string(handles) + " shader-interface handle(s) not given back; ";
    if (const int64_t live = liveBytesOutsideProcessTags()) {
        out += std::to_string(live) + " byte(s) live";
        /* The event log since the last clear names the likely tags. */
        std::map<std::string, int64_t> net;
        for (const mirt::MemEvent &e : mirt::mem_events())
            net[e.file] += e.release ? -e.bytes : e.bytes;
        for (const auto &kv : net)
            if (kv.second != 0 && !processTag(kv.first))
                out += " [" + kv.first + ": " + std::to_string(kv.second) + "]";
        out += "; ";
    }
    return out;
}

void RuntimeTest::SetUp()
{
    mirt::reset();
    liveAtStart_ = liveBytesOutsideProcessTags();
    if (width_ > 0)
        ctx = std::make_unique<mirt::Context>(width_, height_);
    prepare();
}

miState *RuntimeTest::beginState(int thread)
{
    miState *st = ctx->begin_state(thread);
    states_.push_back(st);
    return st;
}

miState *RuntimeTest::beginSample(int x, int y, const BaseShaderState &record, int thread)
{
    miState *st = beginState(thread);
    ctx->begin_sample(st, x, y);
    mi_shaderstate_set(st, KELU_BASE_STATE_KEY, &record, sizeof record, 2);
    return st;
}

void RuntimeTest::TearDown()
{
    finish();
    for (auto it = states_.rbegin(); it != states_.rend(); ++it)
        ctx->end_state(*it);
    states_.clear();
    ctx.reset();
    EXPECT_EQ(leftovers(), "") << "left behind by the test"
                               << (liveAtStart_ ? " (or before it: " + std::to_string(liveAtStart_) +
                                                      " byte(s) were live when it began)"
                                                : std::string());
    mirt::reset();
}

BaseShaderState *baseRecord(miState *state)
{
    return static_cast<BaseShaderState *>(mi_shaderstate_get(state, KELU_BASE_STATE_KEY, nullptr));
}

int countMessages(mirt::Level level, const std::string &text)
{
    int n = 0;
    for (const mirt::Message &m : mirt::messages())
        n += m.level == level && m.text == text;
    return n;
}

int countContaining(mirt::Level level, const std::string &part)
{
    int n = 0;
    for (const mirt::Message &m : mirt::messages())
        n += m.level == level && m.text.find(part) != std::string::npos;
    return n;
}

int countLevel(mirt::Level level)
{
    int n = 0;
    for (const mirt::Message &m : mirt::messages())
        n += m.level == level;
    return n;
}
