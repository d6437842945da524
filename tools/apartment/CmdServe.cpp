// serve: a listening apartment that answers requests and prints what
// arrives, until SIGINT or SIGTERM.
#include <sys/resource.h>

#include <atomic>
#include <cstdio>
#include <string>

#include "ApartmentApi.h"
#include "ApartmentHost.h"
#include "Commands.h"
#include "Output.h"
#include "Session.h"

namespace tool {

const char* const STATS_NODE = "_stats";

namespace {

const char SERVE_USAGE[] =
    "usage: apartment serve [--url URL] [--node NAME ...] [--echo | --print]\n"
    "                       [--format text|hex|quoted] [--quiet] [--verbose]\n"
    "\n"
    "Listens on URL (default tcp://127.0.0.1:0, port 0: any free port) and prints\n"
    "\"listening on <url>\" first. Nodes (default: echo) answer requests with the\n"
    "request's data (--echo, the default) or print them and answer empty\n"
    "(--print). Notifications, raw frames and closed links are printed;\n"
    "--quiet prints nothing after the first line. The node _stats answers with\n"
    "counters. --verbose shows the library's own messages on stderr.\n"
    "The soft limit on open descriptors is raised to the hard one: each link\n"
    "holds one. Stops cleanly on SIGINT or SIGTERM.\n"
    "TLS: with APARTMENT_TLS_CERT, APARTMENT_TLS_KEY and APARTMENT_TLS_CA (PEM\n"
    "files) set, every link is mutual TLS 1.3 (peers need the same variables);\n"
    "APARTMENT_TLS_KEYLOG=FILE appends session secrets for a capture tool.\n"
    "Links to apartments of this host go over a Unix socket named after the\n"
    "URL; APARTMENT_SAME_HOST=0 keeps them on TCP (for a loopback capture).\n";

// Counts of what arrived; raw frames are counted on the real-time thread.
struct Counters {
    std::atomic<unsigned long> notifications{0};
    std::atomic<unsigned long> requests{0};
    std::atomic<unsigned long> rawFrames{0};
    std::atomic<unsigned long> rawBytes{0};
};

// A service holds a descriptor per link: as many as the system allows this
// process, not the soft limit a shell happens to hand down.
void raiseDescriptorLimit() {
    rlimit files{};
    if (getrlimit(RLIMIT_NOFILE, &files) != 0 || files.rlim_cur >= files.rlim_max) return;
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
}

}  // namespace

int runServe(const Words& words) {
    const Args args(words, {{"url", true}, {"node", true}, {"echo", false}, {"print", false},
                            {"format", true}, {"quiet", false}, {"verbose", false}});
    if (args.help()) {
        std::fputs(SERVE_USAGE, stdout);
        return 0;
    }
    args.expectPositionals(0, 0, "");
    if (args.has("echo") && args.has("print")) throw UsageError("give --echo or --print, not both");
    const ApartmentUrl url = parseApartmentUrl(args.text("url", "tcp://127.0.0.1:0"), true);
    const DataFormat format = parseDataFormat(args.text("format", "text"));
    const bool echo = !args.has("print");
    const bool quiet = args.has("quiet");
    std::vector<std::string> nodes = args.all("node");
    if (nodes.empty()) nodes.push_back("echo");

    // Declared before the session: library threads use it until the
    // session's end has stopped them.
    Counters counters;
    raiseDescriptorLimit();
    separateLibraryOutput(args.has("verbose"));
    installStopSignals();
    ApartmentSession session(url);
    say("listening on %s", session.url().c_str());

    ApartmentHost::CApartmentCallbackFn* apartment = new ApartmentHost::CApartmentCallbackFn();
    apartment->rawFrame = [&counters, quiet, format](unsigned int type, const void* data,
                                                     unsigned int length) {
        counters.rawFrames.fetch_add(1, std::memory_order_relaxed);
        counters.rawBytes.fetch_add(length, std::memory_order_relaxed);
        if (!quiet)
            say("%s raw type=%u %u B: %s", timeOfDay().c_str(), type, length,
                formatData(data, length, format).c_str());
    };
    apartment->offline = [quiet](const char* remote) {
        if (!quiet) say("%s offline %s", timeOfDay().c_str(), remote);
    };
    apartment_set_callback(nullptr, apartment);
    apartment->releaseRef();

    nodes.push_back(STATS_NODE);
    for (const std::string& name : nodes) {
        apartment_node_create(nullptr, name.c_str());
        ApartmentHost::CNodeCallbackFn* node = new ApartmentHost::CNodeCallbackFn();
        const bool stats = name == STATS_NODE;
        node->request = [&counters, quiet, format, echo, stats](const ApartmentHost::NodeRequest& r) {
            if (!r.bRequireResponse) {
                counters.notifications.fetch_add(1, std::memory_order_relaxed);
                if (!quiet)
                    say("%s notify %s/%s -> %s %u B: %s", timeOfDay().c_str(),
                        r.strSourceApartmentUrl, r.strSourceNodeUrl, r.strTargetNodeUrl,
                        r.uintBufLen, formatData(r.pRequestBuffer, r.uintBufLen, format).c_str());
                return;
            }
            counters.requests.fetch_add(1, std::memory_order_relaxed);
            if (echo && !stats) {
                // Straight from where the request lies (the library only
                // reads it), as a raw echo would: no copy per round trip.
                apartment_node_write_response(
                    nullptr, r.strTargetNodeUrl, r.strSourceApartmentUrl, r.strSourceNodeUrl,
                    r.uintRequestId, REQUEST_OK,
                    r.uintBufLen != 0 ? const_cast<void*>(r.pRequestBuffer) : nullptr,
                    r.uintBufLen);
                return;
            }
            std::string answer;
            if (stats) {
                answer = "notifications=" + std::to_string(counters.notifications.load()) +
                         " requests=" + std::to_string(counters.requests.load()) +
                         " raw=" + std::to_string(counters.rawFrames.load()) +
                         " raw_bytes=" + std::to_string(counters.rawBytes.load());
            } else if (!quiet) {
                say("%s request %s/%s -> %s id=%u %u B: %s", timeOfDay().c_str(),
                    r.strSourceApartmentUrl, r.strSourceNodeUrl, r.strTargetNodeUrl,
                    r.uintRequestId, r.uintBufLen,
                    formatData(r.pRequestBuffer, r.uintBufLen, format).c_str());
            }
            apartment_node_write_response(nullptr, r.strTargetNodeUrl, r.strSourceApartmentUrl,
                                          r.strSourceNodeUrl, r.uintRequestId, REQUEST_OK,
                                          answer.empty() ? nullptr : &answer[0],
                                          static_cast<unsigned int>(answer.size()));
        };
        // Every node hears of a closed link; one line is enough.
        node->offline = [quiet, stats](const char* remote) {
            if (!quiet && stats) say("%s link closed %s", timeOfDay().c_str(), remote);
        };
        apartment_node_set_callback(nullptr, name.c_str(), node);
        node->releaseRef();
    }

    while (!stopRequested())
        apartment_dispatch_message(nullptr, ApartmentHost::monotonicDeadline(100));
    return 0;
}

}  // namespace tool
