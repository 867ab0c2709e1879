// The exported POP3 client against scripted servers on the loopback.
#include "kemail.h"
#include "support/fake_clock.h"
#include "pop3/pop3_test_support.h"
#include "support/script_server.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>

#include <sys/socket.h>
#include <unistd.h>

namespace {

using kemail_test::Script;
using kemail_test::ScriptServer;
using pop3_test::count_of;
using pop3_test::in_order;
using pop3_test::TraceCapture;

using Clock = std::chrono::steady_clock;
using namespace std::string_literals;

long long elapsed_ms(Clock::time_point since) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count();
}

class Pop3Session : public ::testing::Test {
protected:
    void SetUp() override {
        // Short enough that a missing reply ends a test quickly, long enough
        // for a loaded machine.
        Pop3_SetTimeOut(5, nullptr);
        std::memset(reply_, 'z', sizeof reply_);
        reply_[sizeof reply_ - 1] = '\0';
    }
    void TearDown() override {
        if (sock_ >= 0) ::close(sock_);
        Pop3_SetTimeOut(60, nullptr);
    }

    // Connects to the scripted server; fails the test when that fails.
    void connect(const ScriptServer& server, TraceHandle* trace = nullptr) {
        sock_ = Pop3_Connect("127.0.0.1", server.port(), &err_, trace);
        ASSERT_GE(sock_, 0) << "err " << err_;
        EXPECT_EQ(err_, 0);
    }
    // Closes the client side, so a server waiting for more sees the end.
    void hang_up() {
        if (sock_ >= 0) ::close(sock_);
        sock_ = -1;
    }

    int sock_ = -1;
    int err_ = -99;
    char reply_[KEMAIL_MESSAGE_SIZE];
};

Script good_login() {
    return Script()
        .send("+OK POP3 ready\r\n")
        .read_line()
        .send("+OK\r\n")
        .read_line()
        .send("+OK logged in\r\n");
}

TEST_F(Pop3Session, AFullSessionSendsExactlyTheFourCommands) {
    ScriptServer server(
        good_login().read_line().send("+OK 2 320\r\n").read_line().send("+OK bye\r\n"));
    connect(server);
    EXPECT_EQ(Pop3_Login(sock_, "u", "p", reply_, &err_, nullptr), 0);
    EXPECT_STREQ(reply_, "");
    EXPECT_EQ(err_, 0);
    EXPECT_EQ(Pop3_STAT(sock_, reply_, &err_, nullptr), 0);
    EXPECT_EQ(Pop3_Logout(sock_, reply_, &err_, nullptr), 0);
    EXPECT_EQ(err_, 0);
    ASSERT_TRUE(server.wait_done());
    EXPECT_FALSE(server.failed()) << server.error();
    EXPECT_EQ(server.received(), "USER u\r\nPASS p\r\nSTAT\r\nQUIT\r\n");
}

TEST_F(Pop3Session, ARefusedGreetingGivesMinus2AndItsLine) {
    ScriptServer server(Script().send("-ERR too busy\r\n").drain());
    connect(server);
    EXPECT_EQ(Pop3_Login(sock_, "u", "p", reply_, &err_, nullptr), -2);
    EXPECT_STREQ(reply_, "-ERR too busy\r\n");
    EXPECT_EQ(err_, 0);
    hang_up();
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(server.received(), "");  // nothing sent after a refused greeting
}

TEST_F(Pop3Session, ARefusedUserGivesMinus3) {
    ScriptServer server(Script().send("+OK\r\n").read_line().send("-ERR who?\r\n").drain());
    connect(server);
    EXPECT_EQ(Pop3_Login(sock_, "nobody", "p", reply_, &err_, nullptr), -3);
    EXPECT_STREQ(reply_, "-ERR who?\r\n");
    EXPECT_EQ(err_, 0);
    hang_up();
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(server.received(), "USER nobody\r\n");
}

