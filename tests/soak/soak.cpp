// Soak: both example processes and three consoles on real terminals under random load, faults and hostile datagrams,
// all drawn from one seed, and at the end the proof that nothing was lost, kept or left behind.
//
// The first two thirds of the run kill and stop the processes; the last third leaves the example processes and two of
// the consoles alone, so that what they use then can be compared with what they used after their warm-up. One thread
// does everything, a step of each actor at a time.
#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <memory>
#include <random>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/bus_peer.h"
#include "tests/support/console.h"
#include "tests/support/files.h"

static constexpr double SOAK_HANG_SEC = 60; // no console may keep its prompt back longer
static constexpr double SOAK_ANSWER_SEC = 10;
static constexpr long SOAK_RSS_SLACK_KIB = 512; // pools, ring and stacks are touched page by page, as load comes
static constexpr int SOAK_STRICT_ROUNDS = 30;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
static constexpr bool SOAK_JUDGES_RSS = false; // the sanitizers' own memory grows with what the program does
#else
static constexpr bool SOAK_JUDGES_RSS = true;
#endif

struct SoakFigures {
    uint32_t ulSent, ulAnswered, ulRefused, ulOther, ulTimedOut, ulFloods, ulKeys, ulDatagrams;
    uint32_t ulTargetKills, ulTargetStops, ulConsoleKills, ulConsoleQuits;
};
static SoakFigures g_stFigures;
static std::mt19937 g_stRandom;
static double g_dWarmUpSec;

static uint32_t Random(size_t ulBelow) {
    return static_cast<uint32_t>(g_stRandom() % ulBelow);
}

static double RandomSec(double dMax) {
    return dMax * Random(1000) / 1000;
}

template <typename Table>
static const auto &OneOf(const Table &aRow) {
    return aRow[Random(std::size(aRow))];
}

static double Now() {
    static const auto stStart = std::chrono::steady_clock::now();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - stStart).count();
}

static void Require(bool bHolds, const std::string &szReason) {
    if (!bHolds) {
        throw std::runtime_error(szReason);
    }
}

static bool EndsWith(const std::string &szText, const std::string &szEnd) {
    return szText.size() >= szEnd.size() && szText.compare(szText.size() - szEnd.size(), szEnd.size(), szEnd) == 0;
}

// What a process uses. Its log files are opened when they are first needed and then stay, so they do not count.
struct Usage {
    long lRssKib = 0;
    size_t ulFds = 0;
};

static Usage UsageOf(pid_t lPid) {
    const std::string szProc = "/proc/" + std::to_string(lPid);
    const std::string szStatus = ReadFile(szProc + "/status");
    Usage stUsage;
    stUsage.lRssKib = atol(szStatus.c_str() + szStatus.find("VmRSS:") + 6);
    std::error_code stError; // a descriptor may be gone before it is looked at
    for (const auto &stEntry : std::filesystem::directory_iterator(szProc + "/fd")) {
        const std::string szFile = std::filesystem::read_symlink(stEntry.path(), stError);
        stUsage.ulFds += szFile.compare(0, 9, "/var/log/") != 0 ? 1 : 0;
    }
    return stUsage;
}

// One life of a process, from its start on.
struct Life {
    double dBorn = Now();
    bool bWarm = false;
    Usage stWarm;

    void Observe(pid_t lPid) {
        if (!bWarm && Now() - dBorn >= g_dWarmUpSec) {
            bWarm = true;
            stWarm = UsageOf(lPid);
        }
    }
    void Judge(const std::string &szName, pid_t lPid) const {
        Usage stEnd;
        const bool bSame = WaitFor([&] {
            stEnd = UsageOf(lPid);
            return stEnd.ulFds <= stWarm.ulFds &&
                   (!SOAK_JUDGES_RSS || stEnd.lRssKib <= stWarm.lRssKib + SOAK_RSS_SLACK_KIB);
        });
        printf("%-20s lived %.0f s: %ld -> %ld KiB resident, %zu -> %zu descriptors\n", szName.c_str(), Now() - dBorn,
               stWarm.lRssKib, stEnd.lRssKib, stWarm.ulFds, stEnd.ulFds);
        Require(bSame, szName + " uses more than after its warm-up");
    }
};

