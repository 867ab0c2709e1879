// Directory listing, DirectryMake's ownership policy, and ExecDelDir's
// depth-bounded removal.
#include <gtest/gtest.h>

#include <cerrno>
#include <set>
#include <string>

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kemail.h"
#include "support/temp_dir.h"
#include "util/util_test_helpers.h"

namespace {

using kemail_test::TempDir;
using kemail_test::write_file;
using util_test::exists;
using util_test::exit_code_as_nobody;
using util_test::kNobody;

void make_dir(const std::string& path) { ASSERT_EQ(mkdir(path.c_str(), 0755), 0) << path; }

// ---- Listing ---------------------------------------------------------------

TEST(DirectryRead, ListsEveryEntryIntoTheCallersBuffer) {
    TempDir dir;
    write_file(dir.file("a"), "");
    write_file(dir.file("bb"), "");
    make_dir(dir.file("sub"));
    DIR* listing = DirectryOpen(dir.path().c_str());
    ASSERT_NE(listing, nullptr);
    std::set<std::string> names;
    struct dirent entry;
    while (struct dirent* found = DirectryRead(listing, &entry)) {
        EXPECT_EQ(found, &entry);
        EXPECT_NE(found->d_ino, 0u);
        names.insert(found->d_name);
    }
    EXPECT_EQ(errno, 0) << "the end of a listing is no error";
    EXPECT_EQ(names, (std::set<std::string>{".", "..", "a", "bb", "sub"}));
    EXPECT_EQ(DirectryClose(listing), 0);
}

TEST(DirectryRead, LongestNameFitsTheEntry) {
    TempDir dir;
    const std::string name(255, 'L');
    write_file(dir.file(name), "");
    DIR* listing = DirectryOpen(dir.path().c_str());
    ASSERT_NE(listing, nullptr);
    struct dirent entry;
    bool seen = false;
    while (DirectryRead(listing, &entry) != nullptr) seen = seen || name == entry.d_name;
    EXPECT_TRUE(seen);
    EXPECT_EQ(DirectryClose(listing), 0);
}

TEST(DirectryOpen, MissingDirectoryGivesNull) {
    TempDir dir;
    errno = 0;
    EXPECT_EQ(DirectryOpen(dir.file("missing").c_str()), nullptr);
    EXPECT_EQ(GetErrorCode(), ENOENT);
    write_file(dir.file("file"), "");
    EXPECT_EQ(DirectryOpen(dir.file("file").c_str()), nullptr);
    EXPECT_EQ(GetErrorCode(), ENOTDIR);
}

TEST(DirectryRead, NullArgumentsGiveNull) {
    TempDir dir;
    struct dirent entry;
    EXPECT_EQ(DirectryRead(nullptr, &entry), nullptr);
    EXPECT_EQ(errno, EINVAL);
    DIR* listing = DirectryOpen(dir.path().c_str());
    ASSERT_NE(listing, nullptr);
    EXPECT_EQ(DirectryRead(listing, nullptr), nullptr);
    EXPECT_EQ(DirectryClose(listing), 0);
    EXPECT_EQ(DirectryClose(nullptr), -1);
}

// ---- DirectryMake ------------------------------------------------------------

TEST(DirectryMake, MakesTheDirectoryForRootAndSys) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to give the directory away";
    TempDir dir;
    const std::string path = dir.file("made");
    const mode_t old_mask = umask(022);
    EXPECT_EQ(DirectryMake(path.c_str()), 0);
    umask(old_mask);
    struct stat status;
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_TRUE(S_ISDIR(status.st_mode));
    EXPECT_EQ(status.st_mode & 07777, 0755u);
    EXPECT_EQ(status.st_uid, 0u);
    const struct group* sys = getgrnam("sys");
    ASSERT_NE(sys, nullptr) << "this machine has no group sys";
    EXPECT_EQ(status.st_gid, sys->gr_gid);
}

TEST(DirectryMake, ExistingDirectoryIsAFailure) {
    TempDir dir;
    EXPECT_EQ(DirectryMake(dir.path().c_str()), -1);
    EXPECT_EQ(GetErrorCode(), EEXIST);
}

TEST(DirectryMake, OnlyTheLastComponentIsMade) {
    TempDir dir;
    EXPECT_EQ(DirectryMake(dir.file("missing/child").c_str()), -1);
    EXPECT_EQ(GetErrorCode(), ENOENT);
    EXPECT_FALSE(exists(dir.file("missing")));
}

