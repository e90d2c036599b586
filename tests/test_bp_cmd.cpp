#include <deque>
#include <gtest/gtest.h>
#include <set>

#include "bp/bp.h"
#include "bp/bp_cmd/cmd_parse.h"
#include "tests/support/bus_peer.h"
#include "tests/support/files.h"
#include "tests/support/pty_session.h"

// Answers with its parameter and the values it was given.
static uint32_t Show(const BP_CmdArgs *pstArgs, BP_CmdAnswer *pstAnswer, uint32_t ulParam) {
    BP_AnswerPrint(pstAnswer, "cmd%u", ulParam);
    for (uint32_t i = 0; i < pstArgs->ulNum; i++) {
        const BP_CmdArg &stArg = pstArgs->astArg[i];
        BP_AnswerPrint(pstAnswer, stArg.ulType == BP_CMD_INTEGER ? " %s=%u" : " %s", stArg.szText,
                       stArg.ulValue);
    }
    return BP_OK;
}

// Rows have to live as long as the process.
static uint32_t Regist(const std::vector<BP_CmdWord> &astWord, uint32_t ulParam = 0) {
    static std::deque<BP_CmdDef> astDef;
    astDef.push_back({{}, Show, ulParam});
    std::copy(astWord.begin(), astWord.end(), astDef.back().astWord);
    return BP_RegistCmd(&astDef.back());
}

static std::string Tree() {
    static BP_CmdAnswer stAnswer;
    stAnswer.ulTotal = 0;
    BP_PrintCmdTree(&stAnswer);
    return stAnswer.szText;
}

static std::string RunText(const std::string &szText) {
    static BP_CmdAnswer stAnswer;
    stAnswer.ulTotal = 0;
    const uint32_t ulRet = BP_RunCmd(szText.data(), static_cast<uint32_t>(szText.size()), &stAnswer);
    return ulRet == BP_OK ? stAnswer.szText : ulRet == BP_ERR_CMD_UNKNOWN ? "unknown" : "failed";
}

static constexpr uint32_t T = BP_CMD_TITLE;
static constexpr uint32_t I = BP_CMD_INTEGER;
static constexpr uint32_t S = BP_CMD_STRING;
static constexpr uint32_t OPT = BP_CMD_OPTIONAL;
static constexpr uint32_t FX = BP_CMD_EFFECT;

TEST(CmdTable, DefinitionText_SharesBeginningsAndMarksEnds) {
    ASSERT_EQ(Regist({{T, "slab", "pools"}, {I | OPT, "class", nullptr}}), BP_OK);
    ASSERT_EQ(Regist({{T, "net", "network"}, {T, "if", "interfaces"}}), BP_OK);
    ASSERT_EQ(Regist({{T, "net", "shown above"}, {T, "route", "routes"}, {S, "to", "address"}}), BP_OK);
    ASSERT_EQ(Regist({{T, "net", ""}}), BP_OK);
    static const std::string szHelp115(115, 'h'); // "title " and " [if]" make it 126
    ASSERT_EQ(Regist({{T, "full", szHelp115.c_str()}}), BP_OK);
    for (const char *pcNext : {"if", "o"}) {
        ASSERT_EQ(Regist({{T, "full", ""}, {T, pcNext, ""}}), BP_OK);
    }
    EXPECT_EQ(Tree(), "\ncommands\n"
                      "display\ntitle information about this process\n3\n"
                      "slab\ntitle pools [class]\n2\n<cr>\nend\n0\nclass\ninteger \n1\n<cr>\nend\n0\n"
                      "net\ntitle network [if] [route]\n3\n<cr>\nend\n0\n"
                      "if\ntitle interfaces\n1\n<cr>\nend\n0\n"
                      "route\ntitle routes\n1\nto\nstring address\n1\n<cr>\nend\n0\n"
                      "full\ntitle " +
                          szHelp115 +
                          " [if]\n3\n<cr>\nend\n0\n"
                          "if\ntitle \n1\n<cr>\nend\n0\no\ntitle \n1\n<cr>\nend\n0\n");
}

