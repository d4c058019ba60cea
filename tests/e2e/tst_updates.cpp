// Updates that go wrong, on the running device: vrax-host with liborvello.so at realtime pace,
// the reference library (1.0.0, 1.1.0), the update service emulator and a private /tmp. Each
// case injects one fault and judges the device by what a listener hears (the pipeline's byte
// counter), which library version runs, the files left behind and the log.
#include "ChildProcesses.h"
#include "DeviceRig.h"
#include "OrvelloServiceProcess.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTest>

namespace {

const DeviceRig::Paths kPaths{QStringLiteral(VRAX_HOST_PATH), QStringLiteral(ORVELLO_MODULE_PATH),
                              QStringLiteral(ORVELLO_SERVICE_PATH)};
constexpr double kBytesPerSecond = 44100.0 * 2 * 2;
const QString kDownload = QStringLiteral("/tmp/orvello/liboplayer-1.so");
// The reference library ends a track after this long, so a swap comes soon after an update.
const QStringList kLibraryEnv{QStringLiteral("OPLAYER_REF_TRACK_SECONDS=2")};

QByteArray fileBytes(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool writeBytes(const QString& path, const QByteArray& bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size();
}

QString stringValue(DeviceRig& rig, const QString& path)
{
    return rig.get(QStringLiteral("/api/value?path=") + path)
        .body.value(QStringLiteral("value")).toObject().value(QStringLiteral("string_")).toString();
}

int playState(DeviceRig& rig)
{
    return rig.get(QStringLiteral("/api/playlogic")).body.value(QStringLiteral("state")).toInt(-1);
}

double pipelineBytes(DeviceRig& rig)
{
    return rig.get(QStringLiteral("/api/pipeline")).body.value(QStringLiteral("bytes")).toDouble();
}

int logCount(DeviceRig& rig, const QString& text)
{
    return rig.hostLog().filter(text).size();
}

} // namespace

class TestUpdates : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { SKIP_WITHOUT_CHILD_PROCESSES(); }
    void init();
    void cleanup();
    void damagedLibraryAtStart_data();
    void damagedLibraryAtStart();
    void badUpdateIsRolledBack_data();
    void badUpdateIsRolledBack();
    void unverifiedDownloadIsNeverInstalled();
    void silentDeviceSearchesAgain();

private:
    QString installedPath() const { return m_rig->dataDir() + QStringLiteral("/data-rw/orvello/liboplayer-1.so"); }
    // The service offering version with the given library file.
    void startService(const QString& version, const QByteArray& library, const QStringList& faults = {});
    void startHost();
    // A second of audio reaches the pipeline within timeoutMs.
    bool audioFlows(int timeoutMs);

    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<DeviceRig> m_rig;
    std::unique_ptr<OrvelloServiceProcess> m_service;
};

void TestUpdates::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
    QDir(QStringLiteral("/tmp/orvello")).removeRecursively();
    m_rig = std::make_unique<DeviceRig>(kPaths, m_dir->path());
}

void TestUpdates::cleanup()
{
    if (QTest::currentTestFailed() && m_rig)
        qWarning("%s", qPrintable(m_rig->hostLog().join(QLatin1Char('\n'))));
    m_rig.reset();
    m_service.reset();
}

void TestUpdates::startService(const QString& version, const QByteArray& library, const QStringList& faults)
{
    const QString dir = m_dir->path() + QStringLiteral("/service");
    QVERIFY(writeBytes(dir + QStringLiteral("/liboplayer-1.so"), library));
    QStringList arguments{QStringLiteral("--dir"), dir, QStringLiteral("--version"), version,
                          QStringLiteral("--library"), QStringLiteral("liboplayer-1.so")};
    for (const QString& fault : faults)
        arguments << QStringLiteral("--fail") << fault;
    m_service = std::make_unique<OrvelloServiceProcess>();
    QString error;
    QVERIFY2(m_service->start(arguments, &error), qPrintable(error));
}

