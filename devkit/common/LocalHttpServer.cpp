#include "LocalHttpServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <system_error>
#include <thread>
#include <vector>

namespace devkit {

namespace {

using Clock = std::chrono::steady_clock;

// A blocked read or write looks this often whether the server is stopping.
constexpr auto kStopCheck = std::chrono::milliseconds(100);
// Threads beyond the connection limit: the refusals of connections over it run there.
constexpr int kSpareThreads = 4;
// Refusals logged per window; the rest are counted and the count goes with the next line.
constexpr auto kLogWindow = std::chrono::seconds(10);
constexpr int kLinesPerWindow = 10;
constexpr std::size_t kShownLength = 120;

// Starts a thread for a connection when no idle one is left, up to a limit, and keeps it for
// the next. cpp-httplib's own pool starts a fixed number at once and queues the rest behind
// the connections being served.
class OnDemandThreads : public httplib::TaskQueue
{
public:
    explicit OnDemandThreads(std::size_t maxThreads) : m_maxThreads(maxThreads) {}
    ~OnDemandThreads() override { shutdown(); }

    void enqueue(std::function<void()> job) override
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_jobs.push_back(std::move(job));
        if (m_jobs.size() > m_idle && m_threads.size() < m_maxThreads) {
            try {
                m_threads.emplace_back([this] { work(); });
            } catch (const std::system_error&) {
                // No thread to spare: the job waits for one of those running.
                if (m_threads.empty()) {
                    std::function<void()> now = std::move(m_jobs.back());
                    m_jobs.pop_back();
                    lock.unlock();
                    now();
                    return;
                }
            }
        }
        lock.unlock();
        m_wake.notify_one();
    }

    void shutdown() override
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_stopping = true;
        }
        m_wake.notify_all();
        for (std::thread& thread : m_threads)
            if (thread.joinable())
                thread.join();
    }

private:
    void work()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        for (;;) {
            ++m_idle;
            m_wake.wait(lock, [this] { return !m_jobs.empty() || m_stopping; });
            --m_idle;
            if (m_jobs.empty())
                return;
            std::function<void()> job = std::move(m_jobs.front());
            m_jobs.pop_front();
            lock.unlock();
            job();
            lock.lock();
        }
    }

    const std::size_t m_maxThreads;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<std::function<void()>> m_jobs;
    std::vector<std::thread> m_threads;
    std::size_t m_idle = 0;
    bool m_stopping = false;
};

std::string lower(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    return text;
}

std::string trimmed(const std::string& text)
{
    const std::size_t begin = text.find_first_not_of(" \t");
    if (begin == std::string::npos)
        return {};
    return text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

// Text from the request as it may go into a log line or a JSON answer: control characters and
// bytes beyond ASCII escaped, and cut short.
std::string shown(const std::string& text)
{
    std::string out;
    for (unsigned char c : text.substr(0, kShownLength)) {
        if (c >= 0x20 && c < 0x7f && c != '\\') {
            out += char(c);
        } else {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02x", c);
            out += escaped;
        }
    }
    if (text.size() > kShownLength)
        out += "...";
    return out;
}

bool isOwnAuthority(const std::string& authority, int port)
{
    const std::string suffix = ":" + std::to_string(port);
    const std::string value = lower(authority);
    for (const char* host : {"127.0.0.1", "localhost", "[::1]"}) {
        if (value == host + suffix || (port == 80 && value == host))
            return true;
    }
    return false;
}

bool isOwnOrigin(const std::string& origin, int port)
{
    const std::string prefix = "http://";
    return lower(origin).rfind(prefix, 0) == 0 && isOwnAuthority(origin.substr(prefix.size()), port);
}

std::string ownAddresses(int port)
{
    const std::string p = std::to_string(port);
    return "127.0.0.1:" + p + ", localhost:" + p + " or [::1]:" + p;
}

bool hasBody(const httplib::Request& request)
{
    if (request.has_header("Transfer-Encoding"))
        return true;
    const std::string length = trimmed(request.get_header_value("Content-Length"));
    return !length.empty() && length.find_first_not_of('0') != std::string::npos;
}

std::string address(const sockaddr_storage& storage, int* port)
{
    char text[INET6_ADDRSTRLEN] = {};
    if (storage.ss_family == AF_INET) {
        const auto& in = reinterpret_cast<const sockaddr_in&>(storage);
        inet_ntop(AF_INET, &in.sin_addr, text, sizeof text);
        *port = ntohs(in.sin_port);
    } else if (storage.ss_family == AF_INET6) {
        const auto& in6 = reinterpret_cast<const sockaddr_in6&>(storage);
        inet_ntop(AF_INET6, &in6.sin6_addr, text, sizeof text);
        *port = ntohs(in6.sin6_port);
    }
    return text;
}

} // namespace

