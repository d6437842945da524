// The C interface end to end: what every function returns when it cannot
// act, initialisation, requests, responses, notifications and raw frames
// between this process and a peer process (and between nodes of this
// apartment), timers, calls nested in callbacks, the heartbeat, and the
// host helpers of ApartmentHost.h.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <sstream>

#include <stdexcept>

#include "os_sync.h"
#include "support.h"

using namespace aptest;

// A failure inside the library on demand, for the calling thread only:
// once t_failLocks is set, the next library mutex taken throws (one
// failure, as an allocation failure would be; the unwinding after it may
// lock again). This definition comes first in symbol lookup, so
// libapartment.so's calls reach it; otherwise it forwards to the platform
// layer.
namespace {
thread_local bool t_failLocks = false;
}
extern "C" int os_mutex_lock(mutex_handle* handle) {
    if (t_failLocks) {
        t_failLocks = false;
        throw std::runtime_error("injected failure");
    }
    using Lock = int (*)(mutex_handle*);
    static const Lock platformLock = reinterpret_cast<Lock>(dlsym(RTLD_NEXT, "os_mutex_lock"));
    return platformLock(handle);
}

namespace {

const unsigned int NO_TIMER = 4294967295u;

// This process's apartment with node "me"; for ApiWithPeer, started after
// a reporting peer (see servePeer).
class Api : public ::testing::Test {
protected:
    void SetUp() override {
        if (withPeer()) {
            m_peer.start([] {
                PeerOptions options;
                options.report = true;
                return servePeer(options);
            });
            m_peerUrl = m_peer.readLine(5000);
            ASSERT_FALSE(m_peerUrl.empty());
        }
        m_url = initialiseOnFreePort();
        ASSERT_FALSE(m_url.empty());
        m_me = addNode("me");
    }
    void TearDown() override { apartment_uninitialize(); }
    virtual bool withPeer() const { return false; }

    std::string m_url, m_peerUrl;
    Peer m_peer;
    CReference<Recorder> m_me;
};
class ApiWithPeer : public Api {
    bool withPeer() const override { return true; }
};

// A round trip between two nodes of this apartment through its own URL.
void expectRoundTrip(const std::string& url) {
    CReference<Recorder> server = addNode("rt-server", true);
    CReference<Recorder> client = addNode("rt-client");
    EXPECT_EQ(requestAndRead("rt-client", url, "rt-server", "rt", 5000), "rt");
}

// ------------------------------------------------------------ result values

// Every function but the lifecycle ones, and what it returns when it
// cannot act: false, a status, 4294967295 or -1. A status says why: -1 not
// initialised, -2 no such apartment, -4 failed.
enum Kind { BOOL, STATUS, TIMER, DISPATCH };
struct Call {
    const char* name;
    Kind kind;
    std::function<long long(const char* url, const char* messagingUrl)> run;
};
long long expected(Kind kind, int status) {
    const long long values[] = {0, status, NO_TIMER, -1};
    return values[kind];
}

// The out-arguments of the calls; a failed call leaves g_id alone.
unsigned int g_id = 0, g_length = 1;
DWORD g_dwLength = 0;
int g_code = 0;
char g_byte = 'x';

std::vector<Call> everyCall(IApartmentNodeCallback* cb) {
    const char* r = "tcp://127.0.0.1:1";
#define CALL(kind, call) \
    {#call, kind, [=](const char* url, const char* m) { \
         (void)url; \
         (void)m; \
         return static_cast<long long>(call); \
     }}
    return {
        CALL(BOOL, apartment_set_callback(url, nullptr)),
        CALL(BOOL, apartment_set_dispatch_enabled(url, true)),
        CALL(BOOL, apartment_set_dispatch_enabled(url, false)),
        CALL(DISPATCH, apartment_dispatch_message(url, deadlineIn(0))),
        CALL(BOOL, apartment_stop_dispatch_message(url)),
        CALL(BOOL, apartment_allow_reentry(url, true)),
        CALL(BOOL, apartment_local_url(url, r, false, nullptr, g_dwLength)),
        CALL(BOOL, apartment_connect_remote(url, r, false)),
        CALL(BOOL, apartment_has_connect_remote(url, r, false)),
        CALL(BOOL, apartment_disconnect_remote(url, r, false)),
        CALL(BOOL, apartment_node_create(url, "m")),
        CALL(BOOL, apartment_node_destroy(url, "n")),
        CALL(BOOL, apartment_node_set_callback(url, "n", cb)),
        CALL(STATUS, apartment_raw_write(url, r, 5, &g_byte, g_length)),
        CALL(STATUS, apartment_node_write_request(m, "n", r, "m", &g_byte, 1, g_id)),
        CALL(STATUS, apartment_node_write_notify(m, "n", r, "m", &g_byte, 1, g_id)),
        CALL(STATUS, apartment_node_write_response(m, "n", r, "m", 1, 0, &g_byte, 1)),
        CALL(STATUS, apartment_node_read_response(m, "n", 1, g_code, nullptr, g_length, 0)),
        CALL(TIMER, apartment_set_timer(url, nullptr, 10, 10)),
        CALL(TIMER, apartment_set_single_timer(url, "n", 10)),
        CALL(BOOL, apartment_kill_timer(url, nullptr, 1)),
        CALL(BOOL, apartment_keepalive_with(url, r, 3, 100)),
    };
#undef CALL
}

