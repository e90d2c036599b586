// Both example processes and three consoles on real terminals, under random load, faults and hostile datagrams
// that are all drawn from one seed; at the end the proof that nothing was lost, kept or left behind.
//
// The last third of the run neither kills nor stops the example processes and leaves two consoles alone, so
// that what they use at the end can be compared with what they used after their warm-up.
#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <mutex>
#include <random>
#include <unistd.h>

#include "bp/bp_clock.h"
#include "tests/support/files.h"
#include "tests/support/program.h"
#include "tests/support/rows.h"
#include "tests/support/sandbox.h"
#include "tests/support/wire.h"

static constexpr int64_t SOAK_ANSWER_MS = 10000; // what a console waits for an answer
static constexpr int64_t SOAK_HANG_MS = 60000;   // a prompt that is not back by then never comes
static constexpr int SOAK_STRICT_ROUNDS = 30;
static constexpr uint32_t SOAK_LOST_OF = 50; // one of so many may lose its answer to hostile datagrams
static const int64_t g_lStart = BP_NowMs();

static struct {
    uint32_t ulSent, ulAnswered, ulRefused, ulOther, ulTimedOut, ulKeys, ulFloods, ulDatagrams;
    uint32_t ulTargetKills, ulTargetStops, ulConsoleKills, ulConsoleQuits;
} g_st;
static std::mt19937 g_stRandom;
static std::mutex g_stTurn; // whoever is at work has it, and lets go of it only to wait
static std::string g_szFailure;
static int64_t g_lWarmUpMs; // of every process
static bool g_bCalm;        // the last third
static bool g_bCounts;      // the same, and all that is measured is warm
static bool g_bOver;        // nobody disturbs any more, nothing is excused

static uint32_t Random(size_t ulBelow) {
    return static_cast<uint32_t>(g_stRandom() % ulBelow);
}

template <typename Row>
static const auto &OneOf(const Row &aRow) {
    return aRow[Random(std::size(aRow))];
}

// Three of four are printable. Not 'q', because leaving a console is drawn for itself.
static std::string Garbage(size_t ulLen) {
    std::string szBytes(ulLen, '\0');
    std::generate(szBytes.begin(), szBytes.end(), [] {
        const uint32_t ulByte = Random(4) == 0 ? Random(256) : ' ' + Random(95);
        return static_cast<char>(ulByte == 'q' ? 'Q' : ulByte);
    });
    return szBytes;
}

// Ends the run when it does not hold; what the others do ends with it.
static void Require(bool bHolds, const std::string &szReason) {
    g_szFailure = bHolds || !g_szFailure.empty() ? g_szFailure : szReason;
    if (!g_szFailure.empty()) {
        throw std::runtime_error(g_szFailure);
    }
}

static void Pause(uint32_t ulMs) {
    g_stTurn.unlock();
    usleep(ulMs * 1000);
    g_stTurn.lock();
    Require(true, "");
}

// Log files do not count: they are opened when they are first needed, and stay, even if another process has
// rotated them.
struct Use {
    long lKib = 0;
    size_t ulFds = 0;

    explicit Use(pid_t lPid = 0) {
        const std::string szProc = "/proc/" + std::to_string(lPid);
        std::ifstream(szProc + "/statm") >> lKib >> lKib;
        lKib *= sysconf(_SC_PAGESIZE) / 1024;
        std::error_code stError; // a descriptor may be gone before it is looked at
        for (const auto &stEntry : std::filesystem::directory_iterator(szProc + "/fd", stError)) {
            const std::string szFile = std::filesystem::read_symlink(stEntry.path(), stError);
            ulFds += Matches(szFile, "^/var/log/[A-Za-z_]+0[01]\\.(log|debug|buf)( \\(deleted\\))?$") ? 0 : 1;
        }
    }
};

// A process, and what it uses against what it used after its warm-up.
struct Process {
    const std::string szName;
    pid_t lPid = 0;
    int64_t lBorn = 0;
    Use stWarm = Use();

    void BeBorn(pid_t lNew) {
        lPid = lNew;
        lBorn = BP_NowMs();
        stWarm = Use();
    }

    bool IsWarm() {
        if (stWarm.lKib == 0 && BP_NowMs() - lBorn >= g_lWarmUpMs) {
            stWarm = Use(lPid);
        }
        return stWarm.lKib != 0;
    }

