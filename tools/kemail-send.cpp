// kemail-send: sends one mail through libkemail from the command line, the
// way an operator or a script would. Uses the public API only.
//
// Passwords are never taken from the command line (other users can read it
// in the process list): from KEMAIL_PASSWORD / KEMAIL_POP_PASSWORD or from a
// file.
#include "kemail.h"

#include <getopt.h>

#include <cerrno>
#include <climits>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr int kExitSent = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

struct ResultName {
    int code;
    const char* name;
    const char* meaning;
};

const ResultName kResults[] = {
    {KEMAIL_OK, "KEMAIL_OK", "the server accepted the mail (every piece, when split)"},
    {KEMAIL_W_CONVERSION, "KEMAIL_W_CONVERSION",
     "accepted, but converting EUC-JP subject or text to Shift_JIS failed"},
    {KEMAIL_W_NO_AUTH, "KEMAIL_W_NO_AUTH",
     "accepted without the SMTP AUTH that was asked for"},
    {KEMAIL_E_ARGUMENT, "KEMAIL_E_ARGUMENT", "an argument or setting is invalid"},
    {KEMAIL_E_NO_MEMORY, "KEMAIL_E_NO_MEMORY", "memory could not be allocated"},
    {KEMAIL_E_WORK_FILE, "KEMAIL_E_WORK_FILE",
     "a work file failed (detail: system error number)"},
    {KEMAIL_E_TIMEOUT, "KEMAIL_E_TIMEOUT", "an SMTP phase time-out ran out"},
    {KEMAIL_E_RECIPIENT, "KEMAIL_E_RECIPIENT", "the recipient list is invalid"},
    {KEMAIL_E_REFUSED, "KEMAIL_E_REFUSED", "the SMTP server refused (detail: its reply)"},
    {KEMAIL_E_SOCKET, "KEMAIL_E_SOCKET",
     "a socket call failed or the server closed (detail: system error number)"},
    {KEMAIL_E_ATTACHMENT, "KEMAIL_E_ATTACHMENT", "an attachment file could not be examined"},
    {KEMAIL_E_BUSY, "KEMAIL_E_BUSY", "another send is running in this process"},
    {KEMAIL_E_UNREACHABLE, "KEMAIL_E_UNREACHABLE",
     "the SMTP server could not be reached (detail: system error number)"},
    {KEMAIL_E_POP_REFUSED, "KEMAIL_E_POP_REFUSED",
     "POP before SMTP: log-in or STAT refused (detail: the POP server's reply)"},
    {KEMAIL_E_POP_SYSTEM, "KEMAIL_E_POP_SYSTEM",
     "POP before SMTP: system error (detail: system error number)"},
    {KEMAIL_E_POP_TIMEOUT, "KEMAIL_E_POP_TIMEOUT", "POP before SMTP: the POP time-out ran out"},
    {KEMAIL_E_POP_UNREACHABLE, "KEMAIL_E_POP_UNREACHABLE",
     "POP before SMTP: the POP server could not be reached (detail: system error number)"},
    {KEMAIL_E_INTERNAL, "KEMAIL_E_INTERNAL", "any other internal failure"},
    {KEMAIL_E_AUTH_REFUSED, "KEMAIL_E_AUTH_REFUSED",
     "first MAIL/RCPT refused after the server refused every AUTH mechanism (detail: reply)"},
    {KEMAIL_E_NO_AUTH, "KEMAIL_E_NO_AUTH",
     "first MAIL/RCPT refused after no AUTH took place (detail: reply)"},
};

const char* result_name(int code) {
    for (const ResultName& r : kResults)
        if (r.code == code) return r.name;
    return "UNKNOWN";
}

