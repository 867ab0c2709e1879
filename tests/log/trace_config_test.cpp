// Trace configuration from trc_conf and the trace file name.
#include "kemail.h"
#include "log_test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <pthread.h>
#include <unistd.h>

namespace {

using log_test::TraceConf;

struct Values {
    unsigned size = 5;
    unsigned level = 1;
    unsigned count = 5;
};

int get_info(Values& values, const char* section = "ACERT") {
    return GetTraceInfo(section, 0, &values.size, &values.level, &values.count);
}

TEST(TraceConfig, MissingFileKeepsTheDefaults) {
    Values values;
    EXPECT_EQ(get_info(values), 0);
    EXPECT_EQ(values.size, 5u);
    EXPECT_EQ(values.level, 1u);
    EXPECT_EQ(values.count, 5u);
}

TEST(TraceConfig, ValuesOfTheSectionAreRead) {
    TraceConf conf("[OTHER]\nTRACESIZE=99\n[ACERT]\nTRACESIZE=40\nTRACELEVEL=2\nTRACENUM=9\n");
    Values values;
    EXPECT_EQ(get_info(values), 0);
    EXPECT_EQ(values.size, 40u);
    EXPECT_EQ(values.level, 2u);
    EXPECT_EQ(values.count, 9u);

    Values other;
    EXPECT_EQ(get_info(other, "OTHER"), 0);
    EXPECT_EQ(other.size, 99u);
    EXPECT_EQ(other.level, 1u);
    EXPECT_EQ(other.count, 5u);
}

TEST(TraceConfig, ZeroLevelAndCountAndLargeLevelAreAccepted) {
    TraceConf conf("[ACERT]\nTRACELEVEL=0\nTRACENUM=0\n");
    Values values;
    EXPECT_EQ(get_info(values), 0);
    EXPECT_EQ(values.size, 5u);
    EXPECT_EQ(values.level, 0u);
    EXPECT_EQ(values.count, 0u);

    TraceConf high("[ACERT]\nTRACELEVEL=7\n");
    Values raised;
    EXPECT_EQ(get_info(raised), 0);
    EXPECT_EQ(raised.level, 7u);
}

TEST(TraceConfig, AnyInvalidValueStoresNothing) {
    const char* texts[] = {
        "[ACERT]\nTRACESIZE=0\nTRACELEVEL=2\nTRACENUM=9\n",
        "[ACERT]\nTRACESIZE=-3\nTRACELEVEL=2\nTRACENUM=9\n",
        "[ACERT]\nTRACESIZE=abc\nTRACELEVEL=2\nTRACENUM=9\n",
        "[ACERT]\nTRACESIZE=40\nTRACELEVEL=-1\nTRACENUM=9\n",
        "[ACERT]\nTRACESIZE=40\nTRACELEVEL=2\nTRACENUM=-1\n",
    };
    for (const char* text : texts) {
        TraceConf conf(text);
        Values values;
        EXPECT_EQ(get_info(values), -1) << text;
        EXPECT_EQ(values.size, 5u) << text;
        EXPECT_EQ(values.level, 1u) << text;
        EXPECT_EQ(values.count, 5u) << text;
    }
}

TEST(TraceConfig, InvalidDefaultsFailWhenTheFileIsMissing) {
    Values values;
    values.size = 0;
    EXPECT_EQ(get_info(values), -1);
    EXPECT_EQ(values.size, 0u);
}

TEST(TraceConfig, SizeAndLevelHaveTheirOwnDefaultsAndCap) {
    unsigned size = 7;
    unsigned level = 7;
    EXPECT_EQ(Trc_GetSizeLevel("ACERT", &size, &level), 0);
    EXPECT_EQ(size, 100u);
    EXPECT_EQ(level, 0u);

    {
        TraceConf conf("[ACERT]\nTRACESIZE=12\nTRACELEVEL=5\n");
        EXPECT_EQ(Trc_GetSizeLevel("ACERT", &size, &level), 0);
        EXPECT_EQ(size, 12u);
        EXPECT_EQ(level, 2u);
    }
    {
        TraceConf conf("[ACERT]\nTRACELEVEL=1\n");
        EXPECT_EQ(Trc_GetSizeLevel("ACERT", &size, &level), 0);
        EXPECT_EQ(size, 100u);
        EXPECT_EQ(level, 1u);
    }
    {
        // A negative level compares as a huge unsigned value.
        TraceConf conf("[ACERT]\nTRACELEVEL=-1\n");
        EXPECT_EQ(Trc_GetSizeLevel("ACERT", &size, &level), 0);
        EXPECT_EQ(level, 2u);
    }
}

std::string expected_name(const char* prefix) {
    return "/var/opt/QRZNvolta/tmp2/" + std::string(prefix) + std::to_string(getpid()) + "-" +
           std::to_string(static_cast<int>(static_cast<unsigned long>(pthread_self()))) + ".trc";
}

TEST(TraceFileName, LevelZeroLeavesTheBufferUntouched) {
    char name[KEMAIL_TRACE_NAME_SIZE];
    std::memset(name, '#', sizeof name);
    MakeTraceFileName(name, 0, "acert", 0);
    EXPECT_EQ(std::string(name, sizeof name), std::string(sizeof name, '#'));

    char zeroed[KEMAIL_TRACE_NAME_SIZE] = {};
    MakeTraceFileName(zeroed, 0, "acert", 0);
    EXPECT_STREQ(zeroed, "");
}

TEST(TraceFileName, NameCarriesPrefixProcessAndThread) {
    char name[KEMAIL_TRACE_NAME_SIZE] = {};
    MakeTraceFileName(name, 0, "acert", 1);
    EXPECT_EQ(std::string(name), expected_name("acert"));

    std::string other_thread;
    std::string expected_other;
    std::thread([&] {
        char buffer[KEMAIL_TRACE_NAME_SIZE] = {};
        MakeTraceFileName(buffer, 0, "acert", 2);
        other_thread = buffer;
        expected_other = expected_name("acert");
    }).join();
    EXPECT_EQ(other_thread, expected_other);
    EXPECT_NE(other_thread, std::string(name));
}

TEST(TraceFileName, OverlongPrefixNeverOverrunsAndGivesNoName) {
    struct {
        char name[KEMAIL_TRACE_NAME_SIZE];
        char guard[64];
    } buffer;
    std::memset(&buffer, '#', sizeof buffer);
    const std::string prefix(2000, 'p');
    MakeTraceFileName(buffer.name, 0, prefix.c_str(), 1);
    EXPECT_STREQ(buffer.name, "");
    EXPECT_EQ(std::string(buffer.guard, sizeof buffer.guard),
              std::string(sizeof buffer.guard, '#'));

    // The longest prefix that still fits gives a full name of 1024 bytes.
    const std::string base = expected_name("");
    const std::string fitting(KEMAIL_TRACE_NAME_SIZE - 1 - base.size(), 'q');
    MakeTraceFileName(buffer.name, 0, fitting.c_str(), 1);
    EXPECT_EQ(std::string(buffer.name), expected_name(fitting.c_str()));
    EXPECT_EQ(std::strlen(buffer.name), static_cast<size_t>(KEMAIL_TRACE_NAME_SIZE - 1));
}

TEST(TraceFileName, NamedFileOpensInTheTraceDirectory) {
    char name[KEMAIL_TRACE_NAME_SIZE] = {};
    MakeTraceFileName(name, 0, "acert", 1);
    TraceHandle* handle = Topen(name, 5, 1);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(Tclose(handle), 0);
    EXPECT_EQ(log_test::file_size(name), 8192);
    EXPECT_EQ(::unlink(name), 0);
}

// The order in which a send sets up its trace: configuration, removal of
// old files, the name, the file.
TEST(TraceSetUp, ConfiguredRingReplacesTheOldestFiles) {
    TraceConf conf("[ACERT]\nTRACESIZE=20\nTRACELEVEL=2\nTRACENUM=3\n");
    const std::string dir = log_test::trace_dir();
    log_test::clear_dir(dir);
    for (int i = 1; i <= 4; ++i) {
        const std::string old = dir + "/acert" + std::to_string(90000 + i) + "-1.trc";
        kemail_test::write_file(old, "old");
        log_test::set_mtime(old, 1000000 + i);
    }
    Values values;
    ASSERT_EQ(get_info(values), 0);
    EXPECT_EQ(DeleteOldFiles(0, "acert", values.count, values.level), 0);
    char name[KEMAIL_TRACE_NAME_SIZE] = {};
    MakeTraceFileName(name, 0, "acert", values.level);
    TraceHandle* handle = Topen(name, values.size, values.level);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(handle->size_kb, 24u);
    EXPECT_EQ(handle->level, 2u);
    EXPECT_EQ(Twrite(handle, 2, "SNDEMAIL0000", nullptr, 0), 0);
    EXPECT_EQ(Tclose(handle), 0);
    const std::string own = std::string(name).substr(dir.size() + 1);
    std::vector<std::string> expected = {"acert90003-1.trc", "acert90004-1.trc", own};
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(log_test::files_in(dir), expected);
    EXPECT_EQ(kemail_test::read_file(name).substr(16, 16), "SNDEMAIL0000EEEE");
    log_test::clear_dir(dir);
}

}  // namespace
