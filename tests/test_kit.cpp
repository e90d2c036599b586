// The commands of a process: their definitions, and what the console's requests bring.
#include <deque>
#include <set>
#include <sstream>

#include "tests/support/on_bus.h"

enum : uint32_t { KIT_SHOW, KIT_FAIL, KIT_MUCH };

// Answers with the values it was given, fails with the first of them, or prints as many lines.
static uint32_t Show(const BP_CmdArgs *pstArgs, BP_CmdAnswer *pstAnswer, uint32_t ulParam) {
    BP_AnswerPrint(pstAnswer, ulParam == KIT_MUCH ? "" : "shown");
    for (uint32_t i = 0; i < pstArgs->ulNum; i++) {
        const BP_CmdArg &stArg = pstArgs->astArg[i];
        for (uint32_t j = 0; ulParam == KIT_MUCH && j < stArg.ulValue; j++) {
            BP_AnswerPrint(pstAnswer, "line %04u\n", j);
        }
        if (ulParam == KIT_SHOW) {
            BP_AnswerPrint(pstAnswer, stArg.ulType == BP_CMD_INTEGER ? " %s=%u" : " %s", stArg.szText,
                           stArg.ulValue);
        }
    }
    return ulParam == KIT_FAIL ? pstArgs->astArg[0].ulValue : BP_OK;
}

// A definition written as "t:word:help, i?:number:help": the type's first letter, ? for optional, ! for an
// effect. It lives as long as the process.
static uint32_t Regist(const std::string &szWords, uint32_t ulParam = KIT_SHOW) {
    static std::deque<std::string> aszText;
    static std::deque<BP_CmdDef> astDef;
    astDef.push_back({{}, Show, ulParam});
    size_t ulWord = 0;
    for (size_t ulPos = 0, ulEnd; ulPos < szWords.size(); ulPos = ulEnd + 2) {
        ulEnd = std::min(szWords.find(", ", ulPos), szWords.size());
        const std::string szWord = szWords.substr(ulPos, ulEnd - ulPos);
        const size_t ulName = szWord.find(':') + 1;
        const size_t ulHelp = std::min(szWord.find(':', ulName), szWord.size());
        const size_t ulType = std::string("tis").find(szWord[0]);
        aszText.push_back(szWord.substr(ulName, ulHelp - ulName));
        const char *pcName = aszText.back().c_str();
        aszText.push_back(szWord.substr(std::min(ulHelp + 1, szWord.size())));
        const bool bHelp = ulHelp != szWord.size();
        astDef.back().astWord[ulWord++] = {
            (ulType == std::string::npos ? 99 : static_cast<uint32_t>(ulType) + BP_CMD_TITLE) |
                (szWord[1] == '?' ? BP_CMD_OPTIONAL : 0) | (szWord[1] == '!' ? BP_CMD_EFFECT : 0),
            pcName, bHelp ? aszText.back().c_str() : nullptr};
    }
    return BP_RegistCmd(&astDef.back());
}

static std::string Tree() {
    static BP_CmdAnswer stAnswer;
    stAnswer.ulTotal = 0;
    BP_PrintCmdTree(&stAnswer);
    return stAnswer.szText;
}

// A process with the kit, and a console played by hand.
class Kit : public OnBus {
protected:
    void SetUp() override {
        OnBus::SetUp();
        ASSERT_EQ(BP_StartCmd(), BP_OK);
        StartMainThread();
    }
    std::string Ask(uint32_t ulMsgCode, const std::string &szText) {
        WireMsg stReq = MakeMsg(BP_MODULE_ID_MWARE_CMD, ulMsgCode, szText);
        stReq.stHdr.AssiMsgId = ++ulAssiMsgId_;
        stConsole_.SendTo(PORT_MWARE, Bytes(stReq));
        const std::string szBytes = stConsole_.Receive(30000);
        WireMsg stAck = MakeAck(stReq, "");
        stAck.stHdr.usMsgLen = static_cast<uint16_t>(szBytes.size());
        stAck.stHdr.ulPeerIP = htonl(INADDR_LOOPBACK);
        stAck.stHdr.usPeerPort = htons(stConsole_.Port());
        EXPECT_EQ(szBytes.substr(0, 38), Bytes(stAck).substr(0, 38));
        return szBytes.size() < BP_MSG_HDR_LEN ? "no answer" : szBytes.substr(BP_MSG_HDR_LEN);
    }
    BusSocket stConsole_;
    uint32_t ulAssiMsgId_ = 40;
};

