#include "bp/bp_log/calendar.h"

static constexpr int BP_SEC_PER_DAY = 86400;
static constexpr int BP_FIRST_YEAR = 1970;
static constexpr int BP_FIRST_WEEKDAY = 4; // 1 January 1970 was a Thursday

static bool BP_IsLeapYear(int lYear) {
    return lYear % 4 == 0;
}

static int BP_YearDays(int lYear) {
    return BP_IsLeapYear(lYear) ? 366 : 365;
}

static int BP_MonthDays(int lMonth, int lYear) {
    static constexpr int alDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return lMonth == 2 && BP_IsLeapYear(lYear) ? 29 : alDays[lMonth - 1];
}

BP_Date BP_SecToDate(time_t lSeconds) {
    // Rounded down, also before 1970.
    const int lRest = static_cast<int>((lSeconds % BP_SEC_PER_DAY + BP_SEC_PER_DAY) % BP_SEC_PER_DAY);
    time_t lDays = (lSeconds - lRest) / BP_SEC_PER_DAY;
    BP_Date stDate = {};
    stDate.lHour = lRest / 3600;
    stDate.lMinute = lRest % 3600 / 60;
    stDate.lSecond = lRest % 60;
    stDate.lWeekday = static_cast<int>(((lDays + BP_FIRST_WEEKDAY) % 7 + 7) % 7);

    stDate.lYear = BP_FIRST_YEAR;
    while (lDays < 0) {
        lDays += BP_YearDays(--stDate.lYear);
    }
    while (lDays >= BP_YearDays(stDate.lYear)) {
        lDays -= BP_YearDays(stDate.lYear++);
    }
    stDate.lYearDay = static_cast<int>(lDays);

    stDate.lMonth = 1;
    while (lDays >= BP_MonthDays(stDate.lMonth, stDate.lYear)) {
        lDays -= BP_MonthDays(stDate.lMonth++, stDate.lYear);
    }
    stDate.lDay = static_cast<int>(lDays) + 1;
    return stDate;
}

struct tm BP_SecToTm(time_t lSeconds) {
    const BP_Date stDate = BP_SecToDate(lSeconds);
    struct tm stTm = {};
    stTm.tm_sec = stDate.lSecond;
    stTm.tm_min = stDate.lMinute;
    stTm.tm_hour = stDate.lHour;
    stTm.tm_mday = stDate.lDay;
    stTm.tm_mon = stDate.lMonth - 1;
    stTm.tm_year = stDate.lYear - 1900;
    stTm.tm_wday = stDate.lWeekday;
    stTm.tm_yday = stDate.lYearDay;
    return stTm;
}
