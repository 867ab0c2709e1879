// The first half of a composed message: the header block and the text part.
#include "compose/compose.h"

#include "log/trace_record.h"
#include "smtp/smtp_buffers.h"
#include "util/byte_reader.h"
#include "util/format.h"
#include "util/unique_fd.h"
#include "util/util.h"

#include <cerrno>
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
        // Kept: a block is examined up to its first NUL only, and half-width
        // katakana never count (test TopData.KatakanaOnlyBodyIsUsAscii).
        for (const unsigned char* p = reinterpret_cast<unsigned char*>(block); *p; ++p) {
            if (is_sjis_lead(*p)) {
                trace(g_trace, 2, "smtp0652");
                return 1;
            }
        }
    }
}

enum class Pair { Plain, LeadSeen, Complete };

// Reads one output line into s_szRecvBuf (NUL-terminated). Returns its
// length (0 at end of file) or -1 on a read error.
long read_body_line(ByteReader& reader) {
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

int write_text_part(MessageWriter& out, const char* body_path, unsigned int* pulErr) {
    UniqueFd body(retry_on_eintr([&] { return ::open(body_path, O_RDONLY | O_CLOEXEC); }));
    if (!body.valid()) return body_failed(out, -31, "smtp0645", errno, pulErr);
    int error = 0;
    const int japanese = scan_for_lead_byte(body.get(), &error);
    if (japanese < 0) return body_failed(out, -32, "smtp0650", error, pulErr);

    size_t n = static_cast<size_t>(format_into(s_szSendBuf, sizeof s_szSendBuf, Overflow::Cut,
                                               "Content-Type: text/plain; charset=\"%s\"\r\n",
                                               japanese ? "ISO-2022-JP" : "us-ascii"));
    trace_text(g_trace, 2, japanese ? "smtp0653" : "smtp0654", s_szSendBuf);
    if (!out.put(s_szSendBuf, n, "smtp0655")) return -33;
    if (!out.put("\r\n", 2, "smtp0660")) return -33;

    // Back to the start after the scan: a rewind that fails would leave the
    // text part empty.
    if (lseek(body.get(), 0, SEEK_SET) < 0) return body_failed(out, -32, "smtp0660", errno, pulErr);
    {
        // Scoped: the reader is done before the body file is closed.
        ByteReader reader(body.get());
        for (;;) {
            const long length = read_body_line(reader);
            if (length < 0) return body_failed(out, -32, "smtp0660", errno, pulErr);
            if (length == 0) break;
            n = convert_body_line(japanese != 0);
            if (!out.put(s_szSendBuf, n, "smtp0665")) return -33;
        }
    }
    body.reset();
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
