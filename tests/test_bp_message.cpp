#include <gtest/gtest.h>

#include "bp/bp.h"
#include "tests/support/bus_peer.h"
#include "tests/support/files.h"

static const char g_szLog[] = "/var/log/MW_MWARE00.log";

class Message : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(BP_MwareInit("MW_MWARE", 101), BP_OK);
        ASSERT_EQ(BP_RegistModule("MW_CTRL", 1, nullptr), BP_OK);
        BP_Write(BP_FindLogModule(BP_LOG_BP_MODULE_ID)->ulDebugOn, 1U);
    }
    void TearDown() override { EXPECT_TRUE(AllSlabsFull()); }
};

TEST_F(Message, ConfigMsgHdr_FillsTheHeaderByteForByte) {
    BP_StructMsg stMsg = BP_CreatStructMsg("dbgcmd", 6);
    ASSERT_NE(stMsg.pstSlabBuf, nullptr);
    memset(stMsg.pstSlabBuf->pucData, 0xAA, BP_MSG_HDR_LEN);
    for (const uint8_t ucSeq : {0, 1}) {
        ASSERT_EQ(BP_ConfigMsgHdr(&stMsg, 0x90000001, BP_MODULE_ID_IWARE_CMD, 31051, BP_MSG_TYPE_INNER), BP_OK);
        const uint8_t aucWanted[] = {0x35,  0x23, 0x12, 0xDE, 4,   0,   0,   0,    0x4B, 0x79, 0,    0,
                                     ucSeq, 0,    0,    0,    1,   0,   0,   0x90, 0xFD, 0xFF, 0xFF, 0xFF,
                                     101,   0,    102,  0,    46,  0,   0,   0,    0,    0,    0,    0,
                                     0,     0,    0xAA, 0xAA, 'd', 'b', 'g', 'c',  'm',  'd'};
        EXPECT_EQ(std::string(reinterpret_cast<char *>(stMsg.pstSlabBuf->pucData), 46),
                  std::string(reinterpret_cast<const char *>(aucWanted), sizeof(aucWanted)));
    }
    uint8_t *pucPayload = nullptr;
    uint32_t ulLen = 0;
    EXPECT_EQ(BP_DecodeStructMsgData(&stMsg, &pucPayload, &ulLen), BP_OK);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(pucPayload), ulLen), "dbgcmd");
    BP_EraseMsgData(&stMsg);
    EXPECT_EQ(stMsg.pstSlabBuf, nullptr);
}

TEST_F(Message, EmptyPayload_IsAMessageOf40Bytes) {
    BP_StructMsg stMsg = BP_CreatStructMsg(nullptr, 0);
    uint8_t *pucPayload = nullptr;
    uint32_t ulLen = 9;
    EXPECT_EQ(BP_DecodeStructMsgData(&stMsg, &pucPayload, &ulLen), BP_OK);
    EXPECT_EQ(ulLen, 0U);
    BP_EraseMsgData(&stMsg);
}

TEST_F(Message, CreatStructMsg_WithoutPayloadOrRoom_GivesAnEmptyHandle) {
    static char acBig[16384 - 40 + 1];
    EXPECT_EQ(BP_CreatStructMsg(nullptr, 1).pstSlabBuf, nullptr);
    EXPECT_EQ(BP_CreatStructMsg(acBig, sizeof(acBig)).pstSlabBuf, nullptr);
    EXPECT_EQ(BP_CreatStructMsg(acBig, 0xFFFFFFFF).pstSlabBuf, nullptr); // the length with its header wraps
    BP_StructMsg stLargest = BP_CreatStructMsg(acBig, sizeof(acBig) - 1);
    EXPECT_NE(stLargest.pstSlabBuf, nullptr);
    BP_EraseMsgData(&stLargest);
    EXPECT_EQ(CountOf(ReadFile(g_szLog), "[E(2)][bp_sendmsg-"), 1U);
    EXPECT_EQ(CountOf(ReadFile("/var/log/MW_MWARE00.debug"),
                      "[BP_CreatStructMsg]fail to get slab buffer(buffer size:16385)."),
              1U);
}

