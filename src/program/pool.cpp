// Worker threads for large batches: started on first use, one job at a time, the calling
// thread working beside them; a forked child starts its own.
#include "program/program.h"
#include "support/fork.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <new>
#include <thread>
#include <vector>


namespace oxp {
namespace {

const int kMaxThreads = 64;

int defaultThreads()
{
    unsigned n = std::thread::hardware_concurrency();
    return n == 0 ? 1 : std::min(static_cast<int>(n), 8);
}

class Pool;
std::atomic<Pool*> gLive{nullptr};

class Pool {
public:
    explicit Pool(int threads) : threads_(threads) { gLive.store(this); }
    ~Pool()
    {
        gLive.store(nullptr);
        {
            std::lock_guard<std::mutex> g(m_);
            stop_ = true;
        }
        wake_.notify_all();
        for (std::thread& t : workers_)
            t.join();
    }

    int threads() const { return threads_.load(std::memory_order_relaxed); }
    void setThreads(int n) { threads_.store(n <= 0 ? defaultThreads() : std::min(n, kMaxThreads)); }

    void run(int numTasks, void (*task)(void*, int), void* ctx)
    {
        std::unique_lock<std::mutex> busy(jobLock_, std::try_to_lock);
        const int want = std::min(threads(), numTasks) - 1;  // the caller is one of them
        if (!busy.owns_lock() || want <= 0) {  // another host thread has the workers
            for (int i = 0; i < numTasks; ++i)
                task(ctx, i);
            return;
        }
        {
            std::lock_guard<std::mutex> g(m_);
            while (static_cast<int>(workers_.size()) < want)
                workers_.emplace_back([this] { work(); });
            task_ = task;
            ctx_ = ctx;
            numTasks_ = numTasks;
            next_.store(0);
            active_ = wanted_ = want;
            joined_ = 0;
            ++generation_;
        }
        wake_.notify_all();
        drain();
        std::unique_lock<std::mutex> g(m_);
        done_.wait(g, [this] { return active_ == 0; });
        task_ = nullptr;
    }

private:
    void drain()
    {
        for (int i = next_.fetch_add(1); i < numTasks_; i = next_.fetch_add(1))
            task_(ctx_, i);
    }

    void work()
    {
        unsigned seen = 0;
        std::unique_lock<std::mutex> g(m_);
        for (;;) {
            wake_.wait(g, [&] { return stop_ || (generation_ != seen && active_ > 0); });
            if (stop_)
                return;
            seen = generation_;
            // Workers beyond the count wanted for this job sit it out.
            if (joined_ >= wanted_)
                continue;
            ++joined_;
            g.unlock();
            drain();
            g.lock();
            if (--active_ == 0)
                done_.notify_all();
        }
    }

    std::atomic<int> threads_;
    std::mutex jobLock_;  // one job at a time
    std::mutex m_;
    std::condition_variable wake_, done_;
    std::vector<std::thread> workers_;
    bool stop_ = false;
    unsigned generation_ = 0;
    int wanted_ = 0;   // workers this job asks for
    int active_ = 0;   // of those, still to finish
    int joined_ = 0;   // workers that took part in this job
    void (*task_)(void*, int) = nullptr;
    void* ctx_ = nullptr;
    int numTasks_ = 0;
    std::atomic<int> next_{0};
};

Pool& pool()
{
    static Pool p(defaultThreads());
    return p;
}

// A forked child has only the thread that forked: the parent's workers, and any lock or job
// state they held, are not there. It gets a fresh pool with the same thread count; the old
// one is left as it is, since destroying it would join threads that do not exist.
void afterForkChild()
{
    if (Pool* p = gLive.load()) {
        const int threads = p->threads();
        new (p) Pool(threads);
    }
}

const bool gForkSafe = oxelOnFork(kForkPool, nullptr, nullptr, afterForkChild);

}  // namespace

int poolThreads() { return pool().threads(); }
void poolSetThreads(int n) { pool().setThreads(n); }
void poolRun(int numTasks, void (*task)(void*, int), void* ctx) { pool().run(numTasks, task, ctx); }

}  // namespace oxp
