#include "dialogue.h"

#include "support/temp_dir.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <thread>
#include <vector>

#include <string>

namespace {

using kemail_test::Script;
using kemail_test::ScriptServer;
using namespace smtp_test;

// RFC 2195's example credentials and challenge.
constexpr char kUser[] = "tim";
constexpr char kPassword[] = "tanstaaftanstaaf";
constexpr char kChallenge[] = "334 PDE4OTYuNjk3MTcwOTUyQHBvc3RvZmZpY2UucmVzdG9uLm1jaS5uZXQ+\r\n";
constexpr char kCramResponse[] = "dGltIGI5MTNhNjAyYzdlZGE3YTQ5NWI0ZTZlNzMzNGQzODkw\r\n";
constexpr char kPlainCommand[] = "AUTH PLAIN dGltAHRpbQB0YW5zdGFhZnRhbnN0YWFm\r\n";
constexpr char kLoginUser[] = "dGlt\r\n";
constexpr char kLoginPassword[] = "dGFuc3RhYWZ0YW5zdGFhZg==\r\n";
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

TEST_F(AuthDialogue, OnlyCramMd5IsTriedWhenItSucceeds) {
    Script script;
    greet(script, kAllMechanisms)
        .read_line()
        .send(kChallenge)
        .read_line()
        .send("235 ok\r\n");
    ScriptServer server(script);
    Client client(server);
    EXPECT_EQ(SMTP_initialize(client.sock, &auth, &err), 0);
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(server.received(), ehlo_line() + "AUTH CRAM-MD5\r\n" + kCramResponse);
    EXPECT_TRUE(traced_in_order({"smtp0121J", "GTAINFFFFF", "INIAH0000", "INIAH0020", "INCRAM0000",
                                 "INPLAN0012", "AHCRAM0000", "INCRAM0020", "INPLAN0030",
                                 "INCRAMFFFF", "INIAH0025", "smtp0121M"}));
    EXPECT_EQ(word_of(trace_find("INIAH0005")), 7u);
}

TEST_F(AuthDialogue, RefusedMechanismsFallThroughOnTheSameConnectionWithoutRset) {
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
        .send("535 no\r\n");
    ScriptServer server(script);
    Client client(server);
    EXPECT_EQ(SMTP_initialize(client.sock, &auth, &err), 3);
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(server.connections(), 1);
    EXPECT_EQ(server.received(), ehlo_line() + "AUTH CRAM-MD5\r\n" + kCramResponse +
                                     kPlainCommand + "AUTH LOGIN\r\n" + kLoginUser +
                                     kLoginPassword);
    EXPECT_TRUE(traced_in_order({"INIAH0020", "INCRAM0040", "INIAH0030", "INIAH0035",
                                 "INPLAN0025", "INIAH0045", "INIAH0050", "INLGIN0070",
                                 "INIAH0060", "INIAHFFFF", "smtp0121Q", "smtp0121S"}));
    EXPECT_EQ(word_of(trace_find("smtp0121Q")), 3u);
}

TEST_F(AuthDialogue, PlainFollowsARefusedCramChallenge) {
    Script script;
    greet(script, kAllMechanisms)
        .read_line()
        .send("504 not that\r\n")
        .read_line()
        .send("235 welcome\r\n");
    ScriptServer server(script);
    Client client(server);
    EXPECT_EQ(SMTP_initialize(client.sock, &auth, &err), 0);
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(server.received(), ehlo_line() + "AUTH CRAM-MD5\r\n" + kPlainCommand);
    EXPECT_EQ(trace_count("INCRAM0015"), 1);
}

TEST_F(AuthDialogue, LoginAloneWhenTheServerOffersOnlyLogin) {
    Script script;
    greet(script, "250-AUTH LOGIN\r\n")
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
    EXPECT_EQ(server.received(),
              ehlo_line() + "AUTH LOGIN\r\n" + kLoginUser + kLoginPassword);
    EXPECT_EQ(trace_find("INLGIN0025").data, "dGlt");
}

TEST_F(AuthDialogue, LoginUserPromptRefusedGives3) {
    cert.ulMechanisms = KEMAIL_MECH_LOGIN;
    Script script;
    greet(script, "250-AUTH LOGIN\r\n")
        .read_line()
        .send("334 VXNlcm5hbWU6\r\n")
        .read_line()
        .send("535 unknown user\r\n");
    ScriptServer server(script);
    Client client(server);
    EXPECT_EQ(SMTP_initialize(client.sock, &auth, &err), 3);
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(server.received(), ehlo_line() + "AUTH LOGIN\r\n" + kLoginUser);
    EXPECT_EQ(trace_count("INLGIN0050"), 1);
}

TEST_F(AuthDialogue, OnlyLoginAllowedAndServerOnlyPlainGives2WithoutAuth) {
    cert.ulMechanisms = KEMAIL_MECH_LOGIN;
    Script script;
    greet(script, "250-AUTH PLAIN\r\n").bound_ms(1000).drain();
    ScriptServer server(script);
    Client client(server);
    EXPECT_EQ(SMTP_initialize(client.sock, &auth, &err), 2);
    client.close_now();
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(server.received(), ehlo_line());
    EXPECT_TRUE(traced_in_order({"INIAH0000", "INIAH0015", "smtp0121Q"}));
}

TEST_F(AuthDialogue, NoAuthAnnouncedGives2) {
    Script script;
    greet(script, "250-SIZE 1000\r\n");
    ScriptServer server(script);
    Client client(server);
    EXPECT_EQ(SMTP_initialize(client.sock, &auth, &err), 2);
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(server.received(), ehlo_line());
}

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

TEST_F(AuthDialogue, ATransportFailureEndsAuthenticationAtOnce) {
    Script script;
    greet(script, kAllMechanisms).read_line().close();
    ScriptServer server(script);
    Client client(server);
    EXPECT_EQ(SMTP_initialize(client.sock, &auth, &err), -4);
    EXPECT_TRUE(traced_in_order({"INCRAM0010", "INIAH0030", "smtp0121Q"}));
    EXPECT_EQ(trace_count("INIAH0035"), 0);
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

TEST_F(AuthDialogue, PasswordsNeverReachTheMailLog) {
    ASSERT_EQ(g_pLogHandle, nullptr);
    g_pLogHandle = MailLogOpen(0);
    ASSERT_NE(g_pLogHandle, nullptr) << "the mail log could not be opened";
    const std::string path = g_pLogHandle->path;
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
    {
        Client client(server);
        EXPECT_EQ(SMTP_initialize(client.sock, &auth, &err), 0);
    }
    MailLogClose(g_pLogHandle);
    g_pLogHandle = nullptr;
    ASSERT_TRUE(server.wait_done());

    const std::string log = kemail_test::read_file(path);
    unlink(path.c_str());
    EXPECT_NE(log.find("S: " + ehlo_line()), std::string::npos) << log;
    EXPECT_NE(log.find("S: AUTH CRAM-MD5\r\n"), std::string::npos) << log;
    EXPECT_NE(log.find("S: ******\r\n"), std::string::npos) << log;
    EXPECT_NE(log.find("S: AUTH PLAIN ******\r\n"), std::string::npos) << log;
    EXPECT_NE(log.find("S: AUTH LOGIN\r\n"), std::string::npos) << log;
    EXPECT_NE(log.find("S: dGlt\r\n"), std::string::npos) << log;
    EXPECT_NE(log.find("R: 334 UGFzc3dvcmQ6\r\n"), std::string::npos) << log;
    EXPECT_EQ(log.find(kPassword), std::string::npos) << log;
    EXPECT_EQ(log.find("dGFuc3RhYWZ0YW5zdGFhZg=="), std::string::npos) << log;
    EXPECT_EQ(log.find("dGltAHRpbQB0YW5zdGFhZnRhbnN0YWFm"), std::string::npos) << log;
    EXPECT_EQ(log.find("dGltIGI5MTNhNjAy"), std::string::npos) << log;
    // Two CRAM/LOGIN responses hidden.
    size_t hidden = 0;
    for (size_t at = log.find("S: ******\r\n"); at != std::string::npos;
         at = log.find("S: ******\r\n", at + 1)) {
        ++hidden;
    }
    EXPECT_EQ(hidden, 2u);
}

}  // namespace
