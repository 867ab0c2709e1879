// The base64 engines against a plain RFC 4648 encoder written here, and
// against each other: every length up to 600 and random inputs of up to a
// few hundred KiB, for base64_encode and for the line layout of attachment
// bodies. Inputs and outputs are placed against inaccessible pages, so a
// read or write past either end of a buffer kills the test.
#include "compose/compose.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

namespace {

using kemail::Base64Engine;

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// RFC 4648 section 4, six bits at a time.
std::string reference_base64(const unsigned char* in, size_t length) {
    std::string out;
    for (size_t i = 0; i < length; i += 3) {
        const size_t n = length - i < 3 ? length - i : 3;
        unsigned bits = 0;
        for (size_t k = 0; k < 3; ++k) bits = (bits << 8) | (k < n ? in[i + k] : 0u);
        for (size_t k = 0; k < 4; ++k) {
            out += k <= n ? kAlphabet[(bits >> (18 - 6 * k)) & 0x3F] : '=';
        }
    }
    return out;
}

// Each 51 bytes (the last piece maybe fewer) as one line ending in CR LF.
std::string reference_lines(const unsigned char* in, size_t length) {
    std::string out;
    for (size_t done = 0; done < length; done += 51) {
        out += reference_base64(in + done, length - done < 51 ? length - done : 51);
        out += "\r\n";
    }
    return out;
}

// Read-write pages between two inaccessible ones.
class GuardedRegion {
public:
    explicit GuardedRegion(size_t size) {
        page_ = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        usable_ = (size + page_ - 1) / page_ * page_;
        if (usable_ == 0) usable_ = page_;
        total_ = usable_ + 2 * page_;
        void* map =
            mmap(nullptr, total_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (map == MAP_FAILED) {
            ADD_FAILURE() << "mmap: " << std::strerror(errno);
            return;
        }
        base_ = static_cast<unsigned char*>(map);
        if (mprotect(base_, page_, PROT_NONE) != 0 ||
            mprotect(base_ + page_ + usable_, page_, PROT_NONE) != 0) {
            ADD_FAILURE() << "mprotect: " << std::strerror(errno);
        }
    }
    ~GuardedRegion() {
        if (base_ != nullptr) munmap(base_, total_);
    }
    GuardedRegion(const GuardedRegion&) = delete;
    GuardedRegion& operator=(const GuardedRegion&) = delete;

    bool ready() const { return base_ != nullptr; }
    // size bytes right after the leading guard page.
    unsigned char* head() { return base_ + page_; }
    // size bytes whose last one is followed by the trailing guard page.
    unsigned char* tail(size_t size) { return base_ + page_ + usable_ - size; }

private:
    size_t page_ = 0;
    size_t usable_ = 0;
    size_t total_ = 0;
    unsigned char* base_ = nullptr;
};

enum class Placement { AfterAGuard, BeforeAGuard };

// The input copied into a guarded region of exactly its size, and an output
// region of exactly out_size bytes, both against a guard on the side asked.
struct Guarded {
    Guarded(const std::string& bytes, size_t out_size, Placement where)
        : in_region(bytes.size()), out_region(out_size) {
        if (!in_region.ready() || !out_region.ready()) return;
        const bool head = where == Placement::AfterAGuard;
        in = head ? in_region.head() : in_region.tail(bytes.size());
        out = reinterpret_cast<char*>(head ? out_region.head() : out_region.tail(out_size));
        if (!bytes.empty()) std::memcpy(in, bytes.data(), bytes.size());
    }
    GuardedRegion in_region;
    GuardedRegion out_region;
    unsigned char* in = nullptr;
    char* out = nullptr;
};

std::string encode(Base64Engine engine, const std::string& bytes, Placement where) {
    const size_t length = bytes.size();
    const size_t out_size = 4 * ((length + 2) / 3) + 1;
    const Guarded at(bytes, out_size, where);
    if (at.in == nullptr) return "(no memory)";
    const size_t n = kemail::base64_encode(engine, at.in, length, at.out);
    EXPECT_EQ(n, out_size - 1);
    EXPECT_EQ(at.out[n], '\0');
    EXPECT_EQ(std::memcmp(at.in, bytes.data(), length), 0) << "the input was changed";
    return std::string(at.out, n);
}

std::string lines(Base64Engine engine, const std::string& bytes, Placement where) {
    const size_t length = bytes.size();
    // Exactly the bytes written: 70 for each whole line, fewer for a short
    // last one.
    const size_t rest = length % 51;
    const size_t out_size = 70 * (length / 51) + (rest == 0 ? 0 : 4 * ((rest + 2) / 3) + 2);
    const Guarded at(bytes, out_size, where);
    if (at.in == nullptr) return "(no memory)";
    const size_t n = kemail::base64_lines(at.in, length, at.out, engine);
    EXPECT_EQ(n, out_size);
    return std::string(at.out, n);
}

// The attachment body as it was made before base64_lines: base64_encode on
// each 51-byte piece with the scalar engine, CR LF after each.
std::string scalar_line_by_line(const std::string& bytes) {
    std::string out;
    char line[72];
    const auto* in = reinterpret_cast<const unsigned char*>(bytes.data());
    for (size_t done = 0; done < bytes.size(); done += 51) {
        const size_t take = bytes.size() - done < 51 ? bytes.size() - done : 51;
        out.append(line, kemail::base64_encode(Base64Engine::Scalar, in + done, take, line));
        out += "\r\n";
    }
    return out;
}

std::string random_bytes(std::mt19937& random, size_t length) {
    std::string bytes(length, '\0');
    for (auto& b : bytes) b = static_cast<char>(random() & 0xFF);
    return bytes;
}

std::string reference_of(const std::string& bytes) {
    return reference_base64(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

std::string reference_lines_of(const std::string& bytes) {
    return reference_lines(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

class Base64Engines : public testing::TestWithParam<Base64Engine> {
protected:
    void SetUp() override {
        if (!kemail::base64_engine_available(GetParam())) {
            GTEST_SKIP() << "this CPU cannot run the engine";
        }
    }
};

TEST(Base64Engine, ScalarAndBestAreAlwaysAvailable) {
    EXPECT_TRUE(kemail::base64_engine_available(Base64Engine::Scalar));
    EXPECT_TRUE(kemail::base64_engine_available(Base64Engine::Best));
}

TEST_P(Base64Engines, Rfc4648Vectors) {
    EXPECT_EQ(encode(GetParam(), "", Placement::BeforeAGuard), "");
    EXPECT_EQ(encode(GetParam(), "f", Placement::BeforeAGuard), "Zg==");
    EXPECT_EQ(encode(GetParam(), "fo", Placement::BeforeAGuard), "Zm8=");
    EXPECT_EQ(encode(GetParam(), "foo", Placement::BeforeAGuard), "Zm9v");
    EXPECT_EQ(encode(GetParam(), "foob", Placement::BeforeAGuard), "Zm9vYg==");
    EXPECT_EQ(encode(GetParam(), "fooba", Placement::BeforeAGuard), "Zm9vYmE=");
    EXPECT_EQ(encode(GetParam(), "foobar", Placement::BeforeAGuard), "Zm9vYmFy");
}

TEST_P(Base64Engines, EveryCharacterOfTheAlphabetInOneVectorStep) {
    // The 48 bytes whose base64 is the alphabet itself, twice 24: every
    // sextet value at every position class of a group.
    std::string bytes;
    for (size_t i = 0; i < 64; i += 4) {
        const unsigned v = (unsigned(i) << 18) | (unsigned(i + 1) << 12) | (unsigned(i + 2) << 6) |
                           unsigned(i + 3);
        bytes += static_cast<char>(v >> 16);
        bytes += static_cast<char>((v >> 8) & 0xFF);
        bytes += static_cast<char>(v & 0xFF);
    }
    ASSERT_EQ(bytes.size(), 48u);
    EXPECT_EQ(encode(GetParam(), bytes, Placement::BeforeAGuard), kAlphabet);
    // And shifted by one sextet position at a time.
    for (size_t shift = 1; shift < 4; ++shift) {
        std::string rotated;
        for (size_t i = 0; i < 64; i += 4) {
            unsigned v = 0;
            for (size_t k = 0; k < 4; ++k) v = (v << 6) | unsigned((i + k + shift * 17) % 64);
            rotated += static_cast<char>(v >> 16);
            rotated += static_cast<char>((v >> 8) & 0xFF);
            rotated += static_cast<char>(v & 0xFF);
        }
        EXPECT_EQ(encode(GetParam(), rotated, Placement::AfterAGuard), reference_of(rotated));
    }
}

TEST_P(Base64Engines, EveryLengthUpTo600MatchesThePlainEncoder) {
    std::mt19937 random(600);
    for (size_t length = 0; length <= 600; ++length) {
        const std::string bytes = random_bytes(random, length);
        const std::string expected = reference_of(bytes);
        ASSERT_EQ(encode(GetParam(), bytes, Placement::BeforeAGuard), expected)
            << "length " << length;
        ASSERT_EQ(encode(GetParam(), bytes, Placement::AfterAGuard), expected)
            << "length " << length;
        ASSERT_EQ(encode(Base64Engine::Scalar, bytes, Placement::BeforeAGuard), expected)
            << "length " << length;
    }
}

TEST_P(Base64Engines, RandomLongInputsMatchTheScalarEngine) {
    std::mt19937 random(4648);
    for (int round = 0; round < 24; ++round) {
        const size_t length = random() % (384 * 1024);
        const std::string bytes = random_bytes(random, length);
        const std::string scalar = encode(Base64Engine::Scalar, bytes, Placement::BeforeAGuard);
        ASSERT_EQ(scalar, reference_of(bytes)) << "length " << length;
        ASSERT_EQ(encode(GetParam(), bytes, Placement::BeforeAGuard), scalar)
            << "length " << length;
        ASSERT_EQ(encode(GetParam(), bytes, Placement::AfterAGuard), scalar) << "length " << length;
    }
}

TEST_P(Base64Engines, LinesOfEveryLengthUpTo600MatchLineByLineEncoding) {
    std::mt19937 random(51);
    for (size_t length = 0; length <= 600; ++length) {
        const std::string bytes = random_bytes(random, length);
        const std::string expected = scalar_line_by_line(bytes);
        ASSERT_EQ(expected, reference_lines_of(bytes)) << "length " << length;
        ASSERT_EQ(lines(GetParam(), bytes, Placement::BeforeAGuard), expected)
            << "length " << length;
        ASSERT_EQ(lines(GetParam(), bytes, Placement::AfterAGuard), expected)
            << "length " << length;
    }
}

TEST_P(Base64Engines, LinesOfRandomLongInputsMatchLineByLineEncoding) {
    std::mt19937 random(68);
    for (int round = 0; round < 24; ++round) {
        // Whole lines half of the time, as the blocks of a long file are.
        size_t length = random() % (384 * 1024);
        if (round % 2 == 0) length -= length % 51;
        const std::string bytes = random_bytes(random, length);
        const std::string expected = scalar_line_by_line(bytes);
        ASSERT_EQ(lines(GetParam(), bytes, Placement::BeforeAGuard), expected)
            << "length " << length;
        ASSERT_EQ(lines(GetParam(), bytes, Placement::AfterAGuard), expected)
            << "length " << length;
    }
}

TEST_P(Base64Engines, LinesAreSixtyEightCharactersAndCrLf) {
    const std::string bytes(51 * 3 + 2, '\xFF');
    const std::string line = std::string(68, '/') + "\r\n";
    EXPECT_EQ(lines(GetParam(), bytes, Placement::BeforeAGuard), line + line + line + "//8=\r\n");
}

std::string engine_name(const testing::TestParamInfo<Base64Engine>& info) {
    switch (info.param) {
        case Base64Engine::Best: return "Best";
        case Base64Engine::Scalar: return "Scalar";
        case Base64Engine::Avx2: return "Avx2";
    }
    return "Unknown";
}

INSTANTIATE_TEST_SUITE_P(Each, Base64Engines,
                         testing::Values(Base64Engine::Scalar, Base64Engine::Avx2,
                                         Base64Engine::Best),
                         engine_name);

}  // namespace
