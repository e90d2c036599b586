// Stands between a program and some of libc's functions: KS_FAIL=calloc:3 in the environment makes the
// program's third call of calloc fail, calloc:-3 the third and all later ones, after which a file "failed"
// exists. Linked with --wrap, so libc's own calls stay as they are.
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <termios.h>
#include <unistd.h>

static std::atomic<int> g_lCalls{0};

// Whether this call is the one; counts the calls of the function that KS_FAIL names.
static bool Fails(const char *pcFunction, int lErr) {
    const char *pcFail = getenv("KS_FAIL");
    const size_t ulLen = strlen(pcFunction);
    if (pcFail == nullptr || strncmp(pcFail, pcFunction, ulLen) != 0 || pcFail[ulLen] != ':') {
        return false;
    }
    const int lCall = atoi(pcFail + ulLen + 1);
    const int lMade = ++g_lCalls;
    if (lMade != lCall && (lCall > 0 || lMade < -lCall)) {
        return false;
    }
    close(static_cast<int>(syscall(SYS_openat, AT_FDCWD, "failed", O_CREAT | O_WRONLY, 0600)));
    errno = lErr;
    return true;
}

#define WRAP(Ret, Name, Params, Args, Err, Failure)                                                            \
    extern "C" Ret __real_##Name Params;                                                                       \
    extern "C" Ret __wrap_##Name Params {                                                                      \
        return Fails(#Name, Err) ? (Failure) : __real_##Name Args;                                             \
    }

WRAP(void *, calloc, (size_t n, size_t s), (n, s), ENOMEM, nullptr)
WRAP(void *, malloc, (size_t n), (n), ENOMEM, nullptr)
WRAP(int, pthread_create, (pthread_t * t, const pthread_attr_t *a, void *(*f)(void *), void *p), (t, a, f, p),
     EAGAIN, EAGAIN)
WRAP(int, pthread_mutex_init, (pthread_mutex_t * m, const pthread_mutexattr_t *a), (m, a), ENOMEM, ENOMEM)
WRAP(int, socket, (int d, int t, int p), (d, t, p), EMFILE, -1)
WRAP(int, bind, (int s, const struct sockaddr *a, socklen_t n), (s, a, n), EADDRINUSE, -1)
WRAP(int, setsockopt, (int s, int l, int o, const void *v, socklen_t n), (s, l, o, v, n), ENOBUFS, -1)
WRAP(int, ioctl, (int d, unsigned long r, void *p), (d, r, p), EIO, -1)
WRAP(int, epoll_create, (int n), (n), EMFILE, -1)
WRAP(int, epoll_ctl, (int e, int o, int d, struct epoll_event *v), (e, o, d, v), ENOSPC, -1)
WRAP(int, eventfd, (unsigned int n, int f), (n, f), EMFILE, -1)
WRAP(int, timerfd_create, (clockid_t c, int f), (c, f), EMFILE, -1)
WRAP(int, open, (const char *p, int f, mode_t m), (p, f, m), EMFILE, -1)
WRAP(FILE *, fdopen, (int d, const char *m), (d, m), ENOMEM, nullptr)
WRAP(int, tcsetattr, (int d, int a, const struct termios *t), (d, a, t), EIO, -1)

// A child of vfork must not return from the function that made it, so here it is one of fork.
extern "C" pid_t __wrap_vfork() {
    return Fails("vfork", EAGAIN) ? -1 : fork();
}

// A program that would live for ever ends orderly at SIGTERM instead, and its leaks are looked for.
static void *EndAtSignal(void *) {
    sigset_t stSet;
    sigemptyset(&stSet);
    sigaddset(&stSet, SIGTERM);
    int lSignal = 0;
    sigwait(&stSet, &lSignal);
    exit(0);
}

__attribute__((constructor)) static void PrepareEnd() {
    if (getenv("KS_FAIL") != nullptr) {
        sigset_t stSet;
        sigemptyset(&stSet);
        sigaddset(&stSet, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &stSet, nullptr); // for the threads to come, too
        pthread_t ulThread;
        __real_pthread_create(&ulThread, nullptr, EndAtSignal, nullptr);
        pthread_detach(ulThread);
    }
}
