// Resolving the POP3 server and opening the TCP connection to it.
#include "kemail.h"

#include "log/trace_record.h"
#include "net/net.h"
#include "options/options.h"
#include "pop3/pop3_internal.h"

#include <cstdint>

#include <arpa/inet.h>
#include <netdb.h>

namespace kemail {

namespace {

constexpr uint16_t kDefaultPop3Port = 110;

constexpr net::ResolveCodes kResolveCodes{.start = "getpop0000",
                                          .literal = "getpop0010",
                                          .busy = "getpop0020",
                                          .answered = "getpop0040",
                                          .resolved = "getpopFFFF"};

// A refusing server is tried 7 times in all, one second apart.
constexpr net::ConnectCodes kConnectCodes{.before_socket = "Pop3_0210",
                                          .before_connect = "Pop3_0230",
                                          .attempt_failed = "Pop3_0250",
                                          .retrying = "Pop3_0260",
                                          .retrying_level = 0,
                                          .refused_retries = 6};

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

constexpr net::AddressListCodes kAddressListCodes{.start = "getpop0000",
                                                  .busy = "getpop0020",
                                                  .answered = "getpop0040",
                                                  .address = "getpop0041",
                                                  .resolved = "getpopFFFF"};

// Pop3_Connect for ADDRESS_FAMILY=any: every address of the name, IPv6 and
// IPv4, in the resolver's order, under the same retries, results and log
// lines.
int connect_any_family(const char* server, unsigned int port, int* err, TraceHandle* handle) {
    net::ResolvedList resolved = net::resolve_any(server, kAddressListCodes, handle);
    if (resolved.error != 0) {
        *err = resolved.error;
        MailLogSysErrWrite(g_pLogHandle, "getaddrinfo", 0, resolved.error,
                           gai_strerror(resolved.error));
        trace_word(handle, 0, "getpop0031", static_cast<uint32_t>(resolved.error));
        trace_word(handle, 0, "Pop3_0020", static_cast<uint32_t>(*err));
        return -11;
    }
    const addrinfo& first = *resolved.list;
    trace_data(handle, 2, "Pop3_0100", first.ai_addr, first.ai_addrlen);
    const uint16_t chosen = choose_port(port, handle);
    trace_data(handle, 2, "Pop3_0200", &chosen, sizeof chosen);
    net::set_port(resolved.list.get(), chosen);

    const net::AnyConnection outcome =
        net::connect_any(resolved.list.get(), kConnectCodes, "Pop3_0231", handle);
    const net::Connection& connection = outcome.connection;
    if (connection.sock >= 0) {
        kemail::trace(handle, 2, "Pop3_0240");
        kemail::trace(handle, 1, "Pop3_03ff");
        return connection.sock;
    }
    *err = connection.error;
    if (connection.failed == net::Failed::Socket) {
        trace_word(handle, 0, "Pop3_0220", static_cast<uint32_t>(*err));
        MailLogSysErrWrite(g_pLogHandle, "socket", connection.result, *err, nullptr);
        return -1;
    }
    kemail::trace(handle, 0, "Pop3_0290");
    MailLogSysErrWrite(g_pLogHandle, "connect", connection.result, *err, nullptr);
    return -2;
}

}  // namespace

// Kept: 255.255.255.255, given literally or as a name's answer, is no server
// and fails as an unknown host, where SMTP looks the literal up and fails
// later (test Pop3Connect.TheBroadcastAddressIsNoServer).
in_addr_t Pop3_GetAddress(const char* server, int* err, TraceHandle* trace) {
    *err = 0;
    const net::Resolved resolved =
        net::resolve_ipv4(server, kResolveCodes, net::Answer::MustBeAServer, trace);
    if (resolved.error != 0) {
        *err = resolved.error;
        MailLogSysErrWrite(g_pLogHandle, "gethostbyname_r", 0, resolved.error, nullptr);
        trace_word(trace, 0, "getpop0030", static_cast<uint32_t>(resolved.error));
    }
    return resolved.address;
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
    if (options::current().address_family == options::AddressFamily::Any)
        return connect_any_family(server, ulPort, err, pTrace);
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

    const net::Connection connection = net::connect_ipv4(peer, kConnectCodes, pTrace);
    if (connection.sock >= 0) {
        trace(pTrace, 2, "Pop3_0240");
        trace(pTrace, 1, "Pop3_03ff");
        return connection.sock;
    }
    *err = connection.error;
    if (connection.failed == net::Failed::Socket) {
        trace_word(pTrace, 0, "Pop3_0220", static_cast<uint32_t>(*err));
        MailLogSysErrWrite(g_pLogHandle, "socket", connection.result, *err, nullptr);
        return -1;
    }
    trace(pTrace, 0, "Pop3_0290");
    MailLogSysErrWrite(g_pLogHandle, "connect", connection.result, *err, nullptr);
    return -2;
}

}  // extern "C"
