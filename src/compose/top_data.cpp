// The first half of a composed message: the header block and the text part.
#include "compose/compose.h"

#include "log/trace_record.h"
#include "smtp/smtp_buffers.h"
#include "util/byte_reader.h"
#include "util/format.h"
#include "util/unique_fd.h"
#include "util/util.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace kemail {
namespace {

// The charset scan reads blocks of 1028 bytes and looks at each block up to
// its first NUL, so the block size decides which bytes are seen.
constexpr size_t kScanBlockSize = 1028;

// A source line is cut after 1024 bytes without CR LF (1025 when the cut
// would split a Shift_JIS character); with the CR LF added and the NUL it
// fills the 1028-byte read buffer exactly.
constexpr size_t kLineCut = 1024;

// The body file is read byte by byte, as the line rules need, from blocks
// of 4096 bytes.
using ByteReader = kemail::ByteReader<4096>;

// True when a block, up to its first NUL, holds a Shift_JIS lead byte.
bool block_has_lead_byte(const char* block) {
    // Kept: a block is examined up to its first NUL only, and half-width
    // katakana never count (test TopData.KatakanaOnlyBodyIsUsAscii).
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(block); *p; ++p) {
        if (is_sjis_lead(*p)) return true;
    }
    return false;
}

// Looks for a Shift_JIS lead byte. 1: found; 0: none; -1: read error, with
// its errno in *error (the caller traces it).
int scan_for_lead_byte(int body, int* error) {
    char block[kScanBlockSize + 1];
    if (lseek(body, 0, SEEK_SET) < 0) {
        *error = errno;
        return -1;
    }
    for (;;) {
        const ssize_t n = retry_on_eintr([&] { return ::read(body, block, kScanBlockSize); });
        if (n < 0) {
            *error = errno;
            return -1;
        }
        if (n == 0) {
            trace(g_trace, 2, "smtp0651");
            return 0;
        }
        block[n] = '\0';
        if (block_has_lead_byte(block)) {
            trace(g_trace, 2, "smtp0652");
            return 1;
        }
    }
}

// A staged text is small (the text buffer's 10,239 bytes with a CR added
// before each LF at most); a body file up to this size is read into memory
// once, and the charset scan and the line conversion both run over that copy.
constexpr size_t kWholeBodySize = 64 * 1024;

// Reads the body file from its start into data (kWholeBodySize bytes). 1: the
// whole file is there, *size bytes; 0: the file is longer; -1: read error,
// with its errno in *error.
int read_whole_body(int body, char* data, size_t* size, int* error) {
    if (lseek(body, 0, SEEK_SET) < 0) {
        *error = errno;
        return -1;
    }
    size_t have = 0;
    while (have < kWholeBodySize) {
        const ssize_t n =
            retry_on_eintr([&] { return ::read(body, data + have, kWholeBodySize - have); });
        if (n < 0) {
            *error = errno;
            return -1;
        }
        if (n == 0) {
            *size = have;
            return 1;
        }
        have += static_cast<size_t>(n);
    }
    return 0;
}

// The scan over a body held in memory, in the blocks the file scan reads.
int scan_memory_for_lead_byte(const char* data, size_t size) {
    char block[kScanBlockSize + 1];
    for (size_t at = 0; at < size; at += kScanBlockSize) {
        const size_t n = size - at < kScanBlockSize ? size - at : kScanBlockSize;
        std::memcpy(block, data + at, n);
        block[n] = '\0';
        if (block_has_lead_byte(block)) {
            trace(g_trace, 2, "smtp0652");
            return 1;
        }
    }
    trace(g_trace, 2, "smtp0651");
    return 0;
}

// Hands out the bytes of a body held in memory as ByteReader does a file's.
class MemoryBytes {
public:
    MemoryBytes(const char* data, size_t size) : data_(data), size_(size) {}
    ssize_t next(char* dst) {
        if (pos_ == size_) return 0;
        *dst = data_[pos_++];
        return 1;
    }

private:
    const char* data_;
    size_t size_;
    size_t pos_ = 0;
};

enum class Pair { Plain, LeadSeen, Complete };

