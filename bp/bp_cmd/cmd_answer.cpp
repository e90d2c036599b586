#include "bp/bp_cmd/cmd_answer.h"

#include <cstdarg>
#include <cstdio>

void BP_AnswerPrint(BP_CmdAnswer *pstAnswer, const char *pcFormat, ...) {
    // Once something was lost, nothing behind it may appear.
    const uint32_t ulUsed = pstAnswer->ulTotal < BP_ACK_TEXT_MAX ? pstAnswer->ulTotal : BP_ACK_TEXT_MAX;
    va_list args;
    va_start(args, pcFormat);
    const int lLen = vsnprintf(pstAnswer->szText + ulUsed, sizeof(pstAnswer->szText) - ulUsed, pcFormat, args);
    va_end(args);
    if (lLen > 0) {
        pstAnswer->ulTotal += static_cast<uint32_t>(lLen);
    }
}

void BP_TrimAnswer(BP_CmdAnswer *pstAnswer) {
    const uint32_t ulTotal = pstAnswer->ulTotal;
    if (ulTotal != 0 && ulTotal <= BP_ACK_TEXT_MAX && pstAnswer->szText[ulTotal - 1] == '\n') {
        pstAnswer->szText[--pstAnswer->ulTotal] = '\0';
    }
}
