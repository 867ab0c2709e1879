#include "compose/utf8_input.h"

#include "util/utf8_sequence.h"

#include <iconv.h>

#include <cerrno>
#include <cstring>

namespace kemail {
namespace {

class Converter {
public:
    Converter() : cd_(iconv_open("CP932", "UTF-8")) {}
    ~Converter() {
        if (ok()) iconv_close(cd_);
    }
    Converter(const Converter&) = delete;
    Converter& operator=(const Converter&) = delete;
    bool ok() const { return cd_ != reinterpret_cast<iconv_t>(-1); }
    iconv_t get() const { return cd_; }

private:
    iconv_t cd_;
};

// The Shift_JIS form of the next character of a UTF-8 text: the bytes it
// takes and how many input bytes it consumes (an invalid byte is consumed
// alone and becomes the GETA MARK).
struct Step {
    char bytes[8];
    size_t length;
    size_t consumed;
    bool replaced;
};

Step next_character(const Converter& converter, const unsigned char* in, size_t left) {
    Step step{};
    const size_t char_length = utf8_sequence_length(in, left);
    if (char_length != 0) {
        char* in_ptr = const_cast<char*>(reinterpret_cast<const char*>(in));
        size_t in_left = char_length;
        char* out_ptr = step.bytes;
        size_t out_left = sizeof step.bytes;
        step.consumed = char_length;
        if (iconv(converter.get(), &in_ptr, &in_left, &out_ptr, &out_left) !=
            static_cast<size_t>(-1)) {
            step.length = sizeof step.bytes - out_left;
            return step;
        }
        iconv(converter.get(), nullptr, nullptr, nullptr, nullptr);
    } else {
        step.consumed = 1;
    }
    std::memcpy(step.bytes, kGetaMark, 2);
    step.length = 2;
    step.replaced = true;
    return step;
}

}  // namespace

Utf8Conversion utf8_to_sjis(const char* source, size_t length, char* dest,
                            size_t dest_size) noexcept {
    Utf8Conversion result;
    if (dest == nullptr || dest_size == 0) {
        result.too_long = length > 0;
        return result;
    }
    dest[0] = '\0';
    const Converter converter;
    if (!converter.ok()) {
        result.failed = true;
        return result;
    }
    const auto* in = reinterpret_cast<const unsigned char*>(source);
    size_t left = length;
    char* out = dest;
    size_t out_left = dest_size - 1;
    while (left > 0) {
        // One character at a time, so that a character that does not fit is
        // never half written and an unmappable one is replaced whole.
        const Step step = next_character(converter, in, left);
        if (step.length > out_left) {
            result.too_long = true;
            break;
        }
        std::memcpy(out, step.bytes, step.length);
        out += step.length;
        out_left -= step.length;
        result.replaced = result.replaced || step.replaced;
        in += step.consumed;
        left -= step.consumed;
    }
    *out = '\0';
    result.length = static_cast<size_t>(out - dest);
    return result;
}

Utf8Measure sjis_length(const char* source, size_t limit) noexcept {
    Utf8Measure result;
    const size_t length = strnlen(source, max_utf8_length(limit) + 1);
    if (length > max_utf8_length(limit)) {
        result.length = limit + 1;
        result.too_long = true;
        return result;
    }
    const Converter converter;
    if (!converter.ok()) {
        result.failed = true;
        return result;
    }
    const auto* in = reinterpret_cast<const unsigned char*>(source);
    size_t left = length;
    while (left > 0) {
        const Step step = next_character(converter, in, left);
        if (result.length + step.length > limit) {
            result.length = limit + 1;
            result.too_long = true;
            return result;
        }
        result.length += step.length;
        in += step.consumed;
        left -= step.consumed;
    }
    return result;
}

}  // namespace kemail
