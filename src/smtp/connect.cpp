// From a server name and port to a connected IPv4 TCP socket.
#include "kemail.h"
#include "log/trace_record.h"

#include <cerrno>
#include <cstring>

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

using kemail::trace;
using kemail::trace_data;
using kemail::trace_text;
using kemail::trace_word;

namespace {

constexpr unsigned int kResolveFailed = 0xFFFFFFFFu;
constexpr int kLookupTries = 5;
// Connection refusals retried one second apart (6 attempts in all).
constexpr int kRefusalRetries = 5;
constexpr uint16_t kDefaultSmtpPort = 25;

constexpr int kSocketFailed = -1;
constexpr int kConnectFailed = -2;
constexpr int kNameNotResolved = -5;

// The port of the SMTP service in network byte order. The upper-case service
// name is tried first, deliberately; without either entry the port is 25.
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

}  // namespace

extern "C" {

// A dotted address is taken as it is (so 255.255.255.255, which reads as the
// failure value, goes on to the name lookup); a name is looked up with up to
// five tries while the resolver answers TRY_AGAIN.
KEMAIL_API unsigned int SMTP_resolveHost(const char* pszName, unsigned int* pulErr) noexcept {
    unsigned int scratch = 0;
    if (!pulErr) pulErr = &scratch;
    const char* name = pszName ? pszName : "";
    trace(g_trace, 1, "getsmtp0000");
    const in_addr_t literal = inet_addr(name);
    if (literal != kResolveFailed) {
        trace_word(g_trace, 1, "getsmtp0010", literal);
        return literal;
    }

    for (int attempt = 1;; ++attempt) {
        struct hostent entry;
        struct hostent* found = nullptr;
        char work[1024];
        int lookup_error = 0;
        const int result = gethostbyname_r(name, &entry, work, sizeof work, &found, &lookup_error);
        if (result == 0 && found) {
            trace(g_trace, 2, "getsmtp0040");
            unsigned int address = kResolveFailed;
            if (found->h_addr_list && found->h_addr_list[0] && found->h_length >= 4) {
                std::memcpy(&address, found->h_addr_list[0], sizeof address);
            }
            trace_word(g_trace, 1, "getsmtpFFFF", address);
            return address;
        }
        // A name without an entry leaves lookup_error at HOST_NOT_FOUND; a
        // work buffer too small for the entry reports ERANGE in the result.
        if (lookup_error == 0) lookup_error = result != 0 ? result : HOST_NOT_FOUND;
        if (lookup_error != TRY_AGAIN || attempt >= kLookupTries) {
            *pulErr = static_cast<unsigned int>(lookup_error);
            MailLogSysErrWrite(g_pLogHandle, "gethostbyname_r", 0, lookup_error, nullptr);
            trace_word(g_trace, 0, "getsmtp0030", static_cast<uint32_t>(lookup_error));
            return kResolveFailed;
        }
        trace(g_trace, 2, "getsmtp0020");
        sleep(1);
    }
}

// The connection phase's time-out starts here and covers the greeting and
// EHLO/HELO that follow; connect itself is not bounded by it.
KEMAIL_API int SMTP_connect(const char* pszName, unsigned int ulPort, unsigned int* pulErr) noexcept {
    unsigned int scratch = 0;
    if (!pulErr) pulErr = &scratch;
    const char* name = pszName ? pszName : "";
    trace_text(g_trace, 1, "smtp0000", name);
    SMTP_SetTimeOut(g_stMailTimeout.ulConnect);
    SMTP_SetStartTime();

    const unsigned int address = SMTP_resolveHost(name, pulErr);
    if (address == kResolveFailed) {
        trace_word(g_trace, 0, "smtp0010", *pulErr);
        return kNameNotResolved;
    }
    const uint16_t port = ulPort != 0 ? htons(static_cast<uint16_t>(ulPort)) : smtp_service_port();

    struct sockaddr_in peer;
    std::memset(&peer, 0, sizeof peer);
    peer.sin_family = AF_INET;
    peer.sin_port = port;
    peer.sin_addr.s_addr = address;

    int connect_result = 0;
    int connect_error = 0;
    int sock = -1;
    for (int retries = 0;;) {
        // Close-on-exec: the session's socket must not leak into programs
        // the calling agent starts.
        sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (sock < 0) {
            const int error = errno;
            *pulErr = static_cast<unsigned int>(error);
            MailLogSysErrWrite(g_pLogHandle, "socket", sock, error, nullptr);
            trace_word(g_trace, 0, "smtp0020", static_cast<uint32_t>(error));
            return kSocketFailed;
        }
        connect_result = connect(sock, reinterpret_cast<struct sockaddr*>(&peer), sizeof peer);
        connect_error = errno;
        if (connect_result == 0) {
            // Every command goes out in one send and waits for its reply, so
            // Nagle's delay could only hold a short command (the end-of-data
            // mark after the message) back until the peer's delayed ACK.
            const int on = 1;
            setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            trace_data(g_trace, 2, "smtp0021", &peer, sizeof peer);
            trace_word(g_trace, 1, "smtp0050", static_cast<uint32_t>(sock));
            *pulErr = 0;
            return sock;
        }
        trace_word(g_trace, 0, "smtp0040", static_cast<uint32_t>(connect_error));
        if (connect_error != ECONNREFUSED || ++retries > kRefusalRetries) break;
        trace(g_trace, 2, "smtp0022");
        sleep(1);
        close(sock);
    }
    *pulErr = static_cast<unsigned int>(connect_error);
    close(sock);
    MailLogSysErrWrite(g_pLogHandle, "connect", connect_result, connect_error, nullptr);
    trace_word(g_trace, 0, "smtp0050", static_cast<uint32_t>(connect_error));
    return kConnectFailed;
}

}  // extern "C"
