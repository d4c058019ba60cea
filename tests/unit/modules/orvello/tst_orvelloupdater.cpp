#include "ChildProcesses.h"
#include "LogCapture.h"
#include "NginxTls.h"
#include "OrvelloServiceProcess.h"
#include "TestFiles.h"
#include "TestPlatform.h"
#include "TestSigning.h"

#include "LibraryFiles.h"
#include "LibraryStore.h"
#include "OrvelloUpdater.h"
#include "UpdateSignature.h"

#include "model/cmnode.h"
#include "model/cmnodes.h"
#include "model/cmworker.h"
#include "vrax/vraxpaths.h"

#include <QDir>
#include <QFile>
#include <QNetworkReply>
#include <QProcess>
#include <QScopeGuard>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

#include <log4cplus/loglevel.h>

#include <memory>

#include <unistd.h>

namespace {
const QString kDest = QString::fromLatin1(OrvelloUpdater::TMP_DOWNLOAD_DEST);
const QString kTmp = kDest + QStringLiteral(".tmp");
const QString kRecord = LibraryStore().recordPath();

// The library version the device runs, as the worker publishes it.
class VersionNode
{
public:
    explicit VersionNode(const QString& version)
        : m_worker(QVariantHash(), QStringLiteral("tst_orvelloupdater"))
        , m_node(CMValueNode::create(m_worker.nodes(), VraxOrvelloSdkVersion(), nullptr))
    {
        set(version);
    }
    ~VersionNode() { delete m_node; }
    void set(const QString& version)
    {
        VraxValue value;
        value.setString_(version);
        m_node->setValue(value);
    }

private:
    CMNodesWorker m_worker;
    CMValueNode* m_node;
};
} // namespace

class tst_OrvelloUpdater : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void init();
    void newerVersionIsInstalledForUse();
    void versionNotNewer_data();
    void versionNotNewer();
    void failures_data();
    void failures();
    void staleDestinationIsWhatGetsVerified_data();
    void staleDestinationIsWhatGetsVerified();
    void neverRequests_data();
    void neverRequests();
    void verify_data();
    void verify();
    void oneDownloadAtATime();
    void oneDownloadPerOffer_data();
    void oneDownloadPerOffer();
    void deadlines_data();
    void deadlines();
    void failedWriteEndsItsDeadline();

private:
    // Starts the service offering `offered`, a platform pointing at it and the version node.
    void setUp(const QString& current, const QString& offered, const QStringList& faults = {},
               int intervalSeconds = 3600, bool withUrl = true);
    QStringList orvelloLines(log4cplus::LogLevel level) const { return m_log->messages(level, "Orvello"); }

    QTemporaryDir m_libraryDir;
    QByteArray m_library;
    std::unique_ptr<LogCapture> m_log;
    std::unique_ptr<OrvelloServiceProcess> m_service;
    std::unique_ptr<TestPlatform> m_platform;
    std::unique_ptr<VersionNode> m_version;
};

void tst_OrvelloUpdater::initTestCase()
{
    SKIP_WITHOUT_CHILD_PROCESSES();
    QVERIFY(m_libraryDir.isValid());
    m_library = QByteArray("\x7f" "ELF fake player library 1.1.0\n").repeated(3000);
    QVERIFY(writeBytes(m_libraryDir.filePath("liboplayer-1.so"), m_library));
}

void tst_OrvelloUpdater::init()
{
    m_version.reset();
    m_platform.reset();
    m_service.reset();
    m_log.reset();
    QDir(QString::fromLatin1(OrvelloUpdater::TMP_DOWNLOAD_PATH)).removeRecursively();
    QVERIFY(QDir().mkpath(QString::fromLatin1(OrvelloUpdater::TMP_DOWNLOAD_PATH)));
}