TEST_F(Pop3Session, ARefusedPasswordGivesMinus4AndTheFullLine) {
    ScriptServer server(Script()
                            .send("+OK\r\n")
                            .read_line()
                            .send("+OK\r\n")
                            .read_line()
                            .send("-ERR [AUTH] Authentication failed.\r\n")
                            .drain());
    TraceCapture trace("pass_refused");
    connect(server, trace.handle());
    EXPECT_EQ(Pop3_Login(sock_, "u", "secret", reply_, &err_, trace.handle()), -4);
    EXPECT_STREQ(reply_, "-ERR [AUTH] Authentication failed.\r\n");
    EXPECT_EQ(err_, 0);
    hang_up();
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(server.received(), "USER u\r\nPASS secret\r\n");
    const auto codes = trace.codes();
    EXPECT_TRUE(in_order(
        codes, {"Pop3_0000",  "getpop0000", "getpop0010", "Pop3_0100", "Pop3_0200", "Pop3_0210",
                "Pop3_0230",  "Pop3_0240",  "Pop3_03ff",  "Pop3_0400", "Pop3_0a00", "Pop3_0c00",
                "PGTSTO0000", "PGTSTOFFFF", "Pop3_0cff",  "Pop3_0a20", "Pop3_0aff", "Pop3_0500",
                "Pop3_0b00",  "Pop3_0bff",  "Pop3_0600",  "Pop3_0a30", "Pop3_0630"}));
    EXPECT_EQ(count_of(codes, "Pop3_07ff"), 0);
}

TEST_F(Pop3Session, ARefusedStatGivesMinus5) {
    ScriptServer server(good_login().read_line().send("-ERR locked\r\n").drain());
    connect(server);
    ASSERT_EQ(Pop3_Login(sock_, "u", "p", reply_, &err_, nullptr), 0);
    std::snprintf(reply_, sizeof reply_, "%s", "stale");
    EXPECT_EQ(Pop3_STAT(sock_, reply_, &err_, nullptr), -5);
    EXPECT_STREQ(reply_, "-ERR locked\r\n");
    EXPECT_EQ(err_, 0);
}

TEST_F(Pop3Session, StatEmptiesTheReplyBufferFirst) {
    ScriptServer server(Script().send("+OK\r\n").read_line().send("+OK 0 0\r\n"));
    connect(server);
    // Skip the greeting by hand: STAT is what is tested.
    char greeting[16] = {};
    ASSERT_EQ(::recv(sock_, greeting, 5, MSG_WAITALL), 5);
    std::snprintf(reply_, sizeof reply_, "%s", "stale");
    EXPECT_EQ(Pop3_STAT(sock_, reply_, &err_, nullptr), 0);
    EXPECT_STREQ(reply_, "");
}

TEST_F(Pop3Session, ARefusedQuitGivesMinus8AndAGoodOneLeavesTheBufferAlone) {
    ScriptServer server(Script().send("-ERR cannot\r\n").read_line().send("+OK\r\n").read_line());
    connect(server);
    // Logout reads one reply after its command; feed the refusal first.
    std::snprintf(reply_, sizeof reply_, "%s", "untouched");
    EXPECT_EQ(Pop3_Logout(sock_, reply_, &err_, nullptr), -8);
    EXPECT_STREQ(reply_, "-ERR cannot\r\n");
    std::snprintf(reply_, sizeof reply_, "%s", "untouched");
    EXPECT_EQ(Pop3_Logout(sock_, reply_, &err_, nullptr), 0);
    EXPECT_STREQ(reply_, "untouched");
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(server.received(), "QUIT\r\nQUIT\r\n");
}

