// The executable arena: chunks of a memfd mapped read-write and read-execute at two
// addresses, many programs per chunk (first fit), a chunk unmapped once empty; a forked child
// gets private copies of the chunks at the same addresses.
#include "program/native/arena.h"
#include "support/fork.h"

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
    // While a fork is under way: the code as it was when the fork began (null when the chunk
    // holds none, or no memory was left for the copy).
    char* before = nullptr;
    bool readable = true;  // false once a child could keep no copy (see makePrivate)
};

namespace {

const size_t kChunk = 256 * 1024;
const size_t kAlign = 64;

std::mutex gLock;
// Never destroyed: the chunk kept for the next program stays reachable until the process ends,
// whatever order static objects are torn down in.
std::vector<Chunk*>& gChunks = *new std::vector<Chunk*>;

// Maps size bytes of a new memfd twice: read-write, and read-execute at rxAt when it is given
// (replacing what is mapped there). False, with nothing mapped, when the system refuses.
bool mapPair(size_t size, char* rxAt, char*& rw, char*& rx)
{
    const int fd = memfd_create("oxel-code", MFD_CLOEXEC);
    if (fd < 0)
        return false;
    void* w = MAP_FAILED;
    void* x = MAP_FAILED;
    if (ftruncate(fd, static_cast<off_t>(size)) == 0) {
        w = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (w != MAP_FAILED)
            x = mmap(rxAt, size, PROT_READ | PROT_EXEC, MAP_SHARED | (rxAt ? MAP_FIXED : 0), fd,
                     0);
    }
    close(fd);  // the mappings keep the pages
    if (x == MAP_FAILED) {
        if (w != MAP_FAILED)
            munmap(w, size);
        return false;
    }
    rw = static_cast<char*>(w);
    rx = static_cast<char*>(x);
    return true;
}

Chunk* mapChunk(size_t size)
{
    char* rw = nullptr;
    char* rx = nullptr;
    if (!mapPair(size, nullptr, rw, rx))
        return nullptr;
    Chunk* c = new Chunk{rw, rx, size, 0, {}};
    c->holes[0] = size;
    return c;
}

void unmapChunk(Chunk* c)
{
    if (c->rw)
        munmap(c->rw, c->size);
    munmap(c->rx, c->size);
    delete c;
}

// ---------------------------------------------------------------- fork
//
// The memfd's pages stay shared across fork(): without this, parent and child would hand out
// the same free ranges and overwrite each other's code. The arena's lock is held across the
// fork, so the child inherits no half-placed program; the parent copies the code first,
// because once it lets go of the lock it may free and reuse a range whose old code the child
// still runs. The child then moves every chunk onto pages of its own at the same executable
// address, so the code it inherited (and published) stays valid.

char* copyOf(const char* from, size_t size)
{
    void* m = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (m == MAP_FAILED)
        return nullptr;
    std::memcpy(m, from, size);
    return static_cast<char*>(m);
}

void beforeFork()
{
    gLock.lock();
    for (Chunk* c : gChunks)
        c->before = c->used > 0 && c->readable ? copyOf(c->rx, c->size) : nullptr;
}

void dropCopies()
{
    for (Chunk* c : gChunks)
        if (c->before) {
            munmap(c->before, c->size);
            c->before = nullptr;
        }
}

void afterForkParent()
{
    dropCopies();
    gLock.unlock();
}

// The child's chunk on its own pages; if the system gives no memfd, the copy itself becomes
// the code (read-only from then on: the chunk takes no new programs and goes once empty).
// Without even that, the chunk is made inaccessible rather than left shared: running code the
// parent may have replaced would give silently wrong values.
void makePrivate(Chunk* c)
{
    if (!c->readable)
        return;  // private and inaccessible already
    // Without the parent's copy (no memory for it), the best left is the shared pages now.
    char* copy = c->before ? c->before : c->used > 0 ? copyOf(c->rx, c->size) : nullptr;
    c->before = nullptr;  // used up here
    if (c->rw)
        munmap(c->rw, c->size);
    c->rw = nullptr;
    char* rx = nullptr;
    if (mapPair(c->size, c->rx, c->rw, rx)) {
        if (copy) {
            std::memcpy(c->rw, copy, c->size);
            munmap(copy, c->size);
        }
        return;
    }
    c->holes.clear();
    if (copy && mprotect(copy, c->size, PROT_READ | PROT_EXEC) == 0 &&
        mremap(copy, c->size, c->size, MREMAP_MAYMOVE | MREMAP_FIXED, c->rx) != MAP_FAILED)
        return;
    // Nothing left to copy into: the code is not run again here, whatever the parent does.
    if (copy)
        munmap(copy, c->size);
    mmap(c->rx, c->size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
    c->readable = false;
}

void afterForkChild()
{
    for (Chunk* c : gChunks)
        makePrivate(c);
    gLock.unlock();
}

// Registered when the library is loaded, before any thread of it can hold the lock.
const bool gForkSafe = oxelOnFork(kForkArena, beforeFork, afterForkParent, afterForkChild);

bool take(Chunk* c, size_t size, size_t& offset)
{
    if (!c->rw)
        return false;  // a child's read-only chunk (see makePrivate)
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
    // An empty chunk goes back to the system, except the last one: the next program needs it
    // (unless the chunk can take none).
    if (c->used == 0 && (gChunks.size() > 1 || !c->rw)) {
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
