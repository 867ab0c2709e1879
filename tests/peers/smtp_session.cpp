// One SMTP session through the library's exported SMTP functions, for the
// real-server tests tests/peers/smtp_*_test.sh:
//   connect, greeting + EHLO (+ AUTH), MAIL/RCPT, DATA, the staged message
//   file as it stands, end of data, QUIT.
//
//   peer_smtp_session --host H --port P --from ADDR --to LIST --file MSG
//                     [--mech MASK --user U --password PW] [--timeout S]
//                     [--maillog] [--trace FILE]
//
// --mech asks for SMTP AUTH (SmtpAuthMode 2) with the given mechanism bits
// (1 LOGIN, 2 PLAIN, 4 CRAM-MD5); without it no AUTH is asked for. The staged
// file must already be in wire form (CR LF, leading dots doubled).
// Prints one line per step: "<step> <result> err=<errno> reply=<last reply>"
// (reply escaped, see smtp_pop3_output.h). As the send driver does, a refused
// or impossible AUTH (2, 3) still goes on to MAIL; any other failure ends
// with QUIT. --maillog opens the library's mail log (run the program under
// tests/support/private-root.sh) and prints it at the end. Exit status 0 when
// every step returned 0.
#include "kemail.h"
#include "smtp_pop3_output.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

struct Options {
    std::string host = "127.0.0.1";
    unsigned int port = 0;
    std::string from;
    std::string to;
    std::string file;
    bool auth = false;
    unsigned int mechanisms = 0;
    std::string user;
    std::string password;
    unsigned int timeout = 30;
    bool maillog = false;
    std::string trace;
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
        else if (a == "--from")
            o.from = v;
        else if (a == "--to")
            o.to = v;
        else if (a == "--file")
            o.file = v;
        else if (a == "--mech") {
            o.auth = true;
            o.mechanisms = static_cast<unsigned int>(std::strtoul(v, nullptr, 0));
        } else if (a == "--user")
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
    return !o.to.empty() && !o.file.empty() && o.user.size() <= KEMAIL_MAX_USER &&
           o.password.size() <= KEMAIL_MAX_PASSWORD;
}

std::string last_reply() {
    char reply[256];
    SMTP_GetSmtpSvResponce(reply);
    return peers::escaped(reply);
}

void report(const char* step, int result, unsigned int err, bool with_reply) {
    if (with_reply) {
        std::printf("%s %d err=%u reply=%s\n", step, result, err, last_reply().c_str());
    } else {
        std::printf("%s %d err=%u\n", step, result, err);
    }
    std::fflush(stdout);
}

// Runs the session on a connected socket; returns true when every step gave 0.
bool converse(int sock, const Options& o, int message_fd) {
    AuthCertInfo cert{};
    cert.ulMechanisms = o.mechanisms;
    std::snprintf(cert.szUser, sizeof cert.szUser, "%s", o.user.c_str());
    std::snprintf(cert.szPassword, sizeof cert.szPassword, "%s", o.password.c_str());
    MailAuthInfo auth{};
    auth.SmtpAuthMode = KEMAIL_AUTH_SMTP;
    auth.pSettings = &cert;

    unsigned int err = 0;
    int r = SMTP_initialize(sock, o.auth ? &auth : nullptr, &err);
    report("initialize", r, err, true);
    bool all_zero = r == 0;
    if (r < 0) return false;

    r = SMTP_MAIL(sock, o.from.empty() ? nullptr : o.from.c_str(), o.to.c_str(), &err);
    report("mail", r, err, true);
    if (r != 0) return false;
    r = SMTP_startData(sock, &err);
    report("data", r, err, true);
    if (r != 0) return false;
    r = SMTP_sendData(sock, message_fd, &err);
    report("send", r, err, false);
    if (r != 0) return false;
    r = SMTP_endData(sock, &err);
    report("end", r, err, true);
    return all_zero && r == 0;
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    if (!parse(argc, argv, o)) {
        std::fprintf(
            stderr,
            "usage: %s --host H --port P --from ADDR --to LIST --file MSG "
            "[--mech MASK --user U --password PW] [--timeout S] [--maillog] [--trace FILE]\n",
            argv[0]);
        return 2;
    }
    const int message_fd = open(o.file.c_str(), O_RDONLY | O_CLOEXEC);
    if (message_fd < 0) {
        std::perror(o.file.c_str());
        return 2;
    }
    if (!o.trace.empty() && (g_trace = peers::open_trace(o.trace.c_str())) == nullptr) return 2;
    if (o.maillog && !peers::open_mail_log()) return 2;

    SmtpTimeOut timeouts{o.timeout, o.timeout, o.timeout, o.timeout, o.timeout, o.timeout};
    SMTP_SetTimeOutInfo(&timeouts);

    unsigned int err = 0;
    const int sock = SMTP_connect(o.host.c_str(), o.port, &err);
    report("connect", sock < 0 ? sock : 0, err, false);
    bool ok = false;
    if (sock >= 0) {
        ok = converse(sock, o, message_fd);
        const int r = SMTP_QUIT(sock, &err);
        report("quit", r, err, true);
        ok = ok && r == 0;
        close(sock);
    }
    close(message_fd);

    peers::close_and_print_mail_log();
    if (g_trace != nullptr) {
        Tclose(g_trace);
        g_trace = nullptr;
    }
    return ok ? 0 : 1;
}
