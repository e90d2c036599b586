// Runs a command line with /bin/sh.
#ifndef BP_BP_LOG_SHELL_H
#define BP_BP_LOG_SHELL_H

// Runs pcCmd and waits for it. Returns the wait status as wait4 reports it (exit code in bits 8 to 15), -1 if
// the child could not be created or its wait was interrupted, 0 without running anything if pcCmd is null. Any
// thread. While at least one command runs, SIGINT and SIGQUIT are ignored by the process, so that a key meant
// for the command does not end the caller.
int BP_System(const char *pcCmd);

#endif
