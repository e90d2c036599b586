// What the soak's actors share: chance out of one seed, the time, the figures, and how a run fails.
#ifndef TESTS_SOAK_CHANCE_H
#define TESTS_SOAK_CHANCE_H

#include <chrono>
#include <cstdint>
#include <iterator>
#include <random>
#include <stdexcept>
#include <string>

struct SoakFigures {
    uint32_t ulSent, ulAnswered, ulRefused, ulOther, ulTimedOut, ulKeys, ulFloods, ulDatagrams;
    uint32_t ulTargetKills, ulTargetStops, ulConsoleKills, ulConsoleQuits;
};
inline SoakFigures g_stFigures;
inline std::mt19937 g_stRandom;

inline uint32_t Random(size_t ulBelow) {
    return static_cast<uint32_t>(g_stRandom() % ulBelow);
}

inline double RandomSec(double dMax) {
    return dMax * Random(1000) / 1000;
}

template <typename Table>
const auto &OneOf(const Table &aRow) {
    return aRow[Random(std::size(aRow))];
}

inline double Now() {
    static const auto stStart = std::chrono::steady_clock::now();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - stStart).count();
}

// Ends the run when it does not hold.
inline void Require(bool bHolds, const std::string &szReason) {
    if (!bHolds) {
        throw std::runtime_error(szReason);
    }
}

#endif