TEST(DirectryMake, UserWhoCannotChownGetsOneAndKeepsTheDirectory) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to switch to user nobody";
    TempDir dir;
    ASSERT_EQ(chmod(dir.path().c_str(), 0777), 0);
    const std::string path = dir.file("unowned");
    EXPECT_EQ(exit_code_as_nobody([&] { return DirectryMake(path.c_str()); }), 1);
    struct stat status;
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_TRUE(S_ISDIR(status.st_mode));
    EXPECT_EQ(status.st_uid, kNobody);
}

// ---- ExecDelDir ----------------------------------------------------------------

TEST(ExecDelDir, MissingDirectoryIsRemovedAlready) {
    TempDir dir;
    EXPECT_EQ(ExecDelDir(dir.file("missing").c_str(), 3), 0);
}

TEST(ExecDelDir, RemovesFilesAndEmptySubdirectoriesAtDepthOne) {
    TempDir dir;
    const std::string top = dir.file("top");
    make_dir(top);
    write_file(top + "/f1", "1");
    write_file(top + "/f2", "2");
    make_dir(top + "/empty");
    EXPECT_EQ(ExecDelDir(top.c_str(), 1), 0);
    EXPECT_FALSE(exists(top));
}

TEST(ExecDelDir, NonEmptySubdirectoryBelowTheDepthGivesMinusOne) {
    TempDir dir;
    const std::string top = dir.file("top");
    make_dir(top);
    make_dir(top + "/sub");
    write_file(top + "/sub/inner", "x");
    EXPECT_EQ(ExecDelDir(top.c_str(), 1), -1);
    EXPECT_TRUE(exists(top + "/sub/inner"));
    EXPECT_TRUE(exists(top));
}

TEST(ExecDelDir, EachLevelOfDepthRemovesOneMoreLevel) {
    TempDir dir;
    const std::string top = dir.file("top");
    make_dir(top);
    make_dir(top + "/a");
    make_dir(top + "/a/b");
    write_file(top + "/a/b/leaf", "x");
    write_file(top + "/a/file", "x");
    EXPECT_EQ(ExecDelDir(top.c_str(), 2), -1);
    EXPECT_TRUE(exists(top + "/a/b/leaf"));
    EXPECT_EQ(ExecDelDir(top.c_str(), 3), 0);
    EXPECT_FALSE(exists(top));
}

TEST(ExecDelDir, DepthBelowOneRemovesNothing) {
    TempDir dir;
    const std::string top = dir.file("top");
    make_dir(top);
    EXPECT_EQ(ExecDelDir(top.c_str(), 0), -1);
    EXPECT_EQ(ExecDelDir(top.c_str(), -5), -1);
    EXPECT_TRUE(exists(top));
}

TEST(ExecDelDir, PlainFileIsNoDirectory) {
    TempDir dir;
    write_file(dir.file("file"), "x");
    EXPECT_EQ(ExecDelDir(dir.file("file").c_str(), 2), -2);
    EXPECT_TRUE(exists(dir.file("file")));
}

TEST(ExecDelDir, EntryThatCannotBeRemovedGivesMinusTwo) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to switch to user nobody";
    TempDir dir;
    ASSERT_EQ(chmod(dir.path().c_str(), 0777), 0);
    const std::string top = dir.file("top");
    make_dir(top);  // owned by root, mode 0755: nobody can't delete in it
    write_file(top + "/f", "x");
    EXPECT_EQ(exit_code_as_nobody([&] { return -ExecDelDir(top.c_str(), 2); }), 2);
    EXPECT_TRUE(exists(top + "/f"));
}

TEST(ExecDelDir, SymbolicLinkToADirectoryIsRemovedAsALink) {
    TempDir dir;
    const std::string outside = dir.file("outside");
    make_dir(outside);
    write_file(outside + "/precious", "keep");
    const std::string top = dir.file("top");
    make_dir(top);
    ASSERT_EQ(symlink(outside.c_str(), (top + "/link").c_str()), 0);
    EXPECT_EQ(ExecDelDir(top.c_str(), 5), 0);
    EXPECT_FALSE(exists(top));
    EXPECT_TRUE(exists(outside + "/precious"));
}

}  // namespace
