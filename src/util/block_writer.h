// Writing a file in blocks: pieces of text (header lines, body lines, log
// line parts) are gathered in a buffer and reach the file in one write per
// block rather than one per piece, with the same bytes in the same order.
//
// Each piece carries a tag (a trace code, a pair of codes ...). When a write
// fails, the tag of the first piece whose bytes did not all reach the file
// names the failure, just as that piece's own write would have failed had it
// been written alone; the error word receives the errno of the write that
// could not proceed (EFBIG, ENOSPC ...), as write_all gives it. A short write
// goes on with the rest; EINTR is retried.
//
// Nothing is written after a failure: every later put and flush returns
// false at once. The owner flushes before anything reads the file back,
// before it reports a failure of its own that came after the pieces already
// given (so that a failed write is reported first, as it happened first), and
// at the end of its work; a writer that goes out of scope unflushed drops
// what it holds.
#pragma once

#include "util/util.h"

#include <cerrno>
#include <cstddef>
#include <cstring>

#include <sys/uio.h>
#include <unistd.h>

namespace kemail {

template <typename Tag, size_t Capacity = 8192, size_t MaxPieces = 128>
class BlockWriter {
public:
    BlockWriter(int fd, unsigned int* error) : fd_(fd), error_(error) {}
    BlockWriter(const BlockWriter&) = delete;
    BlockWriter& operator=(const BlockWriter&) = delete;

    // Queues length bytes. A piece larger than the room left goes out at
    // once, in one write together with what is queued. False when a write
    // failed (now or earlier); failed_tag() then names the piece.
    bool put(const void* data, size_t length, Tag tag) {
        if (failed_) return false;
        if (length == 0) return true;
        if (length > Capacity - used_ || pieces_ == MaxPieces) {
            if (length <= Capacity) {
                if (!flush()) return false;
            } else {
                return write_out(data, length, tag);
            }
        }
        std::memcpy(buffer_ + used_, data, length);
        used_ += length;
        ends_[pieces_] = used_;
        tags_[pieces_] = tag;
        ++pieces_;
        return true;
    }

    // Writes what is queued. False when a write failed (now or earlier).
    bool flush() {
        if (failed_) return false;
        if (used_ == 0) return true;
        return write_out(nullptr, 0, Tag{});
    }

    bool failed() const { return failed_; }
    Tag failed_tag() const { return failed_tag_; }

private:
    // Writes the queue and then extra (length extra_length, tag extra_tag).
    bool write_out(const void* extra, size_t extra_length, Tag extra_tag) {
        iovec parts[2];
        int count = 0;
        if (used_ > 0) parts[count++] = {buffer_, used_};
        if (extra_length > 0) parts[count++] = {const_cast<void*>(extra), extra_length};
        const size_t total = used_ + extra_length;
        size_t done = 0;
        while (done < total) {
            errno = 0;
            const ssize_t n = retry_on_eintr([&] {
                return count == 1 ? ::write(fd_, parts[0].iov_base, parts[0].iov_len)
                                  : ::writev(fd_, parts, count);
            });
            if (n <= 0) {
                if (error_) *error_ = static_cast<unsigned int>(errno);
                failed_ = true;
                failed_tag_ = extra_tag;
                for (size_t i = 0; i < pieces_; ++i) {
                    if (ends_[i] > done) {
                        failed_tag_ = tags_[i];
                        break;
                    }
                }
                return false;
            }
            done += static_cast<size_t>(n);
            advance(parts, count, static_cast<size_t>(n));
        }
        used_ = 0;
        pieces_ = 0;
        return true;
    }

    // Drops the first n bytes from the parts after a short write.
    static void advance(iovec* parts, int& count, size_t n) {
        while (count > 0 && n >= parts[0].iov_len) {
            n -= parts[0].iov_len;
            if (count == 2) parts[0] = parts[1];
            --count;
        }
        if (count > 0) {
            parts[0].iov_base = static_cast<char*>(parts[0].iov_base) + n;
            parts[0].iov_len -= n;
        }
    }

    int fd_;
    unsigned int* error_;
    char buffer_[Capacity];
    size_t used_ = 0;
    // The end offset in buffer_ and the tag of each queued piece.
    size_t ends_[MaxPieces];
    Tag tags_[MaxPieces];
    size_t pieces_ = 0;
    bool failed_ = false;
    Tag failed_tag_{};
};

}  // namespace kemail
