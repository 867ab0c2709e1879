// The Date text and the Message-Id line.
#include "compose_support.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/utsname.h>
#include <sys/wait.h>

namespace {

using compose_test::has_trace;
using compose_test::trace_of;

class ZoneGuard {
public:
    explicit ZoneGuard(const char* tz) {
        const char* old = getenv("TZ");
        had_ = old != nullptr;
        if (had_) old_ = old;
        setenv("TZ", tz, 1);
        tzset();
    }
    ~ZoneGuard() {
        if (had_) {
            setenv("TZ", old_.c_str(), 1);
        } else {
            unsetenv("TZ");
        }
        tzset();
    }

private:
    bool had_ = false;
    std::string old_;
};

std::string date_in(const char* tz) {
    ZoneGuard zone(tz);
    char out[KEMAIL_DATE_SIZE];
    std::memset(out, 'x', sizeof out);
    const int n = SMTP_makeDate(out);
    EXPECT_EQ(n, static_cast<int>(std::strlen(out)));
    return out;
}

TEST(Date, HasTheRfc822DayAndMonthNameForm) {
    const std::string date = date_in("UTC");
    EXPECT_TRUE(compose_test::matches(date,
                                      "(Sun|Mon|Tue|Wed|Thu|Fri|Sat), [0-9]{2} "
                                      "(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [0-9]{4} "
                                      "[0-9]{2}:[0-9]{2}:[0-9]{2} [-+][0-9]{4}"))
        << date;
    char expected[64];
    time_t now = time(nullptr);
    struct tm utc;
    gmtime_r(&now, &utc);
    strftime(expected, sizeof expected, "%a, %d %b %Y", &utc);
    EXPECT_EQ(date.substr(0, 16), expected);
}

// Kept: a host on UTC writes a minus sign.
TEST(Date, UtcEndsInMinusZero) {
    const std::string date = date_in("UTC");
    EXPECT_EQ(date.substr(date.size() - 6), " -0000");
}

TEST(Date, EastAndWestZones) {
    std::string date = date_in("JST-9");
    EXPECT_EQ(date.substr(date.size() - 6), " +0900");
    date = date_in("EST5");
    EXPECT_EQ(date.substr(date.size() - 6), " -0500");
}

TEST(Date, HalfHourZoneLosesItsMinutes) {
    std::string date = date_in("IST-5:30");
    EXPECT_EQ(date.substr(date.size() - 6), " +0500");
    date = date_in("NST3:30");
    EXPECT_EQ(date.substr(date.size() - 6), " -0300");
}

TEST(Date, ShowsTheLocalTimeOfTheZone) {
    const std::string date = date_in("JST-9");
    ZoneGuard zone("JST-9");
    time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    char expected[64];
    strftime(expected, sizeof expected, "%a, %d %b %Y %H", &local);
    EXPECT_EQ(date.substr(0, 19), expected);
}

const char kMessageIdLine[] = "Message-Id: <([0-9]{14})\\.([0-9a-f]+)@([^>]*)>\r\n";

TEST(MessageId, LineHasStampHexNumbersAndHost) {
    compose_test::clear_traces();
    char line[KEMAIL_MSGID_SIZE];
    SMTP_MakeMsgId(line);
    std::vector<std::string> m;
    ASSERT_TRUE(compose_test::matches(line, kMessageIdLine, &m)) << line;
    const uint32_t host_id = static_cast<uint32_t>(gethostid());
    EXPECT_EQ(compose_test::word_of(trace_of("mkmsgid0100")), host_id);
    char hex[16];
    snprintf(hex, sizeof hex, "%x", host_id);
    EXPECT_EQ(m[2].substr(m[2].size() - std::strlen(hex)), hex);
    EXPECT_FALSE(m[3].empty());
    EXPECT_EQ(trace_of("mkmsgid0000").level, 1u);
    EXPECT_EQ(trace_of("mkmsgid0050").level, 2u);
    EXPECT_EQ(trace_of("mkmsgidFFFF").data, std::string(line));
    EXPECT_EQ(trace_of("mkmsgidFFFF").level, 1u);
}

TEST(MessageId, TwoInTheSameSecondDiffer) {
    char a[KEMAIL_MSGID_SIZE];
    char b[KEMAIL_MSGID_SIZE];
    SMTP_MakeMsgId(a);
    usleep(1000);
    SMTP_MakeMsgId(b);
    EXPECT_STRNE(a, b);
}

TEST(MessageId, HostNameIsLookedUpOnlyOnce) {
    char line[KEMAIL_MSGID_SIZE];
    SMTP_MakeMsgId(line);
    compose_test::clear_traces();
    SMTP_MakeMsgId(line);
    EXPECT_FALSE(has_trace("mkmsgid0005"));
    EXPECT_FALSE(has_trace("mkmsgid0010"));
}

// The host part is looked up in a fresh process of this program, with its own
// node name and its own /etc/resolv.conf (private namespaces), so the
// once-per-process cache is empty and the default resolver path is used.
std::string g_fresh_marker = "KEMAIL_COMPOSE_FRESH_HOST";

struct FreshRun {
    int status = -1;
    std::string output;
};

FreshRun run_fresh(const std::string& node, const std::string& resolver,
                   const std::string& expect) {
    kemail_test::TempDir dir;
    const std::string conf = dir.file("resolv.conf");
    kemail_test::write_file(conf, resolver);
    const std::string out_path = dir.file("out");
    const pid_t pid = fork();
    if (pid == 0) {
        if (unshare(CLONE_NEWUTS | CLONE_NEWNS) != 0) _exit(90);
        if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) _exit(91);
        if (sethostname(node.data(), node.size()) != 0) _exit(92);
        if (mount(conf.c_str(), "/etc/resolv.conf", nullptr, MS_BIND, nullptr) != 0) _exit(93);
        setenv(g_fresh_marker.c_str(), expect.c_str(), 1);
        const std::string out = "--gtest_output=xml:" + out_path;
        execl("/proc/self/exe", "compose_tests", "--gtest_filter=FreshHost.*",
              "--gtest_also_run_disabled_tests", out.c_str(), static_cast<char*>(nullptr));
        _exit(94);
    }
    FreshRun run;
    int status = 0;
    waitpid(pid, &status, 0);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128;
    run.output = kemail_test::read_file(out_path);
    return run;
}

