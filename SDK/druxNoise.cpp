/*
 * Lattice value noise over NoiseTable, the table accessors, the two small
 * seeded generators, and gradient noise over a lazily built table of unit
 * gradients hashed through PermutationArray.
 *
 * Value noise: every spatial axis is cut into KELU_CUBE_SIDE (32) cells per
 * unit length that wrap, so the 2D and 3D noises tile the unit square and
 * cube.  Along each axis three consecutive lattice values p, q, r are blended
 * with the doubled uniform quadratic B-spline
 *
 *     S(p, q, r; f) = p + q + f * ((p - 2q + r) * f - 2 * (p - q)),
 *
 * and one constant at the end removes the factors of two (0.25 for two
 * levels, 0.125 for three).  The lattice value of cell (i, j, k) is
 * NoiseTable[i | j << 5 | k << 10].  Which steps run in single and which in
 * double precision is part of each function's contract and is kept exactly:
 * the results are reproducible bit for bit from the table.
 *
 * Nothing here allocates or locks on the evaluation paths; the blends are
 * written out in full so the compiler sees straight-line code.
 *
 * On x86 the 3D and 4D blends and the gradient noise run several lanes at a
 * time: every lane performs exactly the single-precision operations of the
 * scalar formulas, in the same order, so the results are bit for bit those
 * of the scalar code kept below for other processors (defining
 * DRUX_NOISE_SCALAR selects it on x86 too).  The SSE2 variants work on any
 * x86-64 processor; where the processor has AVX2 (and, on AMD processors,
 * AVX-512), variants using it are chosen once when the library is loaded.
 * None of them fuses a multiply and an add.  The vector 3D and 4D blends read
 * a copy of the lattice with its wrap-around written out (see
 * PaddedLattice), so the lattice values along y of every row are one load
 * at a fixed offset.
 */
#include "druxInternal.h"

/* The rounding of every step is part of the results: never fuse a multiply
   and an add, whatever the target processor offers. */
#if defined(__clang__)
#pragma clang fp contract(off)
#elif defined(__GNUC__)
#pragma GCC optimize("fp-contract=off")
#endif

#include <atomic>
#include <cmath>
#include <limits>

#if defined(__SSE2__) && !defined(DRUX_NOISE_SCALAR)
#define DRUX_NOISE_SSE 1
#include <immintrin.h>
/* Variants for wider instruction sets, chosen once at load time through an
   indirect function (an ELF feature of the GNU C library's loader);
   DRUX_NOISE_NO_DISPATCH keeps the SSE2 variants only, DRUX_NOISE_NO_AVX512
   stops at the AVX2 ones, DRUX_NOISE_FORCE_AVX512 takes the AVX-512 ones on
   any processor that has AVX-512 (the tests build each of these). */
#if defined(__x86_64__) && defined(__ELF__) && defined(__GLIBC__) && !defined(DRUX_NOISE_NO_DISPATCH)
#define DRUX_NOISE_DISPATCH 1
#endif
#endif

/* The blends are meant to become one straight block of code. */
#define DRUX_NOISE_INLINE inline __attribute__((always_inline))

