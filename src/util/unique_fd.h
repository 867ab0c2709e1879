// Owning wrappers that release descriptors, directory streams, stdio
// streams and heap blocks on every exit path.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <utility>

#include <dirent.h>
#include <unistd.h>

namespace kemail {

class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    ~UniqueFd() { reset(); }
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    // Closes the descriptor now; returns close's result (0 when none was open).
    int reset(int fd = -1) {
        int result = 0;
        if (fd_ >= 0) result = ::close(fd_);
        fd_ = fd;
        return result;
    }

private:
    int fd_ = -1;
};

// A handle of a C library stream type released by its close function
// (closedir, fclose). Directory and read-only streams only: nothing is lost
// when the close fails, so its result is not needed.
template <typename Handle, int (*Close)(Handle*)>
class UniqueHandle {
public:
    explicit UniqueHandle(Handle* handle) : handle_(handle) {}
    ~UniqueHandle() {
        if (handle_) Close(handle_);
    }
    UniqueHandle(const UniqueHandle&) = delete;
    UniqueHandle& operator=(const UniqueHandle&) = delete;
    Handle* get() const { return handle_; }
    explicit operator bool() const { return handle_ != nullptr; }

private:
    Handle* handle_;
};

using UniqueDir = UniqueHandle<DIR, ::closedir>;
using UniqueFile = UniqueHandle<FILE, ::fclose>;

// A malloc'ed block (allocation failures stay visible as a null pointer).
template <typename T>
class UniqueMalloc {
public:
    explicit UniqueMalloc(T* block = nullptr) : block_(block) {}
    ~UniqueMalloc() { std::free(block_); }
    UniqueMalloc(const UniqueMalloc&) = delete;
    UniqueMalloc& operator=(const UniqueMalloc&) = delete;
    T* get() const { return block_; }
    T* release() { return std::exchange(block_, nullptr); }
    void reset(T* block = nullptr) {
        std::free(block_);
        block_ = block;
    }
    explicit operator bool() const { return block_ != nullptr; }

private:
    T* block_;
};

}  // namespace kemail
