// Helpers shared by the POP3 tests: a trace file whose record codes a test
// can read back, and the mail log of this process.
#pragma once

#include "kemail.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include <unistd.h>

namespace pop3_test {

// A level-2 trace file of its own for one test. codes() closes it and lists
// the code of every record in the order written.
class TraceCapture {
public:
    explicit TraceCapture(const std::string& name)
        : path_(kemail_test::var_dir() + "/tmp2/" + name + ".trc") {
        ::unlink(path_.c_str());
        handle_ = Topen(path_.c_str(), 512, 2);
    }
    ~TraceCapture() {
        close();
        ::unlink(path_.c_str());
    }
    TraceCapture(const TraceCapture&) = delete;
    TraceCapture& operator=(const TraceCapture&) = delete;

    TraceHandle* handle() const { return handle_; }

    void close() {
        if (handle_) Tclose(handle_);
        handle_ = nullptr;
    }

    // The codes of every record, in the order written. Closes the file.
    std::vector<std::string> codes() {
        std::vector<std::string> out;
        for (const auto& record : records()) out.push_back(record.first);
        return out;
    }

    // The data of every record with this code, in the order written (empty
    // for a record without data). Closes the file like codes().
    std::vector<std::string> data_of(const std::string& code) {
        std::vector<std::string> out;
        for (const auto& record : records())
            if (record.first == code) out.push_back(record.second);
        return out;
    }

private:
    // Every record as (code, data). Records are "SSSS", time, zero word, the
    // code, then "XXXX" and data or directly "EEEE". A fresh file of this
    // size never wraps in these tests.
    std::vector<std::pair<std::string, std::string>> records() {
        close();
        const std::string file = kemail_test::read_file(path_);
        std::vector<std::pair<std::string, std::string>> out;
        for (size_t at = file.find("SSSS", 4); at != std::string::npos;
             at = file.find("SSSS", at + 4)) {
            const size_t code_at = at + 12;
            if (code_at > file.size()) break;
            const size_t data = file.find("XXXX", code_at);
            const size_t end = file.find("EEEE", code_at);
            const size_t stop = std::min(data, end);
            if (stop == std::string::npos) break;
            out.emplace_back(file.substr(code_at, stop - code_at),
                             data < end ? file.substr(data + 4, end - data - 4) : std::string());
            // Skip the data block, which may hold "SSSS" by chance.
            if (end != std::string::npos) at = end;
        }
        return out;
    }

    std::string path_;
    TraceHandle* handle_ = nullptr;
};

inline int count_of(const std::vector<std::string>& codes, const std::string& code) {
    int n = 0;
    for (const auto& c : codes) n += c == code;
    return n;
}

// True when every code of `wanted` appears in `codes` in this order (others
// may come between).
inline bool in_order(const std::vector<std::string>& codes,
                     const std::vector<std::string>& wanted) {
    size_t next = 0;
    for (const auto& c : codes) {
        if (next < wanted.size() && c == wanted[next]) ++next;
    }
    return next == wanted.size();
}

// The mail log of this process (one file per process id).
inline std::string mail_log_path() {
    return kemail_test::var_dir() + "/log/kesmtp" + std::to_string(::getpid()) + ".log";
}

}  // namespace pop3_test
