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
//   apartment_measure flood [seconds] [per-message-ms]
//                                                  a host that spends per-message-ms on
//                                                  each message (default 8 s, 5 ms), flooded
//                                                  by a peer writing 64 KiB notifications as
//                                                  fast as the library lets it: the host's
//                                                  peak and final resident memory, what the
//                                                  sender wrote, how many of its writes
//                                                  failed (cut off), its rate. The flood stops
//                                                  early once the host holds 3 GiB.
//   apartment_measure late-answers [count] [size] [timeout-ms] [delay-ms]
//                                                  count requests, each read for timeout-ms,
//                                                  answered after delay-ms with size bytes,
//                                                  then 1 s of pumping (default 3000, 32768,
//                                                  2 ms, 30 ms): this process's memory growth
//   apartment_measure stray-answers [count] [size] a raw peer sends count responses of size
//                                                  bytes to ids never written (default 2000,
//                                                  65536): memory growth once dispatched
//   apartment_measure timer-throw                  ticks of a 50 ms node timer in the second
//                                                  after its first callback threw
//
// Exit code 1 when a figure of idle, lifetime or soak is out of bounds
// (idle above 1% of a core, memory growing across lives or the soak, a
// failed exchange). The last four report without judging: 0, or 2 when
// the harness itself failed.
#include <malloc.h>

#include <deque>
#include <random>
#include <stdexcept>

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

// A size field of /proc/self/status in kB ("VmHWM": the peak resident
// size), or -1.
long statusKb(const char* field) {
    FILE* f = std::fopen("/proc/self/status", "r");
    if (f == nullptr) return -1;
    long kb = -1;
    const size_t length = std::strlen(field);
    char line[256];
    while (kb < 0 && std::fgets(line, sizeof line, f) != nullptr)
        if (std::strncmp(line, field, length) == 0 && line[length] == ':')
            kb = std::atol(line + length + 1);
    std::fclose(f);
    return kb;
}
double mib(long kb) { return static_cast<double>(kb) / 1024; }

// Creates node `name` in this process's apartment and hands it `node`, a
// new callback whose members are set (the library keeps its own reference).
void addNodeFn(const char* name, ApartmentHost::CNodeCallbackFn* node) {
    apartment_node_create(nullptr, name);
    apartment_node_set_callback(nullptr, name, node);
    node->releaseRef();
}

// The flooding side: 64 KiB notifications to the host's node "sink" until
// told to quit (or well after the flood's time, should the parent be gone).
// A failed write, such as one on a link that a stalled send condemned, is
// counted, and the next write opens the link again. Reports "<written>
// <failed> <ms>".
int floodPeer(long seconds) {
    const std::string hostUrl = Peer::readFromParent(10000);
    if (hostUrl.empty() || initialiseOnFreePort().empty()) return 10;
    apartment_node_create(nullptr, "flood");
    std::vector<char> payload(64 * 1024, 'f');
    long long written = 0, failed = 0;
    const long long start = nowMs();
    while (!Peer::toldToQuit() && nowMs() - start < (seconds + 30) * 1000) {
        unsigned int id = 0;
        if (apartment_node_write_notify(nullptr, "flood", hostUrl.c_str(), "sink", payload.data(),
                                        static_cast<unsigned int>(payload.size()), id) == 0) {
            ++written;
        } else {
            ++failed;
            sleepMs(1);  // a refused open fails at once: not thousands of times
        }
    }
    Peer::tellParent(std::to_string(written) + " " + std::to_string(failed) + " " +
                     std::to_string(nowMs() - start));
    apartment_uninitialize();
    return 0;
}

