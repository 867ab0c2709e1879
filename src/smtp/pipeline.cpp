// Command pipelining (RFC 2920), when the PIPELINING setting asks for it and
// the server announced it: the transaction's opening commands (after the end
// of the piece before, when a split send has one) leave in one write, and
// their replies are then taken one by one exactly as the
// one-command-at-a-time exchange takes them, with the same mail-log lines and
// trace records in the same order. Only the moment the lines leave differs.
#include "kemail.h"
#include "log/trace_record.h"
#include "options/options.h"
#include "smtp/smtp.h"
#include "smtp/smtp_buffers.h"
#include "smtp/transaction_codes.h"
#include "util/util.h"

#include <cstring>

using kemail::trace;
using kemail::trace_data;
using kemail::trace_text;

namespace kemail::smtp {
namespace {

// Room for the whole group: the end-of-data mark, RSET, MAIL FROM with a
// sender of the longest command line, and the RCPT lines of a recipient list
// as long as the send entry takes (256 bytes, so at most 257 pieces), and
// DATA. A group that does not fit is sent one command at a time instead.
constexpr size_t kGroupSize = 2 * KEMAIL_SEND_BUF_SIZE + 8192;
constexpr size_t kMaxGroupLines = 3 + 257 + 1;
// Room for one address of the recipient list, its NUL included (as
// SMTP_MAIL has it).
constexpr size_t kRecipientSize = 304;

struct Group {
    char bytes[kGroupSize];
    size_t length = 0;
    size_t ends[kMaxGroupLines] = {};  // where each line ends in bytes
    size_t lines = 0;
};

// Static: one session runs at a time per process.
Group s_group;

// Appends the line formatted in s_szSendBuf; false when it does not fit.
bool add_line(Group& group, int length) {
    if (length < 0 || group.lines == kMaxGroupLines ||
        static_cast<size_t>(length) > kGroupSize - group.length)
        return false;
    std::memcpy(group.bytes + group.length, s_szSendBuf, static_cast<size_t>(length));
    group.length += static_cast<size_t>(length);
    group.ends[group.lines++] = group.length;
    return true;
}

// The lines of the group, or false when one cannot be formed or the whole
// does not fit.
bool build_group(Group& group, GroupLead lead, const char* from, const char* recipients) {
    group.length = 0;
    group.lines = 0;
    if (lead == GroupLead::EndOfDataAndRset && (!add_line(group, format_command("\r\n.\r\n")) ||
                                                !add_line(group, format_command("RSET\r\n"))))
        return false;
    if (!add_line(group, format_command("MAIL FROM:<%s>\r\n", from))) return false;
    for (const char* piece = recipients;;) {
        const char* comma = std::strchr(piece, ',');
        const size_t piece_length = comma ? static_cast<size_t>(comma - piece) : std::strlen(piece);
        if (piece_length >= kRecipientSize) return false;
        char address[kRecipientSize];
        kemail::copy_cut(address, piece_length + 1, piece);
        if (!add_line(group, format_command("RCPT TO:<%s>\r\n", address))) return false;
        if (!comma) break;
        piece = comma + 1;
    }
    return add_line(group, format_command("DATA\r\n"));
}

// Takes the reply to the group's line `index` as the exchange would after
// sending it: the line back in s_szSendBuf, its send traced, then either the
// failure of the write (when the write stopped before the line's end) or
// the logged, read and judged reply.
int take_reply(int sock, size_t index, size_t written, const SendFailure& failure,
               const ExchangeCodes& codes, unsigned int* pulErr) {
    const size_t begin = index == 0 ? 0 : s_group.ends[index - 1];
    const size_t length = s_group.ends[index] - begin;
    std::memcpy(s_szSendBuf, s_group.bytes + begin, length);
    s_szSendBuf[length] = '\0';
    trace_data(g_trace, 0, "smtp0e00", s_szSendBuf, length);
    if (written < s_group.ends[index]) {
        const int result = report_send_failure(failure, pulErr);
        trace_word(g_trace, 0, codes.not_sent, *pulErr);
        return result;
    }
    return exchange_after_send(sock, codes, pulErr);
}

void start_phase(unsigned int seconds) {
    SMTP_SetTimeOut(seconds);
    SMTP_SetStartTime();
}

}  // namespace

bool pipelining_wanted() noexcept {
    return (ehlo_extensions() & kExtPipelining) != 0 && kemail::options::current().pipelining;
}

int mail_group(int sock, GroupLead lead, const char* from, const char* to, unsigned int* pulErr,
               GroupStage* stage) {
    unsigned int scratch = 0;
    if (!pulErr) pulErr = &scratch;
    GroupStage stage_scratch = GroupStage::Mail;
    if (!stage) stage = &stage_scratch;
    *stage = GroupStage::Mail;
    const char* recipients = to ? to : "";
    if (!build_group(s_group, lead, from ? from : "", recipients)) return kNotGrouped;

    // The write runs on the clock of the group's first command.
    if (lead == GroupLead::EndOfDataAndRset) {
        trace(g_trace, 1, "smtp0400");
        start_phase(g_stMailTimeout.ulDataEnd);
    } else {
        trace_text(g_trace, 1, "SMTP0200-2", recipients);
        start_phase(g_stMailTimeout.ulMailFrom);
    }
    SendFailure failure;
    const size_t written = write_quietly(sock, s_group.bytes, s_group.length, &failure);

    size_t line = 0;
    if (lead == GroupLead::EndOfDataAndRset) {
        *stage = GroupStage::EndOfData;
        const int ended = take_reply(sock, line++, written, failure, kEndOfData, pulErr);
        if (ended != 0) return ended;
        *stage = GroupStage::Mail;
        // The RSET keeps the end mark's time-out; its clock restarts. Not
        // judged: a refused RSET does not undo the piece before it.
        trace(g_trace, 1, "RSET0000");
        *pulErr = 0;
        SMTP_SetStartTime();
        (void)take_reply(sock, line++, written, failure, kRset, pulErr);
        trace_text(g_trace, 1, "SMTP0200-2", recipients);
        start_phase(g_stMailTimeout.ulMailFrom);
    }
    int result = take_reply(sock, line++, written, failure, kMailFrom, pulErr);
    if (result != 0) return result;
    const size_t data_line = s_group.lines - 1;
    while (line < data_line) {
        start_phase(g_stMailTimeout.ulRcptTo);
        result = take_reply(sock, line++, written, failure, kRcptTo, pulErr);
        if (result != 0) return result;
    }
    trace(g_trace, 0, "smtp0191");
    trace(g_trace, 1, "SMTP02FF-2");

    *stage = GroupStage::Data;
    trace(g_trace, 1, "smtp0200");
    start_phase(g_stMailTimeout.ulData);
    return take_reply(sock, data_line, written, failure, kData, pulErr);
}

}  // namespace kemail::smtp
