// The receive ring: bytes that have arrived, cut into messages, each into the queue of the module it is
// addressed to. docs/wire-format.md has the framing rules.
//
// The ring is one byte sequence for all senders, as the framing rules want it: a message may come in pieces,
// and several in one datagram. All of this is the main thread's alone.
#ifndef BP_BP_MODULE_RECV_RING_H
#define BP_BP_MODULE_RECV_RING_H

#include <cstdint>

#include "bp/bp_module/proc_info.h"

// What BP_TransMsgToModule says besides its return value.
constexpr uint32_t BP_TRANS_DONE = 0;       // one message delivered, or dropped because nobody here has its ID
constexpr uint32_t BP_TRANS_INCOMPLETE = 1; // the rest of the message has not arrived
constexpr uint32_t BP_TRANS_NO_BUF = 3;     // no buffer; the message stays in the ring
constexpr uint32_t BP_TRANS_ADD_FAIL = 4;   // the destination's queue refused it

// Gives the ring its storage, empty. BP_OK or BP_ERR_FAIL. Start-up only.
uint32_t BP_InitRecvRing(BP_RecvRing *pstRing);

// Counts in the ulLen bytes that were read to the write position, which stFrom sent. At most ulFreeLen.
void BP_RingTakeIn(BP_RecvRing *pstRing, uint32_t ulLen, const struct sockaddr_in &stFrom);

// Takes at most one message out of the ring. 0 with one of the results above at pulResult; BP_ERR_FAIL when a
// header was rejected or the destination could not be woken; BP_ERR_PARAM for a null pulResult. After a
// non-zero return the caller searches for the next prefix; a rejected header whose prefix was right has had
// that prefix consumed.
uint32_t BP_TransMsgToModule(uint32_t *pulResult);

// Discards bytes until the oldest unread ones are a prefix, or only three are left.
void BP_GetNextMsgHdr(BP_RecvRing *pstRing);

// Cuts the ring into messages until one is incomplete or finds no buffer; returns which of the two, and notes
// it in the ring.
uint32_t BP_CutMessages();

// Gives up the incomplete message at the head of the ring, with an ERROR line: whatever stands behind its
// prefix gets its turn. Frees at least one byte of a ring that holds any.
void BP_GiveUpHead(BP_RecvRing *pstRing);

#endif
