// How often this process maps a file, from /proc/self/maps (a file deleted
// since is listed with " (deleted)" after its path).
#pragma once

#include <fstream>
#include <string>

namespace log_test {

inline int mappings_of(const std::string& path) {
    std::ifstream maps("/proc/self/maps");
    int count = 0;
    for (std::string line; std::getline(maps, line);) {
        const size_t at = line.find(path);
        if (at != std::string::npos && (at + path.size() == line.size() ||
                                        line.compare(at + path.size(), 10, " (deleted)") == 0))
            ++count;
    }
    return count;
}

}  // namespace log_test
