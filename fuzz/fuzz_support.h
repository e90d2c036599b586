// What the fuzz targets share. Each target has a FuzzStart, called once, and libFuzzer's
// LLVMFuzzerTestOneInput.
#ifndef FUZZ_FUZZ_SUPPORT_H
#define FUZZ_FUZZ_SUPPORT_H

#include <string>
#include <vector>

#include "tests/support/files.h"
#include "tests/support/wire.h"

// Sets the runtime up; in the sandbox already, with standard output discarded.
void FuzzStart();

// A broken promise of the product: ends the program as a finding.
void FuzzExpect(bool bHolds, const char *pcWhat);

inline std::string FuzzText(const uint8_t *pucData, size_t ulSize) {
    return {reinterpret_cast<const char *>(pucData), ulSize};
}

// The pieces between the separators, at most ulMax; the last one has all the rest.
std::vector<std::string> FuzzSplit(const std::string &szText, char cSeparator, size_t ulMax);

// At rest every buffer is back.
void FuzzCheckSlabsFull();

// Makes this process a MW_MWARE whose main thread is the caller; returns who speaks to it.
BusSocket *FuzzStartMware();

#endif
