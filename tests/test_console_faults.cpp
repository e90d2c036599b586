// The console when signals, the terminal or the target go wrong.
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <thread>

#include "tests/support/bus_peer.h"
#include "tests/support/console.h"
#include "tests/support/files.h"
#include "tests/support/threads.h"

TEST_F(ConsoleOnMware, SignalThatEndsIt_RestoresTheTerminal) {
    for (const int lSignal : {SIGHUP, SIGTERM}) {
        PtySession stKs({KS_PATH}, O_NONBLOCK);
        const struct termios stBefore = stKs.Settings();
        EnterDebugMode(&stKs);
        stKs.Type("display sl");
        stKs.ReadUntil("display sl");
        EXPECT_FALSE(SameSettings(stKs.Settings(), stBefore));
        EXPECT_TRUE(WaitFor([&] { return !stKs.IsNonBlocking(); })); // it is while a key is asked for
        stKs.Signal(lSignal);
        EXPECT_EQ(stKs.WaitExit(), 256 + lSignal);
        EXPECT_TRUE(SameSettings(stKs.Settings(), stBefore)) << lSignal;
        EXPECT_TRUE(stKs.IsNonBlocking()) << lSignal;
    }
}

static pid_t OnlyChildOf(pid_t lPid) {
    const std::string szPid = std::to_string(lPid);
    return atoi(ReadFile("/proc/" + szPid + "/task/" + szPid + "/children").c_str());
}

// As on a device whose shell has no job control.
TEST_F(ConsoleOnMware, TerminalThatControlsNoSession_IsRestoredToo) {
    PtySession stSetsid({"/usr/bin/setsid", "--wait", KS_PATH});
    EnterDebugMode(&stSetsid);
    const pid_t lKs = OnlyChildOf(stSetsid.Pid());
    ASSERT_GT(lKs, 0);
    EXPECT_FALSE(SameSettings(stSetsid.Settings(), stBefore_));
    kill(lKs, SIGTERM);
    stSetsid.WaitExit();
    EXPECT_TRUE(SameSettings(stSetsid.Settings(), stBefore_));
}

TEST_F(ConsoleOnMware, EndedInTheBackground_LeavesTheTerminalToItsOwner) {
    PtySession stShell(
        {"/bin/bash", "-c",
         "set -m; \"$0\"; echo taken; read; kill %1; kill -CONT %1; wait %1; echo ended $?; read", KS_PATH});
    EnterDebugMode(&stShell);
    const pid_t lKs = OnlyChildOf(stShell.Pid());
    ASSERT_GT(lKs, 0);
    kill(lKs, SIGSTOP);
    stShell.ReadUntil("taken");
    struct termios stShells = stBefore_;
    stShells.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    stShell.SetSettings(stShells);
    stShell.Type("\n");
    EXPECT_EQ(CountOf(stShell.ReadUntil("ended 143"), "ended 143"), 1U); // 128 and SIGTERM
    EXPECT_TRUE(SameSettings(stShell.Settings(), stShells));
}

TEST_F(ConsoleOnMware, StoppedAndContinued_TakesTheTerminalBack) {
    EnterDebugMode(pstKs_);
    const struct termios stRaw = pstKs_->Settings();
    pstKs_->Signal(SIGSTOP);
    pstKs_->SetSettings(stBefore_); // as a shell does that takes over
    pstKs_->Signal(SIGCONT);
    EXPECT_TRUE(WaitFor([&] { return SameSettings(pstKs_->Settings(), stRaw); }));
    EXPECT_EQ(CountOf(Command(pstKs_, "display ptz"), "degrees"), 1U);
}

