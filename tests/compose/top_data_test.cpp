// The header block and the text part of a composed message.
#include "compose_support.h"

#include <sys/stat.h>

namespace {

using compose_test::from_iso2022;
using compose_test::has_trace;
using compose_test::mask_message;
using compose_test::sjis;
using compose_test::trace_codes;
using compose_test::trace_of;
using compose_test::word_of;

const std::string kUsAscii = "Content-Type: text/plain; charset=\"us-ascii\"\r\n\r\n";
const std::string kIso2022 = "Content-Type: text/plain; charset=\"ISO-2022-JP\"\r\n\r\n";
const std::string kHead = "Date: <DATE>\r\nFrom: from@example.com\r\nTo: to@example.com\r\n";
const std::string kTail = "Message-Id: <MSGID>\r\nMIME-Version: 1.0\r\n";

class TopData : public compose_test::ComposeTest {
protected:
    int compose(const char* body, const char* to = "to@example.com", const char* subject = "Hi",
                int multipart = 0, int partial = 0) {
        std::memset(boundary_, 0, sizeof boundary_);
        return SMTP_makeTopData(fd_, body, "from@example.com", to, subject, boundary_, multipart,
                                partial, &err_);
    }
    // The text part as written after the message header.
    std::string text_part() {
        const std::string all = message();
        const size_t at = all.find("MIME-Version: 1.0\r\n");
        return at == std::string::npos ? std::string() : all.substr(at + 19);
    }
    int compose_body(const std::string& bytes) {
        const std::string path = write_input("body.txt", bytes);
        return compose(path.c_str());
    }

