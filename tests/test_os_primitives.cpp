// Mutexes, conditions, threads, atomic counters, clocks and the log task
// over the platform layer. Threaded: every wait here is bounded.
#include <gtest/gtest.h>
#include <stdio_ext.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <optional>
#include <set>
#include <thread>
#include <vector>

#include "GroundKit/OS/OS_Clock.h"
#include "GroundKit/OS/OS_Condition.h"
#include "GroundKit/OS/OS_Mutex.h"
#include "GroundKit/OS/OS_Thread.h"
#include "os_log.h"

namespace {

using namespace std::chrono_literals;

// Locks and unlocks the mutex on its own thread, so a test can see whether
// the mutex is free.
class Prober {
public:
    explicit Prober(OS::TBaseMutex* mutex)
        : m_thread([this, mutex] {
              mutex->lock();
              m_acquired = true;
              mutex->unlock();
          }) {}
    ~Prober() { m_thread.join(); }
    bool acquiredWithin(std::chrono::milliseconds limit) const {
        const auto end = std::chrono::steady_clock::now() + limit;
        while (!m_acquired && std::chrono::steady_clock::now() < end)
            std::this_thread::sleep_for(1ms);
        return m_acquired;
    }

private:
    std::atomic<bool> m_acquired{false};
    std::thread m_thread;
};

long msUntil(const timespec& deadline) {
    timespec now{};
    OS::Clock::getTime(OS::Clock::MONOTONIC, &now, USE_DEFAULT);
    return (deadline.tv_sec - now.tv_sec) * 1000 + (deadline.tv_nsec - now.tv_nsec) / 1000000;
}

}  // namespace

TEST(Mutex, RecursiveIsFreeOnlyAfterEveryUnlock) {
    OS::TRecursiveMutex mutex;
    mutex.lock();
    mutex.lock();
    Prober prober(&mutex);
    mutex.unlock();
    EXPECT_FALSE(prober.acquiredWithin(50ms));
    mutex.unlock();
    EXPECT_TRUE(prober.acquiredWithin(2s));
}

TEST(Mutex, AutoMutexHoldsForItsScope) {
    OS::TBaseMutex mutex(MUTEX_NONE, USE_STD, nullptr);
    { TAutoMutex<OS::TBaseMutex> none(nullptr); }  // neither locks nor unlocks
    std::optional<Prober> prober;
    {
        TAutoMutex<OS::TBaseMutex> guard(&mutex);
        prober.emplace(&mutex);
        EXPECT_FALSE(prober->acquiredWithin(50ms));
    }
    EXPECT_TRUE(prober->acquiredWithin(2s));
}

TEST(Mutex, PlainMutexExcludes) {
    OS::TBaseMutex mutex(MUTEX_NONE, USE_STD, nullptr);
    long counter = 0;  // deliberately not atomic: only the mutex guards it
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 20000; ++i) {
                TAutoMutex<OS::TBaseMutex> guard(&mutex);
                ++counter;
            }
        });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(counter, 80000);
}

TEST(Condition, BindMutexOnlyOnce) {
    OS::TBaseMutex first(MUTEX_NONE, USE_STD, nullptr);
    OS::TBaseMutex second(MUTEX_NONE, USE_STD, nullptr);
    OS::TCondition condition(nullptr, USE_STD);
    EXPECT_EQ(condition.handle(), nullptr);
    EXPECT_FALSE(condition.bindMutex(nullptr));
    EXPECT_EQ(condition.handle(), nullptr);
    ASSERT_TRUE(condition.bindMutex(&first));
    condition_handle* bound = condition.handle();
    ASSERT_NE(bound, nullptr);
    EXPECT_FALSE(condition.bindMutex(&second));
    EXPECT_EQ(condition.handle(), bound);

    // Still bound to the first mutex: a wait with it held works.
    TAutoMutex<OS::TBaseMutex> guard(&first);
    EXPECT_EQ(condition.wait(OS::Clock::monotonicDeadline(0)), WAIT_CONDITION_TIMEOUT);
}

