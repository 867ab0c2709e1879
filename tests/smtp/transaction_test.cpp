#include "dialogue.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <string>

namespace {

using kemail_test::Script;
using kemail_test::ScriptServer;
using namespace smtp_test;

class Transaction : public ::testing::Test {
protected:
    void SetUp() override {
        // Distinct values show which phase each command runs under.
        const SmtpTimeOut values = {11, 12, 13, 14, 15, 16};
        SMTP_SetTimeOutInfo(&values);
        trace_clear();
    }
    unsigned int err = 777;
};

TEST_F(Transaction, TwoRecipientsGiveTwoRcptCommands) {
    ScriptServer server(Script()
                            .read_line()
                            .send("250 sender ok\r\n")
                            .read_line()
                            .send("250 ok\r\n")
                            .read_line()
                            .send("251 will forward\r\n"));
    Client client(server);
    EXPECT_EQ(SMTP_MAIL(client.sock, "agent@example.com", "a@example.com,b@example.org", &err), 0);
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(server.received(),
              "MAIL FROM:<agent@example.com>\r\nRCPT TO:<a@example.com>\r\n"
              "RCPT TO:<b@example.org>\r\n");
    EXPECT_EQ(g_ulTimeOut, 13u);
    EXPECT_TRUE(traced_in_order({"SMTP0200-2", "smtp0148", "smtp0155", "smtp0167", "smtp0185",
                                 "smtp0167", "smtp0185", "smtp0191", "SMTP02FF-2"}));
    EXPECT_EQ(trace_find("SMTP0200-2").data, "a@example.com,b@example.org");
    EXPECT_EQ(trace_find("smtp0148").data, "MAIL FROM:<agent@example.com>\r\n");
}

TEST_F(Transaction, ARefusedFirstRecipientStopsTheList) {
    ScriptServer server(Script()
                            .read_line()
                            .send("250 ok\r\n")
                            .read_line()
                            .send("550 no such user\r\n")
                            .bound_ms(1000)
                            .drain());
    Client client(server);
    EXPECT_EQ(SMTP_MAIL(client.sock, "agent@example.com", "a@example.com,b@example.org", &err),
              -23);
    EXPECT_EQ(err, 0u);
    client.close_now();
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(server.received(), "MAIL FROM:<agent@example.com>\r\nRCPT TO:<a@example.com>\r\n");
    EXPECT_EQ(last_reply(), "550 no such user\r\n");
    EXPECT_EQ(trace_find("smtp0190").level, 0u);
}

TEST_F(Transaction, ATrailingCommaSendsAnEmptyPath) {
    ScriptServer server(Script()
                            .read_line()
                            .send("250 ok\r\n")
                            .read_line()
                            .send("250 ok\r\n")
                            .read_line()
                            .send("250 ok\r\n"));
    Client client(server);
    EXPECT_EQ(SMTP_MAIL(client.sock, "agent@example.com", "a@example.com,", &err), 0);
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(server.received(),
              "MAIL FROM:<agent@example.com>\r\nRCPT TO:<a@example.com>\r\nRCPT TO:<>\r\n");
}

TEST_F(Transaction, BlanksAreKeptAndANullSenderIsAnEmptyPath) {
    ScriptServer server(Script()
                            .read_line()
                            .send("250 ok\r\n")
                            .read_line()
                            .send("250 ok\r\n")
                            .read_line()
                            .send("250 ok\r\n"));
    Client client(server);
    EXPECT_EQ(SMTP_MAIL(client.sock, nullptr, "a@x, b@y", &err), 0);
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(server.received(), "MAIL FROM:<>\r\nRCPT TO:<a@x>\r\nRCPT TO:< b@y>\r\n");
}

TEST_F(Transaction, ARefusedSenderGivesMinus22) {
    ScriptServer server(Script().read_line().send("553 bad sender\r\n"));
    Client client(server);
    EXPECT_EQ(SMTP_MAIL(client.sock, "x", "a@x", &err), -22);
    EXPECT_EQ(err, 0u);
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(server.received(), "MAIL FROM:<x>\r\n");
    EXPECT_EQ(trace_find("smtp0160").level, 2u);
}

TEST_F(Transaction, AnAddressThatDoesNotFitIsRefusedNotCut) {
    const std::string fits(303, 'f');
    const std::string too_long(304, 'L');
    ScriptServer server(Script()
                            .read_line()
                            .send("250 ok\r\n")
                            .read_line()
                            .send("250 ok\r\n")
                            .bound_ms(1000)
                            .drain());
    Client client(server);
    EXPECT_EQ(SMTP_MAIL(client.sock, "s", (fits + "," + too_long + ",c@x").c_str(), &err), -28);
    EXPECT_EQ(err, static_cast<unsigned>(EMSGSIZE));
    client.close_now();
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(server.received(), "MAIL FROM:<s>\r\nRCPT TO:<" + fits + ">\r\n");
}

TEST_F(Transaction, ASenderThatDoesNotFitTheCommandBufferIsNotSent) {
    ScriptServer server(Script().bound_ms(500).drain());
    Client client(server);
    EXPECT_EQ(SMTP_MAIL(client.sock, std::string(5000, 's').c_str(), "a@x", &err), -28);
    client.close_now();
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(server.received(), "");
}

TEST_F(Transaction, DataAnswered250GivesMinus24) {
    ScriptServer server(Script().read_line().send("250 not what you wanted\r\n"));
    Client client(server);
    EXPECT_EQ(SMTP_startData(client.sock, &err), -24);
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(server.received(), "DATA\r\n");
    EXPECT_EQ(g_ulTimeOut, 14u);
    EXPECT_EQ(trace_find("smtp0208").data, std::string("DATA\r\n\0", 7));
    EXPECT_EQ(trace_find("smtp0220").level, 0u);
}

TEST_F(Transaction, TheStagedFileGoesOutAsItIsAndTheMarkEndsIt) {
    std::string message = "Subject: x\r\n\r\n..dot-stuffed line\r\nlast line without end";
    message += std::string(5000, 'b');  // several 1028-byte chunks
    StagedFile file(message);
    ScriptServer server(Script()
                            .read_line()
                            .send("354 go\r\n")
                            .read_until("\r\n.\r\n")
                            .send("250 queued\r\n"));
    Client client(server);
    EXPECT_EQ(SMTP_startData(client.sock, &err), 0);
    EXPECT_EQ(SMTP_sendData(client.sock, file.fd, &err), 0);
    EXPECT_EQ(g_ulTimeOut, 15u);
    // The chunks were corked while they streamed; the cork is off again.
    int corked = 1;
    socklen_t length = sizeof corked;
    ASSERT_EQ(getsockopt(client.sock, IPPROTO_TCP, TCP_CORK, &corked, &length), 0);
    EXPECT_EQ(corked, 0);
    EXPECT_EQ(SMTP_endData(client.sock, &err), 0);
    EXPECT_EQ(g_ulTimeOut, 16u);
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(server.received(), "DATA\r\n" + message + "\r\n.\r\n");
    // One send per 1028-byte chunk of the file, then the mark.
    int chunks = 0;
    for (const TraceEvent& event : trace_events()) {
        if (event.code == "smtp0e00" && event.data != "DATA\r\n" && event.data != "\r\n.\r\n") {
            EXPECT_LE(event.data.size(), 1028u);
            ++chunks;
        }
    }
    EXPECT_EQ(chunks, static_cast<int>((message.size() + 1027) / 1028));
    EXPECT_EQ(trace_find("smtp0408").data, std::string("\r\n.\r\n\0", 6));
    EXPECT_EQ(trace_find("smtp0408").level, 0u);
}

TEST_F(Transaction, AnEmptyStagedFileSendsNothing) {
    StagedFile file("");
    ScriptServer server(Script().read_until("\r\n.\r\n").send("250 ok\r\n"));
    Client client(server);
    EXPECT_EQ(SMTP_sendData(client.sock, file.fd, &err), 0);
    EXPECT_EQ(SMTP_endData(client.sock, &err), 0);
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(server.received(), "\r\n.\r\n");
    EXPECT_TRUE(traced_in_order({"smtp0500", "smtp0506", "smtp05FF"}));
}

TEST_F(Transaction, AnUnreadableStagedFileGivesMinus32) {
    ScriptServer server(Script().bound_ms(500).drain());
    Client client(server);
    EXPECT_EQ(SMTP_sendData(client.sock, -1, &err), -32);
    EXPECT_EQ(err, static_cast<unsigned>(EBADF));
    EXPECT_EQ(trace_find("smtp0505").level, 0u);
}

TEST_F(Transaction, ARefusedMessageGivesMinus25) {
    ScriptServer server(Script().read_line().send("554 rejected\r\n"));
    Client client(server);
    EXPECT_EQ(SMTP_endData(client.sock, &err), -25);
    EXPECT_EQ(err, 0u);
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(last_reply(), "554 rejected\r\n");
}

TEST_F(Transaction, RsetKeepsThePhaseTimeOut) {
    SMTP_SetTimeOut(42);
    ScriptServer server(Script()
                            .read_line()
                            .send("250 reset\r\n")
                            .read_line()
                            .send("500 no\r\n"));
    Client client(server);
    SMTP_SetTimeOut(42);
    EXPECT_EQ(SMTP_RSET(client.sock, &err), 0);
    EXPECT_EQ(g_ulTimeOut, 42u);
    EXPECT_EQ(SMTP_RSET(client.sock, &err), -27);
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(server.received(), "RSET\r\nRSET\r\n");
    EXPECT_TRUE(traced_in_order({"RSET0000", "RSET0015", "RSETFFFF", "RSET0000", "RSET0020"}));
}

TEST_F(Transaction, QuitReturns0WhenTheServerClosesWithoutAReply) {
    ScriptServer server(Script().read_line().close());
    Client client(server);
    EXPECT_EQ(SMTP_QUIT(client.sock, &err), 0);
    EXPECT_EQ(g_ulTimeOut, 300u);
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(server.received(), "QUIT\r\n");
    EXPECT_EQ(trace_count("smtp0430-2"), 0);
    EXPECT_TRUE(traced_in_order({"SMTP0400-2", "smtp0420-2", "SMTP04FF-2"}));
}

TEST_F(Transaction, QuitReadsButDoesNotJudgeTheReply) {
    ScriptServer server(Script().read_line().send("500 whatever\r\n"));
    Client client(server);
    EXPECT_EQ(SMTP_QUIT(client.sock, &err), 0);
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(trace_find("smtp0430-2").data, "500 whatever\r\n");
}

TEST_F(Transaction, AReplyThatNeverComesEndsAfterThePhaseTimeOut) {
    const SmtpTimeOut values = {1, 1, 1, 1, 1, 1};
    SMTP_SetTimeOutInfo(&values);
    ScriptServer server(Script().read_line().sleep_ms(3000));
    Client client(server);
    EXPECT_EQ(SMTP_MAIL(client.sock, "s", "r", &err), -6);
    EXPECT_TRUE(traced_in_order({"smtp0f03", "smtp0d05", "smtp0150"}));
}

}  // namespace
