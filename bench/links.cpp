// Many links into one host (`apartment serve`, fresh for each link count so
// that figures do not mix): a storm of new links, round trips among idle
// links, memory and CPU per idle link; and a working link's round trips while
// connections that never introduce themselves keep arriving. This side speaks
// the frame protocol over plain sockets, one epoll loop on one thread, so that
// its own cost stays small beside the host's; with --tls each link runs the
// library's own TLS session (CTlsSession) over its socket, the handshakes
// non-blocking in the same loop, a few at once. It reports, never judges.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "TlsContext.h"
#include "TlsSession.h"

namespace {

const char USAGE[] =
    "usage: apartment_links [--links N,...] [--size B] [--samples K] [--idle-seconds S]\n"
    "         [--silent R --silent-seconds S] [--tool PATH | --remote URL --pid PID]\n"
    "         [--tls DIR]\n"
    "Per link count N (default 1,64,65,1000,10000), in a fresh host, one row of:\n"
    "  storm ms, answered, closed: N links open at once, each sends its connection frame\n"
    "    and a --size B (32768) request to node echo: ms until each was answered once\n"
    "    (\">\": gave up at 60 s), links answered, links closed or never accepted;\n"
    "  then links not answered are opened again, 16 connects at a time (60 s at most):\n"
    "    what follows covers the links then open and answered (stderr: how many);\n"
    "  rtt p50, p99 us: --samples (2000) 64 B requests one at a time, each on a random\n"
    "    answered link while the rest idle (20 s at most each, then shown \">\"; 60 s in all);\n"
    "  RSS KiB/link: host VmRSS with the links answered and idle less VmRSS before them,\n"
    "    per link open; idle CPU %: host utime+stime over --idle-seconds (5), of a core.\n"
    "--silent R --silent-seconds S (off; try 20 and 3), in a fresh host: one link sends\n"
    "  64 B requests every 10 ms while R connections a second open and never send their\n"
    "  connection frame; prints its answered/sent, p50, p99, max.\n"
    "The host: `PATH serve --node echo --quiet`, PATH from --tool or else this build\n"
    "tree's tools/apartment/apartment; both sides take the hard RLIMIT_NOFILE as soft\n"
    "limit. Or --remote URL --pid PID: a host started elsewhere, one for all N (figures\n"
    "mix), read through /proc/PID, never stopped. Progress goes to stderr.\n"
    "--tls DIR (a directory made by scripts/make-test-certs.sh): every link runs mutual\n"
    "  TLS 1.3. The host started here gets APARTMENT_TLS_CERT, _KEY and _CA (DIR/b.pem,\n"
    "  b.key, ca.pem); this side presents DIR/a.pem and keeps 16 handshakes under way\n"
    "  (the next link connects as one ends), as 16 clients that each answer at once\n"
    "  would; the storm's time includes the handshakes. The connections of --silent\n"
    "  send nothing at all, not even a TLS hello.\n"
    "Exit code 0 when it ran, 2 on usage errors, 1 when the host did not start.\n";

const int RTT_SAMPLE_LIMIT_MS = 20000, STORM_LIMIT_MS = 60000, RTT_BUDGET_MS = 60000,
          TOP_UP_LIMIT_MS = 60000, TOP_UP_WINDOW = 16;
const size_t SMALL = 64;                     // bytes of a round trip's request
const size_t HEADER = 8, KEPT = 1024;        // of a frame read: enough for a response's fields
const uint32_t CONNECTION = 0, REQUEST = 1, RESPONSE = 2;  // frame types
volatile pid_t g_hostPid = -1;               // ours, killed on SIGINT/SIGTERM

double nowMs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return double(ts.tv_sec) * 1e3 + double(ts.tv_nsec) / 1e6;
}

void putU32(std::string& s, size_t v) {
    for (int shift = 24; shift >= 0; shift -= 8) s += char(v >> shift);
}
uint32_t getU32(const char* p) {
    const unsigned char* u = reinterpret_cast<const unsigned char*>(p);
    return uint32_t(u[0]) << 24 | uint32_t(u[1]) << 16 | uint32_t(u[2]) << 8 | u[3];
}

