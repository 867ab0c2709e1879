// Inputs shared by the benchmarks: attachment files of a given size and the
// text of a small alert mail.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace bench {

// An attachment of the given size, made once and kept until the process ends.
inline const std::string& attachment(size_t mib) {
    static std::string paths[101];
    std::string& path = paths[mib];
    if (path.empty()) {
        path = "/tmp/kemail-bench-" + std::to_string(getpid()) + "-" + std::to_string(mib) + ".bin";
        FILE* f = std::fopen(path.c_str(), "wb");
        std::string block(1 << 20, '\0');
        for (size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>(i * 131 + i / 7);
        for (size_t i = 0; i < mib; ++i) std::fwrite(block.data(), 1, block.size(), f);
        std::fclose(f);
        std::atexit([] {
            for (auto& p : paths)
                if (!p.empty()) std::remove(p.c_str());
        });
    }
    return path;
}

// The 1 KiB text of an alert mail.
inline std::string alert_text() {
    std::string text;
    for (int line = 0; text.size() < 1024; ++line)
        text += "alert " + std::to_string(line) + ": disk /var above threshold\n";
    text.resize(1024);
    return text;
}

// The alert as a finished message, as the floor client sends it.
inline std::string small_message() {
    std::string message =
        "From: bench@example.test\r\nTo: rcpt@example.test\r\nSubject: alert\r\n"
        "MIME-Version: 1.0\r\nContent-Type: text/plain; charset=us-ascii\r\n\r\n";
    for (char c : alert_text()) {
        if (c == '\n') message += '\r';
        message += c;
    }
    return message;
}

}  // namespace bench