TEST(CmdTable, RefusesWhatTheConsoleCouldNotHandle) {
    BP_InitLog("t");
    BP_RegCmdModuleID("BP", 0, 0, BP_LOG_BP_MODULE_ID);
    static const std::string szName31(31, 'n');
    static const std::string szName32(32, 'n');
    static const std::string szHelp121(121, 'h'); // "title " makes it 127
    static const std::string szHelp122(122, 'h');
    ASSERT_EQ(Regist({{T, "show", ""}}), BP_OK);
    ASSERT_EQ(Regist({{T, "para", ""}, {I, "number", ""}}), BP_OK);
    ASSERT_EQ(Regist({{T, "text", ""}, {S, "value", ""}}), BP_OK);
    ASSERT_EQ(Regist({{T, szName31.c_str(), szHelp121.c_str()}}), BP_OK);
    const std::string szBefore = Tree();
    const struct {
        std::vector<BP_CmdWord> astWord;
        uint32_t ulRet;
    } astCase[] = {
        {{}, BP_ERR_PARAM},
        {{{99, "x", ""}}, BP_ERR_PARAM},
        {{{I | OPT, "n", ""}}, BP_ERR_PARAM},
        {{{T, "", ""}}, BP_ERR_CMD_NAME},
        {{{T, "a b", ""}}, BP_ERR_CMD_NAME},
        {{{T, "a>", ""}}, BP_ERR_CMD_NAME},
        {{{T, "a\n", ""}}, BP_ERR_CMD_NAME},
        {{{T, "3d", ""}}, BP_ERR_CMD_NAME},
        {{{T, szName32.c_str(), ""}}, BP_ERR_CMD_NAME},
        {{{T, "help", szHelp122.c_str()}}, BP_ERR_CMD_HELP},
        {{{T, "help", "two\nlines"}}, BP_ERR_CMD_HELP},
        {{{T, "show", "again"}}, BP_ERR_CMD_CLASH},
        {{{T, "loglevel", "the console's own"}}, BP_ERR_CMD_CLASH},
        {{{T, "showall", ""}}, BP_ERR_CMD_CLASH},
        {{{T, "sho", ""}}, BP_ERR_CMD_CLASH},
        {{{S, "any", ""}}, BP_ERR_CMD_CLASH},
        {{{T, "para", ""}, {I, "other", ""}}, BP_ERR_CMD_CLASH},
        {{{T, "para", ""}, {S, "other", ""}}, BP_ERR_CMD_CLASH},
        {{{T, "para", ""}, {T, "num", ""}}, BP_ERR_CMD_CLASH},
        {{{T, "text", ""}, {T, "word", ""}}, BP_ERR_CMD_CLASH},
        {{{T, "show", ""}, {I | OPT, "n", ""}}, BP_ERR_CMD_CLASH},
        {{{T | FX, "reset", ""}}, BP_ERR_CMD_EFFECT},
        {{{T, "reset", ""}, {T | FX, "now", ""}}, BP_ERR_CMD_EFFECT},
        {{{T, "reset", ""}, {T | FX, "after", ""}, {I | OPT, "seconds", ""}}, BP_ERR_CMD_EFFECT},
        {{{T | FX, "reset", ""}, {T | OPT, "after", ""}, {I, "seconds", ""}}, BP_ERR_CMD_EFFECT},
    };
    for (const auto &stCase : astCase) {
        SCOPED_TRACE(stCase.astWord.empty() ? "none" : stCase.astWord.back().pcName);
        EXPECT_EQ(Regist(stCase.astWord), stCase.ulRet);
        EXPECT_EQ(Tree(), szBefore);
    }
    const std::vector<BP_CmdWord> astLong(3, {T, szName31.c_str(), ""}); // 7 + 3 * 32
    EXPECT_EQ(Regist(astLong), BP_ERR_CMD_LONG);
    EXPECT_EQ(BP_RegistCmd(nullptr), BP_ERR_PARAM);
    const std::string szLog = ReadFile("/var/log/t00.log");
    EXPECT_EQ(CountOf(szLog, "[E(1103)][bp_cmd-"), 10U);
    EXPECT_NE(szLog.find("[BP_RegistCmd]command para, word num: cannot be told from another command."),
              std::string::npos);
    EXPECT_EQ(Regist({{T, "para", ""}, {T, "zoom", ""}}), BP_OK); // a keyword beside a number is clear
    EXPECT_EQ(Regist({{T | FX, "reset", ""}, {I, "seconds", ""}, {T, "now", ""}}), BP_OK);
}