// This process is the host, so that its resident memory is the figure
// (VmHWM, the kernel's own peak, as sampling could miss a spike).
int flood(long seconds, long perMessageMs) {
    Peer peer([seconds] { return floodPeer(seconds); });
    const std::string url = initialiseOnFreePort();
    if (url.empty()) return 2;
    long long dispatched = 0;
    auto* sink = new ApartmentHost::CNodeCallbackFn();
    sink->request = [&dispatched, perMessageMs](const ApartmentHost::NodeRequest&) {
        ++dispatched;
        sleepMs(perMessageMs);
    };
    addNodeFn("sink", sink);
    const long rssStart = residentKb(), capKb = 3L << 20;
    peer.tell(url);
    const long long start = nowMs();
    bool capped = false;
    while (nowMs() - start < seconds * 1000 && !(capped = residentKb() > capKb))
        apartment_dispatch_message(nullptr, deadlineIn(20));
    const long long floodMs = nowMs() - start;
    peer.tell("quit");
    long long written = 0, failed = 0, senderMs = 0;
    if (std::sscanf(peer.pumpReadLine(5000).c_str(), "%lld %lld %lld", &written, &failed,
                    &senderMs) != 3 || peer.wait(5000) != 0)
        return 2;
    const long rssEnd = residentKb(), peakKb = statusKb("VmHWM");
    std::printf("[figure] flood %lld ms, host spending %ld ms per message%s: peak RSS %.1f MiB "
                "(VmHWM), RSS %.1f MiB at the end (%.1f MiB before)\n",
                floodMs, perMessageMs, capped ? ", stopped at the 3 GiB cap" : "", mib(peakKb),
                mib(rssEnd), mib(rssStart));
    const double senderS = static_cast<double>(std::max(1LL, senderMs)) / 1000;
    std::printf("[figure] flood sender: %lld notifications of 64 KiB written in %lld ms (%.0f per "
                "s, %.1f MiB/s, MiB = 2^20 bytes), %lld writes failed (cut off); host dispatched "
                "%lld\n",
                written, senderMs, static_cast<double>(written) / senderS,
                static_cast<double>(written) / 16 / senderS, failed, dispatched);
    apartment_uninitialize();
    return 0;
}

// The late responder: node "late" keeps each request and answers it with
// `size` bytes once `delayMs` have passed, from its pump loop.
int latePeer(unsigned int size, long delayMs) {
    const std::string url = initialiseOnFreePort();
    if (url.empty()) return 10;
    struct Due {
        long long at;
        std::string apartment, node;
        unsigned int id;
    };
    std::deque<Due> due;
    auto* late = new ApartmentHost::CNodeCallbackFn();
    late->request = [&due, delayMs](const ApartmentHost::NodeRequest& r) {
        if (r.bRequireResponse)
            due.push_back({nowMs() + delayMs, r.strSourceApartmentUrl, r.strSourceNodeUrl,
                           r.uintRequestId});
    };
    addNodeFn("late", late);
    std::vector<char> answer(size, 'a');
    Peer::tellParent(url);
    for (const long long until = nowMs() + 600000; nowMs() < until && !Peer::toldToQuit();) {
        apartment_dispatch_message(nullptr, deadlineIn(1));
        for (; !due.empty() && due.front().at <= nowMs(); due.pop_front())
            apartment_node_write_response(nullptr, "late", due.front().apartment.c_str(),
                                          due.front().node.c_str(), due.front().id, REQUEST_OK,
                                          answer.data(), size);
    }
    apartment_uninitialize();
    return 0;
}

int lateAnswers(int count, unsigned int size, int timeoutMs, long delayMs) {
    Peer peer([size, delayMs] { return latePeer(size, delayMs); });
    const std::string remote = peer.readLine(5000);
    if (remote.empty() || initialiseOnFreePort().empty()) return 2;
    CReference<Recorder> node = addNode("client");
    if (requestAndRead("client", remote, "late", "warm", 3000).size() != size) return 2;
    const long rssStart = residentKb(), heapStart = heapInUseKb();
    int answered = 0;
    for (int i = 0; i < count; ++i)
        answered += requestAndRead("client", remote, "late", "late?", timeoutMs).size() == size;
    pumpFor(1000);
    const long rssEnd = residentKb(), heapEnd = heapInUseKb();
    std::printf("[figure] late answers: %d requests read for %d ms each, answered after %ld ms "
                "with %u bytes; %d reads got their answer; after 1 s more of pumping resident "
                "+%.1f MiB, heap in use +%.1f MiB\n",
                count, timeoutMs, delayMs, size, answered, mib(rssEnd - rssStart),
                mib(heapEnd - heapStart));
    const int rc = peer.stop();
    apartment_uninitialize();
    return rc == 0 ? 0 : 2;
}

