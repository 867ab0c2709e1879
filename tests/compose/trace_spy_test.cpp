#include "trace_spy.h"

#include "kemail.h"

#include <gtest/gtest.h>

#include <cstring>

namespace compose_test {
namespace {
std::vector<TraceRecord>& records() {
    static std::vector<TraceRecord> all;
    return all;
}
}  // namespace

void clear_traces() { records().clear(); }
const std::vector<TraceRecord>& traces() { return records(); }

std::vector<std::string> trace_codes() {
    std::vector<std::string> codes;
    for (const auto& r : records()) codes.push_back(r.code);
    return codes;
}

bool has_trace(const std::string& code) {
    for (const auto& r : records()) {
        if (r.code == code) return true;
    }
    return false;
}

TraceRecord trace_of(const std::string& code) {
    for (const auto& r : records()) {
        if (r.code == code) return r;
    }
    ADD_FAILURE() << "no trace record " << code;
    return {};
}

uint32_t word_of(const TraceRecord& record) {
    uint32_t value = 0;
    EXPECT_EQ(record.data.size(), sizeof value) << record.code;
    if (record.data.size() == sizeof value) std::memcpy(&value, record.data.data(), sizeof value);
    return value;
}

}  // namespace compose_test

// The library's trace writer, replaced for this test program.
extern "C" int Twrite(TraceHandle*, unsigned int ulLevel, const char* pszCode, const void* pData,
                      unsigned int ulLength) noexcept {
    compose_test::TraceRecord record{ulLevel, pszCode ? pszCode : "", {}};
    if (pData != nullptr) record.data.assign(static_cast<const char*>(pData), ulLength);
    compose_test::records().push_back(std::move(record));
    return 0;
}

namespace {

TEST(TraceSpy, SeesTheLibrarysRecords) {
    compose_test::clear_traces();
    char boundary[KEMAIL_BOUNDARY_SIZE] = {};
    char id[KEMAIL_MSGID_SIZE] = {};
    SMTP_MakeMsgId(id);
    SMTP_makeBoundary(boundary);
    ASSERT_TRUE(compose_test::has_trace("mkmsgid0000"));
    EXPECT_EQ(compose_test::trace_of("mkmsgid0000").level, 1u);
    EXPECT_EQ(compose_test::trace_of("mkmsgidFFFF").data, std::string(id));
}

}  // namespace
