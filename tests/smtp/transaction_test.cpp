// The transaction cases that need more than a dialogue file: long addresses,
// staged files and the cork. The plain dialogues are tests/dialogues/smtp-*.dlg.
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

TEST_F(Transaction, TheStagedFileGoesOutAsItIsAndTheMarkEndsIt) {
    std::string message = "Subject: x\r\n\r\n..dot-stuffed line\r\nlast line without end";
    message += std::string(5000, 'b');  // several 1028-byte chunks
    StagedFile file(message);
    ScriptServer server(
        Script().read_line().send("354 go\r\n").read_until("\r\n.\r\n").send("250 queued\r\n"));
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

}  // namespace
