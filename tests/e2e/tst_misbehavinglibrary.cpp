// The whole device (vrax-host with liborvello.so and the update service emulator) with a player
// library that misbehaves on purpose: the fake playing library, whose PCM is a running counter,
// in the modes of ORVELLO_FAKE_MODES. The pipeline plays at realtime pace into a WAV file, so
// the byte counter is what a listener hears and the file shows whether every sample arrived
// once and in order.
#include "ChildProcesses.h"
#include "DeviceRig.h"

#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QTemporaryDir>
#include <QTest>

#include <sndfile.h>

#include <vector>

namespace {

const DeviceRig::Paths kPaths{QStringLiteral(VRAX_HOST_PATH), QStringLiteral(ORVELLO_MODULE_PATH),
                              QStringLiteral(ORVELLO_SERVICE_PATH)};
constexpr int kRate = 44100;
constexpr int kChannels = 2;
constexpr double kBytesPerSecond = kRate * kChannels * 2;
const QString kInterrupted = QStringLiteral("Pairing was interrupted, please enter the pairing code again");

QVariantHash settings(const DeviceRig& rig, bool paired)
{
    QVariantHash s{{QStringLiteral("settings/orvello/versionUrl"), rig.versionUrl()},
                   {QStringLiteral("settings/orvello/updateCheckIntervalSeconds"), 3600},
                   {QStringLiteral("settings/orvello/outputSampleRate"), kRate},
                   {QStringLiteral("settings/orvello/outputChannels"), kChannels},
                   {QStringLiteral("settings/system/serialNumber"), QStringLiteral("SN-E2E")}};
    if (paired)
        s.insert(QStringLiteral("settings/orvello/token"), QStringLiteral("paired-earlier"));
    return s;
}

bool placeLibrary(const QString& from, const QString& to)
{
    QDir().mkpath(QFileInfo(to).absolutePath());
    QFile::remove(to);
    return QFile::copy(from, to);
}

double pipelineBytes(DeviceRig& rig)
{
    return rig.get(QStringLiteral("/api/pipeline")).body.value(QStringLiteral("bytes")).toDouble();
}

int playState(DeviceRig& rig)
{
    return rig.get(QStringLiteral("/api/playlogic")).body.value(QStringLiteral("state")).toInt();
}

// The host's log, line by line into the test's output (a failure message would be cut short).
void printHostLog(DeviceRig& rig)
{
    for (const QString& line : rig.hostLog())
        qInfo("host: %s", qPrintable(line));
}

// The play logic reaches state (2 playing) within 15 s; the host's log otherwise.
#define VERIFY_PLAY_STATE(rig, expected)                                                                   \
    do {                                                                                                   \
        if (!QTest::qWaitFor([&] { return playState(rig) == (expected); }, 15000)) {                     \
            printHostLog(rig);                                                                             \
            QFAIL(qPrintable(QStringLiteral("the play logic is in state %1").arg(playState(rig))));        \
        }                                                                                                  \
    } while (false)

// What a listener needs: the pipeline receives the given seconds of audio more, at realtime pace.
bool hearsMusic(DeviceRig& rig, double seconds)
{
    const double start = pipelineBytes(rig);
    return QTest::qWaitFor([&] { return pipelineBytes(rig) >= start + seconds * kBytesPerSecond; },
                           int(seconds * 3000) + 10000);
}

// Empty when the file holds the fake's counter from its first sample on, every sample once.
QString counterFault(const QString& wav)
{
    SF_INFO info = {};
    SNDFILE* file = sf_open(qPrintable(wav), SFM_READ, &info);
    if (!file)
        return QStringLiteral("no WAV file at %1").arg(wav);
    std::vector<short> samples(std::size_t(info.frames) * std::size_t(info.channels));
    sf_readf_short(file, samples.data(), info.frames);
    sf_close(file);
    if (info.samplerate != kRate || info.channels != kChannels)
        return QStringLiteral("format %1 Hz, %2 channels").arg(info.samplerate).arg(info.channels);
    if (samples.empty())
        return QStringLiteral("no audio");
    for (std::size_t i = 0; i < samples.size(); ++i)
        if (samples[i] != short(quint16(i)))
            return QStringLiteral("sample %1 of %2 is %3").arg(i).arg(samples.size()).arg(samples[i]);
    return QString();
}

// Tells the update service emulator to fail in the given ways (its /admin/state).
bool setServiceFailures(const DeviceRig& rig, const QStringList& modes)
{
    QNetworkAccessManager manager;
    QNetworkRequest request(QUrl(QStringLiteral("http://127.0.0.1:%1/admin/state").arg(rig.servicePort())));
    request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
    const QJsonObject body{{QStringLiteral("fail"), QJsonArray::fromStringList(modes)}};
    QNetworkReply* reply = manager.post(request, QJsonDocument(body).toJson());
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    loop.exec();
    const bool ok = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt() == 200;
    delete reply;
    return ok;
}

} // namespace

