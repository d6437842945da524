#include "Session.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <mutex>
#include <random>
#include <sstream>
#include <thread>

#include "ApartmentApi.h"
#include "Output.h"

namespace tool {

namespace {
volatile sig_atomic_t g_stop = 0;
void onStopSignal(int) { g_stop = 1; }
}  // namespace

bool stopRequested() { return g_stop != 0; }

void installStopSignals() {
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

namespace {
// A start that failed with an error line of the library's own (TLS settings,
// say) is not about the address: no other port would do better.
void failUnlessAboutTheAddress() {
    const std::string why = lastLibraryError();
    if (!why.empty()) throw RuntimeError("cannot start the apartment: " + why);
}
}  // namespace

ApartmentSession::ApartmentSession(const ApartmentUrl& url) {
    if (url.port != 0) {
        if (!apartment_initialize(url.str().c_str(), true)) {
            failUnlessAboutTheAddress();
            throw RuntimeError("cannot listen on " + url.str() + " (address in use or not local)");
        }
        libraryStarted();
        m_strUrl = url.str();
        return;
    }
    std::mt19937 random(std::random_device{}());
    std::uniform_int_distribution<unsigned int> port(20000, 60999);
    for (int attempt = 0; attempt < 30; ++attempt) {
        ApartmentUrl candidate = url;
        candidate.port = port(random);
        if (apartment_initialize(candidate.str().c_str(), true)) {
            libraryStarted();
            m_strUrl = candidate.str();
            return;
        }
        failUnlessAboutTheAddress();
    }
    throw RuntimeError("cannot listen on " + url.host + ": no free port found");
}

ApartmentSession::~ApartmentSession() { apartment_uninitialize(); }

ApartmentUrl clientUrlFor(const ApartmentUrl& remote, const Args& args) {
    if (args.has("local")) return parseApartmentUrl(args.text("local", ""), true);
    ApartmentUrl local;
    local.host = remote.host.compare(0, 4, "127.") == 0 ? "127.0.0.1" : "0.0.0.0";
    local.port = 0;
    return local;
}

namespace {
// The shared state of one bounded call: the helper thread may outlive the
// caller's frame only when the process is about to exit.
struct BoundedState {
    std::mutex mutex;  // guards done and result
    std::condition_variable finished;
    bool done = false;
    bool result = false;
};
}  // namespace

bool boundedCall(unsigned int timeoutMs, const std::string& what,
                 bool (*call)(const char*, bool), const char* url, bool rt) {
    auto state = std::make_shared<BoundedState>();
    const std::string remote = url;
    std::thread([state, call, remote, rt] {
        const bool result = call(remote.c_str(), rt);
        std::lock_guard<std::mutex> lock(state->mutex);
        state->result = result;
        state->done = true;
        state->finished.notify_all();
    }).detach();
    std::unique_lock<std::mutex> lock(state->mutex);
    if (!state->finished.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                  [&] { return state->done; })) {
        complain(what + ": no answer within " + std::to_string(timeoutMs) + " ms");
        std::fflush(nullptr);
        _exit(1);
    }
    return state->result;
}

void connectRemote(const std::string& remote, bool rt, unsigned int timeoutMs) {
    auto connect = [](const char* url, bool bRt) {
        return apartment_connect_remote(nullptr, url, bRt);
    };
    if (!boundedCall(timeoutMs, "connecting to " + remote, connect, remote.c_str(), rt))
        throw RuntimeError("cannot connect to " + remote + (rt ? " (real-time link)" : ""));
}

std::string readPayload(const Args& args) {
    if (args.has("data") && args.has("file")) throw UsageError("give --data or --file, not both");
    if (args.has("file")) {
        const std::string path = args.text("file", "");
        std::ifstream in(path, std::ios::binary);
        if (!in) throw RuntimeError("cannot read " + path + ": " + std::strerror(errno));
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    const std::string data = args.text("data", "");
    if (data != "-") return data;
    std::ostringstream all;
    all << std::cin.rdbuf();
    return all.str();
}

ChildProcess::ChildProcess(const std::vector<std::string>& args) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) throw RuntimeError("cannot create a pipe");
    std::vector<char*> argv;
    static char self[] = "apartment";
    argv.push_back(self);
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    const pid_t parent = getpid();
    m_pid = fork();
    if (m_pid < 0) {
        close(fds[0]);
        close(fds[1]);
        throw RuntimeError("cannot start a child process");
    }
    if (m_pid == 0) {
        // The child must not outlive us, even if we are killed.
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != parent) _exit(1);
        dup2(fds[1], STDOUT_FILENO);
        execv("/proc/self/exe", argv.data());
        _exit(127);
    }
    close(fds[1]);
    m_fd = fds[0];
}

ChildProcess::~ChildProcess() {
    stop();
    if (m_fd >= 0) close(m_fd);
}

bool ChildProcess::readLine(std::string& line, int timeoutMs) {
    const double end = monotonicSeconds() + timeoutMs / 1000.0;
    for (;;) {
        const size_t newline = m_strPending.find('\n');
        if (newline != std::string::npos) {
            line = m_strPending.substr(0, newline);
            m_strPending.erase(0, newline + 1);
            return true;
        }
        if (m_fd < 0) return false;
        const int left = static_cast<int>((end - monotonicSeconds()) * 1000.0);
        if (left < 0) return false;
        pollfd p{m_fd, POLLIN, 0};
        const int ready = poll(&p, 1, left);
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return false;
        char buffer[4096];
        const ssize_t got = read(m_fd, buffer, sizeof buffer);
        if (got <= 0) {
            close(m_fd);
            m_fd = -1;
            return false;
        }
        m_strPending.append(buffer, static_cast<size_t>(got));
    }
}

bool ChildProcess::stop() {
    if (m_pid <= 0) return false;
    kill(m_pid, SIGTERM);
    int status = 0;
    for (int i = 0; i < 200; ++i) {
        if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
            m_pid = -1;
            return WIFEXITED(status);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    kill(m_pid, SIGKILL);
    waitpid(m_pid, &status, 0);
    m_pid = -1;
    return false;
}

std::string awaitListeningUrl(ChildProcess& child, int timeoutMs) {
    std::string line;
    const std::string prefix = "listening on ";
    if (!child.readLine(line, timeoutMs) || line.compare(0, prefix.size(), prefix) != 0)
        throw RuntimeError("the responder process did not start");
    return line.substr(prefix.size());
}

std::string libraryVersion() {
    IModuleVersion* version = apartment_get_module_version();
    if (version == nullptr) return "unknown";
    unsigned long length = 0;
    std::string text = "unknown";
    if (version->getShortVersion(nullptr, length) && length > 0) {
        std::vector<char> buffer(length);
        if (version->getShortVersion(buffer.data(), length)) text = buffer.data();
    }
    version->releaseRef();
    return text;
}

}  // namespace tool
