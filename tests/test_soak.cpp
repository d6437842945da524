// Soak: mixed traffic between two processes for a long, bounded time:
// requests with answers, notifications, raw frames on a real-time link,
// node timers on both sides and a heartbeat each way. Prints resident
// memory of both processes at start and end, and round-trip latency
// percentiles per interval.
//
// Runs only with APARTMENT_LONG_TESTS=1. APARTMENT_SOAK_SECONDS sets the
// length (default 600) and APARTMENT_SOAK_INTERVAL the reporting interval
// (default 60).
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "harden_support.h"

using namespace harden;

namespace {

long envSeconds(const char* name, long fallback) {
    const char* v = std::getenv(name);
    return v != nullptr && std::atol(v) > 0 ? std::atol(v) : fallback;
}

// The far side: answers "echo", counts what arrives, answers "rss" lines
// with its resident memory, stops on "stop".
int soakPeer() {
    const std::string hostUrl = Peer::readFromParent(10000);
    const std::string url = initialiseOnFreePort(true);
    if (url.empty()) return 10;
    NodeCallback* node = createNode("echo");
    ApartmentCallback* apartmentCb = new ApartmentCallback;
    apartment_set_callback(nullptr, apartmentCb);
    apartment_set_timer(nullptr, "echo", 50, 50);
    Peer::tellParent(url);
    apartment_keepalive_with(nullptr, hostUrl.c_str(), 5, 200);
    int rc = 0;
    for (;;) {
        const std::string line = Peer::readFromParent(0);
        if (line == "stop") break;
        if (line == "rss") Peer::tellParent(std::to_string(residentKb()));
        if (line.empty()) apartment_dispatch_message(nullptr, deadlineIn(20));
    }
    Peer::tellParent(std::to_string(node->requests.load()) + " " +
                     std::to_string(apartmentCb->rawFrames.load()) + " " +
                     std::to_string(node->timers.load()) + " " +
                     std::to_string(apartmentCb->offline.load()));
    apartment_uninitialize();
    node->releaseRef();
    apartmentCb->releaseRef();
    return rc;
}

// Latencies of one interval in a fixed histogram (1 us steps below 1 ms,
// 10 us below 10 ms, 1 ms below 1 s), so that recording millions of them
// does not itself grow the memory the soak watches.
class LatencyHistogram {
public:
    LatencyHistogram() : m_counts(SLOTS, 0) {}
    void add(long long us) {
        ++m_counts[slotOf(us)];
        ++m_total;
        m_max = std::max(m_max, us);
    }
    long long total() const { return m_total; }
    long long max() const { return m_max; }
    long long percentile(double p) const {
        const long long rank = static_cast<long long>(p * static_cast<double>(m_total));
        long long seen = 0;
        for (size_t i = 0; i < SLOTS; ++i) {
            seen += m_counts[i];
            if (seen > rank) return valueOf(i);
        }
        return m_max;
    }

private:
    static const size_t SLOTS = 1000 + 900 + 990 + 1;
    static size_t slotOf(long long us) {
        if (us < 1000) return static_cast<size_t>(std::max(0LL, us));
        if (us < 10000) return static_cast<size_t>(1000 + (us - 1000) / 10);
        if (us < 1000000) return static_cast<size_t>(1900 + (us - 10000) / 1000);
        return SLOTS - 1;
    }
    static long long valueOf(size_t slot) {
        if (slot < 1000) return static_cast<long long>(slot);
        if (slot < 1900) return 1000 + static_cast<long long>(slot - 1000) * 10;
        if (slot < SLOTS - 1) return 10000 + static_cast<long long>(slot - 1900) * 1000;
        return 1000000;
    }
    std::vector<long long> m_counts;
    long long m_total = 0;
    long long m_max = 0;
};

}  // namespace

