// Whole composed messages against golden files (Date, Message-Id and boundary
// masked): any other byte that changes shows up as a difference. Run with
// KEMAIL_UPDATE_GOLDEN=1 to rewrite the files after an intended change.
#include "compose_support.h"

#include <cstdlib>

namespace {

using compose_test::mask_message;
using compose_test::sjis;

std::string pattern_bytes(size_t n) {
    std::string bytes(n, '\0');
    for (size_t i = 0; i < n; ++i) bytes[i] = static_cast<char>((i * 7 + 3) & 0xFF);
    return bytes;
}

class Golden : public compose_test::ComposeTest {
protected:
    void expect_golden(const std::string& name) {
        const std::string path = std::string(KEMAIL_SOURCE_DIR) + "/tests/compose/golden/" + name;
        const std::string actual = mask_message(message());
        if (const char* update = std::getenv("KEMAIL_UPDATE_GOLDEN"); update && *update == '1') {
            kemail_test::write_file(path, actual);
        }
        EXPECT_EQ(actual, kemail_test::read_file(path)) << name;
    }
    unsigned int err_ = 0;
    char boundary_[KEMAIL_BOUNDARY_SIZE] = {};
};

TEST_F(Golden, AsciiSinglePart) {
    const std::string body =
        write_input("body.txt", "Hello,\r\n.dot line\r\n\r\nA line\twith tab.\r\nlast");
    ASSERT_EQ(
        SMTP_makeTopData(fd_, body.c_str(), "agent@example.com", "a@example.com, b@example.com",
                         "Disk alert on host1", boundary_, 0, 0, &err_),
        0);
    expect_golden("ascii_single.eml");
}

TEST_F(Golden, JapaneseMultipart) {
    const std::string subject = sjis("【警告】ディスク使用率が閾値を超えました host1");
    const std::string body = write_input(
        "body.txt",
        sjis("各位\r\n\r\nディスク使用率が９５％を超えました。\r\nﾎｽﾄ: host1\r\n.以上\r\n"));
    const std::string first = write_input("report.bin", pattern_bytes(52));
    const std::string second = write_input("empty.log", "");
    ASSERT_EQ(
        SMTP_makeTopData(fd_, body.c_str(), "agent@example.com", "ops@example.com,dev@example.com",
                         subject.c_str(), boundary_, 1, 0, &err_),
        0);
    ASSERT_EQ(SMTP_makeAppendData(fd_, first.c_str(), boundary_, 1, &err_), 0);
    ASSERT_EQ(SMTP_makeAppendData(fd_, second.c_str(), boundary_, 0, &err_), 0);
    expect_golden("japanese_multipart.eml");
}

TEST_F(Golden, PartialInnerMessageWithShortDisposition) {
    Content_D_flg = 1;
    const std::string body = write_input("body.txt", "See the attachment.\r\n");
    const std::string data = write_input("data.csv", pattern_bytes(200));
    ASSERT_EQ(SMTP_makeTopData(fd_, body.c_str(), "agent@example.com", "ops@example.com",
                               "Weekly data", boundary_, 1, 1, &err_),
              0);
    ASSERT_EQ(SMTP_makeAppendData(fd_, data.c_str(), boundary_, 0, &err_), 0);
    expect_golden("partial_inner.eml");
}

}  // namespace
