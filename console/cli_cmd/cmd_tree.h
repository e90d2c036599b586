// The command tree: built from the text in which the target describes its commands, walked by interpretation.
//
// Two rings hold the tree together. The child ring of a node that is no first child runs through its first
// child, that one's first child, and so on, and closes back on it. The sibling ring of a first child holds its
// later siblings in the order of the text. A group of children is therefore its first child with the other
// members of that one's sibling ring. A node whose help line begins with none of the three type words is an end
// marker: as the first child of a word it says that the command is complete there.
//
// docs/wire-format.md has the format of the text.
#ifndef CONSOLE_CLI_CMD_CMD_TREE_H
#define CONSOLE_CLI_CMD_CMD_TREE_H

#include <cstdint>

#include "bp/bp.h"

constexpr uint32_t CLI_TYPE_TITLE = 1;   // a keyword
constexpr uint32_t CLI_TYPE_INTEGER = 2; // a numeric parameter
constexpr uint32_t CLI_TYPE_STRING = 3;  // a free parameter
constexpr uint32_t CLI_TYPE_END = 99;    // an end marker

constexpr uint32_t CLI_LINK_SIBLING = 0;
constexpr uint32_t CLI_LINK_CHILD = 1;

struct CLI_CMD_NODE {
    uint32_t ulFirstChild; // 1 for the first child of its parent, and for the root
    uint32_t ulChildNum;   // children that the text declares
    uint32_t ulLinkedNum;  // children linked so far
    uint32_t ulType;
    char szName[32];
    char szHelp[128]; // the type-and-help line
    BP_ListNode stSibling;
    BP_ListNode stChild;
};

extern CLI_CMD_NODE *g_pCmdTempletRoot; // the tree
extern CLI_CMD_NODE
    *g_pCmdNodeRoot; // while the tree is built: the first entry not yet linked; else their holder

// Allocates a fresh node as a root. BP_OK, or BP_ERR_NO_MEM with the pointer unchanged.
uint32_t CLI_InitNodeRoot(CLI_CMD_NODE **ppstRoot);

// Builds the tree under g_pCmdTempletRoot from the text; both roots must be fresh. Counts that do not fit the
// entries are no error: when the entries run out, nodes keep the children they got; entries left over stay with
// g_pCmdNodeRoot and are released with it. A text that ends inside the root's own lines leaves a root without
// children. BP_OK; BP_ERR_PARAM when the text or a root is missing; BP_ERR_NO_MEM, with the root alone left.
uint32_t CLI_BuildCmdTree(const char *pcCmdData);

// Links the next pending entry, with its subtree and the siblings behind it, as the first child
// (CLI_LINK_CHILD) or next sibling (CLI_LINK_SIBLING) of pstCur. Does nothing when no entry is pending. BP_OK,
// or BP_ERR_PARAM for a null node.
uint32_t CLI_LinkNode(uint32_t ulMode, CLI_CMD_NODE *pstCur);

// Releases the node and everything that hangs together with it in either ring. Null is allowed.
void CLI_FreeTree(CLI_CMD_NODE *pstNode);

// The type that a help line's first word stands for; CLI_TYPE_END for any other text and for none.
uint32_t CLI_GetNodeType(const char *pcHelp);

// The node behind pstNode in its child ring: its first child; for a first child without children the node that
// heads its child ring; for a later child without children the node itself.
CLI_CMD_NODE *CLI_NodeAfter(CLI_CMD_NODE *pstNode);

// The next member of the group that pstHead heads, null behind the last one. Start with pstHead itself.
CLI_CMD_NODE *CLI_NextInGroup(CLI_CMD_NODE *pstHead, CLI_CMD_NODE *pstNode);

#endif