std::string frame(uint32_t type, const std::string& payload, size_t moreBytes = 0) {
    std::string f;
    putU32(f, type);
    putU32(f, payload.size() + moreBytes);
    return f + payload;
}
std::string connectionFrame(const std::string& url) {
    std::string block(130, '\0');  // byte 0: not real-time; the URL from 1; byte 129 zero
    return frame(CONNECTION, block.replace(1, std::min<size_t>(url.size(), 128), url, 0, 128));
}
// Header and fields of a request from node "bench" at `from` to node "echo"
// at `to`, requiring a response; its `dataSize` bytes follow as they are.
std::string requestHead(const std::string& from, const std::string& to, uint32_t id,
                        size_t dataSize) {
    std::string fields;
    for (const std::string& s : {from, std::string("bench"), to, std::string("echo")})
        putU32(fields, s.size()), fields += s;
    putU32(fields, id);
    return frame(REQUEST, fields + '\1', dataSize);
}
// A response's id, code and data size from the `kept` first bytes of its
// payload of `size` bytes; false when they do not hold them.
bool parseResponse(const char* p, size_t kept, size_t size, uint32_t& id, int32_t& code,
                   uint32_t& dataSize) {
    size_t at = 0;
    for (int i = 0; i < 4 && at + 4 <= kept; ++i) at += 4 + size_t(getU32(p + at));
    if (at + 8 > kept || at + 8 > size) return false;
    id = getU32(p + at), code = int32_t(getU32(p + at + 4)), dataSize = uint32_t(size - at - 8);
    return true;
}

// This end of one link. 10,000 of them sit idle at once: kept small.
struct Link {
    // Only with TLS: WAITING for room among the handshakes under way (no
    // socket yet), HANDSHAKING once connected until the session is done.
    enum State { WAITING, CONNECTING, HANDSHAKING, OPEN, CLOSED } state = CONNECTING;
    int fd = -1;
    bool answered = false;  // its storm request was
    std::unique_ptr<CTlsSession> tls;  // a secured link's, from its socket to its close
    std::string url;
    // Left to write: `out`, then `body` (shared, not owned); `sent` bytes of both went.
    std::string out;
    const char* body = nullptr;
    size_t bodySize = 0, sent = 0;
    // The frame being read: `got` bytes so far, the first KEPT of them in `head`.
    std::string head;
    size_t got = 0, size = 0;
};

// The only calls that move a link's bytes: a secured link wraps these two
// (and a handshake once connected) and nothing else changes. Both answer as
// sendmsg and recv do: EAGAIN when the socket is not ready, and the session
// asks again after a short write with the same bytes from where it stopped,
// as flush does anyway.
ssize_t ioWrite(Link& l, iovec* parts, int count) {
    if (l.tls) return l.tls->writev(parts, count);
    msghdr m{};
    m.msg_iov = parts, m.msg_iovlen = size_t(count);
    return sendmsg(l.fd, &m, MSG_NOSIGNAL);
}
ssize_t ioRead(Link& l, char* buffer, size_t size) {
    return l.tls ? l.tls->read(buffer, size) : recv(l.fd, buffer, size, 0);
}

// Links towards one host, served by pump() on the one thread that uses it.
class Net {
public:
    // `tls`: null for links in the clear.
    Net(const in_addr& ip, uint16_t port, size_t capacity, std::shared_ptr<CTlsContext> tls)
        : m_tls(std::move(tls)), m_epoll(epoll_create1(EPOLL_CLOEXEC)) {
        m_address.sin_family = AF_INET, m_address.sin_addr = ip, m_address.sin_port = htons(port);
        links.reserve(capacity);  // epoll knows a link by its index
    }
    ~Net() {
        for (Link& l : links) {
            l.tls.reset();  // before its socket
            if (l.fd >= 0) close(l.fd);
        }
        close(m_epoll);
    }
    std::vector<Link> links;  // never beyond the capacity given
    // Called for each response frame (code INT32_MIN when unreadable).
    std::function<void(Link&, uint32_t id, int32_t code, uint32_t dataSize)> onResponse;
    // Links connected, connecting now, closed by the host, never accepted,
    // and closed either way before their storm request was answered.
    int connected = 0, connecting = 0, closed = 0, refused = 0, lost = 0;
    // With TLS: handshakes done on this side, sessions that failed (in the
    // handshake, or the host refusing this side's certificate after it) and
    // the first reason, and whether the kernel took the record layer.
    int handshakes = 0, tlsFailed = 0;
    std::string tlsFailure;
    bool kernelTls = false;

