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
// file that cannot seek is read one byte per call. The reader must be gone
// before the descriptor is closed.
template <size_t BlockSize>
class ByteReader {
public:
    explicit ByteReader(int fd) : fd_(fd), seekable_(::lseek(fd, 0, SEEK_CUR) >= 0) {}
    ~ByteReader() {
        // A failed give-back leaves the offset after the block; the next
        // reader of this file then misses those bytes and its caller sees a
        // short piece rather than wrong bytes. Nothing more can be done here.
        if (pos_ < len_) (void)::lseek(fd_, -static_cast<off_t>(len_ - pos_), SEEK_CUR);
    }
    ByteReader(const ByteReader&) = delete;
    ByteReader& operator=(const ByteReader&) = delete;

    // One byte: 1, 0 at the end of the file, -1 on an error (errno set).
    ssize_t next(char* dst) {
        if (pos_ == len_) {
            const ssize_t n = fill();
            if (n <= 0) return n;
        }
        *dst = block_[pos_++];
        return 1;
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
    bool seekable_;
    size_t pos_ = 0;
    size_t len_ = 0;
    char block_[BlockSize];
};

}  // namespace kemail
