#include "ioeventloop_p.h"

#include <asio/post.hpp>

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>

namespace miscUtils {

IOEventLoop::IOEventLoop() : d(std::make_unique<Private>()) {}

IOEventLoop::~IOEventLoop() = default;

void IOEventLoop::post(std::function<void()> work)
{
    asio::post(d->context, std::move(work));
}

bool IOEventLoop::runSync(std::function<void()> work)
{
    if (isLoopThread()) {
        work();
        return true;
    }
    if (d->context.stopped())
        return false;
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> finished = done->get_future();
    asio::post(d->context, [done, work = std::move(work)] {
        work();
        done->set_value();
    });
    done.reset();
    try {
        finished.get();
        return true;
    } catch (const std::future_error&) {
        return false; // the loop went away with the work unrun
    }
}

bool IOEventLoop::isLoopThread() const
{
    return d->loopThread.load() == std::this_thread::get_id();
}

void IOEventLoop::run()
{
    d->loopThread = std::this_thread::get_id();
    d->context.run();
    d->loopThread = std::thread::id();
}

void IOEventLoop::stop()
{
    d->context.stop();
}

bool IOEventLoop::stopped() const
{
    return d->context.stopped();
}

struct IOEventLoopThread::Private
{
    std::string name;
    unsigned long drainTimeoutMs = 0;
    std::unique_ptr<IOEventLoop> loop = std::make_unique<IOEventLoop>();
    std::mutex mutex;
    std::condition_variable finishedChanged;
    bool finished = false;
    std::thread thread;
};

IOEventLoopThread::IOEventLoopThread(unsigned long drainTimeoutMs, const std::string& name)
    : d(std::make_unique<Private>())
{
    d->name = name;
    d->drainTimeoutMs = drainTimeoutMs;
    Private* p = d.get();
    d->thread = std::thread([p] {
        p->loop->run();
        std::lock_guard<std::mutex> lock(p->mutex);
        p->finished = true;
        p->finishedChanged.notify_all();
    });
    // Named from here, so the name is there once the constructor returns.
    pthread_setname_np(d->thread.native_handle(), name.substr(0, 15).c_str());
}

IOEventLoopThread::~IOEventLoopThread()
{
    // Without the work guard the loop ends once nothing is pending; open sockets keep it
    // going, so after the drain time it is stopped under them.
    d->loop->post([p = d.get()] { p->loop->impl().work.reset(); });
    {
        std::unique_lock<std::mutex> lock(d->mutex);
        d->finishedChanged.wait_for(lock, std::chrono::milliseconds(d->drainTimeoutMs), [this] { return d->finished; });
    }
    d->loop->stop();
    d->thread.join();
    // Work still queued is destroyed here, which releases whoever waits in runSync().
    d->loop.reset();
}

IOEventLoop& IOEventLoopThread::ioEventLoop()
{
    return *d->loop;
}

const std::string& IOEventLoopThread::name() const
{
    return d->name;
}

} // namespace miscUtils
