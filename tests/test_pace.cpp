// What the prompt pace adds: nothing waits for the process to be idle.
#include "tests/support/on_bus.h"

static std::atomic<uint32_t> g_ulDone;

static uint32_t OnTimer(uint32_t, uint32_t) {
    g_ulDone++;
    return BP_OK;
}

static uint32_t OnMsg(uint32_t, BP_StructMsg *, uint32_t) {
    g_ulDone++;
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
        const Threads stPost(1, [&](uint32_t) {
            usleep(20000);
            semWake.Post();
        });
        EXPECT_TRUE((semWake.*pfnWait)(60000));
        EXPECT_FALSE((semWake.*pfnWait)(0));
    }
}

class Pace : public OnBus, public testing::WithParamInterface<bool> {
protected:
    void SetUp() override {
        EXPECT_EQ(BP_SetPromptDelivery(2), BP_ERR_PARAM);
        EXPECT_EQ(BP_SetPromptDelivery(GetParam() ? 1 : 0), BP_OK);
        OnBus::SetUp();
        EXPECT_EQ(BP_SetPromptDelivery(0), BP_ERR_FAIL); // it is chosen before the start
    }
    BusSocket stSender_;
    uint32_t ulTimerID_ = 0;
};
INSTANTIATE_TEST_SUITE_P(DefaultOrPrompt, Pace, testing::Bool());

// Whether the main thread goes on reading while there is other work for it. It has not been started, so the
// test's thread is the one at the socket.
TEST_P(Pace, PromptReadingWaitsForOtherWork) {
    stSender_.SendTo(PORT_MWARE, "x");
    stSender_.SendTo(PORT_MWARE, "y");
    EXPECT_EQ(BP_StartOnceTimer(MW_CTRL, 1, OnTimer, 0, &ulTimerID_), BP_OK);
    EXPECT_EQ(BP_GetAndDispatchMsg(), BP_OK);
    EXPECT_EQ(BP_IsReceivePending(), GetParam());
}

// Whether half of twenty waits are over before any step or pass of the default pace. A busy machine holds some
// of them up, and now and then so many that they are tried again.
static bool HalfArePrompt(int lTries, const std::function<void()> &pfnWait) {
    for (uint32_t ulPrompt = 0; lTries > 0; lTries--, ulPrompt = 0) {
        for (int i = 0; i < 20; i++) {
            const int64_t lStart = BP_NowMs();
            pfnWait();
            ulPrompt += BP_NowMs() - lStart < 8 ? 1 : 0;
        }
        if (ulPrompt >= 10) {
            return true;
        }
    }
    return false;
}

// A flood would keep a process of the default pace from being idle at all; a full socket may lose what is sent.
TEST_P(Pace, PromptWaitsAreShorterThanAnyStep_EvenInAFlood) {
    const ScriptedTarget stTarget(PORT_IWARE, AnswerAll("answer"));
    StartMainThread();
    Handle(BP_MODULE_ID_MAIN, 8, OnMsg);
    std::unique_ptr<Repeater> pstFlood;
    if (GetParam()) {
        pstFlood = std::make_unique<Repeater>([] {
            static BusSocket stFlood;
            stFlood.SendTo(PORT_MWARE, Bytes(MakeMsg(MW_CTRL, 7, "flood")));
            usleep(200);
        });
    }
    const auto pfnAwaitNext = [](uint32_t ulBefore) { WaitFor([=] { return g_ulDone != ulBefore; }, 1); };
    const std::function<void()> apfnWait[] = {
        [] { Ask(BP_MODULE_ID_IWARE_CMD, "x", 1); },
        [&] {
            const uint32_t ulBefore = g_ulDone;
            stSender_.SendTo(PORT_MWARE, Bytes(MakeMsg(BP_MODULE_ID_MAIN, 8, "x")));
            pfnAwaitNext(ulBefore);
        },
        [&] {
            const uint32_t ulBefore = g_ulDone;
            EXPECT_EQ(BP_StartOnceTimer(BP_MODULE_ID_MAIN, 2, OnTimer, 0, &ulTimerID_), BP_OK);
            pfnAwaitNext(ulBefore);
        },
        [&] { pfnAwaitNext(g_ulDone); }};
    for (const auto &pfnWait : apfnWait) {
        if (&pfnWait == std::end(apfnWait) - 1) {
            EXPECT_EQ(BP_StartCycleTimer(MW_CTRL, 5, OnTimer, 0, &ulTimerID_), BP_OK);
        }
        EXPECT_EQ(HalfArePrompt(GetParam() ? 100 : 1, pfnWait), GetParam()) << &pfnWait - apfnWait;
    }
    EXPECT_EQ(BP_UnregistTimer(ulTimerID_), BP_OK);
    pstFlood.reset();
    EXPECT_EQ(Ask(BP_MODULE_ID_IWARE_CMD, "x"), "answer");
}