void tst_OrvelloUpdater::setUp(const QString& current, const QString& offered, const QStringList& faults,
                               int intervalSeconds, bool withUrl)
{
    m_service = std::make_unique<OrvelloServiceProcess>(QStringLiteral(ORVELLO_SERVICE_PATH));
    QStringList args = QStringList{"--dir", m_libraryDir.path(), "--version", offered, "--library", "liboplayer-1.so"}
                       + OrvelloServiceProcess::testKeyArguments();
    for (const QString& fault : faults)
        args << "--fail" << fault;
    QString error;
    QVERIFY2(m_service->start(args, &error), qPrintable(error));
    m_platform = std::make_unique<TestPlatform>(QVariantHash{
        {VraxOrvelloVersionUrl().toString(), withUrl ? m_service->url("/config.json") : QString()},
        {VraxOrvelloUpdateCheckIntervalSeconds().toString(), intervalSeconds},
        {VraxOrvelloDeviceId().toString(), "dev-42"},
        {VraxOrvelloProvisioningVendorIdPath().toString(), "vendor-7"},
    });
    m_version = std::make_unique<VersionNode>(current);
    m_log = std::make_unique<LogCapture>();
}

void tst_OrvelloUpdater::newerVersionIsInstalledForUse()
{
    setUp("1.0.0", "1.1.0");
    OrvelloUpdater updater;
    QSignalSpy finished(&updater, &OrvelloUpdater::updateFinished);
    QTRY_COMPARE_WITH_TIMEOUT(finished.count(), 1, 10000);

    QCOMPARE(fileBytes(kDest), m_library);
    QVERIFY(!QFile::exists(kTmp));
    const VerifiedDownload record = LibraryFiles::readRecord(kRecord);
    QCOMPARE(record.version, QStringLiteral("1.1.0"));
    QCOMPARE(record.checksum, sha256Hex(m_library));
    // The signature goes with the record, so it can be checked again before the install.
    QVERIFY(!record.signature.isEmpty());
    QCOMPARE(UpdateSignature::builtIn().problem(record.version, record.checksum, record.signature), QString());
    const QString configUrl = m_service->url("/config.json");
    const QString link = m_service->url("/files/liboplayer-1.so");
    const QStringList info = orvelloLines(log4cplus::INFO_LOG_LEVEL);
    QCOMPARE(info.size(), 6);
    QCOMPARE(info.at(0), QStringLiteral("Enter OrvelloUpdater::check()"));
    QCOMPARE(info.at(1), "Checking for update with device id <dev-42> and vendor id <vendor-7> at " + configUrl);
    QCOMPARE(info.at(2), QStringLiteral("Current version:1.0.0"));
    QCOMPARE(info.at(3), QStringLiteral("Version 1.1.0 is signed with the device's update key"));
    QCOMPARE(info.at(4), QStringLiteral("Downloading version 1.1.0"));
    QCOMPARE(info.at(5), QStringLiteral("Completed downloading new OVM library version."));
    QCOMPARE(orvelloLines(log4cplus::DEBUG_LOG_LEVEL),
             QStringList({"Config version: 1.1.0", "Config link: " + link}));
    const QStringList trace = orvelloLines(log4cplus::TRACE_LOG_LEVEL);
    QCOMPARE(trace.size(), 2);
    QVERIFY2(trace.at(0).startsWith("OVM Config JSON:{"), qPrintable(trace.at(0)));
    QCOMPARE(trace.at(1), "Enter OrvelloUpdater::downloadLibrary(const QString&): url: '" + link);
    QVERIFY2(m_log->messagesAtLeast(log4cplus::WARN_LOG_LEVEL).isEmpty(), qPrintable(m_log->dump()));

    const QJsonArray requests = m_service->requests();
    QCOMPARE(requests.size(), 2);
    const QJsonObject check = requests.at(0).toObject();
    QCOMPARE(check.value("path").toString(), QStringLiteral("/config.json"));
    QCOMPARE(check.value("X-Device-Key-0").toString(), QStringLiteral("eth0"));
    QCOMPARE(check.value("X-Device-Id-0").toString(), QStringLiteral("dev-42"));
    QCOMPARE(check.value("X-Device-Vendor").toString(), QStringLiteral("vendor-7"));
    const QJsonObject download = requests.at(1).toObject();
    QCOMPARE(download.value("path").toString(), QStringLiteral("/files/liboplayer-1.so"));
    QVERIFY(!download.contains("X-Device-Id-0"));
}

