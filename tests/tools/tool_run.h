// Runs a built command-line tool (<build>/tools/NAME) with arguments and
// collects its exit status, standard output and standard error apart.
#pragma once
#include <string>

namespace tools_test {

struct ToolResult {
    int status = -1;  // exit status, or -1 when the tool did not exit normally
    std::string out;
    std::string err;
};

// The tool beside the test program's directory: <build>/tools/NAME.
std::string tool_path(const std::string& name);

// Runs "TOOL ARGS" through the shell with stdin from INPUT (a file path, or
// /dev/null when empty). ARGS is shell text: quote paths yourself.
ToolResult run(const std::string& name, const std::string& args, const std::string& input = "");

// Single-quotes a text for the shell.
std::string quote(const std::string& text);

}  // namespace tools_test
