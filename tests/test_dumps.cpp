// What the runtime leaves on disk when it runs short, or is asked.
#include <sys/stat.h>

#include "tests/support/fake_clock.h"
#include "tests/support/on_bus.h"

static uint32_t OnCom(uint32_t, uint32_t) {
    return 0;
}
static uint32_t OnExt(uint32_t, uint32_t, int32_t) {
    return 0;
}

class Dumps : public OnBus {
protected:
    void SetUp() override {
        setenv("TZ", "UTC0", 1);
        SetClock(Utc("2026-03-05T07:08:09"));
        OnBus::SetUp();
    }
    void TearDown() override {}
    static BP_SlabBuf *Take(uint32_t ulLen, uint32_t ulType, const std::vector<uint32_t> &aulWord) {
        BP_SlabBuf *pstBuf = BP_SlabGetBuf(ulLen, ulType);
        memcpy(pstBuf->pucData + (ulType == BP_SLAB_TYPE_MSG ? 40 : 0), aulWord.data(), aulWord.size() * 4);
        return pstBuf;
    }
    static void RunDry(uint32_t ulSize, uint32_t ulType) {
        const std::vector<BP_SlabBuf *> apstBuf = TakeAll(ulSize, ulType);
        for (BP_SlabBuf *pstBuf : apstBuf) {
            memset(pstBuf->pucData, 0x5A, ulSize);
        }
        FreeAll(apstBuf);
    }
    uint32_t ulTimerID_ = 0;
};

TEST_F(Dumps, SlabDump_ListsUsedBuffersById) {
    const std::string szDump = ReadFile(KS_TEST_DATA "/slab-dump.txt");
    const size_t ulUsed = szDump.find("msg[236]: ");
    const size_t ulTime = szDump.find("03-05");
    BP_DumpSlabLog();
    EXPECT_EQ(ReadFile(BP_SLAB_DUMP_PATH), szDump.substr(0, ulUsed) + szDump.substr(ulTime));
    Take(100, BP_SLAB_TYPE_MSG, {0xAB, 0xCD, 0xFFFFFFFF, 9, 31051, 0xFFFFFFFE});
    Take(4, BP_SLAB_TYPE_TIMER, {4711});
    Take(5, BP_SLAB_TYPE_TIMER, {1}); // neither a message nor a notice
    Take(39, BP_SLAB_TYPE_MSG, {1});
    BP_SlabBuf *pstGiven = Take(40, BP_SLAB_TYPE_MSG, {1, 2, 3, 4, 5, 6});
    BP_ListCtrl stQueue;
    stQueue.Init(BP_NO_LIMIT);
    BP_ModuleAddMsg(&stQueue, pstGiven);
    BP_ModuleGetMsg(&stQueue, BP_GET_FIRST, 0);
    BP_SlabFreeBuf(Take(16384, BP_SLAB_TYPE_MSG, {7}));
    BP_DumpSlabLog();
    EXPECT_EQ(ReadFile(BP_SLAB_DUMP_PATH), szDump);

    BP_GetProcInfo()->usProcID = 257; // exempt, so that every buffer can be taken
    for (const BP_SlabConfig &stRow : g_astSlabConfig) {
        const uint32_t ulType = stRow.ulSize == 8 ? BP_SLAB_TYPE_TIMER : BP_SLAB_TYPE_MSG;
        for (BP_SlabBuf *pstBuf : TakeAll(ulType == BP_SLAB_TYPE_TIMER ? 4 : stRow.ulSize, ulType)) {
            memset(pstBuf->pucData, 0xFF, stRow.ulSize == 8 ? 4 : 64);
        }
    }
    BP_DumpSlabLog();
    EXPECT_EQ(ReadFile(BP_SLAB_DUMP_PATH).size(), 24575U); // cut
}

TEST_F(Dumps, TimerDump_ListsWorkingTimersInTheOrderOfTheirRegistration) {
    BP_DumpTimerLog();
    std::string szDump = ReadFile(KS_TEST_DATA "/timer-dump.txt");
    EXPECT_EQ(ReadFile(BP_TIMER_DUMP_PATH), szDump.substr(0, szDump.find('\n') + 1) + "total: 0 \n");
    SetClock(1772700000);
    ASSERT_EQ(BP_StartCycleTimer(MW_CTRL, 1500, OnCom, 0, &ulTimerID_), BP_OK);
    BP_TimerParam stDay = {};
    stDay.ulModuleID = MW_CTRL;
    stDay.ulType = BP_TIMER_DAY;
    stDay.ulCbType = BP_TIMER_CB_EXT;
    stDay.pfnExtCb = OnExt;
    stDay.usHour = 8;
    stDay.usMinute = 5;
    stDay.lStopTime = 2000000000;
    ASSERT_EQ(BP_RegistTimer(&stDay, &ulTimerID_), BP_OK);
    ASSERT_EQ(BP_StartOnceTimer(MW_CTRL, 7, OnCom, 0, &ulTimerID_), BP_OK);
    BP_Write(BP_GetLockTimerByID(ulTimerID_)->ulModuleID, NOBODY);
    BP_DumpTimerLog(); // with the pool lock held, as in the scan
    BP_GetProcInfo()->stTimerCtrl.semLock.Post();
    for (const auto &[pcName, pvFunction] : {std::pair("OnCom     ", reinterpret_cast<void *>(OnCom)),
                                             {"OnExt     ", reinterpret_cast<void *>(OnExt)}}) {
        char szFunction[32];
        snprintf(szFunction, sizeof(szFunction), "%-10p", pvFunction);
        for (size_t ulPos = 0; (ulPos = szDump.find(pcName)) != std::string::npos;) {
            szDump.replace(ulPos, 10, szFunction);
        }
    }
    EXPECT_EQ(ReadFile(BP_TIMER_DUMP_PATH), szDump);
}

