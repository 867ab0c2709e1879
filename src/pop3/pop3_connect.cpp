// Resolving the POP3 server and opening the TCP connection to it.
#include "kemail.h"

#include "log/trace_record.h"
#include "pop3/pop3_internal.h"

#include <cerrno>
#include <cstdint>
#include <cstring>

#include <arpa/inet.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kemail {

namespace {

constexpr int kResolveAttempts = 5;
constexpr int kRefusedRetries = 6;  // so a refused server is tried 7 times
constexpr uint16_t kDefaultPop3Port = 110;

// connect(), completing an interrupted attempt instead of starting a second
// one (which would fail with EALREADY): the kernel goes on connecting after
// EINTR, so wait for the outcome and fetch it. Returns 0 or -1 with errno.
int connect_once(int sock, const sockaddr_in& addr) {
    if (::connect(sock, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0) return 0;
    if (errno != EINTR) return -1;
    pollfd p{sock, POLLOUT, 0};
    while (::poll(&p, 1, -1) < 0) {
        if (errno != EINTR) return -1;
    }
    int error = 0;
    socklen_t len = sizeof error;
    if (::getsockopt(sock, SOL_SOCKET, SO_ERROR, &error, &len) != 0) return -1;
    if (error == 0) return 0;
    errno = error;
    return -1;
}

// The port in network order: the caller's, or the "pop3" service, or 110.
uint16_t choose_port(unsigned int port, TraceHandle* trace) {
    if (port != 0) return htons(static_cast<uint16_t>(port));
    servent entry;
    servent* found = nullptr;
    char work[1024];
    if (::getservbyname_r("pop3", "tcp", &entry, work, sizeof work, &found) == 0 && found) {
        kemail::trace(trace, 2, "Pop3_0120");
        return static_cast<uint16_t>(found->s_port);
    }
    kemail::trace(trace, 2, "Pop3_0110");
    return htons(kDefaultPop3Port);
}

}  // namespace

in_addr_t Pop3_GetAddress(const char* server, int* err, TraceHandle* trace) {
    kemail::trace(trace, 1, "getpop0000");
    *err = 0;
    const in_addr_t dotted = ::inet_addr(server);
    if (dotted != INADDR_NONE) {
        trace_data(trace, 1, "getpop0010", &dotted, sizeof dotted);
        return dotted;
    }
    for (int busy = 0;;) {
        hostent entry;
        hostent* found = nullptr;
        char work[1024];
        int resolver_error = 0;
        const int rc = ::gethostbyname_r(server, &entry, work, sizeof work, &found, &resolver_error);
        if (rc == 0 && found && found->h_addrtype == AF_INET && found->h_length == 4 &&
            found->h_addr_list[0]) {
            in_addr_t address;
            std::memcpy(&address, found->h_addr_list[0], sizeof address);
            if (address != INADDR_NONE) {
                kemail::trace(trace, 2, "getpop0040");
                trace_data(trace, 1, "getpopFFFF", &address, sizeof address);
                return address;
            }
            // The resolver also parses "255.255.255.255"; the broadcast
            // address is no server, and as a result it would read as failure.
            resolver_error = HOST_NOT_FOUND;
        }
        if (resolver_error != TRY_AGAIN || ++busy >= kResolveAttempts) {
            // A name that resolves to nothing still needs a non-zero error.
            if (resolver_error == 0) resolver_error = HOST_NOT_FOUND;
            *err = resolver_error;
            MailLogSysErrWrite(g_pLogHandle, "gethostbyname_r", 0, resolver_error, nullptr);
            trace_word(trace, 0, "getpop0030", static_cast<uint32_t>(resolver_error));
            return INADDR_NONE;
        }
        kemail::trace(trace, 2, "getpop0020");
        ::sleep(1);
    }
}

}  // namespace kemail

extern "C" {

KEMAIL_API int Pop3_Connect(const char* pszServer, unsigned int ulPort, int* plErr,
                            TraceHandle* pTrace) noexcept {
    using namespace kemail;
    int unused_err = 0;
    int* err = plErr ? plErr : &unused_err;
    const char* server = pszServer ? pszServer : "";

    trace_text(pTrace, 1, "Pop3_0000", server);
    *err = 0;
    const in_addr_t address = Pop3_GetAddress(server, err, pTrace);
    if (address == INADDR_NONE) {
        trace_word(pTrace, 0, "Pop3_0020", static_cast<uint32_t>(*err));
        return -11;
    }
    trace_data(pTrace, 2, "Pop3_0100", &address, sizeof address);

    // A non-zero port above 65535 keeps only its low 16 bits.
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_addr.s_addr = address;
    peer.sin_port = choose_port(ulPort, pTrace);
    trace_data(pTrace, 2, "Pop3_0200", &peer.sin_port, sizeof peer.sin_port);

    for (int retries = 0;; ++retries) {
        trace(pTrace, 2, "Pop3_0210");
        // Close-on-exec: the calling agent may start programs while a
        // session is open, and they must not inherit the connection.
        const int sock = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (sock < 0) {
            *err = errno;
            trace_word(pTrace, 0, "Pop3_0220", static_cast<uint32_t>(*err));
            MailLogSysErrWrite(g_pLogHandle, "socket", sock, *err, nullptr);
            return -1;
        }
        trace(pTrace, 2, "Pop3_0230");
        const int rc = connect_once(sock, peer);
        if (rc == 0) {
            trace(pTrace, 2, "Pop3_0240");
            trace(pTrace, 1, "Pop3_03ff");
            return sock;
        }
        const int error = errno;
        trace_word(pTrace, 0, "Pop3_0250", static_cast<uint32_t>(error));
        if (error == ECONNREFUSED && retries < kRefusedRetries) {
            trace(pTrace, 0, "Pop3_0260");
            ::sleep(1);
            ::close(sock);
            continue;
        }
        ::close(sock);
        *err = error;
        trace(pTrace, 0, "Pop3_0290");
        MailLogSysErrWrite(g_pLogHandle, "connect", rc, error, nullptr);
        return -2;
    }
}

}  // extern "C"
