#include "fuzz/fuzz_support.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sys/socket.h>
#include <unistd.h>

#include "bp/bp.h"
#include "bp/bp_module/recv_ring.h"
#include "tests/support/sandbox.h"
#include "tests/support/slab_check.h"

static constexpr int64_t FUZZ_WAIT_MS = 5000;

extern "C" int LLVMFuzzerInitialize(int *, char ***pppcArg) {
    if (!TestEnterSandbox(*pppcArg)) {
        fprintf(stderr, "fuzzing needs private namespaces\n");
        exit(1);
    }
    if (freopen("/dev/null", "w", stdout) == nullptr) {
        exit(1);
    }
    FuzzStart();
    return 0;
}

void FuzzExpect(bool bHolds, const char *pcWhat) {
    if (!bHolds) {
        fprintf(stderr, "broken: %s\n", pcWhat);
        abort();
    }
}

void FuzzWait(const std::function<bool()> &pfnDone, const char *pcWhat) {
    const int64_t lEnd = BP_NowMs() + FUZZ_WAIT_MS;
    while (!pfnDone()) {
        FuzzExpect(BP_NowMs() < lEnd, pcWhat);
        usleep(20);
    }
}

std::vector<std::string> FuzzSplit(const std::string &szText, char cSeparator, size_t ulMax) {
    std::vector<std::string> aszPiece;
    size_t ulAt = 0;
    while (aszPiece.size() + 1 < ulMax) {
        const size_t ulEnd = szText.find(cSeparator, ulAt);
        if (ulEnd == std::string::npos) {
            break;
        }
        aszPiece.push_back(szText.substr(ulAt, ulEnd - ulAt));
        ulAt = ulEnd + 1;
    }
    aszPiece.push_back(szText.substr(ulAt));
    return aszPiece;
}

void FuzzCheckSlabs() {
    FuzzExpect(SlabFault().empty(), "free and used buffers are all buffers, and the free ones listed");
}

void FuzzCheckSlabsFull() {
    FuzzWait([] { return SlabsNotFull().empty(); }, "every buffer comes back");
}

void FuzzBus::Send(const std::string &szDatagram) const {
    sendto(lSocket, szDatagram.data(), szDatagram.size(), 0,
           reinterpret_cast<const struct sockaddr *>(&stMware), sizeof(stMware));
}

std::string FuzzBus::Receive() const {
    std::string szDatagram(65536, '\0');
    const ssize_t lRead = recv(lSocket, szDatagram.data(), szDatagram.size(), MSG_DONTWAIT);
    szDatagram.resize(lRead > 0 ? static_cast<size_t>(lRead) : 0);
    return szDatagram;
}

FuzzBus FuzzStartBus() {
    FuzzExpect(BP_MwareInit("MW_MWARE", 101) == BP_OK, "the process starts");
    BP_SetLogLevel(BP_LOG_LEVEL_FATAL); // garbage is reported in any number of lines
    FuzzBus stBus = {socket(AF_INET, SOCK_DGRAM, 0), {}};
    stBus.stMware.sin_family = AF_INET;
    stBus.stMware.sin_port = htons(2048);
    stBus.stMware.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return stBus;
}

std::string FuzzMsg(uint32_t ulDstID, uint32_t ulMsgCode, const std::string &szPayload) {
    BP_MsgHdr stHdr = {};
    memcpy(stHdr.aucPrefix, BP_MSG_PREFIX, sizeof(stHdr.aucPrefix));
    stHdr.ulMsgCode = ulMsgCode;
    stHdr.ulModuleSrcID = BP_MODULE_ID_MAIN;
    stHdr.ulModuleDstID = ulDstID;
    stHdr.usSrcProcID = 257;
    stHdr.usDstProcID = 101;
    stHdr.usMsgLen = static_cast<uint16_t>(sizeof(stHdr) + szPayload.size());
    return std::string(reinterpret_cast<const char *>(&stHdr), sizeof(stHdr)) + szPayload;
}
