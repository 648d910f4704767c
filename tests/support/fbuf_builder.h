/*
 * Test support: builds the exporter's "FBuf" frame-buffer description block
 * and wires it into a mirt::Context the way a scene would.
 *
 * Typical use:
 *
 *     mirt::Context ctx;
 *     fbtest::FbufBuilder b;
 *     b.add("beauty", 0);
 *     b.add("shadow", 12).flag(8, 1);       // record word 8 -> FBINFO_SHADOWED
 *     b.addNonMaterialPass("matte");
 *     fbtest::FbufSetup s = fbtest::install(ctx, b);   // declares, attaches, registers
 *     miState *st = ctx.begin_state();                   // runs op 0
 *
 * The block is laid out by the exporter's writer (tools/fbuf_writer.h), in
 * this machine's byte order unless swapped.
 * The user-data header's parameter_size (byte 12) holds the parameter-area
 * size, so readers can bound what they read.
 *
 * Deliberate faults are set with the fault setters; they only change the
 * words written, never what the builder returns from frameBuffers().  Header
 * words go through the writer; truncation and byte order are applied to its
 * output.
 */
#ifndef DRUX_TEST_FBUF_BUILDER_H
#define DRUX_TEST_FBUF_BUILDER_H

#include "DruxShaderSDK.h"
#include "fbuf_writer.h"
#include "runtime.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace fbtest {

/* One frame-buffer declaration (one frameBufferInfo record). */
struct FrameBufferDecl {
    std::string name;          /* name in the camera's frame-buffer set */
    int passType = 0;          /* 0..34; the block lists records by type */
    int words[9] = {};         /* record words 1..9: word k non-zero sets bit 1 << (k - 1) */
    miUint hostData[4] = {};   /* record words 10..13 */
    miUint hostTail = 0;       /* record word 14 */
    bool declared = true;      /* install(): add the name to the camera's frame-buffer set */
    bool nullName = false;     /* write frameBufferName = 0 */
    miTag nameTagOverride = 0; /* non-zero: write this tag instead of a fresh name string */

    /* Chainable setters. */
    FrameBufferDecl &flag(int word, int value = 1); /* word 1..9 */
    FrameBufferDecl &host(miUint a, miUint b, miUint c, miUint d, miUint tail);
    FrameBufferDecl &undeclared();                  /* name unknown to the camera */
    FrameBufferDecl &noName();                      /* frameBufferName 0 */
};

/* One entry of nonMaterialPasses. */
struct NonMaterialDecl {
    std::string name;
    bool declared = true;
    bool nullName = false;
};

class FbufBuilder {
public:
    /* Add a frame buffer.  Records are written sorted by pass type (stable),
       so entry i of the state is frameBuffers()[i]. The reference stays valid
       until the next add(). */
    FrameBufferDecl &add(const std::string &name, int passType);
    NonMaterialDecl &addNonMaterialPass(const std::string &name);

    /* Declarations in record (entry) order. */
    std::vector<FrameBufferDecl> frameBuffers() const;
    const std::vector<NonMaterialDecl> &nonMaterialPasses() const { return nonMat_; }
    /* Per-type counts computed from the declarations (35 values). */
    std::vector<int> typeCounts() const;

    /* ---- deliberate faults */
    /* Overwrite a first-index word (the arrays are still stored where the
       correct value would put them). */
    FbufBuilder &nonMaterialFirst(int first);
    FbufBuilder &frameBufferInfoFirst(int first);
    FbufBuilder &typeCountsFirst(int first);
    /* Overwrite a count word (data written is unchanged). */
    FbufBuilder &nonMaterialCount(int count);
    FbufBuilder &frameBufferInfoCount(int count);
    /* Length of the written type-count array (default 35): shorter drops
       the last types, longer appends `fill` values. */
    FbufBuilder &typeCountsLength(int length, int fill = 0);
    /* Replace type t's count (counts that do not add up to the records). */
    FbufBuilder &typeCount(int type, int count);
    /* Put arrays of at most one element into their own storage slot
       (first = 0) instead of the tail: the inline form of the declared-data
       layout. */
    FbufBuilder &inlineSingleElements(bool on = true);
    /* Write the whole block in the other byte order (every 32-bit word
       reversed, magic included), as a machine of the other byte order would. */
    FbufBuilder &byteSwapped(bool on = true);
    /* Reverse only the magic word (the rest stays in this machine's order). */
    FbufBuilder &byteSwappedMagic(bool on = true);
    /* Cut the parameter area to `bytes` (parameter_size says so too). */
    FbufBuilder &truncate(size_t bytes);
    /* Overwrite the header's parameter_size with a value of choice. */
    FbufBuilder &parameterSizeOverride(int size);