void TestUpdates::startHost()
{
    const QVariantHash settings{
        {QStringLiteral("settings/orvello/token"), QStringLiteral("paired-earlier")},
        {QStringLiteral("settings/orvello/versionUrl"), m_service ? m_service->url(QStringLiteral("/config.json")) : QString()},
        {QStringLiteral("settings/orvello/updateCheckIntervalSeconds"), 1},
        {QStringLiteral("settings/orvello/outputSampleRate"), 44100},
        {QStringLiteral("settings/orvello/outputChannels"), 2},
        {QStringLiteral("settings/orvello/cacheEnabled"), true},
        {QStringLiteral("settings/system/serialNumber"), QStringLiteral("SN-UPDATES")},
        {QStringLiteral("settings/system/productName"), QStringLiteral("Updates Amp")}};
    QString error;
    QVERIFY2(m_rig->startHost(settings, QStringLiteral("null"), QStringLiteral("realtime"), kLibraryEnv, &error),
             qPrintable(error));
}

bool TestUpdates::audioFlows(int timeoutMs)
{
    const double before = pipelineBytes(*m_rig);
    QDeadlineTimer deadline(timeoutMs);
    while (!deadline.hasExpired()) {
        if (pipelineBytes(*m_rig) >= before + kBytesPerSecond)
            return true;
        QTest::qWait(100);
    }
    return false;
}

// A library cut short by a power cut or a full disk lies in data-rw: the host must not map it
// (that is SIGBUS at every start) but play a copy further down the list, or wait without one.
// Survived: the host runs and answers, says which file it skipped and why, and plays 1.0.0
// when the developer build tree has it.
void TestUpdates::damagedLibraryAtStart_data()
{
    QTest::addColumn<int>("length"); // bytes of 1.1.0 left at data-rw/orvello/liboplayer-1.so
    QTest::addColumn<bool>("systemCopy");
    QTest::newRow("64 bytes, system copy") << 64 << true;
    QTest::newRow("2000 bytes, system copy") << 2000 << true;
    QTest::newRow("2000 bytes, nothing else") << 2000 << false;
}

void TestUpdates::damagedLibraryAtStart()
{
    QFETCH(int, length);
    QFETCH(bool, systemCopy);
    QVERIFY(writeBytes(installedPath(), fileBytes(QStringLiteral(OPLAYER_REF_1_1_0)).left(length)));
    if (systemCopy)
        QVERIFY(writeBytes(m_rig->devTreeLibraryPath(), fileBytes(QStringLiteral(OPLAYER_REF_1_0_0))));
    startHost();

    if (systemCopy) {
        QVERIFY(audioFlows(10000));
        QCOMPARE(stringValue(*m_rig, QStringLiteral("orvello/sdkVersion")), QStringLiteral("1.0.0"));
        QTRY_COMPARE_WITH_TIMEOUT(playState(*m_rig), 2, 5000);
    } else {
        QVERIFY(m_rig->waitForLog(QStringLiteral("ERROR [Orvello] Failed to load oplayer-1 library"), 10000));
        QVERIFY(m_rig->get(QStringLiteral("/api/pipeline")).ok());
        QCOMPARE(playState(*m_rig), 0);
    }
    QVERIFY(m_rig->waitForLog(
        QStringLiteral("ERROR [Orvello] Not loading liboplayer at data-rw/orvello/liboplayer-1.so: truncated"), 0));
    QCOMPARE(m_rig->stopHost(), 0);
}