// Runs every call (with `inject`, each after arming a failure inside) and
// checks its result; a failed call leaves the request id alone.
void expectEveryCallFails(const char* url, const char* messagingUrl, int status,
                          bool inject = false) {
    SCOPED_TRACE(url != nullptr ? url : "(null)");
    g_id = 77;
    CReference<Recorder> node(new Recorder);
    for (const Call& call : everyCall(node->node())) {
        long long result = 12345;
        bool threw = false;
        t_failLocks = inject;
        try {
            result = call.run(url, messagingUrl);
        } catch (...) {
            threw = true;
        }
        t_failLocks = false;
        EXPECT_FALSE(threw) << call.name;
        EXPECT_EQ(result, expected(call.kind, status)) << call.name;
    }
    EXPECT_EQ(g_id, 77u);
}

TEST(ApiResults, EveryCallFailsBeforeInitialisationAndAfterUninitialisation) {
    apartment_uninitialize();  // harmless when never initialised
    expectEveryCallFails(nullptr, nullptr, APARTMENT_NOT_INITIALIZED);
    expectEveryCallFails("tcp://127.0.0.1:1", "tcp://127.0.0.1:1", APARTMENT_NOT_INITIALIZED);
    ASSERT_FALSE(initialiseOnFreePort().empty());
    apartment_uninitialize();
    expectEveryCallFails(nullptr, nullptr, APARTMENT_NOT_INITIALIZED);
}

// Another port, or the right address without the scheme (the node
// messaging functions look for "tcp://" only, and for nothing else).
TEST_F(Api, AnUnknownApartmentUrlFailsEveryCall) {
    const std::string schemeless = m_url.substr(6);
    expectEveryCallFails("tcp://127.0.0.1:1", schemeless.c_str(), CAN_NOT_FIND_APARTMENT);
    expectEveryCallFails(schemeless.c_str(), schemeless.c_str(), CAN_NOT_FIND_APARTMENT);
}

// An exception inside the library (here from the first lock the call
// takes) never leaves an exported function: each returns its failure
// value with one line, and the library works normally afterwards.
TEST_F(Api, AFailureInsideReturnsEachFunctionsFailureValue) {
    ASSERT_TRUE(apartment_node_create(nullptr, "n"));
    testing::internal::CaptureStdout();
    expectEveryCallFails(m_url.c_str(), nullptr, APARTMENT_METHOD_FAILED, true);
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_NE(printed.find("[Apartment Error]: apartment_set_timer: injected failure."),
              std::string::npos)
        << printed;
    expectRoundTrip(m_url);
}

TEST_F(Api, NodeFunctionsReportWhatTheApartmentSays) {
    CReference<Recorder> node(new Recorder);
    EXPECT_TRUE(apartment_node_create(nullptr, "n"));
    EXPECT_TRUE(apartment_node_create(nullptr, "n"));       // taken: still true
    EXPECT_TRUE(apartment_node_destroy(nullptr, "ghost"));  // unknown: still true
    EXPECT_FALSE(apartment_node_set_callback(nullptr, "ghost", node->node()));
    EXPECT_TRUE(apartment_node_set_callback(nullptr, "n", node->node()));
    int code = 0;
    unsigned int length = 0;
    EXPECT_EQ(apartment_node_read_response(nullptr, "ghost", 1, code, nullptr, length, 0),
              CAN_NOT_FIND_APARTMENT_NODE);
    EXPECT_EQ(apartment_node_read_response(nullptr, "n", 1, code, nullptr, length, 0),
              APARTMENT_METHOD_FAILED);
    EXPECT_TRUE(apartment_node_destroy(nullptr, "n"));
    EXPECT_EQ(apartment_node_read_response(nullptr, "n", 1, code, nullptr, length, 0),
              CAN_NOT_FIND_APARTMENT_NODE);
    // A name that is not pure ASCII fails the call and changes nothing.
    unsigned int id = 55;
    EXPECT_EQ(apartment_node_write_request(nullptr, "m\xc3\xa9", m_url.c_str(), "me", nullptr, 0, id),
              APARTMENT_METHOD_FAILED);
    EXPECT_EQ(apartment_node_write_notify(nullptr, "me", m_url.c_str(), "n\xc3\xb6", nullptr, 0, id),
              APARTMENT_METHOD_FAILED);
    EXPECT_EQ(apartment_node_write_response(nullptr, "\xe2\x82\xac", m_url.c_str(), "me", 1, 0,
                                            nullptr, 0),
              APARTMENT_METHOD_FAILED);
    EXPECT_EQ(id, 55u);
}

