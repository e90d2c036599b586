#include <gtest/gtest.h>
#include <random>
#include <set>
#include <unistd.h>

#include "bp/bp.h"
#include "tests/support/bus_peer.h"
#include "tests/support/fake_clock.h"
#include "tests/support/files.h"

static constexpr uint32_t MW_CTRL = 0x90000001;
static constexpr uint32_t MW_PTZ = 0x90000003;
static const char g_szLog[] = "/var/log/MW_MWARE00.log";
static const char g_szDebug[] = "/var/log/MW_MWARE00.debug";

static std::string Text(const BP_Timer &stTimer) {
    if (BP_IsTimePairZero(stTimer.stTimeout)) {
        return "none";
    }
    char szTime[32];
    struct tm stTm = {};
    const time_t lTime = BP_Read(stTimer.stCurExpire.lSec);
    gmtime_r(&lTime, &stTm);
    strftime(szTime, sizeof(szTime), "%Y-%m-%d %H:%M:%S", &stTm);
    return szTime;
}

static const char g_szNorth[] = "CET-1CEST,M3.5.0,M10.5.0/3";
static const char g_szSouth[] = "AEST-10AEDT,M10.1.0,M4.1.0/3";

// All times in UTC; the time of day is the zone's standard time. First and second expiry worked out on the
// calendar.
TEST(TimerCalc, CalendarTypes) {
    const struct {
        const char *pcZone;
        const char *pcNow;
        uint32_t ulType;
        uint16_t usDay, usHour;
        const char *pcStart, *pcStop;
        const char *pcFirst, *pcSecond;
    } astCase[] = {
        // day
        {"UTC0", "2026-03-05 09:00:00", 2, 0, 8, "", "", "2026-03-06 08:00:00", "2026-03-07 08:00:00"},
        {"UTC0", "2026-03-05 07:00:00", 2, 0, 8, "", "", "2026-03-05 08:00:00", "2026-03-06 08:00:00"},
        {"UTC0", "2026-03-05 08:00:00", 2, 0, 8, "", "", "2026-03-06 08:00:00", "2026-03-07 08:00:00"},
        {"UTC0", "2026-12-31 08:00:00", 2, 0, 8, "", "", "2027-01-01 08:00:00", "2027-01-02 08:00:00"},
        {"UTC0", "2028-02-28 09:00:00", 2, 0, 8, "", "", "2028-02-29 08:00:00", "2028-03-01 08:00:00"},
        {"UTC0", "2026-03-05 09:00:00", 2, 0, 8, "2026-03-10 00:00:00", "", "2026-03-10 08:00:00",
         "2026-03-11 08:00:00"},
        {"UTC0", "2026-03-05 07:00:00", 2, 0, 8, "", "2026-03-05 07:00:00", "none", "none"},
        {"UTC0", "2026-03-05 07:00:00", 2, 0, 8, "", "2026-03-05 08:00:00", "none", "none"},
        {"UTC0", "2026-03-05 07:00:00", 2, 0, 8, "", "2026-03-06 08:00:00", "2026-03-05 08:00:00", "none"},
        {"JST-9", "2026-03-04 23:00:00", 2, 0, 8, "", "", "2026-03-05 23:00:00", "2026-03-06 23:00:00"},
        {"EST5", "2026-03-05 02:00:00", 2, 0, 20, "", "", "2026-03-06 01:00:00", "2026-03-07 01:00:00"},
        {g_szNorth, "2026-01-10 06:30:00", 2, 0, 8, "", "", "2026-01-10 07:00:00", "2026-01-11 07:00:00"},
        {g_szNorth, "2026-07-01 06:30:00", 2, 0, 8, "", "", "2026-07-01 07:00:00", "2026-07-02 07:00:00"},
        {g_szNorth, "2026-03-28 08:00:00", 2, 0, 8, "", "", "2026-03-29 07:00:00", "2026-03-30 07:00:00"},
        {g_szSouth, "2026-01-09 20:00:00", 2, 0, 8, "", "", "2026-01-09 22:00:00", "2026-01-10 22:00:00"},
        {g_szSouth, "2026-07-09 23:00:00", 2, 0, 8, "", "", "2026-07-10 22:00:00", "2026-07-11 22:00:00"},
        // week; 1 March 2026 was a Sunday
        {"UTC0", "2026-03-04 09:00:00", 3, 1, 8, "", "", "2026-03-09 08:00:00", "2026-03-16 08:00:00"},
        {"UTC0", "2026-03-02 07:00:00", 3, 1, 8, "", "", "2026-03-02 08:00:00", "2026-03-09 08:00:00"},
        {"UTC0", "2026-03-02 08:00:00", 3, 1, 8, "", "", "2026-03-09 08:00:00", "2026-03-16 08:00:00"},
        {"UTC0", "2026-03-02 09:00:00", 3, 1, 8, "", "", "2026-03-09 08:00:00", "2026-03-16 08:00:00"},
        {"UTC0", "2026-03-04 09:00:00", 3, 0, 8, "", "", "2026-03-08 08:00:00", "2026-03-15 08:00:00"},
        {"UTC0", "2026-03-04 09:00:00", 3, 6, 8, "", "", "2026-03-07 08:00:00", "2026-03-14 08:00:00"},
        {"UTC0", "2026-12-30 09:00:00", 3, 5, 8, "", "", "2027-01-01 08:00:00", "2027-01-08 08:00:00"},
        {"UTC0", "2026-03-04 09:00:00", 3, 1, 8, "2026-03-12 00:00:00", "", "2026-03-16 08:00:00",
         "2026-03-23 08:00:00"},
        {g_szSouth, "2026-01-09 20:00:00", 3, 6, 8, "", "", "2026-01-09 22:00:00", "2026-01-16 22:00:00"},
        // month
        {"UTC0", "2026-04-10 09:00:00", 4, 31, 8, "", "", "2026-05-01 08:00:00", "2026-06-01 08:00:00"},
        {"UTC0", "2026-01-31 07:00:00", 4, 31, 8, "", "", "2026-01-31 08:00:00", "2026-03-03 08:00:00"},
        {"UTC0", "2028-01-31 07:00:00", 4, 31, 8, "", "", "2028-01-31 08:00:00", "2028-03-02 08:00:00"},
        {"UTC0", "2027-02-10 07:00:00", 4, 29, 8, "", "", "2027-03-01 08:00:00", "2027-04-01 08:00:00"},
        {"UTC0", "2026-12-20 09:00:00", 4, 15, 8, "", "", "2027-01-15 08:00:00", "2027-02-15 08:00:00"},
        {"UTC0", "2026-12-15 08:00:00", 4, 15, 8, "", "", "2027-01-15 08:00:00", "2027-02-15 08:00:00"},
        {"UTC0", "2026-03-15 07:59:59", 4, 15, 8, "", "", "2026-03-15 08:00:00", "2026-04-15 08:00:00"},
        {"UTC0", "2026-03-05 09:00:00", 4, 15, 8, "2026-05-20 00:00:00", "", "2026-06-15 08:00:00",
         "2026-07-15 08:00:00"},
        {g_szNorth, "2026-03-15 09:00:00", 4, 15, 8, "", "", "2026-04-15 07:00:00", "2026-05-15 07:00:00"},
        {g_szNorth, "2026-10-10 09:00:00", 4, 5, 8, "", "", "2026-11-05 07:00:00", "2026-12-05 07:00:00"},
        {g_szNorth, "2026-10-14 09:00:00", 4, 15, 8, "", "", "2026-10-15 07:00:00", "2026-11-15 07:00:00"},
        // date
        {"UTC0", "2026-03-05 09:00:00", 5, 0, 8, "2026-03-10 12:00:00", "", "2026-03-10 08:00:00", "none"},
        {"UTC0", "2026-03-05 09:00:00", 5, 0, 8, "2026-03-05 09:00:00", "", "none", "none"},
        {"UTC0", "2026-03-05 09:00:00", 5, 0, 8, "2026-03-05 23:00:00", "", "none", "none"},
        {"UTC0", "2026-03-05 08:00:00", 5, 0, 8, "2026-03-05 23:00:00", "", "none", "none"},
        {"UTC0", "2026-03-05 07:00:00", 5, 0, 8, "2026-03-05 23:00:00", "", "2026-03-05 08:00:00", "none"},
        {"JST-9", "2026-03-05 07:00:00", 5, 0, 8, "2026-03-10 20:00:00", "", "2026-03-10 23:00:00", "none"},
    };
    for (const auto &stCase : astCase) {
        SCOPED_TRACE(std::string(stCase.pcZone) + " " + stCase.pcNow + " type " +
                     std::to_string(stCase.ulType));
        setenv("TZ", stCase.pcZone, 1);
        tzset();
        SetClock(Utc(stCase.pcNow));
        BP_Timer stTimer;
        BP_Write(stTimer.ulType, stCase.ulType);
        stTimer.usDay = stCase.usDay;
        BP_Write(stTimer.usHour, stCase.usHour);
        BP_Write(stTimer.lStartTime, static_cast<int32_t>(Utc(stCase.pcStart)));
        BP_Write(stTimer.lStopTime, static_cast<int32_t>(Utc(stCase.pcStop)));
        EXPECT_EQ(BP_CalcTimerParam(&stTimer, 1), BP_OK);
        EXPECT_EQ(Text(stTimer), stCase.pcFirst);
        if (Text(stTimer) != "none") {
            EXPECT_EQ(BP_Read(stTimer.stTimeout.lSec), Utc(stCase.pcFirst) - Utc(stCase.pcNow));
            SetClock(Utc(stCase.pcFirst));
            BP_CalcTimerParam(&stTimer, 0);
            EXPECT_EQ(Text(stTimer), stCase.pcSecond);
        }
    }
}

