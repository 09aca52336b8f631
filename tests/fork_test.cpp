// Forked children: their own executable memory for native code and their own batch threads.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cmath>
#include <csignal>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <poll.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <oxel/oxel.h>
#include <oxel/oxel_c.h>

#include "node_probe.h"
#include "program/native/native.h"

namespace {

std::unique_ptr<OxelExpression> make(const std::string& text) { return parsedXyz(text, 1); }

double at(const OxelExpression& e, double x)
{
    double v[1] = {x};
    int err = 0;
    return e.eval(v, 1, err);
}

// Whether e gives want(x) (to rounding) at a spread of points, many calls each.
bool agrees(const OxelExpression& e, double (*want)(double))
{
    for (int i = 0; i < 200; ++i) {
        const double x = -3.0 + 0.037 * i;
        if (std::fabs(at(e, x) - want(x)) > 1e-9 * (1.0 + std::fabs(want(x))))
            return false;
    }
    return true;
}

double plusOne(double x) { return x + 1; }
double scaled(double x) { return x * 1000 + 7; }
double sine(double x) { return std::sin(x) * 2 - 5; }
double cube(double x) { return x * x * x - 2; }

// x*1 + x*2 + ... + x*n: a program far larger than the small ones, placed over what they held.
std::string longSum(int n)
{
    std::string s = "x*1";
    for (int k = 2; k <= n; ++k)
        s += " + x*" + std::to_string(k);
    return s;
}
double longSumValue(double x) { return x * 600.0 * 601.0 / 2.0; }

// A one-way signal between processes.
class Signal {
public:
    Signal() { ok_ = pipe(fd_) == 0; }
    ~Signal()
    {
        close(fd_[0]);
        close(fd_[1]);
    }
    void send() { ok_ = ok_ && write(fd_[1], "!", 1) == 1; }
    // False when nothing came within the time (the other side died or hangs).
    bool wait(int ms = 60000)
    {
        pollfd p{fd_[0], POLLIN, 0};
        char c;
        return ok_ && poll(&p, 1, ms) == 1 && read(fd_[0], &c, 1) == 1;
    }

private:
    int fd_[2] = {-1, -1};
    bool ok_ = false;
};

// Runs body in a forked child, which exits with 0 when body says so.
pid_t child(const std::function<bool()>& body)
{
    const pid_t pid = fork();
    if (pid == 0)
        _exit(body() ? 0 : 1);
    return pid;
}

// "exit 0" when the child succeeded; otherwise how it ended (a hang is killed after the time).
std::string outcome(pid_t pid, int seconds = 60)
{
    if (pid < 0)
        return "fork failed";
    int status = 0;
    for (int ms = 0; waitpid(pid, &status, WNOHANG) == 0; ms += 10) {
        if (ms >= seconds * 1000) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return "hung";
        }
        usleep(10000);
    }
    if (WIFSIGNALED(status))
        return "signal " + std::to_string(WTERMSIG(status));
    return "exit " + std::to_string(WEXITSTATUS(status));
}

class HotCalls {
public:
    explicit HotCalls(int calls) { oxelNativeHotCalls(calls); }
    ~HotCalls() { oxelNativeHotCalls(1000); }
};

class BatchThreads {
public:
    explicit BatchThreads(int n) { oxelSetBatchThreads(n); }
    ~BatchThreads() { oxelSetBatchThreads(0); }
};

// A batch large enough for the worker threads, checked row by row.
bool batchAgrees(const OxelExpression& e, double (*want)(double))
{
    const int n = 100000;
    std::vector<double> xs(n), out(n);
    std::vector<int> codes(n);
    for (int i = 0; i < n; ++i)
        xs[static_cast<size_t>(i)] = 1e-4 * i;
    if (e.evalBatch(xs.data(), n, 1, out.data(), codes.data()) != 0)
        return false;
    for (size_t i = 0; i < xs.size(); ++i)
        if (codes[i] != 0 || std::fabs(out[i] - want(xs[i])) > 1e-9 * (1 + std::fabs(want(xs[i]))))
            return false;
    return true;
}

