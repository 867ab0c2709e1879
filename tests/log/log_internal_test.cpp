// Internal helpers of the trace facility: size rounding, block copies, the
// ring put and the list of old files.
#include "log/log.h"

#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include <fcntl.h>
#include <unistd.h>

namespace {

using kemail_test::read_file;
using kemail_test::TempDir;
using kemail_test::write_file;

TEST(TraceRounding, AlwaysAddsAnEightKilobyteBlock) {
    EXPECT_EQ(kemail::Trc_RoundSizeKb(1), 8u);
    EXPECT_EQ(kemail::Trc_RoundSizeKb(5), 8u);
    EXPECT_EQ(kemail::Trc_RoundSizeKb(7), 8u);
    EXPECT_EQ(kemail::Trc_RoundSizeKb(8), 16u);
    EXPECT_EQ(kemail::Trc_RoundSizeKb(9), 16u);
    EXPECT_EQ(kemail::Trc_RoundSizeKb(100), 104u);
    EXPECT_EQ(kemail::Trc_RoundSizeKb(104), 112u);
}

TEST(TraceCopyBlocks, ShortSourceIsPaddedBlockByBlock) {
    TempDir dir;
    write_file(dir.file("from"), std::string(1500, 'a'));
    const int from = ::open(dir.file("from").c_str(), O_RDONLY);
    const int to = ::open(dir.file("to").c_str(), O_RDWR | O_CREAT, 0644);
    ASSERT_GE(from, 0);
    ASSERT_GE(to, 0);
    EXPECT_EQ(kemail::Trc_CopyBlocks(from, to, 3), 0);
    ::close(from);
    ::close(to);
    const std::string copied = read_file(dir.file("to"));
    ASSERT_EQ(copied.size(), 3072u);
    EXPECT_EQ(copied.substr(0, 1500), std::string(1500, 'a'));
    EXPECT_EQ(copied.substr(1500), std::string(3072 - 1500, '\0'));
}

TEST(TraceCopyBlocks, LongerSourceIsCutToTheCount) {
    TempDir dir;
    write_file(dir.file("from"), std::string(5000, 'b'));
    write_file(dir.file("to"), std::string(9000, 'c'));
    const int from = ::open(dir.file("from").c_str(), O_RDONLY);
    const int to = ::open(dir.file("to").c_str(), O_RDWR);
    EXPECT_EQ(kemail::Trc_CopyBlocks(from, to, 2), 0);
    ::close(from);
    ::close(to);
    const std::string copied = read_file(dir.file("to"));
    EXPECT_EQ(copied, std::string(2048, 'b') + std::string(9000 - 2048, 'c'));
}

TEST(TraceCopyBlocks, ReadOrWriteFailureIsMinusOne) {
    TempDir dir;
    write_file(dir.file("from"), "x");
    const int from = ::open(dir.file("from").c_str(), O_RDONLY);
    const int read_only = ::open(dir.file("from").c_str(), O_RDONLY);
    const int write_only = ::open(dir.file("w").c_str(), O_WRONLY | O_CREAT, 0644);
    EXPECT_EQ(kemail::Trc_CopyBlocks(from, read_only, 1), -1);
    EXPECT_EQ(kemail::Trc_CopyBlocks(write_only, from, 1), -1);
    EXPECT_EQ(kemail::Trc_CopyBlocks(-1, write_only, 1), -1);
    ::close(from);
    ::close(read_only);
    ::close(write_only);
}

TEST(TraceRemoveTemp, ClosesAndUnlinks) {
    TempDir dir;
    const std::string path = dir.file("trcTEMP");
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT, 0644);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(kemail::Trc_RemoveTemp(fd, path.c_str()), 0);
    EXPECT_NE(::access(path.c_str(), F_OK), 0);
    EXPECT_NE(::fcntl(fd, F_GETFD), 0);
    EXPECT_EQ(kemail::Trc_RemoveTemp(-1, path.c_str()), -1);
}

