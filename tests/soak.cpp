// Both example processes and three consoles on real terminals, under random load, faults and hostile datagrams
// that are all drawn from one seed; at the end the proof that nothing was lost, kept or left over.
//
// The last third of the run neither kills nor stops the example processes and leaves two consoles alone, so
// that what they use at the end can be compared with what they used after their warm-up.
#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <random>
#include <unistd.h>

#include "bp/bp.h"
#include "tests/support/files.h"
#include "tests/support/program.h"
#include "tests/support/rows.h"
#include "tests/support/threads.h"
#include "tests/support/wire.h"

static constexpr int64_t SOAK_ANSWER_MS = 10000; // what a console waits for an answer
static constexpr int64_t SOAK_HANG_MS = 60000;   // a prompt that is not back by then never comes
static constexpr int SOAK_STRICT_ROUNDS = 30;
static constexpr uint32_t SOAK_LOST_OF = 50; // one of so many may lose its answer to hostile datagrams
static const int64_t g_lStart = BP_NowMs();

enum Figure { SENT, ANSWERED, REFUSED, TIMED_OUT, OTHER, KEYS, FLOODS, DATAGRAMS, KILLS, STOPS, ENDS, QUITS };
static const char *const g_apcFigure[] = {"commands",     "answered",     "refused",       "timed out",
                                          "otherwise",    "other lines",  "floods",        "datagrams",
                                          "target kills", "target stops", "console kills", "console quits"};
static std::atomic<uint32_t> g_aulFigure[std::size(g_apcFigure)];
static std::string g_szFailure; // the first one, set once
static std::atomic<bool> g_bFailed{false};
static std::atomic<bool> g_bCalm{false};   // the last third
static std::atomic<bool> g_bCounts{false}; // the same, and all that is measured is warm
static std::atomic<bool> g_bOver{false};   // no more faults, no more excuses
static int64_t g_lWarmUpMs;                // of every process
static uint32_t g_ulSeed;

static void Print() {
    printf("%.1f min:", static_cast<double>(BP_NowMs() - g_lStart) / 60000);
    for (size_t i = 0; i < std::size(g_apcFigure); i++) {
        printf(" %u %s%s", g_aulFigure[i].load(), g_apcFigure[i], i + 1 < std::size(g_apcFigure) ? "," : "\n");
    }
    fflush(stdout);
}

// Each thread draws for itself.
static uint32_t Random(size_t ulBelow) {
    static std::atomic<uint32_t> ulThreads{0};
    static thread_local std::mt19937 stRandom(g_ulSeed + ulThreads++);
    return static_cast<uint32_t>(stRandom() % ulBelow);
}

template <typename Row>
static const auto &OneOf(const Row &aRow) {
    return aRow[Random(std::size(aRow))];
}

// Three of four are printable. Not 'q', because leaving a console is drawn for itself.
static std::string Garbage(size_t ulLen) {
    std::string szBytes(ulLen, '\0');
    for (char &cByte : szBytes) {
        cByte = static_cast<char>(Random(4) == 0 ? Random(256) : ' ' + Random(95));
        cByte = cByte == 'q' ? 'Q' : cByte;
    }
    return szBytes;
}

// Ends the run if it does not hold.
static void Require(bool bHolds, const std::string &szReason) {
    if (!bHolds && !g_bFailed.exchange(true)) {
        g_szFailure = szReason;
    }
    if (g_bFailed) {
        throw std::runtime_error("failed");
    }
}

// Log files do not count: they are opened once they are needed, and stay, even if another process has rotated
// them.
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

// A program, and what it uses against what it used after its warm-up.
struct Process {
    const std::string szName;
    std::unique_ptr<Program> pstProgram = nullptr; // null after a kill
    int64_t lBorn = 0;
    Use stWarm = Use();
    std::atomic<bool> bWarm{false};

    explicit Process(const char *pcName) : szName(pcName) {}

    void BeBorn(std::unique_ptr<Program> pstNew) {
        pstProgram = std::move(pstNew);
        lBorn = BP_NowMs();
        bWarm = false;
    }

