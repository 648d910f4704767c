/*
 * The host's text scene format: the built-in scene, every key, round trips,
 * comments and defaults, errors with their lines.
 */
/* The host is optional (-DDRUX_BUILD_HOST=OFF): without its headers this
   suite reports itself skipped instead of breaking the build. */
#if __has_include("render.h")

#include "host_test_scene.h"

namespace {

/* The line of `text` numbered `n` (from 1). */
std::string lineOf(const std::string &text, int n)
{
    std::istringstream in(text);
    std::string line;
    for (int i = 0; i < n && std::getline(in, line); ++i) {
    }
    return line;
}

TEST(HostSceneFormat, BuiltInSceneIsTheShippedFileWithItsLines)
{
    const std::string text = readFile(std::string(DRUXHOST_SCENE_DIR) + "/default.scene");
    ASSERT_FALSE(text.empty());
    const SceneDesc s = defaultScene();
    EXPECT_EQ(writeScene(s), writeScene(parseScene(text)));
    ASSERT_EQ(s.links.size(), 1u);
    EXPECT_EQ(lineOf(text, s.links[0].line), "link \"libdruxhostshaders.so\"");
    auto startsWith = [&](int line, const std::string &head) {
        EXPECT_EQ(lineOf(text, line).rfind(head, 0), 0u) << line << ": " << head;
    };
    startsWith(s.resolutionLine, "resolution ");
    startsWith(s.samplesLine, "samples ");
    startsWith(s.camera.line, "camera ");
    startsWith(s.options.line, "options ");
    startsWith(s.environment.line, "environment ");
    auto each = [&](const auto &items, const std::string &command) {
        for (const auto &d : items)
            startsWith(d.line, command + " " + d.name + " ");
    };
    each(s.textures, "texture");
    each(s.materials, "material");
    each(s.meshes, "mesh");
    each(s.instances, "instance");
    each(s.lights, "light");
    each(s.passes, "pass");
}

/* Every material key: a value other than its default is written, read back
   and lands in a field of the shader's block that no other key fills. */
TEST(HostSceneFormat, EveryMaterialKeyRoundTripsIntoItsOwnParameter)
{
    const MaterialDesc fresh;
    const MaterialParams base = materialParams(fresh, nullptr);
    std::vector<int> owner(sizeof(MaterialParams), -1);
    SceneDesc scene = parseScene("texture t ramp 0 1 1 1 1 linear\nshader s anything\n");
    for (size_t i = 0; i < sizeof kMaterialKeys / sizeof kMaterialKeys[0]; ++i) {
        const MaterialKey &k = kMaterialKeys[i];
        MaterialDesc m;
        m.name = k.name;
        switch (k.type) {
        case KeyType::Number: m.*k.number = m.*k.number + 0.25f; break;
        case KeyType::Integer: m.*k.integer = m.*k.integer + 3; break;
        case KeyType::Boolean: m.*k.boolean = !(m.*k.boolean); break;
        case KeyType::Colour: m.*k.colour = miColor{0.125f, 0.5f, 0.75f, 1}; break;
        case KeyType::Choice: m.*k.integer = 1; break;
        case KeyType::Word: m.*k.word = std::string(k.name) == "shader" ? "s" : "t"; break;
        case KeyType::Vector: FAIL() << "a material has no vector key"; break;
        }
        SceneDesc one = scene;
        one.materials = {m};
        const std::string text = writeScene(one);
        EXPECT_NE(text.find("material " + m.name + " " + k.name + " "), std::string::npos) << text;
        const SceneDesc back = parseScene(text);
        EXPECT_EQ(writeScene(back), text);
        if (k.type == KeyType::Word)
            continue;
        const MaterialParams p = materialParams(back.materials[0], nullptr);
        const unsigned char *a = reinterpret_cast<const unsigned char *>(&p);
        const unsigned char *b = reinterpret_cast<const unsigned char *>(&base);
        int changed = 0;
        for (size_t byte = 0; byte < sizeof p; ++byte)
            if (a[byte] != b[byte]) {
                ++changed;
                EXPECT_EQ(owner[byte], -1) << k.name << " writes where " << kMaterialKeys[owner[byte]].name << " does";
                owner[byte] = static_cast<int>(i);
            }
        EXPECT_GT(changed, 0) << k.name << " does not reach the shader's parameters";
    }
}

TEST(HostSceneFormat, WriteThenParseGivesTheSameScene)
{
    SceneDesc s = testScene();
    MeshDesc tri;
    tri.name = "tri";
    tri.kind = MeshKind::Triangles;
    tri.P = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0.5f}};
    tri.N = {{0, 0, 1}, {0, 0, 1}, {0, 0, 1}};
    tri.uv = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}};
    tri.tris = {{0, 1, 2}};
    s.meshes.push_back(tri);
    tri.name = "flat";
    tri.faceted = true;
    s.meshes.push_back(tri);
    s.meshes[0].faceted = true;
    s.instances[1].steps.push_back({TransformStep::Rotate, {1, 33.5f, 0}});
    s.instances[2].shadowPasses = {"diffuse", "key"};
    s.passes[3].allOccluders = true;
    s.lights[1].sharedShadow = true;
    s.lights[1].shadowColor = {0.1f, 0.2f, 0.3f, 1};
    const std::string text = writeScene(s);
    const SceneDesc back = parseScene(text);
    EXPECT_EQ(writeScene(back), text);
    ASSERT_EQ(back.meshes.back().tris.size(), 1u);
    EXPECT_EQ(back.meshes.back().P[2].z, 0.5f);
    EXPECT_NE(text.find("mesh flat triangles faceted\n"), std::string::npos);
    ASSERT_EQ(back.meshes.size(), s.meshes.size());
    for (size_t i = 0; i < s.meshes.size(); ++i)
        EXPECT_EQ(back.meshes[i].faceted, i == 0 || i + 1 == s.meshes.size()) << i;
    EXPECT_EQ(back.instances[2].shadowPasses.size(), 2u);
    EXPECT_TRUE(back.passes[3].allOccluders);
    EXPECT_TRUE(back.lights[1].sharedShadow);
    EXPECT_EQ(back.passes.back().constant.b, 0.75f);
    EXPECT_EQ(back.textures[0].ramp[1].interpolation, RAMP_SMOOTH);

    const std::string obj = "mesh gem obj \"models/gem.obj\" faceted\n";
    const std::string objText = writeScene(parseScene(obj, DRUXHOST_SCENE_DIR));
    EXPECT_NE(objText.find(obj), std::string::npos) << objText;
    EXPECT_EQ(writeScene(parseScene(objText, DRUXHOST_SCENE_DIR)), objText);

    // The fingerprint parts of a render carry: the same for the same scene,
    // another for any value that changes pixels, the model file's
    // triangles included (the scene's text names only the file).
    EXPECT_EQ(sceneFingerprint(back), sceneFingerprint(s));
    EXPECT_EQ(sceneFingerprint(s).size(), 16u);
    SceneDesc other = s;
    other.samples += 1;
    EXPECT_NE(sceneFingerprint(other), sceneFingerprint(s));
    other = s;
    other.materials[2].ior = 1.41f;
    EXPECT_NE(sceneFingerprint(other), sceneFingerprint(s));
    SceneDesc gem = parseScene(obj, DRUXHOST_SCENE_DIR);
    const std::string before = sceneFingerprint(gem);
    for (auto member : {&MeshDesc::P, &MeshDesc::N, &MeshDesc::uv}) {
        std::vector<miVector> &v = gem.meshes[0].*member;
        if (v.empty())
            continue;
        v[0].x += 0.25f;
        EXPECT_NE(sceneFingerprint(gem), before);
        v[0].x -= 0.25f;
    }
    gem.meshes[0].tris[0][0] = gem.meshes[0].tris[0][1];
    EXPECT_NE(sceneFingerprint(gem), before);
}

