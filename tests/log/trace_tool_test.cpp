// The trace dump tool, run as the built program on files the library wrote
// and on damaged ones.
#include "kemail.h"
#include "log_test_support.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include <limits.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using kemail_test::read_file;
using kemail_test::TempDir;
using kemail_test::write_file;
using log_test::matches;
using log_test::write_ring;

// The tool is built beside the tests: <build>/tools/kemail-trace, with the
// test program in <build>/tests.
std::string tool_path() {
    char self[PATH_MAX] = {};
    const ssize_t length = ::readlink("/proc/self/exe", self, sizeof self - 1);
    if (length <= 0) return "kemail-trace";
    std::string dir(self, static_cast<size_t>(length));
    dir = dir.substr(0, dir.rfind('/'));
    return dir + "/../tools/kemail-trace";
}

struct ToolRun {
    int status = -1;  // exit status, or -1 when the tool did not exit normally
    std::string output;
    std::vector<std::string> lines;
};

ToolRun run_tool(const std::string& args) {
    ToolRun run;
    // Appended piece by piece: GCC 12 at -O2 reports a false -Wrestrict
    // overlap in operator+(const char*, std::string&&).
    std::string command = "'";
    command += tool_path();
    command += "' ";
    command += args;
    command += " 2>&1";
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe) return run;
    char buffer[4096];
    size_t got;
    while ((got = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) run.output.append(buffer, got);
    const int status = ::pclose(pipe);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    size_t start = 0;
    for (size_t end; (end = run.output.find('\n', start)) != std::string::npos; start = end + 1) {
        run.lines.push_back(run.output.substr(start, end - start));
    }
    return run;
}

// A record line: the time column, then exactly rest.
bool stamped(const std::string& line, const std::string& rest) {
    const std::string stamp_pattern = "####/##/## ##:##:## ";
    return line.size() == stamp_pattern.size() + rest.size() &&
           matches(line.substr(0, stamp_pattern.size()), stamp_pattern) &&
           line.substr(stamp_pattern.size()) == rest;
}

// The data columns the tool prints for some bytes: hex, then printables.
std::string data_columns(const std::string& bytes) {
    std::string out;
    char hex[4];
    for (unsigned char c : bytes) {
        std::snprintf(hex, sizeof hex, " %02x", c);
        out += hex;
    }
    out += "  |";
    for (unsigned char c : bytes) out += (c >= 0x20 && c < 0x7f) ? static_cast<char>(c) : '.';
    return out + "|";
}

class TraceTool : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(::access(tool_path().c_str(), X_OK), 0) << tool_path(); }
    TempDir dir_;
    std::string path_ = dir_.file("t.trc");

    TraceHandle* open_ring(uint32_t start) {
        write_ring(path_, 8192, start);
        return Topen(path_.c_str(), 5, 2);
    }
};

TEST_F(TraceTool, HelpDescribesTheTool) {
    const ToolRun run = run_tool("--help");
    EXPECT_EQ(run.status, 0);
    EXPECT_NE(run.output.find("Usage: kemail-trace"), std::string::npos);
    EXPECT_NE(run.output.find("--size KB"), std::string::npos);
    EXPECT_NE(run.output.find("oldest first"), std::string::npos);
}

TEST_F(TraceTool, UsageErrors) {
    EXPECT_EQ(run_tool("").status, 2);
    EXPECT_EQ(run_tool("--bogus x").status, 2);
    // Several files are read and merged by time: two missing ones fail to
    // open (1) rather than being a usage error.
    EXPECT_EQ(run_tool("a b").status, 1);
    EXPECT_EQ(run_tool("--size 8").status, 2);
    EXPECT_EQ(run_tool("--size").status, 2);
    EXPECT_EQ(run_tool("--size 0 x").status, 2);
    EXPECT_EQ(run_tool("--size 12abc x").status, 2);
}

TEST_F(TraceTool, MissingFileFails) {
    std::string quoted = "'";
    quoted += dir_.file("missing.trc");
    quoted += "'";
    const ToolRun run = run_tool(quoted);
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.output.find("cannot open"), std::string::npos);
}

