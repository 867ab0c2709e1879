// Message composition: the header block and text body, Date and Message-Id,
// ISO-2022-JP and RFC 2047 subjects, base64 attachment parts, message/partial
// pieces, and the EUC-JP/Shift_JIS converters.
//
// Failures: the file writers return -31 (a file cannot be opened), -32 (a read
// failed) or -33 (a write was short or failed) with errno in the caller's
// error word; the piece sender passes the transport's result through.
//
// Deliberate oddities, each pinned by a test: half-width katakana are never
// lead bytes (a body of ASCII and katakana is "us-ascii" and goes out 8-bit);
// every return from JIS X 0208 is ESC ( J; an invalid trail byte maps to the
// OR of the two bytes, which writes a NUL and ends the converted text; the
// subject fold may split an ASCII word; the Date of a UTC host ends in -0000;
// the host-name cache of the Message-Id is filled once per process; the
// subject buffer traced before encoding still holds the last recipient
// element; the text part ends with one more CR LF (an empty line after a
// body that ended in one); the line converter leaves its destination empty
// when it has no converter and shares CHANGE0010/0020 with the code changer.
#pragma once

#include "kemail.h"
#include "util/block_writer.h"

#include <cstddef>
#include <cstdint>

namespace kemail {

// Shift_JIS lead bytes; every other byte (half-width katakana included) is a
// character of its own.
inline bool is_sjis_lead(unsigned char byte) {
    return (byte >= 0x81 && byte <= 0x9F) || (byte >= 0xE0 && byte <= 0xEF);
}

// The message file, written in blocks rather than piece by piece (see
// util/block_writer.h). Each piece names the level-0 trace code of its
// failure; a failed write stores the errno in the error word and is traced
// once, with the code of the first piece that did not reach the file and the
// errno word, when the failing write is made. Every composition function
// flushes before it returns and before it reports a failure of its own (a
// file that cannot be opened or read), so that a write that fails is
// reported in the same call and ahead of anything that happened after it.
class MessageWriter {
public:
    MessageWriter(int fd, unsigned int* pulErr) : writer_(fd, pulErr), pulErr_(pulErr) {}
    // False once a write has failed.
    bool put(const char* text, size_t length, const char* failed_code) {
        return traced(writer_.put(text, length, failed_code));
    }
    bool flush() { return traced(writer_.flush()); }

private:
    bool traced(bool ok);

