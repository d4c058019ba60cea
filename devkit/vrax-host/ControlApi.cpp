#include "ControlApi.h"

#include <httplib.h>

#include <QCoreApplication>
#include <QJsonDocument>
#include <QThread>

#include <chrono>

#include <netinet/in.h>
#include <sys/socket.h>

namespace {
// A request that the platform leaves unanswered this long gets 504.
constexpr auto kAnswerTimeout = std::chrono::seconds(30);
} // namespace

void ControlApi::Response::send(int status, const QJsonObject& body)
{
    if (m_answered.exchange(true))
        return;
    m_promise.set_value({status, QJsonDocument(body).toJson(QJsonDocument::Compact)});
}

void ControlApi::Response::error(int status, const QString& message)
{
    send(status, QJsonObject{{QStringLiteral("ok"), false}, {QStringLiteral("error"), message}});
}

ControlApi::ControlApi(QObject* context) : m_context(context), m_server(std::make_unique<httplib::Server>())
{
    // One listener per port: without SO_REUSEPORT a second host on a busy port fails to bind.
    m_server->set_socket_options([](int sock) {
        int yes = 1;
        setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
    });
}

ControlApi::~ControlApi()
{
    stop();
}

void ControlApi::get(const char* pattern, Handler handler)
{
    route(false, pattern, std::move(handler));
}

void ControlApi::post(const char* pattern, Handler handler)
{
    route(true, pattern, std::move(handler));
}

void ControlApi::route(bool post, const char* pattern, Handler handler)
{
    auto serve = [this, handler](const httplib::Request& httpRequest, httplib::Response& httpResponse) {
        Request request;
        for (const auto& [key, value] : httpRequest.params)
            request.query.insert(QString::fromStdString(key), QString::fromStdString(value));
        if (httpRequest.matches.size() > 1)
            request.match = QString::fromStdString(httpRequest.matches[1].str());
        auto response = std::make_shared<Response>();
        std::future<std::pair<int, QByteArray>> answer = response->m_promise.get_future();
        if (httpRequest.method == "POST" && !httpRequest.body.empty()) {
            QJsonParseError parseError;
            const QJsonDocument doc = QJsonDocument::fromJson(QByteArray::fromStdString(httpRequest.body), &parseError);
            if (!doc.isObject()) {
                response->error(400, QStringLiteral("the body must be a JSON object"));
            } else {
                request.body = doc.object();
            }
        }
        if (!response->m_answered) {
            QMetaObject::invokeMethod(m_context, [handler, request, response] { handler(request, response); },
                                      Qt::QueuedConnection);
        }
        if (answer.wait_for(kAnswerTimeout) != std::future_status::ready) {
            response->error(504, QStringLiteral("the device did not answer in time"));
        }
        const auto [status, body] = answer.get();
        httpResponse.status = status;
        httpResponse.set_content(body.toStdString(), "application/json");
    };
    if (post)
        m_server->Post(pattern, serve);
    else
        m_server->Get(pattern, serve);
}

bool ControlApi::listen(int port, QString* error)
{
    if (port == 0) {
        m_port = m_server->bind_to_any_port("127.0.0.1");
        if (m_port < 0) {
            *error = QStringLiteral("cannot bind the control API to a free port on 127.0.0.1");
            return false;
        }
    } else {
        if (!m_server->bind_to_port("127.0.0.1", port)) {
            *error = QStringLiteral("cannot listen on 127.0.0.1:%1 (the port is in use or not allowed)").arg(port);
            return false;
        }
        m_port = port;
    }
    m_serving = true;
    m_thread = std::thread([this] {
        m_server->listen_after_bind();
        m_serving = false;
    });
    return true;
}

void ControlApi::stop()
{
    if (!m_thread.joinable())
        return;
    // stop() only takes effect once the server runs; the thread may not have got that far.
    while (m_serving && !m_server->is_running())
        QThread::msleep(1);
    m_server->stop();
    while (m_serving)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    m_thread.join();
}
