// What an apartment costs when nothing happens, and what it leaves behind
// after many lives: CPU of an idle linked apartment, memory and leaks over
// repeated initialise / connect / exchange / uninitialise cycles, and
// messages dropped after dispatch stopped.
#include <gtest/gtest.h>

#include "ApartmentFrame.h"
#include "ApartmentManager.h"
#include "ApartmentTimerManager.h"
#include "IApartmentEx.h"
#include "IApartmentSink.h"
#include "harden_support.h"

#if defined(__SANITIZE_ADDRESS__)
#define HARDEN_LSAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define HARDEN_LSAN 1
#endif
#endif
#ifdef HARDEN_LSAN
#include <sanitizer/lsan_interface.h>
#endif

using namespace harden;

// The communication threads poll every 100 ms; with links and no traffic
// the process should stay far below 1% of a core.
TEST(IdleCost, LinkedApartmentWithoutTrafficStaysIdle) {
    const long windowMs = longChecksEnabled() ? 30000 : 5000;
    Peer peer([windowMs] { return echoPeerBody(windowMs + 20000); });
    const std::string url = initialiseOnFreePort(true);
    ASSERT_FALSE(url.empty());
    NodeCallback* node = createNode("client");
    const std::string remote = peer.readLine(5000);
    ASSERT_FALSE(remote.empty());
    ASSERT_EQ(requestAndRead("client", remote, "echo", "hi", 3000), "hi");
    char raw[] = "rt";
    ASSERT_TRUE(apartment_connect_remote(nullptr, remote.c_str(), true));
    ASSERT_EQ(apartment_raw_write(nullptr, remote.c_str(), 7, raw, 2), 0);  // a real-time link too
    pumpFor(300);

    // The host pumps the way a host would: blocking up to 100 ms a call.
    const CpuShare cpu = measureCpu(windowMs, [](long ms) {
        const long long until = nowMs() + ms;
        while (nowMs() < until) apartment_dispatch_message(nullptr, deadlineIn(100));
    });
    printf("[figure] idle with links for %ld ms: process %.3f%% of a core, busiest thread %.3f%%\n",
           windowMs, cpu.process * 100, cpu.busiestThread * 100);
    EXPECT_LT(cpu.process, 0.05);  // generous: a shared CI machine
    peer.tell("stop");
    EXPECT_EQ(peer.wait(5000), 0);
    apartment_uninitialize();
    node->releaseRef();
}

