// The apartment's message loop: the dispatch gate, the one-way stop and
// re-entry control. The apartment here does not listen, so no thread of its
// own posts anything: every message is one the test put there.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "GroundKit/OS/OS_Thread.h"
#include "apartment_test_util.h"

using namespace aptest;

namespace {

class MessageLoop : public testing::Test {
protected:
    void SetUp() override {
        apartment = Registry::manager()->createApartment("tcp://127.0.0.1:7", false);
        ASSERT_FALSE(apartment.nil());
        recorder = addRecordingNode(apartment, "node");
    }
    // Dispatches what getMessage returns within `ms`; false when nothing came.
    bool dispatchNext(int& code, long ms = 200) {
        APARTMENT_TMSG msg;
        if (!apartment->getMessage(msg, OS::Clock::monotonicDeadline(ms))) return false;
        code = msg.m_intMsg;
        apartment->dispatchMessage(msg);
        return true;
    }
    std::vector<unsigned int> requestIds() const {
        std::vector<unsigned int> ids;
        for (const auto& request : recorder->requests()) ids.push_back(request.m_uintRequestId);
        return ids;
    }

    Registry registry;
    CReference<IApartment> apartment;
    CReference<RecordingNodeCallback> recorder;
};

TEST_F(MessageLoop, DispatchLockRefusesOtherThreadsUntilAnyThreadUnlocks) {
    EXPECT_TRUE(apartment->lockDispatchThread());
    EXPECT_FALSE(apartment->lockDispatchThread());  // even for the holder
    unsigned long id = 0;
    EXPECT_TRUE(apartment->lockedDispatchThreadId(id));
    EXPECT_EQ(id, OS::Thread::current());
    post(apartment, requestMessage("node", 1));

    std::atomic<bool> got{true};
    std::atomic<int> dispatched{0};
    std::atomic<long> tookMs{-1};
    std::thread other([&] {
        const Clock::time_point start = Clock::now();
        APARTMENT_TMSG msg;
        got = apartment->getMessage(msg, OS::Clock::monotonicDeadline(2000));
        tookMs = msSince(start);
        dispatched = apartment->dispatchMessage(plainMessage(APARTMENT_QUIT));
        EXPECT_TRUE(apartment->unlockDispatchThread());  // any thread may unlock
    });
    other.join();
    EXPECT_FALSE(got);
    EXPECT_LT(tookMs, 500);  // refused at once, not after the deadline
    EXPECT_EQ(dispatched, -1);
    EXPECT_FALSE(apartment->lockedDispatchThreadId(id));
    EXPECT_FALSE(apartment->unlockDispatchThread());

    int code = 0;
    ASSERT_TRUE(dispatchNext(code));  // the message waited untouched
    EXPECT_EQ(code, REQUEST_FRAME_ARRIVED);
    EXPECT_EQ(requestIds(), std::vector<unsigned int>{1});
}

TEST_F(MessageLoop, StopWakesABlockedReaderAndRefusesEverythingAfter) {
    std::atomic<bool> got{true};
    std::atomic<long> tookMs{-1};
    std::thread reader([&] {
        const Clock::time_point start = Clock::now();
        APARTMENT_TMSG msg;
        got = apartment->getMessage(msg, OS::Clock::monotonicDeadline(5000));
        tookMs = msSince(start);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_TRUE(apartment->stopDispatchMessage());
    reader.join();
    EXPECT_FALSE(got);
    EXPECT_LT(tookMs, 1500);

    // A post after the stop is dropped, and the reference it carries is
    // released then: the test's own is left as the last one.
    APARTMENT_TMSG late = requestMessage("node", 9);
    IApartmentFrame* frame = reinterpret_cast<IApartmentFrame*>(late.wParam);
    frame->addRef();
    post(apartment, late);
    EXPECT_EQ(frame->releaseRef(), 0u);

    APARTMENT_TMSG msg;
    EXPECT_FALSE(apartment->getMessage(msg, OS::Clock::monotonicDeadline(0)));
    EXPECT_EQ(apartment->dispatchMessage(plainMessage(APARTMENT_QUIT)), -1);
    EXPECT_TRUE(apartment->stopDispatchMessage());
    EXPECT_TRUE(recorder->requests().empty());
}

TEST_F(MessageLoop, DeferredRequestsComeBackInOrderBeforeOlderMessages) {
    post(apartment, plainMessage(APARTMENT_QUIT));  // older, in the main queue
    EXPECT_TRUE(apartment->allowReentry(false));
    post(apartment, requestMessage("node", 1));
    post(apartment, responseMessage("node", 50, 0));  // responses are never deferred
    post(apartment, requestMessage("node", 2));

    std::vector<int> codes;
    int code = 0;
    while (dispatchNext(code, 20)) codes.push_back(code);
    EXPECT_EQ(codes, (std::vector<int>{APARTMENT_QUIT, RESPONSE_FRAME_ARRIVED}));
    EXPECT_TRUE(recorder->requests().empty());

    post(apartment, plainMessage(APARTMENT_QUIT));
    EXPECT_TRUE(apartment->allowReentry(true));
    codes.clear();
    while (dispatchNext(code, 20)) codes.push_back(code);
    EXPECT_EQ(codes,
              (std::vector<int>{REQUEST_FRAME_ARRIVED, REQUEST_FRAME_ARRIVED, APARTMENT_QUIT}));
    EXPECT_EQ(requestIds(), (std::vector<unsigned int>{1, 2}));
}

TEST_F(MessageLoop, RequestDispatchedWhileReentryIsOffRunsLater) {
    post(apartment, requestMessage("node", 7, "abc"));
    APARTMENT_TMSG msg;
    ASSERT_TRUE(apartment->getMessage(msg, OS::Clock::monotonicDeadline(200)));
    EXPECT_TRUE(apartment->allowReentry(false));
    EXPECT_EQ(apartment->dispatchMessage(msg), 1);  // parked, not run
    EXPECT_TRUE(recorder->requests().empty());
    int code = 0;
    EXPECT_FALSE(dispatchNext(code, 20));

    EXPECT_TRUE(apartment->allowReentry(true));
    ASSERT_TRUE(dispatchNext(code));
    EXPECT_EQ(code, REQUEST_FRAME_ARRIVED);
    ASSERT_EQ(recorder->requests().size(), 1u);
    EXPECT_EQ(recorder->requests()[0].m_uintRequestId, 7u);
    EXPECT_EQ(recorder->requests()[0].m_strData, "abc");
}

// A handler that waits for a response pumps the queue itself; with re-entry
// off, a second request waits until the handler has returned.
TEST_F(MessageLoop, HandlerWaitingForAResponseIsNotReentered) {
    std::vector<unsigned int> seenInside;
    bool answered = false;
    recorder->onRequest([&](const RecordingNodeCallback::Request& request) {
        if (request.m_uintRequestId != 1) return;
        apartment->allowReentry(false);
        CReference<IApartmentNode> node(apartment->findApartmentNode("node"));
        int code = -1;
        unsigned int size = 0;
        answered = node->getResponse(100, code, nullptr, size, 2000);
        for (const auto& r : recorder->requests()) seenInside.push_back(r.m_uintRequestId);
        apartment->allowReentry(true);
    });
    post(apartment, requestMessage("node", 1));
    post(apartment, requestMessage("node", 2));
    post(apartment, responseMessage("node", 100, 0));
    int code = 0;
    ASSERT_TRUE(dispatchNext(code));
    EXPECT_TRUE(answered);
    EXPECT_EQ(seenInside, std::vector<unsigned int>{1});  // request 2 was held back
    ASSERT_TRUE(dispatchNext(code));
    EXPECT_EQ(code, REQUEST_FRAME_ARRIVED);
    EXPECT_EQ(requestIds(), (std::vector<unsigned int>{1, 2}));
}

TEST_F(MessageLoop, DispatchResultsByCode) {
    EXPECT_EQ(apartment->dispatchMessage(plainMessage(APARTMENT_QUIT)), 0);
    EXPECT_EQ(apartment->dispatchMessage(plainMessage(0)), -1);
    EXPECT_EQ(apartment->dispatchMessage(plainMessage(10)), -1);
    EXPECT_EQ(apartment->dispatchMessage(requestMessage("node", 3)), 1);
    EXPECT_EQ(apartment->dispatchMessage(requestMessage("nobody", 4)), 1);  // dropped silently
    EXPECT_EQ(requestIds(), std::vector<unsigned int>{3});
}

TEST_F(MessageLoop, MalformedAndEmptyFramesAreDroppedAndTheNextOneHandled) {
    std::vector<char> truncated = CApartmentFrameCodec::buildRequestPayload(
        "tcp://127.0.0.1:1", "peer", "tcp://127.0.0.1:2", "node", 5, true, nullptr, 0);
    truncated.resize(truncated.size() / 2);
    EXPECT_EQ(apartment->dispatchMessage(
                  frameMessage(REQUEST_FRAME_ARRIVED, APARTMENT_REQUEST_FRAME, truncated)),
              1);
    EXPECT_EQ(apartment->dispatchMessage(
                  frameMessage(RESPONSE_FRAME_ARRIVED, APARTMENT_RESPONSE_FRAME, {})),
              1);
    EXPECT_EQ(apartment->dispatchMessage(frameMessage(NORMAL_FRAME_ARRIVED, 0, {})), 1);
    EXPECT_EQ(apartment->dispatchMessage(requestMessage("node", 6)), 1);
    EXPECT_EQ(requestIds(), std::vector<unsigned int>{6});
    EXPECT_TRUE(recorder->requests()[0].m_strData.empty());
}

}  // namespace
