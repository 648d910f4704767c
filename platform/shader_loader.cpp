#include "shader_loader.h"

#include "runtime.h"
#include "runtime_internal.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <set>
#include <sys/stat.h>

namespace mirt {

namespace {

/* Why the library's file has a function `name` that the dynamic linker
   does not find: " (the library has it as the C++ function X)" or " (the
   library has it, but hidden)"; "" when the file has no such function. */
std::string unexportedNote(const std::string &path, const std::string &name)
{
    for (const rt::FileSymbol &f : rt::file_symbols(path, {name})) {
        if (f.mangled)
            return " (the library has it as the C++ function " + f.name + ", whose name is mangled: declare it "
                   "extern \"C\")";
        if (!f.exported)
            return " (the library has it, but hidden: it is not exported)";
    }
    return "";
}

struct TypeInfo {
    int type;
    const char *name;
    size_t size;
};
const TypeInfo kTypes[] = {
    {miTYPE_SCALAR, "scalar", 4},    {miTYPE_INTEGER, "integer", 4},     {miTYPE_BOOLEAN, "boolean", 4},
    {miTYPE_COLOR, "color", 16},     {miTYPE_VECTOR, "vector", 12},      {miTYPE_TRANSFORM, "transform", 64},
    {miTYPE_STRING, "string", 4},    {miTYPE_SHADER, "shader", 4},
    {miTYPE_COLOR_RAMP, "color ramp", 24}, {miTYPE_SCALAR_RAMP, "scalar ramp", 12},
    {miTYPE_PASS, "pass", 4},
};

bool isRamp(int type) { return type == miTYPE_COLOR_RAMP || type == miTYPE_SCALAR_RAMP; }

/* The interpolation names of a ramp key, as in a texture's ramp (RAMP_NONE ...). */
const char *const kInterpolations[] = {"none", "linear", "smooth", "spline"};

const TypeInfo *typeInfo(int type)
{
    for (const TypeInfo &t : kTypes)
        if (t.type == type)
            return &t;
    return nullptr;
}

bool isFile(const std::string &path)
{
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

std::string unquote(const std::string &s)
{
    if (s.size() >= 2 && s.front() == '"' && s.back() == '"')
        return s.substr(1, s.size() - 2);
    return s;
}

bool toFloat(const std::string &w, float &v)
{
    char *end = nullptr;
    errno = 0;
    v = std::strtof(w.c_str(), &end);
    return end != w.c_str() && *end == '\0' && errno != ERANGE && std::isfinite(v);
}

bool toInt(const std::string &w, int &v)
{
    char *end = nullptr;
    errno = 0;
    const long l = std::strtol(w.c_str(), &end, 10);
    if (end == w.c_str() || *end != '\0' || errno == ERANGE || l < -2147483647L || l > 2147483647L)
        return false;
    v = static_cast<int>(l);
    return true;
}

/* A boolean word: on/true/yes/1 or off/false/no/0. */
miBoolean booleanWord(const std::string &what, const std::string &w)
{
    if (w == "on" || w == "true" || w == "yes" || w == "1")
        return miTRUE;
    if (w == "off" || w == "false" || w == "no" || w == "0")
        return miFALSE;
    throw LoadError("wrong type: " + what + " is boolean, \"" + w + "\" is not on or off");
}

std::vector<std::string> split(const char *text)
{
    std::vector<std::string> out;
    std::string cur;
    for (const char *c = text; c && *c; ++c) {
        if (*c == ' ' || *c == '\t' || *c == '\n') {
            if (!cur.empty())
                out.push_back(cur);
            cur.clear();
        } else {
            cur += *c;
        }
    }
    if (!cur.empty())
        out.push_back(cur);
    return out;
}

} // namespace

size_t param_type_size(int type)
{
    const TypeInfo *t = typeInfo(type);
    return t ? t->size : 0;
}

const char *param_type_name(int type)
{
    const TypeInfo *t = typeInfo(type);
    return t ? t->name : "unknown";
}

/* Largest parameter block: 2 GiB less the alignment and the 4 bytes of
   slack the instances allocate beyond it. */
constexpr size_t kMaxParamBlock = 0x7FFFFFF0;

std::vector<ParamSlot> layout_params(const miShaderDecl &decl, size_t *block_size)
{
    std::vector<ParamSlot> out;
    std::set<std::string> seen;
    size_t at = 0;
    for (int k = 0; k < decl.param_count; ++k) {
        const miParamDecl &p = decl.params[k];
        const std::string name = p.name ? p.name : "";
        if (name.empty())
            throw LoadError("shader \"" + std::string(decl.name) + "\": parameter " + std::to_string(k + 1) +
                            " has no name");
        if (!seen.insert(name).second)
            throw LoadError("shader \"" + std::string(decl.name) + "\": parameter \"" + name + "\" is declared twice");
        const size_t size = param_type_size(p.type);
        if (!size)
            throw LoadError("shader \"" + std::string(decl.name) + "\": parameter \"" + name + "\" has unknown type " +
                            std::to_string(p.type));
        if (p.array_max < 0 || p.array_max > 65536)
            throw LoadError("shader \"" + std::string(decl.name) + "\": parameter \"" + name +
                            "\" has an array size of " + std::to_string(p.array_max));
        if (isRamp(p.type) && p.array_max == 0)
            throw LoadError("shader \"" + std::string(decl.name) + "\": ramp parameter \"" + name +
                            "\" needs its most keys as array_max (1 to 65536)");
        ParamSlot s;
        s.name = name;
        s.type = p.type;
        s.array_max = p.array_max;
        at = (at + 3) & ~size_t(3); /* every type is 4-byte aligned */
        s.offset = at;
        s.size = p.array_max > 0 ? 8 + size * static_cast<size_t>(p.array_max) : size;
        s.default_value = p.default_value;
        at += s.size;
        /* the renderer keeps a block's size in an int: a larger declaration
           would give a block of a wrapped (0 or negative) size */
        if (at > kMaxParamBlock)
            throw LoadError("shader \"" + std::string(decl.name) + "\": its parameters need more than " +
                            std::to_string(kMaxParamBlock) + " bytes (parameter \"" + name +
                            "\" ends at byte " + std::to_string(at) + "); declare smaller arrays");
        out.push_back(s);
    }
    if (block_size)
        *block_size = (at + 3) & ~size_t(3);
    return out;
}

const ParamSlot *LoadedShader::param(const std::string &n) const
{
    for (const ParamSlot &p : params)
        if (p.name == n)
            return &p;
    return nullptr;
}

std::string did_you_mean(const std::string &name, const std::vector<std::string> &known)
{
    /* Levenshtein distance, case-insensitive */
    auto distance = [](const std::string &a, const std::string &b) {
        std::vector<size_t> row(b.size() + 1);
        for (size_t j = 0; j <= b.size(); ++j)
            row[j] = j;
        for (size_t i = 1; i <= a.size(); ++i) {
            size_t diag = row[0];
            row[0] = i;
            for (size_t j = 1; j <= b.size(); ++j) {
                const size_t up = row[j];
                const bool same = std::tolower(static_cast<unsigned char>(a[i - 1])) ==
                                  std::tolower(static_cast<unsigned char>(b[j - 1]));
                row[j] = std::min({row[j] + 1, row[j - 1] + 1, diag + (same ? 0 : 1)});
                diag = up;
            }
        }
        return row[b.size()];
    };
    const size_t limit = std::max<size_t>(1, name.size() / 3);
    size_t best = limit + 1;
    std::vector<std::string> closest;
    for (const std::string &k : known) {
        const size_t d = distance(name, k);
        if (d < best) {
            best = d;
            closest.clear();
        }
        if (d == best && std::find(closest.begin(), closest.end(), k) == closest.end())
            closest.push_back(k);
    }
    if (closest.empty())
        return std::string();
    std::string out = "; did you mean ";
    for (size_t k = 0; k < closest.size(); ++k)
        out += (k == 0 ? "" : (k + 1 == closest.size() ? " or " : ", ")) + ("\"" + closest[k] + "\"");
    return out + "?";
}

std::string renderer_library_dir()
{
    Dl_info info;
    if (!dladdr(reinterpret_cast<void *>(&renderer_library_dir), &info) || !info.dli_fname)
        return std::string();
    const std::string path = info.dli_fname;
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string(".") : path.substr(0, slash);
}

/* A shader of the checked table form, as a declaration of the positional
   form plus the offsets and sizes the library's struct has. */
struct CheckedShader {
    miShaderDecl decl{};
    std::vector<miParamDecl> params;
    std::vector<size_t> offsets, sizes;
    size_t structSize = 0;
};

/* A pass parameter's value must name one of the scene's passes. */
void checkPassName(const std::string &what, const ParamSlot &p, const char *block,
                   const std::vector<std::string> &passes)
{
    miTag tag;
    std::memcpy(&tag, block + p.offset, sizeof tag);
    if (!tag)
        return; /* empty: no pass */
    const char *name = static_cast<const char *>(db_data(tag));
    const std::string n = name ? name : "";
    if (std::find(passes.begin(), passes.end(), n) != passes.end())
        return;
    std::string list;
    for (const std::string &q : passes)
        list += (list.empty() ? "" : ", ") + q;
    throw LoadError(what + " names pass \"" + n + "\", which the scene does not declare (its passes: " +
                    (list.empty() ? std::string("none") : list) + "): add a `pass " + n +
                    " ROLE` line or name a declared pass" + did_you_mean(n, passes));
}

struct ShaderLibraries::Impl {
    bool checkPasses = false;
    std::vector<std::string> passNames;
    struct Library {
        std::string path;
        void *handle = nullptr;
        const miShaderLibrary *table = nullptr;
        /* every declaration, positional first; checked[k] is null for a positional one */
        std::vector<const miShaderDecl *> decls;
        std::vector<std::shared_ptr<CheckedShader>> checked;
    };
    struct Instance {
        std::string name;
        const LoadedShader *shader = nullptr;
        miTag fn = 0;
        bool instanceInit = false;
    };
    std::vector<Library> libs;
    std::map<std::string, std::unique_ptr<LoadedShader>> shaders;
    std::vector<Instance> instances;
    std::map<std::string, size_t> byName;
    std::vector<const LoadedShader *> initialised; /* shaders in the order of their first instance */
    std::map<const LoadedShader *, bool> wantsInstanceInit;
    bool inited = false;