void expect_fresh_run_passed(const FreshRun& run) {
    EXPECT_EQ(run.status, 0) << run.output;
    // The one test ran to completion without failure or skip.
    EXPECT_NE(run.output.find("<testsuites tests=\"1\" failures=\"0\""), std::string::npos)
        << run.output;
    EXPECT_NE(run.output.find("name=\"DISABLED_LooksUpTheNameAndTraces\""), std::string::npos)
        << run.output;
    EXPECT_NE(run.output.find("status=\"run\" result=\"completed\""), std::string::npos)
        << run.output;
    EXPECT_EQ(run.output.find("<skipped"), std::string::npos) << run.output;
    EXPECT_EQ(run.output.find("<failure"), std::string::npos) << run.output;
}

// Runs only inside the fresh process (disabled in a normal run).
TEST(FreshHost, DISABLED_LooksUpTheNameAndTraces) {
    const char* expect = getenv(g_fresh_marker.c_str());
    if (expect == nullptr) GTEST_SKIP() << "runs in a fresh process only";
    compose_test::clear_traces();
    char line[KEMAIL_MSGID_SIZE];
    SMTP_MakeMsgId(line);
    std::vector<std::string> m;
    ASSERT_TRUE(compose_test::matches(line, kMessageIdLine, &m)) << line;
    const std::string want = expect;
    const bool appended = want.find('.') != std::string::npos;
    struct utsname names;
    uname(&names);
    const bool has_dot = std::strchr(names.nodename, '.') != nullptr;
    EXPECT_EQ(m[3], want);
    std::vector<std::string> expected_codes = {"mkmsgid0000", "mkmsgid0005"};
    if (!has_dot) {
        expected_codes.push_back("mkmsgid0010");
        expected_codes.push_back("mkmsgid0020");
        if (appended) expected_codes.push_back("mkmsgid0030");
        expected_codes.push_back("mkmsgid0040");
    }
    for (const char* code : {"mkmsgid0050", "mkmsgid0100", "mkmsgidFFFF"})
        expected_codes.push_back(code);
    EXPECT_EQ(compose_test::trace_codes(), expected_codes);
    if (appended && !has_dot) {
        EXPECT_EQ(trace_of("mkmsgid0030").level, 0u);
        EXPECT_EQ(trace_of("mkmsgid0030").data, want);
    }
}

TEST(MessageId, NodeWithoutDotTakesTheResolverDomain) {
    const FreshRun run = run_fresh("nodot",
                                   "search a.example\ndomainname wrong.example\n"
                                   "domain \t example.test  \ndomain second.example\n",
                                   "nodot.example.test");
    expect_fresh_run_passed(run);
}

TEST(MessageId, NodeWithDotIgnoresTheResolver) {
    const FreshRun run = run_fresh("mail.example.org", "domain example.test\n", "mail.example.org");
    expect_fresh_run_passed(run);
}

TEST(MessageId, NoDomainLineKeepsTheBareNodeName) {
    const FreshRun run = run_fresh("bare", "nameserver 127.0.0.1\ndomainname x.example\n", "bare");
    expect_fresh_run_passed(run);
}

}  // namespace
