// Signals whose handlers do not ask for restarts, at every thread of a process and in every call that waits.
#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "tests/support/on_bus.h"
#include "tests/support/threads.h"

// Threads of a sanitizer's own take no signals.
#if defined(__SANITIZE_THREAD__)
static constexpr uint32_t ulOwnThreads = 1;
#else
static constexpr uint32_t ulOwnThreads = 0;
#endif

// How often the handler ran, by thread ID modulo the array's size.
static uint32_t g_aulHandled[4096];

// Not instrumented: ThreadSanitizer delivers signals at its own calls, one in here would deliver the next, and
// that leaves the thread with every signal blocked.
__attribute__((no_sanitize("thread"))) static void OnSignal(int) {
    __atomic_fetch_add(&g_aulHandled[static_cast<size_t>(syscall(SYS_gettid)) % std::size(g_aulHandled)], 1,
                       __ATOMIC_RELAXED);
}

// Interrupts every thread of the process, those that are started meanwhile included, as long as it lives.
class Storm {
public:
    Storm() {
        struct sigaction stAction = {};
        stAction.sa_handler = OnSignal;
        sigaction(SIGUSR1, &stAction, nullptr);
        sigaction(SIGCHLD, &stAction, nullptr);
        stThread_ = std::thread([this] { Run(); });
    }
    ~Storm() {
        bStop_ = true;
        stThread_.join();
        uint32_t ulSpared = 0;
        for (const auto &stTask : std::filesystem::directory_iterator("/proc/self/task")) {
            const int lTid = atoi(stTask.path().filename().c_str());
            const uint32_t &ulHandled = g_aulHandled[static_cast<size_t>(lTid) % std::size(g_aulHandled)];
            ulSpared += __atomic_load_n(&ulHandled, __ATOMIC_RELAXED) == 0 ? 1 : 0;
        }
        EXPECT_LE(ulSpared, ulOwnThreads);
    }

private:
    void Run() const {
        std::error_code stError; // a thread may end while it is looked at
        while (!bStop_) {
            for (const auto &stTask : std::filesystem::directory_iterator("/proc/self/task", stError)) {
                syscall(SYS_tgkill, getpid(), atoi(stTask.path().filename().c_str()),
                        ulRound_++ % 2 == 0 ? SIGUSR1 : SIGCHLD);
            }
            usleep(300);
        }
    }
    std::atomic<bool> bStop_{false};
    mutable uint32_t ulRound_ = 0;
    std::thread stThread_;
};

static std::atomic<uint32_t> g_ulSeen;
static uint32_t OnMsg(uint32_t, BP_StructMsg *, uint32_t) {
    g_ulSeen++;
    return BP_OK;
}

static uint32_t OnAsk(uint32_t, BP_StructMsg *pstMsg, uint32_t) {
    return BP_SendAckMsg(pstMsg, "answer", 6);
}

static std::atomic<uint32_t> g_ulAnswered;
static uint32_t AskPtz(uint32_t, BP_StructMsg *, uint32_t) {
    g_ulAnswered += Ask(MW_PTZ, "x", 10, 2) == "answer";
    return BP_OK;
}

static std::atomic<uint32_t> g_ulFired;
static uint32_t OnTimer(uint32_t, uint32_t) {
    g_ulFired++;
    return BP_OK;
}

