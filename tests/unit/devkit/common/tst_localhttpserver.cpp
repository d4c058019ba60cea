// The devkit's HTTP server that answers only its own: which requests it refuses and why, and
// how it drops slow clients and caps connections, with a real server on loopback.
#include "LocalHttpServer.h"

#include <QHostAddress>
#include <QTcpSocket>
#include <QTimer>
#include <QtTest>

#include <memory>
#include <mutex>
#include <thread>

namespace {

constexpr int kPort = 8321;

httplib::Request request(const std::string& method, const std::vector<std::pair<std::string, std::string>>& headers)
{
    httplib::Request r;
    r.method = method;
    r.path = "/api/value";
    for (const auto& [name, value] : headers)
        r.headers.emplace(name, value);
    return r;
}

// Writes its bytes one at a time, every 20 ms, as long as the server keeps the connection.
class Trickler
{
public:
    Trickler(int port, const QByteArray& atOnce, const QByteArray& slowly) : m_slowly(slowly)
    {
        m_socket.connectToHost(QHostAddress::LocalHost, quint16(port));
        m_socket.waitForConnected(5000);
        m_socket.write(atOnce);
        QObject::connect(&m_timer, &QTimer::timeout, [this] {
            if (m_sent < m_slowly.size() && m_socket.state() == QAbstractSocket::ConnectedState)
                m_socket.write(m_slowly.mid(m_sent++, 1));
        });
        m_timer.start(20);
    }
    bool dropped() { return m_socket.state() != QAbstractSocket::ConnectedState; }
    bool finished() const { return m_sent == m_slowly.size(); }

private:
    QTcpSocket m_socket;
    QByteArray m_slowly;
    int m_sent = 0;
    QTimer m_timer;
};

// Sends request as it is and reads until the server closes the connection.
QByteArray exchange(int port, const QByteArray& request)
{
    QTcpSocket socket;
    socket.connectToHost(QHostAddress::LocalHost, quint16(port));
    if (!socket.waitForConnected(5000))
        return {};
    socket.write(request);
    QByteArray all;
    while (socket.state() == QAbstractSocket::ConnectedState && socket.waitForReadyRead(10000))
        all += socket.readAll();
    return all + socket.readAll();
}

} // namespace

class TestLocalHttpServer : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void refusal_data();
    void refusal();
    void slowClientsAreDropped_data();
    void slowClientsAreDropped();
    void connectionsAreCapped();
    void refusalEndsTheConnection();
    void cleanup() { stopServer(); }

private:
    void startServer(int maxConnections);
    void stopServer();
    QByteArray get(const QByteArray& extraHeaders = QByteArray()) const
    {
        return "GET /x HTTP/1.1\r\nHost: 127.0.0.1:" + QByteArray::number(m_port) + "\r\n" + extraHeaders + "\r\n";
    }
    QStringList logged()
    {
        std::lock_guard<std::mutex> lock(m_logMutex);
        return m_log;
    }

    std::unique_ptr<devkit::LocalHttpServer> m_server;
    std::thread m_thread;
    int m_port = 0;
    std::mutex m_logMutex;
    QStringList m_log;
};

