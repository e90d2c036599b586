#include "bp/bp_module/recv_source.h"

void BP_AddSource(BP_RecvSources *pstSources, uint32_t ulLen, const struct sockaddr_in &stFrom) {
    const uint32_t ulEnd = pstSources->ulFirst + pstSources->ulNum;
    auto *pstLast = &pstSources->astSource[(ulEnd + BP_RECV_SOURCE_NUM - 1) % BP_RECV_SOURCE_NUM];
    const bool bSame = pstSources->ulNum != 0 && pstLast->stFrom.sin_port == stFrom.sin_port &&
                       pstLast->stFrom.sin_addr.s_addr == stFrom.sin_addr.s_addr;
    if (!bSame && pstSources->ulNum < BP_RECV_SOURCE_NUM) {
        pstLast = &pstSources->astSource[ulEnd % BP_RECV_SOURCE_NUM];
        pstLast->ulLen = 0;
        pstSources->ulNum++;
    }
    pstLast->ulLen += ulLen;
    pstLast->stFrom = stFrom;
}

void BP_DropSource(BP_RecvSources *pstSources, uint32_t ulLen) {
    while (pstSources->ulNum != 0) {
        auto *pstOldest = &pstSources->astSource[pstSources->ulFirst];
        if (ulLen < pstOldest->ulLen) {
            pstOldest->ulLen -= ulLen;
            return;
        }
        ulLen -= pstOldest->ulLen;
        pstSources->ulFirst = (pstSources->ulFirst + 1) % BP_RECV_SOURCE_NUM;
        pstSources->ulNum--;
    }
}

struct sockaddr_in BP_SourceAt(const BP_RecvSources *pstSources, uint32_t ulOffset,
                               const struct sockaddr_in &stDefault) {
    for (uint32_t i = 0; i < pstSources->ulNum; i++) {
        const auto &stSource = pstSources->astSource[(pstSources->ulFirst + i) % BP_RECV_SOURCE_NUM];
        if (ulOffset < stSource.ulLen) {
            return stSource.stFrom;
        }
        ulOffset -= stSource.ulLen;
    }
    return stDefault;
}
