// The one multi-process harness of the tests: child processes that always
// end and are always reaped, a line protocol over pipes in both directions,
// free ports, and bounded pumping of this process's apartment through the C
// interface. Every wait here is bounded.
//
// A child is either spawned (a separate program, which keeps the tests
// usable under ThreadSanitizer) or forked before this process initialises
// its apartment (one apartment per process).
#ifndef APARTMENT_TESTS_PROCESS_SUPPORT_H
#define APARTMENT_TESTS_PROCESS_SUPPORT_H

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "ApartmentApi.h"
#include "GroundKit/OS/OS_Clock.h"
#include "os_socket.h"

extern char** environ;

namespace proc {

inline long long nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

inline void sleepMs(long ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

// An absolute deadline on the monotonic clock, as the dispatch call takes it.
inline timespec deadlineIn(long ms) { return OS::Clock::monotonicDeadline(ms); }

// Pumps this process's apartment until `done` holds or `ms` passed; the
// last value of `done`, which is asked no more once it held (it may consume
// what it looks for).
inline bool pumpUntil(const std::function<bool()>& done, long ms) {
    const long long until = nowMs() + ms;
    for (;;) {
        if (done()) return true;
        if (nowMs() >= until) return false;
        apartment_dispatch_message(nullptr, deadlineIn(10));
    }
}

inline void pumpFor(long ms) {
    pumpUntil([] { return false; }, ms);
}

// A socket bound to 127.0.0.1 at a port the kernel picks, listening with
// `backlog` when that is above 0; the port in `port`. -1 when a step failed.
inline int bindAnyPort(unsigned short& port, int backlog = 0) {
    const int fd = os_socket(AF_INET, SOCK_STREAM, 0, USE_DEFAULT);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = os_socket_address_from_text("127.0.0.1");
    socklen_t length = sizeof address;
    if (fd < 0 ||
        os_socket_bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address, USE_DEFAULT) !=
            0 ||
        (backlog > 0 && os_socket_listen(fd, backlog, USE_DEFAULT) != 0) ||
        os_socket_get_sock_name(fd, reinterpret_cast<sockaddr*>(&address), &length,
                                USE_DEFAULT) != 0) {
        if (fd >= 0) os_socket_close(fd, USE_DEFAULT);
        return -1;
    }
    port = ntohs(address.sin_port);
    return fd;
}

// A port on 127.0.0.1 that was free a moment ago.
inline unsigned short freePort() {
    unsigned short port = 0;
    const int fd = bindAnyPort(port);
    if (fd >= 0) os_socket_close(fd, USE_DEFAULT);
    return port;
}

inline std::string urlOf(unsigned short port) {
    return "tcp://127.0.0.1:" + std::to_string(port);
}

inline std::string urlOnFreePort() { return urlOf(freePort()); }

// Initialises this process's apartment on a free port; retries because
// another process may take the port between the probe and the bind. The
// URL, or "".
inline std::string initialiseOnFreePort(bool passive = true) {
    for (int attempt = 0; attempt < 20; ++attempt) {
        const std::string url = urlOnFreePort();
        if (apartment_initialize(url.c_str(), passive)) return url;
    }
    return "";
}

// Reads from `fd` into `buffer` until it holds a whole line or `ms` pass.
// 1 with the line (taken out of the buffer), 0 on time-out, -1 once the
// other end closed and no whole line is left.
inline int readLineFrom(int fd, std::string& buffer, long ms, std::string& line) {
    const long long until = nowMs() + ms;
    for (;;) {
        const size_t end = buffer.find('\n');
        if (end != std::string::npos) {
            line = buffer.substr(0, end);
            buffer.erase(0, end + 1);
            return 1;
        }
        if (fd < 0) return -1;
        pollfd p{fd, POLLIN, 0};
        const long left = std::max(0L, static_cast<long>(until - nowMs()));
        if (poll(&p, 1, static_cast<int>(left)) <= 0) return 0;
        char chunk[4096];
        const ssize_t got = ::read(fd, chunk, sizeof chunk);
        if (got <= 0) return -1;
        buffer.append(chunk, static_cast<size_t>(got));
    }
}

// A child process with a pipe to its standard input (or, when forked, to
// `fromParent`) and one from its standard output (or `toParent`). The
// destructor kills and reaps it, so a failed assertion never leaves a
// process behind. Used by the test's main thread only.
class Child {
public:
    Child() = default;
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child() { kill(); }