// One accepted connection as cpp-httplib reads and writes it, with the deadlines of the request
// under way. Reads wait until the earlier of the server's read timeout and the request's
// deadline, so a client cannot stretch its head over minutes by sending a byte now and then.
class LocalHttpServer::Connection : public httplib::Stream
{
public:
    Connection(socket_t sock, const std::atomic<socket_t>& listening, std::chrono::microseconds readTimeout,
               std::chrono::microseconds writeTimeout)
        : m_sock(sock), m_listening(listening), m_readTimeout(readTimeout), m_writeTimeout(writeTimeout)
    {
        sockaddr_storage storage{};
        socklen_t length = sizeof storage;
        if (getpeername(sock, reinterpret_cast<sockaddr*>(&storage), &length) == 0)
            m_remoteIp = address(storage, &m_remotePort);
        length = sizeof storage;
        if (getsockname(sock, reinterpret_cast<sockaddr*>(&storage), &length) == 0)
            m_localIp = address(storage, &m_localPort);
    }

    bool is_readable() const override { return m_begin < m_end || waitFor(POLLIN, readUntil()); }

    bool is_writable() const override { return waitFor(POLLOUT, Clock::now() + m_writeTimeout) && isAlive(); }

    ssize_t read(char* ptr, size_t size) override
    {
        if (m_begin == m_end) {
            if (!waitFor(POLLIN, readUntil())) {
                m_overdue = Clock::now() >= m_deadline;
                return -1;
            }
            if (size >= sizeof m_buffer)
                return receive(ptr, size);
            const ssize_t got = receive(m_buffer, sizeof m_buffer);
            if (got <= 0)
                return got;
            m_begin = 0;
            m_end = std::size_t(got);
        }
        const std::size_t n = std::min(size, m_end - m_begin);
        std::memcpy(ptr, m_buffer + m_begin, n);
        m_begin += n;
        return ssize_t(n);
    }

    ssize_t write(const char* ptr, size_t size) override
    {
        if (!is_writable())
            return -1;
        ssize_t sent;
        do {
            sent = ::send(m_sock, ptr, size, MSG_NOSIGNAL);
        } while (sent < 0 && errno == EINTR);
        return sent;
    }

    void get_remote_ip_and_port(std::string& ip, int& port) const override
    {
        ip = m_remoteIp;
        port = m_remotePort;
    }

    void get_local_ip_and_port(std::string& ip, int& port) const override
    {
        ip = m_localIp;
        port = m_localPort;
    }

    socket_t socket() const override { return m_sock; }

    // Waits up to wait for the first byte of the next request; false when none comes, the
    // client went away or the server stops.
    bool waitForRequest(std::chrono::milliseconds wait) const
    {
        return m_begin < m_end || waitFor(POLLIN, Clock::now() + wait);
    }
    void beginRequest(Clock::time_point headDeadline)
    {
        m_deadline = headDeadline;
        m_overdue = false;
        m_headReceived = false;
    }
    void headReceived(Clock::time_point bodyDeadline)
    {
        m_deadline = bodyDeadline;
        m_headReceived = true;
    }
    bool overdue() const { return m_overdue; }
    bool headWasReceived() const { return m_headReceived; }
    std::string peer() const { return m_remoteIp + ":" + std::to_string(m_remotePort); }

    bool refused = false; // answered 403: the connection closes after the answer

private:
    Clock::time_point readUntil() const { return std::min(Clock::now() + m_readTimeout, m_deadline); }