void tst_OrvelloUpdater::versionNotNewer_data()
{
    QTest::addColumn<QString>("current");
    QTest::addColumn<QString>("offered");
    QTest::newRow("equal") << "1.2.3" << "1.2.3";
    QTest::newRow("compared as text") << "1.9.0" << "1.10.0";
    QTest::newRow("older") << "2.0.0" << "1.9.9";
}

void tst_OrvelloUpdater::versionNotNewer()
{
    QFETCH(QString, current);
    QFETCH(QString, offered);
    setUp(current, offered);
    OrvelloUpdater updater;
    QSignalSpy finished(&updater, &OrvelloUpdater::updateFinished);
    const QString ignoring = "Version " + offered + " already on the device, ignoring...";
    QTRY_VERIFY_WITH_TIMEOUT(m_log->contains(log4cplus::INFO_LOG_LEVEL, ignoring), 10000);
    QCOMPARE(orvelloLines(log4cplus::INFO_LOG_LEVEL).last(), ignoring);
    QVERIFY(orvelloLines(log4cplus::INFO_LOG_LEVEL).contains("Current version:" + current));
    QCOMPARE(m_service->requests().size(), 1);
    QCOMPARE(finished.count(), 0);
    QVERIFY(!QFile::exists(kDest));
}

void tst_OrvelloUpdater::failures_data()
{
    QTest::addColumn<QStringList>("faults");
    QTest::addColumn<QStringList>("errors"); // every ERROR line, in order; "*" ends a prefix
    QTest::addColumn<bool>("downloaded");    // a file was left at the destination

    const QString failed = QStringLiteral("Failed to download new OVM library version.");
    const QString unverified = QStringLiteral("Failed to verify downlaoded library");
    const QString notSigned = QStringLiteral("Not downloading version 1.1.0: the signature does not verify with the "
                                             "device's update key; checking again at the next interval");
    const QString notVersion = QStringLiteral("Refusing the config JSON: its version \"%1\" is not 1 to 64 printable "
                                              "ASCII characters (%2); checking again at the next interval");
    // clang-format off
    QTest::newRow("config 404") << QStringList{"config-status=404"}
        << QStringList{"Getting config JSON ended with HTTP code: 404"} << false;
    QTest::newRow("config 500") << QStringList{"config-status=500"}
        << QStringList{"Getting config JSON ended with HTTP code: 500"} << false;
    QTest::newRow("config empty") << QStringList{"config-empty"}
        << QStringList{"JSON fetch result output is empty."} << false;
    QTest::newRow("config not JSON") << QStringList{"config-not-json"}
        << QStringList{"An error occurred during parsing of the config JSON: *"} << false;
    QTest::newRow("library 404") << QStringList{"library-status=404"}
        << QStringList{"Downloading library failed with HTTP code: 404", failed} << false;
    QTest::newRow("library truncated") << QStringList{"library-truncated"}
        << QStringList{"Downloading library failed: *", failed} << false;
    QTest::newRow("library over 16 MiB") << QStringList{"library-oversized"}
        << QStringList{"Downloading library failed: Body of 16842752 bytes exceeds the limit of 16777216", failed} << false;
    QTest::newRow("library over 16 MiB, no length") << QStringList{"library-oversized-chunked"}
        << QStringList{"Downloading library failed: Body exceeds the limit of 16777216 bytes", failed} << false;
    // The service signed what it published: the signature holds, the file does not match.
    QTest::newRow("wrong checksum") << QStringList{"wrong-checksum"} << QStringList{unverified} << true;
    QTest::newRow("uppercase checksum") << QStringList{"uppercase-checksum"}
        << QStringList{"Not downloading version 1.1.0: the checksum is not 64 lowercase hexadecimal digits, which is "
                       "what the signature covers; checking again at the next interval"} << false;
    QTest::newRow("no signature") << QStringList{"signature-missing"}
        << QStringList{"Not downloading version 1.1.0: the signature is missing; checking again at the next interval"} << false;
    QTest::newRow("signed by another key") << QStringList{"signature-other-key"} << QStringList{notSigned} << false;
    QTest::newRow("signature of another version") << QStringList{"signature-version=1.0.9"} << QStringList{notSigned} << false;
    QTest::newRow("no version") << QStringList{"config-missing-fields"}
        << QStringList{notVersion.arg("", "it is empty or not text")} << false;
    QTest::newRow("version not text") << QStringList{"config-wrong-types"}
        << QStringList{notVersion.arg("", "it is empty or not text")} << false;
    QTest::newRow("version of 1,000 characters") << QStringList{"config-long-version"}
        << QStringList{notVersion.arg(QString("1.1.0.9").leftJustified(80, '9') + "...",
                                      "it is 1000 characters long")} << false;
    QTest::newRow("version with a forged log line") << QStringList{"config-control-version"}
        << QStringList{notVersion.arg("1.1.0\\n12:00:00.000 INFO  [Orvello] Running SDK version: 6.6.6-forged",
                                      "character 6 is U+000a")} << false;
    QTest::newRow("document without end") << QStringList{"config-endless"}
        << QStringList{"The config JSON is longer than 65536 bytes; it is cut there and not used, checking again at "
                       "the next interval"} << false;
    // clang-format on
}