namespace {

constexpr double kRangeLimit = 1e9;       /* beyond this a coordinate acts as 0 */
constexpr unsigned kTableModulus = 65535; /* NoiseTable entries in use */
constexpr unsigned kWrap = 31;            /* spatial lattice wrap mask (32 cells) */
constexpr int kMaxCells4d = 60000;        /* fourth-axis cell count clamp */

inline float nanF() { return std::numeric_limits<float>::quiet_NaN(); }

/* Doubled quadratic B-spline blend (single and double precision). */
inline float S(float p, float q, float r, float f)
{
    return p + q + f * ((p - 2.0f * q + r) * f - 2.0f * (p - q));
}
inline double S(double p, double q, double r, double f)
{
    return p + q + f * ((p - 2.0 * q + r) * f - 2.0 * (p - q));
}

/*
 * Fractional part x - floor(x) of a spatial coordinate.  A coordinate beyond
 * +-1e9 (tested on the double argument) has fraction 0.  Returns false only
 * for a non-number.  Within the range the float and the double fit an int,
 * so floor is a truncation corrected by one for non-whole negatives.
 */
inline bool fracSingle(double x, float &f)
{
    if (__builtin_expect(!(std::fabs(x) <= kRangeLimit), 0)) {
        f = 0.0f;
        return !std::isnan(x);
    }
    const float xf = static_cast<float>(x);
    int n = static_cast<int>(xf);
    n -= xf < static_cast<float>(n);
    f = xf - static_cast<float>(n);
    return true;
}

inline bool fracDouble(double x, double &f)
{
    if (__builtin_expect(!(std::fabs(x) <= kRangeLimit), 0)) {
        f = 0.0;
        return !std::isnan(x);
    }
    int n = static_cast<int>(x);
    n -= x < static_cast<double>(n);
    f = x - static_cast<double>(n);
    return true;
}

/* One spatial axis: the three wrapped lattice indices (already shifted to
   their stride) and the weight within the cell. */
struct AxisF {
    unsigned i0, i1, i2;
    float w;
};
struct AxisD {
    unsigned i0, i1, i2;
    double w;
};

#ifndef DRUX_NOISE_SSE
inline AxisF cellF(float t, unsigned shift)
{
    const int n = static_cast<int>(t);
    return {((static_cast<unsigned>(n) - 1u) & kWrap) << shift, (static_cast<unsigned>(n) & kWrap) << shift,
            ((static_cast<unsigned>(n) + 1u) & kWrap) << shift, t - static_cast<float>(n)};
}
#endif

inline AxisD cellD(double t, unsigned shift)
{
    const int n = static_cast<int>(t);
    return {((static_cast<unsigned>(n) - 1u) & kWrap) << shift, (static_cast<unsigned>(n) & kWrap) << shift,
            ((static_cast<unsigned>(n) + 1u) & kWrap) << shift, t - static_cast<double>(n)};
}

/*
 * The three-level blend of the 3D and 4D noises over the 27 lattice points
 * around a cell: rows along x for each (y, z), then along y for each z, then
 * along z; returns the unscaled z-level blend.  `L` gives the value of a
 * lattice point from its table index.
 */
template <class Lattice> inline float blend3Scalar(const AxisF &a, const AxisF &b, const AxisF &c, Lattice L)
{
    const float u = a.w;
    const unsigned p00 = b.i0 | c.i0, p10 = b.i1 | c.i0, p20 = b.i2 | c.i0;
    const unsigned p01 = b.i0 | c.i1, p11 = b.i1 | c.i1, p21 = b.i2 | c.i1;
    const unsigned p02 = b.i0 | c.i2, p12 = b.i1 | c.i2, p22 = b.i2 | c.i2;

    const float g0 = S(S(L(a.i0 | p00), L(a.i1 | p00), L(a.i2 | p00), u),
                       S(L(a.i0 | p10), L(a.i1 | p10), L(a.i2 | p10), u),
                       S(L(a.i0 | p20), L(a.i1 | p20), L(a.i2 | p20), u), b.w);
    const float g1 = S(S(L(a.i0 | p01), L(a.i1 | p01), L(a.i2 | p01), u),
                       S(L(a.i0 | p11), L(a.i1 | p11), L(a.i2 | p11), u),
                       S(L(a.i0 | p21), L(a.i1 | p21), L(a.i2 | p21), u), b.w);
    const float g2 = S(S(L(a.i0 | p02), L(a.i1 | p02), L(a.i2 | p02), u),
                       S(L(a.i0 | p12), L(a.i1 | p12), L(a.i2 | p12), u),
                       S(L(a.i0 | p22), L(a.i1 | p22), L(a.i2 | p22), u), b.w);
    return S(g0, g1, g2, c.w);
}

#ifdef DRUX_NOISE_SSE
/*
 * The 3D lattice with its wrap-around written out, for the vector code,
 * stored column by column along y: entry (a, b, c) with a, c in 0..34 and
 * b in 0..35, at b + 36a + 1260c, holds the lattice value of cell
 * ((a - 1) & 31, (b - 1) & 31, (c - 1) & 31).  The three lattice values of
 * cell n (n in 0..32; 32 wraps like 0) along an axis are then entries n,
 * n + 1, n + 2.  So one 4-float load at (a + i, b, c + k) gives the three
 * lattice values along y of the rows (x_i, z_k) (and one unused), and all 27
 * values around a cell lie at fixed offsets from one entry, whose position
 * is a multiply-add of the three cell numbers.  The values are copies of
 * NoiseTable's, so the blends read exactly the same lattice values as the
 * table lookup with its wrap masks.  Filled when the library is loaded.
 */
constexpr int kPadY = 36, kPadX = 35, kPadZ = 35;
constexpr int kStepX = kPadY, kStepZ = kPadY * kPadX; /* strides in floats */

struct alignas(64) PaddedLattice {
    float v[kPadY * kPadX * kPadZ];
    double side; /* KELU_CUBE_SIDE, read once */
    PaddedLattice() : side(KELU_CUBE_SIDE)
    {
        for (int c = 0; c < kPadZ; ++c)
            for (int a = 0; a < kPadX; ++a)
                for (int b = 0; b < kPadY; ++b)
                    v[b + kStepX * a + kStepZ * c] =
                        NoiseTable[((a - 1u) & kWrap) | ((b - 1u) & kWrap) << 5 | ((c - 1u) & kWrap) << 10];
    }
};
PaddedLattice padded;

/* Byte offset of entry (nx, ny, nz) from the cell numbers as 16-bit lanes:
   two partial sums, x and y in lane 0, z in lane 1. */
DRUX_NOISE_INLINE __m128i entryOffsets(__m128i n)
{
    return _mm_madd_epi16(_mm_packs_epi32(n, n), _mm_setr_epi16(4 * kStepX, 4, 4 * kStepZ, 0, 0, 0, 0, 0));
}

/* S on four lanes, operation for operation as the scalar S (2q as q + q). */
DRUX_NOISE_INLINE __m128 Sv(__m128 p, __m128 q, __m128 r, __m128 f)
{
    const __m128 pq = _mm_sub_ps(p, q);
    const __m128 inner = _mm_sub_ps(_mm_mul_ps(_mm_add_ps(_mm_sub_ps(p, _mm_add_ps(q, q)), r), f), _mm_add_ps(pq, pq));
    return _mm_add_ps(_mm_add_ps(p, q), _mm_mul_ps(f, inner));
}

/* Three vectors (p, q, r, -) to p, q and r vectors whose lanes are the
   inputs (the fourth lane is a spare copy). */
DRUX_NOISE_INLINE void transpose3(__m128 r0, __m128 r1, __m128 r2, __m128 &p, __m128 &q, __m128 &r)
{
    const __m128 lo = _mm_unpacklo_ps(r0, r1); /* p0 p1 q0 q1 */
    const __m128 hi = _mm_unpackhi_ps(r0, r1); /* r0 r1 -  -  */
    p = _mm_castpd_ps(_mm_unpacklo_pd(_mm_castps_pd(lo), _mm_castps_pd(r2))); /* p0 p1 p2 q2 */
    q = _mm_shuffle_ps(lo, r2, _MM_SHUFFLE(1, 1, 3, 2));                     /* q0 q1 q2 q2 */
    r = _mm_shuffle_ps(hi, r2, _MM_SHUFFLE(2, 2, 1, 0));                     /* r0 r1 r2 r2 */
}

/* The cell of a 3D point for the vector code: the padded-lattice entry of its
   first lattice point and the weights (u, v, w, w). */
struct Cell3 {
    const float *base;
    __m128 w;
};

/*
 * The common steps for three double coordinates: range test, fraction
 * x - floor(x) in double, lattice position rounded to single, cell and
 * weight; two coordinates per vector.  Same operations as fracDouble and
 * cellF.  Returns false for a non-number coordinate.
 */
DRUX_NOISE_INLINE bool cells3(double x, double y, double z, Cell3 &cell)
{
    __m128d xy = _mm_setr_pd(x, y);
    __m128d zz = _mm_set1_pd(z);
    const __m128d absMask = _mm_castsi128_pd(_mm_set1_epi64x(0x7FFFFFFFFFFFFFFFll));
    const __m128d limit = _mm_set1_pd(kRangeLimit);
    const __m128d inXY = _mm_cmple_pd(_mm_and_pd(xy, absMask), limit);
    const __m128d inZ = _mm_cmple_pd(_mm_and_pd(zz, absMask), limit);
    if (__builtin_expect(_mm_movemask_pd(_mm_and_pd(inXY, inZ)) != 3, 0)) {
        if (_mm_movemask_pd(_mm_or_pd(_mm_cmpunord_pd(xy, xy), _mm_cmpunord_pd(zz, zz))))
            return false;
        xy = _mm_and_pd(xy, inXY); /* beyond the range: coordinate 0 */
        zz = _mm_and_pd(zz, inZ);
    }
    /* floor: truncation, minus 1 where that exceeds the coordinate */
    const __m128d one = _mm_set1_pd(1.0);
    const __m128d txy = _mm_cvtepi32_pd(_mm_cvttpd_epi32(xy));
    const __m128d tzz = _mm_cvtepi32_pd(_mm_cvttpd_epi32(zz));
    const __m128d fxy = _mm_sub_pd(xy, _mm_sub_pd(txy, _mm_and_pd(_mm_cmplt_pd(xy, txy), one)));
    const __m128d fzz = _mm_sub_pd(zz, _mm_sub_pd(tzz, _mm_and_pd(_mm_cmplt_pd(zz, tzz), one)));
    const __m128d side = _mm_set1_pd(padded.side);
    const __m128 t = _mm_movelh_ps(_mm_cvtpd_ps(_mm_mul_pd(side, fxy)), _mm_cvtpd_ps(_mm_mul_pd(side, fzz)));
    const __m128i n = _mm_cvttps_epi32(t);
    const __m128i off = entryOffsets(n);
    const int bytes = _mm_cvtsi128_si32(_mm_add_epi32(off, _mm_shuffle_epi32(off, _MM_SHUFFLE(1, 1, 1, 1))));
    cell.base = reinterpret_cast<const float *>(reinterpret_cast<const char *>(padded.v) + bytes);
    cell.w = _mm_sub_ps(t, _mm_cvtepi32_ps(n));
    return true;
}

/*
 * blend3Scalar on four lanes.  A column load gives the values along y of one
 * row (x_i, z_k); `op` turns table values into lattice values lane by lane.
 * For each z plane the x blend of its three rows of columns runs once for
 * the three y (lanes); the three results are transposed so that the lanes
 * are the z planes, the y blend runs once for the three planes, and only the
 * last blend along z is scalar.
 */
template <class ColumnOp> DRUX_NOISE_INLINE float blend3Sse(const Cell3 &c, ColumnOp op)
{
    const float *b = c.base;
    const __m128 U = _mm_shuffle_ps(c.w, c.w, _MM_SHUFFLE(0, 0, 0, 0));
    auto plane = [&](int k) __attribute__((always_inline)) {
        const float *p = b + k * kStepZ;
        return Sv(op(_mm_loadu_ps(p)), op(_mm_loadu_ps(p + kStepX)), op(_mm_loadu_ps(p + 2 * kStepX)), U);
    };
    __m128 p, q, r;
    transpose3(plane(0), plane(1), plane(2), p, q, r);
    const __m128 G = Sv(p, q, r, _mm_shuffle_ps(c.w, c.w, _MM_SHUFFLE(1, 1, 1, 1)));
    const float g0 = _mm_cvtss_f32(G);
    const float g1 = _mm_cvtss_f32(_mm_shuffle_ps(G, G, _MM_SHUFFLE(1, 1, 1, 1)));
    const float g2 = _mm_cvtss_f32(_mm_movehl_ps(G, G));
    return S(g0, g1, g2, _mm_cvtss_f32(_mm_movehl_ps(c.w, c.w)));
}

struct SameValues {
    DRUX_NOISE_INLINE __m128 operator()(__m128 v) const { return v; }
};

/* The fourth-axis blend of the 4D noise on four lanes (see noise_scalar_4d). */
struct FourthAxis {
    __m128 h0, h1, h2, w;
    static DRUX_NOISE_INLINE __m128 frac(__m128 v) { return _mm_sub_ps(v, _mm_cvtepi32_ps(_mm_cvttps_epi32(v))); }
    DRUX_NOISE_INLINE __m128 operator()(__m128 v) const
    {
        const __m128 g = _mm_add_ps(v, _mm_set1_ps(2.0f));
        return Sv(frac(_mm_mul_ps(h0, g)), frac(_mm_mul_ps(h1, g)), frac(_mm_mul_ps(h2, g)), w);
    }
};

#ifdef DRUX_NOISE_DISPATCH
/*
 * The same steps with AVX2 instructions (no fused multiply-add), chosen once
 * at load time on processors that have them: SSE4.1 floor for the fractions,
 * eight-lane blends for two z planes at a time, three-operand forms.  Every
 * lane performs the single-precision operations of S in the same order, so
 * the results are bit for bit those of the SSE2 and scalar code.
 */
#define DRUX_AVX2_INLINE inline __attribute__((target("avx2"), always_inline))

DRUX_AVX2_INLINE __m256 Sv8(__m256 p, __m256 q, __m256 r, __m256 f)
{
    const __m256 pq = _mm256_sub_ps(p, q);
    const __m256 inner = _mm256_sub_ps(_mm256_mul_ps(_mm256_add_ps(_mm256_sub_ps(p, _mm256_add_ps(q, q)), r), f),
                                       _mm256_add_ps(pq, pq));
    return _mm256_add_ps(_mm256_add_ps(p, q), _mm256_mul_ps(f, inner));
}

DRUX_AVX2_INLINE __m128 Sv4(__m128 p, __m128 q, __m128 r, __m128 f)
{
    const __m128 pq = _mm_sub_ps(p, q);
    const __m128 inner = _mm_sub_ps(_mm_mul_ps(_mm_add_ps(_mm_sub_ps(p, _mm_add_ps(q, q)), r), f), _mm_add_ps(pq, pq));
    return _mm_add_ps(_mm_add_ps(p, q), _mm_mul_ps(f, inner));
}

DRUX_AVX2_INLINE void transpose3x4(__m128 r0, __m128 r1, __m128 r2, __m128 &p, __m128 &q, __m128 &r)
{
    const __m128 lo = _mm_unpacklo_ps(r0, r1);
    const __m128 hi = _mm_unpackhi_ps(r0, r1);
    p = _mm_castpd_ps(_mm_unpacklo_pd(_mm_castps_pd(lo), _mm_castps_pd(r2)));
    q = _mm_shuffle_ps(lo, r2, _MM_SHUFFLE(1, 1, 3, 2));
    r = _mm_shuffle_ps(hi, r2, _MM_SHUFFLE(2, 2, 1, 0));
}

DRUX_AVX2_INLINE bool cells3Avx2(double x, double y, double z, Cell3 &cell)
{
    __m256d p = _mm256_set_m128d(_mm_set1_pd(z), _mm_setr_pd(x, y)); /* x y z z */
    const __m256d absMask = _mm256_castsi256_pd(_mm256_set1_epi64x(0x7FFFFFFFFFFFFFFFll));
    const __m256d in = _mm256_cmp_pd(_mm256_and_pd(p, absMask), _mm256_set1_pd(kRangeLimit), _CMP_LE_OQ);
    if (__builtin_expect(_mm256_movemask_pd(in) != 15, 0)) {
        if (_mm256_movemask_pd(_mm256_cmp_pd(p, p, _CMP_UNORD_Q)))
            return false;
        p = _mm256_and_pd(p, in); /* beyond the range: coordinate 0 */
    }
    /* x - floor(x) equals the fraction of fracDouble (floor is exact) */
    const __m256d f = _mm256_sub_pd(p, _mm256_floor_pd(p));
    const __m128 t = _mm256_cvtpd_ps(_mm256_mul_pd(_mm256_set1_pd(padded.side), f));
    const __m128i n = _mm_cvttps_epi32(t);
    /* the two partial offsets leave together; the integer unit adds them */
    const unsigned long long both = static_cast<unsigned long long>(_mm_cvtsi128_si64(entryOffsets(n)));
    cell.base = reinterpret_cast<const float *>(reinterpret_cast<const char *>(padded.v) + (both & 0xFFFFFFFFu) +
                                                (both >> 32));
    cell.w = _mm_sub_ps(t, _mm_cvtepi32_ps(n));
    return true;
}

/* Columns of z planes 0 and 1 (low and high half) at x offset i. */
DRUX_AVX2_INLINE __m256 columnPair(const float *p)
{
    return _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(p)), _mm_loadu_ps(p + kStepZ), 1);
}