// The node messaging functions reach this apartment for any URL with the
// scheme; the others insist on the exact URL (or null).
TEST_F(Api, NodeMessagingReachesThisApartmentForAnyUrlWithTheScheme) {
    CReference<Recorder> server = addNode("server");
    server->onRequest([](const Recorder::Request& r) {
        // A null buffer sends no data, whatever length comes with it.
        apartment_node_write_response("any tcp:// text", "server", r.srcApartment.c_str(),
                                      r.srcNode.c_str(), r.id, 0, nullptr, 10);
    });
    unsigned int id = 0;
    ASSERT_EQ(apartment_node_write_request("tcp://10.9.8.7:1", "me", m_url.c_str(), "server",
                                           nullptr, 0, id),
              0);
    int code = 99;
    unsigned int length = 5;
    EXPECT_EQ(apartment_node_read_response("xtcp://", "me", id, code, nullptr, length, 10000), 0);
    EXPECT_EQ(code, 0);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(apartment_node_read_response(m_url.substr(6).c_str(), "me", id, code, nullptr,
                                           length, 0),
              CAN_NOT_FIND_APARTMENT);
    EXPECT_TRUE(apartment_node_create(m_url.c_str(), "third"));
    EXPECT_FALSE(apartment_node_create("tcp://10.9.8.7:1", "fourth"));
}

// ---------------------------------------------------------- initialisation

TEST(ApiLifecycle, InitialisationOnceAtATimeAgainAndAfterAFailure) {
    // A bad scheme fails and changes nothing; a retry succeeds.
    EXPECT_FALSE(apartment_initialize(("udp://127.0.0.1:" + std::to_string(freePort())).c_str(), true));
    EXPECT_FALSE(apartment_node_create(nullptr, "n"));
    for (int life = 0; life < 3; ++life) {
        SCOPED_TRACE(life);
        const std::string url = initialiseOnFreePort();
        ASSERT_FALSE(url.empty());
        // Nothing of the previous life is left.
        int code = 0;
        unsigned int length = 0;
        EXPECT_EQ(apartment_node_read_response(nullptr, "rt-client", 1, code, nullptr, length, 0),
                  CAN_NOT_FIND_APARTMENT_NODE);
        // A second initialisation is refused and the first keeps working.
        EXPECT_FALSE(apartment_initialize(urlOf(freePort()).c_str(), true));
        EXPECT_FALSE(apartment_initialize(url.c_str(), true));
        expectRoundTrip(url);
        apartment_uninitialize();
    }
    // "tcp://" alone listens on every interface and a random port; the
    // apartment is known by its real URL, not by port 0.
    bool initialised = false;
    for (int attempt = 0; attempt < 5 && !initialised; ++attempt)
        initialised = apartment_initialize("tcp://", true);
    ASSERT_TRUE(initialised);
    EXPECT_TRUE(apartment_node_create(nullptr, "n"));
    EXPECT_FALSE(apartment_node_create("tcp://0.0.0.0:0", "n"));
    EXPECT_FALSE(apartment_node_create("tcp://", "n"));
    apartment_uninitialize();
}

// The version texts follow the size protocol; each call makes a fresh
// object, owned by the caller.
TEST(ApiLifecycle, ModuleVersionTextsAreExact) {
    IModuleVersion* version = apartment_get_module_version();
    ASSERT_NE(version, nullptr);
    unsigned long length = 0;
    ASSERT_TRUE(version->getShortVersion(nullptr, length));
    EXPECT_EQ(length, 6u);
    char text[256];
    length = 5;
    EXPECT_FALSE(version->getShortVersion(text, length));
    length = 6;
    ASSERT_TRUE(version->getShortVersion(text, length));
    EXPECT_STREQ(text, "1.0.0");
    length = sizeof text;
    ASSERT_TRUE(version->getFullVersion(text, length));
    EXPECT_EQ(std::string(text), "1.0.0  BUILDTIME : 请为模块调用UpdateBuildTime方法更新编译版本号");
    EXPECT_EQ(length, std::string(text).size() + 1);
    EXPECT_EQ(version->getMajorVersionNum() * 100 + version->getMinorVersionNum() * 10 +
                  version->getRevisionNum(),
              100u);
    IModuleVersion* another = apartment_get_module_version();
    EXPECT_NE(another, version);
    EXPECT_EQ(another->releaseRef(), 0u);
    EXPECT_EQ(version->releaseRef(), 0u);
}

// -1 when nothing comes by the deadline (no limit: both fields -1); after
// a stop, -1 at once and for good; while bound to one thread, -1 for any
// other.
TEST_F(Api, DispatchResultsAndTheBoundThread) {
    Clock::time_point start = Clock::now();
    EXPECT_EQ(apartment_dispatch_message(nullptr, deadlineIn(100)), -1);
    EXPECT_GE(msSince(start), 80);
    ASSERT_NE(apartment_set_single_timer(nullptr, nullptr, 0), NO_TIMER);
    EXPECT_EQ(apartment_dispatch_message(nullptr, timespec{-1, -1}), 1);

    EXPECT_TRUE(apartment_set_dispatch_enabled(nullptr, true));
    EXPECT_FALSE(apartment_set_dispatch_enabled(nullptr, true));
    ASSERT_NE(apartment_set_single_timer(nullptr, nullptr, 0), NO_TIMER);
    int other = 0;
    std::thread([&other] { other = apartment_dispatch_message(nullptr, deadlineIn(200)); }).join();
    EXPECT_EQ(other, -1);
    EXPECT_EQ(apartment_dispatch_message(nullptr, deadlineIn(2000)), 1);
    EXPECT_TRUE(apartment_set_dispatch_enabled(nullptr, false));
    EXPECT_FALSE(apartment_set_dispatch_enabled(nullptr, false));

    EXPECT_TRUE(apartment_stop_dispatch_message(nullptr));
    ASSERT_NE(apartment_set_single_timer(nullptr, nullptr, 0), NO_TIMER);
    start = Clock::now();
    EXPECT_EQ(apartment_dispatch_message(nullptr, deadlineIn(2000)), -1);
    EXPECT_LT(msSince(start), 1000);
}