TEST_F(TraceTool, PrintsRecordsWithTimeCodeAndData) {
    TraceHandle* handle = open_ring(4);
    ASSERT_NE(handle, nullptr);
    Twrite(handle, 1, "SNDEMAIL0000", nullptr, 0);
    Twrite(handle, 2, "smtp0121A", "EHLO host\r\n", 11);
    const uint32_t word = 32;
    Twrite(handle, 0, "EMAILAPI0010", &word, sizeof word);
    ASSERT_EQ(Tclose(handle), 0);
    const ToolRun run = run_tool(path_);
    EXPECT_EQ(run.status, 0);
    ASSERT_EQ(run.lines.size(), 3u) << run.output;
    EXPECT_TRUE(stamped(run.lines[0], "SNDEMAIL0000")) << run.lines[0];
    EXPECT_TRUE(stamped(run.lines[1], "smtp0121A 45 48 4c 4f 20 68 6f 73 74 0d 0a  |EHLO host..|"))
        << run.lines[1];
    EXPECT_TRUE(stamped(run.lines[2], "EMAILAPI0010 20 00 00 00  | ...|")) << run.lines[2];
}

TEST_F(TraceTool, TimeIsTheRecordsLocalTime) {
    // A record stamped 2001-09-09 01:46:40 UTC, shown in UTC.
    std::string file(8192, '\0');
    const std::string record = std::string("SSSS") + log_test::word_bytes(1000000000) +
                               std::string(4, '\0') + "CODE" + "EEEE";
    file.replace(0, 4, log_test::word_bytes(static_cast<uint32_t>(4 + record.size())));
    file.replace(4, record.size(), record);
    write_file(path_, file);
    ASSERT_EQ(::setenv("TZ", "UTC", 1), 0);
    const ToolRun in_utc = run_tool(path_);
    ::unsetenv("TZ");
    ASSERT_EQ(in_utc.lines.size(), 1u) << in_utc.output;
    EXPECT_EQ(in_utc.lines[0], "2001/09/09 01:46:40 CODE");
    ASSERT_EQ(::setenv("TZ", "JST-9", 1), 0);
    const ToolRun in_japan = run_tool(path_);
    ::unsetenv("TZ");
    ASSERT_EQ(in_japan.lines.size(), 1u);
    EXPECT_EQ(in_japan.lines[0], "2001/09/09 10:46:40 CODE");
}

TEST_F(TraceTool, RecordWrappedAtEveryBytePositionComesOutWhole) {
    const std::string data = "0123456789abcdefghijklmnopqrstuv";
    const size_t length = 12 + 8 + 4 + data.size() + 4;
    for (size_t k = 0; k <= length + 1; ++k) {
        TraceHandle* handle = open_ring(static_cast<uint32_t>(8192 - k));
        ASSERT_NE(handle, nullptr);
        Twrite(handle, 1, "WRAPCODE", data.data(), static_cast<unsigned>(data.size()));
        ASSERT_EQ(Tclose(handle), 0);
        const ToolRun run = run_tool(path_);
        EXPECT_EQ(run.status, 0);
        ASSERT_EQ(run.lines.size(), 1u) << "k=" << k << "\n" << run.output;
        EXPECT_TRUE(stamped(run.lines[0], "WRAPCODE" + data_columns(data)))
            << "k=" << k << ": " << run.lines[0];
    }
}

