// The message/partial identifier and one piece with its outer header.
#include "compose_support.h"
#include "support/script_server.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <netinet/in.h>
#include <sys/socket.h>

// A link-time seam for the transport: the library's send() calls come here.
// When armed, the given call on the given socket fails with EPIPE; every
// other call goes to the C library.
namespace {
int g_fail_fd = -1;
int g_fail_at_call = 0;
int g_calls = 0;
}  // namespace

extern "C" ssize_t send(int fd, const void* data, size_t length, int flags) {
    using SendFn = ssize_t (*)(int, const void*, size_t, int);
    static SendFn real = reinterpret_cast<SendFn>(dlsym(RTLD_NEXT, "send"));
    if (fd == g_fail_fd && ++g_calls == g_fail_at_call) {
        errno = EPIPE;
        return -1;
    }
    return real(fd, data, length, flags);
}

namespace {

using compose_test::has_trace;
using compose_test::mask_message;
using compose_test::trace_codes;
using compose_test::trace_of;
using compose_test::word_of;

int connect_to(uint16_t port) {
    const int sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(sock, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        close(sock);
        return -1;
    }
    return sock;
}

class Partial : public ::testing::Test {
protected:
    void SetUp() override {
        compose_test::clear_traces();
        const SmtpTimeOut timeouts = {300, 300, 300, 120, 77, 600};
        SMTP_SetTimeOutInfo(&timeouts);
    }
    void TearDown() override { g_fail_fd = -1; }

    // Sends one piece to a scripted server that records everything.
    std::string send_piece(const char* subject, int number, int total, int* result,
                           const char* to = "a@x.jp,b@y.jp,c@z.jp",
                           std::string piece = "PIECE BYTES\r\n") {
        kemail_test::ScriptServer server(kemail_test::Script().bound_ms(5000).drain());
        const int sock = connect_to(server.port());
        EXPECT_GE(sock, 0);
        *result = SMTP_sendData_Partial(sock, piece.data(), static_cast<int>(piece.size()),
                                        "me@example.com", to, subject, number, total,
                                        "luntbID@example", &err_);
        close(sock);
        EXPECT_TRUE(server.wait_done());
        return server.received();
    }

