/*
 * Fuzz target: the scene reader.  The input is a scene file's text.  The
 * reader may refuse it only with its own error (SceneError, with the line);
 * any other exception, a crash or a sanitizer report is a finding.  A scene
 * it accepts is written, read again and written again: both texts must be
 * the same, and the second reading must be accepted too.
 */
#include "harness.h"

#include "scene.h"

#include <exception>

const fz::Target fz::kTarget = {"scene_fuzz", 2, 2};

void fz::setUp() {}

void fz::runInput(Input &in)
{
    const std::vector<uint8_t> bytes = in.bytes(1 << 16);
    const std::string text(bytes.begin(), bytes.end());
    druxhost::SceneDesc scene;
    try {
        /* no folder: an OBJ or link path stays as written */
        scene = druxhost::parseScene(text, "");
    } catch (const druxhost::SceneError &) {
        return;
    } catch (const std::exception &e) {
        fail(std::string("the reader let another error escape: ") + e.what());
    }
    std::string first, second;
    try {
        first = druxhost::writeScene(scene);
        second = druxhost::writeScene(druxhost::parseScene(first, ""));
    } catch (const std::exception &e) {
        fail(std::string("a written scene does not read back: ") + e.what());
    }
    FZ_CHECK(first == second, "write, read, write gave another text");
}