/* blend3Sse with the x blends of z planes 0 and 1 in one eight-lane vector. */
template <class ColumnOp> DRUX_AVX2_INLINE float blend3Avx2(const Cell3 &c, ColumnOp op)
{
    const float *b = c.base;
    const __m256 U = _mm256_broadcastss_ps(c.w);
    const __m256 h01 = Sv8(op(columnPair(b)), op(columnPair(b + kStepX)), op(columnPair(b + 2 * kStepX)), U);
    const float *b2 = b + 2 * kStepZ;
    const __m128 h2 = Sv4(op(_mm_loadu_ps(b2)), op(_mm_loadu_ps(b2 + kStepX)), op(_mm_loadu_ps(b2 + 2 * kStepX)),
                          _mm256_castps256_ps128(U));
    __m128 p, q, r;
    transpose3x4(_mm256_castps256_ps128(h01), _mm256_extractf128_ps(h01, 1), h2, p, q, r);
    const __m128 G = Sv4(p, q, r, _mm_shuffle_ps(c.w, c.w, _MM_SHUFFLE(1, 1, 1, 1)));
    const float g0 = _mm_cvtss_f32(G);
    const float g1 = _mm_cvtss_f32(_mm_movehdup_ps(G));
    const float g2 = _mm_cvtss_f32(_mm_movehl_ps(G, G));
    return S(g0, g1, g2, _mm_cvtss_f32(_mm_movehl_ps(c.w, c.w)));
}

struct SameValuesAvx2 {
    DRUX_AVX2_INLINE __m256 operator()(__m256 v) const { return v; }
    DRUX_AVX2_INLINE __m128 operator()(__m128 v) const { return v; }
};

struct FourthAxisAvx2 {
    float h0, h1, h2, w;
    /* v - trunc(v): the products stay below 2^24, so rounding toward zero
       gives the same value as the truncation through int. */
    static DRUX_AVX2_INLINE __m256 frac(__m256 v)
    {
        return _mm256_sub_ps(v, _mm256_round_ps(v, _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC));
    }
    static DRUX_AVX2_INLINE __m128 frac(__m128 v)
    {
        return _mm_sub_ps(v, _mm_round_ps(v, _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC));
    }
    DRUX_AVX2_INLINE __m256 operator()(__m256 v) const
    {
        const __m256 g = _mm256_add_ps(v, _mm256_set1_ps(2.0f));
        return Sv8(frac(_mm256_mul_ps(_mm256_set1_ps(h0), g)), frac(_mm256_mul_ps(_mm256_set1_ps(h1), g)),
                   frac(_mm256_mul_ps(_mm256_set1_ps(h2), g)), _mm256_set1_ps(w));
    }
    DRUX_AVX2_INLINE __m128 operator()(__m128 v) const
    {
        const __m128 g = _mm_add_ps(v, _mm_set1_ps(2.0f));
        return Sv4(frac(_mm_mul_ps(_mm_set1_ps(h0), g)), frac(_mm_mul_ps(_mm_set1_ps(h1), g)),
                   frac(_mm_mul_ps(_mm_set1_ps(h2), g)), _mm_set1_ps(w));
    }
};

/*
 * AVX-512: the columns of all three z planes in one sixteen-lane vector
 * (plane k in block k), so one blend covers every row along x, and after it
 * the y blend runs in place (lane 0 of each block).  Chosen only on AMD
 * processors, which run 512-bit instructions without lowering their clock.
 */
