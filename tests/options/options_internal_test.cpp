// Settings beyond the design: accepted values, the file layer and the
// process's overrides, and the defaults that keep the designed behaviour.
#include "options/options.h"

#include "kemail.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using kemail::options::AddressFamily;
using kemail::options::current;
using kemail::options::InputCharset;
using kemail::options::PopTls;
using kemail::options::Settings;
using kemail::options::SmtpTls;
using kemail_test::TempDir;

class Options : public ::testing::Test {
protected:
    void SetUp() override { kemail::options::reset(); }
    void TearDown() override { kemail::options::reset(); }

    // Loads kemail.ini text as the send does.
    void load(const std::string& text) {
        const std::string path = dir_.file("kemail.ini");
        kemail_test::write_file(path, text);
        ProfileHandle* profile = Com_OpenPrivateProfile(path.c_str(), 0);
        ASSERT_NE(profile, nullptr);
        kemail::options::load_from_profile(profile);
        Com_ClosePrivateProfile(profile, nullptr);
    }

    TempDir dir_;
};

TEST_F(Options, NothingNamedMeansTheDesignedBehaviour) {
    const Settings s = current();
    EXPECT_EQ(s.input_charset, InputCharset::Locale);
    EXPECT_EQ(s.tls, SmtpTls::None);
    EXPECT_TRUE(s.tls_verify);
    EXPECT_STREQ(s.tls_ca_file, "");
    EXPECT_STREQ(s.tls_server_name, "");
    EXPECT_EQ(s.pop_tls, PopTls::None);
    EXPECT_EQ(s.address_family, AddressFamily::Ipv4);
    EXPECT_FALSE(s.pipelining);
}

TEST_F(Options, EveryKeyTakesItsValues) {
    EXPECT_EQ(ZvKe_SetOption("INPUT_CHARSET", "UTF-8"), 0);
    EXPECT_EQ(ZvKe_SetOption("TLS", "starttls"), 0);
    EXPECT_EQ(ZvKe_SetOption("TLS_VERIFY", "0"), 0);
    EXPECT_EQ(ZvKe_SetOption("TLS_CA_FILE", "/etc/ssl/test-ca.pem"), 0);
    EXPECT_EQ(ZvKe_SetOption("TLS_SERVER_NAME", "mx.example.com"), 0);
    EXPECT_EQ(ZvKe_SetOption("POP_TLS", "pop3s"), 0);
    EXPECT_EQ(ZvKe_SetOption("ADDRESS_FAMILY", "any"), 0);
    EXPECT_EQ(ZvKe_SetOption("PIPELINING", "1"), 0);
    const Settings s = current();
    EXPECT_EQ(s.input_charset, InputCharset::Utf8);
    EXPECT_EQ(s.tls, SmtpTls::StartTls);
    EXPECT_FALSE(s.tls_verify);
    EXPECT_STREQ(s.tls_ca_file, "/etc/ssl/test-ca.pem");
    EXPECT_STREQ(s.tls_server_name, "mx.example.com");
    EXPECT_EQ(s.pop_tls, PopTls::Pop3s);
    EXPECT_EQ(s.address_family, AddressFamily::Any);
    EXPECT_TRUE(s.pipelining);

    EXPECT_EQ(ZvKe_SetOption("TLS", "SMTPS"), 0) << "words are taken in any case";
    EXPECT_EQ(current().tls, SmtpTls::Smtps);
    EXPECT_EQ(ZvKe_SetOption("POP_TLS", "stls"), 0);
    EXPECT_EQ(current().pop_tls, PopTls::Stls);
}

