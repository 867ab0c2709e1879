// Reads the records of a kemail trace file: bytes in, records out. No I/O,
// no printing, so that a fuzz target can drive it on arbitrary bytes.
//
// A trace file is a ring: a 32-bit write offset (host byte order) at offset
// 0, then records back to back from offset 4, wrapping at the end of the
// ring. A record is "SSSS", a 32-bit time, four reserved bytes, the code
// text, optionally "XXXX" and raw data, and "EEEE". Records have no length
// field, so the reader finds them by their markers; whatever lies between
// records (the half-overwritten oldest record, damage) is reported as a note.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace trace_reader {

struct Record {
    uint32_t time = 0;  // seconds since the epoch
    std::string code;   // raw bytes of the code text
    std::string data;   // raw data bytes; empty when the record has none
    size_t offset = 0;  // file offset of its "SSSS"
};

// What the reader met in order: a record, or a note about bytes that belong
// to no record ("-- ..." lines of kemail-trace).
struct Item {
    bool is_record = false;
    Record record;
    std::string note;
};

struct Ring {
    std::vector<Item> items;  // oldest first
    size_t records = 0;
    size_t incomplete = 0;
};

// Reads FILE (its whole content). ring_size: the ring's length in bytes (0:
// the whole file). False, with *why set, when the bytes cannot be a trace
// file: shorter than the 4-byte header.
bool read_ring(const std::string& file, size_t ring_size, Ring* ring, std::string* why);

// True when the bytes look like a trace file at all: the write offset lies
// in the ring, or at least one record marker is found. Used to refuse other
// files with a clear message.
bool looks_like_trace(const std::string& file, const Ring& ring);

}  // namespace trace_reader
