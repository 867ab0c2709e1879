#include "smtp_test_support.h"

#include <cstring>
#include <string>

namespace {

using namespace smtp_test;

std::string encode(const std::string& input) {
    std::string in = input + std::string(3, 'Z');  // room the encoder clears
    std::string out(4 * ((input.size() + 2) / 3) + 1, '#');
    const int n = Auth_Base64Encode(reinterpret_cast<unsigned char*>(in.data()), out.data(),
                                    static_cast<int>(input.size()));
    EXPECT_EQ(static_cast<size_t>(n), out.size() - 1);
    EXPECT_EQ(out.back(), '\0');
    EXPECT_EQ(in.substr(input.size()), std::string(3, '\0'));
    return std::string(out.c_str());
}

std::string decode(const std::string& text, int* count = nullptr) {
    unsigned char out[2048];
    std::memset(out, 0xEE, sizeof out);
    const int n = Auth_Base64Decode(out, text.c_str(), static_cast<int>(text.size()));
    if (count) *count = n;
    EXPECT_EQ(out[n], 0) << "NUL after the decoded bytes";
    return std::string(reinterpret_cast<char*>(out), static_cast<size_t>(n));
}

std::string decode_text(const char* base64) { return decode(base64); }

TEST(AuthBase64, EncodesTheRfc4648Samples) {
    EXPECT_EQ(encode(""), "");
    EXPECT_EQ(encode("f"), "Zg==");
    EXPECT_EQ(encode("fo"), "Zm8=");
    EXPECT_EQ(encode("foo"), "Zm9v");
    EXPECT_EQ(encode("foob"), "Zm9vYg==");
    EXPECT_EQ(encode("fooba"), "Zm9vYmE=");
    EXPECT_EQ(encode("foobar"), "Zm9vYmFy");
    EXPECT_EQ(encode(std::string("\xff\xfe\x00\x01", 4)), "//4AAQ==");
}

TEST(AuthBase64, DecodesAndStopsAtThePad) {
    EXPECT_EQ(decode_text("Zm9vYmFy"), "foobar");
    EXPECT_EQ(decode_text("Zm9vYg=="), "foob");
    EXPECT_EQ(decode_text("Zm9vYmE="), "fooba");
    // Nothing after the pad is decoded.
    EXPECT_EQ(decode_text("Zg==Zm9v"), "f");
    EXPECT_EQ(decode(std::string("//4AAQ==")), std::string("\xff\xfe\x00\x01", 4));
}

TEST(AuthBase64, DropsATrailingCrLf) {
    EXPECT_EQ(decode_text("Zm9vYmFy\r\n"), "foobar");
    EXPECT_EQ(decode_text("Zm8=\r\n"), "fo");
}

TEST(AuthBase64, EmptyAndNonBase64InputsStayInBounds) {
    int n = -1;
    EXPECT_EQ(decode("", &n), "");
    EXPECT_EQ(n, 0);
    EXPECT_EQ(decode("\r\n", &n), "");
    // Not base64 at all: the first group yields one byte, then the decoder stops.
    EXPECT_EQ(decode("!!!!", &n).size(), 1u);
    EXPECT_EQ(decode("a", &n).size(), 1u);
}

TEST(AuthBase64, LongInputIsCutAtAWholeReplyLine) {
    unsigned char out[2048];
    std::memset(out, 0xEE, sizeof out);
    const std::string text(5000, 'A');
    const int n = Auth_Base64Decode(out, text.c_str(), static_cast<int>(text.size()));
    // 1027 characters: 256 whole groups and 3 characters that give 2 bytes.
    EXPECT_EQ(n, 770);
    EXPECT_EQ(out[770], 0);
    for (size_t i = 771; i < sizeof out; ++i) ASSERT_EQ(out[i], 0xEE) << i;
}

TEST(AuthBuilders, PlainIsUserNulUserNulPassword) {
    char out[512];
    EXPECT_EQ(Auth_GetCertPlainString("u", "p", out), 0);
    EXPECT_STREQ(out, "dQB1AHA=");
    EXPECT_EQ(decode(out), std::string("u\0u\0p", 5));
    EXPECT_EQ(Auth_GetCertPlainString("user", "", out), 0);
    EXPECT_EQ(decode(out), std::string("user\0user\0", 10));
}

TEST(AuthBuilders, PlainAtTheLimitsFillsTheDocumentedSize) {
    const std::string user(64, 'u'), password(64, 'p');
    char out[261 + 16];
    std::memset(out, '#', sizeof out);
    Auth_GetCertPlainString(user.c_str(), password.c_str(), out);
    EXPECT_EQ(std::strlen(out), 260u);
    EXPECT_EQ(out[261], '#');
    EXPECT_EQ(decode(out), user + '\0' + user + '\0' + password);
}

TEST(AuthBuilders, PlainWithOverlongInputsStaysWithinTheCallersSize) {
    const std::string user(1000, 'u'), password(1000, 'p');
    std::string out(2000, '#');
    Auth_GetCertPlainString(user.c_str(), password.c_str(), out.data());
    const size_t length = std::strlen(out.c_str());
    // Cut to 168 + 168 characters: 506 bytes, 676 characters of base64.
    EXPECT_EQ(length, 676u);
    EXPECT_EQ(out[677], '#');
    EXPECT_EQ(decode(out.c_str()),
              std::string(168, 'u') + '\0' + std::string(168, 'u') + '\0' + std::string(168, 'p'));
}

TEST(AuthBuilders, LoginEncodesUserAndPasswordApart) {
    char user[256], password[256];
    EXPECT_EQ(Auth_GetCertLoginString("tim", "secret", user, password), 0);
    EXPECT_STREQ(user, "dGlt");
    EXPECT_STREQ(password, "c2VjcmV0");
    EXPECT_EQ(Auth_GetCertLoginString(std::string(64, 'a').c_str(), "", user, password), 0);
    EXPECT_EQ(std::strlen(user), 88u);
    EXPECT_STREQ(password, "");
}

TEST(AuthBuilders, LoginWithOverlongInputsFitsTwo256ByteOutputs) {
    struct {
        char user[256];
        char guard1[16];
        char password[256];
        char guard2[16];
    } out;
    std::memset(&out, '#', sizeof out);
    const std::string long_text(1000, 'x');
    Auth_GetCertLoginString(long_text.c_str(), long_text.c_str(), out.user, out.password);
    EXPECT_EQ(std::strlen(out.user), 252u);
    EXPECT_EQ(std::strlen(out.password), 252u);
    EXPECT_EQ(std::string(out.guard1, 16), std::string(16, '#'));
    EXPECT_EQ(std::string(out.guard2, 16), std::string(16, '#'));
    EXPECT_EQ(decode(out.user), std::string(189, 'x'));
}

// RFC 2195, section 2: the example exchange.
TEST(AuthBuilders, CramMd5GivesTheResponseOfRfc2195) {
    char out[256];
    EXPECT_EQ(
        Auth_GetCertCramString("tim", "tanstaaftanstaaf",
                               "PDE4OTYuNjk3MTcwOTUyQHBvc3RvZmZpY2UucmVzdG9uLm1jaS5uZXQ+\r\n", out),
        0);
    EXPECT_STREQ(out, "dGltIGI5MTNhNjAyYzdlZGE3YTQ5NWI0ZTZlNzMzNGQzODkw");
    EXPECT_EQ(decode(out), "tim b913a602c7eda7a495b4e6e7334d3890");
}

TEST(AuthBuilders, CramMd5AtTheLimits) {
    const std::string user(64, 'u'), password(64, 'p');
    char out[256 + 16];
    std::memset(out, '#', sizeof out);
    Auth_GetCertCramString(user.c_str(), password.c_str(), "PDE+", out);
    const std::string response = decode(out);
    ASSERT_EQ(response.size(), 64u + 1 + 32);
    EXPECT_EQ(response.substr(0, 65), user + " ");
    EXPECT_EQ(response.find_first_not_of("0123456789abcdef", 65), std::string::npos);
}

TEST(AuthBuilders, CramMd5WithAnOverlongUserFits256Bytes) {
    const std::string user(1000, 'u');
    char out[256 + 64];
    std::memset(out, '#', sizeof out);
    Auth_GetCertCramString(user.c_str(), "pw", "PDE+", out);
    EXPECT_LE(std::strlen(out), 255u);
    EXPECT_EQ(std::string(out + 256, 64), std::string(64, '#'));
}

TEST(AuthBuilders, CramMd5WithAnEmptyOrForeignChallengeStillAnswers) {
    char empty[256], foreign[256];
    Auth_GetCertCramString("tim", "pw", "", empty);
    Auth_GetCertCramString("tim", "pw", "*** not base64 ***", foreign);
    EXPECT_EQ(decode(empty).substr(0, 4), "tim ");
    EXPECT_EQ(decode(empty).size(), 36u);
    EXPECT_EQ(decode(foreign).size(), 36u);
    // An empty challenge is HMAC-MD5 of nothing under the key "pw".
    unsigned char digest[16];
    hmac_md5(reinterpret_cast<const unsigned char*>(""), 0,
             reinterpret_cast<const unsigned char*>("pw"), 2, digest);
    char hex[33];
    for (int i = 0; i < 16; ++i) std::snprintf(hex + 2 * i, 3, "%02x", digest[i]);
    EXPECT_EQ(decode(empty), std::string("tim ") + hex);
}

TEST(AuthBuilders, TracesCarryTheDiagnosticTexts) {
    trace_clear();
    char out[512];
    Auth_GetCertPlainString("u", "p", out);
    EXPECT_TRUE(traced_in_order({"AHPLA0000", "AHPLA0005", "AHPLA0010", "AHPLAFFFF"}));
    EXPECT_EQ(trace_find("AHPLA0005").data, "u");
    EXPECT_EQ(trace_find("AHPLA0010").level, 2u);
    EXPECT_EQ(trace_find("AHPLAFFFF").level, 2u);
    trace_clear();
    Auth_GetCertCramString("tim", "pw", "PDE+", out);
    EXPECT_TRUE(
        traced_in_order({"AHCRAM0000", "AHCRAM0005", "AHCRAM0010", "AHCRAM0015", "AHCRAMFFFF"}));
    EXPECT_EQ(trace_find("AHCRAM0015").data, "PDE+");
    trace_clear();
    char user[256], password[256];
    Auth_GetCertLoginString("a", "b", user, password);
    EXPECT_TRUE(
        traced_in_order({"AHLGIN0000", "AHLGIN0005", "AHLGIN0010", "AHLGIN0015", "AHLGINFFFF"}));
}

TEST(AuthMechanisms, FindsEachMechanismByItsLeadingBlank) {
    unsigned int mask = 99;
    SMTP_getAuthMechanisms("250-AUTH LOGIN PLAIN CRAM-MD5\r\n", &mask);
    EXPECT_EQ(mask, 7u);
    SMTP_getAuthMechanisms("250 AUTH CRAM-MD5\r\n", &mask);
    EXPECT_EQ(mask, 4u);
    SMTP_getAuthMechanisms("250 AUTH DIGEST-MD5 PLAIN\r\n", &mask);
    EXPECT_EQ(mask, 2u);
    // Case-sensitive, and the equals form is not a blank.
    SMTP_getAuthMechanisms("250 AUTH login plain\r\n", &mask);
    EXPECT_EQ(mask, 0u);
    SMTP_getAuthMechanisms("250 AUTH=LOGIN\r\n", &mask);
    EXPECT_EQ(mask, 0u);
    SMTP_getAuthMechanisms("", &mask);
    EXPECT_EQ(mask, 0u);
}

TEST(AuthMechanisms, TracesTheMaskAsItGrows) {
    trace_clear();
    unsigned int mask = 0;
    SMTP_getAuthMechanisms("250 AUTH LOGIN CRAM-MD5", &mask);
    EXPECT_EQ(word_of(trace_find("GTAINF0010")), 1u);
    EXPECT_EQ(trace_count("GTAINF0015"), 0);
    EXPECT_EQ(word_of(trace_find("GTAINF0020")), 5u);
    EXPECT_EQ(word_of(trace_find("GTAINFFFFF")), 5u);
}

}  // namespace