TEST_F(Options, UnknownKeysAndRefusedValuesChangeNothing) {
    ASSERT_EQ(ZvKe_SetOption("TLS", "starttls"), 0);
    EXPECT_EQ(ZvKe_SetOption("TLS", "maybe"), -1);
    EXPECT_EQ(ZvKe_SetOption("TLS", ""), -1);
    EXPECT_EQ(current().tls, SmtpTls::StartTls);
    EXPECT_EQ(ZvKe_SetOption("tls", "none"), -1) << "key names are exact";
    EXPECT_EQ(ZvKe_SetOption("CONTENT_DISPOSITION", "1"), -1);
    EXPECT_EQ(ZvKe_SetOption(nullptr, "1"), -1);
    EXPECT_EQ(ZvKe_SetOption("TLS_VERIFY", "yes"), -1);
    EXPECT_EQ(ZvKe_SetOption("INPUT_CHARSET", "EUC-JP"), -1);
    EXPECT_EQ(ZvKe_SetOption("ADDRESS_FAMILY", "ipv6"), -1);
    EXPECT_EQ(ZvKe_SetOption("TLS_SERVER_NAME", "two words"), -1);
    EXPECT_EQ(ZvKe_SetOption("TLS_SERVER_NAME", std::string(256, 'a').c_str()), -1);
    EXPECT_EQ(ZvKe_SetOption("TLS_SERVER_NAME", std::string(255, 'a').c_str()), 0);
    EXPECT_EQ(ZvKe_SetOption("TLS_CA_FILE", std::string(1025, 'a').c_str()), -1);
    EXPECT_EQ(ZvKe_SetOption("TLS_CA_FILE", std::string(1024, 'a').c_str()), 0);
    EXPECT_EQ(ZvKe_SetOption("TLS_CA_FILE", ""), -1);
}

TEST_F(Options, NullValueRemovesTheOverride) {
    ASSERT_EQ(ZvKe_SetOption("PIPELINING", "1"), 0);
    ASSERT_TRUE(current().pipelining);
    EXPECT_EQ(ZvKe_SetOption("PIPELINING", nullptr), 0);
    EXPECT_FALSE(current().pipelining);
    EXPECT_EQ(ZvKe_SetOption("NO_SUCH_KEY", nullptr), -1);
}

TEST_F(Options, FileValuesApplyAndOverridesWin) {
    load("[KEMAIL]\nCONTENT_DISPOSITION=1\nTLS=smtps\nTLS_VERIFY=0\nADDRESS_FAMILY=any\n");
    Settings s = current();
    EXPECT_EQ(s.tls, SmtpTls::Smtps);
    EXPECT_FALSE(s.tls_verify);
    EXPECT_EQ(s.address_family, AddressFamily::Any);

    ASSERT_EQ(ZvKe_SetOption("TLS", "none"), 0);
    ASSERT_EQ(ZvKe_SetOption("TLS_VERIFY", "1"), 0);
    s = current();
    EXPECT_EQ(s.tls, SmtpTls::None);
    EXPECT_TRUE(s.tls_verify);
    EXPECT_EQ(s.address_family, AddressFamily::Any) << "a key without override keeps the file's";

    ASSERT_EQ(ZvKe_SetOption("TLS", nullptr), 0);
    EXPECT_EQ(current().tls, SmtpTls::Smtps) << "without the override the file's value is back";
}

TEST_F(Options, RefusedFileValuesCountAsAbsent) {
    load("[KEMAIL]\nTLS=sometimes\nPIPELINING=2\nINPUT_CHARSET=UTF-8\n[OTHER]\nTLS=smtps\n");
    const Settings s = current();
    EXPECT_EQ(s.tls, SmtpTls::None);
    EXPECT_FALSE(s.pipelining);
    EXPECT_EQ(s.input_charset, InputCharset::Utf8);
}

TEST_F(Options, AMissingFileClearsWhatAnEarlierFileGave) {
    load("[KEMAIL]\nPIPELINING=1\n");
    ASSERT_TRUE(current().pipelining);
    kemail::options::load_from_profile(nullptr);
    EXPECT_FALSE(current().pipelining);
}

// Pipelining is taken from ZvKe_SetOption and from the file.
TEST(OptionsAvailable, PipeliningIsTaken) {
    kemail::options::reset();
    EXPECT_EQ(ZvKe_SetOption("PIPELINING", "1"), 0);
    EXPECT_TRUE(current().pipelining);
    EXPECT_EQ(ZvKe_SetOption("PIPELINING", "yes"), -1) << "not a value of the key";
    EXPECT_TRUE(current().pipelining) << "a refused value changes nothing";
    EXPECT_EQ(ZvKe_SetOption("PIPELINING", nullptr), 0);
    EXPECT_FALSE(current().pipelining);
    TempDir dir;
    const std::string path = dir.file("kemail.ini");
    kemail_test::write_file(path, "[KEMAIL]\nPIPELINING=1\n");
    ProfileHandle* profile = Com_OpenPrivateProfile(path.c_str(), 0);
    ASSERT_NE(profile, nullptr);
    kemail::options::load_from_profile(profile);
    Com_ClosePrivateProfile(profile, nullptr);
    EXPECT_TRUE(current().pipelining);
    kemail::options::reset();
}