// A device that boots in 1970 and then learns the time: the timer is behind by many periods and goes on all the
// same.
TEST(TimerCalc, ClockSetFarForwards_CalendarTimerStaysActive) {
    setenv("TZ", "UTC0", 1);
    tzset();
    SetClock(1000);
    BP_Timer stTimer;
    BP_Write(stTimer.ulType, BP_TIMER_DAY);
    BP_Write<uint16_t>(stTimer.usHour, 8);
    BP_CalcTimerParam(&stTimer, 1);
    for (const char *pcNow :
         {"2026-03-05 07:00:00", "1970-01-03 08:00:00"}) { // years behind; next expiry exactly now
        SetClock(Utc(pcNow));
        BP_CalcTimerParam(&stTimer, 0);
        EXPECT_FALSE(BP_IsTimePairZero(stTimer.stTimeout)) << pcNow;
        EXPECT_GE(BP_Read(stTimer.stTimeout.lSec), 0) << pcNow;
    }
}

// The seconds end in January 2038: what lies behind is refused, not fired at once.
TEST(TimerCalc, BeyondTheLastSecond_IsOver) {
    setenv("TZ", "UTC0", 1);
    tzset();
    SetClock(Utc("2026-03-05 07:00:00"));
    for (const uint32_t ulType : {BP_TIMER_DAY, BP_TIMER_WEEK, BP_TIMER_MONTH, BP_TIMER_DATE}) {
        BP_Timer stTimer;
        BP_Write(stTimer.ulType, ulType);
        stTimer.usDay = 20;
        BP_Write<uint16_t>(stTimer.usHour, 8);
        BP_Write(stTimer.lStartTime, INT32_MAX - 1); // 2038-01-19 03:14:06
        BP_CalcTimerParam(&stTimer, 1);
        EXPECT_TRUE(BP_IsTimePairZero(stTimer.stTimeout)) << ulType;
    }
}

