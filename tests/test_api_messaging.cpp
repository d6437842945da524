// End to end through the C interface: requests, responses, notifications
// and raw frames between this process's apartment and a peer process, and
// between two nodes of this apartment through its own URL.
#include <algorithm>
#include <atomic>

#include "api_test_support.h"

using namespace apitest;

namespace {

class Messaging : public ApiTest {
protected:
    void SetUp() override {
        ApiTest::SetUp();
        ASSERT_TRUE(apartment_node_create(nullptr, "me"));
    }
};

TEST_F(Messaging, RequestsCarryDataOfEverySizeAndNumberFromOne) {
    Peer peer;
    ASSERT_TRUE(peer.start());
    // 1016 and 1017 sit on either side of a 1 KiB frame with its header.
    const size_t sizes[] = {0, 1, 1016, 1017, 1 << 20};
    unsigned int expectedId = 1;
    for (size_t size : sizes) {
        SCOPED_TRACE(size);
        std::vector<char> request = pattern(size);
        unsigned int id = 0;
        ASSERT_EQ(apartment_node_write_request(nullptr, "me", peer.url().c_str(), "echo",
                                               request.empty() ? nullptr : request.data(),
                                               static_cast<unsigned int>(size), id),
                  0);
        EXPECT_EQ(id, expectedId++);

        std::string seen;
        ASSERT_TRUE(peer.waitFor("REQ echo", 10000, &seen));
        EXPECT_EQ(seen, "REQ echo " + m_url + " me " + std::to_string(id) + " " +
                            std::to_string(size) + " 1 " +
                            std::to_string(fnv1a(request.data(), size)));

        int code = 99;
        std::vector<char> response;
        ASSERT_EQ(readResponse("me", id, code, response, 10000), 0);
        EXPECT_EQ(code, REQUEST_OK);
        EXPECT_TRUE(response == request);
    }
}

// Host threads write and wait while one thread, bound to dispatching,
// pumps: every request gets its own id and its own answer.
TEST_F(Messaging, ThreadsRequestAtOnceWhileOneThreadDispatches) {
    Peer peer;
    ASSERT_TRUE(peer.start());
    // Linked first: racing first requests would each open a link, and the
    // losers' closing can take the winner's entry with it at the peer.
    ASSERT_TRUE(apartment_connect_remote(nullptr, peer.url().c_str(), false));
    ASSERT_TRUE(apartment_set_dispatch_enabled(nullptr, true));
    const int threads = 3, each = 20;
    std::vector<std::vector<unsigned int>> ids(threads);
    std::vector<int> failures(threads, 0);
    std::vector<std::thread> workers;
    const std::string peerUrl = peer.url();
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([t, &ids, &failures, &peerUrl] {
            for (int i = 0; i < each; ++i) {
                std::string text = std::to_string(t) + "/" + std::to_string(i);
                unsigned int id = 0;
                if (apartment_node_write_request(nullptr, "me", peerUrl.c_str(), "echo", &text[0],
                                                 static_cast<unsigned int>(text.size()),
                                                 id) != 0) {
                    ++failures[t];
                    continue;
                }
                ids[t].push_back(id);
                int code = 99;
                std::vector<char> answer;
                if (readResponse("me", id, code, answer, 10000) != 0 || code != 0 ||
                    std::string(answer.begin(), answer.end()) != text)
                    ++failures[t];
            }
        });
    }
    std::atomic<int> finished{0};
    std::thread joiner([&] {
        for (std::thread& worker : workers) worker.join();
        finished = 1;
    });
    pumpUntil([&] { return finished == 1; }, 30000);
    joiner.join();
    EXPECT_TRUE(apartment_set_dispatch_enabled(nullptr, false));

    std::vector<unsigned int> all;
    for (int t = 0; t < threads; ++t) {
        EXPECT_EQ(failures[t], 0) << "thread " << t;
        all.insert(all.end(), ids[t].begin(), ids[t].end());
    }
    std::sort(all.begin(), all.end());
    ASSERT_EQ(all.size(), static_cast<size_t>(threads * each));
    for (size_t i = 0; i < all.size(); ++i) EXPECT_EQ(all[i], i + 1);
}