TEST_F(TraceTool, LongRunIsPrintedOldestFirstAfterThePartialRecord) {
    TraceHandle* handle = open_ring(4);
    ASSERT_NE(handle, nullptr);
    // Far more than the ring holds: it wraps many times.
    constexpr uint32_t kCount = 3000;
    for (uint32_t i = 0; i < kCount; ++i) {
        Twrite(handle, 1, "SEQ", &i, sizeof i);
    }
    ASSERT_EQ(Tclose(handle), 0);
    const ToolRun run = run_tool(path_);
    EXPECT_EQ(run.status, 0);
    ASSERT_GT(run.lines.size(), 100u);
    // The oldest record has been partly overwritten: at most its tail shows.
    size_t first = 0;
    if (run.lines[0].rfind("--", 0) == 0) first = 1;
    const size_t records = run.lines.size() - first;
    // Each record is 12 + 3 + 4 + 4 + 4 bytes: the ring holds 8188 / 27.
    EXPECT_EQ(records, 8188u / 27);
    for (size_t i = first; i < run.lines.size(); ++i) {
        const uint32_t expected = kCount - static_cast<uint32_t>(run.lines.size() - i);
        const std::string bytes(reinterpret_cast<const char*>(&expected), sizeof expected);
        ASSERT_TRUE(stamped(run.lines[i], "SEQ" + data_columns(bytes)))
            << i << ": " << run.lines[i];
    }
}

TEST_F(TraceTool, MarkersInsideDataDoNotEndTheRecord) {
    TraceHandle* handle = open_ring(4);
    ASSERT_NE(handle, nullptr);
    Twrite(handle, 2, "ONE", "abEEEEcdSSSSef", 14);
    Twrite(handle, 2, "TWO", "XXXX", 4);
    ASSERT_EQ(Tclose(handle), 0);
    const ToolRun run = run_tool(path_);
    ASSERT_EQ(run.lines.size(), 2u) << run.output;
    EXPECT_TRUE(stamped(run.lines[0], "ONE" + data_columns("abEEEEcdSSSSef"))) << run.lines[0];
    EXPECT_TRUE(stamped(run.lines[1], "TWO 58 58 58 58  |XXXX|")) << run.lines[1];
}

TEST_F(TraceTool, CodesAndDataEndingInETouchingTheEndMarker) {
    TraceHandle* handle = open_ring(4);
    ASSERT_NE(handle, nullptr);
    Twrite(handle, 1, "STEP00FE", nullptr, 0);
    Twrite(handle, 2, "STEP00EE", "DATE", 4);
    Twrite(handle, 1, "LAST000E", nullptr, 0);
    ASSERT_EQ(Tclose(handle), 0);
    const ToolRun run = run_tool(path_);
    ASSERT_EQ(run.lines.size(), 3u) << run.output;
    EXPECT_TRUE(stamped(run.lines[0], "STEP00FE")) << run.lines[0];
    EXPECT_TRUE(stamped(run.lines[1], "STEP00EE 44 41 54 45  |DATE|")) << run.lines[1];
    EXPECT_TRUE(stamped(run.lines[2], "LAST000E")) << run.lines[2];
}

TEST_F(TraceTool, EmptyRingHasNoRecords) {
    TraceHandle* handle = open_ring(4);
    ASSERT_NE(handle, nullptr);
    ASSERT_EQ(Tclose(handle), 0);
    const ToolRun run = run_tool(path_);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.output, "-- no records\n");
}

TEST_F(TraceTool, FileShorterThanFourBytesIsReported) {
    for (const char* bytes : {"", "a", "abc"}) {
        write_file(path_, bytes);
        const ToolRun run = run_tool(path_);
        EXPECT_EQ(run.status, 1);
        EXPECT_NE(run.output.find("shorter than its 4-byte header"), std::string::npos)
            << run.output;
    }
}

TEST_F(TraceTool, WriteOffsetOutOfRangeIsReportedAndTheRingReadFromFour) {
    TraceHandle* handle = open_ring(4);
    ASSERT_NE(handle, nullptr);
    Twrite(handle, 1, "FIRST", nullptr, 0);
    Twrite(handle, 1, "SECOND", nullptr, 0);
    ASSERT_EQ(Tclose(handle), 0);
    for (uint32_t broken : {0u, 3u, 8193u, 0xFFFFFFFFu}) {
        std::string file = read_file(path_);
        file.replace(0, 4, log_test::word_bytes(broken));
        write_file(path_, file);
        const ToolRun run = run_tool(path_);
        EXPECT_EQ(run.status, 0);
        ASSERT_EQ(run.lines.size(), 3u) << run.output;
        EXPECT_EQ(run.lines[0], "-- write offset " + std::to_string(broken) +
                                    " is out of range (4 to 8192); reading the ring from offset 4");
        EXPECT_TRUE(stamped(run.lines[1], "FIRST"));
        EXPECT_TRUE(stamped(run.lines[2], "SECOND"));
    }
}