    // Pools and stacks are touched page by page as load comes, so a short warm-up leaves more to come; a
    // sanitizer's own memory grows with what the program does.
    void Judge() const {
        const long lMayGrow = g_lWarmUpMs < 60000 ? 512 : 128;
        Use stNow;
        const bool bSame = WaitFor([&] {
            stNow = Use(lPid);
            return stNow.ulFds <= stWarm.ulFds && (SOAK_SANITIZED || stNow.lKib <= stWarm.lKib + lMayGrow);
        });
        printf("%-20s lived %.0f s: %ld -> %ld KiB resident, %zu -> %zu descriptors\n", szName.c_str(),
               static_cast<double>(BP_NowMs() - lBorn) / 1000, stWarm.lKib, stNow.lKib, stWarm.ulFds,
               stNow.ulFds);
        Require(bSame, szName + " uses more than after its warm-up");
    }
};

// An example process: started at either pace, killed, stopped and continued; in the calm it runs.
struct Target : Process {
    std::unique_ptr<Program> pstChild = nullptr; // null after a kill
    bool bRuns = false;
    int64_t lNext = 0;

    void Step() {
        Require(pstChild == nullptr || pstChild->WaitExit(0) == -1, szName + " ended by itself");
        if (g_bCalm ? bRuns : BP_NowMs() < lNext) {
            return;
        }
        const bool bKill = bRuns && Random(3) == 0;
        const uint32_t ulRest = !bKill && Random(4) == 0 ? SOAK_ANSWER_MS + 1000 : Random(2000);
        lNext = BP_NowMs() + (bRuns ? ulRest : 1000 + Random(8000));
        g_st.ulTargetKills += bKill ? 1 : 0;
        g_st.ulTargetStops += bRuns && !bKill ? 1 : 0;
        if (bKill) {
            pstChild.reset();
        } else if (pstChild != nullptr) {
            pstChild->Signal(bRuns ? SIGSTOP : SIGCONT);
        } else {
            TestChoosePace(Random(2) == 0);
            pstChild = StartExample(KS_MWARE_PATH, szName);
            BeBorn(pstChild->Pid());
        }
        bRuns = !bRuns;
    }
};

// Command lines, each with a part of its answer, which is empty where none is shown, and the process that knows
// it; the first asks for the pools.
static const std::vector<std::vector<std::string>> g_aaszCommand = Rows("soak-commands.txt");
static const std::vector<std::vector<std::string>> g_aaszKeys = Rows("soak-keys.txt");
static const std::vector<std::string> g_aszFlood = {"display flood 1000", "flood started", ""};

// A console on a terminal, and the engineer at it, who types, reads, and now and then ends it or closes the
// terminal, whereupon he starts the next one.
struct Engineer : Process {
    Target *const pstTarget;
    const bool bMayEndInCalm;
    uint32_t ulCounted = 0, ulLost = 0; // commands while g_bCounts
    std::unique_ptr<Program> pstKs = nullptr;
    struct termios stBefore = {};
    std::string szOut = ""; // since the last keys
    bool bDebug = false;    // in debug mode

    void Work() {
        const std::lock_guard<std::mutex> stTurn(g_stTurn);
        for (Start(); !g_bOver || !bDebug; Pause(Random(100))) {
            Act();
        }
    }

    void Act() {
        static constexpr int alSignal[] = {0, SIGKILL, SIGTERM, SIGHUP};
        const uint32_t ulDraw = Random(100);
        if (ulDraw < 2 && (bMayEndInCalm || !g_bCalm)) {
            End(OneOf(alSignal));
        } else if (ulDraw < 71 && bDebug) {
            Run(ulDraw < 70 ? OneOf(g_aaszCommand) : g_aszFlood);
        } else if (ulDraw < 80 && !bDebug) {
            Send(ulDraw < 60 ? "e\t" : "en_equipment\r");
        } else if (ulDraw < 98 || !bDebug) {
            // An ESC at the end takes a z or two; an ESC and an A recall a line.
            Send((ulDraw < 85 && bDebug ? OneOf(g_aaszKeys)[0] : Garbage(1 + Random(150))) + "zzz\r", 0);
        } else {
            Send("q\r");
        }
    }

    // Ends the console by the signal, 0: by quitting.
    void End(int lSignal) {
        if (lSignal == 0 || Random(2) == 0) { // it may die over its work
            pstKs->Type(lSignal != 0 ? "display module\r" : bDebug ? "q\rquit\r" : "quit\r");
        }
        lSignal == SIGHUP ? pstKs->HangUp() : pstKs->Signal(lSignal);
        (lSignal == 0 ? g_st.ulConsoleQuits : g_st.ulConsoleKills)++;
        Await(nullptr, lSignal == 0 ? 0 : 256 + lSignal);
    }

