// POP before SMTP: the setting checks, the POP time-out, the result codes and
// their detail texts, and the wait after the session.
#include "send/pop_before_smtp.h"

#include "pop3/pop3_test_support.h"
#include "support/script_server.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

using kemail::pop_before_smtp;
using kemail_test::RefusedPort;
using kemail_test::Script;
using kemail_test::ScriptServer;
using pop3_test::count_of;
using pop3_test::in_order;
using pop3_test::TraceCapture;

using Clock = std::chrono::steady_clock;

long long elapsed_ms(Clock::time_point since) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count();
}

// A server that accepts the whole session.
Script good_session() {
    return Script()
        .send("+OK ready\r\n")
        .read_line()
        .send("+OK\r\n")
        .read_line()
        .send("+OK in\r\n")
        .read_line()
        .send("+OK 0 0\r\n")
        .read_line()
        .send("+OK bye\r\n");
}

class PopBeforeSmtp : public ::testing::Test {
protected:
    void SetUp() override {
        std::memset(&info_, 0, sizeof info_);
        info_.lWait = 0;
        info_.usTimeOut = 60;
        set(info_.szUser, "u");
        set(info_.szPassword, "p");
        set(info_.szHost, "127.0.0.1");
        auth_ = {KEMAIL_AUTH_POP_BEFORE_SMTP, 0, &info_};
        std::memset(message_, 'z', sizeof message_);
        message_[sizeof message_ - 1] = '\0';
    }
    void TearDown() override {
        g_trace = nullptr;
        Pop3_SetTimeOut(60, nullptr);
    }

    template <size_t N>
    static void set(char (&field)[N], const std::string& text) {
        std::snprintf(field, N, "%s", text.c_str());
    }
    // Fills the whole field with no NUL: one more character than it may hold.
    template <size_t N>
    static void overfill(char (&field)[N]) {
        std::memset(field, 'a', N);
    }

    // Runs the step against a server playing `script`.
    int run(ScriptServer& server) {
        info_.ulPort = server.port();
        return pop_before_smtp(&auth_, message_);
    }
    // Runs a step whose settings are invalid: -1 and no connection made.
    void expect_refused_before_connecting() {
        ScriptServer server(Script().bound_ms(300));
        info_.ulPort = server.port();
        EXPECT_EQ(pop_before_smtp(&auth_, message_), -1);
        EXPECT_EQ(server.connections(), 0);
    }
    // Runs a step whose settings are valid against a good server: 0, and the
    // session's bytes as expected.
    void expect_session(const std::string& user, const std::string& password) {
        ScriptServer server(good_session());
        EXPECT_EQ(run(server), 0);
        ASSERT_TRUE(server.wait_done());
        EXPECT_FALSE(server.failed()) << server.error();
        EXPECT_EQ(server.received(),
                  "USER " + user + "\r\nPASS " + password + "\r\nSTAT\r\nQUIT\r\n");
    }

    PopBeforeSmtpInfo info_;
    MailAuthInfo auth_;
    char message_[KEMAIL_MESSAGE_SIZE];
};

TEST_F(PopBeforeSmtp, AGoodSessionReturnsZeroAndTracesEveryStep) {
    TraceCapture trace("before_good");
    g_trace = trace.handle();
    ScriptServer server(good_session());
    EXPECT_EQ(run(server), 0);
    EXPECT_STREQ(message_, "");
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(server.received(), "USER u\r\nPASS p\r\nSTAT\r\nQUIT\r\n");
    const auto codes = trace.codes();
    EXPECT_TRUE(in_order(
        codes,
        {"BEFORE0000", "BEFORE0010",   "BEFORE0060",   "BEFORE0070", "Pop3_Set0000", "Pop3_SetFFFF",
         "BEFORE0100", "INITSOCK0000", "INITSOCKFFFF", "BEFORE0200", "Pop3_0000",    "Pop3_03ff",
         "BEFORE0300", "Pop3_0400",    "Pop3_07ff",    "BEFORE0400", "Pop3_0900",    "Pop3_09ff",
         "BEFORE0500", "Pop3_0800",    "Pop3_08ff",    "BEFORE0510"}));
    EXPECT_EQ(count_of(codes, "BEFORE0505"), 0);
}

TEST_F(PopBeforeSmtp, UserLengthMustBe1To64) {
    set(info_.szUser, "");
    expect_refused_before_connecting();
    overfill(info_.szUser);
    expect_refused_before_connecting();
    set(info_.szUser, "x");
    expect_session("x", "p");
    set(info_.szUser, std::string(64, 'x'));
    expect_session(std::string(64, 'x'), "p");
}

