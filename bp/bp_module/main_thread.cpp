#include "bp/bp_module/main_thread.h"

#include <cstdio>
#include <cstdlib>
#include <sys/epoll.h>

#include "bp/bp_log/log.h"
#include "bp/bp_module/module_thread.h"
#include "bp/bp_module/pace.h"
#include "bp/bp_module/proc_info.h"
#include "bp/bp_module/receive.h"
#include "bp/bp_sendmsg/socket_send.h"
#include "bp/bp_timer/timer_scan.h"

static void BP_DeliverQueued(BP_ModuleInfo *pstMain) {
    BP_ThreadRecvMsgProc(pstMain);
    BP_MsgSocketSendProc();
}

static void BP_IdlePass(BP_ModuleInfo *pstMain) {
    BP_CheckTimersInPass();
    BP_ThreadTimerProc(pstMain);
    BP_DeliverQueued(pstMain);
    BP_ResumeReceive();
    BP_PacePassDone(BP_MsToNextExpiry);
}

static void BP_ServeEvents(const struct epoll_event *pastEvent, int lNum) {
    for (int i = 0; i < lNum; i++) {
        if ((pastEvent[i].events & EPOLLIN) != 0 && pastEvent[i].data.fd == BP_GetProcInfo()->lSocket) {
            BP_GetAndDispatchMsg();
        }
    }
}

void *BP_MainThreadProcMain(void *pstWorkModule) {
    if (pstWorkModule == nullptr) {
        static constexpr char szCond[] = "((void *)0) != pstWorkModule";
        BP_WriteLog(BP_LOG_LEVEL_ERROR, 0, BP_MODULE_ID_MAIN, BP_LOG_UNIT, __LINE__, "%s ASSERT (%s)!!!",
                    __func__, szCond);
        fprintf(stderr, "%s:%d: %s: Assertion `%s' failed.\n", BP_LOG_UNIT, __LINE__, __func__, szCond);
        abort();
    }
    BP_ModuleInfo *pstMain = static_cast<BP_ModuleInfo *>(pstWorkModule);
    BP_BindModuleThread(pstMain);
    for (;;) {
        struct epoll_event astEvent[BP_MAIN_EPOLL_EVENTS];
        const int lWaitMs = BP_IsReceivePending() ? 0 : BP_PaceWaitMs();
        const int lNum = epoll_wait(BP_GetProcInfo()->lEpollFd, astEvent, BP_MAIN_EPOLL_EVENTS, lWaitMs);
        if (BP_IsReceivePending()) {
            BP_GetAndDispatchMsg();
        } else {
            BP_ServeEvents(astEvent, lNum);
        }
        const BP_PaceWork enWork = BP_PaceAfterWait(lNum);
        if (enWork == BP_PACE_PASS) {
            BP_IdlePass(pstMain);
        } else if (enWork == BP_PACE_DELIVER) {
            BP_DeliverQueued(pstMain);
        }
    }
}