// An example process.
class Target {
public:
    explicit Target(const char *pcName) : pcName_(pcName) { Start(); }
    const char *Name() const { return pcName_; }
    bool Runs() const { return pstChild_ != nullptr && !bStopped_; }
    bool Warm() const { return Runs() && stLife_.bWarm; }
    void Judge() const { stLife_.Judge(pcName_, pstChild_->Pid()); }
    pid_t Pid() const { return pstChild_->Pid(); }

    void Step(bool bDisturb) {
        siginfo_t stEnd = {};
        Require(pstChild_ == nullptr ||
                    (waitid(P_PID, static_cast<id_t>(Pid()), &stEnd, WEXITED | WNOHANG | WNOWAIT) == 0 &&
                     stEnd.si_pid == 0),
                std::string(pcName_) + " ended by itself, status " + std::to_string(stEnd.si_status));
        if (Runs()) {
            stLife_.Observe(Pid());
        }
        if (Now() < dNext_ && (bDisturb || Runs())) {
            return;
        }
        if (pstChild_ == nullptr) {
            Start();
        } else if (bStopped_) {
            pstChild_->Signal(SIGCONT);
            bStopped_ = false;
            dNext_ = Now() + 1 + RandomSec(8);
        } else if (bDisturb) {
            Disturb();
        }
    }

private:
    void Start() {
        pstChild_ = std::make_unique<Child>(std::vector<std::string>{KS_MWARE_PATH, pcName_});
        Require(pstChild_->WaitForOutput("ready"), std::string(pcName_) + " did not start");
        stLife_ = Life();
        dNext_ = Now() + 2 + RandomSec(10);
    }
    void Disturb() {
        if (Random(3) == 0) {
            pstChild_.reset();
            dNext_ = Now() + RandomSec(3);
            g_stFigures.ulTargetKills++;
            return;
        }
        pstChild_->Signal(SIGSTOP);
        bStopped_ = true;
        dNext_ = Now() + (Random(4) == 0 ? SOAK_ANSWER_SEC + 1 : RandomSec(2)); // now and then answers come too late
        g_stFigures.ulTargetStops++;
    }

    const char *pcName_;
    std::unique_ptr<Child> pstChild_;
    bool bStopped_ = false;
    double dNext_ = 0;
    Life stLife_;
};

// line, what the answer holds (empty: there is none to see), the process that knows it (null: both)
struct SoakCommand {
    const char *pcLine, *pcAnswer, *pcTarget;
};
static const SoakCommand g_astCommand[] = {
    {"display slab", "class size    total", nullptr},
    {"display slab 6", "6     16384   4", nullptr},
    {"display slab 99", "no class 99", nullptr},
    {"display module", "MW_", nullptr},
    {"display module MW_PTZ", "MW_PTZ           0x90000003", "MW_MWARE"},
    {"display module nobody", "no module nobody", nullptr},
    {"display thread", "thread  name", nullptr},
    {"display timer", "total: ", nullptr},
    {"display dump", "/var/log/Slab_Keyinfo.log", nullptr},
    {"display log", "log module", nullptr},
    {"display loglevel", "loglevel: ", nullptr},
    {"display ptz", "degrees", "MW_MWARE"},
    {"display alarm", "alarms", "MW_MWARE"},
    {"display ticks", "ticks", "MW_IWARE"},
    {"loglevel 2", "", nullptr},
    {"loglevel 3", "", nullptr},
    {"loglevel 9", "receive failed result.", nullptr},
    {"debug all", "", nullptr},
    {"debug MW_CTRL", "", "MW_MWARE"},
    {"nodebug all", "", nullptr},
};
static const SoakCommand g_stFlood = {"display flood", "flood started", "MW_MWARE"};

static const char *const g_apcKeys[] = {
    "display \t",   "display sl\t7",  "dis\t?",   "display module MW_\t", "?",   "\t\t\t", "\x1B[A",      "\x1B[A\x1B[A\x1B[B",
    "\x1B[A\b\b\b", "debug\rnodebug", "\x1B[1~x", "displ",                "\r\r", "\x1B",   "display ptz?",
};

