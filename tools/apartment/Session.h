// What every subcommand shares: starting and stopping this process's
// apartment, stop signals, time limits around library calls that can
// block, payload input, and the responder child process that bench and
// demo start.
#ifndef APARTMENT_TOOL_SESSION_H
#define APARTMENT_TOOL_SESSION_H

#include <sys/types.h>

#include <string>
#include <vector>

#include "Args.h"

namespace tool {

// Set by SIGINT or SIGTERM once installStopSignals has run; loops poll it.
bool stopRequested();
void installStopSignals();

// This process's apartment for the lifetime of the object; the destructor
// uninitialises the library. Only one may exist.
class ApartmentSession {
public:
    // Initialises a listening apartment at `url`. Port 0 makes the tool draw
    // random free-looking ports itself (so that it knows its URL) and retry
    // when one is taken. RuntimeError when no address could be had.
    explicit ApartmentSession(const ApartmentUrl& url);
    ~ApartmentSession();
    ApartmentSession(const ApartmentSession&) = delete;
    ApartmentSession& operator=(const ApartmentSession&) = delete;

    const std::string& url() const { return m_strUrl; }

private:
    std::string m_strUrl;
};

// The local address a client of `remote` listens on: the loopback address
// for a loopback remote, every interface otherwise (port chosen).
ApartmentUrl clientUrlFor(const ApartmentUrl& remote, const Args& args);

// Runs `call` on a helper thread and waits at most `timeoutMs` for it. A
// library call that is still blocked then cannot be abandoned safely, so
// the process reports `what` on stderr and exits with code 1.
bool boundedCall(unsigned int timeoutMs, const std::string& what, bool (*call)(const char*, bool),
                 const char* url, bool rt);

// Opens the link to `remote` (rt: the real-time one) within `timeoutMs`;
// RuntimeError when it is refused.
void connectRemote(const std::string& remote, bool rt, unsigned int timeoutMs);

// The payload of --data TEXT, --data - (standard input) or --file F;
// empty when neither is given. RuntimeError when the input cannot be read.
std::string readPayload(const Args& args);

// A child process running this program with other arguments, whose
// standard output is a pipe to us. The destructor stops it (SIGTERM, then
// SIGKILL after two seconds) and reaps it.
class ChildProcess {
public:
    // RuntimeError when it cannot be started.
    explicit ChildProcess(const std::vector<std::string>& args);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // The next line of the child's output without its newline; false when
    // none came within `timeoutMs` or the child closed its output.
    bool readLine(std::string& line, int timeoutMs);
    // Stops the child and waits for it (bounded); true if it ended by itself
    // after SIGTERM.
    bool stop();
    pid_t pid() const { return m_pid; }

private:
    pid_t m_pid = -1;
    int m_fd = -1;
    std::string m_strPending;
};

// Reads the "listening on <url>" line a serve child prints first.
std::string awaitListeningUrl(ChildProcess& child, int timeoutMs);

std::string libraryVersion();

}  // namespace tool

#endif