    void Measure() {
        if (!bWarm && pstProgram != nullptr && BP_NowMs() - lBorn >= g_lWarmUpMs) {
            stWarm = Use(pstProgram->Pid());
            bWarm = true;
        }
    }

    // Pools and stacks are touched page by page as load comes, so a short warm-up leaves more to come; a
    // sanitizer's own memory grows with what the program does.
    void Judge() const {
        const long lMayGrow = SOAK_SANITIZED ? 1L << 40 : g_lWarmUpMs < 60000 ? 512 : 128;
        Use stNow;
        const bool bSame = WaitFor([&] {
            stNow = Use(pstProgram->Pid());
            return stNow.ulFds <= stWarm.ulFds && stNow.lKib <= stWarm.lKib + lMayGrow;
        });
        printf("%-20s lived %.0f s: %ld -> %ld KiB resident, %zu -> %zu descriptors\n", szName.c_str(),
               static_cast<double>(BP_NowMs() - lBorn) / 1000, stWarm.lKib, stNow.lKib, stWarm.ulFds,
               stNow.ulFds);
        Require(bSame, szName + " uses more than after its warm-up");
    }
};

// An example process: started at either pace, killed, stopped and continued; in the calm it runs.
struct Target : Process {
    std::atomic<bool> bRuns{false};
    int64_t lNext = 0;

    using Process::Process;