TEST_F(PopBeforeSmtp, PasswordLengthMustBeAtMost64) {
    overfill(info_.szPassword);
    expect_refused_before_connecting();
    set(info_.szPassword, std::string(64, 'q'));
    expect_session("u", std::string(64, 'q'));
    set(info_.szPassword, "");
    expect_session("u", "");
}

TEST_F(PopBeforeSmtp, HostLengthMustBe1To256) {
    set(info_.szHost, "");
    expect_refused_before_connecting();
    overfill(info_.szHost);
    expect_refused_before_connecting();
    // "0" is the dotted form of 0.0.0.0, which Linux connects to this host.
    set(info_.szHost, "0");
    expect_session("u", "p");
    // The address parser stops at white space, so this 256-byte text is a
    // dotted address too.
    std::string padded = "127.0.0.1";
    padded.resize(256, ' ');
    set(info_.szHost, padded);
    expect_session("u", "p");
}

TEST_F(PopBeforeSmtp, WaitMustBe0To3600000) {
    info_.lWait = -1;
    expect_refused_before_connecting();
    info_.lWait = 3600001;
    expect_refused_before_connecting();
    // The longest wait passes the check; a refused password ends the step
    // before the wait.
    info_.lWait = 3600000;
    ScriptServer server(Script()
                            .send("+OK\r\n")
                            .read_line()
                            .send("+OK\r\n")
                            .read_line()
                            .send("-ERR no\r\n")
                            .drain());
    EXPECT_EQ(run(server), -15);
}

TEST_F(PopBeforeSmtp, APopTimeOutOutside60To3600Becomes60) {
    const struct {
        uint16_t given;
        uint32_t used;
    } cases[] = {{0, 60}, {59, 60}, {60, 60}, {61, 61}, {3600, 3600}, {3601, 60}, {4000, 60}};
    for (const auto& c : cases) {
        Pop3_SetTimeOut(1, nullptr);
        info_.usTimeOut = c.given;
        ScriptServer server(good_session());
        EXPECT_EQ(run(server), 0);
        EXPECT_EQ(g_ulPopTimeOut, c.used) << "given " << c.given;
    }
}

TEST_F(PopBeforeSmtp, ARefusedPasswordGivesMinus15AndTheReply) {
    TraceCapture trace("before_refused");
    g_trace = trace.handle();
    ScriptServer server(Script()
                            .send("+OK\r\n")
                            .read_line()
                            .send("+OK\r\n")
                            .read_line()
                            .send("-ERR [AUTH] Authentication failed.\r\n")
                            .drain());
    EXPECT_EQ(run(server), -15);
    EXPECT_STREQ(message_, "-ERR [AUTH] Authentication failed.\r\n");
    ASSERT_TRUE(server.wait_done());  // the socket was closed: drain ended
    EXPECT_FALSE(server.failed()) << server.error();
    const auto codes = trace.codes();
    EXPECT_TRUE(in_order(codes, {"BEFORE0300", "Pop3_0630", "BEFORE0310", "BEFORE0320"}));
}

TEST_F(PopBeforeSmtp, ARefusedGreetingOrStatGivesMinus15) {
    {
        ScriptServer server(Script().send("-ERR go away\r\n").drain());
        EXPECT_EQ(run(server), -15);
        EXPECT_STREQ(message_, "-ERR go away\r\n");
    }
    {
        TraceCapture trace("before_stat");
        g_trace = trace.handle();
        ScriptServer server(Script()
                                .send("+OK\r\n")
                                .read_line()
                                .send("+OK\r\n")
                                .read_line()
                                .send("+OK\r\n")
                                .read_line()
                                .send("-ERR mailbox locked\r\n")
                                .drain());
        EXPECT_EQ(run(server), -15);
        EXPECT_STREQ(message_, "-ERR mailbox locked\r\n");
        const auto codes = trace.codes();
        EXPECT_TRUE(in_order(codes, {"BEFORE0400", "Pop3_0930", "BEFORE0410", "BEFORE0420"}));
    }
}

TEST_F(PopBeforeSmtp, AConnectionClosedDuringLoginGivesMinus16AndTheErrno) {
    TraceCapture trace("before_closed");
    g_trace = trace.handle();
    ScriptServer server(Script().send("+OK\r\n").read_line().close());
    EXPECT_EQ(run(server), -16);
    EXPECT_STREQ(message_, "0");  // an orderly close has no error number
    const auto codes = trace.codes();
    EXPECT_TRUE(in_order(codes, {"BEFORE0300", "Pop3_0c150", "BEFORE0310", "BEFORE0330"}));
}

TEST_F(PopBeforeSmtp, AResetDuringStatGivesMinus16AndTheErrno) {
    ScriptServer server(Script()
                            .send("+OK\r\n")
                            .read_line()
                            .send("+OK\r\n")
                            .read_line()
                            .send("+OK\r\n")
                            .read_line()
                            .reset());
    EXPECT_EQ(run(server), -16);
    EXPECT_EQ(std::string(message_), std::to_string(ECONNRESET));
}

