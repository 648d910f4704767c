// The renderer runtime core. Shader calls, parameter connections and the state life cycle.
#include "runtime.h"
#include "expect_values.h"
#include "runtime_fixture.h"
#include "runtime_internal.h"
#include "core_test_shaders.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace {

using namespace coretest;

class Core : public RuntimeTest {
protected:
    Core() : RuntimeTest(8, 8) {}
};

// ------------------------------------------------------------- shader calls

TEST_F(Core, PhenEvalCallsTheConnectedShaderWithTheSameState)
{
    const float two = 2.0f, three = 3.0f;
    miTag src1 = mirt::make_function(miSHADER_TEXTURE, source_shader, &two, 4, sizeof(miColor), false, "src1");
    miTag src2 = mirt::make_function(miSHADER_TEXTURE, source_shader, &three, 4, sizeof(miColor), false, "src2");
    ParamBlock pb{{1, 1, 1, 1}, {0.5f, 0.5f, 0.5f, 0.5f}, 7.0f};
    miTag mat = mirt::make_function(miSHADER_MATERIAL, source_shader, &pb, sizeof pb, sizeof(miColor), true, "mat");
    miFunction *f = mirt::function(mat);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f->ghost_offs, 36);
    EXPECT_EQ(f->param_size, 36);
    EXPECT_EQ(f->tag, mat);
    EXPECT_STREQ(f->name, "mat");
    mirt::connect(mat, 0, src1);
    mirt::connect(mat, 16, src2);
    const auto *words = reinterpret_cast<const miTag *>(static_cast<char *>(f->params) + f->ghost_offs);
    EXPECT_EQ(words[0], src1);
    EXPECT_EQ(words[1], 0u) << "only the first word of the colour carries the connection";
    EXPECT_EQ(words[4], src2);
    EXPECT_EQ(words[8], 0u);

    miState *s = beginState();
    s->shader = f;
    s->point = miVector{1.5f, -4.0f, 0};
    auto *params = static_cast<ParamBlock *>(f->params);
    g_sourceCalls = 0;
    auto *ra = static_cast<miColor *>(mi_phen_eval(s, &params->a));
    auto *rb = static_cast<miColor *>(mi_phen_eval(s, &params->b));
    auto *rk = static_cast<float *>(mi_phen_eval(s, &params->k));
    EXPECT_EQ(g_sourceCalls.load(), 2);
    // both results still valid after evaluating several parameters in a row
    expectColor(*ra, 3, -4, static_cast<float>(src1), static_cast<float>(miSHADER_TEXTURE), 0);
    EXPECT_EQ(rb->r, 4.5f);
    EXPECT_EQ(rb->b, static_cast<float>(src2));
    EXPECT_EQ(rk, &params->k) << "an unconnected parameter is read in place";
    EXPECT_EQ(s->shader, f) << "current shader restored after the call";

    // re-evaluation on a changed state
    s->point.x = 10.0f;
    auto *rc = static_cast<miColor *>(mi_phen_call(s, &params->a));
    EXPECT_EQ(rc->r, 20.0f);
    EXPECT_EQ(s->shader, f);

    // explicitly unconnected word
    const miTag unconnected = miPARAM_UNCONNECTED;
    std::memcpy(static_cast<char *>(f->params) + 16 + f->ghost_offs, &unconnected, 4);
    EXPECT_EQ(mi_phen_eval(s, &params->b), &params->b);

    // connecting an unconnectable shader or a bad offset is refused
    mirt::connect(src1, 0, src2);
    mirt::connect(mat, 2, src2);
    mirt::connect(mat, 36, src2);
    EXPECT_EQ(countLevel(mirt::Level::Error), 3);
    EXPECT_EQ(mirt::function(src1)->has_connections, 0);
}

