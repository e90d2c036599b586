// Requests to a process's command module: a character for the code ('0' is 31051), then the text up to a NUL.
#include <cstdlib>
#include <cstring>

#include "bp/bp.h"
#include "bp/bp_module/receive.h"
#include "bp/bp_sendmsg/socket_send.h"
#include "fuzz/fuzz_support.h"

static BusSocket *g_pstPeer;
static std::string g_szRequest; // what was asked last

static uint32_t OnCmd(const BP_CmdArgs *pstArgs, BP_CmdAnswer *pstAnswer, uint32_t) {
    FuzzExpect(pstArgs->ulNum <= BP_CMD_WORD_MAX, "arguments fit");
    std::string szValues = ">";
    for (uint32_t i = 0; i < pstArgs->ulNum; i++) {
        FuzzExpect(strnlen(pstArgs->astArg[i].szText, BP_CMD_STRING_MAX + 1) <= BP_CMD_STRING_MAX,
                   "an argument has its end");
        FuzzExpect(pstArgs->astArg[i].ulType != BP_CMD_INTEGER ||
                       strtoull(pstArgs->astArg[i].szText, nullptr, 10) == pstArgs->astArg[i].ulValue,
                   "a number has its value");
        BP_AnswerPrint(pstAnswer, "%s %u\n", pstArgs->astArg[i].szText, pstArgs->astArg[i].ulValue);
        szValues += pstArgs->astArg[i].szText + std::string(";");
    }
    FuzzExpect(g_szRequest.substr(g_szRequest.find('>')) == szValues, "the arguments are what was asked");
    return pstArgs->ulNum == 3 ? BP_ERR_FAIL : BP_OK;
}

static const BP_CmdDef g_astCmd[] = {
    {{{BP_CMD_TITLE, "fuzz", "title"},
      {BP_CMD_INTEGER, "n", "integer"},
      {BP_CMD_STRING | BP_CMD_OPTIONAL, "s", "string"},
      {BP_CMD_STRING, "t", "string"}},
     OnCmd,
     0},
    {{{BP_CMD_TITLE, "fuzz", "title"}, {BP_CMD_TITLE, "all", "title"}}, OnCmd, 0},
};

void FuzzStart() {
    g_pstPeer = FuzzStartMware();
    FuzzExpect(BP_StartCmd() == BP_OK, "the kit starts");
    for (const BP_CmdDef &stCmd : g_astCmd) {
        FuzzExpect(BP_RegistCmd(&stCmd) == BP_OK, "a command is registered");
    }
}

// What a request may have switched on would slow all later inputs down.
static void Quieten() {
    BP_SetLogLevel(BP_LOG_LEVEL_FATAL);
    BP_LogInfo stInfo;
    for (uint32_t i = 1; BP_GetLogInfo(i, &stInfo) == BP_OK; i++) {
        BP_Write(g_stBPLogMgr.astLogModule[i].ulDebugOn, 0U);
    }
}

// The answer, if one is due: the kit answers every request that it knows, once.
static void Ask(uint32_t ulMsgCode, const std::string &szText) {
    g_szRequest = szText;
    g_pstPeer->SendTo(PORT_MWARE, Bytes(MakeMsg(BP_GetProcInfo()->ulCmdModuleID, ulMsgCode, szText)));
    FuzzExpect(BP_GetAndDispatchMsg() == BP_OK, "the request is read");
    const bool bKnown = (ulMsgCode >= BP_CMD_GET_LEVEL && ulMsgCode <= BP_CMD_RUN && ulMsgCode != 31057) ||
                        ulMsgCode == BP_CMD_GET_TREE || ulMsgCode == BP_CMD_GET_MODULES;
    std::string szAnswer;
    if (bKnown) {
        const auto pfnComes = [&] {
            BP_MsgSocketSendProc();
            szAnswer = g_pstPeer->Receive(0);
            return !szAnswer.empty();
        };
        FuzzExpect(WaitFor(pfnComes, 5), "the request is answered");
        FuzzExpect(szAnswer.size() >= BP_MSG_HDR_LEN, "the answer has a header");
        FuzzExpect(szAnswer.size() <= BP_MSG_HDR_LEN + BP_ACK_TEXT_MAX, "the answer fits the console's ring");
        const BP_MsgHdr stHdr = Parse(szAnswer).stHdr;
        FuzzExpect(stHdr.usMsgLen == szAnswer.size() && stHdr.ulMsgType == BP_MSG_TYPE_ACK &&
                       stHdr.ulMsgCode == ulMsgCode,
                   "the header is an answer's");
    }
    FuzzCheckSlabsFull();
    BP_MsgSocketSendProc();
    FuzzExpect(g_pstPeer->Receive(0).empty(), "nothing else is sent");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pucData, size_t ulSize) {
    for (const std::string &szRequest : FuzzSplit(FuzzText(pucData, ulSize), '\0', 16)) {
        if (!szRequest.empty() && szRequest.size() < 8000) {
            Ask(BP_CMD_GET_TREE + static_cast<uint8_t>(szRequest[0] - '0') % 16, szRequest.substr(1));
        }
    }
    Quieten();
    return 0;
}
