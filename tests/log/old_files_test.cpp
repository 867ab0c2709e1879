// Removal of old trace files: prefix match, ordering by modification time,
// the keep count, and the directory checks.
#include "kemail.h"
#include "log_test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include <ctime>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using kemail_test::TempDir;
using kemail_test::write_file;
using log_test::files_in;
using log_test::set_mtime;
using log_test::trace_dir;

class OldFiles : public ::testing::Test {
protected:
    void SetUp() override { log_test::clear_dir(trace_dir()); }
    void TearDown() override { log_test::clear_dir(trace_dir()); }

    // Seven matching trace files, acert1 oldest .. acert7 newest, listed by
    // the directory in an order unrelated to their age, plus files that
    // must never be touched.
    void make_files() {
        const int ages[] = {4, 7, 1, 6, 2, 5, 3};
        for (int age : ages) {
            const std::string path = trace_dir() + "/acert" + std::to_string(age) + ".trc";
            write_file(path, "x");
            set_mtime(path, 1000000 + age * 100);
        }
        for (const char* name : {"bcert9.trc", "Acert9.trc", "acer", "xacert1.trc"}) {
            write_file(trace_dir() + "/" + name, "y");
            set_mtime(trace_dir() + "/" + name, 10);
        }
        ASSERT_EQ(::mkdir((trace_dir() + "/acertdir").c_str(), 0755), 0);
        set_mtime(trace_dir() + "/acertdir", 10);
    }

    static std::vector<std::string> others() {
        return {"Acert9.trc", "acer", "acertdir", "bcert9.trc", "xacert1.trc"};
    }

    static std::vector<std::string> with_others(std::vector<std::string> names) {
        for (const std::string& name : others()) names.push_back(name);
        std::sort(names.begin(), names.end());
        return names;
    }
};

TEST_F(OldFiles, KeepFiveLeavesTheFourNewest) {
    make_files();
    EXPECT_EQ(DeleteOldFiles(0, "acert", 5, 1), 0);
    EXPECT_EQ(files_in(trace_dir()),
              with_others({"acert4.trc", "acert5.trc", "acert6.trc", "acert7.trc"}));
}

TEST_F(OldFiles, KeepTwoLeavesTheNewest) {
    make_files();
    EXPECT_EQ(DeleteOldFiles(0, "acert", 2, 1), 0);
    EXPECT_EQ(files_in(trace_dir()), with_others({"acert7.trc"}));
}

TEST_F(OldFiles, KeepOneOrZeroDeletesEveryMatchingFile) {
    for (unsigned keep : {1u, 0u}) {
        log_test::clear_dir(trace_dir());
        make_files();
        EXPECT_EQ(DeleteOldFiles(0, "acert", keep, 2), 0);
        EXPECT_EQ(files_in(trace_dir()), with_others({})) << keep;
    }
}

TEST_F(OldFiles, KeepingMoreThanThereAreDeletesNothing) {
    make_files();
    EXPECT_EQ(DeleteOldFiles(0, "acert", 8, 1), 0);
    EXPECT_EQ(files_in(trace_dir()).size(), 7 + others().size());
}

TEST_F(OldFiles, LevelZeroTouchesNothing) {
    make_files();
    EXPECT_EQ(DeleteOldFiles(0, "acert", 1, 0), 0);
    EXPECT_EQ(files_in(trace_dir()).size(), 7 + others().size());
    EXPECT_EQ(DeleteOldFiles_DIR("/no/such/dir", "acert", "trc", 1, 0), 0);
}

TEST_F(OldFiles, ExtensionIsNotLookedAt) {
    make_files();
    write_file(trace_dir() + "/acert.log", "z");
    set_mtime(trace_dir() + "/acert.log", 999);
    EXPECT_EQ(DeleteOldFiles(0, "acert", 8, 1), 0);
    // Eight matching files, keep 8: the oldest one, acert.log, goes.
    EXPECT_FALSE(log_test::exists(trace_dir() + "/acert.log"));
    EXPECT_EQ(files_in(trace_dir()).size(), 7 + others().size());
}

TEST_F(OldFiles, FilesOfEqualAgeAreAllCounted) {
    for (const char* name : {"acertA", "acertB", "acertC"}) {
        write_file(trace_dir() + "/" + name, "x");
        set_mtime(trace_dir() + "/" + name, 5000);
    }
    EXPECT_EQ(DeleteOldFiles(0, "acert", 3, 1), 0);
    EXPECT_EQ(files_in(trace_dir()).size(), 2u);
}

