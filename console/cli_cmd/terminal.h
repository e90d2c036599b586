// The terminal: raw while the console runs, as it was afterwards.
#ifndef CONSOLE_CLI_CMD_TERMINAL_H
#define CONSOLE_CLI_CMD_TERMINAL_H

#include <cstdint>
#include <pthread.h>
#include <termios.h>

// Settings of standard input, before the console changed them and while it runs, and whose it is. They live in
// the frame of the console's run.
struct CLI_Terminal {
    struct termios stSaved;
    struct termios stRaw;
    pthread_t ulThread; // the one that uses it
};

// Saves the settings and switches standard input to raw mode with output processing on, a typed line feed
// arriving as a carriage return. Returns what tcsetattr returned, errno set when that is not 0; reading the
// settings may fail unnoticed, only the switch decides. From here to CLI_RestoreMode a signal that ends the
// program (SIGHUP, SIGTERM, SIGPIPE) puts the saved settings back first, and SIGCONT the raw ones when the
// console is in the foreground. *pstTerminal must stay until then.
int CLI_SetRawMode(CLI_Terminal *pstTerminal);

// Puts the saved settings back at once. Calling it again is harmless.
void CLI_RestoreMode(const CLI_Terminal *pstTerminal);

#endif
