// The one harness of the tests (and of the measurements in bench/): a
// clock, child processes that always end and are always reaped, a line
// protocol between them, peers that speak (or abuse) the frame protocol, one
// recorder of callbacks, and bounded pumping of an apartment, through the C
// interface or, for the in-process tests, through IApartment.
//
// One apartment per process: a test forks its peers before it initialises
// its own apartment (so that a child never inherits the library's threads or
// state), and a peer initialises its own after the fork. Every wait here is
// bounded. Nothing here depends on GoogleTest.
#ifndef APARTMENT_TESTS_SUPPORT_H
#define APARTMENT_TESTS_SUPPORT_H

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ApartmentApi.h"
#include "ApartmentFrame.h"
#include "ApartmentFrameCodec.h"
#include "ApartmentHelper.h"
#include "ApartmentHost.h"
#include "ApartmentManager.h"
#include "ApartmentTimerManager.h"
#include "GroundKit/Base/Stub.h"
#include "GroundKit/OS/OS_Clock.h"
#include "GroundKit/Reference/Reference.h"
#include "IApartmentEx.h"
#include "IApartmentNode.h"
#include "IApartmentSink.h"
#include "os_socket.h"

// APARTMENT_LSAN: a build with AddressSanitizer, and so LeakSanitizer.
#if defined(__SANITIZE_ADDRESS__)
#define APARTMENT_LSAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define APARTMENT_LSAN 1
#endif
#endif
#ifdef APARTMENT_LSAN
#include <sanitizer/lsan_interface.h>
#endif

namespace aptest {

using ApartmentHost::pumpUntil;
using Clock = std::chrono::steady_clock;
using Bytes = std::vector<unsigned char>;

// ------------------------------------------------------------------- clock

inline long long nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               Clock::now().time_since_epoch())
        .count();
}
inline long msSince(Clock::time_point start) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}
inline void sleepMs(long ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }
inline timespec deadlineIn(long ms) { return ApartmentHost::monotonicDeadline(ms); }

// Pumps this process's apartment (the C interface) for `ms`.
inline void pumpFor(long ms) {
    pumpUntil([] { return false; }, ms);
}

// Bytes that differ from position to position and from tag to tag, so
// that a shifted, truncated or misplaced copy shows.
inline Bytes pattern(size_t size, unsigned int tag = 0) {
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<unsigned char>(i * 31 + tag * 7 + 3);
    return bytes;
}
inline std::string text(const Bytes& bytes) { return std::string(bytes.begin(), bytes.end()); }

inline unsigned int fnv1a(const void* data, size_t length) {
    unsigned int hash = 2166136261u;
    const unsigned char* bytes = static_cast<const unsigned char*>(data);
    for (size_t i = 0; i < length; ++i) hash = (hash ^ bytes[i]) * 16777619u;
    return hash;
}

// --------------------------------------------------------------- processes

// Reads from `fd` into `buffer` until it holds a whole line or `ms` pass.
// 1 with the line (taken out of the buffer), 0 on time-out, -1 once the
// other end closed and no whole line is left.
inline int readLineFrom(int fd, std::string& buffer, long ms, std::string& line) {
    const long long until = nowMs() + ms;
    for (;;) {
        const size_t end = buffer.find('\n');
        if (end != std::string::npos) {
            line = buffer.substr(0, end);
            buffer.erase(0, end + 1);
            return 1;
        }
        if (fd < 0) return -1;
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(std::max(0LL, until - nowMs()))) <= 0) return 0;
        char chunk[4096];
        const ssize_t got = ::read(fd, chunk, sizeof chunk);
        if (got <= 0) return -1;
        buffer.append(chunk, static_cast<size_t>(got));
    }
}

// A forked child running a body whose result is its exit code, with a pipe
// each way for lines. The destructor kills and reaps it, so a failed
// assertion never leaves a process behind. Used by the parent's main
// thread only.
class Peer {
public:
    Peer() = default;
    explicit Peer(const std::function<int()>& body) { start(body); }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;
    ~Peer() { kill(); }

    bool start(const std::function<int()>& body) {
        int in[2], out[2];
        ::signal(SIGPIPE, SIG_IGN);  // a peer that has gone must not kill us through its pipe
        if (pipe(in) != 0) return false;
        if (pipe(out) != 0) {
            ::close(in[0]);
            ::close(in[1]);
            return false;
        }
        std::fflush(stdout);
        m_pid = ::fork();
        if (m_pid == 0) {
            ::close(in[1]);
            ::close(out[0]);
            s_fromParent = in[0];
            s_toParent = out[1];
            const int rc = body();
            std::fflush(stdout);
            _exit(rc);
        }
        ::close(in[0]);
        ::close(out[1]);
        m_in = in[1];
        m_out = out[0];
        fcntl(m_in, F_SETFD, FD_CLOEXEC);
        fcntl(m_out, F_SETFD, FD_CLOEXEC);
        return m_pid > 0;
    }
    pid_t pid() const { return m_pid; }

