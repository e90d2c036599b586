// Seconds since 1970 to calendar fields, without the time zone rules and without shared state.
#ifndef BP_BP_LOG_CALENDAR_H
#define BP_BP_LOG_CALENDAR_H

#include <ctime>

struct BP_Date {
    int lSecond;
    int lMinute;
    int lHour;
    int lDay;     // 1 to 31
    int lMonth;   // 1 to 12
    int lYear;    // in full
    int lWeekday; // 0 = Sunday
    int lYearDay; // 0 to 365
};

// Every year divisible by 4 has a 29 February: the device's calendar has no century rule. lSeconds counts from
// 1970 and is negative before it. Any thread.
BP_Date BP_SecToDate(time_t lSeconds);

// The same as a broken-down time for mktime, daylight saving off.
struct tm BP_SecToTm(time_t lSeconds);

#endif
