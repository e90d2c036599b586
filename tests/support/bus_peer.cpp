#include "tests/support/bus_peer.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/support/files.h"
#include "tests/support/slab_check.h"

WireMsg MakeMsg(uint32_t ulDstID, uint32_t ulMsgCode, const std::string &szPayload) {
    WireMsg stMsg = {};
    memcpy(stMsg.stHdr.aucPrefix, BP_MSG_PREFIX, sizeof(stMsg.stHdr.aucPrefix));
    stMsg.stHdr.ulMsgCode = ulMsgCode;
    stMsg.stHdr.ulModuleSrcID = BP_MODULE_ID_MAIN;
    stMsg.stHdr.ulModuleDstID = ulDstID;
    stMsg.stHdr.usSrcProcID = 257;
    stMsg.stHdr.usDstProcID = 101;
    stMsg.stHdr.usMsgLen = static_cast<uint16_t>(BP_MSG_HDR_LEN + szPayload.size());
    stMsg.szPayload = szPayload;
    return stMsg;
}

WireMsg MakeAck(const WireMsg &stReq, const std::string &szPayload) {
    WireMsg stAck = MakeMsg(stReq.stHdr.ulModuleSrcID, stReq.stHdr.ulMsgCode, szPayload);
    stAck.stHdr.ulMsgType = BP_MSG_TYPE_ACK;
    stAck.stHdr.AssiMsgId = stReq.stHdr.AssiMsgId;
    stAck.stHdr.ulModuleSrcID = stReq.stHdr.ulModuleDstID;
    stAck.stHdr.usSrcProcID = stReq.stHdr.usDstProcID;
    stAck.stHdr.usDstProcID = stReq.stHdr.usSrcProcID;
    return stAck;
}

std::string Bytes(const WireMsg &stMsg) {
    return std::string(reinterpret_cast<const char *>(&stMsg.stHdr), sizeof(stMsg.stHdr)) + stMsg.szPayload;
}

static struct sockaddr_in Loopback(uint16_t usPort) {
    struct sockaddr_in stAddr = {};
    stAddr.sin_family = AF_INET;
    stAddr.sin_port = htons(usPort);
    stAddr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return stAddr;
}

BusSocket::BusSocket(uint16_t usPort) : lSocket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    const struct sockaddr_in stAddr = Loopback(usPort);
    // A process that has just been killed may leave a child that is about to become a shell: until it is one,
    // it has the socket, too.
    int lRet = -1;
    WaitFor([&] {
        lRet = bind(lSocket_, reinterpret_cast<const struct sockaddr *>(&stAddr), sizeof(stAddr));
        return lRet == 0 || errno != EADDRINUSE;
    });
    if (lRet != 0) {
        perror("bind");
        abort();
    }
}

BusSocket::~BusSocket() {
    close(lSocket_);
}

void BusSocket::SendTo(const struct sockaddr_in &stAddr, const std::string &szBytes) {
    if (sendto(lSocket_, szBytes.data(), szBytes.size(), 0, reinterpret_cast<const struct sockaddr *>(&stAddr),
               sizeof(stAddr)) < 0) {
        perror("sendto");
    }
}

void BusSocket::SendTo(uint16_t usPort, const std::string &szBytes) {
    SendTo(Loopback(usPort), szBytes);
}

std::string BusSocket::Receive(int lTimeoutMs, struct sockaddr_in *pstFrom) {
    struct pollfd stPoll = {lSocket_, POLLIN, 0};
    if (poll(&stPoll, 1, lTimeoutMs) <= 0) {
        return "";
    }
    std::string szBytes(65536, '\0');
    struct sockaddr_in stFrom = {};
    socklen_t ulLen = sizeof(stFrom);
    const ssize_t lRead = recvfrom(lSocket_, szBytes.data(), szBytes.size(), 0,
                                   reinterpret_cast<struct sockaddr *>(&stFrom), &ulLen);
    szBytes.resize(lRead > 0 ? static_cast<size_t>(lRead) : 0);
    if (pstFrom != nullptr) {
        *pstFrom = stFrom;
    }
    return szBytes;
}

uint16_t BusSocket::Port() const {
    struct sockaddr_in stAddr = {};
    socklen_t ulLen = sizeof(stAddr);
    getsockname(lSocket_, reinterpret_cast<struct sockaddr *>(&stAddr), &ulLen);
    return ntohs(stAddr.sin_port);
}

ScriptedTarget::ScriptedTarget(uint16_t usPort, Script pfnScript)
    : stSocket_(usPort), pfnScript_(std::move(pfnScript)), stThread_([this] { Run(); }) {}

ScriptedTarget::~ScriptedTarget() {
    bStop_ = true;
    stThread_.join();
}

void ScriptedTarget::Run() {
    while (!bStop_) {
        struct sockaddr_in stFrom = {};
        const std::string szBytes = stSocket_.Receive(10, &stFrom);
        if (szBytes.size() < BP_MSG_HDR_LEN) {
            continue;
        }
        WireMsg stReq = {};
        memcpy(&stReq.stHdr, szBytes.data(), sizeof(stReq.stHdr));
        stReq.szPayload = szBytes.substr(BP_MSG_HDR_LEN);
        Script pfnScript;
        {
            const std::lock_guard<std::mutex> stGuard(stLock_);
            astRequest_.push_back(stReq);
            stFrom_ = stFrom;
            pfnScript = pfnScript_;
        }
        for (const std::string &szReply : pfnScript(stReq)) {
            stSocket_.SendTo(stFrom, szReply);
        }
    }
}

void ScriptedTarget::SetScript(Script pfnScript) {
    const std::lock_guard<std::mutex> stGuard(stLock_);
    pfnScript_ = std::move(pfnScript);
}

std::vector<WireMsg> ScriptedTarget::Requests() {
    const std::lock_guard<std::mutex> stGuard(stLock_);
    return astRequest_;
}

void ScriptedTarget::SendLate(const std::string &szBytes, BusSocket *pstElsewhere) {
    const std::lock_guard<std::mutex> stGuard(stLock_);
    (pstElsewhere != nullptr ? *pstElsewhere : stSocket_).SendTo(stFrom_, szBytes);
}

std::string Ask(uint32_t ulModuleID, const std::string &szText, uint32_t ulTimeout, uint32_t ulMsgCode) {
    char *pcAnswer = nullptr;
    const uint32_t ulRet = BP_SendCmdMsg(szText.c_str(), ulModuleID, ulMsgCode, ulTimeout, &pcAnswer);
    const std::string szAnswer = ulRet == BP_OK ? pcAnswer : "error " + std::to_string(ulRet);
    free(pcAnswer);
    return szAnswer;
}

ScriptedTarget::Script AnswerAll(const std::string &szText) {
    return [szText](const WireMsg &stReq) { return std::vector<std::string>{Bytes(MakeAck(stReq, szText))}; };
}

testing::AssertionResult AllSlabsFull() {
    const std::string szFault = SlabsNotFull();
    return szFault.empty() ? testing::AssertionSuccess() : testing::AssertionFailure() << szFault;
}

testing::AssertionResult AllSlabsRefill() {
    WaitFor([] { return static_cast<bool>(AllSlabsFull()); });
    return AllSlabsFull();
}
