// A line, split into words.
#ifndef CONSOLE_CLI_CMD_WORDS_H
#define CONSOLE_CLI_CMD_WORDS_H

#include <cstdint>

constexpr uint32_t CLI_WORD_NUM = 20;
constexpr uint32_t CLI_WORD_SIZE = 40;

struct CLI_WORDS {
    uint32_t ulNum;
    char aszWord[CLI_WORD_NUM][CLI_WORD_SIZE];
    uint32_t aulStart[CLI_WORD_NUM]; // where in the line each word begins
};

// Splits at spaces; a TAB is an ordinary character here. A word of more than 39 characters goes on in the next
// slot; what does not fit the slots is ignored.
void CLI_SplitLine(const char *pcLine, CLI_WORDS *pstWords);

// 1 when every character is a decimal digit, so also for an empty word; else 0.
uint32_t CLI_IsAllDigits(const char *pcWord);

#endif
