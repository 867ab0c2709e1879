// The POP3 log-in, status and log-out commands, each step one exchange.
// Every command and reply goes to the mail log; the password command is
// logged as "******".
#include "kemail.h"

#include "log/trace_record.h"
#include "pop3/pop3_internal.h"
#include "util/format.h"

#include <cstring>

namespace kemail {

namespace {

// A command line of RFC 2449's largest size, CR LF included, plus the NUL.
// "USER %s" and "PASS %s" thus take names and passwords of up to 248 bytes;
// a longer one is refused, not cut: a cut name would log in as somebody
// else, or fail in a way that blames the server.
constexpr size_t kCommandSize = 256;

// A command line that is wiped when it goes out of scope (it may hold the
// password).
struct CommandLine {
    ~CommandLine() { ::explicit_bzero(text, sizeof text); }
    // Formats "<verb> <argument>\r\n"; the length, or -1 when it does not fit.
    int format(const char* verb, const char* argument) {
        return format_into(text, sizeof text, Overflow::Refuse, "%s %s\r\n", verb,
                           argument ? argument : "");
    }
    char text[kCommandSize] = {};
};

constexpr Pop3Codes kGreeting{
    .no_reply = "Pop3_0410", .refused = "Pop3_0420", .refused_result = -2};
constexpr Pop3Codes kUser{.before = "Pop3_0500",
                          .not_sent = "Pop3_0510",
                          .no_reply = "Pop3_0520",
                          .refused = "Pop3_0530",
                          .refused_result = -3};
constexpr Pop3Codes kPass{.before = "Pop3_0600",
                          .not_sent = "Pop3_0610",
                          .no_reply = "Pop3_0620",
                          .refused = "Pop3_0630",
                          .refused_result = -4};
constexpr Pop3Codes kStat{.not_sent = "Pop3_0910",
                          .no_reply = "Pop3_0920",
                          .accepted = "Pop3_09ff",
                          .refused = "Pop3_0930",
                          .refused_result = -5};
constexpr Pop3Codes kQuit{.not_sent = "Pop3_0810",
                          .not_sent_shows_command = true,
                          .sent = "Pop3_0820",
                          .no_reply = "Pop3_0830",
                          .no_reply_shows_line = true,
                          .accepted = "Pop3_08ff",
                          .refused = "Pop3_0840",
                          .refused_result = -8};

constexpr char kStatCommand[] = "STAT\r\n";
constexpr char kQuitCommand[] = "QUIT\r\n";
constexpr char kHiddenPassword[] = "******";

}  // namespace

int pop3_login(int sock, const char* user, const char* password, char* reply, int* err,
               TraceHandle* trace, const Pop3AfterGreeting& after_greeting) {
    trace_text(trace, 1, "Pop3_0400", user ? user : "");
    if (reply) reply[0] = '\0';
    int result = pop3_exchange(sock, {}, kGreeting, reply, err, trace);
    if (result != 0) return result;
    if (after_greeting.step) {
        result = after_greeting.step(sock, after_greeting.context, reply, err, trace);
        if (result != 0) return result;
    }

    CommandLine user_line;
    const int user_length = user_line.format("USER", user);
    result = pop3_exchange(sock, {user_line.text, user_length}, kUser, reply, err, trace);
    if (result != 0) return result;

    // Kept: the PASS line goes to the trace with the clear password (record
    // Pop3_0b00 at level 1); only the mail log masks it (test
    // Pop3Session.ThePassCommandIsTracedInClear).
    CommandLine pass;
    const int pass_length = pass.format("PASS", password);
    result =
        pop3_exchange(sock, {pass.text, pass_length, kHiddenPassword}, kPass, reply, err, trace);
    if (result != 0) return result;
    kemail::trace(trace, 1, "Pop3_07ff");
    return 0;
}

}  // namespace kemail

extern "C" {

KEMAIL_API int Pop3_Login(int lSock, const char* pszUser, const char* pszPassword, char* pszReply,
                          int* plErr, TraceHandle* pTrace) noexcept {
    return kemail::pop3_login(lSock, pszUser, pszPassword, pszReply, plErr, pTrace, {});
}

// The message count and size in the reply are not looked at.
KEMAIL_API int Pop3_STAT(int lSock, char* pszReply, int* plErr, TraceHandle* pTrace) noexcept {
    using namespace kemail;
    trace(pTrace, 1, "Pop3_0900");
    if (pszReply) pszReply[0] = '\0';
    return pop3_exchange(lSock, {kStatCommand, sizeof kStatCommand - 1}, kStat, pszReply, plErr,
                         pTrace);
}

// Kept: unlike log-in and status, log-out leaves the reply buffer alone
// unless the server refuses (test
// Pop3Session.ARefusedQuitGivesMinus8AndAGoodOneLeavesTheBufferAlone).
KEMAIL_API int Pop3_Logout(int lSock, char* pszReply, int* plErr, TraceHandle* pTrace) noexcept {
    using namespace kemail;
    trace(pTrace, 1, "Pop3_0800");
    return pop3_exchange(lSock, {kQuitCommand, sizeof kQuitCommand - 1}, kQuit, pszReply, plErr,
                         pTrace);
}

}  // extern "C"
