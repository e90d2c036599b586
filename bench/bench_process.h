// The process on the bus whose inside is measured: MW_MWARE, with two modules of its own.
#ifndef BENCH_BENCH_PROCESS_H
#define BENCH_BENCH_PROCESS_H

#include <functional>

#include "bp/bp.h"

constexpr uint32_t BENCH_CTRL = 0x90000001;
constexpr uint32_t BENCH_PTZ = 0x90000003;

// Starts the process; false when it does not start. Once.
bool BenchStartProcess();

// Runs the work in the thread of that module and returns what it returned.
double BenchInModule(uint32_t ulModuleID, const std::function<double()> &pfnWork);

// The same in both modules at once; returns the longer time.
double BenchInBothModules(const std::function<double()> &pfnWork);

#endif
