// What the prompt pace adds: nothing waits for the process to be idle.
#include "tests/support/on_bus.h"
#include "tests/support/threads.h"

static std::atomic<uint32_t> g_ulFired, g_ulSeen;

static uint32_t OnTimer(uint32_t, uint32_t) {
    g_ulFired++;
    return BP_OK;
}

static uint32_t OnMsg(uint32_t, BP_StructMsg *, uint32_t) {
    g_ulSeen++;
    return BP_OK;
}

static std::string AskIware(uint32_t ulSeconds) {
    return Ask(BP_MODULE_ID_IWARE_CMD, "x", ulSeconds);
}

// With the system's wait and with the one that takes its place.
TEST(Semaphore, TimedWait_EndsByAPostOrByTime) {
    for (const auto pfnWait : {&BP_Sem::WaitFor, &BP_Sem::PollFor}) {
        BP_Sem semWake(1);
        EXPECT_TRUE((semWake.*pfnWait)(0));
        const int64_t lStart = BP_NowMs();
        EXPECT_FALSE((semWake.*pfnWait)(20));
        EXPECT_GE(BP_NowMs() - lStart, 20);
        const Threads stPost(1, [&](uint32_t) {
            usleep(20000);
            semWake.Post();
        });
        EXPECT_TRUE((semWake.*pfnWait)(60000));
        EXPECT_FALSE((semWake.*pfnWait)(0));
    }
}

class Pace : public OnBus {
protected:
    void SetUp() override {}
    void Start(uint32_t ulPrompt) {
        ASSERT_EQ(BP_SetPromptDelivery(ulPrompt), BP_OK);
        OnBus::SetUp();
        Handle(MW_CTRL, 7, OnMsg);
        StartMainThread();
        Handle(BP_MODULE_ID_MAIN, 8, OnMsg);
    }
    BusSocket stSender_;
    ScriptedTarget stTarget_{PORT_IWARE, AnswerAll("answer")};
    uint32_t ulTimerID_ = 0;
};

TEST_F(Pace, IsChosenBeforeTheStart) {
    EXPECT_EQ(BP_SetPromptDelivery(2), BP_ERR_PARAM);
    EXPECT_EQ(BP_SetPromptDelivery(1), BP_OK);
    Start(0);
    EXPECT_EQ(BP_SetPromptDelivery(1), BP_ERR_FAIL);
}

// Datagrams without a pause, so that a process of the default pace is never idle, except where this thread
// itself was kept from running.
class Flood {
public:
    uint32_t IdlePasses() const { return ulIdlePasses_; }

private:
    void Step() {
        stSender_.SendTo(PORT_MWARE, Bytes(MakeMsg(MW_CTRL, 7, "flood")));
        const int64_t lNow = BP_NowMs();
        ulIdlePasses_ += lNow - lLast_ > 15 ? static_cast<uint32_t>(lNow - lLast_) / 20 + 1 : 0;
        lLast_ = lNow;
        usleep(200);
    }
    BusSocket stSender_;
    int64_t lLast_ = BP_NowMs();
    std::atomic<uint32_t> ulIdlePasses_{0}; // at the most
    Repeater stThread_{[this] { Step(); }};
};

TEST_F(Pace, Prompt_NothingWaitsForAnIdlePass) {
    Start(1);
    const Flood stFlood;
    ASSERT_TRUE(WaitFor([] { return g_ulSeen > 10; }));
    EXPECT_TRUE(WaitFor([] { return AskIware(1) == "answer"; })); // a full socket may lose one
    ASSERT_EQ(BP_StartCycleTimer(MW_CTRL, 5, OnTimer, 0, &ulTimerID_), BP_OK);
    EXPECT_TRUE(WaitFor([] { return g_ulFired > 20; }));
    EXPECT_EQ(BP_UnregistTimer(ulTimerID_), BP_OK);
    const uint32_t ulFired = g_ulFired;
    ASSERT_EQ(BP_StartOnceTimer(BP_MODULE_ID_MAIN, 3, OnTimer, 0, &ulTimerID_), BP_OK);
    EXPECT_TRUE(WaitFor([=] { return g_ulFired == ulFired + 1; }));
}

// The counterpart, without which the test above could not fail.
TEST_F(Pace, Default_WaitsForAnIdlePass) {
    Start(0);
    ASSERT_EQ(BP_StartCycleTimer(MW_CTRL, 5, OnTimer, 0, &ulTimerID_), BP_OK);
    uint32_t ulBefore = 0;
    {
        const Flood stFlood;
        ASSERT_TRUE(WaitFor([] { return g_ulSeen > 10; }));
        const uint32_t ulPasses = stFlood.IdlePasses();
        ulBefore = g_ulFired;
        AskIware(1);
        EXPECT_LE(g_ulFired - ulBefore, stFlood.IdlePasses() - ulPasses + 1); // of two hundred
    }
    EXPECT_TRUE(WaitFor([=] { return g_ulFired > ulBefore + 20; }));
    EXPECT_EQ(AskIware(10), "answer");
    EXPECT_EQ(BP_UnregistTimer(ulTimerID_), BP_OK);
}

class PaceOfReading : public Pace, public testing::WithParamInterface<uint32_t> {};
INSTANTIATE_TEST_SUITE_P(DefaultAndPrompt, PaceOfReading, testing::Range(0U, 2U));

// Whether the main thread goes on reading while there is other work for it. It has not been started, so the
// test's thread is the one at the socket.
TEST_P(PaceOfReading, PromptReadingWaitsForOtherWork) {
    ASSERT_EQ(BP_SetPromptDelivery(GetParam()), BP_OK);
    OnBus::SetUp();
    stSender_.SendTo(PORT_MWARE, "x");
    stSender_.SendTo(PORT_MWARE, "y");
    EXPECT_EQ(BP_StartOnceTimer(MW_CTRL, 1, OnTimer, 0, &ulTimerID_), BP_OK);
    EXPECT_EQ(BP_GetAndDispatchMsg(), BP_OK);
    EXPECT_EQ(BP_IsReceivePending(), GetParam() == 1);
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
    EXPECT_TRUE(WaitFor([&] { return ulCount != ulBefore; }));
}

TEST_F(Pace, Prompt_MostWaitsAreShorterThanAnyStep) {
    Start(1);
    EXPECT_TRUE(HalfArePrompt([] { EXPECT_EQ(AskIware(10), "answer"); }));
    EXPECT_TRUE(HalfArePrompt([&] {
        const uint32_t ulSeen = g_ulSeen;
        stSender_.SendTo(PORT_MWARE, Bytes(MakeMsg(BP_MODULE_ID_MAIN, 8, "x")));
        AwaitChange(g_ulSeen, ulSeen);
    }));
    EXPECT_TRUE(HalfArePrompt([&] {
        const uint32_t ulFired = g_ulFired;
        ASSERT_EQ(BP_StartOnceTimer(MW_CTRL, 2, OnTimer, 0, &ulTimerID_), BP_OK);
        AwaitChange(g_ulFired, ulFired);
    }));
    ASSERT_EQ(BP_StartCycleTimer(MW_CTRL, 5, OnTimer, 0, &ulTimerID_), BP_OK);
    EXPECT_TRUE(HalfArePrompt([] { AwaitChange(g_ulFired, g_ulFired); }));
    EXPECT_EQ(BP_UnregistTimer(ulTimerID_), BP_OK);
}
