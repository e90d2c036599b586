#include "tests/support/pty_session.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <utmp.h>

#include "bp/bp.h"
#include "tests/support/files.h"

[[noreturn]] static void Exec(const std::vector<std::string> &aszArg) {
    std::vector<char *> apcArg;
    for (const std::string &szArg : aszArg) {
        apcArg.push_back(const_cast<char *>(szArg.c_str()));
    }
    apcArg.push_back(nullptr);
    execv(apcArg[0], apcArg.data());
    _exit(127);
}

static bool g_bPromptPace;

void TestChoosePace(bool bPrompt) {
    g_bPromptPace = bPrompt;
    BP_SetPromptDelivery(bPrompt ? 1 : 0);
}

bool TestIsPrompt() {
    return g_bPromptPace;
}

static std::vector<std::string> WithPace(std::vector<std::string> aszArg) {
    if (aszArg.size() == 1) {
        aszArg.emplace_back("MW_MWARE");
    }
    if (g_bPromptPace) {
        aszArg.emplace_back("prompt");
    }
    return aszArg;
}

int WaitForEnd(pid_t *plPid, int lSeconds) {
    int lStatus = 0;
    if (!WaitFor([&] { return waitpid(*plPid, &lStatus, WNOHANG) == *plPid; }, lSeconds)) {
        return -1;
    }
    *plPid = -1;
    return WIFEXITED(lStatus) ? WEXITSTATUS(lStatus) : 256 + WTERMSIG(lStatus);
}

Child::Child(const std::vector<std::string> &aszArg) {
    int alPipe[2];
    if (pipe2(alPipe, O_CLOEXEC) != 0) {
        abort();
    }
    lPid_ = fork();
    if (lPid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(alPipe[1], STDOUT_FILENO);
        Exec(WithPace(aszArg));
    }
    close(alPipe[1]);
    lOut_ = alPipe[0];
}

Child::~Child() {
    if (lPid_ > 0) {
        kill(lPid_, SIGKILL);
        waitpid(lPid_, nullptr, 0);
    }
    close(lOut_);
}

void Child::Signal(int lSignal) const {
    kill(lPid_, lSignal);
}

void Child::Stop() const {
    siginfo_t stInfo = {};
    Signal(SIGSTOP);
    waitid(P_PID, static_cast<id_t>(lPid_), &stInfo, WSTOPPED);
}

bool Child::WaitForOutput(const std::string &szText) {
    std::string szSeen;
    struct pollfd stPoll = {lOut_, POLLIN, 0};
    while (szSeen.find(szText) == std::string::npos && poll(&stPoll, 1, 30000) > 0) {
        char acBuf[256];
        const ssize_t lRead = read(lOut_, acBuf, sizeof(acBuf));
        if (lRead <= 0) {
            return false;
        }
        szSeen.append(acBuf, static_cast<size_t>(lRead));
    }
    return szSeen.find(szText) != std::string::npos;
}

PtySession::PtySession(const std::vector<std::string> &aszArg, int lFlags) {
    struct winsize stSize = {40, 120, 0, 0};
    if (openpty(&lMaster_, &lSlave_, nullptr, nullptr, &stSize) != 0) {
        abort();
    }
    fcntl(lSlave_, F_SETFL, fcntl(lSlave_, F_GETFL) | lFlags);
    lPid_ = fork();
    if (lPid_ == 0) {
        close(lMaster_);
        login_tty(lSlave_);
        Exec(aszArg);
    }
    fcntl(lMaster_, F_SETFD, FD_CLOEXEC);
    fcntl(lSlave_, F_SETFD, FD_CLOEXEC);
}

PtySession::~PtySession() {
    if (lPid_ > 0) {
        kill(lPid_, SIGKILL);
        waitpid(lPid_, nullptr, 0);
    }
    HangUp();
}

void PtySession::Type(const std::string &szKeys) const {
    for (size_t ulDone = 0; ulDone < szKeys.size();) {
        const ssize_t lWritten = write(lMaster_, szKeys.data() + ulDone, szKeys.size() - ulDone);
        if (lWritten < 0) {
            perror("type");
            return;
        }
        ulDone += static_cast<size_t>(lWritten);
    }
}

bool PtySession::HasEnded() const {
    siginfo_t stInfo = {};
    return lPid_ > 0 && waitid(P_PID, static_cast<id_t>(lPid_), &stInfo, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           stInfo.si_pid != 0;
}

std::string PtySession::ReadUntil(const std::string &szText, int lSeconds) {
    WaitFor(
        [&] {
            struct pollfd stPoll = {lMaster_, POLLIN, 0};
            char acBuf[4096];
            if (szPending_.find(szText) == std::string::npos && poll(&stPoll, 1, 50) > 0) {
                const ssize_t lRead = read(lMaster_, acBuf, sizeof(acBuf));
                szPending_.append(acBuf, lRead > 0 ? static_cast<size_t>(lRead) : 0);
            }
            return szPending_.find(szText) != std::string::npos || (HasEnded() && poll(&stPoll, 1, 0) <= 0);
        },
        lSeconds);
    const size_t ulPos = szPending_.find(szText);
    const size_t ulEnd = ulPos == std::string::npos ? szPending_.size() : ulPos + szText.size();
    const std::string szRead = szPending_.substr(0, ulEnd);
    szPending_.erase(0, ulEnd);
    return szRead;
}

bool PtySession::IsFull() const {
    struct pollfd stPoll = {lSlave_, POLLOUT, 0};
    return poll(&stPoll, 1, 100) == 0;
}

std::string PtySession::ReadPresent() {
    struct pollfd stPoll = {lMaster_, POLLIN, 0};
    char acBuf[4096];
    while (poll(&stPoll, 1, 0) > 0) {
        const ssize_t lRead = read(lMaster_, acBuf, sizeof(acBuf));
        if (lRead <= 0) {
            break;
        }
        szPending_.append(acBuf, static_cast<size_t>(lRead));
    }
    return std::exchange(szPending_, "");
}

void PtySession::HangUp() {
    if (lMaster_ >= 0) {
        close(lMaster_);
        close(lSlave_);
        lMaster_ = -1;
    }
}

void PtySession::Signal(int lSignal) const {
    kill(lPid_, lSignal);
}

struct termios PtySession::Settings() const {
    struct termios stSettings = {};
    tcgetattr(lSlave_, &stSettings);
    return stSettings;
}

bool PtySession::IsNonBlocking() const {
    return (fcntl(lSlave_, F_GETFL) & O_NONBLOCK) != 0;
}

void PtySession::SetSettings(const struct termios &stSettings) const {
    tcsetattr(lSlave_, TCSANOW, &stSettings);
}
