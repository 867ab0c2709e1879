// Writing trace records: the record layout, level filtering, the ring wrap
// at every byte of a record, the data clamp, errno, threads.
#include "kemail.h"
#include "log_test_support.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

namespace {

using kemail_test::read_file;
using kemail_test::TempDir;
using log_test::word_at;
using log_test::write_ring;

constexpr size_t kRing = 8192;

// Reads n ring bytes starting at file offset start, wrapping from the end
// of the ring to offset 4.
std::string ring_bytes(const std::string& file, size_t start, size_t n) {
    std::string out;
    size_t pos = start;
    for (size_t i = 0; i < n; ++i) {
        if (pos == kRing) pos = 4;
        out += file[pos++];
    }
    return out;
}

// Checks a record: markers, a time between before and after, the reserved
// zero word, the code and the data.
void expect_record(const std::string& record, time_t before, time_t after, const std::string& code,
                   const std::string& data) {
    ASSERT_GE(record.size(), 16u + code.size());
    EXPECT_EQ(record.substr(0, 4), "SSSS");
    const uint32_t stamp = word_at(record, 4);
    EXPECT_GE(stamp, static_cast<uint32_t>(before));
    EXPECT_LE(stamp, static_cast<uint32_t>(after));
    EXPECT_EQ(word_at(record, 8), 0u);
    std::string rest = code + (data.empty() ? "" : "XXXX" + data) + "EEEE";
    EXPECT_EQ(record.substr(12), rest);
}

TEST(TraceWrite, RecordWithoutDataIsMarkersTimeReservedAndCode) {
    TempDir dir;
    const std::string path = dir.file("plain.trc");
    TraceHandle* handle = Topen(path.c_str(), 5, 1);
    ASSERT_NE(handle, nullptr);
    const time_t before = time(nullptr);
    EXPECT_EQ(Twrite(handle, 1, "SNDEMAIL0000", nullptr, 0), 0);
    const time_t after = time(nullptr);
    EXPECT_EQ(Tclose(handle), 0);
    const std::string bytes = read_file(path);
    const size_t length = 12 + 12 + 4;
    EXPECT_EQ(word_at(bytes, 0), 4 + length);
    expect_record(bytes.substr(4, length), before, after, "SNDEMAIL0000", "");
    EXPECT_EQ(bytes.substr(4 + length), std::string(kRing - 4 - length, '\0'));
}

TEST(TraceWrite, DataNeedsBothAPointerAndALength) {
    TempDir dir;
    const std::string path = dir.file("data.trc");
    TraceHandle* handle = Topen(path.c_str(), 5, 2);
    ASSERT_NE(handle, nullptr);
    const time_t before = time(nullptr);
    EXPECT_EQ(Twrite(handle, 2, "A", "\x01\x02\x00\x03", 4), 0);
    EXPECT_EQ(Twrite(handle, 2, "B", "ignored", 0), 0);
    EXPECT_EQ(Twrite(handle, 2, "C", nullptr, 5), 0);
    const time_t after = time(nullptr);
    EXPECT_EQ(Tclose(handle), 0);
    const std::string bytes = read_file(path);
    expect_record(bytes.substr(4, 12 + 1 + 4 + 4 + 4), before, after, "A",
                  std::string("\x01\x02\x00\x03", 4));
    expect_record(bytes.substr(29, 17), before, after, "B", "");
    expect_record(bytes.substr(46, 17), before, after, "C", "");
    EXPECT_EQ(word_at(bytes, 0), 63u);
}

TEST(TraceWrite, LevelsFilterEventsAndLevelThreeIsRefused) {
    TempDir dir;
    const std::string path = dir.file("levels.trc");
    TraceHandle* handle = Topen(path.c_str(), 5, 1);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(Twrite(handle, 3, "THREE", nullptr, 0), -1);
    EXPECT_EQ(Twrite(handle, 0xFFFFFFFFu, "HUGE", nullptr, 0), -1);
    EXPECT_EQ(Twrite(handle, 2, "TWO", nullptr, 0), 0);
    EXPECT_EQ(word_at(std::string(reinterpret_cast<char*>(handle->map), 4), 0), 4u);
    EXPECT_EQ(Twrite(handle, 1, "ONE", nullptr, 0), 0);
    EXPECT_EQ(Twrite(handle, 0, "ZERO", nullptr, 0), 0);
    EXPECT_EQ(Tclose(handle), 0);
    const std::string bytes = read_file(path);
    EXPECT_EQ(bytes.substr(16, 7), "ONEEEEE");
    EXPECT_EQ(bytes.substr(35, 8), "ZEROEEEE");
    EXPECT_EQ(word_at(bytes, 0), 4u + 19 + 20);

    // A level-2 handle takes all three levels; a level above 2 as well.
    for (unsigned level : {2u, 7u}) {
        handle = Topen(path.c_str(), 5, level);
        ASSERT_NE(handle, nullptr);
        const uint32_t start = word_at(std::string(reinterpret_cast<char*>(handle->map), 4), 0);
        EXPECT_EQ(Twrite(handle, 2, "TWO", nullptr, 0), 0);
        EXPECT_EQ(Twrite(handle, 1, "ONE", nullptr, 0), 0);
        EXPECT_EQ(Twrite(handle, 0, "NIL", nullptr, 0), 0);
        EXPECT_EQ(Tclose(handle), 0);
        EXPECT_EQ(word_at(read_file(path), 0), start + 3 * 19) << level;
    }
}

TEST(TraceWrite, NullHandleIsRefused) {
    EXPECT_EQ(Twrite(nullptr, 0, "X", nullptr, 0), -1);
    EXPECT_EQ(Twrite(nullptr, 1, "X", "data", 4), -1);
}

TEST(TraceWrite, ErrnoIsNeverChanged) {
    TempDir dir;
    TraceHandle* handle = Topen(dir.file("errno.trc").c_str(), 5, 1);
    ASSERT_NE(handle, nullptr);
    TraceHandle* inactive = Topen("", 0, 0);
    ASSERT_NE(inactive, nullptr);
    for (int value : {0, EPIPE, ENOENT, 12345}) {
        errno = value;
        Twrite(handle, 1, "WRITTEN", "abc", 3);
        EXPECT_EQ(errno, value);
        Twrite(handle, 2, "FILTERED", "abc", 3);
        EXPECT_EQ(errno, value);
        Twrite(handle, 3, "REFUSED", nullptr, 0);
        EXPECT_EQ(errno, value);
        Twrite(inactive, 0, "INACTIVE", nullptr, 0);
        EXPECT_EQ(errno, value);
        Twrite(nullptr, 0, "NULL", nullptr, 0);
        EXPECT_EQ(errno, value);
    }
    EXPECT_EQ(Tclose(handle), 0);
    EXPECT_EQ(Tclose(inactive), 0);
}

TEST(TraceWrite, DataIsClampedToHalfTheRing) {
    TempDir dir;
    const std::string path = dir.file("clamp.trc");
    TraceHandle* handle = Topen(path.c_str(), 5, 1);
    ASSERT_NE(handle, nullptr);
    std::string data(10000, '\0');
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>('a' + i % 26);
    const time_t before = time(nullptr);
    EXPECT_EQ(Twrite(handle, 1, "BIG", data.data(), static_cast<unsigned>(data.size())), 0);
    const time_t after = time(nullptr);
    EXPECT_EQ(Tclose(handle), 0);
    const std::string bytes = read_file(path);
    const size_t length = 12 + 3 + 4 + 4096 + 4;
    EXPECT_EQ(word_at(bytes, 0), 4 + length);
    expect_record(bytes.substr(4, length), before, after, "BIG", data.substr(0, 4096));
}

TEST(TraceWrite, RecordWrapsAtEveryBytePosition) {
    TempDir dir;
    const std::string path = dir.file("wrap.trc");
    const std::string code = "smtp0121A";
    const std::string data = "0123456789abcdefghijklmnopqrstuv";  // 32 bytes
    const size_t length = 12 + code.size() + 4 + data.size() + 4;
    // Start the record from k bytes before the end of the ring: k = 0 puts
    // the whole record at offset 4, k = length ends it exactly at the end.
    for (size_t k = 0; k <= length + 1; ++k) {
        const size_t start = kRing - k;
        write_ring(path, kRing, static_cast<uint32_t>(start));
        TraceHandle* handle = Topen(path.c_str(), 5, 1);
        ASSERT_NE(handle, nullptr);
        const time_t before = time(nullptr);
        EXPECT_EQ(Twrite(handle, 1, code.c_str(), data.data(), static_cast<unsigned>(data.size())),
                  0);
        const time_t after = time(nullptr);
        EXPECT_EQ(Tclose(handle), 0);
        const std::string bytes = read_file(path);
        ASSERT_EQ(bytes.size(), kRing);
        SCOPED_TRACE("record starting " + std::to_string(k) + " bytes before the end");
        expect_record(ring_bytes(bytes, start, length), before, after, code, data);
        const size_t expected_end =
            start + length < kRing ? start + length : 4 + start + length - kRing;
        EXPECT_EQ(word_at(bytes, 0), expected_end);
        // Nothing else in the file was touched.
        std::string untouched = bytes;
        std::memset(untouched.data(), 0, 4);
        for (size_t i = 0, pos = start; i < length; ++i, ++pos) {
            if (pos == kRing) pos = 4;
            untouched[pos] = '\0';
        }
        EXPECT_EQ(untouched, std::string(kRing, '\0'));
    }
}

TEST(TraceWrite, RecordEndingExactlyAtTheEndLeavesOffsetFour) {
    TempDir dir;
    const std::string path = dir.file("exact.trc");
    const size_t length = 12 + 4 + 4;  // code "EXCT", no data
    write_ring(path, kRing, static_cast<uint32_t>(kRing - length));
    TraceHandle* handle = Topen(path.c_str(), 5, 1);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(Twrite(handle, 1, "EXCT", nullptr, 0), 0);
    EXPECT_EQ(Tclose(handle), 0);
    const std::string bytes = read_file(path);
    EXPECT_EQ(word_at(bytes, 0), 4u);
    EXPECT_EQ(bytes.substr(kRing - 8), "EXCTEEEE");
}

TEST(TraceWrite, LongRunKeepsTheOffsetInsideTheRing) {
    TempDir dir;
    const std::string path = dir.file("run.trc");
    TraceHandle* handle = Topen(path.c_str(), 5, 1);
    ASSERT_NE(handle, nullptr);
    const std::string data(700, 'd');
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(Twrite(handle, 1, "RUN", data.data(), static_cast<unsigned>(data.size() - i % 7)),
                  0);
        uint32_t offset;
        std::memcpy(&offset, handle->map, sizeof offset);
        ASSERT_GE(offset, 4u);
        ASSERT_LT(offset, kRing);
    }
    EXPECT_EQ(Tclose(handle), 0);
}

