// The log and the runtime's other files; also on a disk that fails, and beside other writers.
#include <algorithm>
#include <csignal>
#include <cstdarg>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bp/bp.h"
#include "tests/support/fake_clock.h"
#include "tests/support/files.h"
#include "tests/support/rows.h"
#include "tests/support/threads.h"

static const char g_szLog[] = "/var/log/ks00.log";
static const char g_szBackup[] = "/var/log/ks01.log";
static const std::string g_szWholeLine = "^[0-9-]{5} [0-9:]{8} [0-9]{3}\\[I\\(0\\)\\]\\[a.c-1\\]<[^<>]*>\r$";

#define WRITE(ulLevel, ulModuleID, ...) BP_WriteLog(ulLevel, 0, ulModuleID, "a.c", 1, __VA_ARGS__)

class Log : public testing::Test {
protected:
    void SetUp() override {
        setenv("TZ", "UTC0", 0);
        BP_InitLog("ks");
        ASSERT_EQ(BP_RegCmdModuleID("BP", 0, 0, BP_LOG_BP_MODULE_ID), BP_OK);
    }
    static void Info(const std::string &szText) {
        WRITE(BP_LOG_LEVEL_INFO, BP_LOG_BP_MODULE_ID, "<%s>", szText.c_str());
    }
    static void SetDebug() { BP_Write(BP_FindLogModule(BP_LOG_BP_MODULE_ID)->ulDebugOn, 1U); }
    // Every line of the file is whole; returns their number.
    static size_t WholeLines(const std::string &szFile = g_szLog) {
        std::istringstream stText(ReadFile(szFile));
        size_t ulNum = 0;
        for (std::string szLine; std::getline(stText, szLine); ulNum++) {
            EXPECT_TRUE(Matches(szLine, g_szWholeLine)) << szFile << ": " << szLine;
        }
        return ulNum;
    }
};
#define SMALL_DISK(pcDir, ulBytes)                                                                             \
    if (!MountSmall(pcDir, ulBytes)) {                                                                         \
        GTEST_SKIP() << "needs a mount namespace of its own";                                                  \
    }

TEST(Calendar, SecondsToDate) {
    for (const auto &aszRow : Rows("dates.txt")) {
        const BP_Date st = BP_SecToDate(std::stol(aszRow[0]));
        std::ostringstream stText;
        stText << st.lYear << "-" << st.lMonth << "-" << st.lDay << " " << st.lHour << ":" << st.lMinute << ":"
               << st.lSecond << " " << st.lWeekday << " " << st.lYearDay;
        EXPECT_EQ(stText.str(), aszRow[1]) << aszRow[0];
    }
}

TEST(LogNames, AreShortenedAndCut) {
    char szName[BP_LOG_SOURCE_SIZE];
    for (const auto &aszRow : Rows("source-names.txt")) {
        BP_LogSourceName(aszRow[0].c_str(), szName);
        EXPECT_EQ(szName, aszRow[1]);
    }
    BP_InitLog("a process name of more than thirty-one characters");
    for (uint32_t i = 1; i < BP_LOG_MODULE_NUM; i++) {
        ASSERT_EQ(BP_RegCmdModuleID("m", 0, 0, i), BP_OK);
    }
    EXPECT_EQ(BP_RegCmdModuleID("m", 0, 0, 99), BP_ERR_FAIL);
    EXPECT_STREQ(g_stBPLogMgr.astLogModule[0].stLogFile.szBakName,
                 "/var/log/a process name of more than thi01.log");
}

TEST(LogNames, NothingRegistered_SilentEverywhere) {
    testing::internal::CaptureStderr();
    WRITE(BP_LOG_LEVEL_ERROR, BP_LOG_BP_MODULE_ID, "x");
    BP_InitLog(nullptr);
    EXPECT_EQ(BP_RegCmdModuleID(nullptr, 0, 0, 7), BP_ERR_PARAM);
    EXPECT_EQ(BP_RegCmdModuleID("zero", 0, 0, 0), BP_ERR_PARAM);
    EXPECT_EQ(BP_Read(g_stBPLogMgr.ulModuleNum), 0U);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_FALSE(FileExists("/var/log/00.log"));
}

