#include "tests/support/capture.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

Capture::Capture(FILE *pstStream) : pstStream_(pstStream), pstFile_(tmpfile()) {
    fflush(pstStream_);
    lSavedFd_ = dup(fileno(pstStream_));
    dup2(fileno(pstFile_), fileno(pstStream_));
}

std::string Capture::Stop() {
    if (lSavedFd_ < 0) {
        return "";
    }
    fflush(pstStream_);
    dup2(lSavedFd_, fileno(pstStream_));
    close(lSavedFd_);
    lSavedFd_ = -1;
    std::string szText(static_cast<size_t>(lseek(fileno(pstFile_), 0, SEEK_END)), '\0');
    const ssize_t lRead = pread(fileno(pstFile_), szText.data(), szText.size(), 0);
    szText.resize(lRead > 0 ? static_cast<size_t>(lRead) : 0);
    fclose(pstFile_);
    return szText;
}

Capture::~Capture() {
    Stop();
}

KeyFeeder::KeyFeeder() {
    struct termios stRaw = {};
    cfmakeraw(&stRaw);
    openpty(&lMaster_, &lSlave_, nullptr, &stRaw, nullptr);
}

KeyFeeder::~KeyFeeder() {
    Detach();
    HangUp();
}

void KeyFeeder::Attach() {
    fflush(stdout);
    lSavedIn_ = dup(STDIN_FILENO);
    lSavedOut_ = dup(STDOUT_FILENO);
    dup2(lSlave_, STDIN_FILENO);
    dup2(lSlave_, STDOUT_FILENO);
    clearerr(stdin);
}

void KeyFeeder::Detach() {
    if (lSavedIn_ < 0) {
        return;
    }
    fflush(stdout);
    dup2(lSavedIn_, STDIN_FILENO);
    dup2(lSavedOut_, STDOUT_FILENO);
    close(lSavedIn_);
    close(lSavedOut_);
    lSavedIn_ = -1;
}

void KeyFeeder::Feed(const std::string &szKeys) {
    if (write(lMaster_, szKeys.data(), szKeys.size()) != static_cast<ssize_t>(szKeys.size())) {
        perror("feed");
    }
}

void KeyFeeder::HangUp() {
    if (lMaster_ >= 0) {
        close(lMaster_);
        close(lSlave_);
        lMaster_ = -1;
    }
}

std::string KeyFeeder::Echo() {
    std::string szEcho;
    struct pollfd stPoll = {lMaster_, POLLIN, 0};
    while (poll(&stPoll, 1, 20) > 0) {
        char acBuf[4096];
        const ssize_t lRead = read(lMaster_, acBuf, sizeof(acBuf));
        if (lRead <= 0) {
            break;
        }
        szEcho.append(acBuf, static_cast<size_t>(lRead));
    }
    return szEcho;
}