// --------------------------------------------------------------- messaging

TEST_F(ApiWithPeer, RequestsCarryDataOfEverySizeAndNumberFromOne) {
    unsigned int expectedId = 1;
    // 1016 and 1017 sit on either side of a 1 KiB frame with its header.
    for (size_t size : {0, 1, 1016, 1017, 1 << 20}) {
        SCOPED_TRACE(size);
        const std::string request = text(pattern(size));
        unsigned int id = 0;
        ASSERT_EQ(apartment_node_write_request(nullptr, "me", m_peerUrl.c_str(), "echo",
                                               size != 0 ? const_cast<char*>(request.data()) : nullptr,
                                               static_cast<unsigned int>(size), id),
                  0);
        EXPECT_EQ(id, expectedId++);
        std::string seen;
        ASSERT_TRUE(m_peer.waitFor("REQ echo", 10000, &seen));
        EXPECT_EQ(seen, "REQ echo " + m_url + " me " + std::to_string(id) + " " +
                            std::to_string(size) + " 1 " + std::to_string(fnv1a(request.data(), size)));
        int code = 99;
        std::string response;
        ASSERT_EQ(readResponse("me", id, code, response, 10000), 0);
        EXPECT_EQ(code, REQUEST_OK);
        EXPECT_TRUE(response == request);
    }
}

// Both apartments with a send queue: writes return once queued, and what
// two writer threads queue on one link arrives whole and in each writer's
// order; a request and its answer still make their round trip.
class ApiWithPeerAndSendQueue : public ApiWithPeer {
protected:
    void SetUp() override {
        setenv("APARTMENT_SEND_QUEUE_BYTES", "4096", 1);  // the peer inherits it
        ApiWithPeer::SetUp();
        unsetenv("APARTMENT_SEND_QUEUE_BYTES");
    }
};

TEST_F(ApiWithPeerAndSendQueue, FramesOfTwoWritersArriveWholeAndInEachWritersOrder) {
    constexpr unsigned int kFrames = 150, kStep = 40;
    CReference<Recorder> other = addNode("me2");
    std::atomic<int> failures{0};
    auto write = [&](unsigned int t) {
        // The size tells the order; the bytes the writer.
        for (unsigned int size = kStep; size <= kFrames * kStep; size += kStep) {
            Bytes data = pattern(size, t);
            unsigned int id = 0;
            failures += apartment_node_write_notify(nullptr, t == 0 ? "me" : "me2",
                                                    m_peerUrl.c_str(), "echo", data.data(), size,
                                                    id) != 0;
        }
    };
    std::thread second(write, 1);
    write(0);
    second.join();
    EXPECT_EQ(failures, 0);
    unsigned long next[2] = {kStep, kStep};
    for (unsigned int i = 0; i < 2 * kFrames; ++i) {
        std::string line;
        ASSERT_TRUE(m_peer.waitFor("REQ echo", 10000, &line)) << i;
        char node[8] = "";
        unsigned long size = 0, hash = 0;
        ASSERT_EQ(std::sscanf(line.c_str(), "REQ echo %*s %7s %*u %lu %*d %lu", node, &size, &hash), 3);
        const unsigned int t = std::strcmp(node, "me") == 0 ? 0 : 1;
        ASSERT_EQ(size, next[t]) << line;
        next[t] += kStep;
        const Bytes data = pattern(size, t);
        EXPECT_EQ(hash, fnv1a(data.data(), size)) << line;
    }
    EXPECT_EQ(requestAndRead("me", m_peerUrl, "echo", "after", 5000), "after");
}

TEST_F(ApiWithPeer, ResponseCodesPassThroughUnchanged) {
    for (int sent : {int(REQUEST_OK), int(REQUEST_METHOD_NOT_FOUND), int(REQUEST_PARAMETER_ERROR),
                     int(REQUEST_OPERATE_FAILED), 123456789, -2000000000}) {
        int code = 99;
        EXPECT_EQ(requestAndRead("me", m_peerUrl, "code", std::to_string(sent), 10000, &code),
                  std::to_string(sent));
        EXPECT_EQ(code, sent);
    }
}

