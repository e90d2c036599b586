// Both example processes and three consoles on real terminals, under random load, faults and hostile datagrams
// that are all drawn from one seed; at the end the proof that nothing was lost, kept or left behind.
//
// The last third of the run neither kills nor stops the example processes and leaves two consoles alone, so
// that what they use at the end can be compared with what they used after their warm-up. One thread does
// everything, a step of each actor at a time.
#include <algorithm>
#include <array>
#include <filesystem>
#include <unistd.h>

#include "tests/soak/engineer.h"
#include "tests/soak/noise.h"
#include "tests/support/files.h"
#include "tests/support/sandbox.h"

static constexpr int SOAK_STRICT_ROUNDS = 30;

class Soak {
public:
    void Run(double dSeconds) {
        bool bCounting = false;
        for (double dMinute = 60; Now() < dSeconds || !AllWarm(); usleep(10000)) {
            const bool bCalm = Now() > dSeconds * 2 / 3;
            if (bCalm && !bCounting && AllWarm()) {
                bCounting = true;
                astEngineer_[0].BeginCalm();
                astEngineer_[1].BeginCalm();
            }
            for (Target &stTarget : astTarget_) {
                stTarget.Step(!bCalm);
            }
            for (Engineer &stEngineer : astEngineer_) {
                stEngineer.Step(!bCalm || &stEngineer == &astEngineer_[2]);
            }
            stNoise_.Step();
            if (Now() > dMinute) {
                dMinute += 60;
                Print();
            }
        }
        Finish();
    }

    static void Print() {
        const auto &st = g_stFigures;
        printf("%.1f min: %u commands: %u answered, %u refused, %u timed out, %u otherwise; %u other lines, %u "
               "floods, %u datagrams; example processes: %u kills, %u stops; consoles: %u kills, %u quits\n",
               Now() / 60, st.ulSent, st.ulAnswered, st.ulRefused, st.ulTimedOut, st.ulOther, st.ulKeys,
               st.ulFloods, st.ulDatagrams, st.ulTargetKills, st.ulTargetStops, st.ulConsoleKills,
               st.ulConsoleQuits);
        fflush(stdout);
    }

private:
    bool AllWarm() const {
        return std::all_of(astTarget_.begin(), astTarget_.end(),
                           [](const Target &stTarget) { return stTarget.bRuns && stTarget.stLife.bWarm; }) &&
               astEngineer_[0].stLife.bWarm && astEngineer_[1].stLife.bWarm;
    }

    // All is quiet: nothing is excused any more, and everything must be as it was.
    void Finish() {
        astEngineer_[0].EndCalm();
        astEngineer_[1].EndCalm();
        for (Engineer &stEngineer : astEngineer_) {
            stEngineer.Settle();
        }
        RequireFullPools();
        for (int i = 0; i < SOAK_STRICT_ROUNDS; i++) {
            for (Engineer &stEngineer : astEngineer_) {
                stEngineer.AskAnything();
            }
        }
        RequireFullPools();
        for (Target &stTarget : astTarget_) {
            stTarget.stLife.Judge(stTarget.szName, stTarget.pstChild->Pid());
        }
        for (Engineer *pstEngineer : {&astEngineer_[0], &astEngineer_[1]}) {
            pstEngineer->stLife.Judge(pstEngineer->szName, pstEngineer->Pid());
        }
        RequireNoZombies();
        for (Engineer &stEngineer : astEngineer_) {
            stEngineer.End(0);
            stEngineer.Settle();
        }
        RequireCleanTmp();
    }

    // The request that asks has a buffer itself, and now and then a notice and what follows from it are under
    // way.
    void RequireFullPools() {
        for (Engineer *pstEngineer : {&astEngineer_[0], &astEngineer_[1]}) {
            std::string szPools;
            const bool bFull = WaitFor([&] {
                szPools = pstEngineer->Ask(g_stPoolsCommand);
                return CountOf(szPools, "0     128     256    255    1\r\n") == 1 &&
                       CountOf(szPools, " 0\r\n") == 7;
            });
            Require(bFull, "buffers are missing in the target of the " + pstEngineer->szName + ": " + szPools);
        }
    }

    void RequireNoZombies() const {
        std::vector<pid_t> alOurs = {getpid()};
        for (const Target &stTarget : astTarget_) {
            alOurs.push_back(stTarget.pstChild->Pid());
        }
        for (const Engineer &stEngineer : astEngineer_) {
            alOurs.push_back(stEngineer.Pid());
        }
        const bool bNone = WaitFor([&] {
            std::string szStats; // of every process: ID (name) state parent ...
            for (const auto &stEntry : std::filesystem::directory_iterator("/proc")) {
                szStats += ReadFile(stEntry.path() / "stat");
            }
            return std::none_of(alOurs.begin(), alOurs.end(), [&](pid_t lPid) {
                return szStats.find(") Z " + std::to_string(lPid) + " ") != std::string::npos;
            });
        });
        Require(bNone, "a child became a zombie");
    }

    static void RequireCleanTmp() {
        for (const auto &stEntry : std::filesystem::directory_iterator("/tmp")) {
            const std::string szName = stEntry.path().filename();
            Require(stEntry.is_directory() || Matches(szName, "^ThreadInfo\\[[0-9]+\\]\\.log$"),
                    "left in /tmp: " + szName + "\n" + ReadFile(stEntry.path()));
        }
    }

    Noise stNoise_;
    std::array<Target, 2> astTarget_{Target("MW_MWARE"), Target("MW_IWARE")};
    std::array<Engineer, 3> astEngineer_{Engineer(&astTarget_[0]), Engineer(&astTarget_[1]),
                                         Engineer(&astTarget_[0])};
};

// Where the programs' sanitizers report, if they were built with any: what stands there at the end is a
// failure.
static void ReportToTmp() {
    for (const char *pcName : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"}) {
        const char *pcOptions = getenv(pcName);
        setenv(pcName,
               (std::string(pcOptions != nullptr ? pcOptions : "") + ":log_path=/tmp/sanitizer").c_str(), 1);
    }
}

int main(int argc, char **argv) {
    const double dMinutes = argc > 1 ? atof(argv[1]) : 0;
    if (dMinutes <= 0 || !TestEnterSandbox(argv)) {
        fprintf(stderr, "usage: soak MINUTES [SEED], where private namespaces are permitted\n");
        return 2;
    }
    const uint32_t ulSeed =
        argc > 2 ? static_cast<uint32_t>(strtoul(argv[2], nullptr, 10)) : std::random_device()();
    g_stRandom.seed(ulSeed);
    g_dWarmUpSec = std::min(60.0, dMinutes * 60 / 6);
    ReportToTmp();
    printf("%g minutes, seed %u\n", dMinutes, ulSeed);
    fflush(stdout);
    std::string szFailure;
    try {
        Soak().Run(dMinutes * 60);
    } catch (const std::exception &stFailure) {
        szFailure = stFailure.what();
    }
    Soak::Print();
    printf("%s with seed %u%s%s\n", szFailure.empty() ? "passed" : "FAILED", ulSeed,
           szFailure.empty() ? "" : ": ", szFailure.c_str());
    return szFailure.empty() ? 0 : 1;
}
