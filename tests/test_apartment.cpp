// The apartment core inside one process: the message queue, the timer
// manager, the message loop with its dispatch gate and re-entry control,
// nodes and their responses, the registry, and links between two
// apartments of this process and to itself.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <memory>
#include <set>

#include "ApartmentFactory.h"
#include "GroundKit/OS/OS_Thread.h"
#include "MessageQueue.h"
#include "TcpApartment.h"
#include "TcpApartmentSink.h"
#include "ApartmentNode.h"
#include "support.h"

using namespace aptest;

namespace {

const unsigned int NO_TIMER = CApartmentTimerManager::NO_TIMER_ID;

// Runs fn on another thread; done() tells whether it has returned.
class Background {
public:
    template <class Fn>
    explicit Background(Fn fn) : m_thread([this, fn] { m_result = fn(); m_done = true; }) {}
    ~Background() { m_thread.join(); }
    bool done() const { return m_done; }
    bool result() const { return m_result; }
    bool waitDone(long ms) const {
        const Clock::time_point start = Clock::now();
        while (!m_done && msSince(start) < ms) sleepMs(2);
        return m_done;
    }

private:
    std::atomic<bool> m_done{false}, m_result{false};
    std::thread m_thread;
};

// ----------------------------------------------------------- message queue

APARTMENT_TMSG makeMsg(WPARAM w, LPARAM l = 0) {
    APARTMENT_TMSG msg{};
    msg.m_intMsg = NORMAL_FRAME_ARRIVED;
    msg.wParam = w;
    msg.lParam = l;
    return msg;
}
// A message that no test pushes: a failed pop must leave it as it was.
const APARTMENT_TMSG kUntouched = makeMsg(0xDEAD, -7);
bool untouched(const APARTMENT_TMSG& msg) {
    return msg.wParam == kUntouched.wParam && msg.lParam == kUntouched.lParam;
}

TEST(MessageQueue, KeepsEachProducersOrderAndLosesNothing) {
    CMessageQueue queue;
    std::vector<std::thread> producers;
    for (int p = 0; p < 4; ++p)
        producers.emplace_back([&queue, p] {
            for (int i = 0; i < 2000; ++i) queue.push(makeMsg(static_cast<WPARAM>(p), i));
        });
    std::vector<LPARAM> next(4, 0);
    int received = 0;
    APARTMENT_TMSG msg{};
    while (received < 8000 && queue.pop(msg, 5000)) {
        ASSERT_LT(msg.wParam, 4u);
        ASSERT_EQ(msg.lParam, next[msg.wParam]++) << "producer " << msg.wParam;
        ++received;
    }
    for (auto& t : producers) t.join();
    EXPECT_EQ(received, 8000);
    EXPECT_EQ(queue.getQueueSize(), 0u);
    EXPECT_FALSE(queue.tryPop(msg));
}

// A pop gives up at its deadline, and at once on one already passed,
// without sleeping: the dispatcher asks the (usually empty) deferred queue
// with a zero time-out before every message.
TEST(MessageQueue, TimedPopsGiveUpAtTheirDeadlineAndAPassedOneDoesNotSleep) {
    CMessageQueue queue;
    APARTMENT_TMSG msg = kUntouched;
    Clock::time_point start = Clock::now();
    EXPECT_FALSE(queue.pop(msg, timespec{0, 0}));
    rusage before{}, after{};
    getrusage(RUSAGE_THREAD, &before);
    for (int i = 0; i < 500; ++i) EXPECT_FALSE(queue.pop(msg, 0));
    getrusage(RUSAGE_THREAD, &after);
    EXPECT_LT(after.ru_nvcsw - before.ru_nvcsw, 50) << "voluntary context switches";
    EXPECT_LT(msSince(start), 500);
    start = Clock::now();
    EXPECT_FALSE(queue.pop(msg, 100));
    EXPECT_GE(msSince(start), 95);
    EXPECT_LT(msSince(start), 3000);
    EXPECT_TRUE(untouched(msg));
}

TEST(MessageQueue, NegativeTimeoutAndNoLimitMarkerWaitUntilAPush) {
    CMessageQueue queue;
    APARTMENT_TMSG a = kUntouched, b = kUntouched, c = kUntouched;
    Background negative([&] { return queue.pop(a, -5); });
    Background marker([&] { return queue.pop(b, timespec{-1, -1}); });
    Background plain([&] { return queue.pop(c); });
    sleepMs(150);
    EXPECT_FALSE(negative.done() || marker.done() || plain.done()) << "a waiter gave up";
    for (WPARAM w = 1; w <= 3; ++w) queue.push(makeMsg(w));
    ASSERT_TRUE(negative.waitDone(5000) && marker.waitDone(5000) && plain.waitDone(5000));
    EXPECT_TRUE(negative.result() && marker.result() && plain.result());
    EXPECT_EQ(a.wParam + b.wParam + c.wParam, 6u);
}

// An interrupt ends pops that wait on an empty queue now, and no other.
TEST(MessageQueue, InterruptEndsOnlyAPopWaitingOnAnEmptyQueue) {
    CMessageQueue queue;
    APARTMENT_TMSG got = kUntouched;
    {
        Background popper([&] { return queue.pop(got, -1); });
        // Repeated: an interrupt that lands before the pop waits is forgotten.
        for (const Clock::time_point start = Clock::now(); !popper.done() && msSince(start) < 5000;
             sleepMs(10))
            queue.interruptPop();
        ASSERT_TRUE(popper.done());
        EXPECT_FALSE(popper.result());
        EXPECT_TRUE(untouched(got));
    }
    queue.interruptPop();
    const Clock::time_point start = Clock::now();
    EXPECT_FALSE(queue.pop(got, 150));
    EXPECT_GE(msSince(start), 140) << "an earlier interrupt ended this pop";
    queue.push(makeMsg(1));
    queue.push(makeMsg(2));
    queue.interruptPop();
    EXPECT_TRUE(queue.tryPop(got));
    EXPECT_EQ(got.wParam, 1u);
    queue.interruptPop();
    EXPECT_TRUE(queue.pop(got, -1));
    EXPECT_EQ(got.wParam, 2u);
}

// Locking wakes a blocked pop, drops later pushes and hides what is held
// until unlocked; reset is refused while locked.
TEST(MessageQueue, ALockedQueueWakesItsPopDropsPushesAndKeepsWhatItHolds) {
    CMessageQueue queue;
    APARTMENT_TMSG msg = kUntouched;
    {
        Background popper([&] { return queue.pop(msg, -1); });
        sleepMs(50);
        queue.lockQueue();
        ASSERT_TRUE(popper.waitDone(5000));
        EXPECT_FALSE(popper.result());
    }
    queue.unlockQueue();
    queue.push(makeMsg(1));
    queue.push(makeMsg(2));
    queue.lockQueue();
    queue.push(makeMsg(3));
    EXPECT_EQ(queue.getQueueSize(), 2u);
    EXPECT_FALSE(queue.tryPop(msg));
    EXPECT_FALSE(queue.pop(msg, 50));
    EXPECT_TRUE(untouched(msg));
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

// ----------------------------------------------------------- timer manager

// A manager the test owns, with a way to move the id counter.
class TestTimerManager : public CApartmentTimerManager {
public:
    void setNextTimerId(unsigned int id) {
        TAutoMutex<OS::TBaseMutex> lock(&m_TimerMapMutex);
        m_uintNextTimerId = id;
    }
};

const unsigned int kNever = 60000;  // a lag no test waits for

// An apartment that does not listen, where the manager posts its firings;
// it can run a hook as each is posted, and one as its last reference goes.
class HookedApartment : public CTcpApartment {
public:
    std::function<void(const APARTMENT_TMSG&)> onPost;
    std::function<void()> onFinal;
    void postMessage(const APARTMENT_TMSG& msg) override {
        if (onPost) onPost(msg);
        CTcpApartment::postMessage(msg);
    }
    void onFinalRelease() override {
        if (onFinal) onFinal();
        CTcpApartment::onFinalRelease();
    }
};

class TimerManagerTest : public ::testing::Test {
protected:
    TimerManagerTest() {
        apartment()->createApartmentNode("n");
        m_node = apartment()->findApartmentNode("n");
    }
    IApartment* apartment() { return m_apartment; }
    // The info holds its own references; the test keeps the first ones.
    APARTMENT_TIMER_INFO info(unsigned int lag, unsigned int interval, bool withNode = true) {
        APARTMENT_TIMER_INFO result{};
        apartment()->addRef();
        result.m_Apartment = apartment();
        if (withNode) result.m_ApartmentNode = m_node;  // a copy: one more
        result.m_uintLagTime = lag;
        result.m_uintInterval = interval;
        return result;
    }
    unsigned int set(unsigned int lag, unsigned int interval, bool withNode = true) {
        APARTMENT_TIMER_INFO i = info(lag, interval, withNode);
        return m_manager->setTimer(i);
    }
    // Pops one firing and releases the node reference it carries, as
    // dispatch does.
    bool nextFiring(APARTMENT_TMSG& msg, int ms) {
        if (!apartment()->getMessage(msg, OS::Clock::deadlineAfter(ms))) return false;
        if (msg.wParam != 0) reinterpret_cast<IApartmentNode*>(msg.wParam)->releaseRef();
        return true;
    }
    ~TimerManagerTest() override {
        m_manager.reset();
        APARTMENT_TMSG msg{};
        while (nextFiring(msg, 0)) {
        }
        EXPECT_EQ(countOf(apartment()), 1u);
        EXPECT_EQ(countOf(m_node), 2u);  // the test's and the apartment's
        m_node = nullptr;
        apartment()->releaseRef();
    }

    HookedApartment* m_apartment = new HookedApartment();
    CReference<IApartmentNode> m_node;
    std::unique_ptr<TestTimerManager> m_manager{new TestTimerManager()};
};

TEST_F(TimerManagerTest, IdsStartAtOneAndTheSearchWrapsSkippingZeroAndRegisteredIds) {
    APARTMENT_TIMER_INFO i = info(kNever, 0);
    const timespec before = OS::Clock::monotonicDeadline(kNever);
    EXPECT_EQ(m_manager->setTimer(i), 1u);
    EXPECT_FALSE(OS::Clock::isEarlier(i.m_tvNextTriggerTime, before)) << "trigger time not filled";
    EXPECT_EQ(set(kNever, 0), 2u);
    ASSERT_TRUE(m_manager->killTimer(2));
    m_manager->setNextTimerId(0xFFFFFFFEu);
    EXPECT_EQ(set(kNever, 0), 0xFFFFFFFEu);
    EXPECT_EQ(set(kNever, 0), 0xFFFFFFFFu);
    EXPECT_EQ(set(kNever, 0), 2u) << "0 and the registered 1 must be skipped, the freed 2 reused";
    EXPECT_EQ(set(kNever, 0), 3u);
}

// A periodic timer fires again only once re-armed; a single shot is never
// re-armed (and stays registered until killed); a killed timer posts
// nothing.
TEST_F(TimerManagerTest, OnlyAReArmedPeriodicTimerFiresAgain) {
    const unsigned int periodic = set(0, 20), single = set(0, 0);
    APARTMENT_TMSG msg{};
    ASSERT_TRUE(nextFiring(msg, 3000));
    ASSERT_TRUE(nextFiring(msg, 3000));
    EXPECT_FALSE(nextFiring(msg, 150)) << "fired again without generateNextTimer";
    EXPECT_FALSE(m_manager->generateNextTimer(single));
    EXPECT_FALSE(m_manager->generateNextTimer(single + 1000));
    EXPECT_TRUE(m_manager->killTimer(single));
    EXPECT_TRUE(m_manager->generateNextTimer(periodic));
    ASSERT_TRUE(nextFiring(msg, 3000));
    EXPECT_EQ(msg.lParam, static_cast<LPARAM>(periodic));
    const unsigned int killed = set(50, 10);
    EXPECT_TRUE(m_manager->killTimer(killed));
    EXPECT_FALSE(m_manager->killTimer(killed));
    EXPECT_FALSE(m_manager->generateNextTimer(killed));
    EXPECT_FALSE(nextFiring(msg, 250));
    APARTMENT_RUNTIME_TIMER stale{killed, {0, 0}};
    EXPECT_FALSE(m_manager->processTimer(stale));
}

TEST_F(TimerManagerTest, ALateReArmFiresOnceAtOnceAndDropsMissedPeriods) {
    const unsigned int kInterval = 300;
    const unsigned int id = set(0, kInterval);
    APARTMENT_TMSG msg{};
    ASSERT_TRUE(nextFiring(msg, 3000));
    sleepMs(3 * kInterval + 100);  // dispatched three periods late
    const Clock::time_point start = Clock::now();
    ASSERT_TRUE(m_manager->generateNextTimer(id));
    ASSERT_TRUE(nextFiring(msg, 3000));
    EXPECT_LT(msSince(start), 250) << "a late re-arm must fire at once";
    // The next period counts from that firing, not from the missed ones.
    ASSERT_TRUE(m_manager->generateNextTimer(id));
    EXPECT_FALSE(nextFiring(msg, 150)) << "missed periods were caught up";
    ASSERT_TRUE(nextFiring(msg, 3000));
}

TEST_F(TimerManagerTest, ReferencesFollowInfosAndMessages) {
    {
        APARTMENT_TIMER_INFO i = info(kNever, 0);
        const unsigned int id = m_manager->setTimer(i);
        EXPECT_EQ(countOf(apartment()), 3u);  // test, local info, registered info
        EXPECT_EQ(countOf(m_node), 4u);       // and the apartment's
        EXPECT_TRUE(m_manager->killTimer(id));
        EXPECT_EQ(countOf(apartment()), 2u);
        EXPECT_EQ(countOf(m_node), 3u);
    }
    // A firing left undispatched keeps one node reference; destroying the
    // manager drops those of the registered infos, promptly although its
    // thread waits for a timer far ahead.
    set(0, 0);
    set(kNever, 10);
    APARTMENT_TMSG msg{};
    ASSERT_TRUE(apartment()->getMessage(msg, deadlineIn(3000)));
    sleepMs(50);
    const Clock::time_point start = Clock::now();
    m_manager.reset();
    EXPECT_LT(msSince(start), 1000);
    EXPECT_EQ(countOf(apartment()), 1u);
    EXPECT_EQ(countOf(m_node), 3u);
    reinterpret_cast<IApartmentNode*>(msg.wParam)->releaseRef();
}

// No timer lock is held while posting or while a killed timer's references
// go: a poster, or an apartment torn down by that release, may call back
// into the manager.
TEST_F(TimerManagerTest, PostingAndReleasingMayCallBackIntoTheManager) {
    std::atomic<int> killed{0};
    TestTimerManager* manager = m_manager.get();
    m_apartment->onPost = [manager, &killed](const APARTMENT_TMSG& msg) {
        if (manager->killTimer(static_cast<unsigned int>(msg.lParam))) ++killed;
    };
    set(0, 10);
    APARTMENT_TMSG msg{};
    ASSERT_TRUE(nextFiring(msg, 3000));
    EXPECT_EQ(killed.load(), 1);

    const unsigned int other = set(kNever, 0);
    HookedApartment* doomed = new HookedApartment();
    bool killedOther = false;
    doomed->onFinal = [manager, other, &killedOther] { killedOther = manager->killTimer(other); };
    APARTMENT_TIMER_INFO i{};
    i.m_Apartment = static_cast<IApartment*>(doomed);  // adopts the only reference
    i.m_uintLagTime = kNever;
    const unsigned int id = m_manager->setTimer(i);
    i.m_Apartment.release();
    EXPECT_TRUE(m_manager->killTimer(id));
    EXPECT_TRUE(killedOther);
}

// ------------------------------------------------------------ message loop

// An apartment that does not listen, so that no thread of its own posts
// anything: every message is one the test put there.
class MessageLoop : public ::testing::Test {
protected:
    void SetUp() override {
        apartment = Registry::manager()->createApartment("tcp://127.0.0.1:7", false);
        ASSERT_FALSE(apartment.nil());
        recorder = addNode(apartment, "node");
        node = apartment->findApartmentNode("node");
    }
    // Dispatches what getMessage returns within `ms`; false when nothing came.
    bool dispatchNext(int& code, long ms = 200) {
        APARTMENT_TMSG msg;
        if (!apartment->getMessage(msg, deadlineIn(ms))) return false;
        code = msg.m_intMsg;
        apartment->dispatchMessage(msg);
        return true;
    }
    std::vector<int> dispatchAll() {
        std::vector<int> codes;
        for (int code = 0; dispatchNext(code, 20);) codes.push_back(code);
        return codes;
    }
    std::vector<unsigned int> requestIds() const {
        std::vector<unsigned int> ids;
        for (const auto& request : recorder->requests()) ids.push_back(request.id);
        return ids;
    }
    // The node, told that it wrote these request ids.
    CApartmentNode* awaiting(std::initializer_list<unsigned int> ids) {
        CApartmentNode* n = static_cast<CApartmentNode*>(node.operator->());
        for (unsigned int id : ids) n->expectResponse(id);
        return n;
    }

    Registry registry;
    CReference<IApartment> apartment;
    CReference<Recorder> recorder;
    CReference<IApartmentNode> node;
};

TEST_F(MessageLoop, TheDispatchLockRefusesOtherThreadsUntilAnyThreadUnlocks) {
    EXPECT_TRUE(apartment->lockDispatchThread());
    EXPECT_FALSE(apartment->lockDispatchThread());  // even for the holder
    unsigned long id = 0;
    EXPECT_TRUE(apartment->lockedDispatchThreadId(id));
    EXPECT_EQ(id, OS::Thread::current());
    post(apartment, requestMessage("node", 1));
    std::thread([&] {
        const Clock::time_point start = Clock::now();
        APARTMENT_TMSG msg;
        EXPECT_FALSE(apartment->getMessage(msg, deadlineIn(2000)));
        EXPECT_LT(msSince(start), 500);  // refused at once, not after the deadline
        EXPECT_EQ(apartment->dispatchMessage(plainMessage(APARTMENT_QUIT)), -1);
        EXPECT_TRUE(apartment->unlockDispatchThread());
    }).join();
    EXPECT_FALSE(apartment->lockedDispatchThreadId(id));
    EXPECT_FALSE(apartment->unlockDispatchThread());
    EXPECT_EQ(dispatchAll(), std::vector<int>{REQUEST_FRAME_ARRIVED});  // it waited untouched
    EXPECT_EQ(requestIds(), std::vector<unsigned int>{1});
}

TEST_F(MessageLoop, StopWakesABlockedReaderAndRefusesEverythingAfter) {
    {
        Background reader([&] {
            APARTMENT_TMSG msg;
            return apartment->getMessage(msg, deadlineIn(5000));
        });
        sleepMs(50);
        EXPECT_TRUE(apartment->stopDispatchMessage());
        ASSERT_TRUE(reader.waitDone(1500));
        EXPECT_FALSE(reader.result());
    }
    // A post after the stop is dropped, and the reference it carries is
    // released then: the test's own is left as the last one.
    APARTMENT_TMSG late = requestMessage("node", 9);
    IApartmentFrame* frame = reinterpret_cast<IApartmentFrame*>(late.wParam);
    frame->addRef();
    post(apartment, late);
    EXPECT_EQ(frame->releaseRef(), 0u);
    APARTMENT_TMSG msg;
    EXPECT_FALSE(apartment->getMessage(msg, deadlineIn(0)));
    EXPECT_EQ(apartment->dispatchMessage(plainMessage(APARTMENT_QUIT)), -1);
    EXPECT_TRUE(recorder->requests().empty());
}

// While re-entry is refused, requests wait in order (also one that was
// already taken and dispatched); responses and others go on. Allowed
// again, the waiting requests come first.
TEST_F(MessageLoop, DeferredRequestsComeBackInOrderBeforeOlderMessages) {
    post(apartment, requestMessage("node", 1, "abc"));
    APARTMENT_TMSG taken;
    ASSERT_TRUE(apartment->getMessage(taken, deadlineIn(200)));
    post(apartment, plainMessage(APARTMENT_QUIT));
    EXPECT_TRUE(apartment->allowReentry(false));
    EXPECT_EQ(apartment->dispatchMessage(taken), 1);  // parked, not run
    post(apartment, responseMessage("node", 50, 0));
    post(apartment, requestMessage("node", 2));
    EXPECT_EQ(dispatchAll(), (std::vector<int>{APARTMENT_QUIT, RESPONSE_FRAME_ARRIVED}));
    EXPECT_TRUE(recorder->requests().empty());
    post(apartment, plainMessage(APARTMENT_QUIT));
    EXPECT_TRUE(apartment->allowReentry(true));
    EXPECT_EQ(dispatchAll(),
              (std::vector<int>{REQUEST_FRAME_ARRIVED, REQUEST_FRAME_ARRIVED, APARTMENT_QUIT}));
    EXPECT_EQ(requestIds(), (std::vector<unsigned int>{1, 2}));
    EXPECT_EQ(recorder->requests()[0].data, "abc");
}

TEST_F(MessageLoop, MalformedAndEmptyFramesAreDroppedAndTheNextOneHandled) {
    std::vector<char> truncated = CApartmentFrameCodec::buildRequestPayload(
        "tcp://127.0.0.1:1", "peer", "tcp://127.0.0.1:2", "node", 5, true, nullptr, 0);
    truncated.resize(truncated.size() / 2);
    for (const APARTMENT_TMSG& msg :
         {frameMessage(REQUEST_FRAME_ARRIVED, APARTMENT_REQUEST_FRAME, truncated),
          frameMessage(RESPONSE_FRAME_ARRIVED, APARTMENT_RESPONSE_FRAME, {}),
          frameMessage(NORMAL_FRAME_ARRIVED, 0, {}), requestMessage("nobody", 4),
          requestMessage("node", 6)})
        EXPECT_EQ(apartment->dispatchMessage(msg), 1);
    EXPECT_EQ(requestIds(), std::vector<unsigned int>{6});
    EXPECT_TRUE(recorder->requests()[0].data.empty());
}

// ------------------------------------------------------------------- nodes

const char kTwelve[] = "twelve bytes";

// A stored response stays until removed (reads with a buffer do not remove
// it at this level); a buffer that is too small changes nothing; the first
// of two responses to one request stays (a second frame is reported once).
TEST_F(MessageLoop, StoredResponsesStayAndTheFirstWins) {
    ASSERT_TRUE(node->addResponse(5, -2, kTwelve, 12));
    int code = 0;
    char buffer[16] = {};
    unsigned int size = 11;
    EXPECT_FALSE(node->getResponse(5, code, buffer, size, 0));
    EXPECT_EQ(size, 11u);
    EXPECT_EQ(code, 0);
    EXPECT_EQ(buffer[0], '\0');
    size = 12;
    EXPECT_TRUE(node->getResponse(5, code, buffer, size, 0));
    EXPECT_EQ(std::string(buffer, size), kTwelve);
    EXPECT_EQ(code, -2);
    EXPECT_FALSE(node->removeResponse(6));
    EXPECT_TRUE(node->removeResponse(5));
    EXPECT_FALSE(node->getResponse(5, code, nullptr, size, 0));
    // A response without bytes still reports the length it was given.
    EXPECT_TRUE(node->addResponse(9, 3, nullptr, 6));
    EXPECT_TRUE(node->getResponse(9, code, nullptr, size, 0));
    EXPECT_EQ(size, 6u);

    awaiting({4});
    EXPECT_EQ(apartment->dispatchMessage(responseMessage("node", 4, 0, "a")), 1);
    testing::internal::CaptureStdout();
    EXPECT_EQ(apartment->dispatchMessage(responseMessage("node", 4, 1, "b")), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[Apartment Warning]: Request 4 already have response.\n");
    size = sizeof buffer;
    ASSERT_TRUE(node->getResponse(4, code, buffer, size, 0));
    EXPECT_EQ(code, 0);
    EXPECT_EQ(std::string(buffer, size), "a");
}

// An answer from a link is kept only while its request is awaited: rows of
// what requesters do, each with whether its answer can still be read.
TEST_F(MessageLoop, OnlyAnswersThatSomeoneWaitsForAreKept) {
    // A node's unread limit is its apartment's, read from the environment.
    node = CReference<IApartmentNode>();
    recorder = CReference<Recorder>();
    apartment = CReference<IApartment>();
    Registry::manager()->removeAllApartments();
    setenv("APARTMENT_UNREAD_RESPONSE_MS", "600", 1);
    SetUp();
    unsetenv("APARTMENT_UNREAD_RESPONSE_MS");
    awaiting({});
    int code = 0;
    unsigned int size = 0;
    char buffer[8];
    auto answer = [&](unsigned int id) {
        apartment->dispatchMessage(responseMessage("node", id, 0, "ok"));
    };
    auto read = [&](unsigned int id, int ms) {
        size = sizeof buffer;
        return node->getResponse(id, code, buffer, size, ms);
    };
    const long past = CApartmentNode::GIVE_UP_GRACE_MS + 100;
    // Never written: dropped at once, one line for the burst.
    testing::internal::CaptureStdout();
    for (unsigned int id : {1, 2, 3}) answer(id);
    const std::string burst = testing::internal::GetCapturedStdout();
    EXPECT_EQ(burst.find("answers no request"), burst.rfind("answers no request")) << burst;
    EXPECT_NE(burst.find("Response 1 to node node"), std::string::npos) << burst;
    EXPECT_FALSE(read(1, 0));
    // Written, answered and read later in any order; once handed out, a
    // second answer is not kept.
    awaiting({10, 11, 12});
    for (unsigned int id : {12, 10, 11}) answer(id);
    for (unsigned int id : {11, 10, 12}) EXPECT_TRUE(read(id, 0)) << id;
    EXPECT_TRUE(node->removeResponse(10));
    answer(10);
    EXPECT_FALSE(read(10, 0));
    // Polled with time-out 0 for longer than the grace: never given up.
    awaiting({20});
    EXPECT_FALSE(read(20, 0));
    sleepMs(past);
    EXPECT_FALSE(read(20, 0));
    answer(20);
    EXPECT_TRUE(read(20, 0));
    // A read made of shorter waits keeps the answer that came between two.
    awaiting({30});
    EXPECT_FALSE(read(30, 20));
    answer(30);
    EXPECT_TRUE(read(30, 20));
    // A null buffer peeks and keeps the answer.
    awaiting({40});
    answer(40);
    EXPECT_TRUE(node->getResponse(40, code, nullptr, size, 0));
    EXPECT_TRUE(read(40, 0));
    // Given up (a timed read ended without it) and answered after the
    // grace: dropped; answered within it but never read: gone after it.
    awaiting({50, 60});
    EXPECT_FALSE(read(50, 20));
    EXPECT_FALSE(read(60, 20));
    answer(60);
    sleepMs(past);
    answer(50);
    EXPECT_FALSE(read(50, 0));
    EXPECT_FALSE(read(60, 0));
    // Awaited, answered and never read: dropped after the unread limit,
    // with a line.
    awaiting({70});
    answer(70);
    sleepMs(700);
    testing::internal::CaptureStdout();
    answer(71);
    const std::string late = testing::internal::GetCapturedStdout();
    EXPECT_NE(late.find("response(s) dropped unread after 600 ms"), std::string::npos) << late;
    EXPECT_FALSE(read(70, 0));
    // Answers handed out leave nothing behind, however fast they come.
    CApartmentNode* const kept = awaiting({});
    const size_t held = kept->bookkept();
    for (unsigned int id = 100; id < 200; ++id) {
        awaiting({id});
        answer(id);
        EXPECT_TRUE(read(id, 0) && node->removeResponse(id)) << id;
    }
    EXPECT_LE(kept->bookkept(), held);
}

// Without a response, a zero time-out fails at once, also while another
// thread holds the dispatch lock (the reader then waits on the node's
// condition instead of pumping).
TEST_F(MessageLoop, AReaderWithAZeroTimeOutFailsAtOnce) {
    int code = 99;
    unsigned int size = 99;
    const Clock::time_point start = Clock::now();
    EXPECT_FALSE(node->getResponse(1, code, nullptr, size, 0));
    std::thread([&] { EXPECT_TRUE(apartment->lockDispatchThread()); }).join();
    EXPECT_FALSE(node->getResponse(1, code, nullptr, size, 0));
    EXPECT_LT(msSince(start), 300);
    EXPECT_EQ(code, 99);
    EXPECT_EQ(size, 99u);
}

// A reader that dispatches pumps until its response arrives, handling the
// traffic ahead of it on its own thread; a message whose dispatch is not
// 1 ends the wait.
TEST_F(MessageLoop, AReaderThatDispatchesPumpsUntilTheResponseArrives) {
    awaiting({31, 32, 33});
    post(apartment, requestMessage("node", 30));
    std::thread producer([&] {
        sleepMs(50);
        post(apartment, responseMessage("node", 31, 0, "ok"));
    });
    int code = -1;
    unsigned int size = 0;
    const Clock::time_point start = Clock::now();
    EXPECT_TRUE(node->getResponse(31, code, nullptr, size, 3000));
    EXPECT_LT(msSince(start), 1500);
    producer.join();
    EXPECT_EQ(size, 2u);
    EXPECT_EQ(requestIds(), std::vector<unsigned int>{30});
    ASSERT_TRUE(apartment->lockDispatchThread());  // the same with the lock its own
    post(apartment, responseMessage("node", 32, 0));
    EXPECT_TRUE(node->getResponse(32, code, nullptr, size, 1000));
    EXPECT_TRUE(apartment->unlockDispatchThread());
    post(apartment, plainMessage(APARTMENT_QUIT));
    post(apartment, responseMessage("node", 33, 0));
    EXPECT_FALSE(node->getResponse(33, code, nullptr, size, 1000));
}

#ifdef APARTMENT_LSAN
// Messages that can no longer be dispatched (a frame arriving, an
// apartment or node timer firing after stopDispatchMessage) are dropped
// with what they carry: nothing leaks.
TEST_F(MessageLoop, MessagesDroppedAfterDispatchStoppedLeakNothing) {
    ASSERT_NE(apartment->setTimer("node", 5, 5), NO_TIMER);
    ASSERT_NE(apartment->setTimer(nullptr, 5, 5), NO_TIMER);
    ASSERT_TRUE(apartment->stopDispatchMessage());
    // Posted from a thread that then ends, as a communication thread posts
    // a frame, so that no stack still holds the pointer when LeakSanitizer
    // looks.
    std::thread([&] { post(apartment, requestMessage("node", 1)); }).join();
    sleepMs(150);  // both timers fire into the stopped queue
    node = nullptr;
    recorder = nullptr;
    apartment = nullptr;
    CApartmentTimerManager::destroyUniqueApartmentTimerManager();
    Registry::manager()->removeAllApartments();
    EXPECT_EQ(__lsan_do_recoverable_leak_check(), 0);
}
#endif

// ---------------------------------------------------------------- registry

// What a URL becomes: the real port of a listening apartment, the default
// address for the scheme alone; refused are other schemes and URLs of more
// than 128 characters.
TEST(ApartmentRegistry, WhatAUrlBecomes) {
    Registry registry;
    testing::internal::CaptureStdout();
    CReference<IApartment> listening = createListening();
    std::string out = testing::internal::GetCapturedStdout();
    ASSERT_FALSE(listening.nil());
    const std::string url = urlOf(listening);
    ASSERT_EQ(url.rfind("tcp://127.0.0.1:", 0), 0u) << url;
    EXPECT_GT(portOf(url), 0);
    EXPECT_NE(out.find("Apartment listen at port(" + url + ").\n"), std::string::npos) << out;
    EXPECT_EQ(listening->apartmentType(), TCP_APARTMENT);

    CReference<IApartment> schemeOnly(Registry::manager()->createApartment("tcp://", false));
    ASSERT_FALSE(schemeOnly.nil());
    EXPECT_EQ(urlOf(schemeOnly), "tcp://0.0.0.0:0");

    std::string longest = "tcp://127.0.0.1:";
    longest.append(128 - longest.size(), '9');
    CReference<IApartment> accepted(Registry::manager()->createApartment(longest.c_str(), false));
    ASSERT_FALSE(accepted.nil());
    EXPECT_EQ(urlOf(accepted), longest);
    testing::internal::CaptureStdout();
    EXPECT_EQ(Registry::manager()->createApartment((longest + "9").c_str(), false), nullptr);
    EXPECT_EQ(Registry::manager()->createApartment("TCP://127.0.0.1:0", false), nullptr);
    EXPECT_EQ(Registry::manager()->createApartment("udp://127.0.0.1:0", false), nullptr);
    EXPECT_EQ(Registry::manager()->createApartment(nullptr, false), nullptr);
    out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out, "Apartment url is too long: " + longest + "9.\n");
    EXPECT_EQ(CApartmentFactory::apartmentType("tcp:/"), INVALID_APARTMENT);
    EXPECT_EQ(CApartmentFactory::apartmentType("tcp://x"), TCP_APARTMENT);
}

// A second apartment under a registered URL is refused by the registry
// itself (no second bind) and leaves the first as it was, still listening;
// a busy port refuses a listening apartment.
TEST(ApartmentRegistry, ADuplicateUrlOrABusyPortLeavesTheFirstApartmentAlone) {
    Registry registry;
    CReference<IApartment> first = createListening();
    ASSERT_FALSE(first.nil());
    const std::string url = urlOf(first);
    const ULONG count = countOf(first);
    EXPECT_EQ(Registry::manager()->createApartment(url.c_str(), false), nullptr);
    testing::internal::CaptureStdout();
    EXPECT_EQ(Registry::manager()->createApartment(url.c_str(), true), nullptr);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(urlOf(first), url);
    EXPECT_EQ(countOf(first), count);
    CReference<IApartment> found(Registry::manager()->findApartment(url.c_str()));
    EXPECT_EQ(static_cast<IApartment*>(found), static_cast<IApartment*>(first));
    CReference<IApartment> other = createListening();
    ASSERT_FALSE(other.nil());
    EXPECT_TRUE(other->connectApartment(url.c_str(), false));
    first->destroyApartment();
    EXPECT_EQ(urlOf(first), "");
    first->destroyApartment();  // nothing left to do
}

TEST(ApartmentRegistry, FindRemoveAndRemoveAll) {
    Registry registry;
    Registry::manager()->removeAllApartments();  // empty: nothing to do
    EXPECT_EQ(Registry::manager()->findApartment("tcp://127.0.0.1:7"), nullptr);
    EXPECT_FALSE(Registry::manager()->removeApartment("tcp://127.0.0.1:7"));
    CReference<IApartment> apartment(Registry::manager()->createApartment("tcp://127.0.0.1:7", false));
    CReference<IApartment> second(Registry::manager()->createApartment("tcp://127.0.0.1:8", false));
    ASSERT_FALSE(apartment.nil() || second.nil());
    const ULONG count = countOf(apartment);
    {
        CReference<IApartment> found(Registry::manager()->findApartment("tcp://127.0.0.1:7"));
        EXPECT_EQ(static_cast<IApartment*>(found), static_cast<IApartment*>(apartment));
        EXPECT_EQ(countOf(apartment), count + 1);
    }
    // Looked up exactly as registered: no normalisation.
    EXPECT_EQ(Registry::manager()->findApartment("tcp://127.0.0.1:07"), nullptr);
    EXPECT_TRUE(Registry::manager()->removeApartment("tcp://127.0.0.1:8"));
    EXPECT_EQ(countOf(second), 1u);
    Registry::manager()->removeAllApartments();
    EXPECT_EQ(Registry::manager()->findApartment("tcp://127.0.0.1:7"), nullptr);
    EXPECT_EQ(countOf(apartment), count - 1);  // only the test's reference is left
}

TEST(ApartmentRegistry, NodesAndTheCallbackByName) {
    Registry registry;
    CReference<IApartment> apartment(Registry::manager()->createApartment("tcp://127.0.0.1:7", false));
    ASSERT_FALSE(apartment.nil());
    EXPECT_TRUE(apartment->createApartmentNode("node"));
    CReference<IApartmentNode> first(apartment->findApartmentNode("node"));
    EXPECT_FALSE(apartment->createApartmentNode("node"));
    CReference<IApartmentNode> again(apartment->findApartmentNode("node"));
    EXPECT_EQ(static_cast<IApartmentNode*>(again), static_cast<IApartmentNode*>(first));
    EXPECT_EQ(apartment->findApartmentNode("other"), nullptr);
    EXPECT_TRUE(apartment->destroyApartmentNode("node"));
    EXPECT_FALSE(apartment->destroyApartmentNode("node"));
    EXPECT_EQ(apartment->findApartmentNode("node"), nullptr);
    CReference<Recorder> callback(new Recorder);
    EXPECT_TRUE(apartment->setCallback(callback->apartment()));
    EXPECT_EQ(countOf(callback->apartment()), 2u);
    EXPECT_TRUE(apartment->setCallback(nullptr));
    EXPECT_EQ(countOf(callback->apartment()), 1u);
    EXPECT_TRUE(apartment->setCallback(nullptr));
}

// Reaches the transport's protected conversions.
class TcpApartmentProbe : public CTcpApartment {
public:
    std::string address(const char* url) {
        std::string out = "unchanged";
        EXPECT_TRUE(getPortAddressFromApartmentUrl(url, out));
        return out;
    }
    std::string url(const char* address) {
        std::string out = "unchanged";
        EXPECT_TRUE(getApartmentUrlFromPortAddress(address, out));
        return out;
    }
};

TEST(ApartmentRegistry, TcpUrlAndAddressConversions) {
    CReference<TcpApartmentProbe> probe(new TcpApartmentProbe());
    for (const auto& [url, address] : {std::pair<const char*, const char*>{nullptr, "0.0.0.0:0"},
                                       {"", "0.0.0.0:0"}, {"tcp://10.1.2.3:4567", "10.1.2.3:4567"},
                                       {"TCP://10.1.2.3:4567", "TCP://10.1.2.3:4567"},
                                       {"10.1.2.3:4567", "10.1.2.3:4567"}, {"tcp://", ""}})
        EXPECT_EQ(probe->address(url), address) << (url != nullptr ? url : "(null)");
    EXPECT_EQ(probe->url(nullptr), "tcp://0.0.0.0:0");
    EXPECT_EQ(probe->url(""), "tcp://0.0.0.0:0");
    EXPECT_EQ(probe->url("10.1.2.3:4567"), "tcp://10.1.2.3:4567");
}

// ------------------------------------------------------------------- links

// Two listening apartments of this process, A and B.
class Connection : public ::testing::Test {
protected:
    void SetUp() override {
        a = createListening();
        b = createListening();
        ASSERT_FALSE(a.nil() || b.nil());
        urlA = urlOf(a);
        urlB = urlOf(b);
    }
    // B dispatches until it has A's link in the given class.
    bool bSeesA(bool bRt, std::vector<int>* pCodes = nullptr) {
        return pumpUntil(b, [&] { return b->hasConnection(urlA.c_str(), bRt); }, 3000, pCodes);
    }

    Registry registry;
    CReference<IApartment> a, b;
    std::string urlA, urlB;
};

// Each class is a link of its own, opened with one connection frame however
// often it is asked for; only a linked class has a local URL.
TEST_F(Connection, EachClassIsItsOwnLink) {
    EXPECT_TRUE(a->connectApartment(urlB.c_str(), false));
    EXPECT_TRUE(a->connectApartment(urlB.c_str(), false));
    EXPECT_FALSE(a->hasConnection(urlB.c_str(), true));
    DWORD length = 0;
    EXPECT_FALSE(a->localApartmentUrl(urlB.c_str(), true, nullptr, length));
    EXPECT_TRUE(a->connectApartment(urlB.c_str(), true));
    EXPECT_TRUE(a->hasConnection(urlB.c_str(), false));
    EXPECT_TRUE(a->hasConnection(urlB.c_str(), true));
    std::vector<int> codes;
    EXPECT_TRUE(bSeesA(false, &codes));
    EXPECT_TRUE(bSeesA(true, &codes));
    for (int c : pumpFor(b, 300)) codes.push_back(c);
    EXPECT_EQ(countCode(codes, ADD_APARTMENT_CONNECTION), 2u);
    std::string local;
    EXPECT_TRUE(CApartmentHelper::localApartmentUrl(a, urlB.c_str(), true, local));
    EXPECT_EQ(local, urlA);
    EXPECT_TRUE(a->disconnectApartment(urlB.c_str(), true));
    EXPECT_FALSE(a->disconnectApartment(urlB.c_str(), true));
    EXPECT_TRUE(a->hasConnection(urlB.c_str(), false));  // the other link stays
    EXPECT_FALSE(a->connectApartment(nullptr, true));
}

TEST_F(Connection, AnUnreachablePeerIsNoConnection) {
    const std::string url = urlOf(freePort());
    testing::internal::CaptureStdout();
    const Clock::time_point start = Clock::now();
    EXPECT_FALSE(a->connectApartment(url.c_str(), false));
    EXPECT_LT(msSince(start), 1500);
    testing::internal::GetCapturedStdout();
    EXPECT_FALSE(a->hasConnection(url.c_str(), false));
    EXPECT_FALSE(a->connectApartment("tcp://not-an-address", false));
    EXPECT_FALSE(a->disconnectApartment(url.c_str(), false));
}

// A link to the own URL is the loopback pair: it serves both classes, an
// apartment linked only to itself reads it, a second link to itself is
// dropped at once and leaves the first working, and disconnecting either
// class ends it.
TEST_F(Connection, ALinkToItselfIsTheLoopbackPair) {
    CReference<Recorder> recorder = addNode(a, "node");
    testing::internal::CaptureStdout();
    EXPECT_TRUE(a->connectApartment(urlA.c_str(), false));
    std::vector<int> codes;
    pumpUntil(a, [&] { return countCode(codes, ADD_APARTMENT_CONNECTION) == 1; }, 3000, &codes);
    std::string out = testing::internal::GetCapturedStdout();
    for (const char* end : {"client", "server"})
        EXPECT_NE(out.find(std::string("Detected ") + end + " loopback interface changed(" + urlA +
                           "---->" + urlA + ").\n"),
                  std::string::npos)
            << out;
    EXPECT_TRUE(a->hasConnection(urlA.c_str(), false));
    EXPECT_TRUE(a->hasConnection(urlA.c_str(), true));
    std::string local;
    EXPECT_TRUE(CApartmentHelper::localApartmentUrl(a, urlA.c_str(), true, local));
    EXPECT_EQ(local, urlA);
    testing::internal::CaptureStdout();
    EXPECT_TRUE(a->connectApartment(urlA.c_str(), false));  // dropped at once
    pumpUntil(a, [&] { return countCode(codes, ADD_APARTMENT_CONNECTION) == 2; }, 3000, &codes);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");

    char data[] = "hello";
    unsigned int id = 0;
    ASSERT_TRUE(a->writeRequestFrame("src", urlA.c_str(), "node", data, 5, false, id, true));
    EXPECT_TRUE(pumpUntil(a, [&] { return recorder->requestCount() == 1; }, 3000, &codes));
    EXPECT_EQ(countCode(codes, LOOPDATA_FRAME_ARRIVED), 1u);
    ASSERT_EQ(recorder->requestCount(), 1u);
    EXPECT_EQ(recorder->requests()[0].id, id);
    EXPECT_EQ(recorder->requests()[0].data, "hello");
    EXPECT_EQ(recorder->requests()[0].srcApartment, urlA);

    EXPECT_TRUE(a->disconnectApartment(urlA.c_str(), true));
    EXPECT_FALSE(a->hasConnection(urlA.c_str(), false));
    EXPECT_FALSE(a->disconnectApartment(urlA.c_str(), false));
}

// A real-time link to itself is read by the non-real-time thread: frames on
// it must not share the real-time thread's receive buffer while that thread
// reads a real-time link of another apartment.
TEST_F(Connection, RealTimeLoopbackAndRealTimePeerAtOnce) {
    std::atomic<unsigned int> own{0}, peer{0}, corrupt{0};
    class RawCounter : public TRootStub<IApartmentCallback> {
    public:
        explicit RawCounter(std::function<void(unsigned int, const char*, unsigned int)> fn)
            : m_fn(std::move(fn)) {}
        void onTimer(unsigned int) override {}
        void onApartmentOffline(const char*) override {}
        void onRawFrameReceived(unsigned int type, const void* data, unsigned int size) override {
            m_fn(type, static_cast<const char*>(data), size);
        }
        std::function<void(unsigned int, const char*, unsigned int)> m_fn;
    };
    CReference<RawCounter> counter(new RawCounter([&](unsigned int type, const char* data,
                                                      unsigned int size) {
        sleepMs(1);  // linger, so that the two communication threads overlap
        const std::string expected(2000, type == 7 ? 'r' : 'l');
        if (size < 2000 || std::string(data + size - 2000, 2000) != expected) ++corrupt;
        ++(type == 7 ? peer : own);
    }));
    a->setCallback(counter);
    ASSERT_TRUE(a->connectApartment(urlA.c_str(), true));
    ASSERT_TRUE(b->connectApartment(urlA.c_str(), true));
    std::vector<int> codes;
    ASSERT_TRUE(pumpUntil(a, [&] { return countCode(codes, ADD_APARTMENT_CONNECTION) == 2; }, 3000,
                          &codes));
    ASSERT_TRUE(a->hasConnection(urlB.c_str(), true));
    sleepMs(150);  // the non-real-time thread picks the new server end up
    std::thread writer([&] {
        std::vector<char> raw(2000, 'r');
        for (int i = 0; i < 40; ++i) b->writeRawFrame(urlA.c_str(), 7, raw.data(), 2000, true);
    });
    std::vector<char> data(2000, 'l');
    for (int i = 0; i < 40; ++i) {
        unsigned int id = 0;
        a->writeRequestFrame("src", urlA.c_str(), "node", data.data(), 2000, true, id, false);
    }
    writer.join();
    EXPECT_TRUE(pumpUntil(a, [&] { return own == 40u && peer == 40u; }));
    EXPECT_EQ(corrupt.load(), 0u);
}

// A thread that waits for its response reads it off the link itself: the
// frame it waits for costs no wake-up of another thread, also after a
// stream that the communication thread read. The request is answered late
// enough that the asker is already waiting on the link.
TEST_F(Connection, AResponseAwaitedOnTheLinkIsReadByTheWaitingThread) {
    CReference<Recorder> server = addNode(b, "node");
    std::thread::id answeredOn;
    server->onRequest([&](const Recorder::Request& r) {
        answeredOn = std::this_thread::get_id();
        sleepMs(50);
        char ok[] = "ok";
        b->writeResponseFrame("node", r.srcApartment.c_str(), r.srcNode.c_str(), r.id, 0, ok, 2,
                              false);
    });
    CReference<Recorder> asker = addNode(a, "src");
    CReference<IApartmentNode> node(a->findApartmentNode("src"));
    ASSERT_TRUE(a->connectApartment(urlB.c_str(), false));
    ASSERT_TRUE(bSeesA(false));
    char data[] = "hello";
    for (int i = 0; i < 300; ++i) {
        unsigned int notification = 0;
        ASSERT_TRUE(b->writeRequestFrame("node", urlA.c_str(), "src", data, 5, false, notification,
                                         false));
    }
    ASSERT_TRUE(pumpUntil(a, [&] { return asker->requestCount() == 300; }, 5000));
    pumpUntil(a, [] { return false; }, 250);  // quiet: the stream has ended
    std::thread::id pumping;
    std::thread responder([&] {
        pumping = std::this_thread::get_id();
        pumpUntil(b, [&] { return server->requestCount() == 1; }, 5000);
    });
    CTcpApartment* tcp = dynamic_cast<CTcpApartment*>(a.operator->());
    ASSERT_NE(tcp, nullptr);
    const unsigned long long before = tcp->messagesReadByPump();
    unsigned int id = 0;
    ASSERT_TRUE(a->writeRequestFrame("src", urlB.c_str(), "node", data, 5, false, id, true));
    int code = -1;
    unsigned int size = 0;
    EXPECT_TRUE(node->getResponse(id, code, nullptr, size, 5000));
    responder.join();
    EXPECT_EQ(size, 2u);
    EXPECT_EQ(answeredOn, pumping);
    EXPECT_GT(tcp->messagesReadByPump(), before);
}

// A pump that led the links hands them back while it runs a callback: a
// peer's write larger than the sockets hold completes during a long
// callback, instead of stalling until its link is condemned.
TEST_F(Connection, LinksAreReadWhileThePumpRunsALongCallback) {
    CReference<Recorder> node = addNode(a, "node");
    std::atomic<bool> busy{false};
    node->onRequest([&](const Recorder::Request& r) {
        if (r.data != "wait") return;
        busy = true;
        sleepMs(600);
    });
    addNode(b, "src");
    ASSERT_TRUE(b->connectApartment(urlA.c_str(), false));
    ASSERT_TRUE(pumpUntil(a, [&] { return a->hasConnection(urlB.c_str(), false); }));
    bool written = false;
    std::thread writer([&] {
        for (int i = 0; i < 600 && !busy; ++i) sleepMs(5);
        sleepMs(50);  // the pump is well into its callback
        std::string big(24u << 20, 'x');
        unsigned int id = 0;
        written = b->writeRequestFrame("src", urlA.c_str(), "node", &big[0],
                                       static_cast<unsigned int>(big.size()), false, id, false);
    });
    char wait[] = "wait";
    unsigned int id = 0;
    ASSERT_TRUE(b->writeRequestFrame("src", urlA.c_str(), "node", wait, 4, false, id, false));
    EXPECT_TRUE(pumpUntil(a, [&] { return node->requestCount() == 2; }, 5000));
    writer.join();
    EXPECT_TRUE(written);
}

// A node may drop itself (or another node) when it hears that a peer went
// away: the notice round must survive the node map changing under it.
TEST_F(Connection, NodesMayBeDestroyedFromAnOfflineNotice) {
    CReference<Recorder> first = addNode(a, "first"), second = addNode(a, "second");
    CReference<Recorder> third = addNode(a, "third");
    first->onOfflineHeard([&](const std::string&) {
        a->destroyApartmentNode("first");
        a->createApartmentNode("zreplacement");  // may reuse the memory just freed
    });
    second->onOfflineHeard([&](const std::string&) { a->destroyApartmentNode("third"); });
    ASSERT_TRUE(a->connectApartment(urlB.c_str(), false));
    ASSERT_TRUE(bSeesA(false));
    EXPECT_TRUE(b->disconnectApartment(urlA.c_str(), false));
    EXPECT_TRUE(pumpUntil(a, [&] { return !a->hasConnection(urlB.c_str(), false); }));
    EXPECT_EQ(first->offline(), std::vector<std::string>{urlB});
    EXPECT_EQ(second->offline(), std::vector<std::string>{urlB});
    EXPECT_TRUE(CReference<IApartmentNode>(a->findApartmentNode("first")).nil());
    EXPECT_TRUE(CReference<IApartmentNode>(a->findApartmentNode("third")).nil());
    EXPECT_FALSE(CReference<IApartmentNode>(a->findApartmentNode("zreplacement")).nil());
}

// A peer that closes its link and at once connects again under the same
// URL is served on the new link, whichever of the old link's close and the
// new link's filing this side handles first; twenty times in a row, every
// other time once this side has dropped the old link. Either way the new
// link is read at once: filing it wakes the communication thread, which
// then polls the old link or idles without any, instead of letting it
// finish its 100 ms pass.
TEST_F(Connection, APeerReconnectingAfterDisconnectIsServed) {
    CReference<Recorder> recorder = addNode(a, "node");
    ASSERT_TRUE(b->connectApartment(urlA.c_str(), false));
    ASSERT_TRUE(pumpUntil(a, [&] { return a->hasConnection(urlB.c_str(), false); }));
    long long servingMs[2] = {0, 0};  // [1]: after the old link was dropped
    for (size_t cycle = 1; cycle <= 20; ++cycle) {
        const bool dropped = cycle % 2 == 0;
        EXPECT_TRUE(b->disconnectApartment(urlA.c_str(), false));
        if (dropped) {
            ASSERT_TRUE(pumpUntil(a, [&] { return !a->hasConnection(urlB.c_str(), false); }));
        }
        unsigned int id = 0;
        ASSERT_TRUE(b->writeRequestFrame("src", urlA.c_str(), "node", nullptr, 0, false, id, true));
        const long long start = nowMs();
        ASSERT_TRUE(pumpUntil(a, [&] { return recorder->requestCount() == cycle; })) << cycle;
        servingMs[dropped] += nowMs() - start;
        pumpFor(a, 100);  // the old link's close, if it comes after the new link
        ASSERT_TRUE(a->hasConnection(urlB.c_str(), false)) << cycle;
    }
    EXPECT_LT(servingMs[0], 300);
    EXPECT_LT(servingMs[1], 300);
}

// An empty frame (here a second connection frame) is posted once and
// ignored; the request behind it is handled.
TEST_F(Connection, AnEmptyFrameIsPostedOnceAndTheNextFrameHandled) {
    CReference<Recorder> recorder = addNode(a, "node");
    CReference<IApartmentSink> client(new CTcpClientSink());
    ASSERT_TRUE(client->initSink(nullptr, urlA.substr(6).c_str()));
    char block[APARTMENT_CONNECTION_BLOCK_SIZE];
    CApartmentFrameCodec::buildConnectionBlock(false, "tcp://127.0.0.1:1", block);
    ASSERT_TRUE(client->sendFrame(APARTMENT_CONNECTION_FRAME, block, sizeof block));
    ASSERT_TRUE(client->sendFrame(APARTMENT_CONNECTION_FRAME, nullptr, 0));
    const std::vector<char> request = CApartmentFrameCodec::buildRequestPayload(
        "tcp://127.0.0.1:1", "peer", urlA.c_str(), "node", 77, false, nullptr, 0);
    ASSERT_TRUE(client->sendFrame(APARTMENT_REQUEST_FRAME, request.data(),
                                  static_cast<unsigned int>(request.size())));
    std::vector<int> codes;
    EXPECT_TRUE(pumpUntil(a, [&] { return recorder->requestCount() == 1; }, 3000, &codes));
    for (int c : pumpFor(a, 250)) codes.push_back(c);
    EXPECT_EQ(countCode(codes, NORMAL_FRAME_ARRIVED), 1u);
    ASSERT_EQ(recorder->requestCount(), 1u);
    EXPECT_EQ(recorder->requests()[0].id, 77u);
    EXPECT_FALSE(recorder->requests()[0].needsAnswer);
}

// Host threads open, use and drop links while both apartments dispatch and
// their threads read: nothing may race or hang (run under ThreadSanitizer).
// Delivery is not asserted: a link dropped by this side loses what was in
// flight on it.
TEST_F(Connection, LinksChurnWhileBothSidesDispatch) {
    CReference<Recorder> recorder = addNode(b, "node");
    std::atomic<bool> churned{false}, stop{false};
    std::thread churn([&] {
        char data[] = "churn";
        for (int i = 0; i < 30; ++i) {
            unsigned int id = 0;
            a->writeRequestFrame("src", urlB.c_str(), "node", data, 5, false, id, false);
            a->hasConnection(urlB.c_str(), false);
            if (i % 3 == 2) a->disconnectApartment(urlB.c_str(), false);
        }
        churned = true;
    });
    std::thread pumpA([&] {
        while (!stop) pumpUntil(a, [] { return false; }, 10);
    });
    EXPECT_TRUE(pumpUntil(b, [&] { return churned.load(); }, 5000));
    churn.join();
    pumpFor(b, 100);
    stop = true;
    pumpA.join();
}

// Stopping apartments with links, timers and frames left unread in their
// queues and sockets is quick and releases everything.
TEST_F(Connection, StoppingWithLiveLinksIsQuickAndReleasesEverything) {
    CReference<Recorder> na = addNode(a, "node"), nb = addNode(b, "node");
    ASSERT_TRUE(a->connectApartment(urlB.c_str(), false));
    ASSERT_TRUE(a->connectApartment(urlB.c_str(), true));
    ASSERT_TRUE(a->connectApartment(urlA.c_str(), false));
    ASSERT_TRUE(b->connectApartment(urlB.c_str(), false));
    ASSERT_NE(a->setTimer("node", 1000, 1000), NO_TIMER);
    ASSERT_NE(a->setTimer(nullptr, 1000, 1000), NO_TIMER);
    ASSERT_TRUE(bSeesA(false));
    ASSERT_TRUE(bSeesA(true));
    unsigned int id = 0;
    char data[] = "pending";
    EXPECT_TRUE(a->writeRequestFrame("src", urlB.c_str(), "node", data, 7, false, id, true));
    EXPECT_TRUE(a->writeRequestFrame("src", urlA.c_str(), "node", data, 7, false, id, true));
    pumpFor(a, 50);
    const Clock::time_point start = Clock::now();
    a = nullptr;
    b = nullptr;
    CApartmentTimerManager::destroyUniqueApartmentTimerManager();
    Registry::manager()->removeAllApartments();
    EXPECT_LT(msSince(start), 1500);
}

}  // namespace
