// Support for the end-to-end tests of the C interface: this process's
// apartment (one per process, initialised by the fixture), a peer process
// running tests/api_peer.cpp with its own apartment, bounded pumping and
// waiting, and recording callbacks.
#ifndef APARTMENT_TESTS_API_TEST_SUPPORT_H
#define APARTMENT_TESTS_API_TEST_SUPPORT_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "FieldKit/Socket/Socket.h"
#include "api_host_object.h"

extern char** environ;

namespace apitest {

using Clock = std::chrono::steady_clock;

inline long msSince(Clock::time_point since) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count());
}

// An absolute deadline on the monotonic clock, as the dispatch call takes it.
inline timespec deadlineIn(int ms) {
    const auto at = Clock::now().time_since_epoch() + std::chrono::milliseconds(ms);
    timespec ts;
    ts.tv_sec = static_cast<time_t>(std::chrono::duration_cast<std::chrono::seconds>(at).count());
    ts.tv_nsec = static_cast<long>((at - std::chrono::seconds(ts.tv_sec)).count());
    return ts;
}

// Dispatches this process's messages for `ms` milliseconds.
inline void pumpFor(int ms) {
    const auto end = Clock::now() + std::chrono::milliseconds(ms);
    while (Clock::now() < end) apartment_dispatch_message(nullptr, deadlineIn(10));
}

// Dispatches until `done` holds or `ms` pass; the final value of `done`.
inline bool pumpUntil(const std::function<bool()>& done, int ms) {
    const auto end = Clock::now() + std::chrono::milliseconds(ms);
    while (!done() && Clock::now() < end) apartment_dispatch_message(nullptr, deadlineIn(10));
    return done();
}

// A port on 127.0.0.1 that was free a moment ago (bound, read back, closed).
inline unsigned short freePort() {
    CSocket probe;
    std::string ip;
    USHORT port = 0;
    if (!probe.initSocket(SOCK_STREAM, "127.0.0.1", 0, USE_DEFAULT) || !probe.getSockName(ip, port))
        return 0;
    probe.close();
    return port;
}

inline std::string urlOnFreePort() { return "tcp://127.0.0.1:" + std::to_string(freePort()); }

// Initialises this process's apartment on a free port, retrying a few times
// in case another process took the port meanwhile. The URL, or "".
inline std::string initialiseOnFreePort() {
    for (int attempt = 0; attempt < 5; ++attempt) {
        const std::string url = urlOnFreePort();
        if (apartment_initialize(url.c_str(), true)) return url;
    }
    return "";
}

// The fixture of the end-to-end tests: this process's apartment.
class ApiTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_url = initialiseOnFreePort();
        ASSERT_FALSE(m_url.empty()) << "no apartment could be initialised";
    }
    void TearDown() override { apartment_uninitialize(); }

    std::string m_url;
};

// A peer process (tests/api_peer.cpp) with its own apartment. Always reaped:
// the destructor closes the peer's input, waits briefly and then kills it.
class Peer {
public:
    Peer() = default;
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;
    ~Peer() { stop(); }

    // Spawns the peer on a free port (a few attempts). False when none came
    // up within the time-out.
    bool start() {
        for (int attempt = 0; attempt < 5; ++attempt) {
            m_url = urlOnFreePort();
            if (!spawn()) return false;
            std::string line;
            if (waitFor("READY", 15000, &line)) return true;
            stop(false);
        }
        return false;
    }

    const std::string& url() const { return m_url; }
    pid_t pid() const { return m_pid; }

    // Waits up to `ms` for the next unconsumed report starting with
    // `prefix`, dispatching this process's messages meanwhile when `pump`.
    bool waitFor(const std::string& prefix, int ms, std::string* line = nullptr,
                 bool pump = false) {
        const auto end = Clock::now() + std::chrono::milliseconds(ms);
        for (;;) {
            for (size_t i = 0; i < m_reports.size(); ++i) {
                if (m_reports[i].compare(0, prefix.size(), prefix) != 0) continue;
                if (line != nullptr) *line = m_reports[i];
                m_reports.erase(m_reports.begin() + static_cast<long>(i));
                return true;
            }
            if (Clock::now() >= end || !readReports(pump ? 0 : 10)) return false;
            if (pump) apartment_dispatch_message(nullptr, deadlineIn(10));
        }
    }

