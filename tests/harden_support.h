// Helpers for the multi-process checks, on top of process_support.h: forked
// peers, raw TCP peers that speak (or abuse) the frame protocol, recording
// callbacks, and CPU and memory readings of this process.
//
// One apartment per process: a test forks its peers before it initialises
// its own apartment, and a peer initialises its own after the fork. Every
// wait here is bounded.
#ifndef APARTMENT_TESTS_HARDEN_SUPPORT_H
#define APARTMENT_TESTS_HARDEN_SUPPORT_H

#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <malloc.h>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ApartmentApi.h"
#include "GroundKit/Base/Stub.h"
#include "os_socket.h"
#include "process_support.h"

namespace harden {

using namespace proc;

// A forked peer (see proc::Child); killed and reaped at the latest by its
// destructor.
class Peer : public Child {
public:
    Peer() = default;
    explicit Peer(const std::function<int()>& body) { start(body); }
    void start(const std::function<int()>& body) { fork(body); }
    // The next line from the peer, pumping this process's apartment while
    // waiting; "" after `ms`.
    std::string pumpReadLine(long ms) {
        std::string line;
        pumpUntil([&] { return !(line = readLine(0)).empty(); }, ms);
        return line;
    }
};

inline unsigned short portOf(const std::string& url) {
    const auto colon = url.rfind(':');
    return static_cast<unsigned short>(std::atoi(url.c_str() + colon + 1));
}

// A blocking client socket connected to 127.0.0.1:port, or -1. The
// platform layer makes sockets non-blocking; peers here want plain calls.
inline int rawConnect(unsigned short port) {
    const int fd = os_socket(AF_INET, SOCK_STREAM, 0, USE_DEFAULT);
    if (fd < 0) return -1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = os_socket_address_from_text("127.0.0.1");
    address.sin_port = htons(port);
    os_socket_connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address, USE_DEFAULT);
    int error = 0;
    if (os_socket_writable(fd, 2000, &error, USE_DEFAULT) == 0) {
        os_socket_close(fd, USE_DEFAULT);
        return -1;
    }
    socklen_t length = sizeof error;
    os_socket_get_sock_opt(fd, SOL_SOCKET, SO_ERROR, &error, &length, USE_DEFAULT);
    if (error != 0) {
        os_socket_close(fd, USE_DEFAULT);
        return -1;
    }
    return fd;
}

// A listener that never accepts: bound to every address of this machine
// with a backlog of 0 and its queue filled by connections of its own, so
// that further attempts go unanswered and a connect to it waits out its
// whole time-out. Every 127.0.0.x reaches it, so url(x) names as many
// distinct unreachable apartments as a test needs. Closed with the object.
class StalledListener {
public:
    StalledListener() {
        m_listener = os_socket(AF_INET, SOCK_STREAM, 0, USE_DEFAULT);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = os_socket_address_from_text("0.0.0.0");
        socklen_t length = sizeof address;
        if (m_listener < 0 ||
            os_socket_bind(m_listener, reinterpret_cast<sockaddr*>(&address), sizeof address,
                           USE_DEFAULT) != 0 ||
            os_socket_listen(m_listener, 0, USE_DEFAULT) != 0 ||
            os_socket_get_sock_name(m_listener, reinterpret_cast<sockaddr*>(&address), &length,
                                    USE_DEFAULT) != 0)
            return;
        m_port = ntohs(address.sin_port);
        // Connect until one attempt stays unanswered: the queue is full.
        for (int i = 0; i < 8; ++i) {
            const int fd = os_socket(AF_INET, SOCK_STREAM, 0, USE_DEFAULT);
            if (fd < 0) return;
            m_fillers.push_back(fd);
            fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
            sockaddr_in target{};
            target.sin_family = AF_INET;
            target.sin_addr.s_addr = os_socket_address_from_text("127.0.0.1");
            target.sin_port = htons(m_port);
            os_socket_connect(fd, reinterpret_cast<sockaddr*>(&target), sizeof target,
                              USE_DEFAULT);
            int error = 0;
            if (os_socket_writable(fd, 300, &error, USE_DEFAULT) == 0) {
                m_full = true;
                return;
            }
        }
    }
    ~StalledListener() {
        for (int fd : m_fillers) os_socket_close(fd, USE_DEFAULT);
        if (m_listener >= 0) os_socket_close(m_listener, USE_DEFAULT);
    }
    StalledListener(const StalledListener&) = delete;
    StalledListener& operator=(const StalledListener&) = delete;

    // False when the listener could not be set up or its queue not filled.
    bool ready() const { return m_full; }
    std::string url(int host = 1) const {
        return "tcp://127.0.0." + std::to_string(host) + ":" + std::to_string(m_port);
    }

private:
    int m_listener = -1;
    unsigned short m_port = 0;
    bool m_full = false;
    std::vector<int> m_fillers;
};