    ~Impl()
    {
        for (auto it = libs.rbegin(); it != libs.rend(); ++it)
            if (it->handle)
                dlclose(it->handle);
    }

    /* The function of the shader instance named `n` ("none": no shader). */
    miTag instanceNamed(const std::string &what, const std::string &n) const
    {
        if (n == "none")
            return 0;
        auto it = byName.find(n);
        if (it == byName.end())
            throw LoadError(what + ": no shader instance \"" + n + "\" (instances are named before use)");
        return instances[it->second].fn;
    }

    /* Writes one value of `type` from tokens[i...] into dst; advances i. */
    void value(const std::string &what, int type, const std::vector<std::string> &t, size_t &i, char *dst,
               std::vector<miTag> &made)
    {
        auto need = [&](size_t n) {
            if (i + n > t.size())
                throw LoadError(what + ": missing " + param_type_name(type) + " value");
        };
        auto num = [&]() {
            need(1);
            float v;
            if (!toFloat(t[i], v))
                throw LoadError("wrong type: " + what + " is " + param_type_name(type) + ", \"" + t[i] +
                                "\" is not a number");
            ++i;
            return v;
        };
        switch (type) {
        case miTYPE_SCALAR: {
            const float v = num();
            std::memcpy(dst, &v, 4);
            break;
        }
        case miTYPE_INTEGER: {
            need(1);
            int v;
            if (!toInt(t[i], v))
                throw LoadError("wrong type: " + what + " is integer, \"" + t[i] + "\" is not a whole number");
            ++i;
            std::memcpy(dst, &v, 4);
            break;
        }
        case miTYPE_BOOLEAN: {
            need(1);
            const miBoolean b = booleanWord(what, t[i]);
            ++i;
            std::memcpy(dst, &b, 4);
            break;
        }
        case miTYPE_COLOR: {
            float c[4] = {0, 0, 0, 1};
            for (int k = 0; k < 3; ++k)
                c[k] = num();
            float a;
            if (i < t.size() && toFloat(t[i], a)) {
                c[3] = a;
                ++i;
            }
            std::memcpy(dst, c, 16);
            break;
        }
        case miTYPE_VECTOR:
        case miTYPE_TRANSFORM: {
            const int n = type == miTYPE_VECTOR ? 3 : 16;
            for (int k = 0; k < n; ++k) {
                const float v = num();
                std::memcpy(dst + 4 * k, &v, 4);
            }
            break;
        }
        case miTYPE_STRING:
        case miTYPE_PASS: {
            need(1);
            const std::string s = unquote(t[i++]);
            miTag tag = 0;
            if (!s.empty()) {
                tag = db_create_string(s.c_str());
                made.push_back(tag);
            }
            std::memcpy(dst, &tag, 4);
            break;
        }
        case miTYPE_SHADER: {
            need(1);
            const miTag tag = instanceNamed(what, t[i++]);
            std::memcpy(dst, &tag, 4);
            break;
        }
        case miTYPE_COLOR_RAMP:
        case miTYPE_SCALAR_RAMP: {
            /* ramp POSITION R G B A INTERPOLATION, or ramp POSITION VALUE INTERPOLATION */
            const bool colour = type == miTYPE_COLOR_RAMP;
            const char *form = colour ? "ramp POSITION R G B A INTERPOLATION" : "ramp POSITION VALUE INTERPOLATION";
            need(1);
            if (t[i] != "ramp")
                throw LoadError("wrong type: " + what + " is a " + param_type_name(type) + ", keys written " + form);
            ++i;
            const int values = colour ? 5 : 2;
            for (int k = 0; k < values; ++k) {
                const float v = num();
                std::memcpy(dst + 4 * k, &v, 4);
            }
            need(1);
            int kind = -1;
            for (int k = 0; k < 4; ++k)
                if (t[i] == kInterpolations[k])
                    kind = k;
            if (kind < 0)
                throw LoadError("wrong type: " + what + ": \"" + t[i] +
                                "\" is not an interpolation (none, linear, smooth or spline)");
            ++i;
            std::memcpy(dst + 4 * values, &kind, 4);
            break;
        }
        default:
            throw LoadError(what + ": unknown type");
        }
    }

