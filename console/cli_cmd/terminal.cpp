#include "console/cli_cmd/terminal.h"

#include <cstdio>

int CLI_SetRawMode(CLI_Terminal *pstTerminal) {
    pstTerminal->stSaved = {};
    tcgetattr(fileno(stdin), &pstTerminal->stSaved);
    struct termios stRaw = pstTerminal->stSaved;
    cfmakeraw(&stRaw);
    stRaw.c_iflag |= INLCR;
    stRaw.c_oflag |= OPOST;
    return tcsetattr(fileno(stdin), TCSAFLUSH, &stRaw);
}

void CLI_RestoreMode(const CLI_Terminal *pstTerminal) {
    fflush(stdout);
    tcsetattr(fileno(stdin), TCSANOW, &pstTerminal->stSaved);
}