    void tell(const std::string& line) {
        const std::string text = line + "\n";
        if (m_in >= 0 && ::write(m_in, text.data(), text.size()) < 0) return;
    }
    // The next line the peer wrote, or "" after `ms` (pumping this
    // process's apartment meanwhile when `pump`).
    std::string readLine(long ms, bool pump = false) {
        std::string line;
        if (!pump) return readOne(ms, line) == 1 ? line : "";
        pumpUntil([&] { return readOne(0, line) == 1; }, ms);
        return line;
    }
    std::string pumpReadLine(long ms) { return readLine(ms, true); }
    // Waits up to `ms` for the next line starting with `prefix`, skipping
    // and keeping the others for later calls.
    bool waitFor(const std::string& prefix, long ms, std::string* line = nullptr) {
        for (const long long until = nowMs() + ms;;) {
            for (size_t i = 0; i < m_kept.size(); ++i) {
                if (m_kept[i].compare(0, prefix.size(), prefix) != 0) continue;
                if (line != nullptr) *line = m_kept[i];
                m_kept.erase(m_kept.begin() + static_cast<long>(i));
                return true;
            }
            std::string next;
            const int rc = readPipe(10, next);  // not readOne: it would hand back a kept line
            if (rc == 1) m_kept.push_back(next);
            if (rc < 0 || nowMs() >= until) return false;
        }
    }
    void signal(int sig) {
        if (m_pid > 0) ::kill(m_pid, sig);
    }

    // The exit code once the peer ended within `ms` (its output is read
    // meanwhile, so a chatty peer cannot block on a full pipe); -1 if it had
    // to be killed, -2 if it died of a signal.
    int wait(long ms) {
        if (m_pid <= 0) return m_status;
        const long long until = nowMs() + ms;
        for (;;) {
            int status = 0;
            if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
                m_pid = -1;
                return m_status = WIFEXITED(status) ? WEXITSTATUS(status) : -2;
            }
            if (nowMs() >= until) {
                kill();
                return m_status = -1;
            }
            std::string line;
            if (readOne(5, line) == 1) m_kept.push_back(line);
            if (m_out < 0) sleepMs(5);
        }
    }
    // Asks the peer to end (a line "quit", then end of input) and waits.
    int stop(long ms = 5000) {
        tell("quit");
        if (m_in >= 0) ::close(m_in);
        m_in = -1;
        return wait(ms);
    }
    // Kills the peer at once, reaps it and closes the pipes.
    void kill() {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
            m_pid = -1;
            m_status = -2;
        }
        for (int* fd : {&m_in, &m_out}) {
            if (*fd >= 0) ::close(*fd);
            *fd = -1;
        }
    }

    // In the peer: a line from the parent, or "" after `ms` (or at its end).
    static std::string readFromParent(long ms) {
        std::string line;
        return readLineFrom(s_fromParent, s_parentBuffer, ms, line) == 1 ? line : "";
    }
    // In the peer: true once the parent said "quit" or closed our input.
    static bool toldToQuit() {
        std::string line;
        const int rc = readLineFrom(s_fromParent, s_parentBuffer, 0, line);
        return rc < 0 || (rc == 1 && line == "quit");
    }
    // In the peer: one line to the parent.
    static void tellParent(const std::string& line) {
        const std::string text = line + "\n";
        if (s_toParent >= 0 && ::write(s_toParent, text.data(), text.size()) < 0) _exit(98);
    }

private:
    int readOne(long ms, std::string& line) {
        if (!m_kept.empty()) {
            line = m_kept.front();
            m_kept.erase(m_kept.begin());
            return 1;
        }
        return readPipe(ms, line);
    }
    int readPipe(long ms, std::string& line) {
        const int rc = readLineFrom(m_out, m_buffer, ms, line);
        if (rc < 0 && m_out >= 0) {
            ::close(m_out);
            m_out = -1;
        }
        return rc;
    }

    pid_t m_pid = -1;
    int m_in = -1, m_out = -1;
    int m_status = -3;
    std::string m_buffer;
    std::vector<std::string> m_kept;
    static inline int s_fromParent = -1;
    static inline int s_toParent = -1;
    static inline std::string s_parentBuffer;
};

