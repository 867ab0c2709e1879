// A line that carries the password (AUTH PLAIN, the LOGIN password, the
// CRAM-MD5 response) does not stay in the process-wide command buffer once
// it has been sent, whether the server takes it or not.
#include "dialogue.h"
#include "smtp/smtp_buffers.h"

#include <string>

namespace {

using kemail_test::Script;
using kemail_test::ScriptServer;
using namespace smtp_test;

// The secret lines' texts without their line ends; the LOGIN password is
// the base64 of RFC 2195's example password.
const std::string kCramString(kCramResponse, sizeof kCramResponse - 3);
const std::string kPlainString(kPlainCommand + 11, sizeof kPlainCommand - 14);
constexpr char kLoginPassword[] = "dGFuc3RhYWZ0YW5zdGFhZg==";

class AuthWipe : public ::testing::Test {
protected:
    void SetUp() override {
        const SmtpTimeOut timeouts = {5, 5, 5, 5, 5, 5};
        SMTP_SetTimeOutInfo(&timeouts);
    }

    // Runs the greeting and the AUTH exchange the script plays, with only
    // the given mechanism allowed; returns SMTP_initialize's result.
    int authenticate(unsigned int mechanism, Script& script, std::vector<std::string>* records) {
        AuthCertInfo cert = credentials(mechanism, kUser, kPassword);
        MailAuthInfo auth = smtp_auth(&cert);
        ScriptServer server(script);
        Client client(server);
        unsigned int err = 0;
        const int result = SMTP_initialize(client.sock, &auth, &err);
        EXPECT_TRUE(server.wait_done());
        *records = server.records();
        return result;
    }

    static bool buffer_holds(const std::string& secret) {
        const std::string buffer(s_szSendBuf, sizeof s_szSendBuf);
        return buffer.find(secret) != std::string::npos;
    }
};

TEST_F(AuthWipe, ThePlainStringLeavesTheCommandBuffer) {
    for (const char* answer : {"235 ok\r\n", "535 no\r\n"}) {
        Script script;
        greet(script, "250-AUTH PLAIN\r\n").read_line().send(answer);
        std::vector<std::string> records;
        authenticate(KEMAIL_MECH_PLAIN, script, &records);
        ASSERT_EQ(records.size(), 2u);
        EXPECT_EQ(records[1], kPlainCommand) << answer;
        EXPECT_FALSE(buffer_holds(kPlainString)) << answer;
    }
}

TEST_F(AuthWipe, TheLoginPasswordLeavesTheCommandBuffer) {
    for (const char* answer : {"235 ok\r\n", "535 no\r\n"}) {
        Script script;
        greet(script, "250-AUTH LOGIN\r\n")
            .read_line()
            .send("334 VXNlcm5hbWU6\r\n")
            .read_line()
            .send("334 UGFzc3dvcmQ6\r\n")
            .read_line()
            .send(answer);
        std::vector<std::string> records;
        authenticate(KEMAIL_MECH_LOGIN, script, &records);
        ASSERT_EQ(records.size(), 4u);
        EXPECT_EQ(records[3], std::string(kLoginPassword) + "\r\n") << answer;
        EXPECT_FALSE(buffer_holds(kLoginPassword)) << answer;
    }
}

TEST_F(AuthWipe, TheCramResponseLeavesTheCommandBuffer) {
    for (const char* answer : {"235 ok\r\n", "535 no\r\n"}) {
        Script script;
        greet(script, "250-AUTH CRAM-MD5\r\n")
            .read_line()
            .send(kChallenge)
            .read_line()
            .send(answer);
        std::vector<std::string> records;
        authenticate(KEMAIL_MECH_CRAM_MD5, script, &records);
        ASSERT_EQ(records.size(), 3u);
        EXPECT_EQ(records[2], kCramResponse) << answer;
        EXPECT_FALSE(buffer_holds(kCramString)) << answer;
    }
}

// The user name is no secret: its line stays, as every other command does.
TEST_F(AuthWipe, OtherCommandsStayInTheCommandBuffer) {
    Script script;
    greet(script, "250-AUTH LOGIN\r\n").read_line().send("535 no\r\n");
    std::vector<std::string> records;
    authenticate(KEMAIL_MECH_LOGIN, script, &records);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_TRUE(buffer_holds("AUTH LOGIN\r\n"));
}

}  // namespace
