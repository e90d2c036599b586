// The other side of the bus: a plain UDP socket that speaks the wire format as the test wants it, correct or
// not.
#ifndef TESTS_SUPPORT_BUS_PEER_H
#define TESTS_SUPPORT_BUS_PEER_H

#include <functional>
#include <gtest/gtest.h>
#include <mutex>
#include <netinet/in.h>
#include <string>
#include <thread>
#include <vector>

#include "bp/bp.h"

constexpr uint16_t PORT_MWARE = 2048;
constexpr uint16_t PORT_IWARE = 2049;

// A whole message: the header's fields with their usual values, to be changed as the test likes, and the
// payload.
struct WireMsg {
    BP_MsgHdr stHdr;
    std::string szPayload;
};
WireMsg MakeMsg(uint32_t ulDstID, uint32_t ulMsgCode, const std::string &szPayload);
// The answer to a request, as it has to be.
WireMsg MakeAck(const WireMsg &stReq, const std::string &szPayload);
std::string Bytes(const WireMsg &stMsg);

class BusSocket {
public:
    explicit BusSocket(uint16_t usPort = 0); // 0: any port
    ~BusSocket();
    BusSocket(const BusSocket &) = delete;
    void SendTo(uint16_t usPort, const std::string &szBytes);
    void SendTo(const struct sockaddr_in &stAddr, const std::string &szBytes);
    // One datagram; empty when none comes within lTimeoutMs.
    std::string Receive(int lTimeoutMs, struct sockaddr_in *pstFrom = nullptr);
    uint16_t Port() const;

private:
    int lSocket_;
};

// A target that answers each request with the datagrams that the script returns for it, in a thread of its own.
class ScriptedTarget {
public:
    using Script = std::function<std::vector<std::string>(const WireMsg &)>;
    ScriptedTarget(uint16_t usPort, Script pfnScript);
    ~ScriptedTarget();
    // What it does from now on.
    void SetScript(Script pfnScript);
    // Requests received so far.
    std::vector<WireMsg> Requests();
    // Sends to whoever made the last request, from this address or another.
    void SendLate(const std::string &szBytes, BusSocket *pstElsewhere = nullptr);

private:
    void Run();
    BusSocket stSocket_;
    Script pfnScript_;
    std::mutex stLock_;
    std::vector<WireMsg> astRequest_;
    struct sockaddr_in stFrom_ = {};
    std::atomic<bool> bStop_{false};
    std::thread stThread_;
};

// A script that answers every request with the text, properly.
ScriptedTarget::Script AnswerAll(const std::string &szText);

// The answer to the text as a command for the module, or "error " and the result.
std::string Ask(uint32_t ulModuleID, const std::string &szText, uint32_t ulTimeout, uint32_t ulMsgCode = 31060);

// Every class of this process has all its buffers; says which has not.
testing::AssertionResult AllSlabsFull();
// The same, once the threads that still hold some have given them back.
testing::AssertionResult AllSlabsRefill();

#endif
