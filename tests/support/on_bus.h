// The test program as a process on the bus, and its peers.
#ifndef TESTS_SUPPORT_ON_BUS_H
#define TESTS_SUPPORT_ON_BUS_H

#include <gtest/gtest.h>
#include <mutex>

#include "tests/support/files.h"
#include "tests/support/rows.h"
#include "tests/support/slab_check.h"
#include "tests/support/threads.h"
#include "tests/support/wire.h"

constexpr uint32_t MW_CTRL = 0x90000001;
constexpr uint32_t MW_PTZ = 0x90000003;
constexpr uint32_t NOBODY = 0x90000006; // in no table

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
    // Sends to the sender of the last request, from this address or another.
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

// The answer to the text as a command for the module, or "error " and the result. A limit of 0 is 10 ms.
std::string Ask(uint32_t ulModuleID, const std::string &szText, uint32_t ulSeconds = 10,
                uint32_t ulCode = 31060);

// Every class of this process has all its buffers; says which has not.
testing::AssertionResult AllSlabsFull();
// The same, once the threads that still hold some have given them back.
testing::AssertionResult AllSlabsRefill();

std::string TextOf(const BP_StructMsg &stMsg);

// What handlers and callbacks have seen so far, each thing with a / after it.
uint32_t See(const std::string &szWhat); // returns BP_OK
std::string Seen();
void ForgetSeen();
testing::AssertionResult HasSeen(const std::string &szAll);

// Log lines as "level(code) text", without time and place; addresses are left out.
std::string Bare(const std::string &szLog);

// MW_MWARE with the module MW_CTRL, without a main thread at first.
class OnBus : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override { EXPECT_TRUE(AllSlabsRefill()); }
    static void StartMainThread() { ASSERT_EQ(BP_RegistModule("MW_MWARE", 1, nullptr), BP_OK); }
    static void Handle(uint32_t ulModuleID, uint32_t ulMsgCode, BP_PfnMsgProc pfnProc, uint32_t ulParam = 0,
                       uint32_t ulTable = BP_PROC_TABLE_NORMAL) {
        ASSERT_EQ(BP_RegistMsgProc(ulModuleID, ulTable, ulMsgCode, pfnProc, ulParam), BP_OK);
    }
    static void SetDebug(bool bOn);
    static std::string Log() { return ReadFile("/var/log/MW_MWARE00.log"); }
    static std::string DebugLog() { return ReadFile("/var/log/MW_MWARE00.debug"); }
    static size_t Logged(const std::string &szText) { return CountOf(Log(), szText); }
    // A message of MW_CTRL, whichever thread calls.
    static BP_StructMsg Make(uint32_t ulDstID, uint32_t ulMsgCode, const std::string &szText,
                             uint32_t ulType = BP_MSG_TYPE_NORMAL);
    static void Send(uint32_t ulDstID, uint32_t ulMsgCode, const std::string &szText,
                     uint32_t ulType = BP_MSG_TYPE_NORMAL);
    BP_ModuleInfo *pstCtrl_ = nullptr;
};

// The console's process, whose target is played by a script.
class AsConsole : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(BP_MwareInit("ks", 257), BP_OK); }
    void TearDown() override { EXPECT_TRUE(AllSlabsRefill()); }
    static std::string Log() { return ReadFile("/var/log/ks00.log"); }
    static size_t Logged(const std::string &szText) { return CountOf(Log(), szText); }
};

#endif
