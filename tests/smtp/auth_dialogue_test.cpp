// The authentication case that needs more than a dialogue file: challenges
// that are empty or no base64 at all. The plain authentication dialogues are
// tests/dialogues/auth-*.dlg.
#include "dialogue.h"

#include <string>

namespace {

using kemail_test::Script;
using kemail_test::ScriptServer;
using namespace smtp_test;

// RFC 2195's example credentials.
constexpr char kUser[] = "tim";
constexpr char kPassword[] = "tanstaaftanstaaf";
constexpr char kAllMechanisms[] = "250-AUTH LOGIN PLAIN CRAM-MD5\r\n";

class AuthDialogue : public ::testing::Test {
protected:
    void SetUp() override {
        set_phase_timeouts(5);
        trace_clear();
    }
    AuthCertInfo cert = credentials(7, kUser, kPassword);
    MailAuthInfo auth = smtp_auth(&cert);
    unsigned int err = 777;
};

TEST_F(AuthDialogue, AnEmptyOrForeignChallengeStillGetsAnAnswer) {
    for (const char* challenge : {"334\r\n", "334 \r\n", "334 !!not base64!!\r\n", "3\r\n"}) {
        cert.ulMechanisms = KEMAIL_MECH_CRAM_MD5;
        Script script;
        greet(script, kAllMechanisms).read_line().send(challenge).read_line().send("535 no\r\n");
        ScriptServer server(script);
        Client client(server);
        EXPECT_EQ(SMTP_initialize(client.sock, &auth, &err), 3) << challenge;
        ASSERT_TRUE(server.wait_done());
        const std::vector<std::string> records = server.records();
        ASSERT_EQ(records.size(), 3u);
        // "tim " and 32 hexadecimal digits: 36 bytes, 48 characters of base64.
        EXPECT_EQ(records[2].size(), 50u) << challenge;
    }
}

}  // namespace
