// The console as the engineer has it: the real program on a real terminal, against the example process or
// against a target that misbehaves.
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <set>
#include <sys/mount.h>
#include <unistd.h>

#include "tests/support/on_bus.h"
#include "tests/support/program.h"
#include "tests/support/threads.h"

static bool Answers(Program *pstKs) {
    return CountOf(pstKs->Command("display ptz"), "degrees") == 1;
}

static size_t LogOf(const std::string &szProcess, const std::string &szText) {
    return CountOf(ReadFile("/var/log/" + szProcess + "00.log"), szText);
}

static std::string ThreadsOf(pid_t lPid) {
    return ReadFile("/tmp/ThreadInfo[" + std::to_string(lPid) + "].log");
}

// Keys, what is awaited then, and what is shown: all of it after a ^, else a part.
static void PlaySession(Program *pstKs, const std::string &szFile) {
    for (const auto &aszRow : Rows("sessions/" + szFile)) {
        pstKs->Type(aszRow[0]);
        const std::string szShown = pstKs->ReadUntil(aszRow[1]);
        if (aszRow[2][0] == '^') {
            EXPECT_EQ(szShown, aszRow[2].substr(1)) << aszRow[0];
        } else {
            EXPECT_NE(szShown.find(aszRow[2]), std::string::npos) << aszRow[0] << " shows " << szShown;
        }
    }
}

class Console : public testing::Test {
protected:
    std::unique_ptr<Program> pstMware_ = StartExample(KS_MWARE_PATH);
    Program stKs_{{KS_PATH}};
    struct termios stBefore_ = stKs_.Settings();
};

TEST_F(Console, MainJob) {
    stKs_.ReadUntil("\r\n<dbg>");
    EXPECT_EQ(stKs_.Settings().c_lflag & (ICANON | ECHO | ISIG), 0U);
    EXPECT_NE(stKs_.Settings().c_oflag & OPOST, 0U);
    EXPECT_NE(stKs_.Settings().c_iflag & INLCR, 0U);
    PlaySession(&stKs_, "main-job.txt");
    static const char szDebug[] = "/var/log/MW_MWARE00.debug";
    EXPECT_FALSE(FileExists(szDebug));
    EXPECT_EQ(stKs_.Command("debug MW_CTRL"), "\r");
    EXPECT_TRUE(WaitFor([] { return CountOf(ReadFile(szDebug), "[MW_TurnHead]turn the head by ") > 1; }));
    EXPECT_EQ(stKs_.Command("debug MW_PTZ move"), "\r");
    EXPECT_TRUE(WaitFor([] { return CountOf(ReadFile(szDebug), "[MW_PtzMove]position is ") > 1; }));
    EXPECT_EQ(stKs_.Command("nodebug all"), "\r");
    const std::string szOne = stKs_.Command("display module MW_CTRL");
    EXPECT_TRUE(WaitFor([&] { return stKs_.Command("display module MW_CTRL") != szOne; })); // the figures move
    stKs_.Type("q\r");
    stKs_.ReadUntil("\r\n<dbg>");
    const std::string szThreads = ThreadsOf(stKs_.Pid()); // ks_cmd, whose second thread has its place, and ks
    stKs_.Type("quit\r");
    EXPECT_EQ(stKs_.WaitExit(), 0);
    EXPECT_EQ(CountOf(szThreads, "\n"), 2U);
    EXPECT_TRUE(SameSettings(stKs_.Settings(), stBefore_));
    EXPECT_EQ(LogOf("ks", "[E("), 0U) << ReadFile("/var/log/ks00.log");
    EXPECT_FALSE(FileExists("/var/log/Timer_info.log")); // nothing has an effect without its parameter
    if (getenv("KS_SANDBOX") != nullptr) {          // the machine's own directories hold other files
        std::set<std::string> aszFile;
        for (const auto &stEntry : std::filesystem::directory_iterator("/var/log")) {
            aszFile.insert(stEntry.path().filename());
        }
        EXPECT_EQ(aszFile, (std::set<std::string>{"MW_MWARE00.debug", "MW_MWARE00.log", "ks00.log"}));
    }
}

