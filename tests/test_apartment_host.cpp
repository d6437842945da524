// The host helper header: counting, callable callbacks, deadlines and the
// pump loop. The cases that initialise an apartment rely on each case
// running in its own process.
#include "ApartmentHost.h"

#include <gtest/gtest.h>

#include <chrono>
#include <random>
#include <string>

namespace {

using namespace ApartmentHost;
using Clock = std::chrono::steady_clock;

long long msSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

// Sets a flag when destroyed, to observe the last release.
class CProbe : public TCountedCallback<IApartmentCallback> {
public:
    explicit CProbe(bool* pDestroyed) : m_pDestroyed(pDestroyed) {}
    void onTimer(unsigned int) override {}
    void onApartmentOffline(const char*) override {}
    void onRawFrameReceived(unsigned int, const void*, unsigned int) override {}

protected:
    ~CProbe() override { *m_pDestroyed = true; }

private:
    bool* m_pDestroyed;
};

TEST(ApartmentHostCounting, StartsAtOneAndDeletesAtTheLastRelease) {
    bool destroyed = false;
    CProbe* probe = new CProbe(&destroyed);
    EXPECT_EQ(probe->addRef(), 2u);
    EXPECT_EQ(probe->releaseRef(), 1u);
    EXPECT_FALSE(destroyed);
    EXPECT_EQ(probe->releaseRef(), 0u);
    EXPECT_TRUE(destroyed);
}

TEST(ApartmentHostCounting, QueryInterfaceAnswersItsNamesOnly) {
    bool destroyed = false;
    CProbe* probe = new CProbe(&destroyed);
    void* found = nullptr;
    ASSERT_TRUE(probe->queryInterface("IApartmentCallback", &found));
    EXPECT_EQ(found, static_cast<IApartmentCallback*>(probe));
    ASSERT_TRUE(probe->queryInterface("IBase", &found));
    EXPECT_EQ(probe->releaseRef(), 2u);  // both hits added a reference

    void* untouched = &destroyed;
    EXPECT_FALSE(probe->queryInterface("IApartmentNodeCallback", &untouched));
    EXPECT_FALSE(probe->queryInterface(nullptr, &untouched));
    EXPECT_FALSE(probe->queryInterface("IBase", nullptr));
    EXPECT_EQ(untouched, &destroyed);
    EXPECT_EQ(probe->releaseRef(), 1u);  // the misses added none
    probe->releaseRef();
    EXPECT_TRUE(destroyed);
}

TEST(ApartmentHostCallables, ForwardEachOperationAndIgnoreEmptyOnes) {
    CApartmentCallbackFn* apartment = new CApartmentCallbackFn();
    apartment->onTimer(1);  // nothing set: nothing happens
    unsigned int timerId = 0, frameType = 0, frameLength = 0;
    std::string offlineUrl;
    apartment->timer = [&](unsigned int id) { timerId = id; };
    apartment->offline = [&](const char* url) { offlineUrl = url; };
    apartment->rawFrame = [&](unsigned int type, const void*, unsigned int len) {
        frameType = type;
        frameLength = len;
    };
    apartment->onTimer(7);
    apartment->onApartmentOffline("tcp://127.0.0.1:1");
    apartment->onRawFrameReceived(3, "abc", 3);
    EXPECT_EQ(timerId, 7u);
    EXPECT_EQ(offlineUrl, "tcp://127.0.0.1:1");
    EXPECT_EQ(frameType, 3u);
    EXPECT_EQ(frameLength, 3u);
    apartment->releaseRef();

    CNodeCallbackFn* node = new CNodeCallbackFn();
    NodeRequest seen{};
    std::string payload;
    node->request = [&](const NodeRequest& r) {
        seen = r;
        payload.assign(static_cast<const char*>(r.pRequestBuffer), r.uintBufLen);
    };
    node->onRequestReceived("tcp://a", "src", "tcp://b", "dst", 42, "hello", 5, true);
    EXPECT_STREQ(seen.strSourceNodeUrl, "src");
    EXPECT_STREQ(seen.strTargetNodeUrl, "dst");
    EXPECT_EQ(seen.uintRequestId, 42u);
    EXPECT_TRUE(seen.bRequireResponse);
    EXPECT_EQ(payload, "hello");
    node->releaseRef();
}

TEST(ApartmentHostDeadline, IsNowPlusTheDelayOnTheMonotonicClock) {
    const timespec none = noDeadline();
    EXPECT_EQ(none.tv_sec, -1);
    EXPECT_EQ(none.tv_nsec, -1);
    const double now =
        std::chrono::duration<double>(Clock::now().time_since_epoch()).count();
    const timespec later = monotonicDeadline(1500);
    const double delta = later.tv_sec + later.tv_nsec / 1e9 - now;
    EXPECT_GE(delta, 1.5);
    EXPECT_LT(delta, 2.5);
    EXPECT_GE(later.tv_nsec, 0);
    EXPECT_LT(later.tv_nsec, 1000000000);
}

TEST(ApartmentHostPump, TimesOutWithoutTheLibraryAndWithoutSpinning) {
    const Clock::time_point start = Clock::now();
    int checks = 0;
    EXPECT_FALSE(pumpUntil([&] { return ++checks < 0; }, 120));
    EXPECT_GE(msSince(start), 120);
    EXPECT_LT(msSince(start), 2000);
    EXPECT_LT(checks, 500);  // slept between attempts
}

// Initialises this process's apartment on a random loopback port; a port
// taken by someone else makes it try another.
std::string initialiseApartment() {
    std::mt19937 random(std::random_device{}());
    std::uniform_int_distribution<int> port(20000, 60000);
    for (int attempt = 0; attempt < 20; ++attempt) {
        const std::string url = "tcp://127.0.0.1:" + std::to_string(port(random));
        if (apartment_initialize(url.c_str(), true)) return url;
    }
    return std::string();
}

TEST(ApartmentHostPump, StopsWhenATimerMakesThePredicateTrue) {
    const std::string url = initialiseApartment();
    ASSERT_FALSE(url.empty());
    CApartmentCallbackFn* callback = new CApartmentCallbackFn();
    bool fired = false;
    callback->timer = [&](unsigned int) { fired = true; };
    ASSERT_TRUE(apartment_set_callback(nullptr, callback));
    callback->releaseRef();  // the library holds its own reference

    const Clock::time_point start = Clock::now();
    ASSERT_NE(apartment_set_single_timer(nullptr, nullptr, 50), 4294967295u);
    EXPECT_TRUE(pumpUntil([&] { return fired; }, 5000));
    EXPECT_GE(msSince(start), 40);
    EXPECT_LT(msSince(start), 4000);

    // Nothing else is due: the pump must give up at its time-out.
    const Clock::time_point idle = Clock::now();
    EXPECT_FALSE(pumpUntil([] { return false; }, 150));
    EXPECT_GE(msSince(idle), 150);
    EXPECT_LT(msSince(idle), 3000);
    apartment_uninitialize();
}

TEST(ApartmentHostPump, NodeCallableAnswersARequestFromInsideItsCallback) {
    const std::string url = initialiseApartment();
    ASSERT_FALSE(url.empty());
    ASSERT_TRUE(apartment_node_create(nullptr, "echo"));
    ASSERT_TRUE(apartment_node_create(nullptr, "asker"));
    CNodeCallbackFn* echo = new CNodeCallbackFn();
    echo->request = [](const NodeRequest& r) {
        apartment_node_write_response(nullptr, r.strTargetNodeUrl, r.strSourceApartmentUrl,
                                      r.strSourceNodeUrl, r.uintRequestId, REQUEST_OK,
                                      const_cast<void*>(r.pRequestBuffer), r.uintBufLen);
    };
    ASSERT_TRUE(apartment_node_set_callback(nullptr, "echo", echo));
    echo->releaseRef();

    ASSERT_TRUE(apartment_connect_remote(nullptr, url.c_str(), false));
    char data[] = "ping";
    unsigned int id = 0;
    ASSERT_EQ(apartment_node_write_request(nullptr, "asker", url.c_str(), "echo", data, 4, id), 0);
    // Read without pumping ourselves: the pump loop delivers the response.
    int code = -99;
    unsigned int length = 0;
    EXPECT_TRUE(pumpUntil(
        [&] { return apartment_node_read_response(nullptr, "asker", id, code, nullptr, length, 0) == 0; },
        5000));
    EXPECT_EQ(code, REQUEST_OK);
    EXPECT_EQ(length, 4u);
    apartment_uninitialize();
}

}  // namespace
