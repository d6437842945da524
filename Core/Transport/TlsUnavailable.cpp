// The TLS classes of a build without OpenSSL: TLS asked for by the
// environment is refused with a reason, and no session ever gets going.
#include <cerrno>
#include <cstdlib>

#include "TlsContext.h"
#include "TlsSession.h"

namespace {
const char* const UNAVAILABLE = "TLS is unavailable: this build has no OpenSSL";
}

bool CTlsContext::available() { return false; }

std::shared_ptr<CTlsContext> CTlsContext::fromEnvironment(std::string& error) {
    error.clear();
    for (const char* name : {"APARTMENT_TLS_CERT", "APARTMENT_TLS_KEY", "APARTMENT_TLS_CA"}) {
        const char* value = std::getenv(name);
        if (value != nullptr && *value != '\0') error = UNAVAILABLE;
    }
    return nullptr;
}

std::shared_ptr<CTlsContext> CTlsContext::create(const Files&, std::string& error) {
    error = UNAVAILABLE;
    return nullptr;
}

CTlsContext::~CTlsContext() {}

CTlsSession::CTlsSession(std::shared_ptr<CTlsContext> context, int fd, ROLE)
    : m_context(std::move(context)), m_fd(fd), m_Mutex(MUTEX_NONE, USE_STD, nullptr),
      m_failure(UNAVAILABLE) {}
CTlsSession::~CTlsSession() {}
CTlsSession::HANDSHAKE CTlsSession::handshakeStep() { return FAILED; }
std::string CTlsSession::failureReason() const { return m_failure; }
std::string CTlsSession::peerSubject() const { return std::string(); }
bool CTlsSession::hasPending() { return false; }
int CTlsSession::read(void*, size_t) {
    errno = EIO;
    return -1;
}
long CTlsSession::writev(const iovec*, int) {
    errno = EIO;
    return -1;
}
void CTlsSession::shutdown() {}
