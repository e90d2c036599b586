// The log and the runtime's other files when the disk, or somebody else on the device, does not play along.
#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bp/bp.h"
#include "tests/support/capture.h"
#include "tests/support/files.h"
#include "tests/support/threads.h"

static const char g_szLog[] = "/var/log/ks00.log";
static const char g_szBackup[] = "/var/log/ks01.log";

// So many processes, each given its number; they end with the record.
class Processes {
public:
    Processes(uint32_t ulNum, const std::function<void(uint32_t)> &pfnRun) {
        for (uint32_t i = 0; i < ulNum; i++) {
            alPid_.push_back(fork());
            if (alPid_.back() == 0) {
                prctl(PR_SET_PDEATHSIG, SIGKILL);
                pfnRun(i);
                _exit(0);
            }
        }
    }
    Processes(const Processes &) = delete;
    ~Processes() {
        for (const pid_t lPid : alPid_) {
            waitpid(lPid, nullptr, 0);
        }
    }
    // Whether none has ended.
    bool Running() const {
        siginfo_t stInfo = {};
        return waitid(P_ALL, 0, &stInfo, WEXITED | WNOHANG | WNOWAIT) == 0 && stInfo.si_pid == 0;
    }

private:
    std::vector<pid_t> alPid_;
};

class LogFaults : public testing::Test {
protected:
    void SetUp() override {
        BP_InitLog("ks");
        ASSERT_EQ(BP_RegCmdModuleID("BP", 0, 0, BP_LOG_BP_MODULE_ID), BP_OK);
    }
    static void Log(const std::string &szText) {
        BP_WriteLog(BP_LOG_LEVEL_INFO, 0, BP_LOG_BP_MODULE_ID, "a.c", 1, "<%s>", szText.c_str());
    }
    // Every line of the file is whole; returns their number.
    static size_t WholeLines(const std::string &szFile) {
        std::istringstream stText(ReadFile(szFile));
        std::string szLine;
        size_t ulNum = 0;
        while (std::getline(stText, szLine)) {
            EXPECT_TRUE(Matches(szLine, "^[0-9-]{5} [0-9:]{8} [0-9]{3}\\[I\\(0\\)\\]\\[a.c-1\\]<[^<>]*>\r$"))
                << szLine;
            ulNum++;
        }
        return ulNum;
    }
};

static void WriteTo(BP_LogFile *pstFile, uint32_t ulLimit, const char *pcFormat, ...)
    __attribute__((format(printf, 3, 4)));
static void WriteTo(BP_LogFile *pstFile, uint32_t ulLimit, const char *pcFormat, ...) {
    va_list args;
    va_start(args, pcFormat);
    BP_LogWriteFile(pstFile, ulLimit, "11-23 05:00:00 000[I(0)][a.c-1]", pcFormat, args);
    va_end(args);
}

TEST_F(LogFaults, DiskFull_LinesAreWholeOrNotThere) {
    if (!MountSmall("/var/log", 8192)) {
        GTEST_SKIP() << "needs a mount namespace of its own";
    }
    Capture stErr(stderr);
    for (int i = 0; i < 200; i++) {
        Log(std::to_string(i) + std::string(100, 'x'));
    }
    const size_t ulWritten = WholeLines(g_szLog);
    const std::string szErr = stErr.Stop();
    EXPECT_GT(ulWritten, 20U);
    EXPECT_EQ(CountOf(szErr, "[bp_log-903]Write file /var/log/ks00.log failed:No space left on device\n"),
              200 - ulWritten);
    mount("tmpfs", "/var/log", "tmpfs", MS_REMOUNT, "size=65536");
    Log("room again");
    EXPECT_EQ(WholeLines(g_szLog), ulWritten + 1);
}

