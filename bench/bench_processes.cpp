// What the programs cost that an engineer and a device meet: bench_processes SECONDS
//
// Prints a JSON object: the time from the console's start to its first prompt beside a live target, and the
// memory and the processor time of the console and of an idle process on the bus at either pace, over so many
// seconds.
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "bench/program.h"
#include "bp/bp.h"
#include "tests/support/files.h"

static constexpr int BENCH_STARTS = 21;

// A process on the bus without modules of its own, so that nothing is measured but the runtime. As it has no
// port, one of each pace can run at once.
static pid_t StartIdle(uint32_t ulPrompt) {
    const pid_t lPid = fork();
    if (lPid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        BP_SetPromptDelivery(ulPrompt);
        BP_MwareInit("ks", 257);
        for (;;) {
            pause();
        }
    }
    return lPid;
}

// Nanoseconds that all its threads have run.
static double CpuNs(pid_t lPid) {
    double dNs = 0;
    FILE *pstThreads = popen(("cat /proc/" + std::to_string(lPid) + "/task/*/schedstat").c_str(), "r");
    char szLine[128];
    while (pstThreads != nullptr && fgets(szLine, sizeof(szLine), pstThreads) != nullptr) {
        dNs += atof(szLine);
    }
    if (pstThreads != nullptr) {
        pclose(pstThreads);
    }
    return dNs;
}

static long RssKib(pid_t lPid) {
    const std::string szStatus = ReadFile("/proc/" + std::to_string(lPid) + "/status");
    return atol(szStatus.c_str() + szStatus.find("VmRSS:") + strlen("VmRSS:"));
}

static std::vector<double> StartTimesMs() {
    std::vector<double> adMs;
    for (int i = 0; i < BENCH_STARTS; i++) {
        const int64_t lStart = BP_NowMs();
        Program stKs({KS_PATH});
        stKs.ReadUntil("<dbg>");
        adMs.push_back(static_cast<double>(BP_NowMs() - lStart));
        stKs.Type("quit\r");
        stKs.WaitExit();
    }
    std::sort(adMs.begin(), adMs.end());
    return adMs;
}

int main(int argc, char **argv) {
    const unsigned uSeconds = argc > 1 ? static_cast<unsigned>(atoi(argv[1])) : 0;
    if (uSeconds == 0) {
        fprintf(stderr, "usage: bench_processes SECONDS\n");
        return 2;
    }
    const std::unique_ptr<Program> pstMware = StartExample(KS_MWARE_PATH);
    const std::vector<double> adMs = StartTimesMs();
    printf("{\"start_ms\": [%g, %g, %g]", adMs[adMs.size() / 2], adMs.front(), adMs.back());

    Program stKs({KS_PATH});
    stKs.ReadUntil("<dbg>");
    const struct {
        const char *pcName;
        pid_t lPid;
    } astProcess[] = {{"ks", stKs.Pid()},
                      {"example process", pstMware->Pid()},
                      {"idle process, default pace", StartIdle(0)},
                      {"idle process, prompt pace", StartIdle(1)}};
    sleep(1);
    std::vector<double> adCpu;
    for (const auto &stProcess : astProcess) {
        adCpu.push_back(CpuNs(stProcess.lPid));
    }
    sleep(uSeconds);
    for (size_t i = 0; i < std::size(astProcess); i++) {
        printf(", \"%s\": {\"kib\": %ld, \"cpu_ms_per_s\": %.4f}", astProcess[i].pcName,
               RssKib(astProcess[i].lPid), (CpuNs(astProcess[i].lPid) - adCpu[i]) / 1e6 / uSeconds);
    }
    printf("}\n");
    for (const auto &stProcess : {astProcess[2], astProcess[3]}) {
        kill(stProcess.lPid, SIGKILL);
        waitpid(stProcess.lPid, nullptr, 0);
    }
    return 0;
}
