// A program on a terminal of its own.
#ifndef BENCH_PROGRAM_H
#define BENCH_PROGRAM_H

#include <memory>
#include <string>
#include <sys/types.h>
#include <termios.h>
#include <vector>

bool SameSettings(const struct termios &stA, const struct termios &stB);

class Program {
public:
    // lFlags: what is added to the terminal's file status flags.
    explicit Program(const std::vector<std::string> &aszArg, int lFlags = 0);
    ~Program(); // ends it
    Program(const Program &) = delete;
    void Type(const std::string &szKeys) const;
    // Reads on until szText has appeared; returns everything up to its end, or all that came if it does not
    // appear in time, or the program ends. On a busy machine each of the thousand steps of a console's limit of
    // ten seconds may take several times as long.
    std::string ReadUntil(const std::string &szText, int lSeconds = 100);
    // What has come already, without waiting.
    std::string ReadPresent();
    // Types a line in debug mode and returns what is printed up to the next prompt, the echo taken off.
    std::string Command(const std::string &szLine);
    void EnterDebugMode();
    // Whether the terminal takes no more of what the program prints.
    bool IsFull() const;
    void HangUp();
    void Signal(int lSignal) const;
    // Returns when all its threads stand still.
    void Stop() const;
    // The exit status, 256 and more for a signal, -1 if it does not end in time.
    int WaitExit(int lSeconds = 30);
    struct termios Settings() const;
    void SetSettings(const struct termios &stSettings) const;
    bool IsNonBlocking() const;
    pid_t Pid() const { return lPid_; }

private:
    pid_t lPid_;
    int lMaster_ = -1;
    int lSlave_ = -1; // kept open so that the settings can be looked at after the program's end
    std::string szPending_;
};

// An example process that is ready.
std::unique_ptr<Program> StartExample(const std::string &szPath, const std::string &szName = "MW_MWARE");

#endif