    // Runs `path` with `args`. False when it could not be started.
    bool spawn(const std::string& path, const std::vector<std::string>& args) {
        int in[2], out[2];
        if (!openPipes(in, out)) return false;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        posix_spawn_file_actions_addclose(&actions, in[1]);
        posix_spawn_file_actions_addclose(&actions, out[0]);
        std::vector<std::string> all{path};
        all.insert(all.end(), args.begin(), args.end());
        std::vector<char*> argv;
        for (std::string& a : all) argv.push_back(&a[0]);
        argv.push_back(nullptr);
        const int rc = posix_spawn(&m_pid, path.c_str(), &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        keepParentEnds(in, out);
        if (rc != 0) m_pid = -1;
        return rc == 0;
    }

    // Runs `body` in a forked child, whose result becomes the exit code.
    bool fork(const std::function<int()>& body) {
        int in[2], out[2];
        if (!openPipes(in, out)) return false;
        std::fflush(stdout);
        m_pid = ::fork();
        if (m_pid == 0) {
            ::close(in[1]);
            ::close(out[0]);
            s_fromParent = in[0];
            s_toParent = out[1];
            const int rc = body();
            std::fflush(stdout);
            _exit(rc);
        }
        keepParentEnds(in, out);
        return m_pid > 0;
    }

    pid_t pid() const { return m_pid; }

    // One line to the child.
    void tell(const std::string& line) {
        const std::string text = line + "\n";
        if (m_in >= 0 && ::write(m_in, text.data(), text.size()) < 0) return;
    }
    // Closes the child's input (it sees end of file).
    void closeInput() {
        if (m_in >= 0) ::close(m_in);
        m_in = -1;
    }

    // The next line the child wrote, or "" after `ms`.
    std::string readLine(long ms) {
        std::string line;
        return readLine(ms, line) == 1 ? line : "";
    }
    // As readLineFrom: 1 with a line, 0 on time-out, -1 once output closed.
    int readLine(long ms, std::string& line) {
        const int rc = readLineFrom(m_out, m_buffer, ms, line);
        if (rc < 0 && m_out >= 0) {
            ::close(m_out);
            m_out = -1;
        }
        return rc;
    }

    // The exit code once the child ended within `ms` (its output is read
    // meanwhile, so a chatty child cannot block on a full pipe); -1 if it
    // had to be killed, -2 if it died of a signal.
    int wait(long ms) {
        if (m_pid <= 0) return m_status;
        const long long until = nowMs() + ms;
        for (;;) {
            int status = 0;
            if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
                m_pid = -1;
                m_status = WIFEXITED(status) ? WEXITSTATUS(status) : -2;
                return m_status;
            }
            if (nowMs() >= until) {
                kill();
                return m_status = -1;
            }
            if (m_out >= 0) {
                pollfd p{m_out, POLLIN, 0};
                if (poll(&p, 1, 5) > 0) {
                    char chunk[4096];
                    const ssize_t got = ::read(m_out, chunk, sizeof chunk);
                    if (got > 0) m_buffer.append(chunk, static_cast<size_t>(got));
                    else closeOutput();
                }
            } else {
                sleepMs(5);
            }
        }
    }

    // Kills the child at once, reaps it and closes the pipes.
    void kill() {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
            m_pid = -1;
        }
        closeInput();
        closeOutput();
    }

    // In a forked child: a line the parent wrote with tell, or "" after `ms`.
    static std::string readFromParent(long ms) {
        static std::string buffer;
        std::string line;
        return readLineFrom(s_fromParent, buffer, ms, line) == 1 ? line : "";
    }
    // In a forked child: one line to the parent.
    static void tellParent(const std::string& line) {
        const std::string text = line + "\n";
        if (s_toParent >= 0 && ::write(s_toParent, text.data(), text.size()) < 0) _exit(98);
    }

private:
    static bool openPipes(int in[2], int out[2]) {
        // A child that has gone must not kill the test through its pipe.
        signal(SIGPIPE, SIG_IGN);
        if (pipe(in) != 0) return false;
        if (pipe(out) == 0) return true;
        ::close(in[0]);
        ::close(in[1]);
        return false;
    }
    void keepParentEnds(int in[2], int out[2]) {
        ::close(in[0]);
        ::close(out[1]);
        m_in = in[1];
        m_out = out[0];
        fcntl(m_in, F_SETFD, FD_CLOEXEC);
        fcntl(m_out, F_SETFD, FD_CLOEXEC);
        m_buffer.clear();
        m_status = -3;
    }
    void closeOutput() {
        if (m_out >= 0) ::close(m_out);
        m_out = -1;
    }

    pid_t m_pid = -1;
    int m_in = -1;
    int m_out = -1;
    int m_status = -3;
    std::string m_buffer;
    static inline int s_toParent = -1;
    static inline int s_fromParent = -1;
};

}  // namespace proc

#endif
