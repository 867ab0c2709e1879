// A TCP connection to an IPv4 peer, or to the first of a list of IPv6 and
// IPv4 peers that answers, with the retries of a refusing server.
#include "net/net.h"

#include "log/trace_record.h"
#include "util/unique_fd.h"

#include <cerrno>
#include <cstring>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kemail::net {

namespace {

// connect(), completing an interrupted attempt instead of starting a second
// one (which would fail with EALREADY): the kernel goes on connecting after
// EINTR, so wait for the outcome and fetch it. Returns 0 or -1 with errno.
int connect_waiting_out_interruption(int sock, const sockaddr* peer, socklen_t length) {
    if (::connect(sock, peer, length) == 0) return 0;
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

}  // namespace

Connection connect_ipv4(const sockaddr_in& peer, const ConnectCodes& codes, TraceHandle* trace) {
    for (int retries = 0;;) {
        if (codes.before_socket) kemail::trace(trace, 2, codes.before_socket);
        // Close-on-exec: the calling agent may start programs while a
        // session is open, and they must not inherit the connection.
        UniqueFd sock(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (!sock.valid()) return {-1, Failed::Socket, sock.get(), errno};
        if (codes.before_connect) kemail::trace(trace, 2, codes.before_connect);
        const int result = connect_waiting_out_interruption(
            sock.get(), reinterpret_cast<const sockaddr*>(&peer), sizeof peer);
        const int error = errno;
        if (result == 0) return {sock.release(), Failed::Nothing, 0, 0};
        trace_word(trace, 0, codes.attempt_failed, static_cast<uint32_t>(error));
        if (error != ECONNREFUSED || retries++ >= codes.refused_retries) {
            return {-1, Failed::Connect, result, error};
        }
        kemail::trace(trace, codes.retrying_level, codes.retrying);
        ::sleep(1);
    }
}

AnyConnection connect_any(const addrinfo* list, const ConnectCodes& codes, const char* trying,
                          TraceHandle* trace) {
    AnyConnection outcome{};
    outcome.connection = {-1, Failed::Connect, -1, EHOSTUNREACH};
    for (int retries = 0;;) {
        bool all_refused = true;
        for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
            trace_data(trace, 2, trying, entry->ai_addr, entry->ai_addrlen);
            if (codes.before_socket) kemail::trace(trace, 2, codes.before_socket);
            UniqueFd sock(::socket(entry->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
            if (!sock.valid()) {
                // A family the host does not have (no IPv6) leaves the others.
                outcome.connection = {-1, Failed::Socket, sock.get(), errno};
                all_refused = false;
                continue;
            }
            if (codes.before_connect) kemail::trace(trace, 2, codes.before_connect);
            const int result =
                connect_waiting_out_interruption(sock.get(), entry->ai_addr, entry->ai_addrlen);
            const int error = errno;
            if (result == 0) {
                std::memcpy(&outcome.peer, entry->ai_addr, entry->ai_addrlen);
                outcome.peer_length = entry->ai_addrlen;
                outcome.connection = {sock.release(), Failed::Nothing, 0, 0};
                return outcome;
            }
            trace_word(trace, 0, codes.attempt_failed, static_cast<uint32_t>(error));
            outcome.connection = {-1, Failed::Connect, result, error};
            if (error != ECONNREFUSED) all_refused = false;
        }
        if (!all_refused || list == nullptr || retries++ >= codes.refused_retries) return outcome;
        kemail::trace(trace, codes.retrying_level, codes.retrying);
        ::sleep(1);
    }
}

}  // namespace kemail::net
