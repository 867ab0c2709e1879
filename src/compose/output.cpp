// Mechanics shared by the composition functions: traced block writes to the
// message file, the recipient list walk and hex text.
#include "compose/compose.h"

#include "log/trace_record.h"
#include "util/format.h"
#include "util/util.h"

#include <cstring>

namespace kemail {

bool MessageWriter::traced(bool ok) {
    if (!ok && !failure_traced_) {
        failure_traced_ = true;
        trace_word(g_trace, 0, writer_.failed_tag(), *pulErr_);
    }
    return ok;
}

bool RecipientCursor::next(char* out, size_t size) {
    if (done_ || size == 0) return false;
    const char* comma = std::strchr(next_, ',');
    const size_t length = comma ? static_cast<size_t>(comma - next_) + 1 : std::strlen(next_);
    // An element longer than the buffer is cut; the walk still resumes after
    // its comma, so the following elements are not disturbed.
    const size_t kept = length < size ? length : size - 1;
    std::memcpy(out, next_, kept);
    out[kept] = '\0';
    if (comma) {
        next_ = comma + 1;
    } else {
        done_ = true;
    }
    return true;
}

size_t format_recipient_line(char* out, size_t size, const char* element, bool first) {
    const int length = first ? format_into(out, size, Overflow::Cut, "To: %s\r\n", element)
                             : format_into(out, size, Overflow::Cut, "    %s\r\n", element);
    return static_cast<size_t>(length);
}

void to_hex(const unsigned char* src, size_t length, char* out) {
    static const char kDigits[] = "0123456789abcdef";
    for (size_t i = 0; i < length; ++i) {
        *out++ = kDigits[src[i] >> 4];
        *out++ = kDigits[src[i] & 0x0F];
    }
    *out = '\0';
}

}  // namespace kemail
