// The forms diff, simplify and print write: normal or library simplification; formula, C, LaTeX.
#include "common.h"

#include <cstdio>

namespace oxcli {

OxelExpression* simplifiedAs(const Args& a, const OxelExpression& e)
{
    if (a.once)
        return e.simplified();
    if (a.passes || a.tree)
        return e.simplifiedFully();
    return e.normalized();
}

void printAs(const Args& a, const OxelExpression& e, Oxel* tree, bool asTree)
{
    if (a.tree && !a.format.empty())
        usage("--tree and --format exclude each other");
    if (!a.function.empty()) {
        if (a.tree || (!a.format.empty() && a.format != "c"))
            usage("--function writes C: it excludes --tree and --format other than c");
        KxString text = e.toCFunction(a.function.c_str());
        if (text.length() > 0) {  // a file that compiles as it is
            std::printf("#include <math.h>\n#include <stdlib.h>\n\n%s", text.c_str());
            return;
        }
        std::fprintf(stderr, "oxel: warning: the result cannot be written as a C function named "
                             "'%s' (a name C reserves, or a form C lacks); it is shown as the "
                             "library prints it\n", a.function.c_str());
        printResult(tree, true);
        return;
    }
    if (a.format == "c" || a.format == "latex") {
        KxString text = a.format == "c" ? oxelToC(tree) : oxelToLatex(tree);
        if (text.length() > 0) {
            std::printf("%s\n", text.c_str());
            return;
        }
        std::fprintf(stderr, "oxel: warning: the result cannot be written as %s; it is shown as "
                             "the library prints it\n", a.format == "c" ? "C" : "LaTeX");
        asTree = true;
    }
    printResult(tree, asTree && a.format != "formula");
}

}  // namespace oxcli
