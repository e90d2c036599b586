// What the prompt pace adds: nothing waits for the process to be idle.
#include <gtest/gtest.h>
#include <mutex>
#include <set>
#include <thread>
#include <unistd.h>

#include "tests/support/on_bus.h"
#include "tests/support/threads.h"

static std::atomic<uint32_t> g_ulFired;
static uint32_t OnTimer(uint32_t, uint32_t) {
    g_ulFired++;
    return BP_OK;
}

static std::atomic<uint32_t> g_ulSeen;
static uint32_t OnMsg(uint32_t, BP_StructMsg *, uint32_t) {
    g_ulSeen++;
    return BP_OK;
}

// With the system's wait and with the one that takes its place.
TEST(Semaphore, TimedWait_EndsByAPostOrByTime) {
    for (const auto pfnWait : {&BP_Sem::WaitFor, &BP_Sem::PollFor}) {
        BP_Sem semWake(1);
        EXPECT_TRUE((semWake.*pfnWait)(0));
        const int64_t lStart = BP_NowMs();
        EXPECT_FALSE((semWake.*pfnWait)(20));
        EXPECT_GE(BP_NowMs() - lStart, 20);
        std::thread stPost([&] {
            usleep(20000);
            semWake.Post();
        });
        EXPECT_TRUE((semWake.*pfnWait)(60000));
        stPost.join();
        EXPECT_FALSE((semWake.*pfnWait)(0));
    }
}

static std::string Ask(uint32_t ulTimeout) {
    return Ask(BP_MODULE_ID_IWARE_CMD, "x", ulTimeout);
}

// Datagrams without a pause, so that a process of the default pace is never idle, except where this thread
// itself was kept from running.
class Flood {
public:
    Flood()
        : stThread_([this] {
              BusSocket stSender;
              const std::string szMsg = Bytes(MakeMsg(MW_CTRL, 7, "flood"));
              int64_t lLast = BP_NowMs();
              while (!bStop_) {
                  stSender.SendTo(PORT_MWARE, szMsg);
                  const int64_t lNow = BP_NowMs();
                  ulIdlePasses_ += lNow - lLast > 15 ? static_cast<uint32_t>(lNow - lLast) / 20 + 1 : 0;
                  lLast = lNow;
                  usleep(200);
              }
          }) {}
    ~Flood() {
        bStop_ = true;
        stThread_.join();
    }
    uint32_t IdlePasses() const { return ulIdlePasses_; }

private:
    std::atomic<bool> bStop_{false};
    std::atomic<uint32_t> ulIdlePasses_{0}; // at the most
    std::thread stThread_;
};

class Pace : public OnBus {
protected:
    void SetUp() override {}
    void TearDown() override {}
    void Start(uint32_t ulPrompt) {
        ASSERT_EQ(BP_SetPromptDelivery(ulPrompt), BP_OK);
        OnBus::SetUp();
        ASSERT_EQ(BP_RegistMsgProc(MW_CTRL, BP_PROC_TABLE_NORMAL, 7, OnMsg, 0), BP_OK);
        StartMainThread();
        ASSERT_EQ(BP_RegistMsgProc(BP_MODULE_ID_MAIN, BP_PROC_TABLE_NORMAL, 8, OnMsg, 0), BP_OK);
    }
    static void ExpectAllBack() { EXPECT_TRUE(AllSlabsRefill()); }
};

TEST_F(Pace, IsChosenBeforeTheStart) {
    EXPECT_EQ(BP_SetPromptDelivery(2), BP_ERR_PARAM);
    EXPECT_EQ(BP_SetPromptDelivery(1), BP_OK);
    Start(0);
    EXPECT_EQ(BP_SetPromptDelivery(1), BP_ERR_FAIL);
}

TEST_F(Pace, Prompt_NothingWaitsForAnIdlePass) {
    ScriptedTarget stTarget(PORT_IWARE, AnswerAll("answer"));
    Start(1);
    {
        const Flood stFlood;
        ASSERT_TRUE(WaitFor([] { return g_ulSeen > 10; }));
        EXPECT_TRUE(WaitFor([] { return Ask(1) == "answer"; })); // a full socket may lose one
        uint32_t ulTimerID = 0;
        ASSERT_EQ(BP_StartCycleTimer(MW_CTRL, 5, OnTimer, 0, &ulTimerID), BP_OK);
        EXPECT_TRUE(WaitFor([] { return g_ulFired > 20; }));
        EXPECT_EQ(BP_UnregistTimer(ulTimerID), BP_OK);
        ASSERT_EQ(BP_StartOnceTimer(BP_MODULE_ID_MAIN, 3, OnTimer, 0, &ulTimerID), BP_OK);
        const uint32_t ulFired = g_ulFired;
        EXPECT_TRUE(WaitFor([=] { return g_ulFired == ulFired + 1; }));
    }
    ExpectAllBack();
}

// The counterpart, without which the test above could not fail.
TEST_F(Pace, Default_WaitsForAnIdlePass) {
    ScriptedTarget stTarget(PORT_IWARE, AnswerAll("answer"));
    Start(0);
    uint32_t ulTimerID = 0;
    ASSERT_EQ(BP_StartCycleTimer(MW_CTRL, 5, OnTimer, 0, &ulTimerID), BP_OK);
    uint32_t ulBefore = 0;
    {
        const Flood stFlood;
        ASSERT_TRUE(WaitFor([] { return g_ulSeen > 10; }));
        const uint32_t ulPasses = stFlood.IdlePasses();
        ulBefore = g_ulFired;
        Ask(1);
        EXPECT_LE(g_ulFired - ulBefore, stFlood.IdlePasses() - ulPasses + 1); // of two hundred
    }
    EXPECT_TRUE(WaitFor([=] { return g_ulFired > ulBefore + 20; }));
    EXPECT_EQ(Ask(10), "answer");
    EXPECT_EQ(BP_UnregistTimer(ulTimerID), BP_OK);
    ExpectAllBack();
}

