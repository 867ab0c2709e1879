// Attachment body parts (base64, 68 characters a line) and the boundary.
#include "compose/compose.h"

#include "log/trace_record.h"
#include "util/format.h"
#include "smtp/smtp_buffers.h"
#include "util/unique_fd.h"
#include "util/util.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

// How an attachment part names its file: 1 the bare quoted name, any other
// value "attachment;" and a filename parameter. The send reads it from the
// mail configuration before composing.
int Content_D_flg = 0;

namespace kemail {
namespace {

constexpr size_t kLineBytes = kBase64LineBytes;
constexpr size_t kLineWithEnd = kBase64LineChars + 2;

// A regular file is read in blocks of this many lines and each block's lines
// go out in one write (together with the part header before them): the same
// bytes as one read and one write per line, at a small fraction of the system
// calls. 2048 lines: 102 KiB in, 140 KiB out.
constexpr size_t kLinesPerBlock = 2048;

}  // namespace

const char* attachment_name(const char* path, char* name, size_t size) {
    // The last "/" or ":" after the first character separates the name; a
    // backslash does not. Kept: an absolute path of one component keeps its
    // leading slash (test Attachment.SingleComponentKeepsItsSlash).
    const size_t length = std::strlen(path);
    size_t start = 0;
    for (size_t i = length; i > 1; --i) {
        if (path[i - 1] == '/' || path[i - 1] == ':') {
            start = i;
            break;
        }
    }
    copy_cut(name, size, path + start);
    return name;
}

namespace {

enum class Copy { Done, ReadFailed, WriteFailed };

// Waits until the file has bytes to read or its writer has gone, at most the
// time-out of one chunk of message data (180 s when none is set): a FIFO
// whose writer never comes, or stops writing, must not keep the send waiting
// for ever. False with errno (ETIMEDOUT when the time ran out).
bool wait_readable(int file) {
    constexpr uint32_t kDefaultSeconds = 180;
    const uint32_t seconds = g_stMailTimeout.ulDataBlock != 0 && g_stMailTimeout.ulDataBlock <= 3600
                                 ? g_stMailTimeout.ulDataBlock
                                 : kDefaultSeconds;
    pollfd watched{file, POLLIN, 0};
    for (;;) {
        const int ready = ::poll(&watched, 1, static_cast<int>(seconds) * 1000);
        if (ready > 0) return true;
        if (ready == 0) {
            errno = ETIMEDOUT;
            return false;
        }
        if (errno != EINTR) return false;
    }
}

// One read of up to 51 bytes and one line per read, for files whose reads
// may come back short (FIFOs) and when no block memory is to be had. The file
// is open without blocking: every read waits in wait_readable instead.
Copy copy_by_lines(int file, MessageWriter& out, unsigned int* pulErr) {
    for (;;) {
        if (!wait_readable(file)) {
            *pulErr = static_cast<unsigned int>(errno);
            return Copy::ReadFailed;
        }
        errno = 0;
        const ssize_t n = retry_on_eintr([&] { return ::read(file, s_szRecvBuf, kLineBytes); });
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) continue;
        if (n < 0) {
            *pulErr = static_cast<unsigned int>(errno);
            return Copy::ReadFailed;
        }
        if (n == 0) return Copy::Done;
        size_t length = static_cast<size_t>(SMTP_toBase64(
            reinterpret_cast<unsigned char*>(s_szRecvBuf), s_szSendBuf, static_cast<int>(n)));
        s_szSendBuf[length++] = '\r';
        s_szSendBuf[length++] = '\n';
        if (!out.put(s_szSendBuf, length, "smtp0740")) return Copy::WriteFailed;
    }
}

Copy copy_by_blocks(int file, MessageWriter& message, unsigned char* in, char* out,
                    unsigned int* pulErr) {
    constexpr size_t kBlockBytes = kLineBytes * kLinesPerBlock;
    for (;;) {
        errno = 0;
        const ssize_t n = retry_on_eintr([&] { return ::read(file, in, kBlockBytes); });
        if (n < 0) {
            *pulErr = static_cast<unsigned int>(errno);
            return Copy::ReadFailed;
        }
        if (n == 0) return Copy::Done;
        const size_t length = base64_lines(in, static_cast<size_t>(n), out);
        if (!message.put(out, length, "smtp0740")) return Copy::WriteFailed;
    }
}

Copy copy_base64(int file, MessageWriter& out, unsigned int* pulErr) {
    struct stat st = {};
    if (fstat(file, &st) == 0 && S_ISREG(st.st_mode)) {
        // A regular file returns short reads only at its end, so block reads
        // cut the lines exactly where 51-byte reads would.
        UniqueMalloc<unsigned char> in(
            static_cast<unsigned char*>(std::malloc(kLineBytes * kLinesPerBlock)));
        UniqueMalloc<char> encoded(static_cast<char*>(std::malloc(kLineWithEnd * kLinesPerBlock)));
        if (in && encoded) return copy_by_blocks(file, out, in.get(), encoded.get(), pulErr);
    }
    return copy_by_lines(file, out, pulErr);
}

}  // namespace
}  // namespace kemail

