// Out-of-tree host program built against an installed liboxel: parse, evaluate, differentiate.
#include <cstdio>
#include <cstring>
#include <memory>

#include <oxel/oxel.h>

int main()
{
    OxelExpression e;
    int x = e.addVar("x");
    char text[] = "x*x + 1";
    if (!e.initFromString(text)) {
        std::fprintf(stderr, "consumer: parse failed: %s\n", e.lastError());
        return 1;
    }
    KxDArray<double> values;
    values.setLength(e.numVars());
    values[x] = 3;
    int err = 0;
    double v = e.eval(values, err);
    std::unique_ptr<OxelExpression> d(e.derivative("x"));
    if (!d) {
        std::fprintf(stderr, "consumer: no derivative\n");
        return 1;
    }
    double dv = d->eval(values, err);
    // x*x + 1 at 3 is 10, its slope there 6.
    if (v != 10 || dv != 6 || err != 0) {
        std::fprintf(stderr, "consumer: got %g and %g (error %d: %s)\n", v, dv, err, vOxError(err));
        return 1;
    }
    const char* record = orvexpackage_oxel();
    if (!record || std::strncmp(record, "|vendor|", 8) != 0) {
        std::fprintf(stderr, "consumer: unexpected build record\n");
        return 1;
    }
    std::printf("consumer: ok (%s)\n", oxelToString(d->root()).c_str());
    return 0;
}