TEST_F(Log, LineHasItsTimeAndPlace) {
    for (const auto &aszRow : Rows("log-times.txt")) {
        if (aszRow[0] != getenv("TZ")) { // another life of the process
            setenv("TZ", aszRow[0].c_str(), 1);
            Log::SetUp();
        }
        SetClock(std::stol(aszRow[1]), std::stol(aszRow[2]));
        BP_WriteLog(BP_LOG_LEVEL_ERROR, 17, BP_LOG_BP_MODULE_ID, "dir/a.c", 157, "[%s]n=%d", "Func", 5);
        EXPECT_EQ(ReadFile(g_szLog), aszRow[3] + "[E(17)][a.c-157][Func]n=5\r\n");
        unlink(g_szLog);
    }
}

TEST_F(Log, LevelDecidesFile) {
    ASSERT_EQ(BP_RegCmdModuleID("MW_IWARE", 0, 0, 5), BP_OK);
    ASSERT_EQ(BP_RegCmdModuleID("own", 0, 0, BP_LOG_MODULE_ID_OWN), BP_OK);
    EXPECT_EQ(BP_Read(g_stBPLogMgr.ulModuleNum), 4U);
    for (const uint32_t ulLevel : {0U, 1U, 6U}) {
        EXPECT_EQ(BP_SetLogLevel(ulLevel), BP_ERR_PARAM);
    }
    EXPECT_EQ(BP_GetLogLevel(), 2U);
    for (uint32_t i = 0; i < 18; i++) { // the second round with a threshold of 4 and debug on
        if (i == 9) {
            ASSERT_EQ(BP_SetLogLevel(4), BP_OK);
            SetDebug();
        }
        const char *pcRound = i < 9 ? "" : "'";
        WRITE(i % 9, BP_LOG_BP_MODULE_ID, "bp%u%s", i % 9, pcRound);
        WRITE(i % 9, 5, "iware%u%s", i % 9, pcRound);
        WRITE(i % 9, BP_LOG_MODULE_ID_OWN, "own%u%s", i % 9, pcRound);
        WRITE(i % 9, 6, "unregistered");
        WRITE(i % 9, 0xFFFFFFFF, "process entry");
    }
    std::string szSeen;
    for (const char *pcFile : {"ks00.log", "ks00.debug", "ks00.buf", "own00.log", "own00.debug", "own00.buf"}) {
        const std::string szText = ReadFile(std::string("/var/log/") + pcFile);
        szSeen += std::string(pcFile) + ":";
        for (size_t ulPos = 0; (ulPos = szText.find("[a.c-1]", ulPos)) != std::string::npos; ulPos += 7) {
            szSeen += " " + szText.substr(ulPos + 7, szText.find('\r', ulPos) - ulPos - 7);
        }
        szSeen += "\n";
    }
    EXPECT_EQ(szSeen,
              "ks00.log: bp2 iware2 bp3 iware3 bp4 iware4 bp5 iware5 bp6 iware6 bp4' iware4' bp5' iware5' bp6' "
              "iware6'\nks00.debug: iware1 bp1' iware1'\nks00.buf: bp7 iware7 bp7' iware7'\n"
              "own00.log: own2 own3 own4 own5 own6 own4' own5' own6'\nown00.debug:\nown00.buf: own7 own7'\n");
    EXPECT_FALSE(FileExists("/var/log/MW_IWARE00.log"));
}

