// FileCopy: nothing to copy is no error, a missing destination is made, the
// previous target is kept as ".bak", and the copy takes over the source's
// mode, owner and times.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include "kemail.h"
#include "support/temp_dir.h"
#include "util/util_test_helpers.h"

namespace {

using kemail_test::read_file;
using kemail_test::TempDir;
using kemail_test::write_file;
using util_test::exists;

class FileCopyTest : public ::testing::Test {
protected:
    FileCopyTest() {
        EXPECT_EQ(mkdir(source_dir().c_str(), 0755), 0);
        EXPECT_EQ(mkdir(target_dir().c_str(), 0755), 0);
    }
    std::string source_dir() const { return dir_.file("src"); }
    std::string target_dir() const { return dir_.file("dst"); }
    TempDir dir_;
};

TEST_F(FileCopyTest, MissingSourceIsNothingToCopyAndMakesNothing) {
    const std::string new_dir = dir_.file("never-made");
    EXPECT_EQ(FileCopy(source_dir().c_str(), new_dir.c_str(), "missing", nullptr), 0);
    EXPECT_FALSE(exists(new_dir));
}

TEST_F(FileCopyTest, CopiesUnderTheSameName) {
    std::string content;
    for (int i = 0; i < 5000; ++i) content += static_cast<char>(i * 7);  // spans several blocks
    write_file(source_dir() + "/data", content);
    EXPECT_EQ(FileCopy(source_dir().c_str(), target_dir().c_str(), "data", nullptr), 0);
    EXPECT_EQ(read_file(target_dir() + "/data"), content);
    EXPECT_EQ(read_file(source_dir() + "/data"), content);
    EXPECT_FALSE(exists(target_dir() + "/data.bak"));
}

TEST_F(FileCopyTest, CopiesUnderANewNameAndIgnoresFurtherWords) {
    write_file(source_dir() + "/data", "payload");
    EXPECT_EQ(FileCopy(source_dir().c_str(), target_dir().c_str(), "data", "renamed", 1, "x"), 0);
    EXPECT_EQ(read_file(target_dir() + "/renamed"), "payload");
    EXPECT_FALSE(exists(target_dir() + "/data"));
}

TEST_F(FileCopyTest, EmptySourceGivesAnEmptyCopy) {
    write_file(source_dir() + "/empty", "");
    write_file(target_dir() + "/empty", "old contents");
    EXPECT_EQ(FileCopy(source_dir().c_str(), target_dir().c_str(), "empty", nullptr), 0);
    EXPECT_EQ(read_file(target_dir() + "/empty"), "");
}

TEST_F(FileCopyTest, ExistingTargetBecomesBakAndCopyTakesTheSourcesAttributes) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to give the source another owner";
    const std::string source = source_dir() + "/conf";
    const std::string target = target_dir() + "/conf";
    write_file(source, "new version");
    ASSERT_EQ(chmod(source.c_str(), 0640), 0);
    ASSERT_EQ(chown(source.c_str(), 1234, 5678), 0);
    const struct utimbuf times = {1000000000, 1100000000};
    ASSERT_EQ(utime(source.c_str(), &times), 0);
    write_file(target, "old version");
    write_file(target + ".bak", "older version");

    EXPECT_EQ(FileCopy(source_dir().c_str(), target_dir().c_str(), "conf", nullptr), 0);

    struct stat status;  // before reading the copy, which moves its access time
    ASSERT_EQ(stat(target.c_str(), &status), 0);
    EXPECT_EQ(read_file(target), "new version");
    EXPECT_EQ(read_file(target + ".bak"), "old version");
    EXPECT_EQ(status.st_mode & 07777, 0640u);
    EXPECT_EQ(status.st_uid, 1234u);
    EXPECT_EQ(status.st_gid, 5678u);
    EXPECT_EQ(status.st_atime, 1000000000);
    EXPECT_EQ(status.st_mtime, 1100000000);
}

TEST_F(FileCopyTest, MissingDestinationDirectoryIsMade) {
    write_file(source_dir() + "/f", "x");
    const std::string new_dir = dir_.file("fresh");
    EXPECT_EQ(FileCopy(source_dir().c_str(), new_dir.c_str(), "f", nullptr), 0);
    EXPECT_EQ(read_file(new_dir + "/f"), "x");
    struct stat status;
    ASSERT_EQ(stat(new_dir.c_str(), &status), 0);
    EXPECT_TRUE(S_ISDIR(status.st_mode));
}

TEST_F(FileCopyTest, DestinationThatCannotBeMadeFails) {
    write_file(source_dir() + "/f", "x");
    // Only the last component is made, so a missing parent is a failure.
    const std::string new_dir = dir_.file("no/parent");
    EXPECT_EQ(FileCopy(source_dir().c_str(), new_dir.c_str(), "f", nullptr), -1);
    EXPECT_FALSE(exists(dir_.file("no")));
}

TEST_F(FileCopyTest, UnreadableSourceFails) {
    // A directory under the file's name passes stat but can't be copied.
    ASSERT_EQ(mkdir((source_dir() + "/dir").c_str(), 0755), 0);
    EXPECT_EQ(FileCopy(source_dir().c_str(), target_dir().c_str(), "dir", nullptr), -1);
}

TEST_F(FileCopyTest, SourceStatFailureOtherThanMissingFails) {
    // A file where a directory is expected: stat answers ENOTDIR.
    write_file(dir_.file("plain"), "x");
    EXPECT_EQ(FileCopy(dir_.file("plain").c_str(), target_dir().c_str(), "f", nullptr), -1);
    EXPECT_EQ(GetErrorCode(), ENOTDIR);
}

TEST_F(FileCopyTest, DestinationStatFailureOtherThanMissingFails) {
    write_file(source_dir() + "/f", "x");
    write_file(dir_.file("plain"), "x");
    EXPECT_EQ(FileCopy(source_dir().c_str(), (dir_.file("plain") + "/sub").c_str(), "f", nullptr),
              -1);
    EXPECT_EQ(GetErrorCode(), ENOTDIR);
}

TEST_F(FileCopyTest, ShortWriteFails) {
    // A file size limit makes the second block's write fall short.
    write_file(source_dir() + "/big", std::string(5000, 'b'));
    const std::string source = source_dir();
    const std::string target = target_dir();
    EXPECT_EQ(util_test::exit_code_with_file_size_limit(
                  3000, [&] { return -FileCopy(source.c_str(), target.c_str(), "big", nullptr); }),
              1)
        << "FileCopy did not give -1";
    EXPECT_EQ(read_file(target + "/big").size(), 3000u);
}

}  // namespace
