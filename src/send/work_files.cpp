// Work-file names and lifetime, and the staging of the caller's text in the
// "EMT" work file with CR LF line ends.
#include "send/send_internal.h"

#include "log/trace_record.h"
#include "util/block_writer.h"

#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace kemail {

int make_work_file_name(char (&out)[kWorkPathSize], const char* dir, const char* prefix) {
    trace(g_trace, 1, "MKTMP0000");
    // The thread id is printed as a signed number, as in the trace file names,
    // so that the threads of one process never share a work file.
    if (!format_path(out, "%s/%s%d-%d", dir, prefix, static_cast<int>(getpid()),
                     static_cast<int>(pthread_self()))) {
        trace_text(g_trace, 0, "MKTMP0020", dir);
        return -1;
    }
    FileDelete(out);
    trace(g_trace, 1, "MKTMPFFFF");
    return 0;
}

bool empty_work_file(int fd) {
    // Only a file that has bytes is truncated: on ext4 a truncation to zero
    // marks the file for a forced write-back at its close (the guard for
    // files replaced by truncating them), and a work file that is written,
    // closed and deleted within the send would then pay for block allocation,
    // the write and the discard of its blocks at the unlink.
    struct stat status;
    if (::fstat(fd, &status) != 0) return false;
    if (status.st_size == 0) return true;
    return retry_on_eintr([&] { return ::ftruncate(fd, 0); }) == 0;
}

void WorkFile::close() {
    if (fd_ >= 0) FileClose(fd_);
    fd_ = -1;
}

void WorkFile::remove() {
    close();
    if (path_[0] != '\0') FileDelete(path_);
    path_[0] = '\0';
}

namespace {

// The pair of level-0 records that tells which write of the staging failed.
struct StagingFailure {
    const char* code;
    const char* error_code;
};
constexpr StagingFailure kLineFailed{"MEMDATA0070", "MEMDATA0080"};
constexpr StagingFailure kLineEndFailed{"MEMDATA0090", "MEMDATA0100"};
constexpr StagingFailure kRestFailed{"MEMDATA0140", "MEMDATA0150"};
constexpr StagingFailure kLastLineEndFailed{"MEMDATA0210", "MEMDATA0220"};

// The staged text goes to the file in blocks; a failed write is reported
// with the pair of the line (or line end) whose bytes did not all arrive.
using StagingWriter = BlockWriter<const StagingFailure*>;

// Traces a failed write with its pair of codes; the caller cleans up.
int staging_write_failed(WorkFile& file, const StagingWriter& writer, unsigned file_err) {
    const StagingFailure* failure = writer.failed_tag();
    trace(g_trace, 0, failure->code);
    trace_word(g_trace, 0, failure->error_code, file_err);
    file.remove();
    return -3;
}

}  // namespace

int stage_text(WorkFile& file, const char* temp_dir, const char* text, unsigned* file_err) {
    *file_err = 0;
    trace(g_trace, 1, "MEMDATA0000");
    if (make_work_file_name(file.path(), temp_dir, "EMT") != 0) {
        trace(g_trace, 0, "MEMDATA0010");
        return -3;
    }
    const int fd = FileOpen(file.c_path());
    if (fd < 0) {
        *file_err = static_cast<unsigned>(GetErrorCode());
        trace_word(g_trace, 0, "MEMDATA0020", static_cast<uint32_t>(fd));
        trace_word(g_trace, 0, "MEMDATA0021", *file_err);
        file.path()[0] = '\0';  // not ours: it could not be made
        return -3;
    }
    file.set_fd(fd);
    if (!empty_work_file(fd)) {
        *file_err = static_cast<unsigned>(GetErrorCode());
        trace_word(g_trace, 0, "MEMDATA0020", static_cast<uint32_t>(fd));
        trace_word(g_trace, 0, "MEMDATA0021", *file_err);
        file.remove();
        return -3;
    }

    StagingWriter writer(fd, file_err);
    if (text != nullptr) {
        const char* line = text;
        while (const char* lf = std::strchr(line, '\n')) {
            size_t length = static_cast<size_t>(lf - line);
            if (length > 0 && line[length - 1] == '\r') {
                --length;
                trace(g_trace, 2, "MEMDATA0050");
            }
            if (length > 0) {
                trace_data(g_trace, 2, "MEMDATA0060", line, length);
                if (!writer.put(line, length, &kLineFailed))
                    return staging_write_failed(file, writer, *file_err);
            }
            if (!writer.put("\r\n", 2, &kLineEndFailed))
                return staging_write_failed(file, writer, *file_err);
            line = lf + 1;
        }
        const size_t rest = std::strlen(line);
        if (rest > 0 && !writer.put(line, rest, &kRestFailed))
            return staging_write_failed(file, writer, *file_err);
    }
    // Kept: one more CR LF in every case, so a text ending in LF gets an
    // extra empty line and an absent text is a single CR LF
    // (test TextStaging.LineEndsBecomeCrLfAndAnExtraLineEndFollows).
    trace(g_trace, 2, "MEMDATA0200");
    if (!writer.put("\r\n", 2, &kLastLineEndFailed) || !writer.flush())
        return staging_write_failed(file, writer, *file_err);
    file.close();
    trace(g_trace, 1, "MEMDATAFFFF");
    return 0;
}

}  // namespace kemail
