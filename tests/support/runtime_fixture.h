/*
 * The fixture of the suites that drive the renderer runtime, and the lookups
 * they share (the host's base record, message counts).
 *
 * Before each test the process-wide runtime is reset and, for a suite that
 * asks for one, a render context of the given size is made; then the suite's
 * prepare() runs.  After each test the suite's finish() runs, the states the
 * test began through the fixture are ended and the context is destroyed; the
 * test fails when a database item is still pinned, a shader-interface handle
 * is still out, or memory is live under any tag other than those that live
 * for the whole process by design (the gradient noise table).  Then the
 * runtime is reset again.
 */
#ifndef DRUX_RUNTIME_FIXTURE_H
#define DRUX_RUNTIME_FIXTURE_H

#include "DruxShaderSDK.h"
#include "runtime.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

class RuntimeTest : public ::testing::Test {
public:
    /* What the runtime holds that a finished test should have given back:
       "" when nothing, else a line naming pins, handles and live bytes. */
    static std::string leftovers();
    /* Live bytes under every tag but the process-wide ones. */
    static int64_t liveBytesOutsideProcessTags();

protected:
    /* No render context: the suite makes its own, or needs none. */
    RuntimeTest() = default;
    /* A render context of width x height pixels in `ctx` for every test. */
    RuntimeTest(int width, int height) : width_(width), height_(height) {}

    void SetUp() final;
    void TearDown() final;
    /* The suite's own set-up, after the context is made, and its own
       clean-up, before the context is destroyed and the checks run. */
    virtual void prepare() {}
    virtual void finish() {}

    /* A new state of the context on `thread` (op 0 run), ended after the test. */
    miState *beginState(int thread = 0);
    /* The same at sample 0 of pixel (x, y), with the host's base record
       (KELU_BASE_STATE_KEY) set to `record`. */
    miState *beginSample(int x, int y, const BaseShaderState &record, int thread = 0);

    std::unique_ptr<mirt::Context> ctx;

private:
    int width_ = 0, height_ = 0;
    int64_t liveAtStart_ = 0;
    std::vector<miState *> states_;
};

/* The host's base record of a state (KELU_BASE_STATE_KEY), or null. */
BaseShaderState *baseRecord(miState *state);

/* Messages logged since the last reset or clear: of `level` with exactly
   `text`, of `level` containing `part`, and of `level` at all. */
int countMessages(mirt::Level level, const std::string &text);
int countContaining(mirt::Level level, const std::string &part);
int countLevel(mirt::Level level);

#endif
