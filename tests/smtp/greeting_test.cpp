// The EHLO reply cases that need more than a dialogue file: binary and
// over-long lines, the capability buffer, restarts of the phase clock. The
// plain greeting dialogues are tests/dialogues/greeting-*.dlg.
#include "dialogue.h"

#include <string>

namespace {

using kemail_test::Script;
using kemail_test::ScriptServer;
using namespace smtp_test;

class Greeting : public ::testing::Test {
protected:
    void SetUp() override {
        set_phase_timeouts(5);
        trace_clear();
    }
    unsigned int err = 777;
};

TEST_F(Greeting, EveryEhloContinuationLineRestartsThePhaseClock) {
    ScriptServer server(
        Script().send("220 test\r\n").read_line().send("250-test\r\n250-PIPELINING\r\n250 OK\r\n"));
    Client client(server);
    EXPECT_EQ(SMTP_initialize(client.sock, nullptr, &err), 0);
    ASSERT_TRUE(server.wait_done());
    // One restart before EHLO, then one after each of the two continuations.
    int restarts_after_ehlo = 0;
    bool reading = false;
    for (const TraceEvent& event : trace_events()) {
        if (event.code == "AUTHR0000") reading = true;
        if (reading && event.code == "SETSTART0000") ++restarts_after_ehlo;
    }
    EXPECT_EQ(restarts_after_ehlo, 2);
}

TEST_F(Greeting, BinaryAndUnterminatedEhloLinesStayInTheBuffer) {
    std::string junk(3000, '\0');
    for (size_t i = 0; i < junk.size(); ++i) junk[i] = static_cast<char>(i * 13 + 1);
    ScriptServer server(Script()
                            .send("220 test\r\n")
                            .read_line()
                            .send("250-" + junk + "\r\n250 AUTH " + std::string(2000, 'A'))
                            .read_line());
    Client client(server);
    // The reply is cut into 1028-byte lines; the second one's fourth byte
    // is no hyphen and its first no '2': EHLO counts as refused, and the
    // bytes still waiting are taken as the (refusing) answer to HELO.
    EXPECT_EQ(SMTP_initialize(client.sock, nullptr, &err), -21);
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(server.received(), ehlo_line() + helo_line());
}

TEST_F(Greeting, AnAuthLineOf1027BytesIsKeptWhole) {
    std::string line = "250-AUTH";
    while (line.size() < 1027 - 2 - 6) line += " X-FOO";
    line += " PLAIN\r\n";
    line.resize(1027 - 8, 'Z');
    line += " PLAIN\r\n";
    ASSERT_EQ(line.size(), 1027u);
    char capability[KEMAIL_RECV_BUF_SIZE + 16];
    std::memset(capability, '#', sizeof capability);
    ScriptServer server(Script().send(line + "250 OK\r\n"));
    Client client(server);
    EXPECT_EQ(SMTP_readEhloReply(client.sock, capability, &err), 0);
    EXPECT_EQ(std::string(capability), line);
    unsigned int mask = 0;
    SMTP_getAuthMechanisms(capability, &mask);
    EXPECT_EQ(mask, KEMAIL_MECH_PLAIN);
}

TEST_F(Greeting, AnAuthLineThatFillsTheBufferIsCutToStayTerminated) {
    const std::string line = "250-AUTH PLAIN " + std::string(1100, 'Q') + "\r\n";
    char capability[KEMAIL_RECV_BUF_SIZE + 16];
    std::memset(capability, '#', sizeof capability);
    ScriptServer server(Script().send(line + "250 OK\r\n"));
    Client client(server);
    // The line's rest "QQ...\r\n" counts as a line of its own, not starting with '2'.
    EXPECT_EQ(SMTP_readEhloReply(client.sock, capability, &err), 1);
    EXPECT_EQ(std::strlen(capability), static_cast<size_t>(KEMAIL_RECV_BUF_SIZE - 1));
    EXPECT_EQ(std::string(capability, 15), "250-AUTH PLAIN ");
    EXPECT_EQ(std::string(capability + KEMAIL_RECV_BUF_SIZE, 16), std::string(16, '#'));
}

TEST_F(Greeting, TheLastAuthLineWins) {
    char capability[KEMAIL_RECV_BUF_SIZE] = {};
    ScriptServer server(Script().send("250-AUTH LOGIN\r\n250-SIZE 100\r\n250 AUTH CRAM-MD5\r\n"));
    Client client(server);
    EXPECT_EQ(SMTP_readEhloReply(client.sock, capability, &err), 0);
    EXPECT_STREQ(capability, "250 AUTH CRAM-MD5\r\n");
    EXPECT_EQ(trace_count("AUTHR0015"), 2);
}

}  // namespace
