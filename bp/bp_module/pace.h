// When a process delivers what its threads have queued: the one place that knows two paces.
//
// At the default pace the main thread sends, serves the main module and scans the timers after
// 20 ms in which nothing arrived, and is woken by nobody. A synchronous request looks for its answer every 10
// ms.
//
// At the prompt pace, what is put on the send queue or queued to the main module ends the main thread's wait.
// Its periodic work runs at the latest 20 ms after the last time, however many datagrams arrive, and sooner
// when a timer is due. A synchronous request sleeps until its answer is queued.
//
// What is sent, returned and logged is the same at both, so processes of either pace work together.
#ifndef BP_BP_MODULE_PACE_H
#define BP_BP_MODULE_PACE_H

#include <cstdint>

#include "bp/bp_module/module_info.h"

constexpr int BP_MAIN_EPOLL_TIMEOUT = 20; // ms without an event, or between two passes, until the periodic work
constexpr uint32_t BP_SYNC_POLL_MS = 10; // step in which an answer is looked for, and the shortest wait for one

// Chooses the prompt pace (1) or the default one (0) for this process. Before BP_MwareInit, by the thread
// that will call it. BP_OK; BP_ERR_PARAM for any other value; BP_ERR_FAIL when the process has been started,
// which changes nothing.
uint32_t BP_SetPromptDelivery(uint32_t ulOn);

// 1 at the prompt pace, 0 at the other one. Any thread.
uint32_t BP_GetPromptDelivery();

// An epoll instance that no shell inherits; negative, with errno set, if there is none to be had. Any thread.
int BP_CreateEpoll(int lSize);

// Prepares the pace; the process's epoll instance exists. BP_OK or BP_ERR_FAIL. Start-up only.
uint32_t BP_InitPace();

// Gives back what BP_InitPace took. For a start that fails further on.
void BP_ClosePace();

// The events that the socket is watched for.
uint32_t BP_PaceSocketEvents();

// A message was put on the send queue, or on the main module's. Any thread, as for the next one.
void BP_PaceQueued();

// Whether a message to a module of this process waits for the main thread; an answer is taken by its requester.
inline bool BP_IsForMainThread(const BP_MsgHdr &stHdr) {
    return stHdr.ulModuleDstID == BP_MODULE_ID_MAIN && stHdr.ulMsgType != BP_MSG_TYPE_ACK;
}

// A timer was set that may be due before the next pass. The caller does not hold the timer pool's lock.
void BP_PaceTimerSet();

// The main thread's own from here on.

// How many milliseconds it may wait for events; -1: until there is one.
int BP_PaceWaitMs();

// What it is to do after a wait that brought lEvents events, or failed (-1).
enum BP_PaceWork : uint32_t { BP_PACE_NOTHING, BP_PACE_DELIVER, BP_PACE_PASS };
BP_PaceWork BP_PaceAfterWait(int lEvents);

// The periodic work has been done; pfnMsToNext tells in how many milliseconds the timers need it again, at most
// ulMaxMs.
void BP_PacePassDone(uint32_t (*pfnMsToNext)(uint32_t ulMaxMs));

// Whether it may read a further datagram before it looks after everything else again.
bool BP_PaceMayReadOn();

// The requester's: waits for the answer to a request that it has announced. BP_PaceBeginWait fails
// (BP_ERR_FAIL) for want of a descriptor. BP_PaceStep waits until it is worth looking for the answer, at most
// the ulLeftMs of the limit or one step of BP_SYNC_POLL_MS, whichever is longer, and returns the milliseconds
// that count.
uint32_t BP_PaceBeginWait(BP_AckWait *pstWait);
uint32_t BP_PaceStep(BP_AckWait *pstWait, uint32_t ulLeftMs);
void BP_PaceEndWait(BP_AckWait *pstWait);

#endif
