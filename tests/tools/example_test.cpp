// The README's C example (examples/send_mail.c), built in the tree, sends a
// mail to a scripted server and reports a refusal.
#include "support/script_server.h"
#include "tool_run.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using kemail_test::Script;
using kemail_test::ScriptServer;

tools_test::ToolResult example(const std::string& args) {
    // <build>/examples/send_mail, run like a tool.
    return tools_test::run("../examples/send_mail", args);
}

TEST(Example, SendsAMail) {
    ScriptServer server(Script()
                            .send("220 test ESMTP\r\n")
                            .read_line()
                            .send("250 test\r\n")
                            .read_line()
                            .send("250 ok\r\n")
                            .read_line()
                            .send("250 ok\r\n")
                            .read_line()
                            .send("354 go\r\n")
                            .read_until("\r\n.\r\n")
                            .send("250 queued\r\n")
                            .read_line()
                            .send("221 bye\r\n"));
    const tools_test::ToolResult run =
        example("127.0.0.1 " + std::to_string(server.port()) + " a@example.com b@example.com");
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "sent: result 0\n");
    EXPECT_NE(server.received().find("This mail was sent by the send_mail example"),
              std::string::npos)
        << server.received();
}

TEST(Example, ReportsARefusal) {
    ScriptServer server(Script().send("554 no service\r\n").drain());
    const tools_test::ToolResult run =
        example("127.0.0.1 " + std::to_string(server.port()) + " a@example.com b@example.com");
    server.wait_done();
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.err.find("not sent: result -6, detail \"554 no service"), std::string::npos)
        << run.err;
}

}  // namespace
