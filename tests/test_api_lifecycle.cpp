// The C interface's lifecycle and result mapping: what every function
// returns before initialisation, for an unknown apartment and when the
// library fails inside, the URL rule of the node messaging functions,
// initialising twice, again and after a failure, the module version, and
// bad names.
#include <dlfcn.h>

#include <stdexcept>

#include "api_test_support.h"
#include "os_sync.h"

using namespace apitest;

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

// Every function but the lifecycle ones, called with `url` as the
// apartment URL, must give the failure result `status` (for the status
// functions) and false / 4294967295 / -1 for the others. The four node
// messaging functions get `messagingUrl`.
void expectEveryCallFails(const char* url, const char* messagingUrl, int status) {
    SCOPED_TRACE(url != nullptr ? url : "(null)");
    DWORD length = 0;
    unsigned int uintLength = 1, id = 77;
    int code = 0;
    char byte = 'x';
    EXPECT_FALSE(apartment_set_callback(url, nullptr));
    EXPECT_FALSE(apartment_set_dispatch_enabled(url, true));
    EXPECT_FALSE(apartment_set_dispatch_enabled(url, false));
    EXPECT_EQ(apartment_dispatch_message(url, deadlineIn(0)), -1);
    EXPECT_FALSE(apartment_stop_dispatch_message(url));
    EXPECT_FALSE(apartment_allow_reentry(url, true));
    EXPECT_FALSE(apartment_local_url(url, "tcp://127.0.0.1:1", false, nullptr, length));
    EXPECT_FALSE(apartment_connect_remote(url, "tcp://127.0.0.1:1", false));
    EXPECT_FALSE(apartment_has_connect_remote(url, "tcp://127.0.0.1:1", false));
    EXPECT_FALSE(apartment_disconnect_remote(url, "tcp://127.0.0.1:1", false));
    EXPECT_FALSE(apartment_node_create(url, "n"));
    EXPECT_FALSE(apartment_node_destroy(url, "n"));
    EXPECT_FALSE(apartment_node_set_callback(url, "n", nullptr));
    EXPECT_EQ(apartment_raw_write(url, "tcp://127.0.0.1:1", 5, &byte, uintLength), status);
    EXPECT_EQ(apartment_node_write_request(messagingUrl, "n", "tcp://127.0.0.1:1", "m", &byte, 1,
                                           id),
              status);
    EXPECT_EQ(apartment_node_write_notify(messagingUrl, "n", "tcp://127.0.0.1:1", "m", &byte, 1,
                                          id),
              status);
    EXPECT_EQ(apartment_node_write_response(messagingUrl, "n", "tcp://127.0.0.1:1", "m", 1, 0,
                                            &byte, 1),
              status);
    EXPECT_EQ(apartment_node_read_response(messagingUrl, "n", 1, code, nullptr, uintLength, 0),
              status);
    EXPECT_EQ(apartment_set_timer(url, nullptr, 10, 10), NO_TIMER);
    EXPECT_EQ(apartment_set_single_timer(url, nullptr, 10), NO_TIMER);
    EXPECT_FALSE(apartment_kill_timer(url, nullptr, 0));
    EXPECT_FALSE(apartment_keepalive_with(url, "tcp://127.0.0.1:1", 3, 100));
    EXPECT_EQ(id, 77u);
}

TEST(ApiLifecycle, EveryCallFailsBeforeInitialisationAndAfterUninitialisation) {
    // Uninitialising what was never initialised is harmless.
    apartment_uninitialize();
    expectEveryCallFails(nullptr, nullptr, APARTMENT_NOT_INITIALIZED);
    expectEveryCallFails("tcp://127.0.0.1:1", "tcp://127.0.0.1:1", APARTMENT_NOT_INITIALIZED);

    ASSERT_FALSE(initialiseOnFreePort().empty());
    apartment_uninitialize();
    expectEveryCallFails(nullptr, nullptr, APARTMENT_NOT_INITIALIZED);
}

class ApiInitialised : public ApiTest {};

TEST_F(ApiInitialised, AnUnknownApartmentUrlFailsEveryCall) {
    // Another port, or the right address without the scheme for the node
    // messaging functions, which look for "tcp://" only.
    const std::string other = "tcp://127.0.0.1:1";
    const std::string schemeless = m_url.substr(6);
    expectEveryCallFails(other.c_str(), schemeless.c_str(), CAN_NOT_FIND_APARTMENT);
    expectEveryCallFails(schemeless.c_str(), schemeless.c_str(), CAN_NOT_FIND_APARTMENT);
}