    // Starts a non-blocking connect, as a new link or in place of the closed
    // link `slot`, secured when this Net has TLS unless `plain`; false (errno
    // set) without a socket or room. A secured link beyond TLS_WINDOW
    // handshakes under way waits (bytes sent to it queue) and connects when
    // pump() finds room.
    bool open(std::string url, size_t slot = SIZE_MAX, bool plain = false) {  // a copy: it may be the slot's
        if (slot == SIZE_MAX && links.size() == links.capacity()) return errno = ENOBUFS, false;
        const bool secured = m_tls && !plain, wait = secured && m_tlsUnderWay >= TLS_WINDOW;
        const int fd = wait ? -1 : socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (!wait && fd < 0) return false;
        if (slot == SIZE_MAX) slot = links.size(), links.emplace_back();
        Link& l = links[slot] = Link();
        l.url = std::move(url);
        if (wait) {
            l.state = Link::WAITING;
            m_waiting.push_back(slot);
        } else {
            start(slot, fd, secured);
        }
        return true;
    }
    // Queues `bytes` then `body` (which must outlive the write), and writes
    // what the socket takes now when connected.
    void send(Link& l, const std::string& bytes, const char* body = nullptr, size_t bodySize = 0) {
        if (l.sent == l.out.size() + l.bodySize) {
            l.out = bytes, l.body = body, l.bodySize = bodySize, l.sent = 0;
        } else {  // behind what is left, in order: a shared body gets copied
            if (l.bodySize) l.out.append(l.body, l.bodySize), l.body = nullptr, l.bodySize = 0;
            l.out.append(bytes).append(body ? body : "", bodySize);
        }
        if (l.state == Link::OPEN) flush(l);
    }
    // One wait of at most timeoutMs, then every ready link served.
    void pump(double timeoutMs) {
        epoll_event events[256];
        const int ready = epoll_wait(m_epoll, events, 256, std::max(int(timeoutMs), 0));
        for (int i = 0; i < ready; ++i) {
            Link& l = links[events[i].data.u64];
            if (l.state == Link::CONNECTING) {
                int error = 0;
                socklen_t length = sizeof error;
                getsockopt(l.fd, SOL_SOCKET, SO_ERROR, &error, &length);
                if (error != 0) shut(l);
                if (error != 0 || !(events[i].events & EPOLLOUT)) continue;
                l.state = l.tls ? Link::HANDSHAKING : Link::OPEN;
                ++connected, --connecting;
            }
            if (l.state == Link::HANDSHAKING) {
                // Done: what waited goes, and whatever came behind the
                // handshake is read (edge-triggered: no second notice).
                if (handshake(l)) flush(l);
                if (l.state == Link::OPEN) readAll(l);
                continue;
            }
            if (l.state == Link::OPEN && (events[i].events & EPOLLOUT)) flush(l);
            if (l.state == Link::OPEN && (events[i].events & ~EPOLLOUT)) readAll(l);
        }
        admit();
    }

    // Closes this end: for the host's close, or when this side gives up on the
    // link (counted alike).
    void shut(Link& l) {
        if (l.tls && (l.state == Link::CONNECTING || l.state == Link::HANDSHAKING)) --m_tlsUnderWay;
        if (l.tls) {
            const std::string reason = l.tls->failureReason();
            if (!reason.empty() && tlsFailed++ == 0) tlsFailure = reason;
            l.tls.reset();
        }
        if (l.fd >= 0) close(l.fd);
        l.fd = -1;
        if (l.state == Link::CONNECTING) --connecting, ++refused;
        else ++closed;
        l.state = Link::CLOSED;
        lost += !l.answered;
    }

private:
    // One thread answers every handshake here, one after another, and the
    // host gives up on a peer that pauses for CONNECTION_INFO_TIMEOUT_MS
    // (100 ms) mid-handshake: with all N under way at once the last ones
    // would wait that long behind the others, where N separate clients
    // would each answer at once. This many keep both processes busy.
    static constexpr int TLS_WINDOW = 16;

    sockaddr_in m_address{};
    std::shared_ptr<CTlsContext> m_tls;
    int m_epoll;
    int m_tlsUnderWay = 0;        // secured links connecting or handshaking
    std::deque<size_t> m_waiting;  // slots of WAITING links, oldest first (may hold stale ones)

    // Connects link `slot` on socket `fd` (state CONNECTING from here).
    void start(size_t slot, int fd, bool secured) {
        Link& l = links[slot];
        l.fd = fd, l.state = Link::CONNECTING;
        // As the library's own links: else the request waits behind the
        // unacknowledged TLS Finished for the host's delayed ACK.
        const int one = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        if (secured) l.tls.reset(new CTlsSession(m_tls, fd, CTlsSession::CLIENT)), ++m_tlsUnderWay;
        // Edge-triggered: each direction is drained or filled until it would block.
        epoll_event e{EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET, {}};
        e.data.u64 = slot;
        epoll_ctl(m_epoll, EPOLL_CTL_ADD, fd, &e);
        ++connecting;
        if (connect(fd, reinterpret_cast<sockaddr*>(&m_address), sizeof m_address) != 0 &&
            errno != EINPROGRESS)
            shut(l);
    }
    // Connects waiting links while there is room; one without a socket is
    // counted as never accepted.
    void admit() {
        while (!m_waiting.empty() && m_tlsUnderWay < TLS_WINDOW) {
            const size_t slot = m_waiting.front();
            m_waiting.pop_front();
            Link& l = links[slot];
            if (l.state != Link::WAITING) continue;  // shut, or opened again, meanwhile
            const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
            if (fd >= 0) {
                start(slot, fd, true);
                continue;
            }
            l.state = Link::CLOSED, ++refused, lost += !l.answered;
        }
    }

