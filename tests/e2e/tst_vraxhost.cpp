// vrax-host as scripts and browsers use it: refusals at start with their exit status and
// message, the control API's answers to requests as people type them, and a clean exit on SIGINT
// and SIGTERM with pages open.
#include "ChildProcesses.h"
#include "RawHttp.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>
#include <memory>
#include <vector>

namespace {

// Starts vrax-host with the module on a fresh data directory; its control port, 0 on failure.
int startHost(QProcess* host, const QTemporaryDir& dir)
{
    host->start(QStringLiteral(VRAX_HOST_PATH), {QStringLiteral("--module"), QStringLiteral(ORVELLO_MODULE_PATH),
                                                 QStringLiteral("--data-dir"), dir.filePath(QStringLiteral("data")),
                                                 QStringLiteral("--pace"), QStringLiteral("fast")});
    if (!host->waitForReadyRead(20000))
        return 0;
    const QByteArray line = host->readLine().trimmed();
    const QByteArray prefix = "control API listening on 127.0.0.1:";
    return line.startsWith(prefix) ? line.mid(prefix.size()).toInt() : 0;
}

} // namespace

class TestVraxHost : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { SKIP_WITHOUT_CHILD_PROCESSES(); }
    void refusesToStart_data();
    void refusesToStart();
    void controlApiAnswers_data();
    void controlApiAnswers();
    void stopsCleanlyOnSignal_data();
    void stopsCleanlyOnSignal();
    void cleanupTestCase();

private:
    // One host answers all of controlApiAnswers' requests; none of them changes its state.
    QTemporaryDir m_dir;
    QProcess m_host;
    int m_port = 0;
};

void TestVraxHost::refusesToStart_data()
{
    QTest::addColumn<QStringList>("arguments"); // DIR stands for a fresh directory
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("message");
    const QString module = QStringLiteral(ORVELLO_MODULE_PATH);
    QTest::newRow("missing module") << QStringList{"--module", "DIR/none/liborvello.so", "--data-dir", "DIR/data"}
                                    << 1 << QStringLiteral("vrax-host: cannot load the module DIR/none/liborvello.so");
    QTest::newRow("no worker_create") << QStringList{"--module", VRAX_API_PATH, "--data-dir", "DIR/data"} << 1
                                      << QStringLiteral("has no worker_create entry");
    QTest::newRow("settings not JSON") << QStringList{"--module", module, "--data-dir", "DIR/data", "--settings", "DIR/bad.json"}
                                       << 1 << QStringLiteral("vrax-host: Settings file DIR/bad.json is not valid JSON");
    QTest::newRow("settings missing") << QStringList{"--module", module, "--data-dir", "DIR/data", "--settings", "DIR/none.json"}
                                      << 1 << QStringLiteral("vrax-host: Settings file DIR/none.json does not exist");
    QTest::newRow("busy port") << QStringList{"--module", module, "--data-dir", "DIR/data", "--control-port", "PORT"} << 1
                               << QStringLiteral("vrax-host: cannot listen on 127.0.0.1:PORT");
    QTest::newRow("no module given") << QStringList{"--data-dir", "DIR/data"} << 2
                                     << QStringLiteral("--module and --data-dir are required");
    QTest::newRow("bad pace") << QStringList{"--module", module, "--data-dir", "DIR/data", "--pace", "slow"} << 2
                              << QStringLiteral("--pace takes realtime or fast, not 'slow'");
    QTest::newRow("bad audio out") << QStringList{"--module", module, "--data-dir", "DIR/data", "--audio-out", "mp3:x"} << 2
                                   << QStringLiteral("--audio-out takes wav:FILE, null or alsa[:DEVICE], not 'mp3:x'");
    QTest::newRow("bad port") << QStringList{"--module", module, "--data-dir", "DIR/data", "--control-port", "70000"} << 2
                              << QStringLiteral("--control-port needs a port number from 0 to 65535");
}

