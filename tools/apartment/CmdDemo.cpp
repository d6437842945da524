// demo: a narrated tour of the library between two processes on 127.0.0.1.
#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "ApartmentApi.h"
#include "ApartmentHost.h"
#include "Commands.h"
#include "Output.h"
#include "Session.h"

namespace tool {

namespace {

const char DEMO_USAGE[] =
    "usage: apartment demo [--verbose]\n"
    "\n"
    "Starts a responder process (apartment serve) on 127.0.0.1 and, as the\n"
    "requester, walks through a connection, requests with their round-trip\n"
    "times, a notification, raw frames over the real-time link, a periodic timer\n"
    "and the heartbeat; then stops the responder and shows the offline report.\n"
    "Takes a few seconds; every step is bounded.\n";

const char DEMO_NODE[] = "demo";

class Narrator {
public:
    Narrator() : m_dStart(monotonicSeconds()) {}
    double elapsed() const { return monotonicSeconds() - m_dStart; }
    void step(const char* format, ...) __attribute__((format(printf, 2, 3))) {
        char text[1024];
        va_list args;
        va_start(args, format);
        std::vsnprintf(text, sizeof text, format, args);
        va_end(args);
        say("[%5.2f s] %s", elapsed(), text);
    }
    // Shows what the responder printed, waiting up to `ms` for `expected`
    // lines.
    size_t relay(ChildProcess& child, size_t expected, int ms) {
        size_t shown = 0;
        const double end = monotonicSeconds() + ms / 1000.0;
        std::string line;
        while (shown < expected) {
            const int left = static_cast<int>((end - monotonicSeconds()) * 1000.0);
            if (left <= 0 || !child.readLine(line, left)) break;
            say("           responder| %s", line.c_str());
            ++shown;
        }
        return shown;
    }

private:
    double m_dStart;
};

}  // namespace

int runDemo(const Words& words) {
    const Args args(words, {{"verbose", false}});
    if (args.help()) {
        std::fputs(DEMO_USAGE, stdout);
        return 0;
    }
    args.expectPositionals(0, 0, "");
    separateLibraryOutput(args.has("verbose"));
    installStopSignals();
    Narrator n;
    say("apartment demo: a requester (this process) and a responder (a child process) on 127.0.0.1");

    n.step("starting the responder: apartment serve --node echo --echo");
    ChildProcess responder({"serve", "--url", "tcp://127.0.0.1:0", "--node", "echo", "--echo"});
    const std::string remote = awaitListeningUrl(responder, 10000);
    const int responderPid = static_cast<int>(responder.pid());
    n.step("responder (pid %d) is listening on %s", responderPid,
           remote.c_str());

    ApartmentUrl local;
    local.host = "127.0.0.1";
    ApartmentSession session(local);
    n.step("this process's apartment listens on %s; it creates node '%s'", session.url().c_str(),
           DEMO_NODE);
    apartment_node_create(nullptr, DEMO_NODE);

    // Events seen by this process's callbacks (all on this thread).
    unsigned int ticks = 0;
    std::vector<double> tickTimes;
    bool linkClosed = false;
    double offlineAt = 0;
    ApartmentHost::CNodeCallbackFn* node = new ApartmentHost::CNodeCallbackFn();
    node->timer = [&](unsigned int) {
        ++ticks;
        tickTimes.push_back(monotonicSeconds());
    };
    node->offline = [&](const char*) { linkClosed = true; };
    apartment_node_set_callback(nullptr, DEMO_NODE, node);
    node->releaseRef();
    ApartmentHost::CApartmentCallbackFn* apartment = new ApartmentHost::CApartmentCallbackFn();
    apartment->offline = [&](const char*) {
        if (offlineAt == 0) offlineAt = monotonicSeconds();
    };
    apartment_set_callback(nullptr, apartment);
    apartment->releaseRef();

    double t = monotonicSeconds();
    connectRemote(remote, false, 5000);
    n.step("connected the request link (non-real-time) in %.2f ms",
           (monotonicSeconds() - t) * 1000.0);

    std::vector<double> rtts;
    for (int i = 1; i <= 3; ++i) {
        std::string text = "hello #" + std::to_string(i);
        unsigned int id = 0;
        t = monotonicSeconds();
        if (apartment_node_write_request(nullptr, DEMO_NODE, remote.c_str(), "echo", &text[0],
                                         static_cast<unsigned int>(text.size()), id) != 0)
            throw RuntimeError("cannot send a request to " + remote);
        char answer[64] = {0};
        int code = 0;
        unsigned int length = sizeof answer - 1;
        if (apartment_node_read_response(nullptr, DEMO_NODE, id, code, answer, length, 3000) != 0)
            throw RuntimeError("no response from the responder within 3000 ms");
        rtts.push_back((monotonicSeconds() - t) * 1000.0);
        n.step("request %u \"%s\" -> response code %d \"%s\", round trip %.3f ms", id, text.c_str(),
               code, answer, rtts.back());
    }

    std::string note = "something happened";
    unsigned int noteId = 0;
    apartment_node_write_notify(nullptr, DEMO_NODE, remote.c_str(), "echo", &note[0],
                                static_cast<unsigned int>(note.size()), noteId);
    n.step("sent a notification (no response expected); the responder prints:");
    const size_t notesSeen = n.relay(responder, 1, 2000);

    t = monotonicSeconds();
    connectRemote(remote, true, 5000);
    n.step("connected the real-time link in %.2f ms; sending 3 raw frames of type 7",
           (monotonicSeconds() - t) * 1000.0);
    for (int i = 1; i <= 3; ++i) {
        std::string frame = "raw frame " + std::to_string(i);
        if (apartment_raw_write(nullptr, remote.c_str(), 7, &frame[0],
                                static_cast<unsigned int>(frame.size())) != 0)
            throw RuntimeError("cannot send a raw frame to " + remote);
    }
    n.step("the responder prints them from its real-time thread, without its queue:");
    const size_t rawSeen = n.relay(responder, 3, 2000);

    n.step("a periodic timer on node '%s': every 200 ms, three ticks", DEMO_NODE);
    const double timerStart = monotonicSeconds();
    const unsigned int timer = apartment_set_timer(nullptr, DEMO_NODE, 200, 200);
    if (timer == 4294967295u) throw RuntimeError("cannot set a timer");
    unsigned int shownTicks = 0;
    ApartmentHost::pumpUntil(
        [&] {
            while (shownTicks < ticks) {
                ++shownTicks;
                n.step("  tick %u, %.0f ms after setting the timer", shownTicks,
                       (tickTimes[shownTicks - 1] - timerStart) * 1000.0);
            }
            return ticks >= 3;
        },
        3000);
    apartment_kill_timer(nullptr, DEMO_NODE, timer);

    n.step("heartbeat: an alive frame every 200 ms; offline after 2 unanswered");
    apartment_keepalive_with(nullptr, remote.c_str(), 2, 200);
    ApartmentHost::pumpUntil([&] { return offlineAt != 0; }, 1000);
    n.step("  one second of heartbeats and %s", offlineAt == 0 ? "no offline report: it answers"
                                                                : "an offline report (unexpected)");
    offlineAt = 0;

    n.step("stopping the responder (SIGTERM)");
    const double stopAt = monotonicSeconds();
    const bool clean = responder.stop();
    n.step("  responder exited %s", clean ? "cleanly" : "after SIGKILL");
    ApartmentHost::pumpUntil([&] { return linkClosed; }, 2000);
    if (linkClosed)
        n.step("  node '%s' heard that the link closed, %.0f ms after the stop", DEMO_NODE,
               (monotonicSeconds() - stopAt) * 1000.0);
    ApartmentHost::pumpUntil([&] { return offlineAt != 0; }, 3000);
    if (offlineAt != 0)
        n.step("  the heartbeat reports %s offline, %.0f ms after the stop", remote.c_str(),
               (offlineAt - stopAt) * 1000.0);
    else
        n.step("  no offline report within 3 s (unexpected)");
    apartment_keepalive_with(nullptr, remote.c_str(), 0, 200);

    const LatencySummary rtt = summarise(rtts);
    say("%s", "");
    say("summary");
    say("  responder            %s (pid %d), exited %s", remote.c_str(),
        responderPid, clean ? "cleanly" : "by SIGKILL");
    say("  requests             %zu, round trip median %.3f ms, max %.3f ms", rtt.count,
        rtt.median, rtt.max);
    say("  notification         %s", notesSeen == 1 ? "delivered" : "not seen");
    say("  raw frames           %zu of 3 delivered over the real-time link", rawSeen);
    say("  timer ticks          %u (period 200 ms)", ticks);
    say("  heartbeat            %s", offlineAt != 0 ? "offline reported after the stop"
                                                    : "no offline report");
    say("  total                %.1f s", n.elapsed());
    const bool ok = rtt.count == 3 && notesSeen == 1 && rawSeen == 3 && ticks >= 3 && offlineAt != 0;
    return ok ? 0 : 1;
}

}  // namespace tool