// The terminal is the shell's in between, and the line is shown again.
TEST_F(ConsoleOnMware, StoppedByASignalItCanHandle_GivesTheTerminalBack) {
    PtySession stShell({"/bin/sh", "-c", "set -m; \"$0\"; kill -STOP $$; fg; echo ended $?", KS_PATH},
                       O_NONBLOCK);
    EnterDebugMode(&stShell);
    const struct termios stRaw = stShell.Settings();
    stShell.Type("display pt");
    stShell.ReadUntil("display pt");
    kill(OnlyChildOf(stShell.Pid()), SIGTSTP);
    const std::string szStat = "/proc/" + std::to_string(stShell.Pid()) + "/stat";
    ASSERT_TRUE(WaitFor([&] { return CountOf(ReadFile(szStat), ") T ") == 1; })); // it stopped itself
    EXPECT_TRUE(SameSettings(stShell.Settings(), stBefore_));
    EXPECT_TRUE(stShell.IsNonBlocking());
    stShell.Signal(SIGCONT);
    stShell.ReadUntil("\r\n[dbg]display pt");
    EXPECT_TRUE(SameSettings(stShell.Settings(), stRaw));
    EXPECT_FALSE(stShell.IsNonBlocking());
    EXPECT_EQ(CountOf(Command(&stShell, "z"), "degrees"), 1U);
    stShell.Type("q\rq\r");
    EXPECT_EQ(CountOf(stShell.ReadUntil("ended 0"), "ended 0"), 1U);
}

// From the start on, while threads start and shells are run for them.
TEST_F(ConsoleOnMware, SignalStorms_ChangeNothing) {
    {
        const Repeater stStorm([this] {
            for (const int lSignal : {SIGCHLD, SIGWINCH, SIGCONT, SIGURG}) {
                pstKs_->Signal(lSignal);
                stMware_.Signal(lSignal);
            }
            usleep(100);
        });
        EnterDebugMode(pstKs_);
        for (int i = 0; i < 20; i++) {
            EXPECT_EQ(CountOf(Command(pstKs_, "display ptz"), "degrees"), 1U);
        }
    }
    EXPECT_TRUE(WaitFor([this] {
        return CountOf(ReadFile("/tmp/ThreadInfo[" + std::to_string(pstKs_->Pid()) + "].log"), "\n") == 2;
    }));
    EXPECT_EQ(CountOf(ReadFile("/var/log/ks00.log"), "[E("), 0U);
}

// Nine times as slowly as 9600 baud. False when the machine was too busy for that.
static bool TypeSlowly(const PtySession &stKs, const std::vector<std::string> &aszPiece) {
    bool bInTime = true;
    int64_t lLast = BP_NowMs();
    for (const std::string &szPiece : aszPiece) {
        const int64_t lStart = BP_NowMs();
        stKs.Type(szPiece);
        bInTime = bInTime && BP_NowMs() - lLast < 23;
        lLast = lStart;
        usleep(9000);
    }
    return bInTime;
}

TEST_F(ConsoleOnMware, KeysFromASlowLine) {
    EnterDebugMode(pstKs_);
    Command(pstKs_, "display ptz");
    const auto EraseLine = [this] {
        pstKs_->Type(std::string(20, '\b') + "\r");
        pstKs_->ReadUntil("\r\n[dbg]");
    };
    const struct {
        std::vector<std::string> aszPiece;
        const char *pcShown;
    } astCase[] = {
        {{"\x1B", "[", "A"}, "\r[dbg]\r[dbg]display ptz"},
        {{"\x1B", "O", "A"}, "display ptz"},
        {{"\x1B", "[", "3", "~", "\x1B", "[", "A"}, "display ptz"},
        {{"\x1B", "[", "1", "5", "~", "x"}, "x"},
    };
    for (const auto &stCase : astCase) {
        SCOPED_TRACE(stCase.pcShown);
        for (int i = 0; i < 100 && !TypeSlowly(*pstKs_, stCase.aszPiece); i++) {
            EraseLine();
        }
        EXPECT_EQ(CountOf(pstKs_->ReadUntil(stCase.pcShown), "[A"), 0U);
        EraseLine();
    }
    pstKs_->Type("\x1B"); // alone: nothing, and what is typed later is text
    usleep(1500000);
    pstKs_->Type("[A\r");
    EXPECT_EQ(pstKs_->ReadUntil("[A"), "[A");
    pstKs_->ReadUntil("\r\n[dbg]");
}

