// The byte search of the piece cutter agrees with memmem.
#include "util/util.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>

namespace {

bool by_memmem(const std::string& data, const std::string& needle) {
    return memmem(data.data(), data.size(), needle.data(), needle.size()) != nullptr;
}

bool holds(const std::string& data, const std::string& needle) {
    return kemail::holds_bytes(data.data(), data.size(), needle.data(), needle.size());
}

TEST(HoldsBytes, FindsTheNeedleAtTheStartInsideAndAtTheEnd) {
    const std::string boundary = "---------------ZvLunt1234567890";
    EXPECT_TRUE(holds(boundary + "\r\nrest", boundary));
    EXPECT_TRUE(holds("QUJD\r\n--" + boundary + "\r\nQUJD", boundary));
    EXPECT_TRUE(holds("QUJD\r\n--" + boundary, boundary));
    EXPECT_TRUE(holds(boundary, boundary));
}

TEST(HoldsBytes, ANeedleCutByTheEndOrLongerThanTheDataIsNotThere) {
    const std::string boundary = "---------------ZvLunt1234567890";
    EXPECT_FALSE(holds("QUJD\r\n--" + boundary.substr(0, boundary.size() - 1), boundary));
    EXPECT_FALSE(holds(boundary.substr(1), boundary));
    EXPECT_FALSE(holds("", boundary));
    EXPECT_FALSE(holds("abc", ""));
}

TEST(HoldsBytes, RunsOfTheFirstByteDoNotHideAMatch) {
    EXPECT_TRUE(holds(std::string(40, '-') + "ZvLunt1", "---ZvLunt1"));
    EXPECT_FALSE(holds(std::string(40, '-') + "ZvLunt", "---ZvLunt1"));
}

TEST(HoldsBytes, AgreesWithMemmemOnRandomTexts) {
    std::mt19937 random(20261124);
    // A small alphabet, so that partial matches are frequent.
    const std::string alphabet = "-Zv1\r\n";
    for (int round = 0; round < 20000; ++round) {
        std::string data(random() % 64, '\0');
        for (char& c : data) c = alphabet[random() % alphabet.size()];
        std::string needle(1 + random() % 6, '\0');
        for (char& c : needle) c = alphabet[random() % alphabet.size()];
        ASSERT_EQ(holds(data, needle), by_memmem(data, needle)) << data << " / " << needle;
    }
}

TEST(HoldsBytes, ReadsNothingPastTheData) {
    // The data ends where a copy of the needle's first bytes would go on:
    // the search must stop at the data's end, not read on into the rest.
    const std::string buffer =
        "xx--Zv"
        "--ZvLunt";
    EXPECT_FALSE(kemail::holds_bytes(buffer.data(), 6, "--ZvLunt", 8));
    EXPECT_TRUE(kemail::holds_bytes(buffer.data(), buffer.size(), "--ZvLunt", 8));
}

}  // namespace