TEST(TraceWrite, OffsetBrokenWhileOpenBlocksWriting) {
    TempDir dir;
    const std::string path = dir.file("blocked.trc");
    TraceHandle* handle = Topen(path.c_str(), 5, 1);
    ASSERT_NE(handle, nullptr);
    for (uint32_t broken : {0u, 3u, 8193u, 0xFFFFFFF0u}) {
        std::memcpy(handle->map, &broken, sizeof broken);
        EXPECT_EQ(Twrite(handle, 1, "BLOCKED", "data", 4), 0);
        uint32_t offset;
        std::memcpy(&offset, handle->map, sizeof offset);
        EXPECT_EQ(offset, broken);
    }
    EXPECT_EQ(Tclose(handle), 0);
    const std::string bytes = read_file(path);
    EXPECT_EQ(bytes.substr(4), std::string(kRing - 4, '\0'));
}

TEST(TraceWrite, HandleKeepsWritingWhenAnotherIsClosed) {
    TempDir dir;
    TraceHandle* first = Topen(dir.file("first.trc").c_str(), 5, 1);
    TraceHandle* second = Topen(dir.file("second.trc").c_str(), 5, 1);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(Tclose(first), 0);
    EXPECT_EQ(Twrite(second, 1, "STILL", nullptr, 0), 0);
    EXPECT_EQ(Tclose(second), 0);
    EXPECT_EQ(read_file(dir.file("second.trc")).substr(16, 9), "STILLEEEE");
}

