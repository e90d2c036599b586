#include "tests/support/rows.h"

#include <fstream>
#include <sstream>

// The character that is written as szText[*pulPos] and what follows it.
static char CharAt(const std::string &szText, size_t *pulPos) {
    static const std::string szNames = "nrtes";
    const char cFirst = szText[(*pulPos)++];
    if (cFirst != '\\' || *pulPos == szText.size()) {
        return cFirst;
    }
    const char cName = szText[(*pulPos)++];
    if (cName == 'x') {
        *pulPos += 2;
        return static_cast<char>(std::stoi(szText.substr(*pulPos - 2, 2), nullptr, 16));
    }
    const size_t ulName = szNames.find(cName);
    return ulName == std::string::npos ? cName : "\n\r\t\x1B "[ulName];
}

static std::string Column(const std::string &szText) {
    std::string szColumn;
    size_t ulEnd = szText.find_last_not_of(' ') + 1;
    for (size_t ulPos = szText.find_first_not_of(' '); ulPos < ulEnd;) {
        const bool bRepeated = szText[ulPos] == '{';
        ulPos += bRepeated ? 1 : 0;
        const char cChar = CharAt(szText, &ulPos);
        szColumn.append(bRepeated ? std::stoul(szText.substr(ulPos + 1)) : 1, cChar);
        ulPos = bRepeated ? szText.find('}', ulPos) + 1 : ulPos;
    }
    return szColumn;
}

std::vector<std::vector<std::string>> Rows(const std::string &szName) {
    std::vector<std::vector<std::string>> aaszRow;
    std::ifstream stFile(KS_TEST_DATA "/" + szName);
    for (std::string szLine, szCell; std::getline(stFile, szLine);) {
        if (szLine.empty() || szLine[0] == '#') {
            continue;
        }
        std::istringstream stCells(szLine + "|");
        std::vector<std::string> aszRow;
        while (std::getline(stCells, szCell, '|')) {
            aszRow.push_back(Column(szCell) == "=" ? aaszRow.back().at(aszRow.size()) : Column(szCell));
        }
        aaszRow.push_back(aszRow);
    }
    return aaszRow;
}