using namespace kemail;

extern "C" {

KEMAIL_API void SMTP_makeBoundary(char* pszDst) noexcept {
    if (pszDst == nullptr) return;
    format_into(pszDst, KEMAIL_BOUNDARY_SIZE, Overflow::Cut, "---------------ZvLunt%.10d",
                static_cast<int>(time(nullptr)));
}

KEMAIL_API int SMTP_makeAppendData(int lFile, const char* pszPath, const char* pszBoundary,
                                   int lMore, unsigned int* pulErr) noexcept {
    return kemail::make_append_data(lFile, pszPath, nullptr, pszBoundary, lMore, pulErr);
}

}  // extern "C"

namespace kemail {

int make_append_data(int lFile, const char* pszPath, const char* pszName, const char* pszBoundary,
                     int lMore, unsigned int* pulErr) {
    unsigned int local_err = 0;
    if (pulErr == nullptr) pulErr = &local_err;
    *pulErr = 0;
    trace(g_trace, 1, "smtp0700");
    const char* path = pszPath ? pszPath : "";
    const char* boundary = pszBoundary ? pszBoundary : "";
    char derived[kAttachmentNameSize];
    const char* name = pszName ? pszName : attachment_name(path, derived, sizeof derived);

    MessageWriter out(lFile, pulErr);
    size_t n = static_cast<size_t>(
        format_into(s_szSendBuf, sizeof s_szSendBuf, Overflow::Cut, "\r\n--%s\r\n", boundary));
    if (!out.put(s_szSendBuf, n, "smtp0705")) return -33;
    n = format_into(s_szSendBuf, sizeof s_szSendBuf, Overflow::Cut,
                    "Content-Type: application/octet-stream; name=\"%s\"\r\n", name);
    if (!out.put(s_szSendBuf, n, "smtp0710")) return -33;
    static const char kEncoding[] = "Content-Transfer-Encoding: base64\r\n";
    if (!out.put(kEncoding, sizeof kEncoding - 1, "smtp0715")) return -33;
    if (Content_D_flg == 1) {
        trace(g_trace, 0, "smtp0718");
        n = format_into(s_szSendBuf, sizeof s_szSendBuf, Overflow::Cut,
                        "Content-Disposition: \"%s\"\r\n", name);
    } else {
        trace(g_trace, 0, "smtp0717");
        n = format_into(s_szSendBuf, sizeof s_szSendBuf, Overflow::Cut,
                        "Content-Disposition: attachment;\r\n\tfilename=\"%s\"\r\n", name);
    }
    if (!out.put(s_szSendBuf, n, "smtp0720")) return -33;
    if (!out.put("\r\n", 2, "smtp0725")) return -33;

    // O_NONBLOCK: opening a FIFO must not wait for a writer; its reads wait
    // with a bound instead (test BadInput.FifoWithoutWriterEndsAfterTheDataBlockTimeOut).
    // Devices and sockets are refused: /dev/zero would fill the work file
    // without end (test BadInput.EndlessDeviceAsAttachmentIsRefusedInsteadOfRead).
    // A directory fails at its first read (EISDIR), as it always has.
    UniqueFd file(
        retry_on_eintr([&] { return ::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY); }));
    struct stat status = {};
    if (file.valid()) {
        int refused = 0;
        if (fstat(file.get(), &status) != 0) {
            refused = errno;
        } else if (S_ISCHR(status.st_mode) || S_ISBLK(status.st_mode) || S_ISSOCK(status.st_mode)) {
            refused = EINVAL;
        }
        if (refused != 0) {
            file.reset();
            errno = refused;
        }
    }
    if (!file.valid()) {
        // What was put before the open reaches the file first: a write that
        // fails there is the failure reported.
        const int error = errno;
        if (!out.flush()) return -33;
        *pulErr = static_cast<unsigned int>(error);
        trace_word(g_trace, 0, "smtp0730", *pulErr);
        return -31;
    }
    switch (copy_base64(file.get(), out, pulErr)) {
        case Copy::ReadFailed: {
            const unsigned int error = *pulErr;
            if (!out.flush()) return -33;
            *pulErr = error;
            trace_word(g_trace, 0, "smtp0735", *pulErr);
            return -32;
        }
        case Copy::WriteFailed: return -33;  // traced by the writer
        case Copy::Done: break;
    }
    trace(g_trace, 0, "smtp0736");
    file.reset();
    if (lMore == 0) {
        n = format_into(s_szSendBuf, sizeof s_szSendBuf, Overflow::Cut, "--%s--\r\n", boundary);
        if (!out.put(s_szSendBuf, n, "smtp0745")) return -33;
    }
    if (!out.flush()) return -33;
    trace(g_trace, 1, "smtp07FF");
    return 0;
}

}  // namespace kemail
