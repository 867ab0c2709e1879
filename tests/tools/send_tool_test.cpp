// kemail-send as the operator meets it: every failure with its exit code
// (sysexits.h) and its message on stderr, against a scripted server on
// loopback.
#include "support/script_server.h"
#include "support/temp_dir.h"
#include "tool_run.h"

#include <gtest/gtest.h>

#include <sysexits.h>
#include <unistd.h>

#include <cstdio>

#include <string>

namespace {

using kemail_test::Script;
using kemail_test::ScriptServer;
using kemail_test::TempDir;
using kemail_test::write_file;
using tools_test::quote;
using tools_test::ToolResult;

bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

ToolResult send(const std::string& args) { return tools_test::run("kemail-send", args); }

std::string to_server(const ScriptServer& server) {
    return "--from a@example.com --server 127.0.0.1 --port " + std::to_string(server.port());
}

// Greeting and EHLO without AUTH; then the test's own steps.
Script greeted() { return Script().send("220 test ESMTP\r\n").read_line().send("250 test\r\n"); }

// A whole accepted transaction for one recipient, from MAIL FROM on.
Script& accept_mail(Script& script, int recipients) {
    script.read_line().send("250 ok\r\n");
    for (int i = 0; i < recipients; ++i) script.read_line().send("250 ok\r\n");
    return script.read_line()
        .send("354 go\r\n")
        .read_until("\r\n.\r\n")
        .send("250 queued\r\n")
        .read_line()
        .send("221 bye\r\n");
}

TEST(SendTool, VersionAndHelp) {
    const ToolResult version = send("--version");
    EXPECT_EQ(version.status, 0);
    EXPECT_TRUE(has(version.out, "kemail-send ")) << version.out;
    const ToolResult help = send("-h");
    EXPECT_EQ(help.status, 0);
    EXPECT_TRUE(has(help.out, "Exit status (sysexits.h)")) << help.out;
    EXPECT_TRUE(has(help.out, "--require-auth"));
    EXPECT_TRUE(has(help.out, "KEMAIL_E_AUTH_REFUSED"));
}

TEST(SendTool, UsageErrorsNameTheOption) {
    ToolResult run = send("--bogus");
    EXPECT_EQ(run.status, EX_USAGE);
    EXPECT_TRUE(has(run.err, "unknown option --bogus")) << run.err;
    EXPECT_TRUE(run.out.empty());

    run = send("--to b@x --server h");
    EXPECT_EQ(run.status, EX_USAGE);
    EXPECT_TRUE(has(run.err, "--from is required")) << run.err;

    run = send("--from a@x --to b@x --server h --subject " + quote(std::string(71, 's')));
    EXPECT_EQ(run.status, EX_USAGE);
    EXPECT_TRUE(has(run.err, "--subject is 71 bytes; at most 64")) << run.err;

    run = send("--from a@x --to b@x --server h --part-size 9");
    EXPECT_EQ(run.status, EX_USAGE);
    EXPECT_TRUE(has(run.err, "--part-size 9: needs 10..100")) << run.err;

    run = send("--from a@x --to b@x --server h --timeout-data 59");
    EXPECT_EQ(run.status, EX_USAGE);
    EXPECT_TRUE(has(run.err, "--timeout-data 59: needs 60..3600")) << run.err;

    run = send("--from " + quote(std::string(257, 'f')) + " --to b@x --server h");
    EXPECT_EQ(run.status, EX_USAGE);
    EXPECT_TRUE(has(run.err, "--from is 257 bytes; at most 256")) << run.err;

    run = send("--from a@x --to 'b@x,,c@x' --server h");
    EXPECT_EQ(run.status, EX_USAGE);
    EXPECT_TRUE(has(run.err, "--to: address 2 is empty")) << run.err;

    run = send("--from a@x --to b@x --server h --user " + quote(std::string(65, 'u')) +
               " --auth-mechanisms plain");
    EXPECT_EQ(run.status, EX_USAGE);
    EXPECT_TRUE(has(run.err, "--user is 65 bytes; at most 64")) << run.err;

    run = send("--from a@x --to b@x --server h --port");
    EXPECT_EQ(run.status, EX_USAGE);
    EXPECT_TRUE(has(run.err, "--port needs a value")) << run.err;
}

TEST(SendTool, UnreadableAttachmentIsNamed) {
    TempDir dir;
    const std::string missing = dir.file("missing.bin");
    const ToolResult run =
        send("--from a@x --to b@x --server 127.0.0.1 --attach " + quote(missing));
    EXPECT_EQ(run.status, EX_NOINPUT);
    EXPECT_TRUE(has(run.err, "--attach " + missing + ": cannot read: No such file or directory"))
        << run.err;
    const ToolResult dir_run =
        send("--from a@x --to b@x --server 127.0.0.1 --attach " + quote(dir.path()));
    EXPECT_EQ(dir_run.status, EX_NOINPUT);
    EXPECT_TRUE(has(dir_run.err, dir.path() + ": not a regular file")) << dir_run.err;
}

TEST(SendTool, MissingBodyFileIsNamed) {
    const ToolResult run =
        send("--from a@x --to b@x --server 127.0.0.1 --body /nonexistent/body.txt");
    EXPECT_EQ(run.status, EX_NOINPUT);
    EXPECT_TRUE(has(run.err, "--body /nonexistent/body.txt: cannot read")) << run.err;
}

TEST(SendTool, SentMailExitsZeroAndBlanksInToAreTrimmed) {
    Script script = greeted();
    ScriptServer server(accept_mail(script, 2));
    const ToolResult run = send(to_server(server) + " --to 'b@example.com , c@example.com' --json");
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_TRUE(has(run.err, "note: blanks around the addresses of --to removed")) << run.err;
    EXPECT_TRUE(has(server.received(), "RCPT TO:<b@example.com>\r\nRCPT TO:<c@example.com>\r\n"))
        << server.received();
    EXPECT_TRUE(has(run.out, "\"code\":0,\"name\":\"KEMAIL_OK\"")) << run.out;
    EXPECT_TRUE(has(run.out, "\"mail_log\":\"/var/opt/QRZNvolta/log/kesmtp")) << run.out;
}

TEST(SendTool, RefusedRecipientIsDataError) {
    ScriptServer server(greeted()
                            .read_line()
                            .send("250 ok\r\n")
                            .read_line()
                            .send("550 5.1.1 <nobody@example.com>: no such user\r\n")
                            .drain());
    const ToolResult run = send(to_server(server) + " --to nobody@example.com --json");
    server.wait_done();
    EXPECT_EQ(run.status, EX_DATAERR) << run.err;
    EXPECT_TRUE(has(run.err, "failed: KEMAIL_E_REFUSED (-6)")) << run.err;
    EXPECT_TRUE(has(run.err, "[rcpt]")) << run.err;
    EXPECT_TRUE(has(run.err, "detail: 550 5.1.1 <nobody@example.com>: no such user")) << run.err;
    EXPECT_TRUE(has(run.out, "\"phase\":\"rcpt\"")) << run.out;
    EXPECT_TRUE(has(run.out, "\"exit\":65")) << run.out;
}

TEST(SendTool, TemporaryRefusalIsTempFail) {
    ScriptServer server(greeted().read_line().send("451 4.3.0 try later\r\n").drain());
    const ToolResult run = send(to_server(server) + " --to b@example.com");
    server.wait_done();
    EXPECT_EQ(run.status, EX_TEMPFAIL) << run.err;
    EXPECT_TRUE(has(run.err, "detail: 451 4.3.0 try later")) << run.err;
}

TEST(SendTool, RefusedGreetingIsUnavailable) {
    ScriptServer server(Script().send("554 5.3.2 go away\r\n").drain());
    const ToolResult run = send(to_server(server) + " --to b@example.com");
    server.wait_done();
    EXPECT_EQ(run.status, EX_UNAVAILABLE) << run.err;
    EXPECT_TRUE(has(run.err, "detail: 554 5.3.2 go away")) << run.err;
}

// A server that offers AUTH PLAIN and refuses the password, then takes the
// mail anyway: result 2.
Script refuses_auth_then_accepts() {
    Script script = Script()
                        .send("220 test ESMTP\r\n")
                        .read_line()
                        .send("250-test\r\n250 AUTH PLAIN\r\n")
                        .read_line()
                        .send("535 5.7.8 authentication failed\r\n");
    return accept_mail(script, 1);
}

TEST(SendTool, MailTakenWithoutAuthWarnsAndRequireAuthFails) {
    TempDir dir;
    const std::string password = dir.file("password");
    write_file(password, "wrong\n");
    const std::string auth =
        " --to b@example.com --user u --auth-mechanisms plain "
        "--password-file " +
        quote(password);
    {
        ScriptServer server(refuses_auth_then_accepts());
        const ToolResult run = send(to_server(server) + auth);
        ASSERT_TRUE(server.wait_done());
        EXPECT_EQ(run.status, 0) << run.err;
        EXPECT_TRUE(has(run.err, "warning: the server took the mail WITHOUT the authentication"))
            << run.err;
    }
    {
        ScriptServer server(refuses_auth_then_accepts());
        const ToolResult run = send(to_server(server) + auth + " --require-auth");
        ASSERT_TRUE(server.wait_done());
        EXPECT_EQ(run.status, EX_NOPERM) << run.err;
        EXPECT_TRUE(has(run.err, "error: the server took the mail WITHOUT")) << run.err;
    }
}

TEST(SendTool, AuthRefusedAndMailRefusedIsNoPerm) {
    TempDir dir;
    const std::string password = dir.file("password");
    write_file(password, "wrong\n");
    ScriptServer server(Script()
                            .send("220 test ESMTP\r\n")
                            .read_line()
                            .send("250-test\r\n250 AUTH PLAIN\r\n")
                            .read_line()
                            .send("535 5.7.8 authentication failed\r\n")
                            .read_line()
                            .send("530 5.7.0 authentication required\r\n")
                            .drain());
    const ToolResult run = send(to_server(server) +
                                " --to b@example.com --user u --auth-mechanisms plain "
                                "--password-file " +
                                quote(password));
    server.wait_done();
    EXPECT_EQ(run.status, EX_NOPERM) << run.err;
    EXPECT_TRUE(has(run.err, "KEMAIL_E_AUTH_REFUSED (-25)")) << run.err;
    EXPECT_TRUE(has(run.err, "530 5.7.0 authentication required")) << run.err;
    EXPECT_FALSE(has(run.err, "wrong")) << "the password must not be shown";
}

TEST(SendTool, ConnectionRefusedIsTempFailWithErrnoText) {
    uint16_t port;
    {
        ScriptServer closed(Script().bound_ms(1));  // a port nobody listens on afterwards
        port = closed.port();
    }
    const ToolResult run =
        send("--from a@x --to b@x --server 127.0.0.1 --port " + std::to_string(port) + " --json");
    EXPECT_EQ(run.status, EX_TEMPFAIL) << run.err;
    EXPECT_TRUE(has(run.err, "KEMAIL_E_UNREACHABLE (-10)")) << run.err;
    EXPECT_TRUE(has(run.err, "errno 111 ECONNREFUSED: Connection refused")) << run.err;
    EXPECT_TRUE(has(run.out, "\"code\":-10")) << run.out;
}

// The work-file directory replaced by a plain file: no work file can be
// created (the test runs in its private root, so this is its own copy).
TEST(SendTool, WorkFileThatCannotBeCreatedIsCantCreat) {
    const std::string work = kemail_test::var_dir() + "/tmp";
    ASSERT_EQ(::rename(work.c_str(), (work + ".away").c_str()), 0);
    write_file(work, "");
    const ToolResult run = send("--from a@x --to b@x --server 127.0.0.1 --port 1 --json");
    ASSERT_EQ(::unlink(work.c_str()), 0);
    ASSERT_EQ(::rename((work + ".away").c_str(), work.c_str()), 0);
    EXPECT_EQ(run.status, EX_CANTCREAT) << run.err;
    EXPECT_TRUE(has(run.err, "KEMAIL_E_WORK_FILE (-3)")) << run.err;
    EXPECT_TRUE(has(run.err, "detail: errno 20 ENOTDIR: Not a directory")) << run.err;
    EXPECT_TRUE(has(run.out, "\"phase\":\"compose\"")) << run.out;
}

TEST(SendTool, ServerClosingBeforeTheGreetingIsTempFail) {
    ScriptServer server(Script().close());
    const ToolResult run = send(to_server(server) + " --to b@example.com --json");
    server.wait_done();
    EXPECT_EQ(run.status, EX_TEMPFAIL) << run.err;
    EXPECT_TRUE(has(run.err, "KEMAIL_E_SOCKET (-7)")) << run.err;
    EXPECT_TRUE(has(run.err, "[greeting]")) << run.err;
    EXPECT_TRUE(has(run.out, "\"phase\":\"greeting\"")) << run.out;
}

TEST(SendTool, UnresolvableHostIsNoHostWithTheResolversText) {
    const ToolResult run = send("--from a@x --to b@x --server no-such-host.invalid");
    EXPECT_EQ(run.status, EX_NOHOST) << run.err;
    EXPECT_TRUE(has(run.err, "no-such-host.invalid does not resolve")) << run.err;
    EXPECT_TRUE(has(run.err, "detail: resolver code ")) << run.err;
    EXPECT_FALSE(has(run.err, "errno")) << run.err;
}

TEST(SendTool, VerboseShowsPathsAndDialogue) {
    Script script = greeted();
    ScriptServer server(accept_mail(script, 1));
    const ToolResult run = send(to_server(server) + " --to b@example.com -v");
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_TRUE(has(run.err, "mail log: /var/opt/QRZNvolta/log/kesmtp")) << run.err;
    EXPECT_TRUE(has(run.err, "trace file: /var/opt/QRZNvolta/tmp2/acert")) << run.err;
    EXPECT_TRUE(has(run.err, " S: MAIL FROM:<a@example.com>")) << run.err;
    EXPECT_TRUE(has(run.err, " R: 250 queued")) << run.err;
    EXPECT_TRUE(has(run.err, "refused connection is tried again")) << run.err;
}

}  // namespace

