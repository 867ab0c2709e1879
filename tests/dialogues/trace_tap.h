// The records the library traces while a dialogue runs.
#pragma once

#include "kemail.h"

#include <string>
#include <vector>

namespace dialogue {

struct TraceEvent {
    unsigned level;
    std::string code;
    std::string data;  // empty when the record carries none
};

// Starts keeping the records written by the calling thread (and forgets the
// ones kept so far).
void tap_start();
// The records kept since tap_start().
std::vector<TraceEvent> tapped();

}  // namespace dialogue
