// Four-lane AVX2 column loops: + - * / with their results tested (a result below 2^1022 in
// magnitude is the kernel's own, see point_jit.cpp; other lanes run the kernel), min, max,
// comparisons, connectives, negation, abs, sqrt, the functions of vector_math.h and powers
// (vector_power.h), all of them the scalar kernels' bits.
#include "program/native/wide.h"

#include <array>
#include <cmath>
#include <utility>

#include "program/native/native.h"

#if defined(__x86_64__) && defined(__GNUC__) && defined(OXEL_VECTOR_MATH)
#include "nodes/vector_lanes.h"
#include "nodes/vector_math.h"
#include "nodes/vector_power.h"
#define OXN_MATH 1
#endif

#if defined(__x86_64__) && defined(__GNUC__)
#include <immintrin.h>
#define OXN_WIDE 1
#endif

namespace oxn {

#ifdef OXN_WIDE
namespace {

using oxk::Kind;

#define OXN_AVX2 [[gnu::target("avx2"), gnu::always_inline]] inline

OXN_AVX2 __m256d truth(__m256d mask)
{
    return _mm256_and_pd(mask, _mm256_set1_pd(1.0));
}

// minpd/maxpd give the second operand unless the first is strictly smaller/larger, which is
// the kernels' a < b ? a : b, NaN and signed zeros included.
template <Kind K>
OXN_AVX2 __m256d op(__m256d a, __m256d b)
{
    const __m256d small = _mm256_set1_pd(1e-8);
    if constexpr (K == Kind::OxPlus)
        return _mm256_add_pd(a, b);
    else if constexpr (K == Kind::OxMinus)
        return _mm256_sub_pd(a, b);
    else if constexpr (K == Kind::OxMal)
        return _mm256_mul_pd(a, b);
    else if constexpr (K == Kind::OxDurch)
        return _mm256_div_pd(a, b);
    else if constexpr (K == Kind::OxMin)
        return _mm256_min_pd(a, b);
    else if constexpr (K == Kind::OxMax)
        return _mm256_max_pd(a, b);
    else if constexpr (K == Kind::OxLess)
        return truth(_mm256_cmp_pd(a, b, _CMP_LT_OQ));
    else if constexpr (K == Kind::OxGreater)
        return truth(_mm256_cmp_pd(a, b, _CMP_GT_OQ));
    else if constexpr (K == Kind::OxLessEqual)
        return truth(_mm256_cmp_pd(a, b, _CMP_LE_OQ));
    else if constexpr (K == Kind::OxGreaterEqual)
        return truth(_mm256_cmp_pd(a, b, _CMP_GE_OQ));
    else if constexpr (K == Kind::OxEqual)
        return truth(_mm256_cmp_pd(a, b, _CMP_EQ_OQ));
    else if constexpr (K == Kind::OxAnd)
        return truth(_mm256_and_pd(_mm256_cmp_pd(a, small, _CMP_GT_OQ),
                                   _mm256_cmp_pd(b, small, _CMP_GT_OQ)));
    else if constexpr (K == Kind::OxOr)
        return truth(_mm256_or_pd(_mm256_cmp_pd(a, small, _CMP_GT_OQ),
                                  _mm256_cmp_pd(b, small, _CMP_GT_OQ)));
    else if constexpr (K == Kind::OxNot)
        return truth(_mm256_cmp_pd(a, small, _CMP_LT_OQ));
    else if constexpr (K == Kind::OxBetrag)
        return _mm256_andnot_pd(_mm256_set1_pd(-0.0), a);
    else
        return _mm256_sqrt_pd(a);
}

// Lanes that may differ from the kernel: results of + - * / not below 2^1022 (NaN included),
// NaN square roots (negative or NaN radicands).
template <Kind K>
OXN_AVX2 bool unsure(__m256d r)
{
    if constexpr (K == Kind::OxPlus || K == Kind::OxMinus || K == Kind::OxMal ||
                  K == Kind::OxDurch) {
        const __m256d mag = _mm256_andnot_pd(_mm256_set1_pd(-0.0), r);
        return _mm256_movemask_pd(_mm256_cmp_pd(mag, _mm256_set1_pd(0x1p1022), _CMP_LT_OQ)) != 15;
    } else if constexpr (K == Kind::OxSqroot) {
        return _mm256_movemask_pd(_mm256_cmp_pd(r, r, _CMP_UNORD_Q)) != 0;
    } else {
        return false;
    }
}

// Four rows per step over the whole block (a partial block's tail computes on stale rows that
// nobody reads: columns hold a full block); rows of an unsure group take the kernel, which
// also records their codes.
template <Kind K, bool AConst, bool BConst>
[[gnu::target("avx2")]] void wideLoop(const oxb::Insn& in, const oxb::Frame& f)
{
    constexpr bool un = oxk::row(K).arity == 1;
    const double* a = AConst ? nullptr : f.cols[in.a];
    const double* b = (BConst || un) ? nullptr : f.cols[in.b];
    double* r = f.cols[in.out];
    const __m256d ka = _mm256_set1_pd(in.ka);
    const __m256d kb = _mm256_set1_pd(in.kb);
    const int end = (f.n + 3) & ~3;
    for (int i = 0; i < end; i += 4) {
        const __m256d va = AConst ? ka : _mm256_loadu_pd(a + i);
        const __m256d vb = (BConst || un) ? kb : _mm256_loadu_pd(b + i);
        const __m256d v = op<K>(va, vb);
        _mm256_storeu_pd(r + i, v);
        if (!unsure<K>(v))
            continue;
        for (int j = i; j < i + 4 && j < f.n; ++j) {
            const double x = AConst ? in.ka : a[j];
            if constexpr (un)
                r[j] = oxk::row(K).un(x, f.err[j]);
            else
                r[j] = oxk::row(K).bin(x, BConst ? in.kb : b[j], f.err[j]);
        }
    }
}

// x^2 (see kSquareTieBand): the product, and the kernel for the lanes it may not match.
[[gnu::target("avx2,fma")]] void squareLoop(const oxb::Insn& in, const oxb::Frame& f)
{
    const double* a = f.cols[in.a];
    double* r = f.cols[in.out];
    const __m256d absMask = _mm256_castsi256_pd(_mm256_set1_epi64x(0x7FFFFFFFFFFFFFFF));
    const __m256d expMask = _mm256_castsi256_pd(_mm256_set1_epi64x(0x7FF0000000000000));
    const __m256d zero = _mm256_setzero_pd();
    const int end = (f.n + 3) & ~3;
    for (int i = 0; i < end; i += 4) {
        const __m256d va = _mm256_loadu_pd(a + i);
        const __m256d hi = _mm256_mul_pd(va, va);
        _mm256_storeu_pd(r + i, hi);
        const __m256d lo = _mm256_and_pd(_mm256_fmsub_pd(va, va, hi), absMask);
        const __m256d binade = _mm256_and_pd(_mm256_fnmadd_pd(lo, _mm256_set1_pd(2.0), hi), expMask);
        const __m256d band = _mm256_mul_pd(binade, _mm256_set1_pd(oxk::kSquareTieBand));
        const __m256d tiny = _mm256_and_pd(
            _mm256_cmp_pd(hi, _mm256_set1_pd(oxk::kSquareTiny), _CMP_LT_OQ),
            _mm256_cmp_pd(va, zero, _CMP_NEQ_OQ));
        const __m256d unsure =
            _mm256_or_pd(_mm256_or_pd(_mm256_cmp_pd(lo, band, _CMP_GT_OQ), tiny),
                         _mm256_cmp_pd(hi, _mm256_set1_pd(0x1p1022), _CMP_NLT_UQ));
        if (!_mm256_movemask_pd(unsure))
            continue;
        for (int j = i; j < i + 4 && j < f.n; ++j)
            r[j] = oxk::squareGuarded(a[j], f.err[j]);
    }
}

// The kinds with a four-lane form.
#define OXN_WIDE_KINDS(X)                                                                   \
    X(OxPlus) X(OxMinus) X(OxMal) X(OxDurch) X(OxMin) X(OxMax) X(OxLess) X(OxGreater)      \
    X(OxLessEqual) X(OxGreaterEqual) X(OxEqual) X(OxAnd) X(OxOr) X(OxNot) X(OxBetrag)       \
    X(OxSqroot)

#ifdef OXN_MATH
// The functions with four-lane forms that give the C library's bits (vector_math.h), each
// serving the steps of its kind.
template <oxm::Fn F>
void mathLoop(const oxb::Insn& in, const oxb::Frame& f)
{
    oxm::column(F)(f.cols[in.a], f.cols[in.out], f.err, f.n);
}

template <size_t... I>
constexpr std::array<oxb::Runner, sizeof...(I)> mathLoops(std::index_sequence<I...>)
{
    return {&mathLoop<oxm::kFunctions[I]>...};
}

// The function serving kind's column, if any.
const oxm::Fn* servedMath(Kind kind)
{
    for (const oxm::Fn& fn : oxm::kFunctions)
        if (oxm::kind(fn) == kind && oxm::serves(fn))
            return &fn;
    return nullptr;
}

oxb::Runner mathRunner(Kind kind)
{
    static constexpr auto loops =
        mathLoops(std::make_index_sequence<std::size(oxm::kFunctions)>());
    const oxm::Fn* fn = servedMath(kind);
    return fn ? loops[static_cast<size_t>(fn - oxm::kFunctions)] : nullptr;
}
#else
oxb::Runner mathRunner(Kind)
{
    return nullptr;
}
#endif

bool haveAvx2()
{
    static const bool have = __builtin_cpu_supports("avx2");
    return have;
}

#ifdef OXN_MATH
// Which operand of a power is a column: both, the base (a constant exponent's plan, or an
// integral one from 1 to 64 in magnitude) or the exponent (a constant base's plan).
enum class PowShape { Columns, Exponent, Integer, Base };

// a^b four rows at a time (vector_power.h); the rows it leaves, and every row while the
// rounding mode is not the plain one, take the kernel, which also records their codes.
template <PowShape S, bool Raise>
void powerLoop(const oxb::Insn& in, const oxb::Frame& f)
{
    const double* x = f.cols[in.a];
    const double* y = S == PowShape::Columns ? f.cols[in.b] : nullptr;
    double* r = f.cols[in.out];
    const double k = S == PowShape::Base ? in.plan->a : S == PowShape::Columns ? 0 : in.plan->b;
    const int n = S == PowShape::Integer ? static_cast<int>(k) : 0;  // |k| <= 64 there
    const double fixed[4] = {k, k, k, k};
    const bool plain = oxm::plainRounding();
    int dummy = 0;
    for (int i = 0; i < f.n; i += 4) {
        int left = 15;
        if (plain)
            left = S == PowShape::Columns    ? oxk::pw::pow4(x + i, y + i, r + i)
                   : S == PowShape::Exponent ? oxk::pw::pow4(x + i, fixed, r + i)
                   : S == PowShape::Integer  ? oxk::pw::powInt4(x + i, n, r + i)
                                             : oxk::pw::pow4(fixed, x + i, r + i);
        for (; left; left &= left - 1) {
            const int j = i + __builtin_ctz(static_cast<unsigned>(left));
            if (j >= f.n)
                break;
            int& err = Raise ? f.err[j] : dummy;
            r[j] = S == PowShape::Columns ? oxk::eval_OxHoch(x[j], y[j], err)
                                          : oxk::powPlanned(*in.plan, x[j], err);
        }
    }
}

template <PowShape S>
oxb::Runner powerLoopOf(bool raises)
{
    return raises ? &powerLoop<S, true> : &powerLoop<S, false>;
}

// Powers of two columns and planned powers but the square (its own loop below) and the
// exponent 0; a constant base outside the normal numbers leaves every row to the kernel, so
// it keeps the kernel's loop.
oxb::Runner powerRunner(const oxp::Step& s)
{
    static const bool fma = __builtin_cpu_supports("fma");
    if (s.kind != Kind::OxHoch || !fma || oxp::squareStep(s))
        return nullptr;
    if (s.b.mode == oxp::Operand::Const) {
        const double b = s.b.k;
        if (b == std::floor(b) && std::fabs(b) <= 64.0)
            return b != 0.0 ? powerLoopOf<PowShape::Integer>(s.raises) : nullptr;
        return powerLoopOf<PowShape::Exponent>(s.raises);
    }
    if (s.a.mode == oxp::Operand::Const)
        return s.a.k >= 0x1p-1022 && s.a.k <= 0x1.fffffffffffffp1023
                   ? powerLoopOf<PowShape::Base>(s.raises)
                   : nullptr;
    return powerLoopOf<PowShape::Columns>(s.raises);
}
#else
oxb::Runner powerRunner(const oxp::Step&)
{
    return nullptr;
}
#endif

}  // namespace

oxb::Runner wideRunner(const oxp::Step& s)
{
    // The vector math has its own switch, OXEL_VECTOR_MATH, and needs no generated code.
    if (oxb::Runner math = mathRunner(s.kind))
        return math;
    if (!enabled() || !haveAvx2())
        return nullptr;
    if (oxb::Runner power = powerRunner(s))
        return power;
    if (oxp::plannedPower(s)) {
        static const bool fma = __builtin_cpu_supports("fma");
        return oxp::squareStep(s) && fma ? &squareLoop : nullptr;
    }
    const bool aConst = s.a.mode == oxp::Operand::Const;
    const bool bConst = s.b.mode == oxp::Operand::Const;
    switch (s.kind) {
#define OXN_CASE(Cls)                                                   \
    case Kind::Cls:                                                     \
        if (oxk::row(Kind::Cls).un)                                     \
            return &wideLoop<Kind::Cls, false, false>;                  \
        return aConst ? &wideLoop<Kind::Cls, true, false>               \
                      : bConst ? &wideLoop<Kind::Cls, false, true>      \
                               : &wideLoop<Kind::Cls, false, false>;
        OXN_WIDE_KINDS(OXN_CASE)
#undef OXN_CASE
    default:
        return nullptr;
    }
}

#else

oxb::Runner wideRunner(const oxp::Step&)
{
    return nullptr;
}

#endif

MathColumn mathColumn(Kind kind)
{
#ifdef OXN_MATH
    if (const oxm::Fn* fn = servedMath(kind))
        return oxm::column(*fn);
#else
    (void)kind;
#endif
    return nullptr;
}

}  // namespace oxn
