/*
 * Wavefront OBJ models for `mesh NAME obj "file.obj"`: positions, vertex
 * normals and texture coordinates of every group of the file, faces of any
 * size triangulated as fans (tinyobjloader reads the file).
 *
 * Before the file goes to the reader, every v, vn, vt and f line is checked
 * (numbers, index ranges, counts), so that a bad file is reported with its
 * path and line and never reaches code that would index out of range.
 * Corners that share position, normal and texture indices share a vertex.
 * When some corner has no normal the model gets none (the renderer makes
 * them); the same for texture coordinates.  Materials (mtllib, usemtl) are
 * ignored: the scene's instance names the material.
 */
#ifndef DRUXHOST_OBJ_LOADER_H
#define DRUXHOST_OBJ_LOADER_H

#include "scene.h"

#include <stdexcept>
#include <string>

namespace druxhost {

/* "<path>:<line>: <what>"; line 0 when the problem is not on one line. */
class ObjError : public std::runtime_error {
public:
    ObjError(const std::string &path, int line, const std::string &what);
    int line() const { return line_; }

private:
    int line_;
};

/* Fills m.P, m.N, m.uv and m.tris from OBJ text; `path` names it in errors. */
void parseObj(const std::string &text, const std::string &path, MeshDesc &m);
/* Reads the file and parses it; a missing file is an ObjError at line 0. */
void loadObj(const std::string &path, MeshDesc &m);

} // namespace druxhost

#endif
