#include <csignal>
#include <gtest/gtest.h>
#include <pthread.h>

#include "tests/support/on_bus.h"
#include "tests/support/slab_check.h"
#include "tests/support/threads.h"

// The console's process, with the target played by a script.
class SyncRemote : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(BP_MwareInit("ks", 257), BP_OK); }
    void TearDown() override { EXPECT_TRUE(AllSlabsRefill()); }
    static std::string Ask(const std::string &szText, uint32_t ulTimeout, uint32_t ulMsgCode = 31060) {
        return ::Ask(BP_MODULE_ID_MWARE_CMD, szText, ulTimeout, ulMsgCode);
    }
};

TEST_F(SyncRemote, FirstRequests_LeaveByteForByte) {
    ScriptedTarget stTarget(PORT_MWARE, AnswerAll("ok"));
    EXPECT_EQ(Ask("dbgcmd", 10, 31051), "ok");
    EXPECT_EQ(Ask("dbgcmd", 10, 31052), "ok");
    const std::vector<WireMsg> astReq = stTarget.Requests();
    ASSERT_EQ(astReq.size(), 2U);
    for (uint8_t i = 0; i < 2; i++) {
        const uint8_t ucCode = static_cast<uint8_t>(0x4B + i);
        const uint8_t aucHead[] = {0x35, 0x23, 0x12, 0xDE, 0,    0,    0,    0,    ucCode, 0x79, 0,    0, i,
                                   0,    0,    0,    0xFF, 0xFF, 0xFF, 0xFF, 0xFE, 0xFF,   0xFF, 0xFF, 1, 1,
                                   101,  0,    46,   0,    0,    0,    0,    0,    0,      0,    0,    0};
        EXPECT_EQ(Bytes(astReq[i]).substr(0, 38), std::string(reinterpret_cast<const char *>(aucHead), 38));
        EXPECT_EQ(astReq[i].szPayload, "dbgcmd");
    }
}

TEST_F(SyncRemote, AnswerTexts) {
    const struct {
        std::string szPayload, szText;
    } astCase[] = {{"abc", "abc"},
                   {"", ""},
                   {std::string("abc\0def", 7), "abc"},
                   {std::string(8152, 'x'), std::string(8152, 'x')}};
    ScriptedTarget stTarget(PORT_MWARE, AnswerAll(""));
    for (const auto &stCase : astCase) {
        stTarget.SetScript(AnswerAll(stCase.szPayload));
        EXPECT_EQ(Ask("x", 10), stCase.szText);
    }
}

// Eight threads run a class dry, ask in the shortage, and ask again when it is over.
TEST_F(SyncRemote, ClassRunDryByManyThreads_RequestsFailWithTheirLines) {
    static constexpr uint32_t ulThreads = 8;
    ScriptedTarget stTarget(PORT_MWARE, AnswerAll("ok"));
    ASSERT_EQ(BP_RegCmdModuleID("MW_MWARE_cmd", 0, 0, BP_MODULE_ID_MWARE_CMD), BP_OK);
    BP_Write(BP_FindLogModule(BP_LOG_BP_MODULE_ID)->ulDebugOn, 1U);
    for (uint32_t i = 0; i < BP_SLAB_CLASS_TIMER; i++) {
        const uint32_t ulSize = g_astSlabConfig[i].ulSize;
        SCOPED_TRACE(ulSize);
        pthread_barrier_t stBarrier;
        pthread_barrier_init(&stBarrier, nullptr, ulThreads);
        Threads(ulThreads, [&](uint32_t) {
            const std::vector<BP_SlabBuf *> apstBuf = TakeAll(ulSize, BP_SLAB_TYPE_MSG);
            pthread_barrier_wait(&stBarrier);
            EXPECT_EQ(Ask(std::string(ulSize - BP_MSG_HDR_LEN, 'x'), 10),
                      "error " + std::to_string(BP_ERR_PARAM));
            pthread_barrier_wait(&stBarrier);
            FreeAll(apstBuf);
            pthread_barrier_wait(&stBarrier);
            EXPECT_EQ(Ask("x", 10), "ok");
        });
        pthread_barrier_destroy(&stBarrier);
        EXPECT_TRUE(AllSlabsRefill());
        const std::string szDebug = ReadFile("/var/log/ks00.debug");
        EXPECT_EQ(CountOf(szDebug, "[BP_CreatStructMsg]fail to get slab buffer(buffer size:" +
                                       std::to_string(ulSize) + ")."),
                  ulThreads);
        EXPECT_EQ(CountOf(szDebug, "[BP_InnerSendSyncMsg]invalid slab buffer."), ulThreads * (i + 1));
        EXPECT_EQ(CountOf(ReadFile("/var/log/ks00.log"), "fail to BP_InnerSendSyncMsg MsgCode:31060"),
                  ulThreads * (i + 1));
    }
}