// The words of a command, the result of registering them, and the line that says why not. What is refused
// leaves no trace in the tree.
TEST_F(Kit, Definitions) {
    for (const auto &aszRow : Rows("kit-definitions.txt")) {
        const size_t ulLog = Log().size();
        EXPECT_EQ(std::to_string(Regist(aszRow[0])), aszRow[1]) << aszRow[0];
        EXPECT_EQ(Bare(Log().substr(ulLog)), aszRow[2] + (aszRow[2].empty() ? "" : "\n")) << aszRow[0];
    }
    EXPECT_EQ(BP_RegistCmd(nullptr), BP_ERR_PARAM);
    EXPECT_EQ(Tree(), ReadFile(KS_TEST_DATA "/kit-tree.txt"));
}

// Names and help as long as they may be, and short ones: nodes or room run out, and the text fits one message.
TEST_F(Kit, FullTreeFitsOneMessage) {
    for (const size_t ulHelp : {121, 0}) {
        const std::string szStart = "t:" + std::string(ulHelp != 0 ? BP_CMD_NAME_MAX - 3 : 1, 's');
        uint32_t ulRet = BP_OK;
        uint32_t ulNum = 100;
        for (; ulRet == BP_OK && ulNum < 300; ulNum++) {
            ulRet = Regist(szStart + std::to_string(ulNum) + ":" + std::string(ulHelp, 'h'));
        }
        EXPECT_EQ(ulRet, BP_ERR_CMD_FULL);
        EXPECT_GT(ulNum, ulHelp != 0 ? 130U : 100U);
        EXPECT_LE(Tree().size(), BP_ACK_TEXT_MAX);
        EXPECT_GT(Tree().size(), BP_ACK_TEXT_MAX - 200);
    }
}

