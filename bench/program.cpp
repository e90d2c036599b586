#include "bench/program.h"

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <utmp.h>

#include "bp/bp.h"
#include "tests/support/files.h"

bool SameSettings(const struct termios &stA, const struct termios &stB) {
    return stA.c_iflag == stB.c_iflag && stA.c_oflag == stB.c_oflag && stA.c_cflag == stB.c_cflag &&
           stA.c_lflag == stB.c_lflag && memcmp(stA.c_cc, stB.c_cc, sizeof(stA.c_cc)) == 0;
}

Program::Program(const std::vector<std::string> &aszArg, int lFlags) {
    struct winsize stSize = {40, 120, 0, 0};
    if (openpty(&lMaster_, &lSlave_, nullptr, nullptr, &stSize) != 0) {
        abort();
    }
    fcntl(lMaster_, F_SETFD, FD_CLOEXEC);
    fcntl(lSlave_, F_SETFL, fcntl(lSlave_, F_GETFL) | lFlags);
    lPid_ = fork();
    if (lPid_ == 0) {
        std::vector<char *> apcArg;
        for (const std::string &szArg : aszArg) {
            apcArg.push_back(const_cast<char *>(szArg.c_str()));
        }
        apcArg.push_back(nullptr);
        login_tty(lSlave_);
        execv(apcArg[0], apcArg.data());
        _exit(127);
    }
    fcntl(lSlave_, F_SETFD, FD_CLOEXEC);
}

Program::~Program() {
    if (lPid_ > 0) {
        kill(lPid_, SIGKILL);
        waitpid(lPid_, nullptr, 0);
    }
    HangUp();
}

void Program::Type(const std::string &szKeys) const {
    for (size_t ulDone = 0; ulDone < szKeys.size();) {
        const ssize_t lWritten = write(lMaster_, szKeys.data() + ulDone, szKeys.size() - ulDone);
        if (lWritten < 0) {
            perror("type");
            return;
        }
        ulDone += static_cast<size_t>(lWritten);
    }
}

std::string Program::ReadPresent() {
    struct pollfd stPoll = {lMaster_, POLLIN, 0};
    char acBuf[4096];
    ssize_t lRead = 0;
    while (poll(&stPoll, 1, 0) > 0 && (lRead = read(lMaster_, acBuf, sizeof(acBuf))) > 0) {
        szPending_.append(acBuf, static_cast<size_t>(lRead));
    }
    return std::exchange(szPending_, "");
}

std::string Program::ReadUntil(const std::string &szText, int lSeconds) {
    WaitFor(
        [&] {
            siginfo_t stEnd = {};
            waitid(P_PID, static_cast<id_t>(lPid_), &stEnd, WEXITED | WNOHANG | WNOWAIT);
            szPending_ = ReadPresent();
            return szPending_.find(szText) != std::string::npos || stEnd.si_pid != 0;
        },
        lSeconds);
    const size_t ulPos = szPending_.find(szText);
    const std::string szRead = szPending_.substr(0, ulPos == std::string::npos ? ulPos : ulPos + szText.size());
    szPending_.erase(0, szRead.size());
    return szRead;
}

std::string Program::Command(const std::string &szLine) {
    Type(szLine + "\r");
    const std::string szText = ReadUntil("\r\n[dbg]");
    return szText.size() < szLine.size() + 7 ? "no prompt: " + szText
                                             : szText.substr(szLine.size(), szText.size() - szLine.size() - 7);
}

void Program::EnterDebugMode() {
    ReadUntil("<dbg>");
    Type("e\t");
    ReadUntil("\r\n[dbg]");
}

bool Program::IsFull() const {
    struct pollfd stPoll = {lSlave_, POLLOUT, 0};
    return poll(&stPoll, 1, 100) == 0;
}

void Program::HangUp() {
    if (lMaster_ >= 0) {
        close(lMaster_);
        close(lSlave_);
        lMaster_ = -1;
    }
}

void Program::Signal(int lSignal) const {
    kill(lPid_, lSignal);
}

void Program::Stop() const {
    siginfo_t stInfo = {};
    Signal(SIGSTOP);
    waitid(P_PID, static_cast<id_t>(lPid_), &stInfo, WSTOPPED);
}

int Program::WaitExit(int lSeconds) {
    int lStatus = 0;
    if (!WaitFor([&] { return waitpid(lPid_, &lStatus, WNOHANG) == lPid_; }, lSeconds)) {
        return -1;
    }
    lPid_ = -1;
    return WIFEXITED(lStatus) ? WEXITSTATUS(lStatus) : 256 + WTERMSIG(lStatus);
}

struct termios Program::Settings() const {
    struct termios stSettings = {};
    tcgetattr(lSlave_, &stSettings);
    return stSettings;
}

void Program::SetSettings(const struct termios &stSettings) const {
    tcsetattr(lSlave_, TCSANOW, &stSettings);
}

bool Program::IsNonBlocking() const {
    return (fcntl(lSlave_, F_GETFL) & O_NONBLOCK) != 0;
}

std::unique_ptr<Program> StartExample(const std::string &szPath, const std::string &szName) {
    auto pstProgram = std::make_unique<Program>(std::vector<std::string>{szPath, szName});
    pstProgram->ReadUntil("ready");
    return pstProgram;
}
