#include <gtest/gtest.h>

#include "console/cli_cmd.h"

// The tree below a node: name:type(children), in the order of the groups.
static std::string Draw(CLI_CMD_NODE *pstNode) {
    std::string szText = std::string(pstNode->szName) + ":" + std::to_string(pstNode->ulType);
    CLI_CMD_NODE *pstChild = pstNode->ulLinkedNum != 0 ? CLI_NodeAfter(pstNode) : nullptr;
    if (pstChild == nullptr) {
        return szText;
    }
    szText += "(";
    for (CLI_CMD_NODE *pst = pstChild; pst != nullptr; pst = CLI_NextInGroup(pstChild, pst)) {
        szText += (pst == pstChild ? "" : " ") + Draw(pst);
    }
    return szText + ")";
}

class Tree : public testing::Test {
protected:
    void TearDown() override { Free(); }
    static void Free() {
        CLI_FreeTree(g_pCmdTempletRoot);
        CLI_FreeTree(g_pCmdNodeRoot);
        g_pCmdTempletRoot = g_pCmdNodeRoot = nullptr;
    }
    static std::string Build(const std::string &szText) {
        Free();
        CLI_InitNodeRoot(&g_pCmdTempletRoot);
        CLI_InitNodeRoot(&g_pCmdNodeRoot);
        CLI_CMD_NODE *pstHolder = g_pCmdNodeRoot;
        EXPECT_EQ(CLI_BuildCmdTree(szText.c_str()), BP_OK);
        EXPECT_EQ(g_pCmdNodeRoot, pstHolder);
        return Draw(g_pCmdTempletRoot);
    }
    // Entries written as "name help count", the root first; help t, i, s or e for the types.
    static std::string Text(const std::string &szEntries) {
        std::string szText = "\nheader\n";
        std::istringstream stIn(szEntries);
        std::string szName, szHelp, szCount;
        while (stIn >> szName >> szHelp >> szCount) {
            szHelp = szHelp == "t"   ? "title x"
                     : szHelp == "i" ? "integer x"
                     : szHelp == "s" ? "string x"
                                     : "end";
            szText += szName + "\n" + szHelp + "\n" + szCount + "\n";
        }
        return szText;
    }
};

TEST_F(Tree, ConsistentTexts) {
    EXPECT_EQ(
        Build("\nhdr\ndisplay\ntitle show information\n1\nsystem\ntitle system information\n1\ncr\nend\n0\n"),
        "display:1(system:1(cr:99))");
    EXPECT_STREQ(g_pCmdTempletRoot->szHelp, "title show information");
    EXPECT_EQ(Build("Xhdr\n\n\ndisplay\n\ntitle\n\n0"), "display:1");
    EXPECT_EQ(Build(Text("d t 3 a t 2 e1 e 0 n i 1 e2 e 0 b t 1 e3 e 0 c t 2 c1 t 1 e4 e 0 c2 s 1 e5 e 0")),
              "d:1(a:1(e1:99 n:2(e2:99)) b:1(e3:99) c:1(c1:1(e4:99) c2:3(e5:99)))");
}

// Which node follows which decides where a command may end.
TEST_F(Tree, NodeAfter) {
    Build(Text("d t 2 a t 1 e e 0 b t 0"));
    CLI_CMD_NODE *pstA = CLI_NodeAfter(g_pCmdTempletRoot);
    CLI_CMD_NODE *pstEnd = CLI_NodeAfter(pstA);
    CLI_CMD_NODE *pstB = CLI_NextInGroup(pstA, pstA);
    EXPECT_STREQ(pstEnd->szName, "e");
    EXPECT_EQ(CLI_NodeAfter(pstEnd), g_pCmdTempletRoot);
    EXPECT_EQ(CLI_NodeAfter(pstB), pstB);
    EXPECT_EQ(pstA->ulFirstChild, 1U);
    EXPECT_EQ(pstB->ulFirstChild, 0U);
}

TEST_F(Tree, CountsThatDoNotFit_LinkWhatThereIs) {
    const struct {
        std::string szEntries, szTree;
    } astCase[] = {
        {"d t 5 a t 1 e e 0 b t 0", "d:1(a:1(e:99) b:1)"},
        {"d t 1 a t 9 b t 9 c t 9", "d:1(a:1(b:1(c:1)))"},
        {"d t 1 a t 0 b t 0 c t 3", "d:1(a:1)"},
        {"d t 0 a t 0", "d:1"},
        {"d t many a t 0", "d:1"},
        {"d t 99999999999 a t x b t 0", "d:1(a:1 b:1)"},
        {"d t 2 a t 0 b", "d:1(a:1)"},
        {"d t 2 a t 0 b t", "d:1(a:1)"},
    };
    for (const auto &stCase : astCase) {
        EXPECT_EQ(Build(Text(stCase.szEntries)), stCase.szTree) << stCase.szEntries;
    }
}

