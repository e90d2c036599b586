#include <csignal>
#include <cstdarg>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sstream>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

#include "bp/bp.h"
#include "tests/support/capture.h"
#include "tests/support/fake_clock.h"
#include "tests/support/files.h"
#include "tests/support/threads.h"

static const char g_szLog[] = "/var/log/ks00.log";
static const char g_szBackup[] = "/var/log/ks01.log";
static const char g_szDebug[] = "/var/log/ks00.debug";

#define LOG(ulLevel, ulModuleID, ...) BP_WriteLog(ulLevel, 0, ulModuleID, "a.c", 1, __VA_ARGS__)

static void StartLog() {
    BP_InitLog("ks");
    ASSERT_EQ(BP_RegCmdModuleID("BP", 0, 0, BP_LOG_BP_MODULE_ID), BP_OK);
}

TEST(Calendar, SecondsToDate) {
    static constexpr int64_t lFeb2100 =
        4107456000 + 86400; // by this calendar; the real one has no 29 February 2100
    const struct {
        int64_t lSeconds;
        int lYear, lMonth, lDay, lHour, lMinute, lSecond, lWeekday, lYearDay;
    } astCase[] = {
        {-63158401, 1967, 12, 31, 23, 59, 59, 0, 364}, {-58060800, 1968, 2, 29, 0, 0, 0, 4, 59},
        {-86401, 1969, 12, 30, 23, 59, 59, 2, 363},    {-86400, 1969, 12, 31, 0, 0, 0, 3, 364},
        {-1, 1969, 12, 31, 23, 59, 59, 3, 364},        {0, 1970, 1, 1, 0, 0, 0, 4, 0},
        {86399, 1970, 1, 1, 23, 59, 59, 4, 0},         {951782400, 2000, 2, 29, 0, 0, 0, 2, 59},
        {978307199, 2000, 12, 31, 23, 59, 59, 0, 365}, {1709164800, 2024, 2, 29, 0, 0, 0, 4, 59},
        {1709251200, 2024, 3, 1, 0, 0, 0, 5, 60},      {lFeb2100, 2100, 2, 29, 0, 0, 0, 1, 59},
    };
    for (const auto &stCase : astCase) {
        const BP_Date stDate = BP_SecToDate(stCase.lSeconds);
        SCOPED_TRACE(stCase.lSeconds);
        EXPECT_EQ(stDate.lYear, stCase.lYear);
        EXPECT_EQ(stDate.lMonth, stCase.lMonth);
        EXPECT_EQ(stDate.lDay, stCase.lDay);
        EXPECT_EQ(stDate.lHour, stCase.lHour);
        EXPECT_EQ(stDate.lMinute, stCase.lMinute);
        EXPECT_EQ(stDate.lSecond, stCase.lSecond);
        EXPECT_EQ(stDate.lWeekday, stCase.lWeekday);
        EXPECT_EQ(stDate.lYearDay, stCase.lYearDay);
    }
}

TEST(Log, SourceNames) {
    const struct {
        const char *pcFile;
        std::string szName;
    } astCase[] = {
        {"a.c", "a.c"},
        {"x/y/a.c", "a.c"},
        {"src/tavo_main.c", "_main.c"},
        {"dir/xrvabfoo.c", "snmpd_foo.c"},
        {"tavoxrv12z", "snmpd_z"},
        {"xrva", "snmpd_"},
        {"tavo", ""},
    };
    char szName[BP_LOG_SOURCE_SIZE];
    for (const auto &stCase : astCase) {
        BP_LogSourceName(stCase.pcFile, szName);
        EXPECT_EQ(szName, stCase.szName);
    }
    BP_LogSourceName(std::string(200, 'n').c_str(), szName);
    EXPECT_EQ(szName, std::string(62, 'n'));
}

TEST(Log, NothingRegistered_SilentEverywhere) {
    Capture stErr(stderr);
    LOG(BP_LOG_LEVEL_ERROR, BP_LOG_BP_MODULE_ID, "x");
    BP_InitLog(nullptr);
    EXPECT_EQ(BP_RegCmdModuleID(nullptr, 0, 0, 7), BP_ERR_PARAM);
    EXPECT_EQ(BP_RegCmdModuleID("zero", 0, 0, 0), BP_ERR_PARAM);
    EXPECT_EQ(BP_Read(g_stBPLogMgr.ulModuleNum), 0U);
    EXPECT_EQ(stErr.Stop(), "");
    EXPECT_FALSE(FileExists("/var/log/00.log"));
}