void tst_OrvelloUpdater::failures()
{
    QFETCH(QStringList, faults);
    QFETCH(QStringList, errors);
    QFETCH(bool, downloaded);
    setUp("1.0.0", "1.1.0", faults);
    OrvelloUpdater updater;
    QSignalSpy finished(&updater, &OrvelloUpdater::updateFinished);

    const QString lastError = errors.last();
    auto matches = [](const QString& line, const QString& expected) {
        return expected.endsWith('*') ? line.startsWith(expected.chopped(1)) : line == expected;
    };
    QTRY_VERIFY2_WITH_TIMEOUT(!orvelloLines(log4cplus::ERROR_LOG_LEVEL).isEmpty()
                                  && matches(orvelloLines(log4cplus::ERROR_LOG_LEVEL).last(), lastError),
                              qPrintable(m_log->dump()), 20000);
    const QStringList got = orvelloLines(log4cplus::ERROR_LOG_LEVEL);
    QCOMPARE(got.size(), errors.size());
    for (int i = 0; i < errors.size(); ++i)
        QVERIFY2(matches(got.at(i), errors.at(i)), qPrintable(got.at(i)));
    QVERIFY(m_log->messages(log4cplus::WARN_LOG_LEVEL).isEmpty());
    QVERIFY(m_log->messages(log4cplus::FATAL_LOG_LEVEL).isEmpty());
    // Remote text never breaks a line, at any level.
    for (const LogCapture::Line& line : m_log->lines())
        QVERIFY2(!line.message.contains('\n') && !line.message.contains('\r'), qPrintable(line.message));
    QCOMPARE(finished.count(), 0);
    QVERIFY(!QFile::exists(kTmp));
    QCOMPARE(QFile::exists(kDest), downloaded);
    QVERIFY(!QFile::exists(kRecord));
    // The check is over: nothing is left running until the next tick, no deadline either.
    QTRY_COMPARE(updater.findChildren<QNetworkReply*>().size(), 0);
    QTRY_COMPARE(updater.findChildren<QTimer*>(QString(), Qt::FindDirectChildrenOnly).size(), 1);
    QVERIFY(updater.findChildren<QTimer*>(QString(), Qt::FindDirectChildrenOnly).first()->isActive());
}

void tst_OrvelloUpdater::staleDestinationIsWhatGetsVerified_data()
{
    QTest::addColumn<bool>("staleIsTheOfferedLibrary");
    QTest::newRow("stale file differs") << false;
    QTest::newRow("stale file is the offered library") << true;
}

void tst_OrvelloUpdater::staleDestinationIsWhatGetsVerified()
{
    QFETCH(bool, staleIsTheOfferedLibrary);
    const QByteArray stale = staleIsTheOfferedLibrary ? m_library : QByteArray("an older download");
    QVERIFY(writeBytes(kDest, stale)); // left by a download that did not verify
    setUp("1.0.0", "1.1.0");
    OrvelloUpdater updater;
    QSignalSpy finished(&updater, &OrvelloUpdater::updateFinished);
    QTRY_VERIFY_WITH_TIMEOUT(
        m_log->contains(log4cplus::INFO_LOG_LEVEL, "Completed downloading new OVM library version."), 10000);
    QCOMPARE(finished.count(), staleIsTheOfferedLibrary ? 1 : 0);
    QCOMPARE(orvelloLines(log4cplus::ERROR_LOG_LEVEL),
             staleIsTheOfferedLibrary ? QStringList() : QStringList{"Failed to verify downlaoded library"});
    QCOMPARE(fileBytes(kDest), stale);
    QVERIFY(!QFile::exists(kTmp));
    QCOMPARE(m_service->requests().size(), 2);
    // The record follows the last verification: gone when it failed.
    QCOMPARE(LibraryFiles::readRecord(kRecord).version, staleIsTheOfferedLibrary ? "1.1.0" : QString());
}

