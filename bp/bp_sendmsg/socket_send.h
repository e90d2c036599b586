// The way out of the process: messages that other threads put on the send queue leave as datagrams.
#ifndef BP_BP_SENDMSG_SOCKET_SEND_H
#define BP_BP_SENDMSG_SOCKET_SEND_H

#include <cstdint>

// Sends what is on stSendQueue when it is called, oldest first, each message as one datagram, and gives the
// buffers back; what is queued meanwhile waits for the next call, or a thread that never stops sending would
// keep the main thread here. A datagram that cannot be sent is lost. BP_OK; BP_ERR_FAIL if it stopped at a
// message that cannot be addressed (which is dropped; the rest waits for the next call). Main thread only.
uint32_t BP_MsgSocketSendProc();

#endif
