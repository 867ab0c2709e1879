// Changing private profiles and writing them back at close.
#include <gtest/gtest.h>

#include <cerrno>
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
using util_test::profile_value;

constexpr unsigned int kWritable = 1;

class ProfileWrite : public ::testing::Test {
protected:
    ProfileHandle* open(const std::string& text, unsigned int flags = kWritable) {
        write_file(path(), text);
        return Com_OpenPrivateProfile(path().c_str(), flags);
    }
    // Closes with the file as target and returns what is in it afterwards.
    std::string close_and_read(ProfileHandle* profile) {
        EXPECT_EQ(Com_ClosePrivateProfile(profile, path().c_str()), 0);
        return read_file(path());
    }
    std::string path() const { return dir_.file("w.ini"); }

    TempDir dir_;
};

TEST_F(ProfileWrite, ReadOnlyHandleRefusesAndChangesNothing) {
    ProfileHandle* profile = open("[S]\nk=v\n", 0);
    EXPECT_EQ(Com_WritePrivateProfileString(profile, "S", "k", "new"), 0);
    EXPECT_EQ(Com_WritePrivateProfileString(profile, "S", nullptr, nullptr), 0);
    EXPECT_EQ(profile_value(profile, "S", "k"), "v");
    EXPECT_EQ(profile->state, 0u);
    EXPECT_EQ(close_and_read(profile), "[S]\nk=v\n");
}

TEST_F(ProfileWrite, NullSectionIsRefused) {
    ProfileHandle* profile = open("[S]\nk=v\n");
    EXPECT_EQ(Com_WritePrivateProfileString(profile, nullptr, "k", "v"), 0);
    EXPECT_EQ(profile->state, 0u);
    EXPECT_EQ(Com_ClosePrivateProfile(profile, nullptr), 0);
}

TEST_F(ProfileWrite, EmptyProfileTakesItsFirstSection) {
    ProfileHandle* profile = open("; only a comment\n");
    EXPECT_EQ(Com_WritePrivateProfileString(profile, "S", nullptr, "v"), 1);
    EXPECT_EQ(Com_WritePrivateProfileString(profile, "S", "k", nullptr), 1);
    EXPECT_EQ(profile->sections, nullptr);
    EXPECT_EQ(profile->state, 0u);
    EXPECT_EQ(Com_WritePrivateProfileString(profile, "S", "k", "v"), 1);
    EXPECT_EQ(profile->state, 1u);
    EXPECT_EQ(profile_value(profile, "S", "k"), "v");
    EXPECT_EQ(read_file(path()), "; only a comment\n") << "the file changes only at close";
    EXPECT_EQ(close_and_read(profile), "[S]\nk=v\n");
}

TEST_F(ProfileWrite, MissingSectionIsAppendedOnlyWithKeyAndValue) {
    ProfileHandle* profile = open("[A]\na=1\n");
    EXPECT_EQ(Com_WritePrivateProfileString(profile, "B", nullptr, nullptr), 1);
    EXPECT_EQ(Com_WritePrivateProfileString(profile, "B", "k", nullptr), 1);
    EXPECT_EQ(profile->state, 0u);
    EXPECT_EQ(Com_WritePrivateProfileString(profile, "B", "b", "2"), 1);
    EXPECT_EQ(Com_WritePrivateProfileString(profile, "C", "c", "3"), 1);
    EXPECT_EQ(close_and_read(profile), "[A]\na=1\n[B]\nb=2\n[C]\nc=3\n");
}

TEST_F(ProfileWrite, NewKeyIsAppendedAndAReplacedValueKeepsItsPlace) {
    ProfileHandle* profile = open("[S]\na=1\nb=2\nc=3\n");
    EXPECT_EQ(Com_WritePrivateProfileString(profile, "S", "b", "two"), 1);
    EXPECT_EQ(Com_WritePrivateProfileString(profile, "S", "d", "4"), 1);
    EXPECT_EQ(profile_value(profile, "S", "b"), "two");
    EXPECT_EQ(close_and_read(profile), "[S]\na=1\nb=two\nc=3\nd=4\n");
}

TEST_F(ProfileWrite, ReplacingWithALongerValueNeedsNoRoomInTheOldEntry) {
    ProfileHandle* profile = open("[S]\nk=v\n");
    const std::string longer(3000, 'L');
    EXPECT_EQ(Com_WritePrivateProfileString(profile, "S", "k", longer.c_str()), 1);
    EXPECT_EQ(profile_value(profile, "S", "k").size(), 2047u);  // cut to the helper's buffer
    EXPECT_EQ(close_and_read(profile), "[S]\nk=" + longer + "\n");
}

