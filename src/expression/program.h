// The compiled batch form of a tree: built once, run over many rows of values.
#ifndef OXEL_EXPRESSION_PROGRAM_H
#define OXEL_EXPRESSION_PROGRAM_H

#include <oxel/core.h>

class OxelProgram;

// Exported (though not part of the public headers) so that tests can run hand-built trees.
// Lowers the tree (which must outlive the program) for value vectors of numVars slots.
OXEL_API OxelProgram* oxelProgramCompile(Oxel* root, int numVars);
OXEL_API void oxelProgramRelease(OxelProgram* program);
// Same contract as OxelExpression::evalBatch.
OXEL_API void oxelProgramRun(OxelProgram* program, const double* rows, int numRows, int stride,
                    double* results, int* errors);

#endif
