// Name to IPv4 address, for the SMTP session and the POP3 client.
#include "net/net.h"

#include "log/trace_record.h"

#include <cstring>

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kemail::net {

namespace {

constexpr int kLookupTries = 5;
// gethostbyname_r's work area: room for a host entry with a few names and
// addresses; a larger one fails with ERANGE and is reported as a failure.
constexpr size_t kLookupWorkSize = 1024;

// The usable address of a lookup's answer, or INADDR_NONE with *error set.
in_addr_t take_answer(const hostent* found, Answer answer, int* error) {
    in_addr_t address = INADDR_NONE;
    if (answer == Answer::TakenAsGiven) {
        if (found->h_addr_list && found->h_addr_list[0] && found->h_length >= 4) {
            std::memcpy(&address, found->h_addr_list[0], sizeof address);
        }
        return address;
    }
    if (found->h_addrtype == AF_INET && found->h_length == 4 && found->h_addr_list &&
        found->h_addr_list[0]) {
        std::memcpy(&address, found->h_addr_list[0], sizeof address);
    }
    if (address == INADDR_NONE) *error = HOST_NOT_FOUND;
    return address;
}

}  // namespace

Resolved resolve_ipv4(const char* name, const ResolveCodes& codes, Answer answer,
                      TraceHandle* trace) {
    kemail::trace(trace, 1, codes.start);
    const in_addr_t literal = ::inet_addr(name);
    if (literal != INADDR_NONE) {
        trace_word(trace, 1, codes.literal, literal);
        return {literal, 0};
    }

    for (int attempt = 1;; ++attempt) {
        hostent entry;
        hostent* found = nullptr;
        char work[kLookupWorkSize];
        int error = 0;
        const int result = ::gethostbyname_r(name, &entry, work, sizeof work, &found, &error);
        if (result == 0 && found) {
            const in_addr_t address = take_answer(found, answer, &error);
            if (answer == Answer::TakenAsGiven || address != INADDR_NONE) {
                kemail::trace(trace, 2, codes.answered);
                trace_word(trace, 1, codes.resolved, address);
                return {address, 0};
            }
        }
        if (error != TRY_AGAIN || attempt >= kLookupTries) {
            // A name without an entry may leave the error at 0; a work area
            // too small reports ERANGE in the result.
            if (error == 0) {
                error = answer == Answer::TakenAsGiven && result != 0 ? result : HOST_NOT_FOUND;
            }
            return {INADDR_NONE, error};
        }
        kemail::trace(trace, 2, codes.busy);
        ::sleep(1);
    }
}

}  // namespace kemail::net