// Each cycle starts an apartment, links it to a long-lived peer both ways
// (requests, a raw frame), leaves timers, a heartbeat, links and nodes in
// place, and uninitialises. Nothing may grow from cycle to cycle and, under
// LeakSanitizer, nothing may leak.
TEST(Lifetime, RepeatedLivesLeaveNothingBehind) {
    const int cycles = longChecksEnabled() ? 200 : 40;
    const int early = cycles / 10;
    Peer peer([] { return echoPeerBody(170000); });
    const std::string remote = peer.readLine(5000);
    ASSERT_FALSE(remote.empty());

    long rssEarly = 0;
    int descriptorsEarly = 0;
    const long long start = nowMs();
    for (int cycle = 1; cycle <= cycles; ++cycle) {
        const std::string url = initialiseOnFreePort(true);
        ASSERT_FALSE(url.empty()) << "cycle " << cycle;
        NodeCallback* node = createNode("client");
        ApartmentCallback* apartmentCb = new ApartmentCallback;
        apartment_set_callback(nullptr, apartmentCb);
        const std::string payload = "cycle " + std::to_string(cycle);
        ASSERT_EQ(requestAndRead("client", remote, "echo", payload, 3000), payload)
            << "cycle " << cycle;
        char raw[64] = "raw";
        EXPECT_TRUE(apartment_connect_remote(nullptr, remote.c_str(), true));
        EXPECT_EQ(apartment_raw_write(nullptr, remote.c_str(), 7, raw, sizeof raw), 0);
        EXPECT_NE(apartment_set_timer(nullptr, "client", 5, 5), 4294967295u);
        EXPECT_NE(apartment_set_timer(nullptr, nullptr, 5, 5), 4294967295u);
        EXPECT_NE(apartment_set_single_timer(nullptr, "client", 60000), 4294967295u);
        EXPECT_TRUE(apartment_keepalive_with(nullptr, remote.c_str(), 3, 10));
        unsigned int id = 0;
        char pending[] = "unanswered";
        apartment_node_write_request(nullptr, "client", remote.c_str(), "nobody", pending,
                                     sizeof pending, id);
        pumpFor(30);
        apartment_uninitialize();
        node->releaseRef();
        apartmentCb->releaseRef();
        if (cycle == early) {
            rssEarly = residentKb();
            descriptorsEarly = openDescriptors();
        }
    }
    const long rssLate = residentKb();
    const int descriptorsLate = openDescriptors();
    printf("[figure] %d lives in %lld ms: resident %ld kB after life %d, %ld kB after life %d; "
           "descriptors %d and %d\n",
           cycles, nowMs() - start, rssEarly, early, rssLate, cycles, descriptorsEarly,
           descriptorsLate);
    EXPECT_EQ(descriptorsLate, descriptorsEarly);
#ifdef HARDEN_LSAN
    // ASan's quarantine holds freed memory back, so resident memory says
    // nothing here; the leak check says it all.
    const int leaks = __lsan_do_recoverable_leak_check();
    printf("[figure] LeakSanitizer after %d lives: %s\n", cycles, leaks ? "LEAKS" : "no leak");
    EXPECT_EQ(leaks, 0);
#else
    EXPECT_LT(rssLate - rssEarly, 2048) << "resident memory grew by more than 2 MB";
#endif
    peer.tell("stop");
    EXPECT_EQ(peer.wait(5000), 0);
}

#ifdef HARDEN_LSAN
// Messages that can no longer be dispatched (a frame arriving, an
// apartment or node timer firing after stopDispatchMessage) are dropped
// with what they carry: nothing leaks.
TEST(Lifetime, MessagesDroppedAfterDispatchStoppedLeakNothing) {
    CApartmentManager::createUniqueApartmentManager();
    CApartmentTimerManager::createUniqueApartmentTimerManager();
    IApartment* apartment = nullptr;
    for (int attempt = 0; attempt < 20 && apartment == nullptr; ++attempt)
        apartment = CApartmentManager::getUniqueApartmentManager()->createApartment(
            urlOf(freePort()).c_str(), true);
    ASSERT_NE(apartment, nullptr);
    apartment->createApartmentNode("n");
    ASSERT_NE(apartment->setTimer("n", 5, 5), 4294967295u);
    ASSERT_NE(apartment->setTimer(nullptr, 5, 5), 4294967295u);
    ASSERT_TRUE(apartment->stopDispatchMessage());

    // Posted from a thread that then ends, as a communication thread posts
    // a frame it read, so that no stack still holds the pointer when
    // LeakSanitizer looks.
    std::thread poster([&] {
        CApartmentFrame* frame = new CApartmentFrame(APARTMENT_REQUEST_FRAME, 16);
        CReference<IApartmentEx> ex(asIApartmentEx(apartment));
        APARTMENT_TMSG msg;
        msg.m_intMsg = REQUEST_FRAME_ARRIVED;
        msg.wParam = reinterpret_cast<WPARAM>(static_cast<IApartmentFrame*>(frame));
        msg.lParam = 0;
        ex->postMessage(msg);
    });
    poster.join();
    sleepMs(150);  // both timers fire into the stopped queue

    apartment->releaseRef();
    CApartmentTimerManager::destroyUniqueApartmentTimerManager();
    CApartmentManager::getUniqueApartmentManager()->removeAllApartments();
    CApartmentManager::destroyUniqueApartmentManager();

    const int leaks = __lsan_do_recoverable_leak_check();
    printf("[figure] messages dropped after dispatch stopped: leak check %s\n",
           leaks ? "reports a leak" : "clean");
    EXPECT_EQ(leaks, 0);
}
#endif
