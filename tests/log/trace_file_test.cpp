// Opening and closing trace files: sizing, the kept ring, the write offset
// rules and the inactive handle.
#include "kemail.h"
#include "log_test_support.h"

#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include <sys/stat.h>

namespace {

using kemail_test::read_file;
using kemail_test::TempDir;
using kemail_test::write_file;
using log_test::exists;
using log_test::files_in;
using log_test::word_at;
using log_test::write_ring;

TEST(TraceOpen, SizesAreRoundedToTheNextEightKilobytesAbove) {
    TempDir dir;
    struct Case {
        unsigned requested_kb;
        unsigned size_kb;
    } cases[] = {{1, 8}, {5, 8}, {7, 8}, {8, 16}, {15, 16}, {16, 24}, {100, 104}};
    for (const Case& c : cases) {
        const std::string path = dir.file("size" + std::to_string(c.requested_kb) + ".trc");
        TraceHandle* handle = Topen(path.c_str(), c.requested_kb, 1);
        ASSERT_NE(handle, nullptr) << c.requested_kb;
        EXPECT_EQ(handle->size_kb, c.size_kb) << c.requested_kb;
        EXPECT_EQ(handle->level, 1u);
        EXPECT_NE(handle->map, nullptr);
        EXPECT_GT(handle->fd, 0);
        EXPECT_EQ(Tclose(handle), 0);
        EXPECT_EQ(log_test::file_size(path), static_cast<long>(c.size_kb) * 1024) << c.requested_kb;
    }
}

TEST(TraceOpen, NewFileIsZeroButForTheWriteOffsetFour) {
    TempDir dir;
    const std::string path = dir.file("new.trc");
    TraceHandle* handle = Topen(path.c_str(), 5, 1);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(Tclose(handle), 0);
    const std::string bytes = read_file(path);
    ASSERT_EQ(bytes.size(), 8192u);
    EXPECT_EQ(word_at(bytes, 0), 4u);
    EXPECT_EQ(bytes.substr(4), std::string(8188, '\0'));
}

TEST(TraceOpen, FileGetsMode0644AndNoTemporaryFileStays) {
    TempDir dir;
    const std::string path = dir.file("mode.trc");
    const mode_t old_mask = ::umask(077);
    TraceHandle* handle = Topen(path.c_str(), 5, 1);
    ::umask(old_mask);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(Tclose(handle), 0);
    struct stat status;
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0644u);
    EXPECT_EQ(files_in(dir.path()), std::vector<std::string>{"mode.trc"});

    ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
    handle = Topen(path.c_str(), 5, 1);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(Tclose(handle), 0);
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0644u);
}

TEST(TraceOpen, BareNameIsSizedInTheWorkingDirectory) {
    TempDir dir;
    char old_dir[4096];
    ASSERT_NE(::getcwd(old_dir, sizeof old_dir), nullptr);
    ASSERT_EQ(::chdir(dir.path().c_str()), 0);
    TraceHandle* handle = Topen("bare.trc", 5, 1);
    const std::vector<std::string> names = files_in(".");
    ASSERT_EQ(::chdir(old_dir), 0);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(Tclose(handle), 0);
    EXPECT_EQ(names, std::vector<std::string>{"bare.trc"});
    EXPECT_EQ(log_test::file_size(dir.file("bare.trc")), 8192);
}

TEST(TraceOpen, ReopenKeepsTheRingAndContinuesAtTheStoredOffset) {
    TempDir dir;
    const std::string path = dir.file("again.trc");
    TraceHandle* handle = Topen(path.c_str(), 5, 1);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(Twrite(handle, 1, "ONE", nullptr, 0), 0);
    EXPECT_EQ(Tclose(handle), 0);
    const std::string first = read_file(path);
    const uint32_t after_first = word_at(first, 0);
    EXPECT_EQ(after_first, 4u + 12 + 3 + 4);

    handle = Topen(path.c_str(), 5, 1);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(Twrite(handle, 1, "TWO", nullptr, 0), 0);
    EXPECT_EQ(Tclose(handle), 0);
    const std::string second = read_file(path);
    EXPECT_EQ(second.substr(4, after_first - 4), first.substr(4, after_first - 4));
    EXPECT_EQ(second.substr(after_first, 4), "SSSS");
    EXPECT_EQ(second.substr(after_first + 12, 7), "TWOEEEE");
    EXPECT_EQ(word_at(second, 0), after_first + 19);
}