// Two children compile a formula each into what the parent's arena left free, the parent
// then frees its first program and compiles a large one over it: each process keeps its own
// results, the inherited program included.
TEST(Fork, ChildrenAndParentKeepTheirOwnCode)
{
    HotCalls hot(0);  // every first call compiles
    auto inherited = make("x + 1");
    ASSERT_TRUE(inherited && agrees(*inherited, plusOne));
    Signal ready1, ready2, go1, go2;
    const auto worker = [&](const char* text, double (*want)(double), Signal& ready, Signal& go) {
        return child([&] {
            auto own = make(text);
            if (!own || !agrees(*own, want))
                return false;
            ready.send();
            if (!go.wait())
                return false;
            auto later = make("x*x*x - 2");  // into whatever the child has free now
            return agrees(*own, want) && agrees(*inherited, plusOne) && later &&
                   agrees(*later, cube) && agrees(*own, want);
        });
    };
    const pid_t a = worker("x*1000 + 7", scaled, ready1, go1);
    ASSERT_TRUE(ready1.wait());
    const pid_t b = worker("sin(x)*2 - 5", sine, ready2, go2);
    ASSERT_TRUE(ready2.wait());
    inherited.reset();
    auto large = make(longSum(600));
    ASSERT_TRUE(large && agrees(*large, longSumValue));
    go1.send();
    go2.send();
    EXPECT_EQ(outcome(a), "exit 0");
    EXPECT_EQ(outcome(b), "exit 0");
    EXPECT_TRUE(agrees(*large, longSumValue));  // the children's later programs went elsewhere
}

// A child that can open no file (so gets no memfd of its own) still runs the code it
// inherited, from a private copy, and compiles nothing new over it.
TEST(Fork, ChildWithoutFilesKeepsItsCode)
{
    // The sanitizers' runtime itself needs file descriptors in the child.
    if (std::getenv("OXEL_TEST_SANITIZED"))
        GTEST_SKIP() << "no file descriptors is more than the sanitizer runtime can take";
    HotCalls hot(0);
    auto inherited = make("sin(x)*2 - 5");
    ASSERT_TRUE(inherited && agrees(*inherited, sine));
    rlimit was{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &was));
    rlimit none = was;
    none.rlim_cur = 0;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
    const pid_t pid = child([&] {
        auto own = make("x*1000 + 7");
        return agrees(*inherited, sine) && own && agrees(*own, scaled) &&
               agrees(*inherited, sine);
    });
    setrlimit(RLIMIT_NOFILE, &was);
    EXPECT_EQ(outcome(pid), "exit 0");
    inherited.reset();
    auto large = make(longSum(600));  // over the parent's code, not the child's
    EXPECT_TRUE(large && agrees(*large, longSumValue));
}

// A child forked after the parent's batches started the worker threads runs batches of its
// own (on threads of its own), also when the fork comes while another thread of the parent is
// in the middle of a batch or of compiling.
TEST(Fork, ChildRunsBatchesWhileTheParentIsBusy)
{
    HotCalls hot(0);
    BatchThreads threads(2);
    auto e = make("x*2 + 1");
    ASSERT_TRUE(e && batchAgrees(*e, [](double x) { return x * 2 + 1; }));
    std::atomic<bool> stop{false}, fine{true};
    std::thread busy([&] {
        while (!stop.load()) {
            auto f = make("sin(x)*2 - 5");
            fine = fine && f && batchAgrees(*f, sine) && agrees(*f, sine);
        }
    });
    std::vector<std::string> ends;
    for (int i = 0; i < 4; ++i) {
        ends.push_back(outcome(child([&] {
            auto own = make("x*1000 + 7");
            return batchAgrees(*e, [](double x) { return x * 2 + 1; }) && own &&
                   batchAgrees(*own, scaled) && agrees(*own, scaled);
        })));
        usleep(2000);
    }
    stop = true;
    busy.join();
    EXPECT_TRUE(fine.load());
    EXPECT_EQ(ends, std::vector<std::string>(4, "exit 0"));
}

// A child forked while another thread of the parent holds the normal generator's lock, or
// draws, hands messages to the host's handler and takes and frees C handles, finds each of
// those locks free: the fork waits for them.
TEST(Fork, ChildFindsEveryShortLockFree)
{
    oxelSetMessageHandler([](int, const char*, void*) {}, nullptr);
    auto draws = make("rand() + gauss() + x");
    ASSERT_TRUE(draws);
    auto work = [&] {
        for (int i = 0; i < 50; ++i)
            at(*draws, 1.0);
        oxel_expr_free(oxel_expr_new());
        return !make("x +") && std::isfinite(at(*draws, 1.0));  // the parse error is a message
    };
    std::vector<std::string> ends;
    std::atomic<bool> held{false}, stop{false};
    std::thread holder([&] {
        OxGauss::m_mutex.lock();
        held = true;
        usleep(100000);
        OxGauss::m_mutex.unlock();
    });
    while (!held.load())
        usleep(100);
    ends.push_back(outcome(child(work), 10));
    holder.join();
    std::thread busy([&] {
        while (!stop.load())
            work();
    });
    for (int i = 0; i < 8; ++i) {
        ends.push_back(outcome(child(work), 10));
        usleep(500);
    }
    stop = true;
    busy.join();
    oxelSetMessageHandler(nullptr, nullptr);
    EXPECT_EQ(ends, std::vector<std::string>(9, "exit 0"));
}

}  // namespace
