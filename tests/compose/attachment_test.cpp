// Attachment body parts and the boundary.
#include "compose_support.h"

#include <random>
#include <sys/stat.h>
#include <thread>

namespace {

using compose_test::base64_of;
using compose_test::has_trace;
using compose_test::trace_codes;
using compose_test::trace_of;
using compose_test::word_of;

const char kBoundary[] = "---------------ZvLunt0000000042";

std::string part_header(const std::string& name, bool short_form = false) {
    return std::string("\r\n--") + kBoundary + "\r\n" +
           "Content-Type: application/octet-stream; name=\"" + name + "\"\r\n" +
           "Content-Transfer-Encoding: base64\r\n" +
           (short_form ? "Content-Disposition: \"" + name + "\"\r\n"
                       : "Content-Disposition: attachment;\r\n\tfilename=\"" + name + "\"\r\n") +
           "\r\n";
}

// The lines one read of 51 bytes each gives.
std::string base64_lines(const std::string& bytes) {
    std::string out;
    for (size_t at = 0; at < bytes.size(); at += 51)
        out += base64_of(bytes.substr(at, 51)) + "\r\n";
    return out;
}

std::string closing() { return std::string("--") + kBoundary + "--\r\n"; }

std::string random_bytes(size_t n, unsigned seed) {
    std::mt19937 random(seed);
    std::string bytes(n, '\0');
    for (auto& b : bytes) b = static_cast<char>(random() & 0xFF);
    return bytes;
}

class Attachment : public compose_test::ComposeTest {
protected:
    int append(const std::string& path, int more) {
        return SMTP_makeAppendData(fd_, path.c_str(), kBoundary, more, &err_);
    }
    unsigned int err_ = 12345;
};

TEST(Boundary, FixedWordAndTheTimeInTenDigits) {
    char boundary[KEMAIL_BOUNDARY_SIZE];
    std::memset(boundary, 'x', sizeof boundary);
    const time_t before = time(nullptr);
    SMTP_makeBoundary(boundary);
    const time_t after = time(nullptr);
    std::vector<std::string> m;
    ASSERT_TRUE(compose_test::matches(boundary, "-{15}ZvLunt([0-9]{10})", &m)) << boundary;
    const long stamp = std::stol(m[1]);
    EXPECT_GE(stamp, static_cast<long>(before));
    EXPECT_LE(stamp, static_cast<long>(after));
    EXPECT_EQ(std::strlen(boundary), 31u);
}

TEST_F(Attachment, FiftyTwoBytesGiveALineOf68AndALineOf4) {
    const std::string data = random_bytes(52, 1);
    const std::string path = write_input("report.bin", data);
    ASSERT_EQ(append(path, 0), 0);
    EXPECT_EQ(err_, 0u);
    const std::string body =
        base64_of(data.substr(0, 51)) + "\r\n" + base64_of(data.substr(51)) + "\r\n";
    EXPECT_EQ(message(), part_header("report.bin") + body + closing());
    const std::string text = message().substr(part_header("report.bin").size());
    EXPECT_EQ(text.find("\r\n"), 68u);
    EXPECT_EQ(text.substr(70, 6), text.substr(70, 2) + "==\r\n");
    EXPECT_EQ(trace_codes(),
              (std::vector<std::string>{"smtp0700", "smtp0717", "smtp0736", "smtp07FF"}));
    EXPECT_EQ(trace_of("smtp0717").level, 0u);
    EXPECT_EQ(trace_of("smtp0736").level, 0u);
    EXPECT_EQ(trace_of("smtp07FF").level, 1u);
}

TEST_F(Attachment, ShortDispositionFormWhenTheFlagIsOne) {
    Content_D_flg = 1;
    const std::string path = write_input("a.txt", "abc");
    ASSERT_EQ(append(path, 0), 0);
    EXPECT_EQ(message(), part_header("a.txt", true) + "YWJj\r\n" + closing());
    EXPECT_TRUE(has_trace("smtp0718"));
    EXPECT_FALSE(has_trace("smtp0717"));
}

TEST_F(Attachment, OtherFlagValuesUseTheStandardForm) {
    Content_D_flg = 2;
    const std::string path = write_input("a.txt", "abc");
    ASSERT_EQ(append(path, 0), 0);
    EXPECT_EQ(message(), part_header("a.txt") + "YWJj\r\n" + closing());
}

TEST_F(Attachment, EmptyFileGoesStraightToTheNextDelimiter) {
    const std::string path = write_input("empty", "");
    ASSERT_EQ(append(path, 1), 0);
    EXPECT_EQ(message(), part_header("empty"));
    ASSERT_EQ(append(path, 0), 0);
    EXPECT_EQ(message(), part_header("empty") + part_header("empty") + closing());
}

TEST_F(Attachment, MoreAttachmentsFollowWithoutClosingDelimiter) {
    const std::string a = write_input("a", "first");
    const std::string b = write_input("b", "second!");
    ASSERT_EQ(append(a, 1), 0);
    ASSERT_EQ(append(b, 0), 0);
    EXPECT_EQ(message(), part_header("a") + base64_lines("first") + part_header("b") +
                             base64_lines("second!") + closing());
}

TEST_F(Attachment, LargeFilesGiveTheSameLinesAs51ByteReads) {
    for (size_t size :
         {size_t{50}, size_t{51}, size_t{102}, size_t{51 * 2048 - 1}, size_t{51 * 2048},
          size_t{51 * 2048 + 1}, size_t{51 * 4096 + 7}, size_t{1000003}}) {
        reset_message();
        const std::string data = random_bytes(size, static_cast<unsigned>(size));
        const std::string path = write_input("big.bin", data);
        ASSERT_EQ(append(path, 0), 0) << size;
        ASSERT_EQ(message(), part_header("big.bin") + base64_lines(data) + closing()) << size;
    }
}

// A pipe returns what was written so far: every read gives its own line.
TEST_F(Attachment, ShortReadsFromAPipeGiveShortLines) {
    const std::string fifo = dir_.file("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    std::thread writer([&] {
        const int w = open(fifo.c_str(), O_WRONLY);
        if (w < 0) return;
        EXPECT_EQ(write(w, "0123456789012345678901234567890123456789", 40), 40);
        usleep(100 * 1000);
        EXPECT_EQ(write(w, "abcdefghijklmnopqrstuvwxyz", 26), 26);
        close(w);
    });
    const int result = append(fifo, 0);
    writer.join();
    ASSERT_EQ(result, 0);
    EXPECT_EQ(message(), part_header("fifo") +
                             base64_lines("0123456789012345678901234567890123456789") +
                             base64_lines("abcdefghijklmnopqrstuvwxyz") + closing());
}