TEST_F(Message, WrongArguments_AreRefusedInOrderWithTheirLines) {
    BP_StructMsg stEmpty = {};
    BP_SlabBuf stNoData;
    BP_StructMsg stHollow = {0, 0, &stNoData};
    uint8_t *pucPayload = nullptr;
    uint32_t ulLen = 0;
    EXPECT_EQ(BP_ConfigMsgHdr(nullptr, 1, 2, 3, 0), BP_ERR_PARAM);
    EXPECT_EQ(BP_ConfigMsgHdr(&stEmpty, 0x90000003, 2, 3, 0), BP_ERR_PARAM); // configured, not registered
    EXPECT_EQ(BP_ConfigMsgHdr(&stEmpty, 0x90000001, 0x90000006, 3, 0), BP_ERR_PARAM);
    EXPECT_EQ(BP_ConfigMsgHdr(&stEmpty, 0x90000001, 0x90000003, 3, 0), BP_ERR_PARAM);
    EXPECT_EQ(BP_ConfigMsgHdr(&stHollow, 0x90000001, 0x90000003, 3, 0), BP_ERR_PARAM);
    EXPECT_EQ(BP_DecodeStructMsgData(&stHollow, nullptr, &ulLen), BP_ERR_PARAM);
    EXPECT_EQ(BP_DecodeStructMsgData(&stEmpty, &pucPayload, &ulLen), BP_ERR_PARAM);
    EXPECT_EQ(BP_DecodeStructMsgData(&stHollow, &pucPayload, &ulLen), BP_ERR_PARAM);
    BP_StructMsg stShort = BP_CreatStructMsg(nullptr, 0);
    BP_Write<uint16_t>(stShort.pstSlabBuf->usLen, 39);
    EXPECT_EQ(BP_DecodeStructMsgData(&stShort, &pucPayload, &ulLen), BP_ERR_PARAM);
    BP_EraseMsgData(&stShort);
    BP_EraseMsgData(&stEmpty);
    BP_EraseMsgData(nullptr);
    BP_ModuleInfo *pstCtrl = BP_GetModuleByID(0x90000001);
    EXPECT_EQ(BP_Read(pstCtrl->ulAssiMsgSeq), 0U); // no number was used up

    const std::string szLog = ReadFile(g_szLog);
    for (const char *pcLine :
         {"[BP_ConfigMsgHdr]invalid input param.\r", "[BP_ConfigMsgHdr]invalid ulModuleDstID:2415919107.",
          "[BP_ConfigMsgHdr]invalid ulModuleDstID:0x90000006.",
          "[BP_DecodeStructMsgData]invalid input param: pstMsg[0x",
          "[BP_DecodeStructMsgData]invalid input param\r", "[BP_DecodeStructMsgData]invalid slab buffer.",
          "[BP_DecodeStructMsgData]invalid slab buffer len: 39 < 40.",
          "[BP_EraseMsgData]invalid input param"}) {
        EXPECT_EQ(CountOf(szLog, pcLine), 1U) << pcLine << "\n" << szLog;
    }
    EXPECT_EQ(CountOf(szLog, "[E(2)][bp_sendmsg-"), 8U);
    const std::string szDebug = ReadFile("/var/log/MW_MWARE00.debug");
    EXPECT_EQ(CountOf(szDebug, "[BP_ConfigMsgHdr]invalid slab buffer."), 1U);
    EXPECT_EQ(CountOf(szDebug, "[BP_ConfigMsgHdr]invalid msg head buffer."), 1U);
}

TEST_F(Message, EraseMsgData_LeavesBuffersThatAreNotTheHandles) {
    BP_StructMsg stMsg = BP_CreatStructMsg("x", 1);
    BP_SlabBuf *pstBuf = stMsg.pstSlabBuf;
    stMsg.ulFlags = BP_MSG_FLAG_SENT;
    BP_EraseMsgData(&stMsg);
    EXPECT_NE(BP_Read(pstBuf->ucFlag), 0);
    BP_SlabMarkTimeout(pstBuf, BP_SlabMarkSeq(pstBuf));
    stMsg = {0, 0, pstBuf};
    BP_EraseMsgData(&stMsg);
    EXPECT_EQ(stMsg.pstSlabBuf, nullptr);
    EXPECT_NE(BP_Read(pstBuf->ucFlag), 0);
    BP_SlabFreeBuf(pstBuf);
}

