// One dialogue file (tests/dialogues/*.dlg) read into memory. The format is
// described in tests/dialogues/README.md.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace dialogue {

// What the scripted server does at one point of the conversation.
struct ServerStep {
    enum class Kind { Send, ReadLine, ReadData, Drain, Sleep, Bound, Close, Reset, Accept };
    Kind kind;
    std::string bytes;   // Send: what to send; ReadLine/ReadData/Drain: what the client must send
    int ms = 0;          // Sleep, Bound: milliseconds; ReadData: 1 once its end mark is in
    std::string golden;  // ReadData from a file under golden/: its name
};

// One call of the library and what it must give.
struct Call {
    std::string function;           // SMTP_MAIL, ..., or "send"
    std::vector<std::string> args;  // unescaped; "NULL" stays as the word
    std::optional<int> result;
    std::optional<unsigned> err;
    std::optional<std::string> reply;    // SMTP_GetSmtpSvResponce after the call
    std::optional<unsigned> timeout;     // g_ulTimeOut after the call
    std::optional<std::string> message;  // the send's message buffer
    int line = 0;
};

// The request of a send (the lines after "call send").
struct Request {
    std::string to = "rcpt@example.test";
    std::string from = "sender@example.test";
    std::string subject = "Test";
    std::optional<std::string> text = std::string("Hello\n");
    std::vector<std::pair<unsigned, std::string>> attachments;  // kind, file name
    unsigned split = 0;
    unsigned part_kb = 64;
    std::vector<std::string> auth;  // as for SMTP_initialize: mode, mechanisms, user, password
};

struct TraceCheck {
    enum class Kind { InOrder, Data, Level, Count, Word };
    Kind kind;
    std::vector<std::string> codes;  // InOrder: all; others: one
    std::string data;
    int number = 0;
};

struct TempFile {
    std::string name;
    std::string bytes;
};

struct Dialogue {
    std::string title;  // the first comment line
    std::vector<unsigned> timeouts = {5, 5, 5, 5, 5, 5};
    std::vector<TempFile> files;
    std::optional<std::string> setting;     // kemail.ini for the call
    std::optional<std::string> trace_conf;  // trc_conf for the call
    std::vector<ServerStep> steps;
    std::vector<Call> calls;
    Request request;
    std::vector<TraceCheck> traces;
    std::vector<std::string> log_lines;   // lines the mail log must hold
    std::vector<std::string> log_absent;  // texts the mail log must not hold
    std::string golden_log;               // file names under golden/, or empty
    std::string golden_trace;
    bool fake_clock = false;
    std::optional<int> connections;  // connections the server accepted
};

// Reads a dialogue file; on a malformed line returns false with the line
// number and the reason in *error.
bool read_dialogue(const std::string& path, Dialogue* out, std::string* error);

// Undoes the escapes \r \n \t \0 \\ \" and \xHH.
std::string unescape(const std::string& text);
// Shows control bytes as those escapes again (for failure messages and goldens).
std::string escape(const std::string& bytes);

}  // namespace dialogue