TEST(Log, LineHasPrefixAndGoesToProcessFile) {
    const struct {
        const char *pcZone; // POSIX: counted westwards
        int64_t lSec, lUsec;
        std::string szTime;
    } astCase[] = {
        {"UTC-8", Utc("2026-03-05T06:02:07"), 45999, "03-05 14:02:07 045"},
        {"EST5EDT", Utc("2026-07-01T12:00:00"), 0, "07-01 07:00:00 000"}, // standard time all year
        {"UTC+5", 60, 0, "12-31 19:01:00 000"},
        {"UTC-8", 8 * 3600 - 1, 0, "01-01 15:59:59 000"}, // mktime's result is -1, and right
    };
    Capture stErr(stderr);
    for (const auto &stCase : astCase) {
        setenv("TZ", stCase.pcZone, 1);
        SetClock(stCase.lSec, stCase.lUsec);
        StartLog();
        BP_WriteLog(BP_LOG_LEVEL_ERROR, 17, BP_LOG_BP_MODULE_ID, "dir/a.c", 157, "[%s]n=%d", "Func", 5);
        EXPECT_EQ(ReadFile(g_szLog), stCase.szTime + "[E(17)][a.c-157][Func]n=5\r\n");
        unlink(g_szLog);
    }
    EXPECT_EQ(stErr.Stop(), "");
}

TEST(Log, LevelDecidesFile) {
    StartLog();
    ASSERT_EQ(BP_RegCmdModuleID("MW_IWARE", 0, 0, 5), BP_OK);
    ASSERT_EQ(BP_RegCmdModuleID("own", 0, 0, BP_LOG_MODULE_ID_OWN), BP_OK);
    EXPECT_EQ(BP_Read(g_stBPLogMgr.ulModuleNum), 4U);
    for (uint32_t ulLevel = 0; ulLevel <= 8; ulLevel++) {
        LOG(ulLevel, BP_LOG_BP_MODULE_ID, "bp%u", ulLevel);
        LOG(ulLevel, 5, "iware%u", ulLevel);
        LOG(ulLevel, BP_LOG_MODULE_ID_OWN, "own%u", ulLevel);
        LOG(ulLevel, 6, "unregistered");
        LOG(ulLevel, 0xFFFFFFFF, "process entry");
    }
    std::string szSeen;
    for (const char *pcFile : {"ks00.log", "ks00.debug", "ks00.buf", "own00.log", "own00.debug", "own00.buf"}) {
        const std::string szText = ReadFile(std::string("/var/log/") + pcFile);
        szSeen += std::string(pcFile) + ":";
        for (size_t ulPos = szText.find("[a.c-1]"); ulPos != std::string::npos;
             ulPos = szText.find("[a.c-1]", ulPos + 1)) {
            szSeen += " " + szText.substr(ulPos + 7, szText.find('\r', ulPos) - ulPos - 7);
        }
        szSeen += "\n";
    }
    EXPECT_EQ(szSeen, "ks00.log: bp2 iware2 bp3 iware3 bp4 iware4 bp5 iware5 bp6 iware6\n"
                      "ks00.debug: iware1\n"
                      "ks00.buf: bp7 iware7\n"
                      "own00.log: own2 own3 own4 own5 own6\n"
                      "own00.debug:\n"
                      "own00.buf: own7\n");
    EXPECT_FALSE(FileExists("/var/log/MW_IWARE00.log"));
}

TEST(Log, ThresholdDropsOnlyReports) {
    StartLog();
    BP_Write(BP_FindLogModule(BP_LOG_BP_MODULE_ID)->ulDebugOn, 1U);
    for (const uint32_t ulLevel : {0U, 1U, 6U}) {
        EXPECT_EQ(BP_SetLogLevel(ulLevel), BP_ERR_PARAM);
    }
    EXPECT_EQ(BP_GetLogLevel(), 2U);
    ASSERT_EQ(BP_SetLogLevel(4), BP_OK);
    for (uint32_t ulLevel = 1; ulLevel <= 7; ulLevel++) {
        LOG(ulLevel, BP_LOG_BP_MODULE_ID, "level%u", ulLevel);
    }
    const std::string szAll = ReadFile(g_szLog) + ReadFile(g_szDebug) + ReadFile("/var/log/ks00.buf");
    EXPECT_EQ(CountOf(szAll, "level"), 5U);
    EXPECT_EQ(CountOf(szAll, "level2") + CountOf(szAll, "level3"), 0U);
}

