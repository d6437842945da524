// request, notify and raw: send to a remote apartment and report.
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

const char REQUEST_USAGE[] =
    "usage: apartment request URL NODE [--data TEXT | --data - | --file F] [--count N]\n"
    "                         [--interval MS] [--timeout MS] [--format text|hex|quoted]\n"
    "                         [--local URL] [--verbose]\n"
    "\n"
    "Sends N requests (default 1) to NODE of the apartment at URL, one every MS\n"
    "milliseconds (default 0), and prints each response's code, data and round-trip\n"
    "time. --data - reads the data from standard input. --timeout bounds the\n"
    "connection and each response (default 5000 ms). --local sets this side's\n"
    "listening URL (default tcp://127.0.0.1:0 for a loopback remote).\n";

const char NOTIFY_USAGE[] =
    "usage: apartment notify URL NODE [--data TEXT | --data - | --file F] [--count N]\n"
    "                        [--interval MS] [--timeout MS] [--local URL] [--verbose]\n"
    "\n"
    "Sends N notifications (default 1) to NODE of the apartment at URL; no answer\n"
    "is expected.\n";

const char RAW_USAGE[] =
    "usage: apartment raw URL [--type N] [--data TEXT | --data - | --file F] [--count N]\n"
    "                     [--interval MS] [--timeout MS] [--local URL] [--verbose]\n"
    "\n"
    "Connects the real-time link to URL and sends N raw frames (default 1) of\n"
    "type N (default 0).\n";

const char SENDER_NODE[] = "cli";

const std::vector<OptionDef> SEND_OPTIONS = {
    {"data", true},  {"file", true},  {"count", true},  {"interval", true}, {"timeout", true},
    {"format", true}, {"local", true}, {"type", true},  {"verbose", false}};

struct SendSetup {
    ApartmentUrl remote;
    std::string node;
    std::string payload;
    long count;
    long intervalMs;
    long timeoutMs;
};

SendSetup parseSend(const Args& args, bool withNode) {
    args.expectPositionals(withNode ? 2 : 1, withNode ? 2 : 1, withNode ? "URL and NODE" : "URL");
    SendSetup setup;
    setup.remote = parseApartmentUrl(args.positionals()[0], false);
    if (withNode) {
        setup.node = args.positionals()[1];
        if (setup.node.empty()) throw UsageError("empty NODE");
    }
    setup.count = args.number("count", 1, 1, 100000000);
    setup.intervalMs = args.number("interval", 0, 0, 3600000);
    setup.timeoutMs = args.number("timeout", 5000, 1, 3600000);
    setup.payload = readPayload(args);
    return setup;
}

// Waits between sends while still serving the apartment's messages.
void pause(long ms) {
    if (ms > 0)
        ApartmentHost::pumpUntil([] { return stopRequested(); }, static_cast<unsigned long>(ms));
}

const char* responseCodeName(int code) {
    switch (code) {
        case REQUEST_OK: return "REQUEST_OK";
        case REQUEST_METHOD_NOT_FOUND: return "REQUEST_METHOD_NOT_FOUND";
        case REQUEST_PARAMETER_ERROR: return "REQUEST_PARAMETER_ERROR";
        case REQUEST_OPERATE_FAILED: return "REQUEST_OPERATE_FAILED";
        default: return "unknown";
    }
}

// Notifications and requests share everything but the call and the report.
int runNodeSend(const Words& words, bool request) {
    const Args args(words, SEND_OPTIONS);
    if (args.help()) {
        std::fputs(request ? REQUEST_USAGE : NOTIFY_USAGE, stdout);
        return 0;
    }
    if (args.has("type")) throw UsageError("unknown option '--type'");
    const SendSetup setup = parseSend(args, true);
    const DataFormat format = parseDataFormat(args.text("format", "text"));
    separateLibraryOutput(args.has("verbose"));
    installStopSignals();
    ApartmentSession session(clientUrlFor(setup.remote, args));
    apartment_node_create(nullptr, SENDER_NODE);
    const std::string remote = setup.remote.str();
    connectRemote(remote, false, static_cast<unsigned int>(setup.timeoutMs));

    std::string payload = setup.payload;
    std::vector<char> response;
    for (long i = 0; i < setup.count && !stopRequested(); ++i) {
        if (i != 0) pause(setup.intervalMs);
        unsigned int id = 0;
        void* data = payload.empty() ? nullptr : &payload[0];
        const unsigned int length = static_cast<unsigned int>(payload.size());
        const double start = monotonicSeconds();
        const int sent =
            request ? apartment_node_write_request(nullptr, SENDER_NODE, remote.c_str(),
                                                   setup.node.c_str(), data, length, id)
                    : apartment_node_write_notify(nullptr, SENDER_NODE, remote.c_str(),
                                                  setup.node.c_str(), data, length, id);
        if (sent != 0)
            throw RuntimeError(std::string("cannot send the ") +
                               (request ? "request" : "notification") + " to " + remote +
                               " (status " + std::to_string(sent) + ")");
        if (!request) {
            say("notify id=%u %u B sent to %s/%s", id, length, remote.c_str(), setup.node.c_str());
            continue;
        }
        int code = 0;
        unsigned int size = 0;
        if (apartment_node_read_response(nullptr, SENDER_NODE, id, code, nullptr, size,
                                         static_cast<int>(setup.timeoutMs)) != 0)
            throw RuntimeError("no response from " + remote + "/" + setup.node + " within " +
                               std::to_string(setup.timeoutMs) + " ms");
        response.assign(size + 1, 0);
        if (apartment_node_read_response(nullptr, SENDER_NODE, id, code, response.data(), size,
                                         static_cast<int>(setup.timeoutMs)) != 0)
            throw RuntimeError("the response from " + remote + " could not be read");
        const double rttMs = (monotonicSeconds() - start) * 1000.0;
        say("response id=%u code=%d (%s) %u B rtt=%.3f ms: %s", id, code, responseCodeName(code),
            size, rttMs, formatData(response.data(), size, format).c_str());
    }
    return 0;
}

}  // namespace

int runRequest(const Words& words) { return runNodeSend(words, true); }
int runNotify(const Words& words) { return runNodeSend(words, false); }

int runRaw(const Words& words) {
    const Args args(words, SEND_OPTIONS);
    if (args.help()) {
        std::fputs(RAW_USAGE, stdout);
        return 0;
    }
    const SendSetup setup = parseSend(args, false);
    const unsigned int type = static_cast<unsigned int>(args.number("type", 0, 0, 4294967295L));
    separateLibraryOutput(args.has("verbose"));
    installStopSignals();
    ApartmentSession session(clientUrlFor(setup.remote, args));
    const std::string remote = setup.remote.str();
    connectRemote(remote, true, static_cast<unsigned int>(setup.timeoutMs));

    std::string payload = setup.payload;
    for (long i = 0; i < setup.count && !stopRequested(); ++i) {
        if (i != 0) pause(setup.intervalMs);
        const unsigned int length = static_cast<unsigned int>(payload.size());
        const int sent = apartment_raw_write(nullptr, remote.c_str(), type,
                                             payload.empty() ? nullptr : &payload[0], length);
        if (sent != 0)
            throw RuntimeError("cannot send the raw frame to " + remote + " (status " +
                               std::to_string(sent) + ")");
        say("raw type=%u %u B sent to %s", type, length, remote.c_str());
    }
    return 0;
}

}  // namespace tool
