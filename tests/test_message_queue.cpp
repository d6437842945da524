#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "MessageQueue.h"

namespace {

using Clock = std::chrono::steady_clock;

long msSince(Clock::time_point start) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

APARTMENT_TMSG makeMsg(WPARAM w, LPARAM l = 0) {
    APARTMENT_TMSG msg{};
    msg.m_intMsg = NORMAL_FRAME_ARRIVED;
    msg.wParam = w;
    msg.lParam = l;
    return msg;
}

// A message that no test pushes: a failed pop must leave it as it was.
const APARTMENT_TMSG kUntouched = makeMsg(0xDEAD, -7);

void expectUntouched(const APARTMENT_TMSG& msg) {
    EXPECT_EQ(msg.wParam, kUntouched.wParam);
    EXPECT_EQ(msg.lParam, kUntouched.lParam);
}

// Runs fn on another thread and reports whether it has returned.
class Background {
public:
    template <class Fn>
    explicit Background(Fn fn) : m_thread([this, fn] { m_result = fn(); m_done = true; }) {}
    ~Background() { m_thread.join(); }
    bool done() const { return m_done; }
    bool result() const { return m_result; }
    // Bounded: false if fn is still running after timeoutMs.
    bool waitDone(long timeoutMs) const {
        const auto start = Clock::now();
        while (!m_done && msSince(start) < timeoutMs)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        return m_done;
    }

private:
    std::atomic<bool> m_done{false};
    std::atomic<bool> m_result{false};
    std::thread m_thread;
};

TEST(MessageQueue, KeepsEachProducersOrderAndLosesNothing) {
    CMessageQueue queue;
    const int kProducers = 4;
    const int kPerProducer = 2000;
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p) {
        producers.emplace_back([&queue, p] {
            for (int i = 0; i < kPerProducer; ++i) queue.push(makeMsg(static_cast<WPARAM>(p), i));
        });
    }
    std::vector<LPARAM> next(kProducers, 0);
    int received = 0;
    APARTMENT_TMSG msg{};
    while (received < kProducers * kPerProducer && queue.pop(msg, 5000)) {
        ASSERT_LT(msg.wParam, static_cast<WPARAM>(kProducers));
        ASSERT_EQ(msg.lParam, next[msg.wParam]) << "producer " << msg.wParam;
        ++next[msg.wParam];
        ++received;
    }
    for (auto& t : producers) t.join();
    EXPECT_EQ(received, kProducers * kPerProducer);
    EXPECT_EQ(queue.getQueueSize(), 0u);
    EXPECT_FALSE(queue.tryPop(msg));
}

TEST(MessageQueue, TimedPopsGiveUpAtTheirDeadline) {
    CMessageQueue queue;
    APARTMENT_TMSG msg = kUntouched;
    auto start = Clock::now();
    EXPECT_FALSE(queue.pop(msg, 0));
    EXPECT_FALSE(queue.pop(msg, timespec{0, 0}));  // long past
    EXPECT_LT(msSince(start), 500);

    start = Clock::now();
    EXPECT_FALSE(queue.pop(msg, 100));
    EXPECT_GE(msSince(start), 95);
    EXPECT_LT(msSince(start), 3000);
    expectUntouched(msg);
}

// The dispatcher asks the (usually empty) deferred queue with a zero time-out
// before every message: a timed wait on a deadline already passed still
// sleeps and gives the processor away, once per message.
TEST(MessageQueue, ZeroTimeoutPopDoesNotSleep) {
    CMessageQueue queue;
    APARTMENT_TMSG msg = kUntouched;
    rusage before{}, after{};
    getrusage(RUSAGE_THREAD, &before);
    for (int i = 0; i < 500; ++i) EXPECT_FALSE(queue.pop(msg, 0));
    getrusage(RUSAGE_THREAD, &after);
    EXPECT_LT(after.ru_nvcsw - before.ru_nvcsw, 50) << "voluntary context switches";
    expectUntouched(msg);
}

