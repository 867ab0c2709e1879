// What the SMTP tests share: a tap on the library's trace records (Twrite is
// interposed in this test program and still forwards to the library), a spy
// on the time-outs handed to select, sockets, files and the usual time-outs.
#pragma once

#include "kemail.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include <sys/time.h>

namespace smtp_test {

struct TraceEvent {
    unsigned level;
    std::string code;
    std::string data;  // empty when the record carries none
};

// Every trace record written by this thread since the last clear.
void trace_clear();
std::vector<TraceEvent> trace_events();
std::vector<std::string> trace_codes();
int trace_count(const std::string& code);
// The first record with this code; a record with level 99 when there is none.
TraceEvent trace_find(const std::string& code);
// True when the codes appear in this order (others may stand between them).
bool traced_in_order(const std::vector<std::string>& codes);

// Records the time-out of every select this thread calls while started.
void select_spy_start();
std::vector<struct timeval> select_spy_stop();

// The six phase time-outs set to `seconds` each.
void set_phase_timeouts(uint32_t seconds);

// A connected pair of stream sockets (AF_UNIX); both closed at the end.
struct SocketPair {
    SocketPair();
    ~SocketPair();
    SocketPair(const SocketPair&) = delete;
    SocketPair& operator=(const SocketPair&) = delete;
    // Writes bytes from the peer's side (all of them).
    void peer_send(const std::string& bytes) const;
    // Everything the peer can read now (without waiting).
    std::string peer_read_available() const;
    void close_peer();
    int ours = -1;
    int peer = -1;
};

// A file with the given bytes, opened for reading; removed at the end.
struct StagedFile {
    explicit StagedFile(const std::string& bytes);
    ~StagedFile();
    StagedFile(const StagedFile&) = delete;
    StagedFile& operator=(const StagedFile&) = delete;
    std::string path;
    int fd = -1;
};

// The reply text SMTP_GetSmtpSvResponce hands out.
std::string last_reply();

// 4-byte trace data as the word it carries.
uint32_t word_of(const TraceEvent& event);

}  // namespace smtp_test
