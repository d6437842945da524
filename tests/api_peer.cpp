// The remote apartment of the end-to-end tests: a separate process (one
// apartment per process), driven through the C interface only.
//
//   api_peer <url>
//
// Initialises an apartment listening on <url> and serves three nodes:
//   "echo"  answers every request with code 0 and the same bytes;
//   "code"  answers with the response code written in the request as
//           decimal text, and the same bytes;
//   "ping"  first sends a notification "ping" to the requester's node "h",
//           then answers "pong".
// Reports go to standard output as lines starting with "@@ " (everything
// else there is the library's own output):
//   @@ READY | @@ INITFAIL
//   @@ REQ <node> <source apartment> <source node> <id> <length> <flag> <fnv1a>
//   @@ RAW <type> <length> <fnv1a> <1 when off the pumping thread, else 0>
// The peer pumps its apartment on the main thread until standard input
// closes or says "quit", and gives up by itself after two minutes.
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "api_host_object.h"

namespace {

std::mutex report_mutex;
std::thread::id pump_thread;

void report(const std::string& line) {
    std::lock_guard<std::mutex> lock(report_mutex);
    std::fputs(("@@ " + line + "\n").c_str(), stdout);
    std::fflush(stdout);
}

unsigned int fnv1a(const void* data, unsigned int length) {
    unsigned int hash = 2166136261u;
    const unsigned char* bytes = static_cast<const unsigned char*>(data);
    for (unsigned int i = 0; i < length; ++i) hash = (hash ^ bytes[i]) * 16777619u;
    return hash;
}

timespec deadlineIn(int ms) {
    const auto at = std::chrono::steady_clock::now().time_since_epoch() +
                    std::chrono::milliseconds(ms);
    timespec ts;
    ts.tv_sec = static_cast<time_t>(std::chrono::duration_cast<std::chrono::seconds>(at).count());
    ts.tv_nsec = static_cast<long>((at - std::chrono::seconds(ts.tv_sec)).count());
    return ts;
}

class Node : public HostObject<IApartmentNodeCallback> {
public:
    void onTimer(unsigned int) override {}
    void onApartmentOffline(const char*) override {}
    void onRequestReceived(const char* strSourceApartmentUrl, const char* strSourceNodeUrl,
                           const char*, const char* strTargetNodeUrl, unsigned int uintRequestId,
                           const void* pRequestBuffer, unsigned int uintBufLen,
                           bool bRequireResponse) override {
        const std::string node = strTargetNodeUrl;
        report("REQ " + node + " " + strSourceApartmentUrl + " " + strSourceNodeUrl + " " +
               std::to_string(uintRequestId) + " " + std::to_string(uintBufLen) + " " +
               (bRequireResponse ? "1" : "0") + " " +
               std::to_string(fnv1a(pRequestBuffer, uintBufLen)));
        if (!bRequireResponse) return;
        int code = REQUEST_OK;
        std::vector<char> answer(static_cast<const char*>(pRequestBuffer),
                                 static_cast<const char*>(pRequestBuffer) + uintBufLen);
        if (node == "code") {
            code = std::atoi(std::string(answer.begin(), answer.end()).c_str());
        } else if (node == "ping") {
            char ping[] = "ping";
            unsigned int id = 0;
            apartment_node_write_notify(nullptr, "ping", strSourceApartmentUrl, "h", ping, 4, id);
            answer.assign({'p', 'o', 'n', 'g'});
        }
        // Answered from inside the callback, as a host normally does.
        apartment_node_write_response(nullptr, node.c_str(), strSourceApartmentUrl,
                                      strSourceNodeUrl, uintRequestId, code,
                                      answer.empty() ? nullptr : answer.data(),
                                      static_cast<unsigned int>(answer.size()));
    }
};

class Apartment : public HostObject<IApartmentCallback> {
public:
    void onTimer(unsigned int) override {}
    void onApartmentOffline(const char*) override {}
    void onRawFrameReceived(unsigned int uintFrameType, const void* pBuffer,
                            unsigned int uintBufLen) override {
        report("RAW " + std::to_string(uintFrameType) + " " + std::to_string(uintBufLen) + " " +
               std::to_string(fnv1a(pBuffer, uintBufLen)) + " " +
               (std::this_thread::get_id() != pump_thread ? "1" : "0"));
    }
};

// True while standard input is open and has not said "quit".
bool keepRunning() {
    pollfd in{STDIN_FILENO, POLLIN, 0};
    if (poll(&in, 1, 0) <= 0) return true;
    char buffer[64];
    const ssize_t got = read(STDIN_FILENO, buffer, sizeof(buffer));
    return got > 0 && std::string(buffer, static_cast<size_t>(got)).find("quit") == std::string::npos;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <apartment url>\n", argv[0]);
        return 2;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    pump_thread = std::this_thread::get_id();
    if (!apartment_initialize(argv[1], true)) {
        report("INITFAIL");
        apartment_uninitialize();
        return 3;
    }
    Apartment* apartment = new Apartment();
    apartment_set_callback(nullptr, apartment);
    apartment->releaseRef();
    for (const char* name : {"echo", "code", "ping"}) {
        apartment_node_create(nullptr, name);
        Node* node = new Node();
        apartment_node_set_callback(nullptr, name, node);
        node->releaseRef();
    }
    report("READY");

    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::minutes(2);
    while (keepRunning() && std::chrono::steady_clock::now() < giveUp)
        apartment_dispatch_message(nullptr, deadlineIn(20));
    apartment_uninitialize();
    return 0;
}
