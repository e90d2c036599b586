// The log and the runtime's other files when the disk, or somebody else on the device, does not play along.
#include <gtest/gtest.h>
#include <sstream>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "bp/bp.h"
#include "tests/support/capture.h"
#include "tests/support/files.h"
#include "tests/support/threads.h"

static const char g_szLog[] = "/var/log/ks00.log";

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

static void WriteTo(BP_LogFile *pstFile, const char *pcFormat, ...) __attribute__((format(printf, 2, 3)));
static void WriteTo(BP_LogFile *pstFile, const char *pcFormat, ...) {
    va_list args;
    va_start(args, pcFormat);
    BP_LogWriteFile(pstFile, BP_LOG_FILE_LIMIT, "11-23 05:00:00 000[I(0)][a.c-1]", pcFormat, args);
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

// Two writers with a file description each, as two consoles have them.
TEST_F(LogFaults, DiskFull_SharedFile_LinesAreWholeOrNotThere) {
    static constexpr uint32_t ulWriters = 2;
    static constexpr uint32_t ulLines = 500;
    if (!MountSmall("/var/log", 16384)) {
        GTEST_SKIP() << "needs a mount namespace of its own";
    }
    Capture stErr(stderr);
    Threads(ulWriters, [](uint32_t i) {
        BP_LogFile stFile = {};
        BP_LogInitFile(&stFile, "ks", ".log");
        for (uint32_t j = 0; j < ulLines; j++) {
            WriteTo(&stFile, "<%s>", std::string(50 + (i + j) % 100, 'x').c_str());
        }
        fclose(stFile.pstFp);
    });
    const size_t ulWritten = WholeLines(g_szLog);
    EXPECT_GT(ulWritten, 20U);
    EXPECT_EQ(CountOf(stErr.Stop(), "[bp_log-903]"), ulWriters * ulLines - ulWritten);
}

// Two consoles share their files: what one of them has rotated, the other leaves alone.
TEST_F(LogFaults, SharedFile_IsRotatedOnce) {
    BP_LogFile astFile[2] = {};
    WriteFile(g_szLog, std::string(BP_LOG_FILE_LIMIT - 1500, 'o'));
    for (BP_LogFile &stFile : astFile) {
        BP_LogInitFile(&stFile, "ks", ".log");
    }
    for (const char cText : {'x', 'y'}) {
        for (BP_LogFile &stFile : astFile) {
            WriteTo(&stFile, "<%s>", std::string(500, cText).c_str());
        }
    }
    for (BP_LogFile &stFile : astFile) {
        fclose(stFile.pstFp);
    }
    EXPECT_EQ(CountOf(ReadFile("/var/log/ks01.log"), "<xxx"), 2U);
    EXPECT_EQ(CountOf(ReadFile(g_szLog), "<yyy"), 2U);
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
            aszFile.push_back("/var/log/aside" + std::to_string(aszFile.size()));
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
        [](const char *, const char *pcName) { return symlink("/tmp/not there yet", pcName); },
    };
    for (const auto &pfnPlant : apfnPlant) {
        for (const std::string &szName :
             {std::string(g_szLog), std::string("/var/log/ks00.debug"), std::string("/var/log/ks00.buf"),
              std::string(BP_SLAB_DUMP_PATH), std::string(BP_TIMER_DUMP_PATH), std::string(BP_KEY_DUMP_PATH),
              szThreads}) {
            const std::string szVictim = szName.substr(0, szName.rfind('/')) + "/victim";
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
        EXPECT_EQ(BP_TailFile("/tmp/victim", BP_KEY_DUMP_PATH, "w", 3), BP_ERR_FAIL);
        const std::string szErr = stErr.Stop();
        EXPECT_EQ(CountOf(szErr, "[bp_log-878]Open file /var/log/ks00.log failed:"), 4U); // as for each refusal
        EXPECT_EQ(CountOf(szErr, "[bp_log-878]Open file "), 6U);
        BP_RecordThreadInfo("name"); // removes what is there first
        EXPECT_EQ(CountOf(ReadFile(szThreads), "name:"), 1U);
        unlink(szThreads.c_str());
        ASSERT_EQ(pfnPlant("/tmp/victim", szThreads.c_str()), 0);
        setenv("PATH", "/nowhere", 1); // rm fails, as on another user's link in a sticky directory
        BP_RecordThreadInfo("name");
        setenv("PATH", szPath.c_str(), 1);
        EXPECT_EQ(ReadFile("/tmp/victim") + ReadFile("/var/log/victim"), "preciousprecious");
        EXPECT_FALSE(FileExists("/tmp/not there yet"));
    }
    ASSERT_EQ(symlink("/tmp/victim", "/tmp/source"), 0);
    unlink(BP_KEY_DUMP_PATH);
    EXPECT_EQ(BP_TailFile("/tmp/source", BP_KEY_DUMP_PATH, "w", 3), BP_ERR_FAIL);
    EXPECT_EQ(CountOf(ReadFile(BP_KEY_DUMP_PATH), "precious"), 0U);
}

// Formats, patterns and shell commands in what is only text.
TEST_F(LogFaults, TextIsOnlyText) {
    static const std::string szTrick =
        "%s%n%1000000d $(touch /tmp/pwned) `touch /tmp/pwned` '; touch /tmp/pwned; #";
    Log(szTrick);
    EXPECT_EQ(CountOf(ReadFile(g_szLog), "<" + szTrick + ">\r\n"), 1U);
    BP_RecordThreadInfo(szTrick.c_str());
    EXPECT_EQ(
        CountOf(ReadFile("/tmp/ThreadInfo[" + std::to_string(getpid()) + "].log"), szTrick.substr(0, 63) + ":"),
        1U);
    EXPECT_FALSE(FileExists("/tmp/pwned"));
}
