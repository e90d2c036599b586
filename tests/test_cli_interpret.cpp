// Lines as they are typed, against a tree, with the target played by a script: what is printed, what is sent,
// what the line looks like afterwards.
#include <gtest/gtest.h>

#include "console/cli_cmd.h"
#include "tests/support/bus_peer.h"
#include "tests/support/capture.h"
#include "tests/support/files.h"

class Interpret : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(BP_MwareInit("ks", 257), BP_OK);
        g_ulModuleID = BP_MODULE_ID_MWARE_CMD;
        snprintf(g_szSysPrompt, sizeof(g_szSysPrompt), "[dbg]");
    }
    void TearDown() override {
        CLI_FreeTree(g_pCmdTempletRoot);
        CLI_FreeTree(g_pCmdNodeRoot);
        EXPECT_TRUE(AllSlabsRefill());
    }
    static void Build(const std::string &szEntries) {
        CLI_FreeTree(g_pCmdTempletRoot);
        CLI_FreeTree(g_pCmdNodeRoot);
        CLI_InitNodeRoot(&g_pCmdTempletRoot);
        CLI_InitNodeRoot(&g_pCmdNodeRoot);
        ASSERT_EQ(CLI_BuildCmdTree(("\nheader\n" + szEntries).c_str()), BP_OK);
    }
    static int32_t Interpret1(const std::string &szLine, std::string *pszPrinted) {
        memset(g_szLineBuf, 0, sizeof(g_szLineBuf));
        memcpy(g_szLineBuf, szLine.data(), szLine.size());
        Capture stOut(stdout);
        const int32_t lRet = CLI_MainProcess();
        *pszPrinted = stOut.Stop();
        return lRet;
    }
    std::string Sent() {
        const std::vector<WireMsg> astReq = stTarget_.Requests();
        std::string szSent;
        for (; ulSeen_ < astReq.size(); ulSeen_++) {
            szSent += std::to_string(astReq[ulSeen_].stHdr.ulMsgCode) + " " + astReq[ulSeen_].szPayload;
        }
        return szSent;
    }
    size_t ulSeen_ = 0;
    ScriptedTarget stTarget_{PORT_MWARE, AnswerAll("ok")};
};

static const char g_szTree[] =
    "display\ntitle show\n5\n"
    "system\ntitle system info\n1\ncr\nend\n0\n"
    "status\ntitle status info\n1\ncr\nend\n0\n"
    "level\ntitle level\n2\ncr\nend\n0\nnumber\ninteger which\n1\ncr\nend\n0\n"
    "user\ntitle user\n1\nname\nstring who\n1\ncr\nend\n0\n"
    "show\ntitle show\n2\nshow\ntitle a\n1\ncr\nend\n0\nshowall\ntitle b\n1\ncr\nend\n0\n";

