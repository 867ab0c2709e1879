// The header block of a message (Date, From, To, Subject, Message-Id,
// MIME-Version), written once for both of its destinations: the message file
// of a whole message and the outer header of each message/partial piece.
#include "compose/compose.h"

#include "log/trace_record.h"
#include "smtp/smtp_buffers.h"
#include "util/format.h"
#include "util/util.h"

#include <cstring>

namespace kemail {

int HeaderSink::put(const char* text, size_t length, const LineCodes& codes) {
    if (codes.before != nullptr) trace_text(g_trace, 2, codes.before, text);
    if (kind_ == Kind::File && file_ != nullptr) {
        if (!file_->put(text, length, codes.failed)) return -33;
    } else if (kind_ == Kind::File) {
        if (!write_all(fd_, text, length, pulErr_)) {
            trace_word(g_trace, 0, codes.failed, *pulErr_);
            return -33;
        }
    } else {
        const int result = SMTP_send(fd_, text, static_cast<int>(length), pulErr_);
        if (result != 0) {
            trace_word(g_trace, 0, codes.failed, *pulErr_);
            return result;
        }
    }
    if (codes.after != nullptr) trace_text(g_trace, 2, codes.after, text);
    return 0;
}

int put_address_lines(HeaderSink& sink, const char* date, const char* from, const char* to,
                      char (&element)[kElementBufferSize], const AddressCodes& codes) {
    int n = format_into(s_szSendBuf, sizeof s_szSendBuf, Overflow::Cut, "Date: %s\r\n", date);
    int result = sink.put(s_szSendBuf, static_cast<size_t>(n), codes.date);
    if (result != 0) return result;
    n = format_into(s_szSendBuf, sizeof s_szSendBuf, Overflow::Cut, "From: %s\r\n", from);
    if ((result = sink.put(s_szSendBuf, static_cast<size_t>(n), codes.from)) != 0) return result;

    RecipientCursor recipients(to);
    for (bool first = true; recipients.next(element, sizeof element); first = false) {
        const size_t length =
            format_recipient_line(s_szSendBuf, sizeof s_szSendBuf, element, first);
        if ((result = sink.put(s_szSendBuf, length, codes.to)) != 0) {
            if (codes.to_stopped != nullptr) trace(g_trace, 2, codes.to_stopped);
            return result;
        }
    }
    trace(g_trace, 2, codes.to_done);
    return 0;
}

int put_subject_line(HeaderSink& sink, const char* encoded, const PieceMark* piece,
                     const LineCodes& codes) {
    // The piece marker follows the last encoded-word.
    const int n = piece != nullptr
                      ? format_into(s_szSendBuf, sizeof s_szSendBuf, Overflow::Cut,
                                    "Subject: %s [%d/%d]\r\n", encoded, piece->number, piece->total)
                      : format_into(s_szSendBuf, sizeof s_szSendBuf, Overflow::Cut,
                                    "Subject: %s\r\n", encoded);
    return sink.put(s_szSendBuf, static_cast<size_t>(n), codes);
}

int put_identity_lines(HeaderSink& sink, const LineCodes& message_id, const LineCodes& mime) {
    char line[KEMAIL_MSGID_SIZE];
    SMTP_MakeMsgId(line);
    const int result = sink.put(line, std::strlen(line), message_id);
    if (result != 0) return result;
    static const char kMimeVersion[] = "MIME-Version: 1.0\r\n";
    return sink.put(kMimeVersion, sizeof kMimeVersion - 1, mime);
}

}  // namespace kemail
