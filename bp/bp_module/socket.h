// The process's one socket.
#ifndef BP_BP_MODULE_SOCKET_H
#define BP_BP_MODULE_SOCKET_H

#include <cstdint>

constexpr uint32_t BP_SOCK_MODE_LOCAL = 1; // local end only
constexpr uint32_t BP_SOCK_TYPE_DGRAM = 0;

// Opens the process socket, binds it to ulLocIP:usLocPort (both in host order) unless the port is 0, and
// registers it with the process's epoll instance, which must exist. No other mode than BP_SOCK_MODE_LOCAL and
// no other type than BP_SOCK_TYPE_DGRAM is supported; the remote end is not used. BP_OK, or BP_ERR_FAIL with no
// socket left. Start-up only.
uint32_t BP_InitSocket(uint32_t ulSockMode, uint32_t ulSockType, uint32_t ulLocIP, uint16_t usLocPort,
                       uint32_t ulRemoteIP, uint16_t usRemotePort);

// Makes a socket non-blocking, its address reusable, and switches lingering off. BP_OK; BP_ERR_FAIL when an
// option cannot be set; BP_ERR_PARAM when lSocket is negative.
uint32_t BP_SetSocketProperty(int lSocket, uint32_t ulSockType);

// Closes the socket and the epoll instance of a start that failed.
void BP_CloseTransport();

#endif