TEST(CmdTable, FullTreeFitsOneMessage) {
    static char aszName[200][BP_CMD_NAME_MAX + 1];
    static char aszShort[200][BP_CMD_NAME_MAX + 1];
    static const std::string szHelp(121, 'h');
    uint32_t ulRet = BP_OK;
    uint32_t ulNum = 0;
    for (; ulRet == BP_OK && ulNum < 200; ulNum++) {
        snprintf(aszName[ulNum], sizeof(aszName[ulNum]), "n%030u", ulNum);
        ulRet = Regist({{T, aszName[ulNum], szHelp.c_str()}});
    }
    EXPECT_EQ(ulRet, BP_ERR_CMD_FULL);
    EXPECT_GT(ulNum, 40U);
    EXPECT_LE(Tree().size(), BP_ACK_TEXT_MAX);
    EXPECT_GT(Tree().size(), BP_ACK_TEXT_MAX - 200);
    ulRet = BP_OK;
    for (ulNum = 0; ulRet == BP_OK && ulNum < 200; ulNum++) { // short names run out of nodes or room as well
        snprintf(aszShort[ulNum], sizeof(aszShort[ulNum]), "s%03u", ulNum);
        ulRet = Regist({{T, aszShort[ulNum], nullptr}});
    }
    EXPECT_EQ(ulRet, BP_ERR_CMD_FULL);
}

TEST(CmdParse, CanonicalStrings) {
    ASSERT_EQ(Regist({{T, "slab", ""}, {I | OPT, "class", ""}}, 1), BP_OK);
    ASSERT_EQ(Regist({{T, "copy", ""}, {S, "from", "a name"}, {I, "to", ""}}, 2), BP_OK);
    const std::string szLong(40, '7');
    const struct {
        std::string szText, szAnswer;
    } astCase[] = {
        {"<display slab >", "cmd1"},
        {"<display slab class >3;", "cmd1 3=3"},
        {"<display slab class >4294967295;", "cmd1 4294967295=4294967295"},
        {"<display copy from to >a>b;0007;", "cmd2 a>b 0007=7"},
        {"<display slab class >4294967296;", "class: 4294967296 is not a number from 0 to 4294967295\n"},
        {"<display slab class >-1;", "class: -1 is not a number from 0 to 4294967295\n"},
        {"<display slab class >;", "class: a value of 1 to 39 characters is missing\n"},
        {"<display slab class >3", "class: a value of 1 to 39 characters is missing\n"},
        {"<display slab class >3;4;", "too many values: a value cannot have a ';'\n"},
        {"<display slab class >", "class: a value of 1 to 39 characters is missing\n"},
        {"<display slab >3;", "too many values: a value cannot have a ';'\n"},
        {"<display slab class >" + szLong + ";", "class: a value of 1 to 39 characters is missing\n"},
        {"<display copy from to >a?b;7;", "cmd2 a?b 7=7"},
        {"<display copy from to >?;7;", "from: a name\n"},
        {"<display copy from to >b?;x", "from: a name\n"},
        {"<display copy from >a;", "unknown"},
        {"<display >", "unknown"},
        {"<>", "unknown"},
        {"<", "unknown"},
        {"", "unknown"},
        {"display slab", "unknown"},
        {"<display slab>", "unknown"},
        {"<display  slab >", "unknown"},
        {"<slab >", "unknown"},
        {"<display sla >", "unknown"},
        {"<display slab <cr> >", "unknown"},
        {std::string("<display slab\0 >", 16), "unknown"},
        {std::string("<display slab >\0", 16), "unknown"},
        {"<display slab %s%n >", "unknown"},
        {"<" + std::string(300, ' ') + ">", "unknown"},
    };
    for (const auto &stCase : astCase) {
        EXPECT_EQ(RunText(stCase.szText), stCase.szAnswer) << stCase.szText;
    }
}

// A process with the kit, and a console played by hand.
class CmdServe : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(BP_MwareInit("MW_MWARE", 101), BP_OK);
        ASSERT_EQ(BP_StartCmd(), BP_OK);
        ASSERT_EQ(BP_RegistModule("MW_CTRL", 1, nullptr), BP_OK);
        ASSERT_EQ(BP_RegCmdModuleID("MW_CTRL", 0, 0, 0x90000001), BP_OK);
        ASSERT_EQ(BP_RegistModule("MW_MWARE", 1, nullptr), BP_OK);
    }
    void TearDown() override { EXPECT_TRUE(AllSlabsRefill()); }
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

