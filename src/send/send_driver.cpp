// ZvKe_SendEMailPartial_parts: one mail from the caller's records to the SMTP
// server. The argument checks come first, in a fixed order, before any file
// or socket is touched; then configuration, POP before SMTP or the AUTH
// settings, conversion, staging, composition and the session.
#include "send/send_internal.h"

#include "log/trace_record.h"
#include "options/options.h"
#include "util/paths.h"
#include "util/unique_fd.h"

#include "send/pop_before_smtp.h"

#include <cstdlib>
#include <cstring>

namespace kemail {
namespace {

// Length of s when it is at most limit bytes, else limit + 1 (reads no
// further than that, so a huge or unterminated string costs nothing).
size_t bounded_length(const char* s, size_t limit) { return strnlen(s, limit + 1); }

struct Arguments {
    MailAddressInfo* address;
    int address_count;
    MailContentInfo* contents;
    int content_count;
    const char* from;
    const char* subject;
    const char* server;
    unsigned split;
    SendOptionInfo* option;
    MailTimeoutInfo* timeout;
    MailAuthInfo* auth;
    char* message;
    const char* temp_dir;
    bool utf8;  // INPUT_CHARSET=UTF-8: the limits count the Shift_JIS form
};

// Checks 1 to 17 of the request, in their order. Fills the part size and the
// port, installs the time-outs and, for UTF-8 input, gives the Shift_JIS
// length of the text. Returns 0 or the public result.
int check_request(const Arguments& a, int* part_size_kb, unsigned* port, size_t* text_length) {
    if (a.address == nullptr || a.contents == nullptr || a.from == nullptr ||
        a.subject == nullptr || a.server == nullptr || a.message == nullptr ||
        a.temp_dir == nullptr) {
        trace(g_trace, 0, "EMAILAPI0010");
        return KEMAIL_E_ARGUMENT;
    }
    a.message[0] = '\0';
    if (a.address_count <= 0) {
        trace(g_trace, 0, "EMAILAPI0020");
        return KEMAIL_E_RECIPIENT;
    }
    if (a.address_count > 1)  // only the first entry is used
        trace_word(g_trace, 2, "EMAILAPI0021", static_cast<uint32_t>(a.address_count));
    if (a.address[0].ulKind != 1 || a.address[0].pszAddress == nullptr) {
        trace(g_trace, 0, "EMAILAPI0030");
        return KEMAIL_E_RECIPIENT;
    }
    const size_t to_length = bounded_length(a.address[0].pszAddress, KEMAIL_MAX_ADDRESS);
    if (to_length < 1 || to_length > KEMAIL_MAX_ADDRESS) {
        trace_data(g_trace, 0, "EMAILAPI0035", a.address[0].pszAddress, to_length);
        return KEMAIL_E_RECIPIENT;
    }
    const size_t from_length = bounded_length(a.from, KEMAIL_MAX_ADDRESS);
    if (from_length < 1 || from_length > KEMAIL_MAX_ADDRESS) {
        trace_data(g_trace, 0, "EMAILAPI0036", a.from, from_length);
        return KEMAIL_E_ARGUMENT;
    }
    const size_t server_length = bounded_length(a.server, KEMAIL_MAX_HOST);
    if (server_length < 1 || server_length > KEMAIL_MAX_HOST) {
        trace_data(g_trace, 0, "EMAILAPI0037", a.server, server_length);
        return KEMAIL_E_ARGUMENT;
    }
    if (a.content_count <= 0) {
        trace(g_trace, 0, "EMAILAPI0040");
        return KEMAIL_E_ARGUMENT;
    }
    if (a.contents[0].ulKind != KEMAIL_CONTENT_TEXT) {
        trace(g_trace, 0, "EMAILAPI0042");
        return KEMAIL_E_ARGUMENT;
    }
    for (int i = 1; i < a.content_count; ++i) {
        const MailContentInfo& element = a.contents[i];
        if (element.ulKind != KEMAIL_CONTENT_ATTACHMENT &&
            element.ulKind != KEMAIL_CONTENT_ATTACHMENT_DELETE) {
            trace_word(g_trace, 0, "EMAILAPI0043", element.ulKind);
            return KEMAIL_E_ARGUMENT;
        }
        if (element.pszData == nullptr) {
            trace(g_trace, 0, "EMAILAPI0045");
            return KEMAIL_E_ARGUMENT;
        }
        const size_t path_length = bounded_length(element.pszData, KEMAIL_MAX_PATH);
        if (path_length < 1 || path_length > KEMAIL_MAX_PATH) {
            trace_data(g_trace, 0, "EMAILAPI0046", element.pszData, path_length);
            return KEMAIL_E_ARGUMENT;
        }
    }
    if (a.split != 0 && a.split != 1) {
        trace_word(g_trace, 2, "EMAILAPI0050", a.split);
        return KEMAIL_E_ARGUMENT;
    }
    trace_word(g_trace, 2, "EMAILAPI0051", a.split);
    if (a.option == nullptr) {
        trace(g_trace, 2, "EMAILAPI0054");
        *part_size_kb = kDefaultPartSizeKb;
        *port = 0;
    } else {
        if (a.option->lPartSize < 10 || a.option->lPartSize > 100) {
            trace_word(g_trace, 0, "EMAILAPI0053", static_cast<uint32_t>(a.option->lPartSize));
            return KEMAIL_E_ARGUMENT;
        }
        trace_word(g_trace, 2, "EMAILAPI0052", static_cast<uint32_t>(a.option->lPartSize));
        *part_size_kb = a.option->lPartSize;
        *port = a.option->ulPort;
    }
    SmtpTimeOut timeouts = kDefaultTimeouts;
    if (a.timeout != nullptr) {
        trace(g_trace, 2, "EMAILAPI0055");
        const MailTimeoutInfo copy = *a.timeout;
        if (check_timeouts(copy) != 0) {
            trace_data(g_trace, 0, "EMAILAPI0056", &copy, sizeof copy);
            return KEMAIL_E_ARGUMENT;
        }
        timeouts = {static_cast<uint32_t>(copy.lConnect),   static_cast<uint32_t>(copy.lMailFrom),
                    static_cast<uint32_t>(copy.lRcptTo),    static_cast<uint32_t>(copy.lData),
                    static_cast<uint32_t>(copy.lDataBlock), static_cast<uint32_t>(copy.lDataEnd)};
    } else {
        trace(g_trace, 2, "EMAILAPI005c");
    }
    SMTP_SetTimeOutInfo(&timeouts);

    if (a.utf8) {
        const Utf8Measure subject = measure_utf8(a.subject, KEMAIL_MAX_SUBJECT);
        if (subject.failed) return KEMAIL_E_INTERNAL;
        if (subject.too_long) {
            trace_data(g_trace, 0, "EMAILAPI0057", a.subject,
                       bounded_length(a.subject, max_utf8_length(KEMAIL_MAX_SUBJECT)));
            return KEMAIL_E_ARGUMENT;
        }
    } else {
        const size_t subject_length = bounded_length(a.subject, KEMAIL_MAX_SUBJECT);
        if (subject_length > KEMAIL_MAX_SUBJECT) {
            trace_data(g_trace, 0, "EMAILAPI0057", a.subject, subject_length);
            return KEMAIL_E_ARGUMENT;
        }
    }
    MailLogWrite(g_pLogHandle, KEMAIL_LOG_NOTE, a.subject);

    const char* text = a.contents[0].pszData;
    if (text != nullptr) {
        trace(g_trace, 2, "EMAILAPI1010");
        size_t needed;
        if (a.utf8) {
            const Utf8Measure measure = measure_utf8(text, KEMAIL_MAX_TEXT);
            if (measure.failed) return KEMAIL_E_INTERNAL;
            *text_length = measure.length;
            needed = measure.length + 1;
        } else {
            needed = bounded_length(text, KEMAIL_MAX_TEXT) + 1;
        }
        if (needed > kTextBufferLimit) {
            trace_word(g_trace, 0, "EMAILAPI1020", static_cast<uint32_t>(needed));
            return KEMAIL_E_ARGUMENT;
        }
    }
    return 0;
}

// Check 18 and 19, and POP before SMTP for mode 1. 0 or the public result.
int check_authentication(MailAuthInfo* auth, char* message) {
    if (auth == nullptr) return 0;
    // The record as the caller laid it out (mode, reserved word, pointer).
    // Kept: EMAILAPI1110 and EMAILAPI1120 also mark the text buffer below
    // (test SendTrace.Emailapi1110And1120MarkBothTheAuthRecordAndTheTextBuffer).
    trace_data(g_trace, 0, "EMAILAPI1110", auth, sizeof *auth);
    if (check_mail_auth(*auth) != 0) {
        trace(g_trace, 0, "EMAILAPI1120");
        return KEMAIL_E_ARGUMENT;
    }
    if (auth->SmtpAuthMode == KEMAIL_AUTH_POP_BEFORE_SMTP) {
        trace(g_trace, 0, "EMAILAPI1130");
        const int result = pop_before_smtp(auth, message);
        if (result != 0) {
            trace_word(g_trace, 0, "EMAILAPI1140", static_cast<uint32_t>(result));
            return result;
        }
    } else {
        trace(g_trace, 2, "EMAILAPI1141");
        if (check_auth_cert(*static_cast<const AuthCertInfo*>(auth->pSettings)) != 0) {
            trace(g_trace, 0, "EMAILAPI1145");
            return KEMAIL_E_ARGUMENT;
        }
    }
    trace(g_trace, 2, "EMAILAPI1150");
    return 0;
}

// Converts subject and text from UTF-8 when INPUT_CHARSET says so, else from
// EUC-JP when the locale says so, else copies them. Returns the warning: 1
// when a conversion failed or replaced characters; -1 when the UTF-8
// converter cannot be opened.
int prepare_texts(const char* subject, const char* text, char (&subject_out)[kSubjectSize],
                  char* text_out, size_t text_size, bool utf8) {
    if (utf8) return convert_utf8_texts(subject, text, subject_out, text_out, text_size);
    const Language language = detect_language();
    trace_word(g_trace, 2, "EMAILAPI0060", static_cast<uint32_t>(language));
    if (language != kLanguageEucJp) {
        trace(g_trace, 2, "EMAILAPI0066");
        copy_cut(subject_out, sizeof subject_out, subject);
        if (text_out != nullptr) copy_cut(text_out, text_size, text);
        return 0;
    }
    int warning = 0;
    const iconv_t converter = Cnv_open("eucJP", "SJIS");
    if (converter == reinterpret_cast<iconv_t>(-1)) {
        // Kept: the line converter then leaves subject and text empty, so
        // both go out empty and the call answers 1
        // (test LineConverter.NoConverterLeavesDestinationEmpty).
        trace(g_trace, 0, "EMAILAPI0061");
        warning = 1;
    }
    int rc = convert_lines(converter, subject, subject_out, sizeof subject_out);
    if (rc < 0) {
        trace_word(g_trace, 0, "EMAILAPI0062", static_cast<uint32_t>(rc));
        trace_text(g_trace, 0, "EMAILAPI0063", subject_out);
        warning = 1;
    }
    if (text_out != nullptr) {
        rc = convert_lines(converter, text, text_out, text_size);
        if (rc < 0) {
            trace_word(g_trace, 0, "EMAILAPI0064", static_cast<uint32_t>(rc));
            trace_text(g_trace, 0, "EMAILAPI0065", text_out);
            warning = 1;
        }
    }
    Cnv_close(converter);
    return warning;
}

// The mail configuration file, read once per send and kept until both the
// settings and Content_D_flg have been taken from it.
class MailConfigFile {
public:
    MailConfigFile() : profile_(Com_OpenPrivateProfile(KEMAIL_MAIL_INI, 0)) {}
    ~MailConfigFile() { close(); }
    void close() {
        if (profile_ != nullptr) Com_ClosePrivateProfile(profile_, KEMAIL_MAIL_INI);
        profile_ = nullptr;
    }
    MailConfigFile(const MailConfigFile&) = delete;
    MailConfigFile& operator=(const MailConfigFile&) = delete;
    ProfileHandle* get() const { return profile_; }

private:
    ProfileHandle* profile_;
};

int send_mail(Arguments& a) {
    trace(g_trace, 1, "EMAILAPI0000");
    // The settings come first: with UTF-8 input the request checks count the
    // subject and text in their Shift_JIS form. The mail configuration file
    // is read once for them and for Content_D_flg.
    MailConfigFile mail_config;
    options::load_from_profile(mail_config.get());
    a.utf8 = options::current().input_charset == options::InputCharset::Utf8;
    int part_size_kb = kDefaultPartSizeKb;
    unsigned port = 0;
    size_t utf8_text_length = 0;
    int result = check_request(a, &part_size_kb, &port, &utf8_text_length);
    if (result != 0) return result;

    read_mail_config(mail_config.get());
    mail_config.close();
    result = check_authentication(a.auth, a.message);
    if (result != 0) return result;

    const char* text = a.contents[0].pszData;
    UniqueMalloc<char> text_buffer;
    size_t text_size = 0;
    if (text != nullptr) {
        text_size = (a.utf8 ? utf8_text_length : std::strlen(text)) + 1;
        // Kept: the codes of the authentication check, with another meaning
        // (test SendTrace.Emailapi1110And1120MarkBothTheAuthRecordAndTheTextBuffer).
        trace_word(g_trace, 2, "EMAILAPI1110", static_cast<uint32_t>(text_size));
        text_buffer.reset(static_cast<char*>(std::calloc(text_size, 1)));
        if (!text_buffer) {
            trace_text(g_trace, 0, "EMAILAPI1120", text);
            return KEMAIL_E_NO_MEMORY;
        }
    }
    char subject[kSubjectSize] = {};
    int warning = prepare_texts(a.subject, text, subject, text_buffer.get(), text_size, a.utf8);
    if (warning < 0) return KEMAIL_E_INTERNAL;

    WorkFile staged_text;
    unsigned file_err = 0;
    result = stage_text(staged_text, a.temp_dir, text_buffer.get(), &file_err);
    if (result != 0) {
        trace_word(g_trace, 0, "EMAILAPI0067", static_cast<uint32_t>(result));
        trace_word(g_trace, 0, "EMAILAPI0068", file_err);
        put_number(a.message, file_err);
        return result;
    }

    int has_attachment = 0;
    const long estimate =
        estimate_size(a.contents, a.content_count, text_buffer.get(), &has_attachment);
    text_buffer.reset();
    if (estimate < 0) {
        trace_word(g_trace, 0, "EMAILAPI0070", static_cast<uint32_t>(estimate));
        return KEMAIL_E_ATTACHMENT;
    }

    unsigned split = a.split;
    if (split == 1 && estimate <= part_size_kb) {
        trace_word(g_trace, 2, "EMAILAPI0072", static_cast<uint32_t>(estimate));
        trace_word(g_trace, 2, "EMAILAPI0073", static_cast<uint32_t>(part_size_kb));
        split = 0;
    }

    const SendPlan plan{a.address[0].pszAddress,
                        a.from,
                        a.server,
                        a.contents,
                        a.content_count,
                        split,
                        part_size_kb,
                        port,
                        a.auth,
                        subject,
                        a.temp_dir,
                        a.message,
                        a.utf8};
    ComposedMessage composed;
    result = compose_message(plan, staged_text, has_attachment, composed);
    if (result != 0) return result;
    if (composed.name_replaced) warning = 1;
    return run_session(plan, composed, warning);
}

}  // namespace

}  // namespace kemail

extern "C" {

KEMAIL_API int ZvKe_SendEMailPartial_parts(unsigned int ulReserved, MailAddressInfo* pstAddress,
                                           int lAddressCount, MailContentInfo* pstContent,
                                           int lContentCount, const char* pszFrom,
                                           const char* pszSubject, const char* pszServer,
                                           unsigned int ulSplit, SendOptionInfo* pstOption,
                                           MailTimeoutInfo* pstTimeout, MailAuthInfo* pstAuth,
                                           char* pszMessage, const char* pszTempDir) noexcept {
    (void)ulReserved;  // reserved: never read
    kemail::Arguments arguments{pstAddress, lAddressCount, pstContent, lContentCount, pszFrom,
                                pszSubject, pszServer,     ulSplit,    pstOption,     pstTimeout,
                                pstAuth,    pszMessage,    pszTempDir, false};
    return kemail::send_mail(arguments);
}

}  // extern "C"
