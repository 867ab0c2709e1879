// Output and logging helpers shared by the SMTP and POP3 session drivers of
// the real-peer tests (peer_smtp_session, peer_pop3_session).
#ifndef KEMAIL_TESTS_PEERS_SMTP_POP3_OUTPUT_H
#define KEMAIL_TESTS_PEERS_SMTP_POP3_OUTPUT_H

#include "kemail.h"

#include <cstdio>
#include <cstring>
#include <string>

namespace peers {

// A server line as one printable token: CR and LF become \r and \n, other
// control bytes \xHH, so a script can see exactly what the buffer held.
inline std::string escaped(const char* text) {
    std::string out;
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p != 0; ++p) {
        if (*p == '\r') {
            out += "\\r";
        } else if (*p == '\n') {
            out += "\\n";
        } else if (*p == '\\') {
            out += "\\\\";
        } else if (*p < 0x20 || *p >= 0x7f) {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02x", *p);
            out += hex;
        } else {
            out += static_cast<char>(*p);
        }
    }
    return out;
}

// Opens the library's mail log (under the fixed log directory, so the
// program must run in a private root) into g_pLogHandle.
inline bool open_mail_log() {
    g_pLogHandle = MailLogOpen(0);
    if (g_pLogHandle == nullptr) {
        std::printf("maillog could not be opened\n");
        return false;
    }
    return true;
}

// Closes the mail log and prints its whole content after a marker line, so
// the calling script can look at it from outside the private root.
inline void close_and_print_mail_log() {
    if (g_pLogHandle == nullptr) return;
    const std::string path = g_pLogHandle->path;
    MailLogClose(g_pLogHandle);
    g_pLogHandle = nullptr;
    std::printf("--- mail log %s\n", path.c_str());
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) {
        std::printf("(cannot read %s)\n", path.c_str());
        return;
    }
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) std::fwrite(buf, 1, n, stdout);
    std::fclose(f);
    std::printf("--- end of mail log\n");
}

// A level-2 trace file at PATH (any directory; the file is made if needed).
inline TraceHandle* open_trace(const char* path) {
    TraceHandle* t = Topen(path, 64, 2);
    if (t == nullptr) std::printf("trace %s could not be opened\n", path);
    return t;
}

}  // namespace peers

#endif
