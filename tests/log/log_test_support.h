// Helpers for the trace and mail-log tests: the fixed directories of the
// private test root, the trace configuration file, raw trace-file bytes.
#pragma once

#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

namespace log_test {

// These tests write the library's fixed directories: refuse to run outside
// the private root that the test harness sets up over them.
inline const bool kInPrivateRoot = [] {
    if (std::getenv("KEMAIL_TEST_ROOT") == nullptr) {
        std::fprintf(stderr, "run these tests through tests/support/private-root.sh\n");
        std::exit(2);
    }
    return true;
}();

inline std::string trace_dir() { return kemail_test::var_dir() + "/tmp2"; }
inline std::string log_dir() { return kemail_test::var_dir() + "/log"; }
inline std::string conf_path() { return kemail_test::etc_dir() + "/trc_conf"; }

// Writes trc_conf for the life of the object.
class TraceConf {
public:
    explicit TraceConf(const std::string& text) { kemail_test::write_file(conf_path(), text); }
    ~TraceConf() { ::unlink(conf_path().c_str()); }
    TraceConf(const TraceConf&) = delete;
    TraceConf& operator=(const TraceConf&) = delete;
};

inline bool exists(const std::string& path) {
    struct stat status;
    return ::lstat(path.c_str(), &status) == 0;
}

inline long file_size(const std::string& path) {
    struct stat status;
    return ::stat(path.c_str(), &status) == 0 ? static_cast<long>(status.st_size) : -1;
}

using kemail_test::files_in;

// Empties a directory of the private root (files and empty directories).
inline void clear_dir(const std::string& dir) {
    for (const std::string& name : files_in(dir)) {
        const std::string path = dir + "/" + name;
        if (::unlink(path.c_str()) != 0) ::rmdir(path.c_str());
    }
}

inline void set_mtime(const std::string& path, long seconds) {
    struct timeval times[2] = {{seconds, 0}, {seconds, 0}};
    ASSERT_EQ(::utimes(path.c_str(), times), 0) << path;
}

inline uint32_t word_at(const std::string& bytes, size_t offset) {
    uint32_t word = 0;
    std::memcpy(&word, bytes.data() + offset, sizeof word);
    return word;
}

inline std::string word_bytes(uint32_t word) {
    return std::string(reinterpret_cast<const char*>(&word), sizeof word);
}

// Compares text with a pattern of the same length in which '#' stands for
// any decimal digit and every other character for itself.
inline bool matches(const std::string& text, const std::string& pattern) {
    if (text.size() != pattern.size()) return false;
    for (size_t i = 0; i < text.size(); ++i) {
        if (pattern[i] == '#' ? !(text[i] >= '0' && text[i] <= '9') : text[i] != pattern[i]) {
            return false;
        }
    }
    return true;
}

// A file of size bytes, all zero but for the write offset word.
inline void write_ring(const std::string& path, size_t size, uint32_t offset) {
    std::string bytes(size, '\0');
    std::memcpy(bytes.data(), &offset, sizeof offset);
    kemail_test::write_file(path, bytes);
}

}  // namespace log_test
