// Compiled forms of a tree: the lowered step list both evaluators are built from, the
// single-point program behind eval() and the column program behind evalBatch().
#ifndef OXEL_EXPRESSION_PROGRAM_H
#define OXEL_EXPRESSION_PROGRAM_H

#include <utility>
#include <vector>

#include <oxel/core.h>

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

// One operation of the tree in evaluation order; kind Unknown is a raise of `code`.
struct Step {
    oxk::Kind kind;
    bool raises;  // the kernel can raise and no earlier step raises unconditionally
    Operand a, b;
    int code;
};

// A power with a constant exponent or base runs from a plan prepared with the program; the
// plan reads the other operand.
inline bool plannedPower(const Step& s)
{
    return s.kind == oxk::Kind::OxHoch &&
           (s.b.mode == Operand::Const || s.a.mode == Operand::Const);
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
struct Lowered {
    bool ok = false;  // false: a node only the tree walk can run (random, callbacks, depth)
    std::vector<Step> steps;
    Operand result{Operand::Const, 0.0, -1};
    std::vector<std::pair<int, Operand>> assigned;  // slot and its final value
    std::vector<bool> inputRead;                    // slots read before any assignment
    bool overwrites = false;  // has an ordering comparison (matters when err starts nonzero)
};

Lowered lower(Oxel* root, int numVars);

}  // namespace oxp

// Single-point program: registers in a local array, operands encoded in the instructions.
// Trees it cannot lower (random sources, callbacks, too deep or too wide) get a program that
// hands every call to the tree walk.
class OxelPointProgram;
OxelPointProgram* oxelPointCompile(Oxel* root, int numVars);
void oxelPointRelease(OxelPointProgram* p);
// What eval() gives for one value vector: Oxel::value's value, code and slot writes.
double oxelPointRun(const OxelPointProgram& p, Oxel* root, double* vars, int& err);

namespace oxp {

// Process-wide worker threads for large batches.
int poolThreads();
void poolSetThreads(int n);
// Runs task(i) for i in [0, numTasks) on the workers and the calling thread; returns when
// all are done. Falls back to the calling thread alone when the pool is busy or disabled.
void poolRun(int numTasks, void (*task)(void* ctx, int i), void* ctx);

}  // namespace oxp

class OxelProgram;

// Exported (though not part of the public headers) so that tests can run hand-built trees.
// Lowers the tree (which must outlive the program) for value vectors of numVars slots.
OXEL_API OxelProgram* oxelProgramCompile(Oxel* root, int numVars);
OXEL_API void oxelProgramRelease(OxelProgram* program);
// Same contract as OxelExpression::evalBatch.
OXEL_API void oxelProgramRun(OxelProgram* program, const double* rows, int numRows, int stride,
                             double* results, int* errors);
// The same over one array per variable (null: reads 0.0); errorsZeroed: errors holds zeros
// already and rows without a failure are not written.
void oxelProgramRunColumns(OxelProgram* program, const double* const* columns, int numRows,
                           double* results, int* errors, bool errorsZeroed);

#endif