// Whatever a target does instead of answering once and properly, the next request works and every buffer comes
// back.
TEST_F(SyncRemote, MisbehavingTarget_CostsNothing) {
    using Replies = std::vector<std::string>;
    const auto Ack = [](const WireMsg &r, const char *pcText) { return Bytes(MakeAck(r, pcText)); };
    BusSocket stElsewhere;
    ScriptedTarget stTarget(PORT_MWARE, AnswerAll(""));
    const auto pfnForeign = [](const WireMsg &stReq) {
        WireMsg stAck = MakeAck(stReq, "for somebody else");
        stAck.stHdr.AssiMsgId += 1000;
        return Bytes(stAck);
    };
    const struct {
        const char *pcName;
        ScriptedTarget::Script pfnScript;
        std::string szAnswer;
    } astCase[] = {
        {"silence", [](const WireMsg &) { return Replies{}; }, "error 1057"},
        {"twice",
         [&](const WireMsg &r) {
             return Replies({Ack(r, "a"), Ack(r, "b")});
         },
         "a"},
        {"foreign first",
         [&](const WireMsg &r) {
             return Replies({pfnForeign(r), Ack(r, "a")});
         },
         "a"},
        {"foreign only", [&](const WireMsg &r) { return Replies{pfnForeign(r)}; }, "error 1057"},
        {"garbage first",
         [&](const WireMsg &r) {
             return Replies({std::string(500, '#'), Ack(r, "a")});
         },
         "a"},
        {"oversized first",
         [&](const WireMsg &r) {
             return Replies({std::string(20000, '#'), Ack(r, "a")});
         },
         "a"},
        {"from elsewhere",
         [&](const WireMsg &r) {
             stTarget.SendLate(Ack(r, "a"), &stElsewhere);
             return Replies{};
         },
         "a"},
        {"split",
         [&](const WireMsg &r) {
             const std::string szAll = Ack(r, "in pieces");
             return Replies{szAll.substr(0, 30), szAll.substr(30, 12), szAll.substr(42)};
         },
         "in pieces"},
        {"not an answer",
         [](const WireMsg &r) {
             WireMsg stMsg = MakeAck(r, "a request");
             stMsg.stHdr.ulMsgType = 0;
             return Replies{Bytes(stMsg)};
         },
         "error 1057"},
        {"to a stranger",
         [](const WireMsg &r) {
             WireMsg stAck = MakeAck(r, "x");
             stAck.stHdr.ulModuleDstID = 12345;
             return Replies{Bytes(stAck)};
         },
         "error 1057"},
    };
    for (const auto &stCase : astCase) {
        SCOPED_TRACE(stCase.pcName);
        stTarget.SetScript(stCase.pfnScript);
        EXPECT_EQ(Ask("x", 1), stCase.szAnswer);
        stTarget.SetScript(AnswerAll("good"));
        EXPECT_EQ(Ask("x", 10), "good");
    }
}

TEST_F(SyncRemote, TimedOutWait_IsLoggedAndItsLateAnswerGivenBack) {
    ScriptedTarget stTarget(PORT_MWARE, [](const WireMsg &) { return std::vector<std::string>{}; });
    EXPECT_EQ(Ask("x", 0), "error 1057");
    EXPECT_EQ(CountOf(ReadFile("/var/log/ks00.log"),
                      "[BP_InnerSendSyncMsg]wait response msg timeout(10 0)(ffffffff fffffffe),Cmd(31060)"),
              1U);
    EXPECT_EQ(CountOf(ReadFile("/var/log/ks00.log"), "[E(1057)][bp_sendmsg-"), 1U);
    ASSERT_TRUE(WaitFor([&] { return stTarget.Requests().size() == 1; }));
    for (int i = 0; i < 300; i++) { // more than a class holds
        stTarget.SendLate(Bytes(MakeAck(stTarget.Requests()[0], "too late")));
    }
    BP_ModuleInfo *pstMain = BP_GetModuleByID(BP_MODULE_ID_MAIN);
    EXPECT_TRUE(WaitFor([&] { return BP_QueueLength(&pstMain->stAckQueue) == 0 && AllSlabsFull(); }));
}

