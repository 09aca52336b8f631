// The kind table: one code and one row per node class, from which the tree's kernels, the
// single-point and batch programs and simplification all take what they need.
#ifndef OXEL_NODES_KINDS_H
#define OXEL_NODES_KINDS_H

#include <cstdint>
#include <type_traits>

#include <oxel/nodes.h>

#include "nodes/kernels.h"
#include "nodes/vector_kernels.h"

namespace oxk {

// How a node evaluates its children and merges their error codes.
enum class Shape : uint8_t {
    Number,        // OxZahl
    Variable,      // OxVar: a slot read, or an assignment when bound
    Sequence,      // OxBranch: statements left to right, the second with its own code
    Opaque,        // random sources and dependent variables: only the tree walk runs them
    Unary,         // the operand shares the caller's code
    Not,           // logical negation; a missing operand is true
    Binary,        // left shares the caller's code, right has its own, merged when still 0
    DivisorFirst,  // the same with the right operand evaluated first
    Ordering,      // both operands with their own codes; a positive one overwrites the caller's
    Tolerant,      // like Binary, but a missing operand reads as 0
};

// Division evaluates its divisor first; the ordering comparisons hand on child codes. The
// evaluation frames in operators.cpp and logic.cpp are the other side of these two facts.
template <class C>
inline constexpr Shape binaryShape = Shape::Binary;
template <>
inline constexpr Shape binaryShape<OxDurch> = Shape::DivisorFirst;
template <class C>
inline constexpr Shape logicShape = Shape::Ordering;
template <>
inline constexpr Shape logicShape<OxEqual> = Shape::Tolerant;
template <>
inline constexpr Shape logicShape<OxAnd> = Shape::Tolerant;
template <>
inline constexpr Shape logicShape<OxOr> = Shape::Tolerant;

// The cheap two-operand kinds: each has a two-lane form (vector_kernels.h), and the
// single-point program inlines them for every combination of operand kinds.
#define OXK_CHEAP_BINARY(X) \
    X(OxPlus) X(OxMinus) X(OxMal) X(OxDurch) X(OxMax) X(OxMin) OXEL_LOGIC_OPERATORS(X)

// Kernels with a two-lane form; null for the rest. The flag beside it lets compile-time code
// choose without comparing function pointers, which not every compiler folds (GCC does not
// with -fsanitize=undefined).
template <class C>
inline constexpr oxv::VecKernel vectorForm = nullptr;
template <class C>
inline constexpr bool hasVectorForm = false;
#define OXK_VECTOR_FORM(Cls)                                           \
    template <>                                                        \
    inline constexpr oxv::VecKernel vectorForm<Cls> = &oxv::vec_##Cls; \
    template <>                                                        \
    inline constexpr bool hasVectorForm<Cls> = true;
OXK_CHEAP_BINARY(OXK_VECTOR_FORM)
#undef OXK_VECTOR_FORM

template <class C>
Oxel* make1(Oxel* a)
{
    return new C(a);
}

template <class C>
Oxel* make2(Oxel* a, Oxel* b)
{
    return new C(a, b);
}

using UnFn = double (*)(double, int&);
using BinFn = double (*)(double, double, int&);

struct KindRow {
    const char* name;
    Shape shape;
    bool raises;             // the kernel can write an error code of its own
    UnFn un;                 // the kernel in the uniform shape, one operand
    BinFn bin;               // the kernel in the uniform shape, two operands
    Oxel* (*make1)(Oxel*);   // builds the class from its operand(s)
    Oxel* (*make2)(Oxel*, Oxel*);
    oxv::VecKernel vec;      // two-lane form, or null
    int arity;               // operands of the kernel: 0 for leaves and sequences
    bool vectorized;         // vec is set
};

// Every class, leaves first; each family comes from its table in nodes.h, so a class added
// there has a row here without anyone remembering to add it.
#define OXK_KINDS(LEAF, UNARY, BINARY, LOGIC)                                    \
    LEAF(OxZahl, Number)                                                         \
    LEAF(OxVar, Variable)                                                        \
    LEAF(OxBranch, Sequence)                                                     \
    LEAF(OxRand, Opaque)                                                         \
    LEAF(OxGauss, Opaque)                                                        \
    LEAF(OxDepVar, Opaque)                                                       \
    OXEL_ARITHMETIC_OPERATORS(BINARY)                                            \
    OXEL_BITWISE_OPERATORS(BINARY)                                               \
    OXEL_BINARY_FUNCTIONS(BINARY)                                                \
    OXEL_UNARY_FUNCTIONS(UNARY)                                                  \
    UNARY(OxNot, 0, 0, "")                                                       \
    OXEL_LOGIC_OPERATORS(LOGIC)

#define OXK_ENUM_LEAF(Cls, shape) Cls,
#define OXK_ENUM_OP(Cls, ...) Cls,
enum class Kind : uint8_t {
    OXK_KINDS(OXK_ENUM_LEAF, OXK_ENUM_OP, OXK_ENUM_OP, OXK_ENUM_OP) Unknown
};
#undef OXK_ENUM_LEAF
#undef OXK_ENUM_OP

#define OXK_ROW_LEAF(Cls, shape) \
    KindRow{#Cls, Shape::shape, false, nullptr, nullptr, nullptr, nullptr, nullptr, 0, false},
#define OXK_ROW_UNARY(Cls, ...)                                                              \
    KindRow{#Cls,                                                                            \
            std::is_same<Cls, OxNot>::value ? Shape::Not : Shape::Unary,                     \
            Kernel<decltype(&eval_##Cls)>::raises,                                           \
            &call<&eval_##Cls>,                                                              \
            nullptr,                                                                         \
            &make1<Cls>,                                                                     \
            nullptr,                                                                         \
            nullptr,                                                                         \
            1,                                                                               \
            false},
#define OXK_ROW_BINARY(Cls, ...)                                                              \
    KindRow{#Cls,       binaryShape<Cls>, Kernel<decltype(&eval_##Cls)>::raises, nullptr,     \
            &call<&eval_##Cls>, nullptr,  &make2<Cls>,                           vectorForm<Cls>,  \
            2,                  hasVectorForm<Cls>},
#define OXK_ROW_LOGIC(Cls)                                                                    \
    KindRow{#Cls,       logicShape<Cls>, Kernel<decltype(&eval_##Cls)>::raises, nullptr,      \
            &call<&eval_##Cls>, nullptr, &make2<Cls>,                           vectorForm<Cls>,   \
            2,                  hasVectorForm<Cls>},

inline constexpr KindRow kKinds[] = {
    OXK_KINDS(OXK_ROW_LEAF, OXK_ROW_UNARY, OXK_ROW_BINARY, OXK_ROW_LOGIC)
    KindRow{"unknown", Shape::Opaque, false, nullptr, nullptr, nullptr, nullptr, nullptr, 0, false}};

#undef OXK_ROW_LEAF
#undef OXK_ROW_UNARY
#undef OXK_ROW_BINARY
#undef OXK_ROW_LOGIC

static_assert(sizeof kKinds / sizeof kKinds[0] == static_cast<size_t>(Kind::Unknown) + 1,
              "one row per kind");

constexpr const KindRow& row(Kind k) { return kKinds[static_cast<int>(k)]; }

// The comparisons, connectives and negation: their values are 0.0 or 1.0 and they cannot fail.
constexpr bool truthValued(Kind k)
{
    const Shape shape = row(k).shape;
    return shape == Shape::Ordering || shape == Shape::Tolerant || shape == Shape::Not;
}

// The kind of a node's class (Unknown for classes defined outside the library).
Kind kindOf(const Oxel* node);

}  // namespace oxk

#endif
