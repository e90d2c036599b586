// The console on a terminal of its own, beside the example process.
#ifndef TESTS_SUPPORT_CONSOLE_H
#define TESTS_SUPPORT_CONSOLE_H

#include <cstring>
#include <gtest/gtest.h>

#include "tests/support/pty_session.h"

inline bool SameSettings(const struct termios &stA, const struct termios &stB) {
    return stA.c_iflag == stB.c_iflag && stA.c_oflag == stB.c_oflag && stA.c_cflag == stB.c_cflag &&
           stA.c_lflag == stB.c_lflag && memcmp(stA.c_cc, stB.c_cc, sizeof(stA.c_cc)) == 0;
}

// Types a line in debug mode and returns what is printed up to the next prompt, the echo taken off.
inline std::string Command(PtySession *pstKs, const std::string &szLine) {
    pstKs->Type(szLine + "\r");
    const std::string szText = pstKs->ReadUntil("\r\n[dbg]");
    return szText.substr(szLine.size(), szText.size() - szLine.size() - 7);
}

inline void EnterDebugMode(PtySession *pstKs) {
    pstKs->ReadUntil("<dbg>");
    pstKs->Type("e\t");
    pstKs->ReadUntil("\r\n[dbg]");
}

class ConsoleOnMware : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(stMware_.WaitForOutput("ready"));
        pstKs_ = new PtySession({KS_PATH});
        stBefore_ = pstKs_->Settings();
    }
    void TearDown() override { delete pstKs_; }
    Child stMware_{{KS_MWARE_PATH}};
    PtySession *pstKs_ = nullptr;
    struct termios stBefore_ = {};
};

#endif
