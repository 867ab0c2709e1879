// Header values that carry the clock and the host: Date and Message-Id.
#include "compose/compose.h"

#include "log/trace_record.h"
#include "util/format.h"
#include "util/unique_fd.h"
#include "util/util.h"

#include <cstdio>
#include <cstdlib>
#include <cctype>
#include <cstring>
#include <ctime>
#include <sys/time.h>
#include <sys/utsname.h>
#include <unistd.h>

namespace kemail {
namespace {

constexpr const char* kDayNames[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr const char* kMonthNames[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                       "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

constexpr char kDefaultResolverConf[] = "/etc/resolv.conf";
const char* g_resolver_conf = kDefaultResolverConf;

// The fully qualified host name after the "@" of every Message-Id: looked up
// on the first Message-Id and kept for the life of the process. 131 bytes
// hold any node name (at most 64) with a domain of up to 66 bytes; a domain
// that would not fit whole is not appended, so the cache never holds a
// truncated, wrong domain.
constexpr size_t kHostCacheSize = 132;
char g_host_cache[kHostCacheSize];

// Words of a resolver line: 255 bytes each.
constexpr size_t kResolverWordSize = 256;
constexpr size_t kResolverLineSize = 1024;

// Copies the next blank-separated word of at most size - 1 bytes from *text
// into out and moves *text past it; a longer word is split, the rest being
// the next word (as a "%255s" conversion reads it).
void next_word(const char** text, char* out, size_t size) {
    const char* p = *text;
    while (*p != '\0' && std::isspace(static_cast<unsigned char>(*p))) ++p;
    size_t length = 0;
    while (p[length] != '\0' && !std::isspace(static_cast<unsigned char>(p[length])) &&
           length + 1 < size) {
        ++length;
    }
    std::memcpy(out, p, length);
    out[length] = '\0';
    *text = p + length;
}

// Appends ".domain" from the first "domain" line of the resolver file.
void append_resolver_domain() {
    trace(g_trace, 2, "mkmsgid0010");
    const UniqueFile file(std::fopen(g_resolver_conf, "re"));
    if (!file) return;
    trace(g_trace, 2, "mkmsgid0020");
    char line[kResolverLineSize];
    while (std::fgets(line, sizeof line, file.get()) != nullptr) {
        if (std::strncmp(line, "domain", 6) != 0) continue;
        char first[kResolverWordSize] = {};
        char second[kResolverWordSize] = {};
        const char* rest = line;
        next_word(&rest, first, sizeof first);
        next_word(&rest, second, sizeof second);
        if (std::strcmp(first, "domain") != 0) continue;
        const size_t have = std::strlen(g_host_cache);
        if (have + 1 + std::strlen(second) < kHostCacheSize) {
            format_into(g_host_cache + have, kHostCacheSize - have, Overflow::Cut, ".%s", second);
            trace_text(g_trace, 0, "mkmsgid0030", g_host_cache);
        }
        break;
    }
    trace(g_trace, 2, "mkmsgid0040");
}

}  // namespace

void set_resolver_conf_path(const char* path) {
    g_resolver_conf = path ? path : kDefaultResolverConf;
}

void clear_host_name_cache() { g_host_cache[0] = '\0'; }

uint32_t host_id() {
    // Initialised once, even with several threads composing at once.
    static const uint32_t id = static_cast<uint32_t>(gethostid());
    return id;
}

}  // namespace kemail

using namespace kemail;

extern "C" {

KEMAIL_API int SMTP_makeDate(char* pszOut) noexcept {
    if (pszOut == nullptr) return 0;
    const int zone_hours = SMTP_GetTimeDifference();
    const int zone_minutes =
        0;  // Kept: a half-hour zone loses its minutes (test Date.HalfHourZoneLosesItsMinutes).
    const time_t now = time(nullptr);
    struct tm local = {};
    localtime_r(&now, &local);
    // Kept: UTC is written with a minus sign, "-0000" (test Date.UtcEndsInMinusZero).
    return static_cast<int>(format_into(
        pszOut, KEMAIL_DATE_SIZE, Overflow::Cut, "%s, %02d %s %04d %02d:%02d:%02d %s%02d%02d",
        kDayNames[local.tm_wday % 7], local.tm_mday, kMonthNames[local.tm_mon % 12],
        local.tm_year + 1900, local.tm_hour, local.tm_min, local.tm_sec, zone_hours > 0 ? "+" : "-",
        std::abs(zone_hours), std::abs(zone_minutes)));
}

KEMAIL_API void SMTP_MakeMsgId(char* pszOut) noexcept {
    trace(g_trace, 1, "mkmsgid0000");
    if (g_host_cache[0] == '\0') {
        trace(g_trace, 2, "mkmsgid0005");
        struct utsname names = {};
        if (uname(&names) == 0) copy_cut(g_host_cache, kHostCacheSize, names.nodename);
        if (std::strchr(g_host_cache, '.') == nullptr) append_resolver_domain();
    }
    trace(g_trace, 2, "mkmsgid0050");
    const uint32_t id = host_id();
    trace_word(g_trace, 2, "mkmsgid0100", id);

    const time_t now = time(nullptr);
    struct tm local = {};
    localtime_r(&now, &local);
    char stamp[32] = {};
    strftime(stamp, sizeof stamp, "%Y%m%d%H%M%S", &local);
    struct timeval tv = {};
    gettimeofday(&tv, nullptr);

    if (pszOut == nullptr) return;
    format_into(pszOut, KEMAIL_MSGID_SIZE, Overflow::Cut, "Message-Id: <%s.%x%x%x@%s>\r\n", stamp,
                static_cast<unsigned>(tv.tv_sec), static_cast<unsigned>(tv.tv_usec), id,
                g_host_cache);
    trace_text(g_trace, 1, "mkmsgidFFFF", pszOut);
}

}  // extern "C"
