// The mail log: configuration, banner and END lines, event lines, rotation
// into generations, removal of old logs and a log directory that is gone.
#include "kemail.h"
#include "log_test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using kemail_test::read_file;
using kemail_test::write_file;
using log_test::exists;
using log_test::files_in;
using log_test::log_dir;
using log_test::matches;
using log_test::set_mtime;
using log_test::TraceConf;

std::string current_log() { return log_dir() + "/kesmtp" + std::to_string(getpid()) + ".log"; }

// Patterns for log_test::matches: '#' is any digit.
const std::string kBanner =
    "####/##/## ##:##:## [" + std::to_string(getpid()) + "] NQ-Agent E-Mail\r\n";
const std::string kEnd = "####/##/## ##:##:## END\r\n\r\n";
const std::string kTime = "##:##:## ";

class MailLog : public ::testing::Test {
protected:
    void SetUp() override { log_test::clear_dir(log_dir()); }
    void TearDown() override { log_test::clear_dir(log_dir()); }

    // The text of a log holding one session with the given event lines.
    static std::string session(const std::string& events) { return kBanner + events + kEnd; }
};

TEST_F(MailLog, DefaultsAndTheSessionFrame) {
    MailLogHandle* handle = MailLogOpen(0);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(handle->log_size, 20u);
    EXPECT_EQ(handle->log_num, 20u);
    EXPECT_EQ(std::string(handle->path), current_log());
    EXPECT_TRUE(matches(read_file(current_log()), kBanner));
    EXPECT_EQ(MailLogClose(handle), 0);
    EXPECT_TRUE(matches(read_file(current_log()), session("")));
}

TEST_F(MailLog, EventLinesCarryTimeAndKindTag) {
    MailLogHandle* handle = MailLogOpen(0);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(MailLogWrite(handle, 1, "EHLO host"), 0);
    EXPECT_EQ(MailLogWrite(handle, 2, "250 ok"), 0);
    EXPECT_EQ(MailLogWrite(handle, 3, "note"), 0);
    EXPECT_EQ(MailLogWrite(handle, KEMAIL_LOG_SENT, "PASS ******"), 0);
    EXPECT_EQ(MailLogClose(handle), 0);
    EXPECT_TRUE(matches(read_file(current_log()),
                        session(kTime + "S: EHLO host\r\n" + kTime + "R: 250 ok\r\n" + kTime +
                                "-: note\r\n" + kTime + "S: PASS ******\r\n")))
        << read_file(current_log());
}

TEST_F(MailLog, OnlyKindsOneToThreeAreAccepted) {
    MailLogHandle* handle = MailLogOpen(0);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(MailLogWrite(handle, 4, "four"), -1);
    EXPECT_EQ(MailLogWrite(handle, 0, "zero"), -1);
    EXPECT_EQ(MailLogWrite(handle, -1, "minus"), -1);
    EXPECT_EQ(MailLogWrite(handle, 1, nullptr), -1);
    EXPECT_EQ(MailLogClose(handle), 0);
    EXPECT_TRUE(matches(read_file(current_log()), session("")));
}

TEST_F(MailLog, LineEndsAreAddedUnlessTheTextEndsWithCrLf) {
    MailLogHandle* handle = MailLogOpen(0);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(MailLogWrite(handle, 2, "250 done\r\n"), 0);
    EXPECT_EQ(MailLogWrite(handle, 2, "\r\n"), 0);
    EXPECT_EQ(MailLogWrite(handle, 2, "\n"), 0);
    EXPECT_EQ(MailLogWrite(handle, 2, "bare cr\r"), 0);
    EXPECT_EQ(MailLogWrite(handle, 2, "lf\n"), 0);
    EXPECT_EQ(MailLogWrite(handle, 2, ""), 0);
    EXPECT_EQ(MailLogClose(handle), 0);
    EXPECT_TRUE(
        matches(read_file(current_log()),
                session(kTime + "R: 250 done\r\n" + kTime + "R: \r\n" + kTime + "R: \n\r\n" +
                        kTime + "R: bare cr\r\r\n" + kTime + "R: lf\n\r\n" + kTime + "R: \r\n")))
        << read_file(current_log());
}

