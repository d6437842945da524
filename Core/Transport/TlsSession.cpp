// CTlsSession over OpenSSL (the build without it compiles TlsUnavailable.cpp).
#include "TlsSession.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>

namespace {

// Blocks SIGPIPE in this thread around an OpenSSL call that may write
// through OpenSSL's own socket layer, which sessions use only when the
// kernel may take the record layer (it writes with write(2)). A SIGPIPE
// raised meanwhile is taken before the old mask returns, so that it never
// reaches the host; errno survives.
class CSigpipeBlock {
public:
    explicit CSigpipeBlock(bool active) : m_bActive(active) {
        if (!m_bActive) return;
        sigemptyset(&m_pipe);
        sigaddset(&m_pipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &m_pipe, &m_old);
        sigset_t pending;
        m_bWasPending = sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
    }
    ~CSigpipeBlock() {
        if (!m_bActive) return;
        const int saved = errno;
        sigset_t pending;
        if (!m_bWasPending && sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1) {
            const timespec now = {0, 0};
            sigtimedwait(&m_pipe, nullptr, &now);
        }
        pthread_sigmask(SIG_SETMASK, &m_old, nullptr);
        errno = saved;
    }
    CSigpipeBlock(const CSigpipeBlock&) = delete;
    CSigpipeBlock& operator=(const CSigpipeBlock&) = delete;

private:
    const bool m_bActive;
    bool m_bWasPending = false;
    sigset_t m_pipe, m_old;
};

// The socket layer of sessions that keep the record layer in user space.
// OpenSSL's own writes with write(2), which raises SIGPIPE on a connection
// the peer reset; the library promises hosts that it never does, so these
// go through the platform's send and recv (MSG_NOSIGNAL). Its data is the
// session's CTlsWire.

// One send or recv of at most 1 GiB on the descriptor, again while a
// signal interrupts it; its result.
template <class Io>
int socketCall(int fd, size_t size, Io io) {
    const int chunk = size > (1u << 30) ? (1 << 30) : static_cast<int>(size);
    int n;
    do n = io(fd, chunk);
    while (n < 0 && errno == EINTR);
    return n;
}

CTlsWire& wireOf(BIO* pBio) { return *static_cast<CTlsWire*>(BIO_get_data(pBio)); }

int socketWrite(BIO* pBio, const char* data, size_t size, size_t* written) {
    BIO_clear_retry_flags(pBio);
    CTlsWire& wire = wireOf(pBio);
    if (wire.gather && (wire.end != 0 || size <= CTlsWire::SIZE)) {
        // Full: OpenSSL keeps the record and offers it again once the
        // writer has flushed.
        if (size > CTlsWire::SIZE - wire.end) {
            BIO_set_retry_write(pBio);
            return 0;
        }
        std::memcpy(wire.bytes.get() + wire.end, data, size);
        wire.end += size;
        *written = size;
        return 1;
    }
    // Records queued by a gathered write are ahead of this one on the stream.
    if (!wire.flush()) {
        if (errno == EAGAIN || errno == EWOULDBLOCK) BIO_set_retry_write(pBio);
        return 0;
    }
    const int n = socketCall(wire.fd, size, [data](int fd, int chunk) {
        return os_socket_send(fd, data, chunk, 0, USE_DEFAULT);
    });
    if (n >= 0) {
        *written = static_cast<size_t>(n);
        return 1;
    }
    if (errno == EAGAIN || errno == EWOULDBLOCK) BIO_set_retry_write(pBio);
    return 0;
}

int socketRead(BIO* pBio, char* data, size_t size, size_t* got) {
    BIO_clear_retry_flags(pBio);
    CTlsWire& wire = wireOf(pBio);
    const int n = socketCall(wire.fd, size, [data](int fd, int chunk) {
        return os_socket_recv(fd, data, chunk, 0, USE_DEFAULT);
    });
    wire.drained = n < 0 || static_cast<size_t>(n) < size;
    if (n > 0) {
        *got = static_cast<size_t>(n);
        return 1;
    }
    if (n == 0) BIO_set_flags(pBio, BIO_FLAGS_IN_EOF);  // OpenSSL asks BIO_eof to tell EOF from errors
    else if (errno == EAGAIN || errno == EWOULDBLOCK) BIO_set_retry_read(pBio);
    return 0;
}

long socketControl(BIO* pBio, int command, long, void*) {
    switch (command) {
    case BIO_CTRL_FLUSH:
        BIO_clear_retry_flags(pBio);
        if (wireOf(pBio).flush()) return 1;
        if (errno == EAGAIN || errno == EWOULDBLOCK) BIO_set_retry_write(pBio);
        return 0;
    case BIO_CTRL_EOF: return BIO_test_flags(pBio, BIO_FLAGS_IN_EOF) != 0;
    default: return 0;
    }
}

// Made once per process and kept to its end, as OpenSSL keeps its own.
const BIO_METHOD* socketMethod() {
    static BIO_METHOD* const s_pMethod = [] {
        BIO_METHOD* pMethod = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "apartment socket");
        if (pMethod != nullptr) {
            BIO_meth_set_write_ex(pMethod, socketWrite);
            BIO_meth_set_read_ex(pMethod, socketRead);
            BIO_meth_set_ctrl(pMethod, socketControl);
        }
        return pMethod;
    }();
    return s_pMethod;
}

