// Reports on what was typed: a caret under the place, and one of three messages. Each starts on a fresh line
// and reproduces the width of the prompt, so that the caret stands under the line as it was echoed.
#ifndef CONSOLE_CLI_CMD_INPUT_ERROR_H
#define CONSOLE_CLI_CMD_INPUT_ERROR_H

#include <cstdint>

// Word ulWord (counted from 0) cannot stand where it stands.
void CLI_ShowWrongInput(uint32_t ulWord);

// Word ulWord can mean more than one thing.
void CLI_ShowAmbiguousInput(uint32_t ulWord);

// The line ends before the command does.
void CLI_ShowIncompleteInput();

#endif
