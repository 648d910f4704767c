#include "obj_loader.h"

#include "file_read.h"
#include "text_lines.h"

#include <tiny_obj_loader.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <tuple>
#include <vector>

namespace druxhost {

namespace {

std::vector<std::string> words(const std::string &line)
{
    std::vector<std::string> w;
    std::istringstream in(line);
    std::string t;
    while (in >> t) {
        if (t[0] == '#')
            break;
        w.push_back(t);
    }
    return w;
}

bool finiteNumber(const std::string &s)
{
    char *end = nullptr;
    errno = 0;
    const double v = std::strtod(s.c_str(), &end);
    /* the mesh keeps single precision: 1e300 would become infinity */
    return end != s.c_str() && *end == '\0' && errno != ERANGE && std::fabs(v) <= 3.4028234663852886e38;
}

bool integer(const std::string &s, long &v)
{
    char *end = nullptr;
    errno = 0;
    v = std::strtol(s.c_str(), &end, 10);
    return end != s.c_str() && *end == '\0' && errno != ERANGE;
}

const char *const kElementNames[3] = {"vertex", "texture coordinate", "normal"};

struct ObjFace {
    int line;
    std::vector<std::string> corners;
};

/* Words 1.. of line n: between `least` and `most` finite numbers. */
void checkNumbers(const std::vector<std::string> &w, size_t least, size_t most, const char *what,
                  const std::string &path, int n)
{
    if (w.size() - 1 < least || w.size() - 1 > most)
        throw ObjError(path, n, std::string(what) + " needs " + std::to_string(least) +
                                    (least == most ? "" : " to " + std::to_string(most)) + " numbers");
    for (size_t i = 1; i < w.size(); ++i)
        if (!finiteNumber(w[i]))
            throw ObjError(path, n,
                           "\"" + w[i] + "\" is not a finite number in single precision (at most 3.4e38 in size)");
}

/* One face corner of line n (v, v/vt, v//vn, v/vt/vn): integers, not 0,
   relative ones reaching no further back than the elements so far. */
void checkCorner(const std::string &c, const long counts[3], const std::string &path, int n)
{
    size_t start = 0;
    for (int k = 0; k < 3; ++k) {
        const size_t slash = c.find('/', start);
        const std::string part = c.substr(start, slash == std::string::npos ? std::string::npos : slash - start);
        if (!part.empty()) {
            long v = 0;
            if (!integer(part, v))
                throw ObjError(path, n, "\"" + c + "\" is not a face corner");
            if (v == 0)
                throw ObjError(path, n, std::string(kElementNames[k]) + " index 0 (indices start at 1)");
            if (v < 0 && -v > counts[k])
                throw ObjError(path, n, std::string(kElementNames[k]) + " index " + part +
                                            " reaches before the first " + kElementNames[k] + " (" +
                                            std::to_string(counts[k]) + " so far)");
        } else if (k == 0) {
            throw ObjError(path, n, "\"" + c + "\" has no vertex index");
        }
        if (slash == std::string::npos)
            break;
        start = slash + 1;
        if (k == 2)
            throw ObjError(path, n, "\"" + c + "\" is not a face corner");
    }
}

/* Positive indices may name elements defined further down: checked against
   the file's totals once it is read. */
void checkForwardIndices(const std::vector<ObjFace> &faces, const long counts[3], const std::string &path)
{
    for (const ObjFace &f : faces)
        for (const std::string &c : f.corners) {
            size_t start = 0;
            for (int k = 0; k < 3; ++k) {
                const size_t slash = c.find('/', start);
                const std::string part = c.substr(start, slash == std::string::npos ? std::string::npos : slash - start);
                long v = 0;
                if (!part.empty() && integer(part, v) && v > counts[k])
                    throw ObjError(path, f.line, std::string(kElementNames[k]) + " index " + part +
                                                     " out of range (" + std::to_string(counts[k]) + " in the file)");
                if (slash == std::string::npos)
                    break;
                start = slash + 1;
            }
        }
}

/* Counts the elements and checks every line the reader will rely on. */
void check(const std::string &text, const std::string &path)
{
    long counts[3] = {0, 0, 0}; /* v, vt, vn */
    std::vector<ObjFace> faces;
    forEachLine(text, [&](const std::string &line, int n) {
        if (!line.empty() && line.back() == '\\')
            throw ObjError(path, n, "continued lines are not supported");
        const std::vector<std::string> w = words(line);
        if (w.empty())
            return;
        if (w[0] == "v") {
            checkNumbers(w, 3, 7, "a vertex", path, n); /* x y z [w] or x y z r g b */
            ++counts[0];
        } else if (w[0] == "vt") {
            checkNumbers(w, 1, 3, "a texture coordinate", path, n);
            ++counts[1];
        } else if (w[0] == "vn") {
            checkNumbers(w, 3, 3, "a normal", path, n);
            ++counts[2];
        } else if (w[0] == "f") {
            if (w.size() < 4)
                throw ObjError(path, n, "a face needs at least 3 corners");
            faces.push_back(ObjFace{n, std::vector<std::string>(w.begin() + 1, w.end())});
            for (const std::string &c : faces.back().corners) /* relative indices count back from this line */
                checkCorner(c, counts, path, n);
        }
    });
    checkForwardIndices(faces, counts, path);
    if (counts[0] == 0 || faces.empty())
        throw ObjError(path, 0, "no vertices or no faces");
}

} // namespace

ObjError::ObjError(const std::string &path, int line, const std::string &what)
    : std::runtime_error(path + (line > 0 ? ":" + std::to_string(line) : std::string()) + ": " + what), line_(line)
{
}

void parseObj(const std::string &text, const std::string &path, MeshDesc &m)
{
    check(text, path);
    tinyobj::ObjReaderConfig config;
    config.triangulate = true;
    config.vertex_color = false;
    tinyobj::ObjReader reader;
    if (!reader.ParseFromString(text, std::string(), config))
        throw ObjError(path, 0, reader.Error().empty() ? "cannot be read" : reader.Error());
    const tinyobj::attrib_t &a = reader.GetAttrib();
    const size_t nv = a.vertices.size() / 3, nn = a.normals.size() / 3, nt = a.texcoords.size() / 2;
    /* the OBJ parser reads numbers its own way: "0e50813" passes the check
       above (0) but becomes 0 x infinity there */
    const std::vector<float> *const arrays[3] = {&a.vertices, &a.texcoords, &a.normals};
    for (int k = 0; k < 3; ++k)
        for (size_t i = 0; i < arrays[k]->size(); ++i)
            if (!std::isfinite((*arrays[k])[i]))
                throw ObjError(path, 0, std::string(kElementNames[k]) + " " + std::to_string(i / (k == 1 ? 2 : 3) + 1) +
                                            " does not read as a finite number; write its numbers plainly");

    bool allNormals = true, allUV = true;
    for (const tinyobj::shape_t &s : reader.GetShapes())
        for (const tinyobj::index_t &i : s.mesh.indices) {
            allNormals = allNormals && i.normal_index >= 0 && static_cast<size_t>(i.normal_index) < nn;
            allUV = allUV && i.texcoord_index >= 0 && static_cast<size_t>(i.texcoord_index) < nt;
        }

    m.P.clear();
    m.N.clear();
    m.uv.clear();
    m.tris.clear();
    std::map<std::tuple<int, int, int>, int> vertexOf;
    for (const tinyobj::shape_t &s : reader.GetShapes()) {
        const std::vector<tinyobj::index_t> &idx = s.mesh.indices;
        size_t at = 0;
        for (unsigned char fv : s.mesh.num_face_vertices) {
            if (fv != 3 || at + 3 > idx.size())
                throw ObjError(path, 0, "a face was not triangulated");
            std::array<int, 3> tri;
            for (int k = 0; k < 3; ++k) {
                const tinyobj::index_t &i = idx[at + size_t(k)];
                if (i.vertex_index < 0 || static_cast<size_t>(i.vertex_index) >= nv)
                    throw ObjError(path, 0, "vertex index out of range");
                const auto key = std::make_tuple(i.vertex_index, allNormals ? i.normal_index : -1,
                                                 allUV ? i.texcoord_index : -1);
                auto it = vertexOf.find(key);
                if (it == vertexOf.end()) {
                    const size_t v = static_cast<size_t>(i.vertex_index);
                    m.P.push_back(miVector{a.vertices[3 * v], a.vertices[3 * v + 1], a.vertices[3 * v + 2]});
                    if (allNormals) {
                        const size_t nI = static_cast<size_t>(i.normal_index);
                        m.N.push_back(miVector{a.normals[3 * nI], a.normals[3 * nI + 1], a.normals[3 * nI + 2]});
                    }
                    if (allUV) {
                        const size_t t = static_cast<size_t>(i.texcoord_index);
                        m.uv.push_back(miVector{a.texcoords[2 * t], a.texcoords[2 * t + 1], 0.0f});
                    }
                    it = vertexOf.emplace(key, static_cast<int>(m.P.size() - 1)).first;
                }
                tri[size_t(k)] = it->second;
            }
            at += 3;
            /* fans of collinear corners give empty triangles: leave them out */
            if (tri[0] != tri[1] && tri[1] != tri[2] && tri[0] != tri[2])
                m.tris.push_back(tri);
        }
    }
    if (m.tris.empty())
        throw ObjError(path, 0, "no faces with three distinct corners");
}

void loadObj(const std::string &path, MeshDesc &m)
{
    std::string text;
    try {
        text = readRegularFile(path, kObjFileLimit, "OBJ");
    } catch (const std::exception &e) {
        throw ObjError(path, 0, e.what());
    }
    parseObj(text, path, m);
}

} // namespace druxhost