TEST_F(Message, SendMsgProc_RefusesInOrderWithTheirLines) {
    BP_ModuleInfo *pstCtrl = BP_GetModuleByID(0x90000001);
    BP_StructMsg stEmpty = {};
    BP_StructMsg stMsg = BP_CreatStructMsg("x", 1);
    BP_ConfigMsgHdr(&stMsg, 0x90000001, 0x90000003, 5, 0);
    EXPECT_EQ(BP_SendMsgProc(nullptr, nullptr), BP_ERR_PARAM);
    EXPECT_EQ(BP_SendMsgProc(pstCtrl, nullptr), BP_ERR_PARAM);
    EXPECT_EQ(BP_SendMsgProc(pstCtrl, &stEmpty), BP_ERR_PARAM);
    EXPECT_EQ(BP_SendMsgProc(pstCtrl, &stMsg), BP_ERR_FAIL); // MW_PTZ is configured here, not registered
    BP_MsgHdrOf(stMsg.pstSlabBuf)->ulModuleDstID = 0x90000006;
    EXPECT_EQ(BP_SendMsgProc(pstCtrl, &stMsg), BP_ERR_PARAM);
    ASSERT_EQ(BP_RegistModule("MW_MWARE", 1, nullptr), BP_OK);
    BP_MsgHdrOf(stMsg.pstSlabBuf)->ulModuleDstID = BP_MODULE_ID_MAIN;
    EXPECT_EQ(BP_SendMsgProc(BP_GetModuleByID(BP_MODULE_ID_MAIN), &stMsg), BP_ERR_FAIL);
    EXPECT_EQ(BP_Read(pstCtrl->ulSendCnt), 0U);
    BP_EraseMsgData(&stMsg); // still the handle's after every refusal

    const std::string szLog = ReadFile(g_szLog);
    for (const char *pcLine :
         {"[BP_SendMsgProc]fail to find src module.", "[BP_SendMsgProc]fail to get send msg data.",
          "[BP_SendMsgProc] dst module id 90000003 is invalid.",
          "[BP_SendMsgProc]invalid ulModuleDstID:2415919110.",
          "[BP_SendMsgProc]src module id and dst module id are all invalid."}) {
        EXPECT_EQ(CountOf(szLog, pcLine), 1U) << pcLine << "\n" << szLog;
    }
}

TEST_F(Message, SendMsgProc_Remote_GoesToTheSendQueueAndCounts) {
    BP_ModuleInfo *pstCtrl = BP_GetModuleByID(0x90000001);
    BP_StructMsg stMsg = BP_CreatStructMsg("x", 1);
    BP_ConfigMsgHdr(&stMsg, 0x90000001, BP_MODULE_ID_IWARE_CMD, 77, 0);
    ASSERT_EQ(BP_SendMsgProc(pstCtrl, &stMsg), BP_OK);
    EXPECT_EQ(stMsg.ulFlags, BP_MSG_FLAG_SENT);
    BP_EraseMsgData(&stMsg);
    EXPECT_EQ(BP_QueueLength(&BP_GetProcInfo()->stSendQueue), 1U);
    EXPECT_EQ(BP_Read(pstCtrl->ulSendCnt), 1U);
    EXPECT_EQ(BP_Read(pstCtrl->ulLastSendMsg), 77U);

    BusSocket stIware(PORT_IWARE);
    EXPECT_EQ(BP_MsgSocketSendProc(), BP_OK);
    EXPECT_EQ(stIware.Receive(5000).substr(40), "x");
}

TEST_F(Message, SocketSend_StopsAtAMessageItCannotAddress) {
    BusSocket stIware(PORT_IWARE);
    for (const uint16_t usProcID : {102, 999, 102}) {
        BP_StructMsg stMsg = BP_CreatStructMsg("x", 1);
        BP_ConfigMsgHdr(&stMsg, 0x90000001, BP_MODULE_ID_IWARE_CMD, 77, 0);
        BP_MsgHdrOf(stMsg.pstSlabBuf)->usDstProcID = usProcID;
        BP_SendMsgProc(BP_GetModuleByID(0x90000001), &stMsg);
    }
    EXPECT_EQ(BP_MsgSocketSendProc(), BP_ERR_FAIL);
    EXPECT_EQ(BP_QueueLength(&BP_GetProcInfo()->stSendQueue), 1U);
    EXPECT_EQ(BP_MsgSocketSendProc(), BP_OK);
    EXPECT_NE(stIware.Receive(5000), "");
    EXPECT_NE(stIware.Receive(5000), "");
    EXPECT_EQ(CountOf(ReadFile(g_szLog), "[BP_MsgSocketSendProc]invalid ulDstProcID:999."), 1U);
}

TEST_F(Message, SocketSend_ToAProcessWithoutPort_UsesTheMessagesOwnAddress) {
    BusSocket stConsole;
    BP_StructMsg stMsg = BP_CreatStructMsg("hello", 5);
    BP_ConfigMsgHdr(&stMsg, 0x90000001, 0x90009001, 77, 0);
    BP_MsgHdrOf(stMsg.pstSlabBuf)->ulPeerIP = htonl(INADDR_LOOPBACK);
    BP_MsgHdrOf(stMsg.pstSlabBuf)->usPeerPort = htons(stConsole.Port());
    BP_SendMsgProc(BP_GetModuleByID(0x90000001), &stMsg);
    EXPECT_EQ(BP_MsgSocketSendProc(), BP_OK);
    EXPECT_EQ(stConsole.Receive(5000).substr(40), "hello");
}