// ----------------------------------------------------------- ports and URLs

// A socket bound to 127.0.0.1 at a port the kernel picks, listening with
// `backlog` when that is above 0; the port in `port`. -1 when a step failed.
inline int bindAnyPort(unsigned short& port, int backlog = 0) {
    const int fd = os_socket(AF_INET, SOCK_STREAM, 0, USE_DEFAULT);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = os_socket_address_from_text("127.0.0.1");
    socklen_t length = sizeof address;
    if (fd < 0 ||
        os_socket_bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address, USE_DEFAULT) != 0 ||
        (backlog > 0 && os_socket_listen(fd, backlog, USE_DEFAULT) != 0) ||
        os_socket_get_sock_name(fd, reinterpret_cast<sockaddr*>(&address), &length, USE_DEFAULT) != 0) {
        if (fd >= 0) os_socket_close(fd, USE_DEFAULT);
        return -1;
    }
    port = ntohs(address.sin_port);
    return fd;
}
// A port on 127.0.0.1 that was free a moment ago.
inline unsigned short freePort() {
    unsigned short port = 0;
    const int fd = bindAnyPort(port);
    if (fd >= 0) os_socket_close(fd, USE_DEFAULT);
    return port;
}
inline std::string urlOf(unsigned short port) { return "tcp://127.0.0.1:" + std::to_string(port); }
inline unsigned short portOf(const std::string& url) {
    return static_cast<unsigned short>(std::atoi(url.c_str() + url.rfind(':') + 1));
}
// Initialises this process's apartment on a free port (or on `port`, which
// a previous owner may still hold for a moment); retries, as another
// process may take a port between the probe and the bind. The URL, or "".
inline std::string initialiseOnFreePort(unsigned short port = 0) {
    for (int attempt = 0; attempt < 40; ++attempt) {
        const std::string url = urlOf(port != 0 ? port : freePort());
        if (apartment_initialize(url.c_str(), true)) return url;
        if (port != 0) sleepMs(50);
    }
    return "";
}

// --------------------------------------------------------------- recording

// One recorder for every callback: a node callback and an apartment
// callback at once (a node hands its callbacks over as node(), an apartment
// as apartment()). Records what it hears; the optional hooks run after the
// record, on the calling thread. Any thread may read it.
class Recorder : public TExtensionStub<TRootStub<IApartmentNodeCallback>, IApartmentCallback> {
public:
    struct Request {
        std::string srcApartment, srcNode, dstApartment, dstNode;
        unsigned int id = 0;
        std::string data;
        bool needsAnswer = false;
    };
    struct Raw {
        unsigned int type;
        std::string data;
        std::thread::id thread;
    };

    IApartmentNodeCallback* node() { return this; }
    IApartmentCallback* apartment() { return this; }

    void onRequest(std::function<void(const Request&)> fn) { set(m_onRequest, std::move(fn)); }
    void onTimerFired(std::function<void(unsigned int)> fn) { set(m_onTimer, std::move(fn)); }
    void onOfflineHeard(std::function<void(const std::string&)> fn) { set(m_onOffline, std::move(fn)); }
    // Answers every request with code 0 and its own bytes, as node `name`
    // of this process's apartment (the C interface).
    void echoAs(const std::string& name) {
        onRequest([name](const Request& r) {
            if (r.needsAnswer)
                apartment_node_write_response(nullptr, name.c_str(), r.srcApartment.c_str(),
                                              r.srcNode.c_str(), r.id, REQUEST_OK,
                                              const_cast<char*>(r.data.data()),
                                              static_cast<unsigned int>(r.data.size()));
        });
    }