TEST(Interrupts, EverythingArrivesOnce) {
    static constexpr uint32_t ulTimes = 100;
    ScriptedTarget stTarget(PORT_IWARE, AnswerAll("answer"));
    ASSERT_EQ(BP_MwareInit("MW_MWARE", 101), BP_OK);
    for (const char *pcName : {"MW_CTRL", "MW_PTZ", "MW_MWARE"}) {
        ASSERT_EQ(BP_RegistModule(pcName, 1, nullptr), BP_OK);
    }
    ASSERT_EQ(BP_RegistMsgProc(MW_CTRL, BP_PROC_TABLE_NORMAL, 1, OnMsg, 0), BP_OK);
    ASSERT_EQ(BP_RegistMsgProc(MW_PTZ, BP_PROC_TABLE_NORMAL, 2, OnAsk, 0), BP_OK);
    ASSERT_EQ(BP_RegistMsgProc(MW_CTRL, BP_PROC_TABLE_NORMAL, 3, AskPtz, 0), BP_OK);
    uint32_t ulTimerID = 0;
    {
        const Storm stStorm;
        ASSERT_EQ(BP_StartCycleTimer(MW_PTZ, 20, OnTimer, 0, &ulTimerID), BP_OK);
        BusSocket stPeer;
        for (uint32_t i = 0; i < ulTimes; i++) {
            stPeer.SendTo(PORT_MWARE, Bytes(MakeMsg(MW_CTRL, 1, "datagram")));
            ASSERT_EQ(BP_PostMsg(MW_CTRL, 1, "message", 7), BP_OK);
            ASSERT_EQ(BP_PostMsg(MW_CTRL, i % 10 == 0 ? 3 : 1, "either", 6), BP_OK);
            ASSERT_TRUE(WaitFor([=] { return g_ulSeen + g_ulAnswered + 60 > 3 * i; })); // there are 246 buffers
        }
        for (int i = 0; i < 5; i++) {
            EXPECT_EQ(Ask(BP_MODULE_ID_IWARE_CMD, "x", 10), "answer");
        }
        EXPECT_TRUE(WaitFor([] { return g_ulAnswered == ulTimes / 10 && g_ulFired > 5; }));
    }
    EXPECT_EQ(BP_UnregistTimer(ulTimerID), BP_OK);
    EXPECT_EQ(g_ulSeen, 3 * ulTimes - ulTimes / 10);
    EXPECT_TRUE(AllSlabsRefill());
    EXPECT_EQ(CountOf(ReadFile("/var/log/MW_MWARE00.log"), "[E("), 0U);
}

TEST(Interrupts, ShellRunsAndLinesAreWhole) {
    static constexpr int lThreads = 4;
    static constexpr int lRuns = 15;
    struct sigaction stBefore;
    sigaction(SIGQUIT, nullptr, &stBefore);
    BP_InitLog("t");
    ASSERT_EQ(BP_RegCmdModuleID("BP", 0, 0, BP_LOG_BP_MODULE_ID), BP_OK);
    std::atomic<uint32_t> ulRight{0};
    std::atomic<uint32_t> ulCut{0};
    {
        const Storm stStorm;
        Threads(lThreads, [&](uint32_t i) {
            for (int j = 0; j < lRuns; j++) {
                const int lStatus = BP_System(j % 2 == 0 ? "exit 7" : "sleep 0.02; exit 7");
                ulRight += lStatus == 7 << 8;
                ulCut += lStatus == -1; // an interrupted wait; the child is fetched all the same
                BP_WriteLog(BP_LOG_LEVEL_INFO, 0, BP_LOG_BP_MODULE_ID, "a.c", 1, "<%u-%d>", i, j);
            }
            sigset_t stMask;
            pthread_sigmask(SIG_SETMASK, nullptr, &stMask);
            EXPECT_EQ(sigismember(&stMask, SIGCHLD), 0);
        });
    }
    EXPECT_EQ(ulRight + ulCut, static_cast<uint32_t>(lThreads * lRuns));
    EXPECT_GT(ulCut, 0U);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1); // no child is left
    EXPECT_EQ(errno, ECHILD);
    struct sigaction stAfter;
    sigaction(SIGQUIT, nullptr, &stAfter);
    EXPECT_EQ(stAfter.sa_handler, stBefore.sa_handler);
    const std::string szLog = ReadFile("/var/log/t00.log");
    for (int i = 0; i < lThreads * lRuns; i++) {
        const std::string szText = std::to_string(i / lRuns) + "-" + std::to_string(i % lRuns);
        EXPECT_EQ(CountOf(szLog, "[a.c-1]<" + szText + ">\r\n"), 1U);
    }
}
