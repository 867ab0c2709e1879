// Memory that cannot be had: the piece buffer of a split send is the one large
// block a send allocates, so a tight address-space limit makes it fail alone.
#include "send_fixture.h"

#include <malloc.h>
#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace send_test {
namespace {

// The process's current address-space size in bytes, from /proc.
[[maybe_unused]] long address_space_bytes() {
    FILE* status = std::fopen("/proc/self/status", "r");
    if (!status) return -1;
    char line[256];
    long kb = -1;
    while (std::fgets(line, sizeof line, status)) {
        if (std::strncmp(line, "VmSize:", 7) == 0) kb = std::strtol(line + 7, nullptr, 10);
    }
    std::fclose(status);
    return kb < 0 ? -1 : kb * 1024;
}

class SendMemory : public SendTest {};

TEST_F(SendMemory, PieceBufferThatCannotBeAllocatedGivesMinus2) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer's allocator reserves its memory up front, so an "
                    "address-space limit cannot single out one allocation";
#else
    kemail_test::TempDir dir;
    const std::string attachment = dir.file("big.bin");
    kemail_test::write_file(attachment, std::string(120 * 1024, 'x'));

    Mail mail(1);                          // never connects: the failure comes first
    mail.option = SendOptionInfo{100, 1};  // a piece buffer of about 100 KB
    mail.split = 1;
    mail.attachments = {{KEMAIL_CONTENT_ATTACHMENT, attachment}};

    // Blocks of 64 KB and more come from mmap, which the limit below refuses
    // once the process has grown by a few pages more than it holds now; the
    // heap's free top is given back first so that it cannot serve them.
    ASSERT_EQ(mallopt(M_MMAP_THRESHOLD, 64 * 1024), 1);
    ASSERT_EQ(mallopt(M_TOP_PAD, 0), 1);
    ASSERT_EQ(mallopt(M_TRIM_THRESHOLD, 0), 1);
    malloc_trim(0);
    struct rlimit saved;
    ASSERT_EQ(getrlimit(RLIMIT_AS, &saved), 0);
    const long now = address_space_bytes();
    ASSERT_GT(now, 0);
    const struct rlimit tight = {static_cast<rlim_t>(now + 48 * 1024), saved.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_AS, &tight), 0);
    // Free heap blocks of piece size could still serve the request without
    // growing the process: take them all first.
    std::vector<void*> ballast;
    ballast.reserve(4096);
    while (ballast.size() < ballast.capacity()) {
        void* block = std::malloc(100 * 1024);
        if (!block) break;
        ballast.push_back(block);
    }
    const int result = mail.send();
    ASSERT_EQ(setrlimit(RLIMIT_AS, &saved), 0);
    for (void* block : ballast) std::free(block);

    EXPECT_EQ(result, KEMAIL_E_NO_MEMORY);
    EXPECT_STREQ(mail.message, "");
    EXPECT_TRUE(file_exists(attachment));
#endif
}

}  // namespace
}  // namespace send_test
