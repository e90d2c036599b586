#include <gtest/gtest.h>
#include <thread>

#include "bp/bp.h"
#include "tests/support/bus_peer.h"
#include "tests/support/files.h"

static constexpr uint32_t MW_CTRL = 0x90000001;
static constexpr uint32_t MW_PTZ = 0x90000003;
static const char g_szLog[] = "/var/log/MW_MWARE00.log";

// What the handlers saw: code, parameter, payload.
static std::mutex g_stSeenLock;
static std::string g_szSeen;
static BP_Sem g_semBlock(0);
static BP_Sem g_semEntered(0);

static uint32_t Note(uint32_t ulMsgCode, BP_StructMsg *pstMsg, uint32_t ulParam) {
    uint8_t *pucText = nullptr;
    uint32_t ulLen = 0;
    BP_DecodeStructMsgData(pstMsg, &pucText, &ulLen);
    const std::lock_guard<std::mutex> stGuard(g_stSeenLock);
    g_szSeen += std::to_string(ulMsgCode) + "/" + std::to_string(ulParam) + ":" +
                std::string(reinterpret_cast<char *>(pucText), ulLen) + " ";
    return BP_OK;
}

static uint32_t Block(uint32_t ulMsgCode, BP_StructMsg *pstMsg, uint32_t ulParam) {
    g_semEntered.Post();
    g_semBlock.Wait();
    return ulParam != 0 ? BP_SendAckMsg(pstMsg, "late", 4) : Note(ulMsgCode, pstMsg, ulParam);
}

static uint32_t BlockAndErase(uint32_t ulMsgCode, BP_StructMsg *pstMsg, uint32_t ulParam) {
    (void)ulMsgCode;
    (void)ulParam;
    g_semEntered.Post();
    g_semBlock.Wait();
    BP_EraseMsgData(pstMsg);
    return BP_OK;
}

static std::string Seen() {
    const std::lock_guard<std::mutex> stGuard(g_stSeenLock);
    return g_szSeen;
}

class Module : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(BP_MwareInit("MW_MWARE", 101), BP_OK);
        ASSERT_EQ(BP_RegistModule("MW_CTRL", 1, nullptr), BP_OK);
        pstCtrl_ = BP_GetModuleByID(MW_CTRL);
    }
    void TearDown() override { EXPECT_TRUE(AllSlabsRefill()); }
    // Sends from MW_CTRL's record, whichever thread calls.
    static void Send(uint32_t ulDstID, uint32_t ulMsgCode, const std::string &szText, uint32_t ulType = 0) {
        BP_StructMsg stMsg = BP_CreatStructMsg(szText.data(), static_cast<uint32_t>(szText.size()));
        ASSERT_EQ(BP_ConfigMsgHdr(&stMsg, MW_CTRL, ulDstID, ulMsgCode, ulType), BP_OK);
        ASSERT_EQ(BP_SendMsgProc(BP_GetModuleByID(MW_CTRL), &stMsg), BP_OK);
        BP_EraseMsgData(&stMsg);
    }
    BP_ModuleInfo *pstCtrl_ = nullptr;
};

TEST_F(Module, RegistModule_RefusesAndLeavesThePool) {
    uint32_t ulID = 0;
    EXPECT_EQ(BP_RegistModule(nullptr, 1, nullptr), BP_ERR_PARAM);
    EXPECT_EQ(BP_RegistModule(std::string(255, 'n').c_str(), 1, nullptr), BP_ERR_PARAM);
    EXPECT_EQ(BP_RegistModule(std::string(254, 'n').c_str(), 1, nullptr), BP_ERR_FAIL);
    EXPECT_EQ(BP_RegistModule("ks_cmd", 1, &ulID), BP_ERR_FAIL);
    EXPECT_EQ(ulID, 0x90009001U);
    const std::string szLog = ReadFile(g_szLog);
    EXPECT_EQ(CountOf(szLog, "[BP_RegistModule]invalid input params."), 2U);
    EXPECT_EQ(CountOf(szLog, "[BP_RegistModule]fail to find module info by name nnn"), 1U);
    EXPECT_EQ(CountOf(szLog, "[BP_RegistModule]cur proc id 101 != module proc id 257"), 1U);

    EXPECT_EQ(BP_RegistModule("MW_MWARE", 1, nullptr), BP_OK);
    EXPECT_EQ(BP_RegistModule("MW_MWARE", 1, nullptr), BP_ERR_FAIL); // a second thread on one socket
    EXPECT_EQ(CountOf(ReadFile(g_szLog), "[BP_RegistModule]main module MW_MWARE is registered already."), 1U);
    for (uint32_t i = 3; i < BP_MAX_MODULE_NUM;
         i++) { // start-up, the fixture and the line above have taken three
        ASSERT_EQ(BP_RegistModule("MW_PTZ", 1, nullptr), BP_OK) << i;
    }
    EXPECT_EQ(BP_RegistModule("MW_PTZ", 1, nullptr), BP_ERR_FAIL);
    EXPECT_EQ(CountOf(ReadFile(g_szLog), "]there is no free module struct"), 1U);
}

