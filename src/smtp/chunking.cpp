// Cutting the staged message into chunks for message/partial pieces. A chunk
// ends at a line end and never separates a MIME part's header block from
// the first line of its body.
#include "kemail.h"
#include "log/trace_record.h"
#include "smtp/smtp.h"
#include "util/byte_reader.h"
#include "util/util.h"

#include <cerrno>
#include <climits>
#include <algorithm>
#include <cstring>

#include <unistd.h>

using kemail::trace;
using kemail::trace_word;
using namespace kemail::smtp;

namespace {

constexpr int kLineSize = 1024;

// Reads until `want` bytes are in or the file ends; -1 on a read error.
ssize_t read_fully(int fd, char* dst, size_t want) {
    size_t got = 0;
    while (got < want) {
        const ssize_t n = read(fd, dst + got, want - got);
        if (n < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (n == 0) break;
        got += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(got);
}

// Blocks of 256 bytes: a chunk is extended by a line or two at a time.
using ByteReader = kemail::ByteReader<256>;

// Appends whole lines read from the file to dest, at most `room` bytes: with
// count 0 one line, with count 1 up to and including the next empty line and
// one line more. `before` holds the two bytes that precede dest (oldest
// first), so that a line end or an empty line that begins at dest is seen.
// Returns the bytes appended or -32 (errno in pulErr).
int append_lines(int fd, char* dest, size_t room, int count, const char before[2],
                 unsigned int* pulErr) {
    char two_back = before[0];
    char one_back = before[1];
    size_t appended = 0;
    ByteReader reader(fd);
    while (appended < room) {
        char byte;
        const ssize_t n = reader.next(&byte);
        if (n < 0) {
            *pulErr = static_cast<unsigned int>(errno);
            trace_word(g_trace, 0, "smtp1210", *pulErr);
            return kFileError;
        }
        if (n == 0) {
            trace(g_trace, 2, "smtp1211");
            break;
        }
        dest[appended++] = byte;
        if (one_back == '\r' && byte == '\n') {
            if (count == 0) break;
            if (two_back == '\n') --count;  // the line that just ended was empty
        }
        two_back = one_back;
        one_back = byte;
    }
    if (reader.give_back() != 0) {
        *pulErr = static_cast<unsigned int>(errno);
        trace_word(g_trace, 0, "smtp1210", *pulErr);
        return kFileError;
    }
    return static_cast<int>(appended);
}

bool ends_with_crlf(const char* buf, size_t length) {
    return length >= 2 && buf[length - 2] == '\r' && buf[length - 1] == '\n';
}

// What the chunk needs beyond its line end, found by walking its lines
// back from its end to the last boundary line.
enum class Extend { None, FirstBodyLine, HeaderAndFirstBodyLine };

Extend walk_back(const char* pBuf, size_t count, const char* pszBoundary) {
    // Every line of the walk below is a piece of the chunk, so a chunk that
    // holds no boundary anywhere (most pieces of a large attachment) would be
    // walked to its start for nothing.
    if (!pszBoundary || !*pszBoundary ||
        !kemail::holds_bytes(pBuf, count, pszBoundary, std::strlen(pszBoundary))) {
        trace(g_trace, 2, "smtp1030");
        return Extend::None;
    }
    char line[kLineSize];
    int end = static_cast<int>(count);
    int lines = 0;
    int empty_lines = 0;
    for (;;) {
        const int start = SMTP_getline(pBuf, end, line, kLineSize);
        ++lines;
        if (start == end - 2) ++empty_lines;
        if (std::strstr(line, pszBoundary)) {
            if (std::strstr(line, "--\r\n")) {
                trace(g_trace, 2, "smtp1031");
                return Extend::None;
            }
            if (lines > 1 && empty_lines > 0) {
                // The part's header block is complete in the chunk; if the
                // chunk ends right after it, take the first body line too.
                if (pBuf[count - 3] == '\n' && empty_lines == 1) return Extend::FirstBodyLine;
                return Extend::None;
            }
            // The boundary line ends the chunk or its header block is cut:
            // take the rest of the header block and one body line.
            return Extend::HeaderAndFirstBodyLine;
        }
        if (start <= 1) {
            trace(g_trace, 2, "smtp1030");
            return Extend::None;
        }
        end = start;
    }
}

// The rest of a full chunk from a file that cannot seek, read as the cut
// needs it: byte by byte to the line end, then the lines appended.
int extend_by_reading(int lFile, char* pBuf, int lSizeKb, const char* pszBoundary,
                      unsigned int* pulErr) {
    const size_t capacity = static_cast<size_t>(lSizeKb) * 1024;
    const size_t limit = capacity - 1;  // room for the NUL
    const size_t wanted = capacity - 1024;

    size_t count = wanted;
    {
        // Scoped: the reader gives back its read-ahead before the walk below
        // may append more lines from the file.
        ByteReader reader(lFile);
        while (!ends_with_crlf(pBuf, count) && count < limit) {
            const ssize_t n = reader.next(pBuf + count);
            if (n < 0) {
                *pulErr = static_cast<unsigned int>(errno);
                trace_word(g_trace, 0, "smtp1020", *pulErr);
                return kFileError;
            }
            if (n == 0) {
                trace(g_trace, 2, "smtp1021");
                pBuf[count] = '\0';
                return static_cast<int>(count);
            }
            ++count;
        }
        if (reader.give_back() != 0) {
            *pulErr = static_cast<unsigned int>(errno);
            trace_word(g_trace, 0, "smtp1020", *pulErr);
            return kFileError;
        }
    }

    auto finish = [&](size_t length) {
        pBuf[length] = '\0';
        return static_cast<int>(length);
    };

    switch (walk_back(pBuf, count, pszBoundary)) {
        case Extend::None: return finish(count);
        case Extend::FirstBodyLine: {
            const char before[2] = {pBuf[count - 2], pBuf[count - 1]};
            const int added = append_lines(lFile, pBuf + count, limit - count, 0, before, pulErr);
            if (added < 0) {
                trace_word(g_trace, 0, "smtp1050", *pulErr);
                return added;
            }
            return finish(count + static_cast<size_t>(added));
        }
        case Extend::HeaderAndFirstBodyLine: {
            const char before[2] = {pBuf[count - 2], pBuf[count - 1]};
            const int added = append_lines(lFile, pBuf + count, limit - count, 1, before, pulErr);
            if (added < 0) {
                trace_word(g_trace, 0, "smtp1040", *pulErr);
                return added;
            }
            return finish(count + static_cast<size_t>(added));
        }
    }
    return finish(count);
}

// How many of the `avail` bytes at src the line rule of append_lines takes,
// at most `room`: the same walk over bytes already in memory.
size_t lines_in_memory(const char* src, size_t avail, size_t room, int count,
                       const char before[2]) {
    char two_back = before[0];
    char one_back = before[1];
    size_t taken = 0;
    while (taken < room) {
        if (taken == avail) {
            trace(g_trace, 2, "smtp1211");
            break;
        }
        const char byte = src[taken++];
        if (one_back == '\r' && byte == '\n') {
            if (count == 0) break;
            if (two_back == '\n') --count;  // the line that just ended was empty
        }
        two_back = one_back;
        one_back = byte;
    }
    return taken;
}

// The chunk from a file that can seek: everything the cut may take (the
// buffer less its NUL) is read at once, the cut is found in memory by the
// same rules, and what lies beyond it is given back to the file.
int cut_in_memory(int lFile, char* pBuf, int lSizeKb, const char* pszBoundary,
                  unsigned int* pulErr) {
    const size_t capacity = static_cast<size_t>(lSizeKb) * 1024;
    const size_t limit = capacity - 1;  // room for the NUL
    const size_t wanted = capacity - 1024;

    const ssize_t read_count = read_fully(lFile, pBuf, limit);
    if (read_count < 0) {
        *pulErr = static_cast<unsigned int>(errno);
        trace_word(g_trace, 0, "smtp1010", *pulErr);
        return kFileError;
    }
    const size_t got = static_cast<size_t>(read_count);
    if (got < wanted) {
        trace(g_trace, 2, "smtp1011");
        pBuf[got] = '\0';
        return static_cast<int>(got);
    }
    auto finish = [&](size_t length) {
        if (got > length && lseek(lFile, -static_cast<off_t>(got - length), SEEK_CUR) < 0) {
            *pulErr = static_cast<unsigned int>(errno);
            trace_word(g_trace, 0, "smtp1020", *pulErr);
            return kFileError;
        }
        pBuf[length] = '\0';
        return static_cast<int>(length);
    };
    size_t count = wanted;
    while (!ends_with_crlf(pBuf, count) && count < limit) {
        if (count == got) {
            trace(g_trace, 2, "smtp1021");
            return finish(count);
        }
        ++count;
    }
    const Extend extend = walk_back(pBuf, count, pszBoundary);
    if (extend == Extend::None) return finish(count);
    const char before[2] = {pBuf[count - 2], pBuf[count - 1]};
    const int lines = extend == Extend::FirstBodyLine ? 0 : 1;
    return finish(count + lines_in_memory(pBuf + count, got - count, limit - count, lines, before));
}

}  // namespace

extern "C" {

// The buffer holds lSizeKb x 1024 bytes: (lSizeKb - 1) KiB are read at once,
// the last KiB is the reserve into which the chunk is extended to its next
// line end and, at a MIME part boundary, to the part's first body line. The
// chunk never runs past the buffer: a longer line is cut at the buffer's end
// and goes on in the next chunk. The result is the chunk's length; a NUL
// follows it.
KEMAIL_API int SMTP_getSendData(int lFile, char* pBuf, int lSizeKb, const char* pszBoundary,
                                unsigned int* pulErr) noexcept {
    unsigned int scratch = 0;
    if (!pulErr) pulErr = &scratch;
    if (!pBuf || lSizeKb < 2 || lSizeKb > INT_MAX / 1024) {
        *pulErr = EINVAL;
        trace_word(g_trace, 0, "smtp1010", *pulErr);
        return kFileError;
    }
    // A file that cannot seek could not take back what was read beyond the
    // cut: it is read as the cut needs it. A descriptor that cannot be
    // asked fails as its read would.
    if (lseek(lFile, 0, SEEK_CUR) < 0) {
        if (errno != ESPIPE) {
            *pulErr = static_cast<unsigned int>(errno);
            trace_word(g_trace, 0, "smtp1010", *pulErr);
            return kFileError;
        }
        const size_t wanted = static_cast<size_t>(lSizeKb - 1) * 1024;
        const ssize_t got = read_fully(lFile, pBuf, wanted);
        if (got < 0) {
            *pulErr = static_cast<unsigned int>(errno);
            trace_word(g_trace, 0, "smtp1010", *pulErr);
            return kFileError;
        }
        if (static_cast<size_t>(got) < wanted) {
            trace(g_trace, 2, "smtp1011");
            pBuf[got] = '\0';
            return static_cast<int>(got);
        }
        return extend_by_reading(lFile, pBuf, lSizeKb, pszBoundary, pulErr);
    }
    return cut_in_memory(lFile, pBuf, lSizeKb, pszBoundary, pulErr);
}

// The line that ends just before lEnd: back to the byte after the previous
// CR LF, to position 1, or to lSize - 1 bytes, whichever comes first. The
// result is the line's start (1 or less: the buffer's start was reached).
KEMAIL_API int SMTP_getline(const char* pBuf, int lEnd, char* pszLine, int lSize) noexcept {
    if (!pszLine || lSize < 2) {
        if (pszLine && lSize == 1) pszLine[0] = '\0';
        return 1;
    }
    if (!pBuf || lEnd <= 0) {
        pszLine[0] = '\0';
        return 0;
    }
    // The line start is the highest position above the floor that follows a
    // CR LF; pieces are walked line by line, so look for LF bytes with
    // memrchr rather than stepping back one byte at a time.
    const int floor = std::max(1, lEnd - lSize + 1);
    int start = lEnd - 1;
    if (start > floor) {
        start = floor;
        int top = lEnd - 2;  // highest LF position whose line start lies below lEnd - 1
        while (top >= floor) {
            const void* lf = memrchr(pBuf + floor, '\n', static_cast<size_t>(top - floor + 1));
            if (!lf) break;
            const int at = static_cast<int>(static_cast<const char*>(lf) - pBuf);
            if (pBuf[at - 1] == '\r') {
                start = at + 1;
                break;
            }
            top = at - 1;
        }
    }
    const size_t length = static_cast<size_t>(lEnd - start);
    std::memcpy(pszLine, pBuf + start, length);
    pszLine[length] = '\0';
    return start;
}

// dest is taken to begin a line, and must have room for what is appended.
KEMAIL_API int SMTP_addline(int lFile, char* pDest, int lCount, unsigned int* pulErr) noexcept {
    unsigned int scratch = 0;
    if (!pulErr) pulErr = &scratch;
    static constexpr char kLineStart[2] = {'\r', '\n'};
    return append_lines(lFile, pDest, static_cast<size_t>(INT_MAX), lCount, kLineStart, pulErr);
}

}  // extern "C"
