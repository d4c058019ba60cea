#pragma once

#include "vrax/vraxurl.h"

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QPair>
#include <QString>

#include <functional>
#include <map>
#include <memory>

class QNetworkAccessManager;

// Request headers, sent in the order they were inserted. Inserting a name again adds its
// value to that header (joined with ", ", as HTTP allows); nothing is replaced.
class HttpClientHeaders
{
public:
    HttpClientHeaders() = default;

    void insert(const QString& name, const QString& value);
    const QList<QPair<QString, QString>>& items() const { return m_items; }
    bool isEmpty() const { return m_items.isEmpty(); }
    int size() const { return m_items.size(); }

private:
    QList<QPair<QString, QString>> m_items;
};

// How one request is made and how its body is handed over.
class HttpClientOptions
{
public:
    HttpClientOptions() = default;

    void setHeaders(const HttpClientHeaders& headers) { m_headers = headers; }
    const HttpClientHeaders& headers() const { return m_headers; }

    // Largest body, in bytes, that the client accepts; 0 (the default) accepts any size.
    // A larger body is refused as soon as it is known to be larger (from Content-Length, or
    // by counting when there is none): the transfer is aborted and ends in
    // HttpClientResult::SizeLimitExceeded. A negative limit counts as 0.
    void setReadSizeLimit(int bytes) { m_readSizeLimit = bytes < 0 ? 0 : bytes; }
    int readSizeLimit() const { return m_readSizeLimit; }

    // Off (the default): the callback is called once, with the whole body. On: each piece of
    // the body goes to the callback as it arrives (DataAvailable), and the completion follows
    // with an empty output; the client keeps no more than one piece in memory.
    void setImmediateRead(bool immediate) { m_immediateRead = immediate; }
    bool immediateRead() const { return m_immediateRead; }

    // Longest time, in milliseconds, that the transfer may go without receiving anything
    // (connecting included) before it ends in HttpClientResult::Timeout. 0 waits forever.
    void setTimeout(int milliseconds) { m_timeoutMs = milliseconds < 0 ? 0 : milliseconds; }
    int timeout() const { return m_timeoutMs; }

    static constexpr int DefaultTimeoutMs = 30000;

private:
    HttpClientHeaders m_headers;
    int m_readSizeLimit = 0;
    bool m_immediateRead = false;
    int m_timeoutMs = DefaultTimeoutMs;
};

// What a callback receives. The state says how far the transfer got; the HTTP status is the
// server's (0 when no response header arrived). A response with any status is a completed
// transfer: a 404 page ends in Complete with httpCode() 404.
class HttpClientResult
{
public:
    enum State {
        Complete = 0,          // the whole body arrived (output: the body, or empty with immediate read)
        NetworkError = 1,      // no connection, TLS failure, or the connection broke mid-body
        Timeout = 2,           // nothing arrived within the request's timeout
        SizeLimitExceeded = 3, // the body is larger than the read size limit
        Aborted = 4,           // cancelled through HttpClient::abort
        DataAvailable = 5,     // immediate read: output is the next piece of the body
    };

    HttpClientResult() = default;
    HttpClientResult(State state, int httpCode, const QByteArray& output, const QString& errorString = QString())
        : m_state(state), m_httpCode(httpCode), m_output(output), m_errorString(errorString)
    {
    }

    State state() const { return m_state; }
    int httpCode() const { return m_httpCode; }
    const QByteArray& output() const { return m_output; }
    // Why a transfer failed, for log lines; empty otherwise. A failed TLS handshake reads
    // "TLS error: " and then each problem with the certificate, named ("unknown authority",
    // "wrong host name", "expired", "not yet valid", "revoked" or "certificate refused") and
    // in the TLS library's words in parentheses, joined by "; ". A redirect from https to
    // plain http is refused and said so, with its target.
    const QString& errorString() const { return m_errorString; }

    bool isFailure() const { return m_state >= NetworkError && m_state <= Aborted; }

private:
    State m_state = Complete;
    int m_httpCode = 0;
    QByteArray m_output;
    QString m_errorString;
};

// Asynchronous HTTP and HTTPS requests on the thread that owns the client. Callbacks run on
// that thread, from its event loop, never from inside get().
//
// Every request ends with exactly one call whose state is not DataAvailable, unless the client
// is destroyed first: the destructor aborts every outstanding request without calling its
// callback and destroys the callbacks (and what they captured) before it returns. A callback
// may destroy the client.
class HttpClient : public QObject
{
    Q_OBJECT
public:
    enum HttpVersion {
        Http1_1 = 0, // HTTP/1.1 only
        Http2 = 1,   // HTTP/2 where the server offers it (TLS with ALPN), HTTP/1.1 otherwise
    };

    // followRedirects: true follows redirects that do not go from https to http (the status
    // and body are the final target's); false hands a 3xx response to the callback as it is.
    HttpClient(QObject* parent, HttpVersion version, bool followRedirects);
    ~HttpClient() override;

    using Callback = std::function<void(const HttpClientResult&)>;
    using RequestId = quint64;

    // Starts a GET request and returns its id (never 0). An empty or invalid URL, or one whose
    // scheme is not http or https, ends in NetworkError, delivered from the event loop.
    RequestId get(const VraxUrl& url, const HttpClientOptions& options, Callback callback);

    // Cancels an outstanding request: its callback is called with Aborted (from the event
    // loop). Unknown or finished ids are ignored.
    void abort(RequestId id);
    // Number of requests that have not ended yet.
    int pendingCount() const { return static_cast<int>(m_requests.size()); }

private:
    struct Request;
    class SignalScope;
    void startReply(const std::shared_ptr<Request>& request, const VraxUrl& url);
    void finish(RequestId id, HttpClientResult::State state, const QString& errorString);
    void onReadyRead(RequestId id);
    void onMetaDataChanged(RequestId id);
    void onFinished(RequestId id);
    // Calls the callback; false when the client was destroyed by it.
    bool deliver(const std::shared_ptr<Request>& request, const HttpClientResult& result);
    void discard(const std::shared_ptr<Request>& request);

    QNetworkAccessManager* m_manager;
    HttpVersion m_version;
    bool m_followRedirects;
    RequestId m_nextId = 1;
    int m_signalDepth = 0;
    std::map<RequestId, std::shared_ptr<Request>> m_requests;
};