TEST_F(ProfileWrite, NullValueDeletesTheKeyAndAMissingKeyIsNothingToDo) {
    ProfileHandle* profile = open("[S]\na=1\nb=2\nc=3\n");
    EXPECT_EQ(Com_WritePrivateProfileString(profile, "S", "missing", nullptr), 1);
    EXPECT_EQ(profile->state, 0u);
    EXPECT_EQ(Com_WritePrivateProfileString(profile, "S", "a", nullptr), 1);
    EXPECT_EQ(Com_WritePrivateProfileString(profile, "S", "c", nullptr), 1);
    EXPECT_EQ(profile->state, 1u);
    EXPECT_EQ(profile_value(profile, "S", "a"), "<default>");
    EXPECT_EQ(close_and_read(profile), "[S]\nb=2\n");
}

TEST_F(ProfileWrite, NullKeyDeletesTheFirstSectionOfThatName) {
    ProfileHandle* profile = open("[S]\na=1\n[T]\nt=1\n[S]\na=2\n");
    // A value given with a null key does not matter: the section goes.
    EXPECT_EQ(Com_WritePrivateProfileString(profile, "S", nullptr, "ignored"), 1);
    EXPECT_EQ(profile_value(profile, "S", "a"), "2");
    EXPECT_EQ(close_and_read(profile), "[T]\nt=1\n[S]\na=2\n");
}

TEST_F(ProfileWrite, DeletingAMiddleSectionKeepsTheOthersLinked) {
    ProfileHandle* profile = open("[A]\na=1\n[B]\nb=1\n[C]\nc=1\n");
    EXPECT_EQ(Com_WritePrivateProfileString(profile, "B", nullptr, nullptr), 1);
    EXPECT_EQ(Com_WritePrivateProfileString(profile, "C", "d", "2"), 1);
    EXPECT_EQ(close_and_read(profile), "[A]\na=1\n[C]\nc=1\nd=2\n");
}

TEST_F(ProfileWrite, KeyAddedToAnEmptySection) {
    ProfileHandle* profile = open("[Empty]\n[S]\nk=v\n");
    EXPECT_EQ(Com_WritePrivateProfileString(profile, "Empty", "e", "1"), 1);
    EXPECT_EQ(close_and_read(profile), "[Empty]\ne=1\n[S]\nk=v\n");
}

TEST_F(ProfileWrite, RewriteDropsCommentsBlankLinesAndEmptySections) {
    ProfileHandle* profile = open(
        "; header comment\n\n[Empty]\n[S]\n  ; indented comment\nk=v\njunk line\n[Gone]\ng=1\n");
    EXPECT_EQ(Com_WritePrivateProfileString(profile, "Gone", "g", nullptr), 1);
    EXPECT_EQ(close_and_read(profile), "[S]\nk=v\n");
}

TEST_F(ProfileWrite, CrLfFlagWritesCarriageReturns) {
    ProfileHandle* profile = open("[S]\nk=v\n", KEMAIL_PROFILE_CRLF);
    EXPECT_EQ(Com_WritePrivateProfileString(profile, "S", "m", "w"), 1);
    EXPECT_EQ(close_and_read(profile), "[S]\r\nk=v\r\nm=w\r\n");
}

TEST_F(ProfileWrite, KeysAndValuesAreWrittenAsTheyStand) {
    ProfileHandle* profile = open("[S]\nkey = value \n  lead=x\n");
    EXPECT_EQ(Com_WritePrivateProfileString(profile, "S", "new", " spaced "), 1);
    EXPECT_EQ(close_and_read(profile), "[S]\nkey = value \n  lead=x\nnew= spaced \n");
}

TEST_F(ProfileWrite, WrittenFileReadsBackTheSame) {
    ProfileHandle* profile = open("");
    ASSERT_EQ(Com_WritePrivateProfileString(profile, "KEMAIL", "CONTENT_DISPOSITION", "1"), 1);
    ASSERT_EQ(Com_WritePrivateProfileString(profile, "LOG", "LEVEL", "0x1f"), 1);
    EXPECT_EQ(Com_ClosePrivateProfile(profile, path().c_str()), 0);
    ProfileHandle* again = Com_OpenPrivateProfile(path().c_str(), 0);
    EXPECT_EQ(Com_GetPrivateProfileInt(again, "KEMAIL", "CONTENT_DISPOSITION", 0, nullptr), 1);
    EXPECT_EQ(Com_GetPrivateProfileIntHex(again, "LOG", "LEVEL", 0, nullptr), 31u);
    EXPECT_EQ(Com_ClosePrivateProfile(again, path().c_str()), 0);
}

