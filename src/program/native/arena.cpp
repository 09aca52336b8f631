// The executable arena: chunks of a memfd mapped read-write and read-execute at two
// addresses, many programs per chunk (first fit), a chunk unmapped once empty.
#include "program/native/arena.h"

#include <cstring>
#include <map>
#include <mutex>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

namespace oxn {

struct Chunk {
    char* rw;
    char* rx;
    size_t size;
    size_t used;
    std::map<size_t, size_t> holes;  // offset -> length of the free ranges
};

namespace {

const size_t kChunk = 256 * 1024;
const size_t kAlign = 64;

std::mutex gLock;
// Never destroyed: the chunk kept for the next program stays reachable until the process ends,
// whatever order static objects are torn down in.
std::vector<Chunk*>& gChunks = *new std::vector<Chunk*>;

Chunk* mapChunk(size_t size)
{
    const int fd = memfd_create("oxel-code", MFD_CLOEXEC);
    if (fd < 0)
        return nullptr;
    void* rw = MAP_FAILED;
    void* rx = MAP_FAILED;
    if (ftruncate(fd, static_cast<off_t>(size)) == 0) {
        rw = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        rx = mmap(nullptr, size, PROT_READ | PROT_EXEC, MAP_SHARED, fd, 0);
    }
    close(fd);  // the mappings keep the pages
    if (rw == MAP_FAILED || rx == MAP_FAILED) {
        if (rw != MAP_FAILED)
            munmap(rw, size);
        if (rx != MAP_FAILED)
            munmap(rx, size);
        return nullptr;
    }
    Chunk* c = new Chunk{static_cast<char*>(rw), static_cast<char*>(rx), size, 0, {}};
    c->holes[0] = size;
    return c;
}

void unmapChunk(Chunk* c)
{
    munmap(c->rw, c->size);
    munmap(c->rx, c->size);
    delete c;
}

bool take(Chunk* c, size_t size, size_t& offset)
{
    for (auto it = c->holes.begin(); it != c->holes.end(); ++it) {
        if (it->second < size)
            continue;
        offset = it->first;
        const size_t rest = it->second - size;
        c->holes.erase(it);
        if (rest > 0)
            c->holes[offset + size] = rest;
        c->used += size;
        return true;
    }
    return false;
}

}  // namespace

bool arenaPlace(const void* code, size_t size, CodeBlock& out)
{
    const size_t need = (size + kAlign - 1) & ~(kAlign - 1);
    std::lock_guard<std::mutex> hold(gLock);
    Chunk* chunk = nullptr;
    size_t offset = 0;
    for (Chunk* c : gChunks)
        if (take(c, need, offset)) {
            chunk = c;
            break;
        }
    if (!chunk) {
        const long page = sysconf(_SC_PAGESIZE);
        const size_t p = page > 0 ? static_cast<size_t>(page) : 4096;
        chunk = mapChunk(need > kChunk ? (need + p - 1) / p * p : kChunk);
        if (!chunk)
            return false;
        gChunks.push_back(chunk);
        take(chunk, need, offset);
    }
    std::memcpy(chunk->rw + offset, code, size);
    out.exec = chunk->rx + offset;
    out.chunk = chunk;
    out.offset = offset;
    out.size = need;
    return true;
}

void arenaFree(CodeBlock& block)
{
    if (!block.chunk)
        return;
    std::lock_guard<std::mutex> hold(gLock);
    Chunk* c = block.chunk;
    auto next = c->holes.emplace(block.offset, block.size).first;
    // Merge with the neighbours so that first fit finds large ranges again.
    if (next != c->holes.begin()) {
        auto prev = std::prev(next);
        if (prev->first + prev->second == next->first) {
            prev->second += next->second;
            c->holes.erase(next);
            next = prev;
        }
    }
    auto after = std::next(next);
    if (after != c->holes.end() && next->first + next->second == after->first) {
        next->second += after->second;
        c->holes.erase(after);
    }
    c->used -= block.size;
    block = CodeBlock{};
    // An empty chunk goes back to the system, except the last one: the next program needs it.
    if (c->used == 0 && gChunks.size() > 1) {
        for (size_t i = 0; i < gChunks.size(); ++i)
            if (gChunks[i] == c) {
                gChunks.erase(gChunks.begin() + static_cast<long>(i));
                break;
            }
        unmapChunk(c);
    }
}

int arenaChunks()
{
    std::lock_guard<std::mutex> hold(gLock);
    return static_cast<int>(gChunks.size());
}

}  // namespace oxn
