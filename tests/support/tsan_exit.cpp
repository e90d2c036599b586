// ThreadSanitizer takes its locks before a fork and gives them back after it, in handlers that libc
// forgets when the program ends: a thread that forks at that moment would keep them for ever, and the end waits
// for them. Here the end lets a fork that is under way finish, and no other begin. Part of every program that
// is built with it.
#include <cstdlib>
#include <pthread.h>

// pthread_atfork for handlers that belong to no part of the program that could end before others.
extern "C" int __register_atfork(void (*pfnPrepare)(), void (*pfnParent)(), void (*pfnChild)(), void *pvOwner);

static pthread_mutex_t g_stForkLock = PTHREAD_MUTEX_INITIALIZER;

static void TakeForkLock() {
    pthread_mutex_lock(&g_stForkLock);
}

static void GiveForkLock() {
    pthread_mutex_unlock(&g_stForkLock);
}

__attribute__((constructor)) static void GuardForks() {
    __register_atfork(TakeForkLock, GiveForkLock, GiveForkLock, nullptr);
    atexit(TakeForkLock);
}
