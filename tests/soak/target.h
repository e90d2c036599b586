// An example process under the soak, and what any process uses in the course of its life.
#ifndef TESTS_SOAK_TARGET_H
#define TESTS_SOAK_TARGET_H

#include <memory>

#include "tests/soak/chance.h"
#include "tests/support/pty_session.h"

inline double g_dWarmUpSec; // of every process

// One life of a process: what it uses, against what it used after its warm-up.
struct Life {
    void Measure(pid_t lPid);
    // Fails the run when the process uses more now, and goes on doing so.
    void Judge(const std::string &szName, pid_t lPid);

    double dBorn = Now();
    bool bWarm = false;
    long lWarmKib = 0, lKib = 0;
    size_t ulWarmFds = 0, ulFds = 0;
};

// Started at either pace, killed, stopped and continued.
struct Target {
    explicit Target(const char *pcName);
    // With bDisturb it is now and then made to run, or to run no more, else it is left running.
    void Step(bool bDisturb);

    std::string szName;
    std::unique_ptr<Child> pstChild; // null after a kill
    bool bRuns = true;
    Life stLife;

private:
    void Start();
    void Resume();
    double dNext_ = 0;
};

#endif
