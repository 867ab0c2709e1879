// What the reliability tests share: the mails they send (owning their
// records), the directories the library writes, descriptor counts and the
// comparison of what a server accepted with the mail that was composed.
#pragma once

#include "kemail.h"
#include "reliability/mail_server.h"
#include "support/mail_masks.h"
#include "support/temp_dir.h"

#include <unistd.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace reliability {

// One send request; every record handed to the library lives here.
struct Request {
    std::string to = "rcpt@example.test";
    std::string from = "sender@example.test";
    std::string subject = "Sweep";
    std::optional<std::string> text;
    std::vector<std::pair<unsigned, std::string>> attachments;  // kind, path
    unsigned split = 0;
    SendOptionInfo option{64, 0};
    MailTimeoutInfo timeout{60, 60, 60, 60, 60, 60};
    char message[KEMAIL_MESSAGE_SIZE];

    MailAddressInfo address{};
    std::vector<MailContentInfo> contents;

    int send(uint16_t port) {
        option.ulPort = port;
        address = MailAddressInfo{1, 0, to.data()};
        contents.clear();
        contents.push_back({KEMAIL_CONTENT_TEXT, 0, text ? text->data() : nullptr});
        for (auto& [kind, path] : attachments) contents.push_back({kind, 0, path.data()});
        return ZvKe_SendEMail(&address, 1, contents.data(), static_cast<int>(contents.size()),
                              from.c_str(), subject.c_str(), "127.0.0.1", split, &option, &timeout,
                              nullptr, message);
    }
};

using kemail_test::files_in;
using kemail_test::open_descriptors;

inline const std::string kWorkDir = "/var/opt/QRZNvolta/tmp";
inline const std::string kTraceDir = "/var/opt/QRZNvolta/tmp2";

// Work files ("EMT", "EST") left in the work directory, and trace
// temporaries ("trc" and six characters) left beside the trace files.
inline std::vector<std::string> leftovers() {
    std::vector<std::string> left;
    for (const std::string& name : files_in(kWorkDir)) left.push_back(kWorkDir + "/" + name);
    for (const std::string& name : files_in(kTraceDir)) {
        if (name.rfind("trc", 0) == 0) left.push_back(kTraceDir + "/" + name);
    }
    return left;
}

// Removes the trace files and mail logs earlier sends left, so that every
// send meets the same directories (and so makes the same calls).
inline void clear_log_directories() {
    for (const std::string& dir : {kTraceDir, std::string("/var/opt/QRZNvolta/log")}) {
        for (const std::string& name : files_in(dir)) ::unlink((dir + "/" + name).c_str());
    }
}

// Empty when the accepted messages are, in order, the first of the expected
// ones, each exactly (after masking); else what differs. With whole set,
// every expected message must have been accepted.
inline std::string compare_mail(const std::vector<std::string>& accepted,
                                const std::vector<std::string>& expected, bool whole) {
    if (accepted.size() > expected.size())
        return "server accepted " + std::to_string(accepted.size()) + " messages, " +
               std::to_string(expected.size()) + " composed";
    for (size_t i = 0; i < accepted.size(); ++i) {
        const std::string got = kemail_test::mask_variable(accepted[i]);
        if (got != expected[i]) {
            size_t at = 0;
            while (at < got.size() && at < expected[i].size() && got[at] == expected[i][at]) ++at;
            return "message " + std::to_string(i + 1) + " differs from the composed one at byte " +
                   std::to_string(at) + " (" + std::to_string(got.size()) + " bytes, " +
                   std::to_string(expected[i].size()) + " expected)";
        }
    }
    if (whole && accepted.size() != expected.size())
        return "server accepted " + std::to_string(accepted.size()) + " of " +
               std::to_string(expected.size()) + " messages";
    return {};
}

inline std::vector<std::string> masked(const std::vector<std::string>& messages) {
    std::vector<std::string> out;
    for (const std::string& m : messages) out.push_back(kemail_test::mask_variable(m));
    return out;
}

// Deterministic bytes of every value, for attachments.
inline std::string pattern_bytes(size_t size, unsigned seed) {
    std::string bytes(size, '\0');
    unsigned x = seed * 2654435761u + 1;
    for (char& c : bytes) {
        x = x * 1103515245u + 12345u;
        c = static_cast<char>(x >> 16);
    }
    return bytes;
}

}  // namespace reliability