    void onTimer(unsigned int id) override {
        record(m_timers, id, m_onTimer, id);
    }
    void onApartmentOffline(const char* url) override {
        const std::string u = url != nullptr ? url : "";
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_offlineTimes.push_back(Clock::now());
        }
        record(m_offline, u, m_onOffline, u);
    }
    void onRequestReceived(const char* srcApartment, const char* srcNode, const char* dstApartment,
                           const char* dstNode, unsigned int id, const void* data,
                           unsigned int size, bool needsAnswer) override {
        if (reinterpret_cast<uintptr_t>(data) % alignof(std::max_align_t) != 0) ++misaligned;
        Request r{srcApartment, srcNode, dstApartment, dstNode, id,
                  data != nullptr ? std::string(static_cast<const char*>(data), size) : "",
                  needsAnswer};
        record(m_requests, r, m_onRequest, r);
    }
    void onRawFrameReceived(unsigned int type, const void* data, unsigned int size) override {
        Raw raw{type, data != nullptr ? std::string(static_cast<const char*>(data), size) : "",
                std::this_thread::get_id()};
        std::lock_guard<std::mutex> lock(m_mutex);
        m_raw.push_back(raw);
    }

    std::vector<Request> requests() const { return get(m_requests); }
    std::vector<std::string> offline() const { return get(m_offline); }
    std::vector<Clock::time_point> offlineTimes() const { return get(m_offlineTimes); }
    std::vector<unsigned int> timers() const { return get(m_timers); }
    std::vector<Raw> raw() const { return get(m_raw); }
    size_t requestCount() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_requests.size();
    }
    std::atomic<int> misaligned{0};  // requests whose data the host got unaligned
    bool heardOffline(const std::string& url) const {
        const std::vector<std::string> all = offline();
        return std::find(all.begin(), all.end(), url) != all.end();
    }

private:
    template <class T>
    void set(T& hook, T fn) {
        std::lock_guard<std::mutex> lock(m_mutex);
        hook = std::move(fn);
    }
    template <class T, class Hook, class Arg>
    void record(std::vector<T>& list, const T& value, const Hook& hook, const Arg& arg) {
        Hook copy;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            list.push_back(value);
            copy = hook;
        }
        if (copy) copy(arg);
    }
    template <class T>
    std::vector<T> get(const std::vector<T>& list) const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return list;
    }

    mutable std::mutex m_mutex;
    std::vector<Request> m_requests;
    std::vector<std::string> m_offline;
    std::vector<Clock::time_point> m_offlineTimes;
    std::vector<unsigned int> m_timers;
    std::vector<Raw> m_raw;
    std::function<void(const Request&)> m_onRequest;
    std::function<void(unsigned int)> m_onTimer;
    std::function<void(const std::string&)> m_onOffline;
};

// ------------------------------------------------ messaging (C interface)

// Creates node `name` in this process's apartment with a new recorder
// (echoing requests when `echo`); the library holds its own reference.
inline CReference<Recorder> addNode(const char* name, bool echo = false) {
    CReference<Recorder> recorder(new Recorder);
    if (echo) recorder->echoAs(name);
    apartment_node_create(nullptr, name);
    apartment_node_set_callback(nullptr, name, recorder->node());
    return recorder;
}

// Reads a response the usual way: a null buffer first for code and length,
// then a buffer of that length. The status of the first call that failed.
inline int readResponse(const char* node, unsigned int id, int& code, std::string& data, int ms) {
    unsigned int length = 0;
    const int first = apartment_node_read_response(nullptr, node, id, code, nullptr, length, ms);
    if (first != 0) return first;
    // Never a null buffer, not even for an empty answer: that would only
    // ask for the length again and leave the response stored.
    data.assign(length + 1, '\0');
    const int rc = apartment_node_read_response(nullptr, node, id, code, &data[0], length, 0);
    data.resize(length);
    return rc;
}

// Sends `payload` as a request and reads the answer: its bytes, or
// "<write n>" / "<read n>" for the status of the call that failed.
inline std::string requestAndRead(const char* node, const std::string& remoteUrl,
                                  const char* remoteNode, const std::string& payload, int ms,
                                  int* code = nullptr) {
    unsigned int id = 0;
    int rc = apartment_node_write_request(nullptr, node, remoteUrl.c_str(), remoteNode,
                                          const_cast<char*>(payload.data()),
                                          static_cast<unsigned int>(payload.size()), id);
    if (rc != 0) return "<write " + std::to_string(rc) + ">";
    int answerCode = 0;
    std::string answer;
    rc = readResponse(node, id, answerCode, answer, ms);
    if (code != nullptr) *code = answerCode;
    return rc == 0 ? answer : "<read " + std::to_string(rc) + ">";
}

// ------------------------------------------------------------------- peers

