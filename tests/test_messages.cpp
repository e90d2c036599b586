// Messages to be sent: their bytes, who owns their buffer, and the send queue.
#include "tests/support/on_bus.h"

class Message : public OnBus {};

TEST_F(Message, ConfigMsgHdr_FillsTheHeaderByteForByte) {
    BP_StructMsg stMsg = BP_CreatStructMsg("dbgcmd", 6);
    ASSERT_NE(stMsg.pstSlabBuf, nullptr);
    memset(stMsg.pstSlabBuf->pucData, 0xAA, BP_MSG_HDR_LEN);
    for (const uint8_t ucSeq : {0, 1}) {
        ASSERT_EQ(BP_ConfigMsgHdr(&stMsg, MW_CTRL, BP_MODULE_ID_IWARE_CMD, 31051, BP_MSG_TYPE_INNER), BP_OK);
        const uint8_t aucWanted[] = {0x35,  0x23, 0x12, 0xDE, 4,   0,   0,   0,    0x4B, 0x79, 0,    0,
                                     ucSeq, 0,    0,    0,    1,   0,   0,   0x90, 0xFD, 0xFF, 0xFF, 0xFF,
                                     101,   0,    102,  0,    46,  0,   0,   0,    0,    0,    0,    0,
                                     0,     0,    0xAA, 0xAA, 'd', 'b', 'g', 'c',  'm',  'd'};
        EXPECT_EQ(std::string(reinterpret_cast<char *>(stMsg.pstSlabBuf->pucData), 46),
                  std::string(reinterpret_cast<const char *>(aucWanted), sizeof(aucWanted)));
    }
    EXPECT_EQ(TextOf(stMsg), "dbgcmd");
    BP_EraseMsgData(&stMsg);
    EXPECT_EQ(stMsg.pstSlabBuf, nullptr);
}

TEST_F(Message, EmptyAndLargestPayload) {
    for (const size_t ulLen : {0, 16384 - 40}) {
        const std::string szText(ulLen, 'x');
        BP_StructMsg stMsg =
            BP_CreatStructMsg(ulLen == 0 ? nullptr : szText.data(), static_cast<uint32_t>(ulLen));
        EXPECT_EQ(TextOf(stMsg), szText);
        BP_EraseMsgData(&stMsg);
    }
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

// One that cannot be addressed stops the pass; it is gone, and the next pass goes on with the others.
TEST_F(Message, SendQueue_LeavesInOrder) {
    BusSocket stIware(PORT_IWARE);
    for (const uint16_t usProcID : {102, 999, 102}) {
        BP_StructMsg stMsg = Make(BP_MODULE_ID_IWARE_CMD, 77, std::to_string(usProcID));
        BP_MsgHdrOf(stMsg.pstSlabBuf)->usDstProcID = usProcID;
        ASSERT_EQ(BP_SendMsgProc(pstCtrl_, &stMsg), BP_OK);
        EXPECT_EQ(stMsg.ulFlags, BP_MSG_FLAG_SENT);
        BP_EraseMsgData(&stMsg);
    }
    EXPECT_EQ(BP_QueueLength(&BP_GetProcInfo()->stSendQueue), 3U);
    EXPECT_EQ(BP_Read(pstCtrl_->ulSendCnt), 3U);
    EXPECT_EQ(BP_Read(pstCtrl_->ulLastSendMsg), 77U);
    EXPECT_EQ(BP_MsgSocketSendProc(), BP_ERR_FAIL);
    EXPECT_EQ(BP_QueueLength(&BP_GetProcInfo()->stSendQueue), 1U);
    EXPECT_EQ(BP_MsgSocketSendProc(), BP_OK);
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ(stIware.Receive(5000).substr(40), "102");
    }
    EXPECT_EQ(Logged("[BP_MsgSocketSendProc]invalid ulDstProcID:999."), 1U);
}

TEST_F(Message, ToAProcessWithoutPort_UsesTheMessagesOwnAddress) {
    BusSocket stConsole;
    BP_StructMsg stMsg = Make(0x90009001, 77, "hello");
    BP_MsgHdrOf(stMsg.pstSlabBuf)->ulPeerIP = htonl(INADDR_LOOPBACK);
    BP_MsgHdrOf(stMsg.pstSlabBuf)->usPeerPort = htons(stConsole.Port());
    BP_SendMsgProc(pstCtrl_, &stMsg);
    EXPECT_EQ(BP_MsgSocketSendProc(), BP_OK);
    EXPECT_EQ(stConsole.Receive(5000).substr(40), "hello");
}