    // Advances a handshake as far as the socket allows; true when it was
    // done now (the link is OPEN). Edge-triggered: a step that wants more
    // has met EAGAIN, so the socket's next readiness calls it again.
    bool handshake(Link& l) {
        switch (l.tls->handshakeStep()) {
        case CTlsSession::DONE:
            l.state = Link::OPEN, --m_tlsUnderWay;
            kernelTls = l.tls->kernelOffload();
            ++handshakes;
            return true;
        case CTlsSession::FAILED: shut(l); return false;
        default: return false;
        }
    }

    void flush(Link& l) {
        while (l.sent < l.out.size() + l.bodySize) {
            iovec parts[2];
            int count = 0;
            if (l.sent < l.out.size()) parts[count++] = {&l.out[l.sent], l.out.size() - l.sent};
            const size_t at = l.sent > l.out.size() ? l.sent - l.out.size() : 0;
            if (at < l.bodySize) parts[count++] = {const_cast<char*>(l.body) + at, l.bodySize - at};
            const ssize_t wrote = ioWrite(l, parts, count);
            if (wrote < 0 && errno == EINTR) continue;
            if (wrote < 0 && errno == EAGAIN) return;
            if (wrote <= 0) return shut(l);
            l.sent += size_t(wrote);
        }
    }
    void readAll(Link& l) {
        static char buffer[65536];
        for (;;) {
            const ssize_t got = ioRead(l, buffer, sizeof buffer);
            if (got > 0) feed(l, buffer, size_t(got));
            if (got > 0 || (got < 0 && errno == EINTR)) continue;
            if (got == 0 || errno != EAGAIN) shut(l);
            return;
        }
    }
    void feed(Link& l, const char* p, size_t n) {
        for (;;) {
            const size_t want = l.got < HEADER ? HEADER - l.got : HEADER + l.size - l.got;
            const size_t take = std::min(want, n);
            if (l.head.size() < KEPT) l.head.append(p, std::min(take, KEPT - l.head.size()));
            l.got += take, p += take, n -= take;
            if (take < want) return;
            if (l.got == HEADER && (l.size = getU32(&l.head[4])) > 0) continue;
            uint32_t id = 0, dataSize = 0;
            int32_t code = INT32_MIN;
            if (getU32(&l.head[0]) == RESPONSE && onResponse) {
                const size_t kept = l.head.size() - HEADER;
                if (!parseResponse(&l.head[HEADER], kept, l.size, id, code, dataSize))
                    code = INT32_MIN;
                onResponse(l, id, code, dataSize);
            }
            l.head.clear(), l.got = 0, l.size = 0;
        }
    }
};

struct Host {
    pid_t pid = -1;   // whose /proc figures are read
    int output = -1;  // its stdout when started here (so stopped and reaped here);
                      // left unread, as --quiet writes nothing more
    std::string url;
    in_addr ip{};
    uint16_t port = 0;
};

bool parseUrl(const std::string& url, Host& h) {
    const size_t colon = url.rfind(':');
    if (url.compare(0, 6, "tcp://") != 0 || colon == std::string::npos || colon < 6) return false;
    const long port = strtol(url.c_str() + colon + 1, nullptr, 10);
    h.url = url, h.port = uint16_t(port);
    const std::string ip = url.substr(6, colon - 6);
    return port > 0 && port < 65536 && inet_pton(AF_INET, ip.c_str(), &h.ip) == 1;
}

void raiseFileLimit() {
    rlimit r;
    if (getrlimit(RLIMIT_NOFILE, &r) == 0) r.rlim_cur = r.rlim_max, setrlimit(RLIMIT_NOFILE, &r);
}

void stopHost(Host& h) {
    if (h.output < 0) return;
    kill(h.pid, SIGTERM);
    bool reaped = false;
    for (int i = 0; i < 500 && !reaped; ++i)  // 5 s for a clean stop
        if (!(reaped = waitpid(h.pid, nullptr, WNOHANG) == h.pid)) usleep(10000);
    if (!reaped) {
        fprintf(stderr, "the host did not stop in 5 s: killed\n");
        kill(h.pid, SIGKILL), waitpid(h.pid, nullptr, 0);
    }
    g_hostPid = h.pid = -1;
    close(h.output);
}

