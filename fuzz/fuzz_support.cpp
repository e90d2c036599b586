#include "fuzz/fuzz_support.h"

#include <cstdio>
#include <cstdlib>

#include "tests/support/slab_check.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    FuzzExpect(freopen("/dev/null", "w", stdout) != nullptr, "answers are discarded");
    FuzzStart();
    return 0;
}

void FuzzExpect(bool bHolds, const char *pcWhat) {
    if (!bHolds) {
        fprintf(stderr, "broken: %s\n", pcWhat);
        abort();
    }
}

std::vector<std::string> FuzzSplit(const std::string &szText, char cSeparator, size_t ulMax) {
    std::vector<std::string> aszPiece;
    size_t ulAt = 0;
    for (size_t ulEnd = 0; aszPiece.size() + 1 < ulMax; ulAt = ulEnd + 1) {
        ulEnd = szText.find(cSeparator, ulAt);
        if (ulEnd == std::string::npos) {
            break;
        }
        aszPiece.push_back(szText.substr(ulAt, ulEnd - ulAt));
    }
    aszPiece.push_back(szText.substr(ulAt));
    return aszPiece;
}

void FuzzCheckSlabsFull() {
    FuzzExpect(WaitFor([] { return SlabFault(true).empty(); }, 5), "every buffer comes back");
}

BusSocket *FuzzStartMware() {
    FuzzExpect(BP_MwareInit("MW_MWARE", 101) == BP_OK, "the process starts");
    BP_SetLogLevel(BP_LOG_LEVEL_FATAL); // garbage is reported in any number of lines
    return new BusSocket;
}
