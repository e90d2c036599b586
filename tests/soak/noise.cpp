#include "tests/soak/noise.h"

#include <algorithm>
#include <sstream>

#include "tests/soak/chance.h"
#include "tests/support/files.h"

// Every port that somebody receives on, the consoles' included.
static std::vector<uint16_t> Ports(uint16_t usOwn) {
    std::vector<uint16_t> ausPort = {PORT_MWARE, PORT_IWARE};
    std::istringstream stTable(ReadFile("/proc/net/udp"));
    for (std::string szLine; std::getline(stTable, szLine);) {
        unsigned uPort = 0;
        if (sscanf(szLine.c_str(), " %*d: %*x:%x", &uPort) == 1 && uPort != usOwn) {
            ausPort.push_back(static_cast<uint16_t>(uPort));
        }
    }
    return ausPort;
}

static std::string RandomBytes(size_t ulLen) {
    std::string szBytes(ulLen, '\0');
    std::generate(szBytes.begin(), szBytes.end(), [] { return static_cast<char>(g_stRandom()); });
    return szBytes;
}

// Garbage, messages that are cut, wrong or meant for nobody, and answers that nobody waits for.
static std::string Datagram() {
    static constexpr uint32_t aulModule[] = {0x90000001, 0x90000002, 0x90000003, 0x90000004, 0x90009001,
                                             0xFFFFFFFF, 0xFFFFFFFE, 0xFFFFFFFD, 0xFFFFFFFC, 0x90000099};
    static constexpr uint32_t aulCode[] = {0,     1001,  1002,  1003,  1005,  31051, 31052,
                                           31055, 31056, 31058, 31059, 31060, 4711,  0xFFFFFFFF};
    static const std::string aszText[] = {"<display slab >", "<display slab class >3;", "\n%s%n", "\nall",
                                          "<;>"};
    static constexpr size_t aulSize[] = {1, 5, 100, 400, 1900, 8153};
    static constexpr uint16_t ausWrongLen[] = {0, 39, 8193, 65535};
    const std::string szText = Random(2) == 0 ? OneOf(aszText) : RandomBytes(Random(OneOf(aulSize)));
    WireMsg stMsg = MakeMsg(OneOf(aulModule), OneOf(aulCode), szText);
    stMsg.stHdr.ulMsgType = Random(6);
    stMsg.stHdr.AssiMsgId = static_cast<uint32_t>(g_stRandom()) | 0x80000000U; // no console counts that far
    switch (Random(12)) {
    case 0:
        return RandomBytes(1 + Random(10000));
    case 1:
        stMsg.stHdr.usMsgLen = OneOf(ausWrongLen);
        return Bytes(stMsg);
    case 2: // an empty datagram; rarely a message cut off, because that takes in what others send behind it
        return Random(20) == 0 ? Bytes(stMsg).substr(0, 40) : "";
    case 3:
        return Bytes(stMsg) + Bytes(MakeMsg(BP_MODULE_ID_MAIN, 4711, "two"));
    default:
        return Bytes(stMsg);
    }
}

void Noise::Step() {
    for (uint32_t ulLeft = Random(400) == 0 ? 60 : Random(4) / 3; ulLeft != 0; ulLeft--) {
        stSocket_.SendTo(OneOf(Ports(stSocket_.Port())), Datagram());
        g_stFigures.ulDatagrams++;
    }
    while (!stSocket_.Receive(0).empty()) {
    }
}
