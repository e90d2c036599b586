// What the fuzz targets share. Each target has a FuzzStart, called once, and libFuzzer's
// LLVMFuzzerTestOneInput.
#ifndef FUZZ_FUZZ_SUPPORT_H
#define FUZZ_FUZZ_SUPPORT_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <netinet/in.h>
#include <string>
#include <vector>

// Sets the runtime up; in the sandbox already, with standard output discarded.
void FuzzStart();

// A broken promise of the product: ends the program as a finding.
void FuzzExpect(bool bHolds, const char *pcWhat);

// Waits for what other threads have yet to do; a finding when they do not.
void FuzzWait(const std::function<bool()> &pfnDone, const char *pcWhat);

// The pieces between the separators, at most ulMax; the last one has all the rest.
std::vector<std::string> FuzzSplit(const std::string &szText, char cSeparator, size_t ulMax);

// Counts of every class add up; and, at rest, every buffer is back. Answers that nobody waits for are let go.
void FuzzCheckSlabs();
void FuzzCheckSlabsFull();

// A started MW_MWARE whose main thread is the caller: what is sent is on its socket, what it answers on
// lSocket.
struct FuzzBus {
    int lSocket;
    struct sockaddr_in stMware;
    void Send(const std::string &szDatagram) const;
    std::string Receive() const; // empty when there is none
};
FuzzBus FuzzStartBus();

// A message as the console sends it, with the given payload.
std::string FuzzMsg(uint32_t ulDstID, uint32_t ulMsgCode, const std::string &szPayload);

#endif
