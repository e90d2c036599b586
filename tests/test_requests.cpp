// Synchronous requests: to another process, played by a script, and between modules of one process.
#include "tests/support/on_bus.h"

class Request : public AsConsole {
protected:
    static std::string AskMware(const std::string &szText, uint32_t ulSeconds, uint32_t ulCode = 31060) {
        return Ask(BP_MODULE_ID_MWARE_CMD, szText, ulSeconds, ulCode);
    }
    ScriptedTarget stTarget_{PORT_MWARE, AnswerAll("ok")};
};

TEST_F(Request, FirstRequests_LeaveByteForByte) {
    EXPECT_EQ(AskMware("dbgcmd", 10, 31051), "ok");
    EXPECT_EQ(AskMware("dbgcmd", 10, 31052), "ok");
    const std::vector<WireMsg> astReq = stTarget_.Requests();
    ASSERT_EQ(astReq.size(), 2U);
    for (const auto &aszRow : Rows("first-requests.txt")) {
        const WireMsg &stReq = astReq[std::stoul(aszRow[0])];
        EXPECT_EQ(Bytes(stReq).substr(0, 38), aszRow[1]);
        EXPECT_EQ(stReq.szPayload, "dbgcmd");
    }
}

TEST_F(Request, AnswerTexts) {
    for (const auto &[szPayload, szText] : {std::pair<std::string, std::string>("abc", "abc"),
                                            {"", ""},
                                            {std::string("abc\0def", 7), "abc"},
                                            {std::string(8152, 'x'), std::string(8152, 'x')}}) {
        stTarget_.SetScript(AnswerAll(szPayload));
        EXPECT_EQ(AskMware("x", 10), szText);
    }
}

// The datagrams of a row in replies.txt.
static std::vector<std::string> Reply(const std::string &szCell, const WireMsg &stReq,
                                      ScriptedTarget *pstTarget) {
    return Datagrams(szCell, [&](char cKind, const std::string &szText) {
        WireMsg stAck = MakeAck(stReq, szText.empty() ? stReq.szPayload : szText);
        stAck.stHdr.AssiMsgId += cKind == 'f' ? 5000 : 0;
        stAck.stHdr.ulMsgType = cKind == 'q' ? BP_MSG_TYPE_NORMAL : BP_MSG_TYPE_ACK;
        stAck.stHdr.ulModuleDstID = cKind == 's' ? 12345 : stAck.stHdr.ulModuleDstID;
        static BusSocket stElsewhere;
        if (cKind == 'e') {
            pstTarget->SendLate(Bytes(stAck), &stElsewhere);
        }
        return cKind == 'e' ? "" : cKind == 'r' ? szText : Bytes(stAck);
    });
}

// Whatever a target does in place of answering once and properly, the next request works and every buffer comes
// back.
TEST_F(Request, MisbehavingTarget_CostsNothing) {
    for (const auto &aszRow : Rows("replies.txt")) {
        SCOPED_TRACE(aszRow[0]);
        stTarget_.SetScript([&](const WireMsg &stReq) { return Reply(aszRow[1], stReq, &stTarget_); });
        EXPECT_EQ(AskMware("x", 1), aszRow[2]);
        stTarget_.SetScript(AnswerAll("good"));
        EXPECT_EQ(AskMware("x", 10), "good");
    }
}

// The same from several threads at once, now and then.
TEST_F(Request, AThousand_GetTheirOwnAnswers) {
    const auto aaszRow = Rows("replies.txt");
    std::atomic<size_t> ulSeen{0};
    stTarget_.SetScript([&](const WireMsg &stReq) {
        const size_t ulRow = ulSeen++ % 60;
        return Reply(ulRow < aaszRow.size() ? aaszRow[ulRow][1] : "a", stReq, &stTarget_);
    });
    std::atomic<uint32_t> ulGood{0}, ulTimedOut{0};
    Threads(20, [&](uint32_t i) {
        for (int j = 0; j < 50; j++) {
            const std::string szText = std::to_string(i) + "/" + std::to_string(j);
            const std::string szAnswer = AskMware(szText, 1);
            ulGood += szAnswer == szText;
            ulTimedOut += szAnswer == "error 1057";
        }
    });
    EXPECT_EQ(ulGood + ulTimedOut, 1000U);
    EXPECT_GT(ulTimedOut, 30U);
    EXPECT_GT(ulGood, 700U);
}

