// Event lines of the mail log: the protocol lines sent and received, failed
// system calls and time-outs, each with the time of day. Each line goes to
// the file in one write as soon as it is made (nothing is held back between
// lines); its result is ignored, since the log never stops a send.
#include "log/log.h"
#include "util/block_writer.h"
#include "util/format.h"
#include "util/util.h"

#include <cstdio>
#include <cstring>
#include <ctime>

namespace kemail {

namespace {

const char* kind_tag(int kind) {
    switch (kind) {
        case KEMAIL_LOG_SENT: return "S:";
        case KEMAIL_LOG_RECEIVED: return "R:";
        default: return "-:";
    }
}

// Room for a note's fixed part plus up to 1024 bytes of extra text.
constexpr size_t kNoteSize = 2200;
constexpr size_t kExtraMax = 1024;

// Ends a note with the extra text, or drops its trailing blank without one.
void finish_note(char* note, const char* extra) {
    const size_t length = std::strlen(note);
    if (extra) {
        format_into(note + length, kNoteSize - length, Overflow::Cut, "%.*s",
                    static_cast<int>(kExtraMax), extra);
    } else if (length > 0 && note[length - 1] == ' ') {
        note[length - 1] = '\0';
    }
}

// A line is gathered here and written in one write: the prefix, the text
// (a command of up to 4100 bytes, a reply line of up to 1028, a note of up to
// 2200) and the line end. A longer text goes out in the same write as the
// prefix, from the caller's memory, and its line end in a second one.
constexpr size_t kLineBufferSize = 4608;
using LineWriter = BlockWriter<char, kLineBufferSize, 4>;

// Writes one event line: time prefix, kind tag, text and, unless the text
// already ends with CR LF, a CR LF.
void write_line(MailLogHandle* handle, int kind, const char* text) {
    const time_t now = time(nullptr);
    struct tm local = {};
    localtime_r(&now, &local);
    char prefix[64];
    const int prefix_length =
        format_into(prefix, sizeof prefix, Overflow::Cut, "%02d:%02d:%02d %s ", local.tm_hour,
                    local.tm_min, local.tm_sec, kind_tag(kind));
    // A short write goes on with the rest; a failed write ends the line: the
    // log is not on the mail's path.
    LineWriter line(handle->fd, nullptr);
    if (prefix_length > 0) line.put(prefix, static_cast<size_t>(prefix_length), 0);
    const size_t length = std::strlen(text);
    line.put(text, length, 0);
    if (!(length > 1 && text[length - 2] == '\r' && text[length - 1] == '\n'))
        line.put("\r\n", 2, 0);
    line.flush();
}

}  // namespace

}  // namespace kemail

extern "C" {

KEMAIL_API int MailLogWrite(MailLogHandle* pHandle, int lKind, const char* pszText) noexcept {
    if (lKind < KEMAIL_LOG_SENT || lKind > KEMAIL_LOG_NOTE) return -1;
    if (!pHandle || !pszText) return -1;
    kemail::write_line(pHandle, lKind, pszText);
    return 0;
}

KEMAIL_API int MailLogSysErrWrite(MailLogHandle* pHandle, const char* pszFunc, int lResult,
                                  long lErrno, const char* pszExtra) noexcept {
    if (!pHandle || !pszFunc) return -1;
    char note[kemail::kNoteSize];
    kemail::format_into(note, sizeof note, kemail::Overflow::Cut,
                        "ERROR: func=%.1024s code=%d detail=%ld ", pszFunc, lResult, lErrno);
    kemail::finish_note(note, pszExtra);
    kemail::write_line(pHandle, KEMAIL_LOG_NOTE, note);
    return 0;
}

KEMAIL_API int MailLogTimeOutWrite(MailLogHandle* pHandle, int lSeconds, int lKind,
                                   const char* pszExtra) noexcept {
    if (!pHandle) return -1;
    const char* protocol;
    if (lKind == 1) {
        protocol = "SMTP";
    } else if (lKind == 2) {
        protocol = "POP";
    } else {
        return -1;
    }
    char note[kemail::kNoteSize];
    kemail::format_into(note, sizeof note, kemail::Overflow::Cut, "ERROR: %s TIMEOUT (timer=%d) ",
                        protocol, lSeconds);
    kemail::finish_note(note, pszExtra);
    kemail::write_line(pHandle, KEMAIL_LOG_NOTE, note);
    return 0;
}

}  // extern "C"
