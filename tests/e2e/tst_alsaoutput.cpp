// The device's ALSA output: vrax-host with the module and the counting fake player library plays
// through ALSA into a `type file` PCM of a private ALSA configuration (no sound card needed), and
// what ALSA recorded must be, byte for byte, what the library produced and the pipeline took in.
#include "ChildProcesses.h"
#include "DeviceRig.h"
#include "TestFiles.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include <cstring>
#include <vector>

namespace {

const DeviceRig::Paths kPaths{QStringLiteral(VRAX_HOST_PATH), QStringLiteral(ORVELLO_MODULE_PATH),
                              QStringLiteral(ORVELLO_SERVICE_PATH)};
constexpr int kBytesPerSecond = 44100 * 2 * 2;

// The total of the last "audio" line of a pipeline trace: every byte the pipeline handed its sink.
qint64 tracedTotal(const QString& traceFile)
{
    qint64 total = -1;
    for (const QByteArray& line : fileBytes(traceFile).split('\n')) {
        const QList<QByteArray> fields = line.split(' ');
        if (fields.size() == 5 && fields.at(1) == "audio")
            total = fields.at(3).toLongLong();
    }
    return total;
}

double pipelineBytes(DeviceRig& rig)
{
    return rig.get(QStringLiteral("/api/pipeline")).body.value(QStringLiteral("bytes")).toDouble();
}

} // namespace

class TestAlsaOutput : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { SKIP_WITHOUT_CHILD_PROCESSES(); }
    void recordedIsWhatTheLibraryPlayed();
};

void TestAlsaOutput::recordedIsWhatTheLibraryPlayed()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    QFile::remove(QStringLiteral("/tmp/orvello/liboplayer-1.so"));
    const QString recording = dir.filePath(QStringLiteral("recorded.raw"));
    const QString trace = dir.filePath(QStringLiteral("trace"));
    // ALSA reads only this file: the test's device exists nowhere else, and nothing of the
    // machine's or the user's configuration takes part.
    const QString config = dir.filePath(QStringLiteral("asound.conf"));
    QVERIFY(writeBytes(config, QStringLiteral("pcm.recorder {\n"
                                              "  type file\n"
                                              "  slave.pcm { type null }\n"
                                              "  file \"%1\"\n"
                                              "  format \"raw\"\n"
                                              "}\n")
                                   .arg(recording)
                                   .toUtf8()));

    DeviceRig rig(kPaths, dir.path());
    QDir().mkpath(QFileInfo(rig.devTreeLibraryPath()).absolutePath());
    QVERIFY(QFile::copy(QStringLiteral(FAKE_PLAYING), rig.devTreeLibraryPath()));
    const QVariantHash settings{{QStringLiteral("settings/orvello/token"), QStringLiteral("paired-earlier")},
                                {QStringLiteral("settings/orvello/outputSampleRate"), 44100},
                                {QStringLiteral("settings/orvello/outputChannels"), 2},
                                {QStringLiteral("settings/orvello/updateCheckIntervalSeconds"), 0}};
    rig.setExtraHostArguments({QStringLiteral("--trace"), trace});
    QString error;
    QVERIFY2(rig.startHost(settings, QStringLiteral("alsa:recorder"), QStringLiteral("realtime"),
                           {QStringLiteral("ALSA_CONFIG_PATH=") + config}, &error),
             qPrintable(error));
    QTRY_VERIFY2_WITH_TIMEOUT(pipelineBytes(rig) >= 2 * kBytesPerSecond, qPrintable(rig.hostLog().join('\n')), 20000);
    QCOMPARE(rig.stopHost(), 0);
    QVERIFY2(rig.hostLog().filter(QStringLiteral("ALSA")).isEmpty(), qPrintable(rig.hostLog().join('\n')));

    const QByteArray recorded = fileBytes(recording);
    QCOMPARE(qint64(recorded.size()), tracedTotal(trace));
    std::vector<short> samples(std::size_t(recorded.size()) / sizeof(short));
    std::memcpy(samples.data(), recorded.constData(), samples.size() * sizeof(short));
    const std::size_t at = counterBreak(samples);
    QVERIFY2(at == samples.size(), qPrintable(QStringLiteral("ALSA recorded %1 at sample %2 of %3, not the library's counter")
                                                  .arg(at < samples.size() ? samples[at] : 0)
                                                  .arg(at)
                                                  .arg(samples.size())));
}

QTEST_GUILESS_MAIN(TestAlsaOutput)
#include "tst_alsaoutput.moc"
