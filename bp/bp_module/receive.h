// The way in: datagrams from the socket into the receive ring. docs/wire-format.md says what happens to which.
//
// Four things keep receiving going whatever arrives. A datagram is read whole or not at all; one that could
// never fit is refused. A message that is never completed gives way to a datagram that does not fit beside it,
// and is given up when it has waited for BP_RECV_HOLD_MS and the socket is empty. A message that found no
// buffer is tried again with the next event and in the next idle pass. Until then nothing more is read: what
// waits in the socket is not lost, and keeps its own sender's address.
//
// All of this is the main thread's alone.
#ifndef BP_BP_MODULE_RECEIVE_H
#define BP_BP_MODULE_RECEIVE_H

#include <cstdint>

// How long a message may wait for its rest, in milliseconds. On loopback the pieces of one message follow each
// other at once; what has been waiting this long is the remains of something else, and swallows what comes
// behind it.
constexpr int64_t BP_RECV_HOLD_MS = 1000;

// Reads all datagrams that are waiting and delivers the messages in them, as far as there are buffers and the
// process's pace lets it. BP_OK, or BP_ERR_FAIL when a read fails. A datagram larger than the ring is refused
// whole, with an ERROR line, and counts as no failure.
uint32_t BP_GetAndDispatchMsg();

// Whether reading stopped for the pace's sake, so that it must go on without an event.
bool BP_IsReceivePending();

// Takes up receiving where a want of buffers or of the rest of a message had stopped it. For the idle pass.
void BP_ResumeReceive();

#endif
