#pragma once

// The asio side of miscUtils::IOEventLoop, for the platform libraries that drive sockets on it.
#include "miscUtils/ioeventloop.h"

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>

#include <atomic>
#include <optional>
#include <thread>

struct miscUtils::IOEventLoop::Private
{
    asio::io_context context{1};
    std::optional<asio::executor_work_guard<asio::io_context::executor_type>> work{context.get_executor()};
    std::atomic<std::thread::id> loopThread{};
};

namespace miscUtils {
inline asio::io_context& asioContext(IOEventLoop& loop)
{
    return loop.impl().context;
}
} // namespace miscUtils