// Whether the main thread goes on reading while there is other work for it. It has not been started, so the
// test's thread is the one at the socket.
static bool ReadsOn(uint32_t ulPrompt) {
    BusSocket stPeer;
    EXPECT_EQ(BP_SetPromptDelivery(ulPrompt), BP_OK);
    EXPECT_EQ(BP_MwareInit("MW_MWARE", 101), BP_OK);
    stPeer.SendTo(PORT_MWARE, "x");
    stPeer.SendTo(PORT_MWARE, "y");
    uint32_t ulTimerID = 0;
    EXPECT_EQ(BP_RegistModule("MW_CTRL", 1, nullptr), BP_OK);
    EXPECT_EQ(BP_StartOnceTimer(MW_CTRL, 1, OnTimer, 0, &ulTimerID), BP_OK);
    EXPECT_EQ(BP_GetAndDispatchMsg(), BP_OK);
    return !BP_IsReceivePending();
}

TEST_F(Pace, Prompt_ReadingWaitsForOtherWork) {
    EXPECT_FALSE(ReadsOn(1));
}

TEST_F(Pace, Default_OtherWorkWaitsForReading) {
    EXPECT_TRUE(ReadsOn(0));
}

// Whether half of fifty waits are over before any step or pass of the default pace. A busy machine holds some
// of them up, and now and then so many that they are tried again.
static bool HalfArePrompt(const std::function<void()> &pfnWait) {
    return WaitFor([&] {
        uint32_t ulPrompt = 0;
        for (int i = 0; i < 50; i++) {
            const int64_t lStart = BP_NowMs();
            pfnWait();
            ulPrompt += BP_NowMs() - lStart < 8 ? 1 : 0;
        }
        return ulPrompt >= 25;
    });
}

static void AwaitChange(const std::atomic<uint32_t> &ulCount, uint32_t ulBefore) {
    ASSERT_TRUE(WaitFor([&] {
        for (int i = 0; i < 50 && ulCount == ulBefore; i++) {
            usleep(100);
        }
        return ulCount != ulBefore;
    }));
}

TEST_F(Pace, Prompt_MostWaitsAreShorterThanAnyStep) {
    ScriptedTarget stTarget(PORT_IWARE, AnswerAll("answer"));
    BusSocket stSender;
    Start(1);
    uint32_t ulTimerID = 0;
    EXPECT_TRUE(HalfArePrompt([] { EXPECT_EQ(Ask(10), "answer"); }));
    EXPECT_TRUE(HalfArePrompt([&] {
        const uint32_t ulSeen = g_ulSeen;
        stSender.SendTo(PORT_MWARE, Bytes(MakeMsg(BP_MODULE_ID_MAIN, 8, "x")));
        AwaitChange(g_ulSeen, ulSeen);
    }));
    EXPECT_TRUE(HalfArePrompt([&] {
        const uint32_t ulFired = g_ulFired;
        ASSERT_EQ(BP_StartOnceTimer(MW_CTRL, 2, OnTimer, 0, &ulTimerID), BP_OK);
        AwaitChange(g_ulFired, ulFired);
    }));
    ASSERT_EQ(BP_StartCycleTimer(MW_CTRL, 5, OnTimer, 0, &ulTimerID), BP_OK);
    EXPECT_TRUE(HalfArePrompt([] { AwaitChange(g_ulFired, g_ulFired); }));
    EXPECT_EQ(BP_UnregistTimer(ulTimerID), BP_OK);
    ExpectAllBack();
}

// Threads that are no module's ask as the main module, all at once: each is woken by its own answer.
TEST_F(Pace, Prompt_ManyRequestersGetTheirOwnAnswers) {
    ScriptedTarget stTarget(PORT_IWARE, [](const WireMsg &stReq) {
        return std::vector<std::string>{Bytes(MakeAck(stReq, std::to_string(stReq.stHdr.AssiMsgId)))};
    });
    Start(1);
    std::mutex stLock;
    std::set<std::string> aszAnswer;
    Threads(8, [&](uint32_t) {
        for (int j = 0; j < 500; j++) {
            const std::string szAnswer = Ask(10);
            const std::lock_guard<std::mutex> stGuard(stLock);
            aszAnswer.insert(szAnswer);
        }
    });
    EXPECT_EQ(aszAnswer.size(), 8U * 500);
    ExpectAllBack();
}

TEST_F(Pace, Prompt_LimitIsTheWholeLimit) {
    Start(1);
    const int64_t lStart = BP_NowMs();
    EXPECT_EQ(Ask(0), "error 1057");
    EXPECT_EQ(Ask(1), "error 1057");
    EXPECT_GE(BP_NowMs() - lStart, 1010);
    const std::string szLog = Log();
    EXPECT_EQ(CountOf(szLog, "timeout(10 0)(ffffffff fffffffd),Cmd(31060)"), 1U);
    EXPECT_EQ(CountOf(szLog, "timeout(1000 1000)(ffffffff fffffffd),Cmd(31060)"), 1U);
    ExpectAllBack();
}
