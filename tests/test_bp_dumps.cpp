#include <gtest/gtest.h>
#include <sys/stat.h>

#include "bp/bp.h"
#include "tests/support/bus_peer.h"
#include "tests/support/fake_clock.h"
#include "tests/support/files.h"
#include "tests/support/slab_check.h"
#include "tests/support/threads.h"

static const char g_szLog[] = "/var/log/MW_MWARE00.log";
static const char g_szLegend[] =
    "Timer_slab: msg[236-491], size:0x8;\n"
    "Msg_slab: msg[492-495], size:0x4000; msg[496-503], size:0x1000; msg[504-519], size:0x800; msg[520-551], "
    "size:0x400;\n"
    "          msg[552-615], size:0x200; msg[616-743], size:0x100; msg[744-999], size:0x80.\n";

class Dumps : public testing::Test {
protected:
    void SetUp() override {
        setenv("TZ", "UTC0", 1);
        SetClock(Utc("2026-03-05T07:08:09"));
        ASSERT_EQ(BP_MwareInit("MW_MWARE", 101), BP_OK);
        ASSERT_EQ(BP_RegistModule("MW_CTRL", 1, &ulCtrlID_), BP_OK);
    }
    static size_t Logged(const std::string &szLine) { return CountOf(ReadFile(g_szLog), szLine); }
    static BP_SlabBuf *Take(uint32_t ulLen, uint32_t ulType, const std::vector<uint32_t> &aulWord) {
        BP_SlabBuf *pstBuf = BP_SlabGetBuf(ulLen, ulType);
        memcpy(pstBuf->pucData + (ulType == BP_SLAB_TYPE_MSG ? 40 : 0), aulWord.data(), aulWord.size() * 4);
        return pstBuf;
    }
    uint32_t ulCtrlID_ = 0;
};

TEST_F(Dumps, SlabDump_ListsUsedBuffersById) {
    BP_DumpSlabLog();
    EXPECT_EQ(ReadFile(BP_SLAB_DUMP_PATH), std::string(g_szLegend) + "03-05 07:08:09 \n");

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
    EXPECT_EQ(ReadFile(BP_SLAB_DUMP_PATH),
              std::string(g_szLegend) +
                  "msg[236]: TimerID[4711] UsedFlag[1]\n"
                  "msg[744]: type[-1] cmd[31051] incmd[4294967294] from[0xcd] to[0xab] UsedFlag[1]\n"
                  "msg[746]: type[3] cmd[5] incmd[6] from[0x2] to[0x1] UsedFlag[3]\n"
                  "03-05 07:08:09 \n");
}

TEST_F(Dumps, SlabDump_IsCutAtItsSize) {
    BP_GetProcInfo()->usProcID = 257; // exempt, so that every buffer can be taken
    for (const BP_SlabConfig &stRow : g_astSlabConfig) {
        for (uint32_t i = 0; i < stRow.ulNum; i++) {
            Take(stRow.ulSize == 8 ? 4 : stRow.ulSize,
                 stRow.ulSize == 8 ? BP_SLAB_TYPE_TIMER : BP_SLAB_TYPE_MSG, {0xFFFFFFFF});
        }
    }
    BP_DumpSlabLog();
    EXPECT_EQ(ReadFile(BP_SLAB_DUMP_PATH).size(), 24575U);
}

static uint32_t OnCom(uint32_t, uint32_t) {
    return 0;
}
static uint32_t OnExt(uint32_t, uint32_t, int32_t) {
    return 0;
}

TEST_F(Dumps, TimerDump_ListsWorkingTimersInTheirOrder) {
    static const char szHeading[] =
        "TimerID   ModuleName  Interv(ms)  Type      StartTime   EndTime     CurExpire   "
        "NextExpire  CB(type:func)   \n";
    BP_DumpTimerLog();
    EXPECT_EQ(ReadFile(BP_TIMER_DUMP_PATH), std::string(szHeading) + "total: 0 \n");

    SetClock(1772700000);
    uint32_t ulID = 0;
    ASSERT_EQ(BP_StartCycleTimer(ulCtrlID_, 1500, OnCom, 0, &ulID), BP_OK);
    BP_TimerParam stDay = {};
    stDay.ulModuleID = ulCtrlID_;
    stDay.ulType = BP_TIMER_DAY;
    stDay.ulCbType = BP_TIMER_CB_EXT;
    stDay.pfnExtCb = OnExt;
    stDay.usHour = 8;
    stDay.usMinute = 5;
    stDay.lStopTime = 2000000000;
    ASSERT_EQ(BP_RegistTimer(&stDay, &ulID), BP_OK);
    ASSERT_EQ(BP_StartOnceTimer(ulCtrlID_, 7, OnCom, 0, &ulID), BP_OK);
    BP_Write(BP_GetLockTimerByID(ulID)->ulModuleID, 0x90000006U);
    BP_DumpTimerLog(); // with the pool lock held, as in the scan
    BP_GetProcInfo()->stTimerCtrl.semLock.Post();
    char szRows[600];
    snprintf(
        szRows, sizeof(szRows),
        "1         MW_CTRL     1500        cycle     0           0           1772700001  1772700003  com:%p \n"
        "2         MW_CTRL     08:05:00    day       0           2000000000  1772784300  1772870700  ext:%-10p "
        "\n"
        "3         UNKNOWN     7           once      0           0           1772700000  0           com:%p \n"
        "total: 3 \n",
        reinterpret_cast<void *>(OnCom), reinterpret_cast<void *>(OnExt), reinterpret_cast<void *>(OnCom));
    EXPECT_EQ(ReadFile(BP_TIMER_DUMP_PATH), std::string(szHeading) + szRows);
}

