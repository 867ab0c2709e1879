// The authentication cases that need more than a dialogue file: challenges
// that are empty or no base64 at all, the AUTH strings in the trace, and a
// response that cannot be sent. The plain authentication dialogues are
// tests/dialogues/auth-*.dlg.
#include "dialogue.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <thread>
#include <vector>

namespace {

using kemail_test::Script;
using kemail_test::ScriptServer;
using namespace smtp_test;

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

// The trace file is the diagnostic record: it gets the AUTH strings, which
// carry the password, at level 2; only the mail log hides them.
TEST_F(AuthDialogue, TheTraceCarriesTheAuthStrings) {
    Script script;
    greet(script, kAllMechanisms)
        .read_line()
        .send(kChallenge)
        .read_line()
        .send("535 no\r\n")
        .read_line()
        .send("535 no\r\n")
        .read_line()
        .send("334 VXNlcm5hbWU6\r\n")
        .read_line()
        .send("334 UGFzc3dvcmQ6\r\n")
        .read_line()
        .send("235 ok\r\n");
    ScriptServer server(script);
    Client client(server);
    EXPECT_EQ(SMTP_initialize(client.sock, &auth, &err), 0);
    ASSERT_TRUE(server.wait_done());
    const std::string cram(kCramResponse, sizeof kCramResponse - 3);
    const std::string plain(kPlainCommand + 11, sizeof kPlainCommand - 14);
    EXPECT_EQ(trace_find("INCRAM0020").data, cram);
    EXPECT_EQ(trace_find("INCRAM0020").level, 2u);
    EXPECT_EQ(trace_find("INPLAN0005").data, plain);
    EXPECT_EQ(trace_find("INPLAN0005").level, 2u);
    EXPECT_EQ(trace_find("INLGIN0025").data, "dGlt");
    EXPECT_EQ(trace_find("INLGIN0025").level, 2u);
    EXPECT_EQ(trace_find("INLGIN0030").data, "dGFuc3RhYWZ0YW5zdGFhZg==");
    EXPECT_EQ(trace_find("INLGIN0030").level, 2u);
}

// The CRAM-MD5 response that cannot be sent is traced at level 0 under
// INCRAM0020, the code that traced the response itself at level 2. The peer
// stops reading before it sends the challenge, so the response meets EPIPE.
TEST_F(AuthDialogue, CramResponseNotSentReusesItsTraceCode) {
    SMTP_SetTimeOut(5);
    SocketPair pair;
    std::thread peer([&pair] {
        char byte = 0;
        std::string line;
        while (line.find('\n') == std::string::npos && ::read(pair.peer, &byte, 1) == 1) {
            line += byte;
        }
        ::shutdown(pair.peer, SHUT_RD);
        pair.peer_send(kChallenge);
    });
    const int result = SMTP_authCramMd5(pair.ours, &cert, &err);
    peer.join();
    EXPECT_EQ(result, -3);
    EXPECT_EQ(err, static_cast<unsigned int>(EPIPE));
    std::vector<TraceEvent> response;
    for (const TraceEvent& event : trace_events()) {
        if (event.code == "INCRAM0020") response.push_back(event);
    }
    ASSERT_EQ(response.size(), 2u);
    EXPECT_EQ(response[0].level, 2u);
    EXPECT_EQ(response[1].level, 0u);
    EXPECT_EQ(word_of(response[1]), static_cast<uint32_t>(EPIPE));
    EXPECT_EQ(trace_count("INCRAM0025"), 0);
}

}  // namespace
