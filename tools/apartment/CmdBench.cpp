// bench: round-trip latency, notification rate and raw frame rate against
// a responder (our own serve child on 127.0.0.1 unless --remote is given).
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ApartmentApi.h"
#include "ApartmentHost.h"
#include "Commands.h"
#include "Output.h"
#include "Session.h"

namespace tool {

namespace {

const char BENCH_USAGE[] =
    "usage: apartment bench [--size 64,1024,16384] [--count N] [--duration S]\n"
    "                       [--remote URL] [--node NAME] [--timeout MS] [--json]\n"
    "                       [--threads N] [--unpaced] [--local URL] [--verbose]\n"
    "\n"
    "For each payload size: N request/response round trips (default 10000;\n"
    "median, p90, p99 and max in microseconds), N notifications (per second,\n"
    "until the responder has handled them all) and N raw frames over the\n"
    "real-time link (per second and MB/s, MB = 10^6 bytes, until the responder\n"
    "has counted them all). --threads N (N > 1) adds N threads notifying at\n"
    "once over the one link (N notifications in all, per second in sum).\n"
    "Floods keep at most 1 MiB unacknowledged\n"
    "(--unpaced: no limit, which measures the link's own flow control).\n"
    "--duration S bounds each measurement to S seconds instead (N then\n"
    "defaults to no limit). Without --remote a responder process (apartment\n"
    "serve) is started on 127.0.0.1. Raw rates need a responder\n"
    "that answers the _stats node (apartment serve does). Sizes: 1..67108864;\n"
    "raw frames are measured for sizes up to 102400 (the real-time limit).\n";

const char BENCH_NODE[] = "bench";
// The largest raw frame a real-time link carries.
const long MAX_RAW_SIZE = 102400;

// Unacknowledged bytes allowed in flight during the notification and raw
// floods. The library condemns a link whose send makes no progress for
// 100 ms; staying below the socket buffers means that a responder
// descheduled for a moment (on a busy machine) slows the flood instead of
// breaking its link.
const size_t IN_FLIGHT_BYTES = 1024 * 1024;
const size_t FRAME_OVERHEAD = 64;

struct Row {
    long size = 0;
    LatencySummary latency;
    double notifyPerSecond = 0;
    size_t notifications = 0;
    double threadsNotifyPerSecond = -1;  // -1: not measured
    double rawPerSecond = -1;  // -1: not measured
    double rawMBPerSecond = -1;
    size_t rawFrames = 0;
};

class Bench {
public:
    Bench(std::string remote, std::string node, long count, double duration, unsigned int timeoutMs,
          bool unpaced, long threads)
        : m_bUnpaced(unpaced),
          m_lThreads(threads),
          m_strRemote(std::move(remote)),
          m_strNode(std::move(node)),
          m_lCount(count),
          m_dDuration(duration),
          m_uintTimeoutMs(timeoutMs) {}

    Row run(long size) {
        Row row;
        row.size = size;
        std::string payload(static_cast<size_t>(size), 'x');
        for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<char>('a' + i % 26);
        m_response.assign(static_cast<size_t>(size) + 1, 0);

        const long warmUp = std::min<long>(200, std::max<long>(10, m_lCount / 20));
        for (long i = 0; i < warmUp; ++i) roundTrip(payload);

        std::vector<double> samples;
        {
            Progress progress("bench " + std::to_string(size) + " B round trips");
            const double start = monotonicSeconds();
            for (long i = 0; i < m_lCount && !expired(start) && !stopRequested(); ++i) {
                samples.push_back(roundTrip(payload) * 1e6);
                progress.update(static_cast<size_t>(i + 1), static_cast<size_t>(m_lCount));
            }
        }
        row.latency = summarise(samples);

        {
            Progress progress("bench " + std::to_string(size) + " B notifications");
            const double start = monotonicSeconds();
            size_t sent = 0;
            const size_t window = windowFor(size);
            std::string none;
            for (long i = 0; i < m_lCount && !expired(start) && !stopRequested(); ++i) {
                // The link keeps order: the answer to a request comes after
                // the responder has handled every notification before it.
                if (sent != 0 && sent % window == 0) roundTrip(none, 60000);
                unsigned int id = 0;
                if (apartment_node_write_notify(nullptr, BENCH_NODE, m_strRemote.c_str(),
                                                m_strNode.c_str(), &payload[0],
                                                static_cast<unsigned int>(size), id) != 0)
                    throw RuntimeError("cannot send a notification to " + m_strRemote);
                ++sent;
                progress.update(sent, static_cast<size_t>(m_lCount));
            }
            roundTrip(none, 60000);
            row.notifications = sent;
            row.notifyPerSecond = static_cast<double>(sent) / (monotonicSeconds() - start);
        }

        if (m_lThreads > 1 && !stopRequested()) measureThreads(payload, row);
        if (m_bStats && size <= MAX_RAW_SIZE) measureRaw(payload, row);
        return row;
    }