void TestVraxHost::refusesToStart()
{
    QFETCH(QStringList, arguments);
    QFETCH(int, exitCode);
    QFETCH(QString, message);
    QTemporaryDir dir;
    QFile bad(dir.filePath(QStringLiteral("bad.json")));
    QVERIFY(bad.open(QIODevice::WriteOnly));
    bad.write("{\"settings/x\": ");
    bad.close();
    QTcpServer occupant;
    QVERIFY(occupant.listen(QHostAddress::LocalHost));
    const QString port = QString::number(occupant.serverPort());
    for (QString& argument : arguments)
        argument.replace(QStringLiteral("DIR"), dir.path()).replace(QStringLiteral("PORT"), port);
    message.replace(QStringLiteral("DIR"), dir.path()).replace(QStringLiteral("PORT"), port);

    QProcess host;
    host.start(QStringLiteral(VRAX_HOST_PATH), arguments);
    QVERIFY(host.waitForFinished(20000));
    const QString error = QString::fromLocal8Bit(host.readAllStandardError());
    QCOMPARE(host.exitStatus(), QProcess::NormalExit);
    QCOMPARE(host.exitCode(), exitCode);
    QVERIFY2(error.contains(message), qPrintable(error));
    QVERIFY(host.readAllStandardOutput().isEmpty()); // never claims to listen
}

void TestVraxHost::controlApiAnswers_data()
{
    QTest::addColumn<QByteArray>("request"); // without the Host and Connection lines
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("expected"); // in the error's message, or in the body of a success
    QTest::addColumn<QByteArray>("header");
    QTest::newRow("POST without a body") << QByteArray("POST /api/player/stop HTTP/1.1") << 200
                                         << QStringLiteral("{\"ok\":true}") << QByteArray();
    QTest::newRow("POST with an empty body") << QByteArray("POST /api/player/stop HTTP/1.1\r\nContent-Length: 0") << 200
                                             << QStringLiteral("{\"ok\":true}") << QByteArray();
    QTest::newRow("POST without a body reaches the player") << QByteArray("POST /api/player/pause HTTP/1.1") << 422
                                                            << QStringLiteral("Nothing is playing") << QByteArray();
    QTest::newRow("POST without a body needs fields") << QByteArray("POST /api/value HTTP/1.1") << 400
                                                      << QStringLiteral("the body needs a \"path\" string") << QByteArray();
    QTest::newRow("body not JSON") << QByteArray("POST /api/volume HTTP/1.1\r\nContent-Type: application/json\r\n"
                                                 "Content-Length: 8\r\n\r\nvolume=3") << 400
                                   << QStringLiteral("the body must be a JSON object") << QByteArray();
    QTest::newRow("unknown path") << QByteArray("GET /api/nothing HTTP/1.1") << 404
                                  << QStringLiteral("there is nothing at /api/nothing") << QByteArray();
    QTest::newRow("GET of a POST route") << QByteArray("GET /api/player/pause HTTP/1.1") << 405
                                         << QStringLiteral("/api/player/pause takes POST, not GET") << QByteArray("Allow: POST");
    QTest::newRow("DELETE of the volume") << QByteArray("DELETE /api/volume HTTP/1.1") << 405
                                          << QStringLiteral("/api/volume takes GET, POST, not DELETE")
                                          << QByteArray("Allow: GET, POST");
    QTest::newRow("the page") << QByteArray("GET / HTTP/1.1") << 200 << QStringLiteral("<title>Vrax device</title>")
                              << QByteArray("Content-Type: text/html");
    QTest::newRow("the page is not framed") << QByteArray("GET / HTTP/1.1") << 200 << QStringLiteral("<title>Vrax device</title>")
                                            << QByteArray("Content-Security-Policy: default-src 'self'; img-src 'self' https:; "
                                                          "frame-ancestors 'none'");
    QTest::newRow("the script is not sniffed") << QByteArray("GET /app.js HTTP/1.1") << 200 << QStringLiteral("'use strict';")
                                               << QByteArray("X-Content-Type-Options: nosniff");
}

