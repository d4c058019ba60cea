#pragma once

#include <httplib.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>

namespace devkit {

// The HTTP server of a devkit program that listens on 127.0.0.1 (vrax-host's control API and
// page, orvello-service): it answers only its own. A request is refused with 403 and a JSON body
// that says why when
//   - its Host is not 127.0.0.1:PORT, localhost:PORT or [::1]:PORT (a rebinding host name),
//   - it carries an Origin other than this server's own (a page of another origin),
//   - a browser says it comes from another site (Sec-Fetch-Site cross-site or same-site; a
//     top-level GET navigation, such as a link to the page, is let through),
//   - it is not a GET or HEAD and has a body that is not application/json: a POST, PUT or DELETE
//     with a Content-Type other than application/json, or with a body and no Content-Type. A
//     request without a body and without Content-Type passes (curl -X POST URL): a browser never
//     sends one across origins without an Origin header.
// The check runs as cpp-httplib's pre-routing handler; do not replace that handler.
//
// Slow clients are dropped: a request's head must be complete within headTimeout of its first
// byte, its body within bodyTimeout after the head, and a connection that sends nothing waits at
// most the keep-alive time. At most maxConnections connections are served at once; one more is
// answered 503 and closed. Threads are started as connections need them, up to maxConnections
// plus a few, so a refusal never waits behind the connections being served.
//
// Every response carries X-Content-Type-Options: nosniff and the given Content-Security-Policy.
//
// Thread contract: configure it (setOwnPort, setContentSecurityPolicy, onRefused, routes) before
// listen_after_bind; the handlers and callbacks run on the server's threads.
class LocalHttpServer : public httplib::Server
{
public:
    struct Limits
    {
        int maxConnections = 32;
        std::chrono::milliseconds headTimeout{5000};
        std::chrono::milliseconds bodyTimeout{10000};
    };
    // The JSON body of a refusal, given the reason (each program keeps its own error format).
    using ErrorBody = std::function<std::string(const std::string& reason)>;
    // One line about a refused or dropped client, for the program's log. Refusals are counted
    // rather than logged beyond a few lines a second, so a page cannot flood the log.
    using RefusalLog = std::function<void(const std::string& line)>;

    LocalHttpServer(const Limits& limits, ErrorBody errorBody);
    ~LocalHttpServer() override;

    // The port the server is bound to: the one its Host and Origin must name. Call after binding.
    void setOwnPort(int port);
    void setContentSecurityPolicy(const std::string& policy);
    void onRefused(RefusalLog log);

    // Why the request must be refused, empty when it may be answered. port is the server's own.
    static std::string refusal(const httplib::Request& request, int port);

    int openConnections() const { return m_open.load(); }

private:
    class Connection;

    // The connection served on this thread, for the pre- and post-routing handlers.
    static thread_local Connection* s_current;

    bool process_and_close_socket(socket_t sock) override;
    void refuseBusy(socket_t sock);
    void logRefusal(const std::string& line);

    const Limits m_limits;
    const ErrorBody m_errorBody;
    std::atomic<int> m_port{0};
    std::string m_contentSecurityPolicy;
    RefusalLog m_refusalLog;
    std::atomic<int> m_open{0};

    std::mutex m_logMutex;
    std::chrono::steady_clock::time_point m_logWindowStart;
    int m_loggedInWindow = 0;
    std::size_t m_notLogged = 0;
};

} // namespace devkit
