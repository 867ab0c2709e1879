#include "tool_run.h"

#include <cstdio>
#include <fstream>
#include <iterator>

#include <limits.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tools_test {

std::string tool_path(const std::string& name) {
    char self[PATH_MAX] = {};
    const ssize_t length = ::readlink("/proc/self/exe", self, sizeof self - 1);
    if (length <= 0) return name;
    std::string dir(self, static_cast<size_t>(length));
    dir = dir.substr(0, dir.rfind('/'));
    return dir + "/../tools/" + name;
}

std::string quote(const std::string& text) {
    std::string out = "'";
    for (char c : text) {
        if (c == '\'') {
            out += "'\\''";
        } else {
            out += c;
        }
    }
    out += "'";
    return out;
}

namespace {

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace

ToolResult run(const std::string& name, const std::string& args, const std::string& input) {
    ToolResult result;
    char err_path[] = "/tmp/kemail-tool-err.XXXXXX";
    const int fd = ::mkstemp(err_path);
    if (fd < 0) return result;
    ::close(fd);
    std::string command = quote(tool_path(name));
    command += ' ';
    command += args;
    command += " <";
    command += quote(input.empty() ? "/dev/null" : input);
    command += " 2>";
    command += quote(err_path);
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe) {
        char buffer[4096];
        size_t got;
        while ((got = std::fread(buffer, 1, sizeof buffer, pipe)) > 0)
            result.out.append(buffer, got);
        const int status = ::pclose(pipe);
        result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    result.err = slurp(err_path);
    ::unlink(err_path);
    return result;
}

}  // namespace tools_test
