// Answers to requests.
#ifndef BP_BP_CMD_ACK_H
#define BP_BP_CMD_ACK_H

#include <cstdint>

#include "bp/bp_module/proc_info.h"
#include "bp/bp_msg_hdr.h"

// What one message can carry to another process: both its header and its payload must fit the receiver's ring.
constexpr uint32_t BP_ACK_TEXT_MAX = BP_RECV_RING_SIZE - BP_MSG_HDR_LEN;

// The answer that says that a request was not understood or could not be carried out.
extern const char g_szOperateFail[];

// Sends ulLen bytes of text as the answer to the received message pstReq, which stays the caller's. A text of
// more than BP_ACK_TEXT_MAX bytes is cut at a line end, and a last line says so; of such a text only the first
// BP_ACK_TEXT_MAX bytes need to exist. When no buffer of that size is to be had the answer is g_szOperateFail.
// Any thread. BP_OK; BP_ERR_PARAM for a missing argument; BP_ERR_NO_MODULE when the message was addressed to a
// module that this process has not registered; BP_ERR_FAIL when there is no buffer at all, or what
// BP_SendMsgProc returns.
uint32_t BP_SendAckMsg(const BP_StructMsg *pstReq, const char *pcText, uint32_t ulLen);

#endif