void tst_OrvelloUpdater::neverRequests_data()
{
    QTest::addColumn<bool>("withUrl");
    QTest::addColumn<int>("interval");
    QTest::addColumn<QStringList>("lines"); // every log line
    QTest::newRow("no URL") << false << 3600 << QStringList{"Version url is empty, updater will not work"};
    QTest::newRow("interval zero") << true << 0 << QStringList();
    QTest::newRow("interval negative") << true << -60 << QStringList();
}

void tst_OrvelloUpdater::neverRequests()
{
    QFETCH(bool, withUrl);
    QFETCH(int, interval);
    QFETCH(QStringList, lines);
    setUp("1.0.0", "1.1.0", {}, interval, withUrl);
    OrvelloUpdater updater;
    QCOMPARE(m_log->messages(log4cplus::FATAL_LOG_LEVEL, "Orvello"), lines);
    QVERIFY2(m_log->lines().size() == lines.size(), qPrintable(m_log->dump()));
    QVERIFY(updater.findChildren<QNetworkReply*>().isEmpty());
    QVERIFY(!updater.findChildren<QTimer*>(QString(), Qt::FindDirectChildrenOnly).first()->isActive());
    QVERIFY(m_service->requests().isEmpty());
}

void tst_OrvelloUpdater::verify_data()
{
    QTest::addColumn<bool>("present");
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("checksum");
    QTest::addColumn<bool>("verified");
    const QByteArray lib("library bytes");
    QTest::newRow("matches") << true << lib << sha256Hex(lib) << true;
    QTest::newRow("uppercase never matches") << true << lib << sha256Hex(lib).toUpper() << false;
    QTest::newRow("other digest") << true << lib << sha256Hex("other") << false;
    QTest::newRow("empty checksum") << true << lib << QString() << false;
    QTest::newRow("empty file, digest of nothing") << true << QByteArray() << sha256Hex(QByteArray()) << true;
    QTest::newRow("empty file, other digest") << true << QByteArray() << sha256Hex(lib) << false;
    QTest::newRow("no file") << false << QByteArray() << sha256Hex(QByteArray()) << false;
    // Longer than one read block, not a multiple of it.
    const QByteArray big = QByteArray("0123456789abcdef").repeated(1000);
    QTest::newRow("several blocks") << true << big << sha256Hex(big) << true;
}

void tst_OrvelloUpdater::verify()
{
    QFETCH(bool, present);
    QFETCH(QByteArray, content);
    QFETCH(QString, checksum);
    QFETCH(bool, verified);
    setUp("1.0.0", "1.1.0", {}, 0);
    if (present)
        QVERIFY(writeBytes(kDest, content));
    OrvelloUpdater updater;
    QCOMPARE(updater.verifyDownloadedLib(VraxOrvelloVersionInfo(QVariantHash{{"checksum", checksum}})), verified);
    QVERIFY(m_log->lines().isEmpty());
    QCOMPARE(QFile::exists(kDest), present);
}

