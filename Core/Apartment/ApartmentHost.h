// ApartmentHost.h: header-only conveniences for a process that hosts an
// apartment through the C interface (ApartmentApi.h).
//
// Nothing here adds behaviour to the library; it only spares a host the
// reference counting and clock arithmetic that every host writes:
//   - TCountedCallback<I>: a counted base for IApartmentCallback and
//     IApartmentNodeCallback implementations;
//   - CApartmentCallbackFn, CNodeCallbackFn: callbacks whose operations are
//     std::function members, for hosts that prefer lambdas to subclasses;
//   - monotonicDeadline(ms), noDeadline(): the absolute deadlines that
//     apartment_dispatch_message takes;
//   - pumpUntil(): dispatches messages until a condition holds or time runs
//     out.
// It depends only on the installed public headers and the standard library.
#ifndef APARTMENT_APARTMENTHOST_H
#define APARTMENT_APARTMENTHOST_H

#include <time.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <thread>

#include "ApartmentApi.h"

namespace ApartmentHost {

// The reference counting and interface lookup of a host's callback object.
//
// The count starts at 1: the creator owns the first reference and drops it
// with releaseRef once it has handed the object to the library (which keeps
// its own). queryInterface answers "IBase" and Interface::interfaceName(),
// adding a reference for the caller. The release that reaches 0 deletes the
// object, on whichever thread made it: a library thread may hold the last
// reference, so a derived destructor must not assume the host's thread.
// addRef and releaseRef may be called from any thread.
template <class Interface>
class TCountedCallback : public Interface {
public:
    TCountedCallback() = default;
    TCountedCallback(const TCountedCallback&) = delete;
    TCountedCallback& operator=(const TCountedCallback&) = delete;

    bool queryInterface(const char* strInterfaceName, void** ppInterface) override {
        if (strInterfaceName == nullptr || ppInterface == nullptr) return false;
        if (std::strcmp(strInterfaceName, IBase::interfaceName()) != 0 &&
            std::strcmp(strInterfaceName, Interface::interfaceName()) != 0)
            return false;
        *ppInterface = static_cast<Interface*>(this);
        addRef();
        return true;
    }

    ULONG addRef() override { return m_ulRef.fetch_add(1, std::memory_order_relaxed) + 1; }

    ULONG releaseRef() override {
        const ULONG remaining = m_ulRef.fetch_sub(1, std::memory_order_acq_rel) - 1;
        if (remaining == 0) delete this;
        return remaining;
    }

protected:
    // Only the last releaseRef destroys the object.
    virtual ~TCountedCallback() = default;

private:
    std::atomic<ULONG> m_ulRef{1};
};

// An apartment callback that forwards each operation to a callable; an empty
// callable ignores the event. Set the members before installing the object
// with apartment_set_callback: the library calls them from its threads
// (onRawFrameReceived from the real-time thread) without synchronisation.
class CApartmentCallbackFn : public TCountedCallback<IApartmentCallback> {
public:
    std::function<void(unsigned int uintTimerId)> timer;
    std::function<void(const char* strRemoteApartmentUrl)> offline;
    std::function<void(unsigned int uintFrameType, const void* pBuffer, unsigned int uintBufLen)>
        rawFrame;

    void onTimer(unsigned int uintTimerId) override {
        if (timer) timer(uintTimerId);
    }
    void onApartmentOffline(const char* strRemoteApartmentUrl) override {
        if (offline) offline(strRemoteApartmentUrl);
    }
    void onRawFrameReceived(unsigned int uintFrameType, const void* pBuffer,
                            unsigned int uintBufLen) override {
        if (rawFrame) rawFrame(uintFrameType, pBuffer, uintBufLen);
    }
};

// What a node receives with a request or notification. The pointers are
// valid only during the call.
struct NodeRequest {
    const char* strSourceApartmentUrl;
    const char* strSourceNodeUrl;
    const char* strTargetApartmentUrl;
    const char* strTargetNodeUrl;
    unsigned int uintRequestId;
    const void* pRequestBuffer;
    unsigned int uintBufLen;
    bool bRequireResponse;
};

// A node callback that forwards each operation to a callable, with the same
// rules as CApartmentCallbackFn; all three run on the dispatching thread.
class CNodeCallbackFn : public TCountedCallback<IApartmentNodeCallback> {
public:
    std::function<void(unsigned int uintTimerId)> timer;
    std::function<void(const char* strApartmentUrl)> offline;
    std::function<void(const NodeRequest& request)> request;

    void onTimer(unsigned int uintTimerId) override {
        if (timer) timer(uintTimerId);
    }
    void onApartmentOffline(const char* strApartmentUrl) override {
        if (offline) offline(strApartmentUrl);
    }
    void onRequestReceived(const char* strSourceApartmentUrl, const char* strSourceNodeUrl,
                           const char* strTargetApartmentUrl, const char* strTargetNodeUrl,
                           unsigned int uintRequestId, const void* pRequestBuffer,
                           unsigned int uintBufLen, bool bRequireResponse) override {
        if (!request) return;
        const NodeRequest r{strSourceApartmentUrl, strSourceNodeUrl, strTargetApartmentUrl,
                            strTargetNodeUrl,      uintRequestId,    pRequestBuffer,
                            uintBufLen,            bRequireResponse};
        request(r);
    }
};

// The deadline value that means "wait without limit".
inline timespec noDeadline() {
    timespec ts;
    ts.tv_sec = -1;
    ts.tv_nsec = -1;
    return ts;
}

// Now plus `ms` milliseconds on the monotonic clock, the clock of every
// deadline the library takes. (std::chrono::steady_clock reads
// CLOCK_MONOTONIC on Linux with both standard libraries in use.)
inline timespec monotonicDeadline(unsigned long ms) {
    const auto sinceBoot = std::chrono::steady_clock::now().time_since_epoch() +
                           std::chrono::milliseconds(ms);
    const auto secs = std::chrono::duration_cast<std::chrono::seconds>(sinceBoot);
    timespec ts;
    ts.tv_sec = static_cast<time_t>(secs.count());
    ts.tv_nsec = static_cast<long>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(sinceBoot - secs).count());
    return ts;
}

// Dispatches the apartment's messages (null URL: the initialised
// apartment) on the calling thread until `done()` returns true or
// `timeoutMs` milliseconds have passed; returns whether `done()` held.
// `done` is checked before the first wait, after every dispatched message
// and at least every `pollMs` milliseconds, so it may also watch state that
// other threads change. Blocks for at most about `timeoutMs`; when the
// library is not initialised or dispatching was stopped it does not spin,
// but sleeps in steps of a millisecond until the time-out. Call it where
// apartment_dispatch_message may be called (on the dispatching thread, or
// inside a callback that runs there).
template <class Predicate>
bool pumpUntil(Predicate done, unsigned long timeoutMs, const char* strApartmentUrl = nullptr,
               unsigned long pollMs = 10) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        if (done()) return true;
        const Clock::time_point now = Clock::now();
        if (now >= end) return false;
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - now).count() + 1;
        const unsigned long slice =
            static_cast<unsigned long>(left) < pollMs ? static_cast<unsigned long>(left) : pollMs;
        if (apartment_dispatch_message(strApartmentUrl, monotonicDeadline(slice)) < 0 &&
            Clock::now() < now + std::chrono::milliseconds(slice))
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

}  // namespace ApartmentHost

#endif