    // Every report that arrives within `ms`, consumed.
    std::vector<std::string> collect(int ms, bool pump = false) {
        const auto end = Clock::now() + std::chrono::milliseconds(ms);
        while (Clock::now() < end) {
            readReports(pump ? 0 : 10);
            if (pump) apartment_dispatch_message(nullptr, deadlineIn(10));
        }
        std::vector<std::string> all;
        all.swap(m_reports);
        return all;
    }

    void signal(int sig) {
        if (m_pid > 0) ::kill(m_pid, sig);
        if (sig == SIGSTOP) m_stopped = true;
        if (sig == SIGCONT) m_stopped = false;
    }

    // Kills the peer at once and reaps it.
    void killNow() {
        if (m_pid <= 0) return;
        ::kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
        m_pid = -1;
        closeFds();
    }

    // Asks the peer to quit and reaps it; a peer that does not exit cleanly
    // in time (unless stopped with SIGSTOP, or `expectClean` is false) fails
    // the test: a sanitizer report in the peer shows up here.
    void stop(bool expectClean = true) {
        if (m_pid <= 0) return;
        expectClean = expectClean && !m_stopped;
        if (m_in >= 0) {
            (void)::write(m_in, "quit\n", 5);
            ::close(m_in);
            m_in = -1;
        }
        const auto end = Clock::now() + std::chrono::milliseconds(m_stopped ? 0 : 5000);
        while (Clock::now() < end) {
            int status = 0;
            if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
                m_pid = -1;
                // A clean exit, or a sanitizer report or crash in the peer.
                if (expectClean) {
                    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
                        << "the peer ended with status " << status;
                }
                break;
            }
            readReports(10);
        }
        if (expectClean) {
            EXPECT_EQ(m_pid, -1) << "the peer did not stop by itself";
        }
        if (m_pid > 0) killNow();
        closeFds();
    }

private:
    bool spawn() {
        int in[2], out[2];
        if (pipe(in) != 0) return false;
        if (pipe(out) != 0) {
            ::close(in[0]);
            ::close(in[1]);
            return false;
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        posix_spawn_file_actions_addclose(&actions, in[1]);
        posix_spawn_file_actions_addclose(&actions, out[0]);
        std::string path = API_PEER_PATH;
        char* argv[] = {&path[0], &m_url[0], nullptr};
        const int rc = posix_spawn(&m_pid, path.c_str(), &actions, nullptr, argv, environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(in[0]);
        ::close(out[1]);
        m_in = in[1];
        m_out = out[0];
        fcntl(m_in, F_SETFD, FD_CLOEXEC);
        fcntl(m_out, F_SETFD, FD_CLOEXEC);
        if (rc != 0) {
            m_pid = -1;
            closeFds();
            return false;
        }
        return true;
    }

    // Reads what the peer wrote within `ms`; false once its output closed.
    bool readReports(int ms) {
        if (m_out < 0) return false;
        pollfd fd{m_out, POLLIN, 0};
        if (poll(&fd, 1, ms) <= 0) return true;
        char buffer[4096];
        const ssize_t got = ::read(m_out, buffer, sizeof(buffer));
        if (got <= 0) {
            ::close(m_out);
            m_out = -1;
            return false;
        }
        m_partial.append(buffer, static_cast<size_t>(got));
        size_t end;
        while ((end = m_partial.find('\n')) != std::string::npos) {
            const std::string line = m_partial.substr(0, end);
            m_partial.erase(0, end + 1);
            if (line.compare(0, 3, "@@ ") == 0) m_reports.push_back(line.substr(3));
        }
        return true;
    }

    void closeFds() {
        if (m_in >= 0) ::close(m_in);
        if (m_out >= 0) ::close(m_out);
        m_in = m_out = -1;
    }

    std::string m_url;
    pid_t m_pid = -1;
    int m_in = -1;
    int m_out = -1;
    bool m_stopped = false;
    std::string m_partial;
    std::vector<std::string> m_reports;
};

// A request or notification as a node callback saw it.
struct SeenRequest {
    std::string sourceApartment, sourceNode, targetApartment, targetNode;
    unsigned int id = 0;
    std::vector<char> data;
    bool requireResponse = false;
};

// A node callback that records what it hears and runs optional handlers.
// Callbacks arrive on the pumping thread; the lock keeps the record sound
// when a test reads it from elsewhere.
class NodeRecorder : public HostObject<IApartmentNodeCallback> {
public:
    std::function<void(const SeenRequest&)> onRequest;
    std::function<void(unsigned int)> onTimerFired;

    void onTimer(unsigned int uintTimerId) override {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_timers.push_back(uintTimerId);
        }
        if (onTimerFired) onTimerFired(uintTimerId);
    }
    void onApartmentOffline(const char* strApartmentUrl) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_offline.push_back(strApartmentUrl != nullptr ? strApartmentUrl : "");
    }
    void onRequestReceived(const char* strSourceApartmentUrl, const char* strSourceNodeUrl,
                           const char* strTargetApartmentUrl, const char* strTargetNodeUrl,
                           unsigned int uintRequestId, const void* pRequestBuffer,
                           unsigned int uintBufLen, bool bRequireResponse) override {
        SeenRequest seen;
        seen.sourceApartment = strSourceApartmentUrl;
        seen.sourceNode = strSourceNodeUrl;
        seen.targetApartment = strTargetApartmentUrl;
        seen.targetNode = strTargetNodeUrl;
        seen.id = uintRequestId;
        if (pRequestBuffer != nullptr)
            seen.data.assign(static_cast<const char*>(pRequestBuffer),
                             static_cast<const char*>(pRequestBuffer) + uintBufLen);
        seen.requireResponse = bRequireResponse;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_requests.push_back(seen);
        }
        if (onRequest) onRequest(seen);
    }

    std::vector<SeenRequest> requests() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_requests;
    }
    std::vector<unsigned int> timers() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_timers;
    }
    std::vector<std::string> offline() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_offline;
    }

