// The console's side: the largest command tree that fits one message, and a line in it.
#include <cstring>
#include <fcntl.h>
#include <malloc.h>
#include <string>
#include <unistd.h>

#include "bench/bench_support.h"
#include "console/cli_cmd.h"

static constexpr size_t BENCH_TEXT_SIZE = 8152; // payload of the longest message
static constexpr uint32_t BENCH_GROUPS = 20;

// Twenty words, each with as many words below it as there is room for, each of which ends a command.
static std::string Definitions() {
    static const std::string szEnd = "e\nend\n0\n";
    std::string szText;
    for (uint32_t ulWords = 1;; ulWords++) {
        std::string szNext = "\nheader\ndisplay\ntitle d\n" + std::to_string(BENCH_GROUPS) + "\n";
        for (uint32_t i = 0; i < BENCH_GROUPS; i++) {
            szNext += "group" + std::to_string(i) + "\ntitle g\n" + std::to_string(ulWords) + "\n";
            for (uint32_t j = 0; j < ulWords; j++) {
                szNext += "w" + std::to_string(j) + "\ntitle w\n1\n" + szEnd;
            }
        }
        if (szNext.size() > BENCH_TEXT_SIZE) {
            return szText;
        }
        szText = szNext;
    }
}

// Whether the heap's last pages go back to the kernel after each round, and fault again in the next, would hang
// on a few bytes more or less.
static void KeepHeap() {
    mallopt(M_TRIM_THRESHOLD, 1 << 30);
}

static void TreeFloor(benchmark::State &state) {
    KeepHeap();
    const std::string szText = Definitions();
    for (auto _ : state) {
        std::vector<void *> apEntry;
        apEntry.reserve(1000);
        uint32_t ulLines = 0;
        for (const char *pcLine = szText.c_str(); pcLine != nullptr; ulLines++) {
            if (ulLines % 3 == 0) {
                apEntry.push_back(calloc(1, sizeof(CLI_CMD_NODE)));
            }
            pcLine = strchr(pcLine, '\n');
            pcLine = pcLine != nullptr ? pcLine + 1 : nullptr;
        }
        for (void *pEntry : apEntry) {
            free(pEntry);
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(TreeFloor)->Name("tree/floor");

static void Build(const std::string &szText) {
    CLI_InitNodeRoot(&g_pCmdTempletRoot);
    CLI_InitNodeRoot(&g_pCmdNodeRoot);
    CLI_BuildCmdTree(szText.c_str());
}

static void Free() {
    CLI_FreeTree(g_pCmdTempletRoot);
    CLI_FreeTree(g_pCmdNodeRoot);
    g_pCmdTempletRoot = g_pCmdNodeRoot = nullptr;
}

static void TreeRuntime(benchmark::State &state) {
    KeepHeap();
    const std::string szText = Definitions();
    for (auto _ : state) {
        Build(szText);
        Free();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(TreeRuntime)->Name("tree/runtime");

// What the line prints goes nowhere.
static void LineRuntime(benchmark::State &state) {
    Build(Definitions());
    const int lStdout = dup(STDOUT_FILENO);
    const int lNull = open("/dev/null", O_WRONLY | O_CLOEXEC);
    fflush(stdout);
    dup2(lNull, STDOUT_FILENO);
    for (auto _ : state) {
        strcpy(g_szLineBuf, "display group19 w1\t");
        CLI_MainProcess();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
    fflush(stdout);
    dup2(lStdout, STDOUT_FILENO);
    close(lStdout);
    close(lNull);
    if (strncmp(g_szLineBuf, "display group19 w1", 18) != 0) {
        state.SkipWithError("the line was not matched");
    }
    Free();
}
BENCHMARK(LineRuntime)->Name("line/runtime");