    BlockWriter<const char*> writer_;
    unsigned int* pulErr_;
    bool failure_traced_ = false;
};

// Base64 of length bytes (RFC 4648 alphabet, "=" padding, no line breaks)
// into out, which needs 4 * ceil(length / 3) + 1 bytes. Returns the number of
// characters; out is NUL-terminated. The input is never written.
size_t base64_encode(const unsigned char* in, size_t length, char* out);

// The base64 engines, which give the same bytes: the scalar one, and on
// x86-64 CPUs with AVX2 a vector one. Best is the fastest the CPU has; the
// functions taking an engine exist so that tests can run each of them, and
// run the scalar one for an engine the CPU lacks.
enum class Base64Engine { Best, Scalar, Avx2 };
bool base64_engine_available(Base64Engine engine);
size_t base64_encode(Base64Engine engine, const unsigned char* in, size_t length, char* out);

// Bytes of attachment per base64 line: 51 bytes give 68 characters.
constexpr size_t kBase64LineBytes = 51;
constexpr size_t kBase64LineChars = 68;

// An attachment body: each 51 bytes of in (the last piece may be shorter
// and is padded) as one line of base64 ending in CR LF, the same bytes as
// base64_encode on each piece. out needs 70 bytes for every started piece;
// it is not NUL-terminated. Returns the number of bytes written.
size_t base64_lines(const unsigned char* in, size_t length, char* out,
                    Base64Engine engine = Base64Engine::Best);

// Converts Shift_JIS text to ISO-2022-JP into out of size bytes. Stops before
// a character that would not fit together with the closing ESC ( J and the
// NUL, so the output is always a complete, closed text. Returns the bytes
// written before the NUL (which may include NULs from invalid trail bytes).
size_t to_iso2022(const char* src, char* out, size_t size);

// The Subject value as SMTP_makeSubject makes it, into out of size bytes.
// An ASCII subject is cut to fit; an encoded subject keeps only the
// encoded-words that fit whole.
void make_subject(const char* subject, char* out, size_t size);

// Hands out the elements of a comma-separated recipient list the way the
// To lines show them: each element with its terminating comma.
class RecipientCursor {
public:
    explicit RecipientCursor(const char* list) : next_(list ? list : "") {}
    // Copies the next element (cut to size - 1 bytes) into out; false when
    // the list has been handed out. last() tells whether the element was the
    // final one.
    bool next(char* out, size_t size);
    bool last() const { return done_; }

private:
    const char* next_;
    bool done_ = false;
};

// Bytes of each recipient element or encoded subject. A longer element is
// cut to 1039 bytes (its comma goes with the cut part); the next element
// still starts after that comma. Request records allow 256 bytes in all.
constexpr size_t kElementBufferSize = 1040;

// Where the header block goes: the message file, or the socket for the
// outer header of a message/partial piece. Each line is put with the trace
// codes of its step: `before` (level 2, the line) ahead of the write,
// `failed` (level 0, the error word) on failure, `after` (level 2, the line)
// once it is out (for the message file: once its writer holds it, the failure
// of a later block write still naming this line); `before` and `after` may be
// null.
struct LineCodes {
    const char* before;
    const char* failed;
    const char* after;
};

class HeaderSink {
public:
    enum class Kind {
        File,    // the message file; a failed write is -33
        Socket,  // the SMTP connection; a failed send is the transport's result
    };
    // A socket, or a file written line by line.
    HeaderSink(Kind kind, int fd, unsigned int* pulErr) : kind_(kind), fd_(fd), pulErr_(pulErr) {}
    // The message file through its writer: a failed write is -33.
    HeaderSink(MessageWriter& file, unsigned int* pulErr)
        : kind_(Kind::File), fd_(-1), pulErr_(pulErr), file_(&file) {}
    // 0, or the failure result with the error word in *pulErr.
    int put(const char* text, size_t length, const LineCodes& codes);

private:
    Kind kind_;
    int fd_;
    unsigned int* pulErr_;
    MessageWriter* file_ = nullptr;
};

// The trace codes of the Date, From and To lines.
struct AddressCodes {
    LineCodes date;
    LineCodes from;
    LineCodes to;
    const char* to_stopped;  // level 2 after a failed To line, or null
    const char* to_done;     // level 2 after the last To line
};

// The header block's lines are formatted in s_szSendBuf, one at a time.
// Date (the given value), From and one To line per recipient element; each
// element passes through `element`, which holds the last one afterwards.
int put_address_lines(HeaderSink& sink, const char* date, const char* from, const char* to,
                      char (&element)[kElementBufferSize], const AddressCodes& codes);
// "Subject: " and the encoded subject; for a message/partial piece followed
// by " [number/total]".
struct PieceMark {
    int number;
    int total;
};
int put_subject_line(HeaderSink& sink, const char* encoded, const PieceMark* piece,
                     const LineCodes& codes);
// A new Message-Id line, then "MIME-Version: 1.0".
int put_identity_lines(HeaderSink& sink, const LineCodes& message_id, const LineCodes& mime);

// The To line of one recipient element: "To: %s\r\n" for the first,
// four blanks for every further one.
size_t format_recipient_line(char* out, size_t size, const char* element, bool first);

// Converts EUC-JP text to Shift_JIS piece by piece, each piece ending just
// after a CR LF, appending to dest (which the caller zero-filled). Returns the
// destination's length, or -1: with no converter (dest untouched), or when a
// piece failed (dest then holds the unconverted source, cut to size - 1).
int convert_lines(iconv_t converter, const char* source, char* dest, size_t dest_size);

// The attachment name as the part header shows it: at most 1059 bytes (a
// longer last path component is cut).
constexpr size_t kAttachmentNameSize = 1060;

// The name an attachment part gives the file at path: its last component,
// cut to size - 1 bytes. Returns name.
const char* attachment_name(const char* path, char* name, size_t size);

// SMTP_makeAppendData; a non-null name is what the part header shows instead
// of the path's last component (a name converted for the header).
int make_append_data(int fd, const char* path, const char* name, const char* boundary, int more,
                     unsigned int* pulErr);

// Lowercase hexadecimal of length bytes into out (2 * length + 1 bytes).
void to_hex(const unsigned char* src, size_t length, char* out);

// gethostid(), asked once per process and kept: without /etc/hostid, libc
// derives it from the address of the host's name and so reads the hosts
// database on every call. Like the host name of the Message-Id, the id a
// process puts into its identifiers stays the same for its whole life.
uint32_t host_id();

// For tests only: the resolver file that gives the Message-Id its domain
// (nullptr restores "/etc/resolv.conf"), and emptying the host-name cache so
// that the next Message-Id looks the name up again.
void set_resolver_conf_path(const char* path);
void clear_host_name_cache();

}  // namespace kemail
