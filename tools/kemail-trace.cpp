// kemail-trace: prints the records of a kemail trace file, oldest first.
//
// A trace file is a ring: a 32-bit write offset at offset 0, then records
// back to back from offset 4, wrapping at the end of the ring. A record is
// "SSSS", a 32-bit time, four reserved bytes, the code text, optionally
// "XXXX" and raw data, and "EEEE". Records have no length field, so the
// reader finds them by their markers; whatever lies between records (the
// half-overwritten oldest record, damage) is skipped and reported.
#include "../src/log/trace_record.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

namespace {

namespace format = kemail::trace_format;

const char kUsage[] =
    "Usage: kemail-trace [--size KB] FILE\n"
    "       kemail-trace --help\n"
    "\n"
    "Prints the records of a kemail trace file (a memory-mapped ring written by\n"
    "the library, such as /var/opt/QRZNvolta/tmp2/acert<pid>-<thread>.trc),\n"
    "oldest first: the ring is read from its write offset to its end and on\n"
    "from offset 4, so records that wrapped across the end come out whole.\n"
    "\n"
    "One line per record:\n"
    "  YYYY/MM/DD HH:MM:SS CODE [HEX BYTES  |PRINTABLE|]\n"
    "with the record's time in local time, its code, and its data (if any) as\n"
    "hexadecimal bytes followed by a column in which bytes outside printable\n"
    "ASCII show as '.'.\n"
    "\n"
    "Bytes that belong to no record are reported on lines beginning with\n"
    "\"--\": the partly overwritten oldest record, damage, a record without its\n"
    "end marker. Zero bytes (unused ring space) are skipped silently. A write\n"
    "offset outside the ring is reported and the ring is then read from\n"
    "offset 4.\n"
    "\n"
    "Options:\n"
    "  --size KB   the ring size in KB (the size the library rounded to, a\n"
    "              multiple of 8). Only needed for a file that an older,\n"
    "              larger configuration left longer than its ring: bytes past\n"
    "              the ring are then ignored. Default: the whole file.\n"
    "  --help      shows this text.\n"
    "\n"
    "Exit status: 0 when the file was read (even with skipped bytes), 1 when\n"
    "it cannot be read or is shorter than its 4-byte header, 2 for a usage\n"
    "error.\n";

constexpr std::string_view kStart(format::kStart, format::kMarkerSize);
constexpr std::string_view kData(format::kData, format::kMarkerSize);
constexpr std::string_view kEnd(format::kEnd, format::kMarkerSize);

uint32_t word_at(std::string_view bytes, size_t offset) {
    uint32_t word = 0;
    std::memcpy(&word, bytes.data() + offset, sizeof word);
    return word;
}

void print_time(uint32_t stamp) {
    const time_t seconds = static_cast<time_t>(stamp);
    struct tm local = {};
    if (!localtime_r(&seconds, &local)) {
        std::printf("(time %u)", stamp);
        return;
    }
    std::printf("%04d/%02d/%02d %02d:%02d:%02d", local.tm_year + 1900, local.tm_mon + 1,
                local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
}

bool printable(unsigned char c) { return c >= 0x20 && c < 0x7f; }

// Codes are plain text; anything else is shown escaped so that a damaged
// code cannot mess up the terminal.
void print_code(std::string_view code) {
    for (unsigned char c : code) {
        if (printable(c) && c != '\\') {
            std::putchar(c);
        } else {
            std::printf("\\x%02x", c);
        }
    }
}

void print_data(std::string_view data) {
    for (unsigned char c : data) std::printf(" %02x", c);
    std::printf("  |");
    for (unsigned char c : data) std::putchar(printable(c) ? c : '.');
    std::putchar('|');
}

// Ring positions of the linear (oldest-first) sequence, for messages.
struct RingMap {
    size_t write_offset;  // ring offset of linear position 0
    size_t ring_end;

    size_t offset_of(size_t linear) const {
        const size_t first_part = ring_end - write_offset;
        return linear < first_part ? write_offset + linear
                                   : format::kHeaderSize + (linear - first_part);
    }
};

// Reports a stretch of bytes that belongs to no record, trimmed of the zero
// bytes (unused ring space) around it; an all-zero stretch is not reported.
void report_skipped(std::string_view stream, size_t from, size_t to, const RingMap& map) {
    while (from < to && stream[from] == '\0') ++from;
    while (to > from && stream[to - 1] == '\0') --to;
    if (from >= to) return;
    std::printf("-- skipped %zu bytes without a marker at file offset %zu\n", to - from,
                map.offset_of(from));
}

// Codes may end in "E" (a hexadecimal step number), so the end marker is
// the last four bytes of a run of "E"s.
size_t last_of_end_run(std::string_view stream, size_t at) {
    while (at + format::kMarkerSize < stream.size() && stream[at + format::kMarkerSize] == 'E') ++at;
    return at;
}

// Finds where a record's data ends: the first "EEEE" followed by the end of
// the stream or by the next record's "SSSS" (data is raw and may hold the
// markers itself); failing that, the first "EEEE" at all.
size_t find_data_end(std::string_view stream, size_t from) {
    size_t first = std::string_view::npos;
    for (size_t at = stream.find(kEnd, from); at != std::string_view::npos;
         at = stream.find(kEnd, at + 1)) {
        if (first == std::string_view::npos) first = at;
        const size_t after = at + format::kMarkerSize;
        if (after == stream.size() || stream.substr(after, format::kMarkerSize) == kStart) {
            return at;
        }
    }
    return first == std::string_view::npos ? first : last_of_end_run(stream, first);
}

struct Counts {
    size_t records = 0;
    size_t incomplete = 0;
};

// Prints every record of the linear stream.
Counts print_records(std::string_view stream, const RingMap& map) {
    Counts counts;
    size_t pos = 0;
    while (pos < stream.size()) {
        const size_t start = stream.find(kStart, pos);
        if (start == std::string_view::npos) {
            report_skipped(stream, pos, stream.size(), map);
            break;
        }
        report_skipped(stream, pos, start, map);
        const size_t code_begin = start + format::kRecordHead;
        if (code_begin > stream.size()) {
            std::printf("-- skipped an incomplete record at file offset %zu: it ends inside its"
                        " header\n", map.offset_of(start));
            ++counts.incomplete;
            break;
        }
        // The code runs up to the data marker or the end marker, whichever
        // comes first.
        const size_t data_marker = stream.find(kData, code_begin);
        const size_t end_marker = stream.find(kEnd, code_begin);
        size_t code_end = std::min(data_marker, end_marker);
        if (code_end == std::string_view::npos) {
            // No end marker anywhere after it: nothing further can be whole.
            std::printf("-- skipped %zu bytes at file offset %zu: a record without an end"
                        " marker\n", stream.size() - start, map.offset_of(start));
            ++counts.incomplete;
            break;
        }
        // A record cut short by damage: a new start marker before this
        // record's end.
        const size_t next_start = stream.find(kStart, code_begin);
        if (next_start < code_end) {
            std::printf("-- skipped an incomplete record at file offset %zu: no end marker before"
                        " the next record\n", map.offset_of(start));
            ++counts.incomplete;
            pos = next_start;
            continue;
        }
        std::string_view data;
        size_t record_end;
        if (code_end == data_marker) {
            const size_t data_begin = data_marker + format::kMarkerSize;
            const size_t data_end = find_data_end(stream, data_begin);
            if (data_end == std::string_view::npos) {
                std::printf("-- skipped an incomplete record at file offset %zu: its data has no"
                            " end marker\n", map.offset_of(start));
                ++counts.incomplete;
                pos = start + format::kMarkerSize;
                continue;
            }
            data = stream.substr(data_begin, data_end - data_begin);
            record_end = data_end + format::kMarkerSize;
        } else {
            code_end = last_of_end_run(stream, end_marker);
            record_end = code_end + format::kMarkerSize;
        }
        print_time(word_at(stream, start + format::kMarkerSize));
        std::putchar(' ');
        print_code(stream.substr(code_begin, code_end - code_begin));
        if (!data.empty()) print_data(data);
        std::putchar('\n');
        ++counts.records;
        pos = record_end;
    }
    return counts;
}

bool parse_size(const char* text, unsigned long* kb) {
    char* end = nullptr;
    errno = 0;
    const unsigned long value = std::strtoul(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || value == 0 || value > (1ul << 22)) {
        return false;
    }
    *kb = value;
    return true;
}

int usage_error(const char* message) {
    std::fprintf(stderr, "kemail-trace: %s\n(see kemail-trace --help)\n", message);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    const char* path = nullptr;
    unsigned long size_kb = 0;
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (arg == "--size") {
            if (i + 1 >= argc || !parse_size(argv[i + 1], &size_kb)) {
                return usage_error("--size needs a size in KB (1 to 4194304)");
            }
            ++i;
        } else if (arg.size() > 1 && arg[0] == '-') {
            return usage_error("unknown option");
        } else if (path) {
            return usage_error("only one FILE may be given");
        } else {
            path = argv[i];
        }
    }
    if (!path) return usage_error("no FILE given");

    std::ifstream in(path, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "kemail-trace: %s: cannot open: %s\n", path, std::strerror(errno));
        return 1;
    }
    const std::string file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad()) {
        std::fprintf(stderr, "kemail-trace: %s: read error\n", path);
        return 1;
    }
    if (file.size() < format::kHeaderSize) {
        std::fprintf(stderr,
                     "kemail-trace: %s: the file is %zu bytes long, shorter than its 4-byte"
                     " header; nothing to show\n",
                     path, file.size());
        return 1;
    }

    size_t ring_end = file.size();
    if (size_kb != 0) {
        const size_t wanted = static_cast<size_t>(size_kb) * 1024;
        if (wanted < file.size()) {
            std::printf("-- ignored %zu bytes past the %lu KB ring\n", file.size() - wanted,
                        size_kb);
            ring_end = wanted;
        } else if (wanted > file.size()) {
            std::printf("-- the file is only %zu bytes long, shorter than the %lu KB ring; reading"
                        " what is there\n", file.size(), size_kb);
        }
    }

    const std::string_view ring(file.data(), ring_end);
    size_t write_offset = word_at(ring, 0);
    if (write_offset < format::kHeaderSize || write_offset > ring_end) {
        std::printf("-- write offset %zu is out of range (4 to %zu); reading the ring from"
                    " offset 4\n", write_offset, ring_end);
        write_offset = format::kHeaderSize;
    }
    // Oldest first: from the write offset to the end, then from offset 4 up
    // to the write offset.
    std::string stream;
    stream.reserve(ring_end - format::kHeaderSize);
    stream.append(ring.substr(write_offset));
    stream.append(ring.substr(format::kHeaderSize, write_offset - format::kHeaderSize));

    const RingMap map{write_offset, ring_end};
    const Counts counts = print_records(stream, map);
    if (counts.records == 0 && counts.incomplete == 0) std::printf("-- no records\n");
    return 0;
}
