// What a send leaves behind: no work file after any call, attachments of
// kind 4 deleted only after a successful QUIT (kind 3 never), no descriptor
// leaked, and the "acert" trace file and the mail log written around the call.
#include "send_fixture.h"

#include <pthread.h>

#include <cstring>

namespace send_test {
namespace {

using kemail_test::SmtpSink;
using kemail_test::TempDir;

class SendResources : public SendTest {};

TEST_F(SendResources, KindFourIsDeletedAfterASuccessfulQuitAndKindThreeKept) {
    TempDir dir;
    const std::string keep = dir.file("keep.txt");
    const std::string drop = dir.file("drop.txt");
    kemail_test::write_file(keep, "kept\n");
    kemail_test::write_file(drop, "dropped\n");
    ScriptServer server(whole_mail_script());
    Mail mail(server.port());
    mail.attachments = {{KEMAIL_CONTENT_ATTACHMENT, keep},
                        {KEMAIL_CONTENT_ATTACHMENT_DELETE, drop}};
    ASSERT_EQ(mail.send(), KEMAIL_OK);
    EXPECT_TRUE(file_exists(keep));
    EXPECT_FALSE(file_exists(drop));
}

TEST_F(SendResources, KindFourIsKeptWhenTheMessageIsRefused) {
    TempDir dir;
    const std::string drop = dir.file("drop.txt");
    kemail_test::write_file(drop, "dropped\n");
    Script s;
    greet(s)
        .read_line()
        .send("250 Ok\r\n")
        .read_line()
        .send("250 Ok\r\n")
        .read_line()
        .send("354 go\r\n")
        .read_until("\r\n.\r\n")
        .send("554 5.7.1 rejected\r\n")
        .drain();
    ScriptServer server(std::move(s));
    Mail mail(server.port());
    mail.attachments = {{KEMAIL_CONTENT_ATTACHMENT_DELETE, drop}};
    EXPECT_EQ(mail.send(), KEMAIL_E_REFUSED);
    EXPECT_TRUE(file_exists(drop));
}

TEST_F(SendResources, KindFourIsKeptWhenTheServerCannotBeReached) {
    TempDir dir;
    const std::string drop = dir.file("drop.txt");
    kemail_test::write_file(drop, "dropped\n");
    Script s;
    s.send("421 4.3.2 shutting down\r\n").drain();
    ScriptServer server(std::move(s));
    Mail mail(server.port());
    mail.attachments = {{KEMAIL_CONTENT_ATTACHMENT_DELETE, drop}};
    EXPECT_EQ(mail.send(), KEMAIL_E_REFUSED);
    EXPECT_TRUE(file_exists(drop));
}

TEST_F(SendResources, NoDescriptorLeaksAcrossAThousandCalls) {
    SmtpSink sink;
    TempDir dir;
    const std::string attachment = dir.file("a.bin");
    kemail_test::write_file(attachment, std::string(3000, 'z'));
    const size_t before = open_descriptors();
    for (int i = 0; i < 1000; ++i) {
        Mail mail(sink.port());
        if (i % 10 == 0) {  // failing calls release everything too
            mail.attachments.push_back({KEMAIL_CONTENT_ATTACHMENT, "/nonexistent/a.bin"});
            ASSERT_EQ(mail.send(), KEMAIL_E_ATTACHMENT);
            continue;
        }
        mail.attachments.push_back({KEMAIL_CONTENT_ATTACHMENT, attachment});
        if (i % 10 == 5) {  // and split sends
            mail.split = 1;
            mail.option = SendOptionInfo{10, sink.port()};
            mail.attachments.push_back({KEMAIL_CONTENT_ATTACHMENT, attachment});
            mail.attachments.push_back({KEMAIL_CONTENT_ATTACHMENT, attachment});
            mail.attachments.push_back({KEMAIL_CONTENT_ATTACHMENT, attachment});
        }
        ASSERT_EQ(mail.send(), KEMAIL_OK) << "call " << i << ": " << mail.message;
    }
    // The sink closes its side of the last connection after its reply to
    // QUIT: that descriptor is the sink's, not the library's.
    ASSERT_TRUE(sink.wait_all_closed());
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(sink.messages(), 900u + 100u);  // every split send was two pieces
    EXPECT_EQ(files_in(work_dir()), std::vector<std::string>{});
}

TEST_F(SendResources, TraceFileAndMailLogRecordTheCall) {
    ScriptServer server(whole_mail_script());
    Mail mail(server.port());
    ASSERT_EQ(mail.send(), KEMAIL_OK);
    const std::string pid = std::to_string(getpid());
    const std::string trace_path = kemail_test::var_dir() + "/tmp2/acert" + pid + "-" +
                                   std::to_string(static_cast<int>(pthread_self())) + ".trc";
    const std::string ring = kemail_test::read_file(trace_path);
    ASSERT_GT(ring.size(), 4u) << trace_path;
    // The file is a ring that earlier calls of this process under the same
    // name have filled: read it from the write offset on, oldest byte first,
    // so that a record the end of the file cut in two is whole again.
    uint32_t offset = 0;
    std::memcpy(&offset, ring.data(), sizeof offset);
    ASSERT_GE(offset, 4u);
    ASSERT_LE(offset, ring.size());
    const std::string trace = ring.substr(offset) + ring.substr(4, offset - 4);
    EXPECT_NE(trace.find("SNDEMAIL0000"), std::string::npos);
    EXPECT_NE(trace.find("EMAILAPI0000"), std::string::npos);
    EXPECT_NE(trace.find("EMAILAPIFFFF"), std::string::npos);
    EXPECT_NE(trace.find("ACERTFFFF"), std::string::npos);

    const std::string log =
        kemail_test::read_file(kemail_test::var_dir() + "/log/kesmtp" + pid + ".log");
    EXPECT_NE(log.find(" NQ-Agent E-Mail\r\n"), std::string::npos);
    EXPECT_NE(log.find(" -: Test\r\n"), std::string::npos) << "the subject, as a note";
    EXPECT_NE(log.find(" S: MAIL FROM:<sender@example.test>\r\n"), std::string::npos);
    EXPECT_NE(log.find(" R: 250 2.0.0 Ok: queued\r\n"), std::string::npos);
    EXPECT_NE(log.find(" S: QUIT\r\n"), std::string::npos);
    EXPECT_NE(log.find(" END\r\n\r\n"), std::string::npos);
    EXPECT_EQ(g_trace, nullptr) << "the handles end with the call";
    EXPECT_EQ(g_pLogHandle, nullptr);
}

TEST_F(SendResources, AuthPasswordNeverReachesTheMailLog) {
    AuthCertInfo cert{};
    cert.ulMechanisms = KEMAIL_MECH_LOGIN;
    std::strcpy(cert.szUser, "user");
    std::strcpy(cert.szPassword, "Sekr1t-pw");
    MailAuthInfo auth{KEMAIL_AUTH_SMTP, 0, &cert};
    Script s;
    greet(s, "250-kemail-test\r\n250 AUTH LOGIN\r\n")
        .read_line()
        .send("334 VXNlcm5hbWU6\r\n")
        .read_line()
        .send("334 UGFzc3dvcmQ6\r\n")
        .read_line()
        .send("235 2.7.0 Authentication successful\r\n");
    transaction(s);
    quit(s);
    ScriptServer server(std::move(s));
    Mail mail(server.port());
    mail.auth = &auth;
    ASSERT_EQ(mail.send(), KEMAIL_OK) << mail.message;
    const auto records = server.records();
    ASSERT_GE(records.size(), 4u);
    EXPECT_EQ(records[1], "AUTH LOGIN\r\n");
    EXPECT_EQ(records[2], "dXNlcg==\r\n");
    EXPECT_EQ(records[3], "U2VrcjF0LXB3\r\n");
    const std::string log = kemail_test::read_file(kemail_test::var_dir() + "/log/kesmtp" +
                                                   std::to_string(getpid()) + ".log");
    EXPECT_EQ(log.find("U2VrcjF0LXB3"), std::string::npos);
    EXPECT_EQ(log.find("Sekr1t-pw"), std::string::npos);
}

}  // namespace
}  // namespace send_test