TEST_F(MailLog, SystemErrorsAndTimeOuts) {
    MailLogHandle* handle = MailLogOpen(0);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(MailLogSysErrWrite(handle, "send", -1, 32, nullptr), 0);
    EXPECT_EQ(MailLogSysErrWrite(handle, "connect", -1, 111, "127.0.0.1"), 0);
    EXPECT_EQ(MailLogSysErrWrite(handle, nullptr, -1, 1, nullptr), -1);
    EXPECT_EQ(MailLogTimeOutWrite(handle, 300, 1, "recv"), 0);
    EXPECT_EQ(MailLogTimeOutWrite(handle, 60, 2, nullptr), 0);
    EXPECT_EQ(MailLogTimeOutWrite(handle, 60, 3, "recv"), -1);
    EXPECT_EQ(MailLogTimeOutWrite(handle, 60, 0, nullptr), -1);
    EXPECT_EQ(MailLogClose(handle), 0);
    EXPECT_TRUE(matches(read_file(current_log()),
                        session(kTime + "-: ERROR: func=send code=-1 detail=32\r\n" + kTime +
                                "-: ERROR: func=connect code=-1 detail=111 127.0.0.1\r\n" + kTime +
                                "-: ERROR: SMTP TIMEOUT (timer=300) recv\r\n" + kTime +
                                "-: ERROR: POP TIMEOUT (timer=60)\r\n")))
        << read_file(current_log());
}

TEST_F(MailLog, ExtraTextIsCutAt1024Bytes) {
    MailLogHandle* handle = MailLogOpen(0);
    ASSERT_NE(handle, nullptr);
    const std::string extra(3000, 'e');
    const std::string name(2000, 'f');
    EXPECT_EQ(MailLogSysErrWrite(handle, "recv", -1, 4, extra.c_str()), 0);
    EXPECT_EQ(MailLogTimeOutWrite(handle, 9, 1, extra.c_str()), 0);
    EXPECT_EQ(MailLogSysErrWrite(handle, name.c_str(), -1, 4, nullptr), 0);
    EXPECT_EQ(MailLogClose(handle), 0);
    const std::string text = read_file(current_log());
    EXPECT_NE(text.find("detail=4 " + std::string(1024, 'e') + "\r\n"), std::string::npos);
    EXPECT_NE(text.find("(timer=9) " + std::string(1024, 'e') + "\r\n"), std::string::npos);
    EXPECT_EQ(text.find(std::string(1025, 'e')), std::string::npos);
    EXPECT_NE(text.find("func=ffff"), std::string::npos);
}

// Each event line reaches the file in one write, so that a reader never
// meets half a line: a packet socket in place of the file shows the writes.
TEST_F(MailLog, EachLineIsOneWrite) {
    int fds[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds), 0);
    MailLogHandle handle = {};
    handle.fd = fds[0];
    const std::string command(4100, 'c');
    EXPECT_EQ(MailLogWrite(&handle, 1, "MAIL FROM:<a@b>\r\n"), 0);
    EXPECT_EQ(MailLogWrite(&handle, 2, "250 ok"), 0);
    EXPECT_EQ(MailLogSysErrWrite(&handle, "send", -1, 32, nullptr), 0);
    EXPECT_EQ(MailLogWrite(&handle, 1, command.c_str()), 0);
    std::vector<std::string> packets;
    static char buffer[65536];
    for (;;) {
        const ssize_t n = ::recv(fds[1], buffer, sizeof buffer, MSG_DONTWAIT);
        if (n <= 0) break;
        packets.emplace_back(buffer, static_cast<size_t>(n));
    }
    ::close(fds[0]);
    ::close(fds[1]);
    ASSERT_EQ(packets.size(), 4u);
    EXPECT_TRUE(matches(packets[0], kTime + "S: MAIL FROM:<a@b>\r\n")) << packets[0];
    EXPECT_TRUE(matches(packets[1], kTime + "R: 250 ok\r\n")) << packets[1];
    EXPECT_TRUE(matches(packets[2], kTime + "-: ERROR: func=send code=-1 detail=32\r\n"))
        << packets[2];
    EXPECT_TRUE(matches(packets[3], kTime + "S: " + command + "\r\n"));
}

TEST_F(MailLog, NullHandleIsAcceptedEverywhere) {
    EXPECT_EQ(MailLogWrite(nullptr, 1, "x"), -1);
    EXPECT_EQ(MailLogSysErrWrite(nullptr, "send", -1, 32, nullptr), -1);
    EXPECT_EQ(MailLogTimeOutWrite(nullptr, 5, 1, nullptr), -1);
    EXPECT_EQ(MailLogClose(nullptr), 0);
}