// UTF-8 input and the address family are in the library: taken from the
// file and from ZvKe_SetOption without the test switch.
TEST(OptionsAvailable, InputCharsetAndAddressFamilyAreTaken) {
    kemail::options::reset();
    EXPECT_EQ(ZvKe_SetOption("INPUT_CHARSET", "UTF-8"), 0);
    EXPECT_EQ(ZvKe_SetOption("ADDRESS_FAMILY", "any"), 0);
    EXPECT_EQ(ZvKe_SetOption("ADDRESS_FAMILY", "ipv6"), -1) << "not a value of the key";
    EXPECT_EQ(current().input_charset, InputCharset::Utf8);
    EXPECT_EQ(current().address_family, AddressFamily::Any);
    EXPECT_EQ(ZvKe_SetOption("INPUT_CHARSET", nullptr), 0);
    EXPECT_EQ(ZvKe_SetOption("ADDRESS_FAMILY", nullptr), 0);
    EXPECT_EQ(current().input_charset, InputCharset::Locale);

    TempDir dir;
    const std::string path = dir.file("kemail.ini");
    kemail_test::write_file(path, "[KEMAIL]\nINPUT_CHARSET=UTF-8\nADDRESS_FAMILY=any\n");
    ProfileHandle* profile = Com_OpenPrivateProfile(path.c_str(), 0);
    ASSERT_NE(profile, nullptr);
    kemail::options::load_from_profile(profile);
    Com_ClosePrivateProfile(profile, nullptr);
    EXPECT_EQ(current().input_charset, InputCharset::Utf8);
    EXPECT_EQ(current().address_family, AddressFamily::Any);
    kemail::options::load_from_profile(nullptr);
    EXPECT_EQ(current().input_charset, InputCharset::Locale) << "no file: no value from it";
    EXPECT_EQ(current().address_family, AddressFamily::Ipv4);
    kemail::options::reset();
}

// The TLS keys are taken from ZvKe_SetOption and from the file; a value they
// do not accept is still refused.
TEST(OptionsAvailable, TheTlsKeysAreTaken) {
    kemail::options::reset();
    EXPECT_EQ(ZvKe_SetOption("TLS", "starttls"), 0);
    EXPECT_EQ(ZvKe_SetOption("TLS", "ssl"), -1);
    EXPECT_EQ(ZvKe_SetOption("TLS_VERIFY", "0"), 0);
    EXPECT_EQ(ZvKe_SetOption("TLS_VERIFY", "2"), -1);
    EXPECT_EQ(ZvKe_SetOption("TLS_CA_FILE", "/etc/ssl/ca.pem"), 0);
    EXPECT_EQ(ZvKe_SetOption("TLS_SERVER_NAME", "mx.example.com"), 0);
    EXPECT_EQ(ZvKe_SetOption("TLS_SERVER_NAME", "mx example"), -1);
    EXPECT_EQ(ZvKe_SetOption("POP_TLS", "pop3s"), 0);
    EXPECT_EQ(ZvKe_SetOption("POP_TLS", "tls"), -1);
    Settings s = current();
    EXPECT_EQ(s.tls, SmtpTls::StartTls);
    EXPECT_FALSE(s.tls_verify);
    EXPECT_STREQ(s.tls_ca_file, "/etc/ssl/ca.pem");
    EXPECT_STREQ(s.tls_server_name, "mx.example.com");
    EXPECT_EQ(s.pop_tls, PopTls::Pop3s);
    for (const char* key : {"TLS", "TLS_VERIFY", "TLS_CA_FILE", "TLS_SERVER_NAME", "POP_TLS"})
        EXPECT_EQ(ZvKe_SetOption(key, nullptr), 0) << key;

    TempDir dir;
    const std::string path = dir.file("kemail.ini");
    kemail_test::write_file(path, "[KEMAIL]\nTLS=smtps\nPOP_TLS=stls\n");
    ProfileHandle* profile = Com_OpenPrivateProfile(path.c_str(), 0);
    ASSERT_NE(profile, nullptr);
    kemail::options::load_from_profile(profile);
    Com_ClosePrivateProfile(profile, nullptr);
    s = current();
    EXPECT_EQ(s.tls, SmtpTls::Smtps);
    EXPECT_TRUE(s.tls_verify);
    EXPECT_EQ(s.pop_tls, PopTls::Stls);
    kemail::options::reset();
}

}  // namespace