// A source, and the block that is left of it; 3 lines wanted.
TEST_F(Dumps, TailFile_CopiesTheLastLines) {
    static const char szHead[] = "=====src=====\n";
    static const size_t ulRoom = 24575 - (sizeof(szHead) - 1);
    const std::string szLong(100000, 'l');
    std::string szLines;
    for (int i = 0; i < 5000; i++) {
        szLines += "line " + std::to_string(i) + "\n";
    }
    const struct {
        const char *pcName;
        std::string szSource, szTail;
    } astCase[] = {
        {"empty", "", ""},
        {"fewer lines", "a\nb\n", "a\nb\n"},
        {"just as many", "a\nb\nc\n", "a\nb\nc\n"},
        {"more", "a\nb\nc\nd\n", "b\nc\nd\n"},
        {"unfinished last line", "a\nb\nc\nd\ne", "b\nc\nd\ne"},
        {"empty lines", "\n\n\n\n\n", "\n\n\n"},
        {"many lines", szLines, "line 4997\nline 4998\nline 4999\n"},
        {"no line end", szLong, szLong.substr(0, ulRoom)},
        {"long last line", "a\nb\nc\n" + szLong, ("a\nb\nc\n" + szLong).substr(0, ulRoom)},
        {"long line before", szLong + "\nb\nc\nd\n", "b\nc\nd\n"},
        {"line ends at a block's edge",
         "x\n" + std::string(4095, 'a') + "\n" + std::string(4095, 'b') + "\nc\n",
         std::string(4095, 'a') + "\n" + std::string(4095, 'b') + "\nc\n"},
        {"binary", std::string("a\n\0b\n", 5), "a\n"}, // the block ends at the first NUL
    };
    for (const auto &stCase : astCase) {
        SCOPED_TRACE(stCase.pcName);
        WriteFile("src", stCase.szSource);
        WriteFile("dst", "old\n");
        EXPECT_EQ(BP_TailFile("src", "dst", "a", 3), BP_OK);
        EXPECT_EQ(ReadFile("dst"), "old\n" + (szHead + stCase.szTail));
        EXPECT_EQ(BP_TailFile("src", "dst", "w", 3), BP_OK);
        EXPECT_EQ(ReadFile("dst"), szHead + stCase.szTail);
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
    unlink(g_szLog); // replaced by the lines below, written anew
    BP_CollectKeyLog();
    EXPECT_EQ(ReadFile(BP_KEY_DUMP_PATH), "from before\n=====/var/log/ISP_IMG00.log=====\nisp\n");
    EXPECT_EQ(Logged("Collect MWARE SlabLog fail") + Logged("Collect DRV SlabLog fail"), 2U);
    BP_CollectKeyLog();
    EXPECT_EQ(ReadFile(BP_KEY_DUMP_PATH).find("=====/var/log/MW_MWARE00.log=====\n"), 0U);
}

// Running short inside the scan, which holds the timer pool's lock.
TEST_F(Dumps, ShortageInTheScan_DumpsWithoutDeadlock) {
    uint32_t ulID = 0;
    SetClock(1000);
    ASSERT_EQ(BP_StartCycleTimer(ulCtrlID_, 10, OnCom, 0, &ulID), BP_OK);
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

static void RunDry(uint32_t ulSize, uint32_t ulType) {
    const std::vector<BP_SlabBuf *> apstBuf = TakeAll(ulSize, ulType);
    for (BP_SlabBuf *pstBuf : apstBuf) {
        memset(pstBuf->pucData, 0x5A, ulSize);
    }
    FreeAll(apstBuf);
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
            uint32_t ulID = 0;
            EXPECT_EQ(BP_StartCycleTimer(ulCtrlID_, 60000, OnCom, 0, &ulID), BP_OK);
        }
        const std::string szLine =
            "[BP_SlabGetBuf]Slab full, Print Slab_*.log. Size=" + std::to_string(ulSize) +
            ", Type=" + std::to_string(ulType);
        EXPECT_GE(Logged(szLine), 1U);
        EXPECT_LE(Logged(szLine), ulType == BP_SLAB_TYPE_MSG ? 1U : 8U); // the timer latch may open in between
        EXPECT_TRUE(AllSlabsFull());
    }
}

// The message latch stays shut, also for notices; the timer latch opens when notices are plentiful again.
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
