#include "http/httpclient.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPointer>
#include <QSslError>
#include <QStringList>
#include <QTimer>

namespace {
// Qt stops reading from the socket when this much is buffered, so a body is never queued
// whole inside the reply; every readyRead takes what is there.
constexpr qint64 kReplyBufferBytes = 64 * 1024;

bool isTransportError(QNetworkReply::NetworkError error)
{
    return error != QNetworkReply::NoError && error < QNetworkReply::ProxyConnectionRefusedError;
}

// What a certificate problem means to the person reading the log.
QString tlsProblemName(QSslError::SslError error)
{
    switch (error) {
    case QSslError::UnableToGetIssuerCertificate:
    case QSslError::UnableToGetLocalIssuerCertificate:
    case QSslError::UnableToVerifyFirstCertificate:
    case QSslError::SelfSignedCertificate:
    case QSslError::SelfSignedCertificateInChain:
    case QSslError::CertificateUntrusted:
        return QStringLiteral("unknown authority");
    case QSslError::HostNameMismatch:
        return QStringLiteral("wrong host name");
    case QSslError::CertificateExpired:
        return QStringLiteral("expired");
    case QSslError::CertificateNotYetValid:
        return QStringLiteral("not yet valid");
    case QSslError::CertificateRevoked:
    case QSslError::CertificateBlacklisted:
        return QStringLiteral("revoked");
    default:
        return QStringLiteral("certificate refused");
    }
}

// "TLS error: " and each problem, named and then in the TLS library's words.
QString tlsErrorText(const QList<QSslError>& errors, const QString& fallback)
{
    QStringList problems;
    for (const QSslError& error : errors)
        problems << QStringLiteral("%1 (%2)").arg(tlsProblemName(error.error()), error.errorString());
    if (problems.isEmpty())
        problems << fallback;
    return QStringLiteral("TLS error: ") + problems.join(QStringLiteral("; "));
}
} // namespace

void HttpClientHeaders::insert(const QString& name, const QString& value)
{
    m_items.append(qMakePair(name, value));
}

struct HttpClient::Request
{
    RequestId id = 0;
    HttpClientOptions options;
    Callback callback;
    QNetworkReply* reply = nullptr;
    QTimer* timer = nullptr;
    QByteArray body;
    // The certificate problems of the TLS handshake, reported when it fails.
    QList<QSslError> sslErrors;
    qint64 received = 0;
    // Content-Length of the response being read; -1 when none was announced (chunked, or a
    // body Qt decompresses, for which it drops the header).
    qint64 announced = -1;
    // The response's headers have arrived; a second set without a redirect in between means
    // Qt sent the request again by itself.
    bool headersSeen = false;
    bool ended = false;
    bool aborting = false;
};

// Counts the reply handlers on the stack: a reply must not be deleted while it is emitting.
// The handler may have destroyed the client on the way out.
class HttpClient::SignalScope
{
public:
    explicit SignalScope(HttpClient* client) : m_client(client) { ++client->m_signalDepth; }
    ~SignalScope()
    {
        if (m_client)
            --m_client->m_signalDepth;
    }
    SignalScope(const SignalScope&) = delete;
    SignalScope& operator=(const SignalScope&) = delete;

private:
    QPointer<HttpClient> m_client;
};

HttpClient::HttpClient(QObject* parent, HttpVersion version, bool followRedirects)
    : QObject(parent)
    , m_manager(new QNetworkAccessManager(this))
    , m_version(version)
    , m_followRedirects(followRedirects)
{
}

HttpClient::~HttpClient()
{
    const auto requests = std::move(m_requests);
    m_requests.clear();
    for (const auto& entry : requests) {
        Request& request = *entry.second;
        request.ended = true;
        if (request.reply) {
            disconnect(request.reply, nullptr, this, nullptr);
            request.reply->abort();
        }
    }
    if (m_signalDepth > 0) {
        // A reply is emitting below us: it and the manager that owns it must outlive this call.
        m_manager->setParent(nullptr);
        m_manager->deleteLater();
    }
}

