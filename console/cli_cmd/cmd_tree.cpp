#include "console/cli_cmd/cmd_tree.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "console/cli_cmd/text_lines.h"

CLI_CMD_NODE *g_pCmdTempletRoot;
CLI_CMD_NODE *g_pCmdNodeRoot;

static CLI_CMD_NODE *CLI_BySibling(BP_ListNode *pstLink) {
    return BP_ListOwner<CLI_CMD_NODE>(pstLink, offsetof(CLI_CMD_NODE, stSibling));
}

static CLI_CMD_NODE *CLI_ByChild(BP_ListNode *pstLink) {
    return BP_ListOwner<CLI_CMD_NODE>(pstLink, offsetof(CLI_CMD_NODE, stChild));
}

CLI_CMD_NODE *CLI_NodeAfter(CLI_CMD_NODE *pstNode) {
    return CLI_ByChild(pstNode->stChild.pstNext);
}

CLI_CMD_NODE *CLI_NextInGroup(CLI_CMD_NODE *pstHead, CLI_CMD_NODE *pstNode) {
    CLI_CMD_NODE *pstNext = CLI_BySibling(pstNode->stSibling.pstNext);
    return pstNext == pstHead ? nullptr : pstNext;
}

static void CLI_MakeRings(CLI_CMD_NODE *pstNode) {
    BP_ListNodeRing(&pstNode->stSibling);
    BP_ListNodeRing(&pstNode->stChild);
}

static CLI_CMD_NODE *CLI_NewNode() {
    CLI_CMD_NODE *pstNode = static_cast<CLI_CMD_NODE *>(calloc(1, sizeof(CLI_CMD_NODE)));
    if (pstNode != nullptr) {
        CLI_MakeRings(pstNode);
    }
    return pstNode;
}

uint32_t CLI_InitNodeRoot(CLI_CMD_NODE **ppstRoot) {
    CLI_CMD_NODE *pstNode = CLI_NewNode();
    if (pstNode == nullptr) {
        return BP_ERR_NO_MEM;
    }
    *ppstRoot = pstNode;
    return BP_OK;
}

uint32_t CLI_GetNodeType(const char *pcHelp) {
    static constexpr struct {
        const char *pcWord;
        uint32_t ulType;
    } astType[] = {{"title", CLI_TYPE_TITLE}, {"integer", CLI_TYPE_INTEGER}, {"string", CLI_TYPE_STRING}};
    for (const auto &stType : astType) {
        if (pcHelp != nullptr && strncmp(pcHelp, stType.pcWord, strlen(stType.pcWord)) == 0) {
            return stType.ulType;
        }
    }
    return CLI_TYPE_END;
}

// Takes the node out of a ring. The node that followed it there, null when it was alone.
static CLI_CMD_NODE *CLI_LeaveRing(BP_ListNode *pstLink, CLI_CMD_NODE *(*pfnOwner)(BP_ListNode *)) {
    BP_ListNode *pstNext = pstLink->pstNext;
    const bool bAlone = pstNext == pstLink;
    BP_ListNodeRemove(pstLink);
    return bAlone ? nullptr : pfnOwner(pstNext);
}

// The way back through a tree that is being released, in the links of nodes that have left their rings: the
// sibling link holds the node to go back to, the child link the child still to be released.
static void CLI_PushBack(CLI_CMD_NODE *pstNode, CLI_CMD_NODE *pstBack, CLI_CMD_NODE *pstChild) {
    pstNode->stSibling.pstNext = pstBack != nullptr ? &pstBack->stSibling : nullptr;
    pstNode->stChild.pstNext = pstChild != nullptr ? &pstChild->stChild : nullptr;
}

// Releases the node at *ppstBack, moves on to the one before it, and returns the child it held.
static CLI_CMD_NODE *CLI_PopBack(CLI_CMD_NODE **ppstBack) {
    CLI_CMD_NODE *pstDone = *ppstBack;
    BP_ListNode *pstBack = pstDone->stSibling.pstNext;
    BP_ListNode *pstChild = pstDone->stChild.pstNext;
    *ppstBack = pstBack != nullptr ? CLI_BySibling(pstBack) : nullptr;
    free(pstDone);
    return pstChild != nullptr ? CLI_ByChild(pstChild) : nullptr;
}