TEST(MessageQueue, NegativeTimeoutAndNoLimitMarkerWaitUntilAPush) {
    CMessageQueue queue;
    APARTMENT_TMSG a = kUntouched, b = kUntouched, c = kUntouched;
    Background negative([&] { return queue.pop(a, -5); });
    Background marker([&] { return queue.pop(b, timespec{-1, -1}); });
    Background plain([&] { return queue.pop(c); });
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    EXPECT_FALSE(negative.done() || marker.done() || plain.done()) << "a waiter gave up";
    for (WPARAM w = 1; w <= 3; ++w) queue.push(makeMsg(w));
    ASSERT_TRUE(negative.waitDone(5000) && marker.waitDone(5000) && plain.waitDone(5000));
    EXPECT_TRUE(negative.result() && marker.result() && plain.result());
    EXPECT_EQ(a.wParam + b.wParam + c.wParam, 6u);
}

TEST(MessageQueue, InterruptEndsAPopWaitingOnAnEmptyQueue) {
    CMessageQueue queue;
    APARTMENT_TMSG got = kUntouched;
    Background popper([&] { return queue.pop(got, -1); });
    // Repeated, because an interrupt that lands before the pop starts
    // waiting is forgotten by design.
    const auto start = Clock::now();
    while (!popper.done() && msSince(start) < 5000) {
        queue.interruptPop();
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_TRUE(popper.done());
    EXPECT_FALSE(popper.result());
    expectUntouched(got);

    // The queue works normally afterwards.
    queue.push(makeMsg(5));
    EXPECT_TRUE(queue.pop(got, 0));
    EXPECT_EQ(got.wParam, 5u);
}

// An interrupt only ends pops that wait on an empty queue now.
TEST(MessageQueue, InterruptIsForgottenByLaterPopsAndHidesNoMessage) {
    CMessageQueue queue;
    APARTMENT_TMSG msg = kUntouched;
    queue.interruptPop();
    const auto start = Clock::now();
    EXPECT_FALSE(queue.pop(msg, 150));
    EXPECT_GE(msSince(start), 140) << "the earlier interrupt ended this pop";

    queue.push(makeMsg(1));
    queue.push(makeMsg(2));
    queue.interruptPop();
    EXPECT_TRUE(queue.tryPop(msg));
    EXPECT_EQ(msg.wParam, 1u);
    queue.interruptPop();
    EXPECT_TRUE(queue.pop(msg, -1));
    EXPECT_EQ(msg.wParam, 2u);
}

TEST(MessageQueue, LockedQueueDropsPushesAndKeepsWhatItHolds) {
    CMessageQueue queue;
    APARTMENT_TMSG msg = kUntouched;
    queue.push(makeMsg(1));
    queue.push(makeMsg(2));
    queue.lockQueue();
    queue.push(makeMsg(3));
    EXPECT_EQ(queue.getQueueSize(), 2u);
    EXPECT_FALSE(queue.tryPop(msg));
    EXPECT_FALSE(queue.pop(msg, 0));
    EXPECT_FALSE(queue.pop(msg, 50));
    expectUntouched(msg);
    queue.reset();
    EXPECT_EQ(queue.getQueueSize(), 2u) << "reset must be refused while locked";

    queue.unlockQueue();
    ASSERT_TRUE(queue.pop(msg, 0));
    EXPECT_EQ(msg.wParam, 1u);
    ASSERT_TRUE(queue.tryPop(msg));
    EXPECT_EQ(msg.wParam, 2u);
    EXPECT_FALSE(queue.tryPop(msg)) << "the push made while locked must be lost";

    queue.push(makeMsg(4));
    queue.reset();
    EXPECT_EQ(queue.getQueueSize(), 0u);
}

TEST(MessageQueue, LockWakesABlockedPop) {
    CMessageQueue queue;
    APARTMENT_TMSG got = kUntouched;
    Background popper([&] { return queue.pop(got, -1); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    queue.lockQueue();
    ASSERT_TRUE(popper.waitDone(5000));
    EXPECT_FALSE(popper.result());
    expectUntouched(got);
}

TEST(MessageQueue, AnswersItsInterfaceNames) {
    IMessageQueueStub* queue = new CMessageQueue();
    IMessageQueue* view = queryInterfaceAs<IMessageQueue>(queue);
    ASSERT_EQ(view, static_cast<IMessageQueue*>(queue));
    EXPECT_EQ(view->releaseRef(), 1u);
    EXPECT_EQ(queue->releaseRef(), 0u);
}

}  // namespace
