// The shared library's dynamic symbol table: every public name is exported
// under its exact (plain or mangled) name, nothing private leaks, and the
// library's only external dependencies are the renderer and the C/C++ runtime.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

namespace {

std::string run(const std::string &cmd)
{
    std::string out;
    FILE *p = popen(cmd.c_str(), "r");
    if (!p)
        return out;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0)
        out.append(buf, n);
    pclose(p);
    return out;
}

struct Symbol {
    char kind;
    std::string name;
};

// Dynamic symbols, defined or undefined.
std::vector<Symbol> dynamicSymbols()
{
    std::vector<Symbol> syms;
    std::istringstream in(run("nm -D '" DRUX_LIBRARY_PATH "'"));
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream ls(line);
        std::string a, b, c;
        ls >> a >> b >> c;
        if (c.empty()) // undefined: "U name"
            syms.push_back({a[0], b});
        else
            syms.push_back({b[0], c});
    }
    return syms;
}

std::set<std::string> expectedExports()
{
    std::set<std::string> names;
    std::ifstream in(DRUX_SOURCE_DIR "/SDK/exported_symbols.txt");
    std::string line;
    while (std::getline(in, line))
        if (!line.empty() && line[0] != '#')
            names.insert(line);
    return names;
}

bool isDefined(char kind) { return kind != 'U' && kind != 'w' && kind != 'v'; }

// Every public name under its exact symbol, and nothing else: not even the
// standard library's template instantiations, which carry default visibility
// whatever the build's preset (a host linking against the library could bind
// to them instead of its own).
TEST(Exports, ExactlyThePublicNames)
{
    const auto syms = dynamicSymbols();
    ASSERT_FALSE(syms.empty()) << "nm -D gave nothing for " DRUX_LIBRARY_PATH;
    const auto expected = expectedExports();
    ASSERT_GT(expected.size(), 90u);
    std::set<std::string> defined;
    for (const auto &s : syms)
        if (isDefined(s.kind)) {
            defined.insert(s.name);
            EXPECT_TRUE(expected.count(s.name)) << "unexpected exported symbol: " << s.name << " (" << s.kind << ")";
        }
    for (const auto &name : expected)
        EXPECT_TRUE(defined.count(name)) << "not exported: " << name;
}

// Configuration comes from the scene alone: the library reads no
// environment variable.
TEST(Exports, NoEnvironmentLookups)
{
    for (const auto &s : dynamicSymbols())
        for (const char *name : {"getenv", "secure_getenv", "__secure_getenv", "environ", "__environ"})
            EXPECT_NE(s.name, name) << "the library refers to " << name;
}

TEST(Exports, PrivateHelpersAreHidden)
{
    const char *privateNames[] = {"sampler_scaninst", "sampler_runbatch", "hash_insert", "grid_insert",
                                  "gridit_next", "ramp_hermite_interp", "gradientNoiseTable", "tla_list"};
    // A private name may appear as a plain C name or as an identifier inside
    // a mangled C++ name (<length><identifier>).
    for (const auto &s : dynamicSymbols())
        for (const char *p : privateNames) {
            const std::string plain(p), mangled = std::to_string(plain.size()) + plain;
            EXPECT_NE(s.name, plain) << "private name visible: " << s.name;
            EXPECT_EQ(s.name.find(mangled), std::string::npos) << "private name visible: " << s.name;
        }
}

TEST(Exports, RendererCallsStayUndefined)
{
    // The renderer provides mi_*; the library must not carry its own copies,
    // and must need nothing beyond the C/C++ runtime.
    std::set<std::string> undefinedMi;
    for (const auto &s : dynamicSymbols()) {
        if (s.name.rfind("mi_", 0) == 0) {
            EXPECT_EQ(s.kind, 'U') << s.name << " defined inside the library";
            undefinedMi.insert(s.name);
        }
    }
    EXPECT_TRUE(undefinedMi.count("mi_db_access_type"));
    EXPECT_TRUE(undefinedMi.count("mi_mem_int_allocate"));

    std::string needed = run("objdump -p '" DRUX_LIBRARY_PATH "' | grep NEEDED");
    std::istringstream in(needed);
    std::string word, lib;
    while (in >> word >> lib) {
        const bool allowed = lib.rfind("libstdc++", 0) == 0 || lib.rfind("libm.", 0) == 0 ||
                             lib.rfind("libc.", 0) == 0 || lib.rfind("libgcc_s", 0) == 0 ||
                             lib.rfind("ld-linux", 0) == 0 || lib.rfind("libasan", 0) == 0 ||
                             lib.rfind("libubsan", 0) == 0 || lib.rfind("libtsan", 0) == 0;
        EXPECT_TRUE(allowed) << "unexpected dependency " << lib;
    }
}

} // namespace
