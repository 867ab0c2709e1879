// The EUC-JP <-> Shift_JIS converters on arbitrary bytes and room: the
// result, the length reported and the bytes written must stay within the
// room the caller gave (an exactly sized heap buffer under AddressSanitizer),
// and a valid text must come back unchanged from a round trip.
#include "kemail.h"

#include "fuzz_support.h"

#include <cstring>
#include <memory>
#include <string>

namespace {

iconv_t g_euc_to_sjis;
iconv_t g_sjis_to_euc;

// Calls one converter with `room` bytes of output; checks the contract and
// returns what it delivered (empty after a failure).
std::string convert(bool to_sjis, const std::string& in, unsigned int room, int* result) {
    std::unique_ptr<char[]> out(new char[room == 0 ? 1 : room]);
    unsigned int length = 0xFFFFFFFFu;
    *result = to_sjis ? Cnv_euctosjis(g_euc_to_sjis, static_cast<unsigned int>(in.size()),
                                      in.data(), room, out.get(), &length)
                      : Cnv_sjistoeuc(g_sjis_to_euc, static_cast<unsigned int>(in.size()),
                                      in.data(), room, out.get(), &length);
    FUZZ_CHECK(*result >= -2);
    if (*result == -1) return {};
    FUZZ_CHECK(length <= room);
    if (*result >= 0) FUZZ_CHECK(static_cast<unsigned int>(*result) == length);
    return std::string(out.get(), length);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    g_euc_to_sjis = Cnv_open("eucJP", "SJIS");
    g_sjis_to_euc = Cnv_open("SJIS", "eucJP");
    FUZZ_CHECK(g_euc_to_sjis != reinterpret_cast<iconv_t>(-1));
    FUZZ_CHECK(g_sjis_to_euc != reinterpret_cast<iconv_t>(-1));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2 || size > 16384) return 0;
    // Byte 0: direction; byte 1: the room, from none to three times the input.
    const bool to_sjis = (data[0] & 1) == 0;
    const std::string in(reinterpret_cast<const char*>(data + 2), size - 2);
    const unsigned int room = data[1] < 200 ? static_cast<unsigned int>(in.size() * data[1] / 64)
                                            : static_cast<unsigned int>(data[1] - 200);

    int result = 0;
    const std::string out = convert(to_sjis, in, room, &result);

    // A whole conversion with room to spare, of a text without NUL bytes,
    // comes back unchanged the other way.
    if (result >= 0 && room >= 3 * in.size() + 1 && in.find('\0') == std::string::npos) {
        int back_result = 0;
        const std::string back =
            convert(!to_sjis, out, static_cast<unsigned int>(3 * out.size() + 1), &back_result);
        if (back_result >= 0 && to_sjis) FUZZ_CHECK(back == in);
    }

    // The hexadecimal form of a text: two digits a byte and the NUL.
    const std::string text(in.c_str());
    std::unique_ptr<char[]> hex(new char[2 * text.size() + 1]);
    Cnv_tocode(text.c_str(), hex.get());
    FUZZ_CHECK(std::strlen(hex.get()) == 2 * text.size());
    return 0;
}