TEST_F(Messaging, NullBufferReadKeepsTheResponseAndABufferReadRemovesIt) {
    Peer peer;
    ASSERT_TRUE(peer.start());
    char text[] = "twelve bytes";
    unsigned int id = 0;
    ASSERT_EQ(apartment_node_write_request(nullptr, "me", peer.url().c_str(), "echo", text, 12,
                                           id),
              0);
    int code = 99;
    unsigned int length = 0;
    // A negative time-out waits without limit.
    ASSERT_EQ(apartment_node_read_response(nullptr, "me", id, code, nullptr, length, -1), 0);
    EXPECT_EQ(code, REQUEST_OK);
    EXPECT_EQ(length, 12u);
    // Still there: a second query answers at once.
    length = 0;
    ASSERT_EQ(apartment_node_read_response(nullptr, "me", id, code, nullptr, length, 0), 0);
    EXPECT_EQ(length, 12u);
    // Too small a buffer fails and keeps it.
    char small[4];
    unsigned int capacity = sizeof(small);
    EXPECT_EQ(apartment_node_read_response(nullptr, "me", id, code, small, capacity, 0),
              APARTMENT_METHOD_FAILED);
    char buffer[12];
    capacity = sizeof(buffer);
    ASSERT_EQ(apartment_node_read_response(nullptr, "me", id, code, buffer, capacity, 0), 0);
    EXPECT_EQ(std::string(buffer, capacity), "twelve bytes");
    // Removed by the read with a buffer.
    EXPECT_EQ(apartment_node_read_response(nullptr, "me", id, code, buffer, capacity, 100),
              APARTMENT_METHOD_FAILED);
}

TEST_F(Messaging, ResponseCodesPassThroughUnchanged) {
    Peer peer;
    ASSERT_TRUE(peer.start());
    const int codes[] = {REQUEST_OK, REQUEST_METHOD_NOT_FOUND, REQUEST_PARAMETER_ERROR,
                         REQUEST_OPERATE_FAILED, 123456789, -2000000000};
    for (int sent : codes) {
        SCOPED_TRACE(sent);
        std::string text = std::to_string(sent);
        unsigned int id = 0;
        ASSERT_EQ(apartment_node_write_request(nullptr, "me", peer.url().c_str(), "code", &text[0],
                                               static_cast<unsigned int>(text.size()), id),
                  0);
        int code = 99;
        std::vector<char> response;
        ASSERT_EQ(readResponse("me", id, code, response, 10000), 0);
        EXPECT_EQ(code, sent);
        EXPECT_EQ(std::string(response.begin(), response.end()), text);
    }
}

TEST_F(Messaging, NotificationArrivesWithoutResponseFlagAndGetsNoAnswer) {
    Peer peer;
    ASSERT_TRUE(peer.start());
    char text[] = "note";
    unsigned int id = 0;
    ASSERT_EQ(apartment_node_write_notify(nullptr, "me", peer.url().c_str(), "echo", text, 4, id),
              0);
    EXPECT_EQ(id, 1u);
    std::string seen;
    ASSERT_TRUE(peer.waitFor("REQ echo", 10000, &seen));
    EXPECT_EQ(seen, "REQ echo " + m_url + " me 1 4 0 " + std::to_string(fnv1a(text, 4)));
    int code = 0;
    unsigned int length = 0;
    EXPECT_EQ(apartment_node_read_response(nullptr, "me", id, code, nullptr, length, 300),
              APARTMENT_METHOD_FAILED);
}

TEST_F(Messaging, RequestToAnUnknownNodeTimesOut) {
    Peer peer;
    ASSERT_TRUE(peer.start());
    unsigned int id = 0;
    ASSERT_EQ(apartment_node_write_request(nullptr, "me", peer.url().c_str(), "nobody", nullptr, 0,
                                           id),
              0);
    int code = 0;
    unsigned int length = 0;
    const auto start = Clock::now();
    EXPECT_EQ(apartment_node_read_response(nullptr, "me", id, code, nullptr, length, 300),
              APARTMENT_METHOD_FAILED);
    EXPECT_GE(msSince(start), 250);
    // The link itself is fine: the next request is answered.
    ASSERT_EQ(apartment_node_write_request(nullptr, "me", peer.url().c_str(), "echo", nullptr, 0,
                                           id),
              0);
    EXPECT_EQ(apartment_node_read_response(nullptr, "me", id, code, nullptr, length, 10000), 0);
}