    // Polls in short slices, so a server that stops is not kept waiting by a client.
    bool waitFor(short events, Clock::time_point until) const
    {
        for (;;) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now());
            if (left.count() <= 0 || m_listening.load() == INVALID_SOCKET)
                return false;
            pollfd fd{m_sock, events, 0};
            const int ready = ::poll(&fd, 1, int(std::min(left, kStopCheck).count()) + 1);
            if (ready > 0)
                return true;
            if (ready < 0 && errno != EINTR)
                return false;
        }
    }

    // A peer that closed its end shows as readable with nothing to read.
    bool isAlive() const
    {
        pollfd fd{m_sock, POLLIN, 0};
        if (::poll(&fd, 1, 0) <= 0)
            return true;
        char byte;
        return ::recv(m_sock, &byte, 1, MSG_PEEK | MSG_DONTWAIT) > 0;
    }

    ssize_t receive(char* into, std::size_t size)
    {
        ssize_t got;
        do {
            got = ::recv(m_sock, into, size, 0);
        } while (got < 0 && errno == EINTR);
        return got;
    }

    const socket_t m_sock;
    const std::atomic<socket_t>& m_listening;
    const std::chrono::microseconds m_readTimeout;
    const std::chrono::microseconds m_writeTimeout;
    Clock::time_point m_deadline = Clock::time_point::max();
    bool m_overdue = false;
    bool m_headReceived = false;
    char m_buffer[4096];
    std::size_t m_begin = 0;
    std::size_t m_end = 0;
    std::string m_remoteIp;
    int m_remotePort = 0;
    std::string m_localIp;
    int m_localPort = 0;
};

thread_local LocalHttpServer::Connection* LocalHttpServer::s_current = nullptr;

LocalHttpServer::LocalHttpServer(const Limits& limits, ErrorBody errorBody)
    : m_limits(limits), m_errorBody(std::move(errorBody)), m_logWindowStart(Clock::now())
{
    const std::size_t threads = std::size_t(std::max(1, m_limits.maxConnections) + kSpareThreads);
    new_task_queue = [threads] { return new OnDemandThreads(threads); };
    set_pre_routing_handler([this](const httplib::Request& request, httplib::Response& response) {
        const std::string why = refusal(request, m_port.load());
        if (why.empty())
            return HandlerResponse::Unhandled;
        response.status = 403;
        response.set_content(m_errorBody(why), "application/json");
        if (s_current)
            s_current->refused = true;
        logRefusal("Refused " + shown(request.method) + " " + shown(request.path) + " from " + request.remote_addr + ":"
                   + std::to_string(request.remote_port) + ": " + why);
        return HandlerResponse::Handled;
    });
    set_post_routing_handler([this](const httplib::Request&, httplib::Response& response) {
        response.set_header("X-Content-Type-Options", "nosniff");
        if (!m_contentSecurityPolicy.empty())
            response.set_header("Content-Security-Policy", m_contentSecurityPolicy);
        if (s_current && s_current->refused) {
            response.headers.erase("Keep-Alive");
            response.headers.erase("Connection");
            response.set_header("Connection", "close");
        }
    });
}

LocalHttpServer::~LocalHttpServer() = default;

void LocalHttpServer::setOwnPort(int port)
{
    m_port = port;
}

void LocalHttpServer::setContentSecurityPolicy(const std::string& policy)
{
    m_contentSecurityPolicy = policy;
}

void LocalHttpServer::onRefused(RefusalLog log)
{
    m_refusalLog = std::move(log);
}

std::string LocalHttpServer::refusal(const httplib::Request& request, int port)
{
    if (request.get_header_value_count("Host") != 1)
        return request.has_header("Host") ? "the request has more than one Host header"
                                          : "the request has no Host header; this server answers requests for "
                                                + ownAddresses(port) + " only";
    const std::string host = request.get_header_value("Host");
    if (!isOwnAuthority(host, port))
        return "the Host header \"" + shown(host) + "\" is not this server's address (" + ownAddresses(port) + ")";
    if (request.get_header_value_count("Origin") > 1)
        return "the request has more than one Origin header";
    if (request.has_header("Origin")) {
        const std::string origin = request.get_header_value("Origin");
        if (!isOwnOrigin(origin, port))
            return "requests from pages of \"" + shown(origin) + "\" are not accepted; only this server's own pages (http://"
                   + ownAddresses(port) + ") may send them";
    }
    const std::string site = lower(request.get_header_value("Sec-Fetch-Site"));
    const bool navigation = request.method == "GET" && lower(request.get_header_value("Sec-Fetch-Mode")) == "navigate"
                            && lower(request.get_header_value("Sec-Fetch-Dest")) == "document";
    if ((site == "cross-site" || site == "same-site") && !navigation)
        return "the browser says this request comes from another site (Sec-Fetch-Site: " + site
               + "); only this server's own pages may send it";
    if (request.method == "GET" || request.method == "HEAD")
        return {};
    if (request.has_header("Content-Type")) {
        const std::string type = request.get_header_value("Content-Type");
        const std::string mediaType = lower(trimmed(type.substr(0, type.find(';'))));
        if (mediaType != "application/json")
            return "a " + shown(request.method) + " body must be application/json, not \"" + shown(type) + "\"";
    } else if (hasBody(request)) {
        return "a " + shown(request.method) + " body must be sent as application/json, and this one has no Content-Type";
    }
    return {};
}