// A source, and the block that is left of it; 3 lines wanted.
TEST_F(Dumps, TailFile_CopiesTheLastLines) {
    for (const auto &aszRow : Rows("tails.txt")) {
        SCOPED_TRACE(aszRow[0]);
        WriteFile("src", aszRow[1]);
        WriteFile("dst", "old\n");
        EXPECT_EQ(BP_TailFile("src", "dst", "a", 3), BP_OK);
        EXPECT_EQ(ReadFile("dst"), "old\n=====src=====\n" + aszRow[2]);
        EXPECT_EQ(BP_TailFile("src", "dst", "w", 3), BP_OK);
        EXPECT_EQ(ReadFile("dst"), "=====src=====\n" + aszRow[2]);
    }
}

TEST_F(Dumps, TailFile_Failures) {
    mkdir("dir", 0755);
    WriteFile("src", "x\n");
    EXPECT_EQ(BP_TailFile("none", "dst", "w", 3), BP_ERR_FAIL);
    EXPECT_EQ(BP_TailFile("dir", "dst", "w", 3), BP_ERR_FAIL);
    EXPECT_FALSE(FileExists("dst"));
    EXPECT_EQ(BP_TailFile("src", "dir", "w", 3), BP_ERR_FAIL);
    EXPECT_EQ(BP_WriteDumpFile("dir", "x", 1), BP_ERR_FAIL);
    for (const char *pcLine :
         {"[BP_TailFile]fopen fail[No such file or directory]", "[BP_TailFile]fopen fail[Is a directory]",
          "]fopen file fail", "]fopen slab log path fail"}) {
        EXPECT_EQ(Logged(pcLine), 1U) << pcLine;
    }
    if (MountSmall("small", 4096)) {
        WriteFile("small/all", std::string(4096, 'x'));
        EXPECT_EQ(BP_TailFile("src", "small/dst", "w", 3), BP_ERR_FAIL);
        EXPECT_EQ(BP_WriteDumpFile("small/dump", "x", 1), BP_ERR_FAIL);
        EXPECT_EQ(Logged("]fwrite file fail") + Logged("]write slab log fail"), 2U);
    }
}

// Whatever another thread does to the source meanwhile: a result, and never more than the block.
TEST_F(Dumps, TailFile_OfAFileThatGrowsAndShrinks) {
    WriteFile("src", "x\n");
    off_t lRound = 0;
    const Repeater stWriter([&] {
        lRound++;
        truncate("src", lRound % 3 == 0 ? 60000 : lRound % 7);
    });
    for (int i = 0; i < 300; i++) {
        EXPECT_EQ(BP_TailFile("src", "dst", "w", 3), BP_OK);
        EXPECT_EQ(ReadFile("dst").find("=====src=====\n"), 0U);
        EXPECT_LT(ReadFile("dst").size(), 24576U);
    }
}

TEST_F(Dumps, CollectKeyLog_GoesOnWithItsNextSource) {
    WriteFile("/var/log/ISP_IMG00.log", "isp\n");
    WriteFile(BP_KEY_DUMP_PATH, "from before\n");
    unlink("/var/log/MW_MWARE00.log"); // replaced by the lines below
    BP_CollectKeyLog();
    EXPECT_EQ(ReadFile(BP_KEY_DUMP_PATH), "from before\n=====/var/log/ISP_IMG00.log=====\nisp\n");
    EXPECT_EQ(Logged("Collect MWARE SlabLog fail") + Logged("Collect DRV SlabLog fail"), 2U);
    BP_CollectKeyLog();
    EXPECT_EQ(ReadFile(BP_KEY_DUMP_PATH).find("=====/var/log/MW_MWARE00.log=====\n"), 0U);
}

