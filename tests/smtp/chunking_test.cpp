#include "smtp_test_support.h"

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

namespace {

using namespace smtp_test;

const std::string kBoundary = "----=_NextPart_000_0042_kemail";

// Reads the whole staged file chunk by chunk; each chunk's length is kept.
std::vector<std::string> all_chunks(int fd, int size_kb, const char* boundary) {
    std::vector<std::string> chunks;
    std::vector<char> buf(static_cast<size_t>(size_kb) * 1024 + 32, '#');
    for (;;) {
        unsigned int err = 0;
        const int n = SMTP_getSendData(fd, buf.data(), size_kb, boundary, &err);
        EXPECT_GE(n, 0);
        if (n <= 0) break;
        EXPECT_LT(n, size_kb * 1024) << "the chunk and its NUL fit the buffer";
        EXPECT_EQ(buf[static_cast<size_t>(n)], '\0');
        EXPECT_EQ(std::string(buf.data() + size_kb * 1024, 32), std::string(32, '#'));
        chunks.emplace_back(buf.data(), static_cast<size_t>(n));
    }
    return chunks;
}

std::string join(const std::vector<std::string>& chunks) {
    std::string all;
    for (const std::string& chunk : chunks) all += chunk;
    return all;
}

std::string base64_lines(int count, char fill) {
    std::string lines;
    for (int i = 0; i < count; ++i) lines += std::string(76, fill) + "\r\n";
    return lines;
}

// A message as composition writes it: header block, text part, attachment
// parts with base64 bodies, closing boundary.
std::string composed_message(int attachments, int lines_per_attachment) {
    std::string message =
        "From: agent@example.com\r\nTo: ops@example.com\r\nSubject: report\r\n"
        "MIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=\"" +
        kBoundary + "\"\r\n\r\nThis is a multi-part message in MIME format.\r\n\r\n";
    message += "--" + kBoundary +
               "\r\nContent-Type: text/plain; charset=ISO-2022-JP\r\n"
               "Content-Transfer-Encoding: 7bit\r\n\r\nHello.\r\nSecond line.\r\n\r\n";
    for (int a = 0; a < attachments; ++a) {
        message += "--" + kBoundary + "\r\nContent-Type: application/octet-stream; name=\"f" +
                   std::to_string(a) +
                   ".bin\"\r\nContent-Transfer-Encoding: base64\r\n"
                   "Content-Disposition: attachment; filename=\"f" +
                   std::to_string(a) + ".bin\"\r\n\r\n";
        message += base64_lines(lines_per_attachment + a * 7, static_cast<char>('A' + a % 26));
        message += "\r\n";
    }
    message += "--" + kBoundary + "--\r\n";
    return message;
}

// Every position at which a chunk may not end: after the start of a part's
// boundary line and before the end of the part's first body line.
std::vector<std::pair<size_t, size_t>> header_spans(const std::string& message) {
    std::vector<std::pair<size_t, size_t>> spans;
    const std::string opener = "\r\n--" + kBoundary + "\r\n";
    for (size_t at = message.find(opener); at != std::string::npos;
         at = message.find(opener, at + 1)) {
        const size_t start = at + 2;
        const size_t header_end = message.find("\r\n\r\n", start) + 4;
        const size_t first_body_end = message.find("\r\n", header_end) + 2;
        spans.emplace_back(start, first_body_end);
    }
    return spans;
}

TEST(GetLine, ReturnsTheLineEndingBeforeTheGivenEnd) {
    const std::string buf = "first\r\nsecond\r\n\r\nlast\r\n";
    char line[1024];
    int end = static_cast<int>(buf.size());
    int start = SMTP_getline(buf.data(), end, line, sizeof line);
    EXPECT_EQ(start, 17);
    EXPECT_STREQ(line, "last\r\n");
    start = SMTP_getline(buf.data(), start, line, sizeof line);
    EXPECT_EQ(start, 15);
    EXPECT_STREQ(line, "\r\n");
    start = SMTP_getline(buf.data(), start, line, sizeof line);
    EXPECT_EQ(start, 7);
    EXPECT_STREQ(line, "second\r\n");
    // The walk stops at position 1: the buffer's first byte is not part of
    // the first line it hands out.
    start = SMTP_getline(buf.data(), start, line, sizeof line);
    EXPECT_EQ(start, 1);
    EXPECT_STREQ(line, "irst\r\n");
}

TEST(GetLine, ALongLineIsCutToTheLineBuffer) {
    const std::string buf = "x\r\n" + std::string(3000, 'y') + "\r\n";
    char line[1024 + 8];
    std::memset(line, '#', sizeof line);
    const int start = SMTP_getline(buf.data(), static_cast<int>(buf.size()), line, 1024);
    EXPECT_EQ(start, static_cast<int>(buf.size()) - 1023);
    EXPECT_EQ(std::strlen(line), 1023u);
    EXPECT_EQ(std::string(line + 1024, 8), std::string(8, '#'));
}

// The plain backward walk one byte at a time: where a line starts is the
// first position, going down from end - 1, that follows CR LF, reaches the
// line buffer's limit or reaches position 1.
int reference_line_start(const std::string& buf, int end, int size) {
    int start = end - 1;
    while (start > 1 && !(buf[start - 2] == '\r' && buf[start - 1] == '\n') &&
           end - start < size - 1) {
        --start;
    }
    return start;
}

TEST(GetLine, AgreesWithTheByteByByteWalkOnRandomText) {
    unsigned seed = 12345;
    auto next = [&seed] { return (seed = seed * 1103515245u + 12345u) >> 16; };
    const char alphabet[] = {'a', '\r', '\n', '-', 'x'};
    for (int round = 0; round < 2000; ++round) {
        std::string buf(2 + next() % 300, ' ');
        for (char& c : buf) c = alphabet[next() % sizeof alphabet];
        const int end = 1 + static_cast<int>(next() % buf.size());
        const int size = 2 + static_cast<int>(next() % 80);
        std::vector<char> line(static_cast<size_t>(size) + 8, '#');
        const int start = SMTP_getline(buf.data(), end, line.data(), size);
        ASSERT_EQ(start, reference_line_start(buf, end, size)) << "round " << round;
        ASSERT_EQ(std::string(line.data()),
                  buf.substr(static_cast<size_t>(start), static_cast<size_t>(end - start)));
    }
}

TEST(AddLine, CountZeroAppendsOneLine) {
    StagedFile file("line one\r\nline two\r\n");
    char dest[64] = {};
    unsigned int err = 0;
    EXPECT_EQ(SMTP_addline(file.fd, dest, 0, &err), 10);
    EXPECT_STREQ(dest, "line one\r\n");
}

TEST(AddLine, CountOnePassesTheNextEmptyLineAndTakesOneMore) {
    StagedFile file("Content-Type: x\r\nX-Other: y\r\n\r\nbody one\r\nbody two\r\n");
    char dest[128] = {};
    unsigned int err = 0;
    const int n = SMTP_addline(file.fd, dest, 1, &err);
    EXPECT_STREQ(dest, "Content-Type: x\r\nX-Other: y\r\n\r\nbody one\r\n");
    EXPECT_EQ(n, static_cast<int>(std::strlen(dest)));
}

TEST(AddLine, AnEmptyFirstLineCountsAsEmpty) {
    StagedFile file("\r\nbody\r\nmore\r\n");
    char dest[64] = {};
    unsigned int err = 0;
    EXPECT_EQ(SMTP_addline(file.fd, dest, 1, &err), 8);
    EXPECT_STREQ(dest, "\r\nbody\r\n");
}

TEST(AddLine, EndOfFileAndReadErrors) {
    StagedFile file("no line end");
    char dest[64] = {};
    unsigned int err = 0;
    trace_clear();
    EXPECT_EQ(SMTP_addline(file.fd, dest, 0, &err), 11);
    EXPECT_EQ(trace_find("smtp1211").level, 2u);
    trace_clear();
    EXPECT_EQ(SMTP_addline(-1, dest, 0, &err), -32);
    EXPECT_EQ(err, static_cast<unsigned>(EBADF));
    EXPECT_EQ(word_of(trace_find("smtp1210")), static_cast<uint32_t>(EBADF));
}

TEST(GetSendData, TheLastShortChunkIsReturnedWhole) {
    StagedFile file("short message\r\n");
    char buf[2048];
    unsigned int err = 0;
    trace_clear();
    EXPECT_EQ(SMTP_getSendData(file.fd, buf, 2, kBoundary.c_str(), &err), 15);
    EXPECT_STREQ(buf, "short message\r\n");
    EXPECT_EQ(trace_count("smtp1011"), 1);
    EXPECT_EQ(SMTP_getSendData(file.fd, buf, 2, kBoundary.c_str(), &err), 0);
}

TEST(GetSendData, AChunkIsExtendedToItsLineEnd) {
    std::string text;
    for (int i = 0; text.size() < 5000; ++i) text += "line " + std::to_string(i) + " of text\r\n";
    StagedFile file(text);
    const std::vector<std::string> chunks = all_chunks(file.fd, 2, kBoundary.c_str());
    ASSERT_GE(chunks.size(), 3u);
    EXPECT_EQ(join(chunks), text);
    for (size_t i = 0; i + 1 < chunks.size(); ++i) {
        EXPECT_GE(chunks[i].size(), 1024u);
        EXPECT_EQ(chunks[i].substr(chunks[i].size() - 2), "\r\n");
    }
}

TEST(GetSendData, ALineLongerThanTheReserveStopsAtTheBuffersEnd) {
    const std::string text = "head\r\n" + std::string(5000, 'L') + "\r\ntail\r\n";
    StagedFile file(text);
    const std::vector<std::string> chunks = all_chunks(file.fd, 2, kBoundary.c_str());
    ASSERT_GE(chunks.size(), 3u);
    EXPECT_EQ(chunks[0].size(), 2047u);
    EXPECT_EQ(chunks[1].size(), 2047u);
    EXPECT_EQ(join(chunks), text);
}

TEST(GetSendData, LongLinesNextToAPartHeaderStayInTheBuffer) {
    std::string text = "x\r\n--" + kBoundary + "\r\nContent-Type: a\r\n" + std::string(4000, 'h') +
                       "\r\n\r\n" + std::string(3000, 'b') + "\r\nend\r\n";
    for (int size_kb : {2, 3, 4, 5}) {
        StagedFile file(text);
        const std::vector<std::string> chunks = all_chunks(file.fd, size_kb, kBoundary.c_str());
        EXPECT_EQ(join(chunks), text) << size_kb;
    }
}

TEST(GetSendData, APartHeaderCutByTheChunkIsCompletedWithItsFirstBodyLine) {
    // The boundary line ends inside the first KiB, the header after it
    // crosses the KiB's end.
    std::string text = std::string(978, 'p') + "\r\n";
    text += "--" + kBoundary + "\r\n";
    ASSERT_LT(text.size(), 1024u);
    text += "Content-Type: text/plain\r\n";
    ASSERT_GT(text.size(), 1024u);
    text += "Content-Transfer-Encoding: 7bit\r\n\r\n";
    text += "first body line\r\nsecond body line\r\n--" + kBoundary + "--\r\n";
    StagedFile file(text);
    char buf[2048 + 16];
    unsigned int err = 0;
    const int n = SMTP_getSendData(file.fd, buf, 2, kBoundary.c_str(), &err);
    ASSERT_GT(n, 0);
    const std::string chunk(buf, static_cast<size_t>(n));
    EXPECT_EQ(chunk, text.substr(0, text.find("second body line")));
}

TEST(GetSendData, ABoundaryLineEndingTheChunkIsFollowedByItsHeaderAndFirstBodyLine) {
    std::string text = std::string(1024 - 2 - 2 - kBoundary.size() - 2, 'p') + "\r\n";
    text += "--" + kBoundary + "\r\n";
    ASSERT_EQ(text.size(), 1024u);
    text += "Content-Type: text/plain\r\n\r\nbody one\r\nbody two\r\n";
    StagedFile file(text);
    char buf[2048];
    unsigned int err = 0;
    const int n = SMTP_getSendData(file.fd, buf, 2, kBoundary.c_str(), &err);
    EXPECT_EQ(std::string(buf, static_cast<size_t>(n)), text.substr(0, text.find("body two")));
}

TEST(GetSendData, AChunkEndingRightAfterAHeaderBlockTakesTheFirstBodyLine) {
    std::string text = std::string(900, 'p') + "\r\n--" + kBoundary + "\r\nContent-Type: x\r\n";
    text += std::string(1024 - text.size() - 4, 'z') + "\r\n\r\n";  // the block ends at 1024
    ASSERT_EQ(text.size(), 1024u);
    text += "body line one\r\nbody line two\r\n";
    StagedFile file(text);
    char buf[2048];
    unsigned int err = 0;
    const int n = SMTP_getSendData(file.fd, buf, 2, kBoundary.c_str(), &err);
    EXPECT_EQ(std::string(buf, static_cast<size_t>(n)), text.substr(0, 1024 + 15));
}

TEST(GetSendData, TheClosingBoundaryEndsTheWalkAndTheChunkStaysAsItIs) {
    std::string text = std::string(900, 'p') + "\r\n--" + kBoundary + "--\r\n";
    const size_t straddling_start = text.size();
    text += std::string(1100 - straddling_start, 'z') + "\r\n";
    const size_t chunk_end = text.size();
    text += "epilogue line\r\nmore\r\n";
    StagedFile file(text);
    char buf[2048];
    unsigned int err = 0;
    trace_clear();
    EXPECT_EQ(SMTP_getSendData(file.fd, buf, 2, kBoundary.c_str(), &err),
              static_cast<int>(chunk_end));
    EXPECT_EQ(trace_count("smtp1031"), 1);
}

// How often cutting at line ends alone would split a part header: the cases
// the boundary walk has to repair.
int naive_splits(const std::string& message, int size_kb,
                 const std::vector<std::pair<size_t, size_t>>& spans) {
    int splits = 0;
    size_t at = 0;
    const size_t wanted = static_cast<size_t>(size_kb - 1) * 1024;
    while (message.size() - at > wanted) {
        size_t cut = at + wanted;
        while (cut < message.size() && message.compare(cut - 2, 2, "\r\n") != 0) ++cut;
        for (const auto& [start, end] : spans) splits += cut > start && cut < end;
        at = cut;
    }
    return splits;
}

TEST(GetSendData, NeverSeparatesAPartHeaderFromItsFirstBodyLine) {
    int repaired = 0;
    for (int attachments : {1, 3, 8}) {
        for (int lines : {1, 5, 13, 40}) {
            const std::string message = composed_message(attachments, lines);
            const auto spans = header_spans(message);
            ASSERT_FALSE(spans.empty());
            for (int size_kb = 2; size_kb <= 12; ++size_kb) {
                repaired += naive_splits(message, size_kb, spans);
                StagedFile file(message);
                const std::vector<std::string> chunks =
                    all_chunks(file.fd, size_kb, kBoundary.c_str());
                ASSERT_EQ(join(chunks), message);
                size_t cut = 0;
                for (size_t i = 0; i + 1 < chunks.size(); ++i) {
                    cut += chunks[i].size();
                    for (const auto& [start, end] : spans) {
                        EXPECT_FALSE(cut > start && cut < end)
                            << "cut at " << cut << " inside the part header at " << start << ".."
                            << end << " (" << attachments << " attachments, " << lines << " lines, "
                            << size_kb << " KiB)";
                    }
                }
            }
        }
    }
    EXPECT_GT(repaired, 0) << "the messages must put part headers at chunk ends";
}

TEST(GetSendData, ReadErrorsAndBadSizes) {
    char buf[4096];
    unsigned int err = 0;
    trace_clear();
    EXPECT_EQ(SMTP_getSendData(-1, buf, 2, kBoundary.c_str(), &err), -32);
    EXPECT_EQ(err, static_cast<unsigned>(EBADF));
    EXPECT_EQ(trace_find("smtp1010").level, 0u);
    StagedFile file("abc\r\n");
    EXPECT_EQ(SMTP_getSendData(file.fd, buf, 1, kBoundary.c_str(), &err), -32);
    EXPECT_EQ(err, static_cast<unsigned>(EINVAL));
}

TEST(GetSendData, AMissingBoundaryReturnsTheChunk) {
    const std::string text = std::string(3000, 'a') + "\r\n";
    StagedFile file(text);
    char buf[2048];
    unsigned int err = 0;
    trace_clear();
    EXPECT_EQ(SMTP_getSendData(file.fd, buf, 2, kBoundary.c_str(), &err), 2047);
    EXPECT_EQ(trace_count("smtp1030"), 1);
}

}  // namespace