TEST_F(ApiInitialised, NodeMessagingReachesThisApartmentForAnyUrlWithTheScheme) {
    Held<NodeRecorder> server;
    server->onRequest = [](const SeenRequest& seen) {
        // Odd apartment URL, still this apartment. A null buffer sends no
        // data, whatever length comes with it.
        apartment_node_write_response("any tcp:// text", "server", seen.sourceApartment.c_str(),
                                      seen.sourceNode.c_str(), seen.id, 0, nullptr, 10);
    };
    ASSERT_TRUE(apartment_node_create(m_url.c_str(), "server"));
    ASSERT_TRUE(apartment_node_create(nullptr, "client"));
    ASSERT_TRUE(apartment_node_set_callback(nullptr, "server", server.get()));

    unsigned int id = 0;
    ASSERT_EQ(apartment_node_write_request("tcp://10.9.8.7:1", "client", m_url.c_str(), "server",
                                           nullptr, 0, id),
              0);
    int code = 99;
    unsigned int length = 5;
    EXPECT_EQ(apartment_node_read_response("xtcp://", "client", id, code, nullptr, length, 10000),
              0);
    EXPECT_EQ(code, 0);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(apartment_node_read_response(m_url.substr(6).c_str(), "client", id, code, nullptr,
                                           length, 0),
              CAN_NOT_FIND_APARTMENT);
    // The other functions insist on the exact URL (or null).
    EXPECT_TRUE(apartment_node_create(m_url.c_str(), "third"));
    EXPECT_FALSE(apartment_node_create("tcp://10.9.8.7:1", "fourth"));
}

TEST_F(ApiInitialised, NodeFunctionsReportWhatTheApartmentSays) {
    Held<NodeRecorder> node;
    EXPECT_TRUE(apartment_node_create(nullptr, "n"));
    EXPECT_TRUE(apartment_node_create(nullptr, "n"));       // taken: still true
    EXPECT_TRUE(apartment_node_destroy(nullptr, "ghost"));  // unknown: still true
    EXPECT_FALSE(apartment_node_set_callback(nullptr, "ghost", node.get()));
    EXPECT_TRUE(apartment_node_set_callback(nullptr, "n", node.get()));
    int code = 0;
    unsigned int length = 0;
    EXPECT_EQ(apartment_node_read_response(nullptr, "ghost", 1, code, nullptr, length, 0),
              CAN_NOT_FIND_APARTMENT_NODE);
    EXPECT_EQ(apartment_node_read_response(nullptr, "n", 1, code, nullptr, length, 0),
              APARTMENT_METHOD_FAILED);
    EXPECT_TRUE(apartment_node_destroy(nullptr, "n"));
    EXPECT_EQ(apartment_node_read_response(nullptr, "n", 1, code, nullptr, length, 0),
              CAN_NOT_FIND_APARTMENT_NODE);
    EXPECT_TRUE(apartment_set_callback(nullptr, nullptr));
}

// A round trip between two nodes of this apartment through its own URL.
void expectRoundTrip(const std::string& url) {
    Held<NodeRecorder> server;
    server->onRequest = [](const SeenRequest& seen) {
        apartment_node_write_response(nullptr, "rt-server", seen.sourceApartment.c_str(),
                                      seen.sourceNode.c_str(), seen.id, 3, nullptr, 0);
    };
    apartment_node_create(nullptr, "rt-server");
    apartment_node_create(nullptr, "rt-client");
    ASSERT_TRUE(apartment_node_set_callback(nullptr, "rt-server", server.get()));
    int code = 0;
    ASSERT_EQ(emptyRoundTrip("rt-client", url, "rt-server", &code), 0);
    EXPECT_EQ(code, 3);
}

TEST_F(ApiInitialised, ASecondInitialisationIsRefusedAndTheFirstKeepsWorking) {
    EXPECT_FALSE(apartment_initialize(urlOnFreePort().c_str(), true));
    EXPECT_FALSE(apartment_initialize(m_url.c_str(), true));
    expectRoundTrip(m_url);
}

TEST(ApiLifecycle, ABadSchemeFailsAndARetrySucceeds) {
    const std::string port = std::to_string(freePort());
    EXPECT_FALSE(apartment_initialize(("udp://127.0.0.1:" + port).c_str(), true));
    EXPECT_FALSE(apartment_node_create(nullptr, "n"));
    const std::string url = initialiseOnFreePort();
    ASSERT_FALSE(url.empty());
    expectRoundTrip(url);
    apartment_uninitialize();
}

