// The service and the network failing: error answers, bad documents, slow, endless and dripping
// answers, a service killed or absent, bad version URLs.
#include "Scenarios.h"
#include "ScenarioKit.h"

#include "TestFiles.h"

#include <QJsonArray>
#include <QRegularExpression>
#include <QTcpServer>

namespace {

// A port nobody listens on.
int closedPort()
{
    QTcpServer server;
    server.listen(QHostAddress::LocalHost);
    return server.serverPort();
}

// The service offering 1.1.0 again (or for the first time) on port.
bool serviceBack(FaultDevice& d, int port)
{
    QString error;
    if (!d.rig().startService(QStringLiteral("1.1.0"), d.binaries().library110, &error, {QStringLiteral("--port"), QString::number(port)}))
        d.setupError(error);
    return error.isEmpty();
}

// The host's resident memory in KiB; -1 when it cannot be read.
qint64 residentKiB(qint64 pid)
{
    static const QRegularExpression rss(QStringLiteral("^VmRSS:\\s+(\\d+) kB$"), QRegularExpression::MultilineOption);
    const QRegularExpressionMatch match = rss.match(QString::fromLatin1(fileBytes(QStringLiteral("/proc/%1/status").arg(pid))));
    return match.hasMatch() ? match.captured(1).toLongLong() : -1;
}

} // namespace

// The service fails in one way while the device plays 1.0.0 and 1.1.0 is offered; once the
// fault is cleared the update goes through.
Scenario serviceFails(const QStringList& modes, const QString& logLine, const QString& versionMeanwhile)
{
    return [=](FaultDevice& d) {
        if (!d.start(offering(QStringLiteral("1.1.0"), modes)))
            return;
        d.expectKeepsPlaying(5000, QStringLiteral("the service failing"));
        d.expectLog(logLine);
        d.expectVersion(versionMeanwhile);
        if (!d.serviceFails({}))
            return;
        d.expectLog(kUpdated, kUpdateMs);
        d.expectKeepsPlaying(3000, QStringLiteral("the update after the fault"));
        // Only a wrong checksum may fail verification: anything else means a broken file was kept.
        if (logLine != kNotVerified)
            d.expectNoLog(kNotVerified);
    };
}

// An answer slower than the client's timeout: one check, heard through to its end.
Scenario serviceTooSlow(const QString& mode, const QString& logLine)
{
    return [=](FaultDevice& d) {
        Setup setup = offering(QStringLiteral("1.1.0"), {mode});
        setup.checkSeconds = 600;
        if (!d.start(setup))
            return;
        d.expectKeepsPlaying(kClientTimeoutMs + 2000, QStringLiteral("a request that never gets an answer"));
        d.expectLog(logLine, 3000);
        d.expectVersion(QStringLiteral("1.0.0"));
    };
}

void serviceKilledMidDownload(FaultDevice& d)
{
    if (!startStalledDownload(d))
        return;
    const int port = d.rig().servicePort();
    d.rig().killService();
    d.expectLog(kDownloadFailed, 5000);
    d.expectKeepsPlaying(3000, QStringLiteral("the service gone"));
    if (!serviceBack(d, port))
        return;
    d.expectLog(kUpdated, kUpdateMs);
    d.expectKeepsPlaying(3000, QStringLiteral("the update after the service came back"));
}

void serviceAbsent(FaultDevice& d)
{
    const int port = closedPort();
    Setup setup;
    setup.versionUrl = QStringLiteral("http://127.0.0.1:%1/config.json").arg(port);
    if (!d.start(setup))
        return;
    d.expectKeepsPlaying(4000, QStringLiteral("no service"));
    d.expectLog(kNoConfig + QStringLiteral("0"));
    if (!serviceBack(d, port))
        return;
    d.expectLog(kUpdated, kUpdateMs);
    d.expectKeepsPlaying(3000, QStringLiteral("the update once the service is there"));
}

Scenario badVersionUrl(const QString& url)
{
    return [=](FaultDevice& d) {
        Setup setup;
        setup.versionUrl = url;
        if (!d.start(setup))
            return;
        d.expectKeepsPlaying(4000, QStringLiteral("checks of a bad URL"));
        d.expectLog(kNoConfig + QStringLiteral("0"));
        d.expectVersion(QStringLiteral("1.0.0"));
    };
}

