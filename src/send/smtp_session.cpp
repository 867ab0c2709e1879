// The SMTP session of one send: connect, greet (and authenticate), send the
// message whole or as one transaction per piece, quit, and clean up.
#include "send/send_internal.h"

#include "log/trace_record.h"
#include "net/secure.h"
#include "net/stream.h"
#include "smtp/smtp.h"
#include "util/unique_fd.h"

#include <cstdlib>
#include <cstring>

namespace kemail {
namespace {

// What a failed step adds to the message buffer besides the mapped result.
enum Detail : unsigned {
    kNoDetail = 0,
    kNumberOnSocket = 1,    // -7: the status word
    kNumberOnWorkFile = 2,  // -3: the status word
    kNumberAlways = 4,
};

struct Session {
    const SendPlan& plan;
    ComposedMessage& composed;
    UniqueFd socket;
    unsigned status = 0;
    int init_result = 0;
    // The initialisation result until the first MAIL of the session has been
    // accepted: a refusal before that may be the missing authentication.
    int auth_memory = 0;
    // MAIL FROM, RCPT TO and DATA go out as one group (the PIPELINING
    // setting, and the server announced it).
    bool pipelining = false;
    // With pipelining, replies that arrive together are read together.
    net::ReadAhead read_ahead;
};

void end_marker() {
    trace(g_trace, 1, "ENDPROC0000");
    trace(g_trace, 1, "ENDPROCFFFF");
}

// Ends the socket's TLS session, if any, and closes it.
void close_socket(Session& s) {
    s.read_ahead.stop();
    net::end_tls(s.socket.get());
    s.socket.reset();
}

// Releases what is open, maps the code and fills the message buffer.
// rewrite_codes: the records of the -25 and -26 rewrites, or null when the
// step is not subject to it.
int step_failed(Session& s, int internal, unsigned detail, const char* reply_code,
                const char* const rewrite_codes[2] = nullptr) {
    close_socket(s);
    s.composed.message_file.remove();
    int result = change_code(internal);
    if (result == KEMAIL_E_REFUSED && rewrite_codes != nullptr) {
        if (s.auth_memory == 3) {
            result = KEMAIL_E_AUTH_REFUSED;
            trace_word(g_trace, 0, rewrite_codes[0], static_cast<uint32_t>(result));
        } else if (s.auth_memory == 2) {
            result = KEMAIL_E_NO_AUTH;
            trace_word(g_trace, 0, rewrite_codes[1], static_cast<uint32_t>(result));
        }
    }
    const bool refused =
        result == KEMAIL_E_REFUSED || result == KEMAIL_E_AUTH_REFUSED || result == KEMAIL_E_NO_AUTH;
    if (result == KEMAIL_E_TLS) {
        copy_cut(s.plan.message, KEMAIL_MESSAGE_SIZE, smtp::tls_failure_reason());
    } else if (refused && reply_code != nullptr) {
        SMTP_GetSmtpSvResponce(s.plan.message);
        trace_data(g_trace, 0, reply_code, s.plan.message, KEMAIL_MESSAGE_SIZE);
    } else if ((detail & kNumberAlways) ||
               (result == KEMAIL_E_SOCKET && (detail & kNumberOnSocket)) ||
               (result == KEMAIL_E_WORK_FILE && (detail & kNumberOnWorkFile))) {
        put_number(s.plan.message, s.status);
    }
    end_marker();
    return result;
}

void trace_code_socket(Session& s, const char* code_record, const char* socket_record, int code) {
    trace_word(g_trace, 0, code_record, static_cast<uint32_t>(code));
    trace_word(g_trace, 0, socket_record, static_cast<uint32_t>(s.socket.get()));
}

// The records of a failed SMTP_MAIL, of the whole send or of a piece.
struct MailFailureCodes {
    const char* code;
    const char* socket;
    const char* from;
    const char* to;
    const char* status;
    const char* reply;
    const char* rewrite[2];
};

int mail_failed(Session& s, int rc, const MailFailureCodes& codes) {
    trace_code_socket(s, codes.code, codes.socket, rc);
    trace_text(g_trace, 0, codes.from, s.plan.from);
    trace_text(g_trace, 0, codes.to, s.plan.to);
    trace_word(g_trace, 0, codes.status, s.status);
    return step_failed(s, rc, kNumberOnSocket, codes.reply, codes.rewrite);
}

int send_whole(Session& s) {
    static constexpr MailFailureCodes kMailFailed{.code = "EMAILAPI0160",
                                                  .socket = "EMAILAPI0161",
                                                  .from = "EMAILAPI0162",
                                                  .to = "EMAILAPI0163",
                                                  .status = "EMAILAPI0164",
                                                  .reply = "EMAILAPI0165",
                                                  .rewrite = {"EMAILAPI0166", "EMAILAPI0167"}};
    const SendPlan& plan = s.plan;
    smtp::GroupStage stage = smtp::GroupStage::Mail;
    int rc = s.pipelining ? smtp::mail_group(s.socket.get(), smtp::GroupLead::None, plan.from,
                                             plan.to, &s.status, &stage)
                          : smtp::kNotGrouped;
    if (rc == smtp::kNotGrouped) {
        rc = SMTP_MAIL(s.socket.get(), plan.from, plan.to, &s.status);
        if (rc >= 0) {
            stage = smtp::GroupStage::Data;
            rc = SMTP_startData(s.socket.get(), &s.status);
        }
    }
    if (rc < 0 && stage == smtp::GroupStage::Mail) return mail_failed(s, rc, kMailFailed);
    if (rc < 0) {
        trace_code_socket(s, "EMAILAPI0170", "EMAILAPI0171", rc);
        trace_word(g_trace, 0, "EMAILAPI0172", s.status);
        return step_failed(s, rc, kNumberOnSocket, "EMAILAPI0173");
    }
    const int fd = s.composed.message_file.fd();
    rc = SMTP_sendData(s.socket.get(), fd, &s.status);
    if (rc < 0) {
        trace_code_socket(s, "EMAILAPI0180", "EMAILAPI0181", rc);
        trace_word(g_trace, 0, "EMAILAPI0182", static_cast<uint32_t>(fd));
        trace_word(g_trace, 0, "EMAILAPI0183", s.status);
        return step_failed(s, rc, kNumberOnSocket | kNumberOnWorkFile, nullptr);
    }
    rc = SMTP_endData(s.socket.get(), &s.status);
    if (rc < 0) {
        trace_code_socket(s, "EMAILAPI0190", "EMAILAPI0191", rc);
        trace_word(g_trace, 0, "EMAILAPI0192", s.status);
        return step_failed(s, rc, kNumberOnSocket, "EMAILAPI0193");
    }
    return 0;
}

int end_of_data_failed(Session& s, int rc) {
    trace_word(g_trace, 0, "EMAILAPI0150", static_cast<uint32_t>(rc));
    trace_word(g_trace, 0, "EMAILAPI0151", s.status);
    return step_failed(s, rc, kNumberOnSocket, "EMAILAPI0152");
}

int send_pieces(Session& s) {
    static constexpr MailFailureCodes kMailFailed{.code = "EMAILAPI0110",
                                                  .socket = "EMAILAPI0111",
                                                  .from = "EMAILAPI0113",
                                                  .to = "EMAILAPI0114",
                                                  .status = "EMAILAPI0115",
                                                  .reply = "EMAILAPI0116",
                                                  .rewrite = {"EMAILAPI0117", "EMAILAPI0118"}};
    const SendPlan& plan = s.plan;
    ComposedMessage& composed = s.composed;
    trace(g_trace, 2, "EMAILAPI0109");
    const size_t size = piece_buffer_size(plan.part_size_kb);
    UniqueMalloc<char> buffer(static_cast<char*>(std::malloc(size)));
    if (!buffer) {
        trace(g_trace, 0, "EMAILAPI010a");
        close_socket(s);
        composed.message_file.remove();
        end_marker();
        return KEMAIL_E_NO_MEMORY;
    }
    const int fd = composed.message_file.fd();
    // The counting pass left the file at its end: without the rewind the
    // pieces would be empty.
    if (FileSeek(fd, 0, SEEK_SET) < 0) {
        s.status = static_cast<unsigned>(GetErrorCode());
        return step_failed(s, -32, kNumberOnWorkFile, nullptr);
    }
    // With pipelining, the end of a piece's data and the RSET after it go out
    // with the next piece's MAIL FROM, RCPT TO and DATA.
    smtp::GroupLead lead = smtp::GroupLead::None;
    for (int piece = 1; piece <= composed.piece_count; ++piece) {
        smtp::GroupStage stage = smtp::GroupStage::Mail;
        int rc = s.pipelining
                     ? smtp::mail_group(s.socket.get(), lead, plan.from, plan.to, &s.status, &stage)
                     : smtp::kNotGrouped;
        const bool grouped = rc != smtp::kNotGrouped;
        if (!grouped) {
            if (lead == smtp::GroupLead::EndOfDataAndRset) {
                rc = SMTP_endData(s.socket.get(), &s.status);
                if (rc < 0) return end_of_data_failed(s, rc);
                SMTP_RSET(s.socket.get(), &s.status);
            }
            rc = SMTP_MAIL(s.socket.get(), plan.from, plan.to, &s.status);
        }
        lead = smtp::GroupLead::None;
        if (rc < 0 && stage == smtp::GroupStage::EndOfData) return end_of_data_failed(s, rc);
        if (rc < 0 && stage == smtp::GroupStage::Mail) return mail_failed(s, rc, kMailFailed);
        s.auth_memory = 0;
        if (!grouped) rc = SMTP_startData(s.socket.get(), &s.status);
        if (rc < 0) {
            trace_code_socket(s, "EMAILAPI0120", "EMAILAPI0121", rc);
            trace_word(g_trace, 0, "EMAILAPI0122", s.status);
            return step_failed(s, rc, kNumberOnSocket, "EMAILAPI0123");
        }
        // The reader NUL-terminates each piece; the counting pass zero-filled
        // its buffer, this one need not.
        const int length =
            SMTP_getSendData(fd, buffer.get(), plan.part_size_kb, composed.boundary, &s.status);
        if (length < 0) {
            trace_word(g_trace, 0, "EMAILAPI0130", static_cast<uint32_t>(length));
            trace_word(g_trace, 0, "EMAILAPI0131", static_cast<uint32_t>(fd));
            trace_word(g_trace, 0, "EMAILAPI0133", static_cast<uint32_t>(plan.part_size_kb));
            trace_text(g_trace, 0, "EMAILAPI0134", composed.boundary);
            trace_word(g_trace, 0, "EMAILAPI0135", s.status);
            return step_failed(s, length, kNumberOnWorkFile, nullptr);
        }
        rc = SMTP_sendData_Partial(s.socket.get(), buffer.get(), length, plan.from, plan.to,
                                   plan.subject, piece, composed.piece_count, composed.partial_id,
                                   &s.status);
        if (rc < 0) {
            trace_code_socket(s, "EMAILAPI0140", "EMAILAPI0141", rc);
            trace_word(g_trace, 0, "EMAILAPI0142", static_cast<uint32_t>(length));
            trace_text(g_trace, 0, "EMAILAPI0143", plan.from);
            trace_text(g_trace, 0, "EMAILAPI0144", plan.to);
            trace_text(g_trace, 0, "EMAILAPI0145", plan.subject);
            trace_word(g_trace, 0, "EMAILAPI0146", static_cast<uint32_t>(composed.piece_count));
            trace_text(g_trace, 0, "EMAILAPI0147", composed.partial_id);
            trace_word(g_trace, 0, "EMAILAPI0148", s.status);
            trace_word(g_trace, 0, "EMAILAPI0149", static_cast<uint32_t>(piece));
            return step_failed(s, rc, kNumberOnSocket, nullptr);
        }
        if (s.pipelining && piece < composed.piece_count) {
            lead = smtp::GroupLead::EndOfDataAndRset;
            continue;
        }
        rc = SMTP_endData(s.socket.get(), &s.status);
        if (rc < 0) return end_of_data_failed(s, rc);
        SMTP_RSET(s.socket.get(), &s.status);  // a refused RSET does not undo the piece
    }
    trace(g_trace, 2, "EMAILAPI0155");
    return 0;
}

void delete_attachments_marked_for_deletion(const SendPlan& plan) {
    for (int i = 1; i < plan.content_count; ++i) {
        if (plan.contents[i].ulKind == KEMAIL_CONTENT_ATTACHMENT_DELETE)
            FileDelete(plan.contents[i].pszData);
    }
}

}  // namespace

int run_session(const SendPlan& plan, ComposedMessage& composed, int warning) {
    Session s{plan, composed, UniqueFd(), 0, 0, 0, false, {}};

    trace(g_trace, 2, "EMAILAPI00d8");
    // The socket initialiser only clears the status word: it has no failure,
    // so its failure records EMAILAPI00e0 and EMAILAPI00e1 are never written.
    trace(g_trace, 1, "INITSOCK0000");
    s.status = 0;
    trace(g_trace, 1, "INITSOCKFFFF");

    const int sock = SMTP_connect(plan.server, plan.port, &s.status);
    if (sock < 0) {
        trace_word(g_trace, 0, "EMAILAPI00f0", static_cast<uint32_t>(sock));
        trace_word(g_trace, 0, "EMAILAPI00f1", s.status);
        return step_failed(s, sock, kNumberAlways, nullptr);
    }
    s.socket.reset(sock);

    const int init = SMTP_initialize(sock, plan.auth, &s.status);
    trace_word(g_trace, 0, "EMAILAPI0108", static_cast<uint32_t>(init));
    if (init < 0) {
        trace_code_socket(s, "EMAILAPI0100", "EMAILAPI0101", init);
        trace_text(g_trace, 0, "EMAILAPI0102", plan.from);
        trace_text(g_trace, 0, "EMAILAPI0103", plan.to);
        trace_word(g_trace, 0, "EMAILAPI0104", s.status);
        return step_failed(s, init, kNumberOnSocket, "EMAILAPI0105");
    }
    s.init_result = init;
    s.auth_memory = init;
    s.pipelining = smtp::pipelining_wanted();
    if (s.pipelining) s.read_ahead.start(sock);

    const int sent = plan.split == 1 ? send_pieces(s) : send_whole(s);
    if (sent < 0) return sent;

    const int quit = SMTP_QUIT(sock, &s.status);
    if (quit < 0) {
        trace_word(g_trace, 0, "EMAILAPI01a0", static_cast<uint32_t>(quit));
        trace_word(g_trace, 0, "EMAILAPI01a1", static_cast<uint32_t>(sock));
        trace_word(g_trace, 0, "EMAILAPI01a2", s.status);
        return step_failed(s, quit, kNumberOnSocket, nullptr);
    }
    close_socket(s);
    composed.message_file.remove();
    delete_attachments_marked_for_deletion(plan);
    trace(g_trace, 1, "EMAILAPIFFFF");
    end_marker();
    if (s.init_result == 2 || s.init_result == 3) return KEMAIL_W_NO_AUTH;
    return warning;
}

}  // namespace kemail
