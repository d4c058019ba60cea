// vrax-host (with the module and the reference player library) and orvello-service answer only
// their own. The attackers: a rebinding host name (the browser sends the attacker's name as
// Host), a web page of another origin (a foreign Origin and a text/plain body, what any page
// sends without a preflight), and slow clients that send their request head a byte at a time.
// Held: every such request is answered 403 with a JSON reason and changes nothing (the settings
// file, the service's offer), the secrets never show, and a normal request is still answered.
#include "ChildProcesses.h"
#include "DeviceRig.h"
#include "RawHttp.h"
#include "TestFiles.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include <memory>
#include <vector>

namespace {

const DeviceRig::Paths kPaths{QStringLiteral(VRAX_HOST_PATH), QStringLiteral(ORVELLO_MODULE_PATH),
                              QStringLiteral(ORVELLO_SERVICE_PATH)};
const QString kToken = QStringLiteral("token-5f1e-never-shown");
const QString kVendorSecret = QStringLiteral("vendor-secret-9a7c-never-shown");
const QByteArray kForeignHost = "rebind.attacker.example";
const QByteArray kForeignOrigin = "http://attacker.example:8000";

enum Program { Host, Service };

// The error message of either program's JSON error: {"error": {"message"}} or {"error": "..."}.
QString errorMessage(const QByteArray& body)
{
    const QJsonValue error = QJsonDocument::fromJson(body).object().value(QStringLiteral("error"));
    return error.isObject() ? error.toObject().value(QStringLiteral("message")).toString() : error.toString();
}

// Sends its request head a byte every 200 ms, and would need a minute for all of it.
class SlowClient
{
public:
    SlowClient(int port, const QByteArray& path)
        : m_head("GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1:" + QByteArray::number(port) + "\r\nX-Padding: "
                 + QByteArray(300, 'x') + "\r\n\r\n")
    {
        m_socket.connectToHost(QHostAddress::LocalHost, quint16(port));
        QObject::connect(&m_timer, &QTimer::timeout, [this] {
            if (m_socket.state() == QAbstractSocket::ConnectedState && m_sent < m_head.size())
                m_socket.write(m_head.mid(m_sent++, 1));
        });
        m_timer.start(200);
    }
    int sent() const { return m_sent; }
    bool dropped() const { return m_sent > 0 && m_socket.state() == QAbstractSocket::UnconnectedState; }
    bool finished() const { return m_sent == m_head.size(); }

private:
    QTcpSocket m_socket;
    QByteArray m_head;
    int m_sent = 0;
    QTimer m_timer;
};

} // namespace

class TestLocalOnly : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void foreignRequestsAreRefused_data();
    void foreignRequestsAreRefused();
    void refusalsChangedNothing();
    void secretsAreNotShown();
    void slowClientsDoNotStopTheApi_data();
    void slowClientsDoNotStopTheApi();
    void cleanupTestCase();

private:
    int port(Program program) const { return program == Host ? m_rig->controlPort() : m_rig->servicePort(); }
    QByteArray serviceState();

    QTemporaryDir m_dir;
    std::unique_ptr<DeviceRig> m_rig;
    QByteArray m_settings;
    QByteArray m_serviceState;
};

void TestLocalOnly::initTestCase()
{
    SKIP_WITHOUT_CHILD_PROCESSES();
    m_rig = std::make_unique<DeviceRig>(kPaths, m_dir.path());
    QString error;
    QVERIFY2(m_rig->startService(QStringLiteral("1.0.0"), QStringLiteral(OPLAYER_REF_1_0_0), &error), qPrintable(error));
    QDir().mkpath(QFileInfo(m_rig->devTreeLibraryPath()).absolutePath());
    QVERIFY(QFile::copy(QStringLiteral(OPLAYER_REF_1_0_0), m_rig->devTreeLibraryPath()));
    const QVariantHash settings{{QStringLiteral("settings/orvello/versionUrl"), m_rig->versionUrl()},
                                {QStringLiteral("settings/orvello/updateCheckIntervalSeconds"), 3600},
                                {QStringLiteral("settings/orvello/outputSampleRate"), 44100},
                                {QStringLiteral("settings/orvello/outputChannels"), 2},
                                {QStringLiteral("settings/system/productName"), QStringLiteral("Local Amp")},
                                {QStringLiteral("settings/orvello/token"), kToken},
                                {QStringLiteral("settings/orvello/vendorSecret"), kVendorSecret}};
    QVERIFY2(m_rig->startHost(settings, QStringLiteral("null"), QStringLiteral("fast"), {}, &error), qPrintable(error));
    QVERIFY(m_rig->waitForLog(QStringLiteral("Running SDK version: 1.0.0"), 15000));
    m_settings = fileBytes(m_rig->workDir() + QStringLiteral("/device/settings.json"));
    m_serviceState = serviceState();
    QVERIFY(m_serviceState.contains("\"version\":\"1.0.0\""));
}

