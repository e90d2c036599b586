#include "tests/support/wire.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sstream>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/support/files.h"

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

WireMsg Parse(const std::string &szBytes) {
    WireMsg stMsg = {};
    memcpy(&stMsg.stHdr, szBytes.data(), sizeof(stMsg.stHdr));
    stMsg.szPayload = szBytes.substr(sizeof(stMsg.stHdr));
    return stMsg;
}

std::vector<std::string> Datagrams(const std::string &szCell,
                                   const std::function<std::string(char, const std::string &)> &pfnMake) {
    std::vector<std::string> aszDatagram;
    std::istringstream stCell(szCell);
    for (std::string szDatagram, szPiece; std::getline(stCell, szDatagram, ' ');) {
        std::istringstream stPieces(szDatagram);
        aszDatagram.emplace_back();
        while (std::getline(stPieces, szPiece, '+')) {
            const size_t ulCut = szPiece.find_first_of("<>");
            const std::string szBytes = pfnMake(szPiece[0], szPiece.substr(1, ulCut - 1));
            const size_t ulAt = ulCut == std::string::npos ? ulCut : std::stoul(szPiece.substr(ulCut + 1));
            aszDatagram.back() += ulCut != std::string::npos && szPiece[ulCut] == '>' ? szBytes.substr(ulAt)
                                                                                      : szBytes.substr(0, ulAt);
        }
    }
    return aszDatagram;
}

struct sockaddr_in Address(uint16_t usPort, const char *pcIP) {
    struct sockaddr_in stAddr = {};
    stAddr.sin_family = AF_INET;
    stAddr.sin_port = htons(usPort);
    stAddr.sin_addr.s_addr = inet_addr(pcIP);
    return stAddr;
}

BusSocket::BusSocket(uint16_t usPort, const char *pcIP)
    : lSocket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    const struct sockaddr_in stAddr = Address(usPort, pcIP);
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
    SendTo(Address(usPort, "127.0.0.1"), szBytes);
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