    // Behind the keys a mark is typed and erased again: the prompt behind its echo is the one behind
    // everything.
    void Send(const std::string &szKeys, int lEnd = -1) {
        const std::string szMark = "mark" + std::to_string(++g_st.ulKeys + g_st.ulSent);
        pstKs->Type(szKeys + szMark + std::string(szMark.size(), '\b') + "\r");
        Await(szMark.c_str(), lEnd);
    }

    void Run(const std::vector<std::string> &aszCommand) {
        const bool bCounts = g_bCounts;
        const int64_t lSince = BP_NowMs();
        const std::string &szLine = aszCommand[0];
        const std::string &szAnswer = aszCommand[1];
        Send(szLine + "\r");
        const bool bInTime = BP_NowMs() - lSince < SOAK_ANSWER_MS;
        const bool bSilent = szOut.rfind(szLine + "\r\r\n[dbg]", 0) == 0;
        const bool bAnswered = szAnswer.empty() ? bSilent && bInTime : Has(szAnswer);
        const bool bRefused = !bAnswered && (Has("Wrong command input!") || Has("receive failed result."));
        Require(bAnswered || bRefused || !bSilent || !bInTime,
                szName + ": neither answer nor time-out of " + szLine);
        Require(bAnswered || !g_bOver, szName + ": no answer to " + szLine + ": " + szOut);
        g_st.ulKeys--;
        g_st.ulSent++;
        g_st.ulFloods += aszCommand == g_aszFlood ? 1 : 0;
        (bAnswered ? g_st.ulAnswered : bRefused ? g_st.ulRefused : bSilent ? g_st.ulTimedOut : g_st.ulOther)++;
        ulCounted += bCounts ? 1 : 0;
        ulLost += bCounts && !bAnswered && !bRefused ? 1 : 0;
    }

    void Start() {
        pstKs = std::make_unique<Program>(std::vector<std::string>{KS_PATH, pstTarget->szName});
        stBefore = pstKs->Settings();
        BeBorn(pstKs->Pid());
        Await("", -1);
        if (Has("no commands from")) { // its target did not run
            Act();
            End(0);
        }
    }

    // Until the prompt is back behind the mark, or the console has ended, which it may do with the status lEnd.
    void Await(const char *pcMark, int lEnd) {
        szOut.clear();
        for (const int64_t lSince = BP_NowMs(); pcMark == nullptr || !PromptIsBack(pcMark); Pause(5)) {
            szOut += pstKs->ReadPresent();
            const int lStatus = pstKs->WaitExit(0);
            const bool bHungUp = lEnd == 256 + SIGHUP; // it may see the end of input first
            Require(lStatus == -1 || lStatus == lEnd || (bHungUp && lStatus == 0),
                    szName + " ended with " + std::to_string(lStatus) + "; its last words: " + szOut);
            if (lStatus != -1) {
                Require(bHungUp || lStatus == 256 + SIGKILL || SameSettings(pstKs->Settings(), stBefore),
                        szName + " left its terminal changed");
                return Start();
            }
            Require(BP_NowMs() - lSince < SOAK_HANG_MS, szName + " hangs; its last words: " + szOut);
        }
    }

    bool PromptIsBack(const std::string &szMark) {
        const size_t ulMark = szOut.find(szMark);
        bDebug = szOut.find("\r\n[dbg]", ulMark) != std::string::npos;
        return bDebug || szOut.find("\r\n<dbg>", ulMark) != std::string::npos;
    }

    bool Has(const std::string &szPart) const { return szOut.find(szPart) != std::string::npos; }
};