// The process runs short; the engineer still gets through, finds the evidence, and sees it recover.
TEST_F(Console, FloodLeavesItsEvidenceAndPasses) {
    stKs_.EnterDebugMode();
    EXPECT_EQ(CountOf(stKs_.Command("display flood 1000"), "flood started"), 1U);
    ASSERT_TRUE(WaitFor([] { return FileExists("/var/log/Slab_Keyinfo.log"); }));
    EXPECT_GT(CountOf(ReadFile("/var/log/Slab_all.log"), "\nmsg["), 200U);
    EXPECT_EQ(CountOf(ReadFile("/var/log/Timer_info.log"), "total: 2 \n"), 1U);
    EXPECT_EQ(CountOf(stKs_.Command("display slab 0"), "0     128     256"), 1U);
    EXPECT_TRUE(WaitFor([&] { return CountOf(stKs_.Command("display slab 0"), "256    255    1") == 1; }));
    EXPECT_EQ(LogOf("MW_MWARE", "Slab full"), 1U);
    EXPECT_EQ(CountOf(stKs_.Command("display timer"), "MW_ALM         day   03:00:00        "), 1U);
    EXPECT_EQ(CountOf(stKs_.Command("display dump yes"), "/var/log/"), 3U);
}

// Of itself, where the terminal's hang-up signal ends nothing: from either prompt, in the middle of a line.
TEST_F(Console, EndOfInput_EndsTheProgram) {
    for (const bool bDebugMode : {false, true}) {
        Program stKs({"/bin/sh", "-c", "trap '' HUP; exec \"$0\"", KS_PATH});
        stKs.ReadUntil("<dbg>");
        if (bDebugMode) {
            stKs.Type("e\tdisplay sl");
            stKs.ReadUntil("display sl");
        }
        stKs.HangUp();
        EXPECT_EQ(stKs.WaitExit(), 0);
    }
}

TEST_F(Console, SignalThatEndsIt_RestoresTheTerminal) {
    for (const int lSignal : {SIGHUP, SIGTERM}) {
        Program stKs({KS_PATH}, O_NONBLOCK);
        const struct termios stBefore = stKs.Settings();
        stKs.EnterDebugMode();
        EXPECT_FALSE(SameSettings(stKs.Settings(), stBefore));
        EXPECT_TRUE(WaitFor([&] { return !stKs.IsNonBlocking(); })); // it is while a key is asked for
        stKs.Signal(lSignal);
        EXPECT_EQ(stKs.WaitExit(), 256 + lSignal);
        EXPECT_TRUE(SameSettings(stKs.Settings(), stBefore)) << lSignal;
        EXPECT_TRUE(stKs.IsNonBlocking()) << lSignal;
    }
}

static pid_t OnlyChildOf(const Program &stParent) {
    const std::string szPid = std::to_string(stParent.Pid());
    const pid_t lPid = atoi(ReadFile("/proc/" + szPid + "/task/" + szPid + "/children").c_str());
    EXPECT_GT(lPid, 0);
    return lPid;
}

// As on a device whose shell has no job control.
TEST_F(Console, TerminalThatControlsNoSession_IsRestoredToo) {
    Program stSetsid({"/usr/bin/setsid", "--wait", KS_PATH});
    stSetsid.EnterDebugMode();
    EXPECT_FALSE(SameSettings(stSetsid.Settings(), stBefore_));
    kill(OnlyChildOf(stSetsid), SIGTERM);
    stSetsid.WaitExit();
    EXPECT_TRUE(SameSettings(stSetsid.Settings(), stBefore_));
}