#if defined(__GNUC__) && !defined(__clang__)
/* GCC 12 flags the placeholder operand inside its own 512-bit intrinsics as
   possibly uninitialised; nothing here reads an uninitialised value. */
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#define DRUX_AVX512 __attribute__((target("avx2,avx512f")))
#define DRUX_AVX512_INLINE inline __attribute__((target("avx2,avx512f"), always_inline))

DRUX_AVX512_INLINE __m512 Sv16(__m512 p, __m512 q, __m512 r, __m512 f)
{
    const __m512 pq = _mm512_sub_ps(p, q);
    const __m512 inner = _mm512_sub_ps(_mm512_mul_ps(_mm512_add_ps(_mm512_sub_ps(p, _mm512_add_ps(q, q)), r), f),
                                       _mm512_add_ps(pq, pq));
    return _mm512_add_ps(_mm512_add_ps(p, q), _mm512_mul_ps(f, inner));
}

/* Columns of z planes 0, 1, 2 in the first three blocks (the fourth is 0). */
DRUX_AVX512_INLINE __m512 columnTriple(const float *p)
{
    __m512 v = _mm512_zextps128_ps512(_mm_loadu_ps(p));
    v = _mm512_insertf32x4(v, _mm_loadu_ps(p + kStepZ), 1);
    return _mm512_insertf32x4(v, _mm_loadu_ps(p + 2 * kStepZ), 2);
}

struct SameValuesAvx512 {
    DRUX_AVX512_INLINE __m512 operator()(__m512 v) const { return v; }
};

struct FourthAxisAvx512 {
    float h0, h1, h2, w;
    /* v - trunc(v), as FourthAxisAvx2::frac */
    static DRUX_AVX512_INLINE __m512 frac(__m512 v)
    {
        return _mm512_sub_ps(v, _mm512_roundscale_ps(v, _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC));
    }
    DRUX_AVX512_INLINE __m512 operator()(__m512 v) const
    {
        const __m512 g = _mm512_add_ps(v, _mm512_set1_ps(2.0f));
        return Sv16(frac(_mm512_mul_ps(_mm512_set1_ps(h0), g)), frac(_mm512_mul_ps(_mm512_set1_ps(h1), g)),
                    frac(_mm512_mul_ps(_mm512_set1_ps(h2), g)), _mm512_set1_ps(w));
    }
};

template <class ColumnOp> DRUX_AVX512_INLINE float blend3Avx512(const Cell3 &c, ColumnOp op)
{
    const float *b = c.base;
    /* x blends: block k, lane j holds the blend of row (y_j, z_k) */
    const __m512 h = Sv16(op(columnTriple(b)), op(columnTriple(b + kStepX)), op(columnTriple(b + 2 * kStepX)),
                          _mm512_broadcastss_ps(c.w));
    /* y blends within each block: lanes 0, 1, 2 moved to lane 0 */
    const __m512 g = Sv16(h, _mm512_movehdup_ps(h), _mm512_permute_ps(h, _MM_SHUFFLE(2, 2, 2, 2)),
                          _mm512_broadcastss_ps(_mm_movehdup_ps(c.w)));
    const float g0 = _mm_cvtss_f32(_mm512_castps512_ps128(g));
    const float g1 = _mm_cvtss_f32(_mm512_extractf32x4_ps(g, 1));
    const float g2 = _mm_cvtss_f32(_mm512_extractf32x4_ps(g, 2));
    return S(g0, g1, g2, _mm_cvtss_f32(_mm_movehl_ps(c.w, c.w)));
}
#endif
#endif

/* ---- gradient noise */

constexpr int kGradientCount = 65535;
constexpr double kTwoPi = 6.283185307179586;

/* Null until the first noise_gradient_init has filled the whole table; then
   the complete table for the rest of the process (never released). */
std::atomic<const miVector *> gradientNoiseTable{nullptr};

/* The answer before any noise_gradient_init: 0, with a warning the first
   time, since a shader that forgot the init would otherwise render flat
   without a word. */
std::atomic<bool> warnedBeforeInit{false};
__attribute__((noinline, cold)) float gradientBeforeInit()
{
    if (!warnedBeforeInit.exchange(true, std::memory_order_relaxed))
        mi_warning("noise_gradient_3d was called before noise_gradient_init and returns 0 until then: call "
                   "noise_gradient_init(state) once, for example in the shader's _init function.");
    return 0.0f;
}

/* Releases the renderer lock on every way out, including a renderer fatal
   error raised while the table is being built. */
struct LockGuard {
    miLock lock;
    explicit LockGuard(miLock l) : lock(l) { mi_lock(lock); }
    ~LockGuard() { mi_unlock(lock); }
    LockGuard(const LockGuard &) = delete;
    LockGuard &operator=(const LockGuard &) = delete;
};

inline float lerp(float s, float m, float n) { return m + (n - m) * s; }

#ifndef DRUX_NOISE_SSE
/* Integer part, offsets and fade weight of one gradient-noise coordinate.
   Returns false for a non-number. */
struct GradAxis {
    int i;
    float f0, f1, s;
};
inline bool gradAxis(float q, GradAxis &a)
{
    if (__builtin_expect(!(std::fabs(q) <= 1e9f), 0)) {
        a = {0, 0.0f, -1.0f, 0.0f};
        return !std::isnan(q);
    }
    int i = static_cast<int>(q);
    i -= q < static_cast<float>(i);
    const float f0 = q - static_cast<float>(i);
    a = {i, f0, f0 - 1.0f, f0 * f0 * (3.0f - 2.0f * f0)};
    return true;
}

inline float gdot(const miVector &g, float x, float y, float z) { return g.x * x + g.y * y + g.z * z; }
#endif


/* ---- 3D and 4D value noise, one variant per instruction set */

/* The fourth axis of the 4D noise: weight and the three multipliers.
   Returns false for a non-number w. */
struct Fourth {
    float h0, h1, h2, w;
};
inline bool fourthAxis(int cells, double w, Fourth &f)
{
    double fw;
    if (!fracDouble(w, fw))
        return false;
    const int nCells = cells > kMaxCells4d ? kMaxCells4d : (cells < 0 ? 0 : cells);
    const float s = static_cast<float>(static_cast<double>(nCells) * fw);
    const int k = static_cast<int>(s);
    const float *T = NoiseTable;
    const float kMul = 21568.16f; /* 0x46A88052 */
    f = {(T[k] + 1.0f) * kMul, (T[k + 1] + 1.0f) * kMul, (T[k + 2] + 1.0f) * kMul, s - static_cast<float>(k)};
    return true;
}

#ifndef DRUX_NOISE_SSE
float noise3dPlain(double x, double y, double z)
{
    double fx, fy, fz;
    if (!fracDouble(x, fx) || !fracDouble(y, fy) || !fracDouble(z, fz))
        return nanF();
    const double side = KELU_CUBE_SIDE;
    const AxisF a = cellF(static_cast<float>(side * fx), 0);
    const AxisF b = cellF(static_cast<float>(side * fy), 5);
    const AxisF c = cellF(static_cast<float>(side * fz), 10);
    const float *T = NoiseTable;
    return 0.125f * blend3Scalar(a, b, c, [T](unsigned p) { return T[p]; });
}

float noise4dPlain(int cells, double x, double y, double z, double w)
{
    Fourth h;
    if (!fourthAxis(cells, w, h))
        return nanF();
    double fx, fy, fz;
    if (!fracDouble(x, fx) || !fracDouble(y, fy) || !fracDouble(z, fz))
        return nanF();
    const double side = KELU_CUBE_SIDE;
    const AxisF a = cellF(static_cast<float>(side * fx), 0);
    const AxisF b = cellF(static_cast<float>(side * fy), 5);
    const AxisF c = cellF(static_cast<float>(side * fz), 10);
    const float *T = NoiseTable;
    auto fourth = [&](unsigned p) {
        const float g = T[p] + 2.0f;
        const float a0 = h.h0 * g, a1 = h.h1 * g, a2 = h.h2 * g;
        return S(a0 - static_cast<float>(static_cast<int>(a0)), a1 - static_cast<float>(static_cast<int>(a1)),
                 a2 - static_cast<float>(static_cast<int>(a2)), h.w);
    };
    return 0.125f * blend3Scalar(a, b, c, fourth) - 1.0f;
}
#else
float noise3dSse2(double x, double y, double z)
{
    Cell3 c;
    if (!cells3(x, y, z, c))
        return nanF();
    return 0.125f * blend3Sse(c, SameValues());
}

