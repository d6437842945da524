// requester: sends a few requests to the responder's node "echo" and prints
// the response code, the data and the round-trip time of each.
//
//   requester [responder url] [count]   (default tcp://127.0.0.1:7001, 3)
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "ApartmentApi.h"

int main(int argc, char** argv) {
    const char* responder = argc > 1 ? argv[1] : "tcp://127.0.0.1:7001";
    const int count = argc > 2 ? std::atoi(argv[2]) : 3;

    // A requester only asks, so it need not accept links (false): responses
    // come back over the link it opens. Its URL names no port of its own.
    if (!apartment_initialize("tcp://127.0.0.1:0", false)) {
        std::fprintf(stderr, "requester: cannot initialise the apartment\n");
        apartment_uninitialize();
        return 1;
    }
    if (!apartment_node_create(nullptr, "client")) {
        std::fprintf(stderr, "requester: cannot create the node \"client\"\n");
        apartment_uninitialize();
        return 1;
    }

    int failures = 0;
    for (int i = 1; i <= count; ++i) {
        std::string text = "request #" + std::to_string(i);
        const auto sent = std::chrono::steady_clock::now();

        // The first request opens the link; the library returns its id.
        unsigned int id = 0;
        const int written = apartment_node_write_request(
            nullptr, "client", responder, "echo", &text[0],
            static_cast<unsigned int>(text.size()), id);
        if (written != 0) {
            std::fprintf(stderr, "requester: cannot send to %s (%d): is the responder running?\n",
                         responder, written);
            ++failures;
            break;
        }

        // Two calls: the first (no buffer) waits for the response and tells
        // its code and length, the second copies it out and forgets it. The
        // waiting call also dispatches this apartment's messages.
        int code = 0;
        unsigned int length = 0;
        if (apartment_node_read_response(nullptr, "client", id, code, nullptr, length, 5000) !=
            0) {
            std::fprintf(stderr, "requester: no response to request %u within 5 s\n", id);
            ++failures;
            continue;
        }
        std::vector<char> data(length + 1, '\0');
        apartment_node_read_response(nullptr, "client", id, code, data.data(), length, 0);
        const double ms = std::chrono::duration<double, std::milli>(
                              std::chrono::steady_clock::now() - sent)
                              .count();
        std::printf("request %u: code %d, %u bytes \"%s\", %.3f ms\n", id, code, length,
                    data.data(), ms);
        if (code != REQUEST_OK || text != data.data()) ++failures;
    }

    apartment_uninitialize();
    return failures == 0 ? 0 : 1;
}
