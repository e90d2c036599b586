// The terminal: raw while the console runs, as it was afterwards.
#ifndef CONSOLE_CLI_CMD_TERMINAL_H
#define CONSOLE_CLI_CMD_TERMINAL_H

#include <termios.h>

// What the console found before it changed anything, and its own settings of standard input. It lives in the
// frame of the console's run.
struct CLI_Terminal {
    struct termios stSaved;
    struct termios stRaw;
    int alFlags[3]; // file status flags of the standard descriptors, -1 for one that is no terminal
};

// Saves the settings and switches standard input to raw mode with output processing on, a typed line feed
// arriving as a carriage return. The standard descriptors that are terminals become blocking: stdio drops what
// a non-blocking one does not take, which can still happen if another program makes the terminal non-blocking
// while the console runs. Returns what tcsetattr returned, with errno set if that is not 0; reading the
// settings may fail unnoticed, only the switch decides.
//
// Called by the program's initial thread. From here to CLI_RestoreMode a signal that ends the program (SIGHUP,
// SIGTERM, SIGPIPE) or stops it (SIGTSTP) first puts back what was found, and SIGCONT makes the terminal the
// console's again; both only while the console is in the foreground. *pstTerminal must stay until then.
int CLI_SetRawMode(CLI_Terminal *pstTerminal);

// Puts back what was found, at once. Calling it again is harmless.
void CLI_RestoreMode(const CLI_Terminal *pstTerminal);

// True once after SIGTSTP stopped the console and it has the terminal again: the screen no longer shows the
// line. The same thread.
bool CLI_WasStopped();

#endif
