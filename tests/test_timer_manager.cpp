#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <set>
#include <thread>

#include "ApartmentTimerManager.h"
#include "GroundKit/OS/OS_Clock.h"
#include "fake_apartment.h"

namespace {

using Clock = std::chrono::steady_clock;

long msSince(Clock::time_point start) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

// A manager the test owns, with a way to move the id counter.
class TestTimerManager : public CApartmentTimerManager {
public:
    TestTimerManager() = default;
    void setNextTimerId(unsigned int uintNextTimerId) {
        TAutoMutex<OS::TBaseMutex> lock(&m_TimerMapMutex);
        m_uintNextTimerId = uintNextTimerId;
    }
};

const unsigned int kNever = 60000;  // a lag no test waits for

class TimerManagerTest : public ::testing::Test {
protected:
    TimerManagerTest()
        : m_apartment(new FakeApartment()), m_node(new FakeNode()), m_manager(new TestTimerManager()) {}

    // The info holds its own references; the test keeps the first ones.
    APARTMENT_TIMER_INFO info(unsigned int lag, unsigned int interval, bool withNode = true) {
        APARTMENT_TIMER_INFO result{};
        m_apartment->addRef();
        result.m_Apartment = static_cast<IApartment*>(m_apartment);
        if (withNode) {
            m_node->addRef();
            result.m_ApartmentNode = static_cast<IApartmentNode*>(m_node);
        }
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
    bool nextFiring(APARTMENT_TMSG& msg, int timeoutMs) {
        if (!m_apartment->posted().pop(msg, timeoutMs)) return false;
        if (msg.wParam != 0) reinterpret_cast<IApartmentNode*>(msg.wParam)->releaseRef();
        return true;
    }

    ~TimerManagerTest() override {
        m_manager.reset();
        APARTMENT_TMSG msg{};
        while (nextFiring(msg, 0)) {
        }
        EXPECT_EQ(m_apartment->refCount(), 1u);
        EXPECT_EQ(m_node->refCount(), 1u);
        m_apartment->releaseRef();
        m_node->releaseRef();
    }

    FakeApartment* m_apartment;
    FakeNode* m_node;
    std::unique_ptr<TestTimerManager> m_manager;
};

TEST_F(TimerManagerTest, IdsStartAtOneAndGrowByOne) {
    APARTMENT_TIMER_INFO i = info(kNever, 0);
    const timespec before = OS::Clock::monotonicDeadline(kNever);
    EXPECT_EQ(m_manager->setTimer(i), 1u);
    EXPECT_FALSE(OS::Clock::isEarlier(i.m_tvNextTriggerTime, before)) << "trigger time not filled";
    EXPECT_EQ(set(kNever, 0), 2u);
    EXPECT_EQ(set(kNever, 10), 3u);
}

TEST_F(TimerManagerTest, IdSearchWrapsAndSkipsZeroAndRegisteredIds) {
    ASSERT_EQ(set(kNever, 0), 1u);
    ASSERT_EQ(set(kNever, 0), 2u);
    ASSERT_TRUE(m_manager->killTimer(2));
    m_manager->setNextTimerId(0xFFFFFFFEu);
    EXPECT_EQ(set(kNever, 0), 0xFFFFFFFEu);
    EXPECT_EQ(set(kNever, 0), 0xFFFFFFFFu);
    EXPECT_EQ(set(kNever, 0), 2u) << "0 and the registered 1 must be skipped, the freed 2 reused";
    EXPECT_EQ(set(kNever, 0), 3u);
}

TEST_F(TimerManagerTest, ZeroLagFiresAtOnceWithNodeAndId) {
    const auto start = Clock::now();
    const unsigned int id = set(0, 0);
    APARTMENT_TMSG msg{};
    ASSERT_TRUE(m_apartment->posted().pop(msg, 3000));
    EXPECT_LT(msSince(start), 1000);
    EXPECT_EQ(msg.m_intMsg, APARTMENT_TIMER);
    EXPECT_EQ(msg.wParam, reinterpret_cast<WPARAM>(static_cast<IApartmentNode*>(m_node)));
    EXPECT_EQ(msg.lParam, static_cast<LPARAM>(id));
    reinterpret_cast<IApartmentNode*>(msg.wParam)->releaseRef();
}

TEST_F(TimerManagerTest, ApartmentTimerPostsANullNode) {
    const unsigned int id = set(0, 0, false);
    APARTMENT_TMSG msg{};
    ASSERT_TRUE(nextFiring(msg, 3000));
    EXPECT_EQ(msg.wParam, 0u);
    EXPECT_EQ(msg.lParam, static_cast<LPARAM>(id));
}

TEST_F(TimerManagerTest, KilledTimerPostsNothing) {
    const unsigned int id = set(50, 10);
    EXPECT_TRUE(m_manager->killTimer(id));
    EXPECT_FALSE(m_manager->killTimer(id));
    EXPECT_FALSE(m_manager->generateNextTimer(id));
    APARTMENT_TMSG msg{};
    EXPECT_FALSE(nextFiring(msg, 250));
    APARTMENT_RUNTIME_TIMER stale{id, {0, 0}};
    EXPECT_FALSE(m_manager->processTimer(stale));
}

TEST_F(TimerManagerTest, PeriodicTimerWaitsForRearm) {
    const unsigned int id = set(0, 20);
    APARTMENT_TMSG msg{};
    ASSERT_TRUE(nextFiring(msg, 3000));
    EXPECT_FALSE(nextFiring(msg, 150)) << "fired again without generateNextTimer";
    EXPECT_TRUE(m_manager->generateNextTimer(id));
    ASSERT_TRUE(nextFiring(msg, 3000));
    EXPECT_EQ(msg.lParam, static_cast<LPARAM>(id));
}

TEST_F(TimerManagerTest, SingleShotIsNotRearmed) {
    const unsigned int id = set(0, 0);
    APARTMENT_TMSG msg{};
    ASSERT_TRUE(nextFiring(msg, 3000));
    EXPECT_FALSE(m_manager->generateNextTimer(id));
    EXPECT_FALSE(m_manager->generateNextTimer(id + 1000));
    EXPECT_FALSE(nextFiring(msg, 100));
    EXPECT_TRUE(m_manager->killTimer(id)) << "a finished single shot stays registered until killed";
}

TEST_F(TimerManagerTest, LateRearmFiresOnceAtOnceAndDropsMissedPeriods) {
    const unsigned int kInterval = 300;
    const unsigned int id = set(0, kInterval);
    APARTMENT_TMSG msg{};
    ASSERT_TRUE(nextFiring(msg, 3000));
    // Dispatched three periods late.
    std::this_thread::sleep_for(std::chrono::milliseconds(3 * kInterval + 100));
    auto start = Clock::now();
    ASSERT_TRUE(m_manager->generateNextTimer(id));
    ASSERT_TRUE(nextFiring(msg, 3000));
    EXPECT_LT(msSince(start), 250) << "a late re-arm must fire at once";
    // The next period counts from that firing, not from the missed ones.
    ASSERT_TRUE(m_manager->generateNextTimer(id));
    EXPECT_FALSE(nextFiring(msg, 150)) << "missed periods were caught up";
    ASSERT_TRUE(nextFiring(msg, 3000));
}

TEST_F(TimerManagerTest, TimersDueTogetherBothFire) {
    const unsigned int a = set(0, 0);
    const unsigned int b = set(0, 0);
    std::set<LPARAM> fired;
    APARTMENT_TMSG msg{};
    while (fired.size() < 2 && nextFiring(msg, 3000)) fired.insert(msg.lParam);
    EXPECT_EQ(fired, (std::set<LPARAM>{static_cast<LPARAM>(a), static_cast<LPARAM>(b)}));
}

TEST_F(TimerManagerTest, ReferencesFollowInfosAndMessages) {
    {
        APARTMENT_TIMER_INFO i = info(kNever, 0);
        const unsigned int id = m_manager->setTimer(i);
        EXPECT_EQ(m_apartment->refCount(), 3u);  // test, local info, registered info
        EXPECT_EQ(m_node->refCount(), 3u);
        EXPECT_TRUE(m_manager->killTimer(id));
        EXPECT_EQ(m_apartment->refCount(), 2u);
        EXPECT_EQ(m_node->refCount(), 2u);
    }
    // A firing left undispatched keeps one node reference; destroying the
    // manager drops those of the registered infos.
    set(0, 0);
    set(kNever, 10);
    APARTMENT_TMSG msg{};
    ASSERT_TRUE(m_apartment->posted().pop(msg, 3000));
    m_manager.reset();
    EXPECT_EQ(m_apartment->refCount(), 1u);
    EXPECT_EQ(m_node->refCount(), 2u);
    reinterpret_cast<IApartmentNode*>(msg.wParam)->releaseRef();
}

// The timer thread posts with no timer lock held: a poster that calls back
// into the manager must not deadlock.
TEST_F(TimerManagerTest, PostingMayCallBackIntoTheManager) {
    std::atomic<int> killed{0};
    TestTimerManager* manager = m_manager.get();
    m_apartment->onPost([manager, &killed](const APARTMENT_TMSG& msg) {
        if (manager->killTimer(static_cast<unsigned int>(msg.lParam))) ++killed;
    });
    set(0, 10);
    APARTMENT_TMSG msg{};
    ASSERT_TRUE(nextFiring(msg, 3000));
    EXPECT_EQ(killed.load(), 1);
    m_manager.reset();
    m_apartment->onPost(nullptr);
}

// killTimer drops the references of the timer after unlocking: an
// apartment torn down by that may kill its other timers.
TEST_F(TimerManagerTest, ReleaseOnKillMayCallBackIntoTheManager) {
    const unsigned int other = set(kNever, 0);
    FakeApartment* doomed = new FakeApartment();
    TestTimerManager* manager = m_manager.get();
    bool killedOther = false;
    doomed->onFinal([manager, other, &killedOther] { killedOther = manager->killTimer(other); });
    APARTMENT_TIMER_INFO i{};
    i.m_Apartment = static_cast<IApartment*>(doomed);  // adopts the only reference
    i.m_uintLagTime = kNever;
    const unsigned int id = m_manager->setTimer(i);
    i.m_Apartment.release();
    EXPECT_TRUE(m_manager->killTimer(id));
    EXPECT_TRUE(killedOther);
}

TEST_F(TimerManagerTest, ExpiredTimerComparesWithNow) {
    APARTMENT_RUNTIME_TIMER past{1, {0, 0}};
    APARTMENT_RUNTIME_TIMER future{2, OS::Clock::monotonicDeadline(kNever)};
    EXPECT_TRUE(m_manager->expiredTimer(past));
    EXPECT_FALSE(m_manager->expiredTimer(future));
    CApartmentTimerManager::_early_timer later;
    EXPECT_TRUE(later(future, past));
    EXPECT_FALSE(later(past, future));
    EXPECT_FALSE(later(past, past));
}

TEST_F(TimerManagerTest, DestructionWithPendingTimersIsPrompt) {
    set(kNever, 0);
    set(kNever, 100);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // thread in its timed wait
    const auto start = Clock::now();
    m_manager.reset();
    EXPECT_LT(msSince(start), 1000);
}

TEST_F(TimerManagerTest, DestructionWithAnEmptyHeapIsPrompt) {
    set(0, 0);
    APARTMENT_TMSG msg{};
    ASSERT_TRUE(nextFiring(msg, 3000));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // thread in its untimed wait
    const auto start = Clock::now();
    m_manager.reset();
    EXPECT_LT(msSince(start), 1000);
}

TEST(TimerManagerSingleton, CreateOnceDestroyClears) {
    EXPECT_EQ(CApartmentTimerManager::getUniqueApartmentTimerManager(), nullptr);
    CApartmentTimerManager::createUniqueApartmentTimerManager();
    CApartmentTimerManager* first = CApartmentTimerManager::getUniqueApartmentTimerManager();
    ASSERT_NE(first, nullptr);
    CApartmentTimerManager::createUniqueApartmentTimerManager();
    EXPECT_EQ(CApartmentTimerManager::getUniqueApartmentTimerManager(), first);
    CApartmentTimerManager::destroyUniqueApartmentTimerManager();
    EXPECT_EQ(CApartmentTimerManager::getUniqueApartmentTimerManager(), nullptr);
    CApartmentTimerManager::destroyUniqueApartmentTimerManager();
}

}  // namespace
