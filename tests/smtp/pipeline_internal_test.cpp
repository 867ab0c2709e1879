// The pipelined group of a transaction: one write, replies taken in order,
// the records of the one-at-a-time exchange, nothing taken after a refusal.
#include "dialogue.h"
#include "smtp/smtp.h"
#include "support/temp_dir.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

namespace {

using kemail::smtp::GroupLead;
using kemail::smtp::GroupStage;
using kemail::smtp::mail_group;
using namespace smtp_test;

// The records written through g_trace, read back from a trace file of the
// test's own (the tap of the other SMTP tests needs the shared library).
class TraceCapture {
public:
    TraceCapture() {
        g_trace = Topen(dir_.file("pipeline.trc").c_str(), 1024, 2);
        EXPECT_NE(g_trace, nullptr);
    }
    ~TraceCapture() {
        Tclose(g_trace);
        g_trace = nullptr;
    }
    TraceCapture(const TraceCapture&) = delete;
    TraceCapture& operator=(const TraceCapture&) = delete;
    void clear() {
        uint32_t start = 4;
        std::memcpy(g_trace->map, &start, sizeof start);
    }
    // "CODE data" per record, in order (the file keeps no level).
    std::vector<std::string> records() const {
        std::vector<std::string> lines;
        uint32_t end = 0;
        std::memcpy(&end, g_trace->map, sizeof end);
        const std::string ring(reinterpret_cast<const char*>(g_trace->map) + 4, end - 4);
        for (size_t at = ring.find("SSSS"); at != std::string::npos;
             at = ring.find("SSSS", at + 4)) {
            const size_t code = at + 12;
            const size_t close = ring.find("EEEE", code);
            if (close == std::string::npos) break;
            const size_t data = ring.find("XXXX", code);
            if (data != std::string::npos && data < close)
                lines.push_back(ring.substr(code, data - code) + " " +
                                ring.substr(data + 4, close - data - 4));
            else
                lines.push_back(ring.substr(code, close - code));
            at = close;
        }
        return lines;
    }
    int count(const std::string& code) const {
        int n = 0;
        for (const std::string& line : records())
            n += line == code || line.rfind(code + " ", 0) == 0;
        return n;
    }
    bool in_order(const std::vector<std::string>& codes) const {
        size_t next = 0;
        for (const std::string& line : records()) {
            if (next < codes.size() &&
                (line == codes[next] || line.rfind(codes[next] + " ", 0) == 0))
                ++next;
        }
        return next == codes.size();
    }

private:
    kemail_test::TempDir dir_;
};

// A socket pair that keeps the boundaries of each write, so the peer sees
// how many writes the group took.
struct PacketPair {
    PacketPair() {
        int fds[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds), 0);
        ours = fds[0];
        peer = fds[1];
    }
    ~PacketPair() {
        if (ours >= 0) ::close(ours);
        if (peer >= 0) ::close(peer);
    }
    PacketPair(const PacketPair&) = delete;
    PacketPair& operator=(const PacketPair&) = delete;
    // The writes waiting for the peer, one string each.
    std::vector<std::string> writes() const {
        std::vector<std::string> all;
        char buf[65536];
        for (;;) {
            const ssize_t n = recv(peer, buf, sizeof buf, MSG_DONTWAIT);
            if (n <= 0) break;
            all.emplace_back(buf, static_cast<size_t>(n));
        }
        return all;
    }
    // One packet per byte: the reply reader takes a byte at a time, and a
    // packet read in part loses its rest.
    void reply(const std::string& bytes) const {
        for (const char byte : bytes) ASSERT_EQ(send(peer, &byte, 1, 0), 1);
    }
    // The bytes the client left unread.
    std::string unread() const {
        std::string all;
        char buf[4096];
        for (;;) {
            const ssize_t n = recv(ours, buf, sizeof buf, MSG_DONTWAIT);
            if (n <= 0) break;
            all.append(buf, static_cast<size_t>(n));
        }
        return all;
    }
    int ours = -1;
    int peer = -1;
};

// The reply SMTP_GetSmtpSvResponce hands out.
std::string reply_handed_out() {
    char buf[256];
    SMTP_GetSmtpSvResponce(buf);
    return buf;
}

class Pipeline : public ::testing::Test {
protected:
    void SetUp() override {
        const SmtpTimeOut values = {11, 12, 13, 14, 15, 16};
        SMTP_SetTimeOutInfo(&values);
        trace.clear();
    }
    TraceCapture trace;
    unsigned int err = 777;
    GroupStage stage = GroupStage::Data;
};