TEST_F(Attachment, NameIsTheLastComponentAfterSlashOrColon) {
    const std::string sub = dir_.file("sub");
    ASSERT_EQ(mkdir(sub.c_str(), 0700), 0);
    kemail_test::write_file(sub + "/data.csv", "x");
    ASSERT_EQ(append(sub + "/data.csv", 1), 0);
    EXPECT_EQ(message().substr(0, part_header("data.csv").size()), part_header("data.csv"));

    reset_message();
    kemail_test::write_file(sub + "/drive:file.log", "x");
    ASSERT_EQ(append(sub + "/drive:file.log", 1), 0);
    EXPECT_EQ(message().substr(0, part_header("file.log").size()), part_header("file.log"));

    reset_message();
    kemail_test::write_file(sub + "/back\\slash.txt", "x");
    ASSERT_EQ(append(sub + "/back\\slash.txt", 1), 0);
    EXPECT_EQ(message().substr(0, part_header("back\\slash.txt").size()),
              part_header("back\\slash.txt"));
}

TEST_F(Attachment, PathWithoutSeparatorIsTheName) {
    write_input("plain.txt", "hello");
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    ASSERT_EQ(chdir(dir_.path().c_str()), 0);
    const int result = append("plain.txt", 0);
    ASSERT_EQ(chdir(cwd), 0);
    ASSERT_EQ(result, 0);
    EXPECT_EQ(message(), part_header("plain.txt") + base64_lines("hello") + closing());
}

// Kept: an absolute path of one component is named with its leading slash.
TEST_F(Attachment, SingleComponentKeepsItsSlash) {
    EXPECT_EQ(append("/kemail-no-such-attachment", 0), -31);
    EXPECT_EQ(message(), part_header("/kemail-no-such-attachment"));
}

TEST_F(Attachment, MissingFileIsMinus31AfterThePartHeader) {
    EXPECT_EQ(append(dir_.file("missing.bin"), 0), -31);
    EXPECT_EQ(err_, static_cast<unsigned>(ENOENT));
    EXPECT_EQ(message(), part_header("missing.bin"));
    EXPECT_EQ(word_of(trace_of("smtp0730")), static_cast<uint32_t>(ENOENT));
    EXPECT_EQ(trace_of("smtp0730").level, 0u);
    EXPECT_FALSE(has_trace("smtp07FF"));
}