// Downloads slower than the check interval: later checks start none of their own, and a direct
// call is refused without touching the running download's file.
void tst_OrvelloUpdater::oneDownloadAtATime()
{
    setUp("1.0.0", "1.1.0", {"library-delay=2500"}, 1);
    OrvelloUpdater updater;
    QSignalSpy finished(&updater, &OrvelloUpdater::updateFinished);
    QTRY_VERIFY_WITH_TIMEOUT(updater.downloadRunning(), 5000);
    const QString link = m_service->url("/files/liboplayer-1.so");
    const CMReply<bool> second = updater.downloadLibrary(link);
    QVERIFY(second.isFinished());
    QCOMPARE(second.value(), false);
    QCOMPARE(orvelloLines(log4cplus::ERROR_LOG_LEVEL),
             QStringList{"A library download is still running, not starting another from " + link});
    QVERIFY(QFile::exists(kTmp));

    QTRY_COMPARE_WITH_TIMEOUT(finished.count(), 1, 10000);
    const QString skipped = QStringLiteral("A library download is still running, not starting another for version 1.1.0");
    QVERIFY2(m_log->count(log4cplus::DEBUG_LOG_LEVEL, skipped) >= 1, qPrintable(m_log->dump()));
    int downloads = 0;
    for (const QJsonValue& request : m_service->requests())
        downloads += request.toObject().value("path").toString().startsWith("/files/");
    QCOMPARE(downloads, 1);
    QCOMPARE(fileBytes(kDest), m_library);
    QCOMPARE(orvelloLines(log4cplus::ERROR_LOG_LEVEL).size(), 1);
}


void tst_OrvelloUpdater::oneDownloadPerOffer_data()
{
    QTest::addColumn<QString>("situation");
    QTest::addColumn<QString>("line"); // what the check says instead of handing over a download
    QTest::newRow("verified and waiting for the song end")
        << "waiting" << "DEBUG Version 1.1.0 is downloaded and verified already and waits to be installed at the end of "
                        "the song; not downloading it again";
    QTest::newRow("another version waiting for the song end")
        << "other" << "DEBUG Version 1.0.5 is downloaded and verified already and waits to be installed at the end of "
                      "the song; version 1.1.0 is downloaded once it is in";
    QTest::newRow("swapped in while it downloaded")
        << "swap" << "INFO Version 1.1.0 finished downloading, but version 1.1.0 runs now; the download is dropped";
}

// An offer is downloaded once, one swap at a time: not while a verified file (this one or
// another) waits for the song end, and a download that lands after the swap brought its version
// is dropped rather than swapped in twice.
void tst_OrvelloUpdater::oneDownloadPerOffer()
{
    QFETCH(QString, situation);
    QFETCH(QString, line);
    const bool waiting = situation != QLatin1String("swap");
    if (waiting) {
        QString error;
        const QByteArray file = situation == QLatin1String("other") ? QByteArray("library 1.0.5") : m_library;
        QVERIFY(writeBytes(kDest, file));
        const QString version = situation == QLatin1String("other") ? "1.0.5" : "1.1.0";
        QVERIFY(LibraryFiles::writeRecord(kRecord, {version, sha256Hex(file), testSignature(version, sha256Hex(file))}, &error));
    }
    setUp("1.0.0", "1.1.0", waiting ? QStringList() : QStringList{"library-delay=1500"});
    OrvelloUpdater updater;
    QSignalSpy finished(&updater, &OrvelloUpdater::updateFinished);
    if (!waiting) {
        QTRY_VERIFY_WITH_TIMEOUT(updater.downloadRunning(), 5000);
        m_version->set("1.1.0"); // the swap, as the host publishes the new library's version
    }
    const log4cplus::LogLevel level = waiting ? log4cplus::DEBUG_LOG_LEVEL : log4cplus::INFO_LOG_LEVEL;
    const QString text = line.section(QLatin1Char(' '), 1);
    QTRY_VERIFY_WITH_TIMEOUT(m_log->contains(level, text), 10000);
    QCOMPARE(finished.count(), 0);
    int downloads = 0;
    for (const QJsonValue& request : m_service->requests())
        downloads += request.toObject().value("path").toString().startsWith("/files/");
    QCOMPARE(downloads, waiting ? 0 : 1);
    // What waited stays for its install; what was dropped leaves nothing to install.
    QCOMPARE(QFile::exists(kDest), waiting);
    QCOMPARE(QFile::exists(kRecord), waiting);
    QVERIFY(!QFile::exists(kTmp));
    QVERIFY2(m_log->messagesAtLeast(log4cplus::WARN_LOG_LEVEL).isEmpty(), qPrintable(m_log->dump()));
}