class TestMisbehavingLibrary : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { SKIP_WITHOUT_CHILD_PROCESSES(); }
    void init();
    void keepsPlaying_data();
    void keepsPlaying();
    void pairingIsAnswered_data();
    void pairingIsAnswered();
    void updateSwapUnderPendingPairing_data();
    void updateSwapUnderPendingPairing();
    void stopThenPlayFromTheDevice();

private:
    QString wavPath() const { return m_dir->path() + QStringLiteral("/out.wav"); }
    bool startDevice(const QString& modes, bool paired, const QString& libraryPath);

    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<DeviceRig> m_rig;
};

void TestMisbehavingLibrary::init()
{
    m_rig.reset();
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
    QFile::remove(QStringLiteral("/tmp/orvello/liboplayer-1.so"));
    m_rig = std::make_unique<DeviceRig>(kPaths, m_dir->path());
    QString error;
    // The service offers what the device runs: no update unless a test asks for one.
    QVERIFY2(m_rig->startService(QStringLiteral("0.1.0"), QStringLiteral(FAKE_PLAYING), &error), qPrintable(error));
}

bool TestMisbehavingLibrary::startDevice(const QString& modes, bool paired, const QString& libraryPath)
{
    QString error;
    if (!placeLibrary(QStringLiteral(FAKE_PLAYING), libraryPath)
        || !m_rig->startHost(settings(*m_rig, paired), QStringLiteral("wav:") + wavPath(), QStringLiteral("realtime"),
                             {QStringLiteral("ORVELLO_FAKE_MODES=") + modes}, &error)) {
        qWarning("%s", qPrintable(error));
        return false;
    }
    return true;
}

void TestMisbehavingLibrary::keepsPlaying_data()
{
    // Injected: the modes. Survived: the listener hears two seconds of audio at realtime pace
    // with the play logic playing, the WAV holds the counter from its first sample on, the log
    // says what the library did wrong (each line once), and the host ends cleanly.
    QTest::addColumn<QString>("modes");
    QTest::addColumn<QStringList>("warnings");
    QTest::newRow("audio at create") << "early-audio" << QStringList();
    QTest::newRow("audio at create, from two threads") << "early-audio,two-threads" << QStringList();
    QTest::newRow("null tables")
        << "null-tables"
        << QStringList{QStringLiteral("The player library gave no controls table"),
                       QStringLiteral("The player library gave no metadata table")};
    QTest::newRow("null table entries")
        << "null-entries"
        << QStringList{QStringLiteral("controls table has no is_paused entry"),
                       QStringLiteral("controls table has no has_new_data entry")};
    QTest::newRow("null track record") << "null-record"
                                       << QStringList{QStringLiteral("gave no track record")};
    QTest::newRow("null strings in the track record")
        << "null-strings"
        << QStringList{QStringLiteral("gave a track record without a title"),
                       QStringLiteral("gave a track record of 2 artists without the artists")};
    QTest::newRow("run_once blocks 200 ms") << "slow-run-once" << QStringList();
}

void TestMisbehavingLibrary::keepsPlaying()
{
    QFETCH(QString, modes);
    QFETCH(QStringList, warnings);
    DeviceRig& rig = *m_rig;
    QVERIFY(startDevice(modes, true, rig.devTreeLibraryPath()));
    VERIFY_PLAY_STATE(rig, 2);
    QVERIFY2(hearsMusic(rig, 2), qPrintable(rig.hostLog().join('\n')));
    QCOMPARE(playState(rig), 2);
    for (const QString& warning : warnings)
        QVERIFY2(rig.hostLog().filter(warning).size() == 1, qPrintable(warning + '\n' + rig.hostLog().join('\n')));
    if (warnings.isEmpty())
        QVERIFY2(rig.hostLog().filter(QStringLiteral("WARN")).isEmpty(), qPrintable(rig.hostLog().join('\n')));
    QCOMPARE(rig.stopHost(), 0);
    const QString fault = counterFault(wavPath());
    QVERIFY2(fault.isEmpty(), qPrintable(fault));
}

void TestMisbehavingLibrary::pairingIsAnswered_data()
{
    // Injected: the modes, on a device that is not paired yet, then a pairing code. Survived:
    // the pairing request is answered once (never the control API's 504), the log says why, and
    // the host ends cleanly; after a successful pairing the listener hears the library.
    QTest::addColumn<QString>("modes");
    QTest::addColumn<QString>("error"); // empty: paired
    QTest::addColumn<QString>("warning");
    QTest::newRow("the library ends its loop while pairing")
        << "loop-ends,pair-never" << kInterrupted
        << QStringLiteral("The player library's loop ended before pairing finished");
    QTest::newRow("no pairing table") << "null-tables" << QStringLiteral("Internal error, library is not initialized")
                                      << QStringLiteral("The player library gave no pairing table");
    QTest::newRow("run_once blocks 200 ms") << "slow-run-once" << QString() << QString();
}

