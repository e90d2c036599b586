// Signals whose handlers do not ask for restarts, at every thread of a process and in every call that waits.
#include <csignal>
#include <filesystem>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/on_bus.h"

// Threads of a sanitizer's own take no signals.
#if defined(__SANITIZE_THREAD__)
static constexpr uint32_t ulOwnThreads = 1;
#else
static constexpr uint32_t ulOwnThreads = 0;
#endif

// How often the handler ran, by thread ID modulo the array's size.
static uint32_t g_aulHandled[4096];

static uint32_t &HandledBy(int lTid) {
    return g_aulHandled[static_cast<size_t>(lTid) % std::size(g_aulHandled)];
}

// Not instrumented: ThreadSanitizer delivers signals at its own calls, one in here would deliver the next, and
// that leaves the thread with every signal blocked.
__attribute__((no_sanitize("thread"))) static void OnSignal(int) {
    __atomic_fetch_add(&HandledBy(static_cast<int>(syscall(SYS_gettid))), 1, __ATOMIC_RELAXED);
}

static std::vector<int> ThreadIds() {
    std::vector<int> alTid;
    std::error_code stError; // a thread may end while it is looked at
    for (const auto &stTask : std::filesystem::directory_iterator("/proc/self/task", stError)) {
        alTid.push_back(atoi(stTask.path().filename().c_str()));
    }
    return alTid;
}

// Interrupts every thread of the process, those that are started meanwhile included, as long as it lives.
class Storm {
public:
    ~Storm() {
        uint32_t ulSpared = 0;
        for (const int lTid : ThreadIds()) {
            ulSpared += __atomic_load_n(&HandledBy(lTid), __ATOMIC_RELAXED) == 0 ? 1 : 0;
        }
        EXPECT_LE(ulSpared, ulOwnThreads);
    }

private:
    static uint32_t SetHandler() {
        struct sigaction stAction = {};
        stAction.sa_handler = OnSignal;
        return static_cast<uint32_t>(sigaction(SIGUSR1, &stAction, nullptr) |
                                     sigaction(SIGCHLD, &stAction, nullptr));
    }
    uint32_t ulRound_ = SetHandler(); // before the first signal
    Repeater stThread_{[this] {
        for (const int lTid : ThreadIds()) {
            syscall(SYS_tgkill, getpid(), lTid, ulRound_++ % 2 == 0 ? SIGUSR1 : SIGCHLD);
        }
        usleep(300);
    }};
};

static std::atomic<uint32_t> g_ulSeen, g_ulAnswered, g_ulFired;

class Interrupts : public OnBus {};

TEST_F(Interrupts, EverythingArrivesOnce) {
    static constexpr uint32_t ulTimes = 100;
    ScriptedTarget stTarget(PORT_IWARE, AnswerAll("answer"));
    ASSERT_EQ(BP_RegistModule("MW_PTZ", 1, nullptr), BP_OK);
    StartMainThread();
    Handle(MW_CTRL, 1, [](uint32_t, BP_StructMsg *, uint32_t) { return g_ulSeen++, BP_OK; });
    Handle(MW_PTZ, 2,
           [](uint32_t, BP_StructMsg *pstMsg, uint32_t) { return BP_SendAckMsg(pstMsg, "answer", 6); });
    Handle(MW_CTRL, 3, [](uint32_t, BP_StructMsg *, uint32_t) {
        g_ulAnswered += Ask(MW_PTZ, "x", 10, 2) == "answer";
        return BP_OK;
    });
    uint32_t ulTimerID = 0;
    {
        const Storm stStorm;
        const BP_PfnTimerCom pfnFire = [](uint32_t, uint32_t) { return g_ulFired++, BP_OK; };
        ASSERT_EQ(BP_StartCycleTimer(MW_PTZ, 20, pfnFire, 0, &ulTimerID), BP_OK);
        BusSocket stPeer;
        for (uint32_t i = 0; i < ulTimes; i++) {
            stPeer.SendTo(PORT_MWARE, Bytes(MakeMsg(MW_CTRL, 1, "datagram")));
            ASSERT_EQ(BP_PostMsg(MW_CTRL, 1, "message", 7), BP_OK);
            ASSERT_EQ(BP_PostMsg(MW_CTRL, i % 10 == 0 ? 3 : 1, "either", 6), BP_OK);
            ASSERT_TRUE(WaitFor([=] { return g_ulSeen + g_ulAnswered + 60 > 3 * i; })); // there are 246 buffers
        }
        EXPECT_EQ(Ask(BP_MODULE_ID_IWARE_CMD, "x"), "answer");
        stTarget.SetScript([](const WireMsg &) { return std::vector<std::string>{}; });
        const int64_t lStart = BP_NowMs();
        EXPECT_EQ(Ask(BP_MODULE_ID_IWARE_CMD, "x", 1), "error 1057");
        EXPECT_GE(BP_NowMs() - lStart, 990); // no signal uses up the limit
        EXPECT_TRUE(WaitFor([] { return g_ulAnswered == ulTimes / 10 && g_ulFired > 5; }));
    }
    EXPECT_EQ(BP_UnregistTimer(ulTimerID), BP_OK);
    EXPECT_EQ(g_ulSeen, 3 * ulTimes - ulTimes / 10);
    EXPECT_EQ(Logged("[E("), 1U);
}

TEST(InterruptedShells, RunsAndLinesAreWhole) {
    static constexpr uint32_t ulThreads = 4, ulRuns = 15;
    struct sigaction stBefore, stAfter;
    sigaction(SIGQUIT, nullptr, &stBefore);
    BP_InitLog("t");
    ASSERT_EQ(BP_RegCmdModuleID("BP", 0, 0, BP_LOG_BP_MODULE_ID), BP_OK);
    std::atomic<uint32_t> ulRight{0}, ulCut{0};
    {
        const Storm stStorm;
        Threads(ulThreads, [&](uint32_t i) {
            for (uint32_t j = 0; j < ulRuns; j++) {
                const int lStatus = BP_System(j % 2 == 0 ? "exit 7" : "sleep 0.02; exit 7");
                ulRight += lStatus == 7 << 8;
                ulCut += lStatus == -1; // an interrupted wait; the child is fetched all the same
                BP_WriteLog(BP_LOG_LEVEL_INFO, 0, BP_LOG_BP_MODULE_ID, "a.c", 1, "<%u-%u>", i, j);
            }
            sigset_t stMask;
            pthread_sigmask(SIG_SETMASK, nullptr, &stMask);
            EXPECT_EQ(sigismember(&stMask, SIGCHLD), 0);
        });
    }
    EXPECT_EQ(ulRight + ulCut, ulThreads * ulRuns);
    EXPECT_GT(ulCut, 0U);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1); // no child is left
    EXPECT_EQ(errno, ECHILD);
    sigaction(SIGQUIT, nullptr, &stAfter);
    EXPECT_EQ(stAfter.sa_handler, stBefore.sa_handler);
    const std::string szLog = ReadFile("/var/log/t00.log");
    for (uint32_t i = 0; i < ulThreads * ulRuns; i++) {
        const std::string szText = std::to_string(i / ulRuns) + "-" + std::to_string(i % ulRuns);
        EXPECT_EQ(CountOf(szLog, "[a.c-1]<" + szText + ">\r\n"), 1U);
    }
}