TEST_F(Module, RegistModule_RowWithoutProcess_BecomesTheCallers) {
    BP_GetModuleConfigByName("sdk_update_cmd")->usProcID = 0;
    EXPECT_EQ(BP_RegistModule("sdk_update_cmd", 1, nullptr), BP_OK);
    EXPECT_EQ(BP_GetModuleConfigByName("sdk_update_cmd")->usProcID, 101);
}

TEST_F(Module, RegisteredTwice_TheYoungerIsFound) {
    ASSERT_EQ(BP_RegistModule("MW_CTRL", 1, nullptr), BP_OK);
    BP_ModuleInfo *pstYounger = BP_GetModuleByID(MW_CTRL);
    ASSERT_NE(pstYounger, pstCtrl_);
    ASSERT_EQ(BP_RegistMsgProc(MW_CTRL, BP_PROC_TABLE_NORMAL, 5, Note, 0), BP_OK);
    Send(MW_CTRL, 5, "x");
    EXPECT_TRUE(WaitFor([] { return Seen() == "5/0:x "; }));
    EXPECT_EQ(BP_Read(pstYounger->ulRecvCnt), 1U);
    EXPECT_EQ(BP_Read(pstCtrl_->ulRecvCnt), 0U);
}

TEST_F(Module, WakeupModule_KnowsMainAndStrangers) {
    EXPECT_EQ(BP_WakeupModule(BP_MODULE_ID_MAIN), BP_OK); // not even registered
    EXPECT_EQ(BP_WakeupModule(MW_CTRL), BP_OK);
    EXPECT_EQ(BP_WakeupModule(0x90000006), BP_ERR_FAIL);
    EXPECT_EQ(CountOf(ReadFile(g_szLog), "[BP_WakeupModule]invalid ulModuleID 90000006."), 1U);
}

static uint32_t NoteThread(uint32_t ulMsgCode, BP_StructMsg *pstMsg, uint32_t ulParam) {
    (void)ulMsgCode;
    (void)pstMsg;
    (void)ulParam;
    const std::lock_guard<std::mutex> stGuard(g_stSeenLock);
    g_szSeen += std::string(BP_GetCurThreadName()) + "=" + BP_GetCurModule()->szModuleName + " ";
    return BP_OK;
}

TEST_F(Module, ThreadsKnowTheirModule) {
    EXPECT_STREQ(BP_GetCurThreadName(), "MW_MWARE"); // a thread of no module goes by the process
    EXPECT_EQ(BP_GetCurModule(), nullptr);
    ASSERT_EQ(BP_RegistModule("MW_MWARE", 1, nullptr), BP_OK);
    EXPECT_EQ(BP_GetCurModule()->ulModuleID, BP_MODULE_ID_MAIN);
    ASSERT_EQ(BP_RegistMsgProc(MW_CTRL, BP_PROC_TABLE_NORMAL, 0, NoteThread, 0), BP_OK);
    ASSERT_EQ(BP_RegistMsgProc(BP_MODULE_ID_MAIN, BP_PROC_TABLE_NORMAL, 0, NoteThread, 0), BP_OK);
    Send(MW_CTRL, 1, "");
    ASSERT_TRUE(WaitFor([] { return Seen() == "MW_CTRL=MW_CTRL "; }));
    Send(BP_MODULE_ID_MAIN, 1, ""); // served by the main thread's idle pass
    EXPECT_TRUE(WaitFor([] { return Seen() == "MW_CTRL=MW_CTRL MW_MWARE=MW_MWARE "; }));
    // The command module's thread may only be starting, and whichever thread starts writes the file anew.
    EXPECT_TRUE(WaitFor([] {
        const std::string szThreads = ReadFile("/tmp/ThreadInfo[" + std::to_string(getpid()) + "].log");
        return CountOf(szThreads, "MW_MWARE_cmd:") == 1 && CountOf(szThreads, "MW_CTRL:") == 1 &&
               CountOf(szThreads, "MW_MWARE:") == 1;
    }));
}