bool isRetry(int sslError) {
    return sslError == SSL_ERROR_WANT_READ || sslError == SSL_ERROR_WANT_WRITE;
}

}  // namespace

bool CTlsWire::flush() {
    while (begin != end) {
        const int n = socketCall(fd, end - begin, [this](int socket, int chunk) {
            return os_socket_send(socket, bytes.get() + begin, chunk, 0, USE_DEFAULT);
        });
        if (n <= 0) {
            if (n == 0) errno = EAGAIN;
            return false;
        }
        begin += static_cast<size_t>(n);
    }
    begin = end = 0;
    return true;
}

CTlsSession::CTlsSession(std::shared_ptr<CTlsContext> context, int fd, ROLE role)
    : m_context(std::move(context)), m_fd(fd), m_Mutex(MUTEX_NONE, USE_STD, nullptr) {
    m_pSsl = SSL_new(m_context->native());
    bool ready = m_pSsl != nullptr;
    if (ready && m_context->kernelTlsPossible()) {
        ready = SSL_set_fd(m_pSsl, fd) == 1;  // OpenSSL's socket layer, the one it offloads
    } else if (ready) {
        BIO* pBio = socketMethod() != nullptr ? BIO_new(socketMethod()) : nullptr;
        ready = pBio != nullptr;
        if (ready) {
            m_wire.fd = fd;
            BIO_set_data(pBio, &m_wire);
            BIO_set_init(pBio, 1);
            SSL_set_bio(m_pSsl, pBio, pBio);  // one reference serves both directions
        }
    }
    if (!ready) {
        SSL_free(m_pSsl);
        m_pSsl = nullptr;
        m_failure = "cannot set up a TLS session: out of memory";
        return;
    }
    if (role == SERVER) SSL_set_accept_state(m_pSsl);
    else SSL_set_connect_state(m_pSsl);
}

CTlsSession::~CTlsSession() { SSL_free(m_pSsl); }

template <class Call>
CTlsSession::Outcome CTlsSession::call(Call&& run) {
    TAutoMutex<OS::TBaseMutex> lock(&m_Mutex);
    // Whatever else this thread did with OpenSSL may have left errors that
    // SSL_get_error would take for this call's. Peeking is cheaper than
    // clearing, and the queue is nearly always empty: every call here
    // leaves it so.
    if (ERR_peek_error() != 0) ERR_clear_error();
    Outcome outcome{};
    {
        CSigpipeBlock block(m_context->kernelTlsPossible());
        errno = 0;
        outcome.result = run(m_pSsl);
        outcome.sysErrno = errno;
    }
    if (outcome.result > 0) return outcome;
    outcome.sslError = SSL_get_error(m_pSsl, outcome.result);
    // A retry is reported only while the queue is empty: nothing to read
    // or clear, and this is the path of every read that finds no record.
    if (isRetry(outcome.sslError)) return outcome;
    const unsigned long first = ERR_peek_error();
    if (ERR_GET_LIB(first) == ERR_LIB_SSL) outcome.sslReason = ERR_GET_REASON(first);
    if (m_failure.empty()) m_failure = describe(outcome);
    ERR_clear_error();
    return outcome;
}