TEST(TimerCalc, IntervalTypes) {
    const struct {
        uint32_t ulType;
        int32_t lInterval;
        int32_t alTimeout[2], alFirst[2], alSecond[2];
    } astCase[] = {
        {0, 250, {0, 250000}, {101, 150000}, {0, 0}},
        {0, 1500, {1, 500000}, {102, 400000}, {0, 0}},
        {1, 1000, {1, 0}, {101, 900000}, {102, 900000}},
        {1, 100, {0, 100000}, {101, 0}, {101, 100000}}, // exactly a million microseconds carry over
        {1, 99, {0, 99000}, {100, 999000}, {101, 98000}},
        {1, 86400000, {86400, 0}, {86500, 900000}, {172900, 900000}},
    };
    for (const auto &stCase : astCase) {
        SCOPED_TRACE(stCase.lInterval);
        SetClock(100, 900000);
        BP_Timer stTimer;
        BP_Write(stTimer.ulType, stCase.ulType);
        BP_Write(stTimer.lInterval, stCase.lInterval);
        BP_CalcTimerParam(&stTimer, 1);
        const auto pfnSame = [](const BP_TimePair &stPair, const int32_t(&alWanted)[2]) {
            return BP_Read(stPair.lSec) == alWanted[0] && BP_Read(stPair.lUsec) == alWanted[1];
        };
        EXPECT_TRUE(pfnSame(stTimer.stTimeout, stCase.alTimeout));
        EXPECT_TRUE(pfnSame(stTimer.stCurExpire, stCase.alFirst));
        EXPECT_TRUE(pfnSame(stTimer.stNextExpire, stCase.alSecond));
        SetClock(5000); // whatever the clock says when it fires
        BP_CalcTimerParam(&stTimer, 0);
        EXPECT_TRUE(pfnSame(stCase.ulType == 0 ? stTimer.stTimeout : stTimer.stCurExpire, stCase.alSecond));
    }
    EXPECT_EQ(BP_CalcTimerParam(nullptr, 1), BP_ERR_PARAM);
}