// Reads one output line into s_szRecvBuf (NUL-terminated). Returns its
// length (0 at end of file) or -1 on a read error.
template <class Reader>
long read_body_line(Reader& reader) {
    size_t n = 0;
    Pair state = Pair::Plain;
    for (;;) {
        char byte = 0;
        ssize_t got = reader.next(&byte);
        if (got < 0) return -1;
        if (got == 0) break;
        s_szRecvBuf[n++] = byte;
        if (n >= 2 && s_szRecvBuf[n - 2] == '\r' && s_szRecvBuf[n - 1] == '\n') break;
        if (state == Pair::LeadSeen) {
            state = Pair::Complete;
        } else {
            state = is_sjis_lead(static_cast<unsigned char>(byte)) ? Pair::LeadSeen : Pair::Plain;
        }
        // Kept: the count includes a CR still waiting for its LF, so 1023
        // bytes and CR LF come out as the bytes, CR, CR LF, and the LF starts
        // the next line (test TopData.LineOf1023BytesSplitsItsCrLf).
        if (n >= kLineCut) {
            if (state == Pair::LeadSeen) {
                got = reader.next(&byte);
                if (got < 0) return -1;
                if (got > 0) s_szRecvBuf[n++] = byte;
            }
            s_szRecvBuf[n++] = '\r';
            s_szRecvBuf[n++] = '\n';
            break;
        }
    }
    s_szRecvBuf[n] = '\0';
    return static_cast<long>(n);
}

// Converts the line in s_szRecvBuf into s_szSendBuf and returns the length to
// write. Kept: the line is a C string here, so a NUL in the body (or the NUL
// that an invalid trail byte converts to) ends the line's text there, its
// CR LF included (test TopData.NulEndsTheLineText).
size_t convert_body_line(bool japanese) {
    if (japanese) {
        to_iso2022(s_szRecvBuf, s_szSendBuf, sizeof s_szSendBuf);
        return std::strlen(s_szSendBuf);
    }
    return static_cast<size_t>(format_into(s_szSendBuf, sizeof s_szSendBuf, Overflow::Cut, "%s%s",
                                           s_szRecvBuf[0] == '.' ? "." : "", s_szRecvBuf));
}

// A failure of the body file (error, with its result and trace code), once
// what was put before it has reached the message file: a write that fails
// there is the failure reported (-33), as it came first.
int body_failed(MessageWriter& out, int result, const char* code, int error, unsigned int* pulErr) {
    if (!out.flush()) return -33;
    *pulErr = static_cast<unsigned int>(error);
    trace_word(g_trace, 0, code, *pulErr);
    return result;
}

// Converts the body's lines into the message file: 0, -33 when a write
// failed, -32 on a read error (errno set).
template <class Reader>
int convert_body(MessageWriter& out, Reader& reader, bool japanese) {
    for (;;) {
        const long length = read_body_line(reader);
        if (length < 0) return -32;
        if (length == 0) return 0;
        const size_t n = convert_body_line(japanese);
        if (!out.put(s_szSendBuf, n, "smtp0665")) return -33;
    }
}

int write_text_part(MessageWriter& out, const char* body_path, unsigned int* pulErr) {
    UniqueFd body(retry_on_eintr([&] { return ::open(body_path, O_RDONLY | O_CLOEXEC); }));
    if (!body.valid()) return body_failed(out, -31, "smtp0645", errno, pulErr);
    int error = 0;
    // Without the memory for a copy, or for a longer file, the file is
    // scanned and then read again.
    UniqueMalloc<char> whole(static_cast<char*>(std::malloc(kWholeBodySize)));
    size_t whole_size = 0;
    int in_memory = 0;
    if (whole) {
        in_memory = read_whole_body(body.get(), whole.get(), &whole_size, &error);
        if (in_memory < 0) return body_failed(out, -32, "smtp0650", error, pulErr);
    }
    const int japanese = in_memory != 0 ? scan_memory_for_lead_byte(whole.get(), whole_size)
                                        : scan_for_lead_byte(body.get(), &error);
    if (japanese < 0) return body_failed(out, -32, "smtp0650", error, pulErr);

    const size_t n = static_cast<size_t>(format_into(s_szSendBuf, sizeof s_szSendBuf, Overflow::Cut,
                                                     "Content-Type: text/plain; charset=\"%s\"\r\n",
                                                     japanese ? "ISO-2022-JP" : "us-ascii"));
    trace_text(g_trace, 2, japanese ? "smtp0653" : "smtp0654", s_szSendBuf);
    if (!out.put(s_szSendBuf, n, "smtp0655")) return -33;
    if (!out.put("\r\n", 2, "smtp0660")) return -33;

    if (in_memory != 0) {
        body.reset();
        MemoryBytes reader(whole.get(), whole_size);
        const int converted = convert_body(out, reader, japanese != 0);
        if (converted != 0) return converted;
    } else {
        // Back to the start after the scan: a rewind that fails would leave
        // the text part empty.
        if (lseek(body.get(), 0, SEEK_SET) < 0)
            return body_failed(out, -32, "smtp0660", errno, pulErr);
        int converted = 0;
        {
            // Scoped: the reader is done before the body file is closed.
            ByteReader reader(body.get());
            converted = convert_body(out, reader, japanese != 0);
            error = errno;
        }
        if (converted == -32) return body_failed(out, -32, "smtp0660", error, pulErr);
        if (converted != 0) return converted;
        body.reset();
    }
    // Ends a last line that had no CR LF. Kept: after one that had, this is
    // an extra empty line before whatever follows the text
    // (test TopData.AsciiBodyIsUsAsciiAndEndsWithAnEmptyLine).
    if (!out.put("\r\n", 2, "smtp0670") || !out.flush()) return -33;
    trace(g_trace, 1, "smtp06FF");
    return 0;
}

}  // namespace
}  // namespace kemail