static std::string Garbage() {
    std::string szKeys(1 + Random(150), '\0');
    for (char &cKey : szKeys) {
        cKey = static_cast<char>(Random(4) == 0 ? Random(256) : ' ' + Random(95));
        cKey = cKey == 'q' ? 'Q' : cKey; // leaving is drawn for itself
    }
    return szKeys;
}

class Console {
public:
    explicit Console(const Target *pstTarget) : pstTarget_(pstTarget) { Start(); }
    bool Idle() const { return !bBusy_ && !bEnding_; }
    bool Warm() const { return stLife_.bWarm; }
    pid_t Pid() const { return pstKs_->Pid(); }
    void Judge() const { stLife_.Judge(Name(), Pid()); }
    std::string Name() const { return std::string("console of ") + pstTarget_->Name(); }

    void Step(bool bMayEnd) {
        szOut_ += pstKs_->ReadPresent();
        const int lStatus = pstKs_->WaitExit(0);
        if (lStatus != -1) {
            Ended(lStatus);
        } else if (!Idle() && !PromptIsBack()) {
            Require(Now() - dSince_ < SOAK_HANG_SEC, Name() + " hangs; its last words: " + szOut_);
        } else if (bBusy_) {
            bBusy_ = false;
            Account();
            dNext_ = Now() + RandomSec(0.1);
        } else if (!bEnding_ && Now() >= dNext_) {
            stLife_.Observe(Pid());
            Act(bMayEnd);
        }
    }

    // Goes on until the prompt is back.
    void Settle() {
        do {
            Step(false);
            usleep(2000);
        } while (!Idle());
    }

    // One command that must be answered now, and what it brought.
    std::string Ask(const SoakCommand &stCommand) {
        Settle();
        while (!bDebug_ || bBlind_) {
            bBlind_ ? Quit() : Send("e\t", nullptr);
            Settle();
        }
        const uint32_t ulBefore = g_stFigures.ulAnswered;
        Send(std::string(stCommand.pcLine) + "\r", &stCommand);
        Settle();
        Require(g_stFigures.ulAnswered == ulBefore + 1, Name() + " got no answer to " + stCommand.pcLine + ": " + szOut_);
        return szOut_;
    }

    void Quit() {
        pstKs_->Type(bDebug_ ? "q\rquit\r" : "quit\r");
        Ending(0);
        g_stFigures.ulConsoleQuits++;
    }

    // The last one: it does not come back.
    void Leave() {
        Settle();
        pstKs_->Type(bDebug_ ? "q\rquit\r" : "quit\r");
        CheckEnd(pstKs_->WaitExit(static_cast<int>(SOAK_HANG_SEC)), 0);
    }

private:
    void Start() {
        pstKs_ = std::make_unique<PtySession>(std::vector<std::string>{KS_PATH, pstTarget_->Name()});
        stBefore_ = pstKs_->Settings();
        stLife_ = Life();
        bEnding_ = bDebug_ = bMayQuit_ = false;
        Await("", nullptr);
    }

    void Await(const std::string &szMark, const SoakCommand *pstCommand) {
        szOut_.clear();
        szMark_ = szMark;
        pstCommand_ = pstCommand;
        bBusy_ = true;
        dSince_ = Now();
    }

    // Behind the keys a mark is typed and erased again: the prompt that follows its echo is the one behind everything.
    void Send(const std::string &szKeys, const SoakCommand *pstCommand) {
        const std::string szMark = "mark" + std::to_string(g_stFigures.ulSent + g_stFigures.ulKeys);
        Await(szMark, pstCommand);
        pstKs_->Type(szKeys + szMark + std::string(szMark.size(), '\b') + "\r");
        (pstCommand != nullptr ? g_stFigures.ulSent : g_stFigures.ulKeys)++;
    }

    bool PromptIsBack() {
        const size_t ulMark = szOut_.find(szMark_);
        if (bEnding_ || ulMark == std::string::npos) {
            return false;
        }
        bDebug_ = EndsWith(szOut_, "\r\n[dbg]");
        return bDebug_ || EndsWith(szOut_, "\r\n<dbg>");
    }

