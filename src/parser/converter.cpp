// Parser entry (placeholder until the formula language lands).
#include "parser/converter.h"

KxMutex strToOxelMutex(false);

Oxel* OxConverter::strToOxel(const char*, KxDArray<KxString>&, KxHashTable<KxString, KxString>*,
                             int, OxDepVarnode**)
{
    return nullptr;
}

Oxel* OxConverter::strToOxel(const char* text, KxDArray<KxString>& names, int n,
                             OxDepVarnode** d)
{
    return strToOxel(text, names, nullptr, n, d);
}

KxString OxConverter::lastError() { return KxString(); }