TEST(Condition, TimedWaitEndsAtItsMonotonicDeadline) {
    OS::TBaseMutex mutex(MUTEX_NONE, USE_STD, nullptr);
    OS::TCondition condition(&mutex, USE_STD);
    TAutoMutex<OS::TBaseMutex> guard(&mutex);
    const timespec deadline = OS::Clock::monotonicDeadline(150);
    const auto start = std::chrono::steady_clock::now();
    int result;
    do {  // a wake-up without notification may come early
        result = condition.wait(deadline);
    } while (result == WAIT_CONDITION_OK && msUntil(deadline) > 0);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(result, WAIT_CONDITION_TIMEOUT);
    EXPECT_LE(msUntil(deadline), 0);  // not early
    EXPECT_LT(elapsed, 2s);
}

TEST(Condition, NotifiedWaitReturnsOk) {
    OS::TBaseMutex mutex(MUTEX_NONE, USE_STD, nullptr);
    OS::TCondition condition(nullptr, USE_STD);
    ASSERT_TRUE(condition.bindMutex(&mutex));
    bool ready = false;  // guarded by mutex
    mutex.lock();
    std::thread notifier([&] {
        TAutoMutex<OS::TBaseMutex> guard(&mutex);
        ready = true;
        condition.notify();
    });
    const timespec deadline = OS::Clock::monotonicDeadline(5000);
    int result = WAIT_CONDITION_OK;
    while (!ready && result == WAIT_CONDITION_OK) result = condition.wait(deadline);
    EXPECT_TRUE(ready);
    EXPECT_EQ(result, WAIT_CONDITION_OK);
    mutex.unlock();
    notifier.join();
}

TEST(Condition, PastOrInvalidDeadlineReturnsAtOnce) {
    OS::TBaseMutex mutex(MUTEX_NONE, USE_STD, nullptr);
    OS::TCondition condition(&mutex, USE_STD);
    TAutoMutex<OS::TBaseMutex> guard(&mutex);
    timespec now{};
    ASSERT_EQ(OS::Clock::getTime(OS::Clock::MONOTONIC, &now, USE_DEFAULT), 0);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(condition.wait(timespec{now.tv_sec - 1, now.tv_nsec}), WAIT_CONDITION_TIMEOUT);
    EXPECT_EQ(condition.wait(timespec{now.tv_sec + 1, 1000000000L}), WAIT_CONDITION_FAILED);
    EXPECT_EQ(condition.wait(timespec{now.tv_sec + 1, -1}), WAIT_CONDITION_FAILED);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 500ms);
}

TEST(Atomic, ConcurrentAddsAreExactAndDistinct) {
    volatile unsigned long counter = 0;
    constexpr int kThreads = 4, kEach = 10000;
    std::vector<std::vector<unsigned long>> seen(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&counter, &seen, t] {
            for (int i = 0; i < kEach; ++i) seen[t].push_back(OS::Thread::syncFetchAdd(&counter));
        });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(counter, static_cast<unsigned long>(kThreads * kEach));
    std::set<unsigned long> all;
    for (const auto& values : seen) all.insert(values.begin(), values.end());
    ASSERT_EQ(all.size(), static_cast<size_t>(kThreads * kEach));
    EXPECT_EQ(*all.begin(), 1u);  // values after the change: 1..N
    EXPECT_EQ(*all.rbegin(), static_cast<unsigned long>(kThreads * kEach));
}

TEST(Atomic, SubReturnsValueAfterChange) {
    volatile unsigned long counter = 1;
    EXPECT_EQ(OS::Thread::syncFetchSub(&counter), 0u);
    EXPECT_EQ(OS::Thread::syncFetchAdd(&counter), 1u);
    EXPECT_EQ(OS::Thread::syncFetchAdd(&counter), 2u);
    EXPECT_EQ(OS::Thread::syncFetchSub(&counter), 1u);
}

TEST(Clock, AdjustCarriesWholeSecondsBothWays) {
    struct Case {
        timespec in, out;
    } cases[] = {
        {{1, 3500000000L}, {4, 500000000L}},  {{0, 1000000000L}, {1, 0}},
        {{5, 999999999L}, {5, 999999999L}},   {{5, -1}, {4, 999999999L}},
        {{5, -1000000000L}, {4, 0}},          {{5, -2500000000L}, {2, 500000000L}},
        {{0, 7200000000000L}, {7200, 0}},
    };
    for (auto& c : cases) {
        timespec t = c.in;
        OS::Clock::adjustClockTime(&t);
        EXPECT_EQ(t.tv_sec, c.out.tv_sec) << c.in.tv_sec << "s " << c.in.tv_nsec << "ns";
        EXPECT_EQ(t.tv_nsec, c.out.tv_nsec) << c.in.tv_sec << "s " << c.in.tv_nsec << "ns";
    }
    timespec t{10, 999000000L};
    OS::Clock::addMilliseconds(&t, 123456);
    EXPECT_EQ(t.tv_sec, 134);
    EXPECT_EQ(t.tv_nsec, 455000000L);
}