TEST_F(TraceTool, BytesWithoutAMarkerAreReported) {
    TraceHandle* handle = open_ring(4);
    ASSERT_NE(handle, nullptr);
    Twrite(handle, 1, "FIRST", nullptr, 0);
    ASSERT_EQ(Tclose(handle), 0);
    std::string file = read_file(path_);
    file.replace(1000, 10, "garbage!!!");
    write_file(path_, file);
    const ToolRun run = run_tool(path_);
    EXPECT_EQ(run.status, 0);
    ASSERT_EQ(run.lines.size(), 2u) << run.output;
    EXPECT_EQ(run.lines[0], "-- skipped 10 bytes without a marker at file offset 1000");
    EXPECT_TRUE(stamped(run.lines[1], "FIRST"));
}

TEST_F(TraceTool, TruncatedFileIsReadAsFarAsItGoes) {
    TraceHandle* handle = open_ring(4);
    ASSERT_NE(handle, nullptr);
    Twrite(handle, 1, "WHOLE", nullptr, 0);
    Twrite(handle, 2, "CUT", "0123456789", 10);
    ASSERT_EQ(Tclose(handle), 0);
    const std::string file = read_file(path_);
    // The file ends inside the second record's data.
    write_file(path_, file.substr(0, 4 + 21 + 12 + 3 + 4 + 5));
    ToolRun run = run_tool(path_);
    EXPECT_EQ(run.status, 0);
    EXPECT_NE(run.output.find("WHOLE"), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("-- skipped"), std::string::npos) << run.output;
    EXPECT_EQ(run.output.find("CUT"), std::string::npos) << run.output;

    // Cut inside the second record's header.
    write_file(path_, file.substr(0, 4 + 21 + 6));
    run = run_tool(path_);
    EXPECT_EQ(run.status, 0);
    EXPECT_NE(run.output.find("WHOLE"), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("ends inside its header"), std::string::npos) << run.output;
}

TEST_F(TraceTool, RingSizeOptionIgnoresBytesPastTheRing) {
    TraceHandle* handle = open_ring(4);
    ASSERT_NE(handle, nullptr);
    Twrite(handle, 1, "INRING", nullptr, 0);
    ASSERT_EQ(Tclose(handle), 0);
    std::string file = read_file(path_);
    file += std::string("SSSS") + std::string(8, '\0') + "STALE" + "EEEE";
    write_file(path_, file);
    ToolRun run = run_tool(path_);
    EXPECT_NE(run.output.find("STALE"), std::string::npos);
    run = run_tool("--size 8 " + path_);
    EXPECT_EQ(run.status, 0);
    ASSERT_EQ(run.lines.size(), 2u) << run.output;
    EXPECT_EQ(run.lines[0], "-- ignored 21 bytes past the 8 KB ring");
    EXPECT_TRUE(stamped(run.lines[1], "INRING"));
}

TEST_F(TraceTool, RandomDamageNeverCrashesIt) {
    TraceHandle* handle = open_ring(4);
    ASSERT_NE(handle, nullptr);
    for (uint32_t i = 0; i < 600; ++i) Twrite(handle, 1, "FUZZ", &i, sizeof i);
    ASSERT_EQ(Tclose(handle), 0);
    const std::string original = read_file(path_);
    std::mt19937 random(12345);
    for (int round = 0; round < 40; ++round) {
        std::string file = original;
        const int changes = 1 + static_cast<int>(random() % 64);
        for (int c = 0; c < changes; ++c) {
            file[random() % file.size()] = "SXE\0\x01\xff"[random() % 6];
        }
        if (round % 4 == 0) file.resize(random() % file.size());
        write_file(path_, file);
        const ToolRun run = run_tool(path_);
        EXPECT_TRUE(run.status == 0 || (run.status == 1 && file.size() < 4))
            << "round " << round << " status " << run.status;
    }
}

}  // namespace
