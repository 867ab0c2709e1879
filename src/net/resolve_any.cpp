// Name to IPv6 and IPv4 addresses (ADDRESS_FAMILY=any), for the SMTP session
// and the POP3 client.
#include "net/net.h"

#include "log/trace_record.h"

#include <cstring>

#include <unistd.h>

namespace kemail::net {

namespace {

constexpr int kLookupTries = 5;

// The address bytes of a socket address: 4 for IPv4, 16 for IPv6.
void trace_address(TraceHandle* trace, const char* code, const addrinfo& entry) {
    if (entry.ai_family == AF_INET6) {
        const auto* in6 = reinterpret_cast<const sockaddr_in6*>(entry.ai_addr);
        trace_data(trace, 1, code, &in6->sin6_addr, sizeof in6->sin6_addr);
    } else {
        const auto* in4 = reinterpret_cast<const sockaddr_in*>(entry.ai_addr);
        trace_data(trace, 1, code, &in4->sin_addr, sizeof in4->sin_addr);
    }
}

}  // namespace

ResolvedList resolve_any(const char* name, const AddressListCodes& codes, TraceHandle* trace) {
    kemail::trace(trace, 1, codes.start);
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    for (int attempt = 1;; ++attempt) {
        addrinfo* found = nullptr;
        const int error = ::getaddrinfo(name, nullptr, &hints, &found);
        if (error == 0 && found != nullptr) {
            AddressList list(found);
            kemail::trace(trace, 2, codes.answered);
            for (const addrinfo* entry = found; entry != nullptr; entry = entry->ai_next)
                trace_data(trace, 2, codes.address, entry->ai_addr, entry->ai_addrlen);
            trace_address(trace, codes.resolved, *found);
            return {std::move(list), 0};
        }
        if (found != nullptr) ::freeaddrinfo(found);
        if (error != EAI_AGAIN || attempt >= kLookupTries)
            return {nullptr, error != 0 ? error : EAI_NONAME};
        kemail::trace(trace, 2, codes.busy);
        ::sleep(1);
    }
}

void set_port(addrinfo* list, uint16_t port) {
    for (addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
        if (entry->ai_family == AF_INET6) {
            reinterpret_cast<sockaddr_in6*>(entry->ai_addr)->sin6_port = port;
        } else if (entry->ai_family == AF_INET) {
            reinterpret_cast<sockaddr_in*>(entry->ai_addr)->sin_port = port;
        }
    }
}

}  // namespace kemail::net