TEST(TracePutRing, PieceLongerThanTheRingStaysInside) {
    alignas(4) unsigned char ring[8192 + 64];
    std::memset(ring, 0x5a, sizeof ring);
    std::memset(ring, 0, 8192);
    TraceHandle handle = {3, ring, 8, 1};
    const uint32_t start = 100;
    std::memcpy(ring, &start, sizeof start);
    const std::string piece(9000, 'p');
    kemail::Trc_PutRing(&handle, piece.data(), piece.size());
    uint32_t offset;
    std::memcpy(&offset, ring, sizeof offset);
    EXPECT_GE(offset, 4u);
    EXPECT_LE(offset, 8192u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(ring) + 8192, 64), std::string(64, '\x5a'));
    EXPECT_EQ(std::string(reinterpret_cast<char*>(ring) + 4, 8188), std::string(8188, 'p'));
}

TEST(TracePutRing, PieceEndingAtTheEndSetsOffsetFour) {
    alignas(4) unsigned char ring[8192] = {};
    TraceHandle handle = {3, ring, 8, 1};
    const uint32_t start = 8190;
    std::memcpy(ring, &start, sizeof start);
    kemail::Trc_PutRing(&handle, "ab", 2);
    uint32_t offset;
    std::memcpy(&offset, ring, sizeof offset);
    EXPECT_EQ(offset, 4u);
    EXPECT_EQ(ring[8190], 'a');
    EXPECT_EQ(ring[8191], 'b');
    kemail::Trc_PutRing(&handle, "cde", 3);
    std::memcpy(&offset, ring, sizeof offset);
    EXPECT_EQ(offset, 7u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(ring) + 4, 3), "cde");
}

TEST(OldFileList, NewestFirstAndEqualTimesInArrivalOrder) {
    kemail::OldFile* list = nullptr;
    ASSERT_EQ(kemail::DeleteOldFiles_AddList(&list, "b", 20), 0);
    ASSERT_EQ(kemail::DeleteOldFiles_AddList(&list, "a", 10), 0);
    ASSERT_EQ(kemail::DeleteOldFiles_AddList(&list, "c", 30), 0);
    ASSERT_EQ(kemail::DeleteOldFiles_AddList(&list, "b2", 20), 0);
    ASSERT_EQ(kemail::DeleteOldFiles_AddList(&list, "c2", 30), 0);
    std::string order;
    for (const kemail::OldFile* node = list; node; node = node->next)
        order += std::string(node->path) + " ";
    EXPECT_EQ(order, "c c2 b b2 a ");
    kemail::DeleteOldFiles_FreeList(list);
}

TEST(OldFileList, LongPathIsCutToTheNode) {
    kemail::OldFile* list = nullptr;
    const std::string path(3000, 'x');
    ASSERT_EQ(kemail::DeleteOldFiles_AddList(&list, path.c_str(), 1), 0);
    EXPECT_EQ(std::strlen(list->path), kemail::kOldFilePathSize - 1);
    kemail::DeleteOldFiles_FreeList(list);
}

TEST(OldFileList, DeletesFromTheKeepPositionOn) {
    TempDir dir;
    kemail::OldFile* list = nullptr;
    for (int i = 1; i <= 4; ++i) {
        // Appended rather than "f" + std::to_string(i): GCC 12 at -O2 and above
        // reports a false -Wrestrict overlap inside operator+(const char*, string&&).
        std::string name = "f";
        name += std::to_string(i);
        const std::string path = dir.file(name);
        write_file(path, "x");
        ASSERT_EQ(kemail::DeleteOldFiles_AddList(&list, path.c_str(), 100 - i), 0);
    }
    kemail::DeleteOldFiles_DeleteList(list, 3);
    kemail::DeleteOldFiles_FreeList(list);
    EXPECT_EQ(::access(dir.file("f1").c_str(), F_OK), 0);
    EXPECT_EQ(::access(dir.file("f2").c_str(), F_OK), 0);
    EXPECT_NE(::access(dir.file("f3").c_str(), F_OK), 0);
    EXPECT_NE(::access(dir.file("f4").c_str(), F_OK), 0);
}

}  // namespace
