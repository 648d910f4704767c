/*
 * What the shader-library loader tests share: the folder of the test
 * libraries, tags deleted at the end of a test, a call's LoadError text and
 * a parameter read from a shader's block.
 */
#ifndef DRUX_LOADER_TEST_SUPPORT_H
#define DRUX_LOADER_TEST_SUPPORT_H

#include "runtime.h"
#include "shader_loader.h"

#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace loadertest {

const std::string kDir = DRUX_TEST_SHADER_DIR;

/* Tags made by a test, deleted at its end. */
struct Made {
    std::vector<miTag> tags;
    ~Made()
    {
        for (miTag t : tags)
            mirt::db_delete(t);
    }
};

/* The message of the LoadError f throws, or "(no error)". */
inline std::string errorOf(const std::function<void()> &f)
{
    try {
        f();
    } catch (const mirt::LoadError &e) {
        return e.what();
    }
    return "(no error)";
}

/* The value at `offset` of a shader's parameter block. */
template <class T> T at(const miFunction *f, size_t offset)
{
    T v;
    std::memcpy(&v, static_cast<const char *>(f->params) + offset, sizeof v);
    return v;
}

} // namespace loadertest

#endif
