// The way in, driven by hand: MW_MWARE has no main thread until it registers its main module, so the test's own
// thread is the only one at the socket and the ring.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <map>
#include <sstream>

#include "tests/support/on_bus.h"
#include "tests/support/slab_check.h"
#include "tests/support/threads.h"

static std::mutex g_stSeenLock;
static std::vector<std::string> g_aszSeen;
static std::map<std::string, uint16_t> g_ausPeerPort; // of each text that was seen

static uint32_t Note(uint32_t, BP_StructMsg *pstMsg, uint32_t) {
    const std::lock_guard<std::mutex> stGuard(g_stSeenLock);
    g_aszSeen.push_back(TextOf(*pstMsg));
    g_ausPeerPort[g_aszSeen.back()] = ntohs(BP_MsgHdrOf(pstMsg->pstSlabBuf)->usPeerPort);
    return BP_OK;
}

// Where the text came from; 0 when it has not been seen.
static uint16_t PeerPortOf(const std::string &szText) {
    const std::lock_guard<std::mutex> stGuard(g_stSeenLock);
    return g_ausPeerPort.count(szText) != 0 ? g_ausPeerPort[szText] : 0;
}

class Transport : public OnBus {
protected:
    void SetUp() override {
        OnBus::SetUp();
        ASSERT_EQ(BP_RegistMsgProc(MW_CTRL, BP_PROC_TABLE_NORMAL, 0, Note, 0), BP_OK);
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
    static std::string Msg(const std::string &szText, uint32_t ulDstID = MW_CTRL) {
        return Bytes(MakeMsg(ulDstID, 1, szText));
    }
    static std::string MsgOfLength(uint16_t usMsgLen, const std::string &szText) {
        WireMsg stMsg = MakeMsg(MW_CTRL, 1, szText);
        stMsg.stHdr.usMsgLen = usMsgLen;
        return Bytes(stMsg);
    }
    static testing::AssertionResult Delivered(const std::vector<std::string> &aszText) {
        const auto pfnSame = [&] {
            const std::lock_guard<std::mutex> stGuard(g_stSeenLock);
            return g_aszSeen == aszText;
        };
        if (WaitFor(pfnSame, 10)) {
            return testing::AssertionSuccess();
        }
        return testing::AssertionFailure() << g_aszSeen.size() << " messages of " << aszText.size();
    }
    BusSocket stPeer_;
    BP_RecvRing *pstRing_ = nullptr;
};

// Datagrams as they arrive, what is delivered, and what is left in the ring; if there is more to come, the main
// thread was idle for longer than a message may wait before it came.
TEST_F(Transport, CutsDatagramsIntoMessages) {
    const std::string szLong(5000, 'l');
    const std::string szFull(8192 - 40, 'f'); // leaves no room beside it
    std::string szNested;
    for (int i = 0; i < 200; i++) {
        szNested += MsgOfLength(8192, "");
    }
    WireMsg stAlmost = MakeMsg(MW_CTRL, 1, "x");
    stAlmost.stHdr.aucPrefix[3] = 0xDF;
    const struct {
        const char *pcName;
        std::vector<std::string> aszDatagram, aszDelivered;
        uint32_t ulLeft = 0;
        std::vector<std::string> aszLater = {};
    } astCase[] = {
        {"empty payload", {Msg("")}, {""}},
        {"empty datagram", {"", Msg("a")}, {"a"}},
        {"two in one", {Msg("a") + Msg("b")}, {"a", "b"}},
        {"together in the socket", {Msg("a"), Msg("b"), Msg("c")}, {"a", "b", "c"}},
        {"header in pieces", {Msg("abc").substr(0, 17), Msg("abc").substr(17)}, {"abc"}},
        {"payload in pieces", {Msg("abc").substr(0, 41), Msg("abc").substr(41) + Msg("d")}, {"abc", "d"}},
        {"unknown destination", {Msg("x", NOBODY) + Msg("a")}, {"a"}},
        {"garbage in front", {std::string(50, 'g') + Msg("a")}, {"a"}},
        {"false starts", {std::string("\x35\x23\x12\x35\x35\x23", 6) + Msg("a")}, {"a"}},
        {"almost the prefix", {Bytes(stAlmost) + Msg("a")}, {"a"}},
        {"too short, then good", {MsgOfLength(39, "") + Msg("a")}, {"a"}},
        {"length zero", {MsgOfLength(0, "zero") + Msg("a")}, {"a"}},
        {"never fits", {MsgOfLength(8193, "x") + Msg("a")}, {"a"}},
        {"longest", {MsgOfLength(65535, "x") + Msg("a")}, {"a"}},
        {"fills the ring", {Msg(szFull), Msg("a")}, {szFull, "a"}},
        {"wraps",
         {Msg(szLong) + Msg(szLong).substr(0, 100), Msg(szLong).substr(100) + Msg(szLong).substr(0, 9),
          Msg(szLong).substr(9)},
         {szLong, szLong, szLong}},
        {"short garbage waits", {std::string(39, 'g')}, {}, 39},
        {"long garbage goes", {std::string(100, 'g')}, {}, 3},
        {"larger than the ring",
         {Msg("abc").substr(0, 41), std::string(9000, 'x'), Msg("abc").substr(41)},
         {"abc"}},
        {"one byte gives way", {"x", Msg(szFull), Msg("a")}, {szFull, "a"}},
        {"three bytes give way", {"xyz", Msg(szFull), Msg("a")}, {szFull, "a"}},
        {"much garbage gives way", {std::string(5000, 'g'), Msg(szFull), Msg("a")}, {szFull, "a"}},
        {"a header gives way", {MsgOfLength(8192, ""), Msg(szFull), Msg("a")}, {szFull, "a"}},
        {"52 bytes missing", {MsgOfLength(8192, std::string(8100, 's')), Msg(szFull), Msg("a")}, {szFull, "a"}},
        {"headers in headers", {szNested, Msg(szFull), Msg("a")}, {szFull, "a"}},
        {"swallowed, but not for ever",
         {MsgOfLength(8192, ""), Msg("a"), Msg("b")},
         {"a", "b", "c"},
         0,
         {Msg("c")}},
        {"only just begun",
         {MsgOfLength(300, ""), Msg("half").substr(0, 43)},
         {"half"},
         0,
         {Msg("half").substr(43)}},
    };
    for (const auto &stCase : astCase) {
        SCOPED_TRACE(stCase.pcName);
        *pstRing_ = [this] {
            BP_RecvRing stEmpty;
            stEmpty.ulMaxSize = stEmpty.ulFreeLen = BP_RECV_RING_SIZE;
            stEmpty.pucBuf = pstRing_->pucBuf;
            return stEmpty;
        }();
        g_aszSeen.clear();
        Arrive(stCase.aszDatagram);
        if (!stCase.aszLater.empty()) {
            BP_ResumeReceive();
            EXPECT_TRUE(Delivered({})); // not yet
            pstRing_->lHeldSinceMs -= BP_RECV_HOLD_MS + 1;
            BP_ResumeReceive();
            Arrive(stCase.aszLater);
        }
        EXPECT_TRUE(Delivered(stCase.aszDelivered));
        EXPECT_EQ(pstRing_->ulUsedLen, stCase.ulLeft);
        EXPECT_TRUE(stCase.ulLeft != 0 || (pstRing_->ulWrPos == 0 && pstRing_->lHeldSinceMs == 0));
    }
    EXPECT_GE(Logged("[E(1)][bp_module-"), Logged("[BP_TransMsgToModule]") + 1);
    EXPECT_GE(Logged("Prefix err:0x67 0x67 0x67 0x67 != 0x35 0x23 0x12 0xde"), 2U);
    EXPECT_EQ(Logged("[BP_TransMsgToModule]Prefix err:0x35 0x23 0x12 0xdf != 0x35 0x23 0x12 0xde"), 1U);
    EXPECT_EQ(Logged("[BP_TransMsgToModule]ulMsgLen 39 <= 40"), 1U);
    EXPECT_EQ(Logged("[BP_TransMsgToModule]ulMsgLen 8193 > 8192"), 1U);
    EXPECT_EQ(Logged("read from socket fail"), 1U);
    EXPECT_EQ(Logged("[BP_GetAndDispatchMsg]read from socket fail errcode:90(Message too long)."), 1U);
    EXPECT_GE(Logged("[BP_GiveUpHead]give up incomplete msg, 3 bytes are there."), 1U);
}

// A main thread that was busy for long finds the rest in the socket, in an event or a pass.
TEST_F(Transport, LateRest_CompletesItsMessage) {
    for (const bool bEvent : {false, true}) {
        g_aszSeen.clear();
        Arrive({Msg("late").substr(0, 42)});
        pstRing_->lHeldSinceMs -= BP_RECV_HOLD_MS + 1;
        stPeer_.SendTo(PORT_MWARE, Msg("late").substr(42));
        bEvent ? Dispatch() : BP_ResumeReceive();
        EXPECT_TRUE(Delivered({"late"})) << bEvent;
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
    Arrive({MsgOfLength(8192, "")});
    std::vector<BusSocket> astSender(40);
    std::vector<std::string> aszText;
    for (BusSocket &stSender : astSender) {
        aszText.push_back(std::to_string(100 + aszText.size()));
        stSender.SendTo(PORT_MWARE, Msg(aszText.back()).substr(0, 30));
        stSender.SendTo(PORT_MWARE, Msg(aszText.back()).substr(30));
    }
    Dispatch();
    EXPECT_TRUE(Delivered({}));
    pstRing_->lHeldSinceMs -= BP_RECV_HOLD_MS + 1;
    BP_ResumeReceive();
    ASSERT_TRUE(Delivered(aszText));
    for (size_t i = 0; i < astSender.size(); i++) {
        EXPECT_EQ(PeerPortOf(aszText[i]), astSender[i < 30 ? i : 39].Port()) << i;
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
    ASSERT_TRUE(Delivered({"abc"}));
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
    EXPECT_TRUE(Delivered({}));
    FreeAll(apstTaken);
    BP_ResumeReceive(); // as the idle pass does, without a further datagram
    EXPECT_TRUE(Delivered({szBig, "behind it"}));
    EXPECT_EQ(PeerPortOf(szBig), stPeer_.Port());
    EXPECT_EQ(PeerPortOf("behind it"), stOther.Port());
    EXPECT_EQ(Logged("read from socket fail"), 0U);
}

TEST_F(Transport, EmptySocket_IsAFailureOnlyWhenNothingWasRead) {
    EXPECT_EQ(BP_GetAndDispatchMsg(), BP_ERR_FAIL);
    EXPECT_EQ(Logged("[BP_GetAndDispatchMsg]read from socket fail errcode:11("), 1U);
}

TEST_F(Transport, BrokenRingPosition_IsReportedAndHealed) {
    uint32_t ulResult = 0;
    pstRing_->ulRdPos = 9000;
    EXPECT_EQ(BP_TransMsgToModule(&ulResult), BP_ERR_FAIL);
    EXPECT_EQ(Logged("[BP_TransMsgToModule]ulRdPos 9000 >= ulMaxSize 8192"), 1U);
    Arrive({Msg("a")});
    EXPECT_TRUE(Delivered({"a"}));
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
    ASSERT_TRUE(WaitFor([&] {
        const std::lock_guard<std::mutex> stGuard(g_stSeenLock);
        return g_aszSeen.size() == ulQueued;
    })) << g_aszSeen.size()
        << " of " << ulQueued;
    std::map<char, std::string> aszLast;
    for (const std::string &szText : g_aszSeen) {
        EXPECT_LT(aszLast[szText[0]], szText);
        aszLast[szText[0]] = szText;
    }
}

// A console's socket has no fixed port, so it listens on every address of the device once it has sent. Here a
// neighbour on a network of its own sends it what a process of the device would.
TEST(Foreigner, DatagramsFromOutside_NeitherReachTheRingNorCostAnything) {
    ASSERT_EQ(BP_MwareInit("ks", 257), BP_OK);
    ASSERT_EQ(BP_RegistMsgProc(BP_MODULE_ID_MAIN, BP_PROC_TABLE_NORMAL, 0, Note, 0), BP_OK);
    BP_Write(BP_FindLogModule(BP_LOG_BP_MODULE_ID)->ulDebugOn, 1U);
    struct sockaddr_in stAny = {};
    stAny.sin_family = AF_INET;
    stAny.sin_port = htons(PORT_MWARE);
    stAny.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sendto(BP_GetProcInfo()->lSocket, "", 0, 0, reinterpret_cast<struct sockaddr *>(&stAny), sizeof(stAny));
    socklen_t ulLen = sizeof(stAny);
    ASSERT_EQ(getsockname(BP_GetProcInfo()->lSocket, reinterpret_cast<struct sockaddr *>(&stAny), &ulLen), 0);
    ASSERT_EQ(stAny.sin_addr.s_addr, INADDR_ANY);

    WriteFile("datagram", Bytes(MakeMsg(BP_MODULE_ID_MAIN, 1, std::string(8000, 'f'))));
    WriteFile("neighbour", "ip link add ks0 type veth peer name ks1 && unshare -n sh -c '"
                           "echo $$ > pid; until ip addr add 10.99.0.2/24 dev ks1; do sleep 0.1; done; "
                           "ip link set ks1 up; until [ -e enough ]; do if rm go; then "
                           "bash -c \"cat datagram > /dev/udp/10.99.0.1/" +
                               std::to_string(ntohs(stAny.sin_port)) +
                               "\"; fi; sleep 0.01; done' 2>/dev/null & "
                               "until ip link set ks1 netns $(cat pid); do sleep 0.1; done 2>/dev/null; "
                               "ip addr add 10.99.0.1/24 dev ks0; ip link set ks0 up; wait");
    if (getenv("KS_TEST_SANDBOX") == nullptr || system("ip link help 2>&1 | grep -q veth") != 0) {
        GTEST_SKIP() << "needs a network namespace of its own, and ip";
    }
    std::thread stNeighbour([] { EXPECT_EQ(system("timeout 60 sh neighbour"), 0); });
    const auto pfnDropped = [] {
        return CountOf(ReadFile("/var/log/ks00.debug"), "drop datagram from 200630a");
    };
    const auto pfnSeen = [] {
        const std::lock_guard<std::mutex> stGuard(g_stSeenLock);
        return g_aszSeen;
    };
    const auto pfnSend = [&] {
        const size_t ulDropped = pfnDropped();
        WriteFile("go", "");
        return WaitFor([&] { return pfnDropped() > ulDropped; }, 1);
    };
    for (int i = 0; i < 20 && !pfnSend(); i++) { // until the network is up
    }
    // Once more between the halves of a message, beside which it has no room; on a busy machine it may come too
    // late, or the message may have been given up by then.
    const std::string szText(2000, 'd');
    const std::string szMsg = Bytes(MakeMsg(BP_MODULE_ID_MAIN, 1, szText));
    BusSocket stPeer;
    bool bShown = false;
    for (int i = 0; i < 10 && !bShown; i++) {
        const size_t ulSeen = pfnSeen().size();
        stPeer.SendTo(ntohs(stAny.sin_port), szMsg.substr(0, 1000));
        const bool bBetween = pfnSend();
        stPeer.SendTo(ntohs(stAny.sin_port), szMsg.substr(1000));
        bShown = WaitFor([&] { return pfnSeen().size() > ulSeen; }, 1) && bBetween;
    }
    EXPECT_TRUE(bShown);
    WriteFile("enough", "");
    stNeighbour.join();
    for (const std::string &szSeen : pfnSeen()) {
        EXPECT_EQ(szSeen, szText);
    }
}