TEST_F(Module, RegistMsgProc_RefusesWithClearResults) {
    EXPECT_EQ(BP_RegistMsgProc(MW_CTRL, BP_PROC_TABLE_NORMAL, 5, nullptr, 0), BP_ERR_PARAM);
    EXPECT_EQ(BP_RegistMsgProc(MW_CTRL, 2, 5, Note, 0), BP_ERR_PARAM);
    EXPECT_EQ(BP_RegistMsgProc(MW_PTZ, BP_PROC_TABLE_NORMAL, 5, Note, 0), BP_ERR_NO_MODULE);
    for (uint32_t i = 1; i <= BP_MAX_MSG_PROC_NUM; i++) {
        ASSERT_EQ(BP_RegistMsgProc(MW_CTRL, BP_PROC_TABLE_INNER, i, Note, i), BP_OK);
        ASSERT_EQ(BP_RegistMsgProc(MW_CTRL, BP_PROC_TABLE_INNER, 1, Note, i), BP_ERR_PARAM);
    }
    EXPECT_EQ(BP_RegistMsgProc(MW_CTRL, BP_PROC_TABLE_INNER, 51, Note, 0), BP_ERR_FAIL);
    EXPECT_EQ(BP_GetMsgProcByMsgID(&pstCtrl_->stInnerProcCtrl, 50)->ulParam, 50U);
    EXPECT_EQ(BP_GetMsgProcByMsgID(&pstCtrl_->stInnerProcCtrl, 51), nullptr);
    EXPECT_EQ(BP_GetMsgProcByMsgID(nullptr, 51), nullptr);
}

TEST_F(Module, HandlersAreChosenByTypeAndCode) {
    ASSERT_EQ(BP_RegistMsgProc(MW_CTRL, BP_PROC_TABLE_NORMAL, 4, Note, 1), BP_OK);
    ASSERT_EQ(BP_RegistMsgProc(MW_CTRL, BP_PROC_TABLE_NORMAL, 0, Note, 2), BP_OK);
    ASSERT_EQ(BP_RegistMsgProc(MW_CTRL, BP_PROC_TABLE_NORMAL, 5, Note, 3),
              BP_OK); // behind the one for every code
    ASSERT_EQ(BP_RegistMsgProc(MW_CTRL, BP_PROC_TABLE_INNER, 5, Note, 4), BP_OK);
    Send(MW_CTRL, 4, "a");
    Send(MW_CTRL, 5, "b");
    Send(MW_CTRL, 5, "c", BP_MSG_TYPE_INNER);
    Send(MW_CTRL, 5, "d", 77);
    Send(MW_CTRL, 6, "e", BP_MSG_TYPE_INNER); // nobody's: counted and given back
    EXPECT_TRUE(WaitFor([&] { return BP_Read(pstCtrl_->ulRecvCnt) == 5; }));
    EXPECT_TRUE(AllSlabsRefill());
    EXPECT_EQ(Seen(), "4/1:a 5/2:b 5/4:c 5/2:d ");
    EXPECT_EQ(BP_Read(pstCtrl_->ulLastRecvMsg), 6U);
}