// A read with a null buffer asks for code and length and keeps the
// response; too small a buffer fails and keeps it; a buffer takes it.
TEST_F(ApiWithPeer, AResponseStaysUntilReadIntoABuffer) {
    char request[] = "twelve bytes";
    unsigned int id = 0;
    ASSERT_EQ(apartment_node_write_request(nullptr, "me", m_peerUrl.c_str(), "echo", request, 12, id), 0);
    int code = 99;
    unsigned int length = 0;
    ASSERT_EQ(apartment_node_read_response(nullptr, "me", id, code, nullptr, length, -1), 0);
    EXPECT_EQ(code, REQUEST_OK);
    EXPECT_EQ(length, 12u);
    length = 0;
    ASSERT_EQ(apartment_node_read_response(nullptr, "me", id, code, nullptr, length, 0), 0);
    EXPECT_EQ(length, 12u);
    char buffer[12];
    unsigned int capacity = 11;
    EXPECT_EQ(apartment_node_read_response(nullptr, "me", id, code, buffer, capacity, 0),
              APARTMENT_METHOD_FAILED);
    capacity = 12;
    ASSERT_EQ(apartment_node_read_response(nullptr, "me", id, code, buffer, capacity, 0), 0);
    EXPECT_EQ(std::string(buffer, capacity), "twelve bytes");
    EXPECT_EQ(apartment_node_read_response(nullptr, "me", id, code, buffer, capacity, 100),
              APARTMENT_METHOD_FAILED);
    // The same when another thread dispatches and this one only waits.
    DispatchThread dispatcher;
    ASSERT_TRUE(dispatcher.bound());
    ASSERT_EQ(apartment_node_write_request(nullptr, "me", m_peerUrl.c_str(), "echo", request, 12, id), 0);
    capacity = 12;
    ASSERT_EQ(apartment_node_read_response(nullptr, "me", id, code, buffer, capacity, 5000), 0);
    EXPECT_EQ(apartment_node_read_response(nullptr, "me", id, code, buffer, capacity, 100),
              APARTMENT_METHOD_FAILED);
}

// A notification arrives without the response flag and gets no answer; a
// request to a node the peer does not have times out, and the link is fine.
TEST_F(ApiWithPeer, NotificationsAndRequestsToUnknownNodesGetNoAnswer) {
    char note[] = "note";
    unsigned int id = 0;
    ASSERT_EQ(apartment_node_write_notify(nullptr, "me", m_peerUrl.c_str(), "echo", note, 4, id), 0);
    EXPECT_EQ(id, 1u);
    std::string seen;
    ASSERT_TRUE(m_peer.waitFor("REQ echo", 10000, &seen));
    EXPECT_EQ(seen, "REQ echo " + m_url + " me 1 4 0 " + std::to_string(fnv1a(note, 4)));
    int code = 0;
    unsigned int length = 0;
    EXPECT_EQ(apartment_node_read_response(nullptr, "me", id, code, nullptr, length, 300),
              APARTMENT_METHOD_FAILED);
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(requestAndRead("me", m_peerUrl, "nobody", "", 300), "<read -4>");
    EXPECT_GE(msSince(start), 250);
    EXPECT_EQ(requestAndRead("me", m_peerUrl, "echo", "fine", 10000), "fine");
}

TEST_F(ApiWithPeer, TheLocalUrlOfALinkFollowsTheSizeProtocol) {
    const char* peer = m_peerUrl.c_str();
    DWORD length = 0;
    EXPECT_FALSE(apartment_local_url(nullptr, peer, false, nullptr, length));
    ASSERT_TRUE(apartment_connect_remote(nullptr, peer, false));
    EXPECT_TRUE(apartment_has_connect_remote(nullptr, peer, false));
    EXPECT_FALSE(apartment_local_url(nullptr, peer, true, nullptr, length));  // the other class
    ASSERT_TRUE(apartment_local_url(nullptr, peer, false, nullptr, length));
    EXPECT_EQ(length, m_url.size() + 1);
    std::vector<char> buffer(length);
    ASSERT_TRUE(apartment_local_url(nullptr, peer, false, buffer.data(), length));
    EXPECT_EQ(std::string(buffer.data()), m_url);
    DWORD tooSmall = m_url.size();
    EXPECT_FALSE(apartment_local_url(nullptr, peer, false, buffer.data(), tooSmall));
    EXPECT_TRUE(apartment_disconnect_remote(nullptr, peer, false));
    EXPECT_FALSE(apartment_has_connect_remote(nullptr, peer, false));
}

