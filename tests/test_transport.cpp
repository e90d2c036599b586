// The way in, driven by hand: MW_MWARE has no main thread until it registers its main module, so the test's own
// thread is the only one at the socket and the ring.
#include <arpa/inet.h>
#include <map>
#include <net/if.h>
#include <sstream>
#include <sys/ioctl.h>

#include "tests/support/on_bus.h"

static std::mutex g_stPortLock;
static std::map<std::string, uint16_t> g_ausPeerPort; // where each text came from

static uint32_t Note(uint32_t, BP_StructMsg *pstMsg, uint32_t) {
    const std::lock_guard<std::mutex> stGuard(g_stPortLock);
    g_ausPeerPort[TextOf(*pstMsg)] = ntohs(BP_MsgHdrOf(pstMsg->pstSlabBuf)->usPeerPort);
    return See(TextOf(*pstMsg));
}

static uint16_t PeerPortOf(const std::string &szText) {
    const std::lock_guard<std::mutex> stGuard(g_stPortLock);
    return g_ausPeerPort[szText];
}

class Transport : public OnBus {
protected:
    void SetUp() override {
        OnBus::SetUp();
        Handle(MW_CTRL, 0, Note);
        pstRing_ = &BP_GetProcInfo()->stRecvRing;
    }
    void TearDown() override {
        EXPECT_EQ(pstRing_->ulUsedLen + pstRing_->ulFreeLen, pstRing_->ulMaxSize);
        OnBus::TearDown();
    }
    void Arrive(const std::vector<std::string> &aszDatagram) {
        for (const std::string &szDatagram : aszDatagram) {
            stPeer_.SendTo(PORT_MWARE, szDatagram);
        }
        Dispatch();
    }
    // As the main thread does it, which at the prompt pace looks after other things in between.
    static void Dispatch() {
        do {
            EXPECT_EQ(BP_GetAndDispatchMsg(), BP_OK);
        } while (BP_IsReceivePending());
    }
    static std::string Msg(const std::string &szText) { return Bytes(MakeMsg(MW_CTRL, 1, szText)); }
    static std::string Piece(char cKind, const std::string &szText) {
        WireMsg stMsg = MakeMsg(cKind == 'u' ? NOBODY : MW_CTRL, 1, szText);
        if (cKind == 'h') {
            stMsg.szPayload = szText.substr(szText.find(':') + 1);
            stMsg.stHdr.usMsgLen = static_cast<uint16_t>(std::stoul(szText));
        }
        stMsg.stHdr.aucPrefix[3] ^= cKind == 'p' ? 1 : 0;
        return cKind == 'r' ? szText : Bytes(stMsg);
    }
    // The time that a message may wait for its rest is over.
    void BeLate() const { pstRing_->lHeldSinceMs -= BP_RECV_HOLD_MS + 1; }
    BusSocket stPeer_;
    BP_RecvRing *pstRing_ = nullptr;
};