TEST_F(Console, EndedInTheBackground_LeavesTheTerminalToItsOwner) {
    Program stShell({"/bin/bash", "-c",
                     "set -m; \"$0\"; echo taken; read; kill %1; kill -CONT %1; wait %1; echo ended $?; read",
                     KS_PATH});
    stShell.EnterDebugMode();
    kill(OnlyChildOf(stShell), SIGSTOP);
    stShell.ReadUntil("taken");
    struct termios stShells = stBefore_;
    stShells.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    stShell.SetSettings(stShells);
    stShell.Type("\n");
    EXPECT_EQ(CountOf(stShell.ReadUntil("ended 143"), "ended 143"), 1U); // 128 and SIGTERM
    EXPECT_TRUE(SameSettings(stShell.Settings(), stShells));
}

TEST_F(Console, StoppedAndContinued_TakesTheTerminalBack) {
    stKs_.EnterDebugMode();
    const struct termios stRaw = stKs_.Settings();
    stKs_.Signal(SIGSTOP);
    stKs_.SetSettings(stBefore_); // as a shell does that takes over
    stKs_.Signal(SIGCONT);
    EXPECT_TRUE(WaitFor([&] { return SameSettings(stKs_.Settings(), stRaw); }));
    EXPECT_TRUE(Answers(&stKs_));
}

// The terminal is the shell's in between, and the line is shown again.
TEST_F(Console, StoppedByASignalItCanHandle_GivesTheTerminalBack) {
    Program stShell({"/bin/sh", "-c", "set -m; \"$0\"; kill -STOP $$; fg; echo ended $?", KS_PATH}, O_NONBLOCK);
    stShell.EnterDebugMode();
    const struct termios stRaw = stShell.Settings();
    stShell.Type("display pt");
    stShell.ReadUntil("display pt");
    kill(OnlyChildOf(stShell), SIGTSTP);
    const std::string szStat = "/proc/" + std::to_string(stShell.Pid()) + "/stat";
    ASSERT_TRUE(WaitFor([&] { return CountOf(ReadFile(szStat), ") T ") == 1; })); // it stopped itself
    EXPECT_TRUE(SameSettings(stShell.Settings(), stBefore_));
    EXPECT_TRUE(stShell.IsNonBlocking());
    stShell.Signal(SIGCONT);
    stShell.ReadUntil("\r\n[dbg]display pt");
    EXPECT_TRUE(SameSettings(stShell.Settings(), stRaw));
    EXPECT_FALSE(stShell.IsNonBlocking());
    EXPECT_EQ(CountOf(stShell.Command("z"), "degrees"), 1U);
    stShell.Type("q\rq\r");
    EXPECT_EQ(CountOf(stShell.ReadUntil("ended 0"), "ended 0"), 1U);
}

// From the start on, while threads start and shells are run for them.
TEST_F(Console, SignalStorms_ChangeNothing) {
    {
        const Repeater stStorm([this] {
            for (const int lSignal : {SIGCHLD, SIGWINCH, SIGCONT, SIGURG}) {
                stKs_.Signal(lSignal);
                pstMware_->Signal(lSignal);
            }
            usleep(100);
        });
        stKs_.EnterDebugMode();
        for (int i = 0; i < 20; i++) {
            EXPECT_TRUE(Answers(&stKs_));
        }
    }
    EXPECT_TRUE(WaitFor([this] { return CountOf(ThreadsOf(stKs_.Pid()), "\n") == 2; }));
    EXPECT_EQ(LogOf("ks", "[E("), 0U);
}

