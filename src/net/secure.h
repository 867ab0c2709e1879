// Turning a connected session socket into a TLS one, for SMTP (STARTTLS,
// SMTPS) and POP3 (STLS, POP3S), and back at the end. Once started, every
// byte of the socket goes through the session (net/stream.h), so the
// protocol code above keeps working on the socket number.
#pragma once

#include "tls/tls_session.h"

#include <cstddef>

namespace kemail::net {

// Handshakes over sock within `seconds` and, on success, makes the session
// the one every later read and write of sock goes through; `clock` bounds
// those waits. Writes one mail-log line either way: "TLS <version>
// <cipher>, verified peer <name>" (or "unverified peer"), or "ERROR: TLS
// <reason>". Returns 0, or -1 with the reason in reason[size].
int start_tls(int sock, const tls::TlsSettings& settings, unsigned seconds,
              tls::TlsSession::Clock clock, char* reason, size_t size) noexcept;

// Whether OpenSSL can be loaded; false with the reason in reason[size] (and
// the failure logged), so that a protocol can stop before it asks the server
// for TLS it could not speak.
bool tls_loadable(char* reason, size_t size) noexcept;

// Writes "ERROR: TLS <reason>" to the mail log: a TLS step that failed
// before any handshake (the server does not offer it or refused it).
void log_tls_failure(const char* reason) noexcept;

// Ends sock's TLS session (close_notify, not waited for); nothing for a
// socket in the clear. Called right before the socket is closed.
void end_tls(int sock) noexcept;

}  // namespace kemail::net
