// The back ends of the intermediate program: the single-point program behind eval(), the
// column program behind evalBatch() and the worker threads that share large batches.
#ifndef OXEL_PROGRAM_PROGRAM_H
#define OXEL_PROGRAM_PROGRAM_H

#include "program/ir.h"
#include "program/native/native.h"

// Single-point program: registers in a local array, operands encoded in the instructions.
// Trees that cannot be lowered (too deep, classes from outside the library) or whose programs
// are too wide get a program that hands every call to the tree walk.
class OxelPointProgram;
OxelPointProgram* oxelPointCompile(Oxel* root, int numVars);
// The same from a program lowered already (ir.ok).
OxelPointProgram* oxelPointBuild(oxp::Program ir);
void oxelPointRelease(OxelPointProgram* p);
// False when the tree walk serves the program (it could not be built).
bool oxelPointBuilt(const OxelPointProgram& p);
// What eval() gives for one value vector: Oxel::value's value, code and slot writes.
double oxelPointRun(const OxelPointProgram& p, Oxel* root, double* vars, int& err);
// The program's published machine code where it alone gives what oxelPointRun gives for a
// full vector and a zero code; null while the interpreter or the tree walk serves it.
oxn::PointFn oxelPointNative(const OxelPointProgram& p);
// A program of oxp::lowerSeveral as machine code: reads vars, writes tree k's value to out[k],
// sets codes[0] (if zero) where anything failed and codes[k] = 0 for every later tree; null
// while the interpreter serves it (not hot yet, native code off or unavailable).
// oxelPointRun runs such programs by interpreter only.
using OxelSeveralFn = double (*)(const double* vars, int* codes, double* out);
OxelSeveralFn oxelPointSeveral(const OxelPointProgram& p);

namespace oxp {

// The plain step interpreter (steps.cpp): what eval() gives, for programs of any width.
double runSteps(const Program& p, double* vars, int& err);

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
// Steps of the tree's intermediate program (after sharing), or -1 where it cannot be lowered.
OXEL_API int oxelProgramSteps(Oxel* root, int numVars);
// Same contract as OxelExpression::evalBatch.
OXEL_API void oxelProgramRun(OxelProgram* program, const double* rows, int numRows, int stride,
                             double* results, int* errors);
// For tests: 1 when the column batch of the tree's program runs fused block code.
OXEL_API int oxelBlockCompile(Oxel* root, int numVars);
// The column program of a lowered program without calls (ir.ok and !ir.hasCalls()).
OxelProgram* oxelProgramBuild(const oxp::Program& ir, int numVars);
// Runs a program of oxp::lowerSeveral over one array per variable: tree k's values go to
// outs[k]; errors[r] is nonzero where any step of row r failed.
void oxelProgramRunSeveral(OxelProgram* program, const double* const* columns, int numRows,
                           double* const* outs, int* errors);
// The same over one array per variable (null: reads 0.0); errorsZeroed: errors holds zeros
// already and rows without a failure are not written.
void oxelProgramRunColumns(OxelProgram* program, const double* const* columns, int numRows,
                           double* results, int* errors, bool errorsZeroed);

#endif