    /* A parameter's value (or array) from tokens[i...]. */
    void fill(const std::string &what, const ParamSlot &p, const std::vector<std::string> &t, size_t &i,
              char *block, std::vector<miTag> &made)
    {
        char *dst = block + p.offset;
        if (p.array_max == 0) {
            value(what, p.type, t, i, dst, made);
            return;
        }
        const size_t size = param_type_size(p.type);
        int n = 0;
        if (isRamp(p.type)) {
            /* keys as long as a `ramp` word is followed by a number (a parameter
               may itself be named ramp) */
            float ignored;
            auto key = [&] { return i + 1 < t.size() && t[i] == "ramp" && toFloat(t[i + 1], ignored); };
            if (!key())
                throw LoadError("wrong type: " + what + " is a " + param_type_name(p.type) + ", keys written " +
                                (p.type == miTYPE_COLOR_RAMP ? "ramp POSITION R G B A INTERPOLATION"
                                                             : "ramp POSITION VALUE INTERPOLATION") +
                                ", repeated");
            std::memset(dst, 0, p.size);
            for (; key(); ++n) {
                if (n >= p.array_max)
                    throw LoadError(what + ": more than " + std::to_string(p.array_max) + " ramp keys");
                value(what + " key " + std::to_string(n), p.type, t, i, dst + 8 + size * static_cast<size_t>(n),
                      made);
            }
            const int first = 0;
            std::memcpy(dst, &first, 4);
            std::memcpy(dst + 4, &n, 4);
            return;
        }
        if (i >= t.size() || t[i] != "[")
            throw LoadError("wrong type: " + what + " is an array of " + param_type_name(p.type) +
                            ", written [ VALUE ... ]");
        ++i;
        std::memset(dst, 0, p.size);
        while (true) {
            if (i >= t.size())
                throw LoadError(what + ": missing ] at the end of the array");
            if (t[i] == "]") {
                ++i;
                break;
            }
            if (n >= p.array_max)
                throw LoadError(what + ": more than " + std::to_string(p.array_max) + " elements");
            value(what + " element " + std::to_string(n), p.type, t, i, dst + 8 + size * static_cast<size_t>(n),
                  made);
            ++n;
        }
        const int first = 0;
        std::memcpy(dst, &first, 4);
        std::memcpy(dst + 4, &n, 4);
    }
};

namespace {

/* Most rows a checked table may have (the end marker included). */
constexpr int kMaxFields = 65536;

/* Adds the checked shaders of `table` to `lib`; a problem's text, or empty. */
std::string readChecked(const miShaderLibrary &table, ShaderLibraries::Impl::Library &lib)
{
    if (table.checked_count < 0 || (table.checked_count > 0 && !table.checked))
        return "the checked declaration table is malformed";
    for (int k = 0; k < table.checked_count; ++k) {
        const miShaderDef &d = table.checked[k];
        const std::string name = d.name ? d.name : "";
        const std::string what = "the checked declaration " + std::to_string(k + 1) +
                                 (name.empty() ? std::string() : " (\"" + name + "\")");
        if (name.empty())
            return what + " has no name";
        if (!d.fields || d.field_count < 1 || d.field_count > kMaxFields)
            return what + " has " + std::to_string(d.field_count) +
                   " rows; declare it with DRUX_SHADER, whose rows end with DRUX_PARAM_END";
        /* the count is the rows' array length (DRUX_SHADER takes it from sizeof):
           its last row must be the end marker and no other row may be */
        for (int r = 0; r < d.field_count; ++r) {
            const bool end = d.fields[r].decl.name == nullptr;
            if (end != (r == d.field_count - 1))
                return what + (end ? ": row " + std::to_string(r + 1) + " has no name"
                                   : ": the rows do not end with DRUX_PARAM_END");
        }
        auto c = std::make_shared<CheckedShader>();
        for (int r = 0; r + 1 < d.field_count; ++r) {
            c->params.push_back(d.fields[r].decl);
            c->offsets.push_back(d.fields[r].offset);
            c->sizes.push_back(d.fields[r].size);
        }
        c->structSize = d.block_size;
        c->decl.name = d.name;
        c->decl.result_type = d.result_type;
        c->decl.version = d.version;
        c->decl.params = c->params.empty() ? nullptr : c->params.data();
        c->decl.param_count = static_cast<int>(c->params.size());
        lib.decls.push_back(&c->decl);
        lib.checked.push_back(c);
    }
    return std::string();
}

/* Compares the loader's layout of a checked shader with its struct's. */
void checkLayout(const std::string &library, const CheckedShader &c, const std::vector<ParamSlot> &slots,
                 size_t blockSize)
{
    const std::string where = "shader library \"" + library + "\": shader \"" + c.decl.name + "\": ";
    for (size_t k = 0; k < slots.size(); ++k) {
        if (slots[k].offset != c.offsets[k])
            throw LoadError(where + "parameter \"" + slots[k].name + "\" is at byte " + std::to_string(slots[k].offset) +
                            " of the block the table lays out, but at byte " + std::to_string(c.offsets[k]) +
                            " of the struct: list the rows in the struct's member order, one per member");
        if (slots[k].size != c.sizes[k])
            throw LoadError(where + "parameter \"" + slots[k].name + "\" takes " + std::to_string(slots[k].size) +
                            " bytes as a " + param_type_name(slots[k].type) + ", but its member takes " +
                            std::to_string(c.sizes[k]) + ": give the row the member's type");
    }
    if (blockSize != c.structSize)
        throw LoadError(where + "the table lays out " + std::to_string(blockSize) + " bytes, but the struct has " +
                        std::to_string(c.structSize) + ": a member after \"" +
                        (slots.empty() ? std::string("(none)") : slots.back().name) + "\" has no row");
}

} // namespace

ShaderLibraries::ShaderLibraries() : impl_(new Impl) {}
ShaderLibraries::~ShaderLibraries() = default;

size_t ShaderLibraries::library_count() const { return impl_->libs.size(); }

std::vector<std::string> ShaderLibraries::library_paths() const
{
    std::vector<std::string> out;
    for (const Impl::Library &l : impl_->libs)
        out.push_back(l.path);
    return out;
}

std::vector<std::string> ShaderLibraries::declared_shaders(const std::string &path) const
{
    std::vector<std::string> out;
    for (const Impl::Library &l : impl_->libs)
        if (l.path == path)
            for (const miShaderDecl *d : l.decls)
                if (d->name)
                    out.push_back(d->name);
    return out;
}

std::string ShaderLibraries::link(const std::string &fileIn, const std::vector<std::string> &folders)
{
    const std::string file = unquote(fileIn);
    if (file.empty())
        throw LoadError("link: no library named");
    std::string path;
    if (file.find('/') != std::string::npos) {
        if (!isFile(file))
            throw LoadError("shader library \"" + file + "\" not found");
        path = file;
    } else {
        std::string searched;
        for (const std::string &f : folders) {
            if (f.empty())
                continue;
            searched += (searched.empty() ? "" : ", ") + f;
            const std::string p = f + "/" + file;
            if (isFile(p)) {
                path = p;
                break;
            }
        }
        if (path.empty())
            throw LoadError("shader library \"" + file + "\" not found; searched: " +
                            (searched.empty() ? std::string("no folders") : searched));
    }
    char *real = ::realpath(path.c_str(), nullptr);
    if (real) {
        path = real;
        std::free(real);
    }
    for (const Impl::Library &l : impl_->libs)
        if (l.path == path)
            return path;
    dlerror();
    void *h = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!h) {
        const char *e = dlerror();
        throw LoadError("shader library \"" + path + "\" cannot be loaded: " + (e ? e : "unknown reason"));
    }
    auto table_fn = reinterpret_cast<miShaderLibrary_fn>(dlsym(h, miSHADER_LIBRARY_SYMBOL));
    const miShaderLibrary *table = table_fn ? table_fn() : nullptr;
    std::string problem;
    if (!table_fn)
        problem = "symbol missing: " + std::string(miSHADER_LIBRARY_SYMBOL) + " (the library's shader declarations)";
    else if (!table || table->abi < 1 || table->abi > miSHADER_LIBRARY_ABI)
        problem = "version mismatch: the declaration table is of version " + std::to_string(table ? table->abi : 0) +
                  ", the renderer reads version " + std::to_string(miSHADER_LIBRARY_ABI);
    else if (table->shader_count < 0 || (table->shader_count > 0 && !table->shaders))
        problem = "the declaration table is malformed";
    Impl::Library lib;
    lib.path = path;
    lib.handle = h;
    lib.table = table;
    if (problem.empty()) {
        for (int k = 0; k < table->shader_count; ++k) {
            lib.decls.push_back(&table->shaders[k]);
            lib.checked.push_back(nullptr);
        }
        if (table->abi >= 2)
            problem = readChecked(*table, lib);
    }
    if (!problem.empty()) {
        dlclose(h);
        throw LoadError("shader library \"" + path + "\": " + problem);
    }
    bool unchecked = false;
    for (int k = 0; k < table->shader_count; ++k)
        unchecked = unchecked || table->shaders[k].param_count > 0;
    if (unchecked)
        log_message(Level::Info, "shader library \"" + path + "\" declares its parameters in the positional form: "
                                 "their order against the shaders' structs is unchecked (declare them with "
                                 "DRUX_PARAM rows, shader_library.h, to have it checked)");
    impl_->libs.push_back(std::move(lib));
    return path;
}

void *ShaderLibraries::find_symbol(const std::string &symbol) const
{
    for (const Impl::Library &l : impl_->libs)
        if (void *s = dlsym(l.handle, symbol.c_str()))
            return s;
    return nullptr;
}

const LoadedShader &ShaderLibraries::shader(const std::string &name)
{
    auto known = impl_->shaders.find(name);
    if (known != impl_->shaders.end())
        return *known->second;
    for (const Impl::Library &l : impl_->libs) {
        for (size_t k = 0; k < l.decls.size(); ++k) {
            const miShaderDecl &d = *l.decls[k];
            if (!d.name || name != d.name)
                continue;
            if (d.param_count < miPARAMS_BUILT_BY_HOST || (d.param_count > 0 && !d.params))
                throw LoadError("shader library \"" + l.path + "\": the declaration of \"" + name +
                                "\" is malformed (" + std::to_string(d.param_count) + " parameters)");
            std::unique_ptr<LoadedShader> s(new LoadedShader);
            s->name = name;
            s->library = l.path;
            s->decl = &d;
            s->fn = reinterpret_cast<miShader_fn>(dlsym(l.handle, name.c_str()));
            if (!s->fn)
                throw LoadError("symbol missing: shader \"" + name + "\" is declared by \"" + l.path +
                                "\" but the library exports no function " + name + unexportedNote(l.path, name) +
                                "; define it as DRUX_SHADER_EXPORT miBoolean " + name +
                                "(...) (extern \"C\" and visible, so that it keeps its name)");
            s->init = reinterpret_cast<InitFn>(dlsym(l.handle, (name + "_init").c_str()));
            s->exit = reinterpret_cast<ExitFn>(dlsym(l.handle, (name + "_exit").c_str()));
            for (const char *part : {"_init", "_exit"}) {
                if ((part[1] == 'i' ? reinterpret_cast<void *>(s->init) : reinterpret_cast<void *>(s->exit)))
                    continue;
                const std::string note = unexportedNote(l.path, name + part);
                if (!note.empty())
                    throw LoadError("shader \"" + name + "\" of \"" + l.path + "\": " + name + part + note +
                                    ", so the renderer would never call it; define it as DRUX_SHADER_EXPORT void " +
                                    name + part + "(...)");
            }
            if (auto version = reinterpret_cast<VersionFn>(dlsym(l.handle, (name + "_version").c_str()))) {
                const int v = version();
                if (v != d.version)
                    throw LoadError("version mismatch: " + name + "_version() returns " + std::to_string(v) +
                                    ", the declaration of \"" + name + "\" says " + std::to_string(d.version));
            }
            if (!param_type_size(d.result_type))
                throw LoadError("shader \"" + name + "\" declares an unknown result type " +
                                std::to_string(d.result_type));
            s->params = layout_params(d, &s->block_size);
            s->checked = l.checked[k] != nullptr;
            if (l.checked[k])
                checkLayout(l.path, *l.checked[k], s->params, s->block_size);
            /* check the defaults now, so that a bad table is reported once, at the shader */
            std::vector<char> scratch(s->block_size + 4);
            std::vector<miTag> made;
            try {
                for (const ParamSlot &p : s->params)
                    if (p.default_value) {
                        const std::vector<std::string> t = split(p.default_value);
                        size_t i = 0;
                        impl_->fill("default of parameter \"" + p.name + "\"", p, t, i, scratch.data(), made);
                        if (i != t.size())
                            throw LoadError("default of parameter \"" + p.name + "\" has extra text \"" + t[i] + "\"");
                    }
            } catch (const LoadError &e) {
                for (miTag m : made)
                    db_delete(m);
                throw LoadError("shader \"" + name + "\" of \"" + l.path + "\": " + e.what());
            }
            for (miTag m : made)
                db_delete(m);
            const LoadedShader &ref = *s;
            impl_->shaders[name] = std::move(s);
            return ref;
        }
    }
    std::string linked;
    for (const Impl::Library &l : impl_->libs)
        linked += (linked.empty() ? "" : ", ") + l.path;
    std::vector<std::string> declared;
    for (const Impl::Library &l : impl_->libs)
        for (const miShaderDecl *d : l.decls)
            if (d->name)
                declared.push_back(d->name);
    throw LoadError("unknown shader \"" + name + "\": no linked library declares it (linked: " +
                    (linked.empty() ? std::string("none") : linked) + ")" + did_you_mean(name, declared));
}

void ShaderLibraries::set_pass_names(const std::vector<std::string> &names)
{
    impl_->checkPasses = true;
    impl_->passNames = names;
}

miTag ShaderLibraries::instantiate(const std::string &instance, const std::string &function,
                                   const std::vector<std::string> &t, std::vector<miTag> &made)
{
    if (impl_->byName.count(instance))
        throw LoadError("shader instance \"" + instance + "\" is defined twice");
    const LoadedShader &s = shader(function);
    if (s.decl->param_count == miPARAMS_BUILT_BY_HOST)
        throw LoadError("shader \"" + function + "\" declares no parameters: its blocks are built by the program "
                        "that uses it, not by a shader instance");
    std::vector<char> block(s.block_size + 4, 0);
    std::vector<std::pair<size_t, miTag>> connections;
    std::vector<miTag> local;
    try {
        /* defaults first, then the scene's values */
        for (const ParamSlot &p : s.params)
            if (p.default_value) {
                const std::vector<std::string> d = split(p.default_value);
                size_t i = 0;
                impl_->fill(p.name, p, d, i, block.data(), local);
            }
        std::set<std::string> given;
        for (size_t i = 0; i < t.size();) {
            const std::string name = t[i++];
            const ParamSlot *p = s.param(name);
            if (!p) {
                std::vector<std::string> known;
                for (const ParamSlot &q : s.params)
                    known.push_back(q.name);
                throw LoadError("unknown parameter \"" + name + "\" of shader \"" + function + "\"" +
                                did_you_mean(name, known));
            }
            if (!given.insert(name).second)
                throw LoadError("parameter \"" + name + "\" is given twice");
            const std::string what = "parameter \"" + name + "\"";
            if (i < t.size() && t[i] == "=") {
                ++i;
                if (i >= t.size())
                    throw LoadError(what + ": missing shader instance after =");
                const std::string src = t[i++];
                auto it = impl_->byName.find(src);
                if (it == impl_->byName.end())
                    throw LoadError(what + ": no shader instance \"" + src + "\" (instances are named before use)");
                const Impl::Instance &from = impl_->instances[it->second];
                if (p->array_max > 0)
                    throw LoadError("wrong type: " + what + " is an array and cannot be connected");
                if (from.shader && from.shader->decl->result_type != p->type)
                    throw LoadError(std::string("wrong type: ") + what + " is " + param_type_name(p->type) +
                                    ", \"" + src + "\" returns " + param_type_name(from.shader->decl->result_type));
                connections.emplace_back(p->offset, from.fn);
                continue;
            }
            impl_->fill(what, *p, t, i, block.data(), local);
            if (p->type == miTYPE_PASS && impl_->checkPasses)
                checkPassName(what, *p, block.data(), impl_->passNames);
        }
    } catch (...) {
        for (miTag m : local)
            db_delete(m);
        throw;
    }
    const miTag fn = make_function(miSHADER_MATERIAL, s.fn, block.data(), static_cast<int>(s.block_size),
                                   static_cast<int>(param_type_size(s.decl->result_type)), true, instance.c_str());
    for (const auto &c : connections)
        connect(fn, c.first, c.second);
    made.insert(made.end(), local.begin(), local.end());
    made.push_back(fn);
    add_instance(instance, s, fn);
    return fn;
}

void ShaderLibraries::add_instance(const std::string &name, const LoadedShader &s, miTag fn)
{
    if (impl_->byName.count(name))
        throw LoadError("shader instance \"" + name + "\" is defined twice");
    impl_->byName[name] = impl_->instances.size();
    impl_->instances.push_back(Impl::Instance{name, &s, fn, false});
}

miTag ShaderLibraries::instance(const std::string &name) const
{
    auto it = impl_->byName.find(name);
    return it == impl_->byName.end() ? 0 : impl_->instances[it->second].fn;
}

void ShaderLibraries::init_all(miState *state)
{
    if (impl_->inited)
        return;
    impl_->inited = true;
    for (Impl::Instance &in : impl_->instances) {
        const LoadedShader *s = in.shader;
        if (std::find(impl_->initialised.begin(), impl_->initialised.end(), s) == impl_->initialised.end())
            impl_->initialised.push_back(s);
        if (!s->init)
            continue;
        miFunction *f = function(in.fn);
        miFunction *saved = state ? state->shader : nullptr;
        if (state)
            state->shader = f;
        if (!impl_->wantsInstanceInit.count(s)) {
            miBoolean req = miFALSE;
            s->init(state, nullptr, &req);
            impl_->wantsInstanceInit[s] = req != miFALSE;
        }
        in.instanceInit = impl_->wantsInstanceInit[s];
        if (in.instanceInit && f)
            s->init(state, f->params, nullptr);
        if (state)
            state->shader = saved;
    }
}

void ShaderLibraries::exit_all(miState *state)
{
    if (!impl_->inited)
        return;
    impl_->inited = false;
    for (auto it = impl_->instances.rbegin(); it != impl_->instances.rend(); ++it)
        if (it->shader->exit)
            if (miFunction *f = function(it->fn))
                it->shader->exit(state, f->params);
    for (auto it = impl_->initialised.rbegin(); it != impl_->initialised.rend(); ++it)
        if ((*it)->exit)
            (*it)->exit(state, nullptr);
    impl_->initialised.clear();
    impl_->wantsInstanceInit.clear();
}

} // namespace mirt
