// kemail-trace: prints the records of kemail trace files, oldest first,
// with the data of records whose layout is known decoded (errno words with
// their names, result codes, resolver codes). Parsing lives in
// trace_reader.{h,cpp}; this file chooses, decodes and prints.
#include "trace_reader.h"
#include "text_join.h"

#include "kemail.h"

#include <netdb.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
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
#include <vector>

#ifndef KEMAIL_VERSION
#define KEMAIL_VERSION "unknown"
#endif

namespace {

using tools::cat;

const char kUsage[] =
    "Usage: kemail-trace [options] FILE...\n"
    "       kemail-trace --help | --version\n"
    "\n"
    "Prints the records of kemail trace files (memory-mapped rings written by\n"
    "the library, such as /var/opt/QRZNvolta/tmp2/acert<pid>-<thread>.trc),\n"
    "oldest first: the ring is read from its write offset to its end and on\n"
    "from offset 4, so records that wrapped across the end come out whole.\n"
    "Several files are merged by the time of their records.\n"
    "\n"
    "One line per record:\n"
    "  YYYY/MM/DD HH:MM:SS CODE [HEX BYTES  |PRINTABLE|] [= DECODED]\n"
    "with the record's time in local time, its code, and its data (if any) as\n"
    "hexadecimal bytes followed by a column in which bytes outside printable\n"
    "ASCII show as '.'. The data of records whose layout is known is decoded\n"
    "after \"=\": errno words with their names and texts, resolver codes, and\n"
    "result codes with their names. With several files each line starts with\n"
    "the file's name. On a terminal long data is cut to the terminal's width.\n"
    "\n"
    "Bytes that belong to no record are reported on lines beginning with\n"
    "\"--\": the partly overwritten oldest record, damage, a record without its\n"
    "end marker. Zero bytes (unused ring space) are skipped silently. A write\n"
    "offset outside the ring is reported and the ring is then read from\n"
    "offset 4.\n"
    "\n"
    "Options:\n"
    "  --failures    only records the library writes for a failure (records\n"
    "                carry no level; a built-in table of the failure codes\n"
    "                decides, and ACERTFFFF with a negative result)\n"
    "  --grep CODE   only records whose code contains CODE (case-insensitive)\n"
    "  --since TIME  only records at or after TIME: YYYY-MM-DD[ HH:MM[:SS]],\n"
    "                HH:MM[:SS] (today), or @SECONDS since the epoch\n"
    "  --tail N      only the last N of the chosen records\n"
    "  --full        never cut the data to the terminal's width\n"
    "  --json        one JSON object per record instead of text\n"
    "  --summary     the send's result, the last failing step and the server's\n"
    "                last reply, instead of the records\n"
    "  --size KB     the ring size in KB (the size the library rounded to, a\n"
    "                multiple of 8). Only needed for a file that an older,\n"
    "                larger configuration left longer than its ring: bytes past\n"
    "                the ring are then ignored. Default: the whole file.\n"
    "  -h, --help    shows this text.\n"
    "  --version     shows the version.\n"
    "\n"
    "Exit status: 0 when the files were read (even with skipped bytes), 1 when\n"
    "one cannot be read, is shorter than its 4-byte header or is not a trace\n"
    "file, 2 for a usage error.\n";

using trace_reader::Record;

// The data layout of a code.
enum class Layout { None, Errno, Resolver, PublicResult, Result };

struct CodeInfo {
    const char* code;
    Layout layout;
    bool failure;  // written at level 0 for a failure
};

// Codes whose data has a known layout, and the codes written for failures.
const CodeInfo kCodes[] = {
    {"ACERTFFFF", Layout::PublicResult, false}, {"EMAILAPI1140", Layout::PublicResult, true},
    {"getsmtp0030", Layout::Resolver, true},    {"smtp0010", Layout::Resolver, true},
    {"smtp0020", Layout::Errno, true},          {"smtp0040", Layout::Errno, true},
    {"smtp0050", Layout::Errno, true},          {"smtp0105", Layout::Errno, true},
    {"smtp0120", Layout::Errno, true},          {"smtp0121A", Layout::Errno, true},
    {"smtp0121D", Layout::Errno, true},         {"smtp0121Q", Layout::Result, true},
    {"smtp0121S", Layout::Errno, true},         {"smtp0125", Layout::Errno, true},
    {"smtp0220", Layout::Errno, true},          {"smtp0420", Layout::Errno, true},
    {"smtp0505", Layout::Errno, true},          {"smtp0510", Layout::Errno, true},
    {"smtp0d05", Layout::Errno, true},          {"smtp0e03", Layout::Errno, true},
    {"smtp0e05", Layout::Errno, true},          {"smtp0f02", Layout::Errno, true},
    {"smtp0f03", Layout::Errno, true},          {"smtp0f05", Layout::Errno, true},
    {"AUTHR0005", Layout::Errno, true},         {"INIAH0030", Layout::Result, true},
    {"smtp0052", Layout::None, true},           {"smtp0122B", Layout::None, true},
    {"smtp0122C", Layout::Errno, true},         {"smtp0122D", Layout::Errno, true},
    {"smtp0122F", Layout::None, true},          {"smtp0122G", Layout::None, true},
    {"smtp0122J", Layout::Errno, true},         {"smtp0122K", Layout::Errno, true},
    {"Pop3_0d10", Layout::None, true},          {"Pop3_0d20", Layout::None, true},
    {"Pop3_0d30", Layout::None, true},          {"Pop3_0d40", Layout::None, true},
    {"BEFORE0220", Layout::None, true},         {"BEFORE0340", Layout::None, true},
    {"AUTHR0010", Layout::None, true},          {"AUTHR0025", Layout::None, true},
    {"CHKOVER0010", Layout::None, true},        {"GETSLCT0010", Layout::None, true},
    {"GETSLCT0020", Layout::None, true},        {"INCRAM0015", Layout::None, true},
    {"INCRAM0020", Layout::None, true},         {"INCRAM0040", Layout::None, true},
    {"INIAH0015", Layout::None, true},          {"INIAH0020", Layout::None, true},
    {"INLGIN0020", Layout::None, true},         {"INLGIN0050", Layout::None, true},
    {"INLGIN0070", Layout::None, true},         {"INPLAN0025", Layout::None, true},
    {"RSET0020", Layout::None, true},           {"smtp0115", Layout::None, true},
    {"smtp0121", Layout::None, true},           {"smtp0121V", Layout::None, true},
    {"smtp0130", Layout::None, true},           {"smtp0140", Layout::None, true},
    {"smtp0150", Layout::None, true},           {"smtp0190", Layout::None, true},
    {"smtp0410-2", Layout::None, true},         {"smtp0e00", Layout::None, true},
    {"smtp0e10", Layout::None, true},           {"smtp0f10", Layout::None, true},
    {"smtp1010", Layout::None, true},           {"smtp1020", Layout::None, true},
    {"smtp1210", Layout::None, true},           {"EMAILAPI0010", Layout::None, true},
    {"EMAILAPI0020", Layout::None, true},       {"EMAILAPI0030", Layout::None, true},
    {"EMAILAPI0035", Layout::None, true},       {"EMAILAPI0036", Layout::None, true},
    {"EMAILAPI0037", Layout::None, true},       {"EMAILAPI0040", Layout::None, true},
    {"EMAILAPI0042", Layout::None, true},       {"EMAILAPI0043", Layout::None, true},
    {"EMAILAPI0045", Layout::None, true},       {"EMAILAPI0046", Layout::None, true},
    {"EMAILAPI0053", Layout::None, true},       {"EMAILAPI0056", Layout::None, true},
    {"EMAILAPI0057", Layout::None, true},       {"EMAILAPI1020", Layout::None, true},
    {"EMAILAPI1120", Layout::None, true},       {"EMAILAPI1145", Layout::None, true},
    {"EMAILAPI006b", Layout::None, true},       {"EMAILAPI006c", Layout::None, true},
    {"EMAILAPI006d", Layout::None, true},       {"EMAILAPI00b8", Layout::None, true},
    {"getsmtp0031", Layout::Result, true},      {"getpop0031", Layout::Result, true},
};

const CodeInfo* code_info(const std::string& code) {
    for (const CodeInfo& info : kCodes)
        if (code == info.code) return &info;
    return nullptr;
}

struct ResultName {
    int code;
    const char* name;
};

const ResultName kResults[] = {
    {KEMAIL_OK, "KEMAIL_OK"},
    {KEMAIL_W_CONVERSION, "KEMAIL_W_CONVERSION"},
    {KEMAIL_W_NO_AUTH, "KEMAIL_W_NO_AUTH"},
    {KEMAIL_E_ARGUMENT, "KEMAIL_E_ARGUMENT"},
    {KEMAIL_E_NO_MEMORY, "KEMAIL_E_NO_MEMORY"},
    {KEMAIL_E_WORK_FILE, "KEMAIL_E_WORK_FILE"},
    {KEMAIL_E_TIMEOUT, "KEMAIL_E_TIMEOUT"},
    {KEMAIL_E_RECIPIENT, "KEMAIL_E_RECIPIENT"},
    {KEMAIL_E_REFUSED, "KEMAIL_E_REFUSED"},
    {KEMAIL_E_SOCKET, "KEMAIL_E_SOCKET"},
    {KEMAIL_E_ATTACHMENT, "KEMAIL_E_ATTACHMENT"},
    {KEMAIL_E_BUSY, "KEMAIL_E_BUSY"},
    {KEMAIL_E_UNREACHABLE, "KEMAIL_E_UNREACHABLE"},
    {KEMAIL_E_POP_REFUSED, "KEMAIL_E_POP_REFUSED"},
    {KEMAIL_E_POP_SYSTEM, "KEMAIL_E_POP_SYSTEM"},
    {KEMAIL_E_POP_TIMEOUT, "KEMAIL_E_POP_TIMEOUT"},
    {KEMAIL_E_POP_UNREACHABLE, "KEMAIL_E_POP_UNREACHABLE"},
    {KEMAIL_E_INTERNAL, "KEMAIL_E_INTERNAL"},
    {KEMAIL_E_AUTH_REFUSED, "KEMAIL_E_AUTH_REFUSED"},
    {KEMAIL_E_NO_AUTH, "KEMAIL_E_NO_AUTH"},
    {KEMAIL_E_TLS, "KEMAIL_E_TLS"},
};

bool word_of(const std::string& data, int32_t* value) {
    if (data.size() != 4) return false;
    std::memcpy(value, data.data(), 4);
    return true;
}

// The decoded data of a record, or "" when its layout is not known.
std::string decode(const Record& record) {
    const CodeInfo* info = code_info(record.code);
    int32_t value = 0;
    if (!info || !word_of(record.data, &value)) return "";
    std::string out;
    switch (info->layout) {
        case Layout::None: return "";
        case Layout::Errno: {
            out = cat("errno ", std::to_string(value));
            if (const char* name = strerrorname_np(value)) out += std::string(" ") + name;
            out += std::string(" (") + std::strerror(value) + ")";
            return out;
        }
        case Layout::Resolver:
            return cat("resolver ", std::to_string(value)) + " (" + hstrerror(value) + ")";
        case Layout::PublicResult:
            out = cat("result ", std::to_string(value));
            for (const ResultName& r : kResults)
                if (r.code == value) out += std::string(" ") + r.name;
            return out;
        case Layout::Result: return cat("result ", std::to_string(value));
    }
    return "";
}

bool is_failure(const Record& record) {
    const CodeInfo* info = code_info(record.code);
    if (!info) return false;
    if (info->layout == Layout::PublicResult) {
        int32_t value = 0;
        return word_of(record.data, &value) && value < 0;
    }
    return info->failure;
}

bool printable(unsigned char c) { return c >= 0x20 && c < 0x7f; }

std::string time_text(uint32_t stamp) {
    const time_t seconds = static_cast<time_t>(stamp);
    struct tm local = {};
    char text[32];
    if (!localtime_r(&seconds, &local) ||
        std::strftime(text, sizeof text, "%Y/%m/%d %H:%M:%S", &local) == 0)
        return cat("(time ", std::to_string(stamp)) + ")";
    return text;
}

// Codes are plain text; anything else is shown escaped so that a damaged
// code cannot mess up the terminal.
std::string code_text(const std::string& code) {
    std::string out;
    char hex[8];
    for (unsigned char c : code) {
        if (printable(c) && c != '\\') {
            out += static_cast<char>(c);
        } else {
            std::snprintf(hex, sizeof hex, "\\x%02x", c);
            out += hex;
        }
    }
    return out;
}

// " HEX  |PRINTABLE|" for at most `shown` bytes; "..." marks a cut.
std::string data_columns(const std::string& data, size_t shown) {
    const bool cut = shown < data.size();
    const size_t n = cut ? shown : data.size();
    std::string out;
    char hex[4];
    for (size_t i = 0; i < n; ++i) {
        std::snprintf(hex, sizeof hex, " %02x", static_cast<unsigned char>(data[i]));
        out += hex;
    }
    out += cut ? " ...  |" : "  |";
    for (size_t i = 0; i < n; ++i) {
        const unsigned char c = static_cast<unsigned char>(data[i]);
        out += printable(c) ? static_cast<char>(c) : '.';
    }
    out += cut ? "...|" : "|";
    if (cut) out += cat(" (", std::to_string(data.size())) + " bytes; --full shows all)";
    return out;
}

std::string json_string(const std::string& text) {
    std::string out = "\"";
    char hex[8];
    for (unsigned char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (printable(c)) {
            out += static_cast<char>(c);
        } else {
            std::snprintf(hex, sizeof hex, "\\u%04x", c);
            out += hex;
        }
    }
    return out + "\"";
}

std::string hex_of(const std::string& data) {
    std::string out;
    char hex[4];
    for (unsigned char c : data) {
        std::snprintf(hex, sizeof hex, "%02x", c);
        out += hex;
    }
    return out;
}

// A server reply traced as data: "NNN " or "NNN-" (SMTP), "+OK"/"-ERR" (POP3).
bool is_reply(const std::string& data) {
    if (data.size() >= 4 && data[0] >= '2' && data[0] <= '5' &&
        std::isdigit(static_cast<unsigned char>(data[1])) &&
        std::isdigit(static_cast<unsigned char>(data[2])) && (data[3] == ' ' || data[3] == '-'))
        return true;
    return data.rfind("+OK", 0) == 0 || data.rfind("-ERR", 0) == 0;
}

// A text on one line, at most 200 characters (the rest marked "...").
std::string one_line(const std::string& text) {
    std::string out;
    for (unsigned char c : text) {
        if (c == '\r' || c == '\n') continue;
        if (out.size() == 200) return out + "...";
        out += printable(c) ? static_cast<char>(c) : '.';
    }
    return out;
}

bool parse_size(const char* text, unsigned long* kb) {
    char* end = nullptr;
    errno = 0;
    const unsigned long value = std::strtoul(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || value == 0 || value > (1ul << 22))
        return false;
    *kb = value;
    return true;
}

bool parse_count(const char* text, unsigned long* count) {
    char* end = nullptr;
    errno = 0;
    const unsigned long value = std::strtoul(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || text[0] == '-') return false;
    *count = value;
    return true;
}

// TIME as seconds since the epoch, in local time.
bool parse_since(const std::string& text, time_t* out) {
    if (!text.empty() && text[0] == '@') {
        char* end = nullptr;
        errno = 0;
        const long long value = std::strtoll(text.c_str() + 1, &end, 10);
        if (errno != 0 || end == text.c_str() + 1 || *end != '\0') return false;
        *out = static_cast<time_t>(value);
        return true;
    }
    const time_t now = std::time(nullptr);
    static const char* const kDated[] = {"%Y-%m-%d %H:%M:%S", "%Y-%m-%d %H:%M", "%Y-%m-%d"};
    static const char* const kToday[] = {"%H:%M:%S", "%H:%M"};
    for (const char* format : kDated) {
        struct tm tm = {};
        const char* end = strptime(text.c_str(), format, &tm);
        if (end && *end == '\0') {
            tm.tm_isdst = -1;
            *out = std::mktime(&tm);
            return *out != static_cast<time_t>(-1);
        }
    }
    for (const char* format : kToday) {
        struct tm tm = {};
        if (!localtime_r(&now, &tm)) return false;
        const char* end = strptime(text.c_str(), format, &tm);
        if (end && *end == '\0') {
            if (std::strchr(format, 'S') == nullptr) tm.tm_sec = 0;
            tm.tm_isdst = -1;
            *out = std::mktime(&tm);
            return *out != static_cast<time_t>(-1);
        }
    }
    return false;
}

int usage_error(const std::string& message) {
    std::fprintf(stderr, "kemail-trace: %s\n(see kemail-trace --help)\n", message.c_str());
    return 2;
}

std::string base_name(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// One item to print: a record or a note, from one of the files.
struct Line {
    size_t file;
    uint32_t key;  // the record's time; a note takes that of the record before it
    trace_reader::Item item;
    // smtp0050 carries the connected socket, unless it follows a failed
    // attempt (smtp0040): then it is the give-up record with its errno. The
    // file keeps no levels, so the record before it tells them apart.
    bool connected = false;
};

std::string decode_line(const Line& line) {
    if (!line.connected) return decode(line.item.record);
    int32_t value = 0;
    return word_of(line.item.record.data, &value) ? cat("socket ", std::to_string(value)) : "";
}

bool line_is_failure(const Line& line) { return !line.connected && is_failure(line.item.record); }

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> paths;
    unsigned long size_kb = 0, tail = 0;
    bool failures = false, full = false, json = false, summary = false, have_tail = false;
    bool have_since = false;
    time_t since = 0;
    std::string grep;
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        const bool has_value = i + 1 < argc;
        if (arg == "--help" || arg == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (arg == "--version") {
            std::printf("kemail-trace %s\n", KEMAIL_VERSION);
            return 0;
        }
        if (arg == "--size") {
            if (!has_value || !parse_size(argv[i + 1], &size_kb))
                return usage_error("--size needs a size in KB (1 to 4194304)");
            ++i;
        } else if (arg == "--tail") {
            if (!has_value || !parse_count(argv[i + 1], &tail))
                return usage_error("--tail needs a number of records");
            have_tail = true;
            ++i;
        } else if (arg == "--grep") {
            if (!has_value || argv[i + 1][0] == '\0') return usage_error("--grep needs a CODE");
            grep = argv[++i];
            for (char& c : grep) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        } else if (arg == "--since") {
            if (!has_value || !parse_since(argv[i + 1], &since))
                return usage_error("--since needs YYYY-MM-DD[ HH:MM[:SS]], HH:MM[:SS] or @SECONDS");
            have_since = true;
            ++i;
        } else if (arg == "--failures") {
            failures = true;
        } else if (arg == "--full") {
            full = true;
        } else if (arg == "--json") {
            json = true;
        } else if (arg == "--summary") {
            summary = true;
        } else if (arg.size() > 1 && arg[0] == '-') {
            return usage_error("unknown option " + std::string(arg));
        } else {
            paths.emplace_back(arg);
        }
    }
    if (paths.empty()) return usage_error("no FILE given");
    const bool several = paths.size() > 1;

    std::vector<Line> lines;
    for (size_t f = 0; f < paths.size(); ++f) {
        const std::string& path = paths[f];
        std::ifstream in(path, std::ios::binary);
        if (!in) {
            std::fprintf(stderr, "kemail-trace: %s: cannot open: %s\n", path.c_str(),
                         std::strerror(errno));
            return 1;
        }
        const std::string file((std::istreambuf_iterator<char>(in)),
                               std::istreambuf_iterator<char>());
        if (in.bad()) {
            std::fprintf(stderr, "kemail-trace: %s: read error\n", path.c_str());
            return 1;
        }
        trace_reader::Ring ring;
        std::string why;
        if (!trace_reader::read_ring(file, static_cast<size_t>(size_kb) * 1024, &ring, &why)) {
            std::fprintf(stderr, "kemail-trace: %s: %s\n", path.c_str(), why.c_str());
            return 1;
        }
        if (!trace_reader::looks_like_trace(file, ring)) {
            std::fprintf(stderr,
                         "kemail-trace: %s: not a kemail trace file (no record markers, write"
                         " offset %s)\n",
                         path.c_str(), ring.items.empty() ? "in range" : "out of range");
            return 1;
        }
        if (ring.records == 0 && ring.incomplete == 0) {
            trace_reader::Item none;
            none.note = "no records";
            ring.items.push_back(none);
        }
        uint32_t key = 0;
        std::string previous;
        for (trace_reader::Item& item : ring.items) {
            bool connected = false;
            if (item.is_record) {
                key = item.record.time;
                connected = item.record.code == "smtp0050" && previous != "smtp0040";
                previous = item.record.code;
            }
            lines.push_back({f, key, std::move(item), connected});
        }
    }
    // Merge by time; a file's own order stays (its ring order is oldest first).
    if (several) {
        std::stable_sort(lines.begin(), lines.end(),
                         [](const Line& a, const Line& b) { return a.key < b.key; });
    }

    const bool filtering = failures || !grep.empty() || have_since || have_tail;
    std::vector<const Line*> chosen;
    for (const Line& line : lines) {
        if (!line.item.is_record) {
            if (!filtering && !json && !summary) chosen.push_back(&line);
            continue;
        }
        const Record& r = line.item.record;
        if (failures && !line_is_failure(line)) continue;
        if (have_since && static_cast<time_t>(r.time) < since) continue;
        if (!grep.empty()) {
            std::string code = r.code;
            for (char& c : code) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
            if (code.find(grep) == std::string::npos) continue;
        }
        chosen.push_back(&line);
    }
    if (have_tail && chosen.size() > tail)
        chosen.erase(chosen.begin(), chosen.end() - static_cast<long>(tail));

    if (summary) {
        const Record* result = nullptr;
        const Line* failure = nullptr;
        const Record* reply = nullptr;
        for (const Line* line : chosen) {
            const Record& r = line->item.record;
            if (r.code == "ACERTFFFF") result = &r;
            const CodeInfo* info = code_info(r.code);
            if (line_is_failure(*line) && !(info && info->layout == Layout::PublicResult))
                failure = line;
            if (is_reply(r.data)) reply = &r;
        }
        auto show = [](const char* label, const Record* r, const std::string& what) {
            if (!r) {
                std::printf("%-20s none\n", label);
                return;
            }
            std::printf("%-20s %s %s%s%s\n", label, time_text(r->time).c_str(),
                        code_text(r->code).c_str(), what.empty() ? "" : " ", what.c_str());
        };
        show("result:", result, result ? decode(*result) : "");
        const Record* failed = failure ? &failure->item.record : nullptr;
        show("last failing step:", failed,
             failure
                 ? (decode_line(*failure).empty() ? one_line(failed->data) : decode_line(*failure))
                 : "");
        show("server's last reply:", reply, reply ? one_line(reply->data) : "");
        return 0;
    }

    if (filtering && chosen.empty()) std::fprintf(stderr, "kemail-trace: no record matches\n");

    size_t width = 0;  // 0: no cut
    if (!full && !json && ::isatty(STDOUT_FILENO) == 1) {
        struct winsize size = {};
        if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
            width = size.ws_col;
        else
            width = 80;
    }
    for (const Line* line : chosen) {
        const std::string prefix = several ? base_name(paths[line->file]) + ": " : "";
        if (!line->item.is_record) {
            std::printf("%s-- %s\n", prefix.c_str(), line->item.note.c_str());
            continue;
        }
        const Record& r = line->item.record;
        const std::string decoded = decode_line(*line);
        if (json) {
            std::printf(
                "{%s\"time\":%u,\"time_text\":%s,\"code\":%s,\"data_hex\":%s,"
                "\"data_text\":%s,\"decoded\":%s,\"failure\":%s,\"offset\":%zu}\n",
                several ? ("\"file\":" + json_string(paths[line->file]) + ",").c_str() : "", r.time,
                json_string(time_text(r.time)).c_str(), json_string(r.code).c_str(),
                json_string(hex_of(r.data)).c_str(), json_string(r.data).c_str(),
                decoded.empty() ? "null" : json_string(decoded).c_str(),
                line_is_failure(*line) ? "true" : "false", r.offset);
            continue;
        }
        std::string text = prefix + time_text(r.time) + " " + code_text(r.code);
        if (!r.data.empty()) {
            size_t shown = r.data.size();
            if (width > 0) {
                // Each byte takes 3 columns of hex and 1 of text, plus the
                // frame and the note about the cut.
                const size_t used =
                    text.size() + 8 + 32 + (decoded.empty() ? 0 : decoded.size() + 3);
                shown = width > used ? std::min(shown, (width - used) / 4) : 0;
                if (shown == 0) shown = std::min<size_t>(r.data.size(), 4);
            }
            text += data_columns(r.data, shown);
        }
        if (!decoded.empty()) text += " = " + decoded;
        std::printf("%s\n", text.c_str());
    }
    return 0;
}