TEST(Soak, MixedTrafficBetweenTwoProcesses) {
    if (!longChecksEnabled()) GTEST_SKIP() << "set APARTMENT_LONG_TESTS=1 to run the soak";
    const long seconds = envSeconds("APARTMENT_SOAK_SECONDS", 600);
    const long interval = envSeconds("APARTMENT_SOAK_INTERVAL", 60);

    Peer peer([] { return soakPeer(); });
    const std::string url = initialiseOnFreePort(true);
    ASSERT_FALSE(url.empty());
    NodeCallback* node = createNode("client");
    ApartmentCallback* apartmentCb = new ApartmentCallback;
    apartment_set_callback(nullptr, apartmentCb);
    peer.tell(url);
    const std::string remote = peer.readLine(10000);
    ASSERT_FALSE(remote.empty());
    ASSERT_TRUE(apartment_keepalive_with(nullptr, remote.c_str(), 5, 200));
    ASSERT_TRUE(apartment_connect_remote(nullptr, remote.c_str(), true));
    apartment_set_timer(nullptr, "client", 100, 100);
    ASSERT_EQ(requestAndRead("client", remote, "echo", "warm", 3000), "warm");

    peer.tell("rss");
    const std::string peerRssStart = peer.pumpReadLine(3000);
    std::mt19937 random(1);
    std::vector<LatencyHistogram> buckets(static_cast<size_t>(seconds / interval + 1));
    const long rssStart = residentKb();
    const long heapStart = heapInUseKb();
    long long requests = 0, notifications = 0, raws = 0, failures = 0;
    std::string payload;
    const long long start = nowMs();
    const long long end = start + seconds * 1000;
    while (nowMs() < end) {
        payload.assign(random() % 4097, static_cast<char>('a' + requests % 26));
        const auto sent = std::chrono::steady_clock::now();
        const std::string answer = requestAndRead("client", remote, "echo", payload, 3000);
        const long long us = std::chrono::duration_cast<std::chrono::microseconds>(
                                 std::chrono::steady_clock::now() - sent)
                                 .count();
        ++requests;
        if (answer != payload) ++failures;
        buckets[static_cast<size_t>((nowMs() - start) / 1000 / interval)].add(us);
        if (requests % 10 == 0) {
            unsigned int id = 0;
            if (apartment_node_write_notify(nullptr, "client", remote.c_str(), "echo",
                                            &payload[0],
                                            static_cast<unsigned int>(payload.size()), id) == 0)
                ++notifications;
            else
                ++failures;
        }
        if (requests % 5 == 0) {
            if (apartment_raw_write(nullptr, remote.c_str(), 7, &payload[0],
                                    static_cast<unsigned int>(payload.size())) == 0)
                ++raws;
            else
                ++failures;
        }
        apartment_dispatch_message(nullptr, deadlineIn(0));
    }
    const long long elapsed = nowMs() - start;
    const long rssEnd = residentKb();
    const long heapEnd = heapInUseKb();
    peer.tell("rss");
    const std::string peerRssEnd = peer.pumpReadLine(3000);
    peer.tell("stop");
    const std::string peerCounts = peer.pumpReadLine(5000);

    printf("[figure] soak %lld s: %lld requests, %lld notifications, %lld raw frames, %lld "
           "failures; client timers %d, offline notices %d\n",
           elapsed / 1000, requests, notifications, raws, failures, node->timers.load(),
           apartmentCb->offline.load());
    printf("[figure] soak peer counts (requests+notifications, raw frames, timers, offline): %s\n",
           peerCounts.c_str());
    printf("[figure] soak resident kB: this process %ld -> %ld (heap in use %ld -> %ld); peer "
           "%s -> %s\n",
           rssStart, rssEnd, heapStart, heapEnd, peerRssStart.c_str(), peerRssEnd.c_str());
    printf("[figure] soak round-trip latency per %ld s (payload 0..4096 bytes, us):\n", interval);
    for (size_t b = 0; b < buckets.size(); ++b) {
        const LatencyHistogram& h = buckets[b];
        if (h.total() == 0) continue;
        printf("[figure]   interval %2zu: n %6lld  p50 %5lld  p90 %5lld  p99 %6lld  p99.9 %6lld  "
               "max %7lld\n",
               b + 1, h.total(), h.percentile(0.5), h.percentile(0.9), h.percentile(0.99),
               h.percentile(0.999), h.max());
    }
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(apartmentCb->offline.load(), 0);
    EXPECT_LT(heapEnd - heapStart, 1024) << "heap in use grew by more than 1 MB";
    EXPECT_LT(rssEnd - rssStart, 8 * 1024);
    EXPECT_EQ(peer.wait(5000), 0);
    apartment_uninitialize();
    node->releaseRef();
    apartmentCb->releaseRef();
}
