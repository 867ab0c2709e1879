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

class UniqueDir {
public:
    explicit UniqueDir(DIR* dir) : dir_(dir) {}
    ~UniqueDir() {
        if (dir_) ::closedir(dir_);
    }
    UniqueDir(const UniqueDir&) = delete;
    UniqueDir& operator=(const UniqueDir&) = delete;
    DIR* get() const { return dir_; }
    explicit operator bool() const { return dir_ != nullptr; }

private:
    DIR* dir_;
};

// A stdio stream, closed with fclose (read-only streams: nothing is lost
// when the close fails).
class UniqueFile {
public:
    explicit UniqueFile(FILE* file) : file_(file) {}
    ~UniqueFile() {
        if (file_) std::fclose(file_);
    }
    UniqueFile(const UniqueFile&) = delete;
    UniqueFile& operator=(const UniqueFile&) = delete;
    FILE* get() const { return file_; }
    explicit operator bool() const { return file_ != nullptr; }

private:
    FILE* file_;
};

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