// Starts the host, with TLS from the certificates in `tlsDir` unless it is
// empty, and reads its URL (10 s at most); false, with nothing left
// running, when it did not come up.
bool startHost(const std::string& tool, const std::string& tlsDir, Host& h) {
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) return false;
    const pid_t pid = fork();
    if (pid == 0) {
        raiseFileLimit();  // inherited already; said again where it matters
        if (!tlsDir.empty()) {  // this process has one thread: setenv is safe here
            setenv("APARTMENT_TLS_CERT", (tlsDir + "/b.pem").c_str(), 1);
            setenv("APARTMENT_TLS_KEY", (tlsDir + "/b.key").c_str(), 1);
            setenv("APARTMENT_TLS_CA", (tlsDir + "/ca.pem").c_str(), 1);
        }
        dup2(out[1], 1);
        const int none = open("/dev/null", O_RDONLY);
        if (none >= 0) dup2(none, 0);
        execl(tool.c_str(), tool.c_str(), "serve", "--node", "echo", "--quiet", (char*)nullptr);
        _exit(127);
    }
    close(out[1]);
    if (pid < 0) return close(out[0]), false;
    h.pid = g_hostPid = pid, h.output = out[0];
    std::string line;
    char c = 0;
    for (const double end = nowMs() + 10000; c != '\n' && nowMs() < end; line += c) {
        pollfd p = {out[0], POLLIN, 0};
        if (poll(&p, 1, int(end - nowMs()) + 1) <= 0 || read(out[0], &c, 1) != 1) break;
    }
    if (c == '\n' && line.compare(0, 14, "listening on t") == 0 &&
        parseUrl(line.substr(13, line.size() - 14), h))
        return true;
    fprintf(stderr, "the host (%s) did not start: \"%s\"\n", tool.c_str(), line.c_str());
    stopHost(h);
    return false;
}

std::string procText(pid_t pid, const char* file) {
    std::string text(4096, '\0');
    const int fd = open(("/proc/" + std::to_string(pid) + "/" + file).c_str(), O_RDONLY);
    text.resize(fd < 0 ? 0 : size_t(std::max<ssize_t>(read(fd, &text[0], text.size()), 0)));
    if (fd >= 0) close(fd);
    return text;
}
// VmRSS in KiB, -1 when unreadable.
long rssKb(pid_t pid) {
    const std::string text = procText(pid, "status");
    const size_t at = text.find("VmRSS:");
    return at == std::string::npos ? -1 : atol(text.c_str() + at + 6);
}
// utime + stime of all the process's threads, in seconds.
double cpuSeconds(pid_t pid) {
    const std::string text = procText(pid, "stat");
    const size_t at = text.rfind(')');  // the command name may hold anything
    unsigned long utime = 0, stime = 0;
    if (at != std::string::npos)
        sscanf(&text[at + 2], "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &utime,
               &stime);
    return double(utime + stime) / double(sysconf(_SC_CLK_TCK));
}

// This process's user and system time, in seconds.
double ownCpuSeconds() {
    rusage u;
    getrusage(RUSAGE_SELF, &u);
    auto seconds = [](const timeval& t) { return double(t.tv_sec) + double(t.tv_usec) / 1e6; };
    return seconds(u.ru_utime) + seconds(u.ru_stime);
}

// This end's URL for link i: distinct for every i, never the host's own.
std::string linkUrl(size_t i) {
    char url[64];
    snprintf(url, sizeof url, "tcp://127.0.%zu.%zu:%zu", i / 20000 / 250, 1 + i / 20000 % 250,
             10000 + i % 20000);
    return url;
}

// The value at fraction q of sorted samples in us; ">value" from limitUs on.
std::string percentile(const std::vector<double>& sorted, double q, double limitUs = 1e300) {
    if (sorted.empty()) return "-";
    const double v = sorted[size_t(q * double(sorted.size() - 1) + 0.5)];
    char text[32];
    snprintf(text, sizeof text, v >= limitUs ? ">%.0f" : "%.0f", v);
    return text;
}

struct Options {
    std::vector<long> links{1, 64, 65, 1000, 10000};
    long size = 32768, samples = 2000, idleSeconds = 5, silent = 0, silentSeconds = 0, pid = 0;
    std::string tool, remote, tlsDir;
    std::shared_ptr<CTlsContext> tls;  // this side's, from tlsDir; null in the clear
};

