// The compiled batch form of a tree: built once, run over many rows of values.
#ifndef OXEL_EXPRESSION_PROGRAM_H
#define OXEL_EXPRESSION_PROGRAM_H

#include <oxel/core.h>

class OxelProgram;

// Lowers the tree (which must outlive the program) for value vectors of numVars slots.
OxelProgram* oxelProgramCompile(Oxel* root, int numVars);
void oxelProgramRelease(OxelProgram* program);
// Same contract as OxelExpression::evalBatch.
void oxelProgramRun(OxelProgram* program, const double* rows, int numRows, int stride,
                    double* results, int* errors);

#endif
