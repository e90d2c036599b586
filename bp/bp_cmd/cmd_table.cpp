#include "bp/bp_cmd/cmd_table.h"

#include <cctype>
#include <cstring>

#include "bp/bp_log/log.h"
#include "bp/bp_types.h"

// What the console shows and sends is framed by these; a name that held one could not be found again.
static constexpr char g_szNameStop[] = "<>;?";
static constexpr const char *g_apcTypeWord[] = {"", "title", "integer", "string"};
static constexpr uint32_t BP_CMD_EXTEND_MAX =
    39; // characters of all parameter values as the console sends them

static constexpr char g_szRootName[] = "display";
static const BP_CmdWord g_stRootWord = {BP_CMD_TITLE, g_szRootName, "information about this process"};

// The longest command with the longest values fits the request that the console builds, so no row needs a
// check.
static_assert(sizeof("<>") + sizeof(g_szRootName) + size_t{BP_CMD_WORD_MAX} * (BP_CMD_NAME_MAX + 1) +
                      BP_CMD_EXTEND_MAX <=
                  BP_CMD_LINE_MAX,
              "commands that are accepted can be sent");

struct BP_CmdNode {
    const BP_CmdWord *pstWord;
    uint32_t ulType;
    BP_CmdNode *pstFirstChild;
    BP_CmdNode *pstNext;
    const BP_CmdDef *pstDef; // the command that is complete at this word, null when none is
};

struct BP_CmdTree {
    BP_CmdNode astNode[BP_CMD_NODE_NUM]; // the root first
    uint32_t ulNodeNum;
};
static BP_CmdTree g_stCmdTree;
static BP_Sem g_semCmdTree;

static uint32_t BP_WordType(const BP_CmdWord &stWord) {
    return stWord.ulType & ~(BP_CMD_OPTIONAL | BP_CMD_EFFECT);
}

static const char *BP_WordHelp(const BP_CmdWord &stWord) {
    return stWord.pcHelp != nullptr ? stWord.pcHelp : "";
}

static uint32_t BP_Length(const char *pcText) {
    return static_cast<uint32_t>(strlen(pcText));
}

static uint32_t BP_HelpLength(const BP_CmdWord &stWord) {
    return BP_Length(g_apcTypeWord[BP_WordType(stWord)]) + 1 + BP_Length(BP_WordHelp(stWord));
}

// A name that begins with a digit would be taken for a number where a number is allowed.
static bool BP_IsName(const char *pcName) {
    if (pcName[0] == '\0' || BP_Length(pcName) > BP_CMD_NAME_MAX ||
        isdigit(static_cast<unsigned char>(pcName[0]))) {
        return false;
    }
    for (const char *pc = pcName; *pc != '\0'; pc++) {
        if (!isgraph(static_cast<unsigned char>(*pc)) || strchr(g_szNameStop, *pc) != nullptr) {
            return false;
        }
    }
    return true;
}

static uint32_t BP_CheckWord(const BP_CmdWord &stWord) {
    const uint32_t ulType = BP_WordType(stWord);
    if (ulType < BP_CMD_TITLE || ulType > BP_CMD_STRING) {
        return BP_ERR_PARAM;
    }
    if (!BP_IsName(stWord.pcName)) {
        return BP_ERR_CMD_NAME;
    }
    if (BP_HelpLength(stWord) > BP_CMD_HELP_MAX || strchr(BP_WordHelp(stWord), '\n') != nullptr) {
        return BP_ERR_CMD_HELP;
    }
    return BP_OK;
}

static uint32_t BP_CountWords(const BP_CmdDef &stDef) {
    uint32_t ulNum = 0;
    while (ulNum < BP_CMD_WORD_MAX && stDef.astWord[ulNum].pcName != nullptr) {
        ulNum++;
    }
    return ulNum;
}

