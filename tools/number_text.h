// Number text of the oxel program: printf's "%.15g", "%.16g" or "%.17g", whichever is the first
// to read back to the same double, made from std::to_chars's shortest digits.
#ifndef OXEL_TOOLS_NUMBER_TEXT_H
#define OXEL_TOOLS_NUMBER_TEXT_H

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace numtext {

// Room for the longest text: sign, 17 digits, point, "e-308" or a fixed form of 15 digits
// with four leading zeros.
const int kMaxText = 32;

// The classic way, kept as the reference: try 15, 16 and 17 digits.
inline int viaPrintf(double v, char* out)
{
    for (int digits = 15; digits <= 17; ++digits) {
        std::snprintf(out, kMaxText, "%.*g", digits, v);
        if (std::strtod(out, nullptr) == v)
            break;
    }
    return static_cast<int>(std::strlen(out));
}

// Writes v into out (kMaxText bytes at least) and returns the length; no terminator.
// NaN is "nan" whatever its sign; infinities are "inf" and "-inf".
inline int format(double v, char* out)
{
    if (std::isnan(v)) {
        std::memcpy(out, "nan", 3);
        return 3;
    }
    if (std::isinf(v)) {
        std::memcpy(out, v < 0 ? "-inf" : "inf", v < 0 ? 4 : 3);
        return v < 0 ? 4 : 3;
    }
    // printf's own answer where the shortest digits need not be printf's: a power of two has a
    // lopsided rounding interval (the nearest 16 digits may fall outside it), and a subnormal
    // has too few bits for 15 rounded digits to be the shortest ones.
    uint64_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    bool subnormal = (bits & 0x7ff0000000000000ULL) == 0 && v != 0;
    if (subnormal)
        return viaPrintf(v, out);
    bool powerOfTwo = (bits & 0xfffffffffffffULL) == 0;

    char sci[kMaxText];
    *std::to_chars(sci, sci + sizeof sci - 1, v, std::chars_format::scientific).ptr = '\0';
    const char* p = sci;
    int n = 0;
    if (*p == '-')
        out[n++] = *p++;
    char digits[20] = {};
    int count = 0;
    for (; *p != 'e'; ++p)
        if (*p != '.')
            digits[count++] = *p;
    int exponent = static_cast<int>(std::strtol(p + 1, nullptr, 10));
    if (count > 15 && powerOfTwo)
        return viaPrintf(v, out);
    // The shortest digits are those that %.Pg prints, P being 15 or the digit count when that
    // is larger; P decides between the fixed and the exponent form as in printf.
    int precision = count > 15 ? count : 15;
    if (exponent < -4 || exponent >= precision) {
        out[n++] = digits[0];
        if (count > 1) {
            out[n++] = '.';
            std::memcpy(out + n, digits + 1, static_cast<size_t>(count - 1));
            n += count - 1;
        }
        n += std::snprintf(out + n, 8, "e%c%02d", exponent < 0 ? '-' : '+', std::abs(exponent));
        return n;
    }
    if (exponent < 0) {
        out[n++] = '0';
        out[n++] = '.';
        for (int i = -1; i > exponent; --i)
            out[n++] = '0';
        std::memcpy(out + n, digits, static_cast<size_t>(count));
        return n + count;
    }
    for (int i = 0; i <= exponent; ++i)
        out[n++] = i < count ? digits[i] : '0';
    if (count > exponent + 1) {
        out[n++] = '.';
        std::memcpy(out + n, digits + exponent + 1, static_cast<size_t>(count - exponent - 1));
        n += count - exponent - 1;
    }
    return n;
}

}  // namespace numtext

#endif
