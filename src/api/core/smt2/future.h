#pragma once

#include <condition_variable>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <type_traits>
#include <utility>
#include <vector>

namespace smt2 {

template <typename T>
class Future;
template <typename T>
class Promise;

namespace detail {
struct Unit
{
};

template <typename T>
struct FutureState
{
    using Stored = std::conditional_t<std::is_void_v<T>, Unit, T>;
    std::mutex mutex;
    std::condition_variable ready;
    std::optional<Stored> value;
    std::exception_ptr exception;
    bool claimed = false;
    bool done = false;
    std::vector<std::function<void()>> continuations;

    void complete()
    {
        std::vector<std::function<void()>> run;
        {
            std::lock_guard<std::mutex> lock(mutex);
            done = true;
            run.swap(continuations);
        }
        ready.notify_all();
        for (auto& c : run)
            c();
    }
};
} // namespace detail

// A shared handle to an asynchronous result: a value of T or an exception. Copies share the
// result. The result's own lock makes completion, isReady(), get() and then() safe from any
// thread; one Future object itself must not be assigned on one thread while used on another.
template <typename T>
class Future
{
public:
    Future() = default;

    // True when the handle refers to a result (it is not default-constructed or released).
    bool valid() const { return bool(m_state); }
    // Completed, with a value or an exception. Never waits. False for an empty handle.
    bool isReady() const
    {
        if (!m_state)
            return false;
        std::lock_guard<std::mutex> lock(m_state->mutex);
        return m_state->done;
    }
    // Waits for the result; rethrows a stored exception. Throws std::logic_error on an empty handle.
    T get() const
    {
        wait();
        if (m_state->exception)
            std::rethrow_exception(m_state->exception);
        if constexpr (!std::is_void_v<T>)
            return *m_state->value;
    }
    void wait() const
    {
        if (!m_state)
            throw std::logic_error("smt2::Future: no result");
        std::unique_lock<std::mutex> lock(m_state->mutex);
        m_state->ready.wait(lock, [this] { return m_state->done; });
    }
    void reset() { m_state.reset(); }

    // Attaches a continuation that gets this future once it is complete: at once on the calling
    // thread when it already is, otherwise on the thread that completes it. What the
    // continuation returns, or throws, becomes the result of the returned future.
    template <typename F>
    auto then(F&& continuation) -> Future<std::invoke_result_t<F, Future<T>>>
    {
        using R = std::invoke_result_t<F, Future<T>>;
        if (!m_state)
            throw std::logic_error("smt2::Future: no result");
        Promise<R> promise;
        Future<R> result = promise.future();
        auto run = [self = *this, promise, fn = std::forward<F>(continuation)]() mutable {
            try {
                if constexpr (std::is_void_v<R>) {
                    fn(self);
                    promise.setValue();
                } else {
                    promise.setValue(fn(self));
                }
            } catch (...) {
                promise.setException(std::current_exception());
            }
        };
        {
            std::unique_lock<std::mutex> lock(m_state->mutex);
            if (!m_state->done) {
                m_state->continuations.emplace_back(std::move(run));
                return result;
            }
        }
        run();
        return result;
    }

    // A future that is already complete.
    template <typename U = T, typename = std::enable_if_t<!std::is_void_v<U>>>
    static Future ready(U value)
    {
        Promise<T> p;
        p.setValue(std::move(value));
        return p.future();
    }

private:
    friend class Promise<T>;
    explicit Future(std::shared_ptr<detail::FutureState<T>> state) : m_state(std::move(state)) {}
    std::shared_ptr<detail::FutureState<T>> m_state;
};

// The producing side. Completing twice is a programming error and is ignored after the first.
template <typename T>
class Promise
{
public:
    Promise() : m_state(std::make_shared<detail::FutureState<T>>()) {}

    Future<T> future() const { return Future<T>(m_state); }

    template <typename U = T, typename = std::enable_if_t<!std::is_void_v<U>>>
    void setValue(U value)
    {
        if (claim())
            m_state->value.emplace(std::move(value)), m_state->complete();
    }
    template <typename U = T, typename = std::enable_if_t<std::is_void_v<U>>>
    void setValue()
    {
        if (claim())
            m_state->value.emplace(), m_state->complete();
    }
    void setException(std::exception_ptr exception)
    {
        if (claim())
            m_state->exception = std::move(exception), m_state->complete();
    }

private:
    // The value is written before complete() publishes it under the lock; claiming first keeps
    // a second completion from touching the stored value.
    bool claim()
    {
        std::lock_guard<std::mutex> lock(m_state->mutex);
        if (m_state->done || m_state->claimed)
            return false;
        m_state->claimed = true;
        return true;
    }
    std::shared_ptr<detail::FutureState<T>> m_state;
};

} // namespace smt2