// Running short inside the scan, which holds the timer pool's lock.
TEST_F(Dumps, ShortageInTheScan_DumpsWithoutDeadlock) {
    SetClock(1000);
    ASSERT_EQ(BP_StartCycleTimer(MW_CTRL, 10, OnCom, 0, &ulTimerID_), BP_OK);
    std::vector<BP_SlabBuf *> apstBuf;
    for (uint32_t i = 0; i < 256; i++) {
        apstBuf.push_back(BP_SlabGetBuf(4, BP_SLAB_TYPE_TIMER));
    }
    SetClock(1001);
    EXPECT_EQ(BP_CheckTimerExpire(), BP_OK);
    EXPECT_EQ(Logged("[BP_SlabGetBuf]Slab full, Print Slab_*.log. Size=4, Type=1"), 1U);
    EXPECT_EQ(CountOf(ReadFile(BP_SLAB_DUMP_PATH), ": TimerID["), 256U);
    EXPECT_EQ(CountOf(ReadFile(BP_TIMER_DUMP_PATH), "MW_CTRL     10          cycle"), 1U);
    EXPECT_TRUE(FileExists(BP_KEY_DUMP_PATH));
    unlink(BP_SLAB_DUMP_PATH);
    BP_CheckTimerExpire();
    EXPECT_FALSE(FileExists(BP_SLAB_DUMP_PATH)); // latched
    FreeAll(apstBuf);
    EXPECT_TRUE(AllSlabsFull());
}

// Threads that run each class dry together, with others at work: one set of dumps while no latch is set, and
// everything comes back.
TEST_F(Dumps, ManyThreadsRunShort_DumpOnceAndRecover) {
    const Repeater stObserver([] { EXPECT_EQ(SlabFault(), ""); });
    for (uint32_t i = 0; i < BP_SLAB_CLASS_NUM; i++) {
        const uint32_t ulSize = g_astSlabConfig[i].ulSize;
        const uint32_t ulType = i == BP_SLAB_CLASS_TIMER ? BP_SLAB_TYPE_TIMER : BP_SLAB_TYPE_MSG;
        BP_Write(g_stBPbuffLogMgr.aulLatch[BP_BUF_LOG_MSG], 0U); // as in a process that this is the first for
        {
            const Threads stDry(8, [=](uint32_t) { RunDry(ulSize, ulType); });
            EXPECT_EQ(BP_StartCycleTimer(MW_CTRL, 60000, OnCom, 0, &ulTimerID_), BP_OK);
        }
        const size_t ulSaid =
            Logged("[BP_SlabGetBuf]Slab full, Print Slab_*.log. Size=" + std::to_string(ulSize) +
                   ", Type=" + std::to_string(ulType));
        EXPECT_GE(ulSaid, 1U);
        EXPECT_LE(ulSaid, ulType == BP_SLAB_TYPE_MSG ? 1U : 8U); // the timer latch may open in between
        EXPECT_TRUE(AllSlabsFull());
    }
}

// More than ten free notices are plenty.
TEST_F(Dumps, TimerLatchOpensWithPlenty) {
    std::vector<BP_SlabBuf *> apstBuf = TakeAll(4, BP_SLAB_TYPE_TIMER);
    uint32_t ulFreed = 0;
    for (const uint32_t ulFree : {10U, 11U}) { // as one is taken
        for (; ulFreed < ulFree; ulFreed++) {
            BP_SlabFreeBuf(apstBuf.back());
            apstBuf.pop_back();
        }
        BP_SlabFreeBuf(BP_SlabGetBuf(4, BP_SLAB_TYPE_TIMER));
        EXPECT_EQ(BP_Read(g_stBPbuffLogMgr.aulLatch[BP_BUF_LOG_TIMER]), ulFree == 10 ? 1U : 0U);
    }
    FreeAll(apstBuf);
}

// The message latch stays shut, also for notices; the timer latch opens once notices are plentiful again.
TEST_F(Dumps, Latches) {
    const auto pfnDumped = [](uint32_t ulSize, uint32_t ulType) {
        unlink(BP_SLAB_DUMP_PATH);
        RunDry(ulSize, ulType);
        return FileExists(BP_SLAB_DUMP_PATH);
    };
    EXPECT_TRUE(pfnDumped(4, BP_SLAB_TYPE_TIMER));
    EXPECT_FALSE(pfnDumped(100, BP_SLAB_TYPE_MSG)); // no notice was taken since
    EXPECT_TRUE(pfnDumped(4, BP_SLAB_TYPE_TIMER));
    BP_SlabFreeBuf(BP_SlabGetBuf(4, BP_SLAB_TYPE_TIMER));
    EXPECT_TRUE(pfnDumped(16384, BP_SLAB_TYPE_MSG));
    EXPECT_FALSE(pfnDumped(4, BP_SLAB_TYPE_TIMER));
    EXPECT_FALSE(pfnDumped(100, BP_SLAB_TYPE_MSG));
    EXPECT_TRUE(AllSlabsFull());
}
