#include "tests/support/files.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex.h>
#include <sstream>
#include <sys/mount.h>
#include <thread>

std::string ReadFile(const std::string &szPath) {
    std::ifstream stFile(szPath, std::ios::binary);
    std::ostringstream stText;
    stText << stFile.rdbuf();
    return stText.str();
}

void WriteFile(const std::string &szPath, const std::string &szText) {
    std::ofstream(szPath, std::ios::binary) << szText;
}

bool FileExists(const std::string &szPath) {
    return std::filesystem::exists(szPath);
}

std::string ThreadFile(int lPid) {
    return "/tmp/ThreadInfo[" + std::to_string(lPid) + "].log";
}

size_t CountOf(const std::string &szText, const std::string &szPart) {
    size_t ulNum = 0;
    for (size_t ulPos = 0; (ulPos = szText.find(szPart, ulPos)) != std::string::npos; ulPos++) {
        ulNum++;
    }
    return ulNum;
}

bool Matches(const std::string &szText, const std::string &szRegex) {
    regex_t stRegex;
    if (regcomp(&stRegex, szRegex.c_str(), REG_EXTENDED | REG_NOSUB) != 0) {
        return false;
    }
    const bool bMatches = regexec(&stRegex, szText.c_str(), 0, nullptr, 0) == 0;
    regfree(&stRegex);
    return bMatches;
}

bool MountSmall(const std::string &szDir, size_t ulBytes) {
    std::filesystem::create_directory(szDir);
    return getenv("KS_SANDBOX") != nullptr &&
           mount("tmpfs", szDir.c_str(), "tmpfs", 0, ("size=" + std::to_string(ulBytes)).c_str()) == 0;
}

bool WaitFor(const std::function<bool()> &pfnCondition, int lSeconds) {
    const auto stEnd = std::chrono::steady_clock::now() + std::chrono::seconds(lSeconds);
    // Short naps at first: what is waited for is mostly there at once.
    for (long lNapUs = 20; !pfnCondition(); lNapUs = std::min(2 * lNapUs, 2000L)) {
        if (std::chrono::steady_clock::now() > stEnd) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(lNapUs));
    }
    return true;
}