TEST_F(Request, TimedOutWait_IsLoggedAndItsLateAnswerGivenBack) {
    stTarget_.SetScript([](const WireMsg &) { return std::vector<std::string>{}; });
    const int64_t lStart = BP_NowMs();
    EXPECT_EQ(AskMware("x", 0), "error 1057");
    EXPECT_EQ(AskMware("x", 1), "error 1057");
    EXPECT_GE(BP_NowMs() - lStart, 1000); // the whole limit
    EXPECT_EQ(Logged("[BP_InnerSendSyncMsg]wait response msg timeout(10 0)(ffffffff fffffffe),Cmd(31060)"), 1U);
    EXPECT_EQ(Logged("[BP_InnerSendSyncMsg]wait response msg timeout(1000 1000)(ffffffff fffffffe),Cmd(31060)"),
              1U);
    EXPECT_EQ(Logged("[E(1057)][bp_sendmsg-"), 2U);
    for (int i = 0; i < 300; i++) { // more than a class holds
        stTarget_.SendLate(Bytes(MakeAck(stTarget_.Requests().back(), "too late")));
    }
    BP_ModuleInfo *pstMain = BP_GetModuleByID(BP_MODULE_ID_MAIN);
    EXPECT_TRUE(WaitFor([&] { return BP_QueueLength(&pstMain->stAckQueue) == 0 && AllSlabsFull(); }));
}

static BP_Sem g_semGoOn(0);
static std::atomic<uint32_t> g_ulHandled, g_ulEqual, g_ulLate, g_ulAsked;

// Waits so many milliseconds, and with the top bit for g_semGoOn first, before it answers.
static uint32_t Echo(uint32_t, BP_StructMsg *pstMsg, uint32_t ulParam) {
    const std::string szText = TextOf(*pstMsg);
    if (ulParam >> 31 != 0) {
        g_semGoOn.Wait();
    }
    usleep((ulParam & 0xFFFF) * 1000);
    g_ulHandled++;
    return BP_SendAckMsg(pstMsg, szText.data(), static_cast<uint32_t>(szText.size()));
}

static uint32_t AskPtz(uint32_t ulMsgCode, BP_StructMsg *, uint32_t ulParam) {
    const std::string szAnswer = Ask(MW_PTZ, "question", ulParam, ulMsgCode);
    g_ulEqual += szAnswer == "question";
    g_ulLate += szAnswer == "error 1057";
    g_ulAsked++;
    return BP_OK;
}

class LocalRequest : public OnBus {
protected:
    void SetUp() override {
        OnBus::SetUp();
        ASSERT_EQ(BP_RegistModule("MW_PTZ", 1, nullptr), BP_OK);
        StartMainThread();
    }
};

// In the second round with a limit of one step and answers that take as long: waits end while the request is
// queued, being handled, or just answered.
TEST_F(LocalRequest, ModuleAsksModule_FromItsThread) {
    for (const uint32_t ulCode : {1U, 2U}) {
        Handle(MW_PTZ, ulCode, Echo, ulCode == 1 ? 0 : 10);
        Handle(MW_CTRL, ulCode, AskPtz, ulCode == 1 ? 10 : 0);
        g_ulEqual = g_ulLate = g_ulAsked = 0;
        for (int i = 0; i < 100; i++) {
            ASSERT_EQ(BP_PostMsg(MW_CTRL, ulCode, nullptr, 0), BP_OK);
        }
        EXPECT_TRUE(WaitFor([] { return g_ulAsked == 100; }));
        EXPECT_EQ(g_ulEqual + g_ulLate, 100U);
        EXPECT_TRUE(ulCode == 2 || g_ulLate == 0);
        EXPECT_EQ(BP_Read(BP_GetModuleByID(MW_CTRL)->ulAssiMsgSeq), 100 * ulCode);
    }
}

// A request whose requester has given up before it was its turn is no work any more.
TEST_F(LocalRequest, TimedOutInTheQueue_IsNotHandled) {
    Handle(MW_PTZ, 1, Echo, 500);
    Handle(MW_PTZ, 2, Echo);
    ASSERT_EQ(BP_PostMsg(MW_PTZ, 1, nullptr, 0), BP_OK);
    EXPECT_EQ(Ask(MW_PTZ, "given up", 0, 2), "error 1057");
    ASSERT_EQ(BP_PostMsg(MW_PTZ, 2, nullptr, 0), BP_OK);
    EXPECT_TRUE(WaitFor([] { return g_ulHandled == 2; }));
    EXPECT_TRUE(AllSlabsRefill());
    EXPECT_EQ(g_ulHandled, 2U);
}

TEST_F(LocalRequest, AnsweredTooLate_IsSaidOnce) {
    for (const uint32_t ulCode : {1U, 2U}) {
        Handle(MW_PTZ, ulCode, Echo, 0x80000000 + 100 * (ulCode - 1));
        EXPECT_EQ(Ask(MW_PTZ, "x", 1, ulCode), "error 1057");
        g_semGoOn.Post();
        EXPECT_TRUE(AllSlabsRefill());
        EXPECT_EQ(Logged("[BP_FreeTimeoutAckMsg]Force free ack slab buf, "), ulCode);
    }
}