void TestLocalHttpServer::refusal_data()
{
    QTest::addColumn<QString>("method");
    QTest::addColumn<QStringList>("headers"); // "Name: value"
    QTest::addColumn<QString>("refused");     // the start of the reason; empty: answered
    const QString host = QStringLiteral("Host: 127.0.0.1:%1").arg(kPort);
    const QString json = QStringLiteral("Content-Type: application/json");
    const QString own = QStringLiteral("Origin: http://localhost:%1").arg(kPort);
    const QString body = QStringLiteral("Content-Length: 20");

    QTest::newRow("own address") << "GET" << QStringList{host} << QString();
    QTest::newRow("localhost in capitals") << "GET" << QStringList{QStringLiteral("Host: LOCALHOST:%1").arg(kPort)} << QString();
    QTest::newRow("IPv6 loopback") << "GET" << QStringList{QStringLiteral("Host: [::1]:%1").arg(kPort)} << QString();
    QTest::newRow("rebinding host name") << "GET" << QStringList{QStringLiteral("Host: rebind.attacker.example:%1").arg(kPort)}
                                         << "the Host header \"rebind.attacker.example:8321\" is not this server's address";
    QTest::newRow("no port") << "GET" << QStringList{"Host: 127.0.0.1"} << "the Host header \"127.0.0.1\" is not";
    QTest::newRow("another port") << "GET" << QStringList{"Host: 127.0.0.1:8322"} << "the Host header \"127.0.0.1:8322\"";
    QTest::newRow("no Host") << "GET" << QStringList{} << "the request has no Host header";
    QTest::newRow("two Hosts") << "GET" << QStringList{host, "Host: rebind.attacker.example"}
                               << "the request has more than one Host header";
    QTest::newRow("control character in Host") << "GET" << QStringList{"Host: a\x01" "b"} << "the Host header \"a\\x01b\"";

    QTest::newRow("JSON from the own page") << "POST" << QStringList{host, own, json, body} << QString();
    QTest::newRow("JSON with a charset") << "POST" << QStringList{host, json + "; charset=utf-8", body} << QString();
    QTest::newRow("no body, no type (curl -X POST)") << "POST" << QStringList{host} << QString();
    QTest::newRow("empty body, no type") << "POST" << QStringList{host, "Content-Length: 0"} << QString();
    QTest::newRow("text/plain") << "POST" << QStringList{host, "Content-Type: text/plain;charset=UTF-8", body}
                                << "a POST body must be application/json, not \"text/plain;charset=UTF-8\"";
    QTest::newRow("form") << "POST" << QStringList{host, "Content-Type: application/x-www-form-urlencoded", body}
                          << "a POST body must be application/json";
    QTest::newRow("text/plain, no body") << "POST" << QStringList{host, "Content-Type: text/plain", "Content-Length: 0"}
                                         << "a POST body must be application/json";
    QTest::newRow("body without a type") << "POST" << QStringList{host, body} << "a POST body must be sent as application/json";
    QTest::newRow("chunked without a type") << "POST" << QStringList{host, "Transfer-Encoding: chunked"}
                                            << "a POST body must be sent as application/json";
    QTest::newRow("PUT of text") << "PUT" << QStringList{host, "Content-Type: text/plain", body}
                                 << "a PUT body must be application/json";
    QTest::newRow("DELETE without a body") << "DELETE" << QStringList{host} << QString();

    QTest::newRow("page of another origin") << "POST" << QStringList{host, "Origin: http://attacker.example:8000", json, body}
                                            << "requests from pages of \"http://attacker.example:8000\" are not accepted";
    QTest::newRow("another port's page") << "POST" << QStringList{host, "Origin: http://127.0.0.1:8000", json, body}
                                         << "requests from pages of \"http://127.0.0.1:8000\"";
    QTest::newRow("sandboxed page") << "POST" << QStringList{host, "Origin: null"} << "requests from pages of \"null\"";
    QTest::newRow("https page of this address") << "POST" << QStringList{host, QStringLiteral("Origin: https://127.0.0.1:%1").arg(kPort)}
                                                << "requests from pages of";
    QTest::newRow("event stream from another origin") << "GET" << QStringList{host, "Origin: http://attacker.example"}
                                                      << "requests from pages of \"http://attacker.example\"";
    QTest::newRow("picture of another site") << "GET" << QStringList{host, "Sec-Fetch-Site: cross-site", "Sec-Fetch-Mode: no-cors",
                                                                     "Sec-Fetch-Dest: image"}
                                             << "the browser says this request comes from another site (Sec-Fetch-Site: cross-site)";
    QTest::newRow("frame in a page of another port") << "GET" << QStringList{host, "Sec-Fetch-Site: same-site",
                                                                             "Sec-Fetch-Mode: navigate", "Sec-Fetch-Dest: iframe"}
                                                     << "the browser says this request comes from another site";
    QTest::newRow("link from another site") << "GET" << QStringList{host, "Sec-Fetch-Site: cross-site", "Sec-Fetch-Mode: navigate",
                                                                    "Sec-Fetch-Dest: document"}
                                            << QString();
    QTest::newRow("the own page's fetch") << "POST" << QStringList{host, own, json, body, "Sec-Fetch-Site: same-origin"} << QString();
    QTest::newRow("typed into the address bar") << "GET" << QStringList{host, "Sec-Fetch-Site: none"} << QString();
}

void TestLocalHttpServer::refusal()
{
    QFETCH(QString, method);
    QFETCH(QStringList, headers);
    QFETCH(QString, refused);
    std::vector<std::pair<std::string, std::string>> pairs;
    for (const QString& header : headers)
        pairs.emplace_back(header.section(QStringLiteral(": "), 0, 0).toStdString(),
                           header.section(QStringLiteral(": "), 1).toStdString());
    const QString why = QString::fromStdString(devkit::LocalHttpServer::refusal(request(method.toStdString(), pairs), kPort));
    if (refused.isEmpty())
        QVERIFY2(why.isEmpty(), qPrintable(why));
    else
        QVERIFY2(why.startsWith(refused), qPrintable(why));
}

