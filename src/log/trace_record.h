// Shorthands for writing trace records: every subsystem traces codes with no
// data, a text, a 4-byte word or a raw block. Twrite never changes errno, so
// these may sit between a failing call and the read of errno.
#pragma once

#include "kemail.h"

#include <cstdint>
#include <cstring>

namespace kemail {

inline void trace(TraceHandle* handle, unsigned level, const char* code) {
    Twrite(handle, level, code, nullptr, 0);
}

inline void trace_data(TraceHandle* handle, unsigned level, const char* code, const void* data,
                       size_t length) {
    Twrite(handle, level, code, data, static_cast<unsigned>(length));
}

inline void trace_text(TraceHandle* handle, unsigned level, const char* code, const char* text) {
    Twrite(handle, level, code, text, text ? static_cast<unsigned>(std::strlen(text)) : 0);
}

// A 4-byte value in host byte order, as the trace reader expects it.
inline void trace_word(TraceHandle* handle, unsigned level, const char* code, uint32_t value) {
    Twrite(handle, level, code, &value, sizeof value);
}

}  // namespace kemail
