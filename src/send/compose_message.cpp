// Composition of the whole message into the "EST" work file: header block
// and text, then each attachment, then (for a split send) the counting pass
// that tells every piece the piece count.
#include "send/send_internal.h"

#include "log/trace_record.h"
#include "util/unique_fd.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace kemail {

size_t piece_buffer_size(int part_size_kb) {
    // The piece reader reads (part size - 1) KiB, then finishes the last line
    // (composed lines are at most 4100 bytes) and never parts a MIME part
    // header from its first body line (a header names the attachment twice,
    // up to 1060 bytes each): 8 KiB beyond the nominal size holds both.
    constexpr size_t kReaderSlack = 8 * 1024;
    return static_cast<size_t>(part_size_kb) * 1024 + kReaderSlack + 1;
}

namespace {

// Maps a composition failure and adds the file error word for -3.
int composition_failed(ComposedMessage& composed, char* message, int internal, unsigned file_err) {
    composed.message_file.remove();
    const int result = change_code(internal);
    if (result == KEMAIL_E_WORK_FILE) put_number(message, file_err);
    return result;
}

int count_pieces(const SendPlan& plan, ComposedMessage& composed) {
    trace(g_trace, 2, "EMAILAPI00c0");
    const size_t size = piece_buffer_size(plan.part_size_kb);
    UniqueMalloc<char> buffer(static_cast<char*>(std::malloc(size)));
    if (!buffer) {
        trace(g_trace, 0, "EMAILAPI00c1");
        composed.message_file.remove();
        return KEMAIL_E_NO_MEMORY;
    }
    const int fd = composed.message_file.fd();
    composed.piece_count = 0;
    for (;;) {
        std::memset(buffer.get(), 0, size);
        unsigned file_err = 0;
        const int length =
            SMTP_getSendData(fd, buffer.get(), plan.part_size_kb, composed.boundary, &file_err);
        if (length < 0) {
            trace_word(g_trace, 0, "EMAILAPI00d0", static_cast<uint32_t>(length));
            trace_word(g_trace, 0, "EMAILAPI00d1", static_cast<uint32_t>(fd));
            trace_word(g_trace, 0, "EMAILAPI00d2", static_cast<uint32_t>(plan.part_size_kb));
            trace_text(g_trace, 0, "EMAILAPI00d3", composed.boundary);
            trace_word(g_trace, 0, "EMAILAPI00d4", file_err);
            buffer.reset();
            return composition_failed(composed, plan.message, length, file_err);
        }
        if (length == 0) break;
        ++composed.piece_count;
    }
    trace_word(g_trace, 2, "EMAILAPI00d5", static_cast<uint32_t>(composed.piece_count));
    buffer.reset();
    std::memset(composed.partial_id, 0, sizeof composed.partial_id);
    SMTP_makeid(composed.partial_id, plan.from);
    trace_text(g_trace, 2, "EMAILAPI00d6", composed.partial_id);
    return 0;
}

}  // namespace

int compose_message(const SendPlan& plan, WorkFile& staged_text, int has_attachment,
                    ComposedMessage& composed) {
    WorkFile& file = composed.message_file;
    if (make_work_file_name(file.path(), plan.temp_dir, "EST") != 0) {
        trace(g_trace, 0, "EMAILAPI0080");
        staged_text.remove();
        put_number(plan.message, 0);
        return KEMAIL_E_WORK_FILE;
    }
    int fd = FileOpen(file.c_path());
    if (fd >= 0 && !empty_work_file(fd)) {
        const int error = GetErrorCode();
        FileClose(fd);  // the file itself goes with the message file's clean-up
        errno = error;
        fd = -1;
    }
    if (fd < 0) {
        const int error = GetErrorCode();
        trace_word(g_trace, 0, "EMAILAPI0090", static_cast<uint32_t>(fd));
        trace_word(g_trace, 0, "EMAILAPI0091", static_cast<uint32_t>(error));
        staged_text.remove();
        put_number(plan.message, static_cast<unsigned>(error));
        return KEMAIL_E_WORK_FILE;
    }
    file.set_fd(fd);

    unsigned file_err = 0;
    int result = SMTP_makeTopData(fd, staged_text.c_path(), plan.from, plan.to, plan.subject,
                                  composed.boundary, has_attachment, static_cast<int>(plan.split),
                                  &file_err);
    staged_text.remove();
    if (result < 0) {
        trace_word(g_trace, 0, "EMAILAPI00a0", static_cast<uint32_t>(result));
        trace_text(g_trace, 0, "EMAILAPI00a1", plan.from);
        trace_text(g_trace, 0, "EMAILAPI00a2", plan.to);
        trace_text(g_trace, 0, "EMAILAPI00a3", plan.subject);
        trace_word(g_trace, 0, "EMAILAPI00a4", static_cast<uint32_t>(has_attachment));
        trace_word(g_trace, 0, "EMAILAPI00a5", plan.split);
        trace_word(g_trace, 0, "EMAILAPI00a6", file_err);
        return composition_failed(composed, plan.message, result, file_err);
    }

    for (int i = 1; i < plan.content_count; ++i) {
        int more = 1;
        if (i == plan.content_count - 1) {
            trace(g_trace, 2, "EMAILAPI00b0");
            more = 0;
        }
        const char* path = plan.contents[i].pszData;
        if (plan.utf8_input) {
            char name[kAttachmentNameSize];
            if (convert_utf8_attachment_name(path, name)) composed.name_replaced = true;
            result = make_append_data(fd, path, name, composed.boundary, more, &file_err);
        } else {
            result = SMTP_makeAppendData(fd, path, composed.boundary, more, &file_err);
        }
        if (result < 0) {
            trace_word(g_trace, 0, "EMAILAPI00b1", static_cast<uint32_t>(result));
            trace_word(g_trace, 0, "EMAILAPI00b2", static_cast<uint32_t>(fd));
            trace_text(g_trace, 0, "EMAILAPI00b3", path);
            trace_text(g_trace, 0, "EMAILAPI00b4", composed.boundary);
            trace_word(g_trace, 0, "EMAILAPI00b5", static_cast<uint32_t>(more));
            trace_word(g_trace, 0, "EMAILAPI00b6", file_err);
            return composition_failed(composed, plan.message, result, file_err);
        }
    }
    trace(g_trace, 0, "EMAILAPI00b7");
    // Sending and the counting pass read the message from its start.
    if (FileSeek(fd, 0, SEEK_SET) < 0)
        return composition_failed(composed, plan.message, -32,
                                  static_cast<unsigned>(GetErrorCode()));

    if (plan.split == 1) return count_pieces(plan, composed);
    return 0;
}

}  // namespace kemail