float noise4dSse2(int cells, double x, double y, double z, double w)
{
    Fourth h;
    if (!fourthAxis(cells, w, h))
        return nanF();
    Cell3 c;
    if (!cells3(x, y, z, c))
        return nanF();
    const FourthAxis op{_mm_set1_ps(h.h0), _mm_set1_ps(h.h1), _mm_set1_ps(h.h2), _mm_set1_ps(h.w)};
    return 0.125f * blend3Sse(c, op) - 1.0f;
}
#endif

/* ---- gradient noise, one variant per instruction set */

/* The permutation hashes of the eight corners around cell (i, j, k), in the
   order (a, b, e) = 000, 010, 001, 011, 100, 110, 101, 111. */
struct CornerHashes {
    unsigned h000, h010, h001, h011, h100, h110, h101, h111;
};
DRUX_NOISE_INLINE CornerHashes cornerHashes(unsigned i, unsigned j, unsigned k)
{
    const unsigned char *P = PermutationArray;
    const unsigned pk0 = P[k & 255u], pk1 = P[(k + 1u) & 255u];
    const unsigned pj00 = P[(j + pk0) & 255u], pj10 = P[(j + 1u + pk0) & 255u];
    const unsigned pj01 = P[(j + pk1) & 255u], pj11 = P[(j + 1u + pk1) & 255u];
    return {P[(i + pj00) & 255u],      P[(i + pj10) & 255u],      P[(i + pj01) & 255u],      P[(i + pj11) & 255u],
            P[(i + 1u + pj00) & 255u], P[(i + 1u + pj10) & 255u], P[(i + 1u + pj01) & 255u], P[(i + 1u + pj11) & 255u]};
}

#ifndef DRUX_NOISE_SSE
float gradient3dPlain(float x, float y, float z)
{
    const miVector *G = gradientNoiseTable.load(std::memory_order_acquire);
    if (!G)
        return gradientBeforeInit();
    GradAxis ax, ay, az;
    if (!gradAxis(x, ax) || !gradAxis(y, ay) || !gradAxis(z, az))
        return nanF();
    const CornerHashes c = cornerHashes(static_cast<unsigned>(ax.i), static_cast<unsigned>(ay.i),
                                        static_cast<unsigned>(az.i));
    const float c000 = gdot(G[c.h000], ax.f0, ay.f0, az.f0);
    const float c100 = gdot(G[c.h100], ax.f1, ay.f0, az.f0);
    const float c010 = gdot(G[c.h010], ax.f0, ay.f1, az.f0);
    const float c110 = gdot(G[c.h110], ax.f1, ay.f1, az.f0);
    const float c001 = gdot(G[c.h001], ax.f0, ay.f0, az.f1);
    const float c101 = gdot(G[c.h101], ax.f1, ay.f0, az.f1);
    const float c011 = gdot(G[c.h011], ax.f0, ay.f1, az.f1);
    const float c111 = gdot(G[c.h111], ax.f1, ay.f1, az.f1);

    const float y0 = lerp(ay.s, lerp(ax.s, c000, c100), lerp(ax.s, c010, c110));
    const float y1 = lerp(ay.s, lerp(ax.s, c001, c101), lerp(ax.s, c011, c111));
    return lerp(az.s, y0, y1);
}
#else
/* Integer parts, offsets f0 and f1 = f0 - 1 and fade weights of the three
   coordinates q = (x, y, z, 0) at once, as gradAxis does it per axis.
   Returns false for a non-number. */
struct GradCell {
    unsigned i, j, k;
    __m128 f0, f1, fade;
};
DRUX_NOISE_INLINE bool gradCell(__m128 q, GradCell &c)
{
    const __m128 absMask = _mm_castsi128_ps(_mm_set1_epi32(0x7FFFFFFF));
    const __m128 in = _mm_cmple_ps(_mm_and_ps(q, absMask), _mm_set1_ps(1e9f));
    if (__builtin_expect(_mm_movemask_ps(in) != 15, 0)) {
        if (_mm_movemask_ps(_mm_cmpunord_ps(q, q)))
            return false;
        q = _mm_and_ps(q, in); /* beyond the range: 0 */
    }
    const __m128 one = _mm_set1_ps(1.0f);
    __m128i iv = _mm_cvttps_epi32(q);
    __m128 fl = _mm_cvtepi32_ps(iv);
    const __m128 below = _mm_cmplt_ps(q, fl); /* non-whole negatives: truncation - 1 */
    iv = _mm_add_epi32(iv, _mm_castps_si128(below));
    fl = _mm_sub_ps(fl, _mm_and_ps(below, one));
    c.f0 = _mm_sub_ps(q, fl);
    c.f1 = _mm_sub_ps(c.f0, one);
    c.fade = _mm_mul_ps(_mm_mul_ps(c.f0, c.f0), _mm_sub_ps(_mm_set1_ps(3.0f), _mm_add_ps(c.f0, c.f0)));
    c.i = static_cast<unsigned>(_mm_cvtsi128_si32(iv));
    c.j = static_cast<unsigned>(_mm_cvtsi128_si32(_mm_shuffle_epi32(iv, _MM_SHUFFLE(1, 1, 1, 1))));
    c.k = static_cast<unsigned>(_mm_cvtsi128_si32(_mm_shuffle_epi32(iv, _MM_SHUFFLE(2, 2, 2, 2))));
    return true;
}

/* The blends along x (lanes (b, e) = 00, 10, 01, 11 of the corner values cA
   with a = 0 and cB with a = 1), then y, then z, as lerp does them. */
DRUX_NOISE_INLINE float gradBlend(__m128 cA, __m128 cB, __m128 fade)
{
    const __m128 sx = _mm_shuffle_ps(fade, fade, _MM_SHUFFLE(0, 0, 0, 0));
    const __m128 sy = _mm_shuffle_ps(fade, fade, _MM_SHUFFLE(1, 1, 1, 1));
    const __m128 xl = _mm_add_ps(cA, _mm_mul_ps(_mm_sub_ps(cB, cA), sx));
    const __m128 m = _mm_shuffle_ps(xl, xl, _MM_SHUFFLE(2, 0, 2, 0));
    const __m128 n = _mm_shuffle_ps(xl, xl, _MM_SHUFFLE(3, 1, 3, 1));
    const __m128 yl = _mm_add_ps(m, _mm_mul_ps(_mm_sub_ps(n, m), sy));
    const float y0 = _mm_cvtss_f32(yl);
    const float y1 = _mm_cvtss_f32(_mm_shuffle_ps(yl, yl, _MM_SHUFFLE(1, 1, 1, 1)));
    return lerp(_mm_cvtss_f32(_mm_movehl_ps(fade, fade)), y0, y1);
}

/* Offsets of the corners along y and z for the lanes (b, e) = 00, 10, 01, 11. */
DRUX_NOISE_INLINE void gradOffsets(const GradCell &c, __m128 &offY, __m128 &offZ)
{
    const __m128 lo = _mm_unpacklo_ps(c.f0, c.f1); /* f0x f1x f0y f1y */
    const __m128 hi = _mm_unpackhi_ps(c.f0, c.f1); /* f0z f1z  -   -  */
    offY = _mm_shuffle_ps(lo, lo, _MM_SHUFFLE(3, 2, 3, 2)); /* f0y f1y f0y f1y */
    offZ = _mm_shuffle_ps(hi, hi, _MM_SHUFFLE(1, 1, 0, 0)); /* f0z f0z f1z f1z */
}

/* Lanes are the corners (b, e) = (0,0), (1,0), (0,1), (1,1); group A has
   a = 0, group B a = 1.  A gradient is read as four floats (x, y, z and the
   next entry's x, unused): entries up to 255 only, far inside the table. */
