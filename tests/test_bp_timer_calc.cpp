#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <sstream>

#include "bp/bp.h"
#include "tests/support/fake_clock.h"
#include "tests/support/files.h"

static const char g_szDebug[] = "/var/log/MW_MWARE00.debug";

static void SetZone(const std::string &szName) {
    static const std::map<std::string, std::string> aszRules = {{"Berlin", "CET-1CEST,M3.5.0,M10.5.0/3"},
                                                                {"Sydney", "AEST-10AEDT,M10.1.0,M4.1.0/3"}};
    const auto it = aszRules.find(szName);
    setenv("TZ", (it != aszRules.end() ? it->second : szName).c_str(), 1);
    tzset();
}

static std::string Text(const BP_TimePair &stTime) {
    char szTime[32];
    struct tm stTm = {};
    const time_t lTime = BP_Read(stTime.lSec);
    gmtime_r(&lTime, &stTm);
    strftime(szTime, sizeof(szTime), "%Y-%m-%dT%H:%M:%S", &stTm);
    return szTime;
}

struct ExpiryRow {
    std::string szZone, szNow, szType;
    uint16_t usDay, usHour, usMinute, usSecond;
    std::string szStart, szStop, aszExpiry[3];
};

static std::vector<ExpiryRow> ReadRows() {
    std::vector<ExpiryRow> astRow;
    std::ifstream stFile(KS_TEST_DATA "/expiries.txt");
    std::string szLine;
    while (std::getline(stFile, szLine)) {
        std::istringstream stLine(szLine);
        ExpiryRow stRow;
        char cColon;
        if (szLine[0] != '#' && stLine >> stRow.szZone >> stRow.szNow >> stRow.szType >> stRow.usDay >>
                                    stRow.usHour >> cColon >> stRow.usMinute >> cColon >> stRow.usSecond >>
                                    stRow.szStart >> stRow.szStop >> stRow.aszExpiry[0] >> stRow.aszExpiry[1] >>
                                    stRow.aszExpiry[2]) {
            astRow.push_back(stRow);
        }
    }
    return astRow;
}

static void Fill(BP_Timer *pstTimer, const ExpiryRow &stRow) {
    uint32_t ulType = 0;
    while (BP_TimerTypeName(ulType) != stRow.szType) {
        ulType++;
    }
    BP_Write(pstTimer->ulType, ulType);
    pstTimer->usDay = stRow.usDay;
    BP_Write(pstTimer->usHour, stRow.usHour);
    BP_Write(pstTimer->usMinute, stRow.usMinute);
    BP_Write(pstTimer->usSecond, stRow.usSecond);
    BP_Write(pstTimer->lStartTime, static_cast<int32_t>(Utc(stRow.szStart)));
    BP_Write(pstTimer->lStopTime, static_cast<int32_t>(Utc(stRow.szStop)));
}

TEST(TimerCalc, CalendarTypes) {
    const std::vector<ExpiryRow> astRow = ReadRows();
    ASSERT_GT(astRow.size(), 50U);
    for (const ExpiryRow &stRow : astRow) {
        SCOPED_TRACE(stRow.szZone + " " + stRow.szNow + " " + stRow.szType + " " + stRow.aszExpiry[0]);
        SetZone(stRow.szZone);
        int64_t lNow = Utc(stRow.szNow);
        BP_Timer stTimer;
        Fill(&stTimer, stRow);
        for (int i = 0; i < 3; i++) { // computed at the registration, then as each expiry comes
            SetClock(lNow);
            EXPECT_EQ(BP_CalcTimerParam(&stTimer, i == 0 ? 1 : 0), BP_OK);
            if (stRow.aszExpiry[i] == "-") {
                EXPECT_TRUE(BP_IsTimePairZero(stTimer.stTimeout));
                break;
            }
            EXPECT_EQ(Text(stTimer.stCurExpire), stRow.aszExpiry[i]);
            EXPECT_EQ(BP_Read(stTimer.stTimeout.lSec), Utc(stRow.aszExpiry[i]) - lNow);
            if (stRow.szType == "date") {
                EXPECT_TRUE(BP_IsTimePairZero(stTimer.stNextExpire));
            } else if (i < 2 && stRow.aszExpiry[i + 1] != "-") {
                EXPECT_EQ(Text(stTimer.stNextExpire), stRow.aszExpiry[i + 1]);
            }
            lNow = Utc(stRow.aszExpiry[i]);
        }
    }
}

