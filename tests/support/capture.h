// What goes through one of the process's standard descriptors while the record lives.
#ifndef TESTS_SUPPORT_CAPTURE_H
#define TESTS_SUPPORT_CAPTURE_H

#include <cstdio>
#include <string>

// Takes over standard output or standard error; Stop gives it back and returns what was written.
class Capture {
public:
    explicit Capture(FILE *pstStream);
    ~Capture();
    std::string Stop();

private:
    FILE *pstStream_;
    int lSavedFd_;
    FILE *pstFile_;
};

// A raw pseudo-terminal that takes the place of standard input and output while it is attached: keys are fed
// in, the echo is read back.
class KeyFeeder {
public:
    KeyFeeder();
    ~KeyFeeder();
    void Attach();
    void Detach();
    void Feed(const std::string &szKeys);
    void HangUp();
    // What was echoed since the last call.
    std::string Echo();

private:
    int lMaster_;
    int lSlave_;
    int lSavedIn_ = -1;
    int lSavedOut_ = -1;
};

#endif