TEST(Clock, MonotonicDeadlineAndOrdering) {
    timespec before{}, after{};
    ASSERT_EQ(OS::Clock::getTime(OS::Clock::MONOTONIC, &before, USE_DEFAULT), 0);
    timespec deadline = OS::Clock::monotonicDeadline(1500);
    ASSERT_EQ(OS::Clock::getTime(OS::Clock::MONOTONIC, &after, USE_DEFAULT), 0);
    OS::Clock::addMilliseconds(&before, 1500);
    OS::Clock::addMilliseconds(&after, 1500);
    EXPECT_FALSE(OS::Clock::isEarlier(deadline, before));
    EXPECT_FALSE(OS::Clock::isEarlier(after, deadline));
    EXPECT_LT(deadline.tv_nsec, 1000000000L);
    EXPECT_TRUE(OS::Clock::isEarlier({1, 5}, {1, 6}));
    EXPECT_TRUE(OS::Clock::isEarlier({1, 999999999L}, {2, 0}));
    EXPECT_FALSE(OS::Clock::isEarlier({1, 5}, {1, 5}));
    timespec ignored{};
    EXPECT_EQ(OS::Clock::getTime(static_cast<clockid_t>(12345), &ignored, USE_DEFAULT), -1);
}

TEST(Thread, CreateAndJoinInEveryMode) {
    EXPECT_EQ(get_default_rt_mode(), USE_STD);
    struct Run {
        unsigned long id = 0;
        static void* body(void* arg) {
            static_cast<Run*>(arg)->id = OS::Thread::current();
            return nullptr;
        }
    };
    for (RT_MODE mode : {USE_DEFAULT, USE_STD, USE_RT}) {  // USE_RT falls back when refused
        for (size_t stack : {size_t{0}, size_t{256 * 1024}}) {
            Run run;
            pthread_t thread{};
            ASSERT_EQ(OS::Thread::create(&thread, &Run::body, &run, mode, stack), 0) << mode;
            ASSERT_EQ(OS::Thread::join(thread, USE_DEFAULT), 0);
            EXPECT_NE(run.id, 0u);
            EXPECT_NE(run.id, OS::Thread::current());
        }
    }
}

// The host owns standard output: the log task must leave its buffering as
// it found it (a pipe or file stays fully buffered, so the host's own
// output does not turn into a write per line), and still hand each
// diagnostic on at once. Checked in a child with a fresh stdout on a pipe,
// which the host has already written to.
TEST(LogTask, LeavesStdoutBufferingAsItWasAndFlushesEachDiagnostic) {
    std::fflush(stdout);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        int fds[2];
        if (pipe(fds) != 0 || dup2(fds[1], STDOUT_FILENO) < 0) _exit(10);
        stdout = fdopen(STDOUT_FILENO, "w");
        if (stdout == nullptr) _exit(11);
        std::fputs("host output\n", stdout);
        if (__flbf(stdout) != 0) _exit(12);  // fully buffered to begin with
        install_log_task();
        install_log_task();  // nested
        if (__flbf(stdout) != 0) _exit(13);
        std::fflush(stdout);
        log_task_line("diagnostic %d", 1);
        if (__fpending(stdout) != 0) _exit(14);
        uninstall_log_task();
        uninstall_log_task();
        if (__flbf(stdout) != 0) _exit(15);
        std::fputs("host output again\n", stdout);
        if (__fpending(stdout) == 0) _exit(16);  // buffered, as before
        _exit(0);
    }
    int status = -1;
    for (int i = 0; i < 500 && waitpid(pid, &status, WNOHANG) == 0; ++i)
        std::this_thread::sleep_for(10ms);
    if (!WIFEXITED(status)) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        FAIL() << "the child did not end";
    }
    EXPECT_EQ(WEXITSTATUS(status), 0) << "10+: setup; 13/15: buffering changed; 14: diagnostic "
                                         "held back; 16: host output no longer buffered";
}
