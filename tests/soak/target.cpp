#include "tests/soak/target.h"

#include <climits>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <sys/wait.h>

#include "tests/support/files.h"

// What a process may grow by after its warm-up. Pools and stacks are touched page by page as load comes, so a
// short warm-up leaves more to come; a sanitizer's own memory grows with what the program does.
static long SlackKib() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return LONG_MAX / 2;
#else
    return g_dWarmUpSec < 60 ? 512 : 128;
#endif
}
static constexpr double SOAK_LATE_SEC = 11; // more than a console waits

// Log files do not count: they are opened when they are first needed, and stay.
void Life::Measure(pid_t lPid) {
    const std::string szProc = "/proc/" + std::to_string(lPid);
    const std::string szStatus = ReadFile(szProc + "/status");
    lKib = atol(szStatus.c_str() + szStatus.find("VmRSS:") + strlen("VmRSS:"));
    ulFds = 0;
    std::error_code stError; // a descriptor may be gone before it is looked at
    for (const auto &stEntry : std::filesystem::directory_iterator(szProc + "/fd")) {
        const std::string szFile = std::filesystem::read_symlink(stEntry.path(), stError);
        ulFds += Matches(szFile, "^/var/log/[A-Za-z_]+00\\.(log|debug|buf)$") ? 0 : 1;
    }
    if (!bWarm && Now() - dBorn >= g_dWarmUpSec) {
        bWarm = true;
        lWarmKib = lKib;
        ulWarmFds = ulFds;
    }
}

void Life::Judge(const std::string &szName, pid_t lPid) {
    const bool bSame = WaitFor([&] {
        Measure(lPid);
        return ulFds <= ulWarmFds && lKib <= lWarmKib + SlackKib();
    });
    printf("%-20s lived %.0f s: %ld -> %ld KiB resident, %zu -> %zu descriptors\n", szName.c_str(),
           Now() - dBorn, lWarmKib, lKib, ulWarmFds, ulFds);
    Require(bSame, szName + " uses more than after its warm-up");
}

Target::Target(const char *pcName) : szName(pcName) {
    Start();
}

void Target::Start() {
    std::vector<std::string> aszArg = {KS_MWARE_PATH, szName};
    if (Random(2) == 0) {
        aszArg.emplace_back("prompt");
    }
    pstChild = std::make_unique<Child>(aszArg);
    Require(pstChild->WaitForOutput("ready"), szName + " did not start");
    stLife = Life();
    dNext_ = Now() + 1 + RandomSec(8);
}

void Target::Resume() {
    if (pstChild == nullptr) {
        Start();
    } else {
        pstChild->Signal(SIGCONT);
        dNext_ = Now() + 1 + RandomSec(8);
    }
}

void Target::Step(bool bDisturb) {
    siginfo_t stEnd = {};
    if (pstChild != nullptr) {
        waitid(P_PID, static_cast<id_t>(pstChild->Pid()), &stEnd, WEXITED | WNOHANG | WNOWAIT);
    }
    Require(stEnd.si_pid == 0, szName + " ended by itself, status " + std::to_string(stEnd.si_status));
    if (bRuns && !stLife.bWarm) {
        stLife.Measure(pstChild->Pid());
    }
    if (bDisturb ? Now() < dNext_ : bRuns) {
        return;
    }
    if (!bRuns) {
        Resume();
    } else if (Random(3) == 0) {
        pstChild.reset();
        dNext_ = Now() + RandomSec(3);
        g_stFigures.ulTargetKills++;
    } else {
        pstChild->Signal(SIGSTOP);
        dNext_ = Now() + (Random(4) == 0 ? SOAK_LATE_SEC : RandomSec(2));
        g_stFigures.ulTargetStops++;
    }
    bRuns = !bRuns;
}