void tst_OrvelloUpdater::deadlines_data()
{
    QTest::addColumn<QStringList>("faults");
    QTest::addColumn<QStringList>("errors"); // every ERROR line, in order; "*" ends a prefix
    const QString checkEnded = QStringLiteral("The config JSON did not arrive within 1 s; the check is cancelled, the "
                                              "next one comes at the next interval");
    const QString downloadEnded = QStringLiteral("The library download from *");
    const QString failed = QStringLiteral("Failed to download new OVM library version.");
    QTest::newRow("document never comes") << QStringList{"config-delay=8000"} << QStringList{checkEnded};
    QTest::newRow("document drips, a byte every 300 ms") << QStringList{"config-drip=300"} << QStringList{checkEnded};
    QTest::newRow("download stalls half way") << QStringList{"library-stall=8000"} << QStringList{downloadEnded, failed};
}

// The overall deadlines, shortened: a request that keeps trickling or never answers ends with
// one line that says so, and leaves nothing behind.
void tst_OrvelloUpdater::deadlines()
{
    QFETCH(QStringList, faults);
    QFETCH(QStringList, errors);
    setUp("1.0.0", "1.1.0", faults, 0); // no check of its own: the one below has the short deadlines
    OrvelloUpdater updater;
    updater.setDeadlines(std::chrono::seconds(1), std::chrono::seconds(2));
    updater.check();
    QSignalSpy finished(&updater, &OrvelloUpdater::updateFinished);
    auto matches = [](const QString& line, const QString& expected) {
        return expected.endsWith('*') ? line.startsWith(expected.chopped(1)) : line == expected;
    };
    QTRY_VERIFY2_WITH_TIMEOUT(orvelloLines(log4cplus::ERROR_LOG_LEVEL).size() >= errors.size(), qPrintable(m_log->dump()), 10000);
    const QStringList got = orvelloLines(log4cplus::ERROR_LOG_LEVEL);
    for (int i = 0; i < errors.size(); ++i)
        QVERIFY2(matches(got.at(i), errors.at(i)), qPrintable(got.at(i)));
    if (got.first().startsWith("The library download"))
        QCOMPARE(got.first(), "The library download from " + m_service->url("/files/liboplayer-1.so")
                                  + " did not finish within 2 s; it is cancelled, trying again at the next check");
    QCOMPARE(finished.count(), 0);
    QVERIFY(!QFile::exists(kTmp));
    QVERIFY(!QFile::exists(kDest));
    QVERIFY(!updater.downloadRunning());
}

// A write that fails answers the download at once while the transfer runs on to its end; the
// download's deadline ends with the transfer, not 15 minutes later with a line of its own.
void tst_OrvelloUpdater::failedWriteEndsItsDeadline()
{
    if (::getuid() != 0 || !inPrivateMountNamespace())
        QSKIP("fills a tmpfs mounted over /tmp/orvello: needs root in a private mount namespace (private-tmp)");
    const QString scratch = QString::fromLatin1(OrvelloUpdater::TMP_DOWNLOAD_PATH);
    QCOMPARE(QProcess::execute("mount", {"-t", "tmpfs", "-o", "size=64k,mode=0700", "tmpfs", scratch}), 0);
    const auto unmount = qScopeGuard([&scratch] { QProcess::execute("umount", {"-l", scratch}); });
    setUp("1.0.0", "1.1.0", {}, 0);
    OrvelloUpdater updater;
    updater.setDeadlines(std::chrono::seconds(30), std::chrono::seconds(60));
    updater.check();
    QTRY_VERIFY_WITH_TIMEOUT(m_log->contains(log4cplus::ERROR_LOG_LEVEL, "Failed to download new OVM library version."), 10000);
    QCOMPARE(orvelloLines(log4cplus::ERROR_LOG_LEVEL),
             QStringList({"Error while writing to local file", "Failed to download new OVM library version."}));
    QTRY_COMPARE(updater.findChildren<QNetworkReply*>().size(), 0);
    QTRY_COMPARE(updater.findChildren<QTimer*>(QString(), Qt::FindDirectChildrenOnly).size(), 1);
    QVERIFY(!QFile::exists(kTmp));
}

QTEST_GUILESS_MAIN(tst_OrvelloUpdater)
#include "tst_orvelloupdater.moc"
