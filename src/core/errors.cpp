// Evaluation error codes and their texts.
#include <oxel/core.h>

int OxError = 0;

const char* vOxError(int code)
{
    switch (code) {
    case 1: return "Var Unknown";
    case 2: return "Unknown var instance request";
    case 3: return "Syntax";
    case 4: return "Unknown var kill request";
    case 5: return "Diff impossible";
    case 6: return "Number of arguments changed";
    case 7: return "Illegal option";
    case 8: return "Division by zero";
    case 9: return "Overflow";
    case 10: return "Underflow";
    case 11: return "Illegal log argument";
    case 12: return "Radicand negativ";
    case 13: return "Two operators";
    case 14: return "Arcus range";
    case 100: return "null inserted";
    case 101: return "low memory";
    case 102: return "no memory";
    case 666: return "Illegal argument";
    default: return "Unknown";
    }
}
