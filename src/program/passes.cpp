// The passes every back end shares: liveness of step values and their slots.
#include <algorithm>

#include "program/ir.h"

namespace oxp {

void allocate(Program& p)
{
    const int numSteps = static_cast<int>(p.steps.size());
    p.lastUse.assign(static_cast<size_t>(numSteps), -1);
    auto use = [&](const Operand& o, int at) {
        if (o.mode == Operand::Reg) {
            int& last = p.lastUse[static_cast<size_t>(o.index)];
            last = std::max(last, at);
        }
    };
    for (int i = 0; i < numSteps; ++i)
        forEachOperand(p, p.steps[static_cast<size_t>(i)], [&](const Operand& o) { use(o, i); });
    use(p.result, Program::kLive);
    for (const auto& as : p.assigned)
        use(as.second, Program::kLive);

    p.slot.assign(static_cast<size_t>(numSteps), -1);
    std::vector<int> free;
    p.numSlots = 0;
    for (int i = 0; i < numSteps; ++i) {
        const Step& s = p.steps[static_cast<size_t>(i)];
        if (s.kind == oxk::Kind::Unknown)
            continue;  // a raise has no value
        int slot;
        if (!free.empty()) {
            slot = free.back();
            free.pop_back();
        } else {
            slot = p.numSlots++;
        }
        p.slot[static_cast<size_t>(i)] = slot;
        // Operands die only after the output took its slot: outputs never alias operands.
        forEachOperand(p, s, [&](const Operand& o) {
            if (o.mode != Operand::Reg || p.lastUse[static_cast<size_t>(o.index)] != i)
                return;
            int& dying = p.slot[static_cast<size_t>(o.index)];
            if (std::find(free.begin(), free.end(), dying) == free.end())
                free.push_back(dying);  // an operand read twice dies once
        });
        if (p.lastUse[static_cast<size_t>(i)] < 0)
            free.push_back(slot);  // a value nobody reads (a discarded statement)
    }
}

}  // namespace oxp
