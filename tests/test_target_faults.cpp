// A live process that is asked, and killed, stopped and restarted meanwhile.
#include <csignal>
#include <gtest/gtest.h>
#include <sstream>

#include "bp/bp.h"
#include "tests/support/bus_peer.h"
#include "tests/support/files.h"
#include "tests/support/pty_session.h"

// ulLimit is in seconds; 0 is one step of 10 ms.
static std::string Ask(uint32_t ulLimit, const char *pcRequest = "<display ptz >") {
    char *pcAnswer = nullptr;
    const uint32_t ulRet = BP_SendCmdMsg(pcRequest, BP_MODULE_ID_MWARE_CMD, 31060, ulLimit, &pcAnswer);
    const std::string szAnswer = ulRet == BP_OK ? pcAnswer : "error " + std::to_string(ulRet);
    free(pcAnswer);
    return szAnswer;
}

static std::unique_ptr<Child> StartMware() {
    auto pstMware = std::make_unique<Child>(std::vector<std::string>{KS_MWARE_PATH});
    EXPECT_TRUE(pstMware->WaitForOutput("ready"));
    return pstMware;
}

// Of all its buffers only the one with the question is in use.
static bool TargetHasItsBuffers() {
    std::istringstream stRows(Ask(10, "<display slab >"));
    std::string szTitles;
    std::getline(stRows, szTitles);
    uint32_t ulUsed = 0;
    uint32_t ulRows = 0;
    uint32_t aulField[5];
    while (stRows >> aulField[0] >> aulField[1] >> aulField[2] >> aulField[3] >> aulField[4]) {
        ulUsed += aulField[4];
        ulRows++;
    }
    return ulRows == BP_SLAB_CLASS_NUM && ulUsed == 1;
}

// KS_FAULT_ROUNDS asks for more rounds than an ordinary run has.
TEST(TargetFaults, EveryRoundEndsWithAnAnswerAndFullPools) {
    const char *pcRounds = getenv("KS_FAULT_ROUNDS");
    const int lRounds = pcRounds != nullptr ? atoi(pcRounds) : 40;
    ASSERT_EQ(BP_MwareInit("ks", 257), BP_OK);
    std::unique_ptr<Child> pstMware = StartMware();
    for (int i = 0; i < lRounds; i++) {
        SCOPED_TRACE(i);
        switch (i % 4) {
        case 0: // gone without a word, its port with it
            pstMware.reset();
            EXPECT_EQ(Ask(0), "error 1057");
            pstMware = StartMware();
            break;
        case 1: // what it did not answer in time it answers late
            pstMware->Stop();
            EXPECT_EQ(Ask(0), "error 1057");
            EXPECT_EQ(Ask(0), "error 1057");
            pstMware->Signal(SIGCONT);
            break;
        case 2: // killed with requests in its socket
            pstMware->Stop();
            for (int j = 0; j < 4; j++) {
                EXPECT_EQ(Ask(0), "error 1057");
            }
            pstMware.reset();
            pstMware = StartMware();
            break;
        default: // restarted between two requests
            pstMware.reset();
            pstMware = StartMware();
        }
        ASSERT_EQ(Ask(10).find("position "), 0U) << Ask(10);
        ASSERT_TRUE(WaitFor(TargetHasItsBuffers)) << Ask(10, "<display slab >");
    }
    EXPECT_TRUE(AllSlabsRefill());
}
