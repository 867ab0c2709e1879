// Sends with INPUT_CHARSET=UTF-8: subject, text and attachment names given in
// UTF-8 leave as the designed ISO-2022-JP mail of their Shift_JIS (CP932)
// form; the limits count that form; a character without one arrives as the
// GETA MARK and the call answers 1. Each mail is decoded back here without
// the library: ISO-2022-JP to Shift_JIS by the JIS arithmetic, then CP932 to
// UTF-8 by iconv.
#include "send_fixture.h"

#include <iconv.h>

#include <fstream>

namespace send_test {
namespace {

using kemail_test::TempDir;

// "日本語 かな ｶﾀｶﾅ ASCII ① " and GRINNING FACE.
const std::string kMixed =
    "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E \xE3\x81\x8B\xE3\x81\xAA "
    "\xEF\xBD\xB6\xEF\xBE\x80\xEF\xBD\xB6\xEF\xBE\x85 ASCII \xE2\x91\xA0 \xF0\x9F\x98\x80";
const std::string kGeta = "\xE3\x80\x93";         // GETA MARK in UTF-8
const std::string kKanji = "\xE6\xBC\xA2";        // one kanji: 3 bytes of UTF-8, 2 of Shift_JIS
const std::string kHalfWidthKa = "\xEF\xBD\xB6";  // 3 bytes of UTF-8, 1 of Shift_JIS

std::string repeat(const std::string& s, size_t n) {
    std::string out;
    for (size_t i = 0; i < n; ++i) out += s;
    return out;
}

std::string with_geta(std::string text) {
    const size_t at = text.find("\xF0\x9F\x98\x80");
    if (at != std::string::npos) text.replace(at, 4, kGeta);
    return text;
}

std::string base64_decode(const std::string& in) {
    static const std::string kAlphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    unsigned bits = 0;
    int count = 0;
    for (char c : in) {
        const size_t v = kAlphabet.find(c);
        if (v == std::string::npos) continue;
        bits = (bits << 6) | static_cast<unsigned>(v);
        count += 6;
        if (count >= 8) {
            count -= 8;
            out += static_cast<char>((bits >> count) & 0xFF);
        }
    }
    return out;
}

// ISO-2022-JP (ESC $ B double bytes, ESC ( J or ESC ( B single bytes, which
// here may include 8-bit half-width katakana) to Shift_JIS.
std::string iso2022_to_sjis(const std::string& in) {
    std::string out;
    bool double_byte = false;
    for (size_t i = 0; i < in.size();) {
        if (in[i] == '\x1b' && i + 2 < in.size()) {
            double_byte = in.compare(i, 3, "\x1b$B") == 0;
            i += 3;
            continue;
        }
        if (double_byte && i + 1 < in.size()) {
            const unsigned j1 = static_cast<unsigned char>(in[i]);
            const unsigned j2 = static_cast<unsigned char>(in[i + 1]);
            unsigned s1 = ((j1 - 0x21) >> 1) + 0x81;
            if (s1 > 0x9F) s1 += 0x40;
            unsigned s2;
            if (j1 & 1) {
                s2 = j2 + 0x1F;
                if (s2 >= 0x7F) ++s2;
            } else {
                s2 = j2 + 0x7E;
            }
            out += static_cast<char>(s1);
            out += static_cast<char>(s2);
            i += 2;
        } else {
            out += in[i++];
        }
    }
    return out;
}

std::string cp932_to_utf8(const std::string& in) {
    iconv_t cd = iconv_open("UTF-8", "CP932");
    EXPECT_NE(cd, reinterpret_cast<iconv_t>(-1));
    std::string out(in.size() * 3 + 16, '\0');
    char* src = const_cast<char*>(in.data());
    size_t src_left = in.size();
    char* dst = out.data();
    size_t dst_left = out.size();
    EXPECT_NE(iconv(cd, &src, &src_left, &dst, &dst_left), static_cast<size_t>(-1)) << in;
    iconv_close(cd);
    out.resize(out.size() - dst_left);
    return out;
}

std::string decode(const std::string& iso2022) { return cp932_to_utf8(iso2022_to_sjis(iso2022)); }

// The Subject header as an RFC 2047 reader shows it: unfolded, each
// encoded-word decoded, the blanks between two adjacent encoded-words
// dropped; bytes outside encoded-words are Shift_JIS as well.
std::string decoded_subject(const std::string& data) {
    const size_t start = data.find("\r\nSubject: ");
    if (start == std::string::npos) return "(no subject)";
    size_t end = data.find("\r\n", start + 2);
    while (end != std::string::npos && end + 2 < data.size() &&
           (data[end + 2] == ' ' || data[end + 2] == '\t'))
        end = data.find("\r\n", end + 2);
    std::string header = data.substr(start + 11, end - start - 11);
    for (size_t at = header.find("\r\n"); at != std::string::npos; at = header.find("\r\n", at))
        header.erase(at, 2);
    static const std::string kOpen = "=?ISO-2022-JP?B?";
    std::string sjis;
    std::string pending;  // plain text since the last encoded-word
    bool after_word = false;
    for (size_t i = 0; i < header.size();) {
        if (header.compare(i, kOpen.size(), kOpen) == 0) {
            const size_t from = i + kOpen.size();
            const size_t close = header.find("?=", from);
            if (!(after_word && pending.find_first_not_of(" \t") == std::string::npos))
                sjis += pending;
            pending.clear();
            sjis += iso2022_to_sjis(base64_decode(header.substr(from, close - from)));
            after_word = true;
            i = close + 2;
        } else {
            pending += header[i++];
        }
    }
    sjis += pending;
    return cp932_to_utf8(sjis);
}

// The text part's body, decoded, from the first empty line to the data end.
std::string decoded_text(const std::string& data) {
    const size_t start = data.find("\r\n\r\n");
    const size_t end = data.rfind("\r\n.\r\n");
    if (start == std::string::npos || end == std::string::npos) return "(no body)";
    return decode(data.substr(start + 4, end - start - 4));
}

// The designed subject encoding folds before a double-byte run that starts
// late in the line, which a reader shows as a blank; this subject's runs
// start early enough to come back exactly.
const std::string kSubject =
    "\xE2\x91\xA0\xF0\x9F\x98\x80"
    "ASCII\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E\xE3\x81\x8B\xE3\x81\xAA";

// The message as the server received it, or nothing when the dialogue did
// not get that far.
std::string message_data(const ScriptServer& server) {
    const auto records = server.records();
    return records.size() > 4 ? records[4] : std::string();
}

class Utf8Input : public SendTest {
protected:
    void SetUp() override {
        SendTest::SetUp();
        ASSERT_EQ(ZvKe_SetOption("INPUT_CHARSET", "UTF-8"), 0);
    }
    void TearDown() override {
        ZvKe_SetOption("INPUT_CHARSET", nullptr);
        SendTest::TearDown();
    }
    static std::string mail_log() {
        return kemail_test::read_file(kemail_test::var_dir() + "/log/kesmtp" +
                                      std::to_string(getpid()) + ".log");
    }
    static std::string trace_file() {
        return kemail_test::read_file(kemail_test::var_dir() + "/tmp2/acert" +
                                      std::to_string(getpid()) + "-" +
                                      std::to_string(static_cast<int>(pthread_self())) + ".trc");
    }
};

TEST_F(Utf8Input, KanjiKanaAsciiAndCp932ArriveAndTheEmojiBecomesTheGetaMark) {
    ScriptServer server(whole_mail_script());
    Mail mail(server.port());
    mail.subject = kSubject;
    mail.text = kMixed + "\nsecond line\n";
    EXPECT_EQ(mail.send(), KEMAIL_W_CONVERSION);
    EXPECT_STREQ(mail.message, "");
    ASSERT_TRUE(server.wait_done());
    const auto records = server.records();
    ASSERT_EQ(records.size(), 6u);
    const std::string& data = records[4];
    EXPECT_NE(data.find("Content-Type: text/plain; charset=\"ISO-2022-JP\"\r\n"),
              std::string::npos);
    EXPECT_EQ(decoded_subject(data), with_geta(kSubject)) << data;
    EXPECT_EQ(decoded_text(data), with_geta(kMixed) + "\r\nsecond line\r\n\r\n\r\n");

    const std::string log = mail_log();
    EXPECT_NE(log.find(" -: WARNING: UTF-8 CONVERSION (subject) characters without a Shift_JIS "
                       "form sent as GETA MARK\r\n"),
              std::string::npos)
        << log;
    EXPECT_NE(log.find(" -: WARNING: UTF-8 CONVERSION (text) "), std::string::npos) << log;
    const std::string trace = trace_file();
    EXPECT_NE(trace.find("EMAILAPI006b"), std::string::npos);
    EXPECT_NE(trace.find("EMAILAPI006c"), std::string::npos);
}

TEST_F(Utf8Input, EveryCharacterConvertedGivesResult0) {
    ScriptServer server(whole_mail_script());
    Mail mail(server.port());
    const std::string clean = kMixed.substr(0, kMixed.size() - 5);  // without " 😀"
    const std::string clean_subject = kSubject.substr(0, 3) + kSubject.substr(7);
    mail.subject = clean_subject;
    mail.text = clean + "\n";
    const size_t logged_before = mail_log().size();
    EXPECT_EQ(mail.send(), KEMAIL_OK);
    ASSERT_TRUE(server.wait_done());
    const std::string data = message_data(server);
    EXPECT_EQ(decoded_subject(data), clean_subject);
    EXPECT_EQ(decoded_text(data), clean + "\r\n\r\n\r\n");
    EXPECT_EQ(mail_log().find("WARNING: UTF-8", logged_before), std::string::npos);
}

TEST_F(Utf8Input, AnInvalidSequenceBecomesTheGetaMark) {
    ScriptServer server(whole_mail_script());
    Mail mail(server.port());
    mail.subject = "ab\xC3(";
    mail.text = std::nullopt;
    EXPECT_EQ(mail.send(), KEMAIL_W_CONVERSION);
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(decoded_subject(message_data(server)), "ab" + kGeta + "(");
}

// 32 kanji are 96 bytes of UTF-8 and 64 of Shift_JIS: the limit is the
// converted length, so a UTF-8 caller sends as many characters as others.
TEST_F(Utf8Input, TheSubjectLimitCountsShiftJisBytes) {
    {
        ScriptServer server(whole_mail_script());
        Mail mail(server.port());
        mail.subject = repeat(kKanji, 32);
        EXPECT_EQ(mail.send(), KEMAIL_OK) << mail.message;
        ASSERT_TRUE(server.wait_done());
        EXPECT_EQ(decoded_subject(message_data(server)), repeat(kKanji, 32));
    }
    {
        ScriptServer server(whole_mail_script());
        Mail mail(server.port());
        mail.subject = repeat(kHalfWidthKa, 64);  // 192 bytes of UTF-8
        EXPECT_EQ(mail.send(), KEMAIL_OK) << mail.message;
        ASSERT_TRUE(server.wait_done());
    }
    for (const std::string& subject :
         {repeat(kKanji, 33), repeat(kKanji, 32) + "a", repeat(kHalfWidthKa, 65),
          repeat("\xFF", 33) /* each invalid byte is a 2-byte GETA MARK */}) {
        Mail mail(1);  // never connected
        mail.subject = subject;
        EXPECT_EQ(mail.send(), KEMAIL_E_ARGUMENT) << subject.size();
        EXPECT_NE(trace_file().find("EMAILAPI0057"), std::string::npos);
    }
}

TEST_F(Utf8Input, TheTextLimitCountsShiftJisBytes) {
    // 5119 kanji: 10,238 bytes of Shift_JIS, 15,357 of UTF-8.
    {
        ScriptServer server(whole_mail_script());
        Mail mail(server.port());
        mail.text = repeat(kKanji, 5119);
        EXPECT_EQ(mail.send(), KEMAIL_OK) << mail.message;
        ASSERT_TRUE(server.wait_done());
        // The designed body breaks long lines; the characters are all there.
        std::string text = decoded_text(message_data(server));
        for (size_t at = text.find("\r\n"); at != std::string::npos; at = text.find("\r\n", at))
            text.erase(at, 2);
        EXPECT_EQ(text, repeat(kKanji, 5119));
    }
    for (const std::string& text : {repeat(kKanji, 5119) + "a", repeat(kKanji, 5120)}) {
        Mail mail(1);
        mail.text = text;
        EXPECT_EQ(mail.send(), KEMAIL_E_ARGUMENT);
        EXPECT_NE(trace_file().find("EMAILAPI1020"), std::string::npos);
    }
}

TEST_F(Utf8Input, AttachmentNamesAreShownInShiftJis) {
    TempDir dir;
    // "報告.txt" and "😀.bin".
    const std::string report = dir.file("\xE5\xA0\xB1\xE5\x91\x8A.txt");
    const std::string emoji = dir.file("\xF0\x9F\x98\x80.bin");
    kemail_test::write_file(report, "abc");
    kemail_test::write_file(emoji, "xyz");
    {
        ScriptServer server(whole_mail_script());
        Mail mail(server.port());
        mail.attachments = {{KEMAIL_CONTENT_ATTACHMENT, report}};
        EXPECT_EQ(mail.send(), KEMAIL_OK);
        ASSERT_TRUE(server.wait_done());
        const std::string data = message_data(server);
        EXPECT_NE(data.find("name=\"\x95\xF1\x8D\x90.txt\"\r\n"), std::string::npos) << data;
        EXPECT_NE(data.find("filename=\"\x95\xF1\x8D\x90.txt\"\r\n"), std::string::npos);
    }
    {
        ScriptServer server(whole_mail_script());
        Mail mail(server.port());
        mail.attachments = {{KEMAIL_CONTENT_ATTACHMENT, emoji}};
        EXPECT_EQ(mail.send(), KEMAIL_W_CONVERSION);
        ASSERT_TRUE(server.wait_done());
        EXPECT_NE(message_data(server).find("name=\"\x81\xAC.bin\"\r\n"), std::string::npos);
        EXPECT_NE(trace_file().find("EMAILAPI00b8"), std::string::npos);
        EXPECT_NE(mail_log().find("WARNING: UTF-8 CONVERSION (attachment name)"),
                  std::string::npos);
    }
}

// Without the key the subject's bytes go out as given (the designed rule for
// a process in the C locale): 32 kanji of UTF-8 are 96 bytes and refused.
TEST_F(Utf8Input, WithoutTheKeyTheDesignedRulesHold) {
    ASSERT_EQ(ZvKe_SetOption("INPUT_CHARSET", nullptr), 0);
    Mail mail(1);
    mail.subject = repeat(kKanji, 32);
    EXPECT_EQ(mail.send(), KEMAIL_E_ARGUMENT);
}

}  // namespace
}  // namespace send_test