TEST_F(ProfileWrite, NamesOver67BytesAreRefused) {
    ProfileHandle* profile = open("[S]\nk=v\n");
    const std::string long_name(68, 'n');
    const std::string longest(67, 'n');
    EXPECT_EQ(Com_WritePrivateProfileString(profile, long_name.c_str(), "k", "v"), 0);
    EXPECT_EQ(Com_WritePrivateProfileString(profile, long_name.c_str(), nullptr, nullptr), 0);
    EXPECT_EQ(Com_WritePrivateProfileString(profile, "S", long_name.c_str(), "v"), 0);
    EXPECT_EQ(Com_WritePrivateProfileString(profile, "S", long_name.c_str(), nullptr), 0);
    const std::string very_long(5000, 'v');
    EXPECT_EQ(Com_WritePrivateProfileString(profile, very_long.c_str(), "k", "v"), 0);
    EXPECT_EQ(profile->state, 0u);
    EXPECT_EQ(profile_value(profile, long_name.substr(0, 67).c_str(), "k"), "<default>");

    EXPECT_EQ(Com_WritePrivateProfileString(profile, longest.c_str(), longest.c_str(), "v"), 1);
    EXPECT_EQ(profile_value(profile, longest.c_str(), longest.c_str()), "v");
    EXPECT_EQ(close_and_read(profile), "[S]\nk=v\n[" + longest + "]\n" + longest + "=v\n");
}

// ---- Close -----------------------------------------------------------------

TEST_F(ProfileWrite, UnchangedProfileIsNotWritten) {
    const std::string text = "; comment stays\n[S]\nk=v\n";
    ProfileHandle* profile = open(text);
    EXPECT_EQ(Com_WritePrivateProfileString(profile, "S", "missing", nullptr), 1);
    EXPECT_EQ(close_and_read(profile), text);
}

TEST_F(ProfileWrite, NullPathClosesWithoutWriting) {
    const std::string text = "; comment stays\n[S]\nk=v\n";
    ProfileHandle* profile = open(text);
    EXPECT_EQ(Com_WritePrivateProfileString(profile, "S", "k", "changed"), 1);
    EXPECT_EQ(Com_ClosePrivateProfile(profile, nullptr), 0);
    EXPECT_EQ(read_file(path()), text);
}

