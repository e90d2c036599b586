#include "tests/soak/engineer.h"

#include <csignal>
#include <unistd.h>

#include "tests/support/console.h"

static constexpr double SOAK_ANSWER_SEC = 10;
static constexpr uint32_t SOAK_LOST_OF = 50; // one of so many may lose its answer to hostile datagrams
static constexpr double SOAK_HANG_SEC = 60;  // a prompt that is not back by then never comes

const SoakCommand g_stPoolsCommand = {"display slab", "class size    total", ""};
static const SoakCommand g_stFlood = {"display flood 1000", "flood started", "MW_MWARE"};
static const SoakCommand g_astCommand[] = {
    g_stPoolsCommand,
    {"display slab 6", "6     16384   4", ""},
    {"display slab 99", "no class 99", ""},
    {"display slab class", "class: a value of 1 to 39", ""},
    {"display slab 99999999999", "class: 99999999999 is not a number", ""},
    {"display module", "0xffffffff", ""},
    {"display module nobody", "no module nobody", ""},
    {"display thread", "thread  name", ""},
    {"display timer", "next expiry", ""},
    {"display process", "started: ", ""},
    {"display dump yes", "/var/log/Slab_Keyinfo.log", ""},
    {"display log", "log module", ""},
    {"display loglevel", "loglevel: ", ""},
    {"display ptz", "degrees", "MW_MWARE"},
    {"display alarm", "alarms", "MW_MWARE"},
    {"display ticks", "ticks", "MW_IWARE"},
    {"loglevel 2", "", ""},
    {"loglevel 3", "", ""},
    {"loglevel 9", "receive failed result.", ""},
    {"debug all", "", ""},
    {"debug BP", "", ""},
    {"nodebug all", "", ""},
};
static const std::string g_aszKeys[] = {
    "display \t",   "display sl\t7",      "dis\t?",     "display module MW_\t", "?",        "\t\t\t",
    "display ptz?", "\x1B[A\x1B[A\x1B[B", "\x1B[A\b\b", "\x1B[A\rdispl",        "\x1B[1~x", "\x1B[",
    "\r\r",         "debug\rdebug?",
};

static std::string Garbage() {
    std::string szKeys(1 + Random(150), '\0');
    for (char &cKey : szKeys) {
        cKey = static_cast<char>(Random(4) == 0 ? Random(256) : ' ' + Random(95));
        cKey = cKey == 'q' ? 'Q' : cKey; // leaving is drawn for itself
    }
    return szKeys;
}

Engineer::Engineer(const Target *pstTarget) : szName("console of " + pstTarget->szName), pstTarget_(pstTarget) {
    Start();
}

void Engineer::Start() {
    pstKs_ = std::make_unique<PtySession>(std::vector<std::string>{KS_PATH, pstTarget_->szName});
    stBefore_ = pstKs_->Settings();
    stLife = Life();
    bEnding_ = bDebug_ = false;
    lEndStatus_ = 0;
    Await("", nullptr);
}

void Engineer::Await(const std::string &szMark, const SoakCommand *pstCommand) {
    szOut_.clear();
    szMark_ = szMark;
    pstCommand_ = pstCommand;
    bMayQuit_ = false;
    bBusy_ = true;
    dSince_ = Now();
}

// Behind the keys a mark is typed and erased again: the prompt behind its echo is the one behind everything.
void Engineer::Send(const std::string &szKeys, const SoakCommand *pstCommand) {
    const std::string szMark = "mark" + std::to_string(g_stFigures.ulSent + g_stFigures.ulKeys);
    Await(szMark, pstCommand);
    pstKs_->Type(szKeys + szMark + std::string(szMark.size(), '\b') + "\r");
    (pstCommand != nullptr ? g_stFigures.ulSent : g_stFigures.ulKeys)++;
}

// Two consoles may rotate their common log at the same moment; what one of them says of it then comes at any
// time.
static void LeaveOutLogReports(std::string *pszOut) {
    const size_t ulStart = pszOut->find("[bp_log-845]Rename file ");
    const size_t ulEnd = pszOut->find("\r\n", ulStart);
    if (ulStart != std::string::npos && ulEnd != std::string::npos) {
        pszOut->erase(ulStart, ulEnd + 2 - ulStart);
    }
}

bool Engineer::PromptIsBack() {
    LeaveOutLogReports(&szOut_);
    const size_t ulPrompt = szOut_.size() < 7 ? 0 : szOut_.size() - 7;
    bDebug_ = szOut_.compare(ulPrompt, 7, "\r\n[dbg]") == 0;
    const bool bTop = szOut_.compare(ulPrompt, 7, "\r\n<dbg>") == 0;
    return (bDebug_ || bTop) && szOut_.find(szMark_) != std::string::npos;
}

