#include "kemail.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

namespace {

void use_zone(const char* tz) {
    setenv("TZ", tz, 1);
    tzset();
}

TEST(TimeOut, InstallsTheSixPhaseValues) {
    const SmtpTimeOut values = {61, 62, 63, 64, 65, 66};
    SMTP_SetTimeOutInfo(&values);
    EXPECT_EQ(g_stMailTimeout.ulConnect, 61u);
    EXPECT_EQ(g_stMailTimeout.ulRcptTo, 63u);
    EXPECT_EQ(g_stMailTimeout.ulDataEnd, 66u);
}

TEST(TimeOut, ZeroTimeOutIsAlwaysOverAndSelectOnlyPolls) {
    SMTP_SetTimeOut(0);
    SMTP_SetStartTime();
    EXPECT_EQ(SMTP_CheckOverTimeOut(), -6);
    struct timeval tv = {99, 99};
    SMTP_GetSelectTimeOut(&tv);
    EXPECT_EQ(tv.tv_sec, 0);
    EXPECT_EQ(tv.tv_usec, 0);
}

TEST(TimeOut, TimeLeftIsReportedInWholeSeconds) {
    SMTP_SetTimeOut(120);
    SMTP_SetStartTime();
    EXPECT_EQ(SMTP_CheckOverTimeOut(), 0);
    struct timeval tv = {0, 7};
    SMTP_GetSelectTimeOut(&tv);
    EXPECT_GE(tv.tv_sec, 119);
    EXPECT_LE(tv.tv_sec, 120);
    EXPECT_EQ(tv.tv_usec, 0);
}

TEST(TimeOut, ElapsedEqualToTheTimeOutCountsAsOver) {
    SMTP_SetTimeOut(5);
    g_tStartTime = time(nullptr) - 5;
    EXPECT_EQ(SMTP_CheckOverTimeOut(), -6);
    g_tStartTime = time(nullptr) - 4;
    EXPECT_EQ(SMTP_CheckOverTimeOut(), 0);
}

TEST(TimeOut, PhaseAlreadyOverGivesAZeroWait) {
    SMTP_SetTimeOut(10);
    g_tStartTime = time(nullptr) - 100;
    struct timeval tv = {5, 5};
    SMTP_GetSelectTimeOut(&tv);
    EXPECT_EQ(tv.tv_sec, 0);
    EXPECT_EQ(tv.tv_usec, 0);
}

TEST(TimeOut, ClockSetBackRestartsThePhase) {
    SMTP_SetTimeOut(30);
    g_tStartTime = time(nullptr) + 1000;  // as if the clock had gone back
    EXPECT_EQ(SMTP_CheckOverTimeOut(), 0);
    EXPECT_LE(g_tStartTime, time(nullptr));
    struct timeval tv = {0, 0};
    g_tStartTime = time(nullptr) + 1000;
    SMTP_GetSelectTimeOut(&tv);
    EXPECT_GE(tv.tv_sec, 29);
}

TEST(TimeOut, ClockSetForwardMayEndThePhaseAtOnce) {
    SMTP_SetTimeOut(30);
    g_tStartTime = time(nullptr) - 31;
    EXPECT_EQ(SMTP_CheckOverTimeOut(), -6);
}

TEST(TimeDifference, WholeHoursEastOfUtcTruncatedTowardZero) {
    use_zone("UTC0");
    EXPECT_EQ(SMTP_GetTimeDifference(), 0);
    use_zone("JST-9");
    EXPECT_EQ(SMTP_GetTimeDifference(), 9);
    use_zone("EST5");
    EXPECT_EQ(SMTP_GetTimeDifference(), -5);
    use_zone("IST-5:30");
    EXPECT_EQ(SMTP_GetTimeDifference(), 5);
    use_zone("NST3:30");
    EXPECT_EQ(SMTP_GetTimeDifference(), -3);
    use_zone("UTC0");
}

}  // namespace
