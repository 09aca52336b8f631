// Random sources: the uniform OxRand over the C library's rand() and the normal OxGauss.
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include <oxel/nodes.h>

#include "support/fork.h"

namespace {

// Minimal-standard multiplicative congruential generator (Park-Miller), Schrage's method.
const int64_t IA = 16807;
const int64_t IM = 2147483647;
const int64_t IQ = 127773;
const int64_t IR = 2836;
const int NTAB = 32;
const int64_t NDIV = 1 + (IM - 1) / NTAB;
const float AM = 1.0f / static_cast<float>(IM);
const float EPS = 1.2e-7f;
const float RNMX = 1.0f - EPS;

inline void schrageStep(int64_t* state)
{
    int64_t k = *state / IQ;
    *state = IA * (*state - k * IQ) - IR * k;
    if (*state < 0)
        *state += IM;
}

}  // namespace

int64_t idum = -1;

KxMutex OxGauss::m_mutex(false);

namespace {

// rand() keeps hidden state; its own lock, never held together with the Gauss one. Both are
// held across fork(), so that a child never waits for a draw of a thread it does not have.
KxMutex randMutex(false);
const bool randomForkSafe =
    oxelForkLock(kForkLeaf, randMutex) && oxelForkLock(kForkLeaf, OxGauss::m_mutex);

}  // namespace

float ran1(int64_t* state)
{
    static int64_t iv[NTAB];
    static int64_t iy = 0;

    if (*state <= 0 || iy == 0) {
        *state = -*state;
        if (*state < 1)
            *state = 1;
        // The first eight draws only warm the generator up.
        for (int j = NTAB + 7; j >= 0; --j) {
            schrageStep(state);
            if (j < NTAB)
                iv[j] = *state;
        }
        iy = iv[0];
    }
    schrageStep(state);
    int j = static_cast<int>(iy / NDIV);
    iy = iv[j];
    iv[j] = *state;
    float temp = AM * static_cast<float>(iy);
    return temp > RNMX ? RNMX : temp;
}

// Polar Box-Muller: each accepted pair yields two deviates, the second kept for the next call.
float gasdev(int64_t* state)
{
    static int iset = 0;
    static float gset = 0.0f;

    if (iset == 0) {
        float v1, v2, rsq;
        do {
            v1 = 2.0f * ran1(state) - 1.0f;
            v2 = 2.0f * ran1(state) - 1.0f;
            rsq = v1 * v1 + v2 * v2;
        } while (rsq >= 1.0f || rsq == 0.0f);
        float fac = static_cast<float>(std::sqrt(-2.0 * std::log(static_cast<double>(rsq)) / rsq));
        gset = v1 * fac;
        iset = 1;
        return v2 * fac;
    }
    iset = 0;
    return gset;
}

// ---------------------------------------------------------------- OxRand

double OxRand::value(double* /*vars*/, int& /*err*/) const
{
    randMutex.lock();
    int r = std::rand();
    randMutex.unlock();
    return static_cast<double>(static_cast<float>(r) * AM);
}

Oxel* OxRand::dup() { return new OxRand(); }
OxRand::~OxRand() {}
int OxRand::identify() { return 34059; }
const char* OxRand::symbol() { return "rand()"; }
int OxRand::count() { return 6; }
int OxRand::print(char* buf) { return std::sprintf(buf, "%s", symbol()); }

// Not constant, so it is never folded, yet independent of every variable.
int OxRand::vconstant() { return 0; }
int OxRand::pconstant(const char* /*var*/) { return 1; }

// ---------------------------------------------------------------- OxGauss

double OxGauss::value(double* /*vars*/, int& /*err*/) const
{
    m_mutex.lock();
    float g = gasdev(&idum);
    m_mutex.unlock();
    return static_cast<double>(g);
}

Oxel* OxGauss::dup() { return new OxGauss(); }
OxGauss::~OxGauss() {}
int OxGauss::identify() { return 34060; }
const char* OxGauss::symbol() { return "gauss"; }
