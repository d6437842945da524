// Helpers for the multi-process checks: forking peers that always end and
// are always reaped, free ports, raw TCP peers that speak (or abuse) the
// frame protocol, pumping the process's apartment through the C interface,
// and CPU and memory readings of this process.
//
// One apartment per process: a test forks its peers before it initialises
// its own apartment, and a peer initialises its own after the fork. Every
// wait here is bounded.
#ifndef APARTMENT_TESTS_HARDEN_SUPPORT_H
#define APARTMENT_TESTS_HARDEN_SUPPORT_H

#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
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
#include "GroundKit/OS/OS_Clock.h"
#include "os_socket.h"

namespace harden {

inline long long nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

inline void sleepMs(long ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

// ---------------------------------------------------------------- processes

// A forked peer. The destructor kills and reaps it if the test did not, so
// a failed assertion never leaves a process behind.
class Peer {
public:
    Peer() = default;
    explicit Peer(const std::function<int()>& body) { start(body); }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;
    ~Peer() { kill(); }

    void start(const std::function<int()>& body) {
        int fds[2];
        int down[2];
        // A peer that has gone must not kill the test through its pipe.
        signal(SIGPIPE, SIG_IGN);
        if (pipe(fds) != 0) return;
        if (pipe(down) != 0) return;
        std::fflush(stdout);
        m_pid = fork();
        if (m_pid == 0) {
            close(fds[0]);
            close(down[1]);
            s_toParent = fds[1];
            s_fromParent = down[0];
            int rc = 99;
            rc = body();
            std::fflush(stdout);
            _exit(rc);
        }
        close(fds[1]);
        close(down[0]);
        m_fromChild = fds[0];
        m_toChild = down[1];
    }
    // One line to the child (see readFromParent).
    void tell(const std::string& line) {
        const std::string text = line + "\n";
        if (m_toChild >= 0 && write(m_toChild, text.data(), text.size()) < 0) return;
    }
    pid_t pid() const { return m_pid; }

    // Exit status once the peer ended within timeoutMs; -1 if it had to be
    // killed, -2 if it died of a signal.
    int wait(long timeoutMs) {
        if (m_pid <= 0) return m_status;
        const long long until = nowMs() + timeoutMs;
        for (;;) {
            int status = 0;
            const pid_t r = waitpid(m_pid, &status, WNOHANG);
            if (r == m_pid) {
                m_pid = -1;
                m_status = WIFEXITED(status) ? WEXITSTATUS(status) : -2;
                return m_status;
            }
            if (nowMs() >= until) {
                kill();
                m_status = -1;
                return m_status;
            }
            sleepMs(5);
        }
    }
    void kill() {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            int status = 0;
            waitpid(m_pid, &status, 0);
            m_pid = -1;
        }
        if (m_fromChild >= 0) close(m_fromChild);
        if (m_toChild >= 0) close(m_toChild);
        m_fromChild = -1;
        m_toChild = -1;
    }
    // A line the child wrote with tellParent, or "" after timeoutMs.
    std::string readLine(long timeoutMs) { return readLineFrom(m_fromChild, timeoutMs); }

    // In the child: a line the parent wrote with tell, or "" after timeoutMs.
    static std::string readFromParent(long timeoutMs) {
        return readLineFrom(s_fromParent, timeoutMs);
    }

    static std::string readLineFrom(int fd, long timeoutMs) {
        std::string line;
        const long long until = nowMs() + timeoutMs;
        while (fd >= 0) {
            // Lines arrive whole (one write each), so a zero wait still
            // returns a complete line once its first byte is there.
            const long left = std::max(0L, static_cast<long>(until - nowMs()));
            pollfd p{fd, POLLIN, 0};
            if (poll(&p, 1, static_cast<int>(left)) <= 0) break;
            char c;
            if (read(fd, &c, 1) != 1) break;
            if (c == '\n') return line;
            line += c;
        }
        return "";
    }

    // In the child: one line to the parent.
    static void tellParent(const std::string& line) {
        const std::string text = line + "\n";
        if (s_toParent >= 0 && write(s_toParent, text.data(), text.size()) < 0) _exit(98);
    }

private:
    pid_t m_pid = -1;
    int m_fromChild = -1;
    int m_toChild = -1;
    int m_status = -3;
    static inline int s_toParent = -1;
    static inline int s_fromParent = -1;
};

// ---------------------------------------------------------------- sockets

// A port that was free a moment ago (the kernel picked it for port 0).
inline unsigned short freePort() {
    const int fd = os_socket(AF_INET, SOCK_STREAM, 0, USE_DEFAULT);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = os_socket_address_from_text("127.0.0.1");
    address.sin_port = 0;
    unsigned short port = 0;
    if (os_socket_bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address, USE_DEFAULT) ==
        0) {
        socklen_t length = sizeof address;
        if (os_socket_get_sock_name(fd, reinterpret_cast<sockaddr*>(&address), &length,
                                    USE_DEFAULT) == 0)
            port = ntohs(address.sin_port);
    }
    os_socket_close(fd, USE_DEFAULT);
    return port;
}

inline std::string urlOf(unsigned short port) {
    return "tcp://127.0.0.1:" + std::to_string(port);
}

inline unsigned short portOf(const std::string& url) {
    const auto colon = url.rfind(':');
    return static_cast<unsigned short>(std::atoi(url.c_str() + colon + 1));
}

// Initialises this process's apartment on a free port; retries because
// another process may take the port between the probe and the bind.
inline std::string initialiseOnFreePort(bool passive = true) {
    for (int attempt = 0; attempt < 20; ++attempt) {
        const std::string url = urlOf(freePort());
        if (apartment_initialize(url.c_str(), passive)) return url;
    }
    return "";
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

inline timespec deadlineIn(long ms) { return OS::Clock::monotonicDeadline(ms); }

// Pumps this process's apartment until `done` holds or timeoutMs passed.
inline bool pumpUntil(const std::function<bool()>& done, long timeoutMs) {
    const long long until = nowMs() + timeoutMs;
    while (!done()) {
        if (nowMs() >= until) return false;
        apartment_dispatch_message(nullptr, deadlineIn(20));
    }
    return true;
}

inline void pumpFor(long ms) {
    pumpUntil([] { return false; }, ms);
}

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

// A responder peer: initialises on a free port, creates node "echo" that
// echoes, tells the parent its URL, and pumps until the parent closes the
// pipe or lifeMs passes.
inline int echoPeerBody(long lifeMs) {
    const std::string url = initialiseOnFreePort(true);
    if (url.empty()) return 10;
    NodeCallback* cb = createNode("echo");
    Peer::tellParent(url);
    pumpFor(lifeMs);
    apartment_uninitialize();
    cb->releaseRef();
    return 0;
}

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