TEST_F(Pop3Session, ASilentServerTimesOutWithMinus17) {
    kemail_test::FakeClock clock;
    ScriptServer server(Script().sleep_ms(30000));
    TraceCapture trace("silence");
    connect(server, trace.handle());
    Pop3_SetTimeOut(1, nullptr);
    const auto start = Clock::now();
    EXPECT_EQ(Pop3_Login(sock_, "u", "p", reply_, &err_, trace.handle()), -17);
    EXPECT_GE(elapsed_ms(start), 900);
    EXPECT_EQ(err_, 0);
    EXPECT_STREQ(reply_, "");
    const auto codes = trace.codes();
    EXPECT_TRUE(in_order(
        codes, {"Pop3_0400", "Pop3_0a00", "Pop3_0c00", "Pop3_0c50", "Pop3_0a10", "Pop3_0410"}));
}

TEST_F(Pop3Session, ATimeOutOfZeroTimesOutAtOnce) {
    ScriptServer server(Script().send("+OK\r\n").read_line().sleep_ms(30000));
    connect(server);
    Pop3_SetTimeOut(0, nullptr);
    EXPECT_EQ(g_ulPopTimeOut, 0u);
    // Every select only polls: the greeting is read if it has arrived by
    // then (else the greeting times out), and the USER reply never comes.
    EXPECT_EQ(Pop3_Login(sock_, "u", "p", reply_, &err_, nullptr), -17);
}

TEST_F(Pop3Session, SilenceAfterUserTimesOut) {
    kemail_test::FakeClock clock;
    ScriptServer server(Script().send("+OK\r\n").read_line().sleep_ms(30000));
    connect(server);
    Pop3_SetTimeOut(1, nullptr);
    EXPECT_EQ(Pop3_Login(sock_, "u", "p", reply_, &err_, nullptr), -17);
    EXPECT_EQ(server.received(), "USER u\r\n");
}

TEST_F(Pop3Session, AConnectionClosedMidLineFailsAfterSixPolls) {
    ScriptServer server(Script().send("+OK hal").close());
    TraceCapture trace("closed");
    connect(server, trace.handle());
    EXPECT_EQ(Pop3_Login(sock_, "u", "p", reply_, &err_, trace.handle()), -1);
    EXPECT_EQ(err_, 0);  // an orderly close carries no error number
    EXPECT_STREQ(reply_, "");
    const auto codes = trace.codes();
    EXPECT_EQ(count_of(codes, "Pop3_0c170"), 5);
    EXPECT_EQ(count_of(codes, "Pop3_0c150"), 1);
    EXPECT_TRUE(in_order(codes, {"Pop3_0c170", "Pop3_0c150", "Pop3_0a10", "Pop3_0410"}));
}

TEST_F(Pop3Session, ALineLongerThan1027BytesIsReadInPieces) {
    // The first read takes "+OK " and 1023 'a's; the other 977 'a's and CR LF
    // are then taken as the reply to USER, which is not positive.
    const std::string greeting = "+OK " + std::string(2000, 'a') + "\r\n";
    ScriptServer server(Script().send(greeting).read_line().drain());
    connect(server);
    EXPECT_EQ(Pop3_Login(sock_, "u", "p", reply_, &err_, nullptr), -3);
    EXPECT_EQ(std::string(reply_), std::string(255, 'a'));  // cut to 255 bytes + NUL
    hang_up();
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(server.received(), "USER u\r\n");
}

TEST_F(Pop3Session, FourBytesPlusOkIsPositiveShorterOrOtherwiseIsNot) {
    {
        ScriptServer server(Script().send("+OK\n").read_line().send("+O\n").drain());
        connect(server);
        EXPECT_EQ(Pop3_Login(sock_, "u", "p", reply_, &err_, nullptr), -3);
        EXPECT_STREQ(reply_, "+O\n");
        hang_up();
    }
    {
        ScriptServer server(Script().send("+ok lower case\r\n").drain());
        connect(server);
        EXPECT_EQ(Pop3_Login(sock_, "u", "p", reply_, &err_, nullptr), -2);
        hang_up();
    }
    {
        ScriptServer server(Script().send("OK\n").drain());
        connect(server);
        EXPECT_EQ(Pop3_Login(sock_, "u", "p", reply_, &err_, nullptr), -2);
        EXPECT_STREQ(reply_, "OK\n");
        hang_up();
    }
}