// mi_eval and its typed forms: connected parameters give the connected
// shader's result, plain ones themselves, unconnectable shaders always
// themselves.  A pointer outside the block (a caller's local) is read as it
// is and reported once per shader and calling function; a connection to an
// unknown shader once per shader and parameter.
TEST_F(Core, EvalGivesConnectedResultsAndReportsStrayPointersOnce)
{
    const float two = 2.0f;
    miTag src = mirt::make_function(miSHADER_TEXTURE, source_shader, &two, 4, sizeof(miColor), false, "src");
    ParamBlock pb{{1, 1, 1, 1}, {0.5f, 0.25f, 0.5f, 0.5f}, 7.0f};
    miTag mat = mirt::make_function(miSHADER_MATERIAL, source_shader, &pb, sizeof pb, sizeof(miColor), true, "mat");
    mirt::connect(mat, 0, src);
    miState *state = beginState();
    state->shader = mirt::function(mat);
    state->point = miVector{1.5f, -4.0f, 0};
    auto *params = static_cast<ParamBlock *>(state->shader->params);
    EXPECT_EQ(mi_eval_color(&params->a)->r, 3.0f);
    EXPECT_EQ(mi_eval_color(&params->b), &params->b);
    EXPECT_EQ(*mi_eval_scalar(&params->k), 7.0f);
    EXPECT_EQ(mi_eval_integer(&params->k), reinterpret_cast<miInteger *>(&params->k));
    state->shader = mirt::function(src);
    EXPECT_EQ(mi_eval_scalar(state->shader->params), state->shader->params) << "an unconnectable shader";

    state->shader = mirt::function(mat);
    mirt::clear_messages();
    miColor local{9, 9, 9, 9};
    for (int k = 0; k < 100; ++k)
        EXPECT_EQ(mi_eval_color(&local), &local);
    for (int k = 0; k < 100; ++k)
        EXPECT_EQ(mi_phen_eval(state, &local), &local);
    ASSERT_EQ(countLevel(mirt::Level::Error), 2) << "once per calling function";
    EXPECT_NE(mirt::messages()[0].text.find("outside its parameter block"), std::string::npos);
    EXPECT_NE(mirt::messages()[0].text.find("shader mat"), std::string::npos);
    const miTag nowhere = 999999;
    std::memcpy(static_cast<char *>(state->shader->params) + 16 + state->shader->ghost_offs, &nowhere, 4);
    for (int k = 0; k < 100; ++k)
        EXPECT_EQ(mi_eval_color(&params->b), &params->b);
    ASSERT_EQ(countLevel(mirt::Level::Error), 3);
    EXPECT_NE(mirt::messages()[2].text.find("byte 16 of shader mat is connected to unknown shader 999999"),
              std::string::npos)
        << mirt::messages()[2].text;
}

void init_requesting_nothing(miState *state, void *params, miBoolean *req)
{
    int type = -1;
    if (!params && mi_query(miQ_FUNC_TYPE, state, 0, &type) && type == miSHADER_STATE)
        *req = miFALSE;
}

TEST_F(Core, CallInitSwitchesTheCurrentShader)
{
    miTag st = mirt::make_function(miSHADER_STATE, source_shader, nullptr, 0, 0, false, "st");
    miTag tex = mirt::make_function(miSHADER_TEXTURE, source_shader, nullptr, 0, 0, false, "tex");
    miState *s = beginState();
    EXPECT_EQ(s->shader, nullptr);
    int type = 0;
    EXPECT_FALSE(mi_query(miQ_FUNC_TYPE, s, 0, &type)) << "no current shader";
    EXPECT_FALSE(mirt::call_init(s, st, init_requesting_nothing)) << "init cleared the request";
    EXPECT_TRUE(mirt::call_init(s, tex, init_requesting_nothing));
    EXPECT_EQ(s->shader, nullptr);
}

// ------------------------------------------------------------- state life cycle