// Whether a command with an effect has no value that must be typed before it is complete.
static bool BP_RunsAtTab(const BP_CmdDef &stDef, uint32_t ulWords) {
    uint32_t ulFlags = 0;
    bool bTyped = false;
    for (uint32_t i = 0; i < ulWords; i++) {
        ulFlags |= stDef.astWord[i].ulType;
        bTyped |= (ulFlags & BP_CMD_OPTIONAL) == 0 && BP_WordType(stDef.astWord[i]) != BP_CMD_TITLE;
    }
    return (ulFlags & BP_CMD_EFFECT) != 0 && !bTyped;
}

static bool BP_BeginsWith(const char *pcText, const char *pcStart) {
    return strncmp(pcText, pcStart, strlen(pcStart)) == 0;
}

// Whether what an engineer types for stWord could also be meant for stOther.
static bool BP_Accepts(const BP_CmdWord &stOther, const BP_CmdWord &stWord) {
    const uint32_t ulType = BP_WordType(stWord);
    const uint32_t ulOther = BP_WordType(stOther);
    return ulOther == BP_CMD_STRING || (ulOther == BP_CMD_INTEGER && ulType == BP_CMD_INTEGER) ||
           (ulType == BP_CMD_TITLE && BP_BeginsWith(stOther.pcName, stWord.pcName));
}

// The child of pstParent that is this word. With *pbClash set, there is none, and there must not be one.
static BP_CmdNode *BP_FindChild(const BP_CmdNode *pstParent, const BP_CmdWord &stWord, bool *pbClash) {
    for (BP_CmdNode *pstChild = pstParent->pstFirstChild; pstChild != nullptr; pstChild = pstChild->pstNext) {
        const BP_CmdWord &stOther = *pstChild->pstWord;
        if (pstChild->ulType == BP_WordType(stWord) && strcmp(stOther.pcName, stWord.pcName) == 0) {
            return pstChild;
        }
        *pbClash = *pbClash || BP_Accepts(stOther, stWord) || BP_Accepts(stWord, stOther);
    }
    return nullptr;
}

// A line of the console that gives the command its shortest values.
static uint32_t BP_TypedLength(const BP_CmdDef &stDef, uint32_t ulWords) {
    uint32_t ulLen = BP_Length(g_szRootName);
    for (uint32_t i = 0; i < ulWords; i++) {
        const BP_CmdWord &stWord = stDef.astWord[i];
        ulLen += 1 + (BP_WordType(stWord) == BP_CMD_TITLE ? BP_Length(stWord.pcName) : 1);
    }
    return ulLen;
}

static BP_CmdNode *BP_AddChild(BP_CmdNode *pstParent, const BP_CmdWord &stWord) {
    BP_CmdNode *pstNew = &g_stCmdTree.astNode[g_stCmdTree.ulNodeNum++];
    pstNew->pstWord = &stWord;
    pstNew->ulType = BP_WordType(stWord);
    BP_CmdNode **ppstLast = &pstParent->pstFirstChild;
    while (*ppstLast != nullptr) {
        ppstLast = &(*ppstLast)->pstNext;
    }
    *ppstLast = pstNew;
    return pstNew;
}

static uint32_t BP_CountChildren(const BP_CmdNode &stNode) {
    uint32_t ulNum = stNode.pstDef != nullptr ? 1 : 0; // the end marker
    for (const BP_CmdNode *pstChild = stNode.pstFirstChild; pstChild != nullptr; pstChild = pstChild->pstNext) {
        ulNum++;
    }
    return ulNum;
}

// Where a command is complete TAB runs it and does not list what else may follow, so the help line names that
// as far as it has room. The recursion is at most BP_CMD_WORD_MAX deep.
static void BP_PrintNode(BP_CmdAnswer *pstAnswer, const BP_CmdNode &stNode) {
    const BP_CmdWord &stWord = *stNode.pstWord;
    BP_AnswerPrint(pstAnswer, "%s\n%s %s", stWord.pcName, g_apcTypeWord[stNode.ulType], BP_WordHelp(stWord));
    uint32_t ulHelp = BP_HelpLength(stWord);
    const BP_CmdNode *pstChild = stNode.pstDef != nullptr ? stNode.pstFirstChild : nullptr;
    for (; pstChild != nullptr; pstChild = pstChild->pstNext) {
        ulHelp += BP_Length(" []") + BP_Length(pstChild->pstWord->pcName);
        if (ulHelp <= BP_CMD_HELP_MAX) {
            BP_AnswerPrint(pstAnswer, " [%s]", pstChild->pstWord->pcName);
        }
    }
    BP_AnswerPrint(pstAnswer, "\n%u\n%s", BP_CountChildren(stNode),
                   stNode.pstDef != nullptr ? "<cr>\nend\n0\n" : "");
    for (pstChild = stNode.pstFirstChild; pstChild != nullptr; pstChild = pstChild->pstNext) {
        BP_PrintNode(pstAnswer, *pstChild);
    }
}

