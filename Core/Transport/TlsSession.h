// CTlsSession: TLS over one link's connected, non-blocking TCP socket.
//
// Owned by the link's sink, which keeps the socket: the session never
// closes it, and the socket must outlive the session. Nothing here waits:
// every call returns at once, and the caller waits for the socket's
// readiness (poll or epoll) and calls again, within its own time bound.
//
// Threads: the handshake runs on one thread before the session is shared.
// Then one communication thread reads while writer threads write, at most
// one writer at a time (the sink's send logic serialises them); an internal
// mutex is taken around each OpenSSL call and never while anything waits.
//
// Record layer: OpenSSL's in user space, or the kernel's (kTLS) when the
// kernel took both directions after the handshake; read and writev then go
// straight to the socket. See kernelOffload().
#ifndef APARTMENT_TLSSESSION_H
#define APARTMENT_TLSSESSION_H

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>

#include "GroundKit/OS/OS_Mutex.h"
#include "TlsContext.h"
#include "os_socket.h"

// The user-space socket layer's state: its descriptor, what the last
// recv(2) found, and an outbox for records on their way to the socket,
// queued while one write makes several of them so that a large frame costs
// a send(2) per four records rather than per record. Used only under the
// session's mutex, since OpenSSL calls that layer from inside SSL_read and
// SSL_write_ex alike.
struct CTlsWire {
    static constexpr size_t SIZE = 4 * 16640;  // four records, each with its header and tag
    int fd = -1;
    bool drained = false;  // the last recv took less than it asked for: the socket had no more
    bool gather = false;   // set around a write of several records: queue rather than send
    std::unique_ptr<char[]> bytes;  // the outbox, made by the first gathered write, then kept
    size_t begin = 0, end = 0;      // what is queued and not sent yet

    // Sends what is queued, without waiting. True once nothing is left;
    // false with errno (EAGAIN: wait for writable) while some is.
    bool flush();
};

class CTlsSession {
public:
    enum ROLE { CLIENT, SERVER };
    enum HANDSHAKE {
        DONE,        // authenticated both ways (as far as this side can tell: see below)
        WANT_READ,   // call again once the socket is readable
        WANT_WRITE,  // call again once the socket is writable
        FAILED       // see failureReason(); the link is unusable
    };
    // One TLS record's worth of plaintext: writev copies parts smaller than
    // this into one record and hands larger parts to OpenSSL in place.
    static constexpr size_t RECORD_SIZE = 16384;

    // `fd`: connected, non-blocking, kept open by the caller until the
    // session is destroyed. The first handshakeStep starts the handshake.
    CTlsSession(std::shared_ptr<CTlsContext> context, int fd, ROLE role);
    ~CTlsSession();
    CTlsSession(const CTlsSession&) = delete;
    CTlsSession& operator=(const CTlsSession&) = delete;

    // Advances the handshake as far as the socket allows. DONE again once
    // done, FAILED again once failed. In TLS 1.3 the client is done before
    // the server has checked the client's certificate: a server refusing it
    // shows on the client as a failed read (its reason in failureReason()).
    HANDSHAKE handshakeStep();
    // One line on why the handshake or the link failed, for a diagnostic:
    // "peer presented no certificate", "certificate verify failed:
    // certificate has expired", "peer does not speak TLS", ... Empty while
    // nothing failed.
    std::string failureReason() const;
    // The peer certificate's subject ("/CN=..."), once DONE.
    std::string peerSubject() const;

    // The communication thread. Bytes read (> 0); 0 when the peer closed
    // (close_notify, or the connection's end); -1 with errno EAGAIN when
    // nothing is there yet (wait for readable), or another errno (EIO,
    // ECONNRESET, ...) when the link failed. EAGAIN comes without a look at
    // the socket after a read that emptied it and the session: bytes that
    // came since then show as readable, so the wait must be on a level,
    // not an edge.
    int read(void* buffer, size_t size);
    // The communication thread. True when bytes wait inside the session
    // (decrypted, or records read ahead from the socket): call read again
    // before waiting on the socket, whose readiness no longer shows them.
    // False after a read that answered EAGAIN, until a read brings bytes.
    bool hasPending();
    // The communication thread. Whether the last read emptied both the
    // socket and the session, so that the next would answer EAGAIN; a true
    // counts as that read, which the caller then need not make.
    bool takeDrained();

    // One writer at a time. Writes the parts in order, as much as the
    // socket takes now: the count of bytes consumed (> 0), or -1 with errno
    // EAGAIN when nothing was (wait for writable), or another errno when the
    // link failed. After a short count or EAGAIN the next call must pass the
    // same parts from where this one stopped (more may follow them), as a
    // retried gathered write does: OpenSSL may hold the next bytes
    // encrypted already and expects them again. Memory per link: one record
    // of staging once a write has small parts, and an outbox of four
    // records once a write spans more than one, beside OpenSSL's buffers.
    long writev(const iovec* parts, int count);

    // Sends close_notify if the socket takes it now; never waits. Reads and
    // writes after it fail.
    void shutdown();

    // True when the kernel encrypts and decrypts (kTLS both ways); fixed
    // once the handshake is DONE.
    bool kernelOffload() const { return m_bKernel.load(std::memory_order_relaxed); }
    // "kTLS" or "OpenSSL user-space", for a report line.
    static const char* recordLayerName(bool kernel) {
        return kernel ? "kTLS" : "OpenSSL user-space";
    }

private:
    struct Outcome {
        int result;    // what the OpenSSL call returned
        int sslError;   // SSL_get_error for it (SSL_ERROR_NONE on success)
        int sslReason;  // the first SSL-library reason code queued, or 0
        int sysErrno;   // errno right after it
    };
    // Runs one OpenSSL call on m_pSsl under m_Mutex, with a clear error
    // queue; a failure other than a retry leaves its reason in m_failure
    // (the first one only: later ones follow from it).
    template <class Call>
    Outcome call(Call&& run);
    // The line for a failed call, from the verify result, the reason and
    // this thread's error queue. Under m_Mutex.
    std::string describe(const Outcome& outcome);

    std::shared_ptr<CTlsContext> m_context;
    ssl_st* m_pSsl = nullptr;
    const int m_fd;
    mutable OS::TBaseMutex m_Mutex;  // guards m_pSsl's state, m_failure, m_peerSubject
    std::string m_failure;
    std::string m_peerSubject;
    std::atomic<bool> m_bKernel{false};
    // Written by the communication thread: the last read found nothing.
    // Atomic because a link being filed asks hasPending from the thread
    // that files it while the communication thread may already read.
    std::atomic<bool> m_bReadStalled{false};
    // The communication thread's: the last read emptied both the socket and
    // OpenSSL's buffer, so the next would find nothing.
    bool m_bDrained = false;
    std::unique_ptr<char[]> m_staging;  // the writer's (one at a time): small parts gathered
    CTlsWire m_wire;                    // under m_Mutex; the user-space socket layer's only
    // The writer's: bytes OpenSSL took whose records still wait in the
    // outbox, reported to the caller once they have left.
    size_t m_heldPlain = 0;
};

#endif