// Opening a file that is already of its size leaves its bytes as they are
// and marks it modified now, as copying it back does: old trace files are
// removed by that time, oldest first.
TEST(TraceOpen, ReopenLeavesTheBytesAndMarksTheFileModifiedNow) {
    TempDir dir;
    const std::string path = dir.file("old.trc");
    TraceHandle* handle = Topen(path.c_str(), 5, 1);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(Twrite(handle, 1, "ONE", "data", 4), 0);
    EXPECT_EQ(Tclose(handle), 0);
    const std::string before = read_file(path);
    ASSERT_EQ(before.size(), 8192u);
    log_test::set_mtime(path, 1000000);

    handle = Topen(path.c_str(), 5, 1);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(Tclose(handle), 0);
    EXPECT_EQ(read_file(path), before);
    struct stat status;
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_GE(status.st_mtime, ::time(nullptr) - 60);
    EXPECT_EQ(files_in(dir.path()), std::vector<std::string>{"old.trc"});
}

TEST(TraceOpen, SmallerFileGrowsAndKeepsItsBytes) {
    TempDir dir;
    const std::string path = dir.file("grow.trc");
    std::string old(8192, '\0');
    old.replace(0, 4, log_test::word_bytes(100));
    old.replace(4, 5, "hello");
    old.replace(8000, 5, "tail!");
    write_file(path, old);
    TraceHandle* handle = Topen(path.c_str(), 8, 1);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(handle->size_kb, 16u);
    EXPECT_EQ(Tclose(handle), 0);
    const std::string bytes = read_file(path);
    ASSERT_EQ(bytes.size(), 16384u);
    EXPECT_EQ(word_at(bytes, 0), 100u);
    EXPECT_EQ(bytes.substr(4, 5), "hello");
    EXPECT_EQ(bytes.substr(8000, 5), "tail!");
    EXPECT_EQ(bytes.substr(8192), std::string(8192, '\0'));
}

TEST(TraceOpen, PartialLastBlockIsPaddedWithZeros) {
    TempDir dir;
    const std::string path = dir.file("odd.trc");
    std::string old = log_test::word_bytes(1500) + std::string(1496, 'a');
    write_file(path, old);
    TraceHandle* handle = Topen(path.c_str(), 5, 1);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(Tclose(handle), 0);
    const std::string bytes = read_file(path);
    ASSERT_EQ(bytes.size(), 8192u);
    EXPECT_EQ(word_at(bytes, 0), 1500u);
    EXPECT_EQ(bytes.substr(4, 1496), std::string(1496, 'a'));
    EXPECT_EQ(bytes.substr(1500), std::string(8192 - 1500, '\0'));
}

TEST(TraceOpen, LargerFileKeepsItsLengthAndBytesButRestartsAtFour) {
    TempDir dir;
    const std::string path = dir.file("large.trc");
    std::string old(20000, 'z');
    old.replace(0, 4, log_test::word_bytes(100));
    write_file(path, old);
    TraceHandle* handle = Topen(path.c_str(), 5, 1);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(handle->size_kb, 8u);
    EXPECT_EQ(Tclose(handle), 0);
    const std::string bytes = read_file(path);
    ASSERT_EQ(bytes.size(), 20000u);
    EXPECT_EQ(word_at(bytes, 0), 4u);
    EXPECT_EQ(bytes.substr(4), std::string(19996, 'z'));
}

TEST(TraceOpen, FileShorterThanFourBytesCountsAsNew) {
    TempDir dir;
    const std::string path = dir.file("short.trc");
    write_file(path, "\x7f\x7f\x7f");
    TraceHandle* handle = Topen(path.c_str(), 5, 1);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(Tclose(handle), 0);
    const std::string bytes = read_file(path);
    ASSERT_EQ(bytes.size(), 8192u);
    EXPECT_EQ(word_at(bytes, 0), 4u);
    EXPECT_EQ(bytes.substr(4), std::string(8188, '\0'));

    write_file(path, "");
    handle = Topen(path.c_str(), 5, 1);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(Tclose(handle), 0);
    EXPECT_EQ(word_at(read_file(path), 0), 4u);
}