    // Whether the responder answers the counters node; raw rates need it.
    void probeStats() {
        unsigned long raw = 0;
        m_bStats = readRawCount(raw, 2000);
    }
    bool hasStats() const { return m_bStats; }

private:
    size_t windowFor(long size) const {
        if (m_bUnpaced) return static_cast<size_t>(-1);
        return std::max<size_t>(1, IN_FLIGHT_BYTES / (static_cast<size_t>(size) + FRAME_OVERHEAD));
    }

    bool expired(double start) const {
        return m_dDuration > 0 && monotonicSeconds() - start >= m_dDuration;
    }

    // One request and its response; seconds.
    double roundTrip(std::string& payload, int timeoutMs = -1) {
        const double start = monotonicSeconds();
        unsigned int id = 0;
        if (apartment_node_write_request(nullptr, BENCH_NODE, m_strRemote.c_str(),
                                         m_strNode.c_str(), payload.empty() ? nullptr : &payload[0],
                                         static_cast<unsigned int>(payload.size()), id) != 0)
            throw RuntimeError("cannot send a request to " + m_strRemote);
        int code = 0;
        unsigned int length = static_cast<unsigned int>(m_response.size());
        if (apartment_node_read_response(nullptr, BENCH_NODE, id, code, m_response.data(), length,
                                         timeoutMs < 0 ? static_cast<int>(m_uintTimeoutMs)
                                                       : timeoutMs) != 0)
            throw RuntimeError("no response from " + m_strRemote + "/" + m_strNode);
        return monotonicSeconds() - start;
    }

    // m_lCount notifications from m_lThreads threads at once over the one
    // link, each thread pacing itself with round trips of its own; one more
    // thread pumps, so that the others wait for their answers instead of
    // taking each other's messages.
    void measureThreads(std::string& payload, Row& row) {
        Progress progress("bench " + std::to_string(row.size) + " B notifications from " +
                          std::to_string(m_lThreads) + " threads");
        std::atomic<bool> pumping(true);
        std::atomic<bool> failed(false);
        std::atomic<bool> locked(false);
        std::thread pump([&] {
            locked = apartment_set_dispatch_enabled(nullptr, true);
            while (pumping) apartment_dispatch_message(nullptr, ApartmentHost::monotonicDeadline(10));
            apartment_set_dispatch_enabled(nullptr, false);
        });
        while (!locked && !failed) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        const size_t window = std::max<size_t>(1, windowFor(row.size) / static_cast<size_t>(m_lThreads));
        std::atomic<size_t> sent(0);
        const double start = monotonicSeconds();
        std::vector<std::thread> writers;
        for (long t = 0; t < m_lThreads; ++t) {
            const long share = m_lCount / m_lThreads + (t < m_lCount % m_lThreads ? 1 : 0);
            writers.emplace_back([&, share] {
                std::string none;
                try {
                    for (long i = 0; i < share && !failed && !expired(start) && !stopRequested(); ++i) {
                        if (i != 0 && static_cast<size_t>(i) % window == 0) roundTrip(none, 60000);
                        unsigned int id = 0;
                        if (apartment_node_write_notify(nullptr, BENCH_NODE, m_strRemote.c_str(),
                                                        m_strNode.c_str(), &payload[0],
                                                        static_cast<unsigned int>(payload.size()),
                                                        id) != 0) {
                            failed = true;
                            return;
                        }
                        ++sent;
                    }
                    roundTrip(none, 60000);
                } catch (const RuntimeError&) {
                    failed = true;
                }
            });
        }
        for (std::thread& w : writers) w.join();
        const double seconds = monotonicSeconds() - start;
        pumping = false;
        pump.join();
        if (failed) throw RuntimeError("notifications from threads to " + m_strRemote + " failed");
        row.threadsNotifyPerSecond = static_cast<double>(sent) / seconds;
    }