// Needs the tree's lock.
static void BP_PrintTree(BP_CmdAnswer *pstAnswer) {
    BP_AnswerPrint(pstAnswer, "\ncommands\n");
    BP_PrintNode(pstAnswer, g_stCmdTree.astNode[0]);
}

// Links one word after *ppstNode, which then is the word's own.
static uint32_t BP_LinkWord(const BP_CmdDef &stDef, const BP_CmdWord &stWord, BP_CmdNode **ppstNode) {
    if ((stWord.ulType & BP_CMD_OPTIONAL) != 0) {
        if ((*ppstNode)->pstDef != nullptr) {
            return BP_ERR_CMD_CLASH;
        }
        (*ppstNode)->pstDef = &stDef;
    }
    bool bClash = false;
    BP_CmdNode *pstChild = BP_FindChild(*ppstNode, stWord, &bClash);
    if (bClash) {
        return BP_ERR_CMD_CLASH;
    }
    if (pstChild == nullptr && g_stCmdTree.ulNodeNum == BP_CMD_NODE_NUM) {
        return BP_ERR_CMD_FULL;
    }
    *ppstNode = pstChild != nullptr ? pstChild : BP_AddChild(*ppstNode, stWord);
    return BP_OK;
}

static uint32_t BP_LinkCmd(const BP_CmdDef &stDef, uint32_t ulWords, uint32_t *pulBadWord) {
    BP_CmdNode *pstNode = &g_stCmdTree.astNode[0];
    for (uint32_t i = 0; i < ulWords; i++) {
        *pulBadWord = i;
        const uint32_t ulRet = BP_LinkWord(stDef, stDef.astWord[i], &pstNode);
        if (ulRet != BP_OK) {
            return ulRet;
        }
    }
    if (pstNode->pstDef != nullptr) {
        return BP_ERR_CMD_CLASH;
    }
    pstNode->pstDef = &stDef;
    BP_CmdAnswer stText;
    stText.ulTotal = 0;
    BP_PrintTree(&stText);
    return stText.ulTotal <= BP_ACK_TEXT_MAX ? BP_OK : BP_ERR_CMD_FULL;
}

// Needs the tree's lock.
static void BP_MakeRoot() {
    if (g_stCmdTree.ulNodeNum == 0) {
        g_stCmdTree.astNode[0].pstWord = &g_stRootWord;
        g_stCmdTree.astNode[0].ulType = BP_CMD_TITLE;
        g_stCmdTree.ulNodeNum = 1;
    }
}

static uint32_t BP_AddCmd(const BP_CmdDef &stDef, uint32_t ulWords, uint32_t *pulBadWord) {
    const BP_SemGuard stGuard(g_semCmdTree);
    BP_MakeRoot();
    const BP_CmdTree stBefore = g_stCmdTree;
    const uint32_t ulRet = BP_LinkCmd(stDef, ulWords, pulBadWord);
    if (ulRet != BP_OK) {
        g_stCmdTree = stBefore;
    }
    return ulRet;
}

static const char *BP_CmdErrorText(uint32_t ulRet) {
    switch (ulRet) {
    case BP_ERR_CMD_NAME:
        return "bad name";
    case BP_ERR_CMD_HELP:
        return "bad help text";
    case BP_ERR_CMD_CLASH:
        return "cannot be told from another command";
    case BP_ERR_CMD_EFFECT:
        return "an effect needs a parameter that must be given";
    case BP_ERR_CMD_LONG:
        return "command is too long";
    case BP_ERR_CMD_FULL:
        return "command tree is full";
    default:
        return "invalid word";
    }
}