float gradient3dSse2(float x, float y, float z)
{
    GradCell c;
    const bool number = gradCell(_mm_setr_ps(x, y, z, 0.0f), c);
    const miVector *G = gradientNoiseTable.load(std::memory_order_acquire);
    if (!G)
        return gradientBeforeInit();
    if (!number)
        return nanF();
    const CornerHashes h = cornerHashes(c.i, c.j, c.k);
    auto group = [G](unsigned h0, unsigned h1, unsigned h2, unsigned h3, __m128 &gx, __m128 &gy, __m128 &gz)
                     __attribute__((always_inline)) {
        const __m128 g0 = _mm_loadu_ps(&G[h0].x), g1 = _mm_loadu_ps(&G[h1].x);
        const __m128 g2 = _mm_loadu_ps(&G[h2].x), g3 = _mm_loadu_ps(&G[h3].x);
        const __m128 t0 = _mm_unpacklo_ps(g0, g1), t1 = _mm_unpacklo_ps(g2, g3);
        const __m128 t2 = _mm_unpackhi_ps(g0, g1), t3 = _mm_unpackhi_ps(g2, g3);
        gx = _mm_movelh_ps(t0, t1);
        gy = _mm_movehl_ps(t1, t0);
        gz = _mm_movelh_ps(t2, t3);
    };
    __m128 gxA, gyA, gzA, gxB, gyB, gzB, offY, offZ;
    group(h.h000, h.h010, h.h001, h.h011, gxA, gyA, gzA);
    group(h.h100, h.h110, h.h101, h.h111, gxB, gyB, gzB);
    gradOffsets(c, offY, offZ);
    const __m128 offXA = _mm_shuffle_ps(c.f0, c.f0, _MM_SHUFFLE(0, 0, 0, 0));
    const __m128 offXB = _mm_shuffle_ps(c.f1, c.f1, _MM_SHUFFLE(0, 0, 0, 0));
    /* dot products (gx * x + gy * y) + gz * z, as gdot */
    const __m128 cA = _mm_add_ps(_mm_add_ps(_mm_mul_ps(gxA, offXA), _mm_mul_ps(gyA, offY)), _mm_mul_ps(gzA, offZ));
    const __m128 cB = _mm_add_ps(_mm_add_ps(_mm_mul_ps(gxB, offXB), _mm_mul_ps(gyB, offY)), _mm_mul_ps(gzB, offZ));
    return gradBlend(cA, cB, c.fade);
}
#endif

#ifdef DRUX_NOISE_DISPATCH
/* gradCell with SSE4.1 floor: the integer parts come one conversion after
   the floor, so the permutation hashes can start sooner.  floor(q) + 0 is
   the floor that gradCell subtracts (a whole number, +0 rather than -0 for
   q = -0), so the offsets are the same. */
DRUX_AVX2_INLINE bool gradCellAvx2(__m128 q, GradCell &c)
{
    const __m128 absMask = _mm_castsi128_ps(_mm_set1_epi32(0x7FFFFFFF));
    const __m128 in = _mm_cmple_ps(_mm_and_ps(q, absMask), _mm_set1_ps(1e9f));
    if (__builtin_expect(_mm_movemask_ps(in) != 15, 0)) {
        if (_mm_movemask_ps(_mm_cmpunord_ps(q, q)))
            return false;
        q = _mm_and_ps(q, in); /* beyond the range: 0 */
    }
    const __m128 fl = _mm_floor_ps(q);
    const __m128i iv = _mm_cvttps_epi32(fl);
    c.f0 = _mm_sub_ps(q, _mm_add_ps(fl, _mm_setzero_ps()));
    c.f1 = _mm_sub_ps(c.f0, _mm_set1_ps(1.0f));
    c.fade = _mm_mul_ps(_mm_mul_ps(c.f0, c.f0), _mm_sub_ps(_mm_set1_ps(3.0f), _mm_add_ps(c.f0, c.f0)));
    const unsigned long long ij = static_cast<unsigned long long>(_mm_cvtsi128_si64(iv));
    c.i = static_cast<unsigned>(ij);
    c.j = static_cast<unsigned>(ij >> 32);
    c.k = static_cast<unsigned>(_mm_extract_epi32(iv, 2));
    return true;
}

/* gradient3dSse2 with all eight corners in one eight-lane vector: group A in
   the low half, group B in the high half. */
__attribute__((target("avx2"))) float gradient3dAvx2(float x, float y, float z)
{
    GradCell c;
    const bool number = gradCellAvx2(_mm_setr_ps(x, y, z, 0.0f), c);
    const miVector *G = gradientNoiseTable.load(std::memory_order_acquire);
    if (!G)
        return gradientBeforeInit();
    if (!number)
        return nanF();
    const CornerHashes h = cornerHashes(c.i, c.j, c.k);
    auto pair = [G](unsigned lo, unsigned hi) __attribute__((always_inline, target("avx2"))) {
        return _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(&G[lo].x)), _mm_loadu_ps(&G[hi].x), 1);
    };
    const __m256 g0 = pair(h.h000, h.h100), g1 = pair(h.h010, h.h110);
    const __m256 g2 = pair(h.h001, h.h101), g3 = pair(h.h011, h.h111);
    const __m256d t0 = _mm256_castps_pd(_mm256_unpacklo_ps(g0, g1)), t1 = _mm256_castps_pd(_mm256_unpacklo_ps(g2, g3));
    const __m256d t2 = _mm256_castps_pd(_mm256_unpackhi_ps(g0, g1)), t3 = _mm256_castps_pd(_mm256_unpackhi_ps(g2, g3));
    const __m256 gx = _mm256_castpd_ps(_mm256_unpacklo_pd(t0, t1));
    const __m256 gy = _mm256_castpd_ps(_mm256_unpackhi_pd(t0, t1));
    const __m256 gz = _mm256_castpd_ps(_mm256_unpacklo_pd(t2, t3));
    /* offsets of the eight corners from (f0 x y z - | f1 x y z -) */
    const __m256 F = _mm256_set_m128(c.f1, c.f0);
    const __m256 offX = _mm256_permutevar8x32_ps(F, _mm256_setr_epi32(0, 0, 0, 0, 4, 4, 4, 4));
    const __m256 offY = _mm256_permutevar8x32_ps(F, _mm256_setr_epi32(1, 5, 1, 5, 1, 5, 1, 5));
    const __m256 offZ = _mm256_permutevar8x32_ps(F, _mm256_setr_epi32(2, 2, 6, 6, 2, 2, 6, 6));
    /* dot products (gx * x + gy * y) + gz * z, as gdot */
    const __m256 cAB =
        _mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(gx, offX), _mm256_mul_ps(gy, offY)), _mm256_mul_ps(gz, offZ));
    return gradBlend(_mm256_castps256_ps128(cAB), _mm256_extractf128_ps(cAB, 1), c.fade);
}
#endif

#ifdef DRUX_NOISE_DISPATCH
__attribute__((target("avx2"))) float noise3dAvx2(double x, double y, double z)
{
    Cell3 c;
    if (!cells3Avx2(x, y, z, c))
        return nanF();
    return 0.125f * blend3Avx2(c, SameValuesAvx2());
}

__attribute__((target("avx2"))) float noise4dAvx2(int cells, double x, double y, double z, double w)
{
    Fourth h;
    if (!fourthAxis(cells, w, h))
        return nanF();
    Cell3 c;
    if (!cells3Avx2(x, y, z, c))
        return nanF();
    return 0.125f * blend3Avx2(c, FourthAxisAvx2{h.h0, h.h1, h.h2, h.w}) - 1.0f;
}

DRUX_AVX512 float noise3dAvx512(double x, double y, double z)
{
    Cell3 c;
    if (!cells3Avx2(x, y, z, c))
        return nanF();
    return 0.125f * blend3Avx512(c, SameValuesAvx512());
}

DRUX_AVX512 float noise4dAvx512(int cells, double x, double y, double z, double w)
{
    Fourth h;
    if (!fourthAxis(cells, w, h))
        return nanF();
    Cell3 c;
    if (!cells3Avx2(x, y, z, c))
        return nanF();
    return 0.125f * blend3Avx512(c, FourthAxisAvx512{h.h0, h.h1, h.h2, h.w}) - 1.0f;
}