// The service offers a "1.1.0" that passes verification but is no usable library. Survived:
// the update is installed once, fails, the previous 1.0.0 (the installed copy, or the system
// copy when there was none) plays on within seconds, the failed file is not installed again
// at later checks, and an installed 1.0.0 is still in its place.
void TestUpdates::badUpdateIsRolledBack_data()
{
    QTest::addColumn<QString>("offered");      // a library file, or "random" bytes
    QTest::addColumn<bool>("installedBefore"); // 1.0.0 in data-rw, else in the developer build tree
    QTest::addColumn<QString>("failure");      // the ERROR line that says why it does not load
    const QString random = QStringLiteral("random");
    const QString notElf = QStringLiteral("ERROR [Orvello] Not loading liboplayer at data-rw/orvello/liboplayer-1.so: "
                                          "not an ELF file");
    const QString noSymbol = QStringLiteral("ERROR [Orvello] Error resolving the OPLAYER_API symbol: ");
    const QString noCreate = QStringLiteral("ERROR [Orvello] Unable to allocate OPlayer. Error: 5");
    QTest::newRow("random bytes, installed copy") << random << true << notElf;
    QTest::newRow("random bytes, system copy") << random << false << notElf;
    QTest::newRow("no entry symbol, installed copy") << QStringLiteral(FAKE_NOSYMBOL) << true << noSymbol;
    QTest::newRow("no entry symbol, system copy") << QStringLiteral(FAKE_NOSYMBOL) << false << noSymbol;
    QTest::newRow("create fails, installed copy") << QStringLiteral(FAKE_CREATE_FAILS) << true << noCreate;
    QTest::newRow("create fails, system copy") << QStringLiteral(FAKE_CREATE_FAILS) << false << noCreate;
}

void TestUpdates::badUpdateIsRolledBack()
{
    QFETCH(QString, offered);
    QFETCH(bool, installedBefore);
    QFETCH(QString, failure);
    QByteArray library = offered == QLatin1String("random") ? QByteArray(300000, Qt::Uninitialized) : fileBytes(offered);
    if (offered == QLatin1String("random"))
        for (char& byte : library)
            byte = char(QRandomGenerator::global()->bounded(256));
    const QByteArray good = fileBytes(QStringLiteral(OPLAYER_REF_1_0_0));
    QVERIFY(writeBytes(installedBefore ? installedPath() : m_rig->devTreeLibraryPath(), good));
    startService(QStringLiteral("1.1.0"), library);
    startHost();

    const QString swapped = QStringLiteral("End of oplayer main loop, cleaning up");
    QVERIFY(m_rig->waitForLog(swapped, 20000));
    QVERIFY2(audioFlows(6000), "no audio after the failed update");
    QCOMPARE(stringValue(*m_rig, QStringLiteral("orvello/sdkVersion")), QStringLiteral("1.0.0"));
    QTRY_COMPARE_WITH_TIMEOUT(playState(*m_rig), 2, 5000);

    // Later checks find the same file again and leave the device playing.
    const QString check = QStringLiteral("Checking for update with device id");
    const int checks = logCount(*m_rig, check);
    QTRY_VERIFY_WITH_TIMEOUT(logCount(*m_rig, check) >= checks + 3, 10000);
    QCOMPARE(logCount(*m_rig, swapped), 1);
    QVERIFY(audioFlows(5000));
    QCOMPARE(QFile::exists(installedPath()), installedBefore);
    if (installedBefore)
        QVERIFY(fileBytes(installedPath()) == good);
    QVERIFY(!QFile::exists(installedPath() + QStringLiteral(".previous")));
    QVERIFY(fileBytes(installedPath() + QStringLiteral(".rejected")).contains("\"version\":\"1.1.0\""));

    QVERIFY(m_rig->waitForLog(failure, 0));
    const QString rolledBack = QStringLiteral("ERROR [Orvello] Update to version 1.1.0 does not load from "
                                              "data-rw/orvello/liboplayer-1.so; ");
    QCOMPARE(logCount(*m_rig, rolledBack), 1);
    QCOMPARE(logCount(*m_rig, installedBefore ? QStringLiteral("the previous library is back in its place and version "
                                                               "1.0.0 plays on")
                                              : QStringLiteral("there is no previous copy, so it is removed")),
             1);
    QVERIFY(logCount(*m_rig, QStringLiteral("INFO  [Orvello] Not installing version 1.1.0 again: it did not load")) >= 2);
    QCOMPARE(m_rig->stopHost(), 0);
}