TEST_F(ApiWithPeer, RawFramesTravelOnlyOnTheRealTimeLinkAndReachThePeerOffItsPumpingThread) {
    const char* peer = m_peerUrl.c_str();
    char byte = 'x';
    unsigned int one = 1;
    // Without a real-time link it fails and does not connect; a
    // non-real-time link is not one for raw frames either.
    EXPECT_EQ(apartment_raw_write(nullptr, peer, 5, &byte, one), APARTMENT_METHOD_FAILED);
    EXPECT_FALSE(apartment_has_connect_remote(nullptr, peer, true));
    EXPECT_FALSE(apartment_has_connect_remote(nullptr, peer, false));
    ASSERT_TRUE(apartment_connect_remote(nullptr, peer, false));
    EXPECT_EQ(apartment_raw_write(nullptr, peer, 5, &byte, one), APARTMENT_METHOD_FAILED);

    ASSERT_TRUE(apartment_connect_remote(nullptr, peer, true));
    // Type 1 is the request type on the other link; here it stays raw. A
    // frame of 102400 bytes fills the receiver's real-time buffer.
    for (const auto& [type, size] : {std::pair<unsigned int, size_t>{77, 300}, {1, 300}, {3, 0},
                                     {2, 102400}}) {
        SCOPED_TRACE(type);
        std::string frame = text(pattern(size, type));
        unsigned int length = static_cast<unsigned int>(size);
        ASSERT_EQ(apartment_raw_write(nullptr, peer, type, size != 0 ? &frame[0] : nullptr, length), 0);
        std::string seen;
        ASSERT_TRUE(m_peer.waitFor("RAW", 10000, &seen));
        EXPECT_EQ(seen, "RAW " + std::to_string(type) + " " + std::to_string(size) + " " +
                            std::to_string(fnv1a(frame.data(), size)) + " 1");
    }
    EXPECT_FALSE(m_peer.waitFor("REQ", 200));  // nothing reached a node
}

TEST_F(Api, ARawFrameToTheOwnUrlReachesTheCallbackAtOnceOnTheWritersThread) {
    char text[] = "self";
    unsigned int length = 4;
    ASSERT_TRUE(apartment_connect_remote(nullptr, m_url.c_str(), false));
    EXPECT_EQ(apartment_raw_write(nullptr, m_url.c_str(), 9, text, length), 0);  // no callback
    CReference<Recorder> recorder(new Recorder);
    ASSERT_TRUE(apartment_set_callback(nullptr, recorder->apartment()));
    EXPECT_EQ(apartment_raw_write(nullptr, m_url.c_str(), 9, text, length), 0);
    const std::vector<Recorder::Raw> raw = recorder->raw();
    ASSERT_EQ(raw.size(), 1u);
    EXPECT_EQ(raw[0].type, 9u);
    EXPECT_EQ(raw[0].data, "self");
    EXPECT_EQ(raw[0].thread, std::this_thread::get_id());
}

// Two nodes of one apartment talk through its own URL (the loopback link),
// with no other link and then beside one; the answer is written from inside
// the callback. A null answer buffer sends no data, whatever its length.
TEST_F(ApiWithPeer, NodesOfOneApartmentTalkThroughItsOwnUrl) {
    CReference<Recorder> server = addNode("server");
    server->onRequest([this](const Recorder::Request& r) {
        std::string answer(r.data.rbegin(), r.data.rend());
        const bool none = r.data == "none";
        EXPECT_EQ(apartment_node_write_response(nullptr, "server", r.srcApartment.c_str(),
                                                r.srcNode.c_str(), r.id, 7,
                                                none ? nullptr : &answer[0],
                                                none ? 10 : static_cast<unsigned int>(answer.size())),
                  0);
        EXPECT_EQ(r.dstApartment, m_url);
    });
    for (int round = 1; round <= 4; ++round) {
        int code = 0;
        EXPECT_EQ(requestAndRead("me", m_url, "server", round == 3 ? "none" : "abc", 10000, &code),
                  round == 3 ? "" : "cba");
        EXPECT_EQ(code, 7);
        if (round == 2) {
            EXPECT_EQ(requestAndRead("me", m_peerUrl, "echo", "", 10000), "");
        }
    }
    ASSERT_EQ(server->requestCount(), 4u);
    EXPECT_EQ(server->requests()[0].srcApartment, m_url);
    EXPECT_EQ(server->requests()[3].id, 5u);
    EXPECT_TRUE(apartment_has_connect_remote(nullptr, m_url.c_str(), false));
}

// ------------------------------------------------------------------ timers

// Apartment timers reach the apartment callback, node timers the node's:
// a single timer fires once and is gone, a periodic one fires until
// killed, also when its first callback throws. Timers of a node that does
// not exist are refused.
class Timers : public Api, public ::testing::WithParamInterface<const char*> {};

