// Buffer pools.
#include <algorithm>

#include "tests/support/on_bus.h"

class Slab : public testing::Test {
protected:
    // A process with this ID; that of ks is exempt from the reserve.
    static void Start(uint16_t usProcID) {
        BP_InitLog("t");
        BP_RegCmdModuleID("BP", 0, 0, BP_LOG_BP_MODULE_ID);
        BP_Write(BP_FindLogModule(BP_LOG_BP_MODULE_ID)->ulDebugOn, 1U);
        BP_GetProcInfo()->usProcID = usProcID;
        ASSERT_EQ(BP_InitBufManager(), BP_OK);
    }
    void TearDown() override { EXPECT_TRUE(AllSlabsFull()); }
};

TEST_F(Slab, GetBuf_TakesFromTheSmallestClassThatFits) {
    Start(0);
    const struct {
        uint32_t ulSize, ulType;
        int lBid; // -1: none
    } astCase[] = {{0, 0, 744},    {128, 0, 744},  {129, 0, 616},  {256, 0, 616},  {512, 0, 552},
                   {1024, 0, 520}, {2048, 0, 504}, {4096, 0, 496}, {4097, 0, 492}, {16384, 0, 492},
                   {16385, 0, -1}, {4, 1, 236},    {8, 1, 236},    {9, 1, -1},     {4, 2, -1}};
    for (const auto &stCase : astCase) {
        SCOPED_TRACE(stCase.ulSize);
        BP_SlabBuf *pstBuf = BP_SlabGetBuf(stCase.ulSize, stCase.ulType);
        ASSERT_EQ(pstBuf != nullptr ? pstBuf->usBid : -1, stCase.lBid);
        if (pstBuf != nullptr) {
            EXPECT_EQ(BP_Read(pstBuf->usLen), stCase.ulSize);
            EXPECT_EQ(BP_Read(pstBuf->ucFlag), BP_BUF_TAKEN);
            EXPECT_FALSE(BP_ListNodeLinked(&pstBuf->stNode));
            EXPECT_EQ(BP_SlabFreeBuf(pstBuf), BP_OK); // last in, first out: the next row gets the same one
        }
    }
    EXPECT_EQ(ReadFile("/var/log/t00.log"), "");
}

TEST_F(Slab, BuffersOfAllClassesAreDisjoint) {
    Start(257);
    std::vector<std::pair<uint8_t *, uint32_t>> astRange;
    std::vector<BP_SlabBuf *> apstAll;
    for (uint32_t i = 0; i < BP_SLAB_CLASS_NUM; i++) {
        const uint32_t ulType = i == BP_SLAB_CLASS_TIMER ? BP_SLAB_TYPE_TIMER : BP_SLAB_TYPE_MSG;
        for (BP_SlabBuf *pstBuf : TakeAll(g_astSlabConfig[i].ulSize, ulType)) {
            if (pstBuf->usSlabId == i) {
                astRange.emplace_back(pstBuf->pucData, g_astSlabConfig[i].ulSize);
            }
            apstAll.push_back(pstBuf);
        }
    }
    ASSERT_EQ(astRange.size(), 764U);
    std::sort(astRange.begin(), astRange.end());
    for (size_t i = 1; i < astRange.size(); i++) {
        ASSERT_LE(astRange[i - 1].first + astRange[i - 1].second, astRange[i].first);
    }
    EXPECT_EQ(astRange.back().first + astRange.back().second - astRange.front().first, 264192);
    EXPECT_TRUE(FreeAll(apstAll));
}

TEST_F(Slab, Reserve_IsForExemptCallersOnly) {
    const struct {
        uint32_t ulSize, ulType, ulKept;
    } astCase[] = {{128, 0, 10}, {256, 0, 5},  {512, 0, 2},   {1024, 0, 0},
                   {2048, 0, 0}, {4096, 0, 0}, {16384, 0, 0}, {8, 1, 0}};
    Start(0);
    for (const auto &stCase : astCase) {
        SCOPED_TRACE(stCase.ulSize);
        BP_GetProcInfo()->usProcID = 0; // any process
        const std::vector<BP_SlabBuf *> apstBuf = TakeAll(stCase.ulSize, stCase.ulType);
        BP_SlabInfo stInfo = {};
        BP_GetSlabInfo(apstBuf.back()->usSlabId, &stInfo);
        EXPECT_EQ(stInfo.ulFreeNum, stCase.ulKept);
        BP_GetProcInfo()->usProcID = 257; // ks
        const std::vector<BP_SlabBuf *> apstRest = TakeAll(stCase.ulSize, stCase.ulType);
        EXPECT_EQ(apstRest.size(), stCase.ulKept);
        EXPECT_TRUE(FreeAll(apstRest));
        EXPECT_TRUE(FreeAll(apstBuf));
    }
    const std::string szDebug = ReadFile("/var/log/t00.debug");
    EXPECT_EQ(CountOf(szDebug, "[BP_IsSlabBufAvaliable]slab buff(size 128) has only 10."), 1U);
    EXPECT_EQ(CountOf(szDebug, "[BP_SlabGetBuf]fail to get buf from slab manager 0."), 1U);
}

