// What the send tests share: a mail request that owns its records, the SMTP
// dialogue pieces a scripted server plays, and checks of the work directory.
#pragma once

#include "kemail.h"
#include "support/mail_masks.h"
#include "support/script_server.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace send_test {

using kemail_test::files_in;
using kemail_test::mask_variable;
using kemail_test::open_descriptors;
using kemail_test::Script;
using kemail_test::ScriptServer;

constexpr char kFrom[] = "sender@example.test";
constexpr char kTo[] = "rcpt@example.test";

// One send request; every record it hands to the library lives here.
struct Mail {
    std::string to = kTo;
    std::string from = kFrom;
    std::string subject = "Test";
    std::optional<std::string> text = std::string("Hello\n");
    std::vector<std::pair<unsigned, std::string>> attachments;  // kind, path
    std::string server = "127.0.0.1";
    unsigned split = 0;
    std::optional<SendOptionInfo> option;
    // Short enough for a test, long enough for a loaded machine.
    std::optional<MailTimeoutInfo> timeout = MailTimeoutInfo{60, 60, 60, 60, 60, 60};
    MailAuthInfo* auth = nullptr;
    int address_count = 1;
    uint32_t address_kind = 1;
    char message[KEMAIL_MESSAGE_SIZE] = "(untouched)";

    MailAddressInfo address{};
    std::vector<MailContentInfo> contents;

    explicit Mail(uint16_t port = 0) {
        if (port != 0) option = SendOptionInfo{64, port};
    }

    void prepare() {
        address = MailAddressInfo{address_kind, 0, to.data()};
        contents.clear();
        contents.push_back({KEMAIL_CONTENT_TEXT, 0, text ? text->data() : nullptr});
        for (auto& [kind, path] : attachments) contents.push_back({kind, 0, path.data()});
    }

    int send() {
        prepare();
        return ZvKe_SendEMail(&address, address_count, contents.data(),
                              static_cast<int>(contents.size()), from.c_str(), subject.c_str(),
                              server.c_str(), split, option ? &*option : nullptr,
                              timeout ? &*timeout : nullptr, auth, message);
    }

    int send_with_temp_dir(const std::string& temp_dir) {
        prepare();
        return ZvKe_SendEMailPartial_parts(
            0, &address, address_count, contents.data(), static_cast<int>(contents.size()),
            from.c_str(), subject.c_str(), server.c_str(), split, option ? &*option : nullptr,
            timeout ? &*timeout : nullptr, auth, message, temp_dir.c_str());
    }
};

inline std::string host_name() {
    char name[256] = {};
    gethostname(name, sizeof name - 1);
    return name;
}

// Greeting and EHLO, no AUTH offered.
inline Script& greet(Script& s, const char* ehlo_reply = "250-kemail-test\r\n250 8BITMIME\r\n") {
    return s.send("220 kemail-test ESMTP\r\n").read_line().send(ehlo_reply);
}

// MAIL, one RCPT, DATA, the message, and its acceptance.
inline Script& transaction(Script& s) {
    return s.read_line()
        .send("250 2.1.0 Ok\r\n")
        .read_line()
        .send("250 2.1.5 Ok\r\n")
        .read_line()
        .send("354 End data with <CR><LF>.<CR><LF>\r\n")
        .read_until("\r\n.\r\n")
        .send("250 2.0.0 Ok: queued\r\n");
}

inline Script& quit(Script& s) { return s.read_line().send("221 2.0.0 Bye\r\n"); }

inline Script whole_mail_script() {
    Script s;
    greet(s);
    transaction(s);
    quit(s);
    return s;
}

// The work directory of ZvKe_SendEMail in the private test root.
inline std::string work_dir() { return kemail_test::var_dir() + "/tmp"; }

inline bool file_exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// Every send test starts and ends with an empty work directory.
class SendTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(files_in(work_dir()), std::vector<std::string>{}); }
    void TearDown() override {
        EXPECT_EQ(files_in(work_dir()), std::vector<std::string>{})
            << "a work file was left behind";
    }
};

}  // namespace send_test