// One after the other: code and text of a request; a pattern for the answer; which of the log modules "BP",
// "MW_CTRL", "MW_PTZ", "MW_PTZ move" and "MW_PTZ move fast" are on then, if that may have changed; and the line
// that is logged. Every command of the kit is among them, and its answer fits a serial terminal.
TEST_F(Kit, Requests) {
    static const char *apcLogModule[] = {"MW_CTRL", "MW_PTZ", "MW_PTZ move", "MW_PTZ move fast",
                                         "nnnnnnnnnnnnnnnnnnnnnnnnnnnnnnn"};
    for (const char *&pcName : apcLogModule) {
        ASSERT_EQ(BP_RegCmdModuleID(pcName, 0, 0, static_cast<uint32_t>(0x90000001 + (&pcName - apcLogModule))),
                  BP_OK);
    }
    ASSERT_EQ(Regist("t:pool:, i?:class:"), BP_OK);
    ASSERT_EQ(Regist("t:copy:, s:from:a name, i:to:"), BP_OK);
    ASSERT_EQ(Regist("t:fail:, i:code:", KIT_FAIL), BP_OK);
    ASSERT_EQ(BP_RegistModule("MW_INTERFACE", 1, nullptr), BP_OK);
    BP_ModuleInfo *pstModule = BP_GetModuleByID(0x9000000D);
    BP_Write(pstModule->ulSendCnt, UINT32_MAX);
    BP_Write(pstModule->ulRecvCnt, UINT32_MAX);
    BP_TimerParam stTimer = {};
    stTimer.ulModuleID = 0x9000000D;
    stTimer.pfnComCb = [](uint32_t, uint32_t) { return BP_OK; };
    stTimer.lInterval = INT32_MAX;
    stTimer.usDay = 5;
    stTimer.usHour = 23;
    uint32_t ulTimerID = 0;
    for (const uint32_t ulType : {BP_TIMER_ONCE, BP_TIMER_CYCLE, BP_TIMER_DAY, BP_TIMER_WEEK, BP_TIMER_MONTH}) {
        stTimer.ulType = ulType;
        EXPECT_EQ(BP_RegistTimer(&stTimer, &ulTimerID), BP_OK);
    }
    std::set<std::string> aszAsked;
    for (const auto &aszRow : Rows("kit-requests.txt")) {
        SCOPED_TRACE(aszRow[0] + " " + aszRow[1]);
        const size_t ulLog = Log().size();
        std::string szAnswer; // a thread lists itself once it runs
        const bool bRight = WaitFor(
            [&] {
                szAnswer = Ask(static_cast<uint32_t>(std::stoul(aszRow[0])), aszRow[1]);
                return Matches(szAnswer, "^" + aszRow[2] + "$");
            },
            5);
        EXPECT_TRUE(bRight) << szAnswer;
        EXPECT_FALSE(Matches(szAnswer, "[^\n]{80}")) << szAnswer;
        std::string szOn;
        BP_LogInfo stInfo;
        for (uint32_t i = 1; i <= 5 && BP_GetLogInfo(i, &stInfo) == BP_OK; i++) {
            szOn += stInfo.ulDebugOn != 0 ? "BCPmf"[i - 1] : '-';
        }
        EXPECT_EQ(szOn, aszRow.size() > 3 && !aszRow[3].empty() ? aszRow[3] : szOn);
        EXPECT_EQ(Bare(Log().substr(ulLog)), aszRow.size() > 4 ? aszRow[4] + "\n" : "");
        if (szAnswer != "operate fail" && aszRow[1].rfind("<display ", 0) == 0) {
            aszAsked.insert(aszRow[1].substr(9, aszRow[1].find(' ', 9) - 9));
        }
    }
    EXPECT_EQ(CountOf(Ask(31060, "<display process >"),
                      BP_GetPromptDelivery() != 0 ? "pace: prompt" : "pace: default"),
              1U);
    EXPECT_TRUE(Matches(Tree(), "^\ncommands\ndisplay\n.*\n" + std::to_string(aszAsked.size() + 1) +
                                    "\n")); // and "fail"
}

TEST_F(Kit, AnswerTooLong_IsCutAtALineEndAndSaysSo) {
    ASSERT_EQ(Regist("t:much:, i:lines:", KIT_MUCH), BP_OK);
    const auto pfnLines = [this](const std::string &szNum) {
        return Ask(31060, "<display much lines >" + szNum + ";");
    };
    EXPECT_EQ(pfnLines("815").size(), 8149U);
    const std::string szCut = pfnLines("816");
    EXPECT_LE(szCut.size(), BP_ACK_TEXT_MAX);
    EXPECT_TRUE(Matches(szCut, "\nline 0807\n\\(answer cut: 8080 of 8160 bytes\\)$")) << szCut.substr(8000);
    EXPECT_TRUE(Matches(pfnLines("100000"), "\\(answer cut: .* of 1090000 bytes\\)$"));
    ASSERT_TRUE(AllSlabsRefill());
    const std::vector<BP_SlabBuf *> apstTaken = TakeAll(16384, BP_SLAB_TYPE_MSG);
    EXPECT_EQ(pfnLines("700"), "operate fail"); // that much at least fits a small buffer
    EXPECT_TRUE(FreeAll(apstTaken));
}

TEST_F(Kit, AnswerInTheNameOfAModuleThatIsNotThere_IsRefused) {
    BP_StructMsg stMsg = BP_CreatStructMsg(nullptr, 0);
    BP_FillMsgHdr(stMsg.pstSlabBuf, 0, 1, BP_MODULE_ID_MAIN, MW_PTZ);
    EXPECT_EQ(BP_SendAckMsg(&stMsg, "x", 1), BP_ERR_NO_MODULE);
    BP_EraseMsgData(&stMsg);
}