TEST_P(Timers, FireOnceOrPeriodicallyUntilKilled) {
    const char* node = GetParam();
    CReference<Recorder> apartment(new Recorder);
    ASSERT_TRUE(apartment_set_callback(nullptr, apartment->apartment()));
    CReference<Recorder> target = node != nullptr ? addNode(node) : apartment;
    EXPECT_EQ(apartment_set_timer(nullptr, "ghost", 0, 10), NO_TIMER);
    EXPECT_EQ(apartment_set_single_timer(nullptr, "ghost", 10), NO_TIMER);
    const Clock::time_point start = Clock::now();
    const unsigned int single = apartment_set_single_timer(nullptr, node, 50);
    const unsigned int periodic = apartment_set_timer(nullptr, node, 0, 30);
    ASSERT_NE(single, NO_TIMER);
    ASSERT_NE(periodic, NO_TIMER);
    ASSERT_NE(periodic, single);
    bool thrown = false;
    target->onTimerFired([&](unsigned int id) {
        if (id == periodic && !thrown) {
            thrown = true;
            throw 42;  // not a std::exception: caught all the same
        }
    });
    auto count = [&](unsigned int id) {
        const std::vector<unsigned int> fired = target->timers();
        return std::count(fired.begin(), fired.end(), id);
    };
    ASSERT_TRUE(pumpUntil([&] { return count(single) == 1; }, 5000));
    EXPECT_GE(msSince(start), 40);
    ASSERT_TRUE(pumpUntil([&] { return count(periodic) >= 5; }, 5000));
    EXPECT_FALSE(apartment_kill_timer(nullptr, node, single));  // gone once fired
    EXPECT_FALSE(apartment_kill_timer(nullptr, "ghost", periodic));
    EXPECT_TRUE(apartment_kill_timer(nullptr, node, periodic));
    pumpFor(50);  // one expiry may already be queued; after that, silence
    const long afterKill = count(periodic);
    pumpFor(200);
    EXPECT_EQ(count(periodic), afterKill);
    EXPECT_EQ(count(single), 1);
    EXPECT_FALSE(apartment_kill_timer(nullptr, node, periodic));
    if (node != nullptr) {
        EXPECT_TRUE(apartment->timers().empty());  // a node's timers stay the node's
    }
}

INSTANTIATE_TEST_SUITE_P(ApartmentAndNode, Timers, ::testing::Values(nullptr, "n"),
                         [](const ::testing::TestParamInfo<const char*>& info) {
                             return std::string(info.param != nullptr ? "Node" : "Apartment");
                         });

// Calls a host may make from inside its callbacks: a periodic timer kills
// itself, a node destroys itself while it serves a request, and the
// apartment callback is removed from inside its own timer.
TEST_F(Api, CallbacksMayKillTheirTimerDestroyTheirNodeAndRemoveThemselves) {
    CReference<Recorder> ticker = addNode("ticker"), server = addNode("server");
    CReference<Recorder> apartment(new Recorder);
    bool killed = false;
    ticker->onTimerFired([&killed](unsigned int id) { killed = apartment_kill_timer(nullptr, "ticker", id); });
    server->onRequest([](const Recorder::Request& r) {
        EXPECT_EQ(apartment_node_write_response(nullptr, "server", r.srcApartment.c_str(),
                                                r.srcNode.c_str(), r.id, 0, nullptr, 0),
                  0);
        EXPECT_TRUE(apartment_node_destroy(nullptr, "server"));
    });
    apartment->onTimerFired([](unsigned int) { EXPECT_TRUE(apartment_set_callback(nullptr, nullptr)); });
    ASSERT_TRUE(apartment_set_callback(nullptr, apartment->apartment()));
    ASSERT_NE(apartment_set_timer(nullptr, "ticker", 0, 100), NO_TIMER);
    ASSERT_NE(apartment_set_timer(nullptr, nullptr, 0, 100), NO_TIMER);
    EXPECT_EQ(requestAndRead("me", m_url, "server", "", 10000), "");
    pumpFor(450);
    EXPECT_TRUE(killed);
    EXPECT_EQ(ticker->timers().size(), 1u);
    EXPECT_EQ(apartment->timers().size(), 1u);  // removed itself; the timer runs on unheard
    EXPECT_EQ(server->requestCount(), 1u);
    int code = 0;
    unsigned int length = 0;
    EXPECT_EQ(apartment_node_read_response(nullptr, "server", 1, code, nullptr, length, 0),
              CAN_NOT_FIND_APARTMENT_NODE);
}

// A timer callback reads a response (the read pumps further messages) with
// re-entry refused: a request arriving meanwhile waits until re-entry is
// allowed again, after the handler is done.
TEST_F(ApiWithPeer, ReadingAResponseInsideATimerDefersRequestsWhileReentryIsRefused) {
    CReference<Recorder> timerNode = addNode("t"), h = addNode("h");
    std::string answer;
    size_t heardByHDuringTheRead = 99;
    timerNode->onTimerFired([&](unsigned int) {
        EXPECT_TRUE(apartment_allow_reentry(nullptr, false));
        // The peer's "ping" notifies our "h" first, then answers.
        answer = requestAndRead("t", m_peerUrl, "ping", "hello", 10000);
        heardByHDuringTheRead = h->requestCount();
        EXPECT_TRUE(apartment_allow_reentry(nullptr, true));
    });
    ASSERT_NE(apartment_set_single_timer(nullptr, "t", 10), NO_TIMER);
    ASSERT_TRUE(pumpUntil([&] { return !timerNode->timers().empty(); }, 10000));
    EXPECT_EQ(answer, "pong");
    EXPECT_EQ(heardByHDuringTheRead, 0u);
    // The notification was sent before the answer, so it is here already,
    // held back; now it is delivered.
    ASSERT_TRUE(pumpUntil([&] { return h->requestCount() == 1; }, 5000));
    EXPECT_EQ(h->requests()[0].data, "ping");
    EXPECT_FALSE(h->requests()[0].needsAnswer);
    EXPECT_EQ(h->requests()[0].srcApartment, m_peerUrl);
}

