// The command tree and the list of modules, as a target's texts define them.
#include <cstring>
#include <gtest/gtest.h>

#include "console/cli_cmd.h"
#include "tests/support/files.h"
#include "tests/support/rows.h"

// The tree from a node on: name:type'help'(children), in the order of the groups.
static std::string Draw(CLI_CMD_NODE *pstNode) {
    std::string szText =
        std::string(pstNode->szName) + ":" + std::to_string(pstNode->ulType) + "'" + pstNode->szHelp + "'";
    CLI_CMD_NODE *pstFirst = pstNode->ulLinkedNum != 0 ? CLI_NodeAfter(pstNode) : nullptr;
    for (CLI_CMD_NODE *pst = pstFirst; pst != nullptr; pst = CLI_NextInGroup(pstFirst, pst)) {
        szText += (pst == pstFirst ? "(" : " ") + Draw(pst);
    }
    return szText + (pstFirst != nullptr ? ")" : "");
}

class Tree : public testing::Test {
protected:
    void TearDown() override { Free(); }
    static void Free() {
        CLI_FreeTree(g_pCmdTempletRoot);
        CLI_FreeTree(g_pCmdNodeRoot);
        g_pCmdTempletRoot = g_pCmdNodeRoot = nullptr;
    }
    static void Build(const std::string &szText) {
        Free();
        CLI_InitNodeRoot(&g_pCmdTempletRoot);
        CLI_InitNodeRoot(&g_pCmdNodeRoot);
        const CLI_CMD_NODE *pstHolder = g_pCmdNodeRoot;
        EXPECT_EQ(CLI_BuildCmdTree(szText.c_str()), BP_OK);
        EXPECT_EQ(g_pCmdNodeRoot, pstHolder);
    }
};

TEST_F(Tree, Texts) {
    for (const auto &aszRow : Rows("trees.txt")) {
        Build(aszRow[0]);
        EXPECT_EQ(aszRow[1], Draw(g_pCmdTempletRoot)) << aszRow[0];
        if (g_pCmdTempletRoot->ulLinkedNum == 0) {
            EXPECT_EQ(CLI_NodeAfter(g_pCmdTempletRoot), g_pCmdTempletRoot);
        }
    }
}

// Which node follows which decides where a command may end.
TEST_F(Tree, NodeAfter) {
    Build("\nh\nd\ntitle\n2\na\ntitle\n1\ne\nend\n0\nb\ntitle\n0\n");
    CLI_CMD_NODE *pstA = CLI_NodeAfter(g_pCmdTempletRoot);
    CLI_CMD_NODE *pstEnd = CLI_NodeAfter(pstA);
    CLI_CMD_NODE *pstB = CLI_NextInGroup(pstA, pstA);
    EXPECT_STREQ(pstEnd->szName, "e");
    EXPECT_EQ(CLI_NodeAfter(pstEnd), g_pCmdTempletRoot);
    EXPECT_EQ(CLI_NodeAfter(pstB), pstB);
    EXPECT_EQ(pstA->ulFirstChild, 1U);
    EXPECT_EQ(pstB->ulFirstChild, 0U);
}

// Deeper than any stack, and as wide.
TEST_F(Tree, HugeTextsNeitherCrashNorLeak) {
    for (const std::string szEntry : {"a\ntitle\n1\n", "a\ntitle\n0\n"}) {
        std::string szText = "\nh\nd\ntitle\n1000000\n";
        for (int i = 0; i < 200000; i++) {
            szText += szEntry;
        }
        Build(szText);
    }
    EXPECT_EQ(g_pCmdTempletRoot->ulLinkedNum, 200000U);
}

TEST_F(Tree, WrongArguments) {
    EXPECT_EQ(CLI_BuildCmdTree(nullptr), BP_ERR_PARAM);
    EXPECT_EQ(CLI_BuildCmdTree("\nh\nd\ntitle\n0\n"), BP_ERR_PARAM); // no root
    EXPECT_EQ(CLI_LinkNode(1, nullptr), BP_ERR_PARAM);
    EXPECT_EQ(CLI_GetNodeType(nullptr), 99U);
    EXPECT_EQ(CLI_BuildModuleInfo(nullptr), BP_ERR_PARAM);
    CLI_FreeTree(nullptr);
}

// Lists one after the other, and what is known then.
TEST(ModuleInfo, ListsAreMergedWithoutDuplicates) {
    for (const auto &aszRow : Rows("module-lists.txt")) {
        EXPECT_EQ(CLI_BuildModuleInfo(aszRow[0].c_str()), BP_OK);
        std::string szText;
        for (uint32_t i = 0; i < CLI_MODULE_NUM && g_szModule[i][0] != '\0'; i++) {
            szText += std::string(g_szModule[i]) + " ";
        }
        EXPECT_EQ(szText, aszRow[1]) << aszRow[0];
    }
}
