// Trace records of the send that carry a code of another step's family, or
// reuse one code for two meanings. Each test writes a real trace file at
// level 2 and looks for the records in it.
#include "send/send_internal.h"
#include "send_fixture.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace {

using kemail_test::TempDir;

// The records the body wrote to g_trace, as the trace file holds them.
std::string traced(const std::function<void()>& body) {
    TempDir dir;
    const std::string path = dir.file("send.trc");
    TraceHandle* handle = Topen(path.c_str(), 64, 2);
    EXPECT_NE(handle, nullptr);
    TraceHandle* const saved = g_trace;
    g_trace = handle;
    body();
    g_trace = saved;
    Tclose(handle);
    return kemail_test::read_file(path);
}

// The data of every record with the given code, in the order written (an
// empty string for a record without data).
std::vector<std::string> records_of(const std::string& file, const std::string& code) {
    std::vector<std::string> found;
    for (size_t at = file.find(code); at != std::string::npos; at = file.find(code, at + 1)) {
        const size_t after = at + code.size();
        const size_t end = file.find("EEEE", after);
        if (end == std::string::npos) break;
        if (file.compare(after, 4, "XXXX") == 0) {
            found.push_back(file.substr(after + 4, end - after - 4));
        } else if (end == after) {
            found.emplace_back();
        }
    }
    return found;
}

uint32_t word(const std::string& data) {
    uint32_t value = 0;
    EXPECT_EQ(data.size(), sizeof value);
    std::memcpy(&value, data.data(), std::min(data.size(), sizeof value));
    return value;
}

TEST(SendTrace, CodeChangerAndLineConverterShareChange0010And0020) {
    const std::string changer_timeout = traced([] { kemail::change_code(-6); });
    const std::string changer_socket = traced([] { kemail::change_code(-1); });
    char dest[16] = {};
    const std::string converter = traced(
        [&] { kemail::convert_lines(reinterpret_cast<iconv_t>(-1), "abc", dest, sizeof dest); });
    // The code changer: CHANGE0020 is the time-out row, CHANGE0010 the socket row.
    EXPECT_EQ(records_of(changer_timeout, "CHANGE0020").size(), 1u);
    EXPECT_EQ(records_of(changer_socket, "CHANGE0010").size(), 1u);
    // The line converter: CHANGE0010 is the missing converter.
    EXPECT_EQ(records_of(converter, "CHANGE0010").size(), 1u);
    EXPECT_TRUE(records_of(converter, "CHANGE0020").empty());
}

TEST(SendTrace, Emailapi1110And1120MarkBothTheAuthRecordAndTheTextBuffer) {
    // A bad authentication mode: EMAILAPI1110 holds the record, EMAILAPI1120
    // has no data.
    TempDir work;
    MailAuthInfo bad_mode{3, 0, nullptr};
    send_test::Mail refused;
    refused.auth = &bad_mode;
    int result = 0;
    const std::string auth_trace =
        traced([&] { result = refused.send_with_temp_dir(work.path()); });
    EXPECT_EQ(result, KEMAIL_E_ARGUMENT);
    const auto auth_records = records_of(auth_trace, "EMAILAPI1110");
    ASSERT_EQ(auth_records.size(), 1u);
    EXPECT_EQ(auth_records[0].size(), sizeof(MailAuthInfo));
    EXPECT_EQ(auth_records[0].substr(0, 4), std::string("\x03\0\0\0", 4));
    const auto auth_failures = records_of(auth_trace, "EMAILAPI1120");
    ASSERT_EQ(auth_failures.size(), 1u);
    EXPECT_EQ(auth_failures[0], "");

    // A request without authentication: EMAILAPI1110 holds the size of the
    // text buffer (the text and its NUL). It stops at the size estimate.
    send_test::Mail probe;
    probe.text = std::string("Hello\n");
    probe.attachments.push_back({KEMAIL_CONTENT_ATTACHMENT, "/nonexistent-dir/probe.bin"});
    const std::string text_trace = traced([&] { result = probe.send_with_temp_dir(work.path()); });
    EXPECT_EQ(result, KEMAIL_E_ATTACHMENT);
    const auto text_records = records_of(text_trace, "EMAILAPI1110");
    ASSERT_EQ(text_records.size(), 1u);
    EXPECT_EQ(word(text_records[0]), 7u);
    EXPECT_TRUE(records_of(text_trace, "EMAILAPI1120").empty());
}

}  // namespace
