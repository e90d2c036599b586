// The wire format and a plain UDP socket that speaks it, correct or not. Without a test library, so that fuzz
// targets and the soak use it too.
#ifndef TESTS_SUPPORT_WIRE_H
#define TESTS_SUPPORT_WIRE_H

#include <functional>
#include <netinet/in.h>
#include <string>
#include <vector>

#include "bp/bp.h"

constexpr uint16_t PORT_MWARE = 2048;
constexpr uint16_t PORT_IWARE = 2049;

// A whole message: the header's fields with their usual values, to be changed as the caller likes, and the
// payload.
struct WireMsg {
    BP_MsgHdr stHdr;
    std::string szPayload;
};
WireMsg MakeMsg(uint32_t ulDstID, uint32_t ulMsgCode, const std::string &szPayload);
// The answer to a request, as it has to be.
WireMsg MakeAck(const WireMsg &stReq, const std::string &szPayload);
std::string Bytes(const WireMsg &stMsg);
// What the datagram holds, which is a header at least.
WireMsg Parse(const std::string &szBytes);

// The datagrams of a row: apart by spaces, their pieces by +. A piece is a letter, its text, which pfnMake
// makes bytes of, and perhaps <9 for the first nine of them, or >9 for the others.
std::vector<std::string> Datagrams(const std::string &szCell,
                                   const std::function<std::string(char, const std::string &)> &pfnMake);

struct sockaddr_in Address(uint16_t usPort, const char *pcIP);

class BusSocket {
public:
    explicit BusSocket(uint16_t usPort = 0, const char *pcIP = "127.0.0.1"); // 0: any port
    ~BusSocket();
    BusSocket(const BusSocket &) = delete;
    void SendTo(uint16_t usPort, const std::string &szBytes);
    void SendTo(const struct sockaddr_in &stAddr, const std::string &szBytes);
    // One datagram; empty if none comes within lTimeoutMs.
    std::string Receive(int lTimeoutMs, struct sockaddr_in *pstFrom = nullptr);
    uint16_t Port() const;

private:
    int lSocket_;
};

#endif
