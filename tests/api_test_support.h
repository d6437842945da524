// Support for the end-to-end tests of the C interface: this process's
// apartment (one per process, initialised by the fixture), a peer process
// running tests/api_peer.cpp with its own apartment, bounded pumping and
// waiting, and recording callbacks.
#ifndef APARTMENT_TESTS_API_TEST_SUPPORT_H
#define APARTMENT_TESTS_API_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "process_support.h"
#include "api_host_object.h"

namespace apitest {

using namespace proc;

using Clock = std::chrono::steady_clock;

inline long msSince(Clock::time_point since) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count());
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
            m_reports.clear();
            if (!m_child.spawn(API_PEER_PATH, {m_url})) return false;
            if (waitFor("READY", 15000)) return true;
            stop(false);
        }
        return false;
    }

    const std::string& url() const { return m_url; }
    pid_t pid() const { return m_child.pid(); }

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
        if (pid() > 0) ::kill(pid(), sig);
        if (sig == SIGSTOP) m_stopped = true;
        if (sig == SIGCONT) m_stopped = false;
    }

    // Kills the peer at once and reaps it.
    void killNow() { m_child.kill(); }

    // Asks the peer to quit and reaps it; a peer that does not exit cleanly
    // in time (unless stopped with SIGSTOP, or `expectClean` is false) fails
    // the test: a sanitizer report or crash in the peer shows up here.
    void stop(bool expectClean = true) {
        if (pid() <= 0) return;
        expectClean = expectClean && !m_stopped;
        m_child.tell("quit");
        m_child.closeInput();
        const int status = m_child.wait(m_stopped ? 0 : 5000);
        m_stopped = false;
        if (expectClean) {
            EXPECT_EQ(status, 0) << "the peer did not exit cleanly by itself"
                                    " (-1: killed after the time-out, -2: died of a signal)";
        }
    }

private:
    // Takes in what the peer reported within `ms`; false once its output
    // closed.
    bool readReports(int ms) {
        std::string line;
        int rc = 0;
        for (int lines = 0; lines < 64 && (rc = m_child.readLine(ms, line)) == 1; ++lines, ms = 0)
            if (line.compare(0, 3, "@@ ") == 0) m_reports.push_back(line.substr(3));
        return rc >= 0;
    }

    proc::Child m_child;
    std::string m_url;
    bool m_stopped = false;
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

// Sends an empty request and waits up to `ms` for the answer's code and
// length (the answer stays stored). The status of the first call that
// failed, or 0 with the answer's code in `code` when given.
inline int emptyRoundTrip(const char* node, const std::string& url, const char* remoteNode,
                          int* code = nullptr, int ms = 10000) {
    unsigned int id = 0;
    const int rc = apartment_node_write_request(nullptr, node, url.c_str(), remoteNode, nullptr, 0,
                                                id);
    if (rc != 0) return rc;
    int answerCode = 0;
    unsigned int length = 0;
    const int read = apartment_node_read_response(nullptr, node, id, answerCode, nullptr, length, ms);
    if (code != nullptr) *code = answerCode;
    return read;
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