    unsigned int err_ = 999;
};

TEST_F(Partial, PieceTwoOfThreeCarriesItsOwnOuterHeader) {
    int result = -1;
    const std::string sent = send_piece("Weekly data", 2, 3, &result);
    ASSERT_EQ(result, 0);
    EXPECT_EQ(mask_message(sent),
              "Date: <DATE>\r\n"
              "From: me@example.com\r\n"
              "To: a@x.jp,\r\n    b@y.jp,\r\n    c@z.jp\r\n"
              "Subject: Weekly data [2/3]\r\n"
              "Message-Id: <MSGID>\r\n"
              "MIME-Version: 1.0\r\n"
              "Content-Type: message/partial; number=2; total=3;\r\n\tid=\"luntbID@example\"\r\n"
              "\r\n"
              "PIECE BYTES\r\n");
    EXPECT_EQ(g_ulTimeOut, 77u);
    std::vector<std::string> own;
    for (const auto& code : trace_codes()) {
        if (code.rfind("smtp14", 0) == 0) own.push_back(code);
    }
    EXPECT_EQ(own, (std::vector<std::string>{"smtp1400", "smtp1415", "smtp1425", "smtp1430-1",
                                             "smtp1430-1", "smtp1430-1", "smtp1431", "smtp1435",
                                             "smtp1445", "smtp1452", "smtp1458", "smtp1465",
                                             "smtp14FF"}));
    EXPECT_EQ(trace_of("smtp1445").data, "Subject: Weekly data [2/3]\r\n");
    // Kept: the MIME-Version trace shows the Subject line, formatted last.
    EXPECT_EQ(trace_of("smtp1452").data, "Subject: Weekly data [2/3]\r\n");
    EXPECT_EQ(trace_of("smtp1465").data, trace_of("smtp1458").data);
    EXPECT_EQ(trace_of("smtp1400").level, 1u);
    EXPECT_EQ(trace_of("smtp14FF").level, 1u);
}

// Kept: the MIME-Version line is sent from a constant, so its trace shows
// the line formatted before it, the Subject line.
TEST_F(Partial, MimeVersionTraceShowsTheSubjectLine) {
    int result = -1;
    send_piece("Traced", 1, 2, &result);
    ASSERT_EQ(result, 0);
    EXPECT_EQ(trace_of("smtp1452").data, "Subject: Traced [1/2]\r\n");
    EXPECT_EQ(trace_of("smtp1452").level, 2u);
}

TEST_F(Partial, EveryPieceHasItsOwnMessageId) {
    int result = -1;
    const std::string first = send_piece("S", 1, 2, &result);
    const std::string second = send_piece("S", 2, 2, &result);
    const auto message_id = [](const std::string& sent) {
        const size_t at = sent.find("Message-Id: <");
        return at == std::string::npos ? std::string() : sent.substr(at, sent.find('>', at) - at);
    };
    ASSERT_FALSE(message_id(first).empty());
    ASSERT_FALSE(message_id(second).empty());
    EXPECT_NE(message_id(first), message_id(second));
}

TEST_F(Partial, WithoutSubjectTheMarkerFollowsTheBlank) {
    int result = -1;
    const std::string sent = send_piece(nullptr, 1, 4, &result);
    ASSERT_EQ(result, 0);
    EXPECT_NE(sent.find("\r\nSubject:  [1/4]\r\n"), std::string::npos);
    EXPECT_FALSE(has_trace("smtp1435"));
}

TEST_F(Partial, JapaneseSubjectMarkerFollowsTheLastEncodedWord) {
    const std::string subject = compose_test::sjis("週次データ");
    int result = -1;
    const std::string sent = send_piece(subject.c_str(), 3, 3, &result);
    ASSERT_EQ(result, 0);
    char encoded[1040];
    SMTP_makeSubject(subject.c_str(), encoded);
    EXPECT_NE(sent.find("\r\nSubject: " + std::string(encoded) + " [3/3]\r\n"), std::string::npos);
    EXPECT_EQ(trace_of("smtp1435").data, encoded);
}

TEST_F(Partial, EmptyRecipientListGivesOneEmptyToLine) {
    int result = -1;
    const std::string sent = send_piece("S", 1, 1, &result, "");
    ASSERT_EQ(result, 0);
    EXPECT_NE(sent.find("\r\nTo: \r\nSubject: S [1/1]\r\n"), std::string::npos);
}

TEST_F(Partial, PieceBytesGoOutAsTheyAre) {
    std::string piece = "line\r\n.dot\r\n";
    piece += std::string("\0\x01\xff", 3);
    piece += std::string(200000, 'z');
    int result = -1;
    const std::string sent = send_piece("S", 1, 1, &result, "a@x", piece);
    ASSERT_EQ(result, 0);
    ASSERT_GE(sent.size(), piece.size());
    EXPECT_EQ(sent.substr(sent.size() - piece.size()), piece);
}

// A failed send at each step ends the piece with the transport's result, the
// step's trace and "smtp1480".
TEST_F(Partial, EachFailedSendHasItsTraceCode) {
    const char* codes[] = {"smtp1410", "smtp1420", "smtp1430", "smtp1430", "smtp1440",
                           "smtp1447", "smtp1450", "smtp1455", "smtp1460", "smtp1470"};
    for (int call = 1; call <= 10; ++call) {
        compose_test::clear_traces();
        int pair[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
        g_fail_fd = pair[0];
        g_fail_at_call = call;
        g_calls = 0;
        char piece[] = "body";
        const int result =
            SMTP_sendData_Partial(pair[0], piece, 4, "me@x", "a@x,b@y", "S", 1, 2, "id", &err_);
        g_fail_fd = -1;
        close(pair[0]);
        close(pair[1]);
        const char* code = codes[call - 1];
        EXPECT_EQ(result, -3) << code;
        EXPECT_EQ(err_, static_cast<unsigned>(EPIPE)) << code;
        ASSERT_TRUE(has_trace(code)) << call;
        EXPECT_EQ(word_of(trace_of(code)), static_cast<uint32_t>(EPIPE));
        EXPECT_EQ(trace_of(code).level, 0u);
        EXPECT_EQ(word_of(trace_of("smtp1480")), static_cast<uint32_t>(EPIPE));
        EXPECT_FALSE(has_trace("smtp14FF"));
        EXPECT_EQ(has_trace("smtp1432"), call == 3 || call == 4) << call;
        if (call == 4) {
            EXPECT_EQ(trace_of("smtp1430-1").data, "To: a@x,\r\n");
            EXPECT_FALSE(has_trace("smtp1431"));
        }
    }
}

TEST(PartialId, SenderCopyWithDotsAfterTheOnlyAt) {
    char id[KEMAIL_PARTIAL_ID_SIZE] = {};
    compose_test::clear_traces();
    const int n = SMTP_makeid(id, "ops@example.com");
    EXPECT_EQ(n, static_cast<int>(std::strlen(id)));
    char host[256] = {};
    gethostname(host, sizeof host - 1);
    if (char* dot = std::strchr(host, '.')) *dot = '\0';
    char hostid[16];
    snprintf(hostid, sizeof hostid, "%x", static_cast<unsigned>(gethostid()));
    std::vector<std::string> m;
    ASSERT_TRUE(compose_test::matches(
        id, "luntb([0-9a-f]+)" + std::string(host) + hostid + "@ops\\.example\\.com", &m))
        << id;
    EXPECT_EQ(std::count(id, id + n, '@'), 1);
    const uint32_t seconds = compose_test::word_of(trace_of("smtp1540"));
    const uint32_t micros = compose_test::word_of(trace_of("smtp1550"));
    char numbers[32];
    snprintf(numbers, sizeof numbers, "%x%x", seconds, micros);
    EXPECT_EQ(m[1], numbers);
    EXPECT_EQ(trace_codes(),
              (std::vector<std::string>{"smtp1500", "smtp1510", "smtp1515", "smtp1530", "smtp1540",
                                        "smtp1550", "smtp15FF"}));
    EXPECT_EQ(trace_of("smtp15FF").data, id);
    EXPECT_EQ(trace_of("smtp1500").data, "");
}

TEST(PartialId, SenderWithoutAtHasOnlyTheSeparatingAt) {
    char id[KEMAIL_PARTIAL_ID_SIZE] = {};
    const int n = SMTP_makeid(id, "localsender");
    EXPECT_EQ(std::count(id, id + n, '@'), 1);
    EXPECT_EQ(std::string(id).substr(n - 12), "@localsender");
}

TEST(PartialId, EverySenderAtBecomesADot) {
    char id[KEMAIL_PARTIAL_ID_SIZE] = {};
    SMTP_makeid(id, "a@b@c");
    EXPECT_EQ(std::string(id).substr(std::strlen(id) - 6), "@a.b.c");
}

TEST(PartialId, OverlongSenderIsCutToTheIdBuffer) {
    std::vector<char> id(KEMAIL_PARTIAL_ID_SIZE + 16, '\x7F');
    const std::string sender(5000, 's');
    const int n = SMTP_makeid(id.data(), sender.c_str());
    EXPECT_EQ(n, KEMAIL_PARTIAL_ID_SIZE - 1);
    EXPECT_EQ(id[KEMAIL_PARTIAL_ID_SIZE - 1], '\0');
    for (size_t k = KEMAIL_PARTIAL_ID_SIZE; k < id.size(); ++k) EXPECT_EQ(id[k], '\x7F');
}

TEST(PartialId, TwoIdsDiffer) {
    char a[KEMAIL_PARTIAL_ID_SIZE] = {};
    char b[KEMAIL_PARTIAL_ID_SIZE] = {};
    SMTP_makeid(a, "x@y");
    usleep(1000);
    SMTP_makeid(b, "x@y");
    EXPECT_STRNE(a, b);
}

}  // namespace