TEST(HostSceneFormat, CommentsBlanksAndDefaults)
{
    const SceneDesc s = parseScene("# a comment\n\n   resolution 8 6   # trailing\nsamples 3\n"
                                   "material m\nmesh p plane 2 2 1 1\ninstance i mesh p material m\n"
                                   "light l point position 0 0 3\npass b beauty\n");
    EXPECT_EQ(s.width, 8);
    EXPECT_EQ(s.height, 6);
    EXPECT_EQ(s.samples, 3);
    EXPECT_EQ(s.materials[0].kd, MaterialDesc().kd);
    EXPECT_EQ(s.lights[0].position.z, 3.0f);
    EXPECT_EQ(s.passes[0].role, PassRole::Beauty);
}

void expectError(const std::string &text, int line, const std::string &fragment)
{
    try {
        parseScene(text);
        ADD_FAILURE() << "accepted: " << text;
    } catch (const SceneError &e) {
        EXPECT_EQ(e.line(), line) << e.what();
        EXPECT_NE(std::string(e.what()).find(fragment), std::string::npos) << e.what();
    }
}

TEST(HostSceneFormat, ErrorsNameTheLineAndTheProblem)
{
    expectError("resolution 8 6\nfrobnicate 1\n", 2, "unknown command \"frobnicate\"");
    expectError("resolution 8\n", 1, "missing height");
    expectError("samples four\n", 1, "\"four\" is not a whole number");
    expectError("\ncamera fov wide\n", 2, "\"wide\" is not a finite number");
    expectError("camera fov nan\n", 1, "not a finite number");
    expectError("material m shininess 3\n", 1, "unknown material key \"shininess\"");
    expectError("light l spot position 0 0 1\n", 1, "is not one of point, rect, plain");
    expectError("light l point center 0 0 1\n", 1, "unknown light key \"center\"");
    expectError("pass p sparkle\n", 1, "unknown pass role \"sparkle\"");
    expectError("mesh t triangles\nv 0 0 0\nv 1 0 0\n", 1, "not closed by \"end\"");
    expectError("mesh t triangles\nv 0 0 0\nq 1 2 3\nend\n", 3, "expected v, vn, vt, f or end");
    expectError("resolution 8 6 7\n", 1, "unexpected \"7\"");
    expectError("mesh b box 1 1 1 smooth\n", 1, "\"smooth\" after a mesh: expected faceted");
    expectError("mesh b sphere 1 8 4 faceted 2\n", 1, "unexpected \"2\"");
    /* single-valued commands are refused the second time, even with the same value */
    for (const std::string cmd : {"resolution 8 6", "samples 2"})
        expectError(cmd + "\ncamera fov 30\n" + cmd + "\n", 3, "\"" + cmd.substr(0, cmd.find(' ')) + "\" given twice");
    /* bytes a terminal would interpret are shown escaped, never raw */
    expectError("samples f\x8f\x1b[2J\x7f\n", 1, "\"f\\x8f\\x1b[2J\\x7f\" is not a whole number");
    expectError("frob\xc3\xa9 1\n", 1, "unknown command \"frob\\xc3\\xa9\"");
    expectError("instance i mesh m\n", 1, "needs a mesh and a material");
    /* a long name is cut to its start and its length */
    const std::string longName(10000000, 'q');
    expectError("instance i mesh " + longName + " material m\nmaterial m\n", 1,
                "uses the unknown mesh \"" + longName.substr(0, 119) + "...(10000002 bytes)");
    /* checks of a whole description name the line it came from */
    expectError("material m\n\ninstance i mesh nosuch material m\n", 3, "unknown mesh \"nosuch\"");
    expectError("material m\nmaterial m\n", 2, "\"m\" is defined twice");
    expectError("samples 2\nmesh t triangles\nv 0 0 0\nv 1 0 0\nv 0 1 0\nf 0 1 3\nend\n", 2,
                "vertex index 3 out of range");
    expectError("samples 2\nresolution 0 5\n", 2, "outside 1 .. 16384");
    expectError("samples 2\n\npass g lightgroup\n", 3, "names no group");
    expectError("samples 2\nlight l rect u 1 0 0 v 2 0 0\n", 2, "do not span a rectangle");
    /* ranges of the key table */
    expectError("samples 2\nmaterial m focus 1\n", 2, "material \"m\": focus must lie in [0, 1)");
    expectError("material m ior 0\n", 1, "ior must be > 0");
    expectError("material m\nmaterial n reflect_rays 257\n", 2, "reflect_rays must lie within 1 .. 256");
    expectError("material m scatter_samples 0\n", 1, "scatter_samples must lie within 1 .. 4096");
    expectError("material m model glossy\n", 1, "model: \"glossy\" is not one of phong, blinn");
    expectError("\noptions trace_depth 65\n", 2, "options: trace_depth must lie within 0 .. 64");
    expectError("camera fov 179\n", 1, "camera: fov must lie in (0, 179)");
    expectError("camera position 0 0 1 target 0 0 1\n", 1, "not collinear");
    expectError("samples 2\nlight l rect samples 0\n", 2, "light \"l\": samples must lie within 1 .. 1024");
    expectError("light l plain shadow_mode shared\n", 1, "unknown light key \"shadow_mode\"");
    expectError("light l point falloff linear\n", 1, "\"linear\" is not one of none, quadratic");
    expectError("texture t octaves 13 ramp 0 1 1 1 1 linear\n", 1, "octaves must lie within 1 .. 12");
    /* a description made in code has no line */
    SceneDesc made = parseScene("material m\n");
    made.materials[0].line = 0;
    made.materials[0].scatterScale.g = std::numeric_limits<float>::infinity();
    try {
        validate(made);
        ADD_FAILURE() << "accepted an infinite colour";
    } catch (const SceneError &e) {
        EXPECT_EQ(e.line(), 0);
        EXPECT_STREQ(e.what(), "material \"m\": scatter_scale is a colour that is not finite");
    }
    EXPECT_THROW(loadScene("/nonexistent/dir/x.scene"), SceneError);
}

} // namespace

#else

#include <gtest/gtest.h>

TEST(HostSceneFormat, NotBuilt)
{
    GTEST_SKIP() << "the reference host renderer is not part of this build (DRUX_BUILD_HOST=OFF)";
}

#endif
