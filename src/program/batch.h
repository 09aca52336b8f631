// The column program behind evalBatch: instructions over blocks of rows, shared by the code
// that builds it (columns.cpp) and the code that runs it (batch.cpp).
#ifndef OXEL_EXPRESSION_BATCH_H
#define OXEL_EXPRESSION_BATCH_H

#include <vector>

#include "program/program.h"

namespace oxb {

const int kBlock = 256;  // rows per column; a few dozen columns stay in L1

struct Frame {
    double** cols;  // column pointers of this block
    int* err;       // error codes of this block's rows
    int n;          // rows in this block
};

struct Insn;
using Runner = void (*)(const Insn&, const Frame&);

struct Insn {
    Runner run;
    int out;  // column written
    int a;    // column of the first operand, -1 for the constant ka
    int b;    // column of the second operand, -1 for the constant kb
    double ka;
    double kb;
    int code;  // error code of a raise
    const oxk::PowPlan* plan;  // a power with a constant operand: column a holds the other
};

// The loop for a step: operands are columns or constants (not both constants).
Runner selectRunner(const oxp::Step& s);

// A sine and a cosine of one column in one pass of the C library's sincos, which gives the
// bits of its sin and cos: column out gets the value of the kind first, column b the other's.
// The later step then only copies column a (that column b) into its own.
Runner sinCosRunner(oxk::Kind first);
Runner copyRunner();

}  // namespace oxb

class OxelProgram {
public:
    Oxel* root = nullptr;
    int numVars = 0;
    bool compiled = false;        // true: rows are independent, so blocks may run on several
                                  // threads; false: rows run in order, through rowProgram
    OxelPointProgram* rowProgram = nullptr;  // random draws and callbacks keep their row order
    ~OxelProgram()
    {
        oxelPointRelease(rowProgram);
        oxn::releaseNative(blockCode);
    }
    // The fused block program, where native code gives one; the instructions below redo the
    // rows it marks.
    oxn::BlockFn block = nullptr;
    oxn::NativeCode blockCode;
    // A lone comparison, connective or negation: its column loop (which has no result test)
    // is a little faster, so the block program serves only batches whose results stream.
    bool blockStreamedOnly = false;
    int blockRound = 1;  // groups of four per round of its loop
    // With tail, the block program is all steps but the last, a function with a four-lane form
    // (ln, tanh, ...) of its result, which tail then computes over the block's column.
    void (*tail)(const double* x, double* r, int* err, int n) = nullptr;
    std::vector<oxb::Insn> code;
    std::vector<int> inputVars;   // variable index of input column i
    int numColumns = 0;           // input columns, then scratch columns
    int resultColumn = -1;        // column holding the value, or -1 for resultConst
    double resultConst = 0.0;
    bool resultInResults = false;  // the result column is the caller's results array
    // Where each assigned value of the lowered program is left (a column, or -1 for the
    // constant): the results of the trees of lowerSeveral, result k > 0 in its own column
    // numColumns + k when its step computes no earlier result.
    std::vector<std::pair<int, double>> assigned;
    std::vector<oxk::PowPlan> plans;  // reserved up front: the instructions point into it
};

// Instruction selection and columns for a program without calls.
void buildColumns(OxelProgram& p, const oxp::Program& l);

#endif
