// Executable memory for native code: pages mapped twice, writable in one mapping and
// executable in the other, never both in one.
#ifndef OXEL_PROGRAM_NATIVE_ARENA_H
#define OXEL_PROGRAM_NATIVE_ARENA_H

#include <cstddef>

namespace oxn {

struct Chunk;

// A program's code: where it runs and what to give back.
struct CodeBlock {
    void* exec = nullptr;
    Chunk* chunk = nullptr;
    size_t offset = 0;
    size_t size = 0;
};

// Copies size bytes of position-independent code into executable memory (64-byte aligned);
// false when the system gives none.
bool arenaPlace(const void* code, size_t size, CodeBlock& out);
void arenaFree(CodeBlock& block);
// Chunks mapped now (for tests: freeing every program unmaps all but one).
int arenaChunks();

}  // namespace oxn

#endif
