// Batch evaluation (placeholder: the tree, row by row).
#include <vector>

#include "expression/program.h"

class OxelProgram {
public:
    Oxel* root;
    int numVars;
};

OxelProgram* oxelProgramCompile(Oxel* root, int numVars)
{
    return new OxelProgram{root, numVars};
}

void oxelProgramRelease(OxelProgram* program)
{
    delete program;
}

void oxelProgramRun(OxelProgram* p, const double* rows, int numRows, int stride, double* results,
                    int* errors)
{
    std::vector<double> slots(static_cast<size_t>(p->numVars > 0 ? p->numVars : 1));
    for (int r = 0; r < numRows; ++r) {
        for (int i = 0; i < p->numVars; ++i)
            slots[static_cast<size_t>(i)] = rows[static_cast<size_t>(r) * stride + i];
        errors[r] = 0;
        results[r] = p->root->value(slots.data(), errors[r]);
    }
}
