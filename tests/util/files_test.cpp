// The thin file helpers: results of the underlying calls, errno left for
// GetErrorCode, interrupted calls repeated.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <thread>

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kemail.h"
#include "support/temp_dir.h"
#include "util/util_test_helpers.h"

namespace {

using kemail_test::read_file;
using kemail_test::TempDir;
using kemail_test::write_file;
using util_test::exists;

TEST(GetErrorCode, ReadsErrno) {
    errno = EACCES;
    EXPECT_EQ(GetErrorCode(), EACCES);
    errno = 0;
    EXPECT_EQ(GetErrorCode(), 0);
}

TEST(FileOpen, CreatesWithMode0644AndNeitherTruncatesNorAppends) {
    TempDir dir;
    const std::string path = dir.file("f");
    const mode_t old_mask = umask(022);
    int fd = FileOpen(path.c_str());
    umask(old_mask);
    ASSERT_GE(fd, 0);
    struct stat status;
    ASSERT_EQ(fstat(fd, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0644u);
    EXPECT_EQ(FileWrite(fd, "hello world", 11), 11);
    EXPECT_EQ(FileClose(fd), 0);

    fd = FileOpen(path.c_str());
    ASSERT_GE(fd, 0);
    EXPECT_EQ(FileWrite(fd, "HE", 2), 2);  // at the start, over the old bytes
    char buf[16] = {};
    EXPECT_EQ(FileSeek(fd, 0, SEEK_SET), 0);
    EXPECT_EQ(FileRead(fd, buf, sizeof buf), 11);
    EXPECT_STREQ(buf, "HEllo world");
    EXPECT_EQ(FileClose(fd), 0);
}

TEST(FileOpen, DescriptorsAreClosedOnExec) {
    TempDir dir;
    const int fd = FileOpen(dir.file("f").c_str());
    ASSERT_GE(fd, 0);
    EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_EQ(FileClose(fd), 0);
}

TEST(FileOpenRead, OpensReadOnlyAndFailsForAMissingFile) {
    TempDir dir;
    const std::string path = dir.file("r");
    write_file(path, "abc");
    const int fd = FileOpenRead(path.c_str());
    ASSERT_GE(fd, 0);
    char buf[8] = {};
    EXPECT_EQ(FileRead(fd, buf, sizeof buf), 3);
    EXPECT_EQ(FileRead(fd, buf, sizeof buf), 0);  // end of file
    EXPECT_EQ(FileWrite(fd, "x", 1), -1);
    EXPECT_EQ(GetErrorCode(), EBADF);
    EXPECT_EQ(FileClose(fd), 0);

    EXPECT_EQ(FileOpenRead(dir.file("missing").c_str()), -1);
    EXPECT_EQ(GetErrorCode(), ENOENT);
    EXPECT_FALSE(exists(dir.file("missing")));
}

TEST(FileOpen2, FlagZeroAppendsAndFlagOneTruncates) {
    TempDir dir;
    const std::string path = dir.file("f2");
    write_file(path, "first\n");
    int fd = FileOpen2(path.c_str(), 0);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(FileSeek(fd, 0, SEEK_SET), 0);
    EXPECT_EQ(FileWrite(fd, "second\n", 7), 7);  // appended despite the seek
    EXPECT_EQ(FileClose(fd), 0);
    EXPECT_EQ(read_file(path), "first\nsecond\n");

    fd = FileOpen2(path.c_str(), 1);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(FileSize(fd), 0);
    EXPECT_EQ(FileWrite(fd, "third\n", 6), 6);
    EXPECT_EQ(FileClose(fd), 0);
    EXPECT_EQ(read_file(path), "third\n");
}

TEST(FileOpen2, CreatesAMissingFileWithMode0644) {
    TempDir dir;
    const std::string path = dir.file("new");
    const mode_t old_mask = umask(022);
    const int fd = FileOpen2(path.c_str(), 0);
    umask(old_mask);
    ASSERT_GE(fd, 0);
    struct stat status;
    ASSERT_EQ(fstat(fd, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0644u);
    EXPECT_EQ(FileClose(fd), 0);
    EXPECT_EQ(FileOpen2(dir.file("no/such").c_str(), 1), -1);
    EXPECT_EQ(GetErrorCode(), ENOENT);
}

TEST(FileClose, SecondCloseFails) {
    TempDir dir;
    const int fd = FileOpen(dir.file("c").c_str());
    ASSERT_GE(fd, 0);
    EXPECT_EQ(FileClose(fd), 0);
    EXPECT_EQ(FileClose(fd), -1);
    EXPECT_EQ(GetErrorCode(), EBADF);
}

TEST(FileReadWrite, BadDescriptorGivesMinusOne) {
    char buf[4];
    EXPECT_EQ(FileRead(-1, buf, sizeof buf), -1);
    EXPECT_EQ(GetErrorCode(), EBADF);
    EXPECT_EQ(FileWrite(-1, buf, sizeof buf), -1);
    EXPECT_EQ(GetErrorCode(), EBADF);
}

TEST(FileDelete, RemovesAFileOnce) {
    TempDir dir;
    const std::string path = dir.file("d");
    write_file(path, "x");
    EXPECT_EQ(FileDelete(path.c_str()), 0);
    EXPECT_FALSE(exists(path));
    EXPECT_EQ(FileDelete(path.c_str()), -1);
    EXPECT_EQ(GetErrorCode(), ENOENT);
}

TEST(FileSeek, ReturnsTheNewOffset) {
    TempDir dir;
    const std::string path = dir.file("s");
    write_file(path, "0123456789");
    const int fd = FileOpenRead(path.c_str());
    ASSERT_GE(fd, 0);
    EXPECT_EQ(FileSeek(fd, 0, SEEK_END), 10);
    EXPECT_EQ(FileSeek(fd, 4, SEEK_SET), 4);
    char c = 0;
    EXPECT_EQ(FileRead(fd, &c, 1), 1);
    EXPECT_EQ(c, '4');
    EXPECT_EQ(FileSeek(fd, -2, SEEK_CUR), 3);
    EXPECT_EQ(FileSeek(fd, 0, 12345), -1);
    EXPECT_EQ(GetErrorCode(), EINVAL);
    EXPECT_EQ(FileClose(fd), 0);
    EXPECT_EQ(FileSeek(-1, 0, SEEK_SET), -1);
}

TEST(FileStat, FillsTheRecord) {
    TempDir dir;
    const std::string path = dir.file("st");
    write_file(path, "12345");
    struct stat status;
    EXPECT_EQ(FileStat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_size, 5);
    EXPECT_TRUE(S_ISREG(status.st_mode));
    EXPECT_EQ(FileStat(dir.file("missing").c_str(), &status), -1);
    EXPECT_EQ(GetErrorCode(), ENOENT);
}

TEST(FileSize, SizeOfAnOpenFile) {
    TempDir dir;
    const std::string path = dir.file("size");
    write_file(path, std::string(4321, 'a'));
    const int fd = FileOpenRead(path.c_str());
    ASSERT_GE(fd, 0);
    EXPECT_EQ(FileSize(fd), 4321);
    EXPECT_EQ(FileClose(fd), 0);
    EXPECT_EQ(FileSize(fd), -1);
    EXPECT_EQ(GetErrorCode(), EBADF);
}

TEST(FileSizeName, OnlyRegularFilesHaveASize) {
    TempDir dir;
    const std::string path = dir.file("sized");
    write_file(path, "abcdefg");
    EXPECT_EQ(FileSize_Name(path.c_str()), 7);
    write_file(path, "");
    EXPECT_EQ(FileSize_Name(path.c_str()), 0);
    EXPECT_EQ(FileSize_Name(dir.path().c_str()), -1);
    EXPECT_EQ(FileSize_Name(dir.file("missing").c_str()), -1);
}

TEST(FileBackUp, RenamesToBakReplacingAnOlderBackup) {
    TempDir dir;
    const std::string path = dir.file("cfg");
    write_file(path, "new");
    write_file(path + ".bak", "old");
    EXPECT_EQ(FileBackUp(path.c_str()), 0);
    EXPECT_FALSE(exists(path));
    EXPECT_EQ(read_file(path + ".bak"), "new");
    EXPECT_EQ(FileBackUp(path.c_str()), -1);
    EXPECT_EQ(GetErrorCode(), ENOENT);
    EXPECT_EQ(read_file(path + ".bak"), "new");
}

TEST(RenameFile, RenamesAndLeavesNoSource) {
    TempDir dir;
    const std::string from = dir.file("from");
    const std::string to = dir.file("to");
    write_file(from, "payload");
    EXPECT_EQ(RenameFile(from.c_str(), to.c_str()), 0);
    EXPECT_FALSE(exists(from));
    EXPECT_EQ(read_file(to), "payload");
}

TEST(RenameFile, FailedRenameStillRemovesTheSource) {
    TempDir dir;
    const std::string from = dir.file("from");
    write_file(from, "payload");
    EXPECT_EQ(RenameFile(from.c_str(), dir.file("no-such-dir/to").c_str()), -1);
    EXPECT_EQ(GetErrorCode(), ENOENT);  // the rename's error, not the unlink's
    EXPECT_FALSE(exists(from));
}

// ---- Interrupted calls are repeated ---------------------------------------

using util_test::InterruptingSignal;
using util_test::ReadLease;

TEST(Interrupted, FileReadIsRepeated) {
    InterruptingSignal signal;
    int pipe_fds[2];
    ASSERT_EQ(pipe(pipe_fds), 0);
    const int writer = pipe_fds[1];
    std::thread helper = InterruptingSignal::interrupt_then(
        pthread_self(), 3, [writer] { EXPECT_EQ(write(writer, "late", 4), 4); });
    char buf[8] = {};
    EXPECT_EQ(FileRead(pipe_fds[0], buf, sizeof buf), 4);
    helper.join();
    EXPECT_STREQ(buf, "late");
    EXPECT_EQ(signal.caught(), 3);
    close(pipe_fds[0]);
    close(pipe_fds[1]);
}

TEST(Interrupted, FileWriteIsRepeated) {
    InterruptingSignal signal;
    int pipe_fds[2];
    ASSERT_EQ(pipe(pipe_fds), 0);
    // Fill the pipe so the next write blocks until the helper drains it.
    ASSERT_EQ(fcntl(pipe_fds[1], F_SETFL, O_NONBLOCK), 0);
    char block[4096];
    std::memset(block, 'f', sizeof block);
    while (write(pipe_fds[1], block, sizeof block) > 0) {
    }
    ASSERT_EQ(fcntl(pipe_fds[1], F_SETFL, 0), 0);
    const int reader = pipe_fds[0];
    std::thread helper = InterruptingSignal::interrupt_then(pthread_self(), 3, [reader] {
        char sink[65536];
        EXPECT_GT(read(reader, sink, sizeof sink), 0);
    });
    EXPECT_EQ(FileWrite(pipe_fds[1], "x", 1), 1);
    helper.join();
    EXPECT_EQ(signal.caught(), 3);
    close(pipe_fds[0]);
    close(pipe_fds[1]);
}

TEST(Interrupted, FileWriteReturnsAShortWriteAsItIs) {
    InterruptingSignal signal;
    int pipe_fds[2];
    ASSERT_EQ(pipe(pipe_fds), 0);
    // Nobody reads: the write fills the pipe and blocks until the signal
    // ends it with what it has written.
    const std::string big(1 << 20, 'w');
    std::thread helper = InterruptingSignal::interrupt_then(pthread_self(), 1, [] {});
    const long written = FileWrite(pipe_fds[1], big.data(), big.size());
    helper.join();
    EXPECT_GT(written, 0);
    EXPECT_LT(written, static_cast<long>(big.size()));
    EXPECT_EQ(signal.caught(), 1);
    close(pipe_fds[0]);
    close(pipe_fds[1]);
}

TEST(Interrupted, FileOpenReadIsRepeated) {
    InterruptingSignal signal;
    TempDir dir;
    const std::string fifo = dir.file("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    // Opening a FIFO for reading blocks until a writer comes.
    int writer = -1;
    std::thread helper = InterruptingSignal::interrupt_then(
        pthread_self(), 3, [&fifo, &writer] { writer = open(fifo.c_str(), O_WRONLY); });
    const int fd = FileOpenRead(fifo.c_str());
    helper.join();
    EXPECT_GE(fd, 0);
    EXPECT_GE(writer, 0);
    EXPECT_EQ(signal.caught(), 3);
    close(fd);
    close(writer);
}

TEST(Interrupted, FileOpen2GivesUpAfterTenInterruptedAttempts) {
    TempDir dir;
    const std::string path = dir.file("leased");
    write_file(path, "x");
    ReadLease lease(path);
    if (!lease.held()) GTEST_SKIP() << "no file leases here";
    InterruptingSignal signal;
    std::thread helper =
        InterruptingSignal::interrupt_then(pthread_self(), 12, [&lease] { lease.release(); });
    errno = 0;
    const int fd = FileOpen2(path.c_str(), 0);
    const int open_errno = errno;
    const int interruptions = signal.caught();
    helper.join();
    // Given up before the lease went, after the tenth interruption (a signal
    // that lands before the open has blocked interrupts nothing).
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(open_errno, EINTR);
    EXPECT_GE(interruptions, 10);
    EXPECT_LT(interruptions, 12);
    if (fd >= 0) close(fd);
}

TEST(Interrupted, FileOpenIsRepeatedUntilItSucceeds) {
    TempDir dir;
    const std::string path = dir.file("leased");
    write_file(path, "x");
    ReadLease lease(path);
    if (!lease.held()) GTEST_SKIP() << "no file leases here";
    InterruptingSignal signal;
    std::thread helper =
        InterruptingSignal::interrupt_then(pthread_self(), 12, [&lease] { lease.release(); });
    const int fd = FileOpen(path.c_str());
    helper.join();
    EXPECT_GE(fd, 0);
    EXPECT_EQ(signal.caught(), 12);
    if (fd >= 0) close(fd);
}

}  // namespace
