// Default behaviour of Oxel, written purely in terms of the child accessors.
#include <cstdio>
#include <cstring>
#include <string>

#include <oxel/core.h>

#include "core/deep.h"
#include "core/derivative.h"

#include "support/messages.h"

Oxel::~Oxel() {}

Oxel* Oxel::diff(const char* /*var*/)
{
    if (oxd::partial) {  // a numerical client wants no copy, only the refusal
        if (!oxd::missingRule)
            oxd::missingRule = this;
        return nullptr;
    }
    std::string line = std::string("diff: Not yet implemented in ") + symbol() + ".";
    if (!oxelMessage(OXEL_MESSAGE_NO_DERIVATIVE_RULE, line.c_str()))
        std::printf("%s\n", line.c_str());
    return dup();
}

int Oxel::priority() { return 10; }
int Oxel::getNumChildren() { return 0; }
Oxel* Oxel::getChild(int /*i*/) { return nullptr; }
void Oxel::setChild(int /*i*/, Oxel* /*child*/) {}
int Oxel::identify() { return 0; }
const char* Oxel::symbol() { return "OXEL"; }

// Brackets only when strictly greater, while print() brackets on greater-or-equal:
// for equal priorities count() is two characters short. Callers add a margin.
int Oxel::count()
{
    int n = 0;
    int kids = getNumChildren();
    for (int i = 0; i < kids; ++i) {
        Oxel* c = getChild(i);
        if (!c)
            continue;  // a hand-built branch may leave its first slot empty
        if (priority() > c->priority())
            n += 2;
        n += c->count();
        if (i != kids - 1)
            n += static_cast<int>(std::strlen(symbol()));
    }
    return n;
}

int Oxel::print(char* buf)
{
    int p = 0;
    int kids = getNumChildren();
    for (int i = 0; i < kids; ++i) {
        Oxel* c = getChild(i);
        if (!c)
            continue;
        if (priority() >= c->priority()) {
            buf[p++] = '(';
            p += c->print(buf + p);
            buf[p++] = ')';
        } else {
            p += c->print(buf + p);
        }
        if (i != kids - 1)
            p += std::sprintf(buf + p, "%s", symbol());
    }
    buf[p] = '\0';
    return p;
}

int Oxel::vconstant()
{
    int r = -1;
    if (oxs::ConstancyMemo::lookup(this, nullptr, &r))
        return r;
    int kids = getNumChildren();
    for (int i = 0; i < kids && r; ++i)
        if (Oxel* c = getChild(i))
            r &= c->vconstant();
    return r;
}

int Oxel::pconstant(const char* var)
{
    int r = -1;
    if (oxs::ConstancyMemo::lookup(this, var, &r))
        return r;
    int kids = getNumChildren();
    for (int i = 0; i < kids && r; ++i)
        if (Oxel* c = getChild(i))
            r &= c->pconstant(var);
    return r;
}

// Children are compared by identity, not by value; classes that need more override this.
int Oxel::operator==(Oxel& other)
{
    int r = identify() == other.identify();
    int kids = getNumChildren();
    for (int i = 0; i < kids && r; ++i)
        r = r && getChild(i) == other.getChild(i);
    return r;
}
