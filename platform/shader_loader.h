/*
 * The renderer's shader-library loader: opens shader libraries by file name
 * along a search path, resolves shaders by name (NAME, NAME_init, NAME_exit,
 * NAME_version) against the libraries' declaration tables, lays out and
 * fills parameter blocks from scene-file values, connects parameters to
 * other shader instances by name, and runs every instance's init and exit
 * functions once, in order.
 *
 * Every failure throws LoadError with a message naming the cause; nothing
 * is created before a check that can fail, so a failed call leaves no
 * database item behind.  Destroying the ShaderLibraries unloads the
 * libraries (after exit_all, which the owner calls while the shaders'
 * data is still alive).
 */
#ifndef MI_SHADER_LOADER_H
#define MI_SHADER_LOADER_H

#include "runtime.h"
#include "shader.h"
#include "shader_library.h"

#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace mirt {

struct LoadError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/* One parameter's place in the block. */
struct ParamSlot {
    std::string name;
    int type = miTYPE_NONE;
    int array_max = 0;
    size_t offset = 0;  /* of the value, or of i_NAME for an array */
    size_t size = 0;    /* bytes, the array's i and n words included */
    const char *default_value = nullptr;
};

/* Bytes of one value of a type (0 for an unknown type). */
MI_API size_t param_type_size(int type);
MI_API const char *param_type_name(int type);
/* The block layout of a declaration; throws LoadError for an unknown type. */
MI_API std::vector<ParamSlot> layout_params(const miShaderDecl &decl, size_t *block_size);

using ExitFn = void (*)(miState *, void *);
using VersionFn = int (*)(void);

/* A resolved shader. */
struct LoadedShader {
    std::string name;
    std::string library;            /* path it came from */
    const miShaderDecl *decl = nullptr;
    miShader_fn fn = nullptr;
    InitFn init = nullptr;
    ExitFn exit = nullptr;
    std::vector<ParamSlot> params;
    size_t block_size = 0;
    bool checked = false;           /* declared in the checked form: layout compared with the struct */
    const ParamSlot *param(const std::string &name) const;
};

/* "; did you mean \"A\"?" (or "A\" or \"B") naming the names of `known`
   closest to `name` in edit distance (at most a third of its letters, and
   at least one); empty when none is that close. */
MI_API std::string did_you_mean(const std::string &name, const std::vector<std::string> &known);

/* The folder holding the renderer layer's own shared object (an install's
   lib/); empty when unknown. */
MI_API std::string renderer_library_dir();

class MI_API ShaderLibraries {
public:
    ShaderLibraries();
    ~ShaderLibraries();
    ShaderLibraries(const ShaderLibraries &) = delete;
    ShaderLibraries &operator=(const ShaderLibraries &) = delete;

    /* Loads `file`: a path with a '/' as it is, a bare name from the first
       folder of `folders` that has it.  Linking the same file twice is one
       link.  Returns the path opened. */
    std::string link(const std::string &file, const std::vector<std::string> &folders);
    /* The first linked library (in link order) that exports `symbol`; null
       when none does. */
    void *find_symbol(const std::string &symbol) const;
    /* Resolves a declared shader; throws when no linked library declares it,
       a symbol is missing or the version does not match. */
    const LoadedShader &shader(const std::string &name);

    /* Makes a shader instance `instance` of shader `function` from scene
       values: `values` is the rest of a scene line, `PARAM VALUE...` pairs,
       where `PARAM = INSTANCE` connects the parameter.  Database items made
       for it (the function, string items) are appended to `made`, which the
       caller deletes when the render ends.  Returns the function's tag. */
    miTag instantiate(const std::string &instance, const std::string &function,
                      const std::vector<std::string> &values, std::vector<miTag> &made);
    /* The scene's pass names: from now on a pass parameter (miTYPE_PASS)
       that a scene sets to another name is refused by instantiate. */
    void set_pass_names(const std::vector<std::string> &names);
    /* Adds an instance whose block was built elsewhere (make_function). */
    void add_instance(const std::string &instance, const LoadedShader &shader, miTag fn);
    /* The tag of a named instance; 0 when there is none. */
    miTag instance(const std::string &name) const;

    /* Every instance's init, in the order the instances were made: a
       shader's NAME_init(state, NULL, &req) once before its first instance,
       then NAME_init(state, params, NULL) per instance when it asked for it. */
    void init_all(miState *state);
    /* The reverse: NAME_exit(state, params) for every instance (last made
       first), then NAME_exit(state, NULL) once per shader that was
       initialised.  Runs at most once per init_all. */
    void exit_all(miState *state);

    size_t library_count() const;

    /* The paths of the linked libraries, in link order, and the names of the
       shaders a linked library declares, in table order. */
    std::vector<std::string> library_paths() const;
    std::vector<std::string> declared_shaders(const std::string &path) const;

    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
};

} // namespace mirt

#endif
