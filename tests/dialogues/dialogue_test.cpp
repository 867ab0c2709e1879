// Plays every dialogue file of tests/dialogues: the scripted server speaks the
// S: lines and checks that the library sends exactly the C: and D: lines,
// while this thread makes the calls and checks their results, the message
// buffer, the trace records and the mail log (against golden files, where
// named). With KEMAIL_UPDATE_GOLDEN=1 in the environment, golden files are
// written from this run instead of compared (and the test fails, so an
// update never passes unnoticed).
#include "dialogues/dialogue_file.h"
#include "dialogues/trace_tap.h"
#include "send/send_fixture.h"
#include "support/fake_clock.h"
#include "support/script_server.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string_view>
#include <sstream>

namespace dialogue {
namespace {

using kemail_test::Script;
using kemail_test::ScriptServer;

const std::string kDir = KEMAIL_SOURCE_DIR "/tests/dialogues";

std::vector<std::string> dialogue_files() {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(kDir)) {
        if (entry.path().extension() == ".dlg") names.push_back(entry.path().stem().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string with_host(std::string text) {
    const std::string host = send_test::host_name();
    for (size_t at = text.find("<host>"); at != std::string::npos;
         at = text.find("<host>", at + host.size()))
        text.replace(at, 6, host);
    return text;
}

Script make_script(const Dialogue& d) {
    Script s;
    for (const ServerStep& step : d.steps) {
        switch (step.kind) {
            case ServerStep::Kind::Send: s.send(step.bytes); break;
            case ServerStep::Kind::ReadLine: s.read_line(); break;
            case ServerStep::Kind::ReadData: s.read_until("\r\n.\r\n"); break;
            case ServerStep::Kind::Drain: s.drain(); break;
            case ServerStep::Kind::Sleep: s.sleep_ms(step.ms); break;
            case ServerStep::Kind::Bound: s.bound_ms(step.ms); break;
            case ServerStep::Kind::Close: s.close(); break;
            case ServerStep::Kind::Reset: s.reset(); break;
            case ServerStep::Kind::Accept: s.accept(); break;
        }
    }
    return s;
}

// The library's settings of one authentication: MODE MECHANISMS USER PASSWORD
// (MODE smtp or pop; MECHANISMS a number or names joined by '+').
struct Auth {
    AuthCertInfo cert{};
    MailAuthInfo info{};
};

std::unique_ptr<Auth> make_auth(const std::vector<std::string>& args) {
    if (args.empty()) return nullptr;
    auto auth = std::make_unique<Auth>();
    EXPECT_EQ(args.size(), 4u) << "auth MODE MECHANISMS USER PASSWORD";
    if (args.size() != 4) return nullptr;
    unsigned mechanisms = 0;
    std::string names = args[1] + "+";
    for (size_t at = 0, end; (end = names.find('+', at)) != std::string::npos; at = end + 1) {
        const std::string name = names.substr(at, end - at);
        if (name == "login")
            mechanisms |= KEMAIL_MECH_LOGIN;
        else if (name == "plain")
            mechanisms |= KEMAIL_MECH_PLAIN;
        else if (name == "cram-md5")
            mechanisms |= KEMAIL_MECH_CRAM_MD5;
        else
            mechanisms |= static_cast<unsigned>(std::strtoul(name.c_str(), nullptr, 0));
    }
    auth->cert.ulMechanisms = mechanisms;
    std::snprintf(auth->cert.szUser, sizeof auth->cert.szUser, "%s", args[2].c_str());
    std::snprintf(auth->cert.szPassword, sizeof auth->cert.szPassword, "%s", args[3].c_str());
    auth->info.SmtpAuthMode = args[0] == "pop" ? KEMAIL_AUTH_POP_BEFORE_SMTP : KEMAIL_AUTH_SMTP;
    auth->info.pSettings = &auth->cert;
    return auth;
}

std::string last_reply() {
    char text[KEMAIL_RECV_BUF_SIZE + 16];
    std::memset(text, 'x', sizeof text);
    SMTP_GetSmtpSvResponce(text);
    return text;
}

const char* arg(const Call& call, size_t i) {
    if (i >= call.args.size()) return "";
    return call.args[i] == "NULL" ? nullptr : call.args[i].c_str();
}

// One SMTP function on the connection; false for an unknown function.
bool call_smtp(const Call& call, int sock, unsigned* err, int* result,
               std::unique_ptr<Auth>* auth) {
    const std::string& f = call.function;
    if (f == "SMTP_initialize") {
        *auth = make_auth(call.args);
        *result = SMTP_initialize(sock, *auth ? &(*auth)->info : nullptr, err);
    } else if (f == "SMTP_MAIL") {
        *result = SMTP_MAIL(sock, arg(call, 0), arg(call, 1), err);
    } else if (f == "SMTP_startData") {
        *result = SMTP_startData(sock, err);
    } else if (f == "SMTP_endData") {
        *result = SMTP_endData(sock, err);
    } else if (f == "SMTP_RSET") {
        *result = SMTP_RSET(sock, err);
    } else if (f == "SMTP_QUIT") {
        *result = SMTP_QUIT(sock, err);
    } else if (f == "SMTP_SetTimeOut") {
        SMTP_SetTimeOut(static_cast<unsigned>(std::strtoul(arg(call, 0), nullptr, 10)));
        *result = 0;
    } else {
        return false;
    }
    return true;
}

// Every occurrence of what by with.
std::string replace_all(std::string text, const std::string& what, const std::string& with) {
    if (what.empty()) return text;
    for (size_t at = text.find(what); at != std::string::npos;
         at = text.find(what, at + with.size()))
        text.replace(at, what.size(), with);
    return text;
}

// True when text at `at` has the shape: '9' stands for any digit, any other
// character for itself.
bool has_shape(const std::string& text, size_t at, std::string_view shape) {
    if (text.size() < at + shape.size()) return false;
    for (size_t i = 0; i < shape.size(); ++i) {
        const char c = text[at + i];
        if (shape[i] == '9' ? (c < '0' || c > '9') : c != shape[i]) return false;
    }
    return true;
}

// Replaces, at the start of every line, a prefix of the shape by the mask.
std::string mask_line_starts(const std::string& text, std::string_view shape,
                             const std::string& mask) {
    std::string out;
    for (size_t at = 0; at < text.size();) {
        size_t end = text.find('\n', at);
        end = end == std::string::npos ? text.size() : end + 1;
        if (has_shape(text, at, shape)) {
            out += mask;
            out.append(text, at + shape.size(), end - at - shape.size());
        } else {
            out.append(text, at, end - at);
        }
        at = end;
    }
    return out;
}

// Masks what changes from run to run in a mail log: the date and time of its
// lines, the process id and the host name.
std::string mask_log(const std::string& log) {
    std::string masked = mask_line_starts(log, "9999/99/99 99:99:99 ", "<date> <time> ");
    masked = mask_line_starts(masked, "99:99:99 ", "<time> ");
    // Appended rather than "[" + std::to_string(...): GCC 12 at -O2 and above
    // reports a false -Wrestrict overlap inside operator+(const char*, string&&).
    std::string pid = "[";
    pid += std::to_string(getpid());
    pid += ']';
    masked = replace_all(masked, pid, "[<pid>]");
    for (const char* command : {"EHLO ", "HELO "})
        masked = replace_all(masked, command + send_test::host_name() + "\r\n",
                             command + std::string("<host>\r\n"));
    return masked;
}

// Masks the bytes of a message, a command or a trace record that change from
// run to run: the date, the ids and the boundary, and the host name.
std::string mask_bytes(const std::string& bytes) {
    std::string masked = send_test::mask_variable(bytes);
    for (const char* command : {"EHLO ", "HELO "})
        masked = replace_all(masked, command + send_test::host_name() + "\r\n",
                             command + std::string("<host>\r\n"));
    return masked;
}

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

// One line of kemail-trace's output with its record data masked: a record
// whose data holds something that changes from run to run is shown as
// "CODE (masked) DATA" with the masked data escaped; the other lines stay as
// printed. With whole_message false (a split mail), the body of each piece
// (the record after the blank line between smtp1400 and smtp14FF) is masked
// whole: where a piece is cut depends on the length of the header.
std::string mask_trace_line(const std::string& line, bool whole_message, int* piece_state) {
    // "<time> CODE" or "<time> CODE HH HH ...  |PRINTABLE|"
    const size_t code_at = line.find(' ');
    if (code_at == std::string::npos) return line;
    const size_t code_end = line.find(' ', code_at + 1);
    const std::string code = line.substr(
        code_at + 1, code_end == std::string::npos ? std::string::npos : code_end - code_at - 1);
    // 0: outside a piece, 1: in its header, 2: its body comes next.
    if (code == "smtp1400") *piece_state = 1;
    if (code == "smtp14FF") *piece_state = 0;
    if (code_end == std::string::npos) return line;
    const size_t printable = line.find("  |", code_end);
    if (printable == std::string::npos) return line;
    std::string bytes;
    for (size_t at = code_end + 1; at + 1 < printable; at += 3) {
        const int high = hex_digit(line[at]);
        const int low = hex_digit(line[at + 1]);
        if (high < 0 || low < 0) return line;  // not a record line
        bytes += static_cast<char>(high * 16 + low);
    }
    const std::string head = line.substr(0, code_end);
    // The descriptor the library connected with depends on what else is open.
    if (code == "smtp0050") return head + " (masked) <descriptor>";
    // The id of a split mail's pieces, made of the time and the host.
    if (code == "smtp15FF") return head + " (masked) <partial-id>";
    if (code == "smtp0e00" && !whole_message && *piece_state == 2) {
        *piece_state = 0;
        return head + " (masked) <piece body>";
    }
    if (code == "smtp0e00" && *piece_state == 1 && bytes == "\r\n") *piece_state = 2;
    const std::string masked = mask_bytes(bytes);
    if (masked == bytes) return line;
    return head + " (masked) " + escape(masked);
}

// The trace file as kemail-trace prints it, with the time of each record and
// what changes from run to run in record data masked.
std::string printed_trace(const std::string& path, bool whole_message) {
    std::string output;
    const std::string command = std::string(KEMAIL_TRACE_TOOL) + " '" + path + "'";
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(::popen(command.c_str(), "r"), ::pclose);
    if (!pipe) return "(popen failed)";
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, pipe.get())) > 0) output.append(buf, n);
    output = mask_line_starts(output, "9999/99/99 99:99:99 ", "<time> ");
    std::string masked;
    int piece_state = 0;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);)
        masked += mask_trace_line(line, whole_message, &piece_state) + "\n";
    return masked;
}

