// The send driver's internal helpers: the code changer, text staging,
// work-file names and the size estimate.
#include "send/send_internal.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cstring>
#include <string>

namespace kemail {
namespace {

using kemail_test::TempDir;

TEST(CodeChanger, MapsEveryRowOfTheTable) {
    for (int code : {-31, -32, -33}) EXPECT_EQ(change_code(code), KEMAIL_E_WORK_FILE) << code;
    for (int code = -27; code <= -21; ++code) EXPECT_EQ(change_code(code), KEMAIL_E_REFUSED);
    EXPECT_EQ(change_code(-11), KEMAIL_E_NO_MEMORY);
    EXPECT_EQ(change_code(-6), KEMAIL_E_TIMEOUT);
    EXPECT_EQ(change_code(-5), KEMAIL_E_UNREACHABLE);
    EXPECT_EQ(change_code(-2), KEMAIL_E_UNREACHABLE);
    for (int code : {-4, -3, -1}) EXPECT_EQ(change_code(code), KEMAIL_E_SOCKET) << code;
    for (int code : {-7, -10, -12, -20, -28, -30, -34, -100})
        EXPECT_EQ(change_code(code), KEMAIL_E_INTERNAL) << code;
}

TEST(WorkFileName, NameOf1025CharactersIsRefused) {
    char name[kWorkPathSize];
    // "<dir>/EMT<pid>-<tid>" with a directory long enough to pass 1024.
    const std::string dir(1024, 'd');
    EXPECT_EQ(make_work_file_name(name, dir.c_str(), "EMT"), -1);
    EXPECT_EQ(make_work_file_name(name, "/tmp", "EMT"), 0);
    EXPECT_EQ(std::string(name).rfind("/tmp/EMT", 0), 0u);
}

TEST(WorkFileName, AnOldFileOfTheSameNameIsDeleted) {
    TempDir dir;
    char name[kWorkPathSize];
    ASSERT_EQ(make_work_file_name(name, dir.path().c_str(), "EST"), 0);
    kemail_test::write_file(name, "stale");
    ASSERT_EQ(make_work_file_name(name, dir.path().c_str(), "EST"), 0);
    EXPECT_NE(access(name, F_OK), 0);
}

std::string staged(const char* text) {
    TempDir dir;
    WorkFile file;
    unsigned file_err = 99;
    EXPECT_EQ(stage_text(file, dir.path().c_str(), text, &file_err), 0);
    EXPECT_EQ(file_err, 0u);
    EXPECT_EQ(file.fd(), -1) << "staging closes the file";
    return kemail_test::read_file(file.c_path());
}

TEST(TextStaging, LineEndsBecomeCrLfAndAnExtraLineEndFollows) {
    EXPECT_EQ(staged("abc\n"), "abc\r\n\r\n");
    EXPECT_EQ(staged(nullptr), "\r\n");
    EXPECT_EQ(staged(""), "\r\n");
    EXPECT_EQ(staged("a\r\nb"), "a\r\nb\r\n");
    EXPECT_EQ(staged("\n\n"), "\r\n\r\n\r\n");
    EXPECT_EQ(staged("x\r\r\n"), "x\r\r\n\r\n") << "only one CR before the LF is dropped";
}

TEST(TextStaging, TheFileIsDeletedWithItsOwner) {
    TempDir dir;
    std::string path;
    {
        WorkFile file;
        unsigned file_err = 0;
        ASSERT_EQ(stage_text(file, dir.path().c_str(), "t", &file_err), 0);
        path = file.c_path();
        EXPECT_EQ(access(path.c_str(), F_OK), 0);
    }
    EXPECT_NE(access(path.c_str(), F_OK), 0);
}

TEST(TextStaging, UnusableDirectoryGivesMinus3AndTheErrorNumber) {
    WorkFile file;
    unsigned file_err = 0;
    EXPECT_EQ(stage_text(file, "/nonexistent-dir", "t", &file_err), -3);
    EXPECT_EQ(file_err, static_cast<unsigned>(ENOENT));
}

TEST(SizeEstimate, TextAndBase64OfEachAttachment) {
    TempDir dir;
    const std::string a = dir.file("a"), b = dir.file("b");
    kemail_test::write_file(a, std::string(30 * 1024, 'x'));
    kemail_test::write_file(b, "");
    std::string pa = a, pb = b;
    std::string text(1000, 't');
    MailContentInfo contents[] = {{2, 0, text.data()}, {3, 0, pa.data()}, {4, 0, pb.data()}};
    int attachment = 0;
    // 30,720 * 4 + 2 = 122,882 / 3 = 40,960; + 0 + 1000 + 2 -> 41,962 -> 41 KB.
    EXPECT_EQ(estimate_size(contents, 3, text.c_str(), &attachment), 41);
    EXPECT_EQ(attachment, 1);
    EXPECT_EQ(estimate_size(contents, 1, nullptr, &attachment), 1);
    EXPECT_EQ(attachment, 0);
    std::string missing = dir.file("missing");
    MailContentInfo bad[] = {{2, 0, nullptr}, {3, 0, missing.data()}};
    EXPECT_EQ(estimate_size(bad, 2, nullptr, &attachment), -8);
}

TEST(PieceBuffer, HoldsThePieceAndTheReadersSlack) {
    EXPECT_GE(piece_buffer_size(10), 10u * 1024 + 4100 + 1);
    EXPECT_GE(piece_buffer_size(100), 100u * 1024 + 4100 + 1);
}

}  // namespace
}  // namespace kemail
