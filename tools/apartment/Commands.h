// The subcommands of the apartment tool. Each takes the words after its
// name, returns the process exit code (0 success) and throws UsageError
// (exit 2) or RuntimeError (exit 1) with a one-line reason.
#ifndef APARTMENT_TOOL_COMMANDS_H
#define APARTMENT_TOOL_COMMANDS_H

#include <string>
#include <vector>

namespace tool {

using Words = std::vector<std::string>;

int runServe(const Words& words);
int runRequest(const Words& words);
int runNotify(const Words& words);
int runRaw(const Words& words);
int runWatch(const Words& words);
int runBench(const Words& words);
int runDemo(const Words& words);

// The node the tool's serve answers with its counters:
// "notifications=<n> requests=<n> raw=<n> raw_bytes=<n>".
extern const char* const STATS_NODE;

}  // namespace tool

#endif
