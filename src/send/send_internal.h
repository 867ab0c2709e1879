// The send driver's internal pieces: the request checks, the mail
// configuration, language detection, the work files (staged text "EMT",
// composed message "EST"), the size estimate,
// the table that turns the SMTP and composition layers' internal codes into
// public results, and the composition and SMTP session steps.
//
// Every helper traces to g_trace and returns 0 (or a count) on success and a
// negative code on failure, as its comment says. The driver owns the order of
// the steps and the clean-up: no work file outlives a call.
//
// Deliberate oddities kept here:
// - The code changer and the line converter share the trace family CHANGE,
//   and CHANGE0010/CHANGE0020 mean different things in each.
// - In an EUC-JP locale whose converter cannot be opened, subject and text go
//   out empty and the call answers 1.
// - The staged text always ends with an extra CR LF (an absent text is a
//   single CR LF).
#pragma once

#include "compose/compose.h"
#include "compose/utf8_input.h"
#include "kemail.h"
#include "util/util.h"

#include <cstddef>
#include <cstdint>

namespace kemail {

// Room for a work-file name: names of 1025 characters or more are refused.
constexpr size_t kWorkPathSize = kPathBufferSize;
// The converted subject: up to 64 bytes and a NUL.
constexpr size_t kSubjectSize = KEMAIL_MAX_SUBJECT + 1;
// The longest text a caller may give, with its NUL.
constexpr size_t kTextBufferLimit = KEMAIL_MAX_TEXT + 1;

// Time-outs used when the caller gives none, in the order of MailTimeoutInfo.
constexpr SmtpTimeOut kDefaultTimeouts = {300, 300, 300, 120, 180, 600};
constexpr int kDefaultPartSizeKb = 64;

enum Language { kLanguageUnknown = 0, kLanguageEucJp = 1, kLanguageShiftJis = 2 };

// ---------------------------------------------------------------------------
// Checks (TIMEOUT, CHKCERT, CAUTH). Each returns 0 or -1.
// ---------------------------------------------------------------------------
int check_timeouts(const MailTimeoutInfo& timeouts);
int check_mail_auth(const MailAuthInfo& auth);
int check_auth_cert(const AuthCertInfo& cert);

// Sets Content_D_flg from the mail configuration file (READKEMAIL), given
// open as profile (null when it could not be opened, which leaves it 0).
// Returns 0, or -1 for a null profile.
int read_mail_config(ProfileHandle* profile);

// Classifies the process locale through the EUC and Shift_JIS locale tables
// (GETLANG).
Language detect_language();

// ---------------------------------------------------------------------------
// UTF-8 input (INPUT_CHARSET=UTF-8).
// ---------------------------------------------------------------------------
// The Shift_JIS length of a UTF-8 subject or text, counted up to limit + 1
// for the request checks; EMAILAPI006d when no converter can be opened.
Utf8Measure measure_utf8(const char* text, size_t limit);

// Converts the subject and, when text_out is given, the text into the
// buffers the request checks sized. Returns the warning (1 when a character
// became the GETA MARK), or -1 when no converter can be opened.
int convert_utf8_texts(const char* subject, const char* text, char (&subject_out)[kSubjectSize],
                       char* text_out, size_t text_size);

// The name the part header of the attachment at path shows, in Shift_JIS.
// True when a character became the GETA MARK (traced and logged).
bool convert_utf8_attachment_name(const char* path, char (&name)[kAttachmentNameSize]);

// ---------------------------------------------------------------------------
// Work files.
// ---------------------------------------------------------------------------
// Forms "<dir>/<prefix><pid>-<thread id>" and deletes any file of that name
// (MKTMP). 0, or -1 when the name would be 1025 characters or longer.
int make_work_file_name(char (&out)[kWorkPathSize], const char* dir, const char* prefix);

// Empties a work file just opened. The name was deleted first, but a file
// that could not be deleted (an earlier process's with the same id) is
// opened as it is, and none of its bytes may reach a mail. False, with
// errno set, when it cannot be emptied.
bool empty_work_file(int fd);

// A work file of this call: closed and deleted when it goes out of scope, so
// no exit path leaves one behind.
class WorkFile {
public:
    WorkFile() = default;
    ~WorkFile() { remove(); }
    WorkFile(const WorkFile&) = delete;
    WorkFile& operator=(const WorkFile&) = delete;

    char (&path())[kWorkPathSize] { return path_; }
    const char* c_path() const { return path_; }
    int fd() const { return fd_; }
    void set_fd(int fd) { fd_ = fd; }
    // Closes the descriptor, if open.
    void close();
    // Closes and deletes the file, if one was named.
    void remove();

private:
    char path_[kWorkPathSize] = {};
    int fd_ = -1;
};

// Stages the text in the "EMT" work file with CR LF line ends (MEMDATA).
// 0, or -3 with the system error number in *file_err; the file is deleted on
// failure and named in file.path() on success.
int stage_text(WorkFile& file, const char* temp_dir, const char* text, unsigned* file_err);

// Estimated message size in whole kilobytes (GETSIZE): the text, 2 bytes per
// text element, and the base64 size of each attachment. -8 when an attachment
// cannot be examined. *has_attachment is set to 1 when any exists.
long estimate_size(const MailContentInfo* contents, int count, const char* text,
                   int* has_attachment);

// Maps an internal SMTP or composition code to the public result.
int change_code(int internal);

// ---------------------------------------------------------------------------
// Composition and session.
// ---------------------------------------------------------------------------
// What the driver has checked and prepared for the later steps.
struct SendPlan {
    const char* to;
    const char* from;
    const char* server;
    const MailContentInfo* contents;
    int content_count;
    unsigned split;  // 1: message/partial pieces
    int part_size_kb;
    unsigned port;
    const MailAuthInfo* auth;
    const char* subject;  // in Shift_JIS (converted)
    const char* temp_dir;
    char* message;            // the caller's message buffer
    bool utf8_input = false;  // attachment names are UTF-8 (INPUT_CHARSET)
};

// What composition leaves for the session.
struct ComposedMessage {
    WorkFile message_file;  // "EST", rewound
    char boundary[KEMAIL_BOUNDARY_SIZE] = {};
    int piece_count = 0;
    char partial_id[KEMAIL_PARTIAL_ID_SIZE] = {};
    bool name_replaced = false;  // an attachment name lost characters
};

// Piece buffer size: the piece, room for the reader to finish the last line
// and a part header that must not be cut, and a NUL.
size_t piece_buffer_size(int part_size_kb);

// Steps from naming the "EST" file to the counting pass. The staged text
// file is deleted on every path. Returns 0 or the public result (the
// message buffer filled as the failure requires).
int compose_message(const SendPlan& plan, WorkFile& staged_text, int has_attachment,
                    ComposedMessage& composed);

// Connects, sends whole or in pieces, quits and cleans up. Returns the public
// result: 2 after a session without the asked-for authentication, else
// warning (0 or 1) on success; a negative result on failure.
int run_session(const SendPlan& plan, ComposedMessage& composed, int warning);

// Writes the system error number (or status word) as "%d" into the message
// buffer.
void put_number(char* message, unsigned value);

// Ends the mark of a running send that ZvKe_SendEMail set (the busy flag).
void release_busy_flag();

}  // namespace kemail