QByteArray TestLocalOnly::serviceState()
{
    return rawHttp(m_rig->servicePort(), "GET /admin/state HTTP/1.1\r\nHost: 127.0.0.1:"
                                             + QByteArray::number(m_rig->servicePort()) + "\r\nConnection: close\r\n\r\n")
        .body;
}

void TestLocalOnly::foreignRequestsAreRefused_data()
{
    QTest::addColumn<int>("program");
    QTest::addColumn<QByteArray>("request"); // PORT: the program's own port
    QTest::addColumn<QString>("reason");     // the start of the error message
    const QByteArray pairing = R"({"path": "orvello/browse/uiPairCode", "value": "ABCDEF"})";
    const QByteArray versionUrl = R"({"path": "settings/orvello/versionUrl", "value": "http://attacker.example/config.json"})";
    const QByteArray offer = R"({"version": "9.9.9", "fail": ["wrong-checksum"]})";
    auto post = [](const QByteArray& path, const QByteArray& host, const QByteArray& headers, const QByteArray& body) {
        return "POST " + path + " HTTP/1.1\r\nHost: " + host + "\r\n" + headers + "Content-Length: "
               + QByteArray::number(body.size()) + "\r\n\r\n" + body;
    };
    const QByteArray own = "127.0.0.1:PORT";
    const QByteArray rebound = kForeignHost + ":PORT";
    const QByteArray textPlain = "Content-Type: text/plain;charset=UTF-8\r\n";
    const QByteArray json = "Content-Type: application/json\r\n";
    const QByteArray foreignPage = "Origin: " + kForeignOrigin + "\r\n";
    const QString badHost = QStringLiteral("the Host header \"rebind.attacker.example:");
    const QString badOrigin = QStringLiteral("requests from pages of \"http://attacker.example:8000\" are not accepted");

    QTest::newRow("host: the token through a rebinding name")
        << int(Host) << QByteArray("GET /api/value?path=settings/orvello/token HTTP/1.1\r\nHost: " + rebound + "\r\n\r\n") << badHost;
    QTest::newRow("host: the event stream through a rebinding name")
        << int(Host) << QByteArray("GET /api/events HTTP/1.1\r\nHost: " + rebound + "\r\n\r\n") << badHost;
    QTest::newRow("host: a pairing through a rebinding name") << int(Host) << post("/api/value", rebound, json, pairing) << badHost;
    QTest::newRow("host: a page of another origin sets the version URL")
        << int(Host) << post("/api/value", own, foreignPage + textPlain, versionUrl) << badOrigin;
    QTest::newRow("host: a page of another origin pairs, with JSON")
        << int(Host) << post("/api/value", own, foreignPage + json, pairing) << badOrigin;
    QTest::newRow("host: a text/plain pairing") << int(Host) << post("/api/value", own, textPlain, pairing)
                                                << QStringLiteral("a POST body must be application/json, not \"text/plain;charset=UTF-8\"");
    QTest::newRow("host: an untyped invoke") << int(Host) << post("/api/invoke", own, QByteArray(), pairing)
                                             << QStringLiteral("a POST body must be sent as application/json");
    QTest::newRow("host: a page of another origin stops the music, no body")
        << int(Host) << post("/api/player/stop", own, foreignPage, QByteArray()) << badOrigin;
    QTest::newRow("service: the request log through a rebinding name")
        << int(Service) << QByteArray("GET /admin/requests HTTP/1.1\r\nHost: " + rebound + "\r\n\r\n") << badHost;
    QTest::newRow("service: the document through a rebinding name")
        << int(Service) << QByteArray("GET /config.json HTTP/1.1\r\nHost: " + rebound + "\r\n\r\n") << badHost;
    QTest::newRow("service: a page of another origin changes the offer")
        << int(Service) << post("/admin/state", own, foreignPage + textPlain, offer) << badOrigin;
    QTest::newRow("service: a text/plain offer") << int(Service) << post("/admin/state", own, textPlain, offer)
                                                 << QStringLiteral("a POST body must be application/json");
    QTest::newRow("service: an offer through a rebinding name") << int(Service) << post("/admin/state", rebound, json, offer)
                                                                << badHost;
}