// Depth first, siblings before children, and not on the call stack, because the target decides how large the
// tree is.
void CLI_FreeTree(CLI_CMD_NODE *pstNode) {
    CLI_CMD_NODE *pstBack = nullptr;
    while (pstNode != nullptr || pstBack != nullptr) {
        if (pstNode == nullptr) {
            pstNode = CLI_PopBack(&pstBack);
            continue;
        }
        CLI_CMD_NODE *pstSibling = CLI_LeaveRing(&pstNode->stSibling, CLI_BySibling);
        CLI_CMD_NODE *pstChild = CLI_LeaveRing(&pstNode->stChild, CLI_ByChild);
        CLI_PushBack(pstNode, pstBack, pstChild);
        pstBack = pstNode;
        pstNode = pstSibling;
    }
}

static CLI_CMD_NODE *CLI_FirstOfGroup(CLI_CMD_NODE *pstNode) {
    CLI_CMD_NODE *pstFirst = CLI_BySibling(pstNode->stSibling.pstNext);
    while (pstFirst != pstNode && pstFirst->ulFirstChild == 0) {
        pstFirst = CLI_BySibling(pstFirst->stSibling.pstNext);
    }
    return pstFirst;
}

static CLI_CMD_NODE *CLI_ParentOfGroup(CLI_CMD_NODE *pstNode) {
    return CLI_ByChild(CLI_FirstOfGroup(pstNode)->stChild.pstPrev);
}

// Takes the next entry off the pending list; null when only the list's holder is left.
static CLI_CMD_NODE *CLI_TakePending() {
    CLI_CMD_NODE *pstNode = g_pCmdNodeRoot;
    if (pstNode == nullptr || pstNode->stSibling.pstNext == &pstNode->stSibling) {
        return nullptr;
    }
    g_pCmdNodeRoot = CLI_BySibling(pstNode->stSibling.pstNext);
    BP_ListNodeRemove(&pstNode->stSibling);
    CLI_MakeRings(pstNode);
    return pstNode;
}

static CLI_CMD_NODE *CLI_LinkOne(uint32_t ulMode, CLI_CMD_NODE *pstCur) {
    CLI_CMD_NODE *pstNode = CLI_TakePending();
    if (pstNode == nullptr) {
        return nullptr;
    }
    if (ulMode == CLI_LINK_CHILD) {
        pstNode->ulFirstChild = 1;
        pstCur->ulLinkedNum++;
        BP_ListNodeInsertAfter(&pstCur->stChild, &pstNode->stChild);
    } else {
        pstNode->ulFirstChild = 0;
        CLI_ParentOfGroup(pstCur)->ulLinkedNum++;
        BP_ListNodeInsertAfter(&pstCur->stSibling, &pstNode->stSibling);
    }
    return pstNode;
}

// The next entry's place once the subtree of pstNode is there: beside pstNode, or beside one of its ancestors
// below pstTop. Links it; null when there is no such place or no entry.
static CLI_CMD_NODE *CLI_LinkBeside(CLI_CMD_NODE *pstNode, const CLI_CMD_NODE *pstTop) {
    for (;;) {
        CLI_CMD_NODE *pstParent = CLI_ParentOfGroup(pstNode);
        if (pstParent->ulLinkedNum != pstParent->ulChildNum && pstNode->ulLinkedNum == pstNode->ulChildNum) {
            return CLI_LinkOne(CLI_LINK_SIBLING, pstNode);
        }
        if (pstParent == pstTop) {
            return nullptr;
        }
        pstNode = pstParent;
    }
}