// A directory left alone for a while, whose last listing found nothing to
// delete, may not be listed again; files added since, or a smaller keep
// count, are still handled as a full listing handles them.
TEST_F(OldFiles, QuietDirectoryStillSeesNewFilesAndSmallerKeepCounts) {
    for (int age : {1, 2, 3}) {
        const std::string path = trace_dir() + "/acert" + std::to_string(age) + ".trc";
        write_file(path, "x");
        set_mtime(path, 1000000 + age * 100);
    }
    set_mtime(trace_dir(), 2000000);  // unchanged for long
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(DeleteOldFiles(0, "acert", 5, 1), 0);
        EXPECT_EQ(files_in(trace_dir()).size(), 3u) << round;
    }
    // Keep 2 in the same, unchanged directory: the two oldest go.
    EXPECT_EQ(DeleteOldFiles(0, "acert", 2, 1), 0);
    EXPECT_EQ(files_in(trace_dir()), std::vector<std::string>{"acert3.trc"});

    set_mtime(trace_dir(), 2000000);
    EXPECT_EQ(DeleteOldFiles(0, "acert", 5, 1), 0);
    EXPECT_EQ(files_in(trace_dir()), std::vector<std::string>{"acert3.trc"});
    for (int age : {4, 5, 6, 7, 8}) {
        const std::string path = trace_dir() + "/acert" + std::to_string(age) + ".trc";
        write_file(path, "x");
        set_mtime(path, 1000000 + age * 100);
    }
    EXPECT_EQ(DeleteOldFiles(0, "acert", 5, 1), 0);
    EXPECT_EQ(files_in(trace_dir()),
              (std::vector<std::string>{"acert5.trc", "acert6.trc", "acert7.trc", "acert8.trc"}));
}

// The directory's modification time, to the nanosecond, offset from the
// kernel's coarse clock now (the clock file systems stamp changes with).
struct timespec coarse_now_plus(long long offset_ns) {
    struct timespec now = {};
    EXPECT_EQ(::clock_gettime(CLOCK_REALTIME_COARSE, &now), 0);
    long long ns = static_cast<long long>(now.tv_sec) * 1000000000LL + now.tv_nsec + offset_ns;
    struct timespec at = {static_cast<time_t>(ns / 1000000000LL),
                          static_cast<long>(ns % 1000000000LL)};
    return at;
}

void set_dir_time(const struct timespec& at) {
    const struct timespec times[2] = {{0, UTIME_OMIT}, at};
    ASSERT_EQ(::utimensat(AT_FDCWD, trace_dir().c_str(), times, 0), 0);
}

// Three old files; a scan keeping 4 finds nothing to delete. Then two more
// files come while the directory's time is set back to what the scan saw:
// a scan that trusts its memory deletes nothing, a listing deletes two.
size_t files_left_after_a_hidden_change(const struct timespec& dir_time) {
    for (int age : {1, 2, 3}) {
        const std::string path = trace_dir() + "/acert" + std::to_string(age) + ".trc";
        write_file(path, "x");
        set_mtime(path, 1000000 + age * 100);
    }
    set_dir_time(dir_time);
    EXPECT_EQ(DeleteOldFiles(0, "acert", 4, 1), 0);
    EXPECT_EQ(files_in(trace_dir()).size(), 3u);
    for (int age : {4, 5}) {
        const std::string path = trace_dir() + "/acert" + std::to_string(age) + ".trc";
        write_file(path, "x");
        set_mtime(path, 1000000 + age * 100);
    }
    set_dir_time(dir_time);
    EXPECT_EQ(DeleteOldFiles(0, "acert", 4, 1), 0);
    return files_in(trace_dir()).size();
}