TEST_F(PopBeforeSmtp, AFailedLogoutIsToleratedAndEmptiesTheMessage) {
    TraceCapture trace("before_logout");
    g_trace = trace.handle();
    ScriptServer server(Script()
                            .send("+OK\r\n")
                            .read_line()
                            .send("+OK\r\n")
                            .read_line()
                            .send("+OK\r\n")
                            .read_line()
                            .send("+OK\r\n")
                            .read_line()
                            .send("-ERR some deleted messages not removed\r\n"));
    EXPECT_EQ(run(server), 0);
    EXPECT_STREQ(message_, "");
    const auto codes = trace.codes();
    EXPECT_TRUE(
        in_order(codes, {"BEFORE0500", "Pop3_0840", "BEFORE0505", "BEFORE0506", "BEFORE0510"}));
}

TEST_F(PopBeforeSmtp, AnUnresolvableServerGivesMinus18AndTheResolverError) {
    set(info_.szHost, "pop.kemail-test.invalid");
    info_.ulPort = 110;
    EXPECT_EQ(pop_before_smtp(&auth_, message_), -18);
    EXPECT_NE(std::string(message_), "");
    EXPECT_NE(std::string(message_), "0");
}

// The one slow connect test: a refused port is tried 7 times, 1 s apart.
TEST_F(PopBeforeSmtp, ARefusedServerIsTriedSevenTimesThenGivesMinus18AndTheErrno) {
    TraceCapture trace("before_refused_port");
    g_trace = trace.handle();
    g_pLogHandle = MailLogOpen(0);
    ASSERT_NE(g_pLogHandle, nullptr);
    RefusedPort refused;
    info_.ulPort = refused.port();
    const auto start = Clock::now();
    EXPECT_EQ(pop_before_smtp(&auth_, message_), -18);
    EXPECT_GE(elapsed_ms(start), 5900);
    MailLogClose(g_pLogHandle);
    g_pLogHandle = nullptr;
    const std::string log = kemail_test::read_file(pop3_test::mail_log_path());
    EXPECT_NE(
        log.find(" -: ERROR: func=connect code=-1 detail=" + std::to_string(ECONNREFUSED) + "\r\n"),
        std::string::npos)
        << log;
    EXPECT_EQ(std::string(message_), std::to_string(ECONNREFUSED));
    const auto codes = trace.codes();
    EXPECT_EQ(count_of(codes, "Pop3_0210"), 7);
    EXPECT_EQ(count_of(codes, "Pop3_0250"), 7);
    EXPECT_EQ(count_of(codes, "Pop3_0260"), 6);
    EXPECT_EQ(count_of(codes, "Pop3_0290"), 1);
    EXPECT_TRUE(in_order(codes, {"BEFORE0200", "Pop3_0290", "BEFORE0210"}));
}

TEST_F(PopBeforeSmtp, AWaitOf1500MsWaitsAtLeastThatLong) {
    info_.lWait = 1500;
    ScriptServer server(good_session());
    const auto start = Clock::now();
    EXPECT_EQ(run(server), 0);
    EXPECT_GE(elapsed_ms(start), 1500);
}

TEST_F(PopBeforeSmtp, AWaitOfZeroReturnsAtOnce) {
    info_.lWait = 0;
    ScriptServer server(good_session());
    const auto start = Clock::now();
    EXPECT_EQ(run(server), 0);
    // Not a speed check: only that no wait of a second or more took place.
    EXPECT_LT(elapsed_ms(start), 1000);
}

// The POP time-out cannot be set below 60 s through the settings: this test
// waits one minute for a silent server.
TEST_F(PopBeforeSmtp, ASilentServerGivesMinus17AfterTheTimeOut) {
    TraceCapture trace("before_silent");
    g_trace = trace.handle();
    ScriptServer server(Script().send("+OK\r\n").read_line().sleep_ms(120000));
    const auto start = Clock::now();
    EXPECT_EQ(run(server), -17);
    EXPECT_GE(elapsed_ms(start), 59000);
    EXPECT_STREQ(message_, "");
    const auto codes = trace.codes();
    EXPECT_TRUE(in_order(codes, {"BEFORE0300", "Pop3_0c50", "BEFORE0310", "BEFORE0315"}));
}

TEST_F(PopBeforeSmtp, MissingSettingsAreRefused) {
    auth_.pSettings = nullptr;
    EXPECT_EQ(pop_before_smtp(&auth_, message_), -1);
    EXPECT_EQ(pop_before_smtp(nullptr, message_), -1);
}

}  // namespace
