// Private mount and network namespaces with an empty /var/log and /tmp and a loopback of their own, so that the
// runtime's fixed paths and ports are no other program's.
#ifndef TESTS_SUPPORT_SANDBOX_H
#define TESTS_SUPPORT_SANDBOX_H

// Runs this program again, with the same arguments, inside such namespaces; there it returns true. False where
// the system does not permit them.
bool TestEnterSandbox(char **argv);

#endif
