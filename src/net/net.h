// IPv4 name resolution and, with ADDRESS_FAMILY=any, resolution of IPv6
// and IPv4 addresses; TCP connection and a select-based line reader,
// shared by the SMTP session and the POP3 client. Each caller keeps its own
// trace codes, retry counts and time-outs: these routines trace what happens
// inside their loops under the codes they are given, and return what the
// caller needs to trace, log and report the outcome. They never write the
// mail log.
#pragma once

#include "kemail.h"

#include <cstddef>

#include <memory>

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>

namespace kemail::net {

// ---- Resolution -----------------------------------------------------------

// Trace codes of one resolution: start and a literal address at level 1, a
// busy resolver (TRY_AGAIN, retried after 1 s) and an answer at level 2, the
// resolved address at level 1. Failures are traced by the caller.
struct ResolveCodes {
    const char* start;
    const char* literal;  // with the address (4 bytes)
    const char* busy;
    const char* answered;
    const char* resolved;  // with the address (4 bytes)
};

// What an answer of the resolver must be to count.
enum class Answer {
    // Any answer is taken: its first address, or 255.255.255.255 (the
    // failure value) when it has none of four bytes. A missing error number
    // is the call's result, or HOST_NOT_FOUND.
    TakenAsGiven,
    // Only one IPv4 address other than 255.255.255.255 (which is no server)
    // counts; anything else fails with HOST_NOT_FOUND.
    MustBeAServer,
};

struct Resolved {
    in_addr_t address;  // network order; INADDR_NONE on failure
    int error;          // 0, or the resolver's error on failure
};

// A dotted address is taken as it is, unless it reads as INADDR_NONE (so a
// literal 255.255.255.255 is looked up as a name); a name is looked up with
// gethostbyname_r, up to 5 times 1 s apart while the resolver answers
// TRY_AGAIN.
Resolved resolve_ipv4(const char* name, const ResolveCodes& codes, Answer answer,
                      TraceHandle* trace);

// ---- Connection -----------------------------------------------------------

struct ConnectCodes {
    const char* before_socket = nullptr;   // level 2
    const char* before_connect = nullptr;  // level 2
    const char* attempt_failed = nullptr;  // level 0 with errno, every failed connect
    const char* retrying = nullptr;        // a refusal, retried after 1 s
    unsigned retrying_level = 2;
    int refused_retries = 0;  // attempts after the first one refused
};

enum class Failed { Nothing, Socket, Connect };

struct Connection {
    int sock;       // the connected socket (close-on-exec), or -1
    Failed failed;  // which call failed when sock is -1
    int result;     // that call's return value
    int error;      // its errno
};

// Opens a TCP socket and connects it to peer, retrying refusals one second
// apart with a fresh socket each time. An interrupted connect is waited out
// (the kernel goes on connecting after EINTR) and its outcome fetched. On
// failure no socket is left open.
Connection connect_ipv4(const sockaddr_in& peer, const ConnectCodes& codes, TraceHandle* trace);

// ---- Any address family (ADDRESS_FAMILY=any) ------------------------------

// Trace codes of a resolution with getaddrinfo: start at level 1, a busy
// resolver (EAI_AGAIN, retried after 1 s), the answer and each of its
// addresses (the socket address) at level 2, the first address (its 4 or 16
// bytes) at level 1. Failures are traced by the caller.
struct AddressListCodes {
    const char* start;
    const char* busy;
    const char* answered;
    const char* address;
    const char* resolved;
};

struct AddrinfoFree {
    void operator()(addrinfo* list) const { ::freeaddrinfo(list); }
};
using AddressList = std::unique_ptr<addrinfo, AddrinfoFree>;

struct ResolvedList {
    AddressList list;  // the stream addresses in the resolver's order; null on failure
    int error;         // 0, or getaddrinfo's EAI_ code on failure
};

// Looks the name up for IPv6 and IPv4 TCP (AF_UNSPEC, SOCK_STREAM); a
// literal address of either family is taken as it is. Up to 5 lookups 1 s
// apart while the resolver answers EAI_AGAIN.
ResolvedList resolve_any(const char* name, const AddressListCodes& codes, TraceHandle* trace);

// Sets the port (network order) of every address of the list.
void set_port(addrinfo* list, uint16_t port);

struct AnyConnection {
    Connection connection;
    sockaddr_storage peer;  // the address connected to
    socklen_t peer_length;
};

// Tries each address of the list in order, `trying` (level 2, the socket
// address) before each. A round in which every address refused is retried
// as connect_ipv4 retries a refusal; a round with any other failure ends the
// attempts. On failure no socket is left open and the result is
// the last attempt's.
AnyConnection connect_any(const addrinfo* list, const ConnectCodes& codes, const char* trying,
                          TraceHandle* trace);

// ---- Line reading ---------------------------------------------------------

enum class LineEnd { CrLf, Lf };

// Events the reader retries after.
enum class Retry { SelectInterrupted, RecvInterrupted, PeerClosed };

// The caller's side of a line read: how long the next select may wait, and
// the trace of every retried event.
class LineWait {
public:
    // Computes the wait: once when the line begins, and again after every
    // retried event (never between ordinary arrivals, so every arrival may
    // take the whole remainder computed last).
    virtual void compute(struct timeval* wait) = 0;
    // Called before the wait is recomputed; error is the call's errno.
    virtual void retrying(Retry event, int error) = 0;

protected:
    ~LineWait() = default;
};

enum class LineStatus { Done, SelectFailed, TimedOut, RecvFailed, PeerClosed };

struct LineRead {
    LineStatus status;
    size_t count;  // bytes stored in the buffer
    int result;    // the failing call's return value
    int error;     // errno after the failing call (after select for TimedOut)
};

// After this many end-of-stream reads in a row, one more means the peer has
// closed (6 in all); an arrival in between starts the count again.
constexpr int kClosedPolls = 5;

// Reads up to `capacity` bytes of one line into buf, ending after the line's
// end (taken with it). Nothing after it is taken from the socket. A socket
// select cannot watch fails as SelectFailed with EBADF before any wait is
// computed. Does not terminate the text.
LineRead read_line(int sock, char* buf, size_t capacity, LineEnd end, LineWait& wait);

}  // namespace kemail::net