void TestVraxHost::controlApiAnswers()
{
    QFETCH(QByteArray, request);
    QFETCH(int, status);
    QFETCH(QString, expected);
    QFETCH(QByteArray, header);
    if (m_port == 0)
        m_port = startHost(&m_host, m_dir);
    QVERIFY(m_port > 0);
    const int split = request.indexOf("\r\n\r\n");
    const QByteArray head = split < 0 ? request : request.left(split);
    const QByteArray body = split < 0 ? QByteArray() : request.mid(split + 4);
    const RawHttpAnswer answer
        = rawHttp(m_port, head + "\r\nHost: 127.0.0.1:" + QByteArray::number(m_port) + "\r\nConnection: close\r\n\r\n" + body);
    QCOMPARE(answer.status, status);
    if (!header.isEmpty())
        QVERIFY2(answer.head.contains(header), answer.head.constData());
    if (status >= 400) {
        QVERIFY2(answer.head.contains("Content-Type: application/json"), answer.head.constData());
        const QJsonObject json = QJsonDocument::fromJson(answer.body).object();
        QCOMPARE(json.value(QStringLiteral("ok")).toBool(true), false);
        QCOMPARE(json.value(QStringLiteral("error")).toObject().value(QStringLiteral("message")).toString(), expected);
    } else {
        QVERIFY2(answer.body.contains(expected.toUtf8()), answer.body.constData());
    }
}

void TestVraxHost::cleanupTestCase()
{
    if (m_host.state() == QProcess::NotRunning)
        return;
    ::kill(pid_t(m_host.processId()), SIGTERM);
    QVERIFY(m_host.waitForFinished(20000));
    QCOMPARE(m_host.exitStatus(), QProcess::NormalExit);
    QCOMPARE(m_host.exitCode(), 0);
}

void TestVraxHost::stopsCleanlyOnSignal_data()
{
    QTest::addColumn<int>("signal");
    QTest::newRow("SIGTERM") << int(SIGTERM);
    QTest::newRow("SIGINT") << int(SIGINT);
}

// Open pages hold event streams (and server threads) until the host stops; the stop ends them.
void TestVraxHost::stopsCleanlyOnSignal()
{
    QFETCH(int, signal);
    QTemporaryDir dir;
    QProcess host;
    const int port = startHost(&host, dir);
    QVERIFY(port > 0);
    QVERIFY(QFile::exists(dir.filePath(QStringLiteral("data"))));

    constexpr int kPages = 8; // as many as the host serves at once
    std::vector<std::unique_ptr<QTcpSocket>> pages;
    for (int i = 0; i <= kPages; ++i) {
        pages.push_back(std::make_unique<QTcpSocket>());
        pages.back()->connectToHost(QHostAddress::LocalHost, quint16(port));
        QVERIFY(pages.back()->waitForConnected(5000));
        pages.back()->write("GET /api/events HTTP/1.1\r\nHost: 127.0.0.1:" + QByteArray::number(port) + "\r\n\r\n");
        QVERIFY(pages.back()->waitForBytesWritten(5000));
    }
    // The server takes the connections in no particular order: any one of them is the ninth.
    int streams = 0;
    QByteArray refused;
    for (const auto& page : pages) {
        QByteArray seen;
        while (!seen.contains("Waiting for pairing code") && !(seen.startsWith("HTTP/1.1 503") && seen.endsWith("}"))
               && page->waitForReadyRead(10000))
            seen += page->readAll();
        if (seen.startsWith("HTTP/1.1 503")) {
            refused = seen;
            continue;
        }
        QVERIFY2(seen.contains("Content-Type: text/event-stream"), seen.constData());
        QVERIFY2(seen.contains("event: hello\n") && seen.contains("\"title\":\"Orvello Streams\""), seen.constData());
        QVERIFY2(seen.contains("Waiting for pairing code before initializing.."), seen.constData());
        ++streams;
    }
    QCOMPARE(streams, kPages);
    QVERIFY2(refused.contains("too many pages are open (at most 8)"), refused.constData());

    ::kill(pid_t(host.processId()), signal);
    QVERIFY(host.waitForFinished(20000));
    QCOMPARE(host.exitStatus(), QProcess::NormalExit);
    QCOMPARE(host.exitCode(), 0);
    const QString log = QString::fromLocal8Bit(host.readAllStandardError());
    QVERIFY2(!log.contains(QLatin1String("ERROR")) && !log.contains(QLatin1String("WARN")), qPrintable(log));
}

QTEST_GUILESS_MAIN(TestVraxHost)
#include "tst_vraxhost.moc"
