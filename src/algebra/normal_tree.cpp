// The normal form written back as a tree, in the shape that prints shortest and reads back.
#include <charconv>
#include <cmath>
#include <cstring>
#include <typeinfo>

#include <oxel/nodes.h>

#include "algebra/normal.h"

namespace oxn {

namespace {

size_t digits(double v)
{
    char buf[40];
    return static_cast<size_t>(std::to_chars(buf, buf + sizeof buf, v).ptr - buf);
}

// c > 0 as p / q when that is shorter than its decimal digits and divides back to the same
// double (1/3, x/2); otherwise q is 1. Beside other factors a p of 1 costs nothing and the
// decimal a '*'.
void ratio(double c, bool alone, double& p, double& q)
{
    p = c;
    q = 1;
    if (!std::isfinite(c) || c == std::floor(c))
        return;
    size_t best = digits(c) + (alone ? 0 : 1);
    for (double d = 2; d <= 1000; ++d) {
        double n = std::nearbyint(c * d);
        size_t cost = (n == 1 && !alone ? 0 : digits(n) + 1) + digits(d);
        if (n / d == c && n < 1e15 && cost < best) {
            p = n;
            q = d;
            return;
        }
    }
}

bool isPlainVariable(const E& e)
{
    auto* var = e->kind == Kind::Call ? dynamic_cast<OxVar*>(e->node) : nullptr;
    return var && !var->bound();
}

Oxel* chain(const std::vector<Oxel*>& factors);

// base^k for a numeric k > 0, as factors: x*x and x*x*x read shorter than pow(x, 2).
void powerFactors(const E& base, double k, std::vector<Oxel*>& out)
{
    if (k == 1) {
        out.push_back(toTree(base));
    } else if (k == 0.5) {
        out.push_back(new OxSqroot(toTree(base)));
    } else if (double n = std::nearbyint(k * 3); std::fabs(k * 3 - n) < 1e-12 && std::fmod(n, 3) != 0) {
        // u^(n/3): the cube root, real for a negative u as well
        std::vector<Oxel*> inner;
        powerFactors(base, n, inner);
        out.push_back(new OxCbroot(chain(inner)));
    } else if ((k == 2 || k == 3) && isPlainVariable(base)) {
        for (int i = 0; i < k; ++i)
            out.push_back(toTree(base));
    } else {
        out.push_back(new OxHoch(toTree(base), new OxZahl(k)));
    }
}

Oxel* chain(const std::vector<Oxel*>& factors)
{
    Oxel* t = factors[0];
    for (size_t i = 1; i < factors.size(); ++i)
        t = new OxMal(t, factors[i]);
    return t;
}

// c * the factors, as numerator / denominator with the sign in front.
Oxel* product(double c, const std::vector<std::pair<E, E>>& factors)
{
    std::vector<Oxel*> num, den;
    double p, q;
    ratio(std::fabs(c), factors.empty(), p, q);
    if (p != 1 || std::isnan(c))
        num.push_back(new OxZahl(std::isnan(c) ? c : p));
    if (q != 1)
        den.push_back(new OxZahl(q));
    for (const auto& [base, exponent] : factors) {
        double k;
        if (!isNum(exponent, &k))
            num.push_back(new OxHoch(toTree(base), toTree(exponent)));
        else if (k > 0)
            powerFactors(base, k, num);
        else
            powerFactors(base, -k, den);
    }
    if (num.empty())
        num.push_back(new OxZahl(1));
    if (c < 0) {
        if (auto* z = dynamic_cast<OxZahl*>(num[0])) {
            num[0] = new OxZahl(-z->number());
            delete z;
        } else {
            num[0] = new OxMal(new OxZahl(-1), num[0]);
        }
    }
    Oxel* t = chain(num);
    return den.empty() ? t : new OxDurch(t, chain(den));
}

Oxel* scaledTerm(const E& term, double c)
{
    if (term->kind == Kind::Prod)
        return product(c * term->num, term->factors);
    return product(c, {{term, number(1)}});
}

// Terms in canonical order, except that a positive one leads when there is one; subtraction
// for the negative ones; the constant last.
Oxel* sum(const E& e)
{
    const auto& terms = e->terms;
    size_t lead = 0;
    while (!e->ordered && lead < terms.size() && !(terms[lead].second > 0))
        ++lead;
    if (lead == terms.size())
        lead = 0;
    Oxel* t = scaledTerm(terms[lead].first, terms[lead].second);
    auto append = [&t](Oxel* positive, bool minus) {
        t = minus ? static_cast<Oxel*>(new OxMinus(t, positive)) : new OxPlus(t, positive);
    };
    for (size_t i = 0; i < terms.size(); ++i) {
        if (i == lead)
            continue;
        double c = terms[i].second;
        append(scaledTerm(terms[i].first, std::fabs(c)), c < 0);
    }
    if (e->num != 0)
        append(product(std::fabs(e->num), {}), e->num < 0);
    return t;
}

Oxel* call(const E& e)
{
    Oxel* node = e->node;
    if (auto* var = dynamic_cast<OxVar*>(node)) {
        if (var->bound() && e->args.size() == 1)
            return new OxVar(var->index(), var->name().c_str(), toTree(e->args[0]));
        return var->bound() ? node->dup() : new OxVar(var->index(), var->name().c_str());
    }
    Oxel* copy = node->dup();
    if (e->args.size() != static_cast<size_t>(node->getNumChildren()))
        return copy;
    for (size_t i = 0; i < e->args.size(); ++i) {
        int at = static_cast<int>(i);
        Oxel* old = copy->getChild(at);
        copy->setChild(at, toTree(e->args[i]));
        oxelDestroy(old);
    }
    return copy;
}

}  // namespace

Oxel* toTree(const E& e)
{
    switch (e->kind) {
    case Kind::Num:
        return std::isnan(e->num) ? new OxZahl(e->num) : product(e->num, {});
    case Kind::Sum:
        return sum(e);
    case Kind::Prod:
        return product(e->num, e->factors);
    case Kind::Call:
        break;
    }
    return call(e);
}

}  // namespace oxn
