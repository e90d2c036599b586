// Files, texts and conditions, as the tests look at them.
#ifndef TESTS_SUPPORT_FILES_H
#define TESTS_SUPPORT_FILES_H

#include <functional>
#include <string>
#include <unistd.h>

// The whole content; empty if there is no such file.
std::string ReadFile(const std::string &szPath);
void WriteFile(const std::string &szPath, const std::string &szText);
bool FileExists(const std::string &szPath);

// Where the threads of a process, this one by default, are listed.
std::string ThreadFile(int lPid = getpid());

// Number of times szPart stands in szText.
size_t CountOf(const std::string &szText, const std::string &szPart);

// Whether the text matches the extended regular expression.
bool Matches(const std::string &szText, const std::string &szRegex);

// A file system of so few bytes of its own at the directory, until the test ends. Only in the private mount
// namespace.
bool MountSmall(const std::string &szDir, size_t ulBytes);

// Waits until the condition holds, for at most lSeconds; returns whether it does. Not a measure of speed: the
// limit is there so that a test that fails also ends.
bool WaitFor(const std::function<bool()> &pfnCondition, int lSeconds = 30);

#endif