TEST_F(Interpret, Lines) {
    static const std::string szDigits = "7777777777777777777777777777777777777";
    const struct {
        std::string szLine, szSent, szPrinted;
        int32_t lRet;
        std::string szLineAfter; // "=": as it was
    } astCase[] = {
        {"", "", "", 1, "="},
        {"   ", "", "", 1, "="},
        // built-in words
        {"debug MW_PTZ ptz", "31058 \nMW_PTZ\nptz", "", 0, "="},
        {"nodebug all MW_PTZ", "31059 \nall", "", 0, "="},
        {"debug MW_PTZ all", "31058 \nall", "", 0, "="},
        {"loglevel 3", "31056 3", "", 0, "="},
        {"loglevel 3 4", "31056 3", "", 0, "="},
        {"loglevel x", "", "\r\n              ^\r\nWrong command input!", 0, "="},
        {"loglevel", "", "\r\n     ^\r\nWrong command input!", 1, "="},
        {"display loglevel", "31055 dbgcmd", "\r\nok\n", 0, "="},
        {"anything loglevel x", "31055 dbgcmd", "\r\nok\n", 0, "="},
        {"deb", "", "\r\n     ^\r\nWrong command input!", 1, "="},
        // complete commands
        {"display   system", "31060 <display system >", "\r\nok\n", 0, "="},
        {"  display system ", "31060 <display system >", "\r\nok\n", 0, "="},
        {"display level", "31060 <display level >", "\r\nok\n", 0, "="},
        {"display level 3", "31060 <display level number >3;", "\r\nok\n", 0, "="},
        {"display level number", "31060 <display level number >", "\r\nok\n", 0, "="},
        {"display user bob;<%s%n>", "31060 <display user name >bob;<%s%n>;", "\r\nok\n", 0, "="},
        {"display system\t", "31060 <display system >", "", 0, "="}, // see below: the word is a fragment
        {"display system \t", "31060 <display system >", "\r\nok\n", 0, "="},
        {"display system x\t", "31060 <display system >", "\r\nok\n", 0, "="},
        // wrong, ambiguous, incomplete
        {"display sys", "", "\r\n             ^\r\nWrong command input!", 1, "="},
        {"display  nothing", "", "\r\n              ^\r\nWrong command input!", 1, "="},
        {"display system?", "", "\r\n             ^\r\nWrong command input!", 1, "="},
        {"display s", "", "\r\n             ^\r\nAmbiguous command input!", 1, "="},
        {"display show show", "", "\r\n                  ^\r\nAmbiguous command input!", 1, "="},
        {"display level x", "", "\r\n                   ^\r\nWrong command input!", 1, "="},
        {"display", "", "\r\n             ^\r\nIncomplete command input!", 0, "="},
        {"display user  ", "", "\r\n                  ^\r\nIncomplete command input!", 0, "="},
        {"display user 12345678901234567890123456789012345678",
         "31060 <display user name >12345678901234567890123456789012345678;", "\r\nok\n", 0, "="},
        {"display user 123456789012345678901234567890123456789", "",
         "\r\n                  ^\r\nWrong command input!", 1, "="},
        {"display level number 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18", "", "", 1, "="},
        // completion
        {"\t", "", "", 0, "display "},
        {"di\t", "", "", 0, "display "},
        {"x\t", "", "", 0, "="},
        {"display sys\t", "", "", 0, "display system "},
        {"display s\t", "",
         "\r\nsystem \t\t title system info\nstatus \t\t title status info\nshow \t\t title show\n", 0, "="},
        {"display zz\t", "", "", 0, "="},
        {"display user \t", "", "\r\nname \t\t string who\n", 0, "="},
        {"display user x\t", "", "", 0, "="},
        {"display system" + std::string(70, ' ') + "\t", "31060 <display system >", "\r\nok\n", 0, "="},
        {std::string(90, ' ') + "dis\t", "", "", 0, std::string(90, ' ') + "display "},
        {std::string(91, ' ') + "dis\t", "", "", 0, std::string(91, ' ') + "display "},
        {std::string(92, ' ') + "dis\t", "", "", 0, "="}, // would be one too many
    };
    Build(g_szTree);
    for (const auto &stCase : astCase) {
        SCOPED_TRACE(stCase.szLine);
        std::string szPrinted;
        const bool bFragment = stCase.szLine == "display system\t";
        EXPECT_EQ(Interpret1(stCase.szLine, &szPrinted), stCase.lRet);
        if (stCase.szLine.find("10 11") == std::string::npos) {
            EXPECT_EQ(szPrinted, stCase.szPrinted);
        }
        EXPECT_EQ(Sent(), bFragment ? "" : stCase.szSent);
        const std::string szAfter = bFragment ? "display system " : stCase.szLineAfter;
        EXPECT_EQ(std::string(g_szLineBuf), szAfter == "=" ? stCase.szLine : szAfter);
    }
    EXPECT_EQ(CountOf(ReadFile("/var/log/ks00.log"), "[E(2)][cli_cmd-"), 2U);
    EXPECT_EQ(CountOf(ReadFile("/var/log/ks00.log"), "[CLI_MainProcess]ulCmdArgc = 0."), 2U);
}

