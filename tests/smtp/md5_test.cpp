#include "kemail.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

std::string hex(const unsigned char* bytes, size_t n) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < n; ++i) {
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 15];
    }
    return text;
}

std::string md5_hex(const std::string& input) {
    KEMAIL_MD5_CTX context;
    MD5Init(&context);
    MD5Update(&context, reinterpret_cast<const unsigned char*>(input.data()),
              static_cast<unsigned>(input.size()));
    unsigned char digest[16];
    MD5Final(digest, &context);
    return hex(digest, 16);
}

std::string hmac_hex(const std::string& text, const std::string& key) {
    unsigned char digest[16];
    hmac_md5(reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()),
             reinterpret_cast<const unsigned char*>(key.data()), static_cast<int>(key.size()),
             digest);
    return hex(digest, 16);
}

// The test suite of RFC 1321, appendix A.5.
TEST(Md5, Rfc1321TestSuite) {
    EXPECT_EQ(md5_hex(""), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(md5_hex("a"), "0cc175b9c0f1b6a831c399e269772661");
    EXPECT_EQ(md5_hex("abc"), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(md5_hex("message digest"), "f96b697d7cb7938d525a2f31aaf161d0");
    EXPECT_EQ(md5_hex("abcdefghijklmnopqrstuvwxyz"), "c3fcd3d76192e4007dfb496cca67e13b");
    EXPECT_EQ(md5_hex("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"),
              "d174ab98d277d9f5a5611c2c9f419d9f");
    EXPECT_EQ(md5_hex("1234567890123456789012345678901234567890123456789012345678901234567890"
                      "1234567890"),
              "57edf4a22be3c955ac49da2e2107b67a");
}

TEST(Md5, PiecesOfAnySizeGiveTheDigestOfTheWhole) {
    std::string input;
    for (int i = 0; i < 1000; ++i) input += static_cast<char>((i * 7 + 3) & 0xff);
    const std::string whole = md5_hex(input);
    for (size_t piece : {1u, 3u, 55u, 56u, 63u, 64u, 65u, 127u, 999u}) {
        KEMAIL_MD5_CTX context;
        MD5Init(&context);
        for (size_t at = 0; at < input.size(); at += piece) {
            const size_t n = std::min(piece, input.size() - at);
            MD5Update(&context, reinterpret_cast<const unsigned char*>(input.data() + at),
                      static_cast<unsigned>(n));
        }
        unsigned char digest[16];
        MD5Final(digest, &context);
        EXPECT_EQ(hex(digest, 16), whole) << "piece size " << piece;
    }
}

TEST(Md5, LengthsAroundThePaddingEdge) {
    // 55 bytes pad within one block, 56 need a second block.
    EXPECT_EQ(md5_hex(std::string(55, 'a')), "ef1772b6dff9a122358552954ad0df65");
    EXPECT_EQ(md5_hex(std::string(56, 'a')), "3b0c8ac703f828b04c6c197006d17218");
    EXPECT_EQ(md5_hex(std::string(64, 'a')), "014842d480b571495a4a0363793f7367");
}

TEST(Md5, FinalClearsTheContext) {
    KEMAIL_MD5_CTX context;
    MD5Init(&context);
    MD5Update(&context, reinterpret_cast<const unsigned char*>("abc"), 3);
    unsigned char digest[16];
    MD5Final(digest, &context);
    KEMAIL_MD5_CTX zero;
    std::memset(&zero, 0, sizeof zero);
    EXPECT_EQ(std::memcmp(&context, &zero, sizeof zero), 0);
}

// RFC 2104, appendix: the three sample results.
TEST(HmacMd5, Rfc2104Vectors) {
    EXPECT_EQ(hmac_hex("Hi There", std::string(16, '\x0b')), "9294727a3638bb1c13f48ef8158bfc9d");
    EXPECT_EQ(hmac_hex("what do ya want for nothing?", "Jefe"), "750c783e6ab0b503eaa86e310a5db738");
    EXPECT_EQ(hmac_hex(std::string(50, '\xdd'), std::string(16, '\xaa')),
              "56be34521d144c88dbb8c733f0e8b3f6");
}

// RFC 2202: a key longer than the 64-byte block is hashed first.
TEST(HmacMd5, KeyLongerThanABlockIsHashedFirst) {
    EXPECT_EQ(
        hmac_hex("Test Using Larger Than Block-Size Key - Hash Key First", std::string(80, '\xaa')),
        "6b1ab7fe4bd7bf8f0b62e6ce61b9d0cd");
    EXPECT_EQ(hmac_hex("Test Using Larger Than Block-Size Key and Larger Than One Block-Size Data",
                       std::string(80, '\xaa')),
              "6f630fad67cda0ee1fb1f562db3aa53e");
    // A key of exactly 64 bytes is used as it is.
    EXPECT_NE(hmac_hex("x", std::string(64, 'k')), hmac_hex("x", std::string(65, 'k')));
}

}  // namespace