static std::mutex g_stFiredLock;
static std::vector<std::string> g_aszFired;
static uint32_t g_ulTimerID;

static void Fired(const std::string &szWhat) {
    const std::lock_guard<std::mutex> stGuard(g_stFiredLock);
    g_aszFired.push_back(szWhat);
}

static size_t FiredNum() {
    const std::lock_guard<std::mutex> stGuard(g_stFiredLock);
    return g_aszFired.size();
}

static uint32_t OnCom(uint32_t ulTimerID, uint32_t ulParam) {
    Fired(std::to_string(ulTimerID) + " com " + std::to_string(ulParam) + " " + BP_GetCurThreadName());
    return 99; // means nothing
}

static uint32_t OnExt(uint32_t ulTimerID, uint32_t ulParam1, int32_t lParam2) {
    Fired(std::to_string(ulTimerID) + " ext " + std::to_string(ulParam1) + " " + std::to_string(lParam2));
    return 0;
}

class Timer : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(BP_MwareInit("MW_MWARE", 101), BP_OK);
        ASSERT_EQ(BP_RegistModule("MW_CTRL", 1, nullptr), BP_OK);
        BP_Write(BP_FindLogModule(BP_LOG_BP_MODULE_ID)->ulDebugOn, 1U);
    }
    void TearDown() override {
        EXPECT_TRUE(AllSlabsRefill());
        EXPECT_EQ(Free() + Working(), BP_MAX_TIMER_NUM);
    }
    // The process has a main thread from here on; before, the tests scan by hand.
    static void StartMainThread() { ASSERT_EQ(BP_RegistModule("MW_MWARE", 1, nullptr), BP_OK); }
    static uint32_t Count(const BP_List<BP_Timer> &stList) {
        const BP_SemGuard stGuard(BP_GetProcInfo()->stTimerCtrl.semLock);
        uint32_t ulNum = 0;
        for (const BP_Timer *pst = stList.First(); pst != nullptr; pst = stList.Next(pst)) {
            ulNum++;
        }
        return ulNum;
    }
    static uint32_t Free() { return Count(BP_GetProcInfo()->stTimerCtrl.stFreeList); }
    static uint32_t Working() { return Count(BP_GetProcInfo()->stTimerCtrl.stUsedList); }
    static BP_TimerParam Valid() {
        BP_TimerParam stParam = {};
        stParam.ulModuleID = MW_CTRL;
        stParam.ulType = BP_TIMER_CYCLE;
        stParam.pfnComCb = OnCom;
        stParam.ulComParam = 7;
        stParam.lInterval = 1000;
        return stParam;
    }
};