void TestMisbehavingLibrary::pairingIsAnswered()
{
    QFETCH(QString, modes);
    QFETCH(QString, error);
    QFETCH(QString, warning);
    DeviceRig& rig = *m_rig;
    QVERIFY(startDevice(modes, false, rig.devTreeLibraryPath()));
    const DeviceRig::Answer answer = rig.setValue(QStringLiteral("orvello/browse/uiPairCode"), QStringLiteral("ABC-DEF"));
    if (error.isEmpty()) {
        QVERIFY2(answer.ok(), qPrintable(answer.errorMessage()));
        VERIFY_PLAY_STATE(rig, 2);
        QVERIFY(hearsMusic(rig, 1));
    } else {
        QCOMPARE(answer.status, 422);
        QCOMPARE(answer.errorMessage(), error);
        QVERIFY2(rig.hostLog().filter(warning).size() == 1, qPrintable(rig.hostLog().join('\n')));
    }
    QCOMPARE(rig.stopHost(), 0);
}

void TestMisbehavingLibrary::updateSwapUnderPendingPairing_data()
{
    // Injected: a pairing the library never answers, typed on a playing device just before an
    // update swap (the download is held back 2.5 s), into a library that loads or fails to load.
    // Survived: the pairing request gets the interruption error, no poll reaches the unloaded
    // library (the host ends cleanly), and music plays on: from the new library, or from the
    // previous one put back in its place.
    QTest::addColumn<QString>("newLibrary");
    QTest::addColumn<QString>("swapLine");
    QTest::newRow("new library fails to load")
        << QStringLiteral(FAKE_CREATE_FAILS)
        << QStringLiteral("the previous library is back in its place and version 0.1.0 plays on");
    QTest::newRow("new library loads") << QStringLiteral(FAKE_PLAYING) << QString();
}

void TestMisbehavingLibrary::updateSwapUnderPendingPairing()
{
    QFETCH(QString, newLibrary);
    QFETCH(QString, swapLine);
    DeviceRig& rig = *m_rig;
    QString error;
    QVERIFY2(rig.startService(QStringLiteral("9.9.9"), newLibrary, &error), qPrintable(error));
    QVERIFY(setServiceFailures(rig, {QStringLiteral("library-delay=2500")}));
    // The installed place, so that a new library that fails leaves nothing else to load.
    QVERIFY(startDevice(QStringLiteral("pair-never"), true, rig.dataDir() + QStringLiteral("/data-rw/orvello/liboplayer-1.so")));
    VERIFY_PLAY_STATE(rig, 2);

    const DeviceRig::Answer answer = rig.setValue(QStringLiteral("orvello/browse/uiPairCode"), QStringLiteral("ABC-DEF"));
    QCOMPARE(answer.status, 422);
    QCOMPARE(answer.errorMessage(), kInterrupted);
    QVERIFY(rig.waitForLog(QStringLiteral("End of oplayer main loop, cleaning up"), 0));
    if (!swapLine.isEmpty())
        QVERIFY2(rig.waitForLog(swapLine, 15000), qPrintable(rig.hostLog().join('\n')));
    QTRY_COMPARE_WITH_TIMEOUT(rig.hostLog().filter(QStringLiteral("Running SDK version: 0.1.0")).size(), 2, 15000);
    VERIFY_PLAY_STATE(rig, 2);
    QVERIFY(hearsMusic(rig, 1));
    QTest::qWait(500); // pairing polls came every 100 ms: one reaching the unloaded library would crash the host here
    QVERIFY(rig.hostRunning());
    QCOMPARE(rig.stopHost(), 0);
}

// The device's own stop and play buttons: the music comes back, at realtime pace.
void TestMisbehavingLibrary::stopThenPlayFromTheDevice()
{
    DeviceRig& rig = *m_rig;
    QVERIFY(startDevice(QString(), true, rig.devTreeLibraryPath()));
    VERIFY_PLAY_STATE(rig, 2);
    QVERIFY(hearsMusic(rig, 1));
    QVERIFY(rig.post(QStringLiteral("/api/player/stop"), {}).ok());
    QCOMPARE(playState(rig), 0);
    QVERIFY(rig.post(QStringLiteral("/api/player/play"), {}).ok());
    VERIFY_PLAY_STATE(rig, 2);
    QVERIFY(hearsMusic(rig, 1));
    QCOMPARE(rig.stopHost(), 0);
}

QTEST_GUILESS_MAIN(TestMisbehavingLibrary)
#include "tst_misbehavinglibrary.moc"
