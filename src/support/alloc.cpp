// The framework allocator and the string hash.
#include <cstdlib>

#include <oxel/support.h>

void* kxmalloc(size_t size)
{
    return std::malloc(size ? size : 1);
}

void* kxrealloc(void* ptr, size_t size)
{
    return std::realloc(ptr, size ? size : 1);
}

void kxfree(void* ptr)
{
    std::free(ptr);
}

unsigned int hash(const char* text)
{
    // FNV-1a: cheap and well spread for short identifiers.
    unsigned int h = 2166136261u;
    if (text)
        for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p; ++p)
            h = (h ^ *p) * 16777619u;
    return h;
}
