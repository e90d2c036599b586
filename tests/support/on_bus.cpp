#include "tests/support/on_bus.h"

#include <sstream>

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
        Script pfnScript;
        {
            const std::lock_guard<std::mutex> stGuard(stLock_);
            astRequest_.push_back(Parse(szBytes));
            stFrom_ = stFrom;
            pfnScript = pfnScript_;
        }
        for (const std::string &szReply : pfnScript(Parse(szBytes))) {
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

ScriptedTarget::Script AnswerAll(const std::string &szText) {
    return [szText](const WireMsg &stReq) { return std::vector<std::string>{Bytes(MakeAck(stReq, szText))}; };
}

std::string Ask(uint32_t ulModuleID, const std::string &szText, uint32_t ulSeconds, uint32_t ulCode) {
    char *pcAnswer = nullptr;
    const uint32_t ulRet = BP_SendCmdMsg(szText.c_str(), ulModuleID, ulCode, ulSeconds, &pcAnswer);
    const std::string szAnswer = ulRet == BP_OK ? pcAnswer : "error " + std::to_string(ulRet);
    free(pcAnswer);
    return szAnswer;
}

testing::AssertionResult AllSlabsFull() {
    const std::string szFault = SlabFault(true);
    return szFault.empty() ? testing::AssertionSuccess() : testing::AssertionFailure() << szFault;
}

testing::AssertionResult AllSlabsRefill() {
    WaitFor([] { return SlabFault(true).empty(); });
    return AllSlabsFull();
}

std::string TextOf(const BP_StructMsg &stMsg) {
    uint8_t *pucText = nullptr;
    uint32_t ulLen = 0;
    return BP_DecodeStructMsgData(&stMsg, &pucText, &ulLen) == BP_OK
               ? std::string(reinterpret_cast<char *>(pucText), ulLen)
               : "no payload";
}

static std::mutex g_stSeenLock;
static std::string g_szSeen;

uint32_t See(const std::string &szWhat) {
    const std::lock_guard<std::mutex> stGuard(g_stSeenLock);
    g_szSeen += szWhat + "/";
    return BP_OK;
}

std::string Seen() {
    const std::lock_guard<std::mutex> stGuard(g_stSeenLock);
    return g_szSeen;
}

void ForgetSeen() {
    const std::lock_guard<std::mutex> stGuard(g_stSeenLock);
    g_szSeen.clear();
}

testing::AssertionResult HasSeen(const std::string &szAll) {
    WaitFor([&] { return Seen() == szAll; }, 10);
    return Seen() == szAll ? testing::AssertionSuccess()
                           : testing::AssertionFailure() << Seen() << " for " << szAll;
}

std::string Bare(const std::string &szLog) {
    std::istringstream stLines(szLog);
    std::string szAll;
    for (std::string szLine; std::getline(stLines, szLine);) {
        char cLevel = 0;
        unsigned uCode = 0;
        int lText = 0;
        if (sscanf(szLine.c_str(), "%*18c[%c(%u)][%*[^]]]%n", &cLevel, &uCode, &lText) == 2 && lText > 0) {
            szLine = cLevel + ("(" + std::to_string(uCode)) + ") " +
                     szLine.substr(static_cast<size_t>(lText), szLine.find('\r') - static_cast<size_t>(lText));
        }
        for (size_t ulPos = 0; (ulPos = szLine.find("0x", ulPos)) != std::string::npos;) {
            const size_t ulEnd =
                std::min(szLine.find_first_not_of("0123456789abcdef", ulPos += 2), szLine.size());
            szLine.erase(ulPos, ulEnd - ulPos > 8 ? ulEnd - ulPos : 0);
        }
        szAll += szLine + "\n";
    }
    return szAll;
}

void OnBus::SetUp() {
    ASSERT_EQ(BP_MwareInit("MW_MWARE", 101), BP_OK);
    ASSERT_EQ(BP_RegistModule("MW_CTRL", 1, nullptr), BP_OK);
    pstCtrl_ = BP_GetModuleByID(MW_CTRL);
}

void OnBus::SetDebug(bool bOn) {
    BP_Write(BP_FindLogModule(BP_LOG_BP_MODULE_ID)->ulDebugOn, bOn ? 1U : 0U);
}

BP_StructMsg OnBus::Make(uint32_t ulDstID, uint32_t ulMsgCode, const std::string &szText, uint32_t ulType) {
    BP_StructMsg stMsg = BP_CreatStructMsg(szText.data(), static_cast<uint32_t>(szText.size()));
    EXPECT_EQ(BP_ConfigMsgHdr(&stMsg, MW_CTRL, ulDstID, ulMsgCode, ulType), BP_OK);
    return stMsg;
}

void OnBus::Send(uint32_t ulDstID, uint32_t ulMsgCode, const std::string &szText, uint32_t ulType) {
    BP_StructMsg stMsg = Make(ulDstID, ulMsgCode, szText, ulType);
    EXPECT_EQ(BP_SendMsgProc(BP_GetModuleByID(MW_CTRL), &stMsg), BP_OK);
    BP_EraseMsgData(&stMsg);
}