// A thousand requests from several threads at once, some of them unanswered, late, answered twice, to a wrong
// identifier, or from another address.
TEST_F(SyncRemote, ThousandRequests_LeaveEveryClassFull) {
    std::atomic<uint32_t> ulSeen{0};
    std::vector<std::string> aszHeldBack;
    BusSocket stElsewhere;
    ScriptedTarget stTarget(PORT_MWARE, AnswerAll(""));
    stTarget.SetScript([&](const WireMsg &stReq) {
        const std::string szAck = Bytes(MakeAck(stReq, stReq.szPayload));
        std::vector<std::string> aszReply = {szAck};
        switch (ulSeen++ % 30) {
        case 0:
            return std::vector<std::string>{};
        case 1:
            aszReply.push_back(szAck);
            break;
        case 2:
            aszHeldBack.push_back(szAck);
            return std::vector<std::string>{};
        case 3: {
            WireMsg stForeign = MakeAck(stReq, "for somebody else");
            stForeign.stHdr.AssiMsgId += 5000;
            aszReply.insert(aszReply.begin(), Bytes(stForeign));
            break;
        }
        case 4:
            stTarget.SendLate(szAck, &stElsewhere);
            return std::vector<std::string>{};
        default:
            if (ulSeen > 900) { // by then their waits are long over
                aszReply.insert(aszReply.end(), aszHeldBack.begin(), aszHeldBack.end());
                aszHeldBack.clear();
            }
        }
        return aszReply;
    });
    std::atomic<uint32_t> ulGood{0};
    std::atomic<uint32_t> ulTimedOut{0};
    Threads(20, [&](uint32_t i) {
        for (int j = 0; j < 50; j++) {
            const std::string szText = std::to_string(i) + "/" + std::to_string(j);
            const std::string szAnswer = Ask(szText, 1);
            ulGood += szAnswer == szText;
            ulTimedOut += szAnswer == "error 1057";
        }
    });
    EXPECT_EQ(ulGood + ulTimedOut, 1000U); // nobody ever got somebody else's answer
    EXPECT_GT(ulTimedOut, 30U);
    EXPECT_GT(ulGood, 700U);
}

static void OnAlarm(int) {}

TEST_F(SyncRemote, SignalsDoNotUseUpTheLimit) {
    struct sigaction stAction = {};
    stAction.sa_handler = OnAlarm; // without SA_RESTART: every sleep is interrupted
    sigaction(SIGALRM, &stAction, nullptr);
    const pthread_t ulSelf = pthread_self();
    const Repeater stStorm([=] {
        pthread_kill(ulSelf, SIGALRM);
        usleep(500);
    });
    const int64_t lStart = BP_NowMs();
    EXPECT_EQ(Ask("x", 1), "error 1057");
    EXPECT_GE(BP_NowMs() - lStart, 990);
}

// Requests between modules of one process.
class SyncLocal : public OnBus {
protected:
    void SetUp() override {
        OnBus::SetUp();
        ASSERT_EQ(BP_RegistModule("MW_PTZ", 1, nullptr), BP_OK);
        StartMainThread();
    }
};

static uint32_t Echo(uint32_t, BP_StructMsg *pstMsg, uint32_t ulParam) {
    const std::string szText = TextOf(*pstMsg);
    usleep(ulParam * 1000);
    return BP_SendAckMsg(pstMsg, szText.data(), static_cast<uint32_t>(szText.size()));
}

static std::atomic<uint32_t> g_ulEqual;
static std::atomic<uint32_t> g_ulLate;
static std::atomic<uint32_t> g_ulDone;

static uint32_t AskPtz(uint32_t ulMsgCode, BP_StructMsg *, uint32_t ulParam) {
    const std::string szAnswer = Ask(MW_PTZ, "question", ulParam, ulMsgCode);
    g_ulEqual += szAnswer == "question";
    g_ulLate += szAnswer == "error 1057";
    g_ulDone++;
    return BP_OK;
}

