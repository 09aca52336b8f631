// The normal form written back as a tree, in the shape that prints shortest and reads back.
#include <charconv>
#include <cmath>
#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <typeinfo>

#include <oxel/nodes.h>

#include "algebra/normal.h"
#include "nodes/kinds.h"

namespace oxnf {

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
    } else if (thirds(k)) {
        // u^(n/3): the cube root, real for a negative u as well
        std::vector<Oxel*> inner;
        powerFactors(base, std::nearbyint(k * 3), inner);
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
    // Sums last: x * (y + z); numbers that the coefficient could not take after them, so that
    // the variables scale first (1e308 * x * 2).
    std::vector<std::pair<E, E>> ordered = factors;
    std::stable_partition(ordered.begin(), ordered.end(),
                          [](const auto& f) { return f.first->kind != Kind::Num; });
    std::stable_partition(ordered.begin(), ordered.end(), [](const auto& f) {
        return f.first->kind != Kind::Sum && f.first->kind != Kind::Num;
    });
    for (const auto& [base, exponent] : ordered) {
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

// -t, with the sign on a leading number where there is one (-2 * x, not -(2 * x)).
Oxel* negated(Oxel* t)
{
    Oxel* first = t;
    Oxel* parent = nullptr;
    while (typeid(*first) == typeid(OxMal) || typeid(*first) == typeid(OxDurch)) {
        parent = first;
        first = first->getChild(0);
    }
    if (auto* z = dynamic_cast<OxZahl*>(first)) {
        Oxel* n = new OxZahl(-z->number());
        if (!parent) {
            delete first;
            return n;
        }
        parent->setChild(0, n);
        delete first;
        return t;
    }
    if (!parent)
        return new OxMal(new OxZahl(-1), t);
    parent->setChild(0, new OxMal(new OxZahl(-1), first));
    return t;
}

Oxel* scaledTerm(const E& term, double c)
{
    if (term->kind == Kind::Prod)
        return product(c * term->num, term->factors);
    return product(c, {{term, number(1)}});
}

using Terms = std::vector<std::pair<E, double>>;

// The terms as signed pieces. Terms that share factors are written once as their product
// with the sum of what remains, the factor shared most widely first (x*(u + 1)/v - w rather
// than x*u/v + x/v - w); such a product is multiplied out again when the text is read.
// Longer sums are written term by term (the search would take time quadratic in them).
void pieces(const Terms& terms, bool ordered, std::vector<std::pair<Oxel*, double>>& out)
{
    std::map<std::string, std::vector<size_t>> holders;  // base and sign: the terms with it
    const bool factor = !ordered && terms.size() <= 64 && !keptApart(terms);
    for (size_t i = 0; i < terms.size() && factor; ++i) {
        const E& t = terms[i].first;
        for (const auto& [base, exponent] : t->kind == Kind::Prod ? t->factors
                                            : std::vector<std::pair<E, E>>{{t, number(1)}}) {
            double k;
            if (isNum(exponent, &k) && !(base->kind == Kind::Sum && k == 1))
                holders[base->key + (k > 0 ? "+" : "-")].push_back(i);
        }
    }
    const std::vector<size_t>* best = nullptr;
    for (const auto& [key, members] : holders)
        if (members.size() >= 2 && (!best || members.size() > best->size()))
            best = &members;
    if (!best) {
        for (const auto& [t, c] : terms)
            out.emplace_back(scaledTerm(t, std::fabs(c)), c);
        return;
    }
    std::vector<std::pair<E, E>> common = commonFactors(terms, *best);
    std::vector<E> parts{reducedSum(terms, *best, common)};
    for (const auto& [base, exponent] : common)
        parts.push_back(power(base, exponent));
    out.emplace_back(toTree(mul(parts)), 1);
    Terms rest;
    for (size_t i = 0; i < terms.size(); ++i)
        if (std::find(best->begin(), best->end(), i) == best->end())
            rest.push_back(terms[i]);
    pieces(rest, ordered, out);
}

// The pieces with a positive one leading when there is one; subtraction for the negative
// ones; the constant last.
Oxel* sum(const E& e)
{
    std::vector<std::pair<Oxel*, double>> parts;
    pieces(e->terms, e->ordered, parts);
    if (e->num != 0)
        parts.emplace_back(product(std::fabs(e->num), {}), e->num);
    size_t lead = 0;
    while (!e->ordered && lead < parts.size() && !(parts[lead].second > 0))
        ++lead;
    if (lead == parts.size())
        lead = 0;
    Oxel* t = parts[lead].second < 0 ? negated(parts[lead].first) : parts[lead].first;
    for (size_t i = 0; i < parts.size(); ++i) {
        if (i == lead)
            continue;
        Oxel* p = parts[i].first;
        t = parts[i].second < 0 ? static_cast<Oxel*>(new OxMinus(t, p)) : new OxPlus(t, p);
    }
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
    if (e->args.size() != static_cast<size_t>(node->getNumChildren()))
        return node->dup();
    // Classes with a builder are made from the new operands; copying the node first would
    // copy its whole subtree once per level.
    const oxk::KindRow& row = oxk::row(oxk::kindOf(node));
    if (e->args.size() == 1 && row.make1)
        return row.make1(toTree(e->args[0]));
    if (e->args.size() == 2 && row.make2) {
        Oxel* a = toTree(e->args[0]);
        return row.make2(a, toTree(e->args[1]));
    }
    Oxel* copy = node->dup();
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

}  // namespace oxnf