    /* ---- output */
    /* The parameter area as written (creates the name strings in the
       database: each call makes fresh ones). */
    std::vector<uint32_t> words() const;
    /* A miSCENE_USERDATA block holding words(); `next` chains another block. */
    miTag build(miTag next = 0) const;

    /* Byte offset of the first frameBufferInfo record (for tests that poke
       at the block). */
    size_t recordsOffset() const;

private:
    /* What the writer gets; makeNames false leaves the name tags 0 (for the
       offsets, which do not depend on them). */
    fbufw::FbufContent content(bool makeNames) const;

    std::vector<FrameBufferDecl> fbs_;
    std::vector<NonMaterialDecl> nonMat_;
    std::optional<int> nonMatFirst_, fbFirst_, tcFirst_, nonMatCount_, fbCount_;
    int tcLength_ = DRUX_PASS_TYPES;
    int tcFill_ = 0;
    std::vector<std::pair<int, int>> tcOverride_;
    bool inline_ = false;
    bool swapped_ = false;
    bool swappedMagic_ = false;
    std::optional<size_t> truncate_;
    std::optional<int> paramSize_;
};

/* What install() set up. */
struct FbufSetup {
    miTag block = 0;               /* the user-data block on the camera */
    miTag stateShader = 0;         /* druxFrameBufferState (miSHADER_STATE) */
    std::vector<miTag> initShaders;/* one druxFrameBufferInit per init request */
    /* Frame-buffer index of each entry (0 when the name is undeclared or null),
       in entry order, and of each non-material pass. */
    std::vector<int> fbIndex;
    std::vector<int> nonMaterialIndex;
};

/* A druxFrameBufferInit instance to register. */
struct InitRequest {
    int nonMaterialPass = 0;
    miColor initColor{0, 0, 0, 0};
    bool connectable = false; /* parameters may be connected (mirt::connect) */
};

struct InstallOptions {
    bool attachBlock = true;         /* put the block on the camera's user data */
    bool registerStateShader = true; /* add druxFrameBufferState as state shader */
    std::vector<InitRequest> inits;  /* druxFrameBufferInit shaders, added after it */
};

/* Declare the frame buffers (declared names, in entry order, then the
   declared non-material names not already present), build the block, attach
   it to the camera and register the state shaders.  Call before
   ctx.begin_state(). */
FbufSetup install(mirt::Context &ctx, const FbufBuilder &builder,
                  const InstallOptions &options = InstallOptions());

/* Shader tags for the library's state shaders, for hand-made set-ups. */
miTag makeStateShader();
miTag makeInitShader(const InitRequest &request);

/* A render context with `builder`'s block installed, trace depth
   `traceDepth`, and one state at the first sample of pixel 0,0 (ended when
   the rig goes); n, types and e are its pass records. */
struct PassRig {
    mirt::Context ctx;
    miState *st = nullptr;
    miUint n = 0;
    PassTypeInfo *types = nullptr;
    FrameBufferInfo *e = nullptr;
    explicit PassRig(const FbufBuilder &builder, int traceDepth = 2);
    ~PassRig();
    PassRig(const PassRig &) = delete;
    PassRig &operator=(const PassRig &) = delete;
};

/* The four bytes of a 32-bit word reversed. */
uint32_t byteSwap32(uint32_t v);

} // namespace fbtest

#endif