// The standard peer: an apartment on a free port (or `port`) that tells the
// parent its URL first and pumps until told to quit or `lifeMs` pass. Its
// nodes: "echo" answers with code 0 and the same bytes (or swallows
// requests when not `answer`), "code" answers with the code written in the
// request as decimal text, "ping" first notifies the requester's node "h"
// with "ping" and then answers "pong". With `report`, each request and raw
// frame is reported as a line "REQ <node> <source apartment> <source node>
// <id> <length> <flag> <fnv1a>" or "RAW <type> <length> <fnv1a> <1 when off
// the pumping thread>".
struct PeerOptions {
    unsigned short port = 0;
    bool answer = true;
    bool report = false;
    long lifeMs = 120000;
};
inline int servePeer(PeerOptions options = PeerOptions()) {
    const std::string url = initialiseOnFreePort(options.port);
    if (url.empty()) return 10;
    const std::thread::id pumping = std::this_thread::get_id();
    CReference<Recorder> apartment(new Recorder);
    apartment_set_callback(nullptr, apartment->apartment());
    std::vector<CReference<Recorder>> nodes;
    for (const char* name : {"echo", "code", "ping"}) {
        CReference<Recorder> node = addNode(name);
        node->onRequest([name, options](const Recorder::Request& r) {
            if (options.report)
                Peer::tellParent(std::string("REQ ") + name + " " + r.srcApartment + " " +
                                 r.srcNode + " " + std::to_string(r.id) + " " +
                                 std::to_string(r.data.size()) + " " + (r.needsAnswer ? "1" : "0") +
                                 " " + std::to_string(fnv1a(r.data.data(), r.data.size())));
            if (!r.needsAnswer || !options.answer) return;
            std::string answer = r.data;
            int code = REQUEST_OK;
            if (std::strcmp(name, "code") == 0) code = std::atoi(r.data.c_str());
            if (std::strcmp(name, "ping") == 0) {
                unsigned int id = 0;
                char ping[] = "ping";
                apartment_node_write_notify(nullptr, "ping", r.srcApartment.c_str(), "h", ping, 4,
                                            id);
                answer = "pong";
            }
            apartment_node_write_response(nullptr, name, r.srcApartment.c_str(), r.srcNode.c_str(),
                                          r.id, code, answer.empty() ? nullptr : &answer[0],
                                          static_cast<unsigned int>(answer.size()));
        });
        nodes.push_back(node);
    }
    Peer::tellParent(url);
    const long long until = nowMs() + options.lifeMs;
    size_t reported = 0;
    while (nowMs() < until && !Peer::toldToQuit()) {
        apartment_dispatch_message(nullptr, deadlineIn(20));
        const std::vector<Recorder::Raw> raw = apartment->raw();
        for (; options.report && reported < raw.size(); ++reported)
            Peer::tellParent("RAW " + std::to_string(raw[reported].type) + " " +
                             std::to_string(raw[reported].data.size()) + " " +
                             std::to_string(fnv1a(raw[reported].data.data(),
                                                  raw[reported].data.size())) +
                             (raw[reported].thread != pumping ? " 1" : " 0"));
    }
    apartment_uninitialize();
    return 0;
}

// A well-formed requester: reads the host's URL from the parent, starts its
// own apartment, sends "ping" to the host's "echo" node and reports
// "<answer> <ms>". Exit 0 when answered.
inline int requesterPeer(int timeoutMs = 4000) {
    const std::string hostUrl = Peer::readFromParent(10000);
    if (hostUrl.empty() || initialiseOnFreePort().empty()) return 10;
    CReference<Recorder> node = addNode("client");
    const long long start = nowMs();
    const std::string answer = requestAndRead("client", hostUrl, "echo", "ping", timeoutMs);
    Peer::tellParent(answer + " " + std::to_string(nowMs() - start));
    apartment_uninitialize();
    return answer == "ping" ? 0 : 1;
}

// ---------------------------------------------------- the wire, by hand