TEST_F(Core, StateLifeCycleRunsStateShadersInOrder)
{
    g_ops = OpLog();
    mirt::Context ctx(4, 3);
    miTag st = mirt::make_function(miSHADER_STATE, as_shader(logging_state_shader), nullptr, 0, 0, false, "st");
    ctx.add_state_shader(st);
    miState *s = ctx.begin_state(5);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(mirt::context_of(s), &ctx);
    EXPECT_EQ(s->thread, 5);
    EXPECT_EQ(s->camera, &ctx.camera());
    EXPECT_EQ(s->options, &ctx.options());
    EXPECT_EQ(s->camera_inst, ctx.camera_instance());
    EXPECT_NE(s->global_lock, nullptr);
    EXPECT_EQ(s->ior, 1.0f);
    ASSERT_NE(s->spare, nullptr);
    EXPECT_NE(s->spare, s);
    ASSERT_NE(s->tex_list, nullptr);
    s->tex_list[63] = miVector{1, 2, 3}; // 64 texture spaces of storage
    s->derivs[1] = miVector{4, 5, 6};

    miState *other = ctx.begin_state(6);
    EXPECT_EQ(other->global_lock, s->global_lock) << "one process-wide lock";
    EXPECT_NE(other->shaderstate, s->shaderstate);

    s->reflection_level = 2;
    s->type = miRAY_REFLECT;
    ctx.begin_sample(s, 3, 2, 1);
    EXPECT_EQ(s->raster_x, 3);
    EXPECT_EQ(s->raster_y, 2);
    EXPECT_EQ(s->sample_index, 1);
    EXPECT_EQ(s->type, miRAY_EYE);
    EXPECT_EQ(s->reflection_level, 0);
    const miUint off1 = s->qmc_offset;
    ctx.begin_sample(s, 3, 2, 2);
    EXPECT_NE(s->qmc_offset, off1) << "samples of one pixel are decorrelated";
    EXPECT_EQ(ctx.run_state_op(s, miSHADERSTATE_SAMPLE_EXIT, miFALSE), miFALSE);
    ctx.end_sample(s, miTRUE);
    ctx.end_state(s);
    ctx.end_state(other);

    const std::vector<int> ops = {0, 0, 2, 2, 3, 3, 1, 1};
    EXPECT_EQ(g_ops.ops, ops);
    for (int t : g_ops.types)
        EXPECT_EQ(t, miSHADER_STATE);
    EXPECT_EQ(g_ops.returns[4], miFALSE);
    EXPECT_EQ(g_ops.returns[5], miTRUE);
    EXPECT_EQ(g_ops.states[0], s);
    EXPECT_EQ(g_ops.states[1], other);
    EXPECT_EQ(countLevel(mirt::Level::Error), 0);
}

TEST_F(Core, ChildStatesCopyTheParentAndOwnTheirStorage)
{
    miState *s = beginState();
    s->point = miVector{1, 2, 3};
    s->reflection_level = 1;
    miState *c = mirt::child_state(s);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->parent, s);
    EXPECT_EQ(s->child, c);
    EXPECT_EQ(c->point.z, 3.0f);
    EXPECT_EQ(c->reflection_level, 1);
    EXPECT_EQ(c->shaderstate, s->shaderstate);
    EXPECT_EQ(c->ctx, s->ctx);
    EXPECT_NE(c->tex_list, s->tex_list);
    EXPECT_NE(c->bump_x_list, s->bump_x_list);
    EXPECT_NE(c->derivs, s->derivs);
    EXPECT_NE(c->spare, s->spare);
    ASSERT_NE(c->spare, nullptr);
    // the same parent gets the same frame back
    EXPECT_EQ(mirt::child_state(s), c);
    // a grandchild
    miState *g = mirt::child_state(c);
    EXPECT_EQ(g->parent, c);
    EXPECT_NE(g, c);

    // a copy of the parent made by library code: its own child frame, the
    // original's child is left alone
    miState copy;
    std::memcpy(&copy, s, sizeof copy);
    copy.point.x = 42;
    miState *cc = mirt::child_state(&copy);
    EXPECT_NE(cc, c);
    EXPECT_EQ(cc->point.x, 42.0f);
    EXPECT_EQ(c->point.x, 1.0f);
    EXPECT_EQ(c->parent, s);

    // a hand-made state outside any eye state still gets a child
    miState bare;
    std::memset(&bare, 0, sizeof bare);
    miState *bc = mirt::child_state(&bare);
    ASSERT_NE(bc, nullptr);
    EXPECT_EQ(bc->parent, &bare);
}

TEST_F(Core, CallFunctionGivesStateShadersTheirArgument)
{
    g_ops = OpLog();
    miTag st = mirt::make_function(miSHADER_STATE, as_shader(logging_state_shader), nullptr, 0, 0, false, "st");
    miState *s = beginState();
    miShader_state_arg arg{miSHADERSTATE_SAMPLE_INIT, miTRUE};
    EXPECT_TRUE(mirt::call_function(st, nullptr, s, &arg));
    ASSERT_EQ(g_ops.ops.size(), 1u);
    EXPECT_EQ(g_ops.ops[0], miSHADERSTATE_SAMPLE_INIT);
    EXPECT_EQ(s->shader, nullptr);
    EXPECT_FALSE(mirt::call_function(0, nullptr, s, nullptr));
}

} // namespace