// What became of the line.
void Engineer::Account() {
    const auto pfnHolds = [this](const std::string &szPart) {
        return szOut_.find(szPart) != std::string::npos;
    };
    if (szMark_.empty()) {
        bBlind_ = pfnHolds("no commands from");
    }
    if (pstCommand_ == nullptr) {
        return;
    }
    ulCommands_++;
    const bool bInTime = Now() - dSince_ < SOAK_ANSWER_SEC;
    const bool bSilent = szOut_.rfind(pstCommand_->szLine + "\r\r\n[dbg]", 0) == 0;
    if (pstCommand_->szAnswer.empty() ? bSilent && bInTime : pfnHolds(pstCommand_->szAnswer)) {
        g_stFigures.ulAnswered++;
    } else if (pfnHolds("Wrong command input!") || pfnHolds("receive failed result.")) {
        g_stFigures.ulRefused++;
    } else if (!bSilent) {
        g_stFigures.ulOther++;
        ulLost_++;
    } else {
        Require(!bInTime, szName + ": neither answer nor time-out of " + pstCommand_->szLine);
        g_stFigures.ulTimedOut++;
        ulLost_++;
    }
}

void Engineer::BeginCalm() {
    Settle();
    ulCommands_ = ulLost_ = 0;
}

void Engineer::EndCalm() const {
    printf("%-20s in calm: %u commands, %u without their answer\n", szName.c_str(), ulCommands_, ulLost_);
    Require(ulLost_ <= 1 + ulCommands_ / SOAK_LOST_OF, szName + ": too many commands without their answer");
}

void Engineer::Progress() {
    szOut_ += pstKs_->ReadPresent();
    const int lStatus = pstKs_->WaitExit(0);
    if (lStatus != -1) {
        CheckEnd(lStatus);
        Start();
    } else if (bBusy_ && !bEnding_ && PromptIsBack()) {
        bBusy_ = false;
        Account();
        dNext_ = Now() + RandomSec(0.1);
    }
    Require(!bBusy_ || Now() - dSince_ < SOAK_HANG_SEC, szName + " hangs; its last words: " + szOut_);
}

void Engineer::CheckEnd(int lStatus) const {
    const bool bHungUp = lEndStatus_ == 256 + SIGHUP;
    const bool bRight = lStatus == lEndStatus_ || (bHungUp && lStatus == 0); // the end of input came first
    Require(bRight && (bEnding_ || bMayQuit_),
            szName + " ended with " + std::to_string(lStatus) + "; its last words: " + szOut_);
    Require(bHungUp || lStatus == 256 + SIGKILL || SameSettings(pstKs_->Settings(), stBefore_),
            szName + " left its terminal changed");
}

void Engineer::Settle() {
    for (Progress(); bBusy_; Progress()) {
        usleep(2000);
    }
}

void Engineer::Step(bool bMayEnd) {
    Progress();
    if (!bBusy_ && Now() >= dNext_) {
        if (!stLife.bWarm) {
            stLife.Measure(Pid());
        }
        Act(bMayEnd);
    }
}

void Engineer::Act(bool bMayEnd) {
    static constexpr int alSignal[] = {0, SIGKILL, SIGTERM, SIGHUP};
    const uint32_t ulDraw = Random(100);
    if (bBlind_ && pstTarget_->bRuns) {
        End(0);
    } else if (bMayEnd && ulDraw < 2) {
        End(OneOf(alSignal));
    } else if (!bDebug_) {
        Send(ulDraw < 60 ? "e\t" : ulDraw < 80 ? "en_equipment\r" : Garbage() + "zzz\r");
        bMayQuit_ = ulDraw >= 80; // an ESC and an A recall a line
    } else if (ulDraw < 70) {
        const SoakCommand &stCommand = OneOf(g_astCommand);
        Send(stCommand.szLine + "\r", &stCommand);
    } else if (ulDraw < 71) {
        Send(g_stFlood.szLine + "\r", &g_stFlood);
        g_stFigures.ulFloods++;
    } else if (ulDraw < 98) {
        Send((ulDraw < 85 ? OneOf(g_aszKeys) : Garbage()) + "zzz\r"); // an ESC at the end takes a z or two
        bMayQuit_ = true;
    } else {
        Send("q\r");
    }
}

std::string Engineer::Ask(const SoakCommand &stCommand) {
    for (Settle(); !bDebug_ || bBlind_; Settle()) {
        bBlind_ ? End(0) : Send("e\t");
    }
    const uint32_t ulBefore = g_stFigures.ulAnswered;
    Send(stCommand.szLine + "\r", &stCommand);
    Settle();
    Require(g_stFigures.ulAnswered != ulBefore, szName + ": no answer to " + stCommand.szLine + ": " + szOut_);
    return szOut_;
}

std::string Engineer::AskAnything() {
    const SoakCommand &stCommand = OneOf(g_astCommand);
    const bool bKnown = stCommand.szTarget.empty() || stCommand.szTarget == pstTarget_->szName;
    return Ask(bKnown ? stCommand : g_stPoolsCommand);
}

void Engineer::End(int lSignal) {
    if (lSignal == 0) {
        pstKs_->Type(bDebug_ ? "q\rquit\r" : "quit\r");
    } else if (Random(2) == 0) {
        pstKs_->Type("display module\r"); // it dies over its work
    }
    if (lSignal == SIGHUP) {
        pstKs_->HangUp();
    } else if (lSignal != 0) {
        pstKs_->Signal(lSignal);
    }
    (lSignal == 0 ? g_stFigures.ulConsoleQuits : g_stFigures.ulConsoleKills)++;
    lEndStatus_ = lSignal == 0 ? 0 : 256 + lSignal;
    bEnding_ = bBusy_ = true;
    dSince_ = Now();
}
