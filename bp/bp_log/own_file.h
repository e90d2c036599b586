// Opens the runtime's files under /var/log and /tmp, where others may write too. What somebody put there under
// such a name must not make the runtime write to another file, or wait.
#ifndef BP_BP_LOG_OWN_FILE_H
#define BP_BP_LOG_OWN_FILE_H

#include <cstdio>

// Opens pcPath for reading ("r"), for writing from the start ("w") or for appending ("a"), and never for a
// program that is started. Null with errno set when the path cannot be opened or is not a plain file of its
// own: a symbolic link (ELOOP), a second name of another file (EMLINK), a directory (EISDIR), or anything else,
// such as a pipe, whose other end it would wait for (EINVAL, ENXIO). Nothing of a refused file is changed. Any
// thread.
FILE *BP_OpenOwnFile(const char *pcPath, const char *pcMode);

#endif