TEST_F(CmdServe, LogLevel) {
    EXPECT_EQ(Ask(31055, "dbgcmd"), "loglevel: 2 (INFO)");
    for (const char *pcWrong : {"1", "6", "", "x", "33", "\n"}) {
        EXPECT_EQ(Ask(31056, pcWrong), "operate fail") << pcWrong;
    }
    EXPECT_EQ(Ask(31056, "5"), "operate success");
    EXPECT_EQ(Ask(31055, "anything"), "loglevel: 5 (FATAL)");
}

// One after the other; behind each row, which of "BP", "MW_CTRL", "MW_PTZ", "MW_PTZ move" and "MW_PTZ move
// fast" are on then.
TEST_F(CmdServe, DebugSwitch_TakesAModuleASubmoduleAndAServiceType) {
    static const std::string szName31(31, 'n');
    BP_RegCmdModuleID("MW_PTZ", 0, 0, 0x90000003);
    BP_RegCmdModuleID("MW_PTZ move", 0, 0, 0x01050001);
    BP_RegCmdModuleID("MW_PTZ move fast", 0, 0, 0x01050002);
    BP_RegCmdModuleID(szName31.c_str(), 0, 0, 0x01050003);
    const struct {
        uint32_t ulMsgCode;
        std::string szText, szAnswer, szOn;
    } astCase[] = {
        {31058, "", "operate fail", "-----"},
        {31058, "MW_CTRL", "operate fail", "-----"},
        {31058, "\n", "operate fail", "-----"},
        {31058, "\nMW_CTRL\nnobody", "operate fail", "-----"},
        {31058, "\nMW_CTRL\nBP", "operate fail", "-----"},
        {31058, "\nMW_CTRL\n", "operate fail", "-----"},
        {31058, "\nMW_PT", "operate fail", "-----"},
        {31058, "\nMW_PTZ\nmov", "operate fail", "-----"},
        {31058, "\n" + std::string(100, 'n'), "operate fail", "-----"},
        {31058, "\nn" + szName31, "operate fail", "-----"},
        {31058, "\n" + szName31, "operate success", "-----"},
        {31058, std::string("\nMW_CTRL\0", 9), "operate fail", "-----"},
        {31058, "\nMW_CTRL", "operate success", "-C---"},
        {31058, "\nMW_PTZ\nmove\nfast", "operate success", "-C--f"},
        {31059, "\nMW_PTZ", "operate success", "-C---"},
        {31058, "\nMW_PTZ\nmove", "operate success", "-C-mf"},
        {31058, "\nMW_PTZ", "operate success", "-CPmf"},
        {31059, "\nMW_PTZ\nmove", "operate success", "-CP--"},
        {31058, "\nall", "operate success", "BCPmf"},
        {31059, "\nBP", "operate success", "-CPmf"},
        {31059, "\nall", "operate success", "-----"},
    };
    for (const auto &stCase : astCase) {
        EXPECT_EQ(Ask(stCase.ulMsgCode, stCase.szText), stCase.szAnswer) << stCase.szText;
        std::string szOn;
        BP_LogInfo stInfo;
        for (uint32_t i = 1; i <= 5 && BP_GetLogInfo(i, &stInfo) == BP_OK; i++) {
            szOn += stInfo.ulDebugOn != 0 ? "BCPmf"[i - 1] : '-';
        }
        EXPECT_EQ(szOn, stCase.szOn) << stCase.szText;
    }
}

