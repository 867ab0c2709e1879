// Opening and closing the mail log: one text file per process, framed per
// session by a banner and an END line, rotated by size into numbered
// generations when it is opened, never during a session.
#include "log/log.h"
#include "util/format.h"
#include "util/util.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <unistd.h>

namespace kemail {

namespace {

constexpr uint32_t kDefaultLogSizeKb = 20;
constexpr uint32_t kDefaultLogCount = 20;
// A file this close to its limit is rotated instead of appended to.
constexpr long kRotateMargin = 500;
// Longer current paths leave no room for a generation number.
constexpr size_t kRotatePathLimit = 1022;

// What FileOpen2 does (read-write, create 0644, truncate or append, EINTR
// retried at most 10 times), with O_NOFOLLOW: log names are predictable, so a
// symbolic link planted at one must not make the log write into the file it
// points to (test PlantedLinks.TraceMailLogAndWorkFileNamesNeverWriteThroughALink).
int open_log_file(const char* path, int truncate) {
    constexpr int kAttempts = 10;
    const int flags =
        O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | (truncate != 0 ? O_TRUNC : O_APPEND);
    int fd = -1;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        fd = ::open(path, flags, 0644);
        if (fd >= 0 || errno != EINTR) break;
    }
    return fd;
}

void read_log_config(MailLogHandle* handle, ProfileHandle* profile) {
    handle->log_size = kDefaultLogSizeKb;
    handle->log_num = kDefaultLogCount;
    if (!profile) return;
    const uint32_t size = static_cast<uint32_t>(Com_GetPrivateProfileInt(
        profile, "LOG", "LOGSIZE", static_cast<int>(kDefaultLogSizeKb), KEMAIL_TRACE_CONF));
    const uint32_t count = static_cast<uint32_t>(Com_GetPrivateProfileInt(
        profile, "LOG", "LOGNUM", static_cast<int>(kDefaultLogCount), KEMAIL_TRACE_CONF));
    if (size >= 10 && size <= 100) handle->log_size = size;
    if (count == 0 || (count >= 5 && count <= 100)) handle->log_num = count;
}

// Shifts path1 .. path(count-2) up by one and makes the current file path1;
// the oldest generation, count - 1, is overwritten by its predecessor.
void rotate_generations(const char* path, uint32_t count) {
    if (std::strlen(path) >= kRotatePathLimit) {
        FileDelete(path);
        return;
    }
    char older[KEMAIL_PATH_MAX + 16];
    char newer[KEMAIL_PATH_MAX + 16];
    for (long n = static_cast<long>(count) - 2; n >= 1; --n) {
        // The path is short enough for every generation's name (checked above).
        if (format_into(older, sizeof older, Overflow::Refuse, "%s%ld", path, n) < 0) continue;
        if (FileSize_Name(older) < 0) continue;
        if (format_into(newer, sizeof newer, Overflow::Refuse, "%s%ld", path, n + 1) < 0) continue;
        RenameFile(older, newer);
    }
    if (format_into(newer, sizeof newer, Overflow::Refuse, "%s1", path) < 0) return;
    RenameFile(path, newer);
}

// "YYYY/MM/DD HH:MM:SS" of the local time now.
void format_date_time(char* out, size_t size) {
    const time_t now = time(nullptr);
    struct tm local = {};
    localtime_r(&now, &local);
    format_into(out, size, Overflow::Cut, "%04d/%02d/%02d %02d:%02d:%02d", local.tm_year + 1900,
                local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
}

void write_text(int fd, const char* text) { write_all(fd, text, std::strlen(text), nullptr); }

}  // namespace

MailLogHandle* mail_log_open_from(ProfileHandle* profile) {
    MailLogHandle* handle = static_cast<MailLogHandle*>(std::calloc(1, sizeof(MailLogHandle)));
    if (!handle) return nullptr;
    read_log_config(handle, profile);
    if (handle->log_num == 0) {
        std::free(handle);
        return nullptr;
    }
    // Always fits: the directory is fixed and a pid has at most 10 digits.
    kemail::format_into(handle->path, sizeof handle->path, kemail::Overflow::Cut, "%s/kesmtp%d.log",
                        KEMAIL_LOG_DIR, static_cast<int>(getpid()));

    uint32_t keep = handle->log_num;
    int truncate = 1;
    const long current_size = FileSize_Name(handle->path);
    if (current_size >= 0) {
        if (current_size < static_cast<long>(handle->log_size) * 1024 - kRotateMargin) {
            truncate = 0;
            keep = handle->log_num + 1;
        } else {
            rotate_generations(handle->path, handle->log_num);
        }
    }
    // Counts the logs of every process and generation alike.
    DeleteOldFiles_DIR(KEMAIL_LOG_DIR, "kesmtp", "log", keep, 1);

    handle->fd = open_log_file(handle->path, truncate);
    if (handle->fd < 0) {
        std::free(handle);
        return nullptr;
    }
    char stamp[80];
    format_date_time(stamp, sizeof stamp);
    char banner[128];
    kemail::format_into(banner, sizeof banner, kemail::Overflow::Cut, "%s [%d] NQ-Agent E-Mail\r\n",
                        stamp, static_cast<int>(getpid()));
    write_text(handle->fd, banner);
    return handle;
}

}  // namespace kemail

using namespace kemail;

extern "C" {

KEMAIL_API MailLogHandle* MailLogOpen(unsigned int /*ulUnused*/) noexcept {
    ProfileHandle* profile = Com_OpenPrivateProfile(KEMAIL_TRACE_CONF, 0);
    MailLogHandle* handle = mail_log_open_from(profile);
    if (profile) Com_ClosePrivateProfile(profile, KEMAIL_TRACE_CONF);
    return handle;
}

KEMAIL_API int MailLogClose(MailLogHandle* pHandle) noexcept {
    if (!pHandle) return 0;
    char stamp[80];
    format_date_time(stamp, sizeof stamp);
    char end_line[96];
    kemail::format_into(end_line, sizeof end_line, kemail::Overflow::Cut, "%s END\r\n\r\n", stamp);
    write_text(pHandle->fd, end_line);
    FileClose(pHandle->fd);
    std::free(pHandle);
    return 0;
}

}  // extern "C"
