// kemail-send: sends one mail through libkemail from the command line, the
// way an operator or a script would. Uses the public API only.
//
// Conventions follow msmtp and swaks: results and errors on stderr, exit
// codes from <sysexits.h> by cause, a machine-readable --json result on
// stdout. Every value the library would refuse is checked here first, so
// that the operator learns which option is wrong.
//
// Passwords are never taken from the command line (other users can read it
// in the process list): from KEMAIL_PASSWORD / KEMAIL_POP_PASSWORD or from a
// file.
#include "input_charset.h"
#include "kemail.h"
#include "text_join.h"

#include <fcntl.h>
#include <getopt.h>
#include <netdb.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sysexits.h>
#include <unistd.h>

#include <arpa/inet.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <climits>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#ifndef KEMAIL_VERSION
#define KEMAIL_VERSION "unknown"
#endif

namespace {

using tools::cat;

const char kProgram[] = "kemail-send";
const char kLogDir[] = "/var/opt/QRZNvolta/log";

enum class Detail { None, Errno, Reply, ErrnoOrResolver };

struct ResultName {
    int code;
    const char* name;
    const char* meaning;
    Detail detail;
};

const ResultName kResults[] = {
    {KEMAIL_OK, "KEMAIL_OK", "the server accepted the mail (every piece, when split)",
     Detail::None},
    {KEMAIL_W_CONVERSION, "KEMAIL_W_CONVERSION",
     "accepted, but converting the subject or text to Shift_JIS failed (or, from "
     "UTF-8, sent a character as GETA MARK)",
     Detail::None},
    {KEMAIL_W_NO_AUTH, "KEMAIL_W_NO_AUTH", "accepted without the SMTP AUTH that was asked for",
     Detail::None},
    {KEMAIL_E_ARGUMENT, "KEMAIL_E_ARGUMENT", "an argument or setting is invalid", Detail::None},
    {KEMAIL_E_NO_MEMORY, "KEMAIL_E_NO_MEMORY", "memory could not be allocated", Detail::None},
    {KEMAIL_E_WORK_FILE, "KEMAIL_E_WORK_FILE", "a work file failed", Detail::Errno},
    {KEMAIL_E_TIMEOUT, "KEMAIL_E_TIMEOUT", "an SMTP phase time-out ran out", Detail::None},
    {KEMAIL_E_RECIPIENT, "KEMAIL_E_RECIPIENT", "the recipient list is invalid", Detail::None},
    {KEMAIL_E_REFUSED, "KEMAIL_E_REFUSED", "the SMTP server refused", Detail::Reply},
    {KEMAIL_E_SOCKET, "KEMAIL_E_SOCKET", "a socket call failed or the server closed",
     Detail::Errno},
    {KEMAIL_E_ATTACHMENT, "KEMAIL_E_ATTACHMENT", "an attachment file could not be examined",
     Detail::None},
    {KEMAIL_E_BUSY, "KEMAIL_E_BUSY", "another send is running in this process", Detail::None},
    {KEMAIL_E_UNREACHABLE, "KEMAIL_E_UNREACHABLE", "the SMTP server could not be reached",
     Detail::ErrnoOrResolver},
    {KEMAIL_E_POP_REFUSED, "KEMAIL_E_POP_REFUSED", "POP before SMTP: log-in or STAT refused",
     Detail::Reply},
    {KEMAIL_E_POP_SYSTEM, "KEMAIL_E_POP_SYSTEM", "POP before SMTP: system error", Detail::Errno},
    {KEMAIL_E_POP_TIMEOUT, "KEMAIL_E_POP_TIMEOUT", "POP before SMTP: the POP time-out ran out",
     Detail::None},
    {KEMAIL_E_POP_UNREACHABLE, "KEMAIL_E_POP_UNREACHABLE",
     "POP before SMTP: the POP server could not be reached", Detail::ErrnoOrResolver},
    {KEMAIL_E_INTERNAL, "KEMAIL_E_INTERNAL", "any other internal failure", Detail::None},
    {KEMAIL_E_AUTH_REFUSED, "KEMAIL_E_AUTH_REFUSED",
     "first MAIL/RCPT refused after the server refused every AUTH mechanism", Detail::Reply},
    {KEMAIL_E_NO_AUTH, "KEMAIL_E_NO_AUTH", "first MAIL/RCPT refused after no AUTH took place",
     Detail::Reply},
    {KEMAIL_E_TLS, "KEMAIL_E_TLS", "TLS could not be established", Detail::None},
};

const ResultName* find_result(int code) {
    for (const ResultName& r : kResults)
        if (r.code == code) return &r;
    return nullptr;
}

void print_help() {
    std::printf(
        "Usage: %s --from ADDR --to LIST --server HOST [options] [--body FILE | < text]\n"
        "\n"
        "Sends one mail through libkemail. The text is read from --body FILE, or from\n"
        "standard input when --body is not given. Subject and text are read in the\n"
        "terminal's character set (the locale's codeset, or --charset) and handed to\n"
        "the library as it takes them: Shift_JIS, or EUC-JP when the process runs in\n"
        "an EUC-JP locale (LANG=ja_JP.eucJP); it sends them as ISO-2022-JP. In the C\n"
        "locale, and in the library's own charset, the bytes pass as given; so do,\n"
        "without --charset, ASCII and bytes that are no UTF-8 (Shift_JIS from a file).\n"
        "\n"
        "Message:\n"
        "  --from ADDR              sender address (1..256 bytes)\n"
        "  --to LIST                recipients, comma-separated (1..256 bytes); blanks\n"
        "                           around the commas are removed, with a note\n"
        "  --subject TEXT           subject (0..64 bytes; default empty)\n"
        "  --body FILE              message text (at most 10,238 bytes); - for stdin\n"
        "  --attach FILE            attach FILE (repeatable)\n"
        "  --attach-delete FILE     attach FILE and delete it after a successful send\n"
        "                           (repeatable; kept when the send fails)\n"
        "  --charset NAME           subject and text are in NAME (an iconv name, e.g.\n"
        "                           UTF-8, EUC-JP, CP932), not the terminal's charset;\n"
        "                           UTF-8 is converted by the library (INPUT_CHARSET),\n"
        "                           which also converts attachment names and sends a\n"
        "                           character without a Shift_JIS form as GETA MARK\n"
        "\n"
        "Server and delivery:\n"
        "  --server HOST            SMTP server name or dotted IPv4 address (1..256 bytes)\n"
        "  --ipv6                   resolve names to IPv6 and IPv4 addresses and try\n"
        "                           each in turn; HOST may be an IPv6 address such as\n"
        "                           ::1 (ADDRESS_FAMILY=any; also for --pop-server)\n"
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
        "  --require-auth           fail (exit 77) when the server took the mail without\n"
        "                           the authentication asked for (result 2); without\n"
        "                           it that is a warning and exit 0\n"
        "\n"
        "TLS (through ZvKe_SetOption; the library verifies the server's certificate):\n"
        "  --tls MODE               none, starttls (STARTTLS required: nothing after EHLO\n"
        "                           goes in clear) or smtps (TLS from the first byte;\n"
        "                           port 465 unless --port); default none\n"
        "  --tls-ca FILE            trusted roots (PEM) instead of the system's store\n"
        "  --tls-server-name NAME   the name to verify and send as SNI (default --server)\n"
        "  --tls-no-verify          encrypt without verifying the certificate\n"
        "  --pop-tls MODE           POP before SMTP over TLS: none, stls, or pop3s\n"
        "                           (port 995 unless --pop-port)\n"
        "\n"
        "POP before SMTP (password from $KEMAIL_POP_PASSWORD or --pop-password-file):\n"
        "  --pop-server HOST        log in to this POP3 server before sending\n"
        "  --pop-port N             POP3 port (default: service \"pop3\", else 110)\n"
        "  --pop-user NAME          POP3 user (1..64 bytes)\n"
        "  --pop-password-file FILE first line of FILE is the POP3 password\n"
        "  --pop-wait MS            wait after the POP3 session, 0..3600000 ms (default 0)\n"
        "  --pop-timeout S          POP3 reply time-out, 60..3600 s (default 60)\n"
        "\n"
        "Output:\n"
        "  --json                   print the result as one JSON object on stdout\n"
        "  -v, --verbose            show the mail log and trace file paths and the SMTP\n"
        "                           dialogue of this send (from the mail log)\n"
        "  -h, --help               this text\n"
        "  --version                the version of kemail-send\n"
        "\n"
        "The result and any error go to standard error as \"kemail-send: ...\", with\n"
        "the detail decoded: a system error number as its text, a resolver code as\n"
        "the resolver's text, a server reply as it came.\n"
        "\n"
        "Exit status (sysexits.h):\n"
        "   0  the mail was accepted (results 0, 1, and 2 without --require-auth)\n"
        "  64  usage: an unknown option or a value the library would refuse\n"
        "  65  the server refused the sender or a recipient (MAIL FROM, RCPT TO)\n"
        "  66  an input file (text, attachment, password file) cannot be read\n"
        "  68  the SMTP or POP3 server's name does not resolve\n"
        "  69  the server refused the greeting, HELO, DATA or the message (5xx)\n"
        "  70  any other failure inside the library\n"
        "  73  a work file cannot be created\n"
        "  74  a work file cannot be read or written\n"
        "  75  temporary: server unreachable, time-out, connection lost, 4xx reply\n"
        "  76  TLS could not be established (result -30)\n"
        "  77  authentication: AUTH or POP log-in refused, or result 2 with\n"
        "      --require-auth\n"
        "\n"
        "Result codes of the library:\n",
        kProgram);
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

// Copies a checked setting into a fixed record field.
template <size_t N>
void put_field(char (&field)[N], const std::string& value) {
    const size_t n = value.size() < N ? value.size() : N - 1;
    std::memcpy(field, value.data(), n);
    field[n] = '\0';
}

// Shows a text on one line: CR LF removed, other control bytes escaped.
std::string printable(const std::string& text) {
    std::string out;
    for (unsigned char c : text) {
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

std::string json_string(const std::string& text) {
    std::string out = "\"";
    for (unsigned char c : text) {
        switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            default:
                if (c < 0x20 || c >= 0x7f) {
                    // Bytes outside ASCII (a Shift_JIS reply, say) as \u00XX,
                    // so the object stays valid UTF-8.
                    char hex[8];
                    std::snprintf(hex, sizeof hex, "\\u%04x", c);
                    out += hex;
                } else {
                    out += static_cast<char>(c);
                }
        }
    }
    return out + "\"";
}

void error(const std::string& text) { std::fprintf(stderr, "%s: %s\n", kProgram, text.c_str()); }

int usage_error(const std::string& why) {
    std::fprintf(stderr, "%s: %s (see --help)\n", kProgram, why.c_str());
    return EX_USAGE;
}

std::string errno_text(long number) {
    const char* name = strerrorname_np(static_cast<int>(number));
    std::string out = "errno ";
    out += std::to_string(number);
    if (name) {
        out += " ";
        out += name;
    }
    out += ": ";
    out += std::strerror(static_cast<int>(number));
    return out;
}

std::string resolver_text(long number) {
    std::string out = "resolver code ";
    out += std::to_string(number);
    out += ": ";
    out += hstrerror(static_cast<int>(number));
    return out;
}

// True when NAME is a dotted IPv4 address or resolves to one; *code gets
// the resolver's error code otherwise.
bool resolves(const std::string& name, int* code) {
    in_addr address{};
    if (inet_aton(name.c_str(), &address) != 0) return true;
    hostent entry{};
    hostent* result = nullptr;
    char work[2048];
    int error_code = 0;
    for (int attempt = 0; attempt < 3; ++attempt) {
        const int rc =
            gethostbyname_r(name.c_str(), &entry, work, sizeof work, &result, &error_code);
        if (rc == 0 && result != nullptr) return true;
        if (error_code != TRY_AGAIN) break;
    }
    *code = error_code;
    return false;
}

// This process's mail log and trace file, as the library names them.
struct Paths {
    std::string mail_log;
    std::string trace;  // empty when tracing is off
};

Paths library_paths() {
    Paths paths;
    paths.mail_log = std::string(kLogDir) + cat("/kesmtp", std::to_string(::getpid())) + ".log";
    unsigned int size = 5, level = 1, count = 5;
    GetTraceInfo("ACERT", 0, &size, &level, &count);
    char name[KEMAIL_TRACE_NAME_SIZE] = {};
    MakeTraceFileName(name, 0, "acert", level);
    paths.trace = name;
    return paths;
}

bool exists(const std::string& path) {
    struct stat st {};
    return !path.empty() && ::stat(path.c_str(), &st) == 0;
}

// The lines of this process's last session in the mail log: from its last
// banner on. Empty when the log is off or unreadable.
std::vector<std::string> session_lines(const std::string& path) {
    std::vector<std::string> lines;
    std::ifstream in(path, std::ios::binary);
    if (!in) return lines;
    const std::string banner = cat("[", std::to_string(::getpid())) + "] NQ-Agent E-Mail";
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.find(banner) != std::string::npos) lines.clear();
        lines.push_back(line);
    }
    return lines;
}

// "HH:MM:SS S: TEXT" -> kind 'S' and TEXT.
bool split_log_line(const std::string& line, char* kind, std::string* text) {
    if (line.size() < 12 || line[2] != ':' || line[5] != ':' || line[8] != ' ' || line[10] != ':')
        return false;
    *kind = line[9];
    *text = line.size() > 12 ? line.substr(12) : std::string();
    return true;
}

// What the session of the mail log tells about the failure.
struct SessionFacts {
    std::string phase;          // of the last command sent
    std::string last_reply;     // the server's last reply line
    std::string resolver_fail;  // "gethostbyname_r" error line seen
    int pieces = 0;             // MAIL FROM commands sent
};

SessionFacts session_facts(const std::vector<std::string>& lines) {
    SessionFacts facts;
    facts.phase = "connect";
    for (const std::string& line : lines) {
        char kind = 0;
        std::string text;
        if (!split_log_line(line, &kind, &text)) {
            if (line == ".") facts.phase = "end of data";
            continue;
        }
        if (kind == 'S') {
            if (text.rfind("EHLO", 0) == 0 || text.rfind("HELO", 0) == 0)
                facts.phase = "greeting";
            else if (text.rfind("AUTH", 0) == 0)
                facts.phase = "auth";
            else if (text.rfind("MAIL FROM", 0) == 0)
                facts.phase = "mail", ++facts.pieces;
            else if (text.rfind("RCPT TO", 0) == 0)
                facts.phase = "rcpt";
            else if (text.rfind("DATA", 0) == 0)
                facts.phase = "data";
            else if (text.rfind("QUIT", 0) == 0)
                facts.phase = "quit";
            else if (text.rfind("RSET", 0) == 0)
                facts.phase = "rset";
            else if (text.rfind("USER", 0) == 0 || text.rfind("PASS", 0) == 0 ||
                     text.rfind("STAT", 0) == 0)
                facts.phase = "pop";
        } else if (kind == 'R') {
            facts.last_reply = text;
        } else if (text.find("func=gethostbyname_r") != std::string::npos) {
            facts.resolver_fail = text;
        }
    }
    return facts;
}

// Watches the mail log during a split send and prints a line per piece on
// the terminal: the library itself offers no progress hook.
class PieceProgress {
public:
    explicit PieceProgress(std::string path) : path_(std::move(path)) {
        thread_ = std::thread([this] { run(); });
    }
    ~PieceProgress() {
        stop_ = true;
        thread_.join();
    }

private:
    void run() {
        int shown = 0;
        while (!stop_) {
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            const int pieces = session_facts(session_lines(path_)).pieces;
            for (; shown < pieces; ++shown)
                std::fprintf(stderr, "%s: sending piece %d\n", kProgram, shown + 1);
        }
    }
    std::string path_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

bool is_temporary_reply(const std::string& reply) { return !reply.empty() && reply[0] == '4'; }

int exit_code_for(int result, bool require_auth, const std::string& detail,
                  const SessionFacts& facts, bool server_resolves) {
    switch (result) {
        case KEMAIL_OK:
        case KEMAIL_W_CONVERSION: return EX_OK;
        case KEMAIL_W_NO_AUTH: return require_auth ? EX_NOPERM : EX_OK;
        case KEMAIL_E_ARGUMENT:
        case KEMAIL_E_RECIPIENT: return EX_USAGE;
        case KEMAIL_E_WORK_FILE: {
            const long number = std::strtol(detail.c_str(), nullptr, 10);
            switch (number) {
                case 0:
                case EACCES:
                case EPERM:
                case ENOENT:
                case EROFS:
                case ENOTDIR:
                case EEXIST:
                case ENAMETOOLONG: return EX_CANTCREAT;
                default: return EX_IOERR;
            }
        }
        case KEMAIL_E_TIMEOUT:
        case KEMAIL_E_SOCKET:
        case KEMAIL_E_POP_SYSTEM:
        case KEMAIL_E_POP_TIMEOUT: return EX_TEMPFAIL;
        case KEMAIL_E_REFUSED:
            if (is_temporary_reply(detail)) return EX_TEMPFAIL;
            if (facts.phase == "mail" || facts.phase == "rcpt") return EX_DATAERR;
            return EX_UNAVAILABLE;
        case KEMAIL_E_ATTACHMENT: return EX_NOINPUT;
        case KEMAIL_E_UNREACHABLE: return server_resolves ? EX_TEMPFAIL : EX_NOHOST;
        case KEMAIL_E_POP_UNREACHABLE: return server_resolves ? EX_TEMPFAIL : EX_NOHOST;
        case KEMAIL_E_POP_REFUSED:
        case KEMAIL_E_AUTH_REFUSED:
        case KEMAIL_E_NO_AUTH: return EX_NOPERM;
        case KEMAIL_E_TLS: return EX_PROTOCOL;
        default: return EX_SOFTWARE;
    }
}

enum Option {
    kFrom = 1000,
    kTo,
    kSubject,
    kBody,
    kAttach,
    kAttachDelete,
    kServer,
    kPort,
    kSplit,
    kPartSize,
    kTimeoutConnect,
    kTimeoutMail,
    kTimeoutRcpt,
    kTimeoutData,
    kTimeoutBlock,
    kTimeoutEnd,
    kAuthMechanisms,
    kUser,
    kPasswordFile,
    kRequireAuth,
    kPopServer,
    kPopPort,
    kPopUser,
    kPopPasswordFile,
    kPopWait,
    kPopTimeout,
    kJson,
    kVersion,
    kTls,
    kTlsCa,
    kTlsServerName,
    kTlsNoVerify,
    kPopTls,
    kIpv6,
    kCharset,
};

// The TLS options, handed to the library as ZvKe_SetOption keys.
struct TlsOptions {
    std::vector<std::pair<const char*, std::string>> keys;
    bool smtps = false;
    bool pop3s = false;
};

// Takes one TLS option; false with the reason when its value is refused.
bool take_tls_option(int opt, const char* value, TlsOptions* tls, std::string* why) {
    switch (opt) {
        case kTls:
            if (std::strcmp(value, "none") != 0 && std::strcmp(value, "starttls") != 0 &&
                std::strcmp(value, "smtps") != 0) {
                *why = std::string("--tls ") + value + ": needs none, starttls or smtps";
                return false;
            }
            tls->smtps = std::strcmp(value, "smtps") == 0;
            tls->keys.emplace_back("TLS", value);
            return true;
        case kTlsCa: tls->keys.emplace_back("TLS_CA_FILE", value); return true;
        case kTlsServerName: tls->keys.emplace_back("TLS_SERVER_NAME", value); return true;
        case kTlsNoVerify: tls->keys.emplace_back("TLS_VERIFY", "0"); return true;
        case kPopTls:
            if (std::strcmp(value, "none") != 0 && std::strcmp(value, "stls") != 0 &&
                std::strcmp(value, "pop3s") != 0) {
                *why = std::string("--pop-tls ") + value + ": needs none, stls or pop3s";
                return false;
            }
            tls->pop3s = std::strcmp(value, "pop3s") == 0;
            tls->keys.emplace_back("POP_TLS", value);
            return true;
    }
    return false;
}

// Hands the TLS options to the library; false with the reason for a value it
// refuses (a CA file name too long, a server name with blanks).
bool apply_tls_options(const TlsOptions& tls, std::string* why) {
    for (const auto& [key, value] : tls.keys) {
        if (ZvKe_SetOption(key, value.c_str()) != 0) {
            *why = std::string("the library refuses ") + key + "=" + value;
            return false;
        }
    }
    return true;
}

struct TimeoutOption {
    const char* name;
    int32_t* slot;
};

// Checks a length in bytes against the library's byte limits.
bool length_ok(const std::string& option, size_t size, size_t min, size_t max, std::string* why) {
    if (size >= min && size <= max) return true;
    *why =
        option + cat(" is ", std::to_string(size)) + " bytes; " +
        (size < min ? cat("at least ", std::to_string(min)) : cat("at most ", std::to_string(max)));
    return false;
}

bool length_ok(const std::string& option, const std::string& value, size_t min, size_t max,
               std::string* why) {
    return length_ok(option, value.size(), min, max, why);
}

}  // namespace

int main(int argc, char** argv) {
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
        {"require-auth", no_argument, nullptr, kRequireAuth},
        {"pop-server", required_argument, nullptr, kPopServer},
        {"pop-port", required_argument, nullptr, kPopPort},
        {"pop-user", required_argument, nullptr, kPopUser},
        {"pop-password-file", required_argument, nullptr, kPopPasswordFile},
        {"pop-wait", required_argument, nullptr, kPopWait},
        {"pop-timeout", required_argument, nullptr, kPopTimeout},
        {"json", no_argument, nullptr, kJson},
        {"tls", required_argument, nullptr, kTls},
        {"tls-ca", required_argument, nullptr, kTlsCa},
        {"tls-server-name", required_argument, nullptr, kTlsServerName},
        {"tls-no-verify", no_argument, nullptr, kTlsNoVerify},
        {"pop-tls", required_argument, nullptr, kPopTls},
        {"verbose", no_argument, nullptr, 'v'},
        {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, kVersion},
        {"ipv6", no_argument, nullptr, kIpv6},
        {"charset", required_argument, nullptr, kCharset},
        {nullptr, 0, nullptr, 0},
    };

