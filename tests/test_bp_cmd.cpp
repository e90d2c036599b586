#include <deque>
#include <gtest/gtest.h>

#include "bp/bp.h"
#include "bp/bp_cmd/cmd_parse.h"
#include "tests/support/bus_peer.h"
#include "tests/support/files.h"

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
    BP_CmdArgs stArgs = {};
    static BP_CmdAnswer stAnswer;
    stAnswer.ulTotal = 0;
    const BP_CmdDef *pstDef = BP_ParseCmd(szText.data(), static_cast<uint32_t>(szText.size()), &stArgs);
    if (pstDef == nullptr) {
        return "refused";
    }
    pstDef->pfnCmd(&stArgs, &stAnswer, pstDef->ulParam);
    return stAnswer.szText;
}

static constexpr uint32_t T = BP_CMD_TITLE;
static constexpr uint32_t I = BP_CMD_INTEGER;
static constexpr uint32_t S = BP_CMD_STRING;
static constexpr uint32_t OPT = BP_CMD_OPTIONAL;

TEST(CmdTable, DefinitionText_SharesBeginningsAndMarksEnds) {
    ASSERT_EQ(Regist({{T, "slab", "pools"}, {I | OPT, "class", nullptr}}), BP_OK);
    ASSERT_EQ(Regist({{T, "net", "network"}, {T, "if", "interfaces"}}), BP_OK);
    ASSERT_EQ(Regist({{T, "net", "shown above"}, {T, "route", "routes"}, {S, "to", "address"}}), BP_OK);
    ASSERT_EQ(Regist({{T, "net", ""}}), BP_OK);
    EXPECT_EQ(Tree(), "\ncommands\n"
                      "display\ntitle information about this process\n2\n"
                      "slab\ntitle pools\n2\n<cr>\nend\n0\nclass\ninteger \n1\n<cr>\nend\n0\n"
                      "net\ntitle network\n3\n<cr>\nend\n0\n"
                      "if\ntitle interfaces\n1\n<cr>\nend\n0\n"
                      "route\ntitle routes\n1\nto\nstring address\n1\n<cr>\nend\n0\n");
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
    ASSERT_EQ(Regist({{T, "copy", ""}, {S, "from", ""}, {I, "to", ""}}, 2), BP_OK);
    const std::string szLong(40, '7');
    const struct {
        std::string szText, szAnswer;
    } astCase[] = {
        {"<display slab >", "cmd1"},
        {"<display slab class >3;", "cmd1 3=3"},
        {"<display slab class >4294967295;", "cmd1 4294967295=4294967295"},
        {"<display copy from to >a>b;0007;", "cmd2 a>b 0007=7"},
        {"<display slab class >4294967296;", "refused"},
        {"<display slab class >-1;", "refused"},
        {"<display slab class >;", "refused"},
        {"<display slab class >3", "refused"},
        {"<display slab class >3;4;", "refused"},
        {"<display slab class >", "refused"},
        {"<display slab >3;", "refused"},
        {"<display slab class >" + szLong + ";", "refused"},
        {"<display copy from >a;", "refused"},
        {"<display >", "refused"},
        {"<>", "refused"},
        {"<", "refused"},
        {"", "refused"},
        {"display slab", "refused"},
        {"<display slab>", "refused"},
        {"<display  slab >", "refused"},
        {"<slab >", "refused"},
        {"<display sla >", "refused"},
        {"<display slab <cr> >", "refused"},
        {std::string("<display slab\0 >", 16), "refused"},
        {std::string("<display slab >\0", 16), "refused"},
        {"<display slab %s%n >", "refused"},
        {"<" + std::string(300, ' ') + ">", "refused"},
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

TEST_F(CmdServe, DebugSwitch_IsAllOrNothing) {
    const auto pfnOn = [](const char *pcName) { return BP_Read(BP_FindLogModuleByName(pcName)->ulDebugOn); };
    for (const std::string &szWrong :
         {std::string(), std::string("MW_CTRL"), std::string("\n"), std::string("\nMW_CTRL\nnobody"),
          std::string("\nMW_CTRL\n\n"), "\n" + std::string(100, 'n'), std::string("\nMW_CTRL\0", 9)}) {
        EXPECT_EQ(Ask(31058, szWrong), "operate fail") << szWrong;
    }
    EXPECT_EQ(pfnOn("MW_CTRL") + pfnOn("BP"), 0U);
    EXPECT_EQ(Ask(31058, "\nMW_CTRL\nBP"), "operate success");
    EXPECT_EQ(pfnOn("MW_CTRL") + pfnOn("BP"), 2U);
    EXPECT_EQ(Ask(31059, "\nBP"), "operate success");
    EXPECT_EQ(pfnOn("BP"), 0U);
    EXPECT_EQ(pfnOn("MW_CTRL"), 1U);
    EXPECT_EQ(Ask(31059, "\nall"), "operate success");
    EXPECT_EQ(pfnOn("MW_CTRL"), 0U);
}

TEST_F(CmdServe, RuntimeCommands) {
    EXPECT_EQ(Ask(31052, ""), "\nMW_MWARE_cmd\nMW_CTRL\nMW_MWARE\nBP\nMW_CTRL\n");
    EXPECT_EQ(Ask(31060, "<display slab class >6;"),
              "class size    total  free   used\n6     16384   4      4      0");
    EXPECT_EQ(Ask(31060, "<display slab class >8;"), "no class 8: classes are 0 to 7");
    EXPECT_EQ(CountOf(Ask(31060, "<display slab >"), "\n"), 8U);
    const std::string szModule = Ask(31060, "<display module name >MW_MWARE_cmd;");
    EXPECT_NE(szModule.find("MW_MWARE_cmd     0xfffffffe"), std::string::npos);
    EXPECT_NE(szModule.find(" 31060     31060"), std::string::npos); // last sent, last received
    EXPECT_EQ(CountOf(szModule, "\n"), 1U);
    EXPECT_EQ(Ask(31060, "<display module name >nobody;"), "no module nobody");
    EXPECT_EQ(CountOf(Ask(31060, "<display module >"), "\n"), 3U);
    EXPECT_EQ(CountOf(Ask(31060, "<display thread >"), "\n"), 3U);
    Ask(31058, "\nMW_CTRL");
    const std::string szLog = Ask(31060, "<display log >");
    EXPECT_NE(szLog.find("loglevel: 2 (INFO)\n/var/log/MW_MWARE00.log "), std::string::npos);
    EXPECT_NE(szLog.find("MW_CTRL          0x90000001  on"), std::string::npos);
    EXPECT_NE(szLog.find("BP               0x01040000  off"), std::string::npos);
    EXPECT_EQ(Ask(31060, "<display nothing >"), "operate fail");
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
