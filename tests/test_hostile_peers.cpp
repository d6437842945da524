// Peers that misbehave on the wire: a handshake that never completes, a
// frame cut short by a close, a real-time frame too large to deliver. Each
// case runs the host apartment in this process and the peers in forked
// processes, and prints the figure it checks.
#include <gtest/gtest.h>

#include "harden_support.h"

using namespace harden;

namespace {

// A peer that sends the header of a huge first frame, then one byte of it
// every 20 ms for `trickleMs`: the socket keeps becoming readable and the
// frame keeps progressing, but no connection frame ever completes.
int tricklingPeer(long trickleMs) {
    const std::string url = Peer::readFromParent(5000);
    if (url.empty()) return 10;
    const int fd = rawConnect(portOf(url));
    if (fd < 0) return 11;
    const auto header = frameHeader(0, 1000000);
    if (!sendAll(fd, header.data(), header.size())) return 12;
    Peer::tellParent("started");
    const long long until = nowMs() + trickleMs;
    const char byte = 'x';
    while (nowMs() < until) {
        if (!sendAll(fd, &byte, 1, 200)) break;  // the host dropped us
        sleepMs(20);
    }
    os_socket_close(fd, USE_DEFAULT);
    return 0;
}

// A requester that sends "ping" to the host's "echo" every `intervalMs`
// for `durationMs` after one warm-up round trip, and reports
// "<p99 us> <max us> <answered> <sent>"; an unanswered request counts with
// its whole 2000 ms wait.
int steadyRequesterBody(long durationMs, long intervalMs) {
    const std::string hostUrl = Peer::readFromParent(10000);
    if (hostUrl.empty()) return 10;
    const std::string url = initialiseOnFreePort(true);
    if (url.empty()) return 11;
    NodeCallback* cb = createNode("client");
    requestAndRead("client", hostUrl, "echo", "warm-up", 2000);
    std::vector<long long> rttUs;
    int answered = 0;
    const long long until = nowMs() + durationMs;
    while (nowMs() < until) {
        const auto start = std::chrono::steady_clock::now();
        if (requestAndRead("client", hostUrl, "echo", "ping", 2000) == "ping") ++answered;
        rttUs.push_back(std::chrono::duration_cast<std::chrono::microseconds>(
                            std::chrono::steady_clock::now() - start)
                            .count());
        sleepMs(intervalMs);
    }
    std::sort(rttUs.begin(), rttUs.end());
    const size_t p99 = std::min(rttUs.size() - 1, (rttUs.size() * 99 + 99) / 100 - 1);
    Peer::tellParent(std::to_string(rttUs[p99]) + " " + std::to_string(rttUs.back()) + " " +
                     std::to_string(answered) + " " + std::to_string(rttUs.size()));
    apartment_uninitialize();
    cb->releaseRef();
    return 0;
}

// Pumps until `done`, returning the longest single dispatch call in ms.
long long pumpMeasuringDispatch(const std::function<bool()>& done, long timeoutMs) {
    long long longest = 0;
    const long long until = nowMs() + timeoutMs;
    while (!done() && nowMs() < until) {
        const long long start = nowMs();
        apartment_dispatch_message(nullptr, deadlineIn(20));
        longest = std::max(longest, nowMs() - start);
    }
    return longest;
}

class HostileTest : public ::testing::Test {
protected:
    void TearDown() override {
        apartment_uninitialize();
        if (m_node != nullptr) m_node->releaseRef();
        if (m_apartmentCb != nullptr) m_apartmentCb->releaseRef();
    }
    // The host apartment of this process, with node "echo" and a callback.
    std::string startHost() {
        const std::string url = initialiseOnFreePort(true);
        if (url.empty()) return url;
        m_node = createNode("echo");
        m_apartmentCb = new ApartmentCallback;
        apartment_set_callback(nullptr, m_apartmentCb);
        return url;
    }
    NodeCallback* m_node = nullptr;
    ApartmentCallback* m_apartmentCb = nullptr;
};

}  // namespace

