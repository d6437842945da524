// Arbitrary bytes over a real TCP link into a listening apartment. One
// apartment ("target") listens in this process and is pumped by a thread of
// its own; each input is one link: connect, optionally a valid connection
// frame first, then the input's bytes, then close. Every CHECK_EVERY inputs
// a second apartment ("requester") sends a well-formed request to the
// target's "echo" node on its own link and must get the answer back: a
// hostile link must never cost the target its service.
//
// First byte of an input: bit 0 set sends a valid connection frame before
// the rest; bit 1 makes it a real-time link; bit 2 names the target's own
// URL in it (a forged loopback) instead of a stranger's.
#include <poll.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "support.h"

namespace {

using namespace aptest;

const int CHECK_EVERY = 64;

IApartment* g_target = nullptr;
IApartment* g_requester = nullptr;
std::string g_targetUrl;
std::string g_requesterUrl;
std::atomic<bool> g_pumping{false};
std::thread* g_pump = nullptr;
unsigned long g_inputs = 0;

IApartment* createOnFreePort(std::string& url) {
    for (int attempt = 0; attempt < 20; ++attempt) {
        url = urlOf(freePort());
        IApartment* apartment =
            CApartmentManager::getUniqueApartmentManager()->createApartment(url.c_str(), true);
        if (apartment != nullptr) return apartment;
    }
    std::fprintf(stderr, "fuzz_tcp_apartment: no free port\n");
    std::abort();
}

void tearDown() {
    g_pumping = false;
    if (g_pump != nullptr) {
        g_pump->join();
        delete g_pump;
        g_pump = nullptr;
    }
    if (g_target != nullptr) g_target->releaseRef();
    if (g_requester != nullptr) g_requester->releaseRef();
    g_target = g_requester = nullptr;
    CApartmentTimerManager::destroyUniqueApartmentTimerManager();
    CApartmentManager::getUniqueApartmentManager()->removeAllApartments();
    CApartmentManager::destroyUniqueApartmentManager();
}

void setUp() {
    CApartmentManager::createUniqueApartmentManager();
    CApartmentTimerManager::createUniqueApartmentTimerManager();
    g_target = createOnFreePort(g_targetUrl);
    g_requester = createOnFreePort(g_requesterUrl);
    g_target->createApartmentNode("echo");
    CReference<IApartmentNode> echo(g_target->findApartmentNode("echo"));
    // Answers without keeping anything: a fuzzing run goes on for hours.
    CReference<ApartmentHost::CNodeCallbackFn> callback(new ApartmentHost::CNodeCallbackFn);
    callback->request = [](const ApartmentHost::NodeRequest& r) {
        if (r.bRequireResponse)
            g_target->writeResponseFrame("echo", r.strSourceApartmentUrl, r.strSourceNodeUrl,
                                         r.uintRequestId, 0, const_cast<void*>(r.pRequestBuffer),
                                         r.uintBufLen, false);
    };
    echo->setCallback(callback);
    g_requester->createApartmentNode("client");
    g_pumping = true;
    g_pump = new std::thread([] {
        while (g_pumping) {
            APARTMENT_TMSG msg;
            if (g_target->getMessage(msg, deadlineIn(20)))
                g_target->dispatchMessage(msg);
        }
    });
    std::atexit(tearDown);
}

// A request on the requester's own link must be answered within 8 s. An
// answer usually takes a millisecond; what delays it is the link that
// announces a payload of gigabytes, which the target allocates as
// announced (under AddressSanitizer that costs up to a second each).
void checkServiceStillAnswers() {
    char payload[] = "still there?";
    unsigned int id = 0;
    if (!g_requester->writeRequestFrame("client", g_targetUrl.c_str(), "echo", payload,
                                        sizeof payload, false, id, true)) {
        std::fprintf(stderr, "fuzz_tcp_apartment: request could not be written\n");
        std::abort();
    }
    CReference<IApartmentNode> client(g_requester->findApartmentNode("client"));
    int code = -1;
    char answer[sizeof payload] = {0};
    unsigned int size = sizeof answer;
    const Clock::time_point start = Clock::now();
    const bool answered = client->getResponse(id, code, answer, size, 8000);
    if (!answered || size != sizeof payload || std::memcmp(answer, payload, sizeof payload) != 0) {
        // Tell a slow answer from none at all before giving up.
        const bool late = !answered && client->getResponse(id, code, answer, size, 20000);
        std::fprintf(stderr,
                     "fuzz_tcp_apartment: the target stopped answering (answered %d, late %d, "
                     "after %ld ms; target links to requester: %d)\n",
                     answered, late, msSince(start),
                     g_target->hasConnection(g_requesterUrl.c_str(), false));
        std::abort();
    }
    client->removeResponse(id);
}

// Sends what it can within 200 ms: the target may stop reading (a link it
// refused), which is its right.
void sendSome(int fd, const unsigned char* data, size_t size) {
    int waits = 0;
    while (size > 0 && waits < 20) {
        const int n = os_socket_send(fd, data, static_cast<int>(size), MSG_DONTWAIT, USE_DEFAULT);
        if (n > 0) {
            data += n;
            size -= static_cast<size_t>(n);
            continue;
        }
        int error = 0;
        if (os_socket_writable(fd, 10, &error, USE_DEFAULT) == 0) ++waits;
        if (os_socket_is_link_broken(fd, USE_DEFAULT)) return;
    }
}

void feedOneLink(const uint8_t* data, size_t size) {
    const int fd = rawConnect(portOf(g_targetUrl));
    if (fd < 0) return;
    Bytes bytes;
    const uint8_t mode = size > 0 ? data[0] : 0;
    if (mode & 1) bytes = connectionFrame((mode & 4) ? g_targetUrl : kGhost, (mode & 2) != 0);
    if (size > 1) bytes.insert(bytes.end(), data + 1, data + size);
    sendSome(fd, bytes.data(), bytes.size());

    // Our close comes after the target has seen our end of the stream and
    // closed its side (or 100 ms), then as a reset: a fuzz run opens
    // hundreds of thousands of links and must not fill the port range with
    // lingering closes.
    os_socket_shutdown(fd, SHUT_WR, USE_DEFAULT);
    char sink[4096];
    for (int i = 0; i < 10; ++i) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 10) <= 0) continue;
        const int n = os_socket_recv(fd, sink, sizeof sink, MSG_DONTWAIT, USE_DEFAULT);
        if (n == 0 || (n < 0 && os_socket_is_link_broken(fd, USE_DEFAULT))) break;
    }
    linger hard{1, 0};
    os_socket_set_sock_opt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard, USE_DEFAULT);
    os_socket_close(fd, USE_DEFAULT);
}

}  // namespace