TEST_F(Messaging, LocalUrlOfALinkFollowsTheSizeProtocol) {
    Peer peer;
    ASSERT_TRUE(peer.start());
    DWORD length = 0;
    EXPECT_FALSE(apartment_local_url(nullptr, peer.url().c_str(), false, nullptr, length));
    ASSERT_TRUE(apartment_connect_remote(nullptr, peer.url().c_str(), false));
    EXPECT_TRUE(apartment_has_connect_remote(nullptr, peer.url().c_str(), false));
    ASSERT_TRUE(apartment_local_url(nullptr, peer.url().c_str(), false, nullptr, length));
    EXPECT_EQ(length, m_url.size() + 1);
    std::vector<char> buffer(length);
    ASSERT_TRUE(apartment_local_url(nullptr, peer.url().c_str(), false, buffer.data(), length));
    EXPECT_EQ(std::string(buffer.data()), m_url);
    DWORD tooSmall = m_url.size();
    EXPECT_FALSE(apartment_local_url(nullptr, peer.url().c_str(), false, buffer.data(), tooSmall));
    EXPECT_TRUE(apartment_disconnect_remote(nullptr, peer.url().c_str(), false));
    EXPECT_FALSE(apartment_has_connect_remote(nullptr, peer.url().c_str(), false));
}

TEST_F(Messaging, RawFramesOverTheRealTimeLinkReachThePeerOffItsPumpingThread) {
    Peer peer;
    ASSERT_TRUE(peer.start());
    ASSERT_TRUE(apartment_connect_remote(nullptr, peer.url().c_str(), true));
    EXPECT_TRUE(apartment_has_connect_remote(nullptr, peer.url().c_str(), true));
    EXPECT_FALSE(apartment_has_connect_remote(nullptr, peer.url().c_str(), false));

    std::vector<char> frame = pattern(300);
    unsigned int length = static_cast<unsigned int>(frame.size());
    // Type 1 is the request type on the other link; here it stays raw.
    for (unsigned int type : {77u, 1u}) {
        SCOPED_TRACE(type);
        ASSERT_EQ(apartment_raw_write(nullptr, peer.url().c_str(), type, frame.data(), length), 0);
        std::string seen;
        ASSERT_TRUE(peer.waitFor("RAW", 10000, &seen));
        EXPECT_EQ(seen, "RAW " + std::to_string(type) + " 300 " +
                            std::to_string(fnv1a(frame.data(), frame.size())) + " 1");
    }
    // An empty frame is a frame too.
    unsigned int none = 0;
    ASSERT_EQ(apartment_raw_write(nullptr, peer.url().c_str(), 3, nullptr, none), 0);
    std::string empty;
    ASSERT_TRUE(peer.waitFor("RAW", 10000, &empty));
    EXPECT_EQ(empty, "RAW 3 0 " + std::to_string(fnv1a(nullptr, 0)) + " 1");
    // The receiving apartment's real-time buffer holds 102400 bytes: a
    // frame that fills it still arrives whole.
    std::vector<char> large = pattern(102400);
    length = static_cast<unsigned int>(large.size());
    ASSERT_EQ(apartment_raw_write(nullptr, peer.url().c_str(), 2, large.data(), length), 0);
    std::string seen;
    ASSERT_TRUE(peer.waitFor("RAW", 10000, &seen));
    EXPECT_EQ(seen, "RAW 2 102400 " + std::to_string(fnv1a(large.data(), large.size())) + " 1");
    // Nothing reached a node.
    EXPECT_FALSE(peer.waitFor("REQ", 200));
}