// The handshake of a new link runs on the dispatching thread; a peer that
// keeps its first frame progressing without ever completing a connection
// frame must not hold that thread for longer than the 1000 ms bound.
TEST_F(HostileTest, TricklingHandshakeIsDroppedWhileAnotherRequesterIsServed) {
    Peer trickler([] { return tricklingPeer(6000); });
    Peer requester([] { return requesterPeerBody(); });
    const std::string url = startHost();
    ASSERT_FALSE(url.empty());

    trickler.tell(url);
    ASSERT_EQ(trickler.readLine(3000), "started");
    sleepMs(100);  // the listen thread queues the trickler's link first
    requester.tell(url);

    std::string answer;
    const long long longest = pumpMeasuringDispatch(
        [&] {
            if (answer.empty()) answer = requester.readLine(0);
            return !answer.empty();
        },
        8000);
    printf("[figure] handshake stall: longest dispatch %lld ms; requester answer \"%s\" (ms)\n",
           longest, answer.c_str());
    EXPECT_LT(longest, 1600);
    EXPECT_EQ(answer.substr(0, 5), "ping ");
    EXPECT_EQ(requester.wait(3000), 0);
    EXPECT_EQ(trickler.wait(8000), 0);
}

// A peer that sends part of a frame header and closes leaves bytes in the
// socket, so the zero-byte peek never reports the close: the link must
// still be taken down, the nodes told, and the communication thread idle.
TEST_F(HostileTest, PartialFrameThenCloseIsAnOfflineLinkAndNoSpin) {
    Peer peer([] {
        std::string url;
        const int fd = connectAs(kGhost, false, url);
        if (fd < 0) return -fd;
        const unsigned char partial[5] = {0, 0, 0, 1, 0};
        if (!sendAll(fd, partial, sizeof partial)) return 13;
        os_socket_close(fd, USE_DEFAULT);
        return 0;
    });
    const std::string url = startHost();
    ASSERT_FALSE(url.empty());
    peer.tell(url);
    ASSERT_TRUE(pumpUntil([&] { return apartment_has_connect_remote(nullptr, kGhost.c_str(), false); },
                          3000));
    pumpFor(200);
    ASSERT_EQ(peer.wait(3000), 0);
    pumpFor(300);

    const CpuShare cpu = measureCpu(1000, [](long ms) { pumpFor(ms); });
    const bool heard = pumpUntil([&] { return m_node->heardOffline(kGhost); }, 1000);
    printf("[figure] partial frame then close: busiest thread %.1f%% of a core, process %.1f%%, "
           "offline notice %s\n",
           cpu.busiestThread * 100, cpu.process * 100, heard ? "heard" : "missing");
    EXPECT_TRUE(heard);
    EXPECT_FALSE(apartment_has_connect_remote(nullptr, kGhost.c_str(), false));
    EXPECT_LT(cpu.busiestThread, 0.2);
}

// A real-time frame larger than the 102400-byte buffer is never delivered.
// It must not leave the real-time thread spinning on a readable socket
// either: the link is condemned as if the peer had closed it.
TEST_F(HostileTest, OversizedRealTimeFrameIsNotDeliveredAndDoesNotSpin) {
    Peer peer([] {
        std::string url;
        const int fd = connectAs(kGhost, true, url);
        if (fd < 0) return -fd;
        std::vector<unsigned char> big = frameHeader(7, 200000);
        big.resize(big.size() + 200000, 'b');
        const auto small = frameHeader(7, 4);
        big.insert(big.end(), small.begin(), small.end());
        big.insert(big.end(), {'t', 'a', 'i', 'l'});
        sendAll(fd, big.data(), big.size(), 3000);  // may be cut off: fine
        Peer::tellParent("sent");
        Peer::readFromParent(5000);  // stay connected until the host is done
        os_socket_close(fd, USE_DEFAULT);
        return 0;
    });
    const std::string url = startHost();
    ASSERT_FALSE(url.empty());
    peer.tell(url);
    ASSERT_TRUE(pumpUntil([&] { return apartment_has_connect_remote(nullptr, kGhost.c_str(), true); },
                          3000));
    peer.pumpReadLine(4000);  // "sent"
    pumpFor(300);

    const CpuShare cpu = measureCpu(1000, [](long ms) { pumpFor(ms); });
    const bool heard = pumpUntil([&] { return m_node->heardOffline(kGhost); }, 1000);
    printf("[figure] oversized real-time frame: busiest thread %.1f%% of a core, process %.1f%%, "
           "largest raw frame delivered %u bytes, link %s\n",
           cpu.busiestThread * 100, cpu.process * 100, m_apartmentCb->largestRaw.load(),
           heard ? "condemned (offline notice heard)" : "kept");
    peer.tell("done");
    EXPECT_EQ(peer.wait(3000), 0);
    EXPECT_LE(m_apartmentCb->largestRaw.load(), 102400u);
    EXPECT_LT(cpu.busiestThread, 0.2);
    EXPECT_TRUE(heard);
}