TEST_F(Timer, RegistTimer_RefusesAndChangesNothing) {
    const auto pfnRefused = [](const std::function<void(BP_TimerParam *)> &pfnSpoil) {
        BP_TimerParam stParam = Valid();
        pfnSpoil(&stParam);
        uint32_t ulID = 4711;
        const uint32_t ulRet = BP_RegistTimer(&stParam, &ulID);
        EXPECT_EQ(ulID, 4711U);
        EXPECT_EQ(Free(), BP_MAX_TIMER_NUM);
        return ulRet;
    };
    using P = BP_TimerParam;
    EXPECT_EQ(BP_RegistTimer(nullptr, &g_ulTimerID), BP_ERR_PARAM);
    const P stValid = Valid();
    EXPECT_EQ(BP_RegistTimer(&stValid, nullptr), BP_ERR_PARAM);
    const std::function<void(P *)> apfnWrong[] = {
        [](P *p) { p->pfnComCb = nullptr; },
        [](P *p) { p->ulCbType = BP_TIMER_CB_EXT; },
        [](P *p) { p->ulCbType = 2; },
        [](P *p) { p->ulType = 6; },
        [](P *p) { p->lInterval = 0; },
        [](P *p) { p->lInterval = -1; },
        [](P *p) { p->ulType = BP_TIMER_ONCE, p->lInterval = 0; },
        [](P *p) { p->ulType = BP_TIMER_DAY, p->usHour = 24; },
        [](P *p) { p->ulType = BP_TIMER_DAY, p->usMinute = 60; },
        [](P *p) { p->ulType = BP_TIMER_DATE, p->usSecond = 60; },
        [](P *p) { p->ulType = BP_TIMER_WEEK, p->usDay = 7; },
        [](P *p) { p->ulType = BP_TIMER_MONTH, p->usDay = 0; },
        [](P *p) { p->ulType = BP_TIMER_MONTH, p->usDay = 32; },
    };
    for (const auto &pfnWrong : apfnWrong) {
        EXPECT_EQ(pfnRefused(pfnWrong), BP_ERR_PARAM);
    }
    EXPECT_EQ(pfnRefused([](P *p) { p->ulModuleID = MW_PTZ; }), BP_ERR_NO_MODULE);
    EXPECT_EQ(pfnRefused([](P *p) { p->ulType = BP_TIMER_DATE, p->lStartTime = 1000; }), BP_ERR_TIMER_OVER);
    EXPECT_EQ(pfnRefused([](P *p) { p->ulType = BP_TIMER_DAY, p->lStopTime = 1000; }), BP_ERR_TIMER_OVER);
    EXPECT_EQ(CountOf(ReadFile(g_szLog), "[bp_timer-"), 2 + 13 + 3U);
    EXPECT_EQ(CountOf(ReadFile(g_szLog), "[E(1075)]"), 2U);
}

TEST_F(Timer, FullPool_RefusesAndIDsDiffer) {
    std::set<uint32_t> aulID;
    for (uint32_t i = 0; i < BP_MAX_TIMER_NUM; i++) {
        ASSERT_EQ(BP_StartCycleTimer(MW_CTRL, 60000, OnCom, i, &g_ulTimerID), BP_OK);
        aulID.insert(g_ulTimerID);
    }
    EXPECT_EQ(aulID.size(), BP_MAX_TIMER_NUM);
    EXPECT_EQ(aulID.count(0), 0U);
    EXPECT_EQ(BP_StartOnceTimer(MW_CTRL, 60000, OnCom, 0, &g_ulTimerID), BP_ERR_FAIL);
    StartMainThread(); // whoever unregisters needs a module
    for (const uint32_t ulID : aulID) {
        EXPECT_EQ(BP_UnregistTimer(ulID), BP_OK);
    }
    ASSERT_EQ(BP_StartOnceTimer(MW_CTRL, 60000, OnCom, 0, &g_ulTimerID), BP_OK);
    EXPECT_EQ(aulID.count(g_ulTimerID), 0U); // not reused soon
    EXPECT_EQ(BP_UnregistTimer(g_ulTimerID), BP_OK);
}

