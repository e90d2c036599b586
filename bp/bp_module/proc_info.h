// The process record: one per process, filled by BP_MwareInit, never torn down.
#ifndef BP_BP_MODULE_PROC_INFO_H
#define BP_BP_MODULE_PROC_INFO_H

#include <atomic>
#include <cstdint>
#include <netinet/in.h>

#include "bp/bp_module/module_info.h"
#include "bp/bp_module/recv_source.h"
#include "bp/bp_timer/timer_info.h"
#include "bp/bp_types.h"

constexpr uint32_t BP_RECV_RING_SIZE = 8192;

// Bytes read from the socket and not yet cut into messages: ulUsedLen of them from ulRdPos on, wrapping at
// ulMaxSize. Only the main thread touches the ring.
struct BP_RecvRing {
    uint32_t ulMaxSize = 0;
    uint32_t ulUsedLen = 0;
    uint32_t ulFreeLen = 0; // ulUsedLen + ulFreeLen = ulMaxSize
    uint32_t ulWrPos = 0;
    uint32_t ulRdPos = 0;
    uint8_t *pucBuf = nullptr;
    bool bNoBuf = false;      // the oldest message found no buffer; the socket is left alone until it does
    bool bUnread = false;     // datagrams may be left that no event will tell of
    int64_t lHeldSinceMs = 0; // since when the oldest message has been incomplete; 0 when it is not
    BP_RecvSources stSources = {};
};

struct BP_ProcInfo {
    char szProcName[256] = {};
    uint16_t usProcID = 0; // 0 until start-up stores it; constant once the first thread runs
    int lSocket = -1;      // the receive path reads from it
    int lSendSocket = -1;  // its copy, once it is registered with lEpollFd; the send path writes to it
    BP_RecvRing stRecvRing;
    struct sockaddr_in stPeerAddr = {}; // source of the datagram read last
    uint32_t ulPeerAddrLen = 0;
    BP_Sem semRecvLock; // not taken: the main thread alone uses the ring
    int lEpollFd = -1;
    BP_ModuleInfo astModule[BP_MAX_MODULE_NUM];
    BP_ListCtrlOf<BP_ModuleInfo> stModuleCtrl;
    std::atomic<BP_ModuleInfo *> pstNewestModule{
        nullptr}; // front of the used list, for look-ups without the lock
    BP_Timer astTimer[BP_MAX_TIMER_NUM];
    BP_ListCtrlOf<BP_Timer> stTimerCtrl; // the working timers in stUsedList
    BP_ListCtrl stSendQueue;             // buffers waiting for the main thread to send them to other processes
    uint32_t ulCmdModuleID = 0;
    uint32_t ulMainModuleID = 0;
    int64_t lStartTime = 0; // when BP_MwareInit began, in seconds since 1970
};

// The record of this process; never null.
BP_ProcInfo *BP_GetProcInfo();

#endif