TEST_F(SyncLocal, ModuleAsksModule_FromItsThread) {
    ASSERT_EQ(BP_RegistMsgProc(MW_PTZ, BP_PROC_TABLE_NORMAL, 1, Echo, 0), BP_OK);
    ASSERT_EQ(BP_RegistMsgProc(MW_CTRL, BP_PROC_TABLE_NORMAL, 1, AskPtz, 10), BP_OK);
    for (int i = 0; i < 20; i++) {
        ASSERT_EQ(BP_PostMsg(MW_CTRL, 1, nullptr, 0), BP_OK);
    }
    EXPECT_TRUE(WaitFor([] { return g_ulDone == 20; }));
    EXPECT_EQ(g_ulEqual, 20U);
    EXPECT_EQ(BP_Read(BP_GetModuleByID(MW_CTRL)->ulAssiMsgSeq), 20U);
}

// Waits that end while the request is queued, being handled, or just answered.
TEST_F(SyncLocal, WaitsThatRaceTheirAnswers_LoseNoBuffer) {
    ASSERT_EQ(BP_RegistMsgProc(MW_PTZ, BP_PROC_TABLE_NORMAL, 1, Echo, 10), BP_OK); // as long as the one step
    ASSERT_EQ(BP_RegistMsgProc(MW_CTRL, BP_PROC_TABLE_NORMAL, 1, AskPtz, 0), BP_OK);
    for (int i = 0; i < 100; i++) {
        ASSERT_EQ(BP_PostMsg(MW_CTRL, 1, nullptr, 0), BP_OK);
    }
    EXPECT_TRUE(WaitFor([] { return g_ulDone == 100; }));
    EXPECT_EQ(g_ulEqual + g_ulLate, 100U);
}

static std::atomic<uint32_t> g_ulHandled;

static uint32_t CountHandled(uint32_t, BP_StructMsg *, uint32_t) {
    g_ulHandled++;
    return BP_OK;
}

// Nobody works on a request whose requester has given up before it was its turn.
TEST_F(SyncLocal, TimedOutInTheQueue_IsNotHandled) {
    ASSERT_EQ(BP_RegistMsgProc(MW_PTZ, BP_PROC_TABLE_NORMAL, 1, Echo, 500), BP_OK);
    ASSERT_EQ(BP_RegistMsgProc(MW_PTZ, BP_PROC_TABLE_NORMAL, 2, CountHandled, 0), BP_OK);
    ASSERT_EQ(BP_PostMsg(MW_PTZ, 1, nullptr, 0), BP_OK);
    EXPECT_EQ(Ask(MW_PTZ, "given up", 0, 2), "error 1057");
    ASSERT_EQ(BP_PostMsg(MW_PTZ, 2, nullptr, 0), BP_OK);
    EXPECT_TRUE(WaitFor([] { return g_ulHandled != 0; }));
    EXPECT_TRUE(AllSlabsRefill());
    EXPECT_EQ(g_ulHandled, 1U);
}

static BP_Sem g_semTimedOut(0);

// Answers when nobody waits any more, and goes on for a while.
static uint32_t EchoTooLate(uint32_t ulMsgCode, BP_StructMsg *pstMsg, uint32_t ulParam) {
    g_semTimedOut.Wait();
    Echo(ulMsgCode, pstMsg, 0);
    usleep(ulParam * 1000);
    return BP_OK;
}

TEST_F(SyncLocal, AnsweredTooLate_IsSaidOnce) {
    uint32_t ulCode = 1;
    for (const uint32_t ulMs : {0U, 100U}) {
        ASSERT_EQ(BP_RegistMsgProc(MW_PTZ, BP_PROC_TABLE_NORMAL, ulCode, EchoTooLate, ulMs), BP_OK);
        EXPECT_EQ(Ask(MW_PTZ, "x", 1, ulCode++), "error 1057");
        g_semTimedOut.Post();
        EXPECT_TRUE(AllSlabsRefill());
        EXPECT_EQ(
            CountOf(ReadFile("/var/log/MW_MWARE00.log"), "[BP_FreeTimeoutAckMsg]Force free ack slab buf, "),
            ulCode - 1);
    }
}
