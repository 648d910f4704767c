/*
 * Fuzz target: the OBJ loader.  The input is an OBJ file's text.  The loader
 * may refuse it only with its own error (ObjError); any other exception, a
 * crash or a sanitizer report is a finding.  A model it accepts must have
 * finite single-precision values and every corner index inside its arrays,
 * and, written as a scene's triangle mesh, read and written again, give the
 * same text.
 */
#include "harness.h"

#include "obj_loader.h"
#include "scene.h"

#include <exception>

const fz::Target fz::kTarget = {"obj_fuzz", 2, 2};

void fz::setUp() {}

namespace {

bool finite(const miVector &v) { return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z); }

} // namespace

void fz::runInput(Input &in)
{
    const std::vector<uint8_t> bytes = in.bytes(1 << 16);
    const std::string text(bytes.begin(), bytes.end());
    druxhost::MeshDesc m;
    m.name = "fuzz";
    m.kind = druxhost::MeshKind::Triangles;
    try {
        druxhost::parseObj(text, "fuzz.obj", m);
    } catch (const druxhost::ObjError &) {
        return;
    } catch (const std::exception &e) {
        fail(std::string("the loader let another error escape: ") + e.what());
    }
    FZ_CHECK(!m.tris.empty(), "a model without faces was accepted");
    for (const miVector &p : m.P)
        FZ_CHECK(finite(p), "a vertex is not finite");
    for (const miVector &n : m.N)
        FZ_CHECK(finite(n), "a normal is not finite");
    FZ_CHECK(m.N.empty() || m.N.size() == m.P.size(), "normals and vertices differ in number");
    FZ_CHECK(m.uv.empty() || m.uv.size() == m.P.size(), "texture coordinates and vertices differ in number");
    for (const auto &t : m.tris)
        for (int c : t)
            FZ_CHECK(c >= 0 && static_cast<size_t>(c) < m.P.size(), "a corner index lies outside the vertices");

    druxhost::SceneDesc scene;
    scene.meshes.push_back(m);
    std::string first, second;
    try {
        first = druxhost::writeScene(scene);
        second = druxhost::writeScene(druxhost::parseScene(first, ""));
    } catch (const std::exception &e) {
        fail(std::string("the model written as a scene does not read back: ") + e.what());
    }
    FZ_CHECK(first == second, "write, read, write gave another text");
}
