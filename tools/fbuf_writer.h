/*
 * The one writer of the exporter's "FBuf" frame-buffer description block:
 * the parameter area of the camera's user data that druxFrameBufferState
 * reads.  Used by the reference host's exporter, by the test block builder
 * and by the fuzz seed tool (fbuf_block), so all three lay the block out the
 * same way.  Every offset comes from FrameBufferDataBlock and
 * FrameBufferInfoRecord.
 *
 * Layout: the fixed part of FrameBufferDataBlock, then the type counts, the
 * non-material name tags and the frameBufferInfo records, each array stored
 * so that element k lies at its storage slot plus (first + k) elements.  With
 * inlineSingleElements an array of at most one element sits in its own
 * storage slot instead (first = 0).
 */
#ifndef DRUX_FBUF_WRITER_H
#define DRUX_FBUF_WRITER_H

#include "DruxShaderSDK.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace fbufw {

/* What the block says. */
struct FbufContent {
    std::vector<miTag> nonMaterialPasses;
    std::vector<FrameBufferInfoRecord> records; /* entry order: sorted by pass type */
    std::vector<int> typeCounts;                /* written as given; normally DRUX_PASS_TYPES values */
    bool inlineSingleElements = false;

    /* Header words written instead of the ones the layout implies (blocks
       that lie about themselves); the arrays stay where they would be. */
    std::optional<int> nonMaterialPassesFirst, nonMaterialPassesCount;
    std::optional<int> frameBufferInfoFirst, frameBufferInfoCount;
    std::optional<int> typeCountsFirst, typeCountsCount;
};

/* Byte offsets of the first element of each array, and the block's size. */
struct FbufLayout {
    size_t typeCounts = 0, nonMaterialPasses = 0, records = 0, total = 0;
};

FbufLayout fbufLayout(const FbufContent &content);

/* The parameter area, in this machine's byte order. */
std::vector<uint32_t> writeFbuf(const FbufContent &content);

} // namespace fbufw

#endif