void print_help(const char* program) {
    std::printf(
        "Usage: %s --from ADDR --to LIST --server HOST [options] [--body FILE | < text]\n"
        "\n"
        "Sends one mail through libkemail. The text is read from --body FILE, or from\n"
        "standard input when --body is not given. Subject and text are passed on as\n"
        "bytes: Shift_JIS, or EUC-JP when the process runs in an EUC-JP locale\n"
        "(LANG=ja_JP.eucJP); the library sends them as ISO-2022-JP.\n"
        "\n"
        "Message:\n"
        "  --from ADDR              sender address (1..256 bytes)\n"
        "  --to LIST                recipients, comma-separated, no blanks (1..256 bytes)\n"
        "  --subject TEXT           subject (0..64 bytes; default empty)\n"
        "  --body FILE              message text (at most 10,238 bytes); - for stdin\n"
        "  --attach FILE            attach FILE (repeatable)\n"
        "  --attach-delete FILE     attach FILE and delete it after a successful send\n"
        "                           (repeatable; kept when the send fails)\n"
        "\n"
        "Server and delivery:\n"
        "  --server HOST            SMTP server name or dotted IPv4 address\n"
        "  --port N                 SMTP port (default: service \"smtp\", else 25)\n"
        "  --split                  send a mail larger than one piece as message/partial\n"
        "                           pieces, one SMTP transaction each\n"
        "  --part-size KB           piece size in KiB, 10..100 (default 64)\n"
        "  --timeout-connect S      greeting, EHLO/HELO and AUTH  (default 300)\n"
        "  --timeout-mail S         MAIL FROM                     (default 300)\n"
        "  --timeout-rcpt S         each RCPT TO                  (default 300)\n"
        "  --timeout-data S         DATA command                  (default 120)\n"
        "  --timeout-block S        each block of message data    (default 180)\n"
        "  --timeout-end S          end of data                   (default 600)\n"
        "                           every time-out: seconds, 60..3600\n"
        "\n"
        "SMTP AUTH (password from $KEMAIL_PASSWORD or --password-file):\n"
        "  --auth-mechanisms LIST   allowed mechanisms, e.g. cram-md5,plain,login;\n"
        "                           tried in the order CRAM-MD5, PLAIN, LOGIN\n"
        "  --user NAME              user name (1..64 bytes)\n"
        "  --password-file FILE     first line of FILE is the password (0..64 bytes)\n"
        "\n"
        "POP before SMTP (password from $KEMAIL_POP_PASSWORD or --pop-password-file):\n"
        "  --pop-server HOST        log in to this POP3 server before sending\n"
        "  --pop-port N             POP3 port (default: service \"pop3\", else 110)\n"
        "  --pop-user NAME          POP3 user (1..64 bytes)\n"
        "  --pop-password-file FILE first line of FILE is the POP3 password\n"
        "  --pop-wait MS            wait after the POP3 session, 0..3600000 ms (default 0)\n"
        "  --pop-timeout S          POP3 reply time-out, 60..3600 s (default 60)\n"
        "\n"
        "  --help                   this text\n"
        "\n"
        "Output: the result as name and code, and the detail text (the server's reply or\n"
        "a system error number) when there is one. Exit status: 0 when the mail was\n"
        "accepted (results 0, 1, 2), 1 when the send failed, 2 for a usage error.\n"
        "\n"
        "Result codes:\n",
        program);
    for (const ResultName& r : kResults) std::printf("  %4d %-25s %s\n", r.code, r.name, r.meaning);
}

bool parse_number(const char* text, long min, long max, long* out) {
    errno = 0;
    char* end = nullptr;
    const long value = std::strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || value < min || value > max) return false;
    *out = value;
    return true;
}

bool read_all(std::istream& in, std::string* out) {
    out->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return !in.bad();
}

bool read_text_file(const std::string& path, std::string* out) {
    if (path == "-") return read_all(std::cin, out);
    std::ifstream in(path, std::ios::binary);
    return in && read_all(in, out);
}

// The first line of a file, without its line end.
bool read_secret_file(const std::string& path, std::string* out) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    std::getline(in, *out);
    if (!out->empty() && out->back() == '\r') out->pop_back();
    return true;
}

bool parse_mechanisms(const std::string& list, uint32_t* mask) {
    *mask = 0;
    std::stringstream items(list);
    std::string item;
    while (std::getline(items, item, ',')) {
        for (char& c : item) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        if (item == "login") {
            *mask |= KEMAIL_MECH_LOGIN;
        } else if (item == "plain") {
            *mask |= KEMAIL_MECH_PLAIN;
        } else if (item == "cram-md5") {
            *mask |= KEMAIL_MECH_CRAM_MD5;
        } else {
            return false;
        }
    }
    return *mask != 0;
}

// Copies a setting into a fixed record field; false when it does not fit.
template <size_t N>
bool put_field(char (&field)[N], const std::string& value) {
    if (value.size() >= N) return false;
    std::memcpy(field, value.c_str(), value.size() + 1);
    return true;
}

