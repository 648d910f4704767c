/*
 * Triangle meshes of the scene description, as the runtime's geometry
 * builder takes them.
 */
#ifndef DRUXHOST_MESHES_H
#define DRUXHOST_MESHES_H

#include "geometry.h"
#include "scene.h"

namespace druxhost {

/* Smooth vertex normals from the faces: at every vertex, the unit normals
   of the triangles around it weighted by the triangle's angle there.
   Vertices at the same position share one normal (seams and poles of
   texture space do not show), degenerate triangles count for nothing, a
   vertex no triangle weights gets +z.  Replaces mesh.N. */
void computeVertexNormals(mirt::Mesh &mesh);
/* The mesh a description stands for: one without normals gets smooth ones
   (computeVertexNormals) unless it is faceted; a faceted one has none. */
mirt::Mesh buildMesh(const MeshDesc &desc);

} // namespace druxhost

#endif
