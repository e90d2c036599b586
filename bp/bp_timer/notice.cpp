#include "bp/bp_timer/notice.h"

#include <cstring>

#include "bp/bp_log/log.h"
#include "bp/bp_module/msg_queue.h"
#include "bp/bp_module/slab.h"

BP_SlabBuf *BP_MakeNotice(uint32_t ulTimerID) {
    static constexpr char szFunc[] = "BP_TimerExpireProc";
    BP_SlabBuf *pstBuf = BP_SlabGetBuf(sizeof(ulTimerID), BP_SLAB_TYPE_TIMER);
    if (pstBuf == nullptr) {
        BP_LOG_DEBUG("[%s]fail to get new slab buffer.", szFunc);
        return nullptr;
    }
    if (pstBuf->pucData == nullptr) {
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s]invalid timer msg buffer.", szFunc);
        BP_SlabFreeBuf(pstBuf);
        return nullptr;
    }
    memcpy(pstBuf->pucData, &ulTimerID, sizeof(ulTimerID));
    return pstBuf;
}

uint32_t BP_NoticeTimerID(const BP_SlabBuf *pstBuf) {
    uint32_t ulTimerID = 0;
    memcpy(&ulTimerID, pstBuf->pucData, sizeof(ulTimerID));
    return ulTimerID;
}

static bool BP_IsNoticeOf(const BP_SlabBuf *pstBuf, uint32_t ulTimerID) {
    return BP_NoticeTimerID(pstBuf) == ulTimerID;
}

void BP_DropNotices(BP_ListCtrl *pstQueue, uint32_t ulTimerID) {
    BP_SlabBuf *pstBuf = BP_TakeMsgIf(pstQueue, BP_IsNoticeOf, ulTimerID);
    while (pstBuf != nullptr) {
        BP_SlabFreeBuf(pstBuf);
        pstBuf = BP_TakeMsgIf(pstQueue, BP_IsNoticeOf, ulTimerID);
    }
}