// "tcp://" alone listens on every interface and a random port; the
// initialised apartment is known by its real URL, not by port 0.
TEST(ApiLifecycle, TheSchemeAloneListensOnARealPort) {
    bool initialised = false;
    for (int attempt = 0; attempt < 5 && !initialised; ++attempt)
        initialised = apartment_initialize("tcp://", true);
    ASSERT_TRUE(initialised);
    EXPECT_TRUE(apartment_node_create(nullptr, "n"));
    EXPECT_FALSE(apartment_node_create("tcp://0.0.0.0:0", "n"));
    EXPECT_FALSE(apartment_node_create("tcp://", "n"));
    apartment_uninitialize();
}

TEST(ApiLifecycle, InitialiseAgainAfterUninitialising) {
    for (int cycle = 0; cycle < 3; ++cycle) {
        SCOPED_TRACE(cycle);
        const std::string url = initialiseOnFreePort();
        ASSERT_FALSE(url.empty());
        // Nothing of the previous cycle is left.
        int code = 0;
        unsigned int length = 0;
        EXPECT_EQ(apartment_node_read_response(nullptr, "rt-client", 1, code, nullptr, length, 0),
                  CAN_NOT_FIND_APARTMENT_NODE);
        expectRoundTrip(url);
        apartment_uninitialize();
    }
}

TEST(ApiLifecycle, ModuleVersionTextsAreExact) {
    IModuleVersion* version = apartment_get_module_version();
    ASSERT_NE(version, nullptr);
    unsigned long length = 0;
    ASSERT_TRUE(version->getShortVersion(nullptr, length));
    EXPECT_EQ(length, 6u);
    char text[256];
    length = 5;
    EXPECT_FALSE(version->getShortVersion(text, length));
    EXPECT_EQ(length, 5u);
    length = 6;
    ASSERT_TRUE(version->getShortVersion(text, length));
    EXPECT_EQ(std::string(text), "1.0.0");

    const std::string build = "请为模块调用UpdateBuildTime方法更新编译版本号";
    length = sizeof(text);
    ASSERT_TRUE(version->getBuildVersion(text, length));
    EXPECT_EQ(std::string(text), build);
    length = sizeof(text);
    ASSERT_TRUE(version->getFullVersion(text, length));
    EXPECT_EQ(std::string(text), "1.0.0  BUILDTIME : " + build);
    EXPECT_EQ(length, std::string(text).size() + 1);
    EXPECT_EQ(version->getMajorVersionNum(), 1u);
    EXPECT_EQ(version->getMinorVersionNum(), 0u);
    EXPECT_EQ(version->getRevisionNum(), 0u);

    // A fresh object each call, owned by the caller.
    IModuleVersion* another = apartment_get_module_version();
    EXPECT_NE(another, version);
    EXPECT_EQ(another->releaseRef(), 0u);
    EXPECT_EQ(version->releaseRef(), 0u);
}

