// Building blocks of the POP3 client shared by its connect, I/O and session
// code. Every helper traces to the handle it is given and stores the failing
// call's errno (or the resolver's error) in *err, 0 when there is none.
#pragma once

#include "kemail.h"

#include <ctime>

#include <netinet/in.h>
#include <sys/time.h>

namespace kemail {

// Every reply line is read into a buffer of this size: at most 1027 bytes
// and a NUL.
constexpr int kPop3LineSize = 1028;

// Resolves a dotted address or a host name (at most 5 attempts, 1 s apart,
// while the resolver answers TRY_AGAIN). Returns the IPv4 address in network
// order, or INADDR_NONE ((in_addr_t)-1) on failure: "255.255.255.255" fails
// as an unknown host (HOST_NOT_FOUND in *err).
in_addr_t Pop3_GetAddress(const char* server, int* err, TraceHandle* trace);

// Sends all length bytes (no time-out). Returns length, or -1.
int Pop3_Send(int sock, const char* bytes, int length, int* err, TraceHandle* trace);

// Reads one line, one byte per recv, up to and including LF or until size - 1
// bytes are stored, and NUL-terminates it. Each silence is bounded by
// g_ulPopTimeOut seconds. Returns the byte count, -1 (system error or the
// peer closed) or -17 (time-out). On failure buf is not terminated.
int Pop3_RecvLine(int sock, char* buf, int size, int* err, TraceHandle* trace);

// Reads one reply line and classifies it: 1 positive ("+OK" and more than
// three bytes), 2 anything else; -1 or -17 as Pop3_RecvLine.
int Pop3_RecvReply(int sock, char* buf, int size, int* err, TraceHandle* trace);

// Sets *wait to what remains of timeout seconds since *start (0 when used
// up); moves *start to now when the clock went back.
void Pop3_SetWait(struct timeval* wait, time_t* start, unsigned int timeout, TraceHandle* trace);

}  // namespace kemail
