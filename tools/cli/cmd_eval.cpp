// oxel eval: the value of a formula at the given values.
#include "common.h"

#include <cstdio>

#include "session.h"

namespace oxcli {

int runEval(const Args& a)
{
    rejectOptions(a, kValue);
    Formula f = formulaOf(a);
    Session s(a);
    declareArguments(s, a.positional, f.firstArg, false);
    s.requireAllValues();
    s.requireValuesFor(f.text);
    if (!s.parse(f.text))
        return kParse;
    int err = 0;
    double v = s.eval(err);
    // The number that a failing node substitutes means nothing unless asked for.
    if (err == 0 || a.value)
        std::printf("%s\n", formatNumber(v).c_str());
    return evalStatus(err);
}

}  // namespace oxcli