// Garbage, messages that are cut, wrong or meant for nobody, and answers that nobody waits for.
static std::string Datagram() {
    static const std::string aszText[] = {"<display slab >", "<display slab class >3;", "\n%s%n", "\nall",
                                          "<;>"};
    static constexpr uint32_t aulModule[] = {0x90000000, 0x90009000, 0xFFFFFFFB, 0x90000098};
    static constexpr uint32_t aulCode[] = {0, 1000, 31050, 4711, 0xFFFFFFFF};
    static constexpr uint16_t ausWrongLen[] = {0, 39, 8193, 65535};
    const std::string szText = Random(2) == 0 ? OneOf(aszText) : Garbage(Random(1U << Random(14)));
    WireMsg stMsg = MakeMsg(OneOf(aulModule) + Random(5), OneOf(aulCode) + Random(12), szText);
    stMsg.stHdr.ulMsgType = Random(6);
    stMsg.stHdr.AssiMsgId = static_cast<uint32_t>(g_stRandom()) | 0x80000000U; // no console counts that far
    switch (Random(12)) {
    case 0:
        return Garbage(1 + Random(10000));
    case 1: // rarely a message cut off, because that takes in what others send behind it
        return Random(20) == 0 ? Bytes(stMsg).substr(0, 40) : "";
    case 2:
        return Bytes(stMsg) + Bytes(MakeMsg(0xFFFFFFFF, 4711, "two"));
    case 3:
        stMsg.stHdr.usMsgLen = OneOf(ausWrongLen);
    }
    return Bytes(stMsg);
}

// Now and then a datagram, rarely a burst of them, to whoever receives on a port, the consoles included.
static void SendNoise(BusSocket *pstSocket) {
    std::vector<uint16_t> ausPort = {PORT_MWARE, PORT_IWARE};
    std::ifstream stTable("/proc/net/udp");
    for (std::string szLine; std::getline(stTable, szLine);) {
        unsigned uPort = 0;
        if (sscanf(szLine.c_str(), " %*d: %*x:%x", &uPort) == 1 && uPort != pstSocket->Port()) {
            ausPort.push_back(static_cast<uint16_t>(uPort));
        }
    }
    for (uint32_t ulLeft = Random(400) == 0 ? 60 : Random(4) / 3; ulLeft != 0; ulLeft--) {
        pstSocket->SendTo(OneOf(ausPort), Datagram());
        g_st.ulDatagrams++;
    }
    while (!pstSocket->Receive(0).empty()) {
    }
}

static void Print() {
    printf("%.1f min: %u commands: %u answered, %u refused, %u timed out, %u otherwise; %u other lines, %u "
           "floods, %u datagrams; example processes: %u kills, %u stops; consoles: %u kills, %u quits\n",
           static_cast<double>(BP_NowMs() - g_lStart) / 60000, g_st.ulSent, g_st.ulAnswered, g_st.ulRefused,
           g_st.ulTimedOut, g_st.ulOther, g_st.ulKeys, g_st.ulFloods, g_st.ulDatagrams, g_st.ulTargetKills,
           g_st.ulTargetStops, g_st.ulConsoleKills, g_st.ulConsoleQuits);
    fflush(stdout);
}

static Target g_astTarget[] = {{{"MW_MWARE"}}, {{"MW_IWARE"}}};
static Engineer g_astEngineer[] = {{{"console of MW_MWARE"}, &g_astTarget[0], false},
                                   {{"console of MW_IWARE"}, &g_astTarget[1], false},
                                   {{"console of MW_MWARE"}, &g_astTarget[0], true}};
static Process *const g_apstSteady[] = {&g_astTarget[0], &g_astTarget[1], &g_astEngineer[0], &g_astEngineer[1]};

static void Run(int64_t lDuration) {
    std::future<void> astWork[3];
    std::unique_lock<std::mutex> stTurn(g_stTurn);
    BusSocket stNoise;
    int64_t lMinute = 60000;
    for (bool bWarm = false; BP_NowMs() - g_lStart < lDuration || !bWarm; Pause(10)) {
        g_bCalm = BP_NowMs() - g_lStart > lDuration * 2 / 3;
        bWarm = true;
        for (Target &stTarget : g_astTarget) {
            stTarget.Step();
            bWarm = bWarm && stTarget.bRuns;
        }
        for (size_t i = 0; i < std::size(astWork) && !astWork[i].valid(); i++) {
            astWork[i] = std::async(std::launch::async, &Engineer::Work, &g_astEngineer[i]);
        }
        for (Process *pstProcess : g_apstSteady) {
            bWarm = bWarm && pstProcess->IsWarm();
        }
        g_bCounts = g_bCounts || (g_bCalm && bWarm);
        SendNoise(&stNoise);
        if (BP_NowMs() - g_lStart > lMinute) {
            Print();
            lMinute += 60000;
        }
    }
    Pause(2 * BP_RECV_HOLD_MS); // by then what was cut off takes nothing in any more
    g_bOver = true;
    stTurn.unlock();
    for (std::future<void> &stWork : astWork) {
        stWork.get();
    }
}