void measureLinks(const Options& o, Host& h, size_t n) {
    usleep(300000);  // the host's start settles
    const long rssBefore = rssKb(h.pid);
    Net net(h.ip, h.port, n, o.tls);
    const std::string data(size_t(o.size), 'x');
    auto introduce = [&](Link& l) {
        net.send(l, connectionFrame(l.url) + requestHead(l.url, h.url, 1, data.size()),
                 data.data(), data.size());
    };
    size_t answered = 0, bad = 0;
    net.onResponse = [&](Link& l, uint32_t id, int32_t code, uint32_t dataSize) {
        if (l.answered || id != 1) return;
        l.answered = true;
        ++(code == 0 && dataSize == data.size() ? answered : bad);
    };
    const double hostCpuBefore = cpuSeconds(h.pid), ownCpuBefore = ownCpuSeconds();
    const double start = nowMs();
    for (size_t i = 0; i < n; ++i) {
        if (!net.open(linkUrl(i))) {
            fprintf(stderr, "links %zu: only %zu opened: %s\n", n, i, strerror(errno));
            break;
        }
        introduce(net.links.back());
    }
    auto settled = [&] { return answered + bad + size_t(net.lost) == net.links.size(); };
    for (double report = start + 5000; !settled() && nowMs() - start < STORM_LIMIT_MS;) {
        net.pump(100);
        if (nowMs() < report) continue;
        fprintf(stderr, "links %zu: storm %.0f s: %d connected, %zu answered, %d closed\n", n,
                (nowMs() - start) / 1e3, net.connected, answered, net.closed + net.refused);
        report += 5000;
    }
    char storm[32];
    snprintf(storm, sizeof storm, settled() ? "%.1f" : ">%.0f", nowMs() - start);
    const size_t stormAnswered = answered;
    // Whose CPU the storm took: with TLS both ends pay for the handshakes.
    fprintf(stderr, "links %zu: storm CPU %.2f s in the host, %.2f s on this side\n", n,
            cpuSeconds(h.pid) - hostCpuBefore, ownCpuSeconds() - ownCpuBefore);
    const int stormClosed = net.closed + net.refused;
    if (bad) fprintf(stderr, "links %zu: %zu answers with an error or the wrong size\n", n, bad);
    if (net.refused) fprintf(stderr, "links %zu: %d never accepted\n", n, net.refused);
    if (o.tls)
        fprintf(stderr, "links %zu: %d TLS handshakes done, record layer here: %s\n", n,
                net.handshakes, CTlsSession::recordLayerName(net.kernelTls));

    // Today's host loses links in a storm: it drops those whose connection
    // frame comes later than it waits, and its short listen queue leaves
    // others half-open. Links not answered are opened again, TOP_UP_WINDOW
    // connects at a time, for three rounds at most (each waiting 10 s for the
    // answers, 60 s in all), so that what follows is measured over as many of
    // the N links as the host keeps.
    const double topUpStart = nowMs();
    auto topping = [&] { return nowMs() - topUpStart < TOP_UP_LIMIT_MS; };
    auto linksWhere = [&](bool (*test)(const Link&)) {
        std::vector<size_t> found;
        for (size_t i = 0; i < net.links.size(); ++i)
            if (test(net.links[i])) found.push_back(i);
        return found;
    };
    auto notAnswered = [](const Link& l) { return !l.answered; };
    auto awaitingAnswer = [](const Link& l) { return !l.answered && l.state != Link::CLOSED; };
    auto standing = [](const Link& l) { return l.answered && l.state == Link::OPEN; };
    size_t reopened = 0;
    std::vector<size_t> again = linksWhere(notAnswered);
    for (int round = 0; round < 3 && !again.empty() && topping(); ++round) {
        for (size_t i : again)
            if (net.links[i].state != Link::CLOSED) net.shut(net.links[i]);
        for (size_t i : again) {
            while (net.connecting >= TOP_UP_WINDOW && topping()) net.pump(10);
            if (!topping()) break;
            if (net.open(net.links[i].url, i)) introduce(net.links[i]), ++reopened;
        }
        for (const double end = nowMs() + 10000; nowMs() < end && topping();) {
            net.pump(100);
            if (linksWhere(awaitingAnswer).empty()) break;
        }
        again = linksWhere(notAnswered);
    }
    const long held = long(linksWhere(standing).size());
    if (net.tlsFailed)
        fprintf(stderr, "links %zu: %d TLS sessions failed, the first: %s\n", n, net.tlsFailed,
                net.tlsFailure.c_str());
    if (reopened)
        fprintf(stderr, "links %zu: %zu opened again in %.0f s; %ld open and answered\n", n,
                reopened, (nowMs() - topUpStart) / 1e3, held);

    // Memory and CPU with the links idle, once what is in flight has drained.
    for (const double end = nowMs() + 500; nowMs() < end;) net.pump(50);
    const size_t answeredBeforeIdle = answered;
    const long rssAfter = rssKb(h.pid);
    fprintf(stderr, "links %zu: idle for %ld s\n", n, o.idleSeconds);
    const double cpuBefore = cpuSeconds(h.pid), idleStart = nowMs();
    while (nowMs() - idleStart < o.idleSeconds * 1e3) net.pump(100);
    const double cpu = (cpuSeconds(h.pid) - cpuBefore) * 1e5 / (nowMs() - idleStart);
    if (answered != answeredBeforeIdle)
        fprintf(stderr, "links %zu: %zu answers came late: RSS and CPU were not idle\n", n,
                answered - answeredBeforeIdle);

    // Round trips, one at a time, on links that were answered and still stand.
    std::vector<size_t> ready = linksWhere(standing);
    std::vector<double> rtt;
    uint32_t waiting = 0;
    net.onResponse = [&](Link&, uint32_t id, int32_t, uint32_t) {
        if (id == waiting) waiting = 0;
    };
    std::mt19937 pick(1);
    const std::string payload(SMALL, 'r');
    const double rttStart = nowMs(), limitUs = RTT_SAMPLE_LIMIT_MS * 1e3;
    int unanswered = 0;
    double report = rttStart + 10000;
    for (long k = 0; k < o.samples && !ready.empty() && nowMs() - rttStart < RTT_BUDGET_MS; ++k) {
        const size_t at = pick() % ready.size();
        Link& l = net.links[ready[at]];
        waiting = uint32_t(100 + k);
        const double sent = nowMs();
        net.send(l, requestHead(l.url, h.url, waiting, payload.size()) + payload);
        while (waiting != 0 && l.state == Link::OPEN && nowMs() - sent < RTT_SAMPLE_LIMIT_MS)
            net.pump(sent + RTT_SAMPLE_LIMIT_MS - nowMs() + 1);
        unanswered += waiting != 0;
        rtt.push_back(waiting != 0 ? limitUs : (nowMs() - sent) * 1e3);
        if (l.state != Link::OPEN) ready[at] = ready.back(), ready.pop_back();
        if (nowMs() >= report)
            report += 10000, fprintf(stderr, "links %zu: %zu round trips\n", n, rtt.size());
    }
    if (long(rtt.size()) < o.samples || unanswered)
        fprintf(stderr, "links %zu: %zu of %ld round trips in %.0f s, %d unanswered in %d s\n", n,
                rtt.size(), o.samples, (nowMs() - rttStart) / 1e3, unanswered,
                RTT_SAMPLE_LIMIT_MS / 1000);
    std::sort(rtt.begin(), rtt.end());
    printf("%6zu %10s %8zu %7d %11s %11s %12.1f %10.2f\n", n, storm, stormAnswered, stormClosed,
           percentile(rtt, 0.5, limitUs).c_str(), percentile(rtt, 0.99, limitUs).c_str(),
           held > 0 ? double(rssAfter - rssBefore) / double(held) : 0.0, cpu);
    fflush(stdout);
}