TEST(TraceOpen, StoredOffsetOutOfRangeIsResetToFour) {
    TempDir dir;
    const std::string path = dir.file("range.trc");
    struct Case {
        uint32_t stored;
        uint32_t expected;
    } cases[] = {{0, 4},       {3, 4},    {4, 4},      {5, 5},          {8191, 8191},
                 {8192, 8192}, {8193, 4}, {100000, 4}, {0xFFFFFFFFu, 4}};
    for (const Case& c : cases) {
        write_ring(path, 8192, c.stored);
        TraceHandle* handle = Topen(path.c_str(), 5, 1);
        ASSERT_NE(handle, nullptr);
        EXPECT_EQ(Tclose(handle), 0);
        EXPECT_EQ(word_at(read_file(path), 0), c.expected) << c.stored;
    }
}

TEST(TraceOpen, OffsetAtTheVeryEndWrapsTheNextRecordToFour) {
    TempDir dir;
    const std::string path = dir.file("end.trc");
    write_ring(path, 8192, 8192);
    TraceHandle* handle = Topen(path.c_str(), 5, 1);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(Twrite(handle, 0, "END", nullptr, 0), 0);
    EXPECT_EQ(Tclose(handle), 0);
    const std::string bytes = read_file(path);
    EXPECT_EQ(bytes.substr(4, 4), "SSSS");
    EXPECT_EQ(bytes.substr(16, 7), "ENDEEEE");
    EXPECT_EQ(word_at(bytes, 0), 23u);
}

TEST(TraceOpen, LevelOrSizeZeroGivesAnInactiveHandleAndNoFile) {
    TempDir dir;
    const std::string path = dir.file("off.trc");
    for (const auto& [size, level] : {std::pair{5u, 0u}, std::pair{0u, 1u}, std::pair{0u, 0u}}) {
        TraceHandle* handle = Topen(path.c_str(), size, level);
        ASSERT_NE(handle, nullptr);
        EXPECT_EQ(handle->fd, 0);
        EXPECT_EQ(handle->map, nullptr);
        EXPECT_EQ(handle->size_kb, 0u);
        EXPECT_EQ(handle->level, 0u);
        EXPECT_EQ(Twrite(handle, 0, "NOTHING", "x", 1), 0);
        EXPECT_EQ(Tclose(handle), 0);
        EXPECT_FALSE(exists(path));
    }
}

TEST(TraceOpen, EmptyNameAtLevelZeroIsAnInactiveHandle) {
    TraceHandle* handle = Topen("", 5, 0);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(handle->map, nullptr);
    EXPECT_EQ(Tclose(handle), 0);
}

TEST(TraceOpen, FailsWithoutAFileAndLeavesNothingBehind) {
    TempDir dir;
    EXPECT_EQ(Topen(dir.file("missing/x.trc").c_str(), 5, 1), nullptr);
    EXPECT_EQ(Topen("", 5, 1), nullptr);
    EXPECT_EQ(Topen(nullptr, 5, 1), nullptr);
    EXPECT_EQ(files_in(dir.path()), std::vector<std::string>{});
    // A directory is no trace file.
    ASSERT_EQ(::mkdir(dir.file("adir").c_str(), 0755), 0);
    EXPECT_EQ(Topen(dir.file("adir").c_str(), 5, 1), nullptr);
    EXPECT_EQ(files_in(dir.path()), std::vector<std::string>{"adir"});

    // Tracing still works after the failures.
    TraceHandle* handle = Topen(dir.file("after.trc").c_str(), 5, 1);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(Twrite(handle, 1, "AFTER", nullptr, 0), 0);
    EXPECT_EQ(Tclose(handle), 0);
    EXPECT_EQ(read_file(dir.file("after.trc")).substr(16, 9), "AFTEREEEE");
}

TEST(TraceClose, NullHandleIsRefused) { EXPECT_EQ(Tclose(nullptr), -1); }

}  // namespace
