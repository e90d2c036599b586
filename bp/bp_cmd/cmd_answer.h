// The text that a command appends its answer to.
#ifndef BP_BP_CMD_CMD_ANSWER_H
#define BP_BP_CMD_CMD_ANSWER_H

#include <cstdint>

#include "bp/bp_cmd/ack.h"

struct BP_CmdAnswer {
    char szText[BP_ACK_TEXT_MAX + 1];
    uint32_t ulTotal; // length of all that was appended, also of what szText had no room for
};

// Appends formatted text. What does not fit is counted, and the answer will say that it was cut.
void BP_AnswerPrint(BP_CmdAnswer *pstAnswer, const char *pcFormat, ...) __attribute__((format(printf, 2, 3)));

// Takes the line feed off the end of an answer that has room for it: the console breaks the line behind an
// answer itself.
void BP_TrimAnswer(BP_CmdAnswer *pstAnswer);

#endif