    char boundary_[KEMAIL_BOUNDARY_SIZE] = {};
    unsigned int err_ = 12345;
};

TEST_F(TopData, HeaderOnlyMessage) {
    ASSERT_EQ(compose(nullptr), 0);
    EXPECT_EQ(err_, 0u);
    EXPECT_EQ(mask_message(message()), kHead + "Subject: Hi\r\n" + kTail);
    std::vector<std::string> own;
    for (const auto& code : trace_codes()) {
        if (code.rfind("smtp", 0) == 0) own.push_back(code);
    }
    EXPECT_EQ(own, (std::vector<std::string>{"smtp0600", "smtp0601", "smtp0616", "smtp0617",
                                             "smtp0617-1", "smtp0617-2", "smtp0617-3", "smtp0617-4",
                                             "smtp0619", "smtp0621", "smtp0640"}));
    EXPECT_TRUE(has_trace("mkmsgidFFFF"));
    EXPECT_TRUE(has_trace("GETDIFFFFFF"));
    EXPECT_EQ(trace_of("smtp0600").level, 1u);
    EXPECT_EQ(trace_of("smtp0619").data, "Subject: Hi\r\n");
    EXPECT_EQ(trace_of("smtp0617-1").data, "Hi");
    EXPECT_EQ(trace_of("smtp0617-2").data, "to@example.com");
    EXPECT_EQ(trace_of("smtp0617-4").data, "Hi");
}

TEST_F(TopData, DateLineHoldsTheDateText) {
    ASSERT_EQ(compose(nullptr), 0);
    const std::string all = message();
    ASSERT_EQ(all.substr(0, 6), "Date: ");
    const std::string value = all.substr(6, all.find("\r\n") - 6);
    char date[KEMAIL_DATE_SIZE];
    SMTP_makeDate(date);
    EXPECT_EQ(value.substr(0, 16), std::string(date).substr(0, 16));
    EXPECT_EQ(value.size(), std::strlen(date));
}

TEST_F(TopData, ThreeRecipientsGiveThreeToLines) {
    ASSERT_EQ(compose(nullptr, "a@x.jp,b@y.jp,c@z.jp"), 0);
    EXPECT_NE(message().find("\r\nTo: a@x.jp,\r\n    b@y.jp,\r\n    c@z.jp\r\nSubject: "),
              std::string::npos);
}

TEST_F(TopData, BlankAfterACommaFollowsTheFourSpaces) {
    ASSERT_EQ(compose(nullptr, "a@x.jp, b@y.jp"), 0);
    EXPECT_NE(message().find("\r\nTo: a@x.jp,\r\n     b@y.jp\r\nSubject: "), std::string::npos);
}

TEST_F(TopData, EmptyRecipientListGivesOneEmptyToLine) {
    ASSERT_EQ(compose(nullptr, ""), 0);
    EXPECT_NE(message().find("\r\nTo: \r\nSubject: "), std::string::npos);
}

TEST_F(TopData, TrailingCommaGivesAnEmptyContinuationLine) {
    ASSERT_EQ(compose(nullptr, "a@x.jp,"), 0);
    EXPECT_NE(message().find("\r\nTo: a@x.jp,\r\n    \r\nSubject: "), std::string::npos);
}

TEST_F(TopData, OverlongRecipientElementIsCut) {
    const std::string longer(2000, 'r');
    const std::string list = longer + ",next@example.com";
    ASSERT_EQ(compose(nullptr, list.c_str()), 0);
    EXPECT_NE(message().find("\r\nTo: " + longer.substr(0, 1039) + "\r\n    next@example.com\r\n"),
              std::string::npos);
}

TEST_F(TopData, PartialMessageStartsWithTheSubject) {
    ASSERT_EQ(compose(nullptr, "to@example.com", "Hi", 0, 1), 0);
    EXPECT_EQ(mask_message(message()), "Subject: Hi\r\n" + kTail);
    EXPECT_FALSE(has_trace("smtp0601"));
    EXPECT_EQ(trace_of("smtp0617-2").data, "");
}

TEST_F(TopData, NoSubjectGivesAnEmptySubjectLine) {
    ASSERT_EQ(compose(nullptr, "to@example.com", nullptr), 0);
    EXPECT_NE(message().find("\r\nSubject: \r\nMessage-Id: "), std::string::npos);
    EXPECT_TRUE(has_trace("smtp0618"));
    EXPECT_FALSE(has_trace("smtp0617"));
}

TEST_F(TopData, JapaneseSubjectIsEncoded) {
    const std::string subject = sjis("障害通知");
    ASSERT_EQ(compose(nullptr, "to@example.com", subject.c_str()), 0);
    char expected[1040];
    SMTP_makeSubject(subject.c_str(), expected);
    EXPECT_NE(message().find("\r\nSubject: " + std::string(expected) + "\r\n"), std::string::npos);
    EXPECT_EQ(trace_of("smtp0617-4").data, expected);
    EXPECT_EQ(trace_of("smtp0617-3").data, subject);
}

TEST_F(TopData, OverlongAsciiSubjectIsCut) {
    const std::string subject(3000, 's');
    ASSERT_EQ(compose(nullptr, "to@example.com", subject.c_str()), 0);
    EXPECT_NE(message().find("\r\nSubject: " + subject.substr(0, 1039) + "\r\nMessage-Id: "),
              std::string::npos);
}

TEST_F(TopData, MultipartWithoutTextEndsAfterTheFirstDelimiter) {
    ASSERT_EQ(compose(nullptr, "to@example.com", "Hi", 1), 0);
    EXPECT_TRUE(compose_test::matches(boundary_, "-{15}ZvLunt[0-9]{10}")) << boundary_;
    const std::string b = boundary_;
    const std::string tail = "MIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=\"" + b +
                             "\"\r\n\r\n--" + b + "\r\n";
    ASSERT_GT(message().size(), tail.size());
    EXPECT_EQ(message().substr(message().size() - tail.size()), tail);
    EXPECT_TRUE(has_trace("smtp0626"));
}

TEST_F(TopData, AsciiBodyIsUsAsciiAndEndsWithAnEmptyLine) {
    ASSERT_EQ(compose_body("line one\r\nline two\r\n"), 0);
    EXPECT_EQ(text_part(), kUsAscii + "line one\r\nline two\r\n\r\n");
    EXPECT_EQ(trace_of("smtp0654").data, "Content-Type: text/plain; charset=\"us-ascii\"\r\n");
    EXPECT_TRUE(has_trace("smtp0651"));
    EXPECT_EQ(trace_of("smtp06FF").level, 1u);
}

TEST_F(TopData, LastLineWithoutLineEndIsCompleted) {
    ASSERT_EQ(compose_body("one\r\nlast"), 0);
    EXPECT_EQ(text_part(), kUsAscii + "one\r\nlast\r\n");
}

TEST_F(TopData, EmptyBodyFileGivesAnEmptyTextPart) {
    ASSERT_EQ(compose_body(""), 0);
    EXPECT_EQ(text_part(), kUsAscii + "\r\n");
}

TEST_F(TopData, JapaneseBodyIsIso2022Jp) {
    const std::string utf8 = "お知らせ: ディスク使用率 95%\r\n対象ホスト host1\r\n";
    ASSERT_EQ(compose_body(sjis(utf8)), 0);
    const std::string part = text_part();
    ASSERT_EQ(part.substr(0, kIso2022.size()), kIso2022);
    const std::string text = part.substr(kIso2022.size());
    for (unsigned char c : text) ASSERT_LT(c, 0x80);
    EXPECT_EQ(from_iso2022(text), utf8 + "\r\n");
    EXPECT_TRUE(has_trace("smtp0652"));
    EXPECT_TRUE(has_trace("smtp0653"));
    EXPECT_FALSE(has_trace("smtp0651"));
}

// Kept: half-width katakana are not lead bytes; such a body is "us-ascii"
// and its 8-bit bytes go out unchanged.
TEST_F(TopData, KatakanaOnlyBodyIsUsAscii) {
    const std::string body = "ABC " + sjis("ﾃｽﾄ ﾒｯｾｰｼﾞ") + "\r\n";
    ASSERT_EQ(compose_body(body), 0);
    EXPECT_EQ(text_part(), kUsAscii + body + "\r\n");
}

TEST_F(TopData, LineStartingWithADotIsDoubled) {
    ASSERT_EQ(compose_body(".\r\n.hidden\r\nnot.first\r\n"), 0);
    EXPECT_EQ(text_part(), kUsAscii + "..\r\n..hidden\r\nnot.first\r\n\r\n");
}

TEST_F(TopData, DotLineInAJapaneseBodyIsDoubled) {
    ASSERT_EQ(compose_body(sjis("本文\r\n.終わり\r\n")), 0);
    const std::string text = text_part().substr(kIso2022.size());
    EXPECT_NE(text.find("\r\n..\x1b$B"), std::string::npos);
}

TEST_F(TopData, LongLineIsCutEvery1024Bytes) {
    std::string line;
    for (int i = 0; i < 3000; ++i) line += static_cast<char>('a' + i % 26);
    ASSERT_EQ(compose_body(line), 0);
    EXPECT_EQ(text_part(), kUsAscii + line.substr(0, 1024) + "\r\n" + line.substr(1024, 1024) +
                               "\r\n" + line.substr(2048) + "\r\n");
}

// Kept: a CR still waiting for its LF counts, so the CR LF is split.
TEST_F(TopData, LineOf1023BytesSplitsItsCrLf) {
    const std::string line(1023, 'x');
    ASSERT_EQ(compose_body(line + "\r\nnext\r\n"), 0);
    EXPECT_EQ(text_part(), kUsAscii + line + "\r\r\n" + "\nnext\r\n" + "\r\n");
}

TEST_F(TopData, CutNeverSplitsAShiftJisCharacter) {
    const std::string kanji = sjis("漢");
    ASSERT_EQ(compose_body(std::string(1023, 'a') + kanji + "b\r\n"), 0);
    EXPECT_EQ(text_part(), kIso2022 + std::string(1023, 'a') + "\x1b$B\x34\x41\x1b(J\r\nb\r\n\r\n");
}

// Letters and kanji in turn give the most escapes per byte: the converted
// line is still written whole.
TEST_F(TopData, WorstCaseExpansionOfALineIsWrittenWhole) {
    std::string utf8;
    for (int i = 0; i < 340; ++i) utf8 += "a漢";
    ASSERT_EQ(sjis(utf8).size(), 1020u);
    ASSERT_EQ(compose_body(sjis(utf8) + "\r\n"), 0);
    const std::string text = text_part().substr(kIso2022.size());
    EXPECT_EQ(text.size(), 340u * 9 + 2 + 2);
    EXPECT_EQ(from_iso2022(text), utf8 + "\r\n\r\n");
}

// A trail byte in the lead range completes its pair and does not delay the cut.
TEST_F(TopData, TrailByteInTheLeadRangeCompletesThePair) {
    const std::string kanji = sjis("亜");
    ASSERT_EQ(kanji, "\x88\x9F");
    ASSERT_EQ(compose_body(std::string(1022, 'a') + kanji + "z\r\n"), 0);
    EXPECT_EQ(text_part(), kIso2022 + std::string(1022, 'a') + "\x1b$B\x30\x21\x1b(J\r\nz\r\n\r\n");
}

// Kept: the line is text up to a NUL; the rest of that line, its CR LF
// included, is not written.
TEST_F(TopData, NulEndsTheLineText) {
    ASSERT_EQ(compose_body(std::string("abc\0def\r\nxyz\r\n", 14)), 0);
    EXPECT_EQ(text_part(), kUsAscii + "abcxyz\r\n\r\n");
}

TEST_F(TopData, BinaryBytesPassAndNulHidesALaterLeadByteInItsBlock) {
    std::string body("\x01\x02\x7f\xf5\xfe\r\nab\0", 10);
    body += sjis("漢") + "\r\n";
    ASSERT_EQ(compose_body(body), 0);
    EXPECT_EQ(text_part(), kUsAscii + "\x01\x02\x7f\xf5\xfe\r\nab\r\n");
}

TEST_F(TopData, LeadByteInALaterScanBlockIsSeenAfterANul) {
    std::string body(1028, 'a');
    body[10] = '\0';
    body += sjis("漢") + "\r\n";
    ASSERT_EQ(compose_body(body), 0);
    EXPECT_TRUE(has_trace("smtp0652"));
    EXPECT_EQ(text_part().substr(0, kIso2022.size()), kIso2022);
}

// A body longer than the copy held in memory (64 KiB) is scanned and
// converted from the file, with the same result.
std::string long_ascii_body() {
    std::string body;
    for (int i = 0; body.size() <= 70 * 1024; ++i) {
        body += "line " + std::to_string(i) + " of a body longer than its copy in memory\r\n";
    }
    return body;
}

TEST_F(TopData, BodyLongerThanItsCopyInMemoryIsReadFromTheFile) {
    const std::string body = long_ascii_body();
    ASSERT_EQ(compose_body(body), 0);
    EXPECT_EQ(text_part(), kUsAscii + body + "\r\n");
    EXPECT_TRUE(has_trace("smtp0651"));
}

TEST_F(TopData, LeadByteBeyondTheFirst64KiBMakesTheBodyJapanese) {
    const std::string ascii = long_ascii_body();
    ASSERT_EQ(compose_body(ascii + sjis("漢字") + "\r\n"), 0);
    EXPECT_TRUE(has_trace("smtp0652"));
    const std::string part = text_part();
    ASSERT_EQ(part.substr(0, kIso2022.size()), kIso2022);
    EXPECT_EQ(from_iso2022(part.substr(kIso2022.size())), ascii + "漢字\r\n\r\n");
}

// Kept: a lone lead byte at the end pairs with the NUL; the converted line
// ends after the escape.
TEST_F(TopData, LoneLeadByteAtTheEndOfTheBody) {
    ASSERT_EQ(compose_body("ab\x82"), 0);
    EXPECT_EQ(text_part(), kIso2022 + "ab\x1b$B\r\n");
}

TEST_F(TopData, MissingBodyFileIsMinus31) {
    EXPECT_EQ(compose(dir_.file("nope").c_str()), -31);
    EXPECT_EQ(err_, static_cast<unsigned>(ENOENT));
    EXPECT_EQ(word_of(trace_of("smtp0645")), static_cast<uint32_t>(ENOENT));
}

TEST_F(TopData, UnreadableBodyFileIsMinus32) {
    const std::string sub = dir_.file("adir");
    ASSERT_EQ(mkdir(sub.c_str(), 0700), 0);
    EXPECT_EQ(compose(sub.c_str()), -32);
    EXPECT_EQ(err_, static_cast<unsigned>(EISDIR));
    EXPECT_EQ(word_of(trace_of("smtp0650")), static_cast<uint32_t>(EISDIR));
}

TEST_F(TopData, MessageFileIsRewoundFirst) {
    ASSERT_EQ(write(fd_, "garbage that is longer", 22), 22);
    ASSERT_EQ(compose(nullptr, "t", nullptr, 0, 1), 0);
    EXPECT_EQ(message().substr(0, 9), "Subject: ");
}

// Each write of the header and text: a failure returns -33 at once, with
// its trace code and the errno.
TEST_F(TopData, EachFailedWriteHasItsTraceCode) {
    const std::string body_path = write_input("body.txt", "first\r\nsecond\r\n");
    std::memset(boundary_, 0, sizeof boundary_);
    auto compose_full = [&] {
        reset_message();
        EXPECT_EQ(
            SMTP_makeTopData(fd_, body_path.c_str(), "f@x", "a@x,b@y", "S", boundary_, 1, 0, &err_),
            0);
        return message();
    };
    // Where each write begins in a composed message.
    using Locate = size_t (*)(const std::string&);
    struct Case {
        Locate at;
        const char* code;
    } cases[] = {
        {[](const std::string&) -> size_t { return 0; }, "smtp0605"},
        {[](const std::string& m) { return m.find("From:"); }, "smtp0610"},
        {[](const std::string& m) { return m.find("To:"); }, "smtp0615"},
        {[](const std::string& m) { return m.find("    b@y"); }, "smtp0615"},
        {[](const std::string& m) { return m.find("Subject:"); }, "smtp0620"},
        {[](const std::string& m) { return m.find("Message-Id:"); }, "smtp0623"},
        {[](const std::string& m) { return m.find("MIME-Version:"); }, "smtp0625"},
        {[](const std::string& m) { return m.find("Content-Type: multipart"); }, "smtp0630"},
        {[](const std::string& m) { return m.find("\r\n--", m.find("multipart/mixed")); },
         "smtp0635"},
        {[](const std::string& m) { return m.find("Content-Type: text"); }, "smtp0655"},
        {[](const std::string& m) { return m.find("\r\nfirst"); }, "smtp0660"},
        {[](const std::string& m) { return m.find("first"); }, "smtp0665"},
        {[](const std::string& m) { return m.find("second"); }, "smtp0665"},
        {[](const std::string& m) { return m.size() - 2; }, "smtp0670"}};
    // The Message-Id's hexadecimal fields vary in length from one message to
    // the next, which moves every later write: a limit found in one message is
    // tried on another only when both Message-Id lines are equally long.
    auto message_id_length = [](const std::string& m) -> long {
        const size_t begin = m.find("Message-Id: <");
        const size_t end = begin == std::string::npos ? begin : m.find("\r\n", begin);
        return end == std::string::npos ? -1 : static_cast<long>(end - begin);
    };
    for (const Case& c : cases) {
        std::string full;
        size_t limit = 0;
        int result = 0;
        for (int attempt = 0; attempt < 50; ++attempt) {
            full = compose_full();
            limit = c.at(full);
            ASSERT_NE(limit, std::string::npos) << c.code;
            reset_message();
            compose_test::clear_traces();
            err_ = 0;
            {
                compose_test::FileSizeLimit file_limit(limit);
                result = SMTP_makeTopData(fd_, body_path.c_str(), "f@x", "a@x,b@y", "S", boundary_,
                                          1, 0, &err_);
            }
            const long written_id = message_id_length(message());
            if (written_id < 0 || written_id == message_id_length(full)) break;
        }
        EXPECT_EQ(result, -33) << c.code;
        EXPECT_EQ(err_, static_cast<unsigned>(EFBIG)) << c.code;
        ASSERT_TRUE(has_trace(c.code)) << c.code << " at " << limit;
        EXPECT_EQ(word_of(trace_of(c.code)), static_cast<uint32_t>(EFBIG));
        EXPECT_EQ(trace_of(c.code).level, 0u);
        EXPECT_FALSE(has_trace("smtp06FF"));
        EXPECT_EQ(mask_message(message()),
                  mask_message(full).substr(0, mask_message(message()).size()));
        EXPECT_LE(message().size(), limit);
    }
}

}  // namespace
