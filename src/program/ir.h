// The intermediate program: a tree lowered once into a flat list of steps with shared
// subexpressions, its liveness and its slot allocation, from which every back end is built.
#ifndef OXEL_PROGRAM_IR_H
#define OXEL_PROGRAM_IR_H

#include <cmath>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

#include <oxel/core.h>
#include <oxel/nodes.h>

#include "nodes/kernels.h"
#include "nodes/kinds.h"

namespace oxp {

// Where an operand comes from: a constant folded at compile time, the caller's slot of a
// variable (not assigned before this point), or the value of an earlier step.
struct Operand {
    enum Mode : uint8_t { Reg = 0, Input = 1, Const = 2 };
    Mode mode;
    double k;   // Const
    int index;  // Input: variable slot; Reg: the step that computed it
};

// A call out of the program: a random source (no arguments) or a dependent variable, whose
// argument values are args[first .. first + count) of the program.
struct Call {
    oxk::Kind kind;
    const Oxel* node;
    int first;
    int count;
};

// One operation of the tree in evaluation order. Kind Unknown is a raise of `code`; the
// opaque kinds (random sources, dependent variables) are calls[call].
struct Step {
    oxk::Kind kind;
    bool raises;  // the kernel can raise and no earlier step raises unconditionally
    Operand a, b;
    int code;
    int call;
};

inline bool isCall(const Step& s)
{
    return oxk::row(s.kind).shape == oxk::Shape::Opaque && s.kind != oxk::Kind::Unknown;
}

// A power with a constant exponent or base runs from a plan prepared with the program; the
// plan reads the other operand.
inline bool plannedPower(const Step& s)
{
    return s.kind == oxk::Kind::OxHoch &&
           (s.b.mode == Operand::Const || s.a.mode == Operand::Const);
}

// x^2 of a value: the four-lane loops take the product (see kSquareTieBand).
inline bool squareStep(const Step& s)
{
    return s.kind == oxk::Kind::OxHoch && s.b.mode == Operand::Const && s.b.k == 2.0 &&
           s.a.mode != Operand::Const;
}

inline oxk::PowPlan powerPlan(const Step& s)
{
    return s.b.mode == Operand::Const ? oxk::PowPlan(s.b.k) : oxk::PowPlan(oxk::PowPlan::Base{}, s.a.k);
}

inline const Operand& plannedOperand(const Step& s)
{
    return s.b.mode == Operand::Const ? s.a : s.b;
}

// The whole tree as steps: why this gives the tree's bits and error codes.
// - Every step applies the same kernel that the node's value() applies, to the same operands,
//   in the same evaluation order (a divisor before its dividend, statements left to right).
//   Random sources and dependent variables are calls at their place in that order, so draws
//   and callbacks come exactly as often and in the same order as in the tree walk.
// - Error codes: a node shares its caller's code with at most one child (the one it evaluates
//   first); all other children get a fresh local code that is merged only into a still-zero
//   code. The ordering comparisons end such a chain (their children get locals), so when the
//   caller's code starts at 0 they are always the first node to write their code, which is
//   therefore still zero: their "overwrite" cannot be observed. With the code starting at 0,
//   the code the tree ends with is simply the first failure in evaluation order.
// - Assignments rename: later readers of an assigned slot use the assigned value directly,
//   which is what the tree's slot write achieves; the final value of each assigned slot is
//   written back to the caller's vector, as the tree leaves it.
// - Constant operands fold at compile time through the same kernels; a folded failure
//   becomes a raise step at its place in the order.
// - Shared subexpressions: a step with the same kind and the same operands (the same earlier
//   steps, the same unassigned slots, constants of the same bits) as an earlier step is that
//   step. Operands name values, not places: after an assignment a slot is another value, so
//   nothing read before it can be mistaken for what is read after it, and a call's value is
//   its own step, never equal to another call's. The kernels are pure, so the value is the
//   same; and the language evaluates every operand unconditionally, so the earlier step has
//   always run, and its failure (if any) was already the first at that place in the order:
//   the repeated evaluation could not have been the first failure.
struct Program {
    bool ok = false;  // false: a node only the tree walk can run (unknown classes, depth)
    std::vector<Step> steps;
    std::vector<Call> calls;
    std::vector<Operand> args;  // argument values of the calls
    Operand result{Operand::Const, 0.0, -1};
    std::vector<std::pair<int, Operand>> assigned;  // slot and its final value
    std::vector<bool> inputRead;                    // slots read before any assignment
    bool overwrites = false;  // has an ordering comparison (matters when err starts nonzero)
    bool several = false;     // lowerSeveral: assigned holds the trees' results

