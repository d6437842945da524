// watch: heartbeat a remote apartment and print its online/offline changes.
#include <algorithm>
#include <cstdio>
#include <string>

#include "ApartmentApi.h"
#include "ApartmentHost.h"
#include "Commands.h"
#include "Output.h"
#include "Session.h"

namespace tool {

namespace {

const char WATCH_USAGE[] =
    "usage: apartment watch URL [--count N] [--interval MS] [--duration S]\n"
    "                       [--timeout MS] [--local URL] [--verbose]\n"
    "\n"
    "Sends a heartbeat to the apartment at URL every MS milliseconds (default\n"
    "1000) and prints a time-stamped line when it goes offline (N heartbeats,\n"
    "default 3, unanswered, or its link closed) and when it is back online (the\n"
    "link reopened, or N+1 periods passed without an offline report). Runs until\n"
    "SIGINT/SIGTERM or for S seconds. --timeout bounds each connection attempt.\n";

const char WATCH_NODE[] = "watch";

enum class Seen { Unknown, Online, Offline };

}  // namespace

int runWatch(const Words& words) {
    const Args args(words, {{"count", true}, {"interval", true}, {"duration", true},
                            {"timeout", true}, {"local", true}, {"verbose", false}});
    if (args.help()) {
        std::fputs(WATCH_USAGE, stdout);
        return 0;
    }
    args.expectPositionals(1, 1, "URL");
    const ApartmentUrl remoteUrl = parseApartmentUrl(args.positionals()[0], false);
    const unsigned int count = static_cast<unsigned int>(args.number("count", 3, 1, 1000000));
    const unsigned int intervalMs =
        static_cast<unsigned int>(args.number("interval", 1000, 10, 3600000));
    const double duration = args.real("duration", 0, 0, 1e7);
    const unsigned int timeoutMs = static_cast<unsigned int>(args.number("timeout", 3000, 1, 3600000));

    separateLibraryOutput(args.has("verbose"));
    installStopSignals();
    ApartmentSession session(clientUrlFor(remoteUrl, args));
    const std::string remote = remoteUrl.str();

    // Written by the callbacks on this (the dispatching) thread only.
    double lastOfflineReport = 0;
    bool linkClosed = false;
    ApartmentHost::CApartmentCallbackFn* apartment = new ApartmentHost::CApartmentCallbackFn();
    apartment->offline = [&](const char*) { lastOfflineReport = monotonicSeconds(); };
    apartment_set_callback(nullptr, apartment);
    apartment->releaseRef();
    apartment_node_create(nullptr, WATCH_NODE);
    ApartmentHost::CNodeCallbackFn* node = new ApartmentHost::CNodeCallbackFn();
    node->offline = [&](const char* url) {
        if (remote == url) linkClosed = true;
    };
    apartment_node_set_callback(nullptr, WATCH_NODE, node);
    node->releaseRef();

    Seen seen = Seen::Unknown;
    auto report = [&](Seen now, const char* why) {
        if (now == seen) return;
        seen = now;
        say("%s %s %s (%s)", timeOfDay().c_str(), now == Seen::Online ? "online" : "offline",
            remote.c_str(), why);
    };

    const double period = intervalMs / 1000.0;
    const double start = monotonicSeconds();
    double watchStarted = 0;
    bool watching = false;
    auto restartWatch = [&] {
        apartment_keepalive_with(nullptr, remote.c_str(), 0, intervalMs);
        watching = apartment_keepalive_with(nullptr, remote.c_str(), count, intervalMs);
        watchStarted = monotonicSeconds();
    };
    auto connect = [](const char* url, bool rt) { return apartment_connect_remote(nullptr, url, rt); };

    double nextAttempt = 0;
    while (!stopRequested() && (duration <= 0 || monotonicSeconds() - start < duration)) {
        const double now = monotonicSeconds();
        if (linkClosed) {
            linkClosed = false;
            report(Seen::Offline, "link closed");
        }
        const bool linked = apartment_has_connect_remote(nullptr, remote.c_str(), false);
        if (!linked && now >= nextAttempt) {
            nextAttempt = now + period;
            if (boundedCall(timeoutMs, "connecting to " + remote, connect, remote.c_str(), false)) {
                restartWatch();
                report(Seen::Online, "connected");
            } else {
                report(Seen::Offline, "cannot connect");
            }
        } else if (linked && watching && lastOfflineReport > watchStarted) {
            report(Seen::Offline, "heartbeat unanswered");
            // At zero credit the library stops sending heartbeats; start a
            // fresh watch so that an answer can bring the remote back.
            restartWatch();
        } else if (linked && watching && seen == Seen::Offline &&
                   now - watchStarted > period * (count + 1.5) &&
                   lastOfflineReport < watchStarted) {
            report(Seen::Online, "heartbeat answered");
        }
        ApartmentHost::pumpUntil([&] { return stopRequested() || linkClosed; },
                                 std::max(10u, intervalMs / 4));
    }
    return 0;
}

}  // namespace tool