// Times finer than a millisecond: the file system stamps with the kernel's
// coarse clock, so a time some milliseconds behind it cannot come again.
TEST_F(OldFiles, ADirectoryUnchangedSinceAnEarlierTickIsNotListedAgain) {
    struct timespec earlier = coarse_now_plus(-20 * 1000 * 1000);
    if (earlier.tv_nsec % 1000000 == 0) earlier.tv_nsec += 1;
    EXPECT_EQ(files_left_after_a_hidden_change(earlier), 5u);
    // Any change of the time is seen: the directory is listed again.
    earlier.tv_nsec += 1;
    set_dir_time(earlier);
    EXPECT_EQ(DeleteOldFiles(0, "acert", 4, 1), 0);
    EXPECT_EQ(files_in(trace_dir()),
              (std::vector<std::string>{"acert3.trc", "acert4.trc", "acert5.trc"}));
}

// A finer clock than the coarse one may stamp a change ahead of it; a change
// after the look could then bear the same time.
TEST_F(OldFiles, ADirectoryStampedAheadOfTheCoarseClockIsListedAgain) {
    struct timespec ahead = coarse_now_plus(100 * 1000 * 1000);
    if (ahead.tv_nsec % 1000000 == 0) ahead.tv_nsec += 1;
    EXPECT_EQ(files_left_after_a_hidden_change(ahead), 3u);
}

// Whole milliseconds: a file system whose tick may be two seconds long.
TEST_F(OldFiles, ACoarselyStampedDirectoryChangedInTheLastSecondsIsListedAgain) {
    struct timespec recent = coarse_now_plus(-500LL * 1000 * 1000);
    recent.tv_nsec -= recent.tv_nsec % 1000000;
    EXPECT_EQ(files_left_after_a_hidden_change(recent), 3u);
}

// A symbolic link's target can change without the directory changing: a
// directory holding a matching link is listed every time.
TEST_F(OldFiles, LinkWhoseTargetBecomesAFileCounts) {
    TempDir elsewhere;
    const std::string target = elsewhere.file("target");
    ASSERT_EQ(::mkdir(target.c_str(), 0755), 0);
    write_file(trace_dir() + "/acert1.trc", "x");
    set_mtime(trace_dir() + "/acert1.trc", 1000000);
    ASSERT_EQ(::symlink(target.c_str(), (trace_dir() + "/acert2.trc").c_str()), 0);
    set_mtime(trace_dir(), 2000000);
    EXPECT_EQ(DeleteOldFiles(0, "acert", 2, 1), 0);  // the link names a directory: one file
    EXPECT_EQ(files_in(trace_dir()), (std::vector<std::string>{"acert1.trc", "acert2.trc"}));

    ASSERT_EQ(::rmdir(target.c_str()), 0);
    write_file(target, "y");
    set_mtime(target, 3000000);
    EXPECT_EQ(DeleteOldFiles(0, "acert", 2, 1), 0);  // two files now: the older goes
    EXPECT_EQ(files_in(trace_dir()), std::vector<std::string>{"acert2.trc"});
}

TEST(OldFilesDir, MissingOrNonDirectoryIsMinusOne) {
    TempDir dir;
    EXPECT_EQ(DeleteOldFiles_DIR(dir.file("missing").c_str(), "acert", "trc", 1, 1), -1);
    write_file(dir.file("plain"), "x");
    EXPECT_EQ(DeleteOldFiles_DIR(dir.file("plain").c_str(), "acert", "trc", 1, 1), -1);
    EXPECT_EQ(DeleteOldFiles_DIR(nullptr, "acert", "trc", 1, 1), -1);
}

TEST(OldFilesDir, WorksOnAnyDirectoryAndPrefix) {
    TempDir dir;
    for (int i = 1; i <= 4; ++i) {
        const std::string path = dir.file("kesmtp" + std::to_string(i) + ".log");
        write_file(path, "x");
        set_mtime(path, 2000000 + i);
    }
    EXPECT_EQ(DeleteOldFiles_DIR(dir.path().c_str(), "kesmtp", "log", 3, 1), 0);
    EXPECT_EQ(files_in(dir.path()), (std::vector<std::string>{"kesmtp3.log", "kesmtp4.log"}));
}

TEST(OldFilesDir, DanglingSymlinkIsNoRegularFile) {
    TempDir dir;
    ASSERT_EQ(::symlink("/nonexistent/target", dir.file("acert-link").c_str()), 0);
    write_file(dir.file("acert1"), "x");
    EXPECT_EQ(DeleteOldFiles_DIR(dir.path().c_str(), "acert", "trc", 0, 1), 0);
    EXPECT_EQ(files_in(dir.path()), std::vector<std::string>{"acert-link"});
}

}  // namespace