TEST_F(ConsoleOnMware, WhatIsNoKey_IsIgnored) {
    EnterDebugMode(pstKs_);
    std::string szNoise = "\xC3\xA4\xFF\x80\x01\x03\x1A";
    for (const char *pcCut : {"\x1B[", "\x1BO", "\x1B[1", "\x1B[15", "\x1B[Z", "\x1B\x1B\x1B"}) {
        pstKs_->Type(szNoise + pcCut);
        usleep(150000); // what comes now is no part of the sequence any more
    }
    EXPECT_EQ(CountOf(Command(pstKs_, "display ptz"), "degrees"), 1U);
}

TEST_F(ConsoleOnMware, PastedMegabyte_IsOneLineAfterAnother) {
    EnterDebugMode(pstKs_);
    std::thread stPaste([&] {
        pstKs_->Type(std::string(1 << 20, 'x'));
        pstKs_->Type("\rdisplay ptz\r");
    });
    EXPECT_EQ(CountOf(pstKs_->ReadUntil("degrees", 100), "Wrong command input!"), 1U);
    stPaste.join();
    pstKs_->ReadUntil("\r\n[dbg]");
}

// What the log says of itself goes to the terminal too, each as a line, and nothing else of the screen is lost.
TEST_F(ConsoleOnMware, LogThatCannotBeWritten_LeavesTheConsoleUsable) {
    EnterDebugMode(pstKs_);
    if (!MountSmall("/var/log", 4096)) {
        GTEST_SKIP() << "needs a mount namespace of its own";
    }
    mount("tmpfs", "/var/log", "tmpfs", MS_REMOUNT | MS_RDONLY, "");
    stMware_.Stop();
    const std::string szFailed = Command(pstKs_, "display ptz"); // its time-out has something to log
    stMware_.Signal(SIGCONT);
    EXPECT_GE(CountOf(szFailed, "[bp_log-878]Open file /var/log/ks00.log failed:Read-only file system\r\n"),
              1U);
    EXPECT_EQ(CountOf(szFailed, "\n"), CountOf(szFailed, "\r\n")) << szFailed;
    EXPECT_EQ(CountOf(Command(pstKs_, "display ptz"), "degrees"), 1U);
}

// A terminal that is not read stops this console, and no other; nothing is lost when it is read again, even if
// another program left it non-blocking, opened once for all descriptors or once more for the output.
TEST_F(ConsoleOnMware, ReaderThatDoesNotRead) {
    static constexpr int lCommands = 100;
    static const char szOpenAgain[] = "exec >\"$(tty)\"; dd oflag=nonblock count=0 status=none; exec \"$0\"";
    EnterDebugMode(pstKs_);
    for (const auto &aszArg : {std::vector<std::string>{KS_PATH}, {"/bin/sh", "-c", szOpenAgain, KS_PATH}}) {
        PtySession stKs(aszArg, O_NONBLOCK);
        EnterDebugMode(&stKs);
        for (int i = 0; i < lCommands; i++) {
            stKs.Type("display module\r");
        }
        ASSERT_TRUE(WaitFor([&] { return stKs.IsFull(); }));
        EXPECT_EQ(CountOf(Command(pstKs_, "display ptz"), "degrees"), 1U);
        for (int i = 0; i < lCommands; i++) {
            ASSERT_EQ(CountOf(stKs.ReadUntil("\r\n[dbg]"), "MW_CTRL"), 1U) << i;
        }
    }
}

