// Building the column program: instruction selection, then columns for inputs and values,
// scratch columns reused once their value is dead.
#include "expression/batch.h"

namespace {

const int kNoColumn = -1;
const int kResultSlot = -7;  // placeholder for the column that points into the results

// Virtual operand numbering before allocation: steps >= 0, inputs <= -1000, constants -1.
int virtualOperand(const oxp::Operand& o)
{
    switch (o.mode) {
    case oxp::Operand::Reg:
        return o.index;
    case oxp::Operand::Input:
        return -1000 - o.index;
    case oxp::Operand::Const:
        break;
    }
    return kNoColumn;
}

}  // namespace

void buildColumns(OxelProgram& p, const oxp::Lowered& l)
{
    const int numVars = static_cast<int>(l.inputRead.size());
    std::vector<int> inputCol(static_cast<size_t>(numVars), kNoColumn);
    for (int v = 0; v < numVars; ++v) {
        if (l.inputRead[static_cast<size_t>(v)]) {
            inputCol[static_cast<size_t>(v)] = static_cast<int>(p.inputVars.size());
            p.inputVars.push_back(v);
        }
    }

    const int numSteps = static_cast<int>(l.steps.size());
    std::vector<oxb::Insn> code(static_cast<size_t>(numSteps));
    p.plans.reserve(l.steps.size());
    std::vector<int> lastUse(static_cast<size_t>(numSteps), -1);
    for (int i = 0; i < numSteps; ++i) {
        const oxp::Step& s = l.steps[static_cast<size_t>(i)];
        oxb::Insn& in = code[static_cast<size_t>(i)];
        in.run = oxb::selectRunner(s);
        in.code = s.code;
        if (s.kind == oxk::Kind::Unknown) {  // a raise: no operands, no value
            in.out = in.a = in.b = kNoColumn;
            continue;
        }
        in.out = i;
        in.a = virtualOperand(s.a);
        in.b = virtualOperand(s.b);
        in.ka = s.a.k;
        in.kb = s.b.k;
        if (oxp::plannedPower(s)) {
            p.plans.push_back(oxp::powerPlan(s));
            in.plan = &p.plans.back();
            in.a = virtualOperand(oxp::plannedOperand(s));
            in.b = kNoColumn;
        }
        if (in.a >= 0)
            lastUse[static_cast<size_t>(in.a)] = i;
        if (in.b >= 0)
            lastUse[static_cast<size_t>(in.b)] = i;
    }

    const int resultReg = l.result.mode == oxp::Operand::Reg ? l.result.index : -1;
    std::vector<int> colOf(static_cast<size_t>(numSteps), kNoColumn);
    std::vector<int> freeCols;
    int next = static_cast<int>(p.inputVars.size());
    auto map = [&](int reg) {
        if (reg <= -1000)
            return inputCol[static_cast<size_t>(-1000 - reg)];
        if (reg < 0)
            return reg;
        return colOf[static_cast<size_t>(reg)];
    };
    auto release = [&](int reg) {
        if (reg >= 0 && reg != resultReg && colOf[static_cast<size_t>(reg)] >= 0) {
            freeCols.push_back(colOf[static_cast<size_t>(reg)]);
            colOf[static_cast<size_t>(reg)] = kNoColumn;
        }
    };
    for (int i = 0; i < numSteps; ++i) {
        oxb::Insn& m = code[static_cast<size_t>(i)];
        const int a = m.a, b = m.b, out = m.out;
        m.a = map(a);
        m.b = map(b);
        if (out >= 0) {
            int col;
            if (out == resultReg) {
                col = kResultSlot;
            } else if (!freeCols.empty()) {
                col = freeCols.back();
                freeCols.pop_back();
            } else {
                col = next++;
            }
            colOf[static_cast<size_t>(out)] = col;
            m.out = col;
        }
        // Operands die after the output took its column, so in and out never alias.
        if (a >= 0 && lastUse[static_cast<size_t>(a)] == i)
            release(a);
        if (b >= 0 && b != a && lastUse[static_cast<size_t>(b)] == i)
            release(b);
        if (out >= 0 && lastUse[static_cast<size_t>(out)] < 0)
            release(out);  // a value nobody reads (a discarded statement)
    }
    p.numColumns = next;
    for (oxb::Insn& m : code) {
        if (m.a == kResultSlot)
            m.a = next;
        if (m.b == kResultSlot)
            m.b = next;
        if (m.out == kResultSlot)
            m.out = next;
    }
    p.code = std::move(code);
    p.resultInResults = resultReg >= 0;
    switch (l.result.mode) {
    case oxp::Operand::Const:
        p.resultColumn = kNoColumn;
        p.resultConst = l.result.k;
        break;
    case oxp::Operand::Input:
        p.resultColumn = inputCol[static_cast<size_t>(l.result.index)];
        break;
    case oxp::Operand::Reg:
        p.resultColumn = next;
        break;
    }
}