void TestLocalHttpServer::startServer(int maxConnections)
{
    devkit::LocalHttpServer::Limits limits;
    limits.maxConnections = maxConnections;
    limits.headTimeout = std::chrono::milliseconds(300);
    limits.bodyTimeout = std::chrono::milliseconds(300);
    m_server = std::make_unique<devkit::LocalHttpServer>(limits, [](const std::string& why) { return "{\"why\":\"" + why + "\"}"; });
    m_server->onRefused([this](const std::string& line) {
        std::lock_guard<std::mutex> lock(m_logMutex);
        m_log << QString::fromStdString(line);
    });
    m_server->Get("/x", [](const httplib::Request&, httplib::Response& response) { response.set_content("ok", "text/plain"); });
    m_server->Post("/x", [](const httplib::Request&, httplib::Response& response) { response.set_content("ok", "text/plain"); });
    m_port = m_server->bind_to_any_port("127.0.0.1");
    QVERIFY(m_port > 0);
    m_server->setOwnPort(m_port);
    m_thread = std::thread([this] { m_server->listen_after_bind(); });
    QTRY_VERIFY(m_server->is_running());
}

void TestLocalHttpServer::stopServer()
{
    if (!m_server)
        return;
    m_server->stop();
    m_thread.join();
    m_server.reset();
    m_log.clear();
}

void TestLocalHttpServer::slowClientsAreDropped_data()
{
    QTest::addColumn<bool>("slowHead"); // else a whole head and a slow body
    QTest::addColumn<QString>("reason");
    QTest::newRow("head") << true << QStringLiteral("its request head was not complete within 300 ms");
    QTest::newRow("body") << false << QStringLiteral("its request body was not complete within 300 ms");
}

// Each client would take 4 s to send what it has; the server lets it go well before that.
void TestLocalHttpServer::slowClientsAreDropped()
{
    QFETCH(bool, slowHead);
    QFETCH(QString, reason);
    startServer(8);
    const QByteArray padding(200, 'x');
    const QByteArray head = "POST /x HTTP/1.1\r\nHost: 127.0.0.1:" + QByteArray::number(m_port)
                            + "\r\nContent-Type: application/json\r\nContent-Length: 202\r\n\r\n";
    Trickler client(m_port, slowHead ? QByteArray() : head, slowHead ? head + padding : "\"" + padding + "\"");
    QTRY_VERIFY_WITH_TIMEOUT(client.dropped(), 3000);
    QVERIFY(!client.finished());
    QTRY_COMPARE(logged().size(), 1);
    QVERIFY2(logged().first().endsWith(reason), qPrintable(logged().first()));
    // A client that sends at once is still answered.
    QVERIFY(exchange(m_port, get("Connection: close\r\n")).startsWith("HTTP/1.1 200"));
}

// Two slow clients fill a server that takes two connections: a third is refused at once, and
// is answered again once they are dropped.
void TestLocalHttpServer::connectionsAreCapped()
{
    startServer(2);
    const QByteArray slow = get() + QByteArray(200, 'x');
    Trickler first(m_port, QByteArray(), slow), second(m_port, QByteArray(), slow);
    QTRY_COMPARE(m_server->openConnections(), 2);
    const QByteArray refused = exchange(m_port, get("Connection: close\r\n"));
    QVERIFY2(refused.startsWith("HTTP/1.1 503"), refused.constData());
    QVERIFY2(refused.endsWith("{\"why\":\"too many connections (at most 2); try again\"}"), refused.constData());
    QTRY_VERIFY_WITH_TIMEOUT(first.dropped() && second.dropped(), 3000);
    QTRY_COMPARE(m_server->openConnections(), 0);
    QVERIFY(exchange(m_port, get("Connection: close\r\n")).startsWith("HTTP/1.1 200"));
    QVERIFY(logged().filter(QStringLiteral(": too many connections (at most 2); try again")).size() == 1);
}

// A refused request may carry a body the server never reads: the connection ends after the
// answer, so that body is never taken for a second request.
void TestLocalHttpServer::refusalEndsTheConnection()
{
    startServer(8);
    const QByteArray smuggled = get();
    const QByteArray request = "POST /x HTTP/1.1\r\nHost: 127.0.0.1:" + QByteArray::number(m_port)
                               + "\r\nContent-Type: text/plain\r\nContent-Length: " + QByteArray::number(smuggled.size())
                               + "\r\n\r\n" + smuggled;
    const QByteArray answer = exchange(m_port, request);
    QVERIFY2(answer.startsWith("HTTP/1.1 403"), answer.constData());
    QCOMPARE(answer.count("HTTP/1.1 "), 1);
    QVERIFY2(answer.contains("\r\nConnection: close\r\n") && !answer.contains("Keep-Alive"), answer.constData());
    QVERIFY2(answer.contains("\r\nX-Content-Type-Options: nosniff\r\n"), answer.constData());
    QVERIFY2(answer.endsWith("{\"why\":\"a POST body must be application/json, not \"text/plain\"\"}"), answer.constData());
    QCOMPARE(logged().size(), 1);
    QVERIFY2(logged().first().startsWith(QStringLiteral("Refused POST /x from 127.0.0.1:")), qPrintable(logged().first()));
}

QTEST_GUILESS_MAIN(TestLocalHttpServer)
#include "tst_localhttpserver.moc"
