// When timers expire, by their parameters, the clock and the zone.
#include "tests/support/fake_clock.h"
#include "tests/support/on_bus.h"

static void SetZone(const std::string &szName) {
    setenv("TZ",
           szName == "Berlin"   ? "CET-1CEST,M3.5.0,M10.5.0/3"
           : szName == "Sydney" ? "AEST-10AEDT,M10.1.0,M4.1.0/3"
                                : szName.c_str(),
           1);
    tzset();
}

static std::string Text(const BP_TimePair &stTime) {
    char szTime[32];
    struct tm stTm = {};
    const time_t lTime = BP_Read(stTime.lSec);
    strftime(szTime, sizeof(szTime), "%Y-%m-%dT%H:%M:%S", gmtime_r(&lTime, &stTm));
    return szTime;
}

static void Fill(BP_Timer *pstTimer, const std::string &szType, int lDay, const std::string &szTime,
                 const std::string &szStart, const std::string &szStop) {
    uint32_t ulType = 0;
    while (BP_TimerTypeName(ulType) != szType) {
        ulType++;
    }
    BP_Write(pstTimer->ulType, ulType);
    BP_Write(pstTimer->lInterval, 1250);
    pstTimer->usDay = static_cast<uint16_t>(lDay);
    BP_Write(pstTimer->usHour, static_cast<uint16_t>(std::stoi(szTime)));
    BP_Write(pstTimer->usMinute, static_cast<uint16_t>(std::stoi(szTime.substr(3))));
    BP_Write(pstTimer->usSecond, static_cast<uint16_t>(std::stoi(szTime.substr(6))));
    BP_Write(pstTimer->lStartTime, static_cast<int32_t>(Utc(szStart)));
    BP_Write(pstTimer->lStopTime, static_cast<int32_t>(Utc(szStop)));
}

TEST(TimerCalc, CalendarTypes) {
    for (const auto &aszRow : Rows("expiries.txt")) {
        SCOPED_TRACE(aszRow[0] + " " + aszRow[1] + " " + aszRow[2] + " " + aszRow[7]);
        SetZone(aszRow[0]);
        int64_t lNow = Utc(aszRow[1]);
        BP_Timer stTimer;
        Fill(&stTimer, aszRow[2], std::stoi(aszRow[3]), aszRow[4], aszRow[5], aszRow[6]);
        for (size_t i = 7; i < 10; i++) { // computed at the registration, then as each expiry comes
            SetClock(lNow);
            EXPECT_EQ(BP_CalcTimerParam(&stTimer, i == 7 ? 1 : 0), BP_OK);
            if (aszRow[i] == "-") {
                EXPECT_TRUE(BP_IsTimePairZero(stTimer.stTimeout));
                break;
            }
            EXPECT_EQ(Text(stTimer.stCurExpire), aszRow[i]);
            EXPECT_EQ(BP_Read(stTimer.stTimeout.lSec), Utc(aszRow[i]) - lNow);
            if (aszRow[2] == "date") {
                EXPECT_TRUE(BP_IsTimePairZero(stTimer.stNextExpire));
            } else if (i < 9 && aszRow[i + 1] != "-") {
                EXPECT_EQ(Text(stTimer.stNextExpire), aszRow[i + 1]);
            }
            lNow = Utc(aszRow[i]);
        }
    }
}

// A device that boots in 1970 and then learns the time: the timer is many periods late and goes on all the
// same.
TEST(TimerCalc, ClockSetFarForwards_CalendarTimerStaysActive) {
    SetZone("UTC0");
    SetClock(1000);
    BP_Timer stTimer;
    Fill(&stTimer, "day", 0, "08:00:00", "-", "-");
    BP_CalcTimerParam(&stTimer, 1);
    for (const char *pcNow : {"2026-03-05T07:00:00", "1970-01-03T08:00:00"}) { // years; next expiry exactly now
        SetClock(Utc(pcNow));
        BP_CalcTimerParam(&stTimer, 0);
        EXPECT_FALSE(BP_IsTimePairZero(stTimer.stTimeout)) << pcNow;
        EXPECT_GE(BP_Read(stTimer.stTimeout.lSec), 0) << pcNow;
    }
}

