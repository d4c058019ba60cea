// The whole device: vrax-host running liborvello.so with the reference player library, the
// update service emulator on loopback, the audio pipeline at fast pace.
#include "ChildProcesses.h"
#include "DeviceRig.h"
#include "TestFiles.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <sndfile.h>

#include <cmath>
#include <tuple>
#include <vector>

namespace {

const DeviceRig::Paths kPaths{QStringLiteral(VRAX_HOST_PATH), QStringLiteral(ORVELLO_MODULE_PATH),
                              QStringLiteral(ORVELLO_SERVICE_PATH)};

QVariantHash baseSettings(const DeviceRig& rig)
{
    return {{QStringLiteral("settings/orvello/versionUrl"), rig.versionUrl()},
            {QStringLiteral("settings/orvello/updateCheckIntervalSeconds"), 1},
            {QStringLiteral("settings/orvello/outputSampleRate"), 44100},
            {QStringLiteral("settings/orvello/outputChannels"), 2},
            {QStringLiteral("settings/orvello/cacheEnabled"), true},
            {QStringLiteral("settings/orvello/cacheDir"), rig.workDir() + QStringLiteral("/cache")},
            {QStringLiteral("settings/orvello/provisioningVendorId"), QStringLiteral("vendor-e2e")},
            {QStringLiteral("settings/system/serialNumber"), QStringLiteral("SN-E2E")},
            {QStringLiteral("settings/system/productName"), QStringLiteral("E2E Amp")}};
}

bool installLibrary(const DeviceRig& rig, const char* library)
{
    QDir().mkpath(QFileInfo(rig.devTreeLibraryPath()).absolutePath());
    QFile::remove(rig.devTreeLibraryPath());
    return QFile::copy(QString::fromLatin1(library), rig.devTreeLibraryPath());
}

QString stringValue(DeviceRig& rig, const QString& path)
{
    return rig.get(QStringLiteral("/api/value?path=") + path)
        .body.value(QStringLiteral("value")).toObject().value(QStringLiteral("string_")).toString();
}

// The control API says only whether the token is set; the device keeps it in its settings file.
QString settingsToken(const DeviceRig& rig)
{
    return QJsonDocument::fromJson(fileBytes(rig.workDir() + QStringLiteral("/device/settings.json")))
        .object()
        .value(QStringLiteral("settings/orvello/token"))
        .toString();
}

int playState(DeviceRig& rig)
{
    return rig.get(QStringLiteral("/api/playlogic")).body.value(QStringLiteral("state")).toInt();
}

double pipelineBytes(DeviceRig& rig)
{
    return rig.get(QStringLiteral("/api/pipeline")).body.value(QStringLiteral("bytes")).toDouble();
}

} // namespace

class TestDevice : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { SKIP_WITHOUT_CHILD_PROCESSES(); }
    void init();
    void pairing();
    void updateSwapLosesNoAudio();

private:
    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<DeviceRig> m_rig;
};

void TestDevice::init()
{
    m_rig.reset();
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
    QFile::remove(QStringLiteral("/tmp/orvello/liboplayer-1.so"));
    m_rig = std::make_unique<DeviceRig>(kPaths, m_dir->path());
    QString error;
    // The service offers what the device runs: no update unless a test asks for one.
    QVERIFY2(m_rig->startService(QStringLiteral("1.0.0"), QStringLiteral(OPLAYER_REF_1_0_0), &error), qPrintable(error));
}

// An unpaired device as a person pairs it: it waits for a code; a code while no library can
// load, a mistyped one and one the service refuses are each answered with why and pair and play
// nothing; a good code pairs and plays, and a second one goes straight to pairing.
void TestDevice::pairing()
{
    DeviceRig& rig = *m_rig;
    QString error;
    QVERIFY2(rig.startHost(baseSettings(rig), QStringLiteral("null"), QStringLiteral("fast"), {}, &error), qPrintable(error));
    QVERIFY(rig.waitForLog(QStringLiteral("INFO  [Orvello] Waiting for pairing code before initializing.."), 10000));
    const auto answer = [&rig](const QString& code) {
        const DeviceRig::Answer a = rig.setValue(QStringLiteral("orvello/browse/uiPairCode"), code);
        return QString::number(a.status) + QLatin1Char(' ') + a.errorMessage();
    };
    QCOMPARE(answer(QStringLiteral("ABCDEF")), QStringLiteral("422 Failed to load library"));
    QVERIFY(rig.waitForLog(QStringLiteral("ERROR [Orvello] Failed to load oplayer-1 library"), 0));
    QVERIFY(installLibrary(rig, OPLAYER_REF_1_0_0));
    QCOMPARE(answer(QStringLiteral("ABC1EF")), QStringLiteral("422 Invalid pairing code"));
    QCOMPARE(stringValue(rig, QStringLiteral("orvello/sdkVersion")), QString()); // no library loaded yet
    QCOMPARE(answer(QStringLiteral("ZZZ-ABC")), QStringLiteral("422 Error while initiating device pairing, error: The "
                                                               "pairing code ZZZABC was refused by the service"));
    QVERIFY(rig.waitForLog(QStringLiteral("ERROR [Orvello] Error while initiating device pairing, message: "), 0));
    QCOMPARE(stringValue(rig, QStringLiteral("settings/orvello/deviceId")), QString());
    QCOMPARE(settingsToken(rig), QString());
    QCOMPARE(playState(rig), 0);

    QCOMPARE(answer(QStringLiteral("abc-DEF")), QStringLiteral("200 "));
    QVERIFY(rig.waitForLog(QStringLiteral("new value: abcDEF. Initiating pairing."), 0));
    QVERIFY(stringValue(rig, QStringLiteral("settings/orvello/deviceId")).startsWith(QLatin1String("oplayer-ref-")));
    QVERIFY(!settingsToken(rig).isEmpty());
    QCOMPARE(stringValue(rig, QStringLiteral("orvello/sdkVersion")), QStringLiteral("1.0.0"));
    QTRY_COMPARE_WITH_TIMEOUT(playState(rig), 2, 15000);
    QCOMPARE(answer(QStringLiteral("GHIJKL")), QStringLiteral("200 "));
    QCOMPARE(rig.hostLog().filter(QStringLiteral("Running SDK version: 1.0.0")).size(), 1);
    QCOMPARE(rig.stopHost(), 0);
}