// A blocking client socket connected to 127.0.0.1:port, or -1. The
// platform layer makes sockets non-blocking; raw peers want plain calls.
inline int rawConnect(unsigned short port) {
    const int fd = os_socket(AF_INET, SOCK_STREAM, 0, USE_DEFAULT);
    if (fd < 0) return -1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = os_socket_address_from_text("127.0.0.1");
    address.sin_port = htons(port);
    os_socket_connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address, USE_DEFAULT);
    int error = 0;
    socklen_t length = sizeof error;
    if (os_socket_writable(fd, 2000, &error, USE_DEFAULT) == 0 ||
        os_socket_get_sock_opt(fd, SOL_SOCKET, SO_ERROR, &error, &length, USE_DEFAULT) != 0 ||
        error != 0) {
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
inline bool sendAll(int fd, const Bytes& bytes, long timeoutMs = 2000) {
    return sendAll(fd, bytes.data(), bytes.size(), timeoutMs);
}

// A frame header (type, then payload size, both big-endian), written out
// byte by byte rather than with the library's conversion.
inline Bytes frameHeader(unsigned int type, unsigned int size) {
    Bytes out;
    for (unsigned int value : {type, size})
        for (int shift = 24; shift >= 0; shift -= 8)
            out.push_back(static_cast<unsigned char>(value >> shift));
    return out;
}
inline Bytes frame(unsigned int type, const void* payload, size_t size) {
    Bytes out = frameHeader(type, static_cast<unsigned int>(size));
    out.insert(out.end(), static_cast<const unsigned char*>(payload),
               static_cast<const unsigned char*>(payload) + size);
    return out;
}
// A whole connection frame announcing `url` on a link of the given class.
inline Bytes connectionFrame(const std::string& url, bool rt) {
    char block[APARTMENT_CONNECTION_BLOCK_SIZE];
    CApartmentFrameCodec::buildConnectionBlock(rt, url.c_str(), block);
    return frame(APARTMENT_CONNECTION_FRAME, block, sizeof block);
}
// A whole request frame as a foreign peer would write it.
inline Bytes requestFrame(const std::string& srcUrl, const std::string& dstUrl,
                          const std::string& dstNode, unsigned int id, bool needsAnswer,
                          const std::string& data) {
    const std::vector<char> payload = CApartmentFrameCodec::buildRequestPayload(
        srcUrl, "peer", dstUrl.c_str(), dstNode.c_str(), id, needsAnswer, data.data(),
        static_cast<unsigned int>(data.size()));
    return frame(APARTMENT_REQUEST_FRAME, payload.data(), payload.size());
}

// Reads one whole frame from a raw peer's socket within timeoutMs: its
// type and payload. False on time-out, or when the host closed the link
// (then `closed` says so).
inline bool receiveFrame(int fd, unsigned int& type, Bytes& payload, long timeoutMs = 2000,
                         bool* closed = nullptr) {
    Bytes got;
    const long long until = nowMs() + timeoutMs;
    auto need = [&](size_t n) {
        while (got.size() < n) {
            const long long left = until - nowMs();
            int error = 0;
            if (left <= 0 || os_socket_readable(fd, static_cast<unsigned long>(left), &error,
                                                USE_DEFAULT) == 0)
                return false;
            char buffer[4096];
            const int r = os_socket_recv(fd, buffer,
                                         static_cast<int>(std::min(sizeof buffer, n - got.size())),
                                         0, USE_DEFAULT);
            if (r <= 0) {
                if (closed != nullptr) *closed = true;
                return false;
            }
            got.insert(got.end(), buffer, buffer + r);
        }
        return true;
    };
    if (!need(8)) return false;
    auto u32 = [&](size_t at) {
        return static_cast<unsigned int>(got[at]) << 24 | static_cast<unsigned int>(got[at + 1]) << 16 |
               static_cast<unsigned int>(got[at + 2]) << 8 | got[at + 3];
    };
    type = u32(0);
    if (!need(8 + static_cast<size_t>(u32(4)))) return false;
    payload.assign(got.begin() + 8, got.end());
    return true;
}

// The URL a raw peer announces: nothing listens there, so the host can only
// reach it over the link the peer opened.
inline const std::string kGhost = "tcp://127.0.0.1:9";

// In a raw peer: reads the host's URL from the parent, connects and
// announces `ghost` on a link of the given class, then gives the host
// `settleMs` to file the link. The socket, or minus the exit code to give.
inline int connectAs(const std::string& ghost, bool rt, std::string& hostUrl,
                     long settleMs = 300) {
    hostUrl = Peer::readFromParent(5000);
    const int fd = rawConnect(portOf(hostUrl));
    if (fd < 0) return -11;
    if (!sendAll(fd, connectionFrame(ghost, rt))) return -12;
    sleepMs(settleMs);
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
        for (int i = 0; i < 8 && !m_full; ++i) {
            const int fd = os_socket(AF_INET, SOCK_STREAM, 0, USE_DEFAULT);
            if (fd < 0) return;
            m_fillers.push_back(fd);
            fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
            address.sin_addr.s_addr = os_socket_address_from_text("127.0.0.1");
            os_socket_connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address,
                              USE_DEFAULT);
            int error = 0;
            m_full = os_socket_writable(fd, 300, &error, USE_DEFAULT) == 0;
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

// A thread that owns dispatching for this process's apartment (dispatch
// bound to it) until destroyed; writers on other threads then wait for
// their responses instead of pumping.
class DispatchThread {
public:
    DispatchThread()
        : m_thread([this] {
              m_bound = apartment_set_dispatch_enabled(nullptr, true);
              m_started = true;
              while (m_pumping) apartment_dispatch_message(nullptr, deadlineIn(20));
              apartment_set_dispatch_enabled(nullptr, false);
          }) {
        while (!m_started) sleepMs(1);
    }
    ~DispatchThread() { stop(); }
    bool bound() const { return m_bound; }
    void stop() {
        m_pumping = false;
        if (m_thread.joinable()) m_thread.join();
    }

private:
    std::atomic<bool> m_pumping{true}, m_started{false}, m_bound{false};
    std::thread m_thread;
};

// --------------------------------------------------------------------- TLS

#ifdef APARTMENT_SOURCE_DIR
// scripts/make-test-certs.sh's set, made once per process into a directory
// that goes with the process (its name outlives every destructor); "" when
// it could not be made. Ends with '/'.
inline char* certPathTemplate() {
    static char path[] = "/tmp/apartment-certs-XXXXXX";
    return path;
}
inline void removeCerts() { std::system((std::string("rm -rf ") + certPathTemplate()).c_str()); }
inline const std::string& certDir() {
    static const std::string dir = [] {
        if (mkdtemp(certPathTemplate()) == nullptr) return std::string();
        std::atexit(removeCerts);
        const std::string command = std::string("timeout 20 " APARTMENT_SOURCE_DIR
                                                "/scripts/make-test-certs.sh ") +
                                    certPathTemplate() + " >/dev/null </dev/null";
        return std::system(command.c_str()) == 0 ? std::string(certPathTemplate()) + "/"
                                                 : std::string();
    }();
    return dir;
}
// Turns TLS on for the apartment this process initialises next, with
// certificate `name` of certDir(); "" turns it off again.
inline void tlsEnvironment(const std::string& name) {
    if (name.empty()) {
        for (const char* v : {"APARTMENT_TLS_CERT", "APARTMENT_TLS_KEY", "APARTMENT_TLS_CA"})
            unsetenv(v);
        return;
    }
    setenv("APARTMENT_TLS_CERT", (certDir() + name + ".pem").c_str(), 1);
    setenv("APARTMENT_TLS_KEY", (certDir() + name + ".key").c_str(), 1);
    setenv("APARTMENT_TLS_CA", (certDir() + "ca.pem").c_str(), 1);
}
#endif

// ---------------------------------------------------------------- readings

// CPU time (user + system) this process used, in milliseconds.
inline double processCpuMs() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000.0 +
           (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1000.0;
}
// The share of one core this process used while pumping for `ms`.
inline double cpuWhilePumping(long ms) {
    const double before = processCpuMs();
    const long long start = nowMs();
    pumpFor(ms);
    return (processCpuMs() - before) / static_cast<double>(std::max(1LL, nowMs() - start));
}
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
// The connected sockets of this process of one family: AF_UNIX for links
// over the same-host path, AF_INET for links over TCP.
inline int connectedSockets(int family) {
    int count = 0;
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) return -1;
    while (dirent* entry = readdir(dir)) {
        sockaddr_storage peer{};
        socklen_t length = sizeof peer;
        if (entry->d_name[0] != '.' &&
            os_socket_get_peer_name(std::atoi(entry->d_name), reinterpret_cast<sockaddr*>(&peer),
                                    &length, USE_DEFAULT) == 0 &&
            peer.ss_family == family)
            ++count;
    }
    closedir(dir);
    return count;
}
// Whether a process of this host listens on the same-host name of `url`.
inline bool sameHostNameHeld(const std::string& url) {
    FILE* f = std::fopen("/proc/self/net/unix", "r");
    if (f == nullptr) return false;
    const std::string wanted = " @apartment:" + url + "\n";
    bool held = false;
    for (char line[512]; !held && std::fgets(line, sizeof line, f) != nullptr;)
        held = std::strstr(line, wanted.c_str()) != nullptr;
    std::fclose(f);
    return held;
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
// True in a build with AddressSanitizer or ThreadSanitizer.
constexpr bool underSanitizer() {
#if defined(APARTMENT_LSAN) || defined(__SANITIZE_THREAD__)
    return true;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
    return true;
#endif
#endif
    return false;
}

// ------------------------------------------------- in-process apartments

// The process-wide singletons for one in-process test; the tear-down runs
// in the order that lets every apartment go (timers first, since they hold
// apartments).
class Registry {
public:
    explicit Registry(bool bTimerManager = true) {
        CApartmentManager::createUniqueApartmentManager();
        if (bTimerManager) CApartmentTimerManager::createUniqueApartmentTimerManager();
    }
    ~Registry() {
        CApartmentTimerManager::destroyUniqueApartmentTimerManager();
        if (manager() != nullptr) manager()->removeAllApartments();
        CApartmentManager::destroyUniqueApartmentManager();
    }
    static CApartmentManager* manager() { return CApartmentManager::getUniqueApartmentManager(); }
};

// A registered apartment listening on 127.0.0.1 at a port it draws itself
// (a few draws, as one can hit a port in use), or an empty reference.
inline CReference<IApartment> createListening() {
    for (int attempt = 0; attempt < 8; ++attempt)
        if (IApartment* a = Registry::manager()->createApartment("tcp://127.0.0.1:0", true))
            return CReference<IApartment>(a);
    return CReference<IApartment>();
}
inline std::string urlOf(const IApartment* pApartment) {
    std::string url;
    CApartmentHelper::getApartmentUrl(pApartment, url);
    return url;
}
inline ULONG countOf(IBase* pObject) {
    const ULONG count = pObject->addRef();
    pObject->releaseRef();
    return count - 1;
}

// Gets and dispatches messages until `done` holds or `ms` pass; the codes
// dispatched are appended to `pCodes`.
inline bool pumpUntil(IApartment* pApartment, const std::function<bool()>& done, long ms = 3000,
                      std::vector<int>* pCodes = nullptr) {
    const Clock::time_point start = Clock::now();
    while (!done()) {
        if (msSince(start) > ms) return false;
        APARTMENT_TMSG msg;
        if (!pApartment->getMessage(msg, deadlineIn(20))) continue;
        if (pCodes != nullptr) pCodes->push_back(msg.m_intMsg);
        pApartment->dispatchMessage(msg);
    }
    return true;
}
inline std::vector<int> pumpFor(IApartment* pApartment, long ms) {
    std::vector<int> codes;
    pumpUntil(pApartment, [] { return false; }, ms, &codes);
    return codes;
}
inline size_t countCode(const std::vector<int>& codes, int code) {
    return static_cast<size_t>(std::count(codes.begin(), codes.end(), code));
}

// Creates node `name` in the apartment and attaches a new recorder to it.
inline CReference<Recorder> addNode(IApartment* pApartment, const char* name) {
    CReference<Recorder> recorder(new Recorder);
    pApartment->createApartmentNode(name);
    CReference<IApartmentNode> node(pApartment->findApartmentNode(name));
    if (!node.nil()) node->setCallback(recorder->node());
    return recorder;
}

// A message that carries a freshly built frame, as a communication thread
// would post it, and the request and response messages built on it.
inline APARTMENT_TMSG frameMessage(APARTMENT_MSG_CODE code, unsigned int type,
                                   const std::vector<char>& payload) {
    CApartmentFrame* frame = CApartmentFrame::createCopy(
        type, static_cast<unsigned int>(payload.size()), payload.data());
    APARTMENT_TMSG msg{};
    msg.m_intMsg = code;
    msg.wParam = reinterpret_cast<WPARAM>(static_cast<IApartmentFrame*>(frame));
    return msg;
}
inline APARTMENT_TMSG requestMessage(const char* node, unsigned int id, const std::string& data = "") {
    return frameMessage(REQUEST_FRAME_ARRIVED, APARTMENT_REQUEST_FRAME,
                        CApartmentFrameCodec::buildRequestPayload(
                            "tcp://127.0.0.1:1", "peer", "tcp://127.0.0.1:2", node, id, true,
                            data.data(), static_cast<unsigned int>(data.size())));
}
inline APARTMENT_TMSG responseMessage(const char* node, unsigned int id, int code,
                                      const std::string& data = "") {
    return frameMessage(RESPONSE_FRAME_ARRIVED, APARTMENT_RESPONSE_FRAME,
                        CApartmentFrameCodec::buildResponsePayload(
                            "tcp://127.0.0.1:1", "peer", "tcp://127.0.0.1:2", node, id, code,
                            data.data(), static_cast<unsigned int>(data.size())));
}
inline APARTMENT_TMSG plainMessage(int code) {
    APARTMENT_TMSG msg{};
    msg.m_intMsg = static_cast<APARTMENT_MSG_CODE>(code);
    return msg;
}
inline void post(IApartment* pApartment, const APARTMENT_TMSG& msg) {
    CReference<IApartmentEx> ex(asIApartmentEx(pApartment));
    ex->postMessage(msg);
}

}  // namespace aptest

#endif
