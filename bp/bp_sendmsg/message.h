// Messages in their handles: make one, address it, read it, give it back.
//
// A sender calls BP_CreatStructMsg, BP_ConfigMsgHdr, BP_SendMsgProc, BP_EraseMsgData, in this order and the
// last one always; BP_PostMsg does all four. The receiver of an answer decodes it, copies what it needs and
// erases it. All of these may be called by any thread.
#ifndef BP_BP_SENDMSG_MESSAGE_H
#define BP_BP_SENDMSG_MESSAGE_H

#include <cstdint>

#include "bp/bp_module/module_info.h"
#include "bp/bp_msg_hdr.h"
#include "bp/bp_types.h"

// A message with a copy of the ulMemLen bytes at pucMem (null only for 0 bytes) as payload; its header is not
// filled in yet. An empty handle when the arguments are wrong or no buffer is to be had. The caller erases it.
BP_StructMsg BP_CreatStructMsg(const void *pucMem, uint32_t ulMemLen);

// Fills in the header and takes the source module's next sequence number. The source must be registered in this
// process, the destination configured. BP_OK or BP_ERR_PARAM.
uint32_t BP_ConfigMsgHdr(BP_StructMsg *pstMsg, uint32_t ulModuleSrcID, uint32_t ulModuleDstID,
                         uint32_t ulMsgCode, uint32_t ulMsgType);

// Finds the payload: its address inside the buffer, not a copy, and its length in bytes. BP_OK or BP_ERR_PARAM.
uint32_t BP_DecodeStructMsgData(const BP_StructMsg *pstMsg, uint8_t **ppucMemInter, uint32_t *pulMemLen);

// Gives the buffer back if the handle still owns it, and empties the handle.
void BP_EraseMsgData(BP_StructMsg *pstMsg);

// For a message handler: keeps the received message beyond the handler's return. Returns a handle of its own,
// which any thread may erase when done; an empty one when pstMsg holds no buffer. From here on the
// request is no longer touched when its sender stops waiting; a handler that sets BP_MSG_FLAG_KEEP by hand gets
// that only when it returns, and must not let anybody erase the message before.
BP_StructMsg BP_KeepMsg(BP_StructMsg *pstMsg);

// The header of a message that a buffer with data memory holds.
inline BP_MsgHdr *BP_MsgHdrOf(BP_SlabBuf *pstBuf) {
    return reinterpret_cast<BP_MsgHdr *>(pstBuf->pucData);
}

// Sets the fields that address a message, all but AssiMsgId and the processes.
void BP_FillMsgHdr(BP_SlabBuf *pstBuf, uint32_t ulMsgType, uint32_t ulMsgCode, uint32_t ulModuleSrcID,
                   uint32_t ulModuleDstID);

#endif
