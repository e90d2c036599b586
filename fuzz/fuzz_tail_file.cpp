// A file whose tail is copied: the first byte says how many lines, the second how often the rest is its
// content.
#include "bp/bp_module/dumps.h"
#include "bp/bp_types.h"
#include "bp/bp_util/tail_file.h"
#include "fuzz/fuzz_support.h"

static const char g_szSource[] = "/tmp/source";
static const char g_szCopy[] = "/tmp/copy";
static constexpr size_t FUZZ_BLOCK = 24575;
static constexpr size_t FUZZ_FILE = 3 * FUZZ_BLOCK;

void FuzzStart() {}

// What follows the line feed that makes one more than ulLines, counted from the end.
static std::string TailOf(const std::string &szText, size_t ulLines) {
    size_t ulFound = 0;
    for (size_t i = szText.size(); i > 0; i--) {
        if (szText[i - 1] == '\n' && ++ulFound > ulLines) {
            return szText.substr(i);
        }
    }
    return szText;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pucData, size_t ulSize) {
    if (ulSize < 2) {
        return 0;
    }
    const std::string szPiece = FuzzText(pucData + 2, ulSize - 2);
    std::string szText = szPiece;
    for (uint32_t i = 1; i < pucData[1] && szText.size() < FUZZ_FILE; i++) {
        szText += szPiece;
    }
    FuzzExpect(BP_WriteDumpFile(g_szSource, szText.data(), static_cast<uint32_t>(szText.size())) ==
                   (szText.empty() ? BP_ERR_FAIL : BP_OK), // there is no item of no bytes
               "a dump is written");
    FuzzExpect(ReadFile(g_szSource) == szText, "a dump is written as it is");
    FuzzExpect(BP_TailFile(g_szSource, g_szCopy, "w", pucData[0]) == BP_OK, "a tail is copied");
    const std::string szBlock =
        ("=====" + std::string(g_szSource) + "=====\n" + TailOf(szText, pucData[0])).substr(0, FUZZ_BLOCK);
    const std::string szWanted = szBlock.substr(0, szBlock.find('\0')); // a text ends there
    FuzzExpect(ReadFile(g_szCopy) == szWanted, "the tail is the last lines");
    FuzzExpect(BP_TailFile(g_szSource, g_szCopy, "a", pucData[0]) == BP_OK, "a tail is appended");
    FuzzExpect(ReadFile(g_szCopy) == szWanted + szWanted, "nothing else is changed");
    return 0;
}