// An exception inside the library (here from the first lock the call
// takes: the registry's for a call that names the apartment, a lock deeper
// inside for the node messaging functions) never leaves an exported
// function: each returns its failure value, and the library works normally
// afterwards.
TEST_F(ApiInitialised, AFailureInsideReturnsEachFunctionsFailureValue) {
    Held<NodeRecorder> node;
    ASSERT_TRUE(apartment_node_create(nullptr, "n"));
    const char* url = m_url.c_str();
    DWORD length = 0;
    unsigned int uintLength = 1, id = 77;
    int code = 0;
    char byte = 'x';
    const long long FAILED = APARTMENT_METHOD_FAILED, TIMER = NO_TIMER;
    struct Row {
        const char* call;
        std::function<long long()> run;
        long long failure;
    };
#define ROW(call, failure) {#call, [&] { return static_cast<long long>(call); }, failure}
    const std::vector<Row> rows = {
        ROW(apartment_initialize(url, true), 0),
        ROW(apartment_set_callback(url, nullptr), 0),
        ROW(apartment_set_dispatch_enabled(url, true), 0),
        ROW(apartment_dispatch_message(url, deadlineIn(0)), -1),
        ROW(apartment_stop_dispatch_message(url), 0),
        ROW(apartment_allow_reentry(url, false), 0),
        ROW(apartment_local_url(url, url, false, nullptr, length), 0),
        ROW(apartment_connect_remote(url, url, false), 0),
        ROW(apartment_has_connect_remote(url, url, false), 0),
        ROW(apartment_disconnect_remote(url, url, false), 0),
        ROW(apartment_node_create(url, "m"), 0),
        ROW(apartment_node_destroy(url, "n"), 0),
        ROW(apartment_node_set_callback(url, "n", node.get()), 0),
        ROW(apartment_raw_write(url, url, 5, &byte, uintLength), FAILED),
        ROW(apartment_node_write_request(nullptr, "n", url, "n", &byte, 1, id), FAILED),
        ROW(apartment_node_write_notify(nullptr, "n", url, "n", &byte, 1, id), FAILED),
        ROW(apartment_node_write_response(nullptr, "n", url, "n", 1, 0, &byte, 1), FAILED),
        ROW(apartment_node_read_response(nullptr, "n", 1, code, nullptr, uintLength, 0), FAILED),
        ROW(apartment_set_timer(url, nullptr, 10, 10), TIMER),
        ROW(apartment_set_single_timer(url, "n", 10), TIMER),
        ROW(apartment_kill_timer(url, nullptr, 1), 0),
        ROW(apartment_keepalive_with(url, url, 3, 100), 0),
    };
#undef ROW
    testing::internal::CaptureStdout();
    for (const Row& row : rows) {
        long long result = 12345;
        bool threw = false;
        t_failLocks = true;
        try {
            result = row.run();
        } catch (...) {
            threw = true;
        }
        t_failLocks = false;
        EXPECT_FALSE(threw) << row.call;
        EXPECT_EQ(result, row.failure) << row.call;
    }
    const std::string diagnostics = testing::internal::GetCapturedStdout();
    EXPECT_NE(diagnostics.find("[Apartment Error]: apartment_set_timer: injected failure."),
              std::string::npos)
        << diagnostics;
    EXPECT_EQ(id, 77u);
    expectRoundTrip(m_url);
}

TEST_F(ApiInitialised, ANonAsciiNameFailsTheCallAndTheLibraryKeepsWorking) {
    apartment_node_create(nullptr, "me");
    unsigned int id = 55;
    EXPECT_EQ(apartment_node_write_request(nullptr, "m\xc3\xa9", m_url.c_str(), "me", nullptr, 0,
                                           id),
              APARTMENT_METHOD_FAILED);
    EXPECT_EQ(apartment_node_write_notify(nullptr, "me", m_url.c_str(), "n\xc3\xb6", nullptr, 0,
                                          id),
              APARTMENT_METHOD_FAILED);
    EXPECT_EQ(apartment_node_write_response(nullptr, "\xe2\x82\xac", m_url.c_str(), "me", 1, 0,
                                            nullptr, 0),
              APARTMENT_METHOD_FAILED);
    EXPECT_EQ(id, 55u);
    expectRoundTrip(m_url);
}

TEST_F(ApiInitialised, DispatchReturnsMinusOneWhenNothingComesAndStopsForGood) {
    const auto start = Clock::now();
    EXPECT_EQ(apartment_dispatch_message(nullptr, deadlineIn(100)), -1);
    EXPECT_GE(msSince(start), 80);
    ASSERT_NE(apartment_set_single_timer(nullptr, nullptr, 0), NO_TIMER);
    // Both fields -1: no limit.
    EXPECT_EQ(apartment_dispatch_message(nullptr, timespec{-1, -1}), 1);
    EXPECT_TRUE(apartment_stop_dispatch_message(nullptr));
    ASSERT_NE(apartment_set_single_timer(nullptr, nullptr, 0), NO_TIMER);
    const auto stopped = Clock::now();
    EXPECT_EQ(apartment_dispatch_message(nullptr, deadlineIn(2000)), -1);
    EXPECT_LT(msSince(stopped), 1000);
}

TEST_F(ApiInitialised, DispatchLockedToOneThreadRefusesOthers) {
    EXPECT_TRUE(apartment_set_dispatch_enabled(nullptr, true));
    EXPECT_FALSE(apartment_set_dispatch_enabled(nullptr, true));
    ASSERT_NE(apartment_set_single_timer(nullptr, nullptr, 0), NO_TIMER);
    int other = 0;
    std::thread([&other] { other = apartment_dispatch_message(nullptr, deadlineIn(200)); }).join();
    EXPECT_EQ(other, -1);
    EXPECT_EQ(apartment_dispatch_message(nullptr, deadlineIn(2000)), 1);
    EXPECT_TRUE(apartment_set_dispatch_enabled(nullptr, false));
    EXPECT_FALSE(apartment_set_dispatch_enabled(nullptr, false));
}

}  // namespace
