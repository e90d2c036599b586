// The console as the engineer has it: the real program on a real terminal, against the example process or
// against a target that misbehaves.
#include <csignal>
#include <dirent.h>
#include <gtest/gtest.h>

#include "tests/support/bus_peer.h"
#include "tests/support/console.h"
#include "tests/support/files.h"

static std::vector<std::string> FilesIn(const std::string &szDir, const std::string &szStart = "") {
    std::vector<std::string> aszName;
    DIR *pstDir = opendir(szDir.c_str());
    while (const struct dirent *pstEntry = pstDir != nullptr ? readdir(pstDir) : nullptr) {
        if (pstEntry->d_name[0] != '.' &&
            szStart.compare(0, szStart.size(), pstEntry->d_name, szStart.size()) == 0) {
            aszName.emplace_back(pstEntry->d_name);
        }
    }
    closedir(pstDir);
    std::sort(aszName.begin(), aszName.end());
    return aszName;
}

TEST_F(ConsoleOnMware, MainJob) {
    pstKs_->ReadUntil("<dbg>");
    EXPECT_EQ(pstKs_->Settings().c_lflag & (ICANON | ECHO | ISIG), 0U);
    EXPECT_NE(pstKs_->Settings().c_oflag & OPOST, 0U);
    EXPECT_NE(pstKs_->Settings().c_iflag & INLCR, 0U);
    pstKs_->Type("en_equipment\r");
    EXPECT_EQ(pstKs_->ReadUntil("[dbg]"),
              "en_equipment\r\r\ncommand usage: "
              "\r\n\rdisplay loglevel                            display process' loglevel "
              "\r\n\rdisplay <cmds> ...                          display process' info "
              "\r\n\rdebug <module> [submodule] [servicetype]    debugging process' log"
              "\r\n\rnodebug <module> [submodule] [servicetype]  undo debugging process' log"
              "\r\n\rloglevel <level>                            set process' loglevel(2-5)"
              "\r\r\n[dbg]");
    EXPECT_TRUE(WaitFor([&] { // now and then one is on its way as a notice
        return Command(pstKs_, "display slab 7").find("7     8       256    256    0") != std::string::npos;
    }));
    pstKs_->Type("display sl\t");
    pstKs_->ReadUntil("\r\n[dbg]display slab ");
    EXPECT_EQ(CountOf(Command(pstKs_, "7"), "7     8       256    25"), 1U);

    static const char szDebug[] = "/var/log/MW_MWARE00.debug";
    EXPECT_FALSE(FileExists(szDebug));
    EXPECT_EQ(Command(pstKs_, "debug MW_CTRL"), "\r");
    EXPECT_TRUE(WaitFor([] { return CountOf(ReadFile(szDebug), "[MW_TurnHead]turn the head by ") > 1; }));
    EXPECT_EQ(Command(pstKs_, "debug MW_PTZ move"), "\r");
    EXPECT_TRUE(WaitFor([] { return CountOf(ReadFile(szDebug), "[MW_PtzMove]position is ") > 1; }));
    EXPECT_EQ(Command(pstKs_, "nodebug all"), "\r");
    EXPECT_NE(Command(pstKs_, "debug").find("MW_PTZ move left\r\nMW_PTZ move right\r\nMW_PTZ limit\r\n"),
              std::string::npos);

    EXPECT_EQ(Command(pstKs_, "loglevel 3"), "\r");
    EXPECT_EQ(Command(pstKs_, "display loglevel"), "\r\r\nloglevel: 3 (WARN)\r\n\r");
    EXPECT_NE(Command(pstKs_, "loglevel 7").find("[kestrel error] receive failed result."), std::string::npos);
    const std::string szOne = Command(pstKs_, "display module MW_CTRL");
    EXPECT_TRUE(
        WaitFor([&] { return Command(pstKs_, "display module MW_CTRL") != szOne; })); // the figures move

    pstKs_->Type("q\r");
    pstKs_->ReadUntil("\r\n<dbg>");
    pstKs_->Type("quit\r");
    EXPECT_EQ(pstKs_->WaitExit(), 0);
    EXPECT_TRUE(SameSettings(pstKs_->Settings(), stBefore_));
    EXPECT_EQ(CountOf(ReadFile("/var/log/ks00.log"), "[E("), 0U) << ReadFile("/var/log/ks00.log");
}