// A device that boots in 1970 and then learns the time: the timer is behind by many periods and goes on all the
// same.
TEST(TimerCalc, ClockSetFarForwards_CalendarTimerStaysActive) {
    SetZone("UTC0");
    SetClock(1000);
    BP_Timer stTimer;
    Fill(&stTimer, {"", "", "day", 0, 8, 0, 0, "-", "-", {}});
    BP_CalcTimerParam(&stTimer, 1);
    for (const char *pcNow :
         {"2026-03-05T07:00:00", "1970-01-03T08:00:00"}) { // years behind; next expiry exactly now
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
    SetClock(Utc("2026-03-05T07:00:00"));
    for (const char *pcType : {"day", "week", "month", "date"}) {
        BP_Timer stTimer;
        Fill(&stTimer, {"", "", pcType, 20, 8, 0, 0, "2038-01-19T03:14:06", "-", {}});
        BP_CalcTimerParam(&stTimer, 1);
        EXPECT_TRUE(BP_IsTimePairZero(stTimer.stTimeout)) << pcType;
    }
    SetClock(INT32_MAX - 1);
    for (const char *pcType : {"once", "cycle"}) {
        BP_Timer stTimer;
        Fill(&stTimer, {"", "", pcType, 0, 0, 0, 0, "-", "-", {}});
        BP_Write(stTimer.lInterval, 1000);
        BP_CalcTimerParam(&stTimer, 1);
        EXPECT_TRUE(BP_IsTimePairZero(stTimer.stTimeout)) << pcType;
    }
    EXPECT_EQ(CountOf(ReadFile("/var/log/t00.log"), "[W("), 0U);
    BP_Timer stTimer;
    Fill(&stTimer, {"", "", "cycle", 0, 0, 0, 0, "-", "-", {}});
    BP_Write(stTimer.lInterval, 1000);
    BP_Write(stTimer.ulModuleID, 0x90000001U);
    SetClock(INT32_MAX - 2);
    for (uint32_t ulFirst = 1; ulFirst < 2; ulFirst--) {
        BP_CalcTimerParam(&stTimer, ulFirst);
        EXPECT_EQ(BP_IsTimePairZero(stTimer.stTimeout), ulFirst == 0);
    }
    EXPECT_EQ(CountOf(ReadFile("/var/log/t00.log"), "timer 0 of module id 90000001 ends: "), 1U);
}

TEST(TimerCalc, IntervalTypes) {
    using Pair = std::pair<int32_t, int32_t>;
    const struct {
        uint32_t ulType;
        int32_t lInterval;
        Pair stTimeout, stFirst, stSecond;
    } astCase[] = {
        {0, 250, {0, 250000}, {101, 150000}, {0, 0}},
        {0, 1500, {1, 500000}, {102, 400000}, {0, 0}},
        {1, 1000, {1, 0}, {101, 900000}, {102, 900000}},
        {1, 100, {0, 100000}, {101, 0}, {101, 100000}}, // exactly a million microseconds carry over
        {1, 99, {0, 99000}, {100, 999000}, {101, 98000}},
        {1, 86400000, {86400, 0}, {86500, 900000}, {172900, 900000}},
    };
    const auto pfnPair = [](const BP_TimePair &stPair) {
        return Pair(BP_Read(stPair.lSec), BP_Read(stPair.lUsec));
    };
    for (const auto &stCase : astCase) {
        SCOPED_TRACE(stCase.lInterval);
        SetClock(100, 900000);
        BP_Timer stTimer;
        BP_Write(stTimer.ulType, stCase.ulType);
        BP_Write(stTimer.lInterval, stCase.lInterval);
        BP_CalcTimerParam(&stTimer, 1);
        EXPECT_EQ(pfnPair(stTimer.stTimeout), stCase.stTimeout);
        EXPECT_EQ(pfnPair(stTimer.stCurExpire), stCase.stFirst);
        EXPECT_EQ(pfnPair(stTimer.stNextExpire), stCase.stSecond);
        SetClock(5000); // whatever the clock says when it fires
        BP_CalcTimerParam(&stTimer, 0);
        EXPECT_EQ(pfnPair(stCase.ulType == 0 ? stTimer.stTimeout : stTimer.stCurExpire), stCase.stSecond);
    }
    EXPECT_EQ(BP_CalcTimerParam(nullptr, 1), BP_ERR_PARAM);
}

TEST(TimerCalc, SaysWhatItWorkedOut) {
    ASSERT_EQ(BP_MwareInit("MW_MWARE", 101), BP_OK);
    BP_Write(BP_FindLogModule(BP_LOG_BP_MODULE_ID)->ulDebugOn, 1U);
    SetZone("UTC0");
    SetClock(Utc("2026-03-05T07:00:00"), 900000);
    for (const char *pcType : {"once", "cycle", "day", "week", "month", "date"}) {
        BP_Timer stTimer;
        Fill(
            &stTimer,
            {"", "", pcType, 1, 8, 0, 0, pcType == std::string("date") ? "2026-03-06T00:00:00" : "-", "-", {}});
        BP_Write(stTimer.ulTimerID, 7U);
        BP_Write(stTimer.lInterval, 1250);
        BP_CalcTimerParam(&stTimer, 1);
    }
    std::string szLines = ReadFile(g_szDebug);
    for (const char *pcLine : {
             "[D(0)][bp_timer-",
             "]once timer 7 timeout interal:1-250000",
             "]cycle timer 7 timeout interal:1-250000 1772694000-900000 1772694002-150000",
             "]day timer 7 cur  expire:Thu Mar  5 08:00:00 2026\n",
             "]day timer 7 next expire:Fri Mar  6 08:00:00 2026\n",
             "]week timer 7 cur  expire:Mon Mar  9 08:00:00 2026\n",
             "]week timer 7 next expire:Mon Mar 16 08:00:00 2026\n",
             "]month timer 7 cur expire:Wed Apr  1 08:00:00 2026\n",
             "]month timer 7 next expire:Fri May  1 08:00:00 2026\n",
             "]date timer 7 expire:Fri Mar  6 08:00:00 2026\n",
         }) {
        const size_t ulAt = szLines.find(pcLine);
        ASSERT_NE(ulAt, std::string::npos) << pcLine << szLines;
        szLines.erase(0, ulAt); // in this order
    }
}