std::string CTlsSession::describe(const Outcome& outcome) {
    const long verified = SSL_get_verify_result(m_pSsl);
    const int reason = outcome.sslReason;
    if (verified != X509_V_OK)
        return std::string("certificate verify failed: ") + X509_verify_cert_error_string(verified);
    if (reason == SSL_R_PEER_DID_NOT_RETURN_A_CERTIFICATE) return "peer presented no certificate";
    // What a first record that is no TLS record yields (a frame header, an
    // HTTP request, garbage).
    if (reason == SSL_R_WRONG_VERSION_NUMBER || reason == SSL_R_HTTP_REQUEST ||
        reason == SSL_R_HTTPS_PROXY_REQUEST || reason == SSL_R_PACKET_LENGTH_TOO_LONG)
        return "peer does not speak TLS";
    if (reason == SSL_R_UNEXPECTED_EOF_WHILE_READING || outcome.sslError == SSL_ERROR_ZERO_RETURN ||
        (outcome.sslError == SSL_ERROR_SYSCALL && outcome.sysErrno == 0))
        return "peer closed the connection";
    if (outcome.sslError == SSL_ERROR_SYSCALL) return std::strerror(outcome.sysErrno);
    const char* text = ERR_reason_error_string(ERR_peek_error());
    if (text == nullptr) return "TLS failure";
    // The peer's alert ("tlsv13 alert certificate required", ...).
    if (reason > SSL_AD_REASON_OFFSET) return std::string("peer refused: ") + text;
    return text;
}

CTlsSession::HANDSHAKE CTlsSession::handshakeStep() {
    if (m_pSsl == nullptr) return FAILED;
    const Outcome outcome = call([this](SSL* pSsl) {
        const int result = SSL_do_handshake(pSsl);
        if (result == 1) {
            char* subject = nullptr;
            if (const X509* pPeer = SSL_get0_peer_certificate(pSsl))
                subject = X509_NAME_oneline(X509_get_subject_name(pPeer), nullptr, 0);
            m_peerSubject = subject != nullptr ? subject : "";
            OPENSSL_free(subject);
            m_bKernel = BIO_get_ktls_send(SSL_get_wbio(pSsl)) && BIO_get_ktls_recv(SSL_get_rbio(pSsl));
        }
        return result;
    });
    if (outcome.result == 1) return DONE;
    if (outcome.sslError == SSL_ERROR_WANT_READ) return WANT_READ;
    if (outcome.sslError == SSL_ERROR_WANT_WRITE) return WANT_WRITE;
    return FAILED;
}

std::string CTlsSession::failureReason() const {
    TAutoMutex<OS::TBaseMutex> lock(&m_Mutex);
    return m_failure;
}

std::string CTlsSession::peerSubject() const {
    TAutoMutex<OS::TBaseMutex> lock(&m_Mutex);
    return m_peerSubject;
}

bool CTlsSession::hasPending() {
    if (m_pSsl == nullptr || m_bReadStalled.load(std::memory_order_relaxed)) return false;
    TAutoMutex<OS::TBaseMutex> lock(&m_Mutex);
    return SSL_has_pending(m_pSsl) == 1;
}

bool CTlsSession::takeDrained() {
    if (!m_bDrained) return false;
    m_bDrained = false;
    m_bReadStalled.store(true, std::memory_order_relaxed);
    return true;
}

int CTlsSession::read(void* buffer, size_t size) {
    if (m_pSsl == nullptr) {
        errno = EIO;
        return -1;
    }
    const int want = size > INT_MAX ? INT_MAX : static_cast<int>(size);
    if (takeDrained()) {
        // What this read would find is EAGAIN, at the cost of an OpenSSL
        // call and a recv(2) on every frame's path. The poller is level-
        // triggered: bytes that came meanwhile show as readable.
        errno = EAGAIN;
        return -1;
    }
    m_bReadStalled.store(false, std::memory_order_relaxed);
    if (m_bKernel && !hasPending()) {
        int n;
        do n = os_socket_recv(m_fd, buffer, want, 0, USE_DEFAULT);
        while (n < 0 && errno == EINTR);
        const bool stalled = n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
        m_bReadStalled.store(stalled, std::memory_order_relaxed);
        // EIO: a record that is not data (an alert, close_notify most
        // likely) heads the queue; OpenSSL reads it with its type below.
        if (n >= 0 || errno != EIO) return n;
    }
    const Outcome outcome = call([&](SSL* pSsl) {
        const int result = SSL_read(pSsl, buffer, want);
        if (result > 0 && !m_context->kernelTlsPossible())
            m_bDrained = m_wire.drained && SSL_has_pending(pSsl) == 0;
        return result;
    });
    if (outcome.result > 0) return outcome.result;
    if (isRetry(outcome.sslError)) {
        // What is inside, if anything, is part of a record.
        m_bReadStalled.store(true, std::memory_order_relaxed);
        errno = EAGAIN;
        return -1;
    }
    // The peer's close_notify, or the connection's end without one: the
    // frames above tell a cut frame from a whole one.
    if (outcome.sslError == SSL_ERROR_ZERO_RETURN ||
        outcome.sslReason == SSL_R_UNEXPECTED_EOF_WHILE_READING ||
        (outcome.sslError == SSL_ERROR_SYSCALL && outcome.sysErrno == 0))
        return 0;
    errno = outcome.sslError == SSL_ERROR_SYSCALL ? outcome.sysErrno : EIO;
    return -1;
}