void measureSilent(const Options& o, Host& h) {
    Net net(h.ip, h.port, size_t(o.silent * o.silentSeconds + 2), o.tls);
    net.open("tcp://127.0.0.1:9999");
    Link& w = net.links[0];
    std::vector<double> sentAt, rtt;  // by request id
    net.onResponse = [&](Link& l, uint32_t id, int32_t, uint32_t) {
        if (&l == &w && id < sentAt.size() && sentAt[id] > 0)
            rtt.push_back((nowMs() - sentAt[id]) * 1e3), sentAt[id] = 0;
    };
    const std::string payload(SMALL, 's');
    auto request = [&] {
        net.send(w, requestHead(w.url, h.url, uint32_t(sentAt.size()), payload.size()) + payload);
        sentAt.push_back(nowMs());
    };
    net.send(w, connectionFrame(w.url));
    request();  // the working link is up and answered before the silent ones come
    for (const double end = nowMs() + 10000; rtt.empty() && nowMs() < end;) net.pump(100);
    if (rtt.empty()) return (void)fprintf(stderr, "silent: the working link was not answered\n");
    rtt.clear();
    const size_t first = sentAt.size();
    const double start = nowMs(), end = start + double(o.silentSeconds) * 1e3;
    double nextRequest = start, nextSilent = start;
    long opened = 0;
    while (nowMs() < end) {
        if (nowMs() >= nextRequest) request(), nextRequest += 10;
        if (nowMs() >= nextSilent)
            opened += net.open("", SIZE_MAX, true), nextSilent += 1e3 / double(o.silent);
        net.pump(std::min(std::min(nextRequest, nextSilent), end) - nowMs());
    }
    const size_t sent = sentAt.size() - first;
    // Late answers still count: the figure is how late, not how many by a cut-off.
    for (const double until = nowMs() + 10000; rtt.size() < sent && nowMs() < until;) net.pump(50);
    std::sort(rtt.begin(), rtt.end());
    printf("silent %ld/s for %ld s: %ld opened, %d closed by the host; working link answered "
           "%zu/%zu (10 s grace), p50 %s us, p99 %s us, max %s us\n",
           o.silent, o.silentSeconds, opened, net.closed, rtt.size(), sent,
           percentile(rtt, 0.5).c_str(), percentile(rtt, 0.99).c_str(), percentile(rtt, 1).c_str());
}