// Nine times as slowly as 9600 baud. False if the machine was too busy for that.
static bool TypeSlowly(const Program &stKs, const std::vector<std::string> &aszPiece) {
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

TEST_F(Console, KeysFromASlowLine) {
    stKs_.EnterDebugMode();
    EXPECT_TRUE(Answers(&stKs_));
    const auto EraseLine = [this] {
        stKs_.Type(std::string(20, '\b') + "\r");
        stKs_.ReadUntil("\r\n[dbg]");
    };
    for (const auto &aszRow : Rows("slow-keys.txt")) {
        std::vector<std::string> aszPiece(aszRow.begin() + 1, aszRow.end());
        for (int i = 0; i < 100 && !TypeSlowly(stKs_, aszPiece); i++) {
            EraseLine();
        }
        EXPECT_EQ(CountOf(stKs_.ReadUntil(aszRow[0]), "[A"), 0U) << aszRow[0];
        EraseLine();
    }
    stKs_.Type("\x1B"); // alone: nothing, and what is typed later is text
    usleep(1500000);
    stKs_.Type("[A\r");
    EXPECT_EQ(stKs_.ReadUntil("[A"), "[A");
    stKs_.ReadUntil("\r\n[dbg]");
    for (const char *pcCut : {"\x1B[", "\x1BO", "\x1B[1", "\x1B[15", "\x1B[Z", "\x1B\x1B\x1B"}) {
        stKs_.Type(std::string("\xC3\xA4\xFF\x80\x01\x03\x1A") + pcCut);
        usleep(150000);
    }
    usleep(1500000); // what comes now is no part of the sequence any more
    EXPECT_TRUE(Answers(&stKs_));
}

TEST_F(Console, PastedMegabyte_IsOneLineAfterAnother) {
    stKs_.EnterDebugMode();
    const Threads stPaste(1, [&](uint32_t) { stKs_.Type(std::string(1 << 20, 'x') + "\rdisplay ptz\r"); });
    EXPECT_EQ(CountOf(stKs_.ReadUntil("degrees"), "Wrong command input!"), 1U);
}

// What the log says of itself goes to the terminal too, each as a line, and nothing else of the screen is lost.
TEST_F(Console, LogThatCannotBeWritten_LeavesTheConsoleUsable) {
    stKs_.EnterDebugMode();
    if (!MountSmall("/var/log", 4096)) {
        GTEST_SKIP() << "needs a mount namespace of its own";
    }
    mount("tmpfs", "/var/log", "tmpfs", MS_REMOUNT | MS_RDONLY, "");
    pstMware_->Stop();
    const std::string szFailed = stKs_.Command("display ptz"); // its time-out has something to log
    pstMware_->Signal(SIGCONT);
    EXPECT_GE(CountOf(szFailed, "[bp_log-878]Open file /var/log/ks00.log failed:Read-only file system\r\n"),
              1U);
    EXPECT_EQ(CountOf(szFailed, "\n"), CountOf(szFailed, "\r\n")) << szFailed;
    EXPECT_TRUE(Answers(&stKs_));
}

// A terminal that is not read stops this console, and no other; nothing is lost once it is read again, even if
// another program left it non-blocking, opened once for all descriptors or once more for the output.
TEST_F(Console, ReaderThatDoesNotRead) {
    static constexpr int lCommands = 100;
    static const char szOpenAgain[] = "exec >\"$(tty)\"; dd oflag=nonblock count=0 status=none; exec \"$0\"";
    stKs_.EnterDebugMode();
    for (const auto &aszArg : {std::vector<std::string>{KS_PATH}, {"/bin/sh", "-c", szOpenAgain, KS_PATH}}) {
        Program stKs(aszArg, O_NONBLOCK);
        stKs.EnterDebugMode();
        for (int i = 0; i < lCommands; i++) {
            stKs.Type("display module\r");
        }
        ASSERT_TRUE(WaitFor([&] { return stKs.IsFull(); }));
        EXPECT_TRUE(Answers(&stKs_));
        for (int i = 0; i < lCommands; i++) {
            ASSERT_EQ(CountOf(stKs.ReadUntil("\r\n[dbg]"), "MW_CTRL"), 1U) << i;
        }
    }
}

// The target is stopped, killed, comes back as itself, and then as another.
TEST_F(Console, TargetThatDoesNotAnswer_CostsOneCommandAndMayBeReplaced) {
    stKs_.EnterDebugMode();
    pstMware_->Stop();
    EXPECT_EQ(stKs_.Command("display ptz"), "\r"); // nothing came
    pstMware_->Signal(SIGCONT);
    EXPECT_TRUE(Answers(&stKs_));
    EXPECT_EQ(LogOf("ks", "wait response msg timeout(10000 10000)"), 1U);
    EXPECT_EQ(LogOf("ks", "[CLI_ExecuteCmd]fail to send cmd msg"), 1U);
    pstMware_->Signal(SIGKILL);
    EXPECT_EQ(stKs_.Command("display ptz"), "\r");
    pstMware_ = StartExample(KS_MWARE_PATH);
    EXPECT_TRUE(Answers(&stKs_));
    pstMware_.reset();
    ScriptedTarget stOther(PORT_MWARE, [](const WireMsg &stReq) {
        const bool bTree = stReq.stHdr.ulMsgCode == 31051;
        const char *pcTree = "\nh\ndisplay\ntitle show\n1\nlens\ntitle the lens\n1\ncr\nend\n0\n";
        const bool bLens = stReq.szPayload == "<display lens >";
        return AnswerAll(bTree ? pcTree : bLens ? "wide" : "unknown here")(stReq);
    });
    EXPECT_EQ(CountOf(stKs_.Command("display ptz"), "unknown here"), 1U); // as it knows the target
    Program stNew({KS_PATH});
    stNew.EnterDebugMode();
    EXPECT_EQ(CountOf(stNew.Command("display ptz"), "Wrong command input!"), 1U);
    EXPECT_EQ(CountOf(stNew.Command("display lens"), "wide"), 1U);
    stKs_.Type("display ptz\r");
    stKs_.HangUp(); // in the middle of a request
    const int lStatus = stKs_.WaitExit();
    EXPECT_TRUE(lStatus == 256 + SIGHUP || lStatus == 0) << lStatus; // the end of input may come first
}

TEST(ConsoleStart, AttachesToIware) {
    const auto pstIware = StartExample(KS_MWARE_PATH, "MW_IWARE");
    Program stKs({KS_PATH, "MW_IWARE", "ignored"});
    stKs.EnterDebugMode();
    EXPECT_NE(stKs.Command("display ticks").find(" ticks"), std::string::npos);
    EXPECT_NE(stKs.Command("display module MW_IWARE").find("0xffffffff"), std::string::npos);
}

TEST(ConsoleStart, WrongArgument) {
    Program stKs({KS_PATH, "mw_iware"});
    EXPECT_TRUE(
        Matches(stKs.ReadUntil("MW_IWARE\r\n"), "^ks_main@.* need proc name:MW_MWARE or MW_IWARE\r\n$"));
    EXPECT_EQ(stKs.WaitExit(), 255);
    EXPECT_EQ(LogOf("ks", "BP_MwareInit succeed."), 1U);
}

TEST(ConsoleStart, WithoutTerminal) {
    ScriptedTarget stTarget(PORT_MWARE, AnswerAll("\nh\nd\ntitle\n0\n"));
    Program stKs({"/bin/sh", "-c", "\"$0\" </dev/null; echo status $?", KS_PATH});
    EXPECT_TRUE(Matches(stKs.ReadUntil("status 1"), "Failed to set attributes\r\nstatus 1"));
    EXPECT_EQ(
        LogOf("ks", "[CLI_run]tcsetattr fail errcode:25(Inappropriate ioctl for device). retval:4294967295"),
        1U);
}

// Both start-up requests run out, and the console says what that means.
TEST(ConsoleStart, SilentTarget_IsNamedAndBuiltInsRemain) {
    Program stKs({KS_PATH});
    PlaySession(&stKs, "silent-target.txt");
    ScriptedTarget stLateComer(PORT_MWARE, AnswerAll("level from a late comer"));
    EXPECT_EQ(stKs.Command("display loglevel"), "\r\r\nlevel from a late comer\r\n\r");
    stKs.Type("qq\rqq\r");
    EXPECT_EQ(stKs.WaitExit(), 0);
}

// What is missing is said before the next request is answered.
TEST(ConsoleStart, CommandsThatDoNotCome_AreNamedAtOnce) {
    std::atomic<bool> bNamed{false};
    ScriptedTarget stTarget(PORT_MWARE, [&](const WireMsg &stReq) {
        const bool bModules = stReq.stHdr.ulMsgCode == 31052 && WaitFor([&] { return bNamed.load(); }, 9);
        return bModules ? AnswerAll("\nMW_ONE\n")(stReq) : std::vector<std::string>{};
    });
    Program stKs({KS_PATH});
    stKs.ReadUntil("no commands from MW_MWARE: start ks again once it answers\r\n");
    bNamed = true;
    stKs.EnterDebugMode();
    EXPECT_EQ(CountOf(stKs.Command("debug"), "MW_ONE\r\n"), 1U);
}

TEST(ConsoleStart, DefinitionsRefused) {
    ScriptedTarget stTarget(PORT_MWARE, AnswerAll("operate fail"));
    Program stKs({KS_PATH});
    EXPECT_EQ(CountOf(stKs.ReadUntil("\r\n<dbg>"), "[kestrel error] receive failed result."), 2U);
    EXPECT_EQ(stTarget.Requests()[0].szPayload, "dbgcmd");
}

// What stands in an answer is shown, never run or taken as a format; what is typed is sent as it is.
TEST(ConsoleStart, TextIsOnlyText) {
    static const std::string szTrick = "%s%n$(touch${IFS}pwned)`id`;'\"\\";
    ScriptedTarget stTarget(PORT_MWARE, AnswerAll("\nh\nd\ntitle\n1 0 0\nshow\n%s%n\n\n"));
    Program stKs({KS_PATH});
    stKs.EnterDebugMode();
    stTarget.SetScript(AnswerAll("answer " + szTrick));
    EXPECT_EQ(CountOf(stKs.Command("debug " + szTrick), "answer " + szTrick), 0U);
    EXPECT_EQ(CountOf(stKs.Command("display loglevel"), "answer " + szTrick), 1U);
    EXPECT_FALSE(FileExists("pwned"));
    stKs.Command("display " + szTrick); // no word of the tree, so it goes no further
    std::string szSent;
    for (const WireMsg &stReq : stTarget.Requests()) {
        szSent += stReq.szPayload + "|";
    }
    EXPECT_EQ(szSent, "dbgcmd|dbgcmd|\n" + szTrick + "|dbgcmd|");
}

class LiveTarget : public AsConsole {
protected:
    // A limit of 0 is 10 ms.
    static std::string AskMware(uint32_t ulSeconds, const char *pcRequest = "<display ptz >") {
        return Ask(BP_MODULE_ID_MWARE_CMD, pcRequest, ulSeconds);
    }
};

// A live process that is asked, and killed, stopped and restarted meanwhile. KS_FAULT_ROUNDS asks for more
// rounds than an ordinary run has.
TEST_F(LiveTarget, EveryRoundEndsWithAnAnswerAndFullPools) {
    const char *pcRounds = getenv("KS_FAULT_ROUNDS");
    const int lRounds = pcRounds != nullptr ? atoi(pcRounds) : 40;
    std::unique_ptr<Program> pstMware = StartExample(KS_MWARE_PATH);
    for (int i = 0; i < lRounds; i++) {
        SCOPED_TRACE(i);
        const int lUnanswered = std::vector<int>{1, 2, 4, 0}[static_cast<size_t>(i % 4)];
        if (i % 4 == 0) { // gone without a word, its port with it
            pstMware.reset();
        } else if (i % 4 != 3) { // what it does not answer in time it answers late, or is killed with
            pstMware->Stop();
        }
        for (int j = 0; j < lUnanswered; j++) {
            EXPECT_EQ(AskMware(0), "error 1057");
        }
        if (i % 4 == 1) {
            pstMware->Signal(SIGCONT);
        } else {
            pstMware.reset();
            pstMware = StartExample(KS_MWARE_PATH);
        }
        ASSERT_EQ(AskMware(10).find("position "), 0U);
        ASSERT_TRUE(WaitFor([] { // of all its buffers only the one with the question is in use
            return Matches(AskMware(10, "<display slab >"), "^[^\n]*\n[^\n]* 1(\n[^\n]* 0){7}$");
        })) << AskMware(10, "<display slab >");
    }
}