long CTlsSession::writev(const iovec* parts, int count) {
    if (m_bKernel) {
        long n;
        do n = os_socket_send_vector(m_fd, parts, count, 0, USE_DEFAULT);
        while (n < 0 && errno == EINTR);
        return n;
    }
    if (m_pSsl == nullptr) {
        errno = EIO;
        return -1;
    }
    if (m_heldPlain != 0) {
        // Records the last call queued go before any other. The caller
        // passes their bytes first again; they count once they have left.
        bool flushed;
        {
            TAutoMutex<OS::TBaseMutex> lock(&m_Mutex);
            flushed = m_wire.flush();
        }
        if (!flushed) return -1;
        const long held = static_cast<long>(m_heldPlain);
        m_heldPlain = 0;
        return held;
    }
    int index = 0;
    size_t offset = 0;  // into parts[index]
    auto advance = [&](size_t step) {
        for (;;) {
            while (index < count && offset == parts[index].iov_len) {
                ++index;
                offset = 0;
            }
            if (step == 0 || index == count) return;
            const size_t taken = std::min(step, parts[index].iov_len - offset);
            offset += taken;
            step -= taken;
        }
    };
    advance(0);
    size_t remaining = 0;
    for (int i = index; i < count; ++i) remaining += parts[i].iov_len;
    remaining -= offset;
    // A write of one record goes straight to the socket; one of more
    // queues its records in the outbox and sends them a few at a time.
    // Not with OpenSSL's own socket layer, which the kernel may take over.
    const bool gather = remaining > RECORD_SIZE && !m_context->kernelTlsPossible();
    long total = 0;
    size_t queued = 0;  // taken by OpenSSL, its records in the outbox
    auto flushQueued = [&] {
        TAutoMutex<OS::TBaseMutex> lock(&m_Mutex);
        if (!m_wire.flush()) return false;
        total += static_cast<long>(queued);
        queued = 0;
        return true;
    };
    while (index < count) {
        // Small parts are gathered into one record: a record per part
        // would cost a header, a tag and a send(2) each. A part of a record
        // or more goes to OpenSSL in place. The choice depends only on the
        // parts from here on, so a retry makes it as the first call did and
        // hands OpenSSL the same bytes again, as OpenSSL requires.
        const char* data = static_cast<const char*>(parts[index].iov_base) + offset;
        size_t length = parts[index].iov_len - offset;
        if (length < RECORD_SIZE) {
            if (!m_staging) m_staging.reset(new char[RECORD_SIZE]);
            length = 0;
            for (int i = index; i < count && length < RECORD_SIZE; ++i) {
                const size_t from = i == index ? offset : 0;
                const size_t take = std::min(parts[i].iov_len - from, RECORD_SIZE - length);
                if (take == 0) continue;  // an empty part may have no address
                std::memcpy(m_staging.get() + length, static_cast<const char*>(parts[i].iov_base) + from, take);
                length += take;
            }
            data = m_staging.get();
        }
        size_t written = 0;
        const Outcome outcome = call([&](SSL* pSsl) {
            if (gather && !m_wire.bytes) m_wire.bytes.reset(new char[CTlsWire::SIZE]);
            m_wire.gather = gather;
            const int result = SSL_write_ex(pSsl, data, length, &written);
            m_wire.gather = false;
            return result;
        });
        if (outcome.result > 0) {
            if (gather) queued += written;
            else total += static_cast<long>(written);
            advance(written);
            continue;
        }
        // A full outbox: once it has left, OpenSSL takes the same bytes again.
        if (queued != 0 && outcome.sslError == SSL_ERROR_WANT_WRITE && flushQueued()) continue;
        // A failure shows again on the next call.
        if (isRetry(outcome.sslError) || total > 0 || queued > 0) break;
        errno = outcome.sslError == SSL_ERROR_SYSCALL && outcome.sysErrno != 0 ? outcome.sysErrno : EIO;
        return -1;
    }
    if (queued != 0 && !flushQueued()) m_heldPlain = queued;
    if (total > 0) return total;
    errno = EAGAIN;
    return -1;
}

void CTlsSession::shutdown() {
    if (m_pSsl == nullptr) return;
    call([this](SSL* pSsl) {
        // Not after a failure (OpenSSL forbids it), nor before the handshake.
        if (m_failure.empty() && SSL_is_init_finished(pSsl)) SSL_shutdown(pSsl);
        ERR_clear_error();  // a close_notify that could not leave is no news
        return 1;
    });
}