TEST_F(Transport, CutsDatagramsIntoMessages) {
    for (const auto &aszRow : Rows("datagrams.txt")) {
        SCOPED_TRACE(aszRow[0]);
        uint8_t *pucBuf = pstRing_->pucBuf;
        *pstRing_ = BP_RecvRing();
        pstRing_->ulMaxSize = pstRing_->ulFreeLen = BP_RECV_RING_SIZE;
        pstRing_->pucBuf = pucBuf;
        ForgetSeen();
        Arrive(Datagrams(aszRow[1], Piece));
        if (aszRow.size() > 4) {
            BP_ResumeReceive();
            EXPECT_TRUE(HasSeen("")); // not yet
            BeLate();
            BP_ResumeReceive();
            Arrive(Datagrams(aszRow[4], Piece));
        }
        EXPECT_TRUE(HasSeen(aszRow[2]));
        EXPECT_EQ(std::to_string(pstRing_->ulUsedLen), aszRow[3]);
        EXPECT_TRUE(pstRing_->ulUsedLen != 0 || (pstRing_->ulWrPos == 0 && pstRing_->lHeldSinceMs == 0));
    }
    EXPECT_GE(Logged("[E(1)][bp_module-"), Logged("[BP_TransMsgToModule]") + 1);
    EXPECT_GE(Logged("Prefix err:0x67 0x67 0x67 0x67 != 0x35 0x23 0x12 0xde"), 2U);
    EXPECT_GE(Logged("[BP_GiveUpHead]give up incomplete msg, 3 bytes are there."), 1U);
    EXPECT_EQ(Logged("read from socket fail"), 1U);
    for (const char *pcLine :
         {"[BP_TransMsgToModule]Prefix err:0x35 0x23 0x12 0xdf != 0x35 0x23 0x12 0xde",
          "[BP_TransMsgToModule]ulMsgLen 39 <= 40", "[BP_TransMsgToModule]ulMsgLen 8193 > 8192",
          "[BP_GetAndDispatchMsg]read from socket fail errcode:90(Message too long)."}) {
        EXPECT_EQ(Logged(pcLine), 1U) << pcLine;
    }
}

// A main thread that was busy for long finds the rest in the socket, in an event or a pass.
TEST_F(Transport, LateRest_CompletesItsMessage) {
    for (const bool bEvent : {false, true}) {
        ForgetSeen();
        Arrive({Msg("late").substr(0, 42)});
        BeLate();
        stPeer_.SendTo(PORT_MWARE, Msg("late").substr(42));
        bEvent ? Dispatch() : BP_ResumeReceive();
        EXPECT_TRUE(HasSeen("late/")) << bEvent;
    }
}

TEST_F(Transport, AnswersGoToTheirQueue_WithTheSendersAddress) {
    BP_ModuleInfo *pstCmd = BP_GetModuleByID(BP_MODULE_ID_MWARE_CMD);
    WireMsg stAck = MakeMsg(BP_MODULE_ID_MWARE_CMD, 9, "answer");
    stAck.stHdr.ulMsgType = BP_MSG_TYPE_ACK;
    stAck.stHdr.AssiMsgId = 4711;
    BP_AckWait stWait;
    stWait.ulAssiMsgId = 4711;
    BP_AnnounceAckWait(pstCmd, &stWait);
    Arrive({Bytes(stAck), Bytes(stAck)});
    EXPECT_EQ(BP_QueueLength(&pstCmd->stAckQueue), 2U);
    BP_SlabBuf *pstBuf = BP_ModuleGetMsg(&pstCmd->stAckQueue, BP_GET_BY_ASSI_ID, 4711);
    ASSERT_NE(pstBuf, nullptr);
    EXPECT_EQ(BP_MsgHdrOf(pstBuf)->usPeerPort, htons(stPeer_.Port()));
    EXPECT_EQ(BP_MsgHdrOf(pstBuf)->ulPeerIP, htonl(INADDR_LOOPBACK));
    EXPECT_EQ(BP_Read(pstBuf->usLen), 46);
    BP_SlabFreeBuf(pstBuf);
    BP_WithdrawAckWait(pstCmd, &stWait);
    EXPECT_EQ(BP_QueueLength(&pstCmd->stAckQueue), 0U); // the second one has gone with the wait
}

// Each of those who were held up is answered where he is. The ring knows 32 changes of sender, so of the forty
// here the last ten count as the last one's.
TEST_F(Transport, MessagesBehindAnUnfinishedOne_KeepTheirSenders) {
    Arrive({Piece('h', "8192:")});
    std::vector<BusSocket> astSender(40);
    std::string szTexts;
    for (size_t i = 0; i < astSender.size(); i++) {
        astSender[i].SendTo(PORT_MWARE, Msg(std::to_string(i)).substr(0, 30));
        astSender[i].SendTo(PORT_MWARE, Msg(std::to_string(i)).substr(30));
        szTexts += std::to_string(i) + "/";
    }
    Dispatch();
    EXPECT_EQ(Seen(), "");
    BeLate();
    BP_ResumeReceive();
    ASSERT_TRUE(HasSeen(szTexts));
    for (size_t i = 0; i < astSender.size(); i++) {
        EXPECT_EQ(PeerPortOf(std::to_string(i)), astSender[i < 30 ? i : 39].Port()) << i;
    }
    Arrive({Msg("after them")});
    EXPECT_TRUE(WaitFor([this] { return PeerPortOf("after them") == stPeer_.Port(); }));
}

