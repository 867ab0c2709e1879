// Paths longer than 1024 bytes are refused by every helper that takes or
// builds one (-1, -2 or null with errno ENAMETOOLONG), before any system
// call; a path of exactly 1024 bytes is passed on. The operating system
// itself would take paths up to 4095 bytes and answer ENOENT for these
// missing ones, so the errno tells the two apart.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kemail.h"
#include "support/temp_dir.h"
#include "util/util_test_helpers.h"

namespace {

using kemail_test::TempDir;
using kemail_test::write_file;
using util_test::path_of_length;

constexpr size_t kLongest = 1024;

class PathBounds : public ::testing::Test {
protected:
    std::string too_long() const { return path_of_length(dir_.path(), kLongest + 1); }
    std::string longest() const { return path_of_length(dir_.path(), kLongest); }

    // Runs call with errno preset to 0 and checks the refusal's errno.
    template <typename Call>
    void expect_refused(Call call) {
        errno = 0;
        call();
        EXPECT_EQ(errno, ENAMETOOLONG);
    }

    TempDir dir_;
};

TEST_F(PathBounds, HelperBuildsExactLengths) {
    EXPECT_EQ(too_long().size(), kLongest + 1);
    EXPECT_EQ(longest().size(), kLongest);
}

TEST_F(PathBounds, OpenFunctionsRefuseLongPaths) {
    const std::string path = too_long();
    expect_refused([&] { EXPECT_EQ(FileOpen(path.c_str()), -1); });
    expect_refused([&] { EXPECT_EQ(FileOpenRead(path.c_str()), -1); });
    expect_refused([&] { EXPECT_EQ(FileOpen2(path.c_str(), 0), -1); });
    expect_refused([&] { EXPECT_EQ(FileOpen2(path.c_str(), 1), -1); });
}

TEST_F(PathBounds, LongestPathIsPassedOn) {
    const std::string path = longest();
    errno = 0;
    EXPECT_EQ(FileOpenRead(path.c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
    struct stat status;
    EXPECT_EQ(FileStat(path.c_str(), &status), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(DirectryOpen(path.c_str()), nullptr);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(PathBounds, PathFunctionsRefuseLongPaths) {
    const std::string path = too_long();
    struct stat status;
    expect_refused([&] { EXPECT_EQ(FileDelete(path.c_str()), -1); });
    expect_refused([&] { EXPECT_EQ(FileStat(path.c_str(), &status), -1); });
    expect_refused([&] { EXPECT_EQ(FileSize_Name(path.c_str()), -1); });
    expect_refused([&] { EXPECT_EQ(FileBackUp(path.c_str()), -1); });
    expect_refused([&] { EXPECT_EQ(DirectryOpen(path.c_str()), nullptr); });
    expect_refused([&] { EXPECT_EQ(DirectryMake(path.c_str()), -1); });
    expect_refused([&] { EXPECT_EQ(ExecDelDir(path.c_str(), 5), -2); });
    expect_refused([&] { EXPECT_EQ(DLLOpen(path.c_str()), nullptr); });
}

TEST_F(PathBounds, RenameRefusesEitherLongPathAndKeepsTheSource) {
    const std::string source = dir_.file("source");
    write_file(source, "kept");
    const std::string path = too_long();
    expect_refused([&] { EXPECT_EQ(RenameFile(source.c_str(), path.c_str()), -1); });
    expect_refused([&] { EXPECT_EQ(RenameFile(path.c_str(), source.c_str()), -1); });
    EXPECT_EQ(kemail_test::read_file(source), "kept");
}

TEST_F(PathBounds, BackupNameMayNotOutgrowTheBound) {
    // A 1021-byte path is fine by itself, but its ".bak" would be 1025 bytes.
    const std::string base = dir_.file("b");
    const std::string path = path_of_length(base, kLongest - 3);
    ASSERT_EQ(path.size(), kLongest - 3);
    expect_refused([&] { EXPECT_EQ(FileBackUp(path.c_str()), -1); });
    // At 1020 bytes the backup name fits and the rename itself answers.
    errno = 0;
    EXPECT_EQ(FileBackUp(path_of_length(base, kLongest - 4).c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(PathBounds, FileCopyRefusesLongPathsBeforeTouchingAnything) {
    const std::string source_dir = dir_.file("src");
    ASSERT_EQ(mkdir(source_dir.c_str(), 0755), 0);
    write_file(source_dir + "/f", "data");
    const std::string long_dir = too_long();
    const std::string new_dir = dir_.file("dst");
    const std::string long_name(1100, 'n');

    expect_refused(
        [&] { EXPECT_EQ(FileCopy(long_dir.c_str(), new_dir.c_str(), "f", nullptr), -1); });
    expect_refused(
        [&] { EXPECT_EQ(FileCopy(source_dir.c_str(), long_dir.c_str(), "f", nullptr), -1); });
    expect_refused([&] {
        EXPECT_EQ(FileCopy(source_dir.c_str(), new_dir.c_str(), long_name.c_str(), nullptr), -1);
    });
    expect_refused([&] {
        EXPECT_EQ(FileCopy(source_dir.c_str(), new_dir.c_str(), "f", long_name.c_str()), -1);
    });
    // Each part fits, the joined path does not.
    const std::string deep_dir = path_of_length(dir_.path(), kLongest - 2);
    expect_refused(
        [&] { EXPECT_EQ(FileCopy(source_dir.c_str(), deep_dir.c_str(), "ff", nullptr), -1); });
    // The joined target fits, but its backup name would not.
    const std::string near_dir = path_of_length(dir_.path(), kLongest - 4);
    expect_refused(
        [&] { EXPECT_EQ(FileCopy(source_dir.c_str(), near_dir.c_str(), "f", nullptr), -1); });

    struct stat status;
    EXPECT_EQ(stat(new_dir.c_str(), &status), -1) << "nothing may be made for a refused copy";
}

// Makes a chain of nested directories whose innermost path is longer than
// the bound, using descriptors so no over-long path is ever passed.
std::string make_deep_tree(const std::string& top, size_t beyond) {
    EXPECT_EQ(mkdir(top.c_str(), 0755), 0);
    int fd = open(top.c_str(), O_RDONLY | O_DIRECTORY);
    std::string path = top;
    const std::string name(100, 'x');
    while (path.size() <= beyond) {
        EXPECT_EQ(mkdirat(fd, name.c_str(), 0755), 0);
        const int child = openat(fd, name.c_str(), O_RDONLY | O_DIRECTORY);
        close(fd);
        fd = child;
        path += "/" + name;
    }
    const int file = openat(fd, "leaf", O_WRONLY | O_CREAT, 0644);
    close(file);
    close(fd);
    return path;
}

TEST_F(PathBounds, RemovalStopsAtEntriesWhosePathWouldBeTooLong) {
    const std::string top = dir_.file("deep");
    make_deep_tree(top, kLongest);
    expect_refused([&] { EXPECT_EQ(ExecDelDir(top.c_str(), 100), -2); });
    struct stat status;
    EXPECT_EQ(stat(top.c_str(), &status), 0) << "a tree it can't reach is not removed";
}

TEST_F(PathBounds, NullPathsAreRefusedWithEinval) {
    struct stat status;
    errno = 0;
    EXPECT_EQ(FileOpen(nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(FileOpenRead(nullptr), -1);
    EXPECT_EQ(FileOpen2(nullptr, 0), -1);
    EXPECT_EQ(FileDelete(nullptr), -1);
    EXPECT_EQ(FileStat(nullptr, &status), -1);
    EXPECT_EQ(FileSize_Name(nullptr), -1);
    EXPECT_EQ(FileBackUp(nullptr), -1);
    EXPECT_EQ(RenameFile(nullptr, "x"), -1);
    EXPECT_EQ(RenameFile("x", nullptr), -1);
    EXPECT_EQ(DirectryOpen(nullptr), nullptr);
    EXPECT_EQ(DirectryMake(nullptr), -1);
    EXPECT_EQ(ExecDelDir(nullptr, 1), -2);
    EXPECT_EQ(FileCopy(nullptr, "d", "f", nullptr), -1);
    EXPECT_EQ(FileCopy("s", nullptr, "f", nullptr), -1);
    EXPECT_EQ(FileCopy("s", "d", nullptr, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
}

}  // namespace
