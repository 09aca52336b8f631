// oxel names: the names a formula reads or assigns.
#include "common.h"

#include <cstdio>

namespace oxcli {

int runNames(const Args& a)
{
    rejectOptions(a, 0);
    Formula f = formulaOf(a);
    if (a.positional.size() > f.firstArg)
        usage("names takes nothing but the formula");
    KxDArray<KxString> names;
    oxelFormulaNames(f.text.c_str(), names);
    for (int i = 0; i < names.length(); ++i)
        std::printf("%s\n", names[i].c_str());
    return kOk;
}

}  // namespace oxcli