// Four processes write to a disk that is full except for a moment now and then, and their file is moved away.
TEST_F(LogFaults, DiskFull_SharedFile_LinesAreWholeOrTheirLossIsSaid) {
    static constexpr uint32_t ulWriters = 4;
    static constexpr uint32_t ulLines = 12000;
    if (!MountSmall("/var/log", 2000 * 4096)) { // room for all and the filler
        GTEST_SKIP() << "needs a mount namespace of its own";
    }
    Capture stErr(stderr);
    std::vector<std::string> aszFile = {g_szLog};
    {
        const Processes stWriters(ulWriters, [](uint32_t i) {
            BP_LogFile stFile = {};
            BP_LogInitFile(&stFile, "ks", ".log");
            for (uint32_t j = 0; j < ulLines; j++) {
                WriteTo(&stFile, INT32_MAX, "<%s>", std::string(50 + (i + j) % 100, 'x').c_str());
            }
        });
        const std::string szPage(4096, 'f');
        const int lFiller = open("/var/log/filler", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        for (uint32_t i = 1; stWriters.Running(); i++) {
            while (write(lFiller, szPage.data(), szPage.size()) > 0) {
            }
            ASSERT_EQ(ftruncate(lFiller, lseek(lFiller, 0, SEEK_END) - 4096), 0);
            if (i % 3000 == 0) {
                aszFile.push_back("/var/log/aside" + std::to_string(aszFile.size()));
                rename(g_szLog, aszFile.back().c_str());
            }
        }
        close(lFiller);
    }
    size_t ulFound = 0;
    for (const std::string &szFile : aszFile) {
        ulFound += WholeLines(szFile);
    }
    const std::string szErr = stErr.Stop();
    EXPECT_EQ(ulFound + CountOf(szErr, "[bp_log-903]") + CountOf(szErr, "[bp_log-878]"), ulWriters * ulLines);
}

// Two consoles share their files: what one of them has rotated, the other leaves alone.
TEST_F(LogFaults, SharedFile_IsRotatedOnce) {
    const std::string szFull(130049, 'o');
    BP_LogFile astFile[2] = {};
    WriteFile(g_szLog, szFull);
    for (BP_LogFile &stFile : astFile) {
        BP_LogInitFile(&stFile, "ks", ".log");
    }
    for (BP_LogFile &stFile : astFile) {
        WriteTo(&stFile, BP_LOG_FILE_LIMIT, "<new>");
    }
    EXPECT_EQ(ReadFile(g_szBackup), szFull);
    EXPECT_EQ(WholeLines(g_szLog), 2U);
    for (BP_LogFile &stFile : astFile) {
        fclose(stFile.pstFp);
    }
}

// Rounds that all begin together, each too short for two rotations, so that every backup is seen.
TEST_F(LogFaults, FourProcessesThroughRotations_EveryLineIsThereInItsOrder) {
    static constexpr uint32_t ulWriters = 4;
    static constexpr uint32_t ulRounds = 70;
    static constexpr uint32_t ulLines = 240; // of at most 130 bytes
    auto *pstBarrier = static_cast<pthread_barrier_t *>(
        mmap(nullptr, sizeof(pthread_barrier_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    pthread_barrierattr_t stShared;
    pthread_barrierattr_init(&stShared);
    pthread_barrierattr_setpshared(&stShared, PTHREAD_PROCESS_SHARED);
    ASSERT_EQ(pthread_barrier_init(pstBarrier, &stShared, ulWriters + 1), 0);
    Capture stErr(stderr);
    std::vector<std::string> aszFile;
    {
        const Processes stWriters(ulWriters, [&](uint32_t i) {
            for (uint32_t j = 0; j < ulRounds * ulLines; j++) {
                if (j % ulLines == 0) {
                    pthread_barrier_wait(pstBarrier);
                    pthread_barrier_wait(pstBarrier);
                }
                Log(std::to_string(i) + " " + std::to_string(j) + " " + std::string(60 + (i + j) % 20, 'z'));
            }
            pthread_barrier_wait(pstBarrier);
        });
        for (uint32_t i = 0; i <= ulRounds; i++) {
            pthread_barrier_wait(pstBarrier); // all wait for the next round
            aszFile.push_back(ReadFile(g_szBackup));
            EXPECT_TRUE(aszFile.back().empty() || aszFile.back().size() + 1023 >= BP_LOG_FILE_LIMIT);
            EXPECT_LE(std::max(aszFile.back().size(), ReadFile(g_szLog).size()), BP_LOG_FILE_LIMIT);
            if (i < ulRounds) {
                pthread_barrier_wait(pstBarrier);
            }
        }
    }
    EXPECT_EQ(stErr.Stop(), "");
    aszFile.erase(std::unique(aszFile.begin(), aszFile.end()), aszFile.end());
    EXPECT_GT(aszFile.size(), 50U);
    aszFile.push_back(ReadFile(g_szLog));
    uint32_t aulNext[ulWriters] = {};
    for (const std::string &szText : aszFile) {
        for (size_t ulPos = szText.find('<'); ulPos != std::string::npos; ulPos = szText.find('<', ulPos + 1)) {
            uint32_t ulWriter = 0;
            uint32_t ulNumber = 0;
            ASSERT_EQ(sscanf(szText.c_str() + ulPos, "<%u %u", &ulWriter, &ulNumber), 2);
            ASSERT_EQ(ulNumber, aulNext[ulWriter]++) << ulWriter;
        }
    }
    for (const uint32_t ulNext : aulNext) {
        EXPECT_EQ(ulNext, ulRounds * ulLines);
    }
}

TEST_F(LogFaults, LockThatIsNotGivenBack_HoldsNothingUpForEver) {
    static constexpr size_t ulLines = 300; // to wait half a second for each would outlast the test
    Log("before");
    const int lFd = open(g_szLog, O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(flock(lFd, LOCK_EX | LOCK_NB), 0); // given back with the end of the line
    for (size_t i = 0; i < ulLines; i++) {
        Log("meanwhile");
    }
    EXPECT_EQ(WholeLines(g_szLog), ulLines + 1);
    ASSERT_EQ(truncate(g_szLog, 130049), 0);
    Log("new");
    EXPECT_EQ(ReadFile(g_szBackup).size(), 130049U);
    EXPECT_EQ(WholeLines(g_szLog), 1U);
    close(lFd);
}

TEST_F(LogFaults, LongLine_IsWrittenWhole) {
    const size_t aulLen[] = {0, 2010, 2011, 2012, 2013, 2014, 2015, 2016, 2017, 100000};
    for (const size_t ulLen : aulLen) {
        Log(std::string(ulLen, 'x'));
        EXPECT_EQ(CountOf(ReadFile(g_szLog), "<" + std::string(ulLen, 'x') + ">\r\n"), 1U) << ulLen;
    }
    EXPECT_EQ(WholeLines(g_szLog), std::size(aulLen));
}

TEST_F(LogFaults, ReadOnly_SaysSoAndResumes) {
    if (!MountSmall("/var/log", 65536)) {
        GTEST_SKIP() << "needs a mount namespace of its own";
    }
    mount("tmpfs", "/var/log", "tmpfs", MS_REMOUNT | MS_RDONLY, "");
    Capture stErr(stderr);
    Log("lost");
    EXPECT_EQ(CountOf(stErr.Stop(), "[bp_log-878]Open file /var/log/ks00.log failed:Read-only file system\n"),
              1U);
    mount("tmpfs", "/var/log", "tmpfs", MS_REMOUNT, "");
    Log("kept");
    EXPECT_EQ(WholeLines(g_szLog), 1U);
}

TEST_F(LogFaults, DirectoryRemoved_IsMadeAgain) {
    if (!MountSmall("/var", 65536)) { // there /var/log is a directory like any other, and missing
        GTEST_SKIP() << "needs a mount namespace of its own";
    }
    for (int i = 0; i < 3; i++) {
        Log("kept");
        EXPECT_EQ(WholeLines(g_szLog), 1U);
        unlink(g_szLog);
        EXPECT_EQ(rmdir("/var/log"), 0);
    }
}

// Sixteen threads write, while the file under them is removed, moved, replaced and blocked: each line is in one
// of the files, or its loss has been said.
TEST_F(LogFaults, FileChangesUnderManyThreads_EveryLineIsWholeOrAccountedFor) {
    static constexpr int lThreads = 16;
    static constexpr int lLines = 60; // few enough for one file, so that no backup is lost to the next one
    Capture stErr(stderr);
    std::atomic<int> lRunning{lThreads};
    std::vector<std::string> aszFile = {g_szLog};
    {
        const Threads stWriters(lThreads, [&](uint32_t i) {
            for (int j = 0; j < lLines; j++) {
                Log(std::to_string(i) + " " + std::to_string(j) + std::string(60, 'y'));
                usleep(100);
            }
            lRunning--;
        });
        while (lRunning > 0) {
            if (aszFile.size() % 2 == 0) {
                mkdir(g_szLog, 0755);
            }
            aszFile.push_back("/var/log/ks_test_aside" + std::to_string(aszFile.size()));
            rename(g_szLog, aszFile.back().c_str());
            mkdir(g_szLog, 0755);
            usleep(300);
            rmdir(g_szLog);
            usleep(300);
        }
    }
    size_t ulFound = 0;
    for (const std::string &szFile : aszFile) {
        ulFound += WholeLines(szFile);
    }
    const std::string szErr = stErr.Stop();
    EXPECT_EQ(ulFound + CountOf(szErr, "[bp_log-878]Open file /var/log/ks00.log failed:"), lThreads * lLines)
        << szErr;
    EXPECT_GT(ulFound, 0U);
    rmdir(g_szLog);
    Log("after all");
    EXPECT_EQ(CountOf(ReadFile(g_szLog), "<after all>"), 1U);
}

// Whatever has been planted under the name of one of the runtime's files, nothing else is written to, and
// nobody waits.
TEST_F(LogFaults, PlantedNames_HarmNobody) {
    const std::string szThreads = "/tmp/ThreadInfo[" + std::to_string(getpid()) + "].log";
    const std::string szPath = getenv("PATH");
    BP_Write(BP_FindLogModule(BP_LOG_BP_MODULE_ID)->ulDebugOn, 1U);
    const std::function<int(const char *, const char *)> apfnPlant[] = {
        symlink,
        link,
        [](const char *, const char *pcName) { return mkfifo(pcName, 0666); },
        [](const char *, const char *pcName) { return symlink("/tmp/ks_test_none", pcName); },
    };
    for (const auto &pfnPlant : apfnPlant) {
        for (const std::string &szName :
             {std::string(g_szLog), std::string("/var/log/ks00.debug"), std::string("/var/log/ks00.buf"),
              std::string(BP_SLAB_DUMP_PATH), std::string(BP_TIMER_DUMP_PATH), std::string(BP_KEY_DUMP_PATH),
              szThreads}) {
            const std::string szVictim = szName.substr(0, szName.rfind('/')) + "/ks_test_victim";
            WriteFile(szVictim, "precious");
            unlink(szName.c_str());
            ASSERT_EQ(pfnPlant(szVictim.c_str(), szName.c_str()), 0) << szName;
        }
        Capture stErr(stderr);
        Log("not there");
        for (const uint32_t ulLevel : {BP_LOG_LEVEL_DEBUG, BP_LOG_LEVEL_BUF}) {
            BP_WriteLog(ulLevel, 0, BP_LOG_BP_MODULE_ID, "a.c", 1, "not there");
        }
        EXPECT_EQ(BP_WriteDumpFile(BP_SLAB_DUMP_PATH, "dump", 4), BP_ERR_FAIL);
        EXPECT_EQ(BP_WriteDumpFile(BP_TIMER_DUMP_PATH, "dump", 4), BP_ERR_FAIL);
        EXPECT_EQ(BP_TailFile("/tmp/ks_test_victim", BP_KEY_DUMP_PATH, "w", 3), BP_ERR_FAIL);
        const std::string szErr = stErr.Stop();
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

// Formats, patterns and shell commands in what is only text.
TEST_F(LogFaults, TextIsOnlyText) {
    static const std::string szTrick = "%s%n%1000000d $(touch pwned) `touch pwned` '; touch pwned; #";
    Log(szTrick);
    EXPECT_EQ(CountOf(ReadFile(g_szLog), "<" + szTrick + ">\r\n"), 1U);
    BP_RecordThreadInfo(szTrick.c_str());
    EXPECT_EQ(
        CountOf(ReadFile("/tmp/ThreadInfo[" + std::to_string(getpid()) + "].log"), szTrick.substr(0, 63) + ":"),
        1U);
    EXPECT_FALSE(FileExists("pwned"));
}
