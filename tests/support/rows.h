// Cases that differ only in data.
#ifndef TESTS_SUPPORT_ROWS_H
#define TESTS_SUPPORT_ROWS_H

#include <string>
#include <vector>

// The cases in tests/data, a line each: columns between bars, \n, \r, \t, \e, \s (a space) and \xHH in them,
// {x*9} for nine times x. A column that begins with = is taken from the row above.
std::vector<std::vector<std::string>> Rows(const std::string &szName);

#endif
