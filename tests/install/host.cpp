// A minimal host built against an installed Apartment: it includes only the
// public header and links only the installed library. It initialises an
// apartment on the URL given, checks the version, sends a request from one
// of its nodes to another through its own URL and reads the answer.
// Exit status: 0 success, 3 the apartment could not be initialised (the
// port may be taken: try another), 1 anything else.
#include <cstdio>
#include <cstring>
#include <string>

#include "ApartmentApi.h"
#include "ApartmentHost.h"

namespace {

// Answers every request with its own bytes.
class Echo : public ApartmentHost::TCountedCallback<IApartmentNodeCallback> {
public:
    void onTimer(unsigned int) override {}
    void onApartmentOffline(const char*) override {}
    void onRequestReceived(const char* sourceApartment, const char* sourceNode, const char*,
                           const char*, unsigned int id, const void* data, unsigned int length,
                           bool requireResponse) override {
        if (requireResponse)
            apartment_node_write_response(nullptr, "echo", sourceApartment, sourceNode, id,
                                          REQUEST_OK, const_cast<void*>(data), length);
    }

private:
    virtual ~Echo() = default;
};

int fail(const char* what) {
    std::fprintf(stderr, "host: %s\n", what);
    apartment_uninitialize();
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s tcp://127.0.0.1:<port>\n", argv[0]);
        return 1;
    }
    const char* url = argv[1];
    if (!apartment_initialize(url, true)) {
        std::fprintf(stderr, "host: cannot initialise %s\n", url);
        apartment_uninitialize();
        return 3;
    }

    IModuleVersion* version = apartment_get_module_version();
    char text[32];
    unsigned long textLength = sizeof(text);
    const bool versionRead = version->getShortVersion(text, textLength);
    version->releaseRef();
    if (!versionRead || std::strcmp(text, "1.0.0") != 0) return fail("unexpected version");

    Echo* echo = new Echo();
    const bool nodesMade = apartment_node_create(nullptr, "echo") &&
                           apartment_node_create(nullptr, "client") &&
                           apartment_node_set_callback(nullptr, "echo", echo);
    echo->releaseRef();
    if (!nodesMade) return fail("cannot create the nodes");

    char request[] = "hello";
    unsigned int id = 0;
    if (apartment_node_write_request(nullptr, "client", url, "echo", request, 5, id) != 0)
        return fail("cannot send the request");
    int code = -100;
    unsigned int length = 0;
    if (apartment_node_read_response(nullptr, "client", id, code, nullptr, length, 10000) != 0)
        return fail("no response");
    std::string answer(length, '\0');
    if (apartment_node_read_response(nullptr, "client", id, code, &answer[0], length, 0) != 0 ||
        code != REQUEST_OK || answer != "hello")
        return fail("wrong response");

    apartment_uninitialize();
    std::printf("host: request %u answered with \"%s\"\n", id, answer.c_str());
    return 0;
}
