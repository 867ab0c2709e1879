// The piece cutter of split sends on arbitrary message files and
// boundaries: SMTP_getSendData over a seekable file (memfd) or a pipe, and
// SMTP_getline over the file's bytes. The pieces must stay inside the
// buffer, be NUL-terminated, and together give back the file exactly: no
// byte lost, none sent twice.
#include "kemail.h"

#include "fuzz_support.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

#include <sys/mman.h>
#include <unistd.h>

namespace {

// A file holding `bytes`, read from its start: a memfd, or a pipe whose
// writer has written everything and closed.
class MessageFile {
public:
    MessageFile(const std::string& bytes, bool as_pipe) {
        int write_fd;
        if (as_pipe) {
            int fds[2];
            FUZZ_CHECK(pipe2(fds, O_CLOEXEC) == 0);
            fd_ = fds[0];
            write_fd = fds[1];
        } else {
            fd_ = memfd_create("kemail-fuzz-message", MFD_CLOEXEC);
            FUZZ_CHECK(fd_ >= 0);
            write_fd = fd_;
        }
        FUZZ_CHECK(write(write_fd, bytes.data(), bytes.size()) ==
                   static_cast<ssize_t>(bytes.size()));
        if (as_pipe) {
            FUZZ_CHECK(close(write_fd) == 0);
        } else {
            FUZZ_CHECK(lseek(fd_, 0, SEEK_SET) == 0);
        }
    }
    ~MessageFile() { close(fd_); }
    MessageFile(const MessageFile&) = delete;
    MessageFile& operator=(const MessageFile&) = delete;
    int fd() const { return fd_; }

private:
    int fd_ = -1;
};

void check_getline(const std::string& file, size_t seed) {
    if (file.empty()) return;
    const int line_size = 2 + static_cast<int>(seed % 64);
    std::unique_ptr<char[]> line(new char[static_cast<size_t>(line_size)]);
    int end = 1 + static_cast<int>(seed % file.size());
    for (int steps = 0; steps < 64 && end > 0; ++steps) {
        const int start = SMTP_getline(file.data(), end, line.get(), line_size);
        FUZZ_CHECK(start >= 0 && start < end);
        const size_t length = static_cast<size_t>(end - start);
        FUZZ_CHECK(length <= static_cast<size_t>(line_size - 1));
        FUZZ_CHECK(std::memcmp(line.get(), file.data() + start, length) == 0 &&
                   line[length] == '\0');
        if (start > 1 && static_cast<int>(length) < line_size - 1) {
            FUZZ_CHECK(file[start - 2] == '\r' && file[start - 1] == '\n');
        }
        if (start <= 1) break;
        end = start;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2 || size > fuzz::kMaxStream) return 0;
    // Byte 0: piece size (2 to 5 KiB) and file kind; then the boundary up to
    // the first LF (at most 70 bytes, as RFC 2046 allows); the rest is the file.
    const int size_kb = 2 + (data[0] & 3);
    const bool as_pipe = (data[0] & 4) != 0;
    const std::string input(reinterpret_cast<const char*>(data + 1), size - 1);
    const size_t lf = input.find('\n');
    if (lf == std::string::npos || lf > 70) return 0;
    const std::string boundary(input.c_str(), strnlen(input.c_str(), lf));
    const std::string file = input.substr(lf + 1);

    check_getline(file, data[0] + file.size());

    MessageFile message(file, as_pipe);
    const size_t capacity = static_cast<size_t>(size_kb) * 1024;
    std::unique_ptr<char[]> piece(new char[capacity]);
    std::string joined;
    for (size_t pieces = 0;; ++pieces) {
        FUZZ_CHECK(pieces <= file.size() + 1);
        unsigned int err = 1234;
        const int n = SMTP_getSendData(message.fd(), piece.get(), size_kb, boundary.c_str(), &err);
        FUZZ_CHECK(n >= 0);
        if (n == 0) break;
        FUZZ_CHECK(static_cast<size_t>(n) < capacity);
        FUZZ_CHECK(piece[n] == '\0');
        joined.append(piece.get(), static_cast<size_t>(n));
        FUZZ_CHECK(joined.size() <= file.size());
    }
    FUZZ_CHECK(joined == file);
    return 0;
}