TEST_F(Timer, Scan_FiresOnceAPassAndCatchesUp) {
    SetClock(1000);
    ASSERT_EQ(BP_StartCycleTimer(MW_CTRL, 100, OnCom, 7, &g_ulTimerID), BP_OK);
    BP_CheckTimerExpire();
    SetClock(1000, 99999);
    BP_CheckTimerExpire();
    usleep(20000);
    EXPECT_EQ(FiredNum(), 0U);
    SetClock(1000, 100000); // to the microsecond
    BP_CheckTimerExpire();
    ASSERT_TRUE(WaitFor([] { return FiredNum() == 1; }));
    EXPECT_EQ(g_aszFired[0], std::to_string(g_ulTimerID) + " com 7 MW_CTRL");
    SetClock(1000, 450000); // behind by three
    for (size_t i = 2; i <= 6; i++) {
        BP_CheckTimerExpire();
        EXPECT_TRUE(WaitFor([&] { return FiredNum() == (i < 4 ? i : 4); }));
    }
    SetClock(500); // set back: silent until it is due again, and nothing is lost for good
    BP_CheckTimerExpire();
    usleep(20000);
    EXPECT_EQ(FiredNum(), 4U);
    SetClock(1000, 500000);
    BP_CheckTimerExpire();
    EXPECT_TRUE(WaitFor([] { return FiredNum() == 5; }));
}

TEST_F(Timer, OnceAndDateTimers_UnregisterThemselves) {
    setenv("TZ", "UTC0", 1);
    SetClock(Utc("2026-03-05 07:00:00"));
    StartMainThread();
    BP_TimerParam stParam = Valid();
    stParam.ulType = BP_TIMER_DATE;
    stParam.ulCbType = BP_TIMER_CB_EXT;
    stParam.pfnExtCb = OnExt;
    stParam.ulExtParam1 = 11;
    stParam.lExtParam2 = -12;
    stParam.usHour = 8;
    stParam.lStartTime = static_cast<int32_t>(Utc("2026-03-05 12:00:00"));
    ASSERT_EQ(BP_RegistTimer(&stParam, &g_ulTimerID), BP_OK);
    uint32_t ulOnceID = 0;
    ASSERT_EQ(BP_StartOnceTimer(MW_CTRL, 100, OnCom, 5, &ulOnceID), BP_OK);
    SetClock(Utc("2026-03-05 08:00:00"));
    ASSERT_TRUE(WaitFor([] { return FiredNum() == 2 && Free() == BP_MAX_TIMER_NUM; }));
    EXPECT_EQ(g_aszFired[0], std::to_string(g_ulTimerID) + " ext 11 -12");
    EXPECT_EQ(CountOf(ReadFile(g_szDebug), "[BP_ThreadTimerProc]auto unreg timer "), 2U);
    EXPECT_EQ(BP_UnregistTimer(ulOnceID), BP_ERR_NO_TIMER);
    EXPECT_EQ(CountOf(ReadFile(g_szLog), "[BP_GetLockTimerByID]there is no working timer."), 1U);
    EXPECT_EQ(CountOf(ReadFile(g_szLog), "[W(1074)][bp_timer-"), 1U);
    EXPECT_EQ(CountOf(ReadFile(g_szLog), "[BP_UnregistTimerProc]MW_MWARE timerid 2 is invalid."), 1U);
}

TEST_F(Timer, DayTimerThatReachesItsEnd_RunsItsLastNotice) {
    setenv("TZ", "UTC0", 1);
    SetClock(Utc("2026-03-05 07:00:00"));
    StartMainThread();
    BP_TimerParam stParam = Valid();
    stParam.ulType = BP_TIMER_DAY;
    stParam.usHour = 8;
    stParam.lStopTime = static_cast<int32_t>(Utc("2026-03-06 08:00:00"));
    ASSERT_EQ(BP_RegistTimer(&stParam, &g_ulTimerID), BP_OK);
    SetClock(Utc("2026-03-05 08:00:01"));
    EXPECT_TRUE(WaitFor([] { return FiredNum() == 1 && Working() == 0; }));
}