/* Runs inside the loader's relocation of the library, before any
   sanitizer runtime is ready: no instrumentation. */
#define DRUX_NOISE_RESOLVER __attribute__((used, no_sanitize("address", "undefined", "thread")))
/* The resolvers carry plain C names (which the ifunc attributes name), kept
   inside the library. */
#define DRUX_NOISE_HIDDEN __attribute__((visibility("hidden")))
DRUX_NOISE_RESOLVER bool haveAvx2()
{
    __builtin_cpu_init(); /* resolvers may run before the processor model is set up */
    return __builtin_cpu_supports("avx2");
}

DRUX_NOISE_RESOLVER bool haveFastAvx512()
{
#ifdef DRUX_NOISE_NO_AVX512 /* keeps the AVX2 variants (for checking them) */
    return false;
#else
    __builtin_cpu_init();
#ifdef DRUX_NOISE_FORCE_AVX512 /* any maker's processor (for checking them) */
    return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("avx512f");
#else
    return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("avx512f") && __builtin_cpu_is("amd");
#endif
#endif
}
#endif

} // namespace

#ifdef DRUX_NOISE_DISPATCH
/* Load-time selection of the variant behind each dispatched entry point. */
extern "C" {
DRUX_NOISE_RESOLVER DRUX_NOISE_HIDDEN float (*resolveNoiseScalar3d())(double, double, double)
{
    return haveFastAvx512() ? noise3dAvx512 : haveAvx2() ? noise3dAvx2 : noise3dSse2;
}
DRUX_NOISE_RESOLVER DRUX_NOISE_HIDDEN float (*resolveNoiseScalar4d())(int, double, double, double, double)
{
    return haveFastAvx512() ? noise4dAvx512 : haveAvx2() ? noise4dAvx2 : noise4dSse2;
}
DRUX_NOISE_RESOLVER DRUX_NOISE_HIDDEN float (*resolveNoiseGradient3d())(float, float, float)
{
    return haveAvx2() ? gradient3dAvx2 : gradient3dSse2;
}
}
#endif

