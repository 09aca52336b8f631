// A stack sized from a tree's depth for the recursive node operations, and the constancy table.
#include "core/deep.h"

#include <pthread.h>

#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>
#include <vector>

#include "support/messages.h"

namespace oxs {

namespace {

// Stack per level of the recursions, with room to spare: the widest measured is the formula
// writer's, about 290 bytes a level optimised; unoptimised builds and sanitizers widen frames.
#if defined(__SANITIZE_ADDRESS__)
#define OXEL_WIDE_FRAMES 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define OXEL_WIDE_FRAMES 1
#endif
#endif
#ifdef OXEL_WIDE_FRAMES
const size_t kBytesPerLevel = 4096;
#else
const size_t kBytesPerLevel = 1024;
#endif
const size_t kBaseBytes = size_t(1) << 20;  // what the work around the recursion needs

struct Job {
    void (*fn)(void*);
    void* ctx;
    void* messages;
    std::exception_ptr error;
};

void* runJob(void* p)
{
    Job& job = *static_cast<Job*>(p);
    oxelMessageAdopt(job.messages);
    try {
        job.fn(job.ctx);
    } catch (...) {
        job.error = std::current_exception();
    }
    return nullptr;
}

thread_local ConstancyMemo* current = nullptr;

}  // namespace

void runWithStackFor(long depth, void (*fn)(void*), void* ctx)
{
    // The helper's messages wait here, so that a handler runs on the caller's thread.
    OxelMessageQueue messages;
    Job job{fn, ctx, oxelMessageTarget(), nullptr};
    size_t bytes = kBaseBytes + static_cast<size_t>(depth) * kBytesPerLevel;
    bytes = (bytes + 65535) & ~size_t(65535);
    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0)
        throw std::bad_alloc();
    int rc = pthread_attr_setstacksize(&attr, bytes);
    pthread_t thread;
    if (rc == 0)
        rc = pthread_create(&thread, &attr, &runJob, &job);
    pthread_attr_destroy(&attr);
    if (rc != 0)
        throw std::bad_alloc();  // no room for such a stack
    pthread_join(thread, nullptr);
    if (job.error)
        std::rethrow_exception(job.error);
}

ConstancyMemo::ConstancyMemo(Oxel* tree, const char* var) : var_(var), outer_(current)
{
    current = this;
    long n = oxelNodeCount(tree);
    unsigned long size = 2;
    while (size < 2 * static_cast<unsigned long>(n))
        size *= 2;
    slots_ = static_cast<Slot*>(std::calloc(size, sizeof(Slot)));
    if (!slots_) {
        current = outer_;
        throw std::bad_alloc();
    }
    mask_ = size - 1;
    // Children before parents: each answer then folds the children's remembered answers.
    std::vector<std::pair<Oxel*, bool>> stack{{tree, false}};
    while (!stack.empty()) {
        auto [node, expanded] = stack.back();
        stack.pop_back();
        if (expanded) {
            insert(node, var ? node->pconstant(var) : node->vconstant());
            continue;
        }
        stack.push_back({node, true});
        // A branch counts only its non-null slots, so its second child may sit past the count.
        int kids = node->getNumChildren();
        int limit = kids > 0 ? kids + 1 : 2;
        for (int i = 0; i < limit; ++i)
            if (Oxel* c = node->getChild(i))
                stack.push_back({c, false});
    }
}

ConstancyMemo::~ConstancyMemo()
{
    current = outer_;
    std::free(slots_);
}

bool ConstancyMemo::lookup(const Oxel* node, const char* var, int* answer)
{
    const ConstancyMemo* m = current;
    if (!m || (var == nullptr) != (m->var_ == nullptr))
        return false;
    if (var && var != m->var_ && std::strcmp(var, m->var_) != 0)
        return false;
    return m->find(node, answer);
}

static unsigned long hashOf(const Oxel* node)
{
    return static_cast<unsigned long>((reinterpret_cast<uintptr_t>(node) >> 4) *
                                      0x9E3779B97F4A7C15ull >> 20);
}

bool ConstancyMemo::find(const Oxel* node, int* answer) const
{
    for (unsigned long i = hashOf(node) & mask_;; i = (i + 1) & mask_) {
        if (slots_[i].node == node) {
            *answer = slots_[i].answer;
            return true;
        }
        if (!slots_[i].node)
            return false;
    }
}

void ConstancyMemo::insert(const Oxel* node, int answer)
{
    unsigned long i = hashOf(node) & mask_;
    while (slots_[i].node && slots_[i].node != node)
        i = (i + 1) & mask_;
    slots_[i] = Slot{node, answer};
}

}  // namespace oxs
