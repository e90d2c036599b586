// A console on a terminal, and the engineer at it: he types, reads, and now and then ends it or closes the
// terminal, whereupon he starts the next one.
#ifndef TESTS_SOAK_ENGINEER_H
#define TESTS_SOAK_ENGINEER_H

#include "tests/soak/target.h"

struct SoakCommand {
    std::string szLine;
    std::string szAnswer; // what the answer holds; empty: none is shown
    std::string szTarget; // the process that knows it; empty: both
};
extern const SoakCommand g_stPoolsCommand;

class Engineer {
public:
    explicit Engineer(const Target *pstTarget);
    // Does something, when the prompt is there for it. Fails the run when the console hangs or ends by itself.
    void Step(bool bMayEnd);
    // Goes on until the prompt is back.
    void Settle();
    // A command that must be answered now; returns what it brought.
    std::string Ask(const SoakCommand &stCommand);
    std::string AskAnything();
    // Ends the console by the signal, 0: by quitting.
    void End(int lSignal);
    pid_t Pid() const { return pstKs_->Pid(); }
    // From BeginCalm to EndCalm nobody disturbs this console or its target; hostile datagrams alone
    // excuse a command that brings nothing, or something else, and they are few.
    void BeginCalm();
    void EndCalm() const;

    const std::string szName;
    Life stLife;

private:
    void Start();
    void Await(const std::string &szMark, const SoakCommand *pstCommand);
    void Send(const std::string &szKeys, const SoakCommand *pstCommand = nullptr);
    void Progress();
    bool PromptIsBack();
    void Account();
    void Act(bool bMayEnd);
    void CheckEnd(int lStatus) const;

    const Target *pstTarget_;
    std::unique_ptr<PtySession> pstKs_;
    struct termios stBefore_ = {};
    std::string szOut_; // since the last keys
    std::string szMark_;
    const SoakCommand *pstCommand_ = nullptr;
    bool bBusy_ = false;    // the prompt, or the end, is awaited
    bool bDebug_ = false;   // in debug mode
    bool bBlind_ = false;   // was started without a target
    bool bMayQuit_ = false; // a recalled line may end it
    bool bEnding_ = false;
    int lEndStatus_ = 0;
    double dSince_ = 0, dNext_ = 0;
    uint32_t ulCommands_ = 0, ulLost_ = 0; // since BeginCalm
};

#endif