TEST_F(Module, GetMsg_ByPlaceAndByIdentifier) {
    BP_ListCtrl stQueue;
    stQueue.Init(BP_NO_LIMIT);
    EXPECT_EQ(BP_ModuleGetMsg(nullptr, BP_GET_FIRST, 0), nullptr);
    EXPECT_EQ(BP_ModuleGetMsg(&stQueue, 7, 0), nullptr);
    EXPECT_EQ(CountOf(ReadFile(g_szLog), "[BP_ModuleGetMsg]enGetbyType"), 0U);
    EXPECT_EQ(BP_ModuleAddMsg(&stQueue, nullptr), BP_ERR_PARAM);
    BP_SlabBuf *apstBuf[3];
    for (BP_SlabBuf *&pstBuf : apstBuf) {
        BP_StructMsg stMsg = BP_CreatStructMsg("x", 1);
        BP_ConfigMsgHdr(&stMsg, MW_CTRL, MW_CTRL, 1, 0); // identifiers 0, 1, 2
        pstBuf = stMsg.pstSlabBuf;
        BP_ModuleAddMsg(&stQueue, pstBuf);
    }
    EXPECT_EQ(BP_ModuleGetMsg(&stQueue, BP_GET_BY_ASSI_ID, 9), nullptr);
    EXPECT_EQ(BP_ModuleGetMsg(&stQueue, 7, 0), nullptr);
    EXPECT_EQ(CountOf(ReadFile(g_szLog), "[BP_ModuleGetMsg]enGetbyType(7) is invalid."), 1U);
    EXPECT_EQ(BP_ModuleGetMsg(&stQueue, BP_GET_BY_ASSI_ID, 1), apstBuf[1]);
    EXPECT_EQ(BP_Read(apstBuf[1]->ucFlag), BP_BUF_TAKEN | BP_BUF_DEQUEUED);
    EXPECT_EQ(BP_ModuleGetMsg(&stQueue, BP_GET_FIRST, 0), apstBuf[0]);
    EXPECT_EQ(BP_ModuleGetMsg(&stQueue, BP_GET_FIRST, 0), apstBuf[2]);
    for (BP_SlabBuf *pstBuf : apstBuf) {
        BP_SlabFreeBuf(pstBuf);
    }
}

static BP_StructMsg g_stKept;
static uint32_t Keep(uint32_t ulMsgCode, BP_StructMsg *pstMsg, uint32_t ulParam) {
    (void)ulParam;
    g_stKept = BP_KeepMsg(pstMsg);
    return Note(ulMsgCode, pstMsg, 0);
}

static uint32_t Forward(uint32_t ulMsgCode, BP_StructMsg *pstMsg, uint32_t ulParam) {
    BP_ConfigMsgHdr(pstMsg, MW_CTRL, MW_PTZ, ulMsgCode + 1, ulParam);
    return BP_SendMsgProc(BP_GetModuleByID(MW_CTRL), pstMsg);
}

TEST_F(Module, HandlersMayKeepOrForwardTheMessage) {
    ASSERT_EQ(BP_RegistModule("MW_PTZ", 1, nullptr), BP_OK);
    ASSERT_EQ(BP_RegistMsgProc(MW_CTRL, BP_PROC_TABLE_NORMAL, 1, Keep, 0), BP_OK);
    ASSERT_EQ(BP_RegistMsgProc(MW_CTRL, BP_PROC_TABLE_NORMAL, 2, Forward, 0), BP_OK);
    ASSERT_EQ(BP_RegistMsgProc(MW_PTZ, BP_PROC_TABLE_NORMAL, 3, Note, 9), BP_OK);
    Send(MW_CTRL, 1, "kept");
    Send(MW_CTRL, 2, "forwarded");
    ASSERT_TRUE(WaitFor([] { return Seen() == "1/0:kept 3/9:forwarded "; }));
    uint8_t *pucText = nullptr;
    uint32_t ulLen = 0;
    ASSERT_EQ(BP_DecodeStructMsgData(&g_stKept, &pucText, &ulLen), BP_OK);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(pucText), ulLen), "kept");
    BP_EraseMsgData(&g_stKept);
}

static std::atomic<BP_SlabBuf *> g_pstHanded{nullptr};
static uint32_t KeepByHand(uint32_t, BP_StructMsg *pstMsg, uint32_t) {
    pstMsg->ulFlags |= BP_MSG_FLAG_KEEP;
    g_pstHanded = pstMsg->pstSlabBuf;
    return BP_OK;
}

// The thread that a kept message is handed to gives it back while the module's thread returns from the handler.
TEST_F(Module, KeptMessage_IsGivenBackByAnotherThread) {
    ASSERT_EQ(BP_RegistMsgProc(MW_CTRL, BP_PROC_TABLE_NORMAL, 1, KeepByHand, 0), BP_OK);
    for (int i = 0; i < 60000; i++) {
        Send(MW_CTRL, 1, "x");
        BP_SlabBuf *pstBuf = nullptr;
        while ((pstBuf = g_pstHanded.exchange(nullptr)) == nullptr) {
        }
        BP_StructMsg stKept = {0, 0, pstBuf};
        BP_EraseMsgData(&stKept);
    }
}

