// Records every trace record the library writes while a test runs: the test
// program defines Twrite itself, and the library's calls bind to it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace compose_test {

struct TraceRecord {
    unsigned level;
    std::string code;
    std::string data;
};

// Clears the record list (each fixture does so in SetUp).
void clear_traces();
const std::vector<TraceRecord>& traces();
// The codes written, in order.
std::vector<std::string> trace_codes();
bool has_trace(const std::string& code);
// The first record with this code; fails the test when there is none.
TraceRecord trace_of(const std::string& code);
uint32_t word_of(const TraceRecord& record);

}  // namespace compose_test
