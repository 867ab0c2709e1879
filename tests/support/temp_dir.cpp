#include "support/temp_dir.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include <dirent.h>
#include <unistd.h>

namespace kemail_test {

TempDir::TempDir() {
    char pattern[] = "/tmp/kemail-test.XXXXXX";
    if (!mkdtemp(pattern)) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
}

TempDir::~TempDir() {
    const std::string command = "rm -rf '" + path_ + "'";
    if (std::system(command.c_str()) != 0) {
        // Leaving a directory behind in /tmp is harmless; never throw here.
    }
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
}

void write_file(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out) throw std::runtime_error("cannot write " + path);
}

std::vector<std::string> files_in(const std::string& dir) {
    std::vector<std::string> names;
    if (DIR* stream = ::opendir(dir.c_str())) {
        while (const dirent* entry = ::readdir(stream)) {
            const std::string name = entry->d_name;
            if (name != "." && name != "..") names.push_back(name);
        }
        ::closedir(stream);
    }
    std::sort(names.begin(), names.end());
    return names;
}

size_t open_descriptors() { return files_in("/proc/self/fd").size(); }

std::string etc_dir() { return "/etc/opt/QRZNvolta"; }
std::string var_dir() { return "/var/opt/QRZNvolta"; }

}  // namespace kemail_test
