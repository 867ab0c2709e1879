// Sends from a process in an EUC-JP locale: subject and text are converted to
// Shift_JIS and go out as ISO-2022-JP; a text the converter refuses goes out
// unconverted and the call answers 1. The locale is generated for the test
// with localedef into a private directory (LOCPATH).
#include "send_fixture.h"

#include <clocale>
#include <cstdlib>

namespace send_test {
namespace {

using kemail_test::TempDir;

// EUC-JP for the two characters of "Nihon" (day, book) and a full stop.
constexpr char kEucNihon[] = "\xC6\xFC\xCB\xDC";
// Their JIS X 0208 codes: EUC-JP bytes without the high bit.
constexpr char kJisNihon[] = "\x46\x7C\x4B\x5C";

class EucLocale : public SendTest {
protected:
    static void SetUpTestSuite() {
        locale_dir_ = new TempDir();
        const std::string command = "localedef -f EUC-JP -i ja_JP '" + locale_dir_->path() +
                                    "/ja_JP.eucJP' >/dev/null 2>&1";
        generated_ = std::system(command.c_str()) == 0;
        setenv("LOCPATH", locale_dir_->path().c_str(), 1);
    }
    static void TearDownTestSuite() {
        std::setlocale(LC_ALL, "C");
        unsetenv("LOCPATH");
        delete locale_dir_;
    }
    void SetUp() override {
        SendTest::SetUp();
        ASSERT_TRUE(generated_) << "localedef could not generate ja_JP.eucJP "
                                   "(package locales with its EUC-JP charmap is needed)";
        ASSERT_NE(std::setlocale(LC_ALL, "ja_JP.eucJP"), nullptr);
    }
    void TearDown() override {
        std::setlocale(LC_ALL, "C");
        SendTest::TearDown();
    }

    static TempDir* locale_dir_;
    static bool generated_;
};

TempDir* EucLocale::locale_dir_ = nullptr;
bool EucLocale::generated_ = false;

TEST_F(EucLocale, SubjectAndTextAreConvertedAndSentAsIso2022Jp) {
    ScriptServer server(whole_mail_script());
    Mail mail(server.port());
    mail.subject = kEucNihon;
    mail.text = std::string(kEucNihon) + "\n";
    EXPECT_EQ(mail.send(), KEMAIL_OK);
    EXPECT_STREQ(mail.message, "");
    ASSERT_TRUE(server.wait_done());
    const auto records = server.records();
    ASSERT_EQ(records.size(), 6u);
    const std::string& data = records[4];
    // ESC $ B, the two JIS characters, ESC ( J, in base64.
    EXPECT_NE(data.find("Subject: =?ISO-2022-JP?B?GyRCRnxLXBsoSg==?=\r\n"), std::string::npos)
        << data;
    EXPECT_NE(data.find("Content-Type: text/plain; charset=\"ISO-2022-JP\"\r\n"),
              std::string::npos);
    EXPECT_NE(data.find("\r\n\r\n\x1b$B" + std::string(kJisNihon) + "\x1b(J\r\n"),
              std::string::npos)
        << data;
}

TEST_F(EucLocale, TextTheConverterRefusesGoesOutUnconvertedWithResultOne) {
    ScriptServer server(whole_mail_script());
    Mail mail(server.port());
    mail.subject = kEucNihon;  // converts
    mail.text =
        "ok line\r\n\xA4"
        "A broken\n";  // 0xA4 0x41 is no EUC-JP character
    EXPECT_EQ(mail.send(), KEMAIL_W_CONVERSION);
    EXPECT_STREQ(mail.message, "");
    ASSERT_TRUE(server.wait_done());
    const auto records = server.records();
    ASSERT_EQ(records.size(), 6u);
    const std::string& data = records[4];
    EXPECT_NE(data.find("Subject: =?ISO-2022-JP?B?GyRCRnxLXBsoSg==?=\r\n"), std::string::npos);
    EXPECT_NE(data.find("\r\n\r\nok line\r\n\xA4"
                        "A broken\r\n\r\n\r\n"),
              std::string::npos)
        << data;
}

TEST_F(EucLocale, SubjectTheConverterRefusesGoesOutUnconvertedWithResultOne) {
    ScriptServer server(whole_mail_script());
    Mail mail(server.port());
    mail.subject =
        "bad \xA4"
        "A";  // no EUC-JP character; no Shift_JIS lead byte either
    EXPECT_EQ(mail.send(), KEMAIL_W_CONVERSION);
    ASSERT_TRUE(server.wait_done());
    ASSERT_EQ(server.records().size(), 6u);
    EXPECT_NE(server.records()[4].find("Subject: bad \xA4"
                                       "A\r\n"),
              std::string::npos)
        << server.records()[4];
}

}  // namespace
}  // namespace send_test
