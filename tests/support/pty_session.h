// A program on a pseudo-terminal of its own, and programs beside it.
#ifndef TESTS_SUPPORT_PTY_SESSION_H
#define TESTS_SUPPORT_PTY_SESSION_H

#include <string>
#include <sys/types.h>
#include <termios.h>
#include <vector>

// The pace of the process under test, and of the example processes that it starts. Before anything is started.
void TestChoosePace(bool bPrompt);
bool TestIsPrompt();

// Waits for the child and sets its ID to -1; the exit status, 256 and more for a signal, -1 when it does not
// end in time.
int WaitForEnd(pid_t *plPid, int lSeconds);

// An example process, at that pace, without a terminal; ended by its ID when the record goes, or with the
// process that made it.
class Child {
public:
    explicit Child(const std::vector<std::string> &aszArg);
    ~Child();
    void Signal(int lSignal) const;
    // Returns when all its threads stand still.
    void Stop() const;
    // Reads its standard output until szText has appeared.
    bool WaitForOutput(const std::string &szText);
    int WaitExit(int lSeconds = 30) { return WaitForEnd(&lPid_, lSeconds); }
    pid_t Pid() const { return lPid_; }

private:
    pid_t lPid_;
    int lOut_;
};

class PtySession {
public:
    // lFlags: what is added to the terminal's file status flags.
    explicit PtySession(const std::vector<std::string> &aszArg, int lFlags = 0);
    ~PtySession();
    void Type(const std::string &szKeys) const;
    // Reads on until szText has appeared behind what the last call returned; returns everything up to its end,
    // or all that came when it does not appear in time, or the program ends.
    std::string ReadUntil(const std::string &szText, int lSeconds = 30);
    // What has come already, without waiting.
    std::string ReadPresent();
    // Whether the terminal takes no more of what the program prints.
    bool IsFull() const;
    void HangUp();
    void Signal(int lSignal) const;
    int WaitExit(int lSeconds = 30) { return WaitForEnd(&lPid_, lSeconds); }
    struct termios Settings() const;
    bool IsNonBlocking() const;
    void SetSettings(const struct termios &stSettings) const;
    pid_t Pid() const { return lPid_; }

private:
    bool HasEnded() const;
    pid_t lPid_;
    int lMaster_;
    int lSlave_; // kept open so that the settings can be looked at after the program's end
    std::string szPending_;
};

#endif
