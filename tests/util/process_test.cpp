// Commands, dynamic loading and the case-blind comparison.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>

#include <sys/resource.h>
#include <unistd.h>

#include "kemail.h"
#include "support/temp_dir.h"
#include "util/util_test_helpers.h"

namespace {

using kemail_test::read_file;
using kemail_test::TempDir;

// ---- ExecCommand --------------------------------------------------------------

TEST(ExecCommand, RunsTheCommandLine) {
    TempDir dir;
    const std::string out = dir.file("out");
    EXPECT_EQ(ExecCommand(("echo ran > '" + out + "'").c_str()), 0);
    EXPECT_EQ(read_file(out), "ran\n");
}

TEST(ExecCommand, AnyExitStatusIsSuccess) {
    EXPECT_EQ(ExecCommand("exit 0"), 0);
    EXPECT_EQ(ExecCommand("exit 1"), 0);
    EXPECT_EQ(ExecCommand("exit 3"), 0);
    // The shell's "not found" status 127 is the command's, not system()'s own.
    EXPECT_EQ(ExecCommand("exit 127"), 0);
    EXPECT_EQ(ExecCommand("/nonexistent/program"), 0);
    EXPECT_EQ(ExecCommand("kill -9 $$"), 0);
}

TEST(ExecCommand, NullCommandAsksForAShell) {
    // system(NULL) answers non-zero when a shell is there: not a failure.
    EXPECT_EQ(ExecCommand(nullptr), 0);
}

TEST(ExecCommand, FailureOfSystemItselfIsMinusOne) {
    // With SIGCHLD ignored the shell is reaped by the kernel, system() can't
    // collect its status and answers -1.
    EXPECT_EQ(util_test::exit_code_of([] {
                  signal(SIGCHLD, SIG_IGN);
                  return -ExecCommand("true");
              }),
              1);
}

TEST(ExecCommand, ShellThatCannotBeStartedLooksLikeExitStatus127) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to switch to a limited user";
    // glibc's system() reports a failed spawn as the wait status of an exit
    // with 127, which is not its own result 127: so no failure either.
    EXPECT_EQ(util_test::exit_code_as_nobody([] {
                  const struct rlimit none = {0, 0};
                  if (setrlimit(RLIMIT_NPROC, &none) != 0) return util_test::kChildSetUpFailed;
                  if (std::system("true") != (127 << 8)) return 2;  // the premise
                  return ExecCommand("true") == 0 ? 0 : 1;
              }),
              0);
}

// ---- Dynamic loading ------------------------------------------------------------

TEST(DLL, OpensLooksUpAndCloses) {
    void* library = DLLOpen("libm.so.6");
    ASSERT_NE(library, nullptr);
    using Unary = double (*)(double);
    auto square_root = reinterpret_cast<Unary>(DLLGetProcAddress(library, "sqrt"));
    ASSERT_NE(square_root, nullptr);
    EXPECT_DOUBLE_EQ(square_root(81.0), 9.0);
    EXPECT_EQ(DLLGetProcAddress(library, "no_such_symbol_here"), nullptr);
    EXPECT_EQ(DLLClose(library), 0);
}

TEST(DLL, MissingLibraryGivesNull) { EXPECT_EQ(DLLOpen("libkemail-no-such-library.so"), nullptr); }

TEST(DLL, NullArgumentsAreRefused) {
    EXPECT_NE(DLLClose(nullptr), 0);
    void* library = DLLOpen("libm.so.6");
    ASSERT_NE(library, nullptr);
    EXPECT_EQ(DLLGetProcAddress(library, nullptr), nullptr);
    EXPECT_EQ(DLLClose(library), 0);
}

TEST(DLL, NullLibraryNameIsTheRunningProgram) {
    void* self = DLLOpen(nullptr);
    ASSERT_NE(self, nullptr);
    EXPECT_NE(DLLGetProcAddress(self, "FileOpen"), nullptr);
    EXPECT_EQ(DLLClose(self), 0);
}

// ---- CheckString_NotUpLow --------------------------------------------------------

TEST(CheckStringNotUpLow, EqualIgnoringCase) {
    EXPECT_EQ(CheckString_NotUpLow("", ""), 0);
    EXPECT_EQ(CheckString_NotUpLow("Mail.Example.COM", "mail.example.com"), 0);
    EXPECT_EQ(CheckString_NotUpLow("ABC", "abc"), 0);
    EXPECT_EQ(CheckString_NotUpLow("same", "same"), 0);
}

TEST(CheckStringNotUpLow, DifferentTexts) {
    EXPECT_EQ(CheckString_NotUpLow("abc", "abd"), -1);
    EXPECT_EQ(CheckString_NotUpLow("abc", "abcd"), -1);
    EXPECT_EQ(CheckString_NotUpLow("", "a"), -1);
    // Bytes above 0x7F are not folded in the C locale.
    EXPECT_EQ(CheckString_NotUpLow("\xC0", "\xE0"), -1);
}

TEST(CheckStringNotUpLow, NullTextEqualsNothing) {
    EXPECT_EQ(CheckString_NotUpLow(nullptr, "a"), -1);
    EXPECT_EQ(CheckString_NotUpLow("a", nullptr), -1);
    EXPECT_EQ(CheckString_NotUpLow(nullptr, nullptr), -1);
}

}  // namespace