long number(const std::string& text, const std::string& option, long min) {
    char* end = nullptr;
    const long v = strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || v < min)
        throw option + " wants a number of at least " + std::to_string(min);
    return v;
}

Options parseOptions(int argc, char** argv) {
    Options o;
    const struct { const char* name; long* value; long min; } numbers[] = {
        {"--size", &o.size, 0},        {"--samples", &o.samples, 0},
        {"--idle-seconds", &o.idleSeconds, 1}, {"--silent", &o.silent, 1},
        {"--silent-seconds", &o.silentSeconds, 1}, {"--pid", &o.pid, 1}};
    for (int i = 1; i < argc; ++i) {
        const std::string name = argv[i];
        if (name == "--help") fputs(USAGE, stdout), exit(0);
        if (i + 1 >= argc) throw "unexpected " + name;
        const std::string v = argv[++i];
        bool known = name == "--tool" || name == "--remote" || name == "--links" || name == "--tls";
        for (const auto& n : numbers)
            if (name == n.name) *n.value = number(v, name, n.min), known = true;
        if (!known) throw "unknown option " + name;
        if (name == "--tool") o.tool = v;
        if (name == "--remote") o.remote = v;
        if (name == "--tls") o.tlsDir = v;
        if (name != "--links") continue;
        o.links.clear();
        for (size_t at = 0; at <= v.size(); at = std::min(v.find(',', at), v.size()) + 1)
            o.links.push_back(number(v.substr(at, v.find(',', at) - at), name, 1));
    }
    Host probe;
    if (o.remote.empty() != (o.pid == 0)) throw std::string("--remote and --pid go together");
    if (!o.remote.empty() && !o.tool.empty()) throw std::string("--tool or --remote, not both");
    if (!o.remote.empty() && !parseUrl(o.remote, probe)) throw "not tcp://IPv4:port: " + o.remote;
    if ((o.silent == 0) != (o.silentSeconds == 0))
        throw std::string("--silent and --silent-seconds go together");
    if (!o.tlsDir.empty()) {
        std::string error;
        const std::string& d = o.tlsDir;
        o.tls = CTlsContext::create({d + "/a.pem", d + "/a.key", d + "/ca.pem", ""}, error);
        if (!o.tls) throw "--tls " + d + ": " + error;
    }
    if (o.tool.empty() && o.remote.empty()) {
        char self[4096] = {};
        if (readlink("/proc/self/exe", self, sizeof self - 1) > 0) o.tool = self;
        for (int up = 0; up < 2; ++up)  // from <build>/bench/apartment_links to <build>
            o.tool.resize(o.tool.rfind('/') == std::string::npos ? 0 : o.tool.rfind('/'));
        o.tool += "/tools/apartment/apartment";
    }
    return o;
}

void onStopSignal(int signal) {
    if (g_hostPid > 0) kill(g_hostPid, SIGKILL), waitpid(g_hostPid, nullptr, 0);
    _exit(128 + signal);
}

// A host for one measurement: a fresh child, or the remote one.
bool acquireHost(const Options& o, Host& h) {
    h.pid = pid_t(o.pid);
    return o.remote.empty() ? startHost(o.tool, o.tlsDir, h) : parseUrl(o.remote, h);
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    try {
        o = parseOptions(argc, argv);
    } catch (const std::string& error) {
        fprintf(stderr, "apartment_links: %s\n\n%s", error.c_str(), USAGE);
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    signal(SIGINT, onStopSignal);
    signal(SIGTERM, onStopSignal);
    raiseFileLimit();
    printf("%6s %10s %8s %7s %11s %11s %12s %10s\n", "links", "storm ms", "answered", "closed",
           "rtt p50 us", "rtt p99 us", "RSS KiB/link", "idle CPU %");
    fflush(stdout);
    for (const long n : o.links) {
        Host h;
        if (!acquireHost(o, h)) return 1;
        measureLinks(o, h, size_t(n));
        stopHost(h);
    }
    Host h;
    if (o.silent > 0 && !acquireHost(o, h)) return 1;
    if (o.silent > 0) measureSilent(o, h), stopHost(h);
    return 0;
}
