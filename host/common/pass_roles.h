/*
 * What each pass of the reference host holds: the exporter writes a pass's
 * role into its frame-buffer entry (hostData[0]), the host's shaders read it
 * there, the scene language names it, and the image writer filters and shows
 * each pass by it.  Plain vocabulary, shared by all of them.
 */
#ifndef DRUXHOST_PASS_ROLES_H
#define DRUXHOST_PASS_ROLES_H

namespace druxhost {

/* What a pass (frame buffer) holds.  The additive roles (diffuse, specular,
   reflection, refraction, indirect, scatter, background) sum to beauty. */
enum class PassRole {
    Beauty = 1,
    Diffuse,
    Specular,
    Reflection,
    Refraction,
    Indirect,
    Scatter,
    Background,
    Shadow,
    LightGroup,
    Constant, /* a non-material pass: a constant colour written at every sample */
    Custom, /* a material pass that shaders of linked libraries find by name and fill */
    /* data passes of the first surface an eye ray meets (data_passes.h) */
    Depth,
    Normal,
    Position,
    Albedo,
    Coverage
};

/* The data passes: what the first surface an eye ray meets is. */
inline bool isDataRole(PassRole role) { return role >= PassRole::Depth && role <= PassRole::Coverage; }

} // namespace druxhost

#endif
