// Modules: their records and threads, their queues, and what handlers may do with a message.
#include <thread>

#include "tests/support/on_bus.h"

static BP_Sem g_semBlock(0), g_semEntered(0);

static uint32_t Note(uint32_t ulMsgCode, BP_StructMsg *pstMsg, uint32_t ulParam) {
    return See(std::to_string(ulMsgCode) + "-" + std::to_string(ulParam) + ":" + TextOf(*pstMsg));
}

class Module : public OnBus {};

TEST_F(Module, RowWithoutProcess_BecomesTheCallers) {
    BP_GetModuleConfigByName("sdk_update_cmd")->usProcID = 0;
    EXPECT_EQ(BP_RegistModule("sdk_update_cmd", 1, nullptr), BP_OK);
    EXPECT_EQ(BP_GetModuleConfigByName("sdk_update_cmd")->usProcID, 101);
}

TEST_F(Module, RegisteredTwice_TheYoungerIsFound) {
    ASSERT_EQ(BP_RegistModule("MW_CTRL", 1, nullptr), BP_OK);
    BP_ModuleInfo *pstYounger = BP_GetModuleByID(MW_CTRL);
    ASSERT_NE(pstYounger, pstCtrl_);
    Handle(MW_CTRL, 5, Note);
    Send(MW_CTRL, 5, "x");
    EXPECT_TRUE(HasSeen("5-0:x/"));
    EXPECT_EQ(BP_Read(pstYounger->ulRecvCnt), 1U);
    EXPECT_EQ(BP_Read(pstCtrl_->ulRecvCnt), 0U);
}

TEST_F(Module, ThreadsKnowTheirModule) {
    EXPECT_STREQ(BP_GetCurThreadName(), "MW_MWARE"); // a thread of no module goes by the process
    EXPECT_EQ(BP_GetCurModule(), nullptr);
    StartMainThread();
    EXPECT_EQ(BP_GetCurModule()->ulModuleID, BP_MODULE_ID_MAIN);
    for (const uint32_t ulModuleID : {MW_CTRL, BP_MODULE_ID_MAIN}) {
        Handle(ulModuleID, 0, [](uint32_t, BP_StructMsg *, uint32_t) {
            return See(std::string(BP_GetCurThreadName()) + "=" + BP_GetCurModule()->szModuleName);
        });
    }
    Send(MW_CTRL, 1, "");
    ASSERT_TRUE(HasSeen("MW_CTRL=MW_CTRL/"));
    Send(BP_MODULE_ID_MAIN, 1, ""); // served by the main thread's idle pass
    EXPECT_TRUE(HasSeen("MW_CTRL=MW_CTRL/MW_MWARE=MW_MWARE/"));
    // The command module's thread may only be starting, and each thread that starts rewrites the file.
    EXPECT_TRUE(WaitFor([] {
        const std::string szThreads = ReadFile("/tmp/ThreadInfo[" + std::to_string(getpid()) + "].log");
        return CountOf(szThreads, "MW_MWARE_cmd:") == 1 && CountOf(szThreads, "MW_CTRL:") == 1 &&
               CountOf(szThreads, "MW_MWARE:") == 1;
    }));
}

TEST_F(Module, HandlersAreChosenByTypeAndCode) {
    Handle(MW_CTRL, 4, Note, 1);
    Handle(MW_CTRL, 0, Note, 2);
    Handle(MW_CTRL, 5, Note, 3); // after the one for every code
    Handle(MW_CTRL, 5, Note, 4, BP_PROC_TABLE_INNER);
    Send(MW_CTRL, 4, "a");
    Send(MW_CTRL, 5, "b");
    Send(MW_CTRL, 5, "c", BP_MSG_TYPE_INNER);
    Send(MW_CTRL, 5, "d", 77);
    Send(MW_CTRL, 6, "e", BP_MSG_TYPE_INNER); // without a handler: counted and given back
    EXPECT_TRUE(WaitFor([&] { return BP_Read(pstCtrl_->ulRecvCnt) == 5; }));
    EXPECT_TRUE(AllSlabsRefill());
    EXPECT_EQ(Seen(), "4-1:a/5-2:b/5-4:c/5-2:d/");
    EXPECT_EQ(BP_Read(pstCtrl_->ulLastRecvMsg), 6U);
}

TEST_F(Module, GetMsg_ByPlaceAndByIdentifier) {
    BP_ListCtrl stQueue;
    stQueue.Init(BP_NO_LIMIT);
    BP_SlabBuf *apstBuf[4];
    for (BP_SlabBuf *&pstBuf : apstBuf) {
        pstBuf = Make(MW_CTRL, 1, "x").pstSlabBuf; // identifiers 0, 1, 2, 3
        ASSERT_EQ(BP_ModuleAddMsg(&stQueue, pstBuf), BP_OK);
    }
    BP_SlabFreeBuf(apstBuf[2]); // leaves the queue
    EXPECT_EQ(BP_ModuleGetMsg(&stQueue, BP_GET_BY_ASSI_ID, 1), apstBuf[1]);
    EXPECT_EQ(BP_Read(apstBuf[1]->ucFlag), BP_BUF_TAKEN | BP_BUF_DEQUEUED);
    EXPECT_EQ(BP_QueueLength(&stQueue), 2U);
    EXPECT_EQ(BP_ModuleGetMsg(&stQueue, BP_GET_FIRST, 0), apstBuf[0]);
    EXPECT_EQ(BP_ModuleGetMsg(&stQueue, BP_GET_FIRST, 0), apstBuf[3]);
    for (BP_SlabBuf *pstBuf : {apstBuf[0], apstBuf[1], apstBuf[3]}) {
        BP_SlabFreeBuf(pstBuf);
    }
}

