// A trace ring stays mapped from a Tclose to the next Topen of the same file,
// so that a process tracing one send after another maps its ring once: the
// records reach the file exactly as through a fresh mapping, a file that is
// no longer the same one is mapped anew, only a few rings stay mapped, and
// unloading the library releases them.
#include "kemail.h"
#include "log_test_support.h"
#include "mapped_files.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <unistd.h>

namespace {

using kemail_test::read_file;
using kemail_test::TempDir;
using kemail_test::write_file;
using log_test::mappings_of;
using log_test::word_at;

// One send's worth of tracing: open the ring, write one record, close it.
// Returns the mapping the records went through.
unsigned char* trace_once(const std::string& path, const char* code) {
    TraceHandle* handle = Topen(path.c_str(), 5, 1);
    EXPECT_NE(handle, nullptr) << path;
    if (handle == nullptr) return nullptr;
    unsigned char* map = handle->map;
    EXPECT_EQ(Twrite(handle, 0, code, nullptr, 0), 0);
    EXPECT_EQ(Tclose(handle), 0);
    return map;
}

// The record of a code without data, as the ring holds it from its marker on.
std::string record_tail(const char* code) { return std::string(code) + "EEEE"; }

TEST(TraceRingReuse, TheNextOpenOfTheSameFileTakesUpTheKeptMapping) {
    TempDir dir;
    const std::string path = dir.file("acert-reuse.trc");
    trace_once(path, "FIRST000");  // a new file: sized, then mapped
    unsigned char* second = trace_once(path, "SECOND00");
    EXPECT_EQ(mappings_of(path), 1) << "kept after its Tclose";
    unsigned char* third = trace_once(path, "THIRD000");
    EXPECT_EQ(third, second);
    EXPECT_EQ(mappings_of(path), 1);

    const std::string ring = read_file(path);
    ASSERT_EQ(ring.size(), 8192u);
    const size_t first_at = ring.find(record_tail("FIRST000"));
    const size_t second_at = ring.find(record_tail("SECOND00"));
    const size_t third_at = ring.find(record_tail("THIRD000"));
    ASSERT_NE(third_at, std::string::npos);
    EXPECT_LT(first_at, second_at);
    EXPECT_LT(second_at, third_at);
    EXPECT_EQ(word_at(ring, 0), third_at + record_tail("THIRD000").size());
}

TEST(TraceRingReuse, AFileThatIsNoLongerTheSameOneIsMappedAnew) {
    TempDir dir;
    const std::string path = dir.file("acert-replaced.trc");
    trace_once(path, "FIRST000");
    trace_once(path, "SECOND00");
    // Another file of the same size now stands under the name.
    ASSERT_EQ(::unlink(path.c_str()), 0);
    std::string fresh(8192, '\0');
    fresh[0] = 4;
    write_file(path, fresh);
    trace_once(path, "NEWFILE0");
    const std::string ring = read_file(path);
    EXPECT_EQ(ring.find(record_tail("SECOND00")), std::string::npos);
    EXPECT_EQ(ring.find("SSSS"), 4u);
    EXPECT_NE(ring.find(record_tail("NEWFILE0")), std::string::npos);
}

TEST(TraceRingReuse, AFileCutShortIsSizedAgainAndWrittenThrough) {
    TempDir dir;
    const std::string path = dir.file("acert-cut.trc");
    trace_once(path, "FIRST000");
    trace_once(path, "SECOND00");
    ASSERT_EQ(::truncate(path.c_str(), 100), 0);
    trace_once(path, "AFTERCUT");
    const std::string ring = read_file(path);
    ASSERT_EQ(ring.size(), 8192u);
    EXPECT_NE(ring.find(record_tail("AFTERCUT")), std::string::npos);
}

// A longer file keeps its length; its first 8 KB are mapped for the ring.
TEST(TraceRingReuse, ARingOfAnotherSizeIsMappedAnew) {
    TempDir dir;
    const std::string path = dir.file("acert-resized.trc");
    TraceHandle* bigger = nullptr;
    for (int i = 0; i < 2; ++i) {
        bigger = Topen(path.c_str(), 20, 1);
        ASSERT_NE(bigger, nullptr);
        EXPECT_EQ(bigger->size_kb, 24u);
        EXPECT_EQ(Tclose(bigger), 0);
    }
    EXPECT_EQ(mappings_of(path), 1);
    TraceHandle* smaller = Topen(path.c_str(), 5, 1);
    ASSERT_NE(smaller, nullptr);
    EXPECT_EQ(smaller->size_kb, 8u);
    EXPECT_EQ(Twrite(smaller, 0, "SMALLER0", nullptr, 0), 0);
    EXPECT_EQ(Tclose(smaller), 0);
    EXPECT_EQ(mappings_of(path), 2) << "the 24 KB ring and the 8 KB one, each whole";
    const std::string ring = read_file(path);
    ASSERT_EQ(ring.size(), 24u * 1024);
    EXPECT_LT(ring.find(record_tail("SMALLER0")), 8192u);
}

TEST(TraceRingReuse, OnlyTheNewestFewStayMapped) {
    TempDir dir;
    std::vector<std::string> paths;
    for (int i = 1; i <= 6; ++i) {
        paths.push_back(dir.file("acert-many" + std::to_string(i) + ".trc"));
        trace_once(paths.back(), "FIRST000");
        trace_once(paths.back(), "SECOND00");
    }
    for (int i = 0; i < 2; ++i) EXPECT_EQ(mappings_of(paths[i]), 0) << paths[i];
    for (int i = 2; i < 6; ++i) EXPECT_EQ(mappings_of(paths[i]), 1) << paths[i];
}

TEST(TraceRingReuse, UnloadingTheLibraryReleasesTheKeptRings) {
    TempDir dir;
    const std::string command = std::string("'") + KEMAIL_RING_UNLOAD_PROBE + "' '" +
                                KEMAIL_LIBRARY_FILE + "' '" + dir.file("acert-unload.trc") +
                                "' 2>&1";
    FILE* probe = ::popen(command.c_str(), "r");
    ASSERT_NE(probe, nullptr);
    char output[256] = {};
    const size_t got = std::fread(output, 1, sizeof output - 1, probe);
    EXPECT_EQ(::pclose(probe), 0) << output;
    EXPECT_EQ(std::string(output, got), "before 1 after 0 unloaded 1\n");
}

}  // namespace
