// Test doubles for the timer manager's tests: an apartment that only
// collects what is posted to it, and a node that does nothing. Both count
// references like the real objects and let the test read the count.
#ifndef APARTMENT_TESTS_FAKE_APARTMENT_H
#define APARTMENT_TESTS_FAKE_APARTMENT_H

#include <functional>

#include "GroundKit/Base/Stub.h"
#include "IApartment.h"
#include "IApartmentEx.h"
#include "IApartmentNode.h"
#include "MessageQueue.h"

inline ULONG loadCount(const volatile ULONG* pCount) {
    return __atomic_load_n(pCount, __ATOMIC_SEQ_CST);
}

class FakeApartment : public TExtensionStub<TRootStub<IApartment>, IApartmentEx> {
public:
    void postMessage(const APARTMENT_TMSG& msg) override {
        if (m_onPost) m_onPost(msg);
        m_Posted.push(msg);
    }

    ULONG refCount() const { return loadCount(&m_dwRef); }
    CMessageQueue& posted() { return m_Posted; }
    // Runs on the posting thread before the message is queued.
    void onPost(std::function<void(const APARTMENT_TMSG&)> fn) { m_onPost = std::move(fn); }
    // Runs when the last reference goes, on the releasing thread.
    void onFinal(std::function<void()> fn) { m_onFinal = std::move(fn); }
    void onFinalRelease() override {
        if (m_onFinal) m_onFinal();
    }

    // The rest of IApartment is not used by the timer manager.
    bool initApartment(const char*, bool) override { return false; }
    void destroyApartment() override {}
    APARTMENT_TYPE apartmentType() const override { return INVALID_APARTMENT; }
    bool getApartmentUrl(char*, DWORD&) const override { return false; }
    bool createApartmentNode(const char*) override { return false; }
    IApartmentNode* findApartmentNode(const char*) override { return nullptr; }
    bool destroyApartmentNode(const char*) override { return false; }
    bool setCallback(IApartmentCallback*) override { return false; }
    bool connectApartment(const char*, bool) override { return false; }
    bool hasConnection(const char*, bool) override { return false; }
    bool disconnectApartment(const char*, bool) override { return false; }
    bool localApartmentUrl(const char*, bool, char*, DWORD&) override { return false; }
    bool getMessage(APARTMENT_TMSG&, timespec) override { return false; }
    int dispatchMessage(const APARTMENT_TMSG&) override { return -1; }
    bool stopDispatchMessage() override { return false; }
    bool lockedDispatchThreadId(unsigned long&) override { return false; }
    bool lockDispatchThread() override { return false; }
    bool unlockDispatchThread() override { return false; }
    bool writeRequestFrame(const char*, const char*, const char*, void*, unsigned int, bool,
                           unsigned int&, bool) override {
        return false;
    }
    bool writeResponseFrame(const char*, const char*, const char*, unsigned int, int, void*,
                            unsigned int, bool) override {
        return false;
    }
    bool writeRawFrame(const char*, unsigned int, const void*, unsigned int, bool) override {
        return false;
    }
    bool allowReentry(bool) override { return false; }
    unsigned int setTimer(const char*, unsigned int, unsigned int) override { return 0xFFFFFFFFu; }
    unsigned int setSingleTimer(const char*, unsigned int) override { return 0xFFFFFFFFu; }
    bool killTimer(const char*, unsigned int) override { return false; }
    bool keepAliveWith(const char*, unsigned int, unsigned int) override { return false; }

private:
    CMessageQueue m_Posted;
    std::function<void(const APARTMENT_TMSG&)> m_onPost;
    std::function<void()> m_onFinal;
};

class FakeNode : public TRootStub<IApartmentNode> {
public:
    ULONG refCount() const { return loadCount(&m_dwRef); }

    void notifyApartmentOffline(const char*) override {}
    void onApartmentTimer(unsigned int) override {}
    bool setCallback(IApartmentNodeCallback*) override { return false; }
    void receiveRequest(const char*, const char*, const char*, const char*, unsigned int,
                        const void*, unsigned int, bool) override {}
    bool addResponse(unsigned int, int, const void*, unsigned int) override { return false; }
    bool getResponse(unsigned int, int&, void*, unsigned int&, int) override { return false; }
    bool removeResponse(unsigned int) override { return false; }
    unsigned int setTimer(unsigned int, unsigned int) override { return 0xFFFFFFFFu; }
    unsigned int setSingleTimer(unsigned int) override { return 0xFFFFFFFFu; }
    bool killTimer(unsigned int) override { return false; }
};

#endif