namespace {

// The TLS options reach the library: a server without STARTTLS gets nothing
// after EHLO, and the tool names the result and its reason.
TEST(SendTool, TlsOptionsAreCheckedAndStartTlsNotOfferedIsProtocolError) {
    ToolResult run = send("--from a@x --to b@x --server h --tls ssl");
    EXPECT_EQ(run.status, EX_USAGE);
    EXPECT_TRUE(has(run.err, "--tls ssl: needs none, starttls or smtps")) << run.err;
    run = send("--from a@x --to b@x --server h --pop-tls tls");
    EXPECT_EQ(run.status, EX_USAGE);
    EXPECT_TRUE(has(run.err, "--pop-tls tls: needs none, stls or pop3s")) << run.err;
    run = send("--from a@x --to b@x --server h --tls-server-name 'two words'");
    EXPECT_EQ(run.status, EX_USAGE);
    EXPECT_TRUE(has(run.err, "the library refuses TLS_SERVER_NAME=two words")) << run.err;

    Script script = greeted();
    script.drain();
    ScriptServer server(std::move(script));
    run = send(to_server(server) + " --to b@example.com --tls starttls --json");
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(run.status, EX_PROTOCOL) << run.err;
    EXPECT_TRUE(has(run.out, "\"code\":-30,\"name\":\"KEMAIL_E_TLS\"")) << run.out;
    EXPECT_TRUE(has(run.out, "\"detail\":\"STARTTLS not offered\"")) << run.out;
    EXPECT_TRUE(has(run.err, "failed: KEMAIL_E_TLS (-30)")) << run.err;
    EXPECT_TRUE(has(run.out, "\"phase\":\"tls\"")) << run.out;
    EXPECT_FALSE(has(server.received(), "MAIL FROM")) << server.received();
}

TEST(SendTool, HelpNamesTheTlsOptions) {
    const ToolResult help = send("-h");
    for (const char* option : {"--tls MODE", "--tls-ca FILE", "--tls-server-name NAME",
                               "--tls-no-verify", "--pop-tls MODE", "76  TLS"})
        EXPECT_TRUE(has(help.out, option)) << option;
}

}  // namespace
