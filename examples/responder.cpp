// responder: an apartment with one node, "echo", that answers every request
// with the bytes it received.
//
//   responder [url]        (default tcp://127.0.0.1:7001)
//
// Runs until interrupted (Ctrl-C or SIGTERM). Try it with the requester.
#include <signal.h>

#include <cstdio>
#include <cstring>

#include "ApartmentApi.h"
#include "ApartmentHost.h"

namespace {

volatile sig_atomic_t stop_requested = 0;
void requestStop(int) { stop_requested = 1; }

// The node's callback. The library keeps its own reference while it is
// installed; TCountedCallback (ApartmentHost.h) supplies that counting.
class EchoNode : public ApartmentHost::TCountedCallback<IApartmentNodeCallback> {
public:
    void onTimer(unsigned int) override {}
    void onApartmentOffline(const char* url) override {
        std::printf("responder: %s went away\n", url);
    }
    // Runs on the thread that pumps the apartment (main, below). Answering
    // from inside the callback is the usual way.
    void onRequestReceived(const char* fromApartment, const char* fromNode, const char*,
                           const char* toNode, unsigned int id, const void* data,
                           unsigned int length, bool requireResponse) override {
        std::printf("responder: request %u from %s/%s, %u bytes\n", id, fromApartment, fromNode,
                    length);
        if (!requireResponse) return;  // a notification: nobody waits for an answer
        const int status = apartment_node_write_response(nullptr, toNode, fromApartment, fromNode,
                                                         id, REQUEST_OK,
                                                         const_cast<void*>(data), length);
        if (status != 0) std::printf("responder: could not answer request %u (%d)\n", id, status);
    }

private:
    virtual ~EchoNode() = default;
};

}  // namespace

int main(int argc, char** argv) {
    const char* url = argc > 1 ? argv[1] : "tcp://127.0.0.1:7001";
    signal(SIGINT, requestStop);
    signal(SIGTERM, requestStop);
    setvbuf(stdout, nullptr, _IOLBF, 0);

    // true: accept links from other apartments.
    if (!apartment_initialize(url, true)) {
        std::fprintf(stderr, "responder: cannot listen on %s (bad URL or port in use)\n", url);
        apartment_uninitialize();
        return 1;
    }
    EchoNode* echo = new EchoNode();
    const bool ready = apartment_node_create(nullptr, "echo") &&
                       apartment_node_set_callback(nullptr, "echo", echo);
    echo->releaseRef();  // the library holds its own reference now
    if (!ready) {
        std::fprintf(stderr, "responder: cannot create the node \"echo\"\n");
        apartment_uninitialize();
        return 1;
    }
    std::printf("responder: listening on %s, node \"echo\"\n", url);

    // Callbacks run inside this loop, on this thread.
    while (!stop_requested) apartment_dispatch_message(nullptr, ApartmentHost::monotonicDeadline(100));

    apartment_uninitialize();
    std::printf("responder: stopped\n");
    return 0;
}