// Writes all bytes, waiting for room up to timeoutMs in total.
inline bool sendAll(int fd, const void* data, size_t size, long timeoutMs = 2000) {
    const char* p = static_cast<const char*>(data);
    const long long until = nowMs() + timeoutMs;
    while (size > 0) {
        const int n = os_socket_send(fd, p, static_cast<int>(size), MSG_NOSIGNAL, USE_DEFAULT);
        if (n > 0) {
            p += n;
            size -= static_cast<size_t>(n);
            continue;
        }
        if (nowMs() >= until) return false;
        int error = 0;
        os_socket_writable(fd, 50, &error, USE_DEFAULT);
    }
    return true;
}

inline void putBigEndian(std::vector<unsigned char>& out, unsigned int value) {
    out.push_back(static_cast<unsigned char>(value >> 24));
    out.push_back(static_cast<unsigned char>(value >> 16));
    out.push_back(static_cast<unsigned char>(value >> 8));
    out.push_back(static_cast<unsigned char>(value));
}

inline std::vector<unsigned char> frameHeader(unsigned int type, unsigned int size) {
    std::vector<unsigned char> out;
    putBigEndian(out, type);
    putBigEndian(out, size);
    return out;
}

// A whole connection frame announcing `url` on a link of the given class.
inline std::vector<unsigned char> connectionFrame(const std::string& url, bool rt) {
    std::vector<unsigned char> out = frameHeader(0, 130);
    std::vector<unsigned char> block(130, 0);
    block[0] = rt ? 1 : 0;
    std::memcpy(block.data() + 1, url.data(), std::min<size_t>(url.size(), 128));
    out.insert(out.end(), block.begin(), block.end());
    return out;
}

// ---------------------------------------------------------------- apartment

// A node callback whose behaviour the test supplies. Records offline
// notices; answers requests with `onRequest` (by default: echo the payload).
class NodeCallback : public TRootStub<IApartmentNodeCallback> {
public:
    std::function<void(const char* srcUrl, const char* srcNode, unsigned int id, const void* data,
                       unsigned int size, bool needsAnswer)>
        onRequest;
    std::string nodeName;

    void onTimer(unsigned int) override { ++timers; }
    void onApartmentOffline(const char* url) override {
        std::lock_guard<std::mutex> lock(mutex);
        offline.push_back(url != nullptr ? url : "");
    }
    void onRequestReceived(const char* srcUrl, const char* srcNode, const char*, const char*,
                           unsigned int id, const void* data, unsigned int size,
                           bool needsAnswer) override {
        ++requests;
        if (onRequest) {
            onRequest(srcUrl, srcNode, id, data, size, needsAnswer);
            return;
        }
        if (needsAnswer)
            apartment_node_write_response(nullptr, nodeName.c_str(), srcUrl, srcNode, id,
                                          REQUEST_OK, const_cast<void*>(data), size);
    }
    bool heardOffline(const std::string& url) {
        std::lock_guard<std::mutex> lock(mutex);
        for (const auto& u : offline)
            if (url.empty() || u == url) return true;
        return false;
    }
    size_t offlineCount() {
        std::lock_guard<std::mutex> lock(mutex);
        return offline.size();
    }

    std::mutex mutex;
    std::vector<std::string> offline;
    std::atomic<int> timers{0};
    std::atomic<int> requests{0};
};

// An apartment callback that counts what reaches it.
class ApartmentCallback : public TRootStub<IApartmentCallback> {
public:
    void onTimer(unsigned int) override { ++timers; }
    void onApartmentOffline(const char*) override { ++offline; }
    void onRawFrameReceived(unsigned int, const void*, unsigned int size) override {
        ++rawFrames;
        unsigned int seen = largestRaw.load();
        while (size > seen && !largestRaw.compare_exchange_weak(seen, size)) {
        }
    }
    std::atomic<int> timers{0};
    std::atomic<int> offline{0};
    std::atomic<int> rawFrames{0};
    std::atomic<unsigned int> largestRaw{0};
};

// Creates a node with a NodeCallback installed; the callback's reference is
// the library's from then on, and the returned pointer stays valid while
// the apartment lives (the test keeps one reference of its own).
inline NodeCallback* createNode(const char* name) {
    apartment_node_create(nullptr, name);
    NodeCallback* cb = new NodeCallback;
    cb->nodeName = name;
    apartment_node_set_callback(nullptr, name, cb);
    return cb;  // the creator's reference: release after uninitialise
}