// Shows a detail text on one line: the reply's CR LF removed, other control
// bytes escaped.
std::string printable(const char* text) {
    std::string out;
    for (const char* p = text; *p; ++p) {
        const unsigned char c = static_cast<unsigned char>(*p);
        if (c == '\r' || c == '\n') continue;
        if (c < 0x20 || c == 0x7f) {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02x", c);
            out += hex;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

int usage_error(const char* program, const std::string& why) {
    std::fprintf(stderr, "%s: %s (see --help)\n", program, why.c_str());
    return kExitUsage;
}

enum Option {
    kFrom = 1000, kTo, kSubject, kBody, kAttach, kAttachDelete, kServer, kPort, kSplit,
    kPartSize, kTimeoutConnect, kTimeoutMail, kTimeoutRcpt, kTimeoutData, kTimeoutBlock,
    kTimeoutEnd, kAuthMechanisms, kUser, kPasswordFile, kPopServer, kPopPort, kPopUser,
    kPopPasswordFile, kPopWait, kPopTimeout, kHelp,
};

}  // namespace

int main(int argc, char** argv) {
    const char* program = argv[0];
    // The library tells EUC-JP from Shift_JIS text by the process locale.
    std::setlocale(LC_ALL, "");
    static const option kOptions[] = {
        {"from", required_argument, nullptr, kFrom},
        {"to", required_argument, nullptr, kTo},
        {"subject", required_argument, nullptr, kSubject},
        {"body", required_argument, nullptr, kBody},
        {"attach", required_argument, nullptr, kAttach},
        {"attach-delete", required_argument, nullptr, kAttachDelete},
        {"server", required_argument, nullptr, kServer},
        {"port", required_argument, nullptr, kPort},
        {"split", no_argument, nullptr, kSplit},
        {"part-size", required_argument, nullptr, kPartSize},
        {"timeout-connect", required_argument, nullptr, kTimeoutConnect},
        {"timeout-mail", required_argument, nullptr, kTimeoutMail},
        {"timeout-rcpt", required_argument, nullptr, kTimeoutRcpt},
        {"timeout-data", required_argument, nullptr, kTimeoutData},
        {"timeout-block", required_argument, nullptr, kTimeoutBlock},
        {"timeout-end", required_argument, nullptr, kTimeoutEnd},
        {"auth-mechanisms", required_argument, nullptr, kAuthMechanisms},
        {"user", required_argument, nullptr, kUser},
        {"password-file", required_argument, nullptr, kPasswordFile},
        {"pop-server", required_argument, nullptr, kPopServer},
        {"pop-port", required_argument, nullptr, kPopPort},
        {"pop-user", required_argument, nullptr, kPopUser},
        {"pop-password-file", required_argument, nullptr, kPopPasswordFile},
        {"pop-wait", required_argument, nullptr, kPopWait},
        {"pop-timeout", required_argument, nullptr, kPopTimeout},
        {"help", no_argument, nullptr, kHelp},
        {nullptr, 0, nullptr, 0},
    };

    std::string from, to, subject, server, body_path, user, password_file;
    std::string pop_server, pop_user, pop_password_file, mechanisms;
    bool have_body = false, split = false, have_options = false, have_timeouts = false;
    bool have_auth = false, have_pop = false;
    std::vector<std::pair<uint32_t, std::string>> attachments;
    SendOptionInfo options{64, 0};
    MailTimeoutInfo timeouts{300, 300, 300, 120, 180, 600};
    PopBeforeSmtpInfo pop{};
    pop.usTimeOut = 60;

    int opt;
    while ((opt = getopt_long(argc, argv, "", kOptions, nullptr)) != -1) {
        long value = 0;
        int32_t* timeout_slot = nullptr;
        switch (opt) {
            case kFrom: from = optarg; break;
            case kTo: to = optarg; break;
            case kSubject: subject = optarg; break;
            case kBody: body_path = optarg, have_body = true; break;
            case kAttach: attachments.push_back({KEMAIL_CONTENT_ATTACHMENT, optarg}); break;
            case kAttachDelete:
                attachments.push_back({KEMAIL_CONTENT_ATTACHMENT_DELETE, optarg});
                break;
            case kServer: server = optarg; break;
            case kPort:
                if (!parse_number(optarg, 1, 65535, &value))
                    return usage_error(program, "--port needs 1..65535");
                options.ulPort = static_cast<uint32_t>(value), have_options = true;
                break;
            case kSplit: split = true; break;
            case kPartSize:
                // The library checks the range; pass any number through.
                if (!parse_number(optarg, INT32_MIN, INT32_MAX, &value))
                    return usage_error(program, "--part-size needs a number of KiB");
                options.lPartSize = static_cast<int32_t>(value), have_options = true;
                break;
            case kTimeoutConnect: timeout_slot = &timeouts.lConnect; break;
            case kTimeoutMail: timeout_slot = &timeouts.lMailFrom; break;
            case kTimeoutRcpt: timeout_slot = &timeouts.lRcptTo; break;
            case kTimeoutData: timeout_slot = &timeouts.lData; break;
            case kTimeoutBlock: timeout_slot = &timeouts.lDataBlock; break;
            case kTimeoutEnd: timeout_slot = &timeouts.lDataEnd; break;
            case kAuthMechanisms: mechanisms = optarg, have_auth = true; break;
            case kUser: user = optarg, have_auth = true; break;
            case kPasswordFile: password_file = optarg, have_auth = true; break;
            case kPopServer: pop_server = optarg, have_pop = true; break;
            case kPopPort:
                if (!parse_number(optarg, 1, 65535, &value))
                    return usage_error(program, "--pop-port needs 1..65535");
                pop.ulPort = static_cast<uint32_t>(value), have_pop = true;
                break;
            case kPopUser: pop_user = optarg, have_pop = true; break;
            case kPopPasswordFile: pop_password_file = optarg, have_pop = true; break;
            case kPopWait:
                if (!parse_number(optarg, INT32_MIN, INT32_MAX, &value))
                    return usage_error(program, "--pop-wait needs milliseconds");
                pop.lWait = static_cast<int32_t>(value), have_pop = true;
                break;
            case kPopTimeout:
                if (!parse_number(optarg, 0, 65535, &value))
                    return usage_error(program, "--pop-timeout needs seconds");
                pop.usTimeOut = static_cast<uint16_t>(value), have_pop = true;
                break;
            case kHelp: print_help(program); return kExitSent;
            default: return usage_error(program, "unknown option");
        }
        if (timeout_slot != nullptr) {
            if (!parse_number(optarg, INT32_MIN, INT32_MAX, &value))
                return usage_error(program, "a time-out needs a number of seconds");
            *timeout_slot = static_cast<int32_t>(value);
            have_timeouts = true;
        }
    }
    if (optind < argc) return usage_error(program, std::string("unexpected argument ") + argv[optind]);
    if (from.empty() || to.empty() || server.empty())
        return usage_error(program, "--from, --to and --server are required");
    if (have_auth && have_pop)
        return usage_error(program, "SMTP AUTH and POP before SMTP exclude each other");

    std::string text;
    if (!read_text_file(have_body ? body_path : "-", &text))
        return usage_error(program, "cannot read the text from " + (have_body ? body_path : "stdin"));

    AuthCertInfo cert{};
    MailAuthInfo auth{};
    MailAuthInfo* auth_record = nullptr;
    if (have_auth) {
        if (!parse_mechanisms(mechanisms, &cert.ulMechanisms))
            return usage_error(program, "--auth-mechanisms needs cram-md5, plain and/or login");
        std::string password;
        if (!password_file.empty()) {
            if (!read_secret_file(password_file, &password))
                return usage_error(program, "cannot read " + password_file);
        } else if (const char* env = std::getenv("KEMAIL_PASSWORD")) {
            password = env;
        }
        if (!put_field(cert.szUser, user) || !put_field(cert.szPassword, password))
            return usage_error(program, "user name or password longer than 64 bytes");
        auth = MailAuthInfo{KEMAIL_AUTH_SMTP, 0, &cert};
        auth_record = &auth;
    } else if (have_pop) {
        std::string password;
        if (!pop_password_file.empty()) {
            if (!read_secret_file(pop_password_file, &password))
                return usage_error(program, "cannot read " + pop_password_file);
        } else if (const char* env = std::getenv("KEMAIL_POP_PASSWORD")) {
            password = env;
        }
        if (!put_field(pop.szUser, pop_user) || !put_field(pop.szPassword, password) ||
            !put_field(pop.szHost, pop_server))
            return usage_error(program, "POP user, password or server too long");
        auth = MailAuthInfo{KEMAIL_AUTH_POP_BEFORE_SMTP, 0, &pop};
        auth_record = &auth;
    }

    MailAddressInfo address{1, 0, to.data()};
    std::vector<MailContentInfo> contents;
    contents.push_back({KEMAIL_CONTENT_TEXT, 0, text.data()});
    for (auto& [kind, path] : attachments) contents.push_back({kind, 0, path.data()});

    char message[KEMAIL_MESSAGE_SIZE] = {};
    const int result = ZvKe_SendEMail(&address, 1, contents.data(),
                                      static_cast<int>(contents.size()), from.c_str(),
                                      subject.c_str(), server.c_str(), split ? 1u : 0u,
                                      have_options ? &options : nullptr,
                                      have_timeouts ? &timeouts : nullptr, auth_record, message);

    std::printf("result: %s (%d)\n", result_name(result), result);
    if (message[0] != '\0') std::printf("detail: %s\n", printable(message).c_str());
    return result >= 0 ? kExitSent : kExitFailed;
}
