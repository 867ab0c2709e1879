// Helpers for SMTP dialogues against the scripted server: connecting, the
// host name the client introduces itself with, credential records.
#pragma once

#include "smtp_test_support.h"
#include "support/script_server.h"

#include <unistd.h>

#include <cstring>
#include <string>

namespace smtp_test {

inline std::string host_name() {
    char name[256] = {};
    gethostname(name, sizeof name - 1);
    return name;
}

inline std::string ehlo_line() { return "EHLO " + host_name() + "\r\n"; }
inline std::string helo_line() { return "HELO " + host_name() + "\r\n"; }

// A connection to the scripted server, closed at the end of the scope.
struct Client {
    explicit Client(const kemail_test::ScriptServer& server) {
        unsigned int err = 0;
        sock = SMTP_connect("127.0.0.1", server.port(), &err);
        EXPECT_GE(sock, 0) << "connect failed, errno " << err;
    }
    ~Client() { close_now(); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    void close_now() {
        if (sock >= 0) ::close(sock);
        sock = -1;
    }
    int sock = -1;
};

// RFC 2195's example credentials, its challenge, and the lines made of them.
inline constexpr char kUser[] = "tim";
inline constexpr char kPassword[] = "tanstaaftanstaaf";
inline constexpr char kChallenge[] =
    "334 PDE4OTYuNjk3MTcwOTUyQHBvc3RvZmZpY2UucmVzdG9uLm1jaS5uZXQ+\r\n";
inline constexpr char kCramResponse[] = "dGltIGI5MTNhNjAyYzdlZGE3YTQ5NWI0ZTZlNzMzNGQzODkw\r\n";
inline constexpr char kPlainCommand[] = "AUTH PLAIN dGltAHRpbQB0YW5zdGFhZnRhbnN0YWFm\r\n";

inline AuthCertInfo credentials(unsigned int mechanisms, const char* user, const char* password) {
    AuthCertInfo cert;
    std::memset(&cert, 0, sizeof cert);
    cert.ulMechanisms = mechanisms;
    std::strncpy(cert.szUser, user, sizeof cert.szUser - 1);
    std::strncpy(cert.szPassword, password, sizeof cert.szPassword - 1);
    return cert;
}

inline MailAuthInfo smtp_auth(AuthCertInfo* cert) {
    MailAuthInfo auth;
    std::memset(&auth, 0, sizeof auth);
    auth.SmtpAuthMode = KEMAIL_AUTH_SMTP;
    auth.pSettings = cert;
    return auth;
}

// The greeting and EHLO exchange every authenticated dialogue starts with.
inline kemail_test::Script& greet(kemail_test::Script& script, const std::string& auth_line) {
    return script.send("220 test ESMTP\r\n")
        .read_line()
        .send("250-test\r\n" + auth_line + "250 8BITMIME\r\n");
}

}  // namespace smtp_test