// The answer goes to where the request came from, whatever was refused in between.
TEST_F(Transport, RefusedDatagram_LeavesTheSender) {
    BusSocket stOther;
    stPeer_.SendTo(PORT_MWARE, Msg("abc").substr(0, 41));
    stOther.SendTo(PORT_MWARE, std::string(9000, 'x'));
    stOther.SendTo(PORT_MWARE, "");
    Dispatch();
    Arrive({Msg("abc").substr(41)});
    ASSERT_TRUE(HasSeen("abc/"));
    EXPECT_EQ(PeerPortOf("abc"), stPeer_.Port());
}

// However long datagrams keep the main thread from being idle.
TEST_F(Transport, UnaskedAnswers_HoldNoBuffer) {
    WireMsg stAck = MakeMsg(MW_CTRL, 9, "x");
    stAck.stHdr.ulMsgType = BP_MSG_TYPE_ACK;
    for (int i = 0; i < 10; i++) {
        Arrive(std::vector<std::string>(60, Bytes(stAck)));
        EXPECT_TRUE(AllSlabsFull());
    }
}

TEST_F(Transport, NoBuffer_NothingIsLostOrMisaddressed) {
    const std::vector<BP_SlabBuf *> apstTaken = TakeAll(4096, BP_SLAB_TYPE_MSG);
    BusSocket stOther;
    const std::string szBig(3000, 'b');
    stPeer_.SendTo(PORT_MWARE, Msg(szBig));
    stOther.SendTo(PORT_MWARE, Msg("behind it"));
    Dispatch();
    Dispatch();
    EXPECT_TRUE(pstRing_->bNoBuf);
    EXPECT_EQ(pstRing_->ulUsedLen, szBig.size() + 40);
    EXPECT_EQ(Seen(), "");
    FreeAll(apstTaken);
    BP_ResumeReceive(); // as the idle pass does, without a further datagram
    EXPECT_TRUE(HasSeen(szBig + "/behind it/"));
    EXPECT_EQ(PeerPortOf(szBig), stPeer_.Port());
    EXPECT_EQ(PeerPortOf("behind it"), stOther.Port());
    EXPECT_EQ(Logged("read from socket fail"), 0U);
}

TEST_F(Transport, EmptySocketAndBrokenRing_AreReported) {
    EXPECT_EQ(BP_GetAndDispatchMsg(), BP_ERR_FAIL);
    EXPECT_EQ(Logged("[BP_GetAndDispatchMsg]read from socket fail errcode:11("), 1U);
    uint32_t ulResult = 0;
    pstRing_->ulRdPos = 9000;
    EXPECT_EQ(BP_TransMsgToModule(&ulResult), BP_ERR_FAIL);
    EXPECT_EQ(Logged("[BP_TransMsgToModule]ulRdPos 9000 >= ulMaxSize 8192"), 1U);
    Arrive({Msg("a")});
    EXPECT_TRUE(HasSeen("a/"));
}

// The number of datagrams that the kernel had no room for at the port.
static size_t DropsAt(uint16_t usPort) {
    std::istringstream stTable(ReadFile("/proc/self/net/udp"));
    char szLocal[16];
    snprintf(szLocal, sizeof(szLocal), "0100007F:%04X", usPort);
    std::string szLine;
    while (std::getline(stTable, szLine) && szLine.find(szLocal) == std::string::npos) {
    }
    return static_cast<size_t>(atoi(szLine.c_str() + szLine.find_last_of(' ', szLine.find_last_not_of(' '))));
}