// What else a target may do with a command than answer it once, and properly.
TEST(ConsoleTarget, AnswersWrongly_TheNextCommandWorks) {
    BusSocket stElsewhere;
    ScriptedTarget stTarget(PORT_MWARE, AnswerAll("\nh\ndisplay\ntitle show\n1\nx\ntitle x\n1\ncr\nend\n0\n"));
    PtySession stKs({KS_PATH});
    EnterDebugMode(&stKs);
    const std::function<std::vector<std::string>(const WireMsg &)> apfnAnswer[] = {
        [](const WireMsg &stReq) {
            const std::string szAck = Bytes(MakeAck(stReq, "right"));
            return std::vector<std::string>{szAck, szAck};
        },
        [](const WireMsg &stReq) {
            WireMsg stWrong = MakeAck(stReq, "wrong");
            stWrong.stHdr.AssiMsgId += 1000;
            return std::vector<std::string>{Bytes(stWrong), Bytes(MakeAck(stReq, "right"))};
        },
        [&](const WireMsg &stReq) {
            stTarget.SendLate(Bytes(MakeAck(stReq, "right")), &stElsewhere);
            return std::vector<std::string>{};
        },
    };
    for (const auto &pfnAnswer : apfnAnswer) {
        stTarget.SetScript(pfnAnswer);
        for (int i = 0; i < 3; i++) {
            EXPECT_EQ(Command(&stKs, "display x"), "\r\r\nright\r\n\r");
        }
    }
}

// The target is killed, comes back as itself, and then as somebody else.
TEST_F(ConsoleOnMware, KilledTarget_CostsOneCommandAndMayBeReplaced) {
    EnterDebugMode(pstKs_);
    stMware_.Signal(SIGKILL);
    EXPECT_EQ(Command(pstKs_, "display ptz"), "\r"); // nothing came
    {
        Child stAgain({KS_MWARE_PATH});
        ASSERT_TRUE(stAgain.WaitForOutput("ready"));
        EXPECT_EQ(CountOf(Command(pstKs_, "display ptz"), "degrees"), 1U);
    }
    ScriptedTarget stOther(PORT_MWARE, [](const WireMsg &stReq) {
        const char *pcTree = "\nh\ndisplay\ntitle show\n1\nlens\ntitle the lens\n1\ncr\nend\n0\n";
        const bool bLens = stReq.szPayload == "<display lens >";
        return std::vector<std::string>{Bytes(MakeAck(stReq, stReq.stHdr.ulMsgCode == 31051 ? pcTree
                                                             : bLens                        ? "wide"
                                                                                            : "unknown here"))};
    });
    EXPECT_EQ(CountOf(Command(pstKs_, "display ptz"), "unknown here"), 1U); // as it knows the target
    PtySession stNew({KS_PATH});
    EnterDebugMode(&stNew);
    EXPECT_EQ(CountOf(Command(&stNew, "display ptz"), "Wrong command input!"), 1U);
    EXPECT_EQ(CountOf(Command(&stNew, "display lens"), "wide"), 1U);
    pstKs_->Type("display ptz\r");
    pstKs_->HangUp(); // in the middle of a request
    const int lStatus = pstKs_->WaitExit();
    EXPECT_TRUE(lStatus == 256 + SIGHUP || lStatus == 0) << lStatus; // the end of input may come first
}

// What stands in an answer is shown, never run or taken as a format; what is typed is sent as it is.
TEST(ConsoleText, IsOnlyText) {
    static const std::string szTrick = "%s%n$(touch${IFS}pwned)`id`;'\"\\";
    ScriptedTarget stTarget(PORT_MWARE, AnswerAll("\nh\nd\ntitle\n1 0 0\nshow\n%s%n\n\n"));
    PtySession stKs({KS_PATH});
    EnterDebugMode(&stKs);
    stTarget.SetScript(AnswerAll("answer " + szTrick));
    EXPECT_EQ(CountOf(Command(&stKs, "debug " + szTrick), "answer " + szTrick), 0U);
    EXPECT_EQ(CountOf(Command(&stKs, "display loglevel"), "answer " + szTrick), 1U);
    EXPECT_FALSE(FileExists("pwned"));
    Command(&stKs, "display " + szTrick); // no word of the tree, so it goes no further
    std::string szSent;
    for (const WireMsg &stReq : stTarget.Requests()) {
        szSent += stReq.szPayload + "|";
    }
    EXPECT_EQ(szSent, "dbgcmd|dbgcmd|\n" + szTrick + "|dbgcmd|");
}
