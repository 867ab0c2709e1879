// The message size estimate that decides between a whole send and
// message/partial pieces. Header lines, base64 line breaks and part headers
// are not counted: the estimate is the text plus the encoded attachments.
#include "send/send_internal.h"

#include "log/trace_record.h"

#include <sys/stat.h>

#include <cstring>

namespace kemail {

long estimate_size(const MailContentInfo* contents, int count, const char* text,
                   int* has_attachment) {
    trace(g_trace, 1, "GETSIZE0000");
    *has_attachment = 0;
    unsigned long long total = 0;
    for (int i = 0; i < count; ++i) {
        const MailContentInfo& element = contents[i];
        if (element.ulKind == KEMAIL_CONTENT_TEXT) {
            if (text != nullptr) {
                total += std::strlen(text);
                trace_word(g_trace, 2, "GETSIZE0020", static_cast<uint32_t>(total));
            }
            total += 2;
            continue;
        }
        struct stat status {};
        if (FileStat(element.pszData, &status) != 0) {
            const int error = GetErrorCode();
            trace_text(g_trace, 0, "GETSIZE0040", element.pszData);
            trace_word(g_trace, 0, "GETSIZE0041", static_cast<uint32_t>(error));
            return -8;
        }
        total += (static_cast<unsigned long long>(status.st_size) * 4 + 2) / 3;
        *has_attachment = 1;
    }
    const long kilobytes = static_cast<long>((total + 1023) / 1024);
    trace_word(g_trace, 1, "GETSIZEFFFF", static_cast<uint32_t>(kilobytes));
    return kilobytes;
}

}  // namespace kemail
