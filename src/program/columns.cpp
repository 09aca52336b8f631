// Building the column program: instruction selection, then the program's slots as scratch
// columns after the input columns; the result's step writes the caller's results.
#include "program/batch.h"

namespace {

const int kNoColumn = -1;

}  // namespace

void buildColumns(OxelProgram& p, const oxp::Program& l)
{
    const int numVars = static_cast<int>(l.inputRead.size());
    std::vector<int> inputCol(static_cast<size_t>(numVars), kNoColumn);
    for (int v = 0; v < numVars; ++v) {
        if (l.inputRead[static_cast<size_t>(v)]) {
            inputCol[static_cast<size_t>(v)] = static_cast<int>(p.inputVars.size());
            p.inputVars.push_back(v);
        }
    }
    const int numInputs = static_cast<int>(p.inputVars.size());
    const std::vector<std::pair<int, int>> pairs = oxp::sinCosPairs(l);
    // Each pair's later value waits in a column of its own until its step.
    p.numColumns = numInputs + l.numSlots + static_cast<int>(pairs.size());
    const int resultStep = l.result.mode == oxp::Operand::Reg ? l.result.index : -1;
    // Several trees: the step of result k > 0 writes column numColumns + k, the caller's
    // output array where the block allows (as the result's step writes the results).
    std::vector<int> outputOf(l.steps.size(), -1);
    for (size_t k = 1; l.several && k < l.assigned.size(); ++k) {
        const oxp::Operand& o = l.assigned[k].second;
        if (o.mode == oxp::Operand::Reg && o.index != resultStep &&
            outputOf[static_cast<size_t>(o.index)] < 0)
            outputOf[static_cast<size_t>(o.index)] = static_cast<int>(k);
    }
    auto column = [&](const oxp::Operand& o) {
        switch (o.mode) {
        case oxp::Operand::Reg:
            if (outputOf[static_cast<size_t>(o.index)] > 0)
                return p.numColumns + outputOf[static_cast<size_t>(o.index)];
            return o.index == resultStep ? p.numColumns
                                         : numInputs + l.slot[static_cast<size_t>(o.index)];
        case oxp::Operand::Input:
            return inputCol[static_cast<size_t>(o.index)];
        case oxp::Operand::Const:
            break;
        }
        return kNoColumn;
    };

    const int numSteps = static_cast<int>(l.steps.size());
    p.code.resize(static_cast<size_t>(numSteps));
    p.plans.reserve(l.steps.size());
    for (int i = 0; i < numSteps; ++i) {
        const oxp::Step& s = l.steps[static_cast<size_t>(i)];
        oxb::Insn& in = p.code[static_cast<size_t>(i)];
        in.run = oxb::selectRunner(s);
        in.code = s.code;
        if (s.kind == oxk::Kind::Unknown) {  // a raise: no operands, no value
            in.out = in.a = in.b = kNoColumn;
            continue;
        }
        in.out = column(oxp::Operand{oxp::Operand::Reg, 0.0, i});
        in.a = column(s.a);
        in.b = column(s.b);
        in.ka = s.a.k;
        in.kb = s.b.k;
        if (oxp::plannedPower(s)) {
            p.plans.push_back(oxp::powerPlan(s));
            in.plan = &p.plans.back();
            in.a = column(oxp::plannedOperand(s));
            in.b = kNoColumn;
        }
    }
    for (size_t q = 0; q < pairs.size(); ++q) {
        const int waiting = numInputs + l.numSlots + static_cast<int>(q);
        oxb::Insn& first = p.code[static_cast<size_t>(pairs[q].first)];
        first.run = oxb::sinCosRunner(l.steps[static_cast<size_t>(pairs[q].first)].kind);
        first.b = waiting;
        oxb::Insn& later = p.code[static_cast<size_t>(pairs[q].second)];
        later.run = oxb::copyRunner();
        later.a = waiting;
    }
    for (const auto& as : l.assigned)
        p.assigned.emplace_back(column(as.second), as.second.k);
    p.resultInResults = resultStep >= 0;
    p.resultColumn = l.result.mode == oxp::Operand::Const ? kNoColumn : column(l.result);
    p.resultConst = l.result.k;
}
