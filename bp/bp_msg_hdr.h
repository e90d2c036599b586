// The message header as it lies in memory and on the wire, and the handle by which modules hold a message.
// docs/wire-format.md shows the layout with a worked message.
//
// Integers are in the host's byte order (little-endian on the device) except ulPeerIP and usPeerPort, which are
// copied from a socket address and stay in network order.
#ifndef BP_BP_MSG_HDR_H
#define BP_BP_MSG_HDR_H

#include <cstddef>
#include <cstdint>

struct BP_SlabBuf;

constexpr uint32_t BP_MSG_HDR_LEN = 40;
constexpr uint32_t BP_MSG_PREFIX_LEN = 4;
constexpr uint8_t BP_MSG_PREFIX[BP_MSG_PREFIX_LEN] = {0x35, 0x23, 0x12, 0xDE};

// Message types; every other value is routed like BP_MSG_TYPE_NORMAL.
constexpr uint32_t BP_MSG_TYPE_NORMAL = 0;
constexpr uint32_t BP_MSG_TYPE_ACK = 1;   // answer to a synchronous request
constexpr uint32_t BP_MSG_TYPE_INNER = 4; // served from the second handler table

struct BP_MsgHdr {
    uint8_t aucPrefix[BP_MSG_PREFIX_LEN];
    uint32_t ulMsgType;
    uint32_t ulMsgCode;
    uint32_t AssiMsgId; // an answer carries its request's
    uint32_t ulModuleSrcID;
    uint32_t ulModuleDstID;
    uint16_t usSrcProcID;
    uint16_t usDstProcID;
    uint16_t usMsgLen; // whole message in bytes, header included
    uint16_t usReserved;
    uint32_t ulPeerIP;   // filled in by the receiving process, network order
    uint16_t usPeerPort; // likewise
    uint16_t usSpare;    // undefined
};

static_assert(sizeof(BP_MsgHdr) == BP_MSG_HDR_LEN, "the header is a wire format");
static_assert(offsetof(BP_MsgHdr, ulModuleDstID) == 20 && offsetof(BP_MsgHdr, usMsgLen) == 28 &&
                  offsetof(BP_MsgHdr, ulPeerIP) == 32 && offsetof(BP_MsgHdr, usSpare) == 38,
              "the header is a wire format");

// Bits of BP_StructMsg::ulFlags.
constexpr uint32_t BP_MSG_FLAG_KEEP = 0x1; // a handler keeps the buffer, see BP_KeepMsg
constexpr uint32_t BP_MSG_FLAG_SENT = 0x2; // the buffer was handed to a queue and is no longer the handle's

// Handle of one message. It lives on its user's stack and owns the buffer until BP_MSG_FLAG_SENT is set.
struct BP_StructMsg {
    uint32_t ulReserved;
    uint32_t ulFlags;
    BP_SlabBuf *pstSlabBuf; // null for an empty handle
};

#endif
