#include <random>
#include <set>
#include <unistd.h>

#include "tests/support/fake_clock.h"
#include "tests/support/on_bus.h"

static uint32_t g_ulTimerID;
static BP_Sem g_semBlock(0), g_semEntered(0);

static uint32_t OnCom(uint32_t ulTimerID, uint32_t ulParam) {
    See(std::to_string(ulTimerID) + " com " + std::to_string(ulParam) + " " + BP_GetCurThreadName());
    return 99; // means nothing
}

static uint32_t OnExt(uint32_t ulTimerID, uint32_t ulParam1, int32_t lParam2) {
    return See(std::to_string(ulTimerID) + " ext " + std::to_string(ulParam1) + " " + std::to_string(lParam2));
}

static uint32_t OnBlock(uint32_t ulTimerID, uint32_t ulParam) {
    g_semEntered.Post();
    g_semBlock.Wait();
    return OnCom(ulTimerID, ulParam);
}

static size_t FiredNum() {
    return CountOf(Seen(), "/");
}

static testing::AssertionResult HasFired(size_t ulNum) {
    WaitFor([=] { return FiredNum() == ulNum; });
    return FiredNum() == ulNum ? testing::AssertionSuccess() : testing::AssertionFailure() << Seen();
}

class Timer : public OnBus {
protected:
    void SetUp() override {
        OnBus::SetUp();
        setenv("TZ", "UTC0", 1);
        SetDebug(true);
    }
    void TearDown() override {
        OnBus::TearDown();
        EXPECT_EQ(Counts().first + Counts().second, BP_MAX_TIMER_NUM);
    }
    static uint32_t Num(const BP_List<BP_Timer> &stList) {
        uint32_t ulNum = 0;
        for (const BP_Timer *pst = stList.First(); pst != nullptr; pst = stList.Next(pst)) {
            ulNum++;
        }
        return ulNum;
    }
    // Both at one moment.
    static std::pair<uint32_t, uint32_t> Counts() {
        const BP_SemGuard stGuard(BP_GetProcInfo()->stTimerCtrl.semLock);
        return {Num(BP_GetProcInfo()->stTimerCtrl.stUsedList), Num(BP_GetProcInfo()->stTimerCtrl.stFreeList)};
    }
    static uint32_t Working() { return Counts().first; }
    static uint32_t Free() { return Counts().second; }
    static void ScanAt(const std::string &szTime, int lTimes = 1) {
        SetClock(Utc(szTime));
        for (int i = 0; i < lTimes; i++) {
            BP_CheckTimerExpire();
        }
    }
    // Of MW_CTRL, at 8 o'clock.
    static BP_TimerParam At8(uint32_t ulType) {
        BP_TimerParam stParam = {};
        stParam.ulModuleID = MW_CTRL;
        stParam.ulType = ulType;
        stParam.pfnComCb = OnCom;
        stParam.usHour = 8;
        return stParam;
    }
    static void StartCycle(int32_t lInterval, uint32_t ulParam = 1) {
        ASSERT_EQ(BP_StartCycleTimer(MW_CTRL, lInterval, OnCom, ulParam, &g_ulTimerID), BP_OK);
    }
};

TEST_F(Timer, FullPool_RefusesAndIDsDiffer) {
    std::set<uint32_t> aulID;
    for (uint32_t i = 0; i < BP_MAX_TIMER_NUM; i++) {
        StartCycle(60000);
        aulID.insert(g_ulTimerID);
    }
    EXPECT_EQ(aulID.size(), BP_MAX_TIMER_NUM);
    EXPECT_EQ(aulID.count(0), 0U);
    StartMainThread(); // a thread that unregisters needs a module
    for (const uint32_t ulID : aulID) {
        EXPECT_EQ(BP_UnregistTimer(ulID), BP_OK);
    }
    ASSERT_EQ(BP_StartOnceTimer(MW_CTRL, 60000, OnCom, 0, &g_ulTimerID), BP_OK);
    EXPECT_EQ(aulID.count(g_ulTimerID), 0U); // not reused soon
    EXPECT_EQ(BP_UnregistTimer(g_ulTimerID), BP_OK);
}

