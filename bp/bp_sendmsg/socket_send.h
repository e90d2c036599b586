// The way out of the process: messages that other threads put on the send queue leave as datagrams.
#ifndef BP_BP_SENDMSG_SOCKET_SEND_H
#define BP_BP_SENDMSG_SOCKET_SEND_H

#include <cstdint>

// Sends everything on stSendQueue, oldest first, each message as one datagram, and gives the buffers back. A
// datagram that cannot be sent is lost. BP_OK when the queue is empty; BP_ERR_FAIL when it stopped at a message
// that cannot be addressed (which is dropped; the rest waits for the next call). Main thread only.
uint32_t BP_MsgSocketSendProc();

#endif