TEST_F(ConsoleOnMware, TopLevelPrompt) {
    pstKs_->ReadUntil("\r\n<dbg>");
    const struct {
        std::string szKeys, szText;
    } astCase[] = {
        {"?", "?\r\r\nen_equipment\t\tEnter system mode\r\r\nquit\t\t\tQuit\r\r\n<dbg>"},
        {"\t", "\r\r\nen_equipment\t\tEnter system mode\r\r\nquit\t\t\tQuit\r\r\n<dbg>"},
        {"x?", "x?\r\r\n<dbg>"},
        {"\r", "\r\r\n<dbg>"},
        {"en_equip\r", "en_equip\r\r\n<dbg>"},
        {"\x1B[A\n", "\r<dbg>\r<dbg>en_equip\r\r\n<dbg>"}, // a line feed is an Enter
    };
    for (const auto &stCase : astCase) {
        pstKs_->Type(stCase.szKeys);
        EXPECT_EQ(pstKs_->ReadUntil("\r\n<dbg>"), stCase.szText);
    }
    pstKs_->Type("en_equipmentX\r");
    EXPECT_EQ(CountOf(pstKs_->ReadUntil("\r\n[dbg]"), "command usage: "), 1U);
    pstKs_->Type("qwerty\r");
    pstKs_->ReadUntil("\r\n<dbg>");
    pstKs_->Type("e\t");
    EXPECT_EQ(CountOf(pstKs_->ReadUntil("\r\n[dbg]"), "command usage: "), 1U); // on every entry
}

TEST_F(ConsoleOnMware, HelpKeepsTheLine) {
    EnterDebugMode(pstKs_);
    pstKs_->Type("display \t");
    EXPECT_EQ(CountOf(pstKs_->ReadUntil("\r\n[dbg]display "), "slab \t\t title buffer pools [class]\r\n"), 1U);
    pstKs_->Type("x?");
    EXPECT_EQ(pstKs_->ReadUntil("\r\n[dbg]display x"),
              "x?\r\r\n             ^\r\r\nWrong command input!\r\r\n[dbg]display x");
    pstKs_->Type("\bmodule MW_C?");
    EXPECT_EQ(CountOf(pstKs_->ReadUntil("\r\n[dbg]display module MW_C"), "\r\nname: module name\r\n"), 1U);
    pstKs_->Type(std::string(11, '\b') + "dump\t");
    pstKs_->ReadUntil("\r\n[dbg]display dump ");
    pstKs_->Type("\t"); // what has an effect waits for its parameter
    EXPECT_EQ(CountOf(pstKs_->ReadUntil("\r\n[dbg]display dump "), "yes \t\t string yes, write"), 1U);
    pstKs_->Type("no\r");
    EXPECT_EQ(CountOf(pstKs_->ReadUntil("\r\n[dbg]"), "nothing written: it takes a yes"), 1U);
    EXPECT_FALSE(FileExists("/var/log/Timer_info.log"));
    pstKs_->Type("display ptz\r");
    EXPECT_EQ(CountOf(pstKs_->ReadUntil("\r\n[dbg]"), "degrees"), 1U);
    pstKs_->Type("\x1B[A"); // what is recalled is the whole line
    EXPECT_NE(pstKs_->ReadUntil("display ptz").find("\r[dbg]\r[dbg]"), std::string::npos);
}

