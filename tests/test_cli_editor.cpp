#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <thread>
#include <unistd.h>

#include "console/cli_cmd.h"
#include "tests/support/capture.h"
#include "tests/support/files.h"
#include "tests/support/pty_session.h"

static const char g_szUp[] = "\x1B[A";
static const char g_szDown[] = "\x1B[B";

class Editor : public testing::Test {
protected:
    Editor() { setvbuf(stdin, nullptr, _IONBF, 0); } // as the console has it
    // Types a whole line and returns it; the prompt is "P>".
    std::string Read(const std::string &szKeys, const std::string &szStart = "") {
        snprintf(g_szSysPrompt, sizeof(g_szSysPrompt), "P>");
        memset(g_szLineBuf, 0, sizeof(g_szLineBuf));
        memcpy(g_szLineBuf, szStart.data(), szStart.size());
        stKeys_.Feed(szKeys);
        stKeys_.Attach();
        CLI_ReadLine();
        stKeys_.Detach();
        return g_szLineBuf;
    }
    void Enter(const std::vector<std::string> &aszLine) {
        for (const std::string &szLine : aszLine) {
            ASSERT_EQ(Read(szLine + "\r"), szLine);
        }
        stKeys_.Echo();
    }
    KeyFeeder stKeys_;
};

TEST_F(Editor, WhatWasPutBack_IsReadFirst) {
    ungetc('\r', stdin);
    EXPECT_EQ(Read(""), "");
    ungetc('x', stdin);
    EXPECT_EQ(Read("y\r"), "xy");
}

// Keys in, line and echo out.
TEST_F(Editor, KeysMakeLines) {
    const std::string sz99(99, 'a');
    const std::string szErase = "\b \b";
    const struct {
        const char *pcName;
        std::string szStart, szKeys, szLine, szEcho;
    } astCase[] = {
        {"plain", "", "abc\r", "abc", "abc"},
        {"empty", "", "\r", "", ""},
        {"backspace", "", "ab\bc\r", "ac", "ab" + szErase + "c"},
        {"delete", "", "ab\x7F\x7F\x7Fx\r", "x", "ab" + szErase + szErase + "x"},
        {"backspace on nothing", "", "\b\x7F\r", "", ""},
        {"goes on with the text there is", "ab ", "c\r", "ab c", "c"},
        {"erases the text there is", "ab", "\b\r", "a", szErase},
        {"tab ends the line", "", "ab\t", "ab\t", "ab"},
        {"question mark ends the line", "", "ab?", "ab?", "ab?"},
        {"control characters", "", "\x01\x03\x04\x1A\nx\r", "x", "x"},
        {"bytes above 0x7F", "", "\xC3\xA4\xFFx\r", "x", "x"},
        {"hundredth character", "", sz99 + "b\r", sz99, sz99 + "b" + szErase},
        {"tab in a full line", sz99, "\t", sz99, szErase},
        {"question mark in a full line", sz99, "?", sz99, "?" + szErase},
        {"unknown sequences", "", "\x1B[3~\x1B[15~\x1BOP\x1B[Cx\r", "x", "x"},
        {"up without history", "", "x\x1B[Ay\r", "xy", "xy"},
    };
    for (const auto &stCase : astCase) {
        SCOPED_TRACE(stCase.pcName);
        for (char *&pcSlot : g_szHistoryCmd) {
            free(pcSlot);
            pcSlot = nullptr;
        }
        EXPECT_EQ(Read(stCase.szKeys, stCase.szStart), stCase.szLine);
        EXPECT_EQ(stKeys_.Echo(), stCase.szEcho);
    }
}

TEST_F(Editor, RecallRedrawsTheLine) {
    Enter({"first line"});
    EXPECT_EQ(Read(std::string("xyz") + g_szUp + "!\r"), "first line!");
    EXPECT_EQ(stKeys_.Echo(), "xyz\rP>   \rP>first line!");
}

