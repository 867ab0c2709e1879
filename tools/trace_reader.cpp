#include "trace_reader.h"
#include "text_join.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace trace_reader {
namespace {

using tools::cat;

constexpr size_t kHeaderSize = 4;
constexpr size_t kMarkerSize = 4;
constexpr size_t kRecordHead = 12;  // "SSSS", time, reserved
constexpr std::string_view kStart("SSSS", 4);
constexpr std::string_view kData("XXXX", 4);
constexpr std::string_view kEnd("EEEE", 4);

uint32_t word_at(std::string_view bytes, size_t offset) {
    uint32_t word = 0;
    std::memcpy(&word, bytes.data() + offset, sizeof word);
    return word;
}

// Ring positions of the linear (oldest-first) sequence, for notes.
struct RingMap {
    size_t write_offset;  // ring offset of linear position 0
    size_t ring_end;

    size_t offset_of(size_t linear) const {
        const size_t first_part = ring_end - write_offset;
        return linear < first_part ? write_offset + linear : kHeaderSize + (linear - first_part);
    }
};

void add_note(Ring* ring, std::string text) {
    Item item;
    item.note = std::move(text);
    ring->items.push_back(std::move(item));
}

// A stretch of bytes that belongs to no record, trimmed of the zero bytes
// (unused ring space) around it; an all-zero stretch is not reported.
void note_skipped(Ring* ring, std::string_view stream, size_t from, size_t to, const RingMap& map) {
    while (from < to && stream[from] == '\0') ++from;
    while (to > from && stream[to - 1] == '\0') --to;
    if (from >= to) return;
    add_note(ring, cat("skipped ", std::to_string(to - from)) +
                       " bytes without a marker at file offset " +
                       std::to_string(map.offset_of(from)));
}

// Codes may end in "E" (a hexadecimal step number), so the end marker is
// the last four bytes of a run of "E"s.
size_t last_of_end_run(std::string_view stream, size_t at) {
    while (at + kMarkerSize < stream.size() && stream[at + kMarkerSize] == 'E') ++at;
    return at;
}

// Where a record's data ends: the first "EEEE" followed by the end of the
// stream or by the next record's "SSSS" (data is raw and may hold the
// markers itself); failing that, the first "EEEE" at all.
size_t find_data_end(std::string_view stream, size_t from) {
    size_t first = std::string_view::npos;
    for (size_t at = stream.find(kEnd, from); at != std::string_view::npos;
         at = stream.find(kEnd, at + 1)) {
        if (first == std::string_view::npos) first = at;
        const size_t after = at + kMarkerSize;
        if (after == stream.size() || stream.substr(after, kMarkerSize) == kStart) return at;
    }
    return first == std::string_view::npos ? first : last_of_end_run(stream, first);
}

void read_records(std::string_view stream, const RingMap& map, Ring* ring) {
    size_t pos = 0;
    while (pos < stream.size()) {
        const size_t start = stream.find(kStart, pos);
        if (start == std::string_view::npos) {
            note_skipped(ring, stream, pos, stream.size(), map);
            break;
        }
        note_skipped(ring, stream, pos, start, map);
        const std::string at = cat(" at file offset ", std::to_string(map.offset_of(start)));
        const size_t code_begin = start + kRecordHead;
        if (code_begin > stream.size()) {
            add_note(ring, "skipped an incomplete record" + at + ": it ends inside its header");
            ++ring->incomplete;
            break;
        }
        // The code runs up to the data marker or the end marker, whichever
        // comes first.
        const size_t data_marker = stream.find(kData, code_begin);
        const size_t end_marker = stream.find(kEnd, code_begin);
        size_t code_end = std::min(data_marker, end_marker);
        if (code_end == std::string_view::npos) {
            add_note(ring, cat("skipped ", std::to_string(stream.size() - start)) + " bytes" + at +
                               ": a record without an end marker");
            ++ring->incomplete;
            break;
        }
        // A record cut short by damage: a new start marker before its end.
        const size_t next_start = stream.find(kStart, code_begin);
        if (next_start < code_end) {
            add_note(ring, "skipped an incomplete record" + at +
                               ": no end marker before the next record");
            ++ring->incomplete;
            pos = next_start;
            continue;
        }
        Item item;
        item.is_record = true;
        size_t record_end;
        if (code_end == data_marker) {
            const size_t data_begin = data_marker + kMarkerSize;
            const size_t data_end = find_data_end(stream, data_begin);
            if (data_end == std::string_view::npos) {
                add_note(ring,
                         "skipped an incomplete record" + at + ": its data has no end marker");
                ++ring->incomplete;
                pos = start + kMarkerSize;
                continue;
            }
            item.record.data = std::string(stream.substr(data_begin, data_end - data_begin));
            record_end = data_end + kMarkerSize;
        } else {
            code_end = last_of_end_run(stream, end_marker);
            record_end = code_end + kMarkerSize;
        }
        item.record.time = word_at(stream, start + kMarkerSize);
        item.record.code = std::string(stream.substr(code_begin, code_end - code_begin));
        item.record.offset = map.offset_of(start);
        ring->items.push_back(std::move(item));
        ++ring->records;
        pos = record_end;
    }
}

}  // namespace

bool read_ring(const std::string& file, size_t ring_size, Ring* ring, std::string* why) {
    *ring = Ring();
    if (file.size() < kHeaderSize) {
        *why = cat("the file is ", std::to_string(file.size())) +
               " bytes long, shorter than its 4-byte header; nothing to show";
        return false;
    }
    size_t ring_end = file.size();
    if (ring_size != 0) {
        if (ring_size < file.size()) {
            add_note(ring, cat("ignored ", std::to_string(file.size() - ring_size)) +
                               " bytes past the " + std::to_string(ring_size / 1024) + " KB ring");
            ring_end = std::max(ring_size, kHeaderSize);
        } else if (ring_size > file.size()) {
            add_note(ring,
                     cat("the file is only ", std::to_string(file.size())) +
                         cat(" bytes long, shorter than the ", std::to_string(ring_size / 1024)) +
                         " KB ring; reading what is there");
        }
    }
    const std::string_view bytes(file.data(), ring_end);
    size_t write_offset = word_at(bytes, 0);
    if (write_offset < kHeaderSize || write_offset > ring_end) {
        add_note(ring, cat("write offset ", std::to_string(write_offset)) +
                           " is out of range (4 to " + std::to_string(ring_end) +
                           "); reading the ring from offset 4");
        write_offset = kHeaderSize;
    }
    // Oldest first: from the write offset to the end, then from offset 4 up
    // to the write offset.
    std::string stream;
    stream.reserve(ring_end - kHeaderSize);
    stream.append(bytes.substr(write_offset));
    stream.append(bytes.substr(kHeaderSize, write_offset - kHeaderSize));
    read_records(stream, RingMap{write_offset, ring_end}, ring);
    return true;
}

bool looks_like_trace(const std::string& file, const Ring& ring) {
    if (ring.records > 0 || ring.incomplete > 0) return true;
    if (file.size() < kHeaderSize) return false;
    const std::string_view bytes(file);
    if (bytes.find(kStart) != std::string_view::npos ||
        bytes.find(kData) != std::string_view::npos || bytes.find(kEnd) != std::string_view::npos)
        return true;  // damaged or cut, but made of trace records
    // An empty ring: the write offset inside the file, zero bytes behind it.
    const uint32_t offset = word_at(bytes, 0);
    if (offset < kHeaderSize || offset > file.size()) return false;
    return std::all_of(file.begin() + kHeaderSize, file.end(), [](char c) { return c == '\0'; });
}

}  // namespace trace_reader