// A download that failed verification stays in /tmp/orvello; a restart must not install it.
// Survived: after the restart 1.0.0 plays and nothing is installed; once the service's
// checksum matches the file, it verifies and is swapped in.
void TestUpdates::unverifiedDownloadIsNeverInstalled()
{
    QVERIFY(writeBytes(m_rig->devTreeLibraryPath(), fileBytes(QStringLiteral(OPLAYER_REF_1_0_0))));
    startService(QStringLiteral("1.1.0"), fileBytes(QStringLiteral(OPLAYER_REF_1_1_0)), {QStringLiteral("wrong-checksum")});
    startHost();
    QVERIFY(m_rig->waitForLog(QStringLiteral("ERROR [Orvello] Failed to verify downlaoded library"), 15000));
    QCOMPARE(m_rig->stopHost(), 0);
    QVERIFY(QFile::exists(kDownload));

    startHost();
    QVERIFY(m_rig->waitForLog(QStringLiteral("Running SDK version: "), 10000));
    QVERIFY(audioFlows(8000));
    QCOMPARE(stringValue(*m_rig, QStringLiteral("orvello/sdkVersion")), QStringLiteral("1.0.0"));
    QVERIFY(!QFile::exists(installedPath()));
    QVERIFY(m_rig->waitForLog(QStringLiteral("ERROR [Orvello] Not installing /tmp/orvello/liboplayer-1.so: it has not "
                                             "passed verification"),
                              0));

    QVERIFY(m_service->setState(QJsonObject{{QStringLiteral("fail"), QJsonArray()}}));
    QVERIFY(m_rig->waitForLog(QStringLiteral("Running SDK version: 1.1.0"), 15000));
    QVERIFY(audioFlows(6000));
    QCOMPARE(stringValue(*m_rig, QStringLiteral("orvello/sdkVersion")), QStringLiteral("1.1.0"));
    QCOMPARE(m_rig->stopHost(), 0);
}

// The update does not load and no other copy is left (the build tree's was deleted while the
// old library ran). Survived: the play logic stops claiming to play, the host searches again
// after 1 s, then 2 s, ..., and plays as soon as a library is back, without a restart.
void TestUpdates::silentDeviceSearchesAgain()
{
    const QByteArray good = fileBytes(QStringLiteral(OPLAYER_REF_1_0_0));
    QVERIFY(writeBytes(m_rig->devTreeLibraryPath(), good));
    startService(QStringLiteral("1.1.0"), fileBytes(QStringLiteral(FAKE_NOSYMBOL)));
    startHost();
    QVERIFY(m_rig->waitForLog(QStringLiteral("Running SDK version: 1.0.0"), 10000));
    QVERIFY(QFile::remove(m_rig->devTreeLibraryPath()));

    QVERIFY(m_rig->waitForLog(QStringLiteral("ERROR [Orvello] Failed to load oplayer-1 library"), 20000));
    QTRY_COMPARE_WITH_TIMEOUT(playState(*m_rig), 0, 5000);
    QVERIFY(m_rig->waitForLog(
        QStringLiteral("WARN  [Orvello] No player library is running; searching the library list again in 1 s"), 0));
    QVERIFY(m_rig->waitForLog(QStringLiteral("INFO  [Orvello] Searching the library list again (attempt 1); if no "
                                             "library loads, the next attempt follows in 2 s"),
                              5000));
    QVERIFY(writeBytes(m_rig->devTreeLibraryPath(), good));
    QTRY_COMPARE_WITH_TIMEOUT(logCount(*m_rig, QStringLiteral("Running SDK version: 1.0.0")), 2, 5000);
    QVERIFY2(audioFlows(8000), "no audio after the library came back");
    QTRY_COMPARE_WITH_TIMEOUT(playState(*m_rig), 2, 5000);
    QCOMPARE(logCount(*m_rig, QStringLiteral("Searching the library list again (attempt 3)")), 0);
    QCOMPARE(m_rig->stopHost(), 0);
}

QTEST_GUILESS_MAIN(TestUpdates)
#include "tst_updates.moc"