using namespace kemail;

extern "C" KEMAIL_API int SMTP_makeTopData(int lFile, const char* pszBodyPath, const char* pszFrom,
                                           const char* pszTo, const char* pszSubject,
                                           char* pszBoundary, int lMultipart, int lPartial,
                                           unsigned int* pulErr) noexcept {
    unsigned int local_err = 0;
    if (pulErr == nullptr) pulErr = &local_err;
    *pulErr = 0;
    trace(g_trace, 1, "smtp0600");
    // The header goes at the start of the message file.
    if (lseek(lFile, 0, SEEK_SET) < 0) {
        *pulErr = static_cast<unsigned int>(errno);
        return -33;
    }

    MessageWriter out(lFile, pulErr);
    HeaderSink sink(out, pulErr);
    // Holds each recipient element, then the encoded subject.
    char element[kElementBufferSize] = {};
    if (lPartial == 0) {
        trace(g_trace, 2, "smtp0601");
        char date[KEMAIL_DATE_SIZE];
        SMTP_makeDate(date);
        static constexpr AddressCodes kAddressCodes{.date = {nullptr, "smtp0605", nullptr},
                                                    .from = {nullptr, "smtp0610", nullptr},
                                                    .to = {nullptr, "smtp0615", nullptr},
                                                    .to_stopped = nullptr,
                                                    .to_done = "smtp0616"};
        if (put_address_lines(sink, date, pszFrom ? pszFrom : "", pszTo, element, kAddressCodes) !=
            0)
            return -33;
    }

    if (pszSubject != nullptr) {
        trace(g_trace, 2, "smtp0617");
        trace_text(g_trace, 2, "smtp0617-1", pszSubject);
        // Kept: the buffer is shown before encoding, still holding the last
        // recipient element (test TopData.HeaderOnlyMessage).
        trace_text(g_trace, 2, "smtp0617-2", element);
        make_subject(pszSubject, element, sizeof element);
        trace_text(g_trace, 2, "smtp0617-3", pszSubject);
        trace_text(g_trace, 2, "smtp0617-4", element);
    } else {
        trace(g_trace, 2, "smtp0618");
        element[0] = '\0';
    }
    if (put_subject_line(sink, element, nullptr, {"smtp0619", "smtp0620", nullptr}) != 0)
        return -33;

    trace(g_trace, 2, "smtp0621");
    if (put_identity_lines(sink, {nullptr, "smtp0623", nullptr}, {nullptr, "smtp0625", nullptr}) !=
        0)
        return -33;

    if (lMultipart == 1) {
        trace(g_trace, 2, "smtp0626");
        char own_boundary[KEMAIL_BOUNDARY_SIZE];
        char* boundary = pszBoundary ? pszBoundary : own_boundary;
        SMTP_makeBoundary(boundary);
        int n = format_into(s_szSendBuf, sizeof s_szSendBuf, Overflow::Cut,
                            "Content-Type: multipart/mixed; boundary=\"%s\"\r\n", boundary);
        if (!out.put(s_szSendBuf, static_cast<size_t>(n), "smtp0630")) return -33;
        // The leading CR LF is the empty line that ends the message header.
        n = format_into(s_szSendBuf, sizeof s_szSendBuf, Overflow::Cut, "\r\n--%s\r\n", boundary);
        if (!out.put(s_szSendBuf, static_cast<size_t>(n), "smtp0635")) return -33;
    }

    if (pszBodyPath == nullptr) {
        if (!out.flush()) return -33;
        trace(g_trace, 2, "smtp0640");
        return 0;
    }
    return write_text_part(out, pszBodyPath, pulErr);
}