void compare_golden(const std::string& name, const std::string& actual) {
    const std::string path = kDir + "/golden/" + name;
    if (const char* update = std::getenv("KEMAIL_UPDATE_GOLDEN");
        update && std::string(update) == "1") {
        kemail_test::write_file(path, actual);
        ADD_FAILURE() << "golden file written: " << path;
        return;
    }
    EXPECT_EQ(actual, kemail_test::read_file(path)) << "golden file " << path;
}

class Dialogues : public ::testing::TestWithParam<std::string> {
protected:
    // The zone shows in the trace (the time difference): one for every machine.
    static void SetUpTestSuite() {
        ::setenv("TZ", "UTC0", 1);
        ::tzset();
    }
    void TearDown() override {
        std::remove((kemail_test::etc_dir() + "/kemail.ini").c_str());
        std::remove((kemail_test::etc_dir() + "/trc_conf").c_str());
        MailLogClose(g_pLogHandle);
        g_pLogHandle = nullptr;
    }
};

TEST_P(Dialogues, Play) {
    Dialogue d;
    std::string error;
    ASSERT_TRUE(read_dialogue(kDir + "/" + GetParam() + ".dlg", &d, &error)) << error;
    SCOPED_TRACE(d.title);

    kemail_test::TempDir dir;
    for (const TempFile& file : d.files) kemail_test::write_file(dir.file(file.name), file.bytes);
    if (d.setting) kemail_test::write_file(kemail_test::etc_dir() + "/kemail.ini", *d.setting);
    if (d.trace_conf) kemail_test::write_file(kemail_test::etc_dir() + "/trc_conf", *d.trace_conf);
    const std::string pid = std::to_string(getpid());
    const std::string log_path = kemail_test::var_dir() + "/log/kesmtp" + pid + ".log";
    const std::string trace_path = kemail_test::var_dir() + "/tmp2/acert" + pid + "-" +
                                   std::to_string(static_cast<int>(pthread_self())) + ".trc";
    ::unlink(log_path.c_str());
    ::unlink(trace_path.c_str());

    const bool sends = d.calls.front().function == "send";
    const SmtpTimeOut timeouts = {d.timeouts[0], d.timeouts[1], d.timeouts[2],
                                  d.timeouts[3], d.timeouts[4], d.timeouts[5]};
    SMTP_SetTimeOutInfo(&timeouts);
    SMTP_SetTimeOut(d.timeouts[0]);
    SMTP_SetStartTime();
    const bool wants_log = !d.log_lines.empty() || !d.log_absent.empty() || !d.golden_log.empty();
    if (!sends && wants_log) {
        g_pLogHandle = MailLogOpen(0);
        ASSERT_NE(g_pLogHandle, nullptr);
    }

    std::optional<kemail_test::FakeClock> clock;
    if (d.fake_clock) clock.emplace();
    ScriptServer server(make_script(d));
    tap_start();

    int sock = -1;
    std::unique_ptr<Auth> auth;
    send_test::Mail mail(server.port());
    for (const Call& call : d.calls) {
        SCOPED_TRACE("call at line " + std::to_string(call.line) + ": " + call.function);
        unsigned err = 777;
        int result = 0;
        if (call.function == "send") {
            ASSERT_EQ(d.calls.size(), 1u) << "a send is the only call of its dialogue";
            const Request& r = d.request;
            mail.to = r.to;
            mail.from = r.from;
            mail.subject = r.subject;
            mail.text = r.text;
            for (const auto& [kind, name] : r.attachments)
                mail.attachments.push_back({kind, dir.file(name)});
            mail.split = r.split;
            mail.option = SendOptionInfo{static_cast<int32_t>(r.part_kb), server.port()};
            auth = make_auth(r.auth);
            mail.auth = auth ? &auth->info : nullptr;
            result = mail.send();
            if (call.message) {
                EXPECT_EQ(escape(mail.message), escape(*call.message));
            }
        } else {
            if (sock < 0) {
                unsigned connect_err = 0;
                sock = SMTP_connect("127.0.0.1", server.port(), &connect_err);
                ASSERT_GE(sock, 0) << "connect failed, errno " << connect_err;
            }
            ASSERT_TRUE(call_smtp(call, sock, &err, &result, &auth)) << "unknown call";
        }
        if (call.result) {
            EXPECT_EQ(result, *call.result);
        }
        if (call.err) {
            EXPECT_EQ(err, *call.err);
        }
        if (call.reply) {
            EXPECT_EQ(escape(last_reply()), escape(*call.reply));
        }
        if (call.timeout) {
            EXPECT_EQ(g_ulTimeOut, *call.timeout);
        }
    }
    const std::vector<TraceEvent> events = tapped();
    server.end_silence();
    if (sock >= 0) ::close(sock);
    if (!sends && g_pLogHandle) {
        MailLogClose(g_pLogHandle);
        g_pLogHandle = nullptr;
    }
    clock.reset();

    // What the client sent, step by step.
    ASSERT_TRUE(server.wait_done());
    EXPECT_FALSE(server.failed()) << server.error();
    std::vector<const ServerStep*> reads;
    for (const ServerStep& step : d.steps) {
        if (step.kind == ServerStep::Kind::ReadLine || step.kind == ServerStep::Kind::ReadData ||
            step.kind == ServerStep::Kind::Drain)
            reads.push_back(&step);
    }
    std::vector<std::string> records = server.records();
    std::vector<std::string> expected;
    std::string all;
    for (size_t i = 0; i < records.size(); ++i) {
        all += records[i];
        const ServerStep* step = i < reads.size() ? reads[i] : nullptr;
        // Message data is compared with its date, ids and boundary masked.
        if (step && step->kind == ServerStep::Kind::ReadData) {
            records[i] = send_test::mask_variable(records[i]);
            if (!step->golden.empty()) {
                compare_golden(step->golden, records[i]);
                records[i] = "(golden/" + step->golden + ")";
            }
            // "D: <rest>" stands for whatever follows, up to the end mark.
            const size_t rest = step->bytes.find("<rest>\r\n");
            if (rest != std::string::npos) {
                const std::string head = with_host(step->bytes.substr(0, rest));
                if (records[i].compare(0, head.size(), head) == 0 &&
                    records[i].size() >= head.size() + 5 &&
                    records[i].compare(records[i].size() - 5, 5, "\r\n.\r\n") == 0)
                    records[i] = step->bytes;
            }
        }
        records[i] = escape(records[i]);
    }
    for (const ServerStep* step : reads)
        expected.push_back(step->golden.empty() ? escape(with_host(step->bytes))
                                                : "(golden/" + step->golden + ")");
    EXPECT_EQ(records, expected);
    if (d.connections) {
        EXPECT_EQ(server.connections(), *d.connections);
    }
    EXPECT_EQ(escape(server.received()), escape(all)) << "the library sent bytes no step expected";

    // The trace records of this thread.
    for (const TraceCheck& check : d.traces) {
        auto first = std::find_if(events.begin(), events.end(),
                                  [&](const TraceEvent& e) { return e.code == check.codes[0]; });
        switch (check.kind) {
            case TraceCheck::Kind::InOrder: {
                size_t next = 0;
                for (const TraceEvent& e : events) {
                    if (next < check.codes.size() && e.code == check.codes[next]) ++next;
                }
                EXPECT_EQ(next, check.codes.size())
                    << "trace: " << (next < check.codes.size() ? check.codes[next] : "")
                    << " missing or out of order";
                break;
            }
            case TraceCheck::Kind::Data:
                ASSERT_NE(first, events.end()) << check.codes[0] << " not traced";
                EXPECT_EQ(escape(first->data), escape(with_host(check.data))) << check.codes[0];
                break;
            case TraceCheck::Kind::Level:
                ASSERT_NE(first, events.end()) << check.codes[0] << " not traced";
                EXPECT_EQ(static_cast<int>(first->level), check.number) << check.codes[0];
                break;
            case TraceCheck::Kind::Word: {
                ASSERT_NE(first, events.end()) << check.codes[0] << " not traced";
                uint32_t word = 0;
                ASSERT_EQ(first->data.size(), sizeof word) << check.codes[0] << " carries no word";
                std::memcpy(&word, first->data.data(), sizeof word);
                EXPECT_EQ(word, static_cast<uint32_t>(check.number)) << check.codes[0];
                break;
            }
            case TraceCheck::Kind::Count:
                EXPECT_EQ(
                    std::count_if(events.begin(), events.end(),
                                  [&](const TraceEvent& e) { return e.code == check.codes[0]; }),
                    check.number)
                    << check.codes[0];
                break;
        }
    }

    // The mail log and the trace file.
    if (wants_log) {
        const std::string log = kemail_test::read_file(log_path);
        for (const std::string& line : d.log_lines) {
            EXPECT_NE(log.find(" " + with_host(line) + "\r\n"), std::string::npos)
                << "missing in the mail log: " << line << "\n"
                << log;
        }
        for (const std::string& text : d.log_absent) {
            EXPECT_EQ(log.find(text), std::string::npos) << "in the mail log: " << text << "\n"
                                                         << log;
        }
        if (!d.golden_log.empty()) compare_golden(d.golden_log, mask_log(log));
    }
    if (!d.golden_trace.empty())
        compare_golden(d.golden_trace, printed_trace(trace_path, d.request.split == 0));
    ::unlink(log_path.c_str());
    ::unlink(trace_path.c_str());
}

INSTANTIATE_TEST_SUITE_P(Files, Dialogues, ::testing::ValuesIn(dialogue_files()),
                         [](const ::testing::TestParamInfo<std::string>& info) {
                             std::string name = info.param;
                             for (char& c : name) {
                                 if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
                             }
                             return name;
                         });

}  // namespace
}  // namespace dialogue