std::vector<std::vector<uint8_t>> g_recent;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (g_target == nullptr) setUp();
    static const char* dumpDir = std::getenv("FUZZ_TCP_DUMP_DIR");
    if (dumpDir != nullptr) g_recent.emplace_back(data, data + size);
    feedOneLink(data, size);
    if (++g_inputs % CHECK_EVERY == 1) {
        const Clock::time_point start = Clock::now();
        checkServiceStillAnswers();
        const long ms = msSince(start);
        if (ms > 1000)
            std::fprintf(stderr, "fuzz_tcp_apartment: slow answer %ld ms after input %lu\n", ms,
                         g_inputs);
        // FUZZ_TCP_DUMP_DIR=<dir> keeps the inputs that preceded a slow
        // answer, in order, to replay them.
        if (dumpDir != nullptr && ms > 500) {
            for (size_t i = 0; i < g_recent.size(); ++i) {
                const std::string path = std::string(dumpDir) + "/slow" +
                                         std::to_string(g_inputs) + "_" + std::to_string(i);
                if (FILE* f = std::fopen(path.c_str(), "wb")) {
                    std::fwrite(g_recent[i].data(), 1, g_recent[i].size(), f);
                    std::fclose(f);
                }
            }
        }
        g_recent.clear();
    }
    return 0;
}