// A node callback that throws (here std::bad_alloc, as a host's own
// allocation might) costs its request only: the message is dropped with a
// diagnostic line, the pump goes on, and the next requester is answered.
TEST_F(HostileTest, ThrowingCallbackDropsItsRequestAndTheHostKeepsServing) {
    Peer unlucky([] { return requesterPeerBody(1000); });
    Peer next([] { return requesterPeerBody(); });
    const std::string url = startHost();
    ASSERT_FALSE(url.empty());
    std::atomic<int> calls{0};
    m_node->onRequest = [&calls](const char* srcUrl, const char* srcNode, unsigned int id,
                                 const void* data, unsigned int size, bool) {
        if (calls++ == 0) throw std::bad_alloc();
        apartment_node_write_response(nullptr, "echo", srcUrl, srcNode, id, REQUEST_OK,
                                      const_cast<void*>(data), size);
    };
    testing::internal::CaptureStdout();
    unlucky.tell(url);
    const std::string lost = unlucky.pumpReadLine(5000);
    next.tell(url);
    const std::string answer = next.pumpReadLine(5000);
    const std::string out = testing::internal::GetCapturedStdout();
    printf("[figure] throwing callback: first requester \"%s\", next \"%s\" (ms)\n",
           lost.c_str(), answer.c_str());
    EXPECT_EQ(lost.substr(0, 8), "<read -4");
    EXPECT_EQ(answer.substr(0, 5), "ping ");
    EXPECT_NE(out.find("[Apartment Error]: dispatch, message dropped: std::bad_alloc."),
              std::string::npos)
        << out;
    EXPECT_EQ(unlucky.wait(3000), 1);
    EXPECT_EQ(next.wait(3000), 0);
}