TEST_F(Timer, Scan_FiresOnceAPassAndCatchesUp) {
    SetClock(1000);
    StartCycle(100, 7);
    BP_CheckTimerExpire();
    SetClock(1000, 99999);
    BP_CheckTimerExpire();
    usleep(20000);
    EXPECT_EQ(FiredNum(), 0U);
    SetClock(1000, 100000); // to the microsecond
    BP_CheckTimerExpire();
    ASSERT_TRUE(HasFired(1));
    EXPECT_EQ(Seen(), std::to_string(g_ulTimerID) + " com 7 MW_CTRL/");
    SetClock(1000, 450000); // three firings late
    for (size_t i = 2; i <= 6; i++) {
        BP_CheckTimerExpire();
        EXPECT_TRUE(HasFired(std::min<size_t>(i, 4)));
    }
    SetClock(500); // set back: silent until it is due again, and nothing is lost for good
    BP_CheckTimerExpire();
    usleep(20000);
    EXPECT_EQ(FiredNum(), 4U);
    SetClock(1000, 500000);
    BP_CheckTimerExpire();
    EXPECT_TRUE(HasFired(5));
}

TEST_F(Timer, OnceAndDateTimers_UnregisterThemselves) {
    SetClock(Utc("2026-03-05T07:00:00"));
    StartMainThread();
    BP_TimerParam stParam = At8(BP_TIMER_DATE);
    stParam.ulCbType = BP_TIMER_CB_EXT;
    stParam.pfnExtCb = OnExt;
    stParam.ulExtParam1 = 11;
    stParam.lExtParam2 = -12;
    stParam.lStartTime = static_cast<int32_t>(Utc("2026-03-05T12:00:00"));
    ASSERT_EQ(BP_RegistTimer(&stParam, &g_ulTimerID), BP_OK);
    uint32_t ulOnceID = 0;
    uint32_t ulMainID = 0;
    ASSERT_EQ(BP_StartOnceTimer(MW_CTRL, 100, OnCom, 5, &ulOnceID), BP_OK);
    ASSERT_EQ(BP_StartOnceTimer(BP_MODULE_ID_MAIN, 100, OnCom, 6, &ulMainID), BP_OK);
    SetClock(Utc("2026-03-05T08:00:00"));
    ASSERT_TRUE(WaitFor([] { return FiredNum() == 3 && Free() == BP_MAX_TIMER_NUM; }));
    EXPECT_EQ(CountOf(Seen(), std::to_string(g_ulTimerID) + " ext 11 -12/"), 1U);
    EXPECT_EQ(CountOf(Seen(), std::to_string(ulOnceID) + " com 5 MW_CTRL/"), 1U);
    EXPECT_EQ(CountOf(Seen(), std::to_string(ulMainID) + " com 6 MW_MWARE/"), 1U); // in the main thread
    EXPECT_EQ(CountOf(DebugLog(), "[BP_ThreadTimerProc]auto unreg timer "), 3U);
    EXPECT_EQ(BP_UnregistTimer(ulOnceID), BP_ERR_NO_TIMER);
    EXPECT_EQ(Logged("[BP_UnregistTimerProc]MW_MWARE timerid 2 is invalid."), 1U);
}

// A module that was busy finds several notices, the last of which is the timer's last. Registered a second time
// meanwhile, it has some of them in either queue.
class BusyTimer : public Timer, public testing::WithParamInterface<bool> {};

TEST_P(BusyTimer, DayTimerThatReachesItsEnd_RunsAllNotices) {
    SetClock(Utc("2026-03-05T07:00:00"));
    uint32_t ulBlockID = 0;
    ASSERT_EQ(BP_StartOnceTimer(MW_CTRL, 10, OnBlock, 1, &ulBlockID), BP_OK);
    BP_TimerParam stParam = At8(BP_TIMER_DAY);
    stParam.lStopTime = static_cast<int32_t>(Utc("2026-03-07T09:00:00"));
    ASSERT_EQ(BP_RegistTimer(&stParam, &g_ulTimerID), BP_OK);
    ScanAt("2026-03-05T07:00:01");
    g_semEntered.Wait();
    ScanAt("2026-03-07T08:30:00");
    if (GetParam()) {
        ASSERT_EQ(BP_RegistModule("MW_CTRL", 1, nullptr), BP_OK);
    }
    ScanAt("2026-03-07T08:30:00", 4);
    EXPECT_TRUE(HasFired(GetParam() ? 2 : 0));
    StartMainThread(); // a thread that unregisters needs a module
    g_semBlock.Post();
    EXPECT_TRUE(HasFired(4));
    EXPECT_TRUE(WaitFor([] { return Working() == 0; }));
}
INSTANTIATE_TEST_SUITE_P(Each, BusyTimer, testing::Bool());

