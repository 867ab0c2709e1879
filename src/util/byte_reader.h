// Reading a file one byte at a time, as line rules that look at every byte
// need, without one system call per byte.
#pragma once

#include <cerrno>
#include <cstddef>

#include <sys/types.h>
#include <unistd.h>

namespace kemail {

// Hands out a file's bytes one at a time, as if each were read on its own,
// but fetches them in blocks of BlockSize bytes: what was fetched beyond the
// last byte handed out is given back with lseek when the reader is done, so
// the file offset ends exactly where byte-by-byte reading would leave it. A
// file that cannot seek (ESPIPE) is read one byte per call; any other failure
// of the seekability probe makes every read fail with its errno. The give-back
// must be asked for (give_back) on every path that goes on reading the file:
// a failed one leaves the offset past bytes that were never handed out. The
// reader must be gone before the descriptor is closed.
template <size_t BlockSize>
class ByteReader {
public:
    explicit ByteReader(int fd) : fd_(fd) {
        if (::lseek(fd, 0, SEEK_CUR) < 0) {
            seekable_ = false;
            if (errno != ESPIPE) probe_error_ = errno;
        }
    }
    // Best effort only: the paths that go on with the file use give_back.
    ~ByteReader() { (void)give_back(); }
    ByteReader(const ByteReader&) = delete;
    ByteReader& operator=(const ByteReader&) = delete;

    // One byte: 1, 0 at the end of the file, -1 on an error (errno set).
    ssize_t next(char* dst) {
        if (probe_error_ != 0) {
            errno = probe_error_;
            return -1;
        }
        if (pos_ == len_) {
            const ssize_t n = fill();
            if (n <= 0) return n;
        }
        *dst = block_[pos_++];
        return 1;
    }

    // Returns the read-ahead to the file: 0, or -1 with errno set.
    int give_back() {
        if (pos_ >= len_) return 0;
        const off_t back = -static_cast<off_t>(len_ - pos_);
        pos_ = len_ = 0;
        return ::lseek(fd_, back, SEEK_CUR) < 0 ? -1 : 0;
    }

private:
    ssize_t fill() {
        pos_ = len_ = 0;
        const size_t want = seekable_ ? sizeof block_ : 1;
        for (;;) {
            const ssize_t n = ::read(fd_, block_, want);
            if (n >= 0 || errno != EINTR) {
                if (n > 0) len_ = static_cast<size_t>(n);
                return n;
            }
        }
    }

    int fd_;
    bool seekable_ = true;
    int probe_error_ = 0;
    size_t pos_ = 0;
    size_t len_ = 0;
    char block_[BlockSize];
};

}  // namespace kemail