// Every command of the kit, and that its answer fits a serial terminal.
TEST_F(CmdServe, RuntimeCommands) {
    EXPECT_EQ(Ask(31052, ""), "\nBP\nMW_CTRL\n");
    BP_RegistModule("MW_INTERFACE", 1, nullptr);
    BP_ModuleInfo *pstModule = BP_GetModuleByID(0x9000000D);
    for (std::atomic<uint32_t> *pulCnt : {&pstModule->ulSendCnt, &pstModule->ulRecvCnt}) {
        BP_Write(*pulCnt, UINT32_MAX);
    }
    BP_TimerParam stTimer = {};
    stTimer.ulModuleID = 0x9000000D;
    stTimer.pfnComCb = [](uint32_t, uint32_t) { return BP_OK; };
    stTimer.lInterval = INT32_MAX;
    stTimer.usDay = 5;
    stTimer.usHour = 23;
    uint32_t ulTimerID = 0;
    for (uint32_t ulType : {BP_TIMER_ONCE, BP_TIMER_CYCLE, BP_TIMER_DAY, BP_TIMER_WEEK, BP_TIMER_MONTH}) {
        stTimer.ulType = ulType;
        EXPECT_EQ(BP_RegistTimer(&stTimer, &ulTimerID), BP_OK);
    }
    Ask(31058, "\nMW_CTRL");
    const std::string szTime = "20[0-9]{2}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}";
    const std::string szClass = "class size    total  free   used";
    const std::string szTitles =
        "module         id         thread  msg ack tmr sent       last  received   last\n";
    const struct {
        std::string szCommand, szAnswer;
    } astCase[] = {
        {"process >", "process: MW_MWARE\npid: " + std::to_string(getpid()) +
                          "\nID: 101\nport: 2048\nstarted: " + szTime +
                          "\npace: " + (TestIsPrompt() ? "prompt" : "default") + "\nloglevel: 2 \\(INFO\\)"},
        {"slab >", szClass + "\n0     128 .*(\n.*){6}\n7     8 .*"},
        {"slab class >6;", szClass + "\n6     16384   4      4      0"},
        {"slab class >8;", "no class 8: classes are 0 to 7"},
        {"module >", szTitles + "MW_MWARE_cmd .*\nMW_CTRL .*\nMW_MWARE .*\nMW_INTERFACE .*"},
        {"module name >MW_MWARE_cmd;",
         szTitles + "MW_MWARE_cmd   0xfffffffe [0-9]+ +0   0   0   [0-9]+ +31060 [0-9]+ +31060"},
        {"module name >MW_INTERFACE;",
         szTitles + "MW_INTERFACE   0x9000000d [0-9]+ +0   0   0   4294967295 0     4294967295 0"},
        {"module name >nobody;", "no module nobody"},
        {"thread >", "thread  name(\n[0-9]+ +(MW_MWARE_cmd|MW_CTRL|MW_MWARE|MW_INTERFACE)){4}"},
        {"timer >", "timer      module         type  rule            next expiry\n"
                    "1          MW_INTERFACE   once  2147483647 ms   " +
                        szTime + "\n2          MW_INTERFACE   cycle 2147483647 ms   " + szTime +
                        "\n3          MW_INTERFACE   day   23:00:00        " + szTime +
                        "\n4          MW_INTERFACE   week  Fri 23:00:00    " + szTime +
                        "\n5          MW_INTERFACE   month day 5 23:00:00  " + szTime},
        {"dump yes >no;", "nothing written: it takes a yes"},
        {"dump yes >yes;", "/var/log/Slab_all.log\n/var/log/Timer_info.log\n/var/log/Slab_Keyinfo.log"},
        {"log >", "loglevel: 2 \\(INFO\\)\n/var/log/MW_MWARE00.log   +[0-9]+ bytes\n"
                  "/var/log/MW_MWARE00.debug +[0-9]+ bytes\n/var/log/MW_MWARE00.buf   +[0-9]+ bytes\n"
                  "log module                      id         debug\n"
                  "BP                              0x01040000 off\n"
                  "MW_CTRL                         0x90000001 on"},
    };
    std::set<std::string> aszSeen;
    for (const auto &stCase : astCase) {
        std::string szAnswer; // a thread lists itself when it runs
        EXPECT_TRUE(WaitFor([&] {
            szAnswer = Ask(31060, "<display " + stCase.szCommand);
            return Matches(szAnswer, "^" + stCase.szAnswer + "$");
        })) << szAnswer;
        EXPECT_FALSE(Matches(szAnswer, "[^\n]{80}")) << szAnswer;
        aszSeen.insert(stCase.szCommand.substr(0, stCase.szCommand.find(' ')));
    }
    EXPECT_TRUE(Matches(Tree(), "^\ncommands\ndisplay\n.*\n" + std::to_string(aszSeen.size()) + "\n"));
}

static uint32_t Fail(const BP_CmdArgs *pstArgs, BP_CmdAnswer *pstAnswer, uint32_t ulParam) {
    (void)ulParam;
    BP_AnswerPrint(pstAnswer, "lost");
    return pstArgs->astArg[0].ulValue;
}