HttpClient::RequestId HttpClient::get(const VraxUrl& url, const HttpClientOptions& options, Callback callback)
{
    auto request = std::make_shared<Request>();
    request->id = m_nextId++;
    request->options = options;
    request->callback = std::move(callback);
    m_requests.emplace(request->id, request);

    const QString scheme = url.toQUrl().scheme();
    if (url.isEmpty() || !url.isValid() || (scheme != QLatin1String("http") && scheme != QLatin1String("https"))) {
        const RequestId id = request->id;
        const QString why = QStringLiteral("Cannot request '%1': not an http or https URL").arg(url.toString());
        QMetaObject::invokeMethod(this, [this, id, why] { finish(id, HttpClientResult::NetworkError, why); },
                                  Qt::QueuedConnection);
        return request->id;
    }
    startReply(request, url);
    return request->id;
}

void HttpClient::startReply(const std::shared_ptr<Request>& request, const VraxUrl& url)
{
    QNetworkRequest networkRequest(url.toQUrl());
    QHash<QByteArray, QList<QByteArray>> values;
    QList<QByteArray> order;
    for (const auto& header : request->options.headers().items()) {
        const QByteArray name = header.first.toLatin1();
        if (!values.contains(name))
            order.append(name);
        values[name].append(header.second.toUtf8());
    }
    for (const QByteArray& name : order) {
        // Qt drops a header whose value is null; an empty value is still sent.
        QByteArray value = values.value(name).join(", ");
        if (value.isNull())
            value = QByteArray("");
        networkRequest.setRawHeader(name, value);
    }
    networkRequest.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                                m_followRedirects ? QNetworkRequest::NoLessSafeRedirectPolicy
                                                  : QNetworkRequest::ManualRedirectPolicy);
    networkRequest.setAttribute(QNetworkRequest::Http2AllowedAttribute, m_version == Http2);
    networkRequest.setAttribute(QNetworkRequest::CacheLoadControlAttribute, QNetworkRequest::AlwaysNetwork);

    QNetworkReply* reply = m_manager->get(networkRequest);
    reply->setReadBufferSize(kReplyBufferBytes);
    request->reply = reply;
    const RequestId id = request->id;
    connect(reply, &QNetworkReply::metaDataChanged, this, [this, id] { onMetaDataChanged(id); });
    connect(reply, &QNetworkReply::redirected, this, [this, id] {
        const auto it = m_requests.find(id);
        if (it != m_requests.end())
            it->second->headersSeen = false;
    });
    connect(reply, &QNetworkReply::sslErrors, this, [this, id](const QList<QSslError>& errors) {
        const auto it = m_requests.find(id);
        if (it != m_requests.end())
            it->second->sslErrors += errors;
    });
    connect(reply, &QNetworkReply::readyRead, this, [this, id] { onReadyRead(id); });
    connect(reply, &QNetworkReply::finished, this, [this, id] { onFinished(id); });

    if (request->options.timeout() > 0) {
        request->timer = new QTimer(this);
        request->timer->setSingleShot(true);
        request->timer->setInterval(request->options.timeout());
        const QString why = QStringLiteral("Nothing received for %1 ms").arg(request->options.timeout());
        connect(request->timer, &QTimer::timeout, this, [this, id, why] { finish(id, HttpClientResult::Timeout, why); });
        request->timer->start();
    }
}

void HttpClient::abort(RequestId id)
{
    const auto it = m_requests.find(id);
    if (it == m_requests.end() || it->second->aborting)
        return;
    Request& request = *it->second;
    request.aborting = true;
    if (request.timer)
        request.timer->stop();
    if (request.reply) {
        disconnect(request.reply, nullptr, this, nullptr);
        request.reply->abort();
    }
    QMetaObject::invokeMethod(this, [this, id] { finish(id, HttpClientResult::Aborted, QStringLiteral("Aborted")); },
                              Qt::QueuedConnection);
}

void HttpClient::onMetaDataChanged(RequestId id)
{
    SignalScope scope(this);
    const auto it = m_requests.find(id);
    if (it == m_requests.end())
        return;
    Request& request = *it->second;
    // QNetworkAccessManager re-sends a request whose connection closes at some points of a
    // read, and may then hand on a second response, or half of one as if it were whole.
    if (request.headersSeen) {
        finish(id, HttpClientResult::NetworkError,
               QStringLiteral("The request was sent again after %1 bytes of its response had arrived").arg(request.received));
        return;
    }
    request.headersSeen = true;
    const QVariant length = request.reply->header(QNetworkRequest::ContentLengthHeader);
    request.announced = length.isValid() ? length.toLongLong() : -1;
    const int limit = request.options.readSizeLimit();
    if (limit > 0 && request.announced > limit)
        finish(id, HttpClientResult::SizeLimitExceeded,
               QStringLiteral("Body of %1 bytes exceeds the limit of %2").arg(request.announced).arg(limit));
}

