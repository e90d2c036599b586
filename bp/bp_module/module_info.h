// The module record and the handler tables in it.
#ifndef BP_BP_MODULE_MODULE_INFO_H
#define BP_BP_MODULE_MODULE_INFO_H

#include <atomic>
#include <cstdint>
#include <pthread.h>

#include "bp/bp_msg_hdr.h"
#include "bp/bp_types.h"

constexpr uint32_t BP_MAX_MODULE_NUM = 30;
constexpr uint32_t BP_MAX_MSG_PROC_NUM = 50; // handler entries per table
constexpr uint32_t BP_TIMER_QUEUE_NUM = 30;  // stated capacity of a timer queue

// A message handler. It runs in its module's thread, outside every lock. pstMsg is the received message; the
// runtime gives its buffer back after the call unless the handler keeps it with BP_KeepMsg. The result is not
// used.
using BP_PfnMsgProc = uint32_t (*)(uint32_t ulMsgCode, BP_StructMsg *pstMsg, uint32_t ulParam);

struct BP_MsgProc {
    uint32_t ulMsgCode = 0; // 0 catches every code
    BP_PfnMsgProc pfnProc = nullptr;
    uint32_t ulParam = 0;
    BP_Sem semLock;
    BP_ListNode stNode;
};

// A synchronous request that is waiting for its answer. It lives on the requester's stack while it waits.
struct BP_AckWait {
    uint32_t ulAssiMsgId = 0;
    BP_ListNode stNode;
    BP_Sem semAnswer{0};     // where its requester waits, at the prompt pace
    uint32_t ulPromised = 0; // posts that it has got or is about to get; guarded by stAckQueue.semLock
    uint32_t ulTaken = 0;    // of them; the requester's own
    int lEpollFd = -1;       // where its thread sleeps, at the default pace
};

struct BP_ModuleInfo {
    char szModuleName[256] = {};
    uint32_t ulModuleID = 0;
    uint16_t usProcID = 0;
    std::atomic<uint32_t> ulUsed{0};    // 1 while registered
    std::atomic<uint32_t> ulStarted{0}; // set just before the thread is created
    std::atomic<pthread_t> ulThreadID{0};
    BP_Sem semWakeup{0}; // posted once for each wake-up
    BP_MsgProc astMsgProc[BP_MAX_MSG_PROC_NUM];
    BP_ListCtrlOf<BP_MsgProc> stMsgProcCtrl; // handlers of every message type but BP_MSG_TYPE_INNER
    BP_MsgProc astInnerProc[BP_MAX_MSG_PROC_NUM];
    BP_ListCtrlOf<BP_MsgProc> stInnerProcCtrl;
    std::atomic<uint32_t> ulAssiMsgSeq{0}; // numbers the messages that this module addresses
    BP_ListCtrl stMsgQueue;                // requests and ordinary messages
    BP_ListCtrl stAckQueue;                // answers to this module's synchronous requests
    BP_ListCtrl stTimerQueue;              // timer notices
    std::atomic<uint32_t> ulLastSendMsg{0};
    std::atomic<uint32_t> ulLastRecvMsg{0};
    std::atomic<uint32_t> ulSendCnt{0};
    std::atomic<uint32_t> ulRecvCnt{0};
    BP_ListNode stNode;
    BP_List<BP_AckWait> stAckWaitList; // requests waiting now; guarded by stAckQueue.semLock
    bool bExempt = false;              // its thread may use the buffers' reserve
};

#endif
