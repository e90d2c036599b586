// Threads that a test starts beside its own.
#ifndef TESTS_SUPPORT_THREADS_H
#define TESTS_SUPPORT_THREADS_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <future>
#include <vector>

// So many threads, each given its number; joined once the record goes.
class Threads {
public:
    Threads(uint32_t ulNum, const std::function<void(uint32_t)> &pfnRun) {
        for (uint32_t i = 0; i < ulNum; i++) {
            astThread_.push_back(std::async(std::launch::async, pfnRun, i));
        }
    }

private:
    std::vector<std::future<void>> astThread_; // whose end waits for the threads
};

// A thread that does the same again and again until the record goes.
class Repeater {
public:
    explicit Repeater(const std::function<void()> &pfnRun)
        : stThread_(1, [this, pfnRun](uint32_t) {
              while (!bStop_) {
                  pfnRun();
              }
          }) {}
    ~Repeater() { bStop_ = true; }

private:
    std::atomic<bool> bStop_{false};
    Threads stThread_;
};

#endif