TEST_F(Log, RotatesWhereLessThan1024BytesAreLeft) {
    for (const auto &[ulSize, ulLevel] : {std::pair(130048, BP_LOG_LEVEL_INFO),
                                          {130049, BP_LOG_LEVEL_INFO},
                                          {64512, BP_LOG_LEVEL_DEBUG},
                                          {64513, BP_LOG_LEVEL_DEBUG}}) {
        const std::string szEnd = ulLevel == BP_LOG_LEVEL_INFO ? ".log" : ".debug";
        const std::string szOld(static_cast<size_t>(ulSize), 'x');
        const bool bRotates = ulSize % 2 == 1;
        WriteFile("/var/log/ks00" + szEnd, szOld);
        WriteFile("/var/log/ks01" + szEnd, "older backup");
        Log::SetUp();
        SetDebug();
        WRITE(ulLevel, BP_LOG_BP_MODULE_ID, "new line");
        EXPECT_EQ(ReadFile("/var/log/ks01" + szEnd), bRotates ? szOld : "older backup") << ulSize;
        EXPECT_EQ(CountOf(ReadFile("/var/log/ks00" + szEnd), "x"), bRotates ? 0 : szOld.size());
        EXPECT_EQ(CountOf(ReadFile("/var/log/ks00" + szEnd), "new line"), 1U);
    }
}

TEST_F(Log, FileRemovedOrBlocked_ComesBackByItself) {
    const std::string szFull(BP_LOG_FILE_LIMIT, 'x');
    testing::internal::CaptureStderr();
    Info("one");
    unlink(g_szLog);
    Info("two");
    EXPECT_EQ(WholeLines(), 1U);
    WriteFile(g_szLog, szFull);
    Log::SetUp();
    unlink(g_szLog);
    Info("lost: nothing to rename");
    mkdir(g_szLog, 0755);
    Info("lost: nothing to open");
    rmdir(g_szLog);
    Info("three");
    EXPECT_EQ(WholeLines(), 1U);
    WriteFile(g_szLog, szFull);
    mkdir(g_szBackup, 0755);
    Info("lost: no place for the backup");
    rmdir(g_szBackup);
    Info("four");
    EXPECT_EQ(ReadFile(g_szBackup), szFull);
    EXPECT_EQ(WholeLines(), 1U);
    const std::string szRename = std::string("[bp_log-845]Rename file ") + g_szLog + " to " + g_szBackup;
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              szRename + " failed:No such file or directory\n[bp_log-878]Open file " + g_szLog +
                  " failed:Is a directory\n" + szRename + " failed:Is a directory\n");
}