// Zombies of the processes, which a stat names behind its own ID, name and state; and what stays in /tmp.
static std::string Remains(const std::string &szParents) {
    std::string szStats, szLeft;
    for (const auto &stEntry : std::filesystem::directory_iterator("/proc")) {
        szStats += ReadFile(stEntry.path() / "stat");
    }
    for (const auto &stEntry : std::filesystem::directory_iterator("/tmp")) {
        const bool bMayStay =
            stEntry.is_directory() || Matches(stEntry.path(), "/ThreadInfo\\[[0-9]+\\]\\.log$");
        szLeft += bMayStay ? "" : "left: " + stEntry.path().string() + "\n" + ReadFile(stEntry.path());
    }
    return szLeft + (Matches(szStats, "\\) Z (" + szParents + ") ") ? "a child became a zombie" : "");
}

// All is quiet: nothing is excused any more, and everything must be as it was.
static void Finish() {
    const std::lock_guard<std::mutex> stTurn(g_stTurn);
    std::string szParents = std::to_string(getpid());
    for (Engineer *pst : {&g_astEngineer[0], &g_astEngineer[1]}) {
        printf("%-20s in calm: %u commands, %u without their answer\n", pst->szName.c_str(), pst->ulCounted,
               pst->ulLost);
        Require(pst->ulLost <= 1 + pst->ulCounted / SOAK_LOST_OF,
                pst->szName + ": too many commands without their answer");
    }
    for (Engineer &stEngineer : g_astEngineer) {
        for (int i = 0; i < SOAK_STRICT_ROUNDS; i++) {
            const std::vector<std::string> &aszCommand = OneOf(g_aaszCommand);
            const bool bKnown = aszCommand.size() < 3 || aszCommand[2] == stEngineer.pstTarget->szName;
            stEngineer.Run(bKnown ? aszCommand : g_aaszCommand[0]);
        }
        // The request that asks has a buffer itself; a notice and what follows from it may be under way.
        const bool bFull = WaitFor([&] {
            stEngineer.Run(g_aaszCommand[0]);
            return CountOf(stEngineer.szOut, "0     128     256    255    1\r\n") == 1 &&
                   CountOf(stEngineer.szOut, " 0\r\n") == 7;
        });
        Require(bFull,
                "buffers are missing in the target of the " + stEngineer.szName + ": " + stEngineer.szOut);
        szParents += "|" + std::to_string(stEngineer.lPid) + "|" + std::to_string(stEngineer.pstTarget->lPid);
    }
    for (const Process *pstProcess : g_apstSteady) {
        pstProcess->Judge();
    }
    const auto pfnRequireNothingRemains = [&] {
        std::string szRemains;
        WaitFor([&] { return (szRemains = Remains(szParents)).empty(); });
        Require(szRemains.empty(), szRemains);
    };
    pfnRequireNothingRemains();
    for (Engineer &stEngineer : g_astEngineer) {
        stEngineer.End(0);
    }
    pfnRequireNothingRemains();
}

int main(int argc, char **argv) {
    const double dMinutes = argc > 1 ? atof(argv[1]) : 0;
    if (dMinutes <= 0 || !TestEnterSandbox(argv)) {
        fprintf(stderr, "usage: soak MINUTES [SEED], where private namespaces are permitted\n");
        return 2;
    }
    const auto ulSeed =
        argc > 2 ? static_cast<uint32_t>(strtoul(argv[2], nullptr, 10)) : std::random_device()();
    g_stRandom.seed(ulSeed);
    g_lWarmUpMs = static_cast<int64_t>(std::min(60000.0, dMinutes * 10000));
    // What the programs' sanitizers report, if they were built with any, is then left in /tmp and fails the
    // run.
    for (const char *pcName : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"}) {
        const char *pcOptions = getenv(pcName);
        setenv(pcName,
               (std::string(pcOptions != nullptr ? pcOptions : "") + ":log_path=/tmp/sanitizer").c_str(), 1);
    }
    printf("%g minutes, seed %u\n", dMinutes, ulSeed);
    fflush(stdout);
    try {
        Run(static_cast<int64_t>(dMinutes * 60000));
        Finish();
    } catch (const std::exception &stFailure) {
        g_szFailure = std::string(": ") + stFailure.what();
    }
    Print();
    printf("%s with seed %u%s\n", g_szFailure.empty() ? "passed" : "FAILED", ulSeed, g_szFailure.c_str());
    return g_szFailure.empty() ? 0 : 1;
}
