// A host without OpenSSL: run by hide-libssl.sh, in which libssl.so.3 cannot
// be loaded. The library still loads and sends in clear; TLS asked for
// gives -30 with the reason, before anything is asked of the server.
#include "kemail.h"
#include "send/send_fixture.h"

#include <gtest/gtest.h>

#include <dlfcn.h>

namespace {

using send_test::greet;
using send_test::Mail;
using send_test::Script;
using send_test::ScriptServer;

TEST(NoLibssl, TheLibraryIsReallyHidden) {
    void* library = dlopen("libssl.so.3", RTLD_NOW | RTLD_LOCAL);
    EXPECT_EQ(library, nullptr) << "the test must run under hide-libssl.sh";
    if (library != nullptr) dlclose(library);
}

TEST(NoLibssl, APlainSendWorks) {
    ScriptServer server(send_test::whole_mail_script());
    Mail mail(server.port());
    EXPECT_EQ(mail.send(), KEMAIL_OK) << mail.message;
    EXPECT_EQ(server.error(), "");
}

TEST(NoLibssl, StartTlsGivesMinus30AndSendsNothingAfterEhlo) {
    ASSERT_EQ(ZvKe_SetOption("TLS", "starttls"), 0);
    Script s;
    greet(s, "250-kemail-test\r\n250-STARTTLS\r\n250 8BITMIME\r\n").drain();
    ScriptServer server(std::move(s));
    Mail mail(server.port());
    EXPECT_EQ(mail.send(), KEMAIL_E_TLS);
    EXPECT_STREQ(mail.message, "libssl.so.3 not found");
    // The EHLO, then nothing until the connection closed. The server records
    // the close in its own thread: wait for it to get there.
    EXPECT_TRUE(server.wait_done());
    EXPECT_EQ(server.records(),
              (std::vector<std::string>{"EHLO " + send_test::host_name() + "\r\n", ""}));
    EXPECT_EQ(ZvKe_SetOption("TLS", nullptr), 0);
}

TEST(NoLibssl, SmtpsGivesMinus30) {
    ASSERT_EQ(ZvKe_SetOption("TLS", "smtps"), 0);
    Script s;
    s.drain();
    ScriptServer server(std::move(s));
    Mail mail(server.port());
    EXPECT_EQ(mail.send(), KEMAIL_E_TLS);
    EXPECT_STREQ(mail.message, "libssl.so.3 not found");
    EXPECT_TRUE(server.wait_done());
    EXPECT_EQ(server.records(), std::vector<std::string>{""});
    EXPECT_EQ(ZvKe_SetOption("TLS", nullptr), 0);
}

}  // namespace