TEST(Log, RotatesWhereLessThan1024BytesAreLeft) {
    const struct {
        const char *pcFile;
        size_t ulSize;
        bool bRotates;
    } astCase[] = {
        {g_szLog, 130048, false}, {g_szLog, 130049, true}, {g_szDebug, 64512, false}, {g_szDebug, 64513, true}};
    for (const auto &stCase : astCase) {
        SCOPED_TRACE(stCase.ulSize);
        const std::string szOld(stCase.ulSize, 'x');
        std::string szBackup = stCase.pcFile;
        szBackup.replace(szBackup.find("00"), 2, "01");
        WriteFile(stCase.pcFile, szOld);
        WriteFile(szBackup, "older backup");
        StartLog();
        BP_Write(BP_FindLogModule(BP_LOG_BP_MODULE_ID)->ulDebugOn, 1U);
        LOG(stCase.pcFile == g_szLog ? BP_LOG_LEVEL_INFO : BP_LOG_LEVEL_DEBUG, BP_LOG_BP_MODULE_ID, "new line");
        EXPECT_EQ(ReadFile(szBackup), stCase.bRotates ? szOld : "older backup");
        EXPECT_EQ(CountOf(ReadFile(stCase.pcFile), "x"), stCase.bRotates ? 0 : stCase.ulSize);
        EXPECT_EQ(CountOf(ReadFile(stCase.pcFile), "new line"), 1U);
    }
}

TEST(Log, FileRemovedOrBlocked_ComesBackByItself) {
    StartLog();
    LOG(BP_LOG_LEVEL_INFO, BP_LOG_BP_MODULE_ID, "one");
    unlink(g_szLog);
    LOG(BP_LOG_LEVEL_INFO, BP_LOG_BP_MODULE_ID, "two");
    EXPECT_EQ(CountOf(ReadFile(g_szLog), "two"), 1U);

    WriteFile(g_szLog, std::string(BP_LOG_FILE_LIMIT, 'x'));
    StartLog();
    unlink(g_szLog);
    Capture stErr(stderr);
    LOG(BP_LOG_LEVEL_INFO, BP_LOG_BP_MODULE_ID, "lost: nothing to rename");
    mkdir(g_szLog, 0755);
    LOG(BP_LOG_LEVEL_INFO, BP_LOG_BP_MODULE_ID, "lost: nothing to open");
    rmdir(g_szLog);
    LOG(BP_LOG_LEVEL_INFO, BP_LOG_BP_MODULE_ID, "three");
    EXPECT_EQ(CountOf(ReadFile(g_szLog), "three"), 1U);
    ASSERT_EQ(truncate(g_szLog, BP_LOG_FILE_LIMIT), 0);
    mkdir(g_szBackup, 0755);
    LOG(BP_LOG_LEVEL_INFO, BP_LOG_BP_MODULE_ID, "lost: no place for the backup");
    rmdir(g_szBackup);
    LOG(BP_LOG_LEVEL_INFO, BP_LOG_BP_MODULE_ID, "four");
    EXPECT_EQ(ReadFile(g_szBackup).size(), BP_LOG_FILE_LIMIT);
    EXPECT_EQ(CountOf(ReadFile(g_szBackup) + ReadFile(g_szLog), "lost"), 0U);
    EXPECT_EQ(CountOf(ReadFile(g_szLog), "four"), 1U);
    const std::string szRename = std::string("[bp_log-845]Rename file ") + g_szLog + " to " + g_szBackup;
    EXPECT_EQ(stErr.Stop(), szRename + " failed:No such file or directory\n" + "[bp_log-878]Open file " +
                                g_szLog + " failed:Is a directory\n" + szRename + " failed:Is a directory\n");
}

TEST(Log, TableFull_RegistrationFails) {
    BP_InitLog("a process name of more than thirty-one characters");
    for (uint32_t i = 1; i < BP_LOG_MODULE_NUM; i++) {
        ASSERT_EQ(BP_RegCmdModuleID("m", 0, 0, i), BP_OK);
    }
    EXPECT_EQ(BP_RegCmdModuleID("m", 0, 0, 99), BP_ERR_FAIL);
    EXPECT_STREQ(g_stBPLogMgr.astLogModule[0].stLogFile.szBakName,
                 "/var/log/a process name of more than thi01.log");
}

