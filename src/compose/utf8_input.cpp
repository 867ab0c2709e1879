#include "compose/utf8_input.h"

#include <iconv.h>

#include <cerrno>
#include <cstring>

namespace kemail {
namespace {

// Length of the well-formed UTF-8 sequence at text[0, available), or 0 when
// it is not one (RFC 3629: no overlong forms, no surrogates, at most
// U+10FFFF).
size_t sequence_length(const unsigned char* text, size_t available) {
    const unsigned char lead = text[0];
    size_t length;
    unsigned char low = 0x80, high = 0xBF;
    if (lead < 0x80) return 1;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) low = 0xA0;
        if (lead == 0xED) high = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) low = 0x90;
        if (lead == 0xF4) high = 0x8F;
    } else {
        return 0;
    }
    if (available < length) return 0;
    if (text[1] < low || text[1] > high) return 0;
    for (size_t i = 2; i < length; ++i) {
        if (text[i] < 0x80 || text[i] > 0xBF) return 0;
    }
    return length;
}

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
    const size_t room = dest_size - 1;
    const auto* in = reinterpret_cast<const unsigned char*>(source);
    size_t left = length;
    char* out = dest;
    size_t out_left = room;
    while (left > 0) {
        // One character at a time, so that a character that does not fit is
        // never half written and an unmappable one is replaced whole.
        const size_t char_length = sequence_length(in, left);
        const char* write_from = nullptr;
        size_t write_length = 0;
        char converted[8];
        if (char_length == 0) {
            write_from = kGetaMark;
            write_length = 2;
            result.replaced = true;
        } else {
            char* in_ptr = const_cast<char*>(reinterpret_cast<const char*>(in));
            size_t in_left = char_length;
            char* conv_ptr = converted;
            size_t conv_left = sizeof converted;
            if (iconv(converter.get(), &in_ptr, &in_left, &conv_ptr, &conv_left) ==
                static_cast<size_t>(-1)) {
                iconv(converter.get(), nullptr, nullptr, nullptr, nullptr);
                write_from = kGetaMark;
                write_length = 2;
                result.replaced = true;
            } else {
                write_from = converted;
                write_length = sizeof converted - conv_left;
            }
        }
        if (write_length > out_left) {
            result.too_long = true;
            break;
        }
        std::memcpy(out, write_from, write_length);
        out += write_length;
        out_left -= write_length;
        const size_t consumed = char_length == 0 ? 1 : char_length;
        in += consumed;
        left -= consumed;
    }
    *out = '\0';
    result.length = static_cast<size_t>(out - dest);
    return result;
}

}  // namespace kemail
