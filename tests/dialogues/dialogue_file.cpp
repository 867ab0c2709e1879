#include "dialogues/dialogue_file.h"

#include <cctype>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace dialogue {

namespace {

int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Splits "word rest of the line" at the first run of blanks.
std::pair<std::string, std::string> split_word(const std::string& line) {
    const size_t end = line.find_first_of(" \t");
    if (end == std::string::npos) return {line, ""};
    const size_t rest = line.find_first_not_of(" \t", end);
    return {line.substr(0, end), rest == std::string::npos ? "" : line.substr(rest)};
}

// Blank-separated arguments; "..." keeps blanks and takes escapes.
bool split_args(const std::string& text, std::vector<std::string>* out, std::string* error) {
    size_t at = 0;
    while (at < text.size()) {
        if (text[at] == ' ' || text[at] == '\t') {
            ++at;
            continue;
        }
        if (text[at] == '"') {
            std::string raw;
            size_t i = at + 1;
            for (; i < text.size() && text[i] != '"'; ++i) {
                if (text[i] == '\\' && i + 1 < text.size()) raw += text[i++];
                raw += text[i];
            }
            if (i >= text.size()) {
                *error = "unterminated quote";
                return false;
            }
            out->push_back(unescape(raw));
            at = i + 1;
            continue;
        }
        const size_t end = text.find_first_of(" \t", at);
        out->push_back(
            unescape(text.substr(at, end == std::string::npos ? std::string::npos : end - at)));
        at = end == std::string::npos ? text.size() : end;
    }
    return true;
}

bool to_int(const std::string& text, long* out) {
    if (text.empty()) return false;
    char* end = nullptr;
    const long value = std::strtol(text.c_str(), &end, 0);
    if (*end != '\0') return false;
    *out = value;
    return true;
}

bool is_call_check(const std::string& word) {
    return word == "result" || word == "err" || word == "reply" || word == "timeout" ||
           word == "message";
}

}  // namespace

std::string unescape(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 == text.size()) {
            out += text[i];
            continue;
        }
        const char c = text[++i];
        switch (c) {
            case 'r': out += '\r'; break;
            case 'n': out += '\n'; break;
            case 't': out += '\t'; break;
            case '0': out += '\0'; break;
            case 'x':
                if (i + 2 < text.size() + 0 && hex_value(text[i + 1]) >= 0 &&
                    hex_value(text[i + 2]) >= 0) {
                    out += static_cast<char>(hex_value(text[i + 1]) * 16 + hex_value(text[i + 2]));
                    i += 2;
                } else {
                    out += "\\x";
                }
                break;
            default: out += c; break;  // \\ and \"
        }
    }
    return out;
}

std::string escape(const std::string& bytes) {
    static const char kHex[] = "0123456789abcdef";
    std::string out;
    for (const char c : bytes) {
        const unsigned char u = static_cast<unsigned char>(c);
        if (c == '\r')
            out += "\\r";
        else if (c == '\n')
            out += "\\n";
        else if (c == '\t')
            out += "\\t";
        else if (c == '\\')
            out += "\\\\";
        else if (u < 0x20 || u >= 0x7f) {
            out += "\\x";
            out += kHex[u >> 4];
            out += kHex[u & 15];
        } else {
            out += c;
        }
    }
    return out;
}