    bool readRawCount(unsigned long& raw, int timeoutMs) {
        unsigned int id = 0;
        if (apartment_node_write_request(nullptr, BENCH_NODE, m_strRemote.c_str(), STATS_NODE,
                                         nullptr, 0, id) != 0)
            return false;
        char text[256] = {0};
        int code = 0;
        unsigned int length = sizeof text - 1;
        if (apartment_node_read_response(nullptr, BENCH_NODE, id, code, text, length, timeoutMs) != 0)
            return false;
        text[std::min<unsigned int>(length, sizeof text - 1)] = 0;
        const char* field = std::strstr(text, "raw=");
        if (field == nullptr) return false;
        raw = std::strtoul(field + 4, nullptr, 10);
        return true;
    }

    void measureRaw(std::string& payload, Row& row) {
        unsigned long before = 0;
        if (!readRawCount(before, static_cast<int>(m_uintTimeoutMs))) return;
        Progress progress("bench " + std::to_string(row.size) + " B raw frames");
        const double start = monotonicSeconds();
        size_t sent = 0;
        const unsigned int length = static_cast<unsigned int>(payload.size());
        const size_t window = windowFor(row.size);
        unsigned long counted = before;
        for (long i = 0; i < m_lCount && !expired(start) && !stopRequested(); ++i) {
            while (sent - (counted - before) >= window) {
                // Asking costs the responder time too: give it a moment.
                std::this_thread::sleep_for(std::chrono::microseconds(100));
                if (!readRawCount(counted, static_cast<int>(m_uintTimeoutMs)))
                    throw RuntimeError("the responder stopped answering");
            }
            if (apartment_raw_write(nullptr, m_strRemote.c_str(), 7, &payload[0], length) != 0)
                throw RuntimeError("cannot send a raw frame to " + m_strRemote);
            ++sent;
            progress.update(sent, static_cast<size_t>(m_lCount));
        }
        // Raw frames travel on their own link: ask until all are counted.
        const double giveUp = monotonicSeconds() + 30;
        unsigned long now = counted;
        while (now < before + sent) {
            if (monotonicSeconds() > giveUp || !readRawCount(now, static_cast<int>(m_uintTimeoutMs)))
                throw RuntimeError("the responder counted " + std::to_string(now - before) +
                                   " of " + std::to_string(sent) + " raw frames");
        }
        const double seconds = monotonicSeconds() - start;
        row.rawFrames = sent;
        row.rawPerSecond = static_cast<double>(sent) / seconds;
        row.rawMBPerSecond = static_cast<double>(sent) * static_cast<double>(length) / seconds / 1e6;
    }