private:
    std::mutex m_mutex;
    std::vector<SeenRequest> m_requests;
    std::vector<unsigned int> m_timers;
    std::vector<std::string> m_offline;
};

// An apartment callback that records what it hears, with the time of each
// offline report and the thread of each raw frame.
class ApartmentRecorder : public HostObject<IApartmentCallback> {
public:
    struct Raw {
        unsigned int type;
        std::vector<char> data;
        std::thread::id thread;
    };

    std::function<void(unsigned int)> onTimerFired;

    void onTimer(unsigned int uintTimerId) override {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_timers.push_back(uintTimerId);
        }
        if (onTimerFired) onTimerFired(uintTimerId);
    }
    void onApartmentOffline(const char* strRemoteApartmentUrl) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_offline.emplace_back(strRemoteApartmentUrl, Clock::now());
    }
    void onRawFrameReceived(unsigned int uintFrameType, const void* pBuffer,
                            unsigned int uintBufLen) override {
        Raw raw{uintFrameType, {}, std::this_thread::get_id()};
        if (pBuffer != nullptr)
            raw.data.assign(static_cast<const char*>(pBuffer),
                            static_cast<const char*>(pBuffer) + uintBufLen);
        std::lock_guard<std::mutex> lock(m_mutex);
        m_raw.push_back(raw);
    }

    std::vector<unsigned int> timers() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_timers;
    }
    std::vector<std::pair<std::string, Clock::time_point>> offline() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_offline;
    }
    std::vector<Raw> raw() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_raw;
    }

private:
    std::mutex m_mutex;
    std::vector<unsigned int> m_timers;
    std::vector<std::pair<std::string, Clock::time_point>> m_offline;
    std::vector<Raw> m_raw;
};

// Reads a response of unknown length the usual way: a null buffer first for
// code and length, then a buffer of that length. Status of the second call
// (or of the first, when it failed).
inline int readResponse(const char* node, unsigned int id, int& code, std::vector<char>& data,
                        int timeoutMs) {
    unsigned int length = 0;
    const int first = apartment_node_read_response(nullptr, node, id, code, nullptr, length,
                                                   timeoutMs);
    if (first != 0) return first;
    data.assign(length, 0);
    unsigned int capacity = length;
    return apartment_node_read_response(nullptr, node, id, code,
                                        data.empty() ? static_cast<void*>(&capacity) : data.data(), capacity,
                                        timeoutMs);
}

inline unsigned int fnv1a(const void* data, size_t length) {
    unsigned int hash = 2166136261u;
    const unsigned char* bytes = static_cast<const unsigned char*>(data);
    for (size_t i = 0; i < length; ++i) hash = (hash ^ bytes[i]) * 16777619u;
    return hash;
}

// Bytes that differ at every position of a period of 251, so that a shifted
// or truncated copy shows.
inline std::vector<char> pattern(size_t length) {
    std::vector<char> bytes(length);
    for (size_t i = 0; i < length; ++i) bytes[i] = static_cast<char>((i * 7 + 3) % 251);
    return bytes;
}

}  // namespace apitest

#endif