TEST_F(Pipeline, TheGroupIsOneWriteAndItsRecordsAreThoseOfTheCommandsOneByOne) {
    // The designed exchange first, for its records.
    std::vector<std::string> designed;
    {
        PacketPair pair;
        pair.reply("250 ok\r\n250 ok a\r\n251 ok b\r\n354 go\r\n");
        ASSERT_EQ(SMTP_MAIL(pair.ours, "s@x", "a@x,b@x", &err), 0);
        ASSERT_EQ(SMTP_startData(pair.ours, &err), 0);
        EXPECT_EQ(pair.writes().size(), 4u);
        designed = trace.records();
    }
    trace.clear();
    PacketPair pair;
    pair.reply("250 ok\r\n250 ok a\r\n251 ok b\r\n354 go\r\n");
    EXPECT_EQ(mail_group(pair.ours, GroupLead::None, "s@x", "a@x,b@x", &err, &stage), 0);
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(stage, GroupStage::Data);
    const std::vector<std::string> writes = pair.writes();
    ASSERT_EQ(writes.size(), 1u);
    EXPECT_EQ(writes[0], "MAIL FROM:<s@x>\r\nRCPT TO:<a@x>\r\nRCPT TO:<b@x>\r\nDATA\r\n");
    EXPECT_EQ(trace.records(), designed);
    EXPECT_EQ(g_ulTimeOut, 14u);
    EXPECT_EQ(pair.unread(), "");
}

TEST_F(Pipeline, TheRsetAfterAnEndOfDataIsNotJudged) {
    PacketPair pair;
    pair.reply("250 queued\r\n500 no rset\r\n250 ok\r\n250 ok\r\n354 go\r\n");
    EXPECT_EQ(mail_group(pair.ours, GroupLead::EndOfDataAndRset, "s@x", "a@x", &err, &stage), 0);
    const std::vector<std::string> writes = pair.writes();
    ASSERT_EQ(writes.size(), 1u);
    EXPECT_EQ(writes[0], "\r\n.\r\nRSET\r\nMAIL FROM:<s@x>\r\nRCPT TO:<a@x>\r\nDATA\r\n");
    EXPECT_TRUE(
        trace.in_order({"smtp0400", "smtp0415", "smtp04FF", "RSET0000", "RSET0015", "RSET0020",
                        "SMTP0200-2", "smtp0155", "smtp0185", "smtp0191", "smtp0200", "smtp02FF"}));
}

TEST_F(Pipeline, AnEndOfDataLeadsTheGroupWithTheRecordsOfTheCommandsOneByOne) {
    // The designed end of a piece and start of the next, for their records.
    std::vector<std::string> designed;
    {
        PacketPair pair;
        pair.reply("250 queued\r\n250 reset\r\n250 ok\r\n250 ok a\r\n354 go\r\n");
        ASSERT_EQ(SMTP_endData(pair.ours, &err), 0);
        ASSERT_EQ(SMTP_RSET(pair.ours, &err), 0);
        ASSERT_EQ(SMTP_MAIL(pair.ours, "s@x", "a@x", &err), 0);
        ASSERT_EQ(SMTP_startData(pair.ours, &err), 0);
        EXPECT_EQ(pair.writes().size(), 5u);
        designed = trace.records();
    }
    trace.clear();
    PacketPair pair;
    pair.reply("250 queued\r\n250 reset\r\n250 ok\r\n250 ok a\r\n354 go\r\n");
    EXPECT_EQ(mail_group(pair.ours, GroupLead::EndOfDataAndRset, "s@x", "a@x", &err, &stage), 0);
    EXPECT_EQ(stage, GroupStage::Data);
    const std::vector<std::string> writes = pair.writes();
    ASSERT_EQ(writes.size(), 1u);
    EXPECT_EQ(writes[0], "\r\n.\r\nRSET\r\nMAIL FROM:<s@x>\r\nRCPT TO:<a@x>\r\nDATA\r\n");
    EXPECT_EQ(trace.records(), designed);
    EXPECT_EQ(pair.unread(), "");
}

TEST_F(Pipeline, ARefusedEndOfDataEndsTheGroupBeforeTheNextTransaction) {
    PacketPair pair;
    pair.reply("554 5.7.1 rejected\r\n250 reset\r\n250 ok\r\n250 ok a\r\n354 go\r\n");
    EXPECT_EQ(mail_group(pair.ours, GroupLead::EndOfDataAndRset, "s@x", "a@x", &err, &stage),
              kemail::smtp::kMessageRefused);
    EXPECT_EQ(stage, GroupStage::EndOfData);
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(reply_handed_out(), "554 5.7.1 rejected\r\n");
    EXPECT_TRUE(trace.in_order({"smtp0400", "smtp0e00", "smtp0408", "smtp0415", "smtp0420"}));
    EXPECT_EQ(trace.count("RSET0000"), 0);
    EXPECT_EQ(trace.count("SMTP0200-2"), 0);
    EXPECT_EQ(pair.unread(), "250 reset\r\n250 ok\r\n250 ok a\r\n354 go\r\n");
    EXPECT_EQ(pair.writes().size(), 1u);
}

TEST_F(Pipeline, AFailedWriteBehindAnEndOfDataIsTheEndOfDatasFailure) {
    PacketPair pair;
    ::close(pair.peer);
    pair.peer = -1;
    EXPECT_EQ(mail_group(pair.ours, GroupLead::EndOfDataAndRset, "s@x", "a@x", &err, &stage), -3);
    EXPECT_EQ(stage, GroupStage::EndOfData);
    EXPECT_EQ(err, static_cast<unsigned>(EPIPE));
    EXPECT_TRUE(trace.in_order({"smtp0400", "smtp0e00", "smtp0e05", "smtp0405"}));
    EXPECT_EQ(trace.count("smtp0408"), 0);
}