// At either pace timers that are late catch up one firing in 20 ms, or in half their interval if they are
// fast, and lose none.
TEST_F(Timer, BehindByFarOrForLong_FiresNoFasterThanItMay) {
    const struct {
        int32_t lInterval;
        uint32_t ulNum;
        int64_t lJump; // seconds
        int64_t lGapMs;
    } astCase[] = {{500, 1, 1000000000, 20}, {40, 20, 1, 20}, {6, 1, 1000000000, 3}, {1, 1, 1000000000, 1}};
    StartMainThread();
    SetDebug(false);
    for (const auto &stCase : astCase) {
        SCOPED_TRACE(stCase.lInterval);
        SetClock(1000);
        std::vector<uint32_t> aulID(stCase.ulNum);
        const size_t ulBefore = FiredNum();
        for (uint32_t &ulID : aulID) {
            ASSERT_EQ(BP_StartCycleTimer(MW_CTRL, stCase.lInterval, OnCom, 1, &ulID), BP_OK);
        }
        const int64_t lStart = BP_NowMs();
        SetClock(1000 + stCase.lJump);
        const size_t ulAll = stCase.ulNum * static_cast<size_t>(stCase.lJump * 1000 / stCase.lInterval);
        const size_t ulEnough = std::min<size_t>(ulAll, 15);
        EXPECT_TRUE(WaitFor([&] { return FiredNum() - ulBefore >= (stCase.lJump == 1 ? ulAll : ulEnough); }));
        const size_t ulPasses = (FiredNum() - ulBefore) / stCase.ulNum;
        EXPECT_LE(static_cast<int64_t>(ulPasses), (BP_NowMs() - lStart) / stCase.lGapMs + 2);
        for (const uint32_t ulID : aulID) {
            EXPECT_EQ(BP_UnregistTimer(ulID), BP_OK);
        }
    }
}

static bool SendFromCtrl(uint32_t ulDstID) {
    BP_StructMsg stMsg = BP_CreatStructMsg("x", 1);
    const bool bSent = BP_ConfigMsgHdr(&stMsg, MW_CTRL, ulDstID, 1, 0) == BP_OK &&
                       BP_SendMsgProc(BP_GetModuleByID(MW_CTRL), &stMsg) == BP_OK;
    BP_EraseMsgData(&stMsg);
    return bSent;
}

static std::atomic<bool> g_bSendOn{true};
static uint32_t SendOn(uint32_t, BP_StructMsg *, uint32_t) {
    return g_bSendOn && SendFromCtrl(BP_MODULE_ID_MAIN) ? BP_OK : BP_ERR_FAIL;
}

// Messages that make new ones as they are handled, and threads that only send to another process.
TEST_F(Timer, SendersThatNeverStop_DoNotKeepTheMainThread) {
    StartMainThread();
    BP_SetLogLevel(BP_LOG_LEVEL_FATAL);
    SetDebug(false);
    const auto pfnTicks = [] { return WaitFor([ulFired = FiredNum()] { return FiredNum() > ulFired + 20; }); };
    StartCycle(10);
    {
        const Repeater stOne([] { SendFromCtrl(BP_MODULE_ID_IWARE_CMD); });
        const Repeater stTwo([] { SendFromCtrl(BP_MODULE_ID_IWARE_CMD); });
        EXPECT_TRUE(pfnTicks());
    }
    Handle(BP_MODULE_ID_MAIN, 1, SendOn);
    ASSERT_TRUE(WaitFor([] { return SendFromCtrl(BP_MODULE_ID_MAIN); })); // once there are buffers again
    EXPECT_TRUE(pfnTicks());
    g_bSendOn = false;
    EXPECT_EQ(BP_UnregistTimer(g_ulTimerID), BP_OK);
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
    StartCycle(10, 2);
    SetClock(1002);
    BP_CheckTimerExpire();
    BP_CheckTimerExpire();
    EXPECT_EQ(BP_QueueLength(&BP_GetModuleByID(MW_CTRL)->stTimerQueue), 2U);
    EXPECT_EQ(BP_UnregistTimer(g_ulTimerID), BP_ERR_FAIL); // neither this thread nor the process has a module
    EXPECT_EQ(Logged("[BP_UnregistTimerProc]fail to find src module."), 1U);
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
    EXPECT_EQ(CountOf(DebugLog(), "auto unreg"), 0U);
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
    StartCycle(3600000);
    BP_Timer *pstTimer = BP_GetLockTimerByID(g_ulTimerID);
    ASSERT_NE(pstTimer, nullptr);
    BP_Write(pstTimer->ulModuleID, 0x90000006U);
    EXPECT_EQ(BP_TimerExpireProc(pstTimer), BP_ERR_NO_MODULE);
    BP_GetProcInfo()->stTimerCtrl.semLock.Post();
    EXPECT_EQ(BP_UnregistTimer(g_ulTimerID), BP_ERR_TIMER_OWNER);
    EXPECT_EQ(Logged("[BP_TimerExpireProc]invalid module id 2415919110."), 1U);
    EXPECT_EQ(Logged("[E(1041)][bp_timer-"), 2U);
}

