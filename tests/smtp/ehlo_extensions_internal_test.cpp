// The service extensions an EHLO reply announces, as the settings beyond
// the designed dialogue see them.
#include "dialogue.h"
#include "smtp/smtp.h"

namespace {

using kemail_test::Script;
using kemail_test::ScriptServer;
using namespace smtp_test;

class EhloExtensions : public ::testing::Test {
protected:
    void SetUp() override {
        SMTP_SetTimeOut(5);
        SMTP_SetStartTime();
    }
    unsigned int err = 777;
};

TEST_F(EhloExtensions, TheExtensionsOfTheLastEhloReplyAreKnown) {
    char capability[KEMAIL_RECV_BUF_SIZE] = {};
    {
        ScriptServer server(
            Script().send("250-mx.example\r\n250-starttls\r\n250-SIZE 100\r\n250 PIPELINING\r\n"));
        Client client(server);
        ASSERT_EQ(SMTP_readEhloReply(client.sock, capability, &err), 0);
        EXPECT_EQ(kemail::smtp::ehlo_extensions(),
                  kemail::smtp::kExtStartTls | kemail::smtp::kExtPipelining);
    }
    {
        // A keyword that only begins like one, or one named in another
        // line's parameters, announces nothing.
        ScriptServer server(
            Script().send("250-STARTTLSX\r\n250-XPIPELINING\r\n250 AUTH STARTTLS\r\n"));
        Client client(server);
        ASSERT_EQ(SMTP_readEhloReply(client.sock, capability, &err), 0);
        EXPECT_EQ(kemail::smtp::ehlo_extensions(), 0u);
    }
}

}  // namespace