TEST_F(Pipeline, ARefusedRecipientEndsTheGroupAndLeavesTheLaterRepliesUnread) {
    PacketPair pair;
    pair.reply("250 ok\r\n250 ok a\r\n550 no b\r\n250 ok c\r\n354 go\r\n");
    EXPECT_EQ(mail_group(pair.ours, GroupLead::None, "s@x", "a@x,b@x,c@x", &err, &stage), -23);
    EXPECT_EQ(stage, GroupStage::Mail);
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(reply_handed_out(), "550 no b\r\n");
    EXPECT_EQ(trace.count("smtp0185"), 2);
    EXPECT_EQ(trace.count("smtp0191"), 0);
    EXPECT_EQ(trace.count("smtp0200"), 0);
    EXPECT_EQ(pair.unread(), "250 ok c\r\n354 go\r\n");
    // The group was the only write: no message data after the 354.
    EXPECT_EQ(pair.writes().size(), 1u);
}

TEST_F(Pipeline, ARefusedSenderGivesMinus22) {
    PacketPair pair;
    pair.reply("553 no\r\n503 a\r\n503 b\r\n");
    EXPECT_EQ(mail_group(pair.ours, GroupLead::None, "s@x", "a@x", &err, &stage), -22);
    EXPECT_EQ(stage, GroupStage::Mail);
    EXPECT_EQ(reply_handed_out(), "553 no\r\n");
    EXPECT_EQ(pair.unread(), "503 a\r\n503 b\r\n");
    EXPECT_EQ(pair.writes().size(), 1u);
}

TEST_F(Pipeline, ARefusedDataGivesMinus24) {
    PacketPair pair;
    pair.reply("250 ok\r\n250 ok\r\n554 no\r\n");
    EXPECT_EQ(mail_group(pair.ours, GroupLead::None, "s@x", "a@x", &err, &stage), -24);
    EXPECT_EQ(stage, GroupStage::Data);
    EXPECT_EQ(reply_handed_out(), "554 no\r\n");
    EXPECT_EQ(trace.count("smtp0220"), 1);
}

TEST_F(Pipeline, AGroupThatCannotBeFormedSendsNothing) {
    PacketPair pair;
    const std::string too_long(304, 'L');
    EXPECT_EQ(mail_group(pair.ours, GroupLead::EndOfDataAndRset, "s@x", ("a@x," + too_long).c_str(),
                         &err, &stage),
              kemail::smtp::kNotGrouped);
    EXPECT_EQ(
        mail_group(pair.ours, GroupLead::None, std::string(5000, 's').c_str(), "a@x", &err, &stage),
        kemail::smtp::kNotGrouped);
    EXPECT_TRUE(pair.writes().empty());
    EXPECT_TRUE(trace.records().empty());
}

TEST_F(Pipeline, AFailedWriteIsTheFailureOfTheFirstCommandItDidNotCarry) {
    PacketPair pair;
    ::close(pair.peer);
    pair.peer = -1;
    EXPECT_EQ(mail_group(pair.ours, GroupLead::None, "s@x", "a@x", &err, &stage), -3);
    EXPECT_EQ(stage, GroupStage::Mail);
    EXPECT_EQ(err, static_cast<unsigned>(EPIPE));
    EXPECT_TRUE(trace.in_order({"SMTP0200-2", "smtp0e00", "smtp0e05", "smtp0145"}));
    EXPECT_EQ(trace.count("smtp0148"), 0);
}

// Reads an EHLO reply as the greeting does.
void read_ehlo(const std::string& reply) {
    PacketPair pair;
    pair.reply(reply);
    char capability[KEMAIL_RECV_BUF_SIZE] = {};
    unsigned int err = 0;
    SMTP_SetTimeOut(5);
    SMTP_SetStartTime();
    SMTP_readEhloReply(pair.ours, capability, &err);
}

TEST_F(Pipeline, WantedOnlyWhenAnnouncedAndAskedFor) {
    read_ehlo("250-mx\r\n250 PIPELINING\r\n");
    EXPECT_FALSE(kemail::smtp::pipelining_wanted());
    ASSERT_EQ(ZvKe_SetOption("PIPELINING", "1"), 0);
    read_ehlo("250-mx\r\n250 8BITMIME\r\n");
    EXPECT_FALSE(kemail::smtp::pipelining_wanted());
    // A refused EHLO reply leaves the session to HELO, which announces nothing.
    read_ehlo("250-PIPELINING\r\n500 no\r\n");
    EXPECT_FALSE(kemail::smtp::pipelining_wanted());
    read_ehlo("250-mx\r\n250 PIPELINING\r\n");
    EXPECT_TRUE(kemail::smtp::pipelining_wanted());
    ASSERT_EQ(ZvKe_SetOption("PIPELINING", "0"), 0);
    EXPECT_FALSE(kemail::smtp::pipelining_wanted());
    ASSERT_EQ(ZvKe_SetOption("PIPELINING", nullptr), 0);
}

}  // namespace