TEST_F(CmdServe, Refusal_IsLoggedWithTheWordAsFarAsItIsPrintable) {
    static const BP_CmdDef stFail = {{{T, "fail", ""}, {I, "code", ""}}, Fail, 0};
    ASSERT_EQ(BP_RegistCmd(&stFail), BP_OK);
    const struct {
        uint32_t ulMsgCode;
        std::string szText, szCode, szLine;
    } astCase[] = {
        {31058, "\nks", "1041", "no log module: ks"},
        {31059, "\nMW_CTRL\nzoom\nfast", "1041", "no log module: MW_CTRL zoom fast"},
        {31058, "\n" + std::string(41, 'n'), "1041", "no log module: n{39}"},
        {31058, "", "1041", "no log module: "},
        {31056, "9", "2", "not a level from 2 to 5: 9"},
        {31056, "\x1B[2J\r\nforged\x80%s", "2", "not a level from 2 to 5: \\?\\[2J\\? forged\\?%s"},
        {31060, "<display nothing >", "1107", "no such command: <display nothing >"},
        {31060, "<display fail code >77;", "77", "command failed: <display fail code >77;"},
    };
    for (const auto &stCase : astCase) {
        EXPECT_EQ(Ask(stCase.ulMsgCode, stCase.szText), "operate fail");
        EXPECT_TRUE(Matches(ReadFile("/var/log/MW_MWARE00.log"),
                            "\\[W\\(" + stCase.szCode + "\\)\\]\\[bp_cmd-[0-9]+\\]\\[BP_RefuseRequest\\]" +
                                stCase.szLine + "\r\n"))
            << stCase.szLine;
    }
}

static uint32_t PrintMuch(const BP_CmdArgs *pstArgs, BP_CmdAnswer *pstAnswer, uint32_t ulParam) {
    (void)ulParam;
    for (uint32_t i = 0; i < pstArgs->astArg[0].ulValue; i++) {
        BP_AnswerPrint(pstAnswer, "line %04u\n", i);
    }
    return BP_OK;
}

TEST_F(CmdServe, AnswerTooLong_IsCutAtALineEndAndSaysSo) {
    static const BP_CmdDef stMuch = {{{T, "much", ""}, {I, "lines", ""}}, PrintMuch, 0};
    ASSERT_EQ(BP_RegistCmd(&stMuch), BP_OK);
    const std::string szWhole = Ask(31060, "<display much lines >815;"); // 8150 bytes
    EXPECT_EQ(szWhole.size(), 8149U);
    const std::string szCut = Ask(31060, "<display much lines >816;");
    EXPECT_LE(szCut.size(), BP_ACK_TEXT_MAX);
    EXPECT_NE(szCut.find("line 0807\n(answer cut: 8080 of 8160 bytes)"), std::string::npos)
        << szCut.substr(8000);
    EXPECT_EQ(szCut.find("line 0808"), std::string::npos);
    EXPECT_NE(Ask(31060, "<display much lines >100000;").find("of 1090000 bytes)"), std::string::npos);
}

TEST_F(CmdServe, AckWithoutBigBuffer_SaysAtLeastThatItFailed) {
    std::vector<BP_SlabBuf *> apstTaken;
    while (BP_SlabBuf *pstBuf = BP_SlabGetBuf(16384, BP_SLAB_TYPE_MSG)) {
        apstTaken.push_back(pstBuf);
    }
    static const BP_CmdDef stMuch = {{{T, "much", ""}, {I, "lines", ""}}, PrintMuch, 0};
    ASSERT_EQ(BP_RegistCmd(&stMuch), BP_OK);
    EXPECT_EQ(Ask(31060, "<display much lines >700;"), "operate fail");
    for (BP_SlabBuf *pstBuf : apstTaken) {
        BP_SlabFreeBuf(pstBuf);
    }
    EXPECT_EQ(BP_SendAckMsg(nullptr, "x", 1), BP_ERR_PARAM);
    BP_StructMsg stMsg = BP_CreatStructMsg(nullptr, 0);
    BP_FillMsgHdr(stMsg.pstSlabBuf, 0, 1, BP_MODULE_ID_MAIN, 0x90000003);
    EXPECT_EQ(BP_SendAckMsg(&stMsg, "x", 1), BP_ERR_NO_MODULE);
    BP_EraseMsgData(&stMsg);
}
