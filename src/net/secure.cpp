#include "net/secure.h"

#include "kemail.h"
#include "tls/channel.h"
#include "util/format.h"

#include <cerrno>
#include <memory>
#include <new>

namespace kemail::net {

void log_tls_failure(const char* reason) noexcept {
    char line[320];
    format_into(line, sizeof line, Overflow::Cut, "ERROR: TLS %s", reason);
    MailLogWrite(g_pLogHandle, KEMAIL_LOG_NOTE, line);
}

bool tls_loadable(char* reason, size_t size) noexcept {
    if (tls::openssl(reason, size) != nullptr) return true;
    log_tls_failure(reason);
    return false;
}

int start_tls(int sock, const tls::TlsSettings& settings, unsigned seconds,
              tls::TlsSession::Clock clock, char* reason, size_t size) noexcept {
    std::unique_ptr<tls::TlsSession> session(new (std::nothrow) tls::TlsSession);
    if (!session) {
        format_into(reason, size, Overflow::Cut, "handshake failed: out of memory");
        log_tls_failure(reason);
        return -1;
    }
    if (session->start(sock, settings, seconds, reason, size) != 0) {
        log_tls_failure(reason);
        return -1;
    }
    session->set_clock(clock);
    const tls::TlsInfo info = session->info();
    if (!tls::attach(sock, session.release())) {
        format_into(reason, size, Overflow::Cut, "handshake failed: no room for the session");
        log_tls_failure(reason);
        return -1;
    }
    const char* name = settings.server_name != nullptr ? settings.server_name : "";
    char line[320];
    format_into(line, sizeof line, Overflow::Cut, "TLS %s %s, %s peer %s", info.version,
                info.cipher, info.verified ? "verified" : "unverified", name);
    MailLogWrite(g_pLogHandle, KEMAIL_LOG_NOTE, line);
    return 0;
}

void end_tls(int sock) noexcept {
    const int saved = errno;
    tls::release(sock);
    errno = saved;
}

}  // namespace kemail::net
