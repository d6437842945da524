// CTlsContext: this process's TLS settings, which every link shares.
//
// Links are mutually authenticated TLS 1.3 and nothing else: each side
// presents its certificate chain and must chain the other's to the CA set
// named by the environment; expiry is checked. The system's trust store is
// never consulted: the CA set is the trust boundary. Host names are not
// checked either, on purpose: apartments are addressed by IPv4 address and
// port, which a certificate does not name, so any certificate the CA issued
// is accepted for any address.
//
// Made once (normally by fromEnvironment while the apartment starts), then
// shared by every CTlsSession through a shared_ptr: after creation it is
// read-only and may be used from any thread.
//
// A build without OpenSSL keeps this interface: fromEnvironment then says
// that TLS is unavailable when the variables ask for it.
#ifndef APARTMENT_TLSCONTEXT_H
#define APARTMENT_TLSCONTEXT_H

#include <atomic>
#include <cstdio>
#include <memory>
#include <string>

struct ssl_ctx_st;
struct ssl_st;

class CTlsContext {
public:
    // Where the PEM files are. `cert` and `key` are both empty only for a
    // peer that presents no certificate (which its peers refuse); `keyLog`
    // is optional.
    struct Files {
        std::string cert;    // this apartment's certificate chain, leaf first
        std::string key;     // its private key
        std::string ca;      // the CA certificates a peer must chain to
        std::string keyLog;  // session secrets are appended here (NSS key-log format)
    };

    // From APARTMENT_TLS_CERT, APARTMENT_TLS_KEY, APARTMENT_TLS_CA and the
    // optional APARTMENT_TLS_KEYLOG. Null with `error` empty when none of
    // the first three is set: TLS is off. Null with a one-line `error` when
    // only some are set, a file cannot be read or holds no PEM of its kind,
    // the key does not match the certificate, or this build has no TLS.
    static std::shared_ptr<CTlsContext> fromEnvironment(std::string& error);
    // As above from explicit paths; `files.ca` is required.
    static std::shared_ptr<CTlsContext> create(const Files& files, std::string& error);
    // Whether this build has TLS at all.
    static bool available();

    ~CTlsContext();
    CTlsContext(const CTlsContext&) = delete;
    CTlsContext& operator=(const CTlsContext&) = delete;

    // For CTlsSession.
    ssl_ctx_st* native() const { return m_pCtx; }
    // True when OpenSSL may hand the record layer to the kernel: OpenSSL
    // was built with kTLS and the kernel has its "tls" TCP layer. Sessions
    // then talk through OpenSSL's own socket layer, the only one it offloads.
    bool kernelTlsPossible() const { return m_bKernelTls; }
    // Session secrets go to APARTMENT_TLS_KEYLOG: anyone who reads that
    // file can decrypt captured links, so the start-up line should say so.
    bool logsKeys() const { return m_pKeyLog != nullptr; }
    // True for the first caller only: whoever finishes the first handshake
    // says which record layer the links got, once per context. Any thread.
    bool firstHandshake() const { return !m_bHandshook.exchange(true); }

private:
    CTlsContext() = default;
    // OpenSSL's key-log callback: one line per secret, to m_pKeyLog.
    static void logKey(const ssl_st* pSsl, const char* line);

    ssl_ctx_st* m_pCtx = nullptr;
    bool m_bKernelTls = false;
    std::FILE* m_pKeyLog = nullptr;  // appended to from any thread (stdio locks it)
    mutable std::atomic<bool> m_bHandshook{false};
};

#endif