    bool m_bUnpaced;
    long m_lThreads;
    std::string m_strRemote;
    std::string m_strNode;
    long m_lCount;
    double m_dDuration;
    unsigned int m_uintTimeoutMs;
    bool m_bStats = false;
    std::vector<char> m_response;
};

void printTable(const std::string& remote, const std::vector<Row>& rows, bool stats) {
    say("apartment bench against %s (latency in microseconds; MB = 10^6 bytes)", remote.c_str());
    say("%8s %8s %9s %9s %9s %9s %12s %14s %12s %10s", "size", "count", "median", "p90", "p99",
        "max", "notify/s", "threads n/s", "raw/s", "raw MB/s");
    for (const Row& r : rows) {
        char raw[32] = "n/a", rawMB[32] = "n/a", threads[32] = "n/a";
        if (r.rawPerSecond >= 0) {
            std::snprintf(raw, sizeof raw, "%.0f", r.rawPerSecond);
            std::snprintf(rawMB, sizeof rawMB, "%.1f", r.rawMBPerSecond);
        }
        if (r.threadsNotifyPerSecond >= 0)
            std::snprintf(threads, sizeof threads, "%.0f", r.threadsNotifyPerSecond);
        say("%8ld %8zu %9.1f %9.1f %9.1f %9.1f %12.0f %14s %12s %10s", r.size, r.latency.count,
            r.latency.median, r.latency.p90, r.latency.p99, r.latency.max, r.notifyPerSecond,
            threads, raw, rawMB);
    }
    if (!stats) say("(raw frames not measured: the responder has no %s node)", STATS_NODE);
}

void printJson(const std::string& remote, const std::vector<Row>& rows) {
    std::string json = "{\"remote\":\"" + remote + "\",\"mb_divisor\":1000000,\"rows\":[";
    char item[512];
    for (size_t i = 0; i < rows.size(); ++i) {
        const Row& r = rows[i];
        std::snprintf(item, sizeof item,
                      "%s{\"size\":%ld,\"count\":%zu,\"median_us\":%.2f,\"p90_us\":%.2f,"
                      "\"p99_us\":%.2f,\"max_us\":%.2f,\"notifications\":%zu,"
                      "\"notify_per_s\":%.0f,\"threads_notify_per_s\":%s,"
                      "\"raw_frames\":%zu,\"raw_per_s\":%s,\"raw_mb_per_s\":%s}",
                      i == 0 ? "" : ",", r.size, r.latency.count, r.latency.median, r.latency.p90,
                      r.latency.p99, r.latency.max, r.notifications, r.notifyPerSecond,
                      r.threadsNotifyPerSecond < 0
                          ? "null"
                          : std::to_string(r.threadsNotifyPerSecond).c_str(),
                      r.rawFrames,
                      r.rawPerSecond < 0 ? "null" : std::to_string(r.rawPerSecond).c_str(),
                      r.rawMBPerSecond < 0 ? "null" : std::to_string(r.rawMBPerSecond).c_str());
        json += item;
    }
    json += "]}";
    say("%s", json.c_str());
}

}  // namespace

int runBench(const Words& words) {
    const Args args(words, {{"size", true}, {"count", true}, {"duration", true}, {"remote", true},
                            {"node", true}, {"timeout", true}, {"json", false}, {"local", true}, {"unpaced", false}, {"threads", true},
                            {"verbose", false}});
    if (args.help()) {
        std::fputs(BENCH_USAGE, stdout);
        return 0;
    }
    args.expectPositionals(0, 0, "");
    const std::vector<long> sizes = args.numberList("size", {64, 1024, 16384}, 1, 64L << 20);
    const long threads = args.number("threads", 1, 1, 64);
    const double duration = args.real("duration", 0, 0, 3600);
    const long count =
        args.number("count", duration > 0 ? 1000000000L : 10000L, 1, 1000000000L);
    const std::string node = args.text("node", "echo");
    const unsigned int timeoutMs = static_cast<unsigned int>(args.number("timeout", 5000, 1, 3600000));
    ApartmentUrl remote;
    if (args.has("remote")) remote = parseApartmentUrl(args.text("remote", ""), false);

    separateLibraryOutput(args.has("verbose"));
    installStopSignals();
    std::unique_ptr<ChildProcess> responder;
    std::string remoteText;
    if (args.has("remote")) {
        remoteText = remote.str();
    } else {
        responder.reset(new ChildProcess({"serve", "--url", "tcp://127.0.0.1:0", "--node", node,
                                          "--echo", "--quiet"}));
        remoteText = awaitListeningUrl(*responder, 10000);
        remote = parseApartmentUrl(remoteText, false);
    }
    std::vector<Row> rows;
    bool stats = false;
    {
        ApartmentSession session(clientUrlFor(remote, args));
        apartment_node_create(nullptr, BENCH_NODE);
        connectRemote(remoteText, false, timeoutMs);
        Bench bench(remoteText, node, count, duration, timeoutMs, args.has("unpaced"), threads);
        bench.probeStats();
        stats = bench.hasStats();
        if (stats) connectRemote(remoteText, true, timeoutMs);
        for (long size : sizes) {
            if (stopRequested()) break;
            rows.push_back(bench.run(size));
        }
    }
    if (args.has("json"))
        printJson(remoteText, rows);
    else
        printTable(remoteText, rows, stats);
    return stopRequested() ? 1 : 0;
}

}  // namespace tool