TEST(TraceWrite, ThreadsWritingOneFileNeverInterleaveRecords) {
    TempDir dir;
    const std::string path = dir.file("shared.trc");
    TraceHandle* handle = Topen(path.c_str(), 100, 1);
    ASSERT_NE(handle, nullptr);
    constexpr int kThreads = 4;
    constexpr int kRecords = 200;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([handle, t] {
            const std::string data(40, static_cast<char>('A' + t));
            for (int i = 0; i < kRecords; ++i) {
                Twrite(handle, 1, "THRD", data.data(), static_cast<unsigned>(data.size()));
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(Tclose(handle), 0);
    const std::string bytes = read_file(path);
    const size_t length = 12 + 4 + 4 + 40 + 4;
    ASSERT_EQ(word_at(bytes, 0), 4 + length * kThreads * kRecords);
    for (size_t i = 0; i < static_cast<size_t>(kThreads * kRecords); ++i) {
        const std::string record = bytes.substr(4 + i * length, length);
        ASSERT_EQ(record.substr(0, 4), "SSSS") << i;
        ASSERT_EQ(record.substr(12, 8), "THRDXXXX") << i;
        ASSERT_EQ(record.substr(20, 40), std::string(40, record[20])) << i;
        ASSERT_EQ(record.substr(60), "EEEE") << i;
    }
}

}  // namespace
