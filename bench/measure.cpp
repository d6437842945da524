// Figures of apartments over time, between processes on 127.0.0.1: what an
// idle linked apartment costs, what repeated lives leave behind, and how a
// long mixed exchange holds up. Each prints "[figure]" lines; the tests
// assert the properties behind them (tests/test_hardening.cpp).
//
//   apartment_measure idle [seconds]               CPU of a linked apartment without
//                                                  traffic (default 30 s)
//   apartment_measure lifetime [lives]             resident memory and descriptors over
//                                                  repeated lives (default 200)
//   apartment_measure soak [seconds] [interval]    requests, notifications, raw frames,
//                                                  timers and heartbeats both ways; memory
//                                                  and round-trip percentiles per interval
//                                                  (default 600 s, every 60 s)
//
// Exit code 1 when a figure is out of bounds (idle above 1% of a core,
// memory growing across lives or the soak, a failed exchange).
#include <malloc.h>

#include <random>

#include "support.h"

using namespace aptest;

namespace {

// Heap bytes in use (all arenas): unlike resident memory, blind to what the
// allocator keeps cached.
long heapInUseKb() {
    const struct mallinfo2 info = mallinfo2();
    return static_cast<long>((info.uordblks + info.hblkhd) / 1024);
}

// This process's apartment with node "client" echoing, linked both ways to
// a standard peer (a request answered, a raw frame on the real-time link).
std::string startLinked(Peer& peer, CReference<Recorder>& node) {
    const std::string remote = peer.readLine(5000);
    if (remote.empty() || initialiseOnFreePort().empty()) return "";
    node = addNode("client", true);
    char raw[] = "rt";
    if (requestAndRead("client", remote, "echo", "hi", 3000) != "hi" ||
        !apartment_connect_remote(nullptr, remote.c_str(), true) ||
        apartment_raw_write(nullptr, remote.c_str(), 7, raw, 2) != 0)
        return "";
    return remote;
}

int idle(long seconds) {
    Peer peer([] { return servePeer(); });
    CReference<Recorder> node;
    if (startLinked(peer, node).empty()) return 2;
    pumpFor(300);
    // The host pumps as a host would: blocking up to 100 ms a call.
    const double before = processCpuMs();
    const long long start = nowMs();
    while (nowMs() - start < seconds * 1000) apartment_dispatch_message(nullptr, deadlineIn(100));
    const double share = (processCpuMs() - before) / static_cast<double>(nowMs() - start);
    std::printf("[figure] idle with links for %ld s: %.3f%% of a core\n", seconds, share * 100);
    apartment_uninitialize();
    return share < 0.01 ? 0 : 1;
}

// Each life starts an apartment, links it to a long-lived peer both ways,
// leaves timers, a heartbeat, links, nodes and an unanswered request in
// place, and uninitialises. Compared at a tenth of the lives and at the end.
int lifetime(int lives) {
    PeerOptions options;
    options.lifeMs = 3600 * 1000;
    Peer peer([options] { return servePeer(options); });
    const std::string remote = peer.readLine(5000);
    long rssEarly = 0;
    int descriptorsEarly = 0;
    const long long start = nowMs();
    for (int life = 1; life <= lives; ++life) {
        if (initialiseOnFreePort().empty()) return 2;
        CReference<Recorder> node = addNode("client");
        CReference<Recorder> apartment(new Recorder);
        apartment_set_callback(nullptr, apartment->apartment());
        char raw[64] = "raw";
        if (requestAndRead("client", remote, "echo", "life", 3000) != "life" ||
            !apartment_connect_remote(nullptr, remote.c_str(), true) ||
            apartment_raw_write(nullptr, remote.c_str(), 7, raw, sizeof raw) != 0)
            return 2;
        apartment_set_timer(nullptr, "client", 5, 5);
        apartment_set_timer(nullptr, nullptr, 5, 5);
        apartment_set_single_timer(nullptr, "client", 60000);
        apartment_keepalive_with(nullptr, remote.c_str(), 3, 10);
        unsigned int id = 0;
        apartment_node_write_request(nullptr, "client", remote.c_str(), "nobody", raw, 3, id);
        pumpFor(30);
        apartment_uninitialize();
        if (life == lives / 10) {
            rssEarly = residentKb();
            descriptorsEarly = openDescriptors();
        }
    }
    const long rssLate = residentKb();
    const int descriptorsLate = openDescriptors();
    std::printf("[figure] %d lives in %lld ms: resident %ld kB after life %d, %ld kB after life %d; "
                "descriptors %d and %d\n",
                lives, nowMs() - start, rssEarly, lives / 10, rssLate, lives, descriptorsEarly,
                descriptorsLate);
    return rssLate - rssEarly < 2048 && descriptorsLate == descriptorsEarly ? 0 : 1;
}

// Latencies of one interval in a fixed histogram (1 us steps below 1 ms,
// 10 us below 10 ms, 1 ms below 1 s), so that recording millions of them
// does not itself grow the memory the soak watches.
class LatencyHistogram {
public:
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
        for (size_t i = 0; i < SLOTS; ++i)
            if ((seen += m_counts[i]) > rank) return valueOf(i);
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
    std::vector<long long> m_counts = std::vector<long long>(SLOTS, 0);
    long long m_total = 0;
    long long m_max = 0;
};

// The far side of the soak: an echoing node with a timer, and a heartbeat
// towards the host; it counts what it hears (a recorder would keep it all,
// and grow), answers "rss" with its resident memory and reports its counts
// when told to stop.
int soakPeer() {
    const std::string hostUrl = Peer::readFromParent(10000);
    const std::string url = initialiseOnFreePort();
    if (url.empty()) return 10;
    size_t requests = 0, timers = 0, raws = 0, offline = 0;
    auto* node = new ApartmentHost::CNodeCallbackFn();
    node->request = [&requests](const ApartmentHost::NodeRequest& r) {
        ++requests;
        if (r.bRequireResponse)
            apartment_node_write_response(nullptr, "echo", r.strSourceApartmentUrl, r.strSourceNodeUrl,
                                          r.uintRequestId, REQUEST_OK,
                                          const_cast<void*>(r.pRequestBuffer), r.uintBufLen);
    };
    node->timer = [&timers](unsigned int) { ++timers; };
    apartment_node_create(nullptr, "echo");
    apartment_node_set_callback(nullptr, "echo", node);
    node->releaseRef();
    auto* apartment = new ApartmentHost::CApartmentCallbackFn();
    std::atomic<size_t> rawFrames{0};
    apartment->rawFrame = [&rawFrames](unsigned int, const void*, unsigned int) { ++rawFrames; };
    apartment->offline = [&offline](const char*) { ++offline; };
    apartment_set_callback(nullptr, apartment);
    apartment->releaseRef();
    apartment_set_timer(nullptr, "echo", 50, 50);
    Peer::tellParent(url);
    apartment_keepalive_with(nullptr, hostUrl.c_str(), 5, 200);
    for (std::string line; (line = Peer::readFromParent(0)) != "stop";) {
        if (line == "rss") Peer::tellParent(std::to_string(residentKb()));
        if (line.empty()) apartment_dispatch_message(nullptr, deadlineIn(20));
    }
    raws = rawFrames;
    Peer::tellParent(std::to_string(requests) + " " + std::to_string(raws) + " " +
                     std::to_string(timers) + " " + std::to_string(offline));
    apartment_uninitialize();
    return 0;
}

int soak(long seconds, long interval) {
    Peer peer([] { return soakPeer(); });
    const std::string url = initialiseOnFreePort();
    if (url.empty()) return 2;
    CReference<Recorder> node = addNode("client");
    CReference<Recorder> apartment(new Recorder);
    apartment_set_callback(nullptr, apartment->apartment());
    peer.tell(url);
    const std::string remote = peer.readLine(10000);
    if (remote.empty() || !apartment_keepalive_with(nullptr, remote.c_str(), 5, 200) ||
        !apartment_connect_remote(nullptr, remote.c_str(), true))
        return 2;
    apartment_set_timer(nullptr, "client", 100, 100);
    requestAndRead("client", remote, "echo", "warm", 3000);
    peer.tell("rss");
    const std::string peerRssStart = peer.pumpReadLine(3000);
    std::mt19937 random(1);
    std::vector<LatencyHistogram> buckets(static_cast<size_t>(seconds / interval + 1));
    const long rssStart = residentKb(), heapStart = heapInUseKb();
    long long requests = 0, notifications = 0, raws = 0, failures = 0;
    std::string payload;
    const long long start = nowMs();
    while (nowMs() < start + seconds * 1000) {
        payload.assign(random() % 4097, static_cast<char>('a' + requests % 26));
        const Clock::time_point sent = Clock::now();
        if (requestAndRead("client", remote, "echo", payload, 3000) != payload) ++failures;
        const long long us =
            std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - sent).count();
        ++requests;
        buckets[static_cast<size_t>((nowMs() - start) / 1000 / interval)].add(us);
        unsigned int id = 0;
        const unsigned int size = static_cast<unsigned int>(payload.size());
        if (requests % 10 == 0 && apartment_node_write_notify(nullptr, "client", remote.c_str(),
                                                              "echo", &payload[0], size, id) == 0)
            ++notifications;
        else if (requests % 10 == 0)
            ++failures;
        if (requests % 5 == 0 && apartment_raw_write(nullptr, remote.c_str(), 7, &payload[0], size) == 0)
            ++raws;
        else if (requests % 5 == 0)
            ++failures;
        apartment_dispatch_message(nullptr, deadlineIn(0));
    }
    const long rssEnd = residentKb(), heapEnd = heapInUseKb();
    peer.tell("rss");
    const std::string peerRssEnd = peer.pumpReadLine(3000);
    peer.tell("stop");
    const std::string peerCounts = peer.pumpReadLine(5000);
    std::printf("[figure] soak %lld s: %lld requests, %lld notifications, %lld raw frames, %lld "
                "failures; client timers %zu, offline notices %zu\n",
                (nowMs() - start) / 1000, requests, notifications, raws, failures,
                node->timers().size(), apartment->offline().size());
    std::printf("[figure] soak peer counts (requests+notifications, raw frames, timers, offline): "
                "%s\n", peerCounts.c_str());
    std::printf("[figure] soak resident kB: this process %ld -> %ld (heap in use %ld -> %ld); peer "
                "%s -> %s\n",
                rssStart, rssEnd, heapStart, heapEnd, peerRssStart.c_str(), peerRssEnd.c_str());
    std::printf("[figure] soak round-trip latency per %ld s (payload 0..4096 bytes, us):\n", interval);
    for (size_t b = 0; b < buckets.size(); ++b) {
        const LatencyHistogram& h = buckets[b];
        if (h.total() == 0) continue;
        std::printf("[figure]   interval %2zu: n %6lld  p50 %5lld  p90 %5lld  p99 %6lld  p99.9 %6lld  "
                    "max %7lld\n",
                    b + 1, h.total(), h.percentile(0.5), h.percentile(0.9), h.percentile(0.99),
                    h.percentile(0.999), h.max());
    }
    const bool held = failures == 0 && apartment->offline().empty() && heapEnd - heapStart < 1024 &&
                      rssEnd - rssStart < 8 * 1024 && peer.wait(5000) == 0;
    apartment_uninitialize();
    return held ? 0 : 1;
}

long argument(int argc, char** argv, int index, long fallback) {
    return argc > index && std::atol(argv[index]) > 0 ? std::atol(argv[index]) : fallback;
}

}  // namespace

int main(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const std::string what = argc > 1 ? argv[1] : "";
    if (what == "idle") return idle(argument(argc, argv, 2, 30));
    if (what == "lifetime") return lifetime(static_cast<int>(argument(argc, argv, 2, 200)));
    if (what == "soak") return soak(argument(argc, argv, 2, 600), argument(argc, argv, 3, 60));
    std::fprintf(stderr, "usage: %s idle [seconds] | lifetime [lives] | soak [seconds] [interval]\n",
                 argv[0]);
    return 2;
}