// A request whose sender stops waiting: not handled when it is still queued, its answer withdrawn when it is
// being handled, its buffer given back even when the handler has erased the message itself.
TEST_F(Module, TimedOutRequest_IsDroppedWithItsAnswer) {
    ASSERT_EQ(BP_RegistModule("MW_PTZ", 1, nullptr), BP_OK);
    ASSERT_EQ(BP_RegistMsgProc(MW_PTZ, BP_PROC_TABLE_NORMAL, 1, Block, 0), BP_OK);
    ASSERT_EQ(BP_RegistMsgProc(MW_PTZ, BP_PROC_TABLE_NORMAL, 2, Block, 1), BP_OK);
    ASSERT_EQ(BP_RegistMsgProc(MW_PTZ, BP_PROC_TABLE_NORMAL, 3, BlockAndErase, 0), BP_OK);
    Send(MW_PTZ, 1, "busy");
    g_semEntered.Wait();
    for (const uint32_t ulMsgCode : {1U, 2U, 3U}) {
        BP_StructMsg stReq = BP_CreatStructMsg("late", 4);
        BP_ConfigMsgHdr(&stReq, MW_CTRL, MW_PTZ, ulMsgCode, 0);
        BP_SlabBuf *pstBuf = stReq.pstSlabBuf;
        const uint32_t ulUse = BP_SlabMarkSeq(pstBuf);
        BP_SendMsgProc(pstCtrl_, &stReq);
        if (ulMsgCode != 1) {
            g_semEntered.Wait();
        }
        BP_SlabMarkTimeout(pstBuf, ulUse);
        g_semBlock.Post();
        ASSERT_TRUE(AllSlabsRefill()) << ulMsgCode;
    }
    EXPECT_EQ(Seen(), "1/0:busy ");
    EXPECT_EQ(CountOf(ReadFile(g_szLog), "[BP_FreeTimeoutAckMsg]Force free ack slab buf, AssiMsgId:2"), 1U);
}

TEST_F(Module, FreeTimeoutAckMsg_ForAStranger_OnlyWarns) {
    BP_MsgHdr stHdr = {};
    stHdr.ulModuleSrcID = 0x90000006;
    BP_FreeTimeoutAckMsg(&stHdr);
    EXPECT_EQ(CountOf(ReadFile(g_szLog), "[W(0)][bp_module-"), 2U); // one is start-up's
    EXPECT_EQ(CountOf(ReadFile(g_szLog), "[BP_FreeTimeoutAckMsg]Not Found Src Module:2415919110"), 1U);
}

TEST_F(Module, RegistrationAmidLookups) {
    std::atomic<bool> bDone{false};
    std::thread stLooker([&] {
        for (uint32_t ulSent = 1; !bDone; ulSent++) {
            ASSERT_NE(BP_GetModuleByID(MW_CTRL), nullptr);
            BP_GetCurThreadName();
            BP_GetMsgProcByMsgID(&pstCtrl_->stMsgProcCtrl, 49);
            Send(MW_CTRL, 60, "x");
            ASSERT_TRUE(WaitFor([&] { return BP_Read(pstCtrl_->ulRecvCnt) == ulSent; }));
        }
    });
    for (uint32_t i = 1; i <= 20; i++) {
        ASSERT_EQ(BP_RegistModule("MW_PTZ", 1, nullptr), BP_OK);
        ASSERT_EQ(BP_RegistMsgProc(MW_CTRL, BP_PROC_TABLE_NORMAL, i, Note, 0), BP_OK);
    }
    bDone = true;
    stLooker.join();
}

TEST_F(Module, ThreadEntries_WithoutRecord) {
    EXPECT_EQ(BP_ThreadProcMain(nullptr), nullptr);
    EXPECT_EQ(BP_ThreadRecvMsgProc(nullptr), BP_ERR_PARAM);
    EXPECT_EQ(CountOf(ReadFile(g_szLog), "[BP_ThreadProcMain]invalid thread input params."), 1U);
    EXPECT_DEATH(BP_MainThreadProcMain(nullptr), "Assertion `\\(\\(void \\*\\)0\\) != pstWorkModule' failed");
}
