// CTlsContext over OpenSSL (the build without it compiles TlsUnavailable.cpp).
#include "TlsContext.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "os_socket.h"

namespace {

const char* const CERT_VARIABLE = "APARTMENT_TLS_CERT";
const char* const KEY_VARIABLE = "APARTMENT_TLS_KEY";
const char* const CA_VARIABLE = "APARTMENT_TLS_CA";
const char* const KEYLOG_VARIABLE = "APARTMENT_TLS_KEYLOG";

#if defined(SSL_OP_ENABLE_KTLS) && !defined(OPENSSL_NO_KTLS)
// Whether the kernel has the "tls" TCP layer (loading its module on
// demand): attaching it to a socket that is not connected fails with
// ENOTCONN when it exists and ENOENT when it does not.
bool kernelHasTls() {
    const int fd = os_socket(AF_INET, SOCK_STREAM, 0, USE_DEFAULT);
    if (fd < 0) return false;
    const int result = os_socket_set_sock_opt(fd, IPPROTO_TCP, TCP_ULP, "tls", 3, USE_DEFAULT);
    const bool has = result == 0 || errno == ENOTCONN;
    os_socket_close(fd, USE_DEFAULT);
    return has;
}
#endif

// "<variable>: cannot read <path>: <reason>" when the file cannot be
// opened, so that the message names the system's reason rather than
// OpenSSL's wrapping of it.
bool readable(const char* variable, const std::string& path, std::string& error) {
    std::FILE* pFile = std::fopen(path.c_str(), "r");
    if (pFile == nullptr) {
        error = std::string(variable) + ": cannot read " + path + ": " + std::strerror(errno);
        return false;
    }
    std::fclose(pFile);
    return true;
}

}  // namespace

bool CTlsContext::available() { return true; }

std::shared_ptr<CTlsContext> CTlsContext::fromEnvironment(std::string& error) {
    error.clear();
    const char* names[3] = {CERT_VARIABLE, KEY_VARIABLE, CA_VARIABLE};
    std::string values[3], missing;
    int set = 0;
    for (int i = 0; i < 3; ++i) {
        const char* value = std::getenv(names[i]);
        if (value != nullptr && *value != '\0') {
            values[i] = value;
            ++set;
        } else {
            missing += missing.empty() ? names[i] : std::string(", ") + names[i];
        }
    }
    if (set == 0) return nullptr;  // TLS is off
    if (set < 3) {
        error = "TLS needs APARTMENT_TLS_CERT, APARTMENT_TLS_KEY and APARTMENT_TLS_CA together; "
                "missing: " + missing;
        return nullptr;
    }
    const char* keyLog = std::getenv(KEYLOG_VARIABLE);
    return create(Files{values[0], values[1], values[2], keyLog != nullptr ? keyLog : ""}, error);
}

