// oxel grad: the value of a formula with its first (and second) derivatives at one point.
#include "common.h"

#include <cstdio>
#include <memory>

#include "session.h"

namespace oxcli {

int runGrad(const Args& a)
{
    rejectOptions(a, kHessian);
    Formula f = formulaOf(a);
    std::vector<std::string> names;
    size_t first = f.firstArg;
    for (; first < a.positional.size() && a.positional[first].find('=') == std::string::npos;
         ++first)
        names.push_back(checkedName(a.positional[first], a.positional[first]));
    if (names.empty())
        usage("grad needs the variables to differentiate by");
    Session s(a);
    for (const std::string& n : names)
        s.declare(n);
    declareArguments(s, a.positional, first, false);
    // A name the formula does not read has the derivative 0 whatever its value.
    s.requireAllValuesBut(names, f.text);
    s.requireValuesFor(f.text);
    if (!s.parse(f.text))
        return kParse;
    const int order = a.hessian ? 2 : 1;
    std::string why;
    std::unique_ptr<OxelGradient> g = s.expression().gradient(names, order, &why);
    if (!g) {
        std::fprintf(stderr, "oxel: the derivatives cannot be formed: %s\n", why.c_str());
        return kNoDerivative;
    }
    const std::vector<double> row = s.baseRow();
    std::vector<double> out(static_cast<size_t>(g->numOutputs()));
    std::vector<int> codes(out.size());
    g->eval(row.data(), out.data(), codes.data());
    const std::vector<std::string> labels = gradientLabels(names, order);
    int firstError = 0;
    for (size_t k = 0; k < out.size(); ++k) {
        if (codes[k] == 0) {
            std::printf("%s %s\n", labels[k].c_str(), formatNumber(out[k]).c_str());
            continue;
        }
        std::printf("%s error %d\n", labels[k].c_str(), codes[k]);
        if (firstError == 0)
            firstError = codes[k];
    }
    return evalStatus(firstError);
}

}  // namespace oxcli
