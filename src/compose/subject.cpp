// The Subject value: RFC 2047 "B" encoded-words of ISO-2022-JP, folded over
// several lines so that no encoded-word holds more than twelve characters.
#include "compose/compose.h"

#include "util/util.h"

#include <cstring>

namespace kemail {
namespace {

constexpr char kEsc = '\x1b';

// The ISO-2022-JP form of a subject is limited to 255 bytes (the request
// allows 64 bytes of subject, at most 70 once converted); a longer subject
// is converted as far as whole characters fit. The folded text then stays
// below 656 bytes and its encoded form below kElementBufferSize.
constexpr size_t kIsoBufferSize = 256;
constexpr size_t kFoldedBufferSize = 656;

// Folding columns: an encoded-word costs about 20 columns for its wrapper
// and opening escape, 4 per character and 6 for the closing escape.
constexpr int kRunStartLimit = 58;
constexpr int kRunLineLimit = 70;
constexpr int kTextLineLimit = 76;

// Appends to a fixed buffer; once something does not fit, it stays full and
// refuses everything after, so the text is cut at one place only.
class Appender {
public:
    Appender(char* buf, size_t size) : buf_(buf), size_(size) { buf_[0] = '\0'; }
    bool put(const char* bytes, size_t count) {
        if (full_ || count > size_ - 1 - n_) {
            full_ = true;
            return false;
        }
        std::memcpy(buf_ + n_, bytes, count);
        n_ += count;
        buf_[n_] = '\0';
        return true;
    }
    bool full() const { return full_; }
    size_t length() const { return n_; }

private:
    char* buf_;
    size_t size_;
    size_t n_ = 0;
    bool full_ = false;
};

size_t next_escape(const char* text, size_t from, size_t length) {
    while (from < length && text[from] != kEsc) ++from;
    return from;
}

size_t min_size(size_t a, size_t b) { return a < b ? a : b; }

// Breaks the ISO-2022-JP text into lines: a double-byte run starts on a new
// line when fewer than twelve columns are left, and is split (closed, folded,
// reopened) when its line would pass column 70.
void fold(const char* iso, char* folded, size_t size) {
    static const char kBreak[] = "\r\n ";
    static const char kRunBreak[] = "\x1b(J\r\n \x1b$B";
    Appender out(folded, size);
    const size_t length = std::strlen(iso);
    size_t i = 0;
    int column = 0;
    while (i < length && !out.full()) {
        if (iso[i] != kEsc) {
            out.put(iso + i, 1);
            ++i;
            // Kept: this fold may fall inside an ASCII word, adding a blank
            // when the header is unfolded (test Subject.LongAsciiTailIsFoldedMidWord).
            if (++column > kTextLineLimit) {
                out.put(kBreak, 3);
                column = 0;
            }
            continue;
        }
        const size_t close = next_escape(iso, i + 1, length);
        if (column + 12 > kRunStartLimit) {
            out.put(kBreak, 3);
            column = 0;
        }
        const size_t open = min_size(3, close - i);
        out.put(iso + i, open);
        column += 20;
        i += open;
        while (i < close) {
            if (column + 4 > kRunLineLimit) {
                out.put(kRunBreak, sizeof kRunBreak - 1);
                column = 20;
            }
            const size_t pair = min_size(2, close - i);
            out.put(iso + i, pair);
            column += 4;
            i += pair;
        }
        if (close < length) {
            const size_t closing = min_size(3, length - close);
            out.put(iso + close, closing);
            column += 6;
            i = close + closing;
        }
    }
}

// Turns every escape-delimited segment of the folded text into an
// encoded-word; the folding CR LF SP between them stays literal. Only whole
// encoded-words are written.
void encode_words(const char* folded, char* out, size_t size) {
    static const char kPrefix[] = "=?ISO-2022-JP?B?";
    static const char kSuffix[] = "?=";
    const size_t length = std::strlen(folded);
    size_t n = 0;
    size_t i = 0;
    out[0] = '\0';
    while (i < length) {
        if (folded[i] != kEsc) {
            if (size - 1 - n < 1) break;
            out[n++] = folded[i++];
            continue;
        }
        const size_t next = next_escape(folded, i + 1, length);
        const size_t end = next < length ? min_size(next + 3, length) : length;
        const size_t segment = end - i;
        const size_t need = (sizeof kPrefix - 1) + 4 * ((segment + 2) / 3) + (sizeof kSuffix - 1);
        if (need > size - 1 - n) break;
        std::memcpy(out + n, kPrefix, sizeof kPrefix - 1);
        n += sizeof kPrefix - 1;
        n += base64_encode(reinterpret_cast<const unsigned char*>(folded + i), segment, out + n);
        std::memcpy(out + n, kSuffix, sizeof kSuffix - 1);
        n += sizeof kSuffix - 1;
        i = end;
    }
    out[n] = '\0';
}

bool has_lead_byte(const char* text) {
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p; ++p) {
        if (is_sjis_lead(*p)) return true;
    }
    return false;
}

}  // namespace

void make_subject(const char* subject, char* out, size_t size) {
    if (out == nullptr || size == 0) return;
    if (subject == nullptr) subject = "";
    // Without a Shift_JIS character the subject goes out raw, 8-bit bytes
    // (half-width katakana) included.
    if (!has_lead_byte(subject)) {
        copy_cut(out, size, subject);
        return;
    }
    char iso[kIsoBufferSize];
    to_iso2022(subject, iso, sizeof iso);
    char folded[kFoldedBufferSize];
    fold(iso, folded, sizeof folded);
    encode_words(folded, out, size);
}

}  // namespace kemail

extern "C" KEMAIL_API void SMTP_makeSubject(const char* pszSubject, char* pszOut) noexcept {
    if (pszOut == nullptr) return;
    const char* subject = pszSubject ? pszSubject : "";
    // An ASCII subject is copied whole, however long: the caller sized the
    // buffer for it. An encoded subject never needs more than
    // kElementBufferSize bytes, because its ISO-2022-JP form is bounded.
    const size_t ascii_size = std::strlen(subject) + 1;
    kemail::make_subject(
        subject, pszOut,
        ascii_size > kemail::kElementBufferSize ? ascii_size : kemail::kElementBufferSize);
}
