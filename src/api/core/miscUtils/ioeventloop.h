#pragma once

#include <functional>
#include <memory>
#include <string>

namespace miscUtils {

// An I/O event loop (sockets, timers) run by exactly one thread. Work given to post() runs on
// that thread, in the order it was posted. The loop belongs to whoever runs it; in the module
// that is an IOEventLoopThread.
class IOEventLoop
{
public:
    IOEventLoop();
    ~IOEventLoop();
    IOEventLoop(const IOEventLoop&) = delete;
    IOEventLoop& operator=(const IOEventLoop&) = delete;

    // Thread-safe. Work posted after the loop stopped is destroyed without running.
    void post(std::function<void()> work);
    // Runs work on the loop thread and returns when it has run: inline when called on the loop
    // thread, otherwise posted and waited for. Returns false, without running it, when the
    // loop has stopped. Must not be called from a thread the loop's work waits on.
    bool runSync(std::function<void()> work);
    // True on the thread currently running the loop.
    bool isLoopThread() const;

    // Runs the loop on the calling thread until stop(); work posted in between keeps it busy.
    void run();
    // Thread-safe; run() returns once the handler it is running (if any) has finished.
    void stop();
    bool stopped() const;

    struct Private;
    Private& impl() { return *d; }

private:
    std::unique_ptr<Private> d;
};

// A thread that runs an IOEventLoop. The destructor stops the loop and joins the thread.
class IOEventLoopThread
{
public:
    // drainTimeoutMs: on destruction, how long work already posted may go on running before
    // the loop is stopped under it. name: the thread's name as the system shows it (the kernel
    // keeps the first 15 bytes).
    IOEventLoopThread(unsigned long drainTimeoutMs, const std::string& name);
    ~IOEventLoopThread();
    IOEventLoopThread(const IOEventLoopThread&) = delete;
    IOEventLoopThread& operator=(const IOEventLoopThread&) = delete;

    IOEventLoop& ioEventLoop();
    const std::string& name() const;

private:
    struct Private;
    std::unique_ptr<Private> d;
};

} // namespace miscUtils
