#pragma once

#include <chrono>
#include <thread>

// Polls a condition without running any event loop, for outcomes that come from other threads.
// True once the condition holds; false after the timeout.
template <typename Condition>
bool waitFor(Condition condition, std::chrono::milliseconds timeout = std::chrono::seconds(10))
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

#define WAIT_VERIFY(condition) QVERIFY2(waitFor([&] { return bool(condition); }), "timed out: " #condition)