TEST_F(ProfileWrite, CloseCreatesAMissingFileWithMode0644) {
    const std::string target = dir_.file("new.ini");
    ProfileHandle* profile = Com_OpenPrivateProfile(target.c_str(), kWritable);
    ASSERT_NE(profile, nullptr);
    EXPECT_EQ(Com_WritePrivateProfileString(profile, "S", "k", "v"), 1);
    const mode_t old_mask = umask(022);
    EXPECT_EQ(Com_ClosePrivateProfile(profile, target.c_str()), 0);
    umask(old_mask);
    EXPECT_EQ(read_file(target), "[S]\nk=v\n");
    struct stat status;
    ASSERT_EQ(stat(target.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0644u);
}

TEST_F(ProfileWrite, CloseWritesToThePathGivenThere) {
    ProfileHandle* profile = open("[S]\nk=v\n");
    EXPECT_EQ(Com_WritePrivateProfileString(profile, "S", "k", "w"), 1);
    const std::string other = dir_.file("other.ini");
    EXPECT_EQ(Com_ClosePrivateProfile(profile, other.c_str()), 0);
    EXPECT_EQ(read_file(other), "[S]\nk=w\n");
    EXPECT_EQ(read_file(path()), "[S]\nk=v\n");
}

TEST_F(ProfileWrite, FailedOpenAtCloseStoresErrnoAndFreesTheHandle) {
    ProfileHandle* profile = open("[S]\nk=v\n");
    EXPECT_EQ(Com_WritePrivateProfileString(profile, "S", "k", "w"), 1);
    int error = 0;
    const std::string unreachable = dir_.file("no-such-dir/w.ini");
    EXPECT_EQ(Com_ClosePrivateProfile2(profile, unreachable.c_str(), &error), -1);
    EXPECT_EQ(error, ENOENT);
    // The handle is gone: a sanitizer run reports a leak otherwise.
}

TEST_F(ProfileWrite, FailedOpenAtCloseWithoutAnErrorSlot) {
    ProfileHandle* profile = open("[S]\nk=v\n");
    EXPECT_EQ(Com_WritePrivateProfileString(profile, "S", "k", "w"), 1);
    EXPECT_EQ(Com_ClosePrivateProfile(profile, dir_.path().c_str()), -1);  // a directory
    EXPECT_EQ(errno, EISDIR);
}

TEST_F(ProfileWrite, FailedWriteAtCloseStoresErrno) {
    // /dev/full accepts the open and fails every write with ENOSPC.
    struct stat status;
    if (stat("/dev/full", &status) != 0) GTEST_SKIP() << "no /dev/full on this machine";
    ProfileHandle* profile = open("[S]\nk=v\n");
    EXPECT_EQ(Com_WritePrivateProfileString(profile, "S", "k", "w"), 1);
    int error = 0;
    EXPECT_EQ(Com_ClosePrivateProfile2(profile, "/dev/full", &error), -1);
    EXPECT_EQ(error, ENOSPC);
}

TEST_F(ProfileWrite, EveryWriteMarksTheHandleModified) {
    ProfileHandle* profile = open("[S]\nk=v\n");
    EXPECT_EQ(profile->state, 0u);
    EXPECT_EQ(Com_WritePrivateProfileString(profile, "S", "k", "v"), 1);  // same value
    EXPECT_EQ(profile->state, 1u);
    EXPECT_EQ(close_and_read(profile), "[S]\nk=v\n");
}

TEST_F(ProfileWrite, ShortWriteAtCloseIsCompleted) {
    // The profile is written into a FIFO whose reader waits until a signal
    // has cut the writing of the long line short; the rest must follow.
    util_test::InterruptingSignal signal;
    const std::string fifo = dir_.file("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    ProfileHandle* profile = open("");
    const std::string value(512 * 1024, 'v');
    ASSERT_EQ(Com_WritePrivateProfileString(profile, "S", "k", value.c_str()), 1);
    ASSERT_EQ(Com_WritePrivateProfileString(profile, "S", "after", "1"), 1);

    std::string received;
    std::thread reader([&] {
        const int fd = ::open(fifo.c_str(), O_RDONLY);
        usleep(200 * 1000);  // until both signals are sent
        char chunk[65536];
        ssize_t got;
        while ((got = read(fd, chunk, sizeof chunk)) > 0) received.append(chunk, size_t(got));
        ::close(fd);
    });
    std::thread interrupter =
        util_test::InterruptingSignal::interrupt_then(pthread_self(), 2, [] {});
    EXPECT_EQ(Com_ClosePrivateProfile(profile, fifo.c_str()), 0);
    interrupter.join();
    reader.join();
    EXPECT_EQ(signal.caught(), 2);
    EXPECT_TRUE(received == "[S]\nk=" + value + "\nafter=1\n")
        << "received " << received.size() << " bytes";
}

TEST_F(ProfileWrite, WriteFailingHalfWayLeavesAPartlyWrittenFile) {
    // A file size limit stops the rewrite in its second line.
    ProfileHandle* profile = open("[S]\nk=v\n");
    ASSERT_EQ(Com_WritePrivateProfileString(profile, "S", "long", std::string(100, 'x').c_str()),
              1);
    const std::string target = path();
    const int code = util_test::exit_code_with_file_size_limit(10, [&] {
        int error = 0;
        const int result = Com_ClosePrivateProfile2(profile, target.c_str(), &error);
        return result == -1 && error == EFBIG ? 0 : 1;
    });
    EXPECT_EQ(code, 0) << "close did not answer -1 with EFBIG";
    EXPECT_EQ(read_file(target), "[S]\nk=v\nlo");
    EXPECT_EQ(Com_ClosePrivateProfile(profile, nullptr), 0);  // the parent's copy
}

TEST_F(ProfileWrite, InterruptedOpenAtCloseIsRepeated) {
    ProfileHandle* profile = open("[S]\nk=v\n");
    ASSERT_EQ(Com_WritePrivateProfileString(profile, "S", "k", "w"), 1);
    util_test::ReadLease lease(path());
    if (!lease.held()) {
        Com_ClosePrivateProfile(profile, nullptr);
        GTEST_SKIP() << "no file leases here";
    }
    util_test::InterruptingSignal signal;
    std::thread helper = util_test::InterruptingSignal::interrupt_then(
        pthread_self(), 3, [&lease] { lease.release(); });
    EXPECT_EQ(Com_ClosePrivateProfile(profile, path().c_str()), 0);
    helper.join();
    EXPECT_EQ(signal.caught(), 3);
    EXPECT_EQ(read_file(path()), "[S]\nk=w\n");
}

}  // namespace