TEST_F(Timer, MainModulesTimer_RunsInTheMainThread) {
    StartMainThread();
    ASSERT_EQ(BP_StartOnceTimer(BP_MODULE_ID_MAIN, 1, OnCom, 1, &g_ulTimerID), BP_OK);
    ASSERT_TRUE(WaitFor([] { return FiredNum() == 1; }));
    EXPECT_EQ(g_aszFired[0], std::to_string(g_ulTimerID) + " com 1 MW_MWARE");
}

static BP_Sem g_semBlock(0);
static BP_Sem g_semEntered(0);
static uint32_t OnBlock(uint32_t ulTimerID, uint32_t ulParam) {
    g_semEntered.Post();
    g_semBlock.Wait();
    return OnCom(ulTimerID, ulParam);
}

// Unregistering takes back what is queued; a record that another timer has by the time a callback returns stays
// that one's.
TEST_F(Timer, UnregistTimer_AmidItsNotices) {
    SetClock(1000);
    uint32_t ulBlockID = 0;
    ASSERT_EQ(BP_StartOnceTimer(MW_CTRL, 10, OnBlock, 1, &ulBlockID), BP_OK);
    SetClock(1001);
    BP_CheckTimerExpire();
    g_semEntered.Wait();
    ASSERT_EQ(BP_StartCycleTimer(MW_CTRL, 10, OnCom, 2, &g_ulTimerID), BP_OK);
    SetClock(1002);
    BP_CheckTimerExpire();
    BP_CheckTimerExpire();
    EXPECT_EQ(BP_QueueLength(&BP_GetModuleByID(MW_CTRL)->stTimerQueue), 2U);
    EXPECT_EQ(BP_UnregistTimer(g_ulTimerID),
              BP_ERR_FAIL); // this thread has no module, nor has the process a main one
    EXPECT_EQ(CountOf(ReadFile(g_szLog), "[BP_UnregistTimerProc]fail to find src module."), 1U);
    StartMainThread();
    EXPECT_EQ(BP_UnregistTimer(g_ulTimerID), BP_OK);
    EXPECT_EQ(BP_QueueLength(&BP_GetModuleByID(MW_CTRL)->stTimerQueue), 0U);
    EXPECT_EQ(BP_UnregistTimer(ulBlockID), BP_OK); // while its callback runs
    uint32_t ulNextID = 0;
    ASSERT_EQ(BP_StartCycleTimer(MW_CTRL, 3600000, OnCom, 3, &ulNextID),
              BP_OK); // in the record of the one before
    g_semBlock.Post();
    ASSERT_TRUE(WaitFor([] { return FiredNum() == 1 && AllSlabsFull(); }));
    EXPECT_EQ(Working(), 1U);
    EXPECT_EQ(CountOf(ReadFile(g_szDebug), "auto unreg"), 0U);
}

static uint32_t OnRenew(uint32_t ulTimerID, uint32_t ulParam) {
    EXPECT_EQ(BP_UnregistTimer(ulTimerID), BP_OK);
    EXPECT_EQ(BP_UnregistTimer(ulTimerID), BP_ERR_NO_TIMER);
    if (ulParam != 0) {
        EXPECT_EQ(BP_StartCycleTimer(MW_CTRL, 1, OnRenew, ulParam - 1, &g_ulTimerID), BP_OK);
    }
    return OnCom(ulTimerID, ulParam);
}

TEST_F(Timer, CallbackMayReplaceItsOwnTimer) {
    StartMainThread();
    uint32_t ulFirstID = 0;
    ASSERT_EQ(BP_StartCycleTimer(MW_CTRL, 1, OnRenew, 5, &ulFirstID), BP_OK);
    EXPECT_TRUE(WaitFor([] { return FiredNum() == 6 && Free() == BP_MAX_TIMER_NUM; }));
}