    // What became of the line.
    void Account() {
        if (szMark_.empty()) {
            bBlind_ = szOut_.find("no commands from") != std::string::npos;
        }
        if (pstCommand_ == nullptr) {
            return;
        }
        const bool bInTime = Now() - dSince_ < SOAK_ANSWER_SEC;
        const std::string szText = szOut_.substr(0, szOut_.find(szMark_));
        const bool bSilent = szText == std::string(pstCommand_->pcLine) + "\r\r\n[dbg]";
        const auto pfnHolds = [&](const char *pcPart) { return szText.find(pcPart) != std::string::npos; };
        if (pstCommand_->pcAnswer[0] != '\0' ? pfnHolds(pstCommand_->pcAnswer) : bSilent && bInTime) {
            g_stFigures.ulAnswered++;
        } else if (pfnHolds("Wrong command input!") || pfnHolds("receive failed result.")) {
            g_stFigures.ulRefused++;
        } else if (!bSilent) {
            g_stFigures.ulOther++; // a datagram that is never completed can bring one console another's answer
        } else {
            Require(!bInTime, Name() + ": neither answer nor time-out of " + pstCommand_->pcLine);
            g_stFigures.ulTimedOut++;
        }
    }

    void Act(bool bMayEnd) {
        const uint32_t ulDraw = Random(100);
        if ((bMayEnd && ulDraw < 2) || (bBlind_ && pstTarget_->Runs())) {
            End(bBlind_ ? 3 : Random(4));
        } else if (!bDebug_) {
            Send(ulDraw < 60 ? "e\t" : ulDraw < 80 ? "en_equipment\r" : Garbage() + "zzz\r", nullptr);
        } else if (ulDraw < 70) {
            const SoakCommand &stCommand = OneOf(g_astCommand);
            Send(std::string(stCommand.pcLine) + "\r", &stCommand);
        } else if (ulDraw < 71) {
            Send(std::string(g_stFlood.pcLine) + "\r", &g_stFlood);
            g_stFigures.ulFloods++;
        } else if (ulDraw < 98) {
            bMayQuit_ = true; // a line that leaves may be recalled
            Send((ulDraw < 85 ? OneOf(g_apcKeys) : Garbage()) + "zzz\r", nullptr); // an ESC at the end takes a z
        } else {
            Send("q\r", nullptr);
        }
    }

    void End(uint32_t ulWay) {
        static constexpr int alSignal[] = {SIGKILL, SIGTERM, SIGHUP};
        if (ulWay == 3) {
            return Quit();
        }
        if (Random(2) == 0) {
            pstKs_->Type("display module\r"); // it dies over its work
        }
        g_stFigures.ulConsoleKills++;
        Ending(256 + alSignal[ulWay]);
        if (alSignal[ulWay] == SIGHUP) {
            pstKs_->HangUp();
        } else {
            pstKs_->Signal(alSignal[ulWay]);
        }
    }

    void Ending(int lStatus) {
        bEnding_ = true;
        lExpected_ = lStatus;
        dSince_ = Now();
    }

    void CheckEnd(int lStatus, int lExpected) const {
        Require(lStatus == lExpected, Name() + " ended with " + std::to_string(lStatus) + " instead of " +
                                          std::to_string(lExpected) + "; its last words: " + szOut_);
        Require(lStatus == 256 + SIGKILL || lStatus == 256 + SIGHUP || SameSettings(pstKs_->Settings(), stBefore_),
                Name() + " left its terminal changed");
    }

    void Ended(int lStatus) {
        const bool bHungUp = bEnding_ && lExpected_ == 256 + SIGHUP && lStatus == 0; // saw the end of input first
        CheckEnd(lStatus, bEnding_ && !bHungUp ? lExpected_ : bEnding_ || bMayQuit_ ? 0 : -1);
        Start();
    }

    const Target *pstTarget_;
    std::unique_ptr<PtySession> pstKs_;
    struct termios stBefore_ = {};
    Life stLife_;
    std::string szOut_, szMark_;
    const SoakCommand *pstCommand_ = nullptr;
    bool bBusy_ = false, bDebug_ = false, bBlind_ = false, bEnding_ = false, bMayQuit_ = false;
    int lExpected_ = 0;
    double dSince_ = 0, dNext_ = 0;
};