void HttpClient::onReadyRead(RequestId id)
{
    SignalScope scope(this);
    const auto it = m_requests.find(id);
    if (it == m_requests.end())
        return;
    const std::shared_ptr<Request> request = it->second;
    if (request->timer)
        request->timer->start();
    const int limit = request->options.readSizeLimit();
    while (!request->ended && !request->aborting && request->reply->bytesAvailable() > 0) {
        const QByteArray piece = request->reply->read(kReplyBufferBytes);
        if (piece.isEmpty())
            break;
        request->received += piece.size();
        if (limit > 0 && request->received > limit) {
            finish(id, HttpClientResult::SizeLimitExceeded,
                   QStringLiteral("Body exceeds the limit of %1 bytes").arg(limit));
            return;
        }
        if (request->announced >= 0 && request->received > request->announced) {
            finish(id, HttpClientResult::NetworkError,
                   QStringLiteral("Received more than the %1 bytes announced").arg(request->announced));
            return;
        }
        if (!request->options.immediateRead()) {
            request->body.append(piece);
            continue;
        }
        const int code = request->reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        if (!deliver(request, HttpClientResult(HttpClientResult::DataAvailable, code, piece)))
            return;
    }
}

void HttpClient::onFinished(RequestId id)
{
    {
        QPointer<HttpClient> alive(this);
        onReadyRead(id);
        if (!alive)
            return;
    }
    SignalScope scope(this);
    const auto it = m_requests.find(id);
    if (it == m_requests.end())
        return;
    const Request& request = *it->second;
    const QNetworkReply* reply = request.reply;
    const QNetworkReply::NetworkError error = reply->error();
    const bool hasResponse = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).isValid();
    if (isTransportError(error) || (error != QNetworkReply::NoError && !hasResponse)) {
        const HttpClientResult::State state = error == QNetworkReply::TimeoutError ? HttpClientResult::Timeout
                                                                                   : HttpClientResult::NetworkError;
        QString why = reply->errorString();
        if (error == QNetworkReply::SslHandshakeFailedError || !request.sslErrors.isEmpty())
            why = tlsErrorText(request.sslErrors, why);
        else if (error == QNetworkReply::InsecureRedirectError)
            why = QStringLiteral("Refused the redirect to %1: an https request is never followed to plain http")
                      .arg(reply->url().toString());
        finish(id, state, why);
        return;
    }
    // Qt reports a body cut short as complete when it sees the close before it reads.
    if (request.announced >= 0 && request.received != request.announced) {
        finish(id, HttpClientResult::NetworkError,
               QStringLiteral("The body ended after %1 of the %2 bytes announced").arg(request.received).arg(request.announced));
        return;
    }
    finish(id, HttpClientResult::Complete, QString());
}

void HttpClient::finish(RequestId id, HttpClientResult::State state, const QString& errorString)
{
    const auto it = m_requests.find(id);
    if (it == m_requests.end())
        return;
    const std::shared_ptr<Request> request = it->second;
    const int code = request->reply ? request->reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt() : 0;
    const bool withBody = state == HttpClientResult::Complete && !request->options.immediateRead();
    const QByteArray output = withBody ? std::move(request->body) : QByteArray();
    discard(request);
    deliver(request, HttpClientResult(state, code, output, errorString));
}

bool HttpClient::deliver(const std::shared_ptr<Request>& request, const HttpClientResult& result)
{
    const std::shared_ptr<Request> keep = request;
    QPointer<HttpClient> alive(this);
    keep->callback(result);
    return !alive.isNull();
}

void HttpClient::discard(const std::shared_ptr<Request>& request)
{
    request->ended = true;
    m_requests.erase(request->id);
    if (request->timer) {
        request->timer->stop();
        request->timer->deleteLater();
        request->timer = nullptr;
    }
    if (request->reply) {
        disconnect(request->reply, nullptr, this, nullptr);
        if (request->reply->isRunning())
            request->reply->abort();
        request->reply->deleteLater();
        request->reply = nullptr;
    }
}