// The seconds end in January 2038: what would come later is refused, not fired at once, and a timer that gets
// there says so.
TEST(TimerCalc, BeyondTheLastSecond_IsOver) {
    SetZone("UTC0");
    BP_InitLog("t");
    ASSERT_EQ(BP_RegCmdModuleID("BP", 0, 0, BP_LOG_BP_MODULE_ID), BP_OK);
    for (const char *pcType : {"day", "week", "month", "date", "once", "cycle"}) {
        const bool bCalendar = std::string("once cycle").find(pcType) == std::string::npos;
        SetClock(bCalendar ? Utc("2026-03-05T07:00:00") : INT32_MAX - 1);
        BP_Timer stTimer;
        Fill(&stTimer, pcType, 20, "08:00:00", bCalendar ? "2038-01-19T03:14:06" : "-", "-");
        BP_CalcTimerParam(&stTimer, 1);
        EXPECT_TRUE(BP_IsTimePairZero(stTimer.stTimeout)) << pcType;
    }
    EXPECT_EQ(CountOf(ReadFile("/var/log/t00.log"), "[W("), 0U);
    BP_Timer stTimer;
    Fill(&stTimer, "cycle", 0, "00:00:00", "-", "-");
    BP_Write(stTimer.ulModuleID, 0x90000001U);
    SetClock(INT32_MAX - 2);
    for (const uint32_t ulFirst : {1U, 0U}) {
        BP_CalcTimerParam(&stTimer, ulFirst);
        EXPECT_EQ(BP_IsTimePairZero(stTimer.stTimeout), ulFirst == 0);
    }
    EXPECT_EQ(CountOf(ReadFile("/var/log/t00.log"), "timer 0 of module id 90000001 ends: "), 1U);
}

// At 100 seconds and 900 milliseconds: type and interval; in microseconds when the timer fires first, when it
// does then, and when next.
TEST(TimerCalc, IntervalTypes) {
    const auto pfnUsec = [](const BP_TimePair &stPair) {
        return std::to_string(BP_Read(stPair.lSec) * 1000000L + BP_Read(stPair.lUsec));
    };
    for (const auto &aszRow : Rows("intervals.txt")) {
        SCOPED_TRACE(aszRow[1]);
        SetClock(100, 900000);
        BP_Timer stTimer;
        Fill(&stTimer, aszRow[0], 0, "00:00:00", "-", "-");
        BP_Write(stTimer.lInterval, std::stoi(aszRow[1]));
        BP_CalcTimerParam(&stTimer, 1);
        EXPECT_EQ(pfnUsec(stTimer.stTimeout), aszRow[2]);
        EXPECT_EQ(pfnUsec(stTimer.stCurExpire), aszRow[3]);
        EXPECT_EQ(pfnUsec(stTimer.stNextExpire), aszRow[4]);
        SetClock(5000); // whatever the clock says when it fires
        BP_CalcTimerParam(&stTimer, 0);
        EXPECT_EQ(pfnUsec(aszRow[0] == "once" ? stTimer.stTimeout : stTimer.stCurExpire), aszRow[4]);
    }
    EXPECT_EQ(BP_CalcTimerParam(nullptr, 1), BP_ERR_PARAM);
}

TEST_F(OnBus, TimerCalcSaysWhatItWorkedOut) {
    SetDebug(true);
    SetZone("UTC0");
    SetClock(Utc("2026-03-05T07:00:00"), 900000);
    const size_t ulBefore = DebugLog().size();
    for (const char *pcType : {"once", "cycle", "day", "week", "month", "date"}) {
        BP_Timer stTimer;
        Fill(&stTimer, pcType, 1, "08:00:00", pcType == std::string("date") ? "2026-03-06T00:00:00" : "-", "-");
        BP_Write(stTimer.ulTimerID, 7U);
        BP_CalcTimerParam(&stTimer, 1);
    }
    EXPECT_EQ(Bare(DebugLog().substr(ulBefore)), ReadFile(KS_TEST_DATA "/timer-lines.txt"));
}