// Of itself, where the terminal's hang-up signal ends nobody: from either prompt, in the middle of a line.
TEST_F(ConsoleOnMware, EndOfInput_EndsTheProgram) {
    for (const bool bDebugMode : {false, true}) {
        PtySession stKs({"/bin/sh", "-c", "trap '' HUP; exec \"$0\"", KS_PATH});
        if (bDebugMode) {
            EnterDebugMode(&stKs);
            stKs.Type("display sl");
        }
        stKs.ReadUntil(bDebugMode ? "display sl" : "<dbg>");
        stKs.HangUp();
        EXPECT_EQ(stKs.WaitExit(), 0);
    }
}

TEST_F(ConsoleOnMware, LeavesOnlyItsFiles) {
    if (getenv("KS_TEST_SANDBOX") == nullptr) {
        GTEST_SKIP() << "the machine's own directories hold other files";
    }
    EnterDebugMode(pstKs_);
    Command(pstKs_, "display slab");
    const std::string szPid = std::to_string(pstKs_->Pid());
    EXPECT_TRUE(WaitFor([&szPid] { // ks_cmd, whose second thread has its place, and ks
        return CountOf(ReadFile("/tmp/ThreadInfo[" + szPid + "].log"), "\n") == 2;
    }));
    pstKs_->Type("q\rq\r");
    EXPECT_EQ(pstKs_->WaitExit(), 0);
    EXPECT_EQ(FilesIn("/var/log"), (std::vector<std::string>{"MW_MWARE00.log", "ks00.log"}));
    EXPECT_TRUE(WaitFor([] { return FilesIn("/tmp", "ThreadInfo[").size() == 2; }));
}

// The process runs short; the engineer still gets through, finds the evidence, and sees it recover.
TEST_F(ConsoleOnMware, FloodLeavesItsEvidenceAndPasses) {
    EnterDebugMode(pstKs_);
    EXPECT_EQ(CountOf(Command(pstKs_, "display flood 1000"), "flood started"), 1U);
    ASSERT_TRUE(WaitFor([] { return FileExists("/var/log/Slab_Keyinfo.log"); }));
    EXPECT_GT(CountOf(ReadFile("/var/log/Slab_all.log"), "\nmsg["), 200U);
    EXPECT_EQ(CountOf(ReadFile("/var/log/Timer_info.log"), "total: 2 \n"), 1U);
    EXPECT_EQ(CountOf(Command(pstKs_, "display slab 0"), "0     128     256"), 1U);
    EXPECT_TRUE(WaitFor(
        [&] { return Command(pstKs_, "display slab 0").find("256    255    1") != std::string::npos; }));
    EXPECT_EQ(CountOf(ReadFile("/var/log/MW_MWARE00.log"), "Slab full"), 1U);
    EXPECT_NE(Command(pstKs_, "display timer").find("MW_ALM         day   03:00:00        "),
              std::string::npos);
    EXPECT_EQ(CountOf(Command(pstKs_, "display dump yes"), "/var/log/"), 3U);
}

TEST(Console, AttachesToIware) {
    Child stIware({KS_MWARE_PATH, "MW_IWARE"});
    ASSERT_TRUE(stIware.WaitForOutput("ready"));
    PtySession stKs({KS_PATH, "MW_IWARE", "ignored"});
    EnterDebugMode(&stKs);
    EXPECT_NE(Command(&stKs, "display ticks").find(" ticks"), std::string::npos);
    EXPECT_NE(Command(&stKs, "display module MW_IWARE").find("0xffffffff"), std::string::npos);
}

TEST(Console, WrongArgument) {
    PtySession stKs({KS_PATH, "mw_iware"});
    const std::string szText = stKs.ReadUntil("MW_IWARE\r\n");
    EXPECT_EQ(szText.substr(0, 8), "ks_main@");
    EXPECT_NE(szText.find(" need proc name:MW_MWARE or MW_IWARE\r\n"), std::string::npos);
    EXPECT_EQ(stKs.WaitExit(), 255);
    EXPECT_NE(ReadFile("/var/log/ks00.log").find("BP_MwareInit succeed."), std::string::npos);
}