std::shared_ptr<CTlsContext> CTlsContext::create(const Files& files, std::string& error) {
    error.clear();
    if (files.ca.empty() || files.cert.empty() != files.key.empty()) {
        error = "TLS needs a CA file, and a certificate and its key together";
        return nullptr;
    }
    if (!readable(CA_VARIABLE, files.ca, error) ||
        (!files.cert.empty() && (!readable(CERT_VARIABLE, files.cert, error) ||
                                 !readable(KEY_VARIABLE, files.key, error))))
        return nullptr;

    std::shared_ptr<CTlsContext> context(new CTlsContext);
    SSL_CTX* pCtx = context->m_pCtx = SSL_CTX_new(TLS_method());
    if (pCtx == nullptr) {
        error = "TLS: out of memory";
        return nullptr;
    }

    ERR_clear_error();
    // Certificate first: loading the key then checks that the two match.
    if (!files.cert.empty()) {
        if (SSL_CTX_use_certificate_chain_file(pCtx, files.cert.c_str()) != 1) {
            error = std::string(CERT_VARIABLE) + ": no PEM certificate chain in " + files.cert;
        } else if (SSL_CTX_use_PrivateKey_file(pCtx, files.key.c_str(), SSL_FILETYPE_PEM) != 1 ||
                   SSL_CTX_check_private_key(pCtx) != 1) {
            const int reason = ERR_GET_REASON(ERR_peek_last_error());
            error = reason == X509_R_KEY_VALUES_MISMATCH || reason == X509_R_KEY_TYPE_MISMATCH
                        ? std::string(KEY_VARIABLE) + " (" + files.key + ") does not match the certificate in " +
                              CERT_VARIABLE
                        : std::string(KEY_VARIABLE) + ": no PEM private key in " + files.key;
        }
    }
    if (error.empty() && SSL_CTX_load_verify_locations(pCtx, files.ca.c_str(), nullptr) != 1)
        error = std::string(CA_VARIABLE) + ": no PEM CA certificate in " + files.ca;
    if (error.empty() && !files.keyLog.empty()) {
        context->m_pKeyLog = std::fopen(files.keyLog.c_str(), "a");
        if (context->m_pKeyLog == nullptr)
            error = std::string(KEYLOG_VARIABLE) + ": cannot append to " + files.keyLog + ": " +
                    std::strerror(errno);
    }
    ERR_clear_error();
    if (!error.empty()) return nullptr;

    SSL_CTX_set_min_proto_version(pCtx, TLS1_3_VERSION);
    SSL_CTX_set_max_proto_version(pCtx, TLS1_3_VERSION);
    // Mutual: both roles demand a certificate that chains to the CA set
    // loaded above (the system's store is never loaded). OpenSSL checks
    // validity dates itself; host names are deliberately not checked (see
    // the header).
    SSL_CTX_set_verify(pCtx, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    // Links are long-lived and never resumed: no tickets, no cache. This
    // also keeps post-handshake messages off a kernel-offloaded socket.
    SSL_CTX_set_num_tickets(pCtx, 0);
    SSL_CTX_set_session_cache_mode(pCtx, SSL_SESS_CACHE_OFF);
    // A write may end after any record (partial), and its retry may come
    // from another address holding the same bytes (a staged copy, or the
    // caller's parts moved along).
    SSL_CTX_set_mode(pCtx, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    // Take whatever the socket has in one read rather than a header and a
    // body per record; CTlsSession::hasPending covers what stays inside.
    SSL_CTX_set_read_ahead(pCtx, 1);
    // Room for four full records, so that a large frame costs a recv(2)
    // per four records rather than per record (about 50 KiB more per link
    // than OpenSSL's default, once the link has read).
    SSL_CTX_set_default_read_buffer_len(
        pCtx, 4 * (SSL3_RT_MAX_PLAIN_LENGTH + SSL3_RT_MAX_ENCRYPTED_OVERHEAD));
    // AES-128-GCM before OpenSSL's default AES-256-GCM: a third faster per
    // byte with AES-NI, which large frames pay on both sides. A peer that
    // offers only the others still gets them.
    SSL_CTX_set_ciphersuites(
        pCtx, "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384:TLS_CHACHA20_POLY1305_SHA256");
#if defined(SSL_OP_ENABLE_KTLS) && !defined(OPENSSL_NO_KTLS)
    context->m_bKernelTls = kernelHasTls();
    if (context->m_bKernelTls) SSL_CTX_set_options(pCtx, SSL_OP_ENABLE_KTLS);
#endif
    if (context->m_pKeyLog != nullptr) {
        SSL_CTX_set_app_data(pCtx, context.get());
        SSL_CTX_set_keylog_callback(pCtx, logKey);
    }
    return context;
}

void CTlsContext::logKey(const SSL* pSsl, const char* line) {
    const CTlsContext* pContext =
        static_cast<const CTlsContext*>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(pSsl)));
    // One call per line, so lines of concurrent handshakes never mix.
    std::fprintf(pContext->m_pKeyLog, "%s\n", line);
    std::fflush(pContext->m_pKeyLog);
}

CTlsContext::~CTlsContext() {
    SSL_CTX_free(m_pCtx);
    if (m_pKeyLog != nullptr) std::fclose(m_pKeyLog);
}