void TestLocalOnly::foreignRequestsAreRefused()
{
    QFETCH(int, program);
    QFETCH(QByteArray, request);
    QFETCH(QString, reason);
    const int p = port(Program(program));
    const RawHttpAnswer answer = rawHttp(p, request.replace("PORT", QByteArray::number(p)));
    QCOMPARE(answer.status, 403);
    QVERIFY2(answer.head.contains("Content-Type: application/json"), answer.head.constData());
    QVERIFY2(answer.head.contains("Connection: close"), answer.head.constData());
    QVERIFY2(errorMessage(answer.body).startsWith(reason), answer.body.constData());
    if (program == Host)
        QVERIFY(m_rig->waitForLog(QStringLiteral("WARN  [ControlApi] Refused ") + QString::fromLatin1(request.left(request.indexOf(' ')))
                                      + QLatin1Char(' ') + QString::fromLatin1(request.split(' ').at(1)).section(QLatin1Char('?'), 0, 0),
                                  5000));
}

void TestLocalOnly::refusalsChangedNothing()
{
    QCOMPARE(fileBytes(m_rig->workDir() + QStringLiteral("/device/settings.json")), m_settings);
    QCOMPARE(serviceState(), m_serviceState);
    QVERIFY(m_rig->hostLog().filter(QStringLiteral("Initiating pairing")).isEmpty());
    // Playing, or about to: the refused stop did not stop it.
    QTRY_COMPARE_WITH_TIMEOUT(m_rig->get(QStringLiteral("/api/playlogic")).body.value(QStringLiteral("state")).toInt(), 2, 15000);
}

// The device is paired and has a vendor secret: nothing it shows carries either.
void TestLocalOnly::secretsAreNotShown()
{
    for (const QString& path : {QStringLiteral("settings/orvello/token"), QStringLiteral("settings/orvello/vendorSecret")}) {
        const DeviceRig::Answer answer = m_rig->get(QStringLiteral("/api/value?path=") + path);
        QCOMPARE(answer.status, 200);
        QCOMPARE(answer.body, (QJsonObject{{QStringLiteral("path"), path}, {QStringLiteral("secret"), true}, {QStringLiteral("set"), true}}));
    }
    QCOMPARE(m_rig->get(QStringLiteral("/api/value?path=settings/system/productName")).body.value(QStringLiteral("value")),
             QJsonValue(QJsonObject{{QStringLiteral("string_"), QStringLiteral("Local Amp")}}));
    QByteArray shown = QJsonDocument(m_rig->get(QStringLiteral("/api/nodes")).body).toJson();
    // The page's event stream, from its snapshot through the log lines kept for it.
    QTcpSocket page;
    page.connectToHost(QHostAddress::LocalHost, quint16(m_rig->controlPort()));
    QVERIFY(page.waitForConnected(5000));
    page.write("GET /api/events HTTP/1.1\r\nHost: localhost:" + QByteArray::number(m_rig->controlPort()) + "\r\n\r\n");
    QByteArray stream;
    QTRY_VERIFY_WITH_TIMEOUT((stream += page.readAll()).contains("Running SDK version: 1.0.0"), 10000);
    QVERIFY2(stream.contains("\"paired\":true"), stream.constData());
    shown += stream + m_rig->hostLog().join(QLatin1Char('\n')).toUtf8();
    QVERIFY(!shown.contains(kToken.toUtf8()));
    QVERIFY(!shown.contains(kVendorSecret.toUtf8()));
}

void TestLocalOnly::slowClientsDoNotStopTheApi_data()
{
    QTest::addColumn<int>("program");
    QTest::addColumn<QByteArray>("path");
    QTest::newRow("vrax-host") << int(Host) << QByteArray("/api/pipeline");
    QTest::newRow("orvello-service") << int(Service) << QByteArray("/admin/state");
}

// Twenty clients each hold a connection with a head they would take a minute to send; a normal
// request meanwhile is answered, and the slow clients are let go long before their heads end.
void TestLocalOnly::slowClientsDoNotStopTheApi()
{
    QFETCH(int, program);
    QFETCH(QByteArray, path);
    const int p = port(Program(program));
    std::vector<std::unique_ptr<SlowClient>> clients;
    for (int i = 0; i < 20; ++i)
        clients.push_back(std::make_unique<SlowClient>(p, path));
    for (const auto& client : clients)
        QTRY_VERIFY(client->sent() >= 2); // the attack under way
    const RawHttpAnswer answer = rawHttp(p, "GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1:" + QByteArray::number(p)
                                                + "\r\nConnection: close\r\n\r\n");
    QCOMPARE(answer.status, 200);
    for (const auto& client : clients) {
        QTRY_VERIFY_WITH_TIMEOUT(client->dropped(), 15000);
        QVERIFY(!client->finished());
    }
    if (program == Host)
        QVERIFY(m_rig->waitForLog(QStringLiteral("its request head was not complete within 5000 ms"), 0));
}

void TestLocalOnly::cleanupTestCase()
{
    if (m_rig)
        QCOMPARE(m_rig->stopHost(), 0);
}

QTEST_GUILESS_MAIN(TestLocalOnly)
#include "tst_localonly.moc"