TEST_F(MailLog, SmallFileIsAppendedToSessionAfterSession) {
    for (int i = 0; i < 3; ++i) {
        MailLogHandle* handle = MailLogOpen(0);
        ASSERT_NE(handle, nullptr);
        EXPECT_EQ(MailLogWrite(handle, 1, ("QUIT " + std::to_string(i)).c_str()), 0);
        EXPECT_EQ(MailLogClose(handle), 0);
    }
    EXPECT_TRUE(matches(read_file(current_log()), session(kTime + "S: QUIT 0\r\n") +
                                                      session(kTime + "S: QUIT 1\r\n") +
                                                      session(kTime + "S: QUIT 2\r\n")));
    EXPECT_EQ(files_in(log_dir()),
              std::vector<std::string>{"kesmtp" + std::to_string(getpid()) + ".log"});
}

TEST_F(MailLog, LogNumZeroTurnsTheLogOff) {
    TraceConf conf("[LOG]\nLOGNUM=0\n");
    EXPECT_EQ(MailLogOpen(0), nullptr);
    EXPECT_EQ(files_in(log_dir()), std::vector<std::string>{});
}

TEST_F(MailLog, OutOfRangeValuesFallBackToTwenty) {
    struct Case {
        const char* text;
        uint32_t size;
        uint32_t num;
    } cases[] = {
        {"[LOG]\nLOGNUM=3\n", 20, 20},
        {"[LOG]\nLOGNUM=101\n", 20, 20},
        {"[LOG]\nLOGNUM=4\n", 20, 20},
        {"[LOG]\nLOGNUM=-5\n", 20, 20},
        {"[LOG]\nLOGNUM=5\n", 20, 5},
        {"[LOG]\nLOGNUM=100\n", 20, 100},
        {"[LOG]\nLOGSIZE=9\n", 20, 20},
        {"[LOG]\nLOGSIZE=10\n", 10, 20},
        {"[LOG]\nLOGSIZE=100\n", 100, 20},
        {"[LOG]\nLOGSIZE=101\n", 20, 20},
        {"[LOG]\nLOGSIZE=-1\n", 20, 20},
        {"[LOG]\nLOGSIZE=0\n", 20, 20},
        {"[OTHER]\nLOGSIZE=50\nLOGNUM=7\n", 20, 20},
        {"[LOG]\nLOGSIZE=50\nLOGNUM=7\n", 50, 7},
    };
    for (const Case& c : cases) {
        TraceConf conf(c.text);
        MailLogHandle* handle = MailLogOpen(0);
        ASSERT_NE(handle, nullptr) << c.text;
        EXPECT_EQ(handle->log_size, c.size) << c.text;
        EXPECT_EQ(handle->log_num, c.num) << c.text;
        EXPECT_EQ(MailLogClose(handle), 0);
        log_test::clear_dir(log_dir());
    }
}

TEST_F(MailLog, FileAtTheSizeLimitIsRotatedAtOpen) {
    TraceConf conf("[LOG]\nLOGSIZE=10\n");
    // 10 KB less 500 bytes is the limit: one byte below it is appended to.
    write_file(current_log(), std::string(9739, 'a'));
    MailLogHandle* handle = MailLogOpen(0);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(MailLogClose(handle), 0);
    EXPECT_FALSE(exists(current_log() + "1"));
    const std::string appended = read_file(current_log());
    EXPECT_EQ(appended.substr(0, 9739), std::string(9739, 'a'));
    EXPECT_TRUE(matches(appended.substr(9739), session("")));

    write_file(current_log(), std::string(9740, 'b'));
    handle = MailLogOpen(0);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(MailLogClose(handle), 0);
    EXPECT_EQ(read_file(current_log() + "1"), std::string(9740, 'b'));
    EXPECT_TRUE(matches(read_file(current_log()), session("")));
}

TEST_F(MailLog, RotationShiftsEveryGenerationAndDropsTheOldest) {
    TraceConf conf("[LOG]\nLOGNUM=5\nLOGSIZE=10\n");
    const std::string path = current_log();
    write_file(path, "current" + std::string(10240, '.'));
    for (int n = 1; n <= 4; ++n)
        write_file(path + std::to_string(n), "generation " + std::to_string(n));
    MailLogHandle* handle = MailLogOpen(0);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(MailLogClose(handle), 0);
    EXPECT_EQ(read_file(path + "1"), "current" + std::string(10240, '.'));
    EXPECT_EQ(read_file(path + "2"), "generation 1");
    EXPECT_EQ(read_file(path + "3"), "generation 2");
    EXPECT_EQ(read_file(path + "4"), "generation 3");
    EXPECT_FALSE(exists(path + "5"));
    EXPECT_TRUE(matches(read_file(path), session("")));
    EXPECT_EQ(files_in(log_dir()).size(), 5u);
}

