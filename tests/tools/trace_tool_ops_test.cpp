// kemail-trace for the operator: decoded words, filters, several files,
// JSON, the summary, and files that are not traces.
#include "support/temp_dir.h"
#include "tool_run.h"

#include "kemail.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <string>

namespace {

using kemail_test::TempDir;
using kemail_test::write_file;
using tools_test::quote;
using tools_test::ToolResult;

bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

ToolResult trace(const std::string& args) { return tools_test::run("kemail-trace", args); }

size_t count_lines(const std::string& text) {
    size_t n = 0;
    for (char c : text) n += c == '\n';
    return n;
}

class TraceOps : public ::testing::Test {
protected:
    // A ring like the one of a send that failed to connect.
    std::string failed_send(const std::string& name) {
        const std::string path = dir_.file(name);
        TraceHandle* handle = Topen(path.c_str(), 8, 2);
        EXPECT_NE(handle, nullptr);
        Twrite(handle, 1, "SNDEMAIL0000", nullptr, 0);
        Twrite(handle, 2, "smtp0110", "220 mail ESMTP\r\n", 16);
        const uint32_t refused = ECONNREFUSED;
        Twrite(handle, 0, "smtp0040", &refused, sizeof refused);
        Twrite(handle, 0, "smtp0050", &refused, sizeof refused);
        const int32_t result = KEMAIL_E_UNREACHABLE;
        Twrite(handle, 1, "ACERTFFFF", &result, sizeof result);
        EXPECT_EQ(Tclose(handle), 0);
        return path;
    }
    TempDir dir_;
};

// smtp0050 is written twice over: at level 1 with the connected socket, and
// at level 0 with the errno of the connect that failed for good. Only the
// second follows a failed attempt (smtp0040).
TEST_F(TraceOps, AConnectedSocketIsNotReadAsAnErrno) {
    const std::string path = dir_.file("connected.trc");
    TraceHandle* handle = Topen(path.c_str(), 8, 2);
    ASSERT_NE(handle, nullptr);
    Twrite(handle, 1, "smtp0000", "127.0.0.1", 9);
    const uint32_t socket = 6;
    Twrite(handle, 1, "smtp0050", &socket, sizeof socket);
    const int32_t result = KEMAIL_OK;
    Twrite(handle, 1, "ACERTFFFF", &result, sizeof result);
    ASSERT_EQ(Tclose(handle), 0);

    ToolResult run = trace(quote(path));
    EXPECT_TRUE(has(run.out, "smtp0050 06 00 00 00  |....| = socket 6\n")) << run.out;
    EXPECT_FALSE(has(run.out, "ENXIO")) << run.out;
    run = trace("--failures " + quote(path));
    EXPECT_FALSE(has(run.out, "smtp0050")) << run.out;
    run = trace("--failures " + quote(failed_send("failed.trc")));
    EXPECT_TRUE(has(run.out, "smtp0050 6f 00 00 00  |o...| = errno 111 ECONNREFUSED")) << run.out;
}

TEST_F(TraceOps, ErrnoWordsAndResultsAreDecoded) {
    const ToolResult run = trace(quote(failed_send("a.trc")));
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_TRUE(has(run.out,
                    "smtp0040 6f 00 00 00  |o...| = errno 111 ECONNREFUSED (Connection refused)\n"))
        << run.out;
    EXPECT_TRUE(has(run.out, "ACERTFFFF f6 ff ff ff  |....| = result -10 KEMAIL_E_UNREACHABLE\n"))
        << run.out;
    // A record without a known layout keeps its plain columns.
    EXPECT_TRUE(has(run.out, "SNDEMAIL0000\n")) << run.out;
}

TEST_F(TraceOps, FailuresGrepAndTail) {
    const std::string path = quote(failed_send("a.trc"));
    ToolResult run = trace("--failures " + path);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(count_lines(run.out), 3u) << run.out;  // smtp0040, smtp0050, ACERTFFFF -10
    EXPECT_FALSE(has(run.out, "SNDEMAIL0000")) << run.out;

    run = trace("--grep SMTP00 " + path);
    EXPECT_EQ(count_lines(run.out), 2u) << run.out;

    run = trace("--tail 1 " + path);
    EXPECT_EQ(count_lines(run.out), 1u) << run.out;
    EXPECT_TRUE(has(run.out, "ACERTFFFF")) << run.out;

    run = trace("--since @4000000000 " + path);  // the year 2096
    EXPECT_EQ(run.status, 0);
    EXPECT_TRUE(run.out.empty()) << run.out;
    EXPECT_TRUE(has(run.err, "no record matches")) << run.err;

    EXPECT_EQ(trace("--tail x " + path).status, 2);
    EXPECT_EQ(trace("--since yesterday " + path).status, 2);
}

TEST_F(TraceOps, SummaryNamesResultFailureAndLastReply) {
    const ToolResult run = trace("--summary " + quote(failed_send("a.trc")));
    EXPECT_EQ(run.status, 0);
    EXPECT_TRUE(has(run.out, "result:")) << run.out;
    EXPECT_TRUE(has(run.out, "ACERTFFFF result -10 KEMAIL_E_UNREACHABLE")) << run.out;
    EXPECT_TRUE(has(run.out, "last failing step:")) << run.out;
    EXPECT_TRUE(has(run.out, "smtp0050 errno 111 ECONNREFUSED (Connection refused)")) << run.out;
    EXPECT_TRUE(has(run.out, "server's last reply:")) << run.out;
    EXPECT_TRUE(has(run.out, "smtp0110 220 mail ESMTP")) << run.out;
}

TEST_F(TraceOps, SeveralFilesAreMergedByTime) {
    const std::string a = dir_.file("a.trc"), b = dir_.file("b.trc");
    TraceHandle* ha = Topen(a.c_str(), 8, 1);
    TraceHandle* hb = Topen(b.c_str(), 8, 1);
    ASSERT_NE(ha, nullptr);
    ASSERT_NE(hb, nullptr);
    Twrite(ha, 1, "FIRST", nullptr, 0);
    ASSERT_EQ(Tclose(ha), 0);
    Twrite(hb, 1, "SECOND", nullptr, 0);
    ASSERT_EQ(Tclose(hb), 0);
    // Make b's record older than a's: its time word sits after "SSSS" at offset 4.
    std::string bytes = kemail_test::read_file(b);
    const uint32_t old_time = 1000000000;
    bytes.replace(8, 4, reinterpret_cast<const char*>(&old_time), 4);
    write_file(b, bytes);
    const ToolResult run = trace(quote(a) + " " + quote(b));
    EXPECT_EQ(run.status, 0) << run.err;
    const size_t second = run.out.find("b.trc: 2001/09/");
    const size_t first = run.out.find("a.trc: ");
    ASSERT_NE(second, std::string::npos) << run.out;
    ASSERT_NE(first, std::string::npos) << run.out;
    EXPECT_LT(second, first) << run.out;
}

TEST_F(TraceOps, JsonOneObjectPerRecord) {
    const ToolResult run = trace("--json --grep smtp0040 " + quote(failed_send("a.trc")));
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(count_lines(run.out), 1u) << run.out;
    EXPECT_TRUE(has(run.out, "\"code\":\"smtp0040\"")) << run.out;
    EXPECT_TRUE(has(run.out, "\"data_hex\":\"6f000000\"")) << run.out;
    EXPECT_TRUE(has(run.out, "\"decoded\":\"errno 111 ECONNREFUSED (Connection refused)\""))
        << run.out;
    EXPECT_TRUE(has(run.out, "\"failure\":true")) << run.out;
}

TEST_F(TraceOps, AFileThatIsNotATraceIsRefused) {
    const std::string path = dir_.file("notes.txt");
    write_file(path, "Dear operator,\nthis is a plain text file.\n");
    const ToolResult run = trace(quote(path));
    EXPECT_EQ(run.status, 1);
    EXPECT_TRUE(has(run.err, "not a kemail trace file")) << run.err;
    EXPECT_TRUE(run.out.empty()) << run.out;
}

TEST_F(TraceOps, VersionAndShortHelp) {
    EXPECT_EQ(trace("--version").status, 0);
    const ToolResult help = trace("-h");
    EXPECT_EQ(help.status, 0);
    EXPECT_TRUE(has(help.out, "--failures")) << help.out;
    EXPECT_TRUE(has(help.out, "--summary")) << help.out;
}

}  // namespace
