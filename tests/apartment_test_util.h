// Shared fixtures for the in-process tests of the apartment core: the
// registry set-up and tear-down, listening apartments on 127.0.0.1, a node
// callback that records what reaches it, a bounded pump and hand-built frame
// messages.
#ifndef APARTMENT_TESTS_APARTMENT_TEST_UTIL_H
#define APARTMENT_TESTS_APARTMENT_TEST_UTIL_H

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "ApartmentFrame.h"
#include "ApartmentFrameCodec.h"
#include "ApartmentHelper.h"
#include "ApartmentManager.h"
#include "ApartmentTimerManager.h"
#include "GroundKit/Base/Stub.h"
#include "GroundKit/OS/OS_Clock.h"
#include "GroundKit/Reference/Reference.h"
#include "IApartment.h"
#include "IApartmentEx.h"
#include "IApartmentNode.h"
#include "IApartmentNodeCallback.h"
#include "IApartmentSink.h"

namespace aptest {

using Clock = std::chrono::steady_clock;

inline long msSince(Clock::time_point start) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

// The process-wide singletons for one test; the tear-down runs in the order
// that lets every apartment go (timers first, since they hold apartments).
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

// A registered apartment listening on 127.0.0.1 at a port it draws itself;
// a draw can hit a port in use, so a few draws are allowed.
inline CReference<IApartment> createListening() {
    for (int attempt = 0; attempt < 8; ++attempt) {
        IApartment* apartment = Registry::manager()->createApartment("tcp://127.0.0.1:0", true);
        if (apartment != nullptr) return CReference<IApartment>(apartment);
    }
    ADD_FAILURE() << "no listening apartment on 127.0.0.1";
    return CReference<IApartment>();
}

inline std::string urlOf(const IApartment* pApartment) {
    std::string url;
    CApartmentHelper::getApartmentUrl(pApartment, url);
    return url;
}

// Gets and dispatches messages until `done` holds or `ms` pass. Returns
// whether `done` held; the codes dispatched are appended to `pCodes`.
inline bool pumpUntil(IApartment* pApartment, const std::function<bool()>& done, long ms = 3000,
                      std::vector<int>* pCodes = nullptr) {
    const Clock::time_point start = Clock::now();
    while (!done()) {
        if (msSince(start) > ms) return false;
        APARTMENT_TMSG msg;
        if (!pApartment->getMessage(msg, OS::Clock::monotonicDeadline(20))) continue;
        if (pCodes != nullptr) pCodes->push_back(msg.m_intMsg);
        pApartment->dispatchMessage(msg);
    }
    return true;
}

// Pumps for `ms` whatever comes; returns the codes dispatched.
inline std::vector<int> pumpFor(IApartment* pApartment, long ms) {
    std::vector<int> codes;
    pumpUntil(pApartment, [] { return false; }, ms, &codes);
    return codes;
}

// A node callback that records everything; any thread may read it.
class RecordingNodeCallback : public TRootStub<IApartmentNodeCallback> {
public:
    struct Request {
        std::string m_strSourceApartmentUrl;
        std::string m_strSourceNodeUrl;
        std::string m_strTargetNodeUrl;
        unsigned int m_uintRequestId;
        std::string m_strData;
        bool m_bRequireResponse;
    };

