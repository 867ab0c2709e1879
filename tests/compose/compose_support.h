// Shared pieces of the composition tests: a fixture with a temporary
// directory and a message file, Shift_JIS test text made with iconv, the
// masking of clock-dependent header values, and a file-size limit that makes
// writes fail at a chosen offset.
#pragma once

#include "kemail.h"
#include "support/temp_dir.h"
#include "posix_match.h"
#include "trace_spy.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <iconv.h>
#include <string>
#include <sys/resource.h>
#include <unistd.h>

namespace compose_test {

// Converts text between encodings with the platform's iconv (test data only).
inline std::string convert(const std::string& text, const char* to, const char* from) {
    iconv_t cd = iconv_open(to, from);
    if (cd == reinterpret_cast<iconv_t>(-1)) {
        ADD_FAILURE() << "iconv_open " << to << " " << from;
        return {};
    }
    std::string out(text.size() * 4 + 16, '\0');
    char* in = const_cast<char*>(text.data());
    size_t in_left = text.size();
    char* o = out.data();
    size_t out_left = out.size();
    if (iconv(cd, &in, &in_left, &o, &out_left) == static_cast<size_t>(-1)) {
        ADD_FAILURE() << "iconv failed for " << text;
    }
    iconv(cd, nullptr, nullptr, &o, &out_left);  // closing shift sequence
    iconv_close(cd);
    out.resize(out.size() - out_left);
    return out;
}

inline std::string sjis(const std::string& utf8) { return convert(utf8, "SJIS", "UTF-8"); }
inline std::string from_iso2022(const std::string& jis) {
    return convert(jis, "UTF-8", "ISO-2022-JP");
}

inline std::string base64_of(const std::string& bytes) {
    std::string in = bytes + std::string(3, '\0');
    std::string out(bytes.size() * 2 + 8, '\0');
    const int n = SMTP_toBase64(reinterpret_cast<unsigned char*>(in.data()), out.data(),
                                static_cast<int>(bytes.size()));
    out.resize(static_cast<size_t>(n));
    return out;
}

// Replaces the clock- and host-dependent values so that a composed message
// can be compared with a golden file byte for byte.
inline std::string mask_message(std::string message) {
    message = replace_all(message, "Date: [^\r]*\r\n", "Date: <DATE>\r\n");
    message = replace_all(message, "Message-Id: <[^>\r]*>\r\n", "Message-Id: <MSGID>\r\n");
    message = replace_all(message, "---------------ZvLunt[0-9]{10}", "<BOUNDARY>");
    return message;
}

// Lets writes to regular files fail from the given offset on (EFBIG) while
// it lives; SIGXFSZ is ignored so that the write returns instead.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) {
        old_handler_ = std::signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &old_);
        struct rlimit limit = old_;
        limit.rlim_cur = bytes;
        EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    }
    ~FileSizeLimit() {
        setrlimit(RLIMIT_FSIZE, &old_);
        std::signal(SIGXFSZ, old_handler_);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    struct rlimit old_ = {};
    void (*old_handler_)(int) = nullptr;
};

class ComposeTest : public ::testing::Test {
protected:
    void SetUp() override {
        clear_traces();
        Content_D_flg = 0;
        message_path_ = dir_.file("message");
        fd_ = open(message_path_.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        ASSERT_GE(fd_, 0);
    }
    void TearDown() override {
        if (fd_ >= 0) close(fd_);
        Content_D_flg = 0;
    }

    // Empties the message file and puts its offset back at 0.
    void reset_message() {
        ASSERT_EQ(ftruncate(fd_, 0), 0);
        ASSERT_EQ(lseek(fd_, 0, SEEK_SET), 0);
    }
    std::string message() const { return kemail_test::read_file(message_path_); }
    std::string write_input(const std::string& name, const std::string& bytes) const {
        const std::string path = dir_.file(name);
        kemail_test::write_file(path, bytes);
        return path;
    }

    kemail_test::TempDir dir_;
    std::string message_path_;
    int fd_ = -1;
};

}  // namespace compose_test