// Sends one request and reads its answer, the requester pumping itself.
// Returns the answer's bytes, or "<error n>".
inline std::string requestAndRead(const char* node, const std::string& remoteUrl,
                                  const char* remoteNode, const std::string& payload,
                                  int timeoutMs) {
    unsigned int id = 0;
    int rc = apartment_node_write_request(nullptr, node, remoteUrl.c_str(), remoteNode,
                                          const_cast<char*>(payload.data()),
                                          static_cast<unsigned int>(payload.size()), id);
    if (rc != 0) return "<write " + std::to_string(rc) + ">";
    int code = 0;
    unsigned int size = 0;
    rc = apartment_node_read_response(nullptr, node, id, code, nullptr, size, timeoutMs);
    if (rc != 0) return "<read " + std::to_string(rc) + ">";
    // Never a null buffer here, not even for an empty answer: a null buffer
    // only asks for the size and leaves the response stored.
    std::string answer(size + 1, '\0');
    rc = apartment_node_read_response(nullptr, node, id, code, &answer[0], size, 0);
    if (rc != 0) return "<copy " + std::to_string(rc) + ">";
    answer.resize(size);
    return answer;
}

// A responder peer: an echo apartment on `port` (0: any free port) that
// tells the parent its URL and pumps until the parent writes a line or
// `lifeMs` pass. With `answer` false its node swallows requests.
inline int echoPeerBody(long lifeMs, unsigned short port = 0, bool answer = true) {
    std::string url;
    if (port != 0) {
        url = urlOf(port);
        bool up = false;
        for (int i = 0; i < 40 && !up; ++i) {  // the old owner may still hold it
            up = apartment_initialize(url.c_str(), true);
            if (!up) sleepMs(50);
        }
        if (!up) return 10;
    } else {
        url = initialiseOnFreePort(true);
        if (url.empty()) return 10;
    }
    NodeCallback* cb = createNode("echo");
    if (!answer) cb->onRequest = [](const char*, const char*, unsigned int, const void*,
                                    unsigned int, bool) {};
    Peer::tellParent(url);
    const long long until = nowMs() + lifeMs;
    while (nowMs() < until && Peer::readFromParent(0).empty())
        apartment_dispatch_message(nullptr, deadlineIn(20));
    apartment_uninitialize();
    cb->releaseRef();
    return 0;
}

// A thread that owns dispatching for this process's apartment (dispatch
// enabled for it) until destroyed; writers on other threads then wait for
// their responses.
class DispatchThread {
public:
    DispatchThread()
        : m_thread([this] {
              m_locked = apartment_set_dispatch_enabled(nullptr, true);
              m_started = true;
              while (m_pumping) apartment_dispatch_message(nullptr, deadlineIn(20));
              apartment_set_dispatch_enabled(nullptr, false);
          }) {
        while (!m_started) sleepMs(1);
    }
    ~DispatchThread() { stop(); }
    bool locked() const { return m_locked; }
    void stop() {
        m_pumping = false;
        if (m_thread.joinable()) m_thread.join();
    }

private:
    std::atomic<bool> m_pumping{true};
    std::atomic<bool> m_started{false};
    std::atomic<bool> m_locked{false};
    std::thread m_thread;
};

// A well-formed requester peer: reads the host's URL from the parent,
// starts its own apartment, sends "ping" to the host's "echo" node and
// reports "<answer> <ms>" to the parent. Exit 0 when answered.
inline int requesterPeerBody(int timeoutMs = 4000) {
    const std::string hostUrl = Peer::readFromParent(10000);
    if (hostUrl.empty()) return 10;
    const std::string url = initialiseOnFreePort(true);
    if (url.empty()) return 11;
    NodeCallback* cb = createNode("client");
    const long long start = nowMs();
    const std::string answer = requestAndRead("client", hostUrl, "echo", "ping", timeoutMs);
    Peer::tellParent(answer + " " + std::to_string(nowMs() - start));
    apartment_uninitialize();
    cb->releaseRef();
    return answer == "ping" ? 0 : 1;
}

// The URL a raw peer announces: nothing listens there, so the host can
// only reach it over the link the peer opened.
inline const std::string kGhost = "tcp://127.0.0.1:9";

// In a forked raw peer: reads the host's URL from the parent, connects and
// announces `ghost` on a link of the given class, then gives the host
// `settleMs` to file the link. The socket, or minus the exit code to give.
inline int connectAs(const std::string& ghost, bool rt, std::string& hostUrl,
                     long settleMs = 300) {
    hostUrl = Peer::readFromParent(5000);
    const int fd = rawConnect(portOf(hostUrl));
    if (fd < 0) return -11;
    const auto hello = connectionFrame(ghost, rt);
    if (!sendAll(fd, hello.data(), hello.size())) return -12;
    sleepMs(settleMs);
    return fd;
}