    void onTimer(unsigned int uintTimerId) override {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Timers.push_back(uintTimerId);
    }
    void onApartmentOffline(const char* strApartmentUrl) override {
        const std::string url = strApartmentUrl != nullptr ? strApartmentUrl : "";
        std::function<void(const std::string&)> hook;
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            m_Offline.push_back(url);
            hook = m_OnOffline;
        }
        if (hook) hook(url);
    }
    void onRequestReceived(const char* strSourceApartmentUrl, const char* strSourceNodeUrl,
                           const char*, const char* strTargetNodeUrl, unsigned int uintRequestId,
                           const void* pRequestBuffer, unsigned int uintBufLen,
                           bool bRequireResponse) override {
        Request request{strSourceApartmentUrl, strSourceNodeUrl, strTargetNodeUrl, uintRequestId,
                        std::string(static_cast<const char*>(pRequestBuffer),
                                    pRequestBuffer != nullptr ? uintBufLen : 0),
                        bRequireResponse};
        std::function<void(const Request&)> hook;
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            m_Requests.push_back(request);
            hook = m_OnRequest;
        }
        if (hook) hook(request);
    }

    std::vector<Request> requests() const {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Requests;
    }
    std::vector<std::string> offline() const {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Offline;
    }
    std::vector<unsigned int> timers() const {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Timers;
    }
    // Runs on the dispatching thread after a request is recorded.
    void onRequest(std::function<void(const Request&)> fn) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_OnRequest = std::move(fn);
    }

    // Runs on the dispatching thread after an offline notice is recorded.
    void onOffline(std::function<void(const std::string&)> fn) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_OnOffline = std::move(fn);
    }

private:
    mutable std::mutex m_Mutex;
    std::vector<Request> m_Requests;
    std::vector<std::string> m_Offline;
    std::vector<unsigned int> m_Timers;
    std::function<void(const Request&)> m_OnRequest;
    std::function<void(const std::string&)> m_OnOffline;
};

// Creates node `name` in the apartment and attaches a new recorder to it.
inline CReference<RecordingNodeCallback> addRecordingNode(IApartment* pApartment,
                                                          const char* name) {
    CReference<RecordingNodeCallback> recorder(new RecordingNodeCallback());
    EXPECT_TRUE(pApartment->createApartmentNode(name));
    CReference<IApartmentNode> node(pApartment->findApartmentNode(name));
    if (!node.nil()) node->setCallback(recorder);
    return recorder;
}

// A message that carries a freshly built frame, as a communication thread
// would post it.
inline APARTMENT_TMSG frameMessage(APARTMENT_MSG_CODE code, unsigned int uintFrameType,
                                   const std::vector<char>& payload) {
    CApartmentFrame* frame =
        new CApartmentFrame(uintFrameType, static_cast<unsigned int>(payload.size()));
    if (!payload.empty()) std::memcpy(frame->getFrameBuffer(), payload.data(), payload.size());
    APARTMENT_TMSG msg;
    msg.m_intMsg = code;
    msg.wParam = reinterpret_cast<WPARAM>(static_cast<IApartmentFrame*>(frame));
    msg.lParam = 0;
    return msg;
}

inline APARTMENT_TMSG requestMessage(const char* node, unsigned int uintRequestId,
                                     const std::string& data = "") {
    return frameMessage(REQUEST_FRAME_ARRIVED, APARTMENT_REQUEST_FRAME,
                        CApartmentFrameCodec::buildRequestPayload(
                            "tcp://127.0.0.1:1", "peer", "tcp://127.0.0.1:2", node, uintRequestId,
                            true, data.data(), static_cast<unsigned int>(data.size())));
}

inline APARTMENT_TMSG responseMessage(const char* node, unsigned int uintRequestId,
                                      int intResponseCode, const std::string& data = "") {
    return frameMessage(RESPONSE_FRAME_ARRIVED, APARTMENT_RESPONSE_FRAME,
                        CApartmentFrameCodec::buildResponsePayload(
                            "tcp://127.0.0.1:1", "peer", "tcp://127.0.0.1:2", node, uintRequestId,
                            intResponseCode, data.data(), static_cast<unsigned int>(data.size())));
}

inline void post(IApartment* pApartment, const APARTMENT_TMSG& msg) {
    CReference<IApartmentEx> ex(asIApartmentEx(pApartment));
    ex->postMessage(msg);
}

inline APARTMENT_TMSG plainMessage(int code) {
    APARTMENT_TMSG msg;
    msg.m_intMsg = static_cast<APARTMENT_MSG_CODE>(code);
    msg.wParam = 0;
    msg.lParam = 0;
    return msg;
}

}  // namespace aptest

#endif
