// The main thread: one per process, it alone reads and writes the socket and serves the main module.
//
// Its loop waits on epoll for BP_MAIN_EPOLL_TIMEOUT milliseconds. Events are served at once; everything else,
// sending included, is done in the idle pass that follows a wait without events. So a message to another
// process leaves within about one wait, and a process that datagrams keep busy sends nothing meanwhile. A
// process that wants it otherwise chooses the prompt pace (pace.h).
#ifndef BP_BP_MODULE_MAIN_THREAD_H
#define BP_BP_MODULE_MAIN_THREAD_H

constexpr int BP_MAIN_EPOLL_EVENTS = 20;

// Entry of the main module's thread; pstWorkModule is its BP_ModuleInfo. Never returns; aborts the process when
// the argument is null.
void *BP_MainThreadProcMain(void *pstWorkModule);

#endif
