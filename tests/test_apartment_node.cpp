// Nodes: stored responses and the size protocol of reading them, waiting
// for a response with and without another thread dispatching, and the
// node's timers.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "apartment_test_util.h"

using namespace aptest;

namespace {

const char kTwelve[] = "twelve bytes";  // 12 characters

ULONG countOf(IBase* pObject) {
    const ULONG count = pObject->addRef();
    pObject->releaseRef();
    return count - 1;
}

class ApartmentNodeTest : public testing::Test {
protected:
    void SetUp() override {
        apartment = Registry::manager()->createApartment("tcp://127.0.0.1:7", false);
        ASSERT_FALSE(apartment.nil());
        recorder = addRecordingNode(apartment, "node");
        node = apartment->findApartmentNode("node");
        ASSERT_FALSE(node.nil());
    }

    Registry registry;
    CReference<IApartment> apartment;
    CReference<RecordingNodeCallback> recorder;
    CReference<IApartmentNode> node;
};

TEST_F(ApartmentNodeTest, ZeroTimeoutWithoutResponseFailsAtOnce) {
    int code = 99;
    unsigned int size = 99;
    const Clock::time_point start = Clock::now();
    EXPECT_FALSE(node->getResponse(1, code, nullptr, size, 0));
    // Also when another thread holds the dispatch lock (the reader waits on
    // the node's condition instead of pumping).
    std::thread locker([&] { EXPECT_TRUE(apartment->lockDispatchThread()); });
    locker.join();
    EXPECT_FALSE(node->getResponse(1, code, nullptr, size, 0));
    EXPECT_LT(msSince(start), 300);
    EXPECT_EQ(code, 99);
    EXPECT_EQ(size, 99u);
}

TEST_F(ApartmentNodeTest, SizeProtocolKeepsTheEntryUntilRemoved) {
    ASSERT_TRUE(node->addResponse(5, -2, kTwelve, 12));
    int code = 0;
    unsigned int size = 0;
    EXPECT_TRUE(node->getResponse(5, code, nullptr, size, 0));  // a query
    EXPECT_EQ(code, -2);
    EXPECT_EQ(size, 12u);

    char buffer[16] = {};
    code = 0;
    size = 4;
    EXPECT_FALSE(node->getResponse(5, code, buffer, size, 0));  // too small
    EXPECT_EQ(size, 4u);
    EXPECT_EQ(code, 0);
    EXPECT_EQ(buffer[0], '\0');

    size = 12;
    EXPECT_TRUE(node->getResponse(5, code, buffer, size, 0));
    EXPECT_EQ(std::string(buffer, size), kTwelve);
    EXPECT_EQ(code, -2);

    EXPECT_FALSE(node->removeResponse(6));
    EXPECT_TRUE(node->removeResponse(5));
    EXPECT_FALSE(node->removeResponse(5));
    EXPECT_FALSE(node->getResponse(5, code, nullptr, size, 0));
}

TEST_F(ApartmentNodeTest, DuplicateResponseKeepsTheFirst) {
    EXPECT_TRUE(node->addResponse(8, 0, "first", 5));
    EXPECT_FALSE(node->addResponse(8, 1, "second!", 7));
    char buffer[8] = {};
    int code = -1;
    unsigned int size = sizeof buffer;
    ASSERT_TRUE(node->getResponse(8, code, buffer, size, 0));
    EXPECT_EQ(std::string(buffer, size), "first");
    EXPECT_EQ(code, 0);

    // A response without bytes still reports the length it was given.
    EXPECT_TRUE(node->addResponse(9, 3, nullptr, 6));
    size = 0;
    EXPECT_TRUE(node->getResponse(9, code, nullptr, size, 0));
    EXPECT_EQ(size, 6u);
}

TEST_F(ApartmentNodeTest, DuplicateResponseFrameIsReportedOnce) {
    EXPECT_EQ(apartment->dispatchMessage(responseMessage("node", 4, 0, "a")), 1);
    testing::internal::CaptureStdout();
    EXPECT_EQ(apartment->dispatchMessage(responseMessage("node", 4, 1, "b")), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[Apartment Warning]: Request 4 already have response.\n");
    char data[2] = {};
    int code = -1;
    unsigned int size = sizeof data;
    ASSERT_TRUE(node->getResponse(4, code, data, size, 0));
    EXPECT_EQ(code, 0);
    EXPECT_EQ(std::string(data, size), "a");
}

TEST_F(ApartmentNodeTest, ReaderWaitsForTheLockedDispatcherToStoreTheResponse) {
    ASSERT_TRUE(apartment->lockDispatchThread());
    std::atomic<bool> done{false};
    std::atomic<bool> ok{false};
    std::atomic<long> tookMs{-1};
    std::thread reader([&] {
        const Clock::time_point start = Clock::now();
        char buffer[4] = {};
        int code = 0;
        unsigned int size = sizeof buffer;
        ok = node->getResponse(21, code, buffer, size, 3000) && size == 3 && code == 7;
        tookMs = msSince(start);
        done = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(done);  // waiting, not pumping: nothing is queued anyway
    post(apartment, responseMessage("node", 21, 7, "xyz"));
    EXPECT_TRUE(pumpUntil(apartment, [&] { return done.load(); }, 2000));
    reader.join();
    EXPECT_TRUE(ok);
    EXPECT_LT(tookMs, 1500);
    EXPECT_TRUE(apartment->unlockDispatchThread());
}

TEST_F(ApartmentNodeTest, ReaderThatDispatchesPumpsUntilTheResponseArrives) {
    // Traffic ahead of the response is dispatched meanwhile, on this thread.
    post(apartment, requestMessage("node", 30));
    std::thread producer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        post(apartment, responseMessage("node", 31, 0, "ok"));
    });
    int code = -1;
    unsigned int size = 0;
    const Clock::time_point start = Clock::now();
    EXPECT_TRUE(node->getResponse(31, code, nullptr, size, 3000));
    EXPECT_LT(msSince(start), 1500);
    producer.join();
    EXPECT_EQ(size, 2u);
    ASSERT_EQ(recorder->requests().size(), 1u);
    EXPECT_EQ(recorder->requests()[0].m_uintRequestId, 30u);

    // The same when the dispatch lock is this thread's own.
    ASSERT_TRUE(apartment->lockDispatchThread());
    post(apartment, responseMessage("node", 32, 0));
    EXPECT_TRUE(node->getResponse(32, code, nullptr, size, 1000));
    EXPECT_TRUE(apartment->unlockDispatchThread());

    // A message whose dispatch is not 1 ends the wait.
    post(apartment, plainMessage(APARTMENT_QUIT));
    post(apartment, responseMessage("node", 33, 0));
    EXPECT_FALSE(node->getResponse(33, code, nullptr, size, 1000));
}

TEST_F(ApartmentNodeTest, OneShotTimerFiresOnceAndLeavesTheManager) {
    const ULONG nodeCount = countOf(node);
    const unsigned int id = node->setSingleTimer(10);
    ASSERT_NE(id, 0xFFFFFFFFu);
    EXPECT_EQ(countOf(node), nodeCount + 1);  // held by the pending timer
    EXPECT_TRUE(pumpUntil(apartment, [&] { return !recorder->timers().empty(); }, 2000));
    pumpFor(apartment, 60);
    EXPECT_EQ(recorder->timers(), std::vector<unsigned int>{id});
    // The node killed it after it fired: the manager no longer knows it.
    EXPECT_FALSE(CApartmentTimerManager::getUniqueApartmentTimerManager()->killTimer(id));
    EXPECT_EQ(countOf(node), nodeCount);
}

TEST_F(ApartmentNodeTest, PeriodicTimerFiresUntilKilled) {
    const unsigned int id = apartment->setTimer("node", 5, 10);
    ASSERT_NE(id, 0xFFFFFFFFu);
    EXPECT_TRUE(pumpUntil(apartment, [&] { return recorder->timers().size() >= 3; }, 2000));
    EXPECT_TRUE(apartment->killTimer("node", id));
    EXPECT_FALSE(apartment->killTimer("node", id));
    pumpFor(apartment, 30);  // a firing already queued may still come
    const size_t fired = recorder->timers().size();
    pumpFor(apartment, 60);
    EXPECT_EQ(recorder->timers().size(), fired);
    EXPECT_EQ(apartment->setTimer("nobody", 5, 10), 0xFFFFFFFFu);
}

TEST(ApartmentNodeWithoutTimerManager, SetTimerReturnsNoTimer) {
    Registry registry(false);
    CReference<IApartment> apartment(
        Registry::manager()->createApartment("tcp://127.0.0.1:7", false));
    ASSERT_FALSE(apartment.nil());
    ASSERT_TRUE(apartment->createApartmentNode("node"));
    CReference<IApartmentNode> node(apartment->findApartmentNode("node"));
    const ULONG count = countOf(node);
    EXPECT_EQ(node->setTimer(10, 10), 0xFFFFFFFFu);
    EXPECT_EQ(node->setSingleTimer(10), 0xFFFFFFFFu);
    EXPECT_EQ(apartment->setSingleTimer("node", 10), 0xFFFFFFFFu);
    EXPECT_EQ(apartment->setTimer(nullptr, 10, 10), 0xFFFFFFFFu);
    EXPECT_FALSE(node->killTimer(1));
    EXPECT_EQ(countOf(node), count);
    EXPECT_EQ(countOf(apartment), 2u);  // the registry and this test: no timer holds it
}

}  // namespace
