/*
 * libFuzzer's entry points, shared by every target: the runtime is made
 * quiet (runtime errors are part of the game; it logs them and goes on), the
 * render context and the target's world are built once, and after each input
 * the driver checks that nothing the input touched is left allocated, pinned
 * or handed out.
 */
#include "harness.h"

namespace fz {

void fail(const std::string &what)
{
    std::fprintf(stderr, "\n==== %s: %s\n", kTarget.name, what.c_str());
    std::fflush(stderr);
    std::abort();
}

namespace {

/* Nothing left behind by one input. */
void finishInput()
{
    const int64_t live = mirt::mem_live_bytes_total();
    if (live != 0)
        fail("memory still live after the input: " + std::to_string(live) + " bytes");
    const long pins = mirt::db_total_pins();
    if (pins != 0) {
        std::string list;
        for (miTag t : mirt::db_pinned())
            list += " " + std::to_string(t) + "(x" + std::to_string(mirt::db_pin_count(t)) + ")";
        fail("database items still pinned after the input:" + list);
    }
    if (mirt::shader_interface_outstanding() != 0)
        fail("shader-interface handles not given back");
    /* Keep the process-wide logs from growing over millions of inputs. */
    mirt::clear_messages();
    mirt::mem_clear_events();
}

mirt::Context *gContext = nullptr;

void setUpOnce()
{
    if (gContext)
        return;
    mirt::set_echo_messages(false);
    gContext = new mirt::Context(kTarget.width, kTarget.height);
    setUp();
}

} // namespace

mirt::Context &context() { return *gContext; }

} // namespace fz

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fz::setUpOnce();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fz::setUpOnce();
    fz::Input in(data, size);
    fz::runInput(in);
    fz::finishInput();
    return 0;
}