TEST_F(MailLog, RotationWithGapsMovesWhatExists) {
    TraceConf conf("[LOG]\nLOGNUM=5\nLOGSIZE=10\n");
    const std::string path = current_log();
    write_file(path, std::string(10000, 'c'));
    write_file(path + "2", "two");
    MailLogHandle* handle = MailLogOpen(0);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(MailLogClose(handle), 0);
    EXPECT_EQ(read_file(path + "1"), std::string(10000, 'c'));
    EXPECT_FALSE(exists(path + "2"));
    EXPECT_EQ(read_file(path + "3"), "two");
}

TEST_F(MailLog, OldLogsOfAllProcessesCountTowardsLogNum) {
    TraceConf conf("[LOG]\nLOGNUM=5\n");
    // Six logs of other processes, older than this one's current file.
    for (int i = 1; i <= 6; ++i) {
        const std::string other = log_dir() + "/kesmtp9990" + std::to_string(i) + ".log";
        write_file(other, "old");
        set_mtime(other, 1000000 + i);
    }
    write_file(log_dir() + "/unrelated.log", "keep");
    set_mtime(log_dir() + "/unrelated.log", 5);
    write_file(current_log(), "small");

    MailLogHandle* handle = MailLogOpen(0);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(MailLogClose(handle), 0);
    // Appending: the current file and the four newest others stay.
    std::vector<std::string> expected = {"kesmtp99903.log",
                                         "kesmtp99904.log",
                                         "kesmtp99905.log",
                                         "kesmtp99906.log",
                                         "kesmtp" + std::to_string(getpid()) + ".log",
                                         "unrelated.log"};
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(files_in(log_dir()), expected);
    EXPECT_EQ(read_file(current_log()).substr(0, 5), "small");
}

TEST_F(MailLog, OldLogsMakeRoomForANewFile) {
    TraceConf conf("[LOG]\nLOGNUM=5\n");
    for (int i = 1; i <= 6; ++i) {
        const std::string other = log_dir() + "/kesmtp9990" + std::to_string(i) + ".log";
        write_file(other, "old");
        set_mtime(other, 1000000 + i);
    }
    MailLogHandle* handle = MailLogOpen(0);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(MailLogClose(handle), 0);
    // No current file yet: four old ones stay beside the new one.
    std::vector<std::string> expected = {"kesmtp99903.log", "kesmtp99904.log", "kesmtp99905.log",
                                         "kesmtp99906.log",
                                         "kesmtp" + std::to_string(getpid()) + ".log"};
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(files_in(log_dir()), expected);
}

// The log directory is replaced for the test and put back afterwards.
class LogDirectoryGone : public ::testing::Test {
protected:
    void SetUp() override {
        log_test::clear_dir(log_dir());
        ASSERT_EQ(::rmdir(log_dir().c_str()), 0);
    }
    void TearDown() override {
        ::unlink(log_dir().c_str());
        ASSERT_EQ(::mkdir(log_dir().c_str(), 0755), 0);
    }

    static void expect_log_off() {
        MailLogHandle* handle = MailLogOpen(0);
        EXPECT_EQ(handle, nullptr);
        EXPECT_EQ(MailLogWrite(handle, 1, "EHLO"), -1);
        EXPECT_EQ(MailLogSysErrWrite(handle, "send", -1, 32, "x"), -1);
        EXPECT_EQ(MailLogTimeOutWrite(handle, 5, 2, nullptr), -1);
        EXPECT_EQ(MailLogClose(handle), 0);
    }
};

TEST_F(LogDirectoryGone, RegularFileInsteadOfTheDirectory) {
    write_file(log_dir(), "not a directory");
    expect_log_off();
    EXPECT_EQ(read_file(log_dir()), "not a directory");
}

TEST_F(LogDirectoryGone, DanglingSymlinkInsteadOfTheDirectory) {
    const std::string target = std::string(std::getenv("KEMAIL_TEST_ROOT")) + "/nowhere";
    ASSERT_EQ(::symlink(target.c_str(), log_dir().c_str()), 0);
    expect_log_off();
    EXPECT_FALSE(exists(target));
}

}  // namespace
