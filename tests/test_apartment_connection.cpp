// Connections between two apartments of this process, and to itself: the
// two link classes, the loopback pair, a peer that goes away, many links at
// once, and stopping an apartment in the middle of it all.
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>
#include <string>

#include "ApartmentSink.h"
#include "TcpApartmentSink.h"
#include "apartment_test_util.h"

using namespace aptest;

namespace {

size_t countCode(const std::vector<int>& codes, int code) {
    size_t n = 0;
    for (int c : codes) n += c == code ? 1 : 0;
    return n;
}

class Connection : public testing::Test {
protected:
    void SetUp() override {
        a = createListening();
        b = createListening();
        ASSERT_FALSE(a.nil());
        ASSERT_FALSE(b.nil());
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

TEST_F(Connection, EachClassIsItsOwnLink) {
    EXPECT_TRUE(a->connectApartment(urlB.c_str(), false));
    EXPECT_FALSE(a->hasConnection(urlB.c_str(), true));
    EXPECT_TRUE(a->connectApartment(urlB.c_str(), true));
    EXPECT_TRUE(a->hasConnection(urlB.c_str(), false));
    EXPECT_TRUE(a->hasConnection(urlB.c_str(), true));

    std::vector<int> codes;
    EXPECT_TRUE(bSeesA(false, &codes));
    EXPECT_TRUE(bSeesA(true, &codes));
    EXPECT_EQ(countCode(codes, ADD_APARTMENT_CONNECTION), 2u);

    std::string local;
    EXPECT_TRUE(CApartmentHelper::localApartmentUrl(a, urlB.c_str(), true, local));
    EXPECT_EQ(local, urlA);
    EXPECT_TRUE(a->disconnectApartment(urlB.c_str(), true));
    EXPECT_FALSE(a->disconnectApartment(urlB.c_str(), true));
    EXPECT_TRUE(a->hasConnection(urlB.c_str(), false));  // the other link stays
}

TEST_F(Connection, ConnectingTwiceSendsOneConnectionFrame) {
    EXPECT_TRUE(a->connectApartment(urlB.c_str(), false));
    EXPECT_TRUE(a->connectApartment(urlB.c_str(), false));
    std::vector<int> codes;
    EXPECT_TRUE(bSeesA(false, &codes));
    for (int c : pumpFor(b, 300)) codes.push_back(c);
    EXPECT_EQ(countCode(codes, ADD_APARTMENT_CONNECTION), 1u);
}

TEST_F(Connection, OnlyTheConnectedClassHasALocalUrl) {
    EXPECT_TRUE(a->connectApartment(urlB.c_str(), true));
    DWORD len = 0;
    EXPECT_FALSE(a->localApartmentUrl(urlB.c_str(), false, nullptr, len));
    EXPECT_TRUE(a->localApartmentUrl(urlB.c_str(), true, nullptr, len));
    EXPECT_EQ(len, urlA.size() + 1);
    EXPECT_FALSE(a->localApartmentUrl("tcp://127.0.0.1:1", true, nullptr, len));
    EXPECT_FALSE(a->connectApartment(nullptr, true));
}

TEST_F(Connection, UnreachablePeerIsNoConnection) {
    // A port that nobody listens on: learn a free one, then let it go.
    CReference<IApartmentSink> probe(new CTcpListenSink());
    ASSERT_TRUE(probe->initSink("127.0.0.1:0", nullptr));
    std::string address;
    CApartmentSinkHelper::getLocalAddress(probe, address);
    probe = nullptr;
    const std::string url = "tcp://" + address;

    testing::internal::CaptureStdout();
    const Clock::time_point start = Clock::now();
    EXPECT_FALSE(a->connectApartment(url.c_str(), false));
    EXPECT_LT(msSince(start), 1500);
    testing::internal::GetCapturedStdout();
    EXPECT_FALSE(a->hasConnection(url.c_str(), false));
    EXPECT_FALSE(a->connectApartment("tcp://not-an-address", false));
    EXPECT_FALSE(a->disconnectApartment(url.c_str(), false));
}

TEST_F(Connection, LinkToItselfIsTheLoopbackPair) {
    testing::internal::CaptureStdout();
    EXPECT_TRUE(a->connectApartment(urlA.c_str(), false));
    std::vector<int> codes;
    pumpUntil(a, [&] { return countCode(codes, ADD_APARTMENT_CONNECTION) == 1; }, 3000, &codes);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("Detected client loopback interface changed(" + urlA + "---->" + urlA +
                       ").\n"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("Detected server loopback interface changed(" + urlA + "---->" + urlA +
                       ").\n"),
              std::string::npos)
        << out;
    EXPECT_TRUE(a->hasConnection(urlA.c_str(), false));
    EXPECT_TRUE(a->hasConnection(urlA.c_str(), true));
    std::string local;
    EXPECT_TRUE(CApartmentHelper::localApartmentUrl(a, urlA.c_str(), true, local));
    EXPECT_EQ(local, urlA);

    EXPECT_TRUE(a->disconnectApartment(urlA.c_str(), true));
    EXPECT_FALSE(a->hasConnection(urlA.c_str(), false));
    EXPECT_FALSE(a->disconnectApartment(urlA.c_str(), false));
}

TEST_F(Connection, ApartmentLinkedOnlyToItselfReadsItsLoopback) {
    CReference<RecordingNodeCallback> recorder = addRecordingNode(a, "node");
    ASSERT_TRUE(a->connectApartment(urlA.c_str(), false));
    std::vector<int> codes;
    ASSERT_TRUE(pumpUntil(
        a, [&] { return countCode(codes, ADD_APARTMENT_CONNECTION) == 1; }, 3000, &codes));

    char data[] = "hello";
    unsigned int id = 0;
    ASSERT_TRUE(a->writeRequestFrame("src", urlA.c_str(), "node", data, 5, false, id, true));
    EXPECT_TRUE(pumpUntil(a, [&] { return !recorder->requests().empty(); }, 3000, &codes));
    EXPECT_EQ(countCode(codes, LOOPDATA_FRAME_ARRIVED), 1u);
    ASSERT_EQ(recorder->requests().size(), 1u);
    EXPECT_EQ(recorder->requests()[0].m_uintRequestId, id);
    EXPECT_EQ(recorder->requests()[0].m_strData, "hello");
    EXPECT_EQ(recorder->requests()[0].m_strSourceApartmentUrl, urlA);
}

TEST_F(Connection, SecondLinkToItselfLeavesTheFirstPairWorking) {
    CReference<RecordingNodeCallback> recorder = addRecordingNode(a, "node");
    ASSERT_TRUE(a->connectApartment(urlA.c_str(), false));
    std::vector<int> codes;
    ASSERT_TRUE(pumpUntil(
        a, [&] { return countCode(codes, ADD_APARTMENT_CONNECTION) == 1; }, 3000, &codes));
    testing::internal::CaptureStdout();
    EXPECT_TRUE(a->connectApartment(urlA.c_str(), false));  // dropped at once
    pumpUntil(a, [&] { return countCode(codes, ADD_APARTMENT_CONNECTION) == 2; }, 3000, &codes);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(countCode(codes, ADD_APARTMENT_CONNECTION), 2u);

    unsigned int id = 0;
    ASSERT_TRUE(a->writeRequestFrame("src", urlA.c_str(), "node", nullptr, 0, false, id, true));
    EXPECT_TRUE(pumpUntil(a, [&] { return !recorder->requests().empty(); }));
    EXPECT_TRUE(a->hasConnection(urlA.c_str(), false));
}

class RawCounter : public TRootStub<IApartmentCallback> {
public:
    void onTimer(unsigned int) override {}
    void onApartmentOffline(const char*) override {}
    // Real-time frames of type 7 are all 'r'; the others end in 2000 'l'.
    void onRawFrameReceived(unsigned int uintFrameType, const void* pBuffer,
                            unsigned int uintBufLen) override {
        // Linger, so that the two communication threads overlap.
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        const char* bytes = static_cast<const char*>(pBuffer);
        const char fill = uintFrameType == 7 ? 'r' : 'l';
        bool intact = uintBufLen >= 2000;
        for (unsigned int i = uintBufLen - 2000; intact && i < uintBufLen; ++i)
            intact = bytes[i] == fill;
        if (!intact) ++m_uintCorrupt;
        (uintFrameType == 7 ? m_uintRaw : m_uintOther)++;
    }
    std::atomic<unsigned int> m_uintRaw{0};
    std::atomic<unsigned int> m_uintOther{0};
    std::atomic<unsigned int> m_uintCorrupt{0};
};

// A real-time link to itself is read by the non-real-time thread: frames on
// it must not share the real-time thread's receive buffer while that thread
// reads a real-time link of another apartment.
TEST_F(Connection, RealTimeLoopbackAndRealTimePeerAtOnce) {
    CReference<RawCounter> counter(new RawCounter());
    a->setCallback(counter);
    ASSERT_TRUE(a->connectApartment(urlA.c_str(), true));
    ASSERT_TRUE(b->connectApartment(urlA.c_str(), true));
    std::vector<int> codes;
    ASSERT_TRUE(pumpUntil(
        a, [&] { return countCode(codes, ADD_APARTMENT_CONNECTION) == 2; }, 3000, &codes));
    ASSERT_TRUE(a->hasConnection(urlB.c_str(), true));
    // The non-real-time thread picks the new server end up on its next pass.
    std::this_thread::sleep_for(std::chrono::milliseconds(150));

    const unsigned int kFrames = 40;
    std::thread peer([&] {
        std::vector<char> raw(2000, 'r');
        for (unsigned int i = 0; i < kFrames; ++i)
            b->writeRawFrame(urlA.c_str(), 7, raw.data(), static_cast<unsigned int>(raw.size()), true);
    });
    std::vector<char> data(2000, 'l');
    for (unsigned int i = 0; i < kFrames; ++i) {
        unsigned int id = 0;
        a->writeRequestFrame("src", urlA.c_str(), "node", data.data(),
                             static_cast<unsigned int>(data.size()), true, id, false);
    }
    peer.join();
    EXPECT_TRUE(pumpUntil(a, [&] {
        return counter->m_uintRaw == kFrames && counter->m_uintOther == kFrames;
    }));
    EXPECT_EQ(counter->m_uintCorrupt, 0u);
}

TEST_F(Connection, PeerThatDisconnectsIsReportedToEveryNode) {
    CReference<RecordingNodeCallback> first = addRecordingNode(a, "first");
    CReference<RecordingNodeCallback> second = addRecordingNode(a, "second");
    ASSERT_TRUE(a->connectApartment(urlB.c_str(), false));
    ASSERT_TRUE(bSeesA(false));
    EXPECT_TRUE(b->disconnectApartment(urlA.c_str(), false));

    std::vector<int> codes;
    EXPECT_TRUE(pumpUntil(a, [&] { return !a->hasConnection(urlB.c_str(), false); }, 3000, &codes));
    EXPECT_EQ(countCode(codes, APARTMENT_CONNECTION_CLOSED), 1u);
    EXPECT_EQ(first->offline(), std::vector<std::string>{urlB});
    EXPECT_EQ(second->offline(), std::vector<std::string>{urlB});
}

// A node may drop itself (or another node) when it hears that a peer went
// away: the notice round must survive the node map changing under it.
TEST_F(Connection, NodesMayBeDestroyedFromAnOfflineNotice) {
    CReference<RecordingNodeCallback> first = addRecordingNode(a, "first");
    CReference<RecordingNodeCallback> second = addRecordingNode(a, "second");
    CReference<RecordingNodeCallback> third = addRecordingNode(a, "third");
    first->onOffline([&](const std::string&) {
        a->destroyApartmentNode("first");
        a->createApartmentNode("zreplacement");  // may reuse the memory just freed
    });
    second->onOffline([&](const std::string&) { a->destroyApartmentNode("third"); });
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

TEST_F(Connection, PeerThatStopsIsReportedOnBothLinks) {
    CReference<RecordingNodeCallback> recorder = addRecordingNode(a, "node");
    ASSERT_TRUE(a->connectApartment(urlB.c_str(), false));
    ASSERT_TRUE(a->connectApartment(urlB.c_str(), true));
    ASSERT_TRUE(bSeesA(false));
    ASSERT_TRUE(bSeesA(true));
    EXPECT_TRUE(Registry::manager()->removeApartment(urlB.c_str()));
    b = nullptr;  // the last reference: B stops and closes its ends

    EXPECT_TRUE(pumpUntil(a, [&] {
        return !a->hasConnection(urlB.c_str(), false) && !a->hasConnection(urlB.c_str(), true);
    }));
    EXPECT_EQ(recorder->offline(), (std::vector<std::string>{urlB, urlB}));
}

// A peer that closes its link and at once connects again under the same
// URL is served on the new link, whichever of the old link's close and the
// new link's filing this side handles first; twenty times in a row.
TEST_F(Connection, PeerReconnectingAfterDisconnectIsServed) {
    CReference<RecordingNodeCallback> recorder = addRecordingNode(a, "node");
    ASSERT_TRUE(b->connectApartment(urlA.c_str(), false));
    ASSERT_TRUE(pumpUntil(a, [&] { return a->hasConnection(urlB.c_str(), false); }));
    for (size_t cycle = 1; cycle <= 20; ++cycle) {
        EXPECT_TRUE(b->disconnectApartment(urlA.c_str(), false));
        unsigned int id = 0;
        ASSERT_TRUE(b->writeRequestFrame("src", urlA.c_str(), "node", nullptr, 0, false, id, true));
        ASSERT_TRUE(pumpUntil(a, [&] { return recorder->requests().size() == cycle; }))
            << "cycle " << cycle;
        pumpFor(a, 100);  // the old link's close, if it comes after the new link
        ASSERT_TRUE(a->hasConnection(urlB.c_str(), false)) << "cycle " << cycle;
    }
    EXPECT_TRUE(b->hasConnection(urlA.c_str(), false));
}

// An empty frame (here a second connection frame) is posted once and
// ignored; the request behind it is handled.
TEST_F(Connection, EmptyFrameIsPostedOnceAndTheNextFrameHandled) {
    CReference<RecordingNodeCallback> recorder = addRecordingNode(a, "node");
    CReference<IApartmentSink> client(new CTcpClientSink());
    ASSERT_TRUE(client->initSink(nullptr, urlA.substr(std::string("tcp://").size()).c_str()));
    char block[APARTMENT_CONNECTION_BLOCK_SIZE];
    CApartmentFrameCodec::buildConnectionBlock(false, "tcp://127.0.0.1:1", block);
    ASSERT_TRUE(client->sendFrame(APARTMENT_CONNECTION_FRAME, block,
                                  static_cast<unsigned int>(sizeof block)));
    ASSERT_TRUE(client->sendFrame(APARTMENT_CONNECTION_FRAME, nullptr, 0));
    const std::vector<char> request = CApartmentFrameCodec::buildRequestPayload(
        "tcp://127.0.0.1:1", "peer", urlA.c_str(), "node", 77, false, nullptr, 0);
    ASSERT_TRUE(client->sendFrame(APARTMENT_REQUEST_FRAME, request.data(),
                                  static_cast<unsigned int>(request.size())));

    std::vector<int> codes;
    EXPECT_TRUE(pumpUntil(a, [&] { return !recorder->requests().empty(); }, 3000, &codes));
    for (int c : pumpFor(a, 250)) codes.push_back(c);
    EXPECT_EQ(countCode(codes, NORMAL_FRAME_ARRIVED), 1u);
    ASSERT_EQ(recorder->requests().size(), 1u);
    EXPECT_EQ(recorder->requests()[0].m_uintRequestId, 77u);
    EXPECT_FALSE(recorder->requests()[0].m_bRequireResponse);
}

// Host threads open, use and drop links while both apartments dispatch and
// their threads read: nothing may race or hang (run under ThreadSanitizer).
// Delivery is not asserted: a link dropped by this side loses what was in
// flight on it.
TEST_F(Connection, LinksChurnWhileBothSidesDispatch) {
    addRecordingNode(b, "node");
    std::atomic<bool> churned{false};
    std::atomic<bool> stop{false};
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
        while (!stop) {
            APARTMENT_TMSG msg;
            if (a->getMessage(msg, OS::Clock::monotonicDeadline(10))) a->dispatchMessage(msg);
        }
    });
    EXPECT_TRUE(pumpUntil(b, [&] { return churned.load(); }, 5000));
    churn.join();
    pumpFor(b, 100);
    stop = true;
    pumpA.join();
}

// 65 links of the non-real-time class: the communication thread serves
// them in two batches, and each link's request reaches the node. The
// clients connect one after the other: the listen backlog is 5, and a
// connection attempt dropped on a full backlog is retried by TCP only after
// the client's one-second connect time-out.
TEST_F(Connection, SixtyFiveLinksAreAllServed) {
    const unsigned int kLinks = 65;
    CReference<RecordingNodeCallback> recorder = addRecordingNode(a, "node");
    std::string address = urlA.substr(std::string("tcp://").size());
    std::vector<CReference<IApartmentSink>> clients;
    std::vector<int> codes;
    for (unsigned int i = 0; i < kLinks; ++i) {
        CReference<IApartmentSink> client(new CTcpClientSink());
        ASSERT_TRUE(client->initSink(nullptr, address.c_str())) << i;
        // Each client stands for an apartment of its own URL.
        const std::string url = "tcp://127.0.0.1:" + std::to_string(20000 + i);
        char block[APARTMENT_CONNECTION_BLOCK_SIZE];
        CApartmentFrameCodec::buildConnectionBlock(false, url.c_str(), block);
        ASSERT_TRUE(client->sendFrame(APARTMENT_CONNECTION_FRAME, block,
                                      static_cast<unsigned int>(sizeof block)));
        const std::vector<char> request = CApartmentFrameCodec::buildRequestPayload(
            url, "peer", urlA.c_str(), "node", i, true, "x", 1);
        ASSERT_TRUE(client->sendFrame(APARTMENT_REQUEST_FRAME, request.data(),
                                      static_cast<unsigned int>(request.size())));
        clients.push_back(client);
        ASSERT_TRUE(pumpUntil(
            a, [&] { return countCode(codes, ADD_APARTMENT_CONNECTION) == i + 1; }, 3000, &codes));
    }
    EXPECT_TRUE(pumpUntil(a, [&] { return recorder->requests().size() >= kLinks; }, 10000));
    std::set<unsigned int> ids;
    for (const auto& request : recorder->requests()) ids.insert(request.m_uintRequestId);
    EXPECT_EQ(ids.size(), kLinks);
    EXPECT_EQ(*ids.rbegin(), kLinks - 1);
}

TEST_F(Connection, StoppingWithLiveLinksIsQuickAndReleasesEverything) {
    addRecordingNode(a, "node");
    addRecordingNode(b, "node");
    ASSERT_TRUE(a->connectApartment(urlB.c_str(), false));
    ASSERT_TRUE(a->connectApartment(urlB.c_str(), true));
    ASSERT_TRUE(a->connectApartment(urlA.c_str(), false));
    ASSERT_TRUE(b->connectApartment(urlB.c_str(), false));
    ASSERT_NE(a->setTimer("node", 1000, 1000), 0xFFFFFFFFu);
    ASSERT_NE(a->setTimer(nullptr, 1000, 1000), 0xFFFFFFFFu);
    ASSERT_TRUE(bSeesA(false));
    ASSERT_TRUE(bSeesA(true));
    unsigned int id = 0;
    char data[] = "pending";
    // Left unread in the queues and sockets.
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