uint32_t CLI_LinkNode(uint32_t ulMode, CLI_CMD_NODE *pstCur) {
    if (pstCur == nullptr) {
        return BP_ERR_PARAM;
    }
    const CLI_CMD_NODE *pstTop = ulMode == CLI_LINK_CHILD ? pstCur : CLI_ParentOfGroup(pstCur);
    CLI_CMD_NODE *pstNode = CLI_LinkOne(ulMode, pstCur);
    while (pstNode != nullptr) {
        const bool bWantsChildren = pstNode->ulChildNum != 0 && pstNode->ulChildNum != pstNode->ulLinkedNum;
        pstNode = bWantsChildren ? CLI_LinkOne(CLI_LINK_CHILD, pstNode) : CLI_LinkBeside(pstNode, pstTop);
    }
    return BP_OK;
}

// Enough for any number that means something, and for zeros or blanks in front of it.
static constexpr uint32_t CLI_COUNT_SIZE = 128;

// Reads the three lines of one entry; false when the text ends before the last of them.
static bool CLI_ReadEntry(const char **ppcText, CLI_CMD_NODE *pstNode) {
    char szCount[CLI_COUNT_SIZE];
    if (!CLI_NextLine(ppcText, pstNode->szName, sizeof(pstNode->szName)) ||
        !CLI_NextLine(ppcText, pstNode->szHelp, sizeof(pstNode->szHelp)) ||
        !CLI_NextLine(ppcText, szCount, sizeof(szCount))) {
        return false;
    }
    pstNode->ulType = CLI_GetNodeType(pstNode->szHelp);
    pstNode->ulChildNum = static_cast<uint32_t>(strtoll(szCount, nullptr, 10));
    return true;
}

static bool CLI_ReadRoot(const char **ppcText) {
    g_pCmdTempletRoot->ulFirstChild = 1;
    if (!CLI_ReadEntry(ppcText, g_pCmdTempletRoot)) {
        return false;
    }
    memcpy(g_pCmdNodeRoot->szName, g_pCmdTempletRoot->szName, sizeof(g_pCmdNodeRoot->szName));
    memcpy(g_pCmdNodeRoot->szHelp, g_pCmdTempletRoot->szHelp, sizeof(g_pCmdNodeRoot->szHelp));
    g_pCmdNodeRoot->ulType = g_pCmdTempletRoot->ulType;
    g_pCmdNodeRoot->ulChildNum = g_pCmdTempletRoot->ulChildNum;
    return true;
}

// Appends all complete entries to the holder's sibling ring, in the order of the text.
static uint32_t CLI_ReadEntries(const char *pcText, CLI_CMD_NODE *pstHolder) {
    for (;;) {
        CLI_CMD_NODE *pstNode = CLI_NewNode();
        if (pstNode == nullptr) {
            return BP_ERR_NO_MEM;
        }
        if (!CLI_ReadEntry(&pcText, pstNode)) {
            free(pstNode);
            return BP_OK;
        }
        BP_ListNodeInsertAfter(pstHolder->stSibling.pstPrev, &pstNode->stSibling);
    }
}

uint32_t CLI_BuildCmdTree(const char *pcCmdData) {
    if (pcCmdData == nullptr || g_pCmdTempletRoot == nullptr || g_pCmdNodeRoot == nullptr) {
        BP_LOG_ERROR(BP_ERR_PARAM, "[%s]NULL == pcCmdData", __func__);
        return BP_ERR_PARAM;
    }
    const char *pcText = CLI_SkipFirstByte(pcCmdData);
    char szHeader[2];
    if (!CLI_NextLine(&pcText, szHeader, sizeof(szHeader)) || !CLI_ReadRoot(&pcText)) {
        return BP_OK;
    }
    CLI_CMD_NODE *pstHolder = g_pCmdNodeRoot;
    if (CLI_ReadEntries(pcText, pstHolder) != BP_OK) {
        CLI_FreeTree(pstHolder);
        g_pCmdNodeRoot = nullptr;
        return BP_ERR_NO_MEM;
    }
    if (g_pCmdTempletRoot->ulChildNum != 0) {
        g_pCmdNodeRoot = CLI_BySibling(pstHolder->stSibling.pstNext);
        CLI_LinkNode(CLI_LINK_CHILD, g_pCmdTempletRoot);
        g_pCmdNodeRoot = pstHolder;
    }
    return BP_OK;
}
