// Lines as they are typed, with the target played by a script.
#include "console/cli_cmd.h"
#include "tests/support/on_bus.h"

class Interpret : public AsConsole {
protected:
    void SetUp() override {
        AsConsole::SetUp();
        g_ulModuleID = BP_MODULE_ID_MWARE_CMD;
        snprintf(g_szSysPrompt, sizeof(g_szSysPrompt), "[dbg]");
        CLI_InitNodeRoot(&g_pCmdTempletRoot);
        CLI_InitNodeRoot(&g_pCmdNodeRoot);
    }
    void TearDown() override {
        CLI_FreeTree(g_pCmdTempletRoot);
        CLI_FreeTree(g_pCmdNodeRoot);
        AsConsole::TearDown();
    }
    // Interpretation's result; a line of an @ and a code makes that request.
    int32_t Interpreted(const std::string &szLine) {
        memset(g_szLineBuf, 0, sizeof(g_szLineBuf));
        memcpy(g_szLineBuf, szLine.data(), szLine.size());
        testing::internal::CaptureStdout();
        const int32_t lRet =
            szLine[0] == '@'
                ? static_cast<int32_t>(CLI_ExecuteCmd(static_cast<uint32_t>(std::stoul(szLine.substr(1))), ""))
                : CLI_MainProcess();
        szPrinted_ = testing::internal::GetCapturedStdout();
        szSent_.clear();
        const std::vector<WireMsg> astReq = stTarget_.Requests();
        for (; ulSeen_ < astReq.size(); ulSeen_++) {
            szSent_ += std::to_string(astReq[ulSeen_].stHdr.ulMsgCode) + " " + astReq[ulSeen_].szPayload;
        }
        return lRet;
    }
    std::string szPrinted_, szSent_;
    size_t ulSeen_ = 0;
    ScriptedTarget stTarget_{PORT_MWARE, AnswerAll("")};
};

// One after the other: what the target answers with, the line, what is sent, what is printed, the result, and
// the line afterwards.
TEST_F(Interpret, Lines) {
    for (const auto &aszRow : Rows("lines.txt")) {
        SCOPED_TRACE(aszRow[1]);
        stTarget_.SetScript(AnswerAll(aszRow[0]));
        EXPECT_EQ(std::to_string(Interpreted(aszRow[1])), aszRow[4]);
        EXPECT_EQ(szSent_, aszRow[2]);
        EXPECT_EQ(szPrinted_, aszRow[3]);
        EXPECT_EQ(std::string(g_szLineBuf), aszRow.size() > 5 ? aszRow[5] : aszRow[1]);
    }
    EXPECT_EQ(Logged("[E(2)][cli_cmd-"), 2U);
    EXPECT_EQ(Logged("[CLI_MainProcess]ulCmdArgc = 0."), 2U);
    EXPECT_EQ(CLI_ExecuteCmd(1, nullptr), BP_ERR_PARAM);
    g_ulModuleID = NOBODY;
    EXPECT_EQ(Interpreted("display loglevel"), 1);
    EXPECT_EQ(szPrinted_, "");
    EXPECT_EQ(Logged("[E(1056)][cli_cmd-"), 1U);
    EXPECT_EQ(Logged("[CLI_ExecuteCmd]fail to send cmd msg"), 1U);
}

// Names of 31 characters, nine deep: the canonical string would pass 255 characters at the eighth word.
TEST_F(Interpret, CommandTooLongForItsBuffer_IsNeverSentCut) {
    std::string szEntries;
    for (int i = 0; i < 9; i++) {
        szEntries += std::string(30, 'n') + "x\ninteger\n1\n";
    }
    EXPECT_EQ(CLI_BuildCmdTree(("\nh\nd\ntitle\n1\n" + szEntries + "cr\nend\n0\n").c_str()), BP_OK);
    EXPECT_EQ(Interpreted("d 1 1 1 1 1 1 1 1 1"), 1);
    EXPECT_EQ(szPrinted_, "\r\n" + std::string(5 + 16, ' ') + "^\r\nWrong command input!");
    EXPECT_EQ(szSent_, "");
    EXPECT_EQ(std::string(g_szExtendParam), "1;1;1;1;1;1;1;");
}

TEST(Words, AreSplitAtSpacesAndAt39Characters) {
    const auto pfnWords = [](const std::string &szLine) {
        CLI_WORDS stWords;
        CLI_SplitLine(szLine.c_str(), &stWords);
        std::string szWords;
        for (uint32_t i = 0; i < stWords.ulNum; i++) {
            szWords += std::string(stWords.aszWord[i]) + "/";
        }
        return szWords;
    };
    EXPECT_EQ(pfnWords("  a\tb " + std::string(45, 'x') + " c\nd"),
              "a\tb/" + std::string(39, 'x') + "/xxxxxx/c/");
    EXPECT_EQ(pfnWords("a b c d e f g h i j k l m n o p q r s t u v"),
              "a/b/c/d/e/f/g/h/i/j/k/l/m/n/o/p/q/r/s/t/");
    for (const auto &[pcText, ulAll] : {std::pair("", 1U), {"0123456789", 1U}, {"12a", 0U}}) {
        EXPECT_EQ(CLI_IsAllDigits(pcText), ulAll) << pcText;
    }
}