extern "C" {

const unsigned char PermutationArray[256] = {
    225, 155, 210, 108, 175, 199, 221, 144, 203, 116, 70,  213, 69,  158, 33,  252, //
    5,   82,  173, 133, 222, 139, 174, 27,  9,   71,  90,  246, 75,  130, 91,  191, //
    169, 138, 2,   151, 194, 235, 81,  7,   25,  113, 228, 159, 205, 253, 134, 142, //
    248, 65,  224, 217, 22,  121, 229, 63,  89,  103, 96,  104, 156, 17,  201, 129, //
    36,  8,   165, 110, 237, 117, 231, 56,  132, 211, 152, 20,  181, 111, 239, 218, //
    170, 163, 51,  172, 157, 47,  80,  212, 176, 250, 87,  49,  99,  242, 136, 189, //
    162, 115, 44,  43,  124, 94,  150, 16,  141, 247, 32,  10,  198, 223, 255, 72,  //
    53,  131, 84,  57,  220, 197, 58,  50,  208, 11,  241, 28,  3,   192, 62,  202, //
    18,  215, 153, 24,  76,  41,  15,  179, 39,  46,  55,  6,   128, 167, 23,  188, //
    106, 34,  187, 140, 164, 73,  112, 182, 244, 195, 227, 13,  35,  77,  196, 185, //
    26,  200, 226, 119, 31,  123, 168, 125, 249, 68,  183, 230, 177, 135, 160, 180, //
    12,  1,   243, 148, 102, 166, 38,  238, 251, 37,  240, 126, 64,  74,  161, 40,  //
    184, 149, 171, 178, 101, 66,  29,  59,  146, 61,  254, 107, 42,  86,  154, 4,   //
    236, 232, 120, 21,  233, 209, 45,  98,  193, 114, 78,  19,  206, 14,  118, 127, //
    48,  79,  147, 85,  30,  207, 219, 54,  88,  234, 190, 122, 95,  67,  143, 109, //
    137, 214, 145, 93,  92,  100, 245, 0,   216, 186, 60,  83,  105, 97,  204, 52,  //
};

/*
 * 1D noise.  The lattice does not wrap: cell n of [0, 32) uses entries n - 1,
 * n, n + 1, and the first cell has no left neighbour, so it continues the
 * polynomial of cell 1 backwards (weight t - 1 in [-1, 0)).  The noise
 * therefore repeats with period 1 but jumps at whole numbers.
 */
DRUX_API float noise_scalar_1d(double x)
{
    float f;
    if (!fracSingle(x, f))
        return nanF();
    const float t = static_cast<float>(KELU_CUBE_SIDE) * f;
    unsigned i0, i1, i2;
    float w;
    if (t < 1.0f) {
        i0 = 0;
        i1 = 1;
        i2 = 2;
        w = t - 1.0f;
    } else {
        const int n = static_cast<int>(t);
        i0 = (static_cast<unsigned>(n) - 1u) % kTableModulus;
        i1 = static_cast<unsigned>(n) % kTableModulus;
        i2 = (static_cast<unsigned>(n) + 1u) % kTableModulus;
        w = t - static_cast<float>(n);
    }
    return 0.25f * S(NoiseTable[i0], NoiseTable[i1], NoiseTable[i2], w);
}

/* 2D noise, single precision throughout; period 1 in x and y. */
DRUX_API float noise_scalar_2d(double x, double y)
{
#ifdef DRUX_NOISE_SSE
    /* Both coordinates at once: the common steps in single precision as
       fracSingle and cellF take them, then the three x blends (lanes: the
       rows y0, y1, y2) from the k = 0 plane of the padded lattice. */
    __m128d xy = _mm_setr_pd(x, y);
    const __m128d in = _mm_cmple_pd(_mm_and_pd(xy, _mm_castsi128_pd(_mm_set1_epi64x(0x7FFFFFFFFFFFFFFFll))),
                                    _mm_set1_pd(kRangeLimit));
    if (__builtin_expect(_mm_movemask_pd(in) != 3, 0)) {
        if (_mm_movemask_pd(_mm_cmpunord_pd(xy, xy)))
            return nanF();
        xy = _mm_and_pd(xy, in); /* beyond the range: coordinate 0 */
    }
    const __m128 q = _mm_cvtpd_ps(xy);
    /* floor: truncation, minus 1 below a non-whole negative (then |q| < 2^23,
       so the float of n - 1 is exact, as in fracSingle) */
    const __m128 tr = _mm_cvtepi32_ps(_mm_cvttps_epi32(q));
    const __m128 f = _mm_sub_ps(q, _mm_sub_ps(tr, _mm_and_ps(_mm_cmplt_ps(q, tr), _mm_set1_ps(1.0f))));
    const __m128 t = _mm_mul_ps(_mm_set1_ps(static_cast<float>(padded.side)), f);
    const __m128i n = _mm_cvttps_epi32(t);
    const __m128 w = _mm_sub_ps(t, _mm_cvtepi32_ps(n));
    const __m128i off = _mm_madd_epi16(_mm_packs_epi32(n, n), _mm_setr_epi16(4 * kStepX, 4, 0, 0, 0, 0, 0, 0));
    const float *b = reinterpret_cast<const float *>(reinterpret_cast<const char *>(padded.v + kStepZ) +
                                                     _mm_cvtsi128_si32(off)); /* plane 1 holds k = 0 */
    const __m128 h = Sv(_mm_loadu_ps(b), _mm_loadu_ps(b + kStepX), _mm_loadu_ps(b + 2 * kStepX),
                        _mm_shuffle_ps(w, w, _MM_SHUFFLE(0, 0, 0, 0)));
    const float h0 = _mm_cvtss_f32(h);
    const float h1 = _mm_cvtss_f32(_mm_shuffle_ps(h, h, _MM_SHUFFLE(1, 1, 1, 1)));
    const float h2 = _mm_cvtss_f32(_mm_movehl_ps(h, h));
    return 0.25f * S(h0, h1, h2, _mm_cvtss_f32(_mm_shuffle_ps(w, w, _MM_SHUFFLE(1, 1, 1, 1))));
#else
    float fx, fy;
    if (!fracSingle(x, fx) || !fracSingle(y, fy))
        return nanF();
    const float side = static_cast<float>(KELU_CUBE_SIDE);
    const AxisF a = cellF(side * fx, 0);
    const AxisF b = cellF(side * fy, 5);
    const float *T = NoiseTable;
    const float h0 = S(T[a.i0 | b.i0], T[a.i1 | b.i0], T[a.i2 | b.i0], a.w);
    const float h1 = S(T[a.i0 | b.i1], T[a.i1 | b.i1], T[a.i2 | b.i1], a.w);
    const float h2 = S(T[a.i0 | b.i2], T[a.i1 | b.i2], T[a.i2 | b.i2], a.w);
    return 0.25f * S(h0, h1, h2, b.w);
#endif
}

/* 3D noise: fractions in double, lattice position rounded to single, blends
   in single; period 1 in x, y and z.  On x86 the variant for the processor
   is chosen once when the library is loaded. */
#ifdef DRUX_NOISE_DISPATCH
DRUX_API float noise_scalar_3d(double x, double y, double z) __attribute__((ifunc("resolveNoiseScalar3d")));
#else
DRUX_API float noise_scalar_3d(double x, double y, double z)
{
#ifdef DRUX_NOISE_SSE
    return noise3dSse2(x, y, z);
#else
    return noise3dPlain(x, y, z);
#endif
}
#endif

/*
 * 4D noise: a 3D lattice whose every point carries its own 1D lattice along
 * the fourth axis.  The fourth-axis lattice values at spatial point p are
 * frac(h_j * (T[p] + 2)), j = 0, 1, 2, with per-cell multipliers
 * h_j = (T[k + j] + 1) * 21568.16 taken from the table at the fourth-axis cell
 * k; they are blended along the fourth axis first, then the 3D blend runs
 * over those values.  They lie in [0, 1), so the result lies in [-1, 1).
 * A negative cell count is treated as 0 (w is then ignored); counts above
 * 60,000 are clamped to 60,000, which keeps every read inside the table.
 * The products h_j * g stay below 2^24 (h < 43,136.32, g < 3), so their
 * truncation through int is exact and defined.
 */
#ifdef DRUX_NOISE_DISPATCH
DRUX_API float noise_scalar_4d(int cells, double x, double y, double z, double w)
    __attribute__((ifunc("resolveNoiseScalar4d")));
#else
DRUX_API float noise_scalar_4d(int cells, double x, double y, double z, double w)
{
#ifdef DRUX_NOISE_SSE
    return noise4dSse2(cells, x, y, z, w);
#else
    return noise4dPlain(cells, x, y, z, w);
#endif
}
#endif

/*
 * 2D noise with its slopes, in double precision: (twice d value / d cell x,
 * twice d value / d cell y, value), where the cell coordinate is 32 times the
 * input coordinate.  A non-number coordinate gives three non-numbers.
 */
DRUX_API miVector noise_vector_2d(double x, double y)
{
    double fx, fy;
    if (!fracDouble(x, fx) || !fracDouble(y, fy))
        return miVector{nanF(), nanF(), nanF()};
    const double side = KELU_CUBE_SIDE;
    const AxisD a = cellD(side * fx, 0);
    const AxisD b = cellD(side * fy, 5);
    const float *T = NoiseTable;
    const double u = a.w, v = b.w;

    const double p0 = T[a.i0 | b.i0], q0 = T[a.i1 | b.i0], r0 = T[a.i2 | b.i0];
    const double p1 = T[a.i0 | b.i1], q1 = T[a.i1 | b.i1], r1 = T[a.i2 | b.i1];
    const double p2 = T[a.i0 | b.i2], q2 = T[a.i1 | b.i2], r2 = T[a.i2 | b.i2];

    const double H0 = S(p0, q0, r0, u), H1 = S(p1, q1, r1, u), H2 = S(p2, q2, r2, u);
    const double D0 = (p0 - 2.0 * q0 + r0) * u + (q0 - p0);
    const double D1 = (p1 - 2.0 * q1 + r1) * u + (q1 - p1);
    const double D2 = (p2 - 2.0 * q2 + r2) * u + (q2 - p2);

    miVector out;
    out.x = static_cast<float>(S(D0, D1, D2, v));
    out.y = static_cast<float>((H1 - H0) + (H0 - 2.0 * H1 + H2) * v);
    out.z = 0.25f * static_cast<float>(S(H0, H1, H2, v));
    return out;
}

/* One table entry; a negative index counts like its absolute value (taken as
   an unsigned number, so the most negative int gives 2^31). */
DRUX_API double noise_table_scalar(int i)
{
    const unsigned u = i < 0 ? 0u - static_cast<unsigned>(i) : static_cast<unsigned>(i);
    return NoiseTable[u % kTableModulus];
}

/* Three consecutive entries; index sums wrap as unsigned 32-bit numbers. */
DRUX_API miVector noise_table_vector(int i)
{
    const unsigned u = static_cast<unsigned>(i);
    return miVector{NoiseTable[u % kTableModulus], NoiseTable[(u + 1u) % kTableModulus],
                    NoiseTable[(u + 2u) % kTableModulus]};
}

/* 16-bit linear congruential generator: seed' = (seed * 25173 + 13849) mod
   2^16, result seed' / 65535 (so 65535 gives exactly 1). */
DRUX_API float noise_frand(miUint *seed)
{
    const miUint s = (*seed * 25173u + 13849u) & 0xFFFFu;
    *seed = s;
    return static_cast<float>(s) / 65535.0f;
}

DRUX_API double noise_drand(miUint *seed)
{
    const miUint s = (*seed * 25173u + 13849u) & 0xFFFFu;
    *seed = s;
    return static_cast<double>(s) / 65535.0;
}

/*
 * Builds the gradient table once per process under the renderer's global
 * lock, from the renderer's generator seeded with 1: two draws per entry give
 * a uniform direction on the unit sphere.  The pointer is published only
 * when every entry is filled, so noise_gradient_3d never sees a partial
 * table.  Once the table exists a call returns at once without taking the
 * lock (same outcome as locking and finding it built).
 * Without a state (or its lock) the table cannot be built safely: the call
 * reports an error and leaves the table absent.
 */
DRUX_API void noise_gradient_init(miState *state)
{
    if (gradientNoiseTable.load(std::memory_order_acquire))
        return;
    if (!state || !state->global_lock) {
        mi_error("noise_gradient_init: no state with a global lock; gradient noise table not built");
        return;
    }
    LockGuard guard(state->global_lock);
    if (gradientNoiseTable.load(std::memory_order_relaxed))
        return;
    miVector *g = static_cast<miVector *>(
        mi_mem_int_allocate("SDK/druxNoise", 104, kGradientCount * sizeof(miVector)));
    if (!g)
        return;
    mi_srandom(1);
    for (int i = 0; i < kGradientCount; ++i) {
        const float r1 = mi_random();
        const float r2 = mi_random();
        const float z = 1.0f - 2.0f * r1;
        const float s = std::sqrt(1.0f - z * z);
        const float phi = static_cast<float>(static_cast<double>(r2) * kTwoPi);
        g[i] = miVector{std::cos(phi) * s, std::sin(phi) * s, z};
    }
    gradientNoiseTable.store(g, std::memory_order_release);
}

/*
 * Gradient noise: corner gradients from the table, hashed through the
 * permutation; the eight corner contributions are blended with the cubic
 * fade 3t^2 - 2t^3.  0 at every lattice point, period 256 on each axis.
 * 0.0 while the table has not been built; a non-number coordinate gives a
 * non-number.  On x86 the variant for the processor is chosen once when the
 * library is loaded.
 */
#ifdef DRUX_NOISE_DISPATCH
DRUX_API float noise_gradient_3d(float x, float y, float z) __attribute__((ifunc("resolveNoiseGradient3d")));
#else
DRUX_API float noise_gradient_3d(float x, float y, float z)
{
#ifdef DRUX_NOISE_SSE
    return gradient3dSse2(x, y, z);
#else
    return gradient3dPlain(x, y, z);
#endif
}
#endif

} // extern "C"