// The library plays a station of two known files, a then b, in a loop; across the swap to 1.1.0
// the pipeline must receive whole tracks in that order: a lost or repeated piece of a track
// would shift everything after it, and a new library that started the station again after a
// would play a twice.
void TestDevice::updateSwapLosesNoAudio()
{
    DeviceRig& rig = *m_rig;
    const int rate = 44100;
    const int channels = 2;
    const QString music = m_dir->path() + QStringLiteral("/music");
    QVERIFY(QDir().mkpath(music));
    std::vector<short> source; // a then b
    for (const auto& [name, frames, step] : {std::tuple{"a", rate / 4, 0.0137}, std::tuple{"b", rate / 5, 0.0291}}) {
        std::vector<short> track(std::size_t(frames) * channels);
        for (std::size_t i = 0; i < track.size(); ++i)
            track[i] = short(std::lround(20000 * std::sin(double(i) * step) + (i % 7) * 13));
        SF_INFO info = {};
        info.samplerate = rate;
        info.channels = channels;
        info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
        SNDFILE* file = sf_open(qPrintable(music + QStringLiteral("/%1.wav").arg(QLatin1String(name))), SFM_WRITE, &info);
        QVERIFY(file);
        QCOMPARE(sf_writef_short(file, track.data(), frames), sf_count_t(frames));
        sf_close(file);
        source.insert(source.end(), track.begin(), track.end());
    }

    QVERIFY(installLibrary(rig, OPLAYER_REF_1_0_0));
    QString error;
    QVERIFY(rig.startService(QStringLiteral("1.1.0"), QStringLiteral(OPLAYER_REF_1_1_0), &error));
    QVariantHash settings = baseSettings(rig);
    settings.insert(QStringLiteral("settings/orvello/token"), QStringLiteral("paired-earlier"));
    const QString wav = m_dir->path() + QStringLiteral("/out.wav");
    QVERIFY2(rig.startHost(settings, QStringLiteral("wav:") + wav, QStringLiteral("fast"),
                           {QStringLiteral("OPLAYER_REF_MUSIC_DIR=") + music}, &error), qPrintable(error));

    QTRY_COMPARE_WITH_TIMEOUT(playState(rig), 2, 15000); // paired: it starts by itself
    QVERIFY(!rig.get(QStringLiteral("/api/playlogic")).body.value(QStringLiteral("title")).toString().isEmpty());
    QVERIFY2(rig.waitForLog(QStringLiteral("Running SDK version: 1.1.0"), 20000), qPrintable(rig.hostLog().join('\n')));
    const double atSwap = pipelineBytes(rig);
    QTRY_VERIFY_WITH_TIMEOUT(pipelineBytes(rig) > atSwap + source.size() * 2 * 3, 15000);
    QCOMPARE(rig.stopHost(), 0);
    QCOMPARE(rig.hostLog().filter(QStringLiteral("End of oplayer main loop, cleaning up")).size(), 1);
    QCOMPARE(rig.hostLog().filter(QStringLiteral("Running SDK version: 1.0.0")).size(), 1);
    QVERIFY(rig.hostLog().filter(QStringLiteral("Waiting for pairing code")).isEmpty());
    // Only the library that came in with the swap found a position to go on from.
    const QStringList wentOn = rig.hostLog().filter(QRegularExpression(QStringLiteral(
        "^oplayer-ref: track [12] of 2 \\(\"[ab]\\.wav\"\\) played last; going on with track [12] \\(\"[ab]\\.wav\"\\)$")));
    QVERIFY2(wentOn.size() == 1, qPrintable(rig.hostLog().filter(QStringLiteral("oplayer-ref:")).join(QLatin1Char('\n'))));

    const WavFile written = readWav(wav);
    QCOMPARE(written.rate, rate);
    QCOMPARE(written.channels, channels);
    const std::vector<short>& received = written.samples;
    QVERIFY(!QFile::exists(m_dir->path() + QStringLiteral("/out-2.wav"))); // one format throughout

    // The library plays at its default volume of 80.
    std::vector<short> expected(source.size());
    for (std::size_t i = 0; i < source.size(); ++i)
        expected[i] = short(std::lrint(source[i] * 0.8));
    QVERIFY2(received.size() > 4 * expected.size(), qPrintable(QString::number(received.size())));
    for (std::size_t i = 0; i < received.size(); ++i)
        if (received[i] != expected[i % expected.size()])
            QFAIL(qPrintable(QStringLiteral("sample %1 of %2 differs").arg(i).arg(received.size())));
}

QTEST_GUILESS_MAIN(TestDevice)
#include "tst_device.moc"
