// The console's run: attach to the target, switch the terminal, serve the prompts "<dbg>" and "[dbg]".
#ifndef CONSOLE_CLI_CMD_PROMPT_LOOP_H
#define CONSOLE_CLI_CMD_PROMPT_LOOP_H

#include <cstdint>

// Serves the engineer until he quits or input ends; the terminal then is as it was. argv[1], when there is one,
// names the target. The bus process must have been started. 0, or the code of a start-up step that failed (its
// log line says which). Ends the process itself when the log registration fails (with that code) or the
// terminal cannot be switched (with 1).
int32_t CLI_run(int argc, char **argv);

#endif
