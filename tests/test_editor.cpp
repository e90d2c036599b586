// Keys in, lines and echo out.
#include <csignal>
#include <deque>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sstream>
#include <sys/ioctl.h>
#include <thread>
#include <unistd.h>

#include "console/cli_cmd.h"
#include "tests/support/files.h"
#include "tests/support/rows.h"

static int g_lMaster = -1;
static std::deque<std::string> g_aszLateKeys;

static size_t Pending() {
    int lNum = 0;
    return ioctl(STDIN_FILENO, FIONREAD, &lNum) == 0 ? static_cast<size_t>(lNum) : 0;
}

static void Write(const std::string &szKeys) {
    ASSERT_EQ(write(g_lMaster, szKeys.data(), szKeys.size()), static_cast<ssize_t>(szKeys.size()));
    EXPECT_TRUE(WaitFor([&] { return Pending() == szKeys.size(); }));
}

// In the place of the system's: the next of the keys from a slow line comes within 9 ms.
extern "C" int poll(struct pollfd *pstPoll, nfds_t ulNum, int lTimeoutMs) {
    if (Pending() == 0 && !g_aszLateKeys.empty() && (lTimeoutMs < 0 || lTimeoutMs > 9)) {
        Write(g_aszLateKeys.front());
        g_aszLateKeys.pop_front();
    }
    const struct timespec stTimeout = {lTimeoutMs / 1000, lTimeoutMs % 1000 * 1000000L};
    return ppoll(pstPoll, ulNum, lTimeoutMs < 0 ? nullptr : &stTimeout, nullptr);
}

// A raw terminal in the place of standard input.
class Editor : public testing::Test {
protected:
    Editor() {
        struct termios stRaw = {};
        cfmakeraw(&stRaw);
        int lSlave = -1;
        openpty(&g_lMaster, &lSlave, nullptr, &stRaw, nullptr);
        dup2(lSlave, STDIN_FILENO);
        setvbuf(stdin, nullptr, _IONBF, 0); // as the console has it
        snprintf(g_szSysPrompt, sizeof(g_szSysPrompt), "P>");
    }
    // Returns once the keys can be read; those after a \x1F come late.
    static void Type(const std::string &szKeys) {
        std::istringstream stKeys(szKeys);
        std::string szPiece;
        std::getline(stKeys, szPiece, '\x1F');
        Write(szPiece);
        while (std::getline(stKeys, szPiece, '\x1F')) {
            g_aszLateKeys.push_back(szPiece);
        }
    }
    // The next line, which goes on with what there is, and its echo.
    static std::string Read(const std::string &szStart, std::string *pszEcho) {
        snprintf(g_szLineBuf, sizeof(g_szLineBuf), "%s", szStart.c_str());
        testing::internal::CaptureStdout();
        CLI_ReadLine();
        *pszEcho = testing::internal::GetCapturedStdout();
        return g_szLineBuf;
    }
};

// What was typed before, the line that there is, the keys, and what line and echo they make.
TEST_F(Editor, KeysMakeLines) {
    for (const auto &aszRow : Rows("keys.txt")) {
        SCOPED_TRACE(aszRow[0] + " then " + aszRow[2]);
        for (char *&pcSlot : g_szHistoryCmd) {
            free(pcSlot);
            pcSlot = nullptr;
        }
        g_ulHistorySavePosition = g_ulHistoryShowPosition = 0;
        std::string szEcho;
        Type(aszRow[0]);
        while (Pending() != 0) {
            Read("", &szEcho);
        }
        Type(aszRow[2]);
        EXPECT_EQ(Read(aszRow[1], &szEcho), aszRow[3]);
        EXPECT_EQ(szEcho, aszRow.size() > 4 ? aszRow[4] : szEcho);
    }
}

TEST_F(Editor, InputThatIsThereOrEnds) {
    std::string szEcho;
    ungetc('\r', stdin); // what was put back is read first
    EXPECT_EQ(Read("", &szEcho), "");
    ungetc('x', stdin);
    Type("y\r");
    EXPECT_EQ(Read("", &szEcho), "xy");
    EXPECT_EQ(CLI_ReadPendingChar(), 255); // none, and no wait
    Type("x");
    EXPECT_EQ(CLI_ReadPendingChar(), 'x');
    ungetc('y', stdin);
    EXPECT_EQ(CLI_ReadPendingChar(), 'y');
    Type("unfinished");
    close(g_lMaster);
    EXPECT_FALSE(CLI_IsInputEnded());
    EXPECT_EQ(Read("", &szEcho), "");
    EXPECT_TRUE(CLI_IsInputEnded());
}

// The shell that reads the terminal next must not find it non-blocking, whichever thread the signal came to.
TEST_F(Editor, EndedByASignalToAnotherThread_LeavesTheTerminalBlocking) {
    const int lFlags = fcntl(STDIN_FILENO, F_GETFL);
    for (int i = 0; i < 30; i++) {
        const auto pfnDie = [] {
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
        };
        EXPECT_EXIT(pfnDie(), testing::KilledBySignal(SIGTERM), "");
        ASSERT_EQ(fcntl(STDIN_FILENO, F_GETFL), lFlags) << i;
    }
}

// A SIGCONT that arrives while the console quits must not make the terminal raw again.
TEST_F(Editor, ContinuedWhileItQuits_LeavesTheTerminalRestored) {
    struct termios stBefore;
    struct termios stAfter;
    tcgetattr(STDIN_FILENO, &stBefore);
    for (int i = 0; i < 50; i++) {
        const auto pfnQuit = [] {
            CLI_Terminal stTerminal;
            CLI_SetRawMode(&stTerminal);
            std::atomic<uint32_t> ulSent{0};
            for (int j = 0; j < 3; j++) {
                std::thread([&] {
                    for (;; ulSent++) {
                        pthread_kill(pthread_self(), SIGCONT);
                    }
                }).detach();
            }
            while (ulSent < 20) {
                usleep(100);
            }
            CLI_RestoreMode(&stTerminal);
            usleep(1000);
            _exit(0);
        };
        EXPECT_EXIT(pfnQuit(), testing::ExitedWithCode(0), "");
        tcgetattr(STDIN_FILENO, &stAfter);
        ASSERT_EQ(stAfter.c_oflag, stBefore.c_oflag) << i; // the one that raw mode here changes
    }
}