    std::string from, to, subject, server, body_path, user, password_file;
    bool ipv6 = false, have_charset = false;
    std::string charset;
    std::string pop_server, pop_user, pop_password_file, mechanisms;
    bool have_body = false, split = false, have_options = false, have_timeouts = false;
    bool have_auth = false, have_pop = false, require_auth = false, json = false, verbose = false;
    std::vector<std::pair<uint32_t, std::string>> attachments;
    SendOptionInfo options{64, 0};
    MailTimeoutInfo timeouts{300, 300, 300, 120, 180, 600};
    PopBeforeSmtpInfo pop{};
    pop.usTimeOut = 60;
    const TimeoutOption timeout_options[] = {
        {"--timeout-connect", &timeouts.lConnect}, {"--timeout-mail", &timeouts.lMailFrom},
        {"--timeout-rcpt", &timeouts.lRcptTo},     {"--timeout-data", &timeouts.lData},
        {"--timeout-block", &timeouts.lDataBlock}, {"--timeout-end", &timeouts.lDataEnd},
    };

    TlsOptions tls;
    std::string tls_why;
    opterr = 0;
    int opt;
    while ((opt = getopt_long(argc, argv, ":hv", kOptions, nullptr)) != -1) {
        long value = 0;
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
                    return usage_error(std::string("--port ") + optarg + ": needs 1..65535");
                options.ulPort = static_cast<uint32_t>(value), have_options = true;
                break;
            case kSplit: split = true; break;
            case kPartSize:
                if (!parse_number(optarg, 10, 100, &value))
                    return usage_error(std::string("--part-size ") + optarg +
                                       ": needs 10..100 (KiB)");
                options.lPartSize = static_cast<int32_t>(value), have_options = true;
                break;
            case kTimeoutConnect:
            case kTimeoutMail:
            case kTimeoutRcpt:
            case kTimeoutData:
            case kTimeoutBlock:
            case kTimeoutEnd: {
                const TimeoutOption& t = timeout_options[opt - kTimeoutConnect];
                if (!parse_number(optarg, 60, 3600, &value))
                    return usage_error(std::string(t.name) + " " + optarg +
                                       ": needs 60..3600 (seconds)");
                *t.slot = static_cast<int32_t>(value);
                have_timeouts = true;
                break;
            }
            case kAuthMechanisms: mechanisms = optarg, have_auth = true; break;
            case kUser: user = optarg, have_auth = true; break;
            case kPasswordFile: password_file = optarg, have_auth = true; break;
            case kRequireAuth: require_auth = true; break;
            case kPopServer: pop_server = optarg, have_pop = true; break;
            case kPopPort:
                if (!parse_number(optarg, 1, 65535, &value))
                    return usage_error(std::string("--pop-port ") + optarg + ": needs 1..65535");
                pop.ulPort = static_cast<uint32_t>(value), have_pop = true;
                break;
            case kPopUser: pop_user = optarg, have_pop = true; break;
            case kPopPasswordFile: pop_password_file = optarg, have_pop = true; break;
            case kPopWait:
                if (!parse_number(optarg, 0, 3600000, &value))
                    return usage_error(std::string("--pop-wait ") + optarg +
                                       ": needs 0..3600000 (milliseconds)");
                pop.lWait = static_cast<int32_t>(value), have_pop = true;
                break;
            case kPopTimeout:
                if (!parse_number(optarg, 60, 3600, &value))
                    return usage_error(std::string("--pop-timeout ") + optarg +
                                       ": needs 60..3600 (seconds)");
                pop.usTimeOut = static_cast<uint16_t>(value), have_pop = true;
                break;
            case kJson: json = true; break;
            case kTls:
            case kTlsCa:
            case kTlsServerName:
            case kTlsNoVerify:
            case kPopTls:
                if (!take_tls_option(opt, optarg ? optarg : "", &tls, &tls_why))
                    return usage_error(tls_why);
                break;
            case kIpv6: ipv6 = true; break;
            case kCharset: charset = optarg, have_charset = true; break;
            case 'v': verbose = true; break;
            case 'h': print_help(); return EX_OK;
            case kVersion:
                std::printf("%s %s (libkemail)\n", kProgram, KEMAIL_VERSION);
                return EX_OK;
            case ':': return usage_error(std::string(argv[optind - 1]) + " needs a value");
            default: return usage_error(std::string("unknown option ") + argv[optind - 1]);
        }
    }
    if (optind < argc) return usage_error(std::string("unexpected argument ") + argv[optind]);
    if (from.empty()) return usage_error("--from is required");
    if (to.empty()) return usage_error("--to is required");
    if (server.empty()) return usage_error("--server is required");
    if (have_auth && have_pop)
        return usage_error("SMTP AUTH and POP before SMTP exclude each other");
    if (require_auth && !have_auth) return usage_error("--require-auth needs --user");

    // Recipients: the library sends each comma-separated piece as it is, a
    // blank included ("RCPT TO:< b@y>"); trim them here.
    std::string trimmed;
    {
        std::stringstream pieces(to);
        std::string piece;
        int position = 0;
        while (std::getline(pieces, piece, ',')) {
            ++position;
            const size_t first = piece.find_first_not_of(" \t");
            const size_t last = piece.find_last_not_of(" \t");
            if (first == std::string::npos)
                return usage_error(cat("--to: address ", std::to_string(position)) + " is empty");
            if (!trimmed.empty()) trimmed += ',';
            trimmed += piece.substr(first, last - first + 1);
        }
        if (to.back() == ',') return usage_error("--to ends with a comma");
        if (trimmed != to) {
            std::fprintf(stderr, "%s: note: blanks around the addresses of --to removed: %s\n",
                         kProgram, trimmed.c_str());
            to = trimmed;
        }
    }

    if (ipv6 && ZvKe_SetOption("ADDRESS_FAMILY", "any") != 0)
        return usage_error("--ipv6: this libkemail has no IPv6");
    // Subject and text in the terminal's character set (or --charset's)
    // become what the library takes; UTF-8 the library converts itself.
    if (!have_charset) charset = tools::terminal_charset();
    tools::InputPlan input = tools::plan_input(charset);
    // Without --charset, text from a UTF-8 terminal that is plain ASCII, or
    // is no UTF-8 at all (Shift_JIS or EUC-JP bytes from a file), passes as
    // given, as it always did; that is decided once the text is read, so a
    // subject that may still be converted is measured then.
    const bool guess_utf8 = !have_charset && tools::charset_family(charset) == tools::Family::Utf8;
    const bool subject_checked_now =
        input.how == tools::InputPlan::How::AsGiven || tools::is_ascii(subject);
    std::string why;
    if (!length_ok("--from", from, 1, KEMAIL_MAX_ADDRESS, &why) ||
        !length_ok("--to", to, 1, KEMAIL_MAX_ADDRESS, &why) ||
        !length_ok("--server", server, 1, KEMAIL_MAX_HOST, &why) ||
        (subject_checked_now && !length_ok("--subject", subject, 0, KEMAIL_MAX_SUBJECT, &why)))
        return usage_error(why + " (Shift_JIS or EUC-JP bytes as given)");

    std::string text;
    bool library_converts = false;
    {
        const std::string where = have_body && body_path != "-" ? body_path : "standard input";
        bool read_ok;
        if (!have_body || body_path == "-") {
            read_ok = read_all(std::cin, &text);
        } else {
            std::ifstream in(body_path, std::ios::binary);
            const int open_errno = errno;
            if (!in) {
                error("--body " + body_path + ": cannot read: " + std::strerror(open_errno));
                return EX_NOINPUT;
            }
            read_ok = read_all(in, &text);
        }
        if (!read_ok) {
            error("cannot read the text from " + where);
            return EX_NOINPUT;
        }
        if (guess_utf8 && input.how != tools::InputPlan::How::AsGiven &&
            ((tools::is_ascii(subject) && tools::is_ascii(text)) || !tools::is_utf8(subject) ||
             !tools::is_utf8(text)))
            input.how = tools::InputPlan::How::AsGiven;
        if (input.how == tools::InputPlan::How::LibraryUtf8 &&
            ZvKe_SetOption("INPUT_CHARSET", "UTF-8") != 0) {
            input.how = tools::InputPlan::How::Iconv;
            input.from = charset;
            input.to = "CP932";
        }
        library_converts = input.how == tools::InputPlan::How::LibraryUtf8;
        if (input.how == tools::InputPlan::How::Iconv &&
            !tools::convert_text(input.from, input.to, &subject, &why))
            return usage_error("--subject: " + why);
        if (input.how == tools::InputPlan::How::Iconv &&
            !tools::convert_text(input.from, input.to, &text, &why))
            return usage_error("the text (--body): " + why);
        // UTF-8 the library converts counts in its Shift_JIS form.
        if (!subject_checked_now &&
            !length_ok("--subject",
                       library_converts ? tools::sjis_length_of_utf8(subject) : subject.size(), 0,
                       KEMAIL_MAX_SUBJECT, &why))
            return usage_error(why + (library_converts ? " (Shift_JIS bytes once converted)"
                                                       : " (Shift_JIS or EUC-JP bytes as given)"));
        if (!length_ok("the text (--body)",
                       library_converts ? tools::sjis_length_of_utf8(text) : text.size(), 0,
                       KEMAIL_MAX_TEXT, &why))
            return usage_error(why);
    }

    for (const auto& [kind, path] : attachments) {
        const char* option = kind == KEMAIL_CONTENT_ATTACHMENT ? "--attach" : "--attach-delete";
        if (!length_ok(std::string(option) + " path", path, 1, KEMAIL_MAX_PATH, &why))
            return usage_error(why);
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            error(std::string(option) + " " + path + ": cannot read: " + std::strerror(errno));
            return EX_NOINPUT;
        }
        struct stat st {};
        const int stat_rc = ::fstat(fd, &st);
        const int stat_errno = errno;
        if (::close(fd) != 0 && stat_rc == 0) {
            error(std::string(option) + " " + path + ": " + std::strerror(errno));
            return EX_NOINPUT;
        }
        if (stat_rc != 0) {
            error(std::string(option) + " " + path + ": " + std::strerror(stat_errno));
            return EX_NOINPUT;
        }
        if (!S_ISREG(st.st_mode)) {
            error(std::string(option) + " " + path + ": not a regular file");
            return EX_NOINPUT;
        }
    }

    AuthCertInfo cert{};
    MailAuthInfo auth{};
    MailAuthInfo* auth_record = nullptr;
    if (have_auth) {
        if (!parse_mechanisms(mechanisms, &cert.ulMechanisms))
            return usage_error("--auth-mechanisms needs cram-md5, plain and/or login");
        std::string password;
        if (!password_file.empty()) {
            if (!read_secret_file(password_file, &password)) {
                error("--password-file " + password_file +
                      ": cannot read: " + std::strerror(errno));
                return EX_NOINPUT;
            }
        } else if (const char* env = std::getenv("KEMAIL_PASSWORD")) {
            password = env;
        }
        if (!length_ok("--user", user, 1, KEMAIL_MAX_USER, &why)) return usage_error(why);
        if (!length_ok("the password", password, 0, KEMAIL_MAX_PASSWORD, &why))
            return usage_error(why);
        put_field(cert.szUser, user);
        put_field(cert.szPassword, password);
        auth = MailAuthInfo{KEMAIL_AUTH_SMTP, 0, &cert};
        auth_record = &auth;
    } else if (have_pop) {
        std::string password;
        if (!pop_password_file.empty()) {
            if (!read_secret_file(pop_password_file, &password)) {
                error("--pop-password-file " + pop_password_file +
                      ": cannot read: " + std::strerror(errno));
                return EX_NOINPUT;
            }
        } else if (const char* env = std::getenv("KEMAIL_POP_PASSWORD")) {
            password = env;
        }
        if (!length_ok("--pop-server", pop_server, 1, KEMAIL_MAX_HOST, &why) ||
            !length_ok("--pop-user", pop_user, 1, KEMAIL_MAX_USER, &why) ||
            !length_ok("the POP password", password, 0, KEMAIL_MAX_PASSWORD, &why))
            return usage_error(why);
        put_field(pop.szUser, pop_user);
        put_field(pop.szPassword, password);
        put_field(pop.szHost, pop_server);
        auth = MailAuthInfo{KEMAIL_AUTH_POP_BEFORE_SMTP, 0, &pop};
        auth_record = &auth;
    }

    if (!apply_tls_options(tls, &tls_why)) return usage_error(tls_why);

    const Paths paths = library_paths();
    const bool terminal = ::isatty(STDERR_FILENO) == 1;
    if (verbose || terminal) {
        std::fprintf(stderr,
                     "%s: sending through %s port %s (a refused connection is tried again"
                     " for up to 5 seconds)\n",
                     kProgram, server.c_str(),
                     options.ulPort != 0 ? std::to_string(options.ulPort).c_str()
                     : tls.smtps         ? "465"
                                         : "smtp/25");
    }

    MailAddressInfo address{1, 0, to.data()};
    std::vector<MailContentInfo> contents;
    contents.push_back({KEMAIL_CONTENT_TEXT, 0, text.data()});
    for (auto& [kind, path] : attachments) contents.push_back({kind, 0, path.data()});

    char message[KEMAIL_MESSAGE_SIZE] = {};
    int result;
    {
        std::unique_ptr<PieceProgress> progress;
        if (split && terminal) progress = std::make_unique<PieceProgress>(paths.mail_log);
        result = ZvKe_SendEMail(&address, 1, contents.data(), static_cast<int>(contents.size()),
                                from.c_str(), subject.c_str(), server.c_str(), split ? 1u : 0u,
                                have_options ? &options : nullptr,
                                have_timeouts ? &timeouts : nullptr, auth_record, message);
    }
    std::fill(std::begin(cert.szPassword), std::end(cert.szPassword), '\0');
    std::fill(std::begin(pop.szPassword), std::end(pop.szPassword), '\0');

    const std::string detail = message;
    const bool have_log = exists(paths.mail_log);
    const bool have_trace = exists(paths.trace);
    const std::vector<std::string> session =
        have_log ? session_lines(paths.mail_log) : std::vector<std::string>();
    SessionFacts facts = session_facts(session);
    if (!have_log) facts.phase.clear();
    const ResultName* known = find_result(result);

    // Resolver or system error: the log names gethostbyname_r; without a log,
    // look the name up here.
    bool host_resolves = true;
    if (result == KEMAIL_E_UNREACHABLE || result == KEMAIL_E_POP_UNREACHABLE) {
        int code = 0;
        const std::string& host = result == KEMAIL_E_UNREACHABLE ? server : pop_server;
        host_resolves = have_log ? facts.resolver_fail.empty() : resolves(host, &code);
    }
    std::string decoded;
    // A TLS failure of POP before SMTP leaves its reason, not a number.
    const bool numeric_detail =
        !detail.empty() &&
        (std::isdigit(static_cast<unsigned char>(detail[0])) || detail[0] == '-');
    if (!detail.empty() && known && !numeric_detail) {
        decoded = printable(detail);
    } else if (!detail.empty() && known) {
        const long number = std::strtol(detail.c_str(), nullptr, 10);
        switch (known->detail) {
            case Detail::Errno: decoded = errno_text(number); break;
            case Detail::ErrnoOrResolver:
                decoded = host_resolves ? errno_text(number) : resolver_text(number);
                break;
            case Detail::Reply: decoded = printable(detail); break;
            case Detail::None: decoded = printable(detail); break;
        }
    }
    // A time-out or a closed connection means the connection stood: with no
    // command sent yet, the library was waiting for the greeting.
    if (facts.phase == "connect" && (result == KEMAIL_E_TIMEOUT || result == KEMAIL_E_SOCKET))
        facts.phase = "greeting";
    // Failures before the SMTP session: work files and attachments (message
    // composition), and POP before SMTP.
    if (result == KEMAIL_E_WORK_FILE || result == KEMAIL_E_ATTACHMENT ||
        result == KEMAIL_E_NO_MEMORY)
        facts.phase = "compose";
    if (result <= KEMAIL_E_POP_REFUSED && result >= KEMAIL_E_POP_UNREACHABLE) facts.phase = "pop";
    if (result == KEMAIL_E_TLS) facts.phase = "tls";
    if (facts.phase.empty() || result == KEMAIL_E_ARGUMENT || result == KEMAIL_E_RECIPIENT)
        facts.phase = result >= 0 ? facts.phase : "checks";
    const int exit_code = exit_code_for(result, require_auth, detail, facts, host_resolves);

    const char* name = known ? known->name : "UNKNOWN";
    if (result == KEMAIL_W_NO_AUTH) {
        std::fprintf(stderr,
                     "%s: %s: the server took the mail WITHOUT the authentication asked for"
                     " (no allowed mechanism offered, HELO only, or every mechanism refused)%s\n",
                     kProgram, require_auth ? "error" : "warning",
                     require_auth ? "" : "; --require-auth makes this a failure");
    } else if (result == KEMAIL_W_CONVERSION && library_converts) {
        std::fprintf(stderr,
                     "%s: warning: KEMAIL_W_CONVERSION (1): a character of the subject, text"
                     " or an attachment name has no Shift_JIS form and was sent as GETA MARK\n",
                     kProgram);
    } else if (result >= 0) {
        if (verbose || terminal)
            std::fprintf(stderr, "%s: sent: %s (%d)\n", kProgram, name, result);
    } else {
        std::string line = std::string("failed: ") + name + cat(" (", std::to_string(result)) +
                           "): " + (known ? known->meaning : "unknown result");
        if (!facts.phase.empty() && facts.phase != "checks") line += " [" + facts.phase + "]";
        if (!host_resolves)
            line = std::string("failed: ") + name + cat(" (", std::to_string(result)) +
                   "): " + (result == KEMAIL_E_UNREACHABLE ? server : pop_server) +
                   " does not resolve";
        error(line);
        if (!decoded.empty()) error("detail: " + decoded);
        if (known && known->detail != Detail::Reply && !facts.last_reply.empty() &&
            facts.phase != "connect")
            error("server's last reply: " + printable(facts.last_reply));
    }
    if (verbose) {
        error("mail log: " + (have_log ? paths.mail_log : paths.mail_log + " (not written)"));
        error("trace file: " + (have_trace ? paths.trace : std::string("(tracing off)")));
        for (const std::string& line : session) std::fprintf(stderr, "  %s\n", line.c_str());
    } else if (result < 0 && (have_log || have_trace)) {
        error("see the mail log " + (have_log ? paths.mail_log : std::string("(off)")) +
              (have_trace ? " and the trace file " + paths.trace : std::string()));
    }

    if (json) {
        std::string reply = known && known->detail == Detail::Reply ? detail : facts.last_reply;
        std::printf(
            "{\"code\":%d,\"name\":%s,\"detail\":%s,\"detail_text\":%s,\"phase\":%s,"
            "\"server_reply\":%s,\"exit\":%d,\"mail_log\":%s,\"trace\":%s}\n",
            result, json_string(name).c_str(), json_string(detail).c_str(),
            json_string(decoded).c_str(), json_string(facts.phase).c_str(),
            json_string(printable(reply)).c_str(), exit_code,
            have_log ? json_string(paths.mail_log).c_str() : "null",
            have_trace ? json_string(paths.trace).c_str() : "null");
    }
    return exit_code;
}