    // Liveness and slot allocation, the same for every back end. lastUse[i] is the last step
    // that reads step i (kLive: the result or an assigned value; -1: nobody). slot[i] is the
    // slot that holds step i's value (-1: a raise, which has none); a slot is reused once its
    // value is dead, but never for the output of the step that reads it last, so no step's
    // output aliases one of its operands.
    static const int kLive = 1 << 30;
    std::vector<int> lastUse;
    std::vector<int> slot;
    int numSlots = 0;
    bool hasCalls() const { return !calls.empty(); }
};

// Lowers the tree (which must outlive the program) for value vectors of numVars slots, then
// computes liveness and slots.
Program lower(Oxel* root, int numVars);

// Several trees in one program, their equal steps shared (a value and its derivatives): the
// value of roots[k] is written to slot numVars + k as an assignment would be (the vectors
// that run it have numVars + roots.size() slots), result is that of roots[0], and the
// trees' own assignments are not written back. Each tree reads the caller's values as its
// own evaluation would. The codes of such a program only tell whether anything failed.
// With mergeCalls, a dependent variable called again with the same component, derivative
// marks and argument values is the earlier call.
// Its fast path: its values count only where no step failed and every input fits; it drops
// the steps 1*u, u/1, u*1 (u bounded well below DBL_MAX) and u^1 (u an input) that give u's
// bits there.
// Elsewhere the caller evaluates each tree by its own program.
Program lowerSeveral(const std::vector<Oxel*>& roots, int numVars, bool mergeCalls);

// Inputs of the fast path: numbers of magnitude up to kInputBound (which bounds what sums and
// products of them reach); no NaN, so no signalling one, which a product with 1 would quieten.
const double kInputBound = 0x1p64;
inline bool isSignallingNaN(double v)
{
    uint64_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    return std::isnan(v) && !(bits & (uint64_t(1) << 51));
}

inline bool inputFits(double v)
{
    return std::fabs(v) <= kInputBound;
}

// The liveness and slot passes over the steps (lower() runs them).
void allocate(Program& p);

// Steps that take the cosine of what an earlier step takes the sine of, or the other way
// round, as pairs (earlier, later): the C library's sincos gives both at once, with the bits
// of its sin and cos (a test holds it to that), so back ends may compute them together.
std::vector<std::pair<int, int>> sinCosPairs(const Program& p);

// Calls fn(operand) for every value a step reads, in order.
template <class Fn>
void forEachOperand(const Program& p, const Step& s, Fn fn)
{
    if (isCall(s)) {
        const Call& c = p.calls[static_cast<size_t>(s.call)];
        for (int i = 0; i < c.count; ++i)
            fn(p.args[static_cast<size_t>(c.first + i)]);
        return;
    }
    if (s.kind == oxk::Kind::Unknown)
        return;
    fn(s.a);
    if (!oxk::row(s.kind).un)
        fn(s.b);
}

// A call's value for the given argument values: what the node's value() gives.
inline double runCall(const Call& c, const double* args, int& err)
{
    if (c.kind != oxk::Kind::OxDepVar)
        return c.node->value(nullptr, err);  // a random source reads no slot
    const OxDepVar* d = static_cast<const OxDepVar*>(c.node);
    return d->node()->value(d->component(), d->nDiff(), d->diffDims(), args);
}

}  // namespace oxp

#endif