// A raw peer that answers requests nobody wrote: `count` responses of
// `size` bytes to the host's node "client", then a notification to that
// node, which marks the end (the frames of one link are dispatched in
// order).
int strayPeer(int count, unsigned int size) {
    std::string hostUrl;
    const int fd = connectAs(kGhost, false, hostUrl);
    if (fd < 0) return -fd;
    const std::string data(size, 's');
    for (int i = 0; i < count; ++i) {
        const std::vector<char> payload = CApartmentFrameCodec::buildResponsePayload(
            kGhost, "peer", hostUrl.c_str(), "client", 1000000u + static_cast<unsigned int>(i),
            REQUEST_OK, data.data(), size);
        if (!sendAll(fd, frame(APARTMENT_RESPONSE_FRAME, payload.data(), payload.size()), 10000))
            return 13;
    }
    if (!sendAll(fd, requestFrame(kGhost, hostUrl, "client", 1, false, "end"), 10000)) return 14;
    for (const long long until = nowMs() + 60000; nowMs() < until && !Peer::toldToQuit();)
        sleepMs(10);
    os_socket_close(fd, USE_DEFAULT);
    return 0;
}

int strayAnswers(int count, unsigned int size) {
    Peer peer([count, size] { return strayPeer(count, size); });
    const std::string url = initialiseOnFreePort();
    if (url.empty()) return 2;
    CReference<Recorder> node = addNode("client");
    const long rssStart = residentKb(), heapStart = heapInUseKb();
    peer.tell(url);
    const long long start = nowMs();
    const bool ended = pumpUntil([&] { return node->requestCount() > 0; }, 60000);
    const long rssEnd = residentKb(), heapEnd = heapInUseKb();
    std::printf("[figure] stray answers: %d responses of %u bytes to ids never written, %s in %lld "
                "ms; resident +%.1f MiB, heap in use +%.1f MiB\n",
                count, size, ended ? "all dispatched" : "NOT all dispatched", nowMs() - start,
                mib(rssEnd - rssStart), mib(heapEnd - heapStart));
    const int rc = peer.stop();
    apartment_uninitialize();
    return ended && rc == 0 ? 0 : 2;
}

int timerThrow() {
    if (initialiseOnFreePort().empty()) return 2;
    int ticks = 0;
    auto* ticker = new ApartmentHost::CNodeCallbackFn();
    ticker->timer = [&ticks](unsigned int) {
        if (++ticks == 1) throw std::runtime_error("the first tick throws");
    };
    addNodeFn("ticker", ticker);
    apartment_set_timer(nullptr, "ticker", 50, 50);
    if (!pumpUntil([&] { return ticks > 0; }, 2000)) return 2;
    pumpFor(1000);
    std::printf("[figure] timer-throw: a 50 ms node timer whose first callback threw ticked %d "
                "times in the next second (%d in all)\n",
                ticks - 1, ticks);
    apartment_uninitialize();
    return 0;
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
    if (what == "flood") return flood(argument(argc, argv, 2, 8), argument(argc, argv, 3, 5));
    if (what == "late-answers")
        return lateAnswers(static_cast<int>(argument(argc, argv, 2, 3000)),
                           static_cast<unsigned int>(argument(argc, argv, 3, 32768)),
                           static_cast<int>(argument(argc, argv, 4, 2)),
                           argument(argc, argv, 5, 30));
    if (what == "stray-answers")
        return strayAnswers(static_cast<int>(argument(argc, argv, 2, 2000)),
                            static_cast<unsigned int>(argument(argc, argv, 3, 65536)));
    if (what == "timer-throw") return timerThrow();
    std::fprintf(stderr,
                 "usage: %s idle [seconds] | lifetime [lives] | soak [seconds] [interval] | flood "
                 "[seconds] [per-message-ms] | late-answers [count] [size] [timeout-ms] "
                 "[delay-ms] | stray-answers [count] [size] | timer-throw\n",
                 argv[0]);
    return 2;
}