TEST_F(Messaging, RawWriteWithoutARealTimeLinkFailsAndDoesNotConnect) {
    Peer peer;
    ASSERT_TRUE(peer.start());
    char byte = 'x';
    unsigned int length = 1;
    EXPECT_EQ(apartment_raw_write(nullptr, peer.url().c_str(), 5, &byte, length),
              APARTMENT_METHOD_FAILED);
    EXPECT_FALSE(apartment_has_connect_remote(nullptr, peer.url().c_str(), true));
    EXPECT_FALSE(apartment_has_connect_remote(nullptr, peer.url().c_str(), false));
    // A non-real-time link is not one for raw frames either.
    ASSERT_TRUE(apartment_connect_remote(nullptr, peer.url().c_str(), false));
    EXPECT_EQ(apartment_raw_write(nullptr, peer.url().c_str(), 5, &byte, length),
              APARTMENT_METHOD_FAILED);
    EXPECT_FALSE(peer.waitFor("RAW", 200));
}

TEST_F(Messaging, RawWriteToTheOwnUrlCallsTheCallbackAtOnceOnTheWritersThread) {
    Held<ApartmentRecorder> recorder;
    char text[] = "self";
    unsigned int length = 4;
    // No callback installed: still a success.
    ASSERT_TRUE(apartment_connect_remote(nullptr, m_url.c_str(), false));
    EXPECT_EQ(apartment_raw_write(nullptr, m_url.c_str(), 9, text, length), 0);

    ASSERT_TRUE(apartment_set_callback(nullptr, recorder.get()));
    EXPECT_EQ(apartment_raw_write(nullptr, m_url.c_str(), 9, text, length), 0);
    const std::vector<ApartmentRecorder::Raw> raw = recorder->raw();
    ASSERT_EQ(raw.size(), 1u);
    EXPECT_EQ(raw[0].type, 9u);
    EXPECT_EQ(std::string(raw[0].data.begin(), raw[0].data.end()), "self");
    EXPECT_EQ(raw[0].thread, std::this_thread::get_id());
}

// Two nodes of one apartment talk through its own URL (the loopback link),
// with no other link; the answer is written from inside the callback.
TEST_F(Messaging, NodesOfOneApartmentTalkThroughItsOwnUrl) {
    Held<NodeRecorder> server;
    server->onRequest = [this](const SeenRequest& seen) {
        std::vector<char> answer(seen.data.rbegin(), seen.data.rend());
        EXPECT_EQ(apartment_node_write_response(nullptr, "server", seen.sourceApartment.c_str(),
                                                seen.sourceNode.c_str(), seen.id, 7,
                                                answer.data(),
                                                static_cast<unsigned int>(answer.size())),
                  0);
        EXPECT_EQ(seen.targetApartment, m_url);
    };
    ASSERT_TRUE(apartment_node_create(nullptr, "server"));
    ASSERT_TRUE(apartment_node_set_callback(nullptr, "server", server.get()));

    auto roundTrip = [this](unsigned int expectedId) {
        char text[] = "abc";
        unsigned int id = 0;
        ASSERT_EQ(apartment_node_write_request(nullptr, "me", m_url.c_str(), "server", text, 3, id),
                  0);
        EXPECT_EQ(id, expectedId);
        int code = 0;
        std::vector<char> response;
        ASSERT_EQ(readResponse("me", id, code, response, 10000), 0);
        EXPECT_EQ(code, 7);
        EXPECT_EQ(std::string(response.begin(), response.end()), "cba");
    };
    for (unsigned int round = 1; round <= 3; ++round) roundTrip(round);
    ASSERT_EQ(server->requests().size(), 3u);
    EXPECT_EQ(server->requests()[0].sourceApartment, m_url);
    EXPECT_TRUE(apartment_has_connect_remote(nullptr, m_url.c_str(), false));

    // The same with a link to another apartment beside the loopback.
    Peer peer;
    ASSERT_TRUE(peer.start());
    ASSERT_EQ(emptyRoundTrip("me", peer.url(), "echo"), 0);
    roundTrip(5);
    EXPECT_EQ(server->requests().size(), 4u);
}

}  // namespace
