// The same shape with the least that it takes: on each side one epoll thread that owns the socket. A requester
// hands his question to it and is woken by a semaphore; at the other end a worker is woken by a semaphore and
// hands his answer to it.
#include <arpa/inet.h>
#include <cstring>
#include <semaphore.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "bench/exchange.h"

static constexpr uint16_t BENCH_HAND_PORT = 2998;

static int g_lSocket;
static int g_lEpollFd;
static int g_lWakeFd;
static struct sockaddr_in g_stPeer;
static char g_acMsg[BENCH_MSG_SIZE];
static sem_t g_semArrived;

// What the other thread has for the socket goes out, what comes in wakes the other thread.
static void Loop() {
    for (;;) {
        struct epoll_event stEvent;
        if (epoll_wait(g_lEpollFd, &stEvent, 1, -1) != 1) {
            continue;
        }
        if (stEvent.data.fd == g_lWakeFd) {
            sendto(g_lSocket, g_acMsg, sizeof(g_acMsg), 0, reinterpret_cast<struct sockaddr *>(&g_stPeer),
                   sizeof(g_stPeer));
        } else {
            socklen_t ulLen = sizeof(g_stPeer);
            recvfrom(g_lSocket, g_acMsg, sizeof(g_acMsg), 0, reinterpret_cast<struct sockaddr *>(&g_stPeer),
                     &ulLen);
            sem_post(&g_semArrived);
        }
    }
}

static bool Open(uint16_t usPort) {
    struct sockaddr_in stAddr = {};
    stAddr.sin_family = AF_INET;
    stAddr.sin_port = htons(usPort);
    stAddr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    g_lSocket = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    g_lEpollFd = epoll_create1(EPOLL_CLOEXEC);
    g_lWakeFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    sem_init(&g_semArrived, 0, 0);
    struct epoll_event stEvent = {};
    stEvent.events = EPOLLIN;
    stEvent.data.fd = g_lSocket;
    epoll_ctl(g_lEpollFd, EPOLL_CTL_ADD, g_lSocket, &stEvent);
    stEvent.events = EPOLLIN | EPOLLET; // each write an event, none to read
    stEvent.data.fd = g_lWakeFd;
    epoll_ctl(g_lEpollFd, EPOLL_CTL_ADD, g_lWakeFd, &stEvent);
    return bind(g_lSocket, reinterpret_cast<struct sockaddr *>(&stAddr), sizeof(stAddr)) == 0;
}

static void Serve() {
    if (!Open(BENCH_HAND_PORT)) {
        return;
    }
    std::thread(Loop).detach();
    BenchReady();
    for (;;) {
        sem_wait(&g_semArrived);
        eventfd_write(g_lWakeFd, 1);
    }
}

static bool Connect() {
    static const bool bOpen = [] {
        const bool bDone = Open(0);
        std::thread(Loop).detach();
        return bDone;
    }();
    g_stPeer = {};
    g_stPeer.sin_family = AF_INET;
    g_stPeer.sin_port = htons(BENCH_HAND_PORT);
    g_stPeer.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return bOpen;
}

static bool Ask() {
    memcpy(g_acMsg, "dbgcmd", 6);
    eventfd_write(g_lWakeFd, 1);
    return sem_wait(&g_semArrived) == 0;
}

static void Disconnect() {}

const BenchExchange g_stHandExchange = {"floor", Serve, Connect, Ask, Disconnect};
