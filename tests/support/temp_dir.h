// A temporary directory removed with everything in it when the test ends.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace kemail_test {

class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// Whole-file helpers for test data.
std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& bytes);

// The names in a directory, sorted, without "." and ".."; none when it
// cannot be read.
std::vector<std::string> files_in(const std::string& dir);
// Descriptors open in this process (the listing's own one included, so two
// counts compare equal).
size_t open_descriptors();

// The library's fixed directories as the private test root shows them.
std::string etc_dir();  // /etc/opt/QRZNvolta
std::string var_dir();  // /var/opt/QRZNvolta

}  // namespace kemail_test
