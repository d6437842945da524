// End to end through the C interface: apartment and node timers, calls
// nested in callbacks (reading a response inside a timer, deferred
// re-entry), the heartbeat against a live, a stopped and a dead peer, and
// what nodes hear when a peer dies.
#include <algorithm>

#include "api_test_support.h"

using namespace apitest;

namespace {

const unsigned int NO_TIMER = 4294967295u;

class Liveness : public ApiTest {};

TEST_F(Liveness, ApartmentTimersFireOnceOrPeriodicallyUntilKilled) {
    Held<ApartmentRecorder> apartment;
    ASSERT_TRUE(apartment_set_callback(nullptr, apartment.get()));

    const auto start = Clock::now();
    const unsigned int single = apartment_set_single_timer(nullptr, nullptr, 50);
    ASSERT_NE(single, NO_TIMER);
    ASSERT_TRUE(pumpUntil([&] { return !apartment->timers().empty(); }, 5000));
    EXPECT_GE(msSince(start), 40);
    pumpFor(150);
    EXPECT_EQ(apartment->timers(), std::vector<unsigned int>{single});
    // Gone once fired.
    EXPECT_FALSE(apartment_kill_timer(nullptr, nullptr, single));

    const unsigned int periodic = apartment_set_timer(nullptr, nullptr, 0, 40);
    ASSERT_NE(periodic, NO_TIMER);
    ASSERT_NE(periodic, single);
    ASSERT_TRUE(pumpUntil([&] { return apartment->timers().size() >= 5; }, 5000));
    EXPECT_TRUE(apartment_kill_timer(nullptr, nullptr, periodic));
    // One expiry may already be queued; after that, silence.
    pumpFor(50);
    const size_t afterKill = apartment->timers().size();
    pumpFor(200);
    EXPECT_EQ(apartment->timers().size(), afterKill);
    for (size_t i = 1; i < afterKill; ++i) EXPECT_EQ(apartment->timers()[i], periodic);
    EXPECT_FALSE(apartment_kill_timer(nullptr, nullptr, periodic));
}

TEST_F(Liveness, NodeTimersReachTheNodeCallback) {
    Held<NodeRecorder> node;
    Held<ApartmentRecorder> apartment;
    ASSERT_TRUE(apartment_set_callback(nullptr, apartment.get()));
    ASSERT_TRUE(apartment_node_create(nullptr, "n"));
    ASSERT_TRUE(apartment_node_set_callback(nullptr, "n", node.get()));
    EXPECT_EQ(apartment_set_timer(nullptr, "ghost", 0, 10), NO_TIMER);
    EXPECT_EQ(apartment_set_single_timer(nullptr, "ghost", 10), NO_TIMER);

    const unsigned int single = apartment_set_single_timer(nullptr, "n", 20);
    const unsigned int periodic = apartment_set_timer(nullptr, "n", 0, 30);
    ASSERT_NE(single, NO_TIMER);
    ASSERT_NE(periodic, NO_TIMER);
    auto count = [&](unsigned int id) {
        const std::vector<unsigned int> fired = node->timers();
        return std::count(fired.begin(), fired.end(), id);
    };
    ASSERT_TRUE(pumpUntil([&] { return count(periodic) >= 4 && count(single) == 1; }, 5000));
    EXPECT_FALSE(apartment_kill_timer(nullptr, "n", single));
    EXPECT_FALSE(apartment_kill_timer(nullptr, "ghost", periodic));
    EXPECT_TRUE(apartment_kill_timer(nullptr, "n", periodic));
    pumpFor(50);
    const long afterKill = count(periodic);
    pumpFor(150);
    EXPECT_EQ(count(periodic), afterKill);
    EXPECT_EQ(count(single), 1);
    EXPECT_TRUE(apartment->timers().empty());
}

// Calls a host may make from inside its callbacks: a periodic timer kills
// itself, a node destroys itself while it serves a request, and the
// apartment callback is removed from inside its own timer.
TEST_F(Liveness, CallbacksMayKillTheirTimerDestroyTheirNodeAndRemoveThemselves) {
    Held<NodeRecorder> ticker, server;
    Held<ApartmentRecorder> apartment;
    ASSERT_TRUE(apartment_node_create(nullptr, "ticker"));
    ASSERT_TRUE(apartment_node_create(nullptr, "server"));
    ASSERT_TRUE(apartment_node_create(nullptr, "client"));
    ASSERT_TRUE(apartment_node_set_callback(nullptr, "ticker", ticker.get()));
    ASSERT_TRUE(apartment_node_set_callback(nullptr, "server", server.get()));
    bool killed = false;
    ticker->onTimerFired = [&killed](unsigned int id) {
        killed = apartment_kill_timer(nullptr, "ticker", id);
    };
    server->onRequest = [](const SeenRequest& seen) {
        EXPECT_EQ(apartment_node_write_response(nullptr, "server", seen.sourceApartment.c_str(),
                                                seen.sourceNode.c_str(), seen.id, 0, nullptr, 0),
                  0);
        EXPECT_TRUE(apartment_node_destroy(nullptr, "server"));
    };
    apartment->onTimerFired = [](unsigned int) {
        EXPECT_TRUE(apartment_set_callback(nullptr, nullptr));
    };
    ASSERT_TRUE(apartment_set_callback(nullptr, apartment.get()));

    ASSERT_NE(apartment_set_timer(nullptr, "ticker", 0, 100), NO_TIMER);
    ASSERT_NE(apartment_set_timer(nullptr, nullptr, 0, 100), NO_TIMER);
    unsigned int id = 0;
    ASSERT_EQ(apartment_node_write_request(nullptr, "client", m_url.c_str(), "server", nullptr, 0,
                                           id),
              0);
    int code = 0;
    unsigned int length = 0;
    ASSERT_EQ(apartment_node_read_response(nullptr, "client", id, code, nullptr, length, 10000),
              0);
    pumpFor(450);
    EXPECT_TRUE(killed);
    EXPECT_EQ(ticker->timers().size(), 1u);
    EXPECT_EQ(apartment->timers().size(), 1u);  // removed itself; the timer runs on unheard
    EXPECT_EQ(server->requests().size(), 1u);
    EXPECT_EQ(apartment_node_read_response(nullptr, "server", 1, code, nullptr, length, 0),
              CAN_NOT_FIND_APARTMENT_NODE);
}

// A timer callback reads a response (the read pumps further messages) with
// re-entry refused: a request arriving meanwhile waits until re-entry is
// allowed again, after the handler is done.
TEST_F(Liveness, ReadingAResponseInsideATimerDefersRequestsWhileReentryIsRefused) {
    Peer peer;
    ASSERT_TRUE(peer.start());
    Held<NodeRecorder> timerNode, h;
    ASSERT_TRUE(apartment_node_create(nullptr, "t"));
    ASSERT_TRUE(apartment_node_create(nullptr, "h"));
    ASSERT_TRUE(apartment_node_set_callback(nullptr, "h", h.get()));
    ASSERT_TRUE(apartment_node_set_callback(nullptr, "t", timerNode.get()));

    int readStatus = 99;
    std::string answer;
    size_t heardByHDuringTheRead = 99;
    const std::string peerUrl = peer.url();
    NodeRecorder* hNode = h.get();
    timerNode->onTimerFired = [&, hNode](unsigned int) {
        EXPECT_TRUE(apartment_allow_reentry(nullptr, false));
        char text[] = "hello";
        unsigned int id = 0;
        // The peer's "ping" notifies our "h" first, then answers.
        ASSERT_EQ(apartment_node_write_request(nullptr, "t", peerUrl.c_str(), "ping", text, 5, id),
                  0);
        int code = 0;
        std::vector<char> data;
        readStatus = readResponse("t", id, code, data, 10000);
        answer.assign(data.begin(), data.end());
        heardByHDuringTheRead = hNode->requests().size();
        EXPECT_TRUE(apartment_allow_reentry(nullptr, true));
    };
    ASSERT_NE(apartment_set_single_timer(nullptr, "t", 10), NO_TIMER);
    ASSERT_TRUE(pumpUntil([&] { return !timerNode->timers().empty(); }, 10000));
    EXPECT_EQ(readStatus, 0);
    EXPECT_EQ(answer, "pong");
    EXPECT_EQ(heardByHDuringTheRead, 0u);
    // The notification was sent before the answer, so it is here already,
    // held back; now it is delivered.
    ASSERT_TRUE(pumpUntil([&] { return h->requests().size() == 1; }, 5000));
    const SeenRequest ping = h->requests()[0];
    EXPECT_EQ(std::string(ping.data.begin(), ping.data.end()), "ping");
    EXPECT_FALSE(ping.requireResponse);
    EXPECT_EQ(ping.sourceApartment, peer.url());
}

// The same nesting without deferral, on an apartment-level timer.
TEST_F(Liveness, ReadingAResponseInsideAnApartmentTimer) {
    Peer peer;
    ASSERT_TRUE(peer.start());
    ASSERT_TRUE(apartment_node_create(nullptr, "me"));
    Held<ApartmentRecorder> apartment;
    int readStatus = 99;
    std::string answer;
    const std::string peerUrl = peer.url();
    apartment->onTimerFired = [&](unsigned int) {
        char text[] = "inside";
        unsigned int id = 0;
        ASSERT_EQ(apartment_node_write_request(nullptr, "me", peerUrl.c_str(), "echo", text, 6, id),
                  0);
        int code = 0;
        std::vector<char> data;
        readStatus = readResponse("me", id, code, data, 10000);
        answer.assign(data.begin(), data.end());
    };
    ASSERT_TRUE(apartment_set_callback(nullptr, apartment.get()));
    ASSERT_NE(apartment_set_single_timer(nullptr, nullptr, 10), NO_TIMER);
    ASSERT_TRUE(pumpUntil([&] { return !apartment->timers().empty(); }, 10000));
    EXPECT_EQ(readStatus, 0);
    EXPECT_EQ(answer, "inside");
    ASSERT_TRUE(apartment_set_callback(nullptr, nullptr));
}

size_t offlineSince(ApartmentRecorder& recorder, Clock::time_point since) {
    size_t count = 0;
    for (const auto& report : recorder.offline())
        if (report.second >= since) ++count;
    return count;
}

TEST_F(Liveness, HeartbeatReportsAStoppedPeerEveryPeriodUntilItAnswersAgain) {
    const int period = 100;
    Peer peer;
    ASSERT_TRUE(peer.start());
    Held<ApartmentRecorder> apartment;
    ASSERT_TRUE(apartment_set_callback(nullptr, apartment.get()));
    EXPECT_FALSE(apartment_keepalive_with(nullptr, peer.url().c_str(), 0, period));
    ASSERT_TRUE(apartment_connect_remote(nullptr, peer.url().c_str(), false));
    ASSERT_TRUE(apartment_keepalive_with(nullptr, peer.url().c_str(), 3, period));
    EXPECT_FALSE(apartment_keepalive_with(nullptr, peer.url().c_str(), 3, period));

    // A pumping peer answers every alive frame.
    pumpFor(10 * period);
    EXPECT_TRUE(apartment->offline().empty());

    // Stopped, it answers nothing: three unanswered heartbeats, then one
    // report per period.
    const auto stopped = Clock::now();
    peer.signal(SIGSTOP);
    ASSERT_TRUE(pumpUntil([&] { return !apartment->offline().empty(); }, 20 * period));
    const auto firstReport = apartment->offline().front();
    EXPECT_EQ(firstReport.first, peer.url());
    EXPECT_GE(std::chrono::duration_cast<std::chrono::milliseconds>(firstReport.second - stopped)
                  .count(),
              2 * period - 20);
    const auto window = Clock::now();
    pumpFor(10 * period);
    const size_t inWindow = offlineSince(*apartment.get(), window);
    EXPECT_GE(inWindow, 4u);
    EXPECT_LE(inWindow, 12u);

    // Running again, its answers restore the count and the reports stop:
    // wait for a quiet stretch longer than three periods.
    peer.signal(SIGCONT);
    bool quiet = false;
    const auto resumed = Clock::now();
    while (!quiet && msSince(resumed) < 100 * period) {
        const auto stretch = Clock::now();
        pumpFor(6 * period);
        quiet = offlineSince(*apartment.get(), stretch) == 0;
    }
    EXPECT_TRUE(quiet);

    EXPECT_TRUE(apartment_keepalive_with(nullptr, peer.url().c_str(), 0, period));
    EXPECT_FALSE(apartment_keepalive_with(nullptr, peer.url().c_str(), 0, period));
}

// Counter 3 against a peer that never answers: expiries at 0, 1 and 2
// periods send alive frames, the fourth (3 periods) reports, and so does
// every one after it.
TEST_F(Liveness, WithCounterThreeTheFourthSilentExpiryReportsFirst) {
    const int period = 100;
    Peer peer;
    ASSERT_TRUE(peer.start());
    Held<ApartmentRecorder> apartment;
    ASSERT_TRUE(apartment_set_callback(nullptr, apartment.get()));
    ASSERT_TRUE(apartment_connect_remote(nullptr, peer.url().c_str(), false));
    peer.signal(SIGSTOP);
    const auto start = Clock::now();
    ASSERT_TRUE(apartment_keepalive_with(nullptr, peer.url().c_str(), 3, period));
    ASSERT_TRUE(pumpUntil([&] { return apartment->offline().size() >= 3; }, 30 * period));
    const auto reports = apartment->offline();
    const auto sinceStart = [&](size_t i) {
        return std::chrono::duration_cast<std::chrono::milliseconds>(reports[i].second - start)
            .count();
    };
    EXPECT_GE(sinceStart(0), 3 * period - 20);
    EXPECT_GE(sinceStart(1), 4 * period - 20);
    EXPECT_GE(sinceStart(2), 5 * period - 20);
}

TEST_F(Liveness, AKilledPeerIsHeardByEveryNodeAndByTheHeartbeat) {
    const int period = 100;
    Peer peer;
    ASSERT_TRUE(peer.start());
    Held<ApartmentRecorder> apartment;
    Held<NodeRecorder> a, b;
    ASSERT_TRUE(apartment_set_callback(nullptr, apartment.get()));
    for (auto* node : {&a, &b}) {
        const char* name = node == &a ? "a" : "b";
        ASSERT_TRUE(apartment_node_create(nullptr, name));
        ASSERT_TRUE(apartment_node_set_callback(nullptr, name, node->get()));
    }
    // A live link: a request answered over it.
    ASSERT_EQ(emptyRoundTrip("a", peer.url(), "echo"), 0);
    ASSERT_TRUE(apartment_keepalive_with(nullptr, peer.url().c_str(), 2, period));
    pumpFor(3 * period);
    EXPECT_TRUE(apartment->offline().empty());

    peer.killNow();
    ASSERT_TRUE(pumpUntil([&] { return !a->offline().empty() && !b->offline().empty(); }, 5000));
    EXPECT_EQ(a->offline(), std::vector<std::string>{peer.url()});
    EXPECT_EQ(b->offline(), std::vector<std::string>{peer.url()});
    EXPECT_FALSE(apartment_has_connect_remote(nullptr, peer.url().c_str(), false));
    ASSERT_TRUE(pumpUntil([&] { return apartment->offline().size() >= 2; }, 30 * period));
    EXPECT_EQ(apartment->offline().front().first, peer.url());
    // Link-loss notices go to nodes once; the heartbeat goes on reporting.
    EXPECT_EQ(a->offline().size(), 1u);
}

// A link lost while re-entry is refused is noticed only once it is allowed
// again.
TEST_F(Liveness, ALostLinkWaitsForReentryToBeAllowed) {
    Peer peer;
    ASSERT_TRUE(peer.start());
    Held<NodeRecorder> node;
    ASSERT_TRUE(apartment_node_create(nullptr, "n"));
    ASSERT_TRUE(apartment_node_set_callback(nullptr, "n", node.get()));
    ASSERT_EQ(emptyRoundTrip("n", peer.url(), "echo"), 0);

    ASSERT_TRUE(apartment_allow_reentry(nullptr, false));
    peer.killNow();
    pumpFor(500);
    EXPECT_TRUE(node->offline().empty());
    EXPECT_TRUE(apartment_has_connect_remote(nullptr, peer.url().c_str(), false));
    ASSERT_TRUE(apartment_allow_reentry(nullptr, true));
    ASSERT_TRUE(pumpUntil([&] { return !node->offline().empty(); }, 5000));
    EXPECT_FALSE(apartment_has_connect_remote(nullptr, peer.url().c_str(), false));
}

}  // namespace