    void Step() {
        Require(pstProgram == nullptr || pstProgram->WaitExit(0) == -1, szName + " ended by itself");
        Measure();
        if (g_bCalm ? bRuns.load() : BP_NowMs() < lNext) {
            return;
        }
        const bool bKill = bRuns && Random(3) == 0;
        const uint32_t ulRest = !bKill && Random(4) == 0 ? SOAK_ANSWER_MS + 1000 : Random(2000);
        lNext = BP_NowMs() + (bRuns ? ulRest : 1000 + Random(8000));
        g_aulFigure[bKill ? KILLS : STOPS] += bRuns ? 1 : 0;
        if (bKill) {
            pstProgram.reset();
        } else if (pstProgram != nullptr) {
            pstProgram->Signal(bRuns ? SIGSTOP : SIGCONT);
        } else {
            TestChoosePace(Random(2) == 0);
            BeBorn(StartExample(KS_MWARE_PATH, szName));
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
// terminal, and then starts the next one.
struct Engineer : Process {
    Target *const pstTarget;
    const bool bMayEndInCalm;
    uint32_t ulCounted = 0, ulLost = 0; // commands while g_bCounts
    struct termios stBefore = {};
    std::string szOut = ""; // since the last keys
    bool bDebug = false;    // in debug mode

    Engineer(const char *pcName, Target *pstOf, bool bMayEnd)
        : Process(pcName), pstTarget(pstOf), bMayEndInCalm(bMayEnd) {}

    void Work() {
        try {
            for (Start(); !g_bOver || !bDebug; usleep(Random(100) * 1000)) {
                Act();
                Measure();
            }
        } catch (const std::runtime_error &) { // said at the end
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
            pstProgram->Type(lSignal != 0 ? "display module\r" : bDebug ? "q\rquit\r" : "quit\r");
        }
        lSignal == SIGHUP ? pstProgram->HangUp() : pstProgram->Signal(lSignal);
        g_aulFigure[lSignal == 0 ? QUITS : ENDS]++;
        Await(nullptr, lSignal == 0 ? 0 : 256 + lSignal);
    }

    // After the keys a mark is typed and erased again: the prompt after its echo is the last one.
    void Send(const std::string &szKeys, int lEnd = -1) {
        const std::string szMark = "mark" + std::to_string(++g_aulFigure[KEYS]);
        pstProgram->Type(szKeys + szMark + std::string(szMark.size(), '\b') + "\r");
        Await(szMark.c_str(), lEnd);
    }

    void Run(const std::vector<std::string> &aszCommand) {
        const bool bCounts = g_bCounts;
        const bool bStrict = g_bOver;
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
        Require(bAnswered || !bStrict, szName + ": no answer to " + szLine + ": " + szOut);
        g_aulFigure[SENT]++;
        g_aulFigure[FLOODS] += aszCommand == g_aszFlood ? 1 : 0;
        g_aulFigure[bAnswered ? ANSWERED : bRefused ? REFUSED : bSilent ? TIMED_OUT : OTHER]++;
        ulCounted += bCounts ? 1 : 0;
        ulLost += bCounts && !bAnswered && !bRefused ? 1 : 0;
    }

    void Start() {
        BeBorn(std::make_unique<Program>(std::vector<std::string>{KS_PATH, pstTarget->szName}));
        stBefore = pstProgram->Settings();
        Await("", -1);
        if (Has("no commands from")) { // its target did not run
            Act();
            End(0);
        }
    }

    // Until the prompt is back after the mark, or the console has ended, which it may do with the status lEnd.
    void Await(const char *pcMark, int lEnd) {
        szOut.clear();
        for (const int64_t lSince = BP_NowMs(); pcMark == nullptr || !PromptIsBack(pcMark); usleep(2000)) {
            szOut += pstProgram->ReadPresent();
            const int lStatus = pstProgram->WaitExit(0);
            const bool bHungUp = lEnd == 256 + SIGHUP; // it may see the end of input first
            Require(lStatus == -1 || lStatus == lEnd || (bHungUp && lStatus == 0),
                    szName + " ended with " + std::to_string(lStatus) + "; its last words: " + szOut);
            if (lStatus != -1) {
                Require(bHungUp || lStatus == 256 + SIGKILL || SameSettings(pstProgram->Settings(), stBefore),
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

// Garbage, messages that are cut, wrong or meant for no module, and answers that no requester waits for.
static std::string Datagram() {
    static const std::string aszText[] = {"<display slab >", "<display slab class >3;", "\n%s%n", "\nall",
                                          "<;>"};
    static constexpr uint32_t aulModule[] = {0x90000000, 0x90009000, 0xFFFFFFFB, 0x90000098};
    static constexpr uint32_t aulCode[] = {0, 1000, 31050, 4711, 0xFFFFFFFF};
    static constexpr uint16_t ausWrongLen[] = {0, 39, 8193, 65535};
    const std::string szText = Random(2) == 0 ? OneOf(aszText) : Garbage(Random(1U << Random(14)));
    WireMsg stMsg = MakeMsg(OneOf(aulModule) + Random(5), OneOf(aulCode) + Random(12), szText);
    stMsg.stHdr.ulMsgType = Random(6);
    stMsg.stHdr.AssiMsgId = Random(0x80000000U) | 0x80000000U; // no console counts that far
    switch (Random(12)) {
    case 0:
        return Garbage(1 + Random(10000));
    case 1: // rarely a message cut off, because that takes in what others send next
        return Random(20) == 0 ? Bytes(stMsg).substr(0, 40) : "";
    case 2:
        return Bytes(stMsg) + Bytes(MakeMsg(0xFFFFFFFF, 4711, "two"));
    case 3:
        stMsg.stHdr.usMsgLen = OneOf(ausWrongLen);
    }
    return Bytes(stMsg);
}

// Now and then a datagram, rarely a burst of them, to every port with a receiver, the consoles' included.
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
        g_aulFigure[DATAGRAMS]++;
    }
    while (!pstSocket->Receive(0).empty()) {
    }
}

static Target g_astTarget[] = {Target("MW_MWARE"), Target("MW_IWARE")};
static Engineer g_astEngineer[] = {{"console of MW_MWARE", &g_astTarget[0], false},
                                   {"console of MW_IWARE", &g_astTarget[1], false},
                                   {"console of MW_MWARE", &g_astTarget[0], true}};
static Process *const g_apstSteady[] = {&g_astTarget[0], &g_astTarget[1], &g_astEngineer[0], &g_astEngineer[1]};

static void Run(int64_t lDuration) {
    BusSocket stNoise;
    for (Target &stTarget : g_astTarget) {
        stTarget.Step();
    }
    const Threads stWork(std::size(g_astEngineer), [](uint32_t i) { g_astEngineer[i].Work(); });
    int64_t lMinute = 60000;
    for (bool bWarm = false; !g_bFailed && (BP_NowMs() - g_lStart < lDuration || !bWarm); usleep(10000)) {
        g_bCalm = BP_NowMs() - g_lStart > lDuration * 2 / 3;
        for (Target &stTarget : g_astTarget) {
            stTarget.Step();
        }
        bWarm = g_astTarget[0].bRuns && g_astTarget[1].bRuns &&
                std::all_of(std::begin(g_apstSteady), std::end(g_apstSteady),
                            [](const Process *pst) { return pst->bWarm.load(); });
        g_bCounts = g_bCounts || (g_bCalm && bWarm);
        SendNoise(&stNoise);
        if (BP_NowMs() - g_lStart > lMinute) {
            Print();
            lMinute += 60000;
        }
    }
    usleep(2000 * BP_RECV_HOLD_MS); // by then what was cut off takes nothing in any more
    g_bOver = true;
}

// Zombies of the processes, which a stat names after its own ID, name and state; and what stays in /tmp.
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
    Require(!g_bFailed, "");
    std::string szParents = std::to_string(getpid());
    for (Engineer &st : g_astEngineer) {
        printf("%-20s in calm: %u commands, %u without their answer\n", st.szName.c_str(), st.ulCounted,
               st.ulLost);
        Require(st.bMayEndInCalm || st.ulLost <= 1 + st.ulCounted / SOAK_LOST_OF,
                st.szName + ": too many commands without their answer");
        for (int i = 0; i < SOAK_STRICT_ROUNDS; i++) {
            const std::vector<std::string> &aszCommand = OneOf(g_aaszCommand);
            const bool bKnown = aszCommand.size() < 3 || aszCommand[2] == st.pstTarget->szName;
            st.Run(bKnown ? aszCommand : g_aaszCommand[0]);
        }
        // The request that asks has a buffer itself; a notice and what follows from it may be under way.
        const bool bFull = WaitFor([&] {
            st.Run(g_aaszCommand[0]);
            return CountOf(st.szOut, "0     128     256    255    1\r\n") == 1 &&
                   CountOf(st.szOut, " 0\r\n") == 7;
        });
        Require(bFull, "buffers are missing in the target of the " + st.szName + ": " + st.szOut);
        szParents +=
            "|" + std::to_string(st.pstProgram->Pid()) + "|" + std::to_string(st.pstTarget->pstProgram->Pid());
    }
    for (const Process *pstProcess : g_apstSteady) {
        pstProcess->Judge();
    }
    for (Engineer &stEngineer : g_astEngineer) {
        std::string szRemains;
        WaitFor([&] { return (szRemains = Remains(szParents)).empty(); });
        Require(szRemains.empty(), szRemains);
        stEngineer.End(0);
    }
}

int main(int argc, char **argv) {
    const double dMinutes = argc > 1 ? atof(argv[1]) : 0;
    if (dMinutes <= 0) {
        fprintf(stderr, "usage: soak MINUTES [SEED]\n");
        return 2;
    }
    g_ulSeed = argc > 2 ? static_cast<uint32_t>(strtoul(argv[2], nullptr, 10)) : std::random_device()();
    g_lWarmUpMs = static_cast<int64_t>(std::min(60000.0, dMinutes * 10000));
    // What the programs' sanitizers report, if they were built with any, is then left in /tmp and fails the
    // run.
    for (const char *pcName : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"}) {
        const char *pcOptions = getenv(pcName);
        setenv(pcName,
               (std::string(pcOptions != nullptr ? pcOptions : "") + ":log_path=/tmp/sanitizer").c_str(), 1);
    }
    printf("%g minutes, seed %u\n", dMinutes, g_ulSeed);
    try {
        Run(static_cast<int64_t>(dMinutes * 60000));
        Finish();
    } catch (const std::runtime_error &) { // said below
    }
    Print();
    printf("%s with seed %u: %s\n", g_bFailed ? "FAILED" : "passed", g_ulSeed, g_szFailure.c_str());
    return g_bFailed ? 1 : 0;
}