static BP_StructMsg g_stKept;

// What is kept or sent on has no mark of its requester's any more, and none can reach it.
TEST_F(Module, HandlersMayKeepOrForwardTheMessage) {
    ASSERT_EQ(BP_RegistModule("MW_PTZ", 1, nullptr), BP_OK);
    Handle(MW_CTRL, 1, [](uint32_t ulMsgCode, BP_StructMsg *pstMsg, uint32_t) {
        g_stKept = BP_KeepMsg(pstMsg);
        return Note(ulMsgCode, pstMsg, 0);
    });
    Handle(MW_CTRL, 2, [](uint32_t ulMsgCode, BP_StructMsg *pstMsg, uint32_t ulParam) {
        BP_ConfigMsgHdr(pstMsg, MW_CTRL, MW_PTZ, ulMsgCode + 1, ulParam);
        return BP_SendMsgProc(BP_GetModuleByID(MW_CTRL), pstMsg);
    });
    Handle(
        MW_PTZ, 3,
        [](uint32_t ulMsgCode, BP_StructMsg *pstMsg, uint32_t ulParam) {
            g_semEntered.Post();
            g_semBlock.Wait();
            return Note(ulMsgCode, pstMsg, ulParam);
        },
        9);
    for (const uint32_t ulMsgCode : {1U, 2U}) {
        BP_StructMsg stMsg = Make(MW_CTRL, ulMsgCode, ulMsgCode == 1 ? "kept" : "forwarded");
        BP_SlabBuf *pstBuf = stMsg.pstSlabBuf;
        const uint32_t ulMark = BP_SlabMarkSeq(pstBuf);
        ASSERT_EQ(BP_SendMsgProc(pstCtrl_, &stMsg), BP_OK);
        if (ulMsgCode == 2) {
            g_semEntered.Wait();
        } else {
            ASSERT_TRUE(HasSeen("1-0:kept/"));
        }
        BP_SlabMarkTimeout(pstBuf, ulMark);
        EXPECT_EQ(BP_Read(pstBuf->ucFlag) & BP_BUF_TIMEOUT, 0) << ulMsgCode;
    }
    g_semBlock.Post();
    ASSERT_TRUE(HasSeen("1-0:kept/3-9:forwarded/"));
    EXPECT_EQ(TextOf(g_stKept), "kept");
    BP_EraseMsgData(&g_stKept);
}

static std::atomic<BP_SlabBuf *> g_pstHanded{nullptr};

// The thread that a kept message is handed to gives it back while the module's thread returns from the handler.
TEST_F(Module, KeptMessage_IsGivenBackByAnotherThread) {
    Handle(MW_CTRL, 1, [](uint32_t, BP_StructMsg *pstMsg, uint32_t) {
        pstMsg->ulFlags |= BP_MSG_FLAG_KEEP;
        g_pstHanded = pstMsg->pstSlabBuf;
        return BP_OK;
    });
    for (int i = 0; i < 60000; i++) {
        Send(MW_CTRL, 1, "x");
        BP_SlabBuf *pstBuf = nullptr;
        while ((pstBuf = g_pstHanded.exchange(nullptr)) == nullptr) {
        }
        BP_StructMsg stKept = {0, 0, pstBuf};
        BP_EraseMsgData(&stKept);
    }
}

// A request whose sender stops waiting: not handled if it is still queued, its answer withdrawn if it is being
// handled, its buffer given back even if the handler has erased the message itself.
TEST_F(Module, TimedOutRequest_IsDroppedWithItsAnswer) {
    ASSERT_EQ(BP_RegistModule("MW_PTZ", 1, nullptr), BP_OK);
    for (const uint32_t ulMsgCode : {1U, 2U, 3U}) {
        Handle(MW_PTZ, ulMsgCode, [](uint32_t ulCode, BP_StructMsg *pstMsg, uint32_t) {
            g_semEntered.Post();
            g_semBlock.Wait();
            if (ulCode == 3) {
                BP_EraseMsgData(pstMsg);
            }
            return ulCode == 2 ? BP_SendAckMsg(pstMsg, "late", 4) : ulCode == 1 ? Note(1, pstMsg, 0) : BP_OK;
        });
    }
    Send(MW_PTZ, 1, "busy");
    g_semEntered.Wait();
    for (const uint32_t ulMsgCode : {1U, 2U, 3U}) {
        BP_StructMsg stReq = Make(MW_PTZ, ulMsgCode, "late");
        BP_SlabBuf *pstBuf = stReq.pstSlabBuf;
        const uint32_t ulMark = BP_SlabMarkSeq(pstBuf);
        BP_SendMsgProc(pstCtrl_, &stReq);
        if (ulMsgCode != 1) {
            g_semEntered.Wait();
        }
        BP_SlabMarkTimeout(pstBuf, ulMark);
        g_semBlock.Post();
        ASSERT_TRUE(AllSlabsRefill()) << ulMsgCode;
    }
    EXPECT_EQ(Seen(), "1-0:busy/");
    EXPECT_EQ(Logged("[BP_FreeTimeoutAckMsg]Force free ack slab buf, AssiMsgId:2"), 1U);
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
        Handle(MW_CTRL, i, Note);
    }
    bDone = true;
    stLooker.join();
}