TEST_F(Timer, OwnerGone_TimerWaitsAndCanStillBeEnded) {
    StartMainThread();
    ASSERT_EQ(BP_StartCycleTimer(MW_CTRL, 3600000, OnCom, 1, &g_ulTimerID), BP_OK);
    BP_Timer *pstTimer = BP_GetLockTimerByID(g_ulTimerID);
    ASSERT_NE(pstTimer, nullptr);
    BP_Write(pstTimer->ulModuleID, 0x90000006U);
    EXPECT_EQ(BP_TimerExpireProc(pstTimer), BP_ERR_NO_MODULE);
    BP_GetProcInfo()->stTimerCtrl.semLock.Post();
    EXPECT_EQ(BP_UnregistTimer(g_ulTimerID), BP_ERR_TIMER_OWNER);
    EXPECT_EQ(CountOf(ReadFile(g_szLog), "[BP_TimerExpireProc]invalid module id 2415919110."), 1U);
    EXPECT_EQ(CountOf(ReadFile(g_szLog), "[E(1041)][bp_timer-"), 2U);
    EXPECT_EQ(BP_ThreadTimerProc(nullptr), BP_ERR_PARAM);
}

static std::atomic<uint32_t> g_aulFired[BP_MAX_TIMER_NUM];
static uint32_t OnCount(uint32_t ulTimerID, uint32_t ulParam) {
    (void)ulTimerID;
    g_aulFired[ulParam]++;
    return 0;
}

// All but eight records are cycle timers of 40 to 400 ms on eight modules; the others are registered and
// unregistered at random meanwhile. KS_TIMER_SECONDS sets how long; the rate must hold over any time.
TEST_F(Timer, ManyTimersForAWhile_FireAsOftenAsTheTimeAllows) {
    const char *const apcModule[] = {"MW_PTZ", "MW_ALM", "MW_SNMP", "MW_SDK", "MW_MP", "MW_IW", "MW_UPNP"};
    std::vector<uint32_t> aulModule = {MW_CTRL};
    for (const char *pcModule : apcModule) {
        uint32_t ulID = 0;
        ASSERT_EQ(BP_RegistModule(pcModule, 1, &ulID), BP_OK);
        aulModule.push_back(ulID);
    }
    StartMainThread();
    BP_Write(BP_FindLogModule(BP_LOG_BP_MODULE_ID)->ulDebugOn, 0U);
    static constexpr uint32_t ulSteady = BP_MAX_TIMER_NUM - 8;
    std::vector<uint32_t> aulID(ulSteady);
    std::vector<int64_t> alStart(ulSteady);
    for (uint32_t i = 0; i < ulSteady; i++) {
        alStart[i] = BP_NowMs();
        const int32_t lInterval = static_cast<int32_t>(40 + i * 360 / (ulSteady - 1));
        ASSERT_EQ(BP_StartCycleTimer(aulModule[i % aulModule.size()], lInterval, OnCount, i, &aulID[i]), BP_OK);
    }
    const char *pcSeconds = getenv("KS_TIMER_SECONDS");
    const int64_t lEnd = BP_NowMs() + (pcSeconds != nullptr ? atoi(pcSeconds) : 4) * 1000;
    std::minstd_rand stRandom(1);
    while (BP_NowMs() < lEnd) {
        uint32_t ulID = 0;
        if (BP_StartCycleTimer(aulModule[stRandom() % 8], 1 + stRandom() % 50, OnCount, 63, &ulID) == BP_OK) {
            usleep(stRandom() % 60000);
            EXPECT_EQ(BP_UnregistTimer(ulID), BP_OK);
        }
    }
    for (uint32_t i = 0; i < ulSteady; i++) {
        EXPECT_EQ(BP_UnregistTimer(aulID[i]), BP_OK);
        const int64_t lInterval = 40 + i * 360 / (ulSteady - 1);
        const int64_t lAllowed = (BP_NowMs() - alStart[i]) / lInterval;
        EXPECT_LE(std::abs(lAllowed - static_cast<int64_t>(g_aulFired[i])), 2)
            << "every " << lInterval << " ms";
    }
    EXPECT_EQ(Free(), BP_MAX_TIMER_NUM);
}