// The heartbeat with counter 3 against a peer that never answers: expiries
// at 0, 1 and 2 periods send alive frames, the fourth reports, and so does
// every one after it; once the peer answers again the reports stop; with
// the peer gone it reports on without a link, until the watch stops.
TEST_F(ApiWithPeer, TheHeartbeatReportsASilentPeerEveryPeriodUntilItAnswersAgain) {
    const int period = 100;
    const char* peer = m_peerUrl.c_str();
    CReference<Recorder> apartment(new Recorder);
    ASSERT_TRUE(apartment_set_callback(nullptr, apartment->apartment()));
    EXPECT_FALSE(apartment_keepalive_with(nullptr, peer, 0, period));
    ASSERT_TRUE(apartment_connect_remote(nullptr, peer, false));
    m_peer.signal(SIGSTOP);
    const Clock::time_point stopped = Clock::now();
    ASSERT_TRUE(apartment_keepalive_with(nullptr, peer, 3, period));
    EXPECT_FALSE(apartment_keepalive_with(nullptr, peer, 3, period));
    ASSERT_TRUE(pumpUntil([&] { return apartment->offline().size() >= 5; }, 30 * period));
    const std::vector<Clock::time_point> times = apartment->offlineTimes();
    for (size_t i = 0; i < 3; ++i)
        EXPECT_GE(std::chrono::duration_cast<std::chrono::milliseconds>(times[i] - stopped).count(),
                  static_cast<long>(3 + i) * period - 20);
    EXPECT_EQ(apartment->offline()[0], m_peerUrl);

    // Running again, its answers restore the count and the reports stop:
    // wait for a quiet stretch longer than three periods.
    m_peer.signal(SIGCONT);
    bool quiet = false;
    for (const Clock::time_point resumed = Clock::now(); !quiet && msSince(resumed) < 100 * period;) {
        const size_t before = apartment->offline().size();
        pumpFor(6 * period);
        quiet = apartment->offline().size() == before;
    }
    EXPECT_TRUE(quiet);

    m_peer.kill();
    ASSERT_TRUE(pumpUntil([&] { return !apartment_has_connect_remote(nullptr, peer, false); }, 5000));
    const size_t before = apartment->offline().size();
    EXPECT_TRUE(pumpUntil([&] { return apartment->offline().size() >= before + 2; }, 30 * period));
    EXPECT_TRUE(apartment_keepalive_with(nullptr, peer, 0, period));
    EXPECT_FALSE(apartment_keepalive_with(nullptr, peer, 0, period));
    // Stopped, its timer is gone too: nothing more is heard.
    const size_t reports = apartment->offline().size();
    pumpFor(3 * period);
    EXPECT_EQ(apartment->offline().size(), reports);
    EXPECT_TRUE(apartment->timers().empty());
}

// ------------------------------------------------------------ host helpers

TEST(ApartmentHost, PumpUntilTimesOutWithoutTheLibraryAndWithoutSpinning) {
    const timespec none = ApartmentHost::noDeadline();
    EXPECT_EQ(none.tv_sec, -1);
    EXPECT_EQ(none.tv_nsec, -1);
    const Clock::time_point start = Clock::now();
    int checks = 0;
    EXPECT_FALSE(pumpUntil([&] { return ++checks < 0; }, 120));
    EXPECT_GE(msSince(start), 120);
    EXPECT_LT(msSince(start), 2000);
    EXPECT_LT(checks, 500);  // slept between attempts
}

// A timer makes the predicate true; a node callable answers from inside
// its callback and the pump loop delivers the response to a reader that
// does not pump.
TEST(ApartmentHost, CallablesAndThePumpServeAHost) {
    const std::string url = initialiseOnFreePort();
    ASSERT_FALSE(url.empty());
    auto* callback = new ApartmentHost::CApartmentCallbackFn();
    bool fired = false;
    callback->timer = [&](unsigned int) { fired = true; };
    ASSERT_TRUE(apartment_set_callback(nullptr, callback));
    callback->releaseRef();  // the library holds its own reference
    const Clock::time_point start = Clock::now();
    ASSERT_NE(apartment_set_single_timer(nullptr, nullptr, 50), NO_TIMER);
    EXPECT_TRUE(pumpUntil([&] { return fired; }, 5000));
    EXPECT_GE(msSince(start), 40);
    EXPECT_LT(msSince(start), 4000);

    auto* echo = new ApartmentHost::CNodeCallbackFn();
    echo->request = [](const ApartmentHost::NodeRequest& r) {
        apartment_node_write_response(nullptr, r.strTargetNodeUrl, r.strSourceApartmentUrl,
                                      r.strSourceNodeUrl, r.uintRequestId, REQUEST_OK,
                                      const_cast<void*>(r.pRequestBuffer), r.uintBufLen);
    };
    ASSERT_TRUE(apartment_node_create(nullptr, "echo"));
    ASSERT_TRUE(apartment_node_create(nullptr, "asker"));
    ASSERT_TRUE(apartment_node_set_callback(nullptr, "echo", echo));
    echo->releaseRef();
    char data[] = "ping";
    unsigned int id = 0;
    ASSERT_EQ(apartment_node_write_request(nullptr, "asker", url.c_str(), "echo", data, 4, id), 0);
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
