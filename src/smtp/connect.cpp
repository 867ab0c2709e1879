// From a server name and port to a connected IPv4 TCP socket (or, with
// ADDRESS_FAMILY=any, an IPv6 or IPv4 one).
#include "kemail.h"
#include "log/trace_record.h"
#include "net/net.h"
#include "smtp/smtp.h"
#include "util/unique_fd.h"
#include "options/options.h"

#include <cstring>

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

using kemail::trace;
using kemail::trace_data;
using kemail::trace_text;
using kemail::trace_word;

namespace {

constexpr unsigned int kResolveFailed = 0xFFFFFFFFu;
constexpr uint16_t kDefaultSmtpPort = 25;
// SMTP over TLS from the first byte (key TLS=smtps), when no port is given.
constexpr uint16_t kSmtpsPort = 465;

constexpr int kSocketFailed = -1;
constexpr int kConnectFailed = -2;
constexpr int kNameNotResolved = -5;

constexpr kemail::net::ResolveCodes kResolveCodes{.start = "getsmtp0000",
                                                  .literal = "getsmtp0010",
                                                  .busy = "getsmtp0020",
                                                  .answered = "getsmtp0040",
                                                  .resolved = "getsmtpFFFF"};

// A refusing server is tried 6 times in all, one second apart.
constexpr kemail::net::ConnectCodes kConnectCodes{
    .attempt_failed = "smtp0040", .retrying = "smtp0022", .refused_retries = 5};

// The port of the SMTP service in network byte order; without either entry
// the port is 25.
// Kept: the upper-case service name "SMTP" is looked up first (test
// Connect.PortZeroTriesTheUpperCaseServiceFirst).
uint16_t smtp_service_port() {
    struct servent entry;
    struct servent* found = nullptr;
    char work[1024];
    if (getservbyname_r("SMTP", "tcp", &entry, work, sizeof work, &found) == 0 && found) {
        trace(g_trace, 2, "smtp0012L");
        return static_cast<uint16_t>(found->s_port);
    }
    trace(g_trace, 2, "smtp0011L");
    found = nullptr;
    if (getservbyname_r("smtp", "tcp", &entry, work, sizeof work, &found) == 0 && found) {
        trace(g_trace, 2, "smtp1012L");
        return static_cast<uint16_t>(found->s_port);
    }
    trace(g_trace, 2, "smtp1011L");
    return htons(kDefaultSmtpPort);
}

// The caller's port, or the service's when it gave none.
uint16_t smtp_port(unsigned int port, bool smtps) {
    if (port != 0) return htons(static_cast<uint16_t>(port));
    return smtps ? htons(kSmtpsPort) : smtp_service_port();
}

// The outcome of a connection as SMTP_connect returns it: the socket (after
// the TLS handshake when the session is SMTPS), or the failure logged and
// traced.
int connected(const kemail::net::Connection& connection, const void* peer, size_t peer_length,
              bool smtps, unsigned int* pulErr) {
    if (connection.sock >= 0) {
        // Every command goes out in one send and waits for its reply, so
        // Nagle's delay could only hold a short command (the end-of-data
        // mark after the message) back until the peer's delayed ACK.
        const int on = 1;
        setsockopt(connection.sock, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        trace_data(g_trace, 2, "smtp0021", peer, peer_length);
        trace_word(g_trace, 1, "smtp0050", static_cast<uint32_t>(connection.sock));
        *pulErr = 0;
        if (smtps && kemail::smtp::smtps_handshake(connection.sock, pulErr) != 0) {
            // Nothing was said on it: the connection only goes away.
            kemail::UniqueFd unusable(connection.sock);
            return kemail::smtp::kTlsFailed;
        }
        return connection.sock;
    }
    *pulErr = static_cast<unsigned int>(connection.error);
    if (connection.failed == kemail::net::Failed::Socket) {
        MailLogSysErrWrite(g_pLogHandle, "socket", connection.result, connection.error, nullptr);
        trace_word(g_trace, 0, "smtp0020", *pulErr);
        return kSocketFailed;
    }
    MailLogSysErrWrite(g_pLogHandle, "connect", connection.result, connection.error, nullptr);
    // Kept: the give-up trace reuses smtp0050, the success code, at level 0
    // with errno (test Connect.ARefusingServerIsTriedSixTimesThenMinus2WithErrno111).
    trace_word(g_trace, 0, "smtp0050", *pulErr);
    return kConnectFailed;
}

constexpr kemail::net::AddressListCodes kAddressListCodes{.start = "getsmtp0000",
                                                          .busy = "getsmtp0020",
                                                          .answered = "getsmtp0040",
                                                          .address = "getsmtp0041",
                                                          .resolved = "getsmtpFFFF"};

// SMTP_connect for ADDRESS_FAMILY=any: every address of the name, IPv6 and
// IPv4, in the resolver's order, under the same retries, results and log
// lines; the records that carry an address carry the socket address of its
// family.
int connect_any_family(const char* name, unsigned int port, bool smtps, unsigned int* pulErr) {
    kemail::net::ResolvedList resolved = kemail::net::resolve_any(name, kAddressListCodes, g_trace);
    if (resolved.error != 0) {
        *pulErr = static_cast<unsigned int>(resolved.error);
        MailLogSysErrWrite(g_pLogHandle, "getaddrinfo", 0, resolved.error,
                           gai_strerror(resolved.error));
        trace_word(g_trace, 0, "getsmtp0031", static_cast<uint32_t>(resolved.error));
        trace_word(g_trace, 0, "smtp0010", *pulErr);
        return kNameNotResolved;
    }
    kemail::net::set_port(resolved.list.get(), smtp_port(port, smtps));
    const kemail::net::AnyConnection outcome =
        kemail::net::connect_any(resolved.list.get(), kConnectCodes, "smtp0023", g_trace);
    return connected(outcome.connection, &outcome.peer, outcome.peer_length, smtps, pulErr);
}

}  // namespace

extern "C" {

// A dotted address is taken as it is; a name is looked up with up to five
// tries while the resolver answers TRY_AGAIN.
// Kept: a literal 255.255.255.255 reads as the failure value, so it is looked
// up as a name; the resolver answers with that same address, traced as
// resolved, and the caller then fails as unresolved (POP3 refuses it as an
// unknown host instead) (test Connect.AllOnesIsLookedUpAsANameAndGivesMinus5).
KEMAIL_API unsigned int SMTP_resolveHost(const char* pszName, unsigned int* pulErr) noexcept {
    unsigned int scratch = 0;
    if (!pulErr) pulErr = &scratch;
    const kemail::net::Resolved resolved = kemail::net::resolve_ipv4(
        pszName ? pszName : "", kResolveCodes, kemail::net::Answer::TakenAsGiven, g_trace);
    if (resolved.error != 0) {
        *pulErr = static_cast<unsigned int>(resolved.error);
        MailLogSysErrWrite(g_pLogHandle, "gethostbyname_r", 0, resolved.error, nullptr);
        trace_word(g_trace, 0, "getsmtp0030", static_cast<uint32_t>(resolved.error));
        return kResolveFailed;
    }
    return resolved.address;
}

// The connection phase's time-out starts here and covers the greeting and
// EHLO/HELO that follow; connect itself is not bounded by it.
KEMAIL_API int SMTP_connect(const char* pszName, unsigned int ulPort,
                            unsigned int* pulErr) noexcept {
    unsigned int scratch = 0;
    if (!pulErr) pulErr = &scratch;
    const char* name = pszName ? pszName : "";
    trace_text(g_trace, 1, "smtp0000", name);
    kemail::smtp::remember_server(name);
    const bool smtps = kemail::smtp::smtps_wanted();
    SMTP_SetTimeOut(g_stMailTimeout.ulConnect);
    SMTP_SetStartTime();
    if (kemail::options::current().address_family == kemail::options::AddressFamily::Any)
        return connect_any_family(name, ulPort, smtps, pulErr);

    const unsigned int address = SMTP_resolveHost(name, pulErr);
    if (address == kResolveFailed) {
        trace_word(g_trace, 0, "smtp0010", *pulErr);
        return kNameNotResolved;
    }
    struct sockaddr_in peer;
    std::memset(&peer, 0, sizeof peer);
    peer.sin_family = AF_INET;
    peer.sin_port = smtp_port(ulPort, smtps);
    peer.sin_addr.s_addr = address;
    return connected(kemail::net::connect_ipv4(peer, kConnectCodes, g_trace), &peer, sizeof peer,
                     smtps, pulErr);
}

}  // extern "C"