// A request frame (header and payload) as a foreign peer would write it.
inline std::vector<unsigned char> requestFrame(const std::string& srcUrl, const std::string& srcNode,
                                               const std::string& dstUrl,
                                               const std::string& dstNode, unsigned int id,
                                               bool needsAnswer, const std::string& data) {
    std::vector<unsigned char> payload;
    for (const std::string* text : {&srcUrl, &srcNode, &dstUrl, &dstNode}) {
        putBigEndian(payload, static_cast<unsigned int>(text->size()));
        payload.insert(payload.end(), text->begin(), text->end());
    }
    putBigEndian(payload, id);
    payload.push_back(needsAnswer ? 1 : 0);
    payload.insert(payload.end(), data.begin(), data.end());
    std::vector<unsigned char> out = frameHeader(1, static_cast<unsigned int>(payload.size()));
    out.insert(out.end(), payload.begin(), payload.end());
    return out;
}

// True in a build with a sanitizer: its runtime reserves far more address
// space than any limit a test could set, so such a limit cannot be tried.
constexpr bool underSanitizer() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
    return true;
#endif
#endif
    return false;
}

// ---------------------------------------------------------------- readings

// Open descriptors of this process.
inline int openDescriptors() {
    int count = 0;
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) return -1;
    while (dirent* entry = readdir(dir))
        if (entry->d_name[0] != '.') ++count;
    closedir(dir);
    return count;
}

// CPU time (user + system) this process used, in milliseconds.
inline double processCpuMs() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_utime.tv_sec * 1000.0 + usage.ru_utime.tv_usec / 1000.0 +
           usage.ru_stime.tv_sec * 1000.0 + usage.ru_stime.tv_usec / 1000.0;
}

// CPU ticks of every thread of this process, by thread id.
inline std::vector<std::pair<int, long>> threadTicks() {
    std::vector<std::pair<int, long>> out;
    DIR* dir = opendir("/proc/self/task");
    if (dir == nullptr) return out;
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.') continue;
        const std::string path = std::string("/proc/self/task/") + entry->d_name + "/stat";
        FILE* f = std::fopen(path.c_str(), "r");
        if (f == nullptr) continue;
        char buffer[1024] = {0};
        const size_t n = std::fread(buffer, 1, sizeof buffer - 1, f);
        std::fclose(f);
        buffer[n] = 0;
        // Fields after the command name (which may hold blanks) start at ')'.
        const char* p = std::strrchr(buffer, ')');
        if (p == nullptr) continue;
        long utime = 0, stime = 0;
        char state;
        int skip;
        unsigned long uskip;
        if (std::sscanf(p + 2, "%c %d %d %d %d %d %lu %lu %lu %lu %lu %ld %ld", &state, &skip,
                        &skip, &skip, &skip, &skip, &uskip, &uskip, &uskip, &uskip, &uskip,
                        &utime, &stime) == 13)
            out.emplace_back(std::atoi(entry->d_name), utime + stime);
    }
    closedir(dir);
    return out;
}

// The busiest thread's share of one core over a window (0..1), and the
// whole process's, while `during` runs for windowMs.
struct CpuShare {
    double busiestThread = 0;
    double process = 0;
};
inline CpuShare measureCpu(long windowMs, const std::function<void(long)>& during) {
    const auto before = threadTicks();
    const double cpuBefore = processCpuMs();
    const long long start = nowMs();
    during(windowMs);
    const double elapsed = static_cast<double>(nowMs() - start);
    const auto after = threadTicks();
    CpuShare share;
    share.process = (processCpuMs() - cpuBefore) / elapsed;
    const double tickMs = 1000.0 / static_cast<double>(sysconf(_SC_CLK_TCK));
    for (const auto& a : after)
        for (const auto& b : before)
            if (a.first == b.first)
                share.busiestThread =
                    std::max(share.busiestThread, (a.second - b.second) * tickMs / elapsed);
    return share;
}

// Heap bytes in use (all arenas), unlike resident memory blind to what
// the allocator keeps cached.
inline long heapInUseKb() {
    const struct mallinfo2 info = mallinfo2();
    return static_cast<long>((info.uordblks + info.hblkhd) / 1024);
}

// Resident memory of this process in kilobytes.
inline long residentKb() {
    FILE* f = std::fopen("/proc/self/statm", "r");
    if (f == nullptr) return -1;
    long pages = 0, resident = 0;
    if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = -1;
    std::fclose(f);
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// Long checks run only when APARTMENT_LONG_TESTS is set to a non-empty
// value other than 0.
inline bool longChecksEnabled() {
    const char* v = std::getenv("APARTMENT_LONG_TESTS");
    return v != nullptr && *v != 0 && std::strcmp(v, "0") != 0;
}

}  // namespace harden

#endif