// What is entered, which arrows are pressed then, and what line that gives.
TEST_F(Editor, ArrowsWalkTheHistory) {
    const struct {
        std::vector<std::string> aszLine;
        std::string szArrows, szLine;
    } astCase[] = {
        {{"a"}, "u", "a"},
        {{"a"}, "uu", "a"},
        {{"a", "a"}, "uu", "a"},
        {{"a", "b", "a"}, "uuu", "a"},
        {{"a", "b", "a"}, "uu", "b"},
        {{"a", "b", "c"}, "uud", "c"},
        {{"a", "b", "c"}, "uudd", "c"},
        {{"a", "b", "c"}, "uddu", "b"}, // past the newest, the next up goes to the one before it
        {{"a", "b", "c"}, "uuuuud", "a"},
        {{"a", "b"}, "d", "a"}, // the ring goes on behind the newest with the oldest
        {{"1", "2", "3", "4", "5", "6", "7", "8", "9", "10", "11", "12"}, "uuuuuuuuuu", "3"},
        {{"1", "2", "3", "4", "5", "6", "7", "8", "9", "10", "11", "12"}, "uuuuuuuuuuuuuuu", "3"},
    };
    for (const auto &stCase : astCase) {
        for (char *&pcSlot : g_szHistoryCmd) {
            free(pcSlot);
            pcSlot = nullptr;
        }
        g_ulHistorySavePosition = g_ulHistoryShowPosition = 0;
        Enter(stCase.aszLine);
        std::string szKeys;
        for (const char cArrow : stCase.szArrows) {
            szKeys += cArrow == 'u' ? g_szUp : g_szDown;
        }
        EXPECT_EQ(Read(szKeys + "\r"), stCase.szLine) << stCase.szArrows << " after " << stCase.aszLine.size();
    }
}

TEST_F(Editor, HelpLinesAndEmptyLinesAreNotKept) {
    Enter({"kept"});
    Read("\r");
    Read("help?");
    Read("complete\t");
    EXPECT_EQ(Read("\x1BOA\r"), "kept"); // the other form of the key
    EXPECT_EQ(g_ulHistorySavePosition, 1U);
}

TEST_F(Editor, ClosedTerminal_EndsInput) {
    stKeys_.Feed("unfinished");
    stKeys_.Attach();
    stKeys_.HangUp();
    EXPECT_FALSE(CLI_IsInputEnded());
    CLI_ReadLine();
    stKeys_.Detach();
    EXPECT_TRUE(CLI_IsInputEnded());
    EXPECT_STREQ(g_szLineBuf, "");
}

TEST_F(Editor, PendingChar_DoesNotWait) {
    stKeys_.Attach();
    EXPECT_EQ(CLI_ReadPendingChar(), 255);
    stKeys_.Feed("x");
    EXPECT_TRUE(WaitFor([] { return CLI_ReadPendingChar() == 'x'; }));
    ungetc('y', stdin);
    EXPECT_EQ(CLI_ReadPendingChar(), 'y');
}

// The shell that reads the terminal next must not find it non-blocking, whichever thread the signal came to.
TEST_F(Editor, EndedByASignalToAnotherThread_LeavesTheTerminalBlocking) {
    stKeys_.Attach();
    const int lFlags = fcntl(STDIN_FILENO, F_GETFL);
    for (int i = 0; i < 30; i++) {
        pid_t lPid = fork();
        if (lPid == 0) {
            CLI_Terminal stTerminal;
            CLI_SetRawMode(&stTerminal);
            std::thread([] {
                usleep(5000);
                pthread_kill(pthread_self(), SIGTERM);
                pause();
            }).detach();
            for (;;) {
                CLI_ReadPendingChar();
            }
        }
        EXPECT_EQ(WaitForEnd(&lPid, 30), 256 + SIGTERM);
        ASSERT_EQ(fcntl(STDIN_FILENO, F_GETFL), lFlags) << i;
    }
}

// A SIGCONT that arrives while the console quits must not make the terminal raw again.
TEST_F(Editor, ContinuedWhileItQuits_LeavesTheTerminalRestored) {
    stKeys_.Attach();
    struct termios stBefore;
    struct termios stAfter;
    tcgetattr(STDIN_FILENO, &stBefore);
    for (int i = 0; i < 50; i++) {
        pid_t lPid = fork();
        if (lPid == 0) {
            CLI_Terminal stTerminal;
            CLI_SetRawMode(&stTerminal);
            std::atomic<uint32_t> ulSent{0};
            for (int j = 0; j < 3; j++) {
                std::thread([&] {
                    for (;;) {
                        pthread_kill(pthread_self(), SIGCONT);
                        ulSent++;
                    }
                }).detach();
            }
            while (ulSent < 20) {
                usleep(100);
            }
            CLI_RestoreMode(&stTerminal);
            usleep(1000);
            _exit(0);
        }
        EXPECT_EQ(WaitForEnd(&lPid, 30), 0);
        tcgetattr(STDIN_FILENO, &stAfter);
        ASSERT_EQ(stAfter.c_oflag, stBefore.c_oflag) << i; // the one that raw mode here changes
    }
}