TEST_F(Log, LockThatIsNotGivenBack_HoldsNothingUpForEver) {
    static constexpr size_t ulLines = 300; // to wait half a second for each would outlast the test
    Info("before");
    const int lFd = open(g_szLog, O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(flock(lFd, LOCK_EX | LOCK_NB), 0); // given back with the end of the line
    for (size_t i = 0; i < ulLines; i++) {
        Info("meanwhile");
    }
    EXPECT_EQ(WholeLines(), ulLines + 1);
    ASSERT_EQ(truncate(g_szLog, 130049), 0);
    Info("new");
    EXPECT_EQ(ReadFile(g_szBackup).size(), 130049U);
    EXPECT_EQ(WholeLines(), 1U);
    close(lFd);
}

// Formats, patterns and shell commands in what is only text, and lines of any length.
TEST_F(Log, TextIsOnlyText_AndWrittenWhole) {
    static const std::string szTrick = "%s%n%1000000d $(touch pwned) `touch pwned` '; touch pwned; #";
    std::vector<std::string> aszText = {szTrick};
    for (const size_t ulLen : {0, 2010, 2011, 2012, 2013, 2014, 2015, 2016, 2017, 100000}) {
        aszText.emplace_back(ulLen, 'x');
    }
    for (const std::string &szText : aszText) {
        Info(szText);
        EXPECT_EQ(CountOf(ReadFile(g_szLog), "<" + szText + ">\r\n"), 1U) << szText.size();
    }
    EXPECT_EQ(WholeLines(), aszText.size());
    BP_RecordThreadInfo(szTrick.c_str());
    EXPECT_EQ(CountOf(ReadFile(ThreadFile()), szTrick.substr(0, 63) + ":"), 1U);
    EXPECT_FALSE(FileExists("pwned"));
}

TEST_F(Log, LongLineWithoutMemory_IsLostAlone) {
    testing::internal::CaptureStderr();
    setenv("KS_FAIL", "malloc:1", 1);
    Info(std::string(3000, 'x') + " lost");
    Info(std::string(3000, 'x') + " kept");
    unsetenv("KS_FAIL");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[bp_log-903]Write file /var/log/ks00.log failed:Cannot allocate memory\n");
    EXPECT_TRUE(Matches(ReadFile(g_szLog), "^[^x]*x{3000} kept>\r\n$"));
}

TEST_F(Log, DirectoryRemoved_IsMadeAgain) {
    SMALL_DISK("/var", 65536); // there /var/log is a directory like any other, and missing
    for (int i = 0; i < 3; i++) {
        Info("kept");
        EXPECT_EQ(WholeLines(), 1U);
        unlink(g_szLog);
        EXPECT_EQ(rmdir("/var/log"), 0);
    }
}

// Two processes of two threads each, every thread given its number; returns once they are done.
static void RunWriters(const std::function<void(uint32_t)> &pfnRun) {
    for (const uint32_t ulFirst : {0U, 2U}) {
        if (fork() == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            Threads(2, [&](uint32_t i) { pfnRun(ulFirst + i); });
            _exit(0);
        }
    }
    while (wait(nullptr) > 0) {
    }
}

static void WriteTo(BP_LogFile *pstFile, const char *pcFormat, ...) __attribute__((format(printf, 2, 3)));
static void WriteTo(BP_LogFile *pstFile, const char *pcFormat, ...) {
    va_list args;
    va_start(args, pcFormat);
    BP_LogWriteFile(pstFile, INT32_MAX, "11-23 05:00:00 000[I(0)][a.c-1]", pcFormat, args);
    va_end(args);
}

// The disk is full except for a moment now and then, and the file is moved away, and blocked by a directory:
// each line is in one of the files, or its loss has been said.
TEST_F(Log, DiskFullAndFileMoved_LinesAreWholeOrTheirLossIsSaid) {
    static constexpr uint32_t ulLines = 12000;
    SMALL_DISK("/var/log", 2000 * 4096); // room for all and the filler
    testing::internal::CaptureStderr();
    std::vector<std::string> aszFile = {g_szLog};
    const pid_t lWriters = fork();
    if (lWriters == 0) {
        RunWriters([&](uint32_t i) {
            BP_LogFile stFile = {};
            BP_LogInitFile(&stFile, "ks", ".log");
            for (uint32_t j = 0; j < ulLines; j++) {
                WriteTo(&stFile, "<%s>", std::string(50 + (i + j) % 100, 'x').c_str());
            }
        });
        _exit(0);
    }
    const std::string szPage(4096, 'f');
    const int lFiller = open("/var/log/filler", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    for (uint32_t i = 1; waitpid(lWriters, nullptr, WNOHANG) == 0; i++) {
        while (write(lFiller, szPage.data(), szPage.size()) > 0) {
        }
        ASSERT_EQ(ftruncate(lFiller, lseek(lFiller, 0, SEEK_END) - 4096), 0);
        if (i % 3000 == 0) {
            aszFile.push_back("/var/log/aside" + std::to_string(aszFile.size()));
            rename(g_szLog, aszFile.back().c_str());
            mkdir(g_szLog, 0755);
            usleep(300);
            rmdir(g_szLog);
        }
    }
    close(lFiller);
    size_t ulFound = 0;
    for (const std::string &szFile : aszFile) {
        ulFound += WholeLines(szFile);
    }
    const std::string szErr = testing::internal::GetCapturedStderr();
    EXPECT_EQ(ulFound + CountOf(szErr, "[bp_log-903]") + CountOf(szErr, "[bp_log-878]"), 4 * ulLines);
    EXPECT_GT(ulFound, 0U);
    unlink("/var/log/filler");
    Info("after all");
    EXPECT_EQ(CountOf(ReadFile(g_szLog), "<after all>"), 1U);
}

// Rounds that are too short for two rotations each, so that every backup is seen.
TEST_F(Log, ThroughRotations_EveryLineIsThereInItsOrder) {
    static constexpr uint32_t ulRounds = 70;
    static constexpr uint32_t ulLines = 240; // of at most 130 bytes
    testing::internal::CaptureStderr();
    std::vector<std::string> aszText;
    for (uint32_t ulRound = 0; ulRound < ulRounds; ulRound++) {
        RunWriters([=](uint32_t i) {
            for (uint32_t j = ulRound * ulLines; j < (ulRound + 1) * ulLines; j++) {
                Info(std::to_string(i) + " " + std::to_string(j) + " " + std::string(60 + (i + j) % 20, 'z'));
            }
        });
        aszText.push_back(ReadFile(g_szBackup));
        EXPECT_TRUE(aszText.back().empty() || aszText.back().size() + 1023 >= BP_LOG_FILE_LIMIT);
        EXPECT_LE(std::max(aszText.back().size(), ReadFile(g_szLog).size()), BP_LOG_FILE_LIMIT);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    aszText.erase(std::unique(aszText.begin(), aszText.end()), aszText.end());
    EXPECT_GT(aszText.size(), 50U);
    aszText.push_back(ReadFile(g_szLog));
    uint32_t aulNext[4] = {};
    for (const std::string &szText : aszText) {
        for (size_t ulPos = 0; (ulPos = szText.find('<', ulPos)) != std::string::npos; ulPos++) {
            uint32_t ulWriter = 0;
            uint32_t ulNumber = 0;
            ASSERT_EQ(sscanf(szText.c_str() + ulPos, "<%u %u", &ulWriter, &ulNumber), 2);
            ASSERT_EQ(ulNumber, aulNext[ulWriter]++) << ulWriter;
        }
    }
    EXPECT_EQ(std::count(aulNext, aulNext + 4, ulRounds * ulLines), 4);
}

// Whatever has been planted under the name of one of the runtime's files, nothing else is written to, and
// nothing waits.
TEST_F(Log, PlantedNames_HarmNothing) {
    const std::string szThreads = ThreadFile();
    const std::string szPath = getenv("PATH");
    SetDebug();
    const std::function<int(const char *, const char *)> apfnPlant[] = {
        symlink, link, [](const char *, const char *pcName) { return mkfifo(pcName, 0666); },
        [](const char *, const char *pcName) { return symlink("/tmp/ks_test_none", pcName); }};
    for (const auto &pfnPlant : apfnPlant) {
        for (const std::string szName : {g_szLog, "/var/log/ks00.debug", "/var/log/ks00.buf", BP_SLAB_DUMP_PATH,
                                         BP_TIMER_DUMP_PATH, BP_KEY_DUMP_PATH, szThreads.c_str()}) {
            const std::string szVictim = szName.substr(0, szName.rfind('/')) + "/ks_test_victim";
            WriteFile(szVictim, "precious");
            unlink(szName.c_str());
            ASSERT_EQ(pfnPlant(szVictim.c_str(), szName.c_str()), 0) << szName;
        }
        testing::internal::CaptureStderr();
        for (const uint32_t ulLevel : {BP_LOG_LEVEL_INFO, BP_LOG_LEVEL_DEBUG, BP_LOG_LEVEL_BUF}) {
            WRITE(ulLevel, BP_LOG_BP_MODULE_ID, "not there");
        }
        EXPECT_EQ(BP_WriteDumpFile(BP_SLAB_DUMP_PATH, "dump", 4), BP_ERR_FAIL);
        EXPECT_EQ(BP_WriteDumpFile(BP_TIMER_DUMP_PATH, "dump", 4), BP_ERR_FAIL);
        EXPECT_EQ(BP_TailFile("/tmp/ks_test_victim", BP_KEY_DUMP_PATH, "w", 3), BP_ERR_FAIL);
        const std::string szErr = testing::internal::GetCapturedStderr();
        EXPECT_EQ(CountOf(szErr, "[bp_log-878]Open file /var/log/ks00.log failed:"), 4U); // as for each refusal
        EXPECT_EQ(CountOf(szErr, "[bp_log-878]Open file "), 6U);
        BP_RecordThreadInfo("name"); // removes what is there first
        EXPECT_EQ(CountOf(ReadFile(szThreads), "name:"), 1U);
        unlink(szThreads.c_str());
        ASSERT_EQ(pfnPlant("/tmp/ks_test_victim", szThreads.c_str()), 0);
        setenv("PATH", "/nowhere", 1); // rm fails, as on another user's link in a sticky directory
        BP_RecordThreadInfo("name");
        setenv("PATH", szPath.c_str(), 1);
        EXPECT_EQ(ReadFile("/tmp/ks_test_victim") + ReadFile("/var/log/ks_test_victim"), "preciousprecious");
        EXPECT_FALSE(FileExists("/tmp/ks_test_none"));
    }
    ASSERT_EQ(symlink("/tmp/ks_test_victim", "source"), 0);
    unlink(BP_KEY_DUMP_PATH);
    EXPECT_EQ(BP_TailFile("source", BP_KEY_DUMP_PATH, "w", 3), BP_ERR_FAIL);
    EXPECT_EQ(CountOf(ReadFile(BP_KEY_DUMP_PATH), "precious"), 0U);
}

static std::string RecordInThread(const std::string &szName) {
    std::string szLine;
    std::thread([&] {
        BP_RecordThreadInfo(szName.c_str());
        char szTaskName[16] = {};
        prctl(PR_GET_NAME, szTaskName);
        EXPECT_EQ(szTaskName, szName.substr(0, 15));
        szLine = szName + ":" + std::to_string(syscall(SYS_gettid)) + "\n";
    }).join();
    return szLine;
}

TEST(ThreadInfo, ListsThreadsInTheirPlaces) {
    BP_RecordThreadInfo("too early");
    EXPECT_EQ(ReadFile(ThreadFile()), "");
    BP_InitLog("ks");
    ASSERT_EQ(BP_RegCmdModuleID("BP", 0, 0, BP_LOG_BP_MODULE_ID), BP_OK);
    const std::string szPath = "/tmp/ThreadInfo" + std::to_string(getpid()).substr(0, 1) + ".log";
    WriteFile(szPath, "matches the file's name as a pattern");
    const std::string szOne = RecordInThread("one");
    RecordInThread("a module with a long name");
    const std::string szThree = RecordInThread("three");
    const std::string szAgain = RecordInThread("a module with a long name");
    EXPECT_EQ(ReadFile(ThreadFile()), szOne + szAgain + szThree);
    EXPECT_TRUE(FileExists(szPath));
    for (int i = 3; i < 101; i++) {
        RecordInThread("t" + std::to_string(i));
    }
    EXPECT_EQ(CountOf(ReadFile(ThreadFile()), "\n"), 100U);
    EXPECT_EQ(CountOf(ReadFile(ThreadFile()), "t100:"), 0U);
}

TEST(Shell, ReportsWaitStatus) {
    EXPECT_EQ(BP_System(nullptr), 0);
    EXPECT_EQ(BP_System("exit 3"), 768);
    EXPECT_EQ(BP_System("/no/such/program 2>/dev/null"), 32512);
    EXPECT_EQ(BP_System("kill -9 $$"), 9);
}

static auto HandlerOf(int lSignal) {
    struct sigaction stAction = {};
    sigaction(lSignal, nullptr, &stAction);
    return stAction.sa_handler;
}

TEST(Shell, OverlappingRuns_RestoreSignalsAfterTheLast) {
    signal(SIGINT, [](int) {});
    signal(SIGQUIT, SIG_DFL); // a shell that runs the test in the background has it ignored
    const auto pfnHandler = HandlerOf(SIGINT);
    std::thread stLong([] { BP_System("until [ -e go ]; do sleep 0.01; done"); });
    ASSERT_TRUE(WaitFor([&] { return HandlerOf(SIGINT) == SIG_IGN; }));
    for (int i = 0; i < 20; i++) {
        BP_System(":");
        EXPECT_EQ(HandlerOf(SIGINT), SIG_IGN); // the long run is still under way
    }
    kill(getpid(), SIGINT);
    WriteFile("go", "");
    stLong.join();
    EXPECT_EQ(HandlerOf(SIGINT), pfnHandler);
    EXPECT_EQ(HandlerOf(SIGQUIT), SIG_DFL);
    sigset_t stMask;
    pthread_sigmask(SIG_BLOCK, nullptr, &stMask);
    EXPECT_EQ(sigismember(&stMask, SIGCHLD), 0);
}