TEST_F(Pop3Session, NulsAndBinaryBytesInReplies) {
    // A positive greeting with NUL and high bytes; a refusal whose text stops
    // at its NUL when copied.
    ScriptServer server(Script()
                            .send("+OK \0\xff\x80\x01 ready\r\n"s)
                            .read_line()
                            .send("-ERR a\0b\xfe\r\n"s)
                            .drain());
    connect(server);
    EXPECT_EQ(Pop3_Login(sock_, "u", "p", reply_, &err_, nullptr), -3);
    EXPECT_STREQ(reply_, "-ERR a");
    hang_up();
    ScriptServer junk(Script().send("\0\x01+OK\r\n"s).drain());
    connect(junk);
    EXPECT_EQ(Pop3_Login(sock_, "u", "p", reply_, &err_, nullptr), -2);
    EXPECT_STREQ(reply_, "");  // the line starts with NUL
}

TEST_F(Pop3Session, AUserNameTooLongForTheCommandIsRefusedUnsent) {
    ScriptServer server(Script().send("+OK\r\n").drain());
    connect(server);
    const std::string user(5000, 'u');
    EXPECT_EQ(Pop3_Login(sock_, user.c_str(), "p", reply_, &err_, nullptr), -1);
    EXPECT_EQ(err_, EMSGSIZE);
    hang_up();
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(server.received(), "");
}

TEST_F(Pop3Session, TheLongestCommandLineIs255Bytes) {
    const std::string user(248, 'u');
    ScriptServer server(Script().send("+OK\r\n").read_line().send("+OK\r\n").drain());
    connect(server);
    const std::string password(249, 'p');
    EXPECT_EQ(Pop3_Login(sock_, user.c_str(), password.c_str(), reply_, &err_, nullptr), -1);
    EXPECT_EQ(err_, EMSGSIZE);
    hang_up();
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(server.received(), "USER " + user + "\r\n");  // PASS was not sent
    EXPECT_EQ(server.received().size(), 255u);
}

// The trace file is the diagnostic record: the PASS line goes there as it is
// sent, password included; only the mail log masks it.
TEST_F(Pop3Session, ThePassCommandIsTracedInClear) {
    ScriptServer server(good_login().drain());
    TraceCapture trace("pass_in_clear");
    connect(server, trace.handle());
    EXPECT_EQ(Pop3_Login(sock_, "u", "Sesame-42", reply_, &err_, trace.handle()), 0);
    hang_up();
    ASSERT_TRUE(server.wait_done());
    const std::vector<std::string> sent = trace.data_of("Pop3_0b00");
    EXPECT_EQ(sent, (std::vector<std::string>{"USER u\r\n", "PASS Sesame-42\r\n"}));
}

TEST_F(Pop3Session, TheMailLogShowsCommandsAndRepliesButNotThePassword) {
    g_pLogHandle = MailLogOpen(0);
    ASSERT_NE(g_pLogHandle, nullptr);
    ScriptServer server(
        good_login().read_line().send("+OK 1 10\r\n").read_line().send("+OK bye\r\n"));
    connect(server);
    EXPECT_EQ(Pop3_Login(sock_, "loguser", "Sesame-42", reply_, &err_, nullptr), 0);
    EXPECT_EQ(Pop3_STAT(sock_, reply_, &err_, nullptr), 0);
    EXPECT_EQ(Pop3_Logout(sock_, reply_, &err_, nullptr), 0);
    MailLogClose(g_pLogHandle);
    g_pLogHandle = nullptr;

    const std::string log = kemail_test::read_file(pop3_test::mail_log_path());
    EXPECT_EQ(log.find("Sesame-42"), std::string::npos) << log;
    EXPECT_EQ(log.find("PASS"), std::string::npos) << log;
    for (const char* line : {" R: +OK POP3 ready\r\n", " S: USER loguser\r\n", " R: +OK\r\n",
                             " S: ******\r\n", " R: +OK logged in\r\n", " S: STAT\r\n",
                             " R: +OK 1 10\r\n", " S: QUIT\r\n", " R: +OK bye\r\n"}) {
        EXPECT_NE(log.find(line), std::string::npos) << "missing" << line << "in\n" << log;
    }
    EXPECT_LT(log.find("S: USER loguser"), log.find("S: ******"));
    EXPECT_LT(log.find("S: ******"), log.find("R: +OK logged in"));
}

