// One POP3 session through the library's exported POP3 client, for the
// real-server test tests/peers/pop3_dovecot_test.sh:
//   Pop3_SetTimeOut, Pop3_Connect, Pop3_Login, Pop3_STAT, Pop3_Logout.
//
//   peer_pop3_session --host H --port P --user U --password PW
//                     [--timeout S] [--trace FILE] [--maillog]
//
// Prints one line per step: "<step> <result> err=<error slot> reply=<reply
// buffer>" (escaped, see smtp_pop3_output.h). STAT is asked only after a
// successful log-in; QUIT is sent whenever the connection stands, and the
// socket is closed here, as the library leaves that to its caller. The
// trace goes to FILE at level 2; --maillog opens the library's mail log (run
// the program under tests/support/private-root.sh) and prints it at the end.
// Exit status 0 when every step returned 0.
#include "kemail.h"
#include "smtp_pop3_output.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

struct Options {
    std::string host = "127.0.0.1";
    unsigned int port = 0;
    std::string user;
    std::string password;
    unsigned int timeout = 30;
    std::string trace;
    bool maillog = false;
};

bool parse(int argc, char** argv, Options& o) {
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--maillog") {
            o.maillog = true;
            continue;
        }
        if (i + 1 >= argc) return false;
        const char* v = argv[++i];
        if (a == "--host")
            o.host = v;
        else if (a == "--port")
            o.port = static_cast<unsigned int>(std::strtoul(v, nullptr, 10));
        else if (a == "--user")
            o.user = v;
        else if (a == "--password")
            o.password = v;
        else if (a == "--timeout")
            o.timeout = static_cast<unsigned int>(std::strtoul(v, nullptr, 10));
        else if (a == "--trace")
            o.trace = v;
        else
            return false;
    }
    return !o.user.empty() && o.user.size() <= KEMAIL_MAX_USER &&
           o.password.size() <= KEMAIL_MAX_PASSWORD;
}

void report(const char* step, int result, int err, const char* reply) {
    std::printf("%s %d err=%d reply=%s\n", step, result, err, peers::escaped(reply).c_str());
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    if (!parse(argc, argv, o)) {
        std::fprintf(
            stderr,
            "usage: %s --host H --port P --user U --password PW [--timeout S] [--trace FILE] "
            "[--maillog]\n",
            argv[0]);
        return 2;
    }
    TraceHandle* trace = nullptr;
    if (!o.trace.empty() && (trace = peers::open_trace(o.trace.c_str())) == nullptr) return 2;
    if (o.maillog && !peers::open_mail_log()) return 2;

    // Reply buffers of exactly the documented minimum, so an overrun shows.
    char reply[256] = "";
    int err = 0;
    bool ok = true;
    int r = Pop3_SetTimeOut(o.timeout, trace);
    report("settimeout", r, 0, "");
    ok = ok && r == 0;

    const int sock = Pop3_Connect(o.host.c_str(), o.port, &err, trace);
    report("connect", sock < 0 ? sock : 0, err, "");
    if (sock >= 0) {
        std::memset(reply, 'x', sizeof reply - 1);  // Login must empty it itself
        r = Pop3_Login(sock, o.user.c_str(), o.password.c_str(), reply, &err, trace);
        report("login", r, err, reply);
        ok = ok && r == 0;
        if (r == 0) {
            std::memset(reply, 'x', sizeof reply - 1);  // so must STAT
            r = Pop3_STAT(sock, reply, &err, trace);
            report("stat", r, err, reply);
            ok = ok && r == 0;
        }
        reply[0] = '\0';  // Logout leaves the buffer alone when all is well
        r = Pop3_Logout(sock, reply, &err, trace);
        report("logout", r, err, reply);
        ok = ok && r == 0;
        close(sock);
    } else {
        ok = false;
    }

    peers::close_and_print_mail_log();
    if (trace != nullptr) Tclose(trace);
    return ok ? 0 : 1;
}