TEST_F(Tree, TextsThatEndEarly_LeaveARootWithoutChildren) {
    for (const char *pcText : {"", "\n", "\nhdr", "\nhdr\nd", "\nhdr\nd\ntitle", "X"}) {
        Build(pcText);
        EXPECT_EQ(g_pCmdTempletRoot->ulLinkedNum, 0U);
        EXPECT_EQ(CLI_NodeAfter(g_pCmdTempletRoot), g_pCmdTempletRoot);
    }
}

TEST_F(Tree, OverlongFieldsAreCut) {
    Build("\nh\n" + std::string(40, 'n') + "\ntitle " + std::string(200, 'h') + "\n0\n");
    EXPECT_EQ(std::string(g_pCmdTempletRoot->szName), std::string(31, 'n'));
    EXPECT_EQ(strlen(g_pCmdTempletRoot->szHelp), 127U);
}

// As deep and as wide as nobody's stack is.
TEST_F(Tree, HugeTextsNeitherCrashNorLeak) {
    std::string szDeep = "\nh\nd\ntitle\n1\n";
    std::string szWide = "\nh\nd\ntitle\n1000000\n";
    for (int i = 0; i < 200000; i++) {
        szDeep += "a\ntitle\n1\n";
        szWide += "a\ntitle\n0\n";
    }
    for (const std::string &szText : {szDeep, szWide}) {
        Free();
        CLI_InitNodeRoot(&g_pCmdTempletRoot);
        CLI_InitNodeRoot(&g_pCmdNodeRoot);
        EXPECT_EQ(CLI_BuildCmdTree(szText.c_str()), BP_OK);
    }
    EXPECT_EQ(g_pCmdTempletRoot->ulLinkedNum, 200000U);
}

TEST_F(Tree, WrongArguments) {
    EXPECT_EQ(CLI_BuildCmdTree(nullptr), BP_ERR_PARAM);
    EXPECT_EQ(CLI_BuildCmdTree("\nh\nd\ntitle\n0\n"), BP_ERR_PARAM); // no root
    EXPECT_EQ(CLI_LinkNode(1, nullptr), BP_ERR_PARAM);
    CLI_FreeTree(nullptr);
}

TEST_F(Tree, TypesGoByTheBeginningOfTheHelpLine) {
    const std::pair<const char *, uint32_t> astCase[] = {{"title", 1},    {"titles of x", 1}, {"integerish", 2},
                                                         {"string x", 3}, {"Title", 99},      {" title", 99},
                                                         {"", 99},        {nullptr, 99}};
    for (const auto &stCase : astCase) {
        EXPECT_EQ(CLI_GetNodeType(stCase.first), stCase.second);
    }
}

static std::string Modules() {
    std::string szText;
    for (uint32_t i = 0; i < CLI_MODULE_NUM && g_szModule[i][0] != '\0'; i++) {
        szText += std::string(g_szModule[i]) + " ";
    }
    return szText;
}

TEST(ModuleInfo, ListsAreMergedWithoutDuplicates) {
    EXPECT_EQ(CLI_BuildModuleInfo(nullptr), BP_ERR_PARAM);
    EXPECT_EQ(CLI_BuildModuleInfo(""), BP_OK);
    EXPECT_EQ(CLI_BuildModuleInfo("\n\n"), BP_OK);
    EXPECT_EQ(Modules(), "");
    EXPECT_EQ(CLI_BuildModuleInfo("\nMW_CTRL\n\nMW_PTZ\nMW_CTRL\n"), BP_OK);
    EXPECT_EQ(Modules(), "MW_CTRL MW_PTZ ");
    EXPECT_EQ(CLI_BuildModuleInfo("XMW_ALM\nMW_PTZ\nMW_CC"), BP_OK);
    EXPECT_EQ(Modules(), "MW_ALM MW_PTZ MW_CC ");
    std::string szMany = "\n" + std::string(40, 'n');
    for (int i = 0; i < 40; i++) {
        szMany += "\nmodule" + std::to_string(i);
    }
    EXPECT_EQ(CLI_BuildModuleInfo(szMany.c_str()), BP_OK);
    EXPECT_EQ(std::string(g_szModule[0]), std::string(31, 'n'));
    EXPECT_STREQ(g_szModule[32], "module29");
}