TEST_F(Interpret, WordsAreSplitAtSpacesAndAt39Characters) {
    CLI_WORDS stWords;
    CLI_SplitLine(("  a\tb " + std::string(45, 'x') + " c\nd").c_str(), &stWords);
    ASSERT_EQ(stWords.ulNum, 4U);
    EXPECT_STREQ(stWords.aszWord[0], "a\tb");
    EXPECT_EQ(std::string(stWords.aszWord[1]), std::string(39, 'x'));
    EXPECT_STREQ(stWords.aszWord[2], "xxxxxx");
    std::string szMany;
    for (int i = 0; i < 25; i++) {
        szMany += "w" + std::to_string(i) + " ";
    }
    CLI_SplitLine(szMany.c_str(), &stWords);
    EXPECT_EQ(stWords.ulNum, 20U);
    EXPECT_EQ(CLI_IsAllDigits(""), 1U);
    EXPECT_EQ(CLI_IsAllDigits("0123456789"), 1U);
    EXPECT_EQ(CLI_IsAllDigits("12a"), 0U);
}

// Names of 31 characters, nine deep: the canonical string would pass 255 characters at the eighth word.
TEST_F(Interpret, CommandTooLongForItsBuffer_IsNeverSentCut) {
    std::string szEntries = "d\ntitle\n1\n";
    std::string szLine = "d";
    for (int i = 0; i < 9; i++) {
        szEntries += std::string(30, 'n') + "x\ninteger\n1\n";
        szLine += " 1";
    }
    Build(szEntries + "cr\nend\n0\n");
    std::string szPrinted;
    EXPECT_EQ(Interpret1(szLine, &szPrinted), 1);
    EXPECT_EQ(szPrinted, "\r\n" + std::string(5 + 16, ' ') + "^\r\nWrong command input!");
    EXPECT_EQ(Sent(), "");
    EXPECT_EQ(std::string(g_szExtendParam), "1;1;1;1;1;1;1;");
}

TEST_F(Interpret, DebugListsModules_OrSendsThemWhole) {
    std::string szPrinted;
    EXPECT_EQ(Interpret1("debug", &szPrinted), 0);
    EXPECT_EQ(szPrinted, "\r\n");
    CLI_BuildModuleInfo("\nMW_CTRL\nMW_PTZ");
    EXPECT_EQ(Interpret1("nodebug", &szPrinted), 0);
    EXPECT_EQ(szPrinted, "\r\nMW_CTRL\nMW_PTZ\n");
    EXPECT_EQ(Sent(), "");
}

TEST_F(Interpret, Answers) {
    std::string szPrinted;
    stTarget_.SetScript(AnswerAll("operate fail"));
    static const char szFailed[] = "\r\n[kestrel error] receive failed result.\n";
    for (const char *pcLine : {"debug X", "nodebug X", "loglevel 9", "display loglevel"}) {
        EXPECT_EQ(Interpret1(pcLine, &szPrinted), 0);
        EXPECT_EQ(szPrinted, szFailed);
    }
    stTarget_.SetScript(AnswerAll("operate failed"));
    Interpret1("display loglevel", &szPrinted);
    EXPECT_EQ(szPrinted, "\r\noperate failed\n");
    EXPECT_EQ(CLI_ExecuteCmd(1, nullptr), BP_ERR_PARAM);
    g_ulModuleID = 0x90000006;
    EXPECT_EQ(Interpret1("display loglevel", &szPrinted), 1);
    EXPECT_EQ(szPrinted, "");
    EXPECT_EQ(CountOf(ReadFile("/var/log/ks00.log"), "[E(1056)][cli_cmd-"), 1U);
    EXPECT_EQ(CountOf(ReadFile("/var/log/ks00.log"), "[CLI_ExecuteCmd]fail to send cmd msg"), 1U);
}

TEST_F(Interpret, NewDefinitionsReplaceTheTree) {
    std::string szPrinted;
    Build(g_szTree);
    stTarget_.SetScript(AnswerAll("\nh\nget\ntitle\n1\ncr\nend\n0\n"));
    EXPECT_EQ(CLI_ExecuteCmd(BP_CMD_GET_TREE, ""), BP_OK);
    stTarget_.SetScript(AnswerAll("got"));
    Interpret1("get", &szPrinted);
    EXPECT_EQ(szPrinted, "\r\ngot\n");
    stTarget_.SetScript(AnswerAll("\nA\nB"));
    EXPECT_EQ(CLI_ExecuteCmd(BP_CMD_GET_MODULES, ""), BP_OK);
    EXPECT_STREQ(g_szModule[1], "B");
}
