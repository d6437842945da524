// apartment: a command-line companion to the Apartment library.
#include <cstdio>
#include <cstring>
#include <string>

#include "Args.h"
#include "Commands.h"
#include "Output.h"
#include "Session.h"

namespace {

const char USAGE[] =
    "usage: apartment <command> [options]   (apartment <command> --help for details)\n"
    "\n"
    "  serve    a listening apartment whose nodes echo or print what they receive\n"
    "  request  send requests to a node and print the responses with round-trip times\n"
    "  notify   send notifications to a node\n"
    "  raw      send raw frames over the real-time link\n"
    "  watch    heartbeat a remote apartment and report online/offline changes\n"
    "  bench    measure round trips, notifications and raw frames\n"
    "  demo     a narrated tour on 127.0.0.1 (a few seconds)\n"
    "  version  print the tool's and the library's versions\n"
    "\n"
    "Exit codes: 0 success, 1 runtime failure, 2 usage error.\n";

}  // namespace

int main(int argc, char** argv) {
    using namespace tool;
    if (argc < 2) {
        std::fputs(USAGE, stderr);
        return 2;
    }
    const std::string command = argv[1];
    const Words words(argv + 2, argv + argc);
    if (command == "-h" || command == "--help" || command == "help") {
        std::fputs(USAGE, stdout);
        return 0;
    }
    if (command == "version" || command == "--version") {
        std::printf("apartment %s, library %s\n", APARTMENT_TOOL_VERSION, libraryVersion().c_str());
        return 0;
    }
    int (*run)(const Words&) = nullptr;
    if (command == "serve") run = runServe;
    else if (command == "request") run = runRequest;
    else if (command == "notify") run = runNotify;
    else if (command == "raw") run = runRaw;
    else if (command == "watch") run = runWatch;
    else if (command == "bench") run = runBench;
    else if (command == "demo") run = runDemo;
    if (run == nullptr) {
        complain("unknown command '" + command + "' (try apartment --help)");
        return 2;
    }
    try {
        return run(words);
    } catch (const UsageError& e) {
        complain(command + ": " + e.what() + " (try apartment " + command + " --help)");
        return 2;
    } catch (const RuntimeError& e) {
        complain(command + ": " + e.what());
        return 1;
    } catch (const std::exception& e) {
        complain(command + ": " + e.what());
        return 1;
    }
}