// More from eight senders than the kernel queues, before the main thread looks for the first time: what is
// queued is delivered, each sender's in its order, and no further datagram is needed for it. Buffers run short
// meanwhile.
TEST_F(Transport, BurstsFromManySenders_AreDeliveredInOrder) {
    static constexpr uint32_t ulSenders = 8;
    static constexpr uint32_t ulEach = 200;
    BusSocket astSender[ulSenders];
    Threads(ulSenders, [&](uint32_t i) {
        for (uint32_t j = 0; j < ulEach; j++) {
            astSender[i].SendTo(PORT_MWARE, Msg(std::to_string(i) + " " + std::to_string(1000 + j)));
        }
    });
    const size_t ulQueued = ulSenders * ulEach - DropsAt(PORT_MWARE);
    StartMainThread();
    EXPECT_GE(ulQueued, 200U);
    EXPECT_TRUE(WaitFor([&] { return CountOf(Seen(), "/") == ulQueued; }))
        << CountOf(Seen(), "/") << " of " << ulQueued;
    std::map<char, std::string> aszLast;
    std::istringstream stSeen(Seen());
    for (std::string szText; std::getline(stSeen, szText, '/');) {
        EXPECT_LT(aszLast[szText[0]], szText);
        aszLast[szText[0]] = szText;
    }
}

// A console's socket has no fixed port, so it listens on every address of the device once it has sent. Here
// another address sends it what a process of the device would, alone and between the halves of a message beside
// which it has no room.
TEST_F(AsConsole, DatagramsFromOutside_NeitherReachTheRingNorCostAnything) {
    struct ifreq stAlias = {};
    strcpy(stAlias.ifr_name, "lo:1");
    const struct sockaddr_in stForeign = Address(0, "10.99.0.2");
    memcpy(&stAlias.ifr_addr, &stForeign, sizeof(stForeign));
    const int lSocket = BP_GetProcInfo()->lSocket;
    if (getenv("KS_SANDBOX") == nullptr || ioctl(lSocket, SIOCSIFADDR, &stAlias) != 0) {
        GTEST_SKIP() << "needs a network namespace of its own";
    }
    ASSERT_EQ(BP_RegistMsgProc(BP_MODULE_ID_MAIN, BP_PROC_TABLE_NORMAL, 0, Note, 0), BP_OK);
    BP_Write(BP_FindLogModule(BP_LOG_BP_MODULE_ID)->ulDebugOn, 1U);
    struct sockaddr_in stOwn = Address(PORT_MWARE, "127.0.0.1");
    socklen_t ulLen = sizeof(stOwn);
    sendto(lSocket, "", 0, 0, reinterpret_cast<struct sockaddr *>(&stOwn), ulLen);
    ASSERT_EQ(getsockname(lSocket, reinterpret_cast<struct sockaddr *>(&stOwn), &ulLen), 0);
    ASSERT_EQ(stOwn.sin_addr.s_addr, INADDR_ANY);
    const uint16_t usPort = ntohs(stOwn.sin_port);
    BusSocket stPeer;
    BusSocket stOutside(0, "10.99.0.2");
    const std::string szHostile = Bytes(MakeMsg(BP_MODULE_ID_MAIN, 1, std::string(8000, 'f')));
    const std::string szMsg = Bytes(MakeMsg(BP_MODULE_ID_MAIN, 1, "from inside"));
    stOutside.SendTo(usPort, szHostile);
    stPeer.SendTo(usPort, szMsg.substr(0, 45));
    stOutside.SendTo(usPort, szHostile);
    stPeer.SendTo(usPort, szMsg.substr(45));
    EXPECT_TRUE(HasSeen("from inside/"));
    EXPECT_EQ(CountOf(ReadFile("/var/log/ks00.debug"), "drop datagram from 200630a"), 2U);
}