uint32_t BP_RegistCmd(const BP_CmdDef *pstDef) {
    const uint32_t ulWords = pstDef != nullptr ? BP_CountWords(*pstDef) : 0;
    // The root alone is no command, so the first word cannot be left out.
    if (ulWords == 0 || pstDef->pfnCmd == nullptr || (pstDef->astWord[0].ulType & BP_CMD_OPTIONAL) != 0) {
        BP_LOG_ERROR(BP_ERR_PARAM, "[%s]invalid input params.", __func__);
        return BP_ERR_PARAM;
    }
    uint32_t ulRet = BP_OK;
    uint32_t ulBadWord = 0;
    for (uint32_t i = 0; ulRet == BP_OK && i < ulWords; i++) {
        ulBadWord = i;
        ulRet = BP_CheckWord(pstDef->astWord[i]);
    }
    if (ulRet == BP_OK && BP_TypedLength(*pstDef, ulWords) > BP_CMD_TYPED_MAX) {
        ulRet = BP_ERR_CMD_LONG;
    }
    if (ulRet == BP_OK && BP_RunsAtTab(*pstDef, ulWords)) {
        ulRet = BP_ERR_CMD_EFFECT;
    }
    // What the console makes of "display loglevel" itself never reaches the tree.
    if (ulRet == BP_OK && strcmp(pstDef->astWord[0].pcName, "loglevel") == 0) {
        ulRet = BP_ERR_CMD_CLASH;
    }
    if (ulRet == BP_OK) {
        ulRet = BP_AddCmd(*pstDef, ulWords, &ulBadWord);
    }
    if (ulRet != BP_OK) {
        BP_LOG_ERROR(ulRet, "[%s]command %s, word %s: %s.", __func__, pstDef->astWord[0].pcName,
                     pstDef->astWord[ulBadWord].pcName, BP_CmdErrorText(ulRet));
    }
    return ulRet;
}

uint32_t BP_PrintCmdTree(BP_CmdAnswer *pstAnswer) {
    const BP_SemGuard stGuard(g_semCmdTree);
    BP_MakeRoot();
    BP_PrintTree(pstAnswer);
    return pstAnswer->ulTotal;
}

static BP_CmdNode *BP_FindByName(BP_CmdNode *pstNode, const char *pcName, uint32_t ulLen) {
    while (pstNode != nullptr && (BP_Length(pstNode->pstWord->pcName) != ulLen ||
                                  memcmp(pstNode->pstWord->pcName, pcName, ulLen) != 0)) {
        pstNode = pstNode->pstNext;
    }
    return pstNode;
}

const BP_CmdDef *BP_FindCmd(const char *pcPath, uint32_t ulLen, BP_CmdArgs *pstArgs) {
    const BP_SemGuard stGuard(g_semCmdTree);
    BP_MakeRoot();
    pstArgs->ulNum = 0;
    BP_CmdNode *pstLevel = &g_stCmdTree.astNode[0];
    const BP_CmdNode *pstFound = nullptr;
    while (ulLen != 0) {
        const void *pSpace = memchr(pcPath, ' ', ulLen);
        if (pSpace == nullptr) {
            return nullptr;
        }
        const uint32_t ulName = static_cast<uint32_t>(static_cast<const char *>(pSpace) - pcPath);
        pstFound = BP_FindByName(pstLevel, pcPath, ulName);
        if (pstFound == nullptr) {
            return nullptr;
        }
        if (pstFound->ulType != BP_CMD_TITLE) {
            pstArgs->astArg[pstArgs->ulNum].pstWord = pstFound->pstWord;
            pstArgs->astArg[pstArgs->ulNum++].ulType = pstFound->ulType;
        }
        pstLevel = pstFound->pstFirstChild;
        pcPath += ulName + 1;
        ulLen -= ulName + 1;
    }
    return pstFound != nullptr ? pstFound->pstDef : nullptr;
}
