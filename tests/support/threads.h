// Threads that a test starts beside its own.
#ifndef TESTS_SUPPORT_THREADS_H
#define TESTS_SUPPORT_THREADS_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <thread>
#include <vector>

// So many threads, each given its number; joined when the record goes.
class Threads {
public:
    Threads(uint32_t ulNum, const std::function<void(uint32_t)> &pfnRun) {
        for (uint32_t i = 0; i < ulNum; i++) {
            astThread_.emplace_back(pfnRun, i);
        }
    }
    Threads(const Threads &) = delete;
    ~Threads() {
        for (std::thread &stThread : astThread_) {
            stThread.join();
        }
    }

private:
    std::vector<std::thread> astThread_;
};

// A thread that does the same again and again until the record goes.
class Repeater {
public:
    explicit Repeater(const std::function<void()> &pfnRun)
        : stThread_([this, pfnRun] {
              while (!bStop_) {
                  pfnRun();
              }
          }) {}
    Repeater(const Repeater &) = delete;
    ~Repeater() {
        bStop_ = true;
        stThread_.join();
    }

private:
    std::atomic<bool> bStop_{false};
    std::thread stThread_;
};

#endif
