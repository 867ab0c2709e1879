// Sends over TLS (keys TLS, TLS_VERIFY, TLS_CA_FILE, TLS_SERVER_NAME,
// POP_TLS) against a line server of this test that speaks STARTTLS, SMTPS,
// STLS and POP3S with certificates of the test CA.
#include "kemail.h"
#include "options/options.h"
#include "send/send_fixture.h"
#include "smtp/smtp.h"
#include "support/temp_dir.h"
#include "tls/channel.h"
#include "tls/test_pki.h"
#include "tls/tls_line_server.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>

namespace {

using send_test::Mail;
using tls_test::LineConnection;
using tls_test::LineTlsServer;
using tls_test::TestPki;

// How the SMTP peer behaves.
struct SmtpPeer {
    bool smtps = false;
    bool offer_starttls = true;
    bool refuse_starttls = false;
    enum class AfterReady { Handshake, Close, Stall, CloseAfterHandshake, ResetAfterHandshake };
    AfterReady after_ready = AfterReady::Handshake;
    bool close_in_data = false;
    bool auth_in_clear_only = false;  // AUTH announced before STARTTLS, not after
    bool offer_pipelining = false;
};

bool starts_with(const std::string& line, const char* word) {
    return strncasecmp(line.c_str(), word, std::strlen(word)) == 0;
}

LineTlsServer::Handler smtp_peer(SmtpPeer peer) {
    return [peer](LineConnection& c, LineTlsServer& server) {
        if (peer.smtps && !c.start_tls()) return;
        c.send("220 kemail-test ESMTP\r\n");
        std::string line;
        while (c.read_line(line)) {
            server.record(c, line);
            if (starts_with(line, "EHLO")) {
                std::string reply = "250-kemail-test\r\n";
                if (!c.encrypted() && peer.offer_starttls) reply += "250-STARTTLS\r\n";
                if (c.encrypted() != peer.auth_in_clear_only) reply += "250-AUTH PLAIN\r\n";
                if (peer.offer_pipelining) reply += "250-PIPELINING\r\n";
                c.send(reply + "250 8BITMIME\r\n");
            } else if (starts_with(line, "STARTTLS")) {
                if (peer.refuse_starttls) {
                    c.send("454 4.7.0 TLS not available due to local problem\r\n");
                    continue;
                }
                c.send("220 2.0.0 Ready to start TLS\r\n");
                if (peer.after_ready == SmtpPeer::AfterReady::Close) return;
                if (peer.after_ready == SmtpPeer::AfterReady::Stall) {
                    std::this_thread::sleep_for(std::chrono::seconds(4));
                    return;
                }
                if (!c.start_tls()) return;
                if (peer.after_ready == SmtpPeer::AfterReady::CloseAfterHandshake) return;
                if (peer.after_ready == SmtpPeer::AfterReady::ResetAfterHandshake) {
                    const linger abort{1, 0};  // close answers with RST
                    setsockopt(c.fd(), SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
                    return;
                }
            } else if (starts_with(line, "AUTH")) {
                c.send("235 2.7.0 Authentication successful\r\n");
            } else if (starts_with(line, "MAIL") || starts_with(line, "RCPT")) {
                c.send("250 2.1.0 Ok\r\n");
            } else if (starts_with(line, "DATA")) {
                c.send("354 End data with <CR><LF>.<CR><LF>\r\n");
                if (peer.close_in_data) return;
                size_t bytes = 0;
                while (c.read_line(line) && line != ".\r\n") bytes += line.size();
                server.record(c, "(" + std::to_string(bytes) + " bytes)\r\n");
                server.record(c, ".\r\n");
                c.send("250 2.0.0 Ok: queued\r\n");
            } else if (starts_with(line, "RSET")) {
                c.send("250 2.0.0 Ok\r\n");
            } else if (starts_with(line, "QUIT")) {
                c.send("221 2.0.0 Bye\r\n");
                return;
            } else {
                c.send("502 5.5.2 Error: command not recognized\r\n");
            }
        }
    };
}

// A POP3 peer: STLS (when not pop3s), USER, PASS, STAT, QUIT.
LineTlsServer::Handler pop_peer(bool pop3s) {
    return [pop3s](LineConnection& c, LineTlsServer& server) {
        if (pop3s && !c.start_tls()) return;
        c.send("+OK kemail-test POP3 ready\r\n");
        std::string line;
        while (c.read_line(line)) {
            server.record(c, line);
            if (starts_with(line, "STLS")) {
                c.send("+OK Begin TLS negotiation now\r\n");
                if (!c.start_tls()) return;
            } else if (starts_with(line, "STAT")) {
                c.send("+OK 0 0\r\n");
            } else if (starts_with(line, "QUIT")) {
                c.send("+OK bye\r\n");
                return;
            } else {
                c.send("+OK\r\n");
            }
        }
    };
}

std::string mail_log() {
    return kemail_test::read_file(kemail_test::var_dir() + "/log/kesmtp" +
                                  std::to_string(getpid()) + ".log");
}

std::string joined(const std::vector<std::string>& lines) {
    std::string all;
    for (const std::string& line : lines) all += line;
    return all;
}

class TlsSend : public send_test::SendTest {
protected:
    void SetUp() override {
        send_test::SendTest::SetUp();
        ASSERT_TRUE(pki_.ok()) << "the openssl command could not make the test certificates";
        kemail::options::reset();
        log_before_ = mail_log().size();
    }
    void TearDown() override {
        kemail::options::reset();
        send_test::SendTest::TearDown();
    }
    // What this test's sends added to the mail log.
    std::string new_log() const { return mail_log().substr(log_before_); }
    void set(const char* key, const std::string& value) {
        ASSERT_EQ(ZvKe_SetOption(key, value.c_str()), 0) << key << "=" << value;
    }
    // TLS in the given mode, trusting the test CA that signed the servers'
    // certificate.
    void trust_test_ca(const char* mode) {
        set("TLS", mode);
        set("TLS_CA_FILE", pki_.ca());
    }
    std::string host_ehlo() const { return "EHLO " + send_test::host_name() + "\r\n"; }

    TestPki pki_;
    size_t log_before_ = 0;
};

TEST_F(TlsSend, StartTlsAuthenticatesAndSendsInsideTls) {
    LineTlsServer server(pki_.server_cert(), pki_.server_key(), smtp_peer({}));
    trust_test_ca("starttls");
    AuthCertInfo cert{};
    cert.ulMechanisms = KEMAIL_MECH_PLAIN;
    std::strcpy(cert.szUser, "user");
    std::strcpy(cert.szPassword, "Sekr1t-pw");
    MailAuthInfo auth{KEMAIL_AUTH_SMTP, 0, &cert};
    Mail mail(server.port());
    mail.auth = &auth;
    ASSERT_EQ(mail.send(), KEMAIL_OK) << mail.message;
    const auto lines = server.lines();
    ASSERT_GE(lines.size(), 8u) << joined(lines);
    EXPECT_EQ(lines[0], "plain: " + host_ehlo());
    EXPECT_EQ(lines[1], "plain: STARTTLS\r\n");
    EXPECT_EQ(lines[2], "tls: " + host_ehlo());
    EXPECT_TRUE(starts_with(lines[3], "tls: AUTH PLAIN")) << lines[3];
    EXPECT_EQ(lines[4], "tls: MAIL FROM:<sender@example.test>\r\n");
    EXPECT_EQ(lines.back(), "tls: QUIT\r\n");
    for (size_t i = 2; i < lines.size(); ++i) EXPECT_TRUE(starts_with(lines[i], "tls: ")) << i;

    const std::string log = new_log();
    EXPECT_NE(log.find(" -: TLS TLSv1."), std::string::npos) << log;
    EXPECT_NE(log.find(", verified peer 127.0.0.1\r\n"), std::string::npos) << log;
    EXPECT_NE(log.find(" S: STARTTLS\r\n"), std::string::npos);
    EXPECT_NE(log.find(" R: 220 2.0.0 Ready to start TLS\r\n"), std::string::npos);
    EXPECT_NE(log.find(" S: MAIL FROM:<sender@example.test>\r\n"), std::string::npos);
    EXPECT_EQ(log.find("Sekr1t-pw"), std::string::npos);
    EXPECT_EQ(log.find("dXNlcgB1c2VyAFNla3IxdC1wdw"), std::string::npos) << "the AUTH string";
}

// The mechanisms come from the EHLO reply inside TLS only: AUTH announced
// in clear and not repeated is not used.
TEST_F(TlsSend, AuthAnnouncedOnlyInClearIsNotUsed) {
    SmtpPeer peer;
    peer.auth_in_clear_only = true;
    LineTlsServer server(pki_.server_cert(), pki_.server_key(), smtp_peer(peer));
    trust_test_ca("starttls");
    AuthCertInfo cert{};
    cert.ulMechanisms = KEMAIL_MECH_PLAIN;
    std::strcpy(cert.szUser, "user");
    std::strcpy(cert.szPassword, "Sekr1t-pw");
    MailAuthInfo auth{KEMAIL_AUTH_SMTP, 0, &cert};
    Mail mail(server.port());
    mail.auth = &auth;
    EXPECT_EQ(mail.send(), KEMAIL_W_NO_AUTH) << mail.message;
    EXPECT_EQ(joined(server.lines()).find("AUTH"), std::string::npos) << joined(server.lines());
}

TEST_F(TlsSend, StartTlsNotOfferedGivesMinus30AndNothingAfterEhlo) {
    SmtpPeer peer;
    peer.offer_starttls = false;
    LineTlsServer server(pki_.server_cert(), pki_.server_key(), smtp_peer(peer));
    set("TLS", "starttls");
    Mail mail(server.port());
    EXPECT_EQ(mail.send(), KEMAIL_E_TLS);
    EXPECT_STREQ(mail.message, "STARTTLS not offered");
    EXPECT_EQ(server.lines(), std::vector<std::string>{"plain: " + host_ehlo()});
    EXPECT_NE(new_log().find(" -: ERROR: TLS STARTTLS not offered\r\n"), std::string::npos)
        << new_log();
}

TEST_F(TlsSend, StartTlsRefusedGivesMinus30WithTheReply) {
    SmtpPeer peer;
    peer.refuse_starttls = true;
    LineTlsServer server(pki_.server_cert(), pki_.server_key(), smtp_peer(peer));
    set("TLS", "starttls");
    Mail mail(server.port());
    EXPECT_EQ(mail.send(), KEMAIL_E_TLS);
    EXPECT_STREQ(mail.message,
                 "STARTTLS refused: 454 4.7.0 TLS not available due to local problem");
    EXPECT_EQ(server.lines(),
              (std::vector<std::string>{"plain: " + host_ehlo(), "plain: STARTTLS\r\n"}));
}

TEST_F(TlsSend, AnUntrustedCertificateGivesMinus30AndSendsNothingMore) {
    LineTlsServer server(pki_.server_cert(), pki_.server_key(), smtp_peer({}));
    set("TLS", "starttls");
    set("TLS_CA_FILE", pki_.other_ca());
    Mail mail(server.port());
    EXPECT_EQ(mail.send(), KEMAIL_E_TLS);
    EXPECT_EQ(std::string(mail.message).rfind("certificate verify failed: ", 0), 0u)
        << mail.message;
    EXPECT_EQ(server.lines(),
              (std::vector<std::string>{"plain: " + host_ehlo(), "plain: STARTTLS\r\n"}));
    EXPECT_NE(new_log().find(" -: ERROR: TLS certificate verify failed: "), std::string::npos)
        << new_log();
}

TEST_F(TlsSend, AnotherServerNameGivesMinus30) {
    LineTlsServer server(pki_.server_cert(), pki_.server_key(), smtp_peer({}));
    trust_test_ca("starttls");
    set("TLS_SERVER_NAME", "other.kemail.test");
    Mail mail(server.port());
    EXPECT_EQ(mail.send(), KEMAIL_E_TLS);
    EXPECT_STREQ(mail.message, "certificate verify failed: hostname mismatch");
    EXPECT_EQ(server.lines().size(), 2u);
}

TEST_F(TlsSend, TheServerNameKeyIsVerifiedInsteadOfTheAddress) {
    LineTlsServer server(pki_.server_cert(), pki_.server_key(), smtp_peer({}));
    trust_test_ca("starttls");
    set("TLS_SERVER_NAME", "mx.kemail.test");
    Mail mail(server.port());
    EXPECT_EQ(mail.send(), KEMAIL_OK) << mail.message;
    EXPECT_NE(new_log().find(", verified peer mx.kemail.test\r\n"), std::string::npos);
}

TEST_F(TlsSend, WithoutVerificationAnUntrustedPeerGetsTheMailEncrypted) {
    LineTlsServer server(pki_.server_cert(), pki_.server_key(), smtp_peer({}));
    set("TLS", "starttls");
    set("TLS_CA_FILE", pki_.other_ca());
    set("TLS_VERIFY", "0");
    Mail mail(server.port());
    EXPECT_EQ(mail.send(), KEMAIL_OK) << mail.message;
    const auto lines = server.lines();
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(lines[2], "tls: " + host_ehlo());
    EXPECT_NE(new_log().find(", unverified peer 127.0.0.1\r\n"), std::string::npos) << new_log();
}

TEST_F(TlsSend, SmtpsSpeaksTlsFromTheFirstByte) {
    SmtpPeer peer;
    peer.smtps = true;
    LineTlsServer server(pki_.server_cert(), pki_.server_key(), smtp_peer(peer));
    trust_test_ca("smtps");
    Mail mail(server.port());
    EXPECT_EQ(mail.send(), KEMAIL_OK) << mail.message;
    const auto lines = server.lines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[0], "tls: " + host_ehlo());
    EXPECT_EQ(lines.back(), "tls: QUIT\r\n");
    EXPECT_NE(new_log().find(", verified peer 127.0.0.1\r\n"), std::string::npos);
}

TEST_F(TlsSend, SmtpsAgainstAnUntrustedPeerGivesMinus30) {
    SmtpPeer peer;
    peer.smtps = true;
    LineTlsServer server(pki_.server_cert(), pki_.server_key(), smtp_peer(peer));
    set("TLS", "smtps");
    set("TLS_CA_FILE", pki_.other_ca());
    Mail mail(server.port());
    EXPECT_EQ(mail.send(), KEMAIL_E_TLS);
    EXPECT_EQ(std::string(mail.message).rfind("certificate verify failed: ", 0), 0u)
        << mail.message;
    EXPECT_TRUE(server.lines().empty());
}

TEST_F(TlsSend, APeerClosingAtTheHandshakeGivesMinus30) {
    SmtpPeer peer;
    peer.after_ready = SmtpPeer::AfterReady::Close;
    LineTlsServer server(pki_.server_cert(), pki_.server_key(), smtp_peer(peer));
    trust_test_ca("starttls");
    Mail mail(server.port());
    EXPECT_EQ(mail.send(), KEMAIL_E_TLS);
    EXPECT_EQ(std::string(mail.message).rfind("handshake failed: ", 0), 0u) << mail.message;
}

// A 400 KB attachment of varied bytes, written to path; its size.
size_t write_large_attachment(const std::string& path) {
    std::string data(400 * 1024, '\0');
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>((i * 7919) >> 3);
    kemail_test::write_file(path, data);
    return data.size();
}

// What the server took inside TLS: the messages, their bytes and the RSETs;
// a MAIL FROM in clear fails the test.
struct TakenInTls {
    explicit TakenInTls(const std::vector<std::string>& lines) {
        for (const std::string& line : lines) {
            EXPECT_FALSE(starts_with(line, "plain: MAIL")) << line;
            if (starts_with(line, "tls: (")) {
                ++transactions;
                bytes += std::stoul(line.substr(6));
            }
            if (starts_with(line, "tls: RSET")) ++resets;
        }
    }
    size_t transactions = 0;
    size_t bytes = 0;
    size_t resets = 0;
};

// Message data in many TLS records and writes, whole and in pieces: the
// send loop and the reply reader work the same over TLS.
TEST_F(TlsSend, ALargeMailWholeAndSplitGoesThroughTls) {
    kemail_test::TempDir dir;
    const std::string path = dir.file("data.bin");
    const size_t size = write_large_attachment(path);
    trust_test_ca("starttls");
    for (unsigned split : {0u, 1u}) {
        LineTlsServer server(pki_.server_cert(), pki_.server_key(), smtp_peer({}));
        Mail mail(server.port());
        mail.attachments.push_back({KEMAIL_CONTENT_ATTACHMENT, path});
        mail.split = split;
        ASSERT_EQ(mail.send(), KEMAIL_OK) << mail.message;
        const TakenInTls taken(server.lines());
        // base64 makes 4 bytes of 3, and the lines their CR LF.
        EXPECT_GT(taken.bytes, size * 4 / 3) << split;
        if (split == 0) {
            EXPECT_EQ(taken.transactions, 1u);
        } else {
            EXPECT_GE(taken.transactions, 8u) << "pieces of 64 KB";
        }
    }
}

// With PIPELINING, the groups (a piece's end mark, RSET and the next
// piece's MAIL FROM, RCPT TO and DATA) go through the TLS session too.
TEST_F(TlsSend, APipelinedSplitMailGoesThroughTls) {
    kemail_test::TempDir dir;
    const std::string path = dir.file("data.bin");
    const size_t size = write_large_attachment(path);
    trust_test_ca("starttls");
    set("PIPELINING", "1");
    SmtpPeer peer;
    peer.offer_pipelining = true;
    LineTlsServer server(pki_.server_cert(), pki_.server_key(), smtp_peer(peer));
    Mail mail(server.port());
    mail.attachments.push_back({KEMAIL_CONTENT_ATTACHMENT, path});
    mail.split = 1;
    ASSERT_EQ(mail.send(), KEMAIL_OK) << mail.message;
    const TakenInTls taken(server.lines());
    EXPECT_GT(taken.bytes, size * 4 / 3);
    EXPECT_GE(taken.transactions, 8u) << "pieces of 64 KB";
    EXPECT_EQ(taken.resets, taken.transactions) << "an RSET after every piece";
    EXPECT_NE(new_log().find("R: 250-PIPELINING"), std::string::npos);
}

// After the handshake the connection is a socket like any other: a peer
// that goes away gives what a closed socket gives.
TEST_F(TlsSend, APeerClosingAfterTheHandshakeGivesTheClosedSocketResult) {
    SmtpPeer peer;
    peer.after_ready = SmtpPeer::AfterReady::CloseAfterHandshake;
    LineTlsServer server(pki_.server_cert(), pki_.server_key(), smtp_peer(peer));
    trust_test_ca("starttls");
    Mail mail(server.port());
    EXPECT_EQ(mail.send(), KEMAIL_E_SOCKET) << mail.message;
}

TEST_F(TlsSend, APeerClosingDuringTheDataGivesTheClosedSocketResult) {
    kemail_test::TempDir dir;
    const std::string path = dir.file("data.bin");
    kemail_test::write_file(path, std::string(2 * 1024 * 1024, 'd'));
    SmtpPeer peer;
    peer.close_in_data = true;
    LineTlsServer server(pki_.server_cert(), pki_.server_key(), smtp_peer(peer));
    trust_test_ca("starttls");
    Mail mail(server.port());
    mail.attachments.push_back({KEMAIL_CONTENT_ATTACHMENT, path});
    EXPECT_EQ(mail.send(), KEMAIL_E_SOCKET) << mail.message;
}

TEST_F(TlsSend, APeerResettingAfterTheHandshakeGivesTheClosedSocketResult) {
    SmtpPeer peer;
    peer.after_ready = SmtpPeer::AfterReady::ResetAfterHandshake;
    LineTlsServer server(pki_.server_cert(), pki_.server_key(), smtp_peer(peer));
    trust_test_ca("starttls");
    Mail mail(server.port());
    EXPECT_EQ(mail.send(), KEMAIL_E_SOCKET) << mail.message;
}

// The keys in kemail.ini work as those set with ZvKe_SetOption do, and an
// override wins over the file.
TEST_F(TlsSend, TheKeysOfKemailIniAreTaken) {
    const std::string ini = kemail_test::etc_dir() + "/kemail.ini";
    kemail_test::write_file(ini, "[KEMAIL]\nTLS=starttls\nTLS_CA_FILE=" + pki_.ca() + "\n");
    {
        LineTlsServer server(pki_.server_cert(), pki_.server_key(), smtp_peer({}));
        Mail mail(server.port());
        EXPECT_EQ(mail.send(), KEMAIL_OK) << mail.message;
        EXPECT_EQ(server.lines().at(1), "plain: STARTTLS\r\n");
    }
    set("TLS", "none");
    {
        LineTlsServer server(pki_.server_cert(), pki_.server_key(), smtp_peer({}));
        Mail mail(server.port());
        EXPECT_EQ(mail.send(), KEMAIL_OK) << mail.message;
        EXPECT_EQ(joined(server.lines()).find("STARTTLS"), std::string::npos);
    }
    unlink(ini.c_str());
}

// A peer that answers 220 and then says nothing: the handshake ends with
// the connection phase's time-out.
TEST_F(TlsSend, AStalledHandshakeEndsWithThePhaseTimeOut) {
    SmtpPeer peer;
    peer.after_ready = SmtpPeer::AfterReady::Stall;
    LineTlsServer server(pki_.server_cert(), pki_.server_key(), smtp_peer(peer));
    trust_test_ca("starttls");
    SmtpTimeOut timeouts{2, 60, 60, 60, 60, 60};
    SMTP_SetTimeOutInfo(&timeouts);
    unsigned int err = 0;
    const auto begun = std::chrono::steady_clock::now();
    const int sock = SMTP_connect("127.0.0.1", server.port(), &err);
    ASSERT_GE(sock, 0);
    EXPECT_EQ(SMTP_initialize(sock, nullptr, &err), kemail::smtp::kTlsFailed);
    const auto waited = std::chrono::steady_clock::now() - begun;
    EXPECT_STREQ(kemail::smtp::tls_failure_reason(), "handshake failed: timed out");
    EXPECT_GE(waited, std::chrono::seconds(1));
    EXPECT_LT(waited, std::chrono::seconds(4));
    EXPECT_EQ(kemail::tls::session_for(sock), nullptr);
    close(sock);
}

// Without the key a server that offers STARTTLS gets the designed dialogue,
// and a TLS send leaves nothing behind for the next one.
TEST_F(TlsSend, NoKeyNoTlsAndNothingCarriesOver) {
    {
        LineTlsServer server(pki_.server_cert(), pki_.server_key(), smtp_peer({}));
        trust_test_ca("starttls");
        Mail mail(server.port());
        ASSERT_EQ(mail.send(), KEMAIL_OK) << mail.message;
    }
    kemail::options::reset();
    LineTlsServer server(pki_.server_cert(), pki_.server_key(), smtp_peer({}));
    Mail mail(server.port());
    ASSERT_EQ(mail.send(), KEMAIL_OK) << mail.message;
    for (const std::string& line : server.lines())
        EXPECT_TRUE(starts_with(line, "plain: ")) << line;
    EXPECT_EQ(joined(server.lines()).find("STARTTLS"), std::string::npos);
    EXPECT_STREQ(mail.message, "");
}

struct PopSend {
    PopBeforeSmtpInfo pop{};
    MailAuthInfo auth{KEMAIL_AUTH_POP_BEFORE_SMTP, 0, &pop};
    PopSend(uint16_t port) {
        pop.ulPort = port;
        std::strcpy(pop.szUser, "popuser");
        std::strcpy(pop.szPassword, "pop-Sekr1t");
        std::strcpy(pop.szHost, "127.0.0.1");
        pop.usTimeOut = 60;
    }
};

TEST_F(TlsSend, PopBeforeSmtpWithStls) {
    LineTlsServer pop_server(pki_.server_cert(), pki_.server_key(), pop_peer(false));
    LineTlsServer smtp_server(pki_.server_cert(), pki_.server_key(), smtp_peer({}));
    set("POP_TLS", "stls");
    set("TLS_CA_FILE", pki_.ca());
    PopSend pop(pop_server.port());
    Mail mail(smtp_server.port());
    mail.auth = &pop.auth;
    ASSERT_EQ(mail.send(), KEMAIL_OK) << mail.message;
    EXPECT_EQ(
        pop_server.lines(),
        (std::vector<std::string>{"plain: STLS\r\n", "tls: USER popuser\r\n",
                                  "tls: PASS pop-Sekr1t\r\n", "tls: STAT\r\n", "tls: QUIT\r\n"}));
    EXPECT_TRUE(starts_with(smtp_server.lines().at(0), "plain: EHLO"));
    EXPECT_EQ(new_log().find("pop-Sekr1t"), std::string::npos);
}

TEST_F(TlsSend, PopBeforeSmtpWithPop3s) {
    LineTlsServer pop_server(pki_.server_cert(), pki_.server_key(), pop_peer(true));
    LineTlsServer smtp_server(pki_.server_cert(), pki_.server_key(), smtp_peer({}));
    set("POP_TLS", "pop3s");
    set("TLS_CA_FILE", pki_.ca());
    PopSend pop(pop_server.port());
    Mail mail(smtp_server.port());
    mail.auth = &pop.auth;
    ASSERT_EQ(mail.send(), KEMAIL_OK) << mail.message;
    EXPECT_EQ(pop_server.lines().at(0), "tls: USER popuser\r\n");
    EXPECT_NE(new_log().find(", verified peer 127.0.0.1\r\n"), std::string::npos);
}

TEST_F(TlsSend, PopTlsFailuresGiveMinus18WithTheReason) {
    LineTlsServer pop_server(pki_.server_cert(), pki_.server_key(), pop_peer(false));
    set("POP_TLS", "stls");
    set("TLS_CA_FILE", pki_.other_ca());
    PopSend pop(pop_server.port());
    kemail_test::RefusedPort refused;
    Mail mail(refused.port());
    mail.auth = &pop.auth;
    EXPECT_EQ(mail.send(), KEMAIL_E_POP_UNREACHABLE);
    EXPECT_EQ(std::string(mail.message).rfind("certificate verify failed: ", 0), 0u)
        << mail.message;
    EXPECT_EQ(pop_server.lines(), std::vector<std::string>{"plain: STLS\r\n"});
}

}  // namespace