bool read_dialogue(const std::string& path, Dialogue* out, std::string* error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        *error = "cannot open " + path;
        return false;
    }
    Dialogue d;
    std::string line;
    int number = 0;
    bool in_request = false;
    auto fail = [&](const std::string& why) {
        *error = path + ":" + std::to_string(number) + ": " + why;
        return false;
    };
    while (std::getline(in, line)) {
        ++number;
        if (!line.empty() && line.back() == '\r') return fail("CR in the file; write \\r instead");
        if (line.empty()) continue;
        if (line[0] == '#') {
            if (d.title.empty()) {
                const size_t text = line.find_first_not_of("# ");
                d.title = text == std::string::npos ? "" : line.substr(text);
            }
            continue;
        }
        // The conversation: "S: ", "C: ", "D: " (an empty line may drop the blank).
        if (line.size() >= 2 && line[1] == ':' &&
            (line[0] == 'S' || line[0] == 'C' || line[0] == 'D')) {
            in_request = false;
            std::string text = line.size() > 2 ? line.substr(line[2] == ' ' ? 3 : 2) : "";
            text = unescape(text) + "\r\n";
            if (line[0] == 'S') {
                if (!d.steps.empty() && d.steps.back().kind == ServerStep::Kind::Send)
                    d.steps.back().bytes += text;
                else
                    d.steps.push_back({ServerStep::Kind::Send, text, 0, ""});
            } else if (line[0] == 'C') {
                d.steps.push_back({ServerStep::Kind::ReadLine, text, 0, ""});
            } else {
                // Data lines up to the one holding a single dot form one read.
                if (d.steps.empty() || d.steps.back().kind != ServerStep::Kind::ReadData ||
                    d.steps.back().ms != 0)
                    d.steps.push_back({ServerStep::Kind::ReadData, "", 0, ""});
                d.steps.back().bytes += text;
                if (text == ".\r\n") d.steps.back().ms = 1;  // the block is complete
            }
            continue;
        }
        // "D< FILE": the whole message data is the file under golden/.
        if (line.rfind("D< ", 0) == 0) {
            in_request = false;
            const std::string golden =
                path.substr(0, path.rfind('/') + 1) + "golden/" + line.substr(3);
            std::ifstream data(golden, std::ios::binary);
            std::ostringstream bytes;
            if (data) bytes << data.rdbuf();  // a missing file reads as empty
            d.steps.push_back({ServerStep::Kind::ReadData, bytes.str(), 1, line.substr(3)});
            continue;
        }
        auto [word, rest] = split_word(line);
        std::vector<std::string> args;
        if (!split_args(rest, &args, error)) return fail(*error);
        long n = 0;
        if (word == "call") {
            in_request = false;
            if (args.empty()) return fail("call needs a function");
            Call call;
            call.function = args[0];
            call.args.assign(args.begin() + 1, args.end());
            call.line = number;
            d.calls.push_back(call);
            in_request = call.function == "send";
        } else if (in_request && (word == "to" || word == "from" || word == "subject")) {
            const std::string value = unescape(rest);
            (word == "to"     ? d.request.to
             : word == "from" ? d.request.from
                              : d.request.subject) = value;
        } else if (in_request && word == "text") {
            if (rest == "NULL")
                d.request.text.reset();
            else
                d.request.text = unescape(rest);
        } else if (in_request && word == "attach") {
            if (args.empty() || args.size() > 2) return fail("attach NAME [KIND]");
            long kind = 3;  // an attachment the library leaves in place
            if (args.size() == 2 && !to_int(args[1], &kind)) return fail("bad attachment kind");
            d.request.attachments.push_back({static_cast<unsigned>(kind), args[0]});
        } else if (in_request && word == "split") {
            if (args.size() != 1 || !to_int(args[0], &n)) return fail("split KB");
            d.request.split = 1;
            d.request.part_kb = static_cast<unsigned>(n);
        } else if (in_request && word == "auth") {
            d.request.auth = args;
        } else if (is_call_check(word)) {
            if (d.calls.empty()) return fail(word + " before any call");
            Call& call = d.calls.back();
            if (word == "reply" || word == "message") {
                (word == "reply" ? call.reply : call.message) = unescape(rest);
            } else {
                if (args.size() != 1 || !to_int(args[0], &n)) return fail(word + " needs a number");
                if (word == "result")
                    call.result = static_cast<int>(n);
                else if (word == "err")
                    call.err = static_cast<unsigned>(n);
                else
                    call.timeout = static_cast<unsigned>(n);
            }
        } else if (word == "server") {
            in_request = false;
            if (args.empty()) return fail("server needs an action");
            const std::string& what = args[0];
            long ms = 0;
            if ((what == "sleep" || what == "bound") && (args.size() != 2 || !to_int(args[1], &ms)))
                return fail("server " + what + " MS");
            if (what == "sleep")
                d.steps.push_back({ServerStep::Kind::Sleep, "", static_cast<int>(ms), ""});
            else if (what == "bound")
                d.steps.push_back({ServerStep::Kind::Bound, "", static_cast<int>(ms), ""});
            else if (what == "close")
                d.steps.push_back({ServerStep::Kind::Close, "", 0, ""});
            else if (what == "reset")
                d.steps.push_back({ServerStep::Kind::Reset, "", 0, ""});
            else if (what == "accept")
                d.steps.push_back({ServerStep::Kind::Accept, "", 0, ""});
            else if (what == "drain") {
                // What the client sends until it closes: nothing, unless given.
                d.steps.push_back({ServerStep::Kind::Drain, args.size() > 1 ? args[1] : "", 0, ""});
            } else {
                return fail("unknown server action " + what);
            }
        } else if (word == "timeouts") {
            if (args.size() != 6) return fail("timeouts needs six numbers");
            for (size_t i = 0; i < 6; ++i) {
                if (!to_int(args[i], &n)) return fail("timeouts needs six numbers");
                d.timeouts[i] = static_cast<unsigned>(n);
            }
        } else if (word == "file") {
            if (args.size() != 3) return fail("file NAME pattern SIZE | file NAME text TEXT");
            if (args[1] == "pattern") {
                if (!to_int(args[2], &n)) return fail("bad size");
                std::string bytes(static_cast<size_t>(n), '\0');
                for (size_t i = 0; i < bytes.size(); ++i)
                    bytes[i] = static_cast<char>((i * 7) % 256);
                d.files.push_back({args[0], bytes});
            } else if (args[1] == "text") {
                d.files.push_back({args[0], args[2]});
            } else {
                return fail("file NAME pattern SIZE | file NAME text TEXT");
            }
        } else if (word == "setting") {
            d.setting = unescape(rest);
        } else if (word == "trace-conf") {
            d.trace_conf = unescape(rest);
        } else if (word == "trace") {
            if (args.empty()) return fail("trace CODE...");
            d.traces.push_back({TraceCheck::Kind::InOrder, args, "", 0});
        } else if (word == "trace-data") {
            auto [code, data] = split_word(rest);
            d.traces.push_back({TraceCheck::Kind::Data, {code}, unescape(data), 0});
        } else if (word == "trace-level" || word == "trace-count" || word == "trace-word") {
            if (args.size() != 2 || !to_int(args[1], &n)) return fail(word + " CODE N");
            const TraceCheck::Kind kind = word == "trace-level"   ? TraceCheck::Kind::Level
                                          : word == "trace-count" ? TraceCheck::Kind::Count
                                                                  : TraceCheck::Kind::Word;
            d.traces.push_back({kind, {args[0]}, "", static_cast<int>(n)});
        } else if (word == "connections") {
            if (args.size() != 1 || !to_int(args[0], &n)) return fail("connections N");
            d.connections = static_cast<int>(n);
        } else if (word == "log") {
            d.log_lines.push_back(unescape(rest));
        } else if (word == "log-lacks") {
            d.log_absent.push_back(unescape(rest));
        } else if (word == "golden-log") {
            d.golden_log = rest;
        } else if (word == "golden-trace") {
            d.golden_trace = rest;
        } else if (word == "clock" && rest == "fake") {
            d.fake_clock = true;
        } else {
            return fail("unknown line: " + line);
        }
    }
    if (d.calls.empty()) return fail("no call");
    for (const ServerStep& step : d.steps) {
        if (step.kind == ServerStep::Kind::ReadData && step.ms == 0)
            return fail("data without its \"D: .\" line");
    }
    *out = std::move(d);
    return true;
}

}  // namespace dialogue