TEST(Console, WithoutTerminal) {
    const auto pfnAnswer = AnswerAll("\nh\nd\ntitle\n0\n");
    ScriptedTarget stTarget(PORT_MWARE, pfnAnswer);
    Child stKs({"/bin/sh", "-c", std::string(KS_PATH) + " </dev/null 2>&1; echo status $?"});
    EXPECT_TRUE(stKs.WaitForOutput("\r\nFailed to set attributes\nstatus 1\n"));
    EXPECT_EQ(CountOf(ReadFile("/var/log/ks00.log"),
                      "[CLI_run]tcsetattr fail errcode:25(Inappropriate ioctl for device). retval:4294967295"),
              1U);
}

// Nobody at the port: both start-up requests run out, and the console says what that means.
TEST(Console, SilentTarget_IsNamedAndBuiltInsRemain) {
    PtySession stKs({KS_PATH});
    EXPECT_EQ(stKs.ReadUntil("\r\n<dbg>", 60),
              "no commands from MW_MWARE: start ks again once it answers\r\n\r\r\n<dbg>");
    stKs.Type("e\t");
    stKs.ReadUntil("\r\n[dbg]");
    EXPECT_EQ(Command(&stKs, "display slab"), "\r\r\n     ^\r\r\nWrong command input!\r");
    EXPECT_EQ(Command(&stKs, "debug"), "\r\r\n\r");
    ScriptedTarget stLateComer(PORT_MWARE, AnswerAll("level from a late comer"));
    EXPECT_EQ(Command(&stKs, "display loglevel"), "\r\r\nlevel from a late comer\r\n\r");
    stKs.Type("qq\rqq\r");
    EXPECT_EQ(stKs.WaitExit(), 0);
}

// What is missing is said before the next request is answered.
TEST(Console, CommandsThatDoNotCome_AreNamedAtOnce) {
    std::atomic<bool> bNamed{false};
    ScriptedTarget stTarget(PORT_MWARE, [&](const WireMsg &stReq) {
        const bool bModules =
            stReq.stHdr.ulMsgCode == BP_CMD_GET_MODULES && WaitFor([&] { return bNamed.load(); }, 9);
        return bModules ? std::vector<std::string>{Bytes(MakeAck(stReq, "\nMW_ONE\n"))}
                        : std::vector<std::string>{};
    });
    PtySession stKs({KS_PATH});
    stKs.ReadUntil("no commands from MW_MWARE: start ks again once it answers\r\n");
    bNamed = true;
    EnterDebugMode(&stKs);
    EXPECT_EQ(CountOf(Command(&stKs, "debug"), "MW_ONE\r\n"), 1U);
}

TEST(Console, DefinitionsRefused) {
    ScriptedTarget stTarget(PORT_MWARE, AnswerAll("operate fail"));
    PtySession stKs({KS_PATH});
    EXPECT_EQ(CountOf(stKs.ReadUntil("\r\n<dbg>"), "[kestrel error] receive failed result."), 2U);
    EXPECT_EQ(stTarget.Requests()[0].szPayload, "dbgcmd");
}

// The target is stopped under the console's hands, and comes back.
TEST_F(ConsoleOnMware, StoppedTarget_CostsOneCommandAndNothingElse) {
    EnterDebugMode(pstKs_);
    stMware_.Stop();
    pstKs_->Type("display ptz\r");
    EXPECT_EQ(pstKs_->ReadUntil("\r\n[dbg]", 60), "display ptz\r\r\n[dbg]");
    stMware_.Signal(SIGCONT);
    EXPECT_EQ(CountOf(Command(pstKs_, "display ptz"), "degrees"), 1U);
    EXPECT_EQ(CountOf(ReadFile("/var/log/ks00.log"), "wait response msg timeout(10000 10000)"), 1U);
    EXPECT_EQ(CountOf(ReadFile("/var/log/ks00.log"), "[CLI_ExecuteCmd]fail to send cmd msg"), 1U);
}