bool LocalHttpServer::process_and_close_socket(socket_t sock)
{
    bool ret = false;
    if (m_open.fetch_add(1) >= m_limits.maxConnections) {
        refuseBusy(sock);
    } else {
        Connection connection(sock, svr_sock_, std::chrono::seconds(read_timeout_sec_) + std::chrono::microseconds(read_timeout_usec_),
                              std::chrono::seconds(write_timeout_sec_) + std::chrono::microseconds(write_timeout_usec_));
        s_current = &connection;
        const std::chrono::milliseconds keepAlive = std::chrono::seconds(keep_alive_timeout_sec_);
        for (std::size_t left = keep_alive_max_count_; left > 0 && connection.waitForRequest(keepAlive); --left) {
            connection.beginRequest(Clock::now() + m_limits.headTimeout);
            bool closed = false;
            ret = process_request(connection, left == 1, closed, [this, &connection](httplib::Request&) {
                connection.headReceived(Clock::now() + m_limits.bodyTimeout);
            });
            if (connection.overdue()) {
                const bool head = !connection.headWasReceived();
                const auto limit = head ? m_limits.headTimeout : m_limits.bodyTimeout;
                logRefusal("Dropped " + connection.peer() + ": its request " + (head ? "head" : "body")
                           + " was not complete within " + std::to_string(limit.count()) + " ms");
                break;
            }
            if (!ret || closed || connection.refused)
                break;
        }
        s_current = nullptr;
    }
    ::shutdown(sock, SHUT_RDWR);
    ::close(sock);
    m_open.fetch_sub(1);
    return ret;
}

void LocalHttpServer::refuseBusy(socket_t sock)
{
    const std::string why = "too many connections (at most " + std::to_string(m_limits.maxConnections) + "); try again";
    const std::string body = m_errorBody(why);
    const std::string answer = "HTTP/1.1 503 Service Unavailable\r\nContent-Type: application/json\r\nContent-Length: "
                               + std::to_string(body.size())
                               + "\r\nConnection: close\r\nX-Content-Type-Options: nosniff\r\n\r\n" + body;
    // Whatever the client sent is read first: closing with unread data resets the connection,
    // and the client may lose the answer.
    char scratch[4096];
    for (int i = 0; i < 16 && ::recv(sock, scratch, sizeof scratch, MSG_DONTWAIT) > 0; ++i) {
    }
    [[maybe_unused]] const ssize_t sent = ::send(sock, answer.data(), answer.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    int peer = 0;
    sockaddr_storage storage{};
    socklen_t length = sizeof storage;
    const std::string from = getpeername(sock, reinterpret_cast<sockaddr*>(&storage), &length) == 0
                                 ? address(storage, &peer) + ":" + std::to_string(peer)
                                 : std::string("a client");
    logRefusal("Refused " + from + ": " + why);
}

void LocalHttpServer::logRefusal(const std::string& line)
{
    if (!m_refusalLog)
        return;
    std::string text;
    {
        std::lock_guard<std::mutex> lock(m_logMutex);
        const Clock::time_point now = Clock::now();
        if (now - m_logWindowStart >= kLogWindow) {
            m_logWindowStart = now;
            m_loggedInWindow = 0;
        }
        if (m_loggedInWindow >= kLinesPerWindow) {
            ++m_notLogged;
            return;
        }
        ++m_loggedInWindow;
        text = line;
        if (m_notLogged > 0)
            text += " (" + std::to_string(m_notLogged) + " earlier refusals not logged)";
        m_notLogged = 0;
    }
    m_refusalLog(text);
}

} // namespace devkit
