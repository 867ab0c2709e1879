// UTF-8 input (INPUT_CHARSET=UTF-8): subject, text and attachment names
// become Shift_JIS before staging, where an EUC-JP caller's text is
// converted; from there on the mail takes the designed path. A character
// without a Shift_JIS form becomes the GETA MARK, and the send answers 1.
#include "send/send_internal.h"

#include "compose/utf8_input.h"
#include "log/trace_record.h"
#include "util/format.h"

#include <cstring>

namespace kemail {
namespace {

// Notes in the mail log that a part of the mail lost characters, or went
// out unconverted.
void log_conversion(const char* what, const char* outcome) {
    char note[128];
    format_into(note, sizeof note, Overflow::Cut, "WARNING: UTF-8 CONVERSION (%s) %s", what,
                outcome);
    MailLogWrite(g_pLogHandle, KEMAIL_LOG_NOTE, note);
}

constexpr char kReplaced[] = "characters without a Shift_JIS form sent as GETA MARK";

void log_replaced(const char* what) { log_conversion(what, kReplaced); }

}  // namespace

Utf8Measure measure_utf8(const char* text, size_t limit) {
    const Utf8Measure measure = sjis_length(text, limit);
    if (measure.failed) trace(g_trace, 0, "EMAILAPI006d");
    return measure;
}

int convert_utf8_texts(const char* subject, const char* text, char (&subject_out)[kSubjectSize],
                       char* text_out, size_t text_size) {
    trace(g_trace, 2, "EMAILAPI006a");
    int warning = 0;
    const Utf8Conversion converted =
        utf8_to_sjis(subject, std::strlen(subject), subject_out, sizeof subject_out);
    if (converted.failed) {
        trace(g_trace, 0, "EMAILAPI006d");
        return -1;
    }
    if (converted.replaced) {
        trace_text(g_trace, 0, "EMAILAPI006b", subject_out);
        log_replaced("subject");
        warning = 1;
    }
    if (text_out != nullptr) {
        const Utf8Conversion body = utf8_to_sjis(text, std::strlen(text), text_out, text_size);
        if (body.failed) {
            trace(g_trace, 0, "EMAILAPI006d");
            return -1;
        }
        if (body.replaced) {
            trace_text(g_trace, 0, "EMAILAPI006c", text_out);
            log_replaced("text");
            warning = 1;
        }
    }
    return warning;
}

bool convert_utf8_attachment_name(const char* path, char (&name)[kAttachmentNameSize]) {
    char given[kAttachmentNameSize];
    attachment_name(path, given, sizeof given);
    const Utf8Conversion converted = utf8_to_sjis(given, std::strlen(given), name, sizeof name);
    if (converted.failed) {
        // Without a converter the name is shown as given.
        trace_text(g_trace, 0, "EMAILAPI006d", given);
        copy_cut(name, sizeof name, given);
        log_conversion("attachment name", "no converter, sent as given");
        return true;
    }
    if (!converted.replaced) return false;
    trace_text(g_trace, 0, "EMAILAPI00b8", name);
    log_replaced("attachment name");
    return true;
}

}  // namespace kemail