// A peer that sends requests naming source apartments nobody can reach (50
// a second, a different URL each time, each behind a listener that never
// answers, so a connect to it waits out its whole time-out) must not hold
// the host's dispatcher: meanwhile a well-behaved requester on its own
// link keeps its round trips short, and afterwards a fresh requester is
// answered.
TEST_F(HostileTest, RepliesToUnreachableSourcesDoNotStallTheDispatcher) {
    const long FLOOD_MS = 4000;
    StalledListener stalled;
    ASSERT_TRUE(stalled.ready());
    Peer flooder([&stalled] {
        std::string hostUrl;
        const int fd = connectAs(kGhost, false, hostUrl);
        if (fd < 0) return -fd;
        Peer::tellParent("flooding");
        for (long i = 0; i < FLOOD_MS / 20; ++i) {
            const auto frame = requestFrame(stalled.url(2 + static_cast<int>(i % 200)), "peer",
                                            hostUrl, "echo", static_cast<unsigned int>(i), true,
                                            "x");
            if (!sendAll(fd, frame.data(), frame.size())) return 13;
            sleepMs(20);
        }
        Peer::tellParent("done");
        Peer::readFromParent(20000);
        os_socket_close(fd, USE_DEFAULT);
        return 0;
    });
    Peer steady([] { return steadyRequesterBody(FLOOD_MS - 1000, 20); });
    Peer fresh([] { return requesterPeerBody(); });
    const std::string url = startHost();
    ASSERT_FALSE(url.empty());

    flooder.tell(url);
    ASSERT_EQ(flooder.pumpReadLine(3000), "flooding");
    steady.tell(url);
    const std::string figures = steady.pumpReadLine(FLOOD_MS + 10000);
    const bool floodEnded = flooder.pumpReadLine(FLOOD_MS + 10000) == "done";
    fresh.tell(url);
    const std::string answer = fresh.pumpReadLine(6000);
    long long p99Us = -1, maxUs = -1;
    int answered = -1, sent = -1;
    std::sscanf(figures.c_str(), "%lld %lld %d %d", &p99Us, &maxUs, &answered, &sent);
    printf("[figure] 50 requests/s naming unreachable sources: steady requester p99 %.2f ms, "
           "max %.2f ms, %d of %d answered; fresh requester afterwards \"%s\" (ms)\n",
           p99Us / 1000.0, maxUs / 1000.0, answered, sent, answer.c_str());
    EXPECT_TRUE(floodEnded);
    EXPECT_GT(sent, 50);
    EXPECT_EQ(answered, sent);
    // Far below the 1000 ms a connect on the dispatcher would cost, with
    // room for a shared machine and the sanitizers.
    EXPECT_LT(p99Us, 250000);
    EXPECT_EQ(answer.substr(0, 5), "ping ");
    flooder.tell("stop");
    EXPECT_EQ(flooder.wait(5000), 0);
    EXPECT_EQ(steady.wait(5000), 0);
    EXPECT_EQ(fresh.wait(5000), 0);
}

// The baseline the hostile cases compare with: a forked requester is
// answered by this process's "echo" node.
TEST_F(HostileTest, WellFormedRequesterIsAnswered) {
    Peer requester([] { return requesterPeerBody(); });
    const std::string url = startHost();
    ASSERT_FALSE(url.empty());
    requester.tell(url);
    const std::string answer = requester.pumpReadLine(6000);
    printf("[figure] baseline: requester answer \"%s\" (ms)\n", answer.c_str());
    EXPECT_EQ(answer.substr(0, 5), "ping ");
    EXPECT_EQ(requester.wait(3000), 0);
}

// A live peer whose frame header arrives in pieces: the frame is delivered
// once the rest comes, and while the header is incomplete (the socket
// readable, nothing to consume) the communication thread does not spin.
TEST_F(HostileTest, HeaderInPiecesFromALivePeerIsDeliveredWhenComplete) {
    Peer peer([] {
        std::string url;
        const int fd = connectAs(kGhost, false, url);
        if (fd < 0) return -fd;
        const auto frame = requestFrame(kGhost, "peer", url, "echo", 1, false, "pieces");
        if (!sendAll(fd, frame.data(), 5)) return 13;
        Peer::tellParent("half");
        if (Peer::readFromParent(5000) != "rest") return 14;
        if (!sendAll(fd, frame.data() + 5, frame.size() - 5)) return 15;
        Peer::readFromParent(5000);
        os_socket_close(fd, USE_DEFAULT);
        return 0;
    });
    const std::string url = startHost();
    ASSERT_FALSE(url.empty());
    peer.tell(url);
    const std::string line = peer.pumpReadLine(3000);
    ASSERT_FALSE(line.empty());
    ASSERT_EQ(line, "half");
    pumpFor(200);
    const CpuShare cpu = measureCpu(1000, [](long ms) { pumpFor(ms); });
    EXPECT_EQ(m_node->requests.load(), 0);
    peer.tell("rest");
    const bool delivered = pumpUntil([&] { return m_node->requests.load() == 1; }, 3000);
    printf("[figure] header in pieces from a live peer: busiest thread %.1f%% of a core while "
           "incomplete; frame %s once complete\n",
           cpu.busiestThread * 100, delivered ? "delivered" : "lost");
    EXPECT_TRUE(delivered);
    EXPECT_LT(cpu.busiestThread, 0.2);
    peer.tell("done");
    EXPECT_EQ(peer.wait(3000), 0);
}