// A document with no length that never ends, at every check: read only up to 64 KiB, so the
// host's memory stays where it was (it grew by megabytes a second when the whole body was read).
void endlessDocument(FaultDevice& d)
{
    if (!d.start(offering(QStringLiteral("1.1.0"))))
        return;
    const qint64 before = residentKiB(d.rig().hostPid());
    if (!d.serviceFails({QStringLiteral("config-endless")}))
        return;
    d.expectKeepsPlaying(8000, QStringLiteral("endless documents"));
    d.expectLog(QStringLiteral("ERROR [Orvello] The config JSON is longer than 65536 bytes; it is cut there and not used"));
    const qint64 after = residentKiB(d.rig().hostPid());
    if (before < 0 || after < 0)
        return d.setupError(QStringLiteral("cannot read the host's memory"));
    qInfo("host's resident memory: %lld KiB before the endless documents, %lld KiB after", before, after);
    // ASan keeps freed memory in its quarantine (up to 256 MB), so only the other builds can
    // judge the host by its size; the ASan build judges what happens to that memory.
#ifndef __SANITIZE_ADDRESS__
    if (after - before > 16 * 1024)
        d.fail(QStringLiteral("the host grew from %1 KiB to %2 KiB reading endless documents").arg(before).arg(after));
#endif
    if (!d.serviceFails({}))
        return;
    d.expectLog(kUpdated, kUpdateMs);
}

// A document that drips one byte every 20 s, so no inactivity timeout ever fires: the check
// ends at its deadline.
void drippingDocument(FaultDevice& d)
{
    Setup setup = offering(QStringLiteral("1.1.0"), {QStringLiteral("config-drip=20000")});
    setup.checkSeconds = 600;
    if (!d.start(setup))
        return;
    d.expectKeepsPlaying(30000, QStringLiteral("a document that never finishes"));
    d.expectLog(QStringLiteral("ERROR [Orvello] The config JSON did not arrive within 30 s; the check is cancelled"), 4000);
    d.expectLogAtMost(QStringLiteral("The config JSON did not arrive within"), 1);
    d.expectVersion(QStringLiteral("1.0.0"));
}

// A version, then a link, that carry a line feed and a whole log line behind it, with the
// module's lines down to TRACE on (where the raw document is logged): every line that holds
// the remote text holds it escaped, and no line of the log was written by the server.
void forgedLogLines(FaultDevice& d)
{
    const QString config = d.workDir() + QStringLiteral("/log.properties");
    if (!writeBytes(config, "log4cplus.rootLogger=INFO, STDERR\n"
                            "log4cplus.logger.Orvello=TRACE\n"
                            "log4cplus.appender.STDERR=log4cplus::ConsoleAppender\n"
                            "log4cplus.appender.STDERR.logToStdErr=true\n"
                            "log4cplus.appender.STDERR.ImmediateFlush=true\n"
                            "log4cplus.appender.STDERR.layout=log4cplus::PatternLayout\n"
                            "log4cplus.appender.STDERR.layout.ConversionPattern=%D{%H:%M:%S.%q} %-5p [%c] %m%n\n"))
        return d.setupError(QStringLiteral("cannot write %1").arg(config));
    d.rig().setExtraHostArguments({QStringLiteral("--log-config"), config});
    if (!d.start(offering(QStringLiteral("1.1.0"), {QStringLiteral("config-control-version")})))
        return;
    d.expectLog(QStringLiteral("ERROR [Orvello] Refusing the config JSON: its version \"1.1.0\\n12:00:00.000 INFO  [Orvello] "
                               "Running SDK version: 6.6.6-forged\" is not 1 to 64 printable ASCII characters (character 6 is U+000a)"),
                5000);
    if (!d.serviceFails({QStringLiteral("config-control-link")}))
        return;
    d.expectLog(QStringLiteral("DEBUG [Orvello] Config link: http://127.0.0.1:"), 5000);
    d.expectLog(kDownloadFailed, 5000);
    d.expectKeepsPlaying(2000, QStringLiteral("documents with forged lines"));
    static const QRegularExpression forged(QStringLiteral("^\\d\\d:\\d\\d:\\d\\d\\.\\d{3} INFO  \\[Orvello\\] Running SDK version: 6\\.6\\.6"));
    const QStringList log = d.log();
    if (!log.filter(forged).isEmpty())
        d.fail(QStringLiteral("the server wrote a line of the log: %1").arg(log.filter(forged).first()));
    for (const QString& line : log.filter(QStringLiteral("6.6.6-forged")))
        if (!line.contains(QLatin1String("\\n12:00:00.000 INFO  [Orvello] Running SDK version: 6.6.6-forged")))
            d.fail(QStringLiteral("remote text reached the log unescaped: %1").arg(line.left(300)));
    if (log.filter(QStringLiteral("6.6.6-forged")).filter(QStringLiteral("TRACE [Orvello] OVM Config JSON:")).isEmpty())
        d.fail(QStringLiteral("the TRACE line of the document is not in the log"));
    d.expectVersion(QStringLiteral("1.0.0"));
    if (!d.serviceFails({}))
        return;
    d.expectLog(kUpdated, kUpdateMs);
}
