// The passes every back end shares: liveness of step values, their slots, sine-cosine pairs.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <unordered_map>

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
    std::vector<bool> isFree;  // by slot: whether free holds it, so long programs stay linear
    auto release = [&](int slot) {
        if (!isFree[static_cast<size_t>(slot)])
            free.push_back(slot);  // an operand read twice dies once
        isFree[static_cast<size_t>(slot)] = true;
    };
    p.numSlots = 0;
    for (int i = 0; i < numSteps; ++i) {
        const Step& s = p.steps[static_cast<size_t>(i)];
        if (s.kind == oxk::Kind::Unknown)
            continue;  // a raise has no value
        int slot;
        if (!free.empty()) {
            slot = free.back();
            free.pop_back();
            isFree[static_cast<size_t>(slot)] = false;
        } else {
            slot = p.numSlots++;
            isFree.push_back(false);
        }
        p.slot[static_cast<size_t>(i)] = slot;
        // Operands die only after the output took its slot: outputs never alias operands.
        forEachOperand(p, s, [&](const Operand& o) {
            if (o.mode == Operand::Reg && p.lastUse[static_cast<size_t>(o.index)] == i)
                release(p.slot[static_cast<size_t>(o.index)]);
        });
        if (p.lastUse[static_cast<size_t>(i)] < 0)
            release(slot);  // a value nobody reads (a discarded statement)
    }
}

namespace {

// The pairing needs sincos to give the bits of sin and cos, as the C library here does (a
// test holds it to that on many thousands of arguments); one that disagrees on a quick sample
// of arguments (multiples of pi/8, tiny, huge, special) gets no pairs at all.
bool sinCosAgree()
{
    static const bool agree = [] {
        // Through pointers the compiler cannot see through, lest it fuse them into sincos.
        double (*volatile sinFn)(double) = ::sin;
        double (*volatile cosFn)(double) = ::cos;
        auto same = [](double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; };
        std::vector<double> args = {0.0, -0.0, 1e-310, 1e-20, 1e22, 1e300, -1e300, INFINITY,
                                    NAN, 0x1p1023, 3.0e9, -7.5, 0.1, 1e5 + 0.3};
        for (int i = -64; i <= 64; ++i)
            args.push_back(i * 0.39269908169872415481);
        for (double a : args) {
            double s, c;
            ::sincos(a, &s, &c);
            if (!same(s, sinFn(a)) || !same(c, cosFn(a)))
                return false;
        }
        return true;
    }();
    return agree;
}

}  // namespace

std::vector<std::pair<int, int>> sinCosPairs(const Program& p)
{
    if (!sinCosAgree())
        return {};
    // By operand, the earliest sine (0) or cosine (1) still without its partner; shared steps
    // make a second sine of one operand rare, and it simply stays alone.
    std::unordered_map<uint64_t, int> waiting[2];
    std::vector<std::pair<int, int>> pairs;
    for (size_t i = 0; i < p.steps.size(); ++i) {
        const Step& s = p.steps[i];
        const int k = s.kind == oxk::Kind::OxSinus ? 0 : s.kind == oxk::Kind::OxCosinus ? 1 : -1;
        if (k < 0 || s.a.mode == Operand::Const)
            continue;
        const uint64_t key =
            (static_cast<uint64_t>(s.a.mode) << 32) | static_cast<uint32_t>(s.a.index);
        auto other = waiting[1 - k].find(key);
        if (other != waiting[1 - k].end()) {
            pairs.emplace_back(other->second, static_cast<int>(i));
            waiting[1 - k].erase(other);
        } else {
            waiting[k].emplace(key, static_cast<int>(i));
        }
    }
    return pairs;
}

}  // namespace oxp
