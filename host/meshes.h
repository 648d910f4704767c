/*
 * Triangle meshes of the scene description, as the runtime's geometry
 * builder takes them.
 */
#ifndef DRUXHOST_MESHES_H
#define DRUXHOST_MESHES_H

#include "geometry.h"
#include "scene.h"

namespace druxhost {

/* Box of the given full sizes centred at the origin: 12 triangles, flat
   per-face normals and a unit square of texture space on every face. */
mirt::Mesh makeBox(float sx, float sy, float sz);
/* Torus around the z axis: ring radius R, tube radius r. */
mirt::Mesh makeTorus(float R, float r, int segments, int rings);
/* The mesh a description stands for. */
mirt::Mesh buildMesh(const MeshDesc &desc);

} // namespace druxhost

#endif