TEST_F(Attachment, DirectoryCannotBeReadMinus32) {
    const std::string sub = dir_.file("adir");
    ASSERT_EQ(mkdir(sub.c_str(), 0700), 0);
    EXPECT_EQ(append(sub, 0), -32);
    EXPECT_EQ(err_, static_cast<unsigned>(EISDIR));
    EXPECT_EQ(word_of(trace_of("smtp0735")), static_cast<uint32_t>(EISDIR));
    EXPECT_EQ(message(), part_header("adir"));
}

// A trailing slash leaves an empty name; the directory then cannot be read.
TEST_F(Attachment, TrailingSlashGivesAnEmptyName) {
    const std::string sub = dir_.file("bdir");
    ASSERT_EQ(mkdir(sub.c_str(), 0700), 0);
    EXPECT_EQ(append(sub + "/", 0), -32);
    EXPECT_EQ(message(), part_header(""));
}

TEST_F(Attachment, OverlongNameIsCutTo1059Bytes) {
    const std::string name(3000, 'n');
    EXPECT_EQ(append(dir_.file(name), 0), -31);
    EXPECT_EQ(err_, static_cast<unsigned>(ENAMETOOLONG));
    EXPECT_EQ(message(), part_header(name.substr(0, 1059)));
}

TEST_F(Attachment, NullBoundaryAndPathAreEmptyTexts) {
    EXPECT_EQ(SMTP_makeAppendData(fd_, nullptr, nullptr, 1, &err_), -31);
    EXPECT_EQ(message().substr(0, 8), "\r\n--\r\nCo");
}

// Every write of the part: a failure stops there with -33, its own trace
// code and the errno.
TEST_F(Attachment, EachFailedWriteHasItsTraceCode) {
    const std::string data = random_bytes(120, 5);
    const std::string path = write_input("f.bin", data);
    const std::string header = part_header("f.bin");
    const std::string full = header + base64_lines(data) + closing();
    const size_t delimiter_end = 2 + 2 + std::strlen(kBoundary) + 2;
    const size_t type_end = full.find("Content-Transfer");
    const size_t encoding_end = full.find("Content-Disposition");
    const size_t disposition_end = header.size() - 2;
    struct Case {
        size_t limit;
        const char* code;
    } cases[] = {{0, "smtp0705"},
                 {delimiter_end, "smtp0710"},
                 {type_end, "smtp0715"},
                 {encoding_end, "smtp0720"},
                 {disposition_end, "smtp0725"},
                 {header.size(), "smtp0740"},
                 {header.size() + 70, "smtp0740"},
                 {full.size() - closing().size(), "smtp0745"},
                 {full.size() - 1, "smtp0745"}};
    for (const Case& c : cases) {
        reset_message();
        compose_test::clear_traces();
        err_ = 0;
        int result;
        {
            compose_test::FileSizeLimit limit(c.limit);
            result = append(path, 0);
        }
        EXPECT_EQ(result, -33) << c.code;
        EXPECT_EQ(err_, static_cast<unsigned>(EFBIG)) << c.code;
        ASSERT_TRUE(has_trace(c.code)) << c.limit;
        EXPECT_EQ(word_of(trace_of(c.code)), static_cast<uint32_t>(EFBIG));
        EXPECT_EQ(trace_of(c.code).level, 0u);
        EXPECT_FALSE(has_trace("smtp07FF"));
        EXPECT_EQ(message(), full.substr(0, c.limit)) << c.code;
    }
}

TEST_F(Attachment, FailedWriteInTheMiddleOfALargeFile) {
    const std::string data = random_bytes(500000, 9);
    const std::string path = write_input("large.bin", data);
    const std::string full = part_header("large.bin") + base64_lines(data) + closing();
    int result;
    {
        compose_test::FileSizeLimit limit(300001);
        result = append(path, 0);
    }
    EXPECT_EQ(result, -33);
    EXPECT_EQ(word_of(trace_of("smtp0740")), static_cast<uint32_t>(EFBIG));
    EXPECT_EQ(message(), full.substr(0, 300001));
}

TEST_F(Attachment, MessageFileNotWritableFailsAtTheFirstLine) {
    const std::string path = write_input("x", "x");
    const int read_only = open(message_path_.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(read_only, 0);
    EXPECT_EQ(SMTP_makeAppendData(read_only, path.c_str(), kBoundary, 0, &err_), -33);
    close(read_only);
    EXPECT_EQ(err_, static_cast<unsigned>(EBADF));
    EXPECT_EQ(word_of(trace_of("smtp0705")), static_cast<uint32_t>(EBADF));
}

}  // namespace
