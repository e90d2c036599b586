// Whose bytes stand in the receive ring. A message goes back to the sender of the datagram that it ended in,
// also when it had to wait behind another sender's unfinished one.
#ifndef BP_BP_MODULE_RECV_SOURCE_H
#define BP_BP_MODULE_RECV_SOURCE_H

#include <cstdint>
#include <netinet/in.h>

constexpr uint32_t BP_RECV_SOURCE_NUM = 32;

// The senders in the order of their bytes, one entry for datagrams of one sender that follow each other. With
// more changes of sender than entries in one filling of the ring, the last entry's bytes all count as the
// newest sender's.
struct BP_RecvSources {
    struct {
        uint32_t ulLen; // bytes of his that are still in the ring
        struct sockaddr_in stFrom;
    } astSource[BP_RECV_SOURCE_NUM];
    uint32_t ulFirst;
    uint32_t ulNum;
};

// The newest ulLen bytes are stFrom's. The main thread's, as all of these.
void BP_AddSource(BP_RecvSources *pstSources, uint32_t ulLen, const struct sockaddr_in &stFrom);

// The oldest ulLen bytes are gone.
void BP_DropSource(BP_RecvSources *pstSources, uint32_t ulLen);

// Who sent the byte that ulOffset older ones precede; stDefault when that is not noted.
struct sockaddr_in BP_SourceAt(const BP_RecvSources *pstSources, uint32_t ulOffset,
                               const struct sockaddr_in &stDefault);

#endif