TEST_F(Pop3Session, TheMailLogRecordsATimeOut) {
    kemail_test::FakeClock clock;
    g_pLogHandle = MailLogOpen(0);
    ASSERT_NE(g_pLogHandle, nullptr);
    ScriptServer server(Script().sleep_ms(30000));
    connect(server);
    Pop3_SetTimeOut(1, nullptr);
    EXPECT_EQ(Pop3_Login(sock_, "u", "p", reply_, &err_, nullptr), -17);
    MailLogClose(g_pLogHandle);
    g_pLogHandle = nullptr;
    const std::string log = kemail_test::read_file(pop3_test::mail_log_path());
    EXPECT_NE(log.find(" -: ERROR: POP TIMEOUT (timer=1) recv\r\n"), std::string::npos) << log;
}

TEST_F(Pop3Session, SendingOnABadDescriptorFailsWithItsErrno) {
    EXPECT_EQ(Pop3_STAT(-1, reply_, &err_, nullptr), -1);
    EXPECT_EQ(err_, EBADF);
    EXPECT_EQ(Pop3_Logout(-1, reply_, &err_, nullptr), -1);
    EXPECT_EQ(err_, EBADF);
}

TEST_F(Pop3Session, SetTimeOutSetsTheGlobal) {
    EXPECT_EQ(Pop3_SetTimeOut(123, nullptr), -1);  // Twrite's answer for a null handle
    EXPECT_EQ(g_ulPopTimeOut, 123u);
    TraceCapture trace("set_timeout");
    EXPECT_EQ(Pop3_SetTimeOut(7, trace.handle()), 0);
    EXPECT_EQ(g_ulPopTimeOut, 7u);
    const auto codes = trace.codes();
    EXPECT_EQ(codes, (std::vector<std::string>{"Pop3_Set0000", "Pop3_SetFFFF"}));
}

TEST(Pop3Connect, AnUnresolvableNameGivesMinus11) {
    int err = 0;
    TraceCapture trace("unresolvable");
    g_pLogHandle = MailLogOpen(0);
    ASSERT_NE(g_pLogHandle, nullptr);
    EXPECT_EQ(Pop3_Connect("pop.kemail-test.invalid", 110, &err, trace.handle()), -11);
    MailLogClose(g_pLogHandle);
    g_pLogHandle = nullptr;
    EXPECT_NE(err, 0);
    const std::string log = kemail_test::read_file(pop3_test::mail_log_path());
    EXPECT_NE(
        log.find(" -: ERROR: func=gethostbyname_r code=0 detail=" + std::to_string(err) + "\r\n"),
        std::string::npos)
        << log;
    const auto codes = trace.codes();
    EXPECT_TRUE(in_order(codes, {"Pop3_0000", "getpop0000", "getpop0030", "Pop3_0020"}));
    EXPECT_EQ(count_of(codes, "Pop3_0210"), 0);
}

TEST(Pop3Connect, TheBroadcastAddressIsNoServer) {
    int err = 0;
    EXPECT_EQ(Pop3_Connect("255.255.255.255", 110, &err, nullptr), -11);
    EXPECT_NE(err, 0);
}

TEST(Pop3Connect, AHostNameIsResolved) {
    ScriptServer server(Script().send("+OK\r\n"));
    int err = -1;
    const int sock = Pop3_Connect("localhost", server.port(), &err, nullptr);
    ASSERT_GE(sock, 0);
    EXPECT_EQ(err, 0);
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(server.connections(), 1);
    ::close(sock);
}

}  // namespace
