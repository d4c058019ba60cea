// vrax-host as scripts use it: refusals at start with their exit status and message, and a
// clean exit on SIGINT and SIGTERM.
#include "ChildProcesses.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

class TestVraxHost : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { SKIP_WITHOUT_CHILD_PROCESSES(); }
    void refusesToStart_data();
    void refusesToStart();
    void stopsCleanlyOnSignal_data();
    void stopsCleanlyOnSignal();
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

void TestVraxHost::stopsCleanlyOnSignal_data()
{
    QTest::addColumn<int>("signal");
    QTest::newRow("SIGTERM") << int(SIGTERM);
    QTest::newRow("SIGINT") << int(SIGINT);
}

void TestVraxHost::stopsCleanlyOnSignal()
{
    QFETCH(int, signal);
    QTemporaryDir dir;
    QProcess host;
    host.start(QStringLiteral(VRAX_HOST_PATH), {QStringLiteral("--module"), QStringLiteral(ORVELLO_MODULE_PATH),
                                                QStringLiteral("--data-dir"), dir.filePath(QStringLiteral("data"))});
    QVERIFY(host.waitForReadyRead(20000));
    QVERIFY(host.readLine().startsWith("control API listening on 127.0.0.1:"));
    QVERIFY(QFile::exists(dir.filePath(QStringLiteral("data"))));
    ::kill(pid_t(host.processId()), signal);
    QVERIFY(host.waitForFinished(20000));
    QCOMPARE(host.exitStatus(), QProcess::NormalExit);
    QCOMPARE(host.exitCode(), 0);
    const QString log = QString::fromLocal8Bit(host.readAllStandardError());
    QVERIFY2(!log.contains(QLatin1String("ERROR")) && !log.contains(QLatin1String("WARN")), qPrintable(log));
}

QTEST_GUILESS_MAIN(TestVraxHost)
#include "tst_vraxhost.moc"