// Five rotations, of which each leaves one backup: what is there is the end of what each thread wrote, without
// a gap.
TEST(Log, ManyThreadsThroughRotations_NoLineIsTornOrMissing) {
    StartLog();
    static constexpr int lThreads = 16;
    static constexpr int lLines = 400;
    Threads(lThreads, [](uint32_t i) {
        for (int j = 0; j < lLines; j++) {
            LOG(BP_LOG_LEVEL_INFO, BP_LOG_BP_MODULE_ID, "<%u %d %s>", i, j,
                std::string(60, static_cast<char>('a' + i)).c_str());
        }
    });
    std::istringstream stText(ReadFile(g_szBackup) + ReadFile(g_szLog));
    std::string szLine;
    int lFound = 0;
    int alLast[lThreads] = {};
    while (std::getline(stText, szLine)) {
        int lThread = 0;
        int lNumber = 0;
        ASSERT_EQ(sscanf(szLine.c_str() + szLine.find('<'), "<%d %d", &lThread, &lNumber), 2) << szLine;
        ASSERT_TRUE(Matches(szLine, "^[^<]*<[0-9]+ [0-9]+ " + std::string(60, 'a' + lThread) + ">\r$"))
            << szLine;
        ASSERT_TRUE(alLast[lThread] == 0 || lNumber == alLast[lThread] + 1) << szLine;
        alLast[lThread] = lNumber;
        lFound++;
    }
    for (const int lLast : alLast) {
        EXPECT_TRUE(lLast == 0 || lLast == lLines - 1); // 0: through before the last rotation but one
    }
    EXPECT_GT(lFound, 1200);
    EXPECT_LT(ReadFile(g_szLog).size(), BP_LOG_FILE_LIMIT);
}

static std::string ThreadFile() {
    return ReadFile("/tmp/ThreadInfo[" + std::to_string(getpid()) + "].log");
}

static std::string RecordInThread(const std::string &szName) {
    std::string szLine;
    std::thread([&] {
        BP_RecordThreadInfo(szName.c_str());
        szLine = szName + ":" + std::to_string(syscall(SYS_gettid)) + "\n";
        char szTaskName[16] = {};
        prctl(PR_GET_NAME, szTaskName);
        szLine += szName.substr(0, 15) == szTaskName ? "" : " but is named " + std::string(szTaskName);
    }).join();
    return szLine;
}

TEST(ThreadInfo, ListsThreadsInTheirPlaces) {
    BP_RecordThreadInfo("too early");
    EXPECT_EQ(ThreadFile(), "");
    StartLog();
    const std::string szPath = "/tmp/ThreadInfo" + std::to_string(getpid()).substr(0, 1) + ".log";
    WriteFile(szPath, "matches the file's name as a pattern");
    const std::string szOne = RecordInThread("one");
    const std::string szLong = RecordInThread("a module with a long name");
    const std::string szThree = RecordInThread("three");
    EXPECT_EQ(ThreadFile(), szOne + szLong + szThree);
    const std::string szAgain = RecordInThread("a module with a long name");
    EXPECT_EQ(ThreadFile(), szOne + szAgain + szThree);
    EXPECT_TRUE(FileExists(szPath));

    for (int i = 3; i < 101; i++) {
        RecordInThread("t" + std::to_string(i));
    }
    EXPECT_EQ(CountOf(ThreadFile(), "\n"), 100U);
    EXPECT_EQ(CountOf(ThreadFile(), "t100:"), 0U);
}

TEST(Shell, ReportsWaitStatus) {
    EXPECT_EQ(BP_System(nullptr), 0);
    EXPECT_EQ(BP_System("exit 3"), 768);
    EXPECT_EQ(BP_System("/no/such/program 2>/dev/null"), 32512);
    EXPECT_EQ(BP_System("kill -9 $$"), 9);
}

static void *HandlerOf(int lSignal) {
    struct sigaction stAction = {};
    sigaction(lSignal, nullptr, &stAction);
    return reinterpret_cast<void *>(stAction.sa_handler);
}

TEST(Shell, OverlappingRuns_RestoreSignalsAfterTheLast) {
    signal(SIGINT, [](int) {});
    signal(SIGQUIT, SIG_DFL); // a shell that runs the test in the background has it ignored
    void *pHandler = HandlerOf(SIGINT);
    void *pIgnored = reinterpret_cast<void *>(SIG_IGN);
    std::thread stLong([] { BP_System("until [ -e go ]; do sleep 0.01; done"); });
    ASSERT_TRUE(WaitFor([&] { return HandlerOf(SIGINT) == pIgnored; }));
    for (int i = 0; i < 20; i++) {
        BP_System(":");
        EXPECT_EQ(HandlerOf(SIGINT), pIgnored); // the long run is still under way
    }
    kill(getpid(), SIGINT);
    WriteFile("go", "");
    stLong.join();
    EXPECT_EQ(HandlerOf(SIGINT), pHandler);
    EXPECT_EQ(HandlerOf(SIGQUIT), reinterpret_cast<void *>(SIG_DFL));
    sigset_t stMask;
    pthread_sigmask(SIG_BLOCK, nullptr, &stMask);
    EXPECT_EQ(sigismember(&stMask, SIGCHLD), 0);
}