// One thread frees what it has queued although the queue is read, and the reader frees what it takes: whose
// free comes first is open, but no list or count suffers.
TEST_F(Slab, FreeBuf_WhileItsQueueIsRead_KeepsListsAndCounts) {
    Start(257);
    BP_SetLogLevel(BP_LOG_LEVEL_FATAL);
    BP_ListCtrl stQueue;
    stQueue.Init(BP_NO_LIMIT);
    for (int i = 0; i < 200; i++) {
        std::vector<BP_SlabBuf *> apstBuf = TakeAll(50, BP_SLAB_TYPE_MSG);
        for (BP_SlabBuf *pstBuf : apstBuf) {
            BP_ModuleAddMsg(&stQueue, pstBuf);
        }
        std::reverse(apstBuf.begin(), apstBuf.end());
        {
            const Threads stReader(1, [&](uint32_t) {
                while (BP_SlabBuf *pstBuf = BP_ModuleGetMsg(&stQueue, BP_GET_FIRST, 0)) {
                    BP_SlabFreeBuf(pstBuf);
                }
            });
            EXPECT_TRUE(FreeAll(apstBuf));
        }
        ASSERT_EQ(BP_QueueLength(&stQueue), 0U);
        ASSERT_TRUE(AllSlabsFull());
    }
}

TEST_F(Slab, GetBuf_KnowsOtherSizes) {
    g_astSlabConfig[0].ulSize = 100;
    g_astSlabConfig[6].ulSize = 32768;
    Start(0);
    for (const auto &[ulSize, lBid] : {std::pair(100U, 744), {101, 616}, {16385, 492}, {32768, 492}}) {
        BP_SlabBuf *pstBuf = BP_SlabGetBuf(ulSize, BP_SLAB_TYPE_MSG);
        ASSERT_NE(pstBuf, nullptr) << ulSize;
        EXPECT_EQ(pstBuf->usBid, lBid) << ulSize;
        BP_SlabFreeBuf(pstBuf);
    }
}

TEST_F(Slab, TimeoutMark_ReachesOnlyItsOwnMessage) {
    Start(0);
    BP_SlabBuf *pstBuf = BP_SlabGetBuf(50, BP_SLAB_TYPE_MSG);
    const uint32_t ulUse = BP_SlabMarkSeq(pstBuf);
    BP_SlabMarkTimeout(pstBuf, ulUse);
    EXPECT_EQ(BP_Read(pstBuf->ucFlag), BP_BUF_TAKEN | BP_BUF_TIMEOUT);
    EXPECT_TRUE(BP_SlabEndMark(pstBuf, ulUse));
    EXPECT_FALSE(BP_SlabEndMark(pstBuf, ulUse));
    BP_SlabMarkTimeout(pstBuf, ulUse); // changed hands
    EXPECT_EQ(BP_Read(pstBuf->ucFlag), BP_BUF_TAKEN);
    BP_SlabFreeBuf(pstBuf);
    BP_SlabMarkTimeout(pstBuf, ulUse); // given back
    EXPECT_EQ(BP_Read(pstBuf->ucFlag), 0);
    ASSERT_EQ(BP_SlabGetBuf(50, BP_SLAB_TYPE_MSG), pstBuf);
    BP_SlabMarkTimeout(pstBuf, ulUse); // another owner's
    EXPECT_EQ(BP_Read(pstBuf->ucFlag), BP_BUF_TAKEN);
    BP_SlabFreeBuf(pstBuf);
}

TEST_F(Slab, ManyThreads_CountsAlwaysAddUp) {
    Start(257);
    const Repeater stObserver([] { EXPECT_EQ(SlabFault(), ""); });
    Threads(8, [](uint32_t i) {
        for (uint32_t j = 0; j < 5000; j++) {
            BP_SlabBuf *pstBuf = BP_SlabGetBuf((i * 7919 + j * 104729) % 16384, BP_SLAB_TYPE_MSG);
            if (pstBuf != nullptr) {
                pstBuf->pucData[0] = static_cast<uint8_t>(i); // a data race if anybody else holds it
                BP_SlabFreeBuf(pstBuf);
            }
        }
    });
}
