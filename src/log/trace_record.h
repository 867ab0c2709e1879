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

// Trace file layout, for the writer and for readers of the file. Offset 0
// holds the 32-bit write offset in host byte order; the ring runs from
// offset 4 to the end of the configured size. Records carry no length: a
// reader finds them by their four-byte markers.
namespace kemail::trace_format {

constexpr size_t kHeaderSize = 4;
constexpr size_t kMarkerSize = 4;
constexpr char kStart[] = "SSSS";
constexpr char kData[] = "XXXX";
constexpr char kEnd[] = "EEEE";
// "SSSS", the 32-bit time of the write, four reserved zero bytes.
constexpr size_t kRecordHead = 12;

}  // namespace kemail::trace_format
