// The commands that this process offers to the debug console.
//
// A command is a row of data: the words that the engineer types behind "display", the help of each, and the
// function that answers. From all rows the tree is built that the console asks for at its start. Registration
// checks what the console could not tell apart or carry, so that every command that is accepted can also be
// typed.
//
// The console runs a complete command as soon as TAB is typed after it, so that TAB TAB after a keyword may run
// one. A command that does more than show something marks a word with BP_CMD_EFFECT; it must then have a
// parameter that cannot be left out. And the console has no help for a parameter: '?' is a character of the
// value. So a string that ends in '?' never reaches the function; the answer is the parameter's help.
//
// Rows and the texts they point to must live as long as the process. Nothing is allocated.
#ifndef BP_BP_CMD_CMD_TABLE_H
#define BP_BP_CMD_CMD_TABLE_H

#include <cstdint>

#include "bp/bp_cmd/cmd_answer.h"

constexpr uint32_t BP_CMD_WORD_MAX = 6;    // words of one command, behind the root
constexpr uint32_t BP_CMD_NODE_NUM = 128;  // words of all commands, shared beginnings counted once
constexpr uint32_t BP_CMD_NAME_MAX = 31;   // characters
constexpr uint32_t BP_CMD_HELP_MAX = 127;  // characters, the type word and a space included
constexpr uint32_t BP_CMD_STRING_MAX = 39; // characters of a typed value
constexpr uint32_t BP_CMD_LINE_MAX = 255;  // characters of a command as it is sent

// Kind of a word, and flags: for one that may be left out together with all words after it, and for a command
// that changes something.
constexpr uint32_t BP_CMD_TITLE = 1;   // a keyword
constexpr uint32_t BP_CMD_INTEGER = 2; // a decimal number up to 4294967295
constexpr uint32_t BP_CMD_STRING = 3;  // any word
constexpr uint32_t BP_CMD_OPTIONAL = 0x100;
constexpr uint32_t BP_CMD_EFFECT = 0x200;

constexpr uint32_t BP_CMD_TYPED_MAX = 99; // characters of a line in the console

// Results of BP_RegistCmd.
constexpr uint32_t BP_ERR_CMD_NAME =
    1101; // a name is too long, empty, or has a character that words cannot have
constexpr uint32_t BP_ERR_CMD_HELP = 1102;  // a help text is too long or has a line break
constexpr uint32_t BP_ERR_CMD_CLASH = 1103; // the command exists, or a word could be mistaken for one beside it
constexpr uint32_t BP_ERR_CMD_EFFECT = 1106; // marked BP_CMD_EFFECT, and TAB alone could run it
constexpr uint32_t BP_ERR_CMD_LONG = 1105;   // the command does not fit a line, however short its values
constexpr uint32_t BP_ERR_CMD_FULL = 1104;   // no node is left, or the tree would not fit one message

struct BP_CmdWord {
    uint32_t ulType;
    const char *pcName;
    const char *pcHelp;
};

struct BP_CmdArg {
    const BP_CmdWord *pstWord;          // the parameter's word in the tree
    uint32_t ulType;                    // BP_CMD_INTEGER or BP_CMD_STRING
    uint32_t ulValue;                   // of an integer
    char szText[BP_CMD_STRING_MAX + 1]; // as typed
};

struct BP_CmdArgs {
    uint32_t ulNum; // parameters given, in the order of their words
    BP_CmdArg astArg[BP_CMD_WORD_MAX];
};

// Answers one command, in the thread of the process's command module; a slow one keeps the others waiting. Any
// other result than BP_OK makes the answer "operate fail" and is logged.
using BP_PfnCmd = uint32_t (*)(const BP_CmdArgs *pstArgs, BP_CmdAnswer *pstAnswer, uint32_t ulParam);

struct BP_CmdDef {
    BP_CmdWord astWord[BP_CMD_WORD_MAX]; // ends early with a null name
    BP_PfnCmd pfnCmd;
    uint32_t ulParam;
};

// Adds a command. Where a command is complete but may go on, the help of its last word gets the names of what
// may follow, each as " [name]", as far as BP_CMD_HELP_MAX has room. A console that is already attached learns
// of it when it attaches anew. Any thread. BP_OK; BP_ERR_PARAM for a null row, no words, no function or an
// unknown type; or one of the results above, with an ERROR line that names the word. Nothing is added then.
uint32_t BP_RegistCmd(const BP_CmdDef *pstDef);

// Writes the definition text that the console builds its tree from. Returns its length. Any thread.
uint32_t BP_PrintCmdTree(BP_CmdAnswer *pstAnswer);

// The command whose path of word names, each followed by one space and the root's first, is the ulLen
// characters at pcPath. The parameters of the path get their words and types in pstArgs. Null when there is no
// such command. Any thread.
const BP_CmdDef *BP_FindCmd(const char *pcPath, uint32_t ulLen, BP_CmdArgs *pstArgs);

#endif