static std::atomic<uint32_t> g_aulFired[BP_MAX_TIMER_NUM];
static uint32_t OnCount(uint32_t, uint32_t ulParam) {
    g_aulFired[ulParam]++;
    return 0;
}

// Every record is a cycle timer of 40 to 400 ms on one of eight modules, while four threads end and start some
// of them at random. KS_TIMER_SECONDS sets for how long; the rate must hold over any time.
TEST_F(Timer, ManyTimersForAWhile_FireAsOftenAsTheTimeAllows) {
    std::vector<uint32_t> aulModule = {MW_CTRL};
    for (const char *pcModule : {"MW_PTZ", "MW_ALM", "MW_SNMP", "MW_SDK", "MW_MP", "MW_IW", "MW_UPNP"}) {
        aulModule.push_back(0);
        ASSERT_EQ(BP_RegistModule(pcModule, 1, &aulModule.back()), BP_OK);
    }
    StartMainThread();
    SetDebug(false);
    struct Run {
        uint32_t ulID;
        int32_t lInterval;
        int64_t lStartMs;
    };
    static Run astRun[BP_MAX_TIMER_NUM];
    const auto pfnStart = [&](uint32_t i, int32_t lInterval) {
        g_aulFired[i] = 0;
        astRun[i] = {0, lInterval, BP_NowMs()};
        ASSERT_EQ(BP_StartCycleTimer(aulModule[i % 8], lInterval, OnCount, i, &astRun[i].ulID), BP_OK);
    };
    // How much it has fired too often or, below 0, too seldom. A busy machine makes a timer late, and it
    // catches up; an expiry that is lost stays so.
    const auto pfnAhead = [](uint32_t i) {
        return static_cast<int64_t>(g_aulFired[i]) - (BP_NowMs() - astRun[i].lStartMs) / astRun[i].lInterval;
    };
    const auto pfnEnd = [&](uint32_t i) {
        EXPECT_LE(pfnAhead(i), 2) << "every " << astRun[i].lInterval << " ms";
        EXPECT_TRUE(WaitFor([&] { return pfnAhead(i) >= -2; })) << "every " << astRun[i].lInterval << " ms";
        EXPECT_EQ(BP_UnregistTimer(astRun[i].ulID), BP_OK);
    };
    for (uint32_t i = 0; i < BP_MAX_TIMER_NUM; i++) {
        pfnStart(i, static_cast<int32_t>(40 + i * 360 / (BP_MAX_TIMER_NUM - 1)));
    }
    const char *pcSeconds = getenv("KS_TIMER_SECONDS");
    const int64_t lEnd = BP_NowMs() + (pcSeconds != nullptr ? atoi(pcSeconds) : 4) * 1000;
    Threads(4, [&](uint32_t i) {
        std::minstd_rand stRandom(i + 1);
        while (BP_NowMs() < lEnd) { // of every eight timers, each thread changes one
            const uint32_t ulOne = i + stRandom() % 8 * 8;
            pfnEnd(ulOne);
            EXPECT_EQ(BP_UnregistTimer(astRun[ulOne].ulID), BP_ERR_NO_TIMER);
            pfnStart(ulOne, static_cast<int32_t>(40 + stRandom() % 361));
            const auto [ulWorking, ulFree] = Counts();
            EXPECT_EQ(ulWorking + ulFree, BP_MAX_TIMER_NUM);
            usleep(stRandom() % 60000);
        }
    });
    for (uint32_t i = 0; i < BP_MAX_TIMER_NUM; i++) {
        pfnEnd(i);
    }
    EXPECT_EQ(Free(), BP_MAX_TIMER_NUM);
}
