// The service's play logic on the desktop play framework: playback start, the audio path into
// the emulated pipeline, pause and volume in both directions, track data and connect failures.
#include "LogCapture.h"
#include "OPlayerTestUtil.h"
#include "TestFiles.h"
#include "TestPlatform.h"

#include "OPlayerPlaybackApi.h"
#include "OrvelloPlayLogic.h"

#include "model/cmnodes.h"
#include "model/cmworker.h"
#include "play/vraxplaylogicdata.h"
#include "vrax/vraxpaths.h"
#include "vrax_api_play/deviceplayer.h"
#include "vrax_api_play/systemvolume.h"
#include "vrax_audio_pipeline/audiopipeline.h"

#include <QFile>
#include <QSignalSpy>
#include <QTest>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <vector>

namespace {

const QString kSocket = QStringLiteral("/tmp/orvello/smt2socketaddress");

// The library's controls table, recording what the play logic asks of it.
namespace fake {
std::atomic<int> pauses{0};
std::atomic<int> resumes{0};
std::atomic<int> paused{0};
std::mutex volumesMutex;
QList<int> volumes;

int hasNewData(oplayer*) { return 0; }
int pause(oplayer*) { ++pauses; paused = 1; return 1; }
int resume(oplayer*) { ++resumes; paused = 0; return 1; }
int skip(oplayer*, int) { return 1; }
int getVolume(oplayer*) { return 50; }
int setVolume(oplayer*, int volume)
{
    std::lock_guard<std::mutex> lock(volumesMutex);
    volumes << volume;
    return 1;
}
int isPaused(oplayer*) { return paused; }
QList<int> volumesSet()
{
    std::lock_guard<std::mutex> lock(volumesMutex);
    return volumes;
}
void reset()
{
    pauses = 0;
    resumes = 0;
    paused = 0;
    std::lock_guard<std::mutex> lock(volumesMutex);
    volumes.clear();
}
const oplayer_controls_api controls = {nullptr, hasNewData, pause, resume, skip, getVolume, setVolume, isPaused};
int handle;
} // namespace fake

QVariantHash published()
{
    return CMRoot()->getValue(VraxOrvelloPlayLogicPath()).toHash();
}

// A play logic on a bridge whose library is the fake controls table; the test calls the audio
// table itself, as the library's thread would.
struct Rig
{
    explicit Rig(const vrax::AudioOutput& sink = {}) : player(sink, vrax::AudioPace::Fast)
    {
        fake::reset();
        bridge.setControlsApi(&fake::controls);
        bridge.setOPlayer(reinterpret_cast<oplayer*>(&fake::handle));
        audio = bridge.getAudioApi();
        logic = std::make_unique<OrvelloPlayLogic>(&nodes, &bridge);
    }
    int state() const { return logic->data().state(); }
    // Offers samples until the transfer has taken at least count of them.
    bool push(unsigned long count)
    {
        std::vector<short> samples(4096, 1000);
        unsigned long taken = 0;
        return QTest::qWaitFor([&] {
            unsigned int out = 7;
            const unsigned long n = audio->data(audio, samples.data(), samples.size(), &out);
            if (out != 0)
                return false;
            taken += n;
            return taken >= count;
        }, 10000);
    }
    // The library starts by itself: a playback is requested, the format announced, audio flows.
    bool startPlaying()
    {
        audio->pause_changed(audio, 0);
        audio->init(audio, 2, 48000);
        return push(48000) && QTest::qWaitFor([this] { return state() == VraxPlayLogicData::Playing; }, 10000);
    }

    TestPlatform platform;
    vrax::DevicePlayer player;
    CMNodes nodes;
    OPlayerPlaybackApi bridge;
    oplayer_audio_api* audio;
    std::unique_ptr<OrvelloPlayLogic> logic;
};

// What the service's play logic asks the device's player to play.
VraxRoles playRoles()
{
    VraxMetaData meta;
    meta.setPlayLogicPath(VraxOrvelloPlayLogicPath());
    VraxResource resource;
    resource.setUri(QStringLiteral("smt2:///tmp/orvello/smt2socketaddress"));
    VraxMediaData media;
    media.setMetaData(meta);
    media.setResources({resource});
    VraxRoles roles;
    roles.setMediaData(media);
    return roles;
}

// The fake playing library on a paired device, the play logic on its bridge, the pipeline
// writing a WAV file at fast pace.
struct PlayingRig
{
    explicit PlayingRig(const QByteArray& modes)
        : platform({{QStringLiteral("settings/orvello/token"), QStringLiteral("paired")}})
        , wav(platform.dir() + QStringLiteral("/out.wav"))
        , player({vrax::AudioOutput::Kind::Wav, wav.toStdString()}, vrax::AudioPace::Fast)
    {
        oplayertest::placeLibrary(QStringLiteral(FAKE_PLAYING), oplayertest::kInstalledPath);
        qputenv("ORVELLO_FAKE_MODES", modes);
        lib = std::make_unique<OPlayerLib>(oplayertest::initParams());
        qunsetenv("ORVELLO_FAKE_MODES");
        logic = std::make_unique<OrvelloPlayLogic>(&nodes, lib->playbackApi());
    }
    ~PlayingRig()
    {
        logic.reset();
        if (lib) {
            lib->shutdown();
            lib->unload();
        }
    }
    int state() const { return logic->data().state(); }
    std::uint64_t bytes() const { return player.pipeline() ? player.pipeline()->counters().bytes : 0; }
    std::vector<short> written()
    {
        player.stop();
        return readWav(wav).samples;
    }

    TestPlatform platform;
    QString wav;
    vrax::DevicePlayer player;
    CMNodes nodes;
    std::unique_ptr<OPlayerLib> lib;
    std::unique_ptr<OrvelloPlayLogic> logic;
};

const QString kStopKept = QStringLiteral(
    "The device's stop is kept across the library swap: the new library's own resume is answered with a pause; the "
    "music comes back with the next play from the device");
const QString kPauseKept = QStringLiteral(
    "The device's pause is kept across the library swap: the new library's own resume is answered with a pause; the "
    "music comes back with the next play or pause from the device");

int keptLines(const LogCapture& log)
{
    return log.count(log4cplus::INFO_LOG_LEVEL, kStopKept) + log.count(log4cplus::INFO_LOG_LEVEL, kPauseKept);
}

// What leaves the music quiet before the library's loop ends, and what asks for it again.
enum Quiet { DeviceStop, DevicePause, ServicePause };
enum Again { DevicePlay, DevicePauseToggle, ServicePlay };

} // namespace

class TestOrvelloPlayLogic : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void samplesFromBytes_data();
    void samplesFromBytes();
    void pauseBothWays();
    void volumeBothWaysWithoutEcho();
    void trackDataIsPublished();
    void failedConnectStopsPlayback();
    void stopClosesTransferAndCancelsConnect();
    void libraryPlayingFromCreate_data();
    void libraryPlayingFromCreate();
    void deviceControlsWhileTheLibraryDelivers();
    void pendingConnectEndsWithThePlayback();
    void destroyedWhileTheLibraryDelivers();
    void quietAcrossLibrarySwap_data();
    void quietAcrossLibrarySwap();
    void ownResumeAfterSwap_data();
    void ownResumeAfterSwap();
};

void TestOrvelloPlayLogic::samplesFromBytes_data()
{
    QTest::addColumn<int>("bytes");
    QTest::addColumn<quint64>("samples");
    QTest::newRow("960 bytes") << 960 << quint64(480);
    QTest::newRow("nothing") << 0 << quint64(0);
    QTest::newRow("largest chunk") << 131072 << quint64(65536);
    QTest::newRow("odd byte") << 3 << quint64(1);
    QTest::newRow("-1") << -1 << quint64(0x7FFFFFFFFFFFFFFFull);
    QTest::newRow("-2") << -2 << quint64(0x7FFFFFFFFFFFFFFFull);
    QTest::newRow("-4") << -4 << quint64(0x7FFFFFFFFFFFFFFEull);
}

void TestOrvelloPlayLogic::samplesFromBytes()
{
    QFETCH(int, bytes);
    QFETCH(quint64, samples);
    QCOMPARE(quint64(OrvelloPlayLogic::samplesFromBytes(bytes)), samples);
}

void TestOrvelloPlayLogic::pauseBothWays()
{
    Rig rig;
    QVERIFY(rig.startPlaying());

    // The platform's pause goes to the library; the state waits for the library to confirm.
    QVERIFY(!rig.player.pause().isError());
    QCOMPARE(fake::pauses.load(), 1);
    QCOMPARE(rig.state(), int(VraxPlayLogicData::Playing));
    rig.audio->pause_changed(rig.audio, 1);
    QCOMPARE(rig.state(), int(VraxPlayLogicData::Paused));
    rig.audio->pause_changed(rig.audio, 1);
    QCOMPARE(rig.state(), int(VraxPlayLogicData::Paused));
    QCOMPARE(fake::pauses.load(), 1); // mirroring sends nothing back
    QCOMPARE(fake::resumes.load(), 0);

    QVERIFY(!rig.player.pause().isError()); // paused: the request resumes
    QCOMPARE(fake::resumes.load(), 1);
    rig.audio->pause_changed(rig.audio, 0);
    QCOMPARE(rig.state(), int(VraxPlayLogicData::Playing));
    QCOMPARE(fake::pauses.load(), 1);
    QCOMPARE(fake::resumes.load(), 1);
}

void TestOrvelloPlayLogic::volumeBothWaysWithoutEcho()
{
    Rig rig;
    vrax::SystemVolume::instance().setVolume(40);
    QTRY_COMPARE(fake::volumesSet(), QList<int>{40});

    LogCapture log;
    rig.audio->volume_changed(rig.audio, 55);
    QCOMPARE(vrax::SystemVolume::instance().volume(), 55);
    // A negative outcome needs time to pass: longer than the proxy's 250 ms announcement delay.
    QTest::qWait(600);
    QCOMPARE(fake::volumesSet(), QList<int>{40});
    QCOMPARE(log.messages(log4cplus::DEBUG_LOG_LEVEL, QStringLiteral("Orvello")),
             QStringList{QStringLiteral("Enter OrvelloPlayLogic::on_playbackApi_volumeChanged(int): Volume: 55")});
}

void TestOrvelloPlayLogic::trackDataIsPublished()
{
    Rig rig;
    VraxStreamerData data;
    VraxPlayLogicStatus status;
    status.setDuration(215000);
    data.setStatus(status);
    VraxRoles roles;
    roles.setTitle(TrString("Slow Morning"));
    roles.setIcon(QStringLiteral("https://art.example/1.png"));
    VraxMetaData meta;
    meta.setArtist(QStringLiteral("The Quiet Room"));
    meta.setAlbum(QStringLiteral("Lobby Hours"));
    VraxMediaData media;
    media.setMetaData(meta);
    roles.setMediaData(media);
    data.setTrackRoles(roles);

    const QVariantHash before = published();
    rig.logic->on_playbackApi_dataChanged(data, 12000); // stopped: ignored
    QCOMPARE(published(), before);
    QCOMPARE(rig.logic->data().playTime(), 0ll);

    QVERIFY(rig.startPlaying());
    rig.logic->on_playbackApi_dataChanged(data, 12000);
    const VraxPlayLogicData d = rig.logic->data();
    QCOMPARE(d.state(), int(VraxPlayLogicData::Playing));
    QCOMPARE(d.playTime(), 12000ll);
    QCOMPARE(d.status().duration(), 215000ll);
    QCOMPARE(d.trackRoles().title().toString(), QStringLiteral("Slow Morning"));
    QCOMPARE(d.trackRoles().icon(), QStringLiteral("https://art.example/1.png"));
    QCOMPARE(d.trackRoles().mediaData().metaData(), meta);
    QCOMPARE(d.trackRoles().type(), VraxRolesType::StreamingService);
    QCOMPARE(d.trackRoles().mediaData().resources().size(), 1);
    QCOMPARE(d.trackRoles().mediaData().resources().first().uri(), QStringLiteral("smt2:///tmp/orvello/smt2socketaddress"));

    // What the platform reads at the play logic's path is the same.
    const QVariantHash node = published();
    QCOMPARE(node.value(QStringLiteral("state")).toInt(), int(VraxPlayLogicData::Playing));
    QCOMPARE(node.value(QStringLiteral("playTime")).toLongLong(), 12000ll);
    QCOMPARE(node.value(QStringLiteral("trackRoles")).toHash().value(QStringLiteral("title")).toString(),
             QStringLiteral("Slow Morning"));
}

void TestOrvelloPlayLogic::failedConnectStopsPlayback()
{
    Rig rig;
    LogCapture log;
    rig.audio->pause_changed(rig.audio, 0);
    QCOMPARE(rig.state(), int(VraxPlayLogicData::Starting));
    QVERIFY(QFile::remove(kSocket)); // the pipeline can no longer be reached
    rig.audio->init(rig.audio, 2, 48000);
    QTRY_COMPARE(rig.state(), int(VraxPlayLogicData::Stopped));
    QCOMPARE(log.messages(log4cplus::ERROR_LOG_LEVEL),
             QStringList{QStringLiteral("Failed to connect audio transfer [vrax.error] Failed to connect")});
    QCOMPARE(fake::pauses.load(), 1); // playback ended: the library is paused
}

void TestOrvelloPlayLogic::stopClosesTransferAndCancelsConnect()
{
    Rig rig;
    QVERIFY(rig.startPlaying());
    QVERIFY(rig.player.pipeline()->counters().senderConnected);
    LogCapture log;
    QVERIFY(!rig.player.stop().isError());
    QCOMPARE(rig.state(), int(VraxPlayLogicData::Stopped));
    QCOMPARE(fake::pauses.load(), 1);

    // A connect still under way when playback ends is cancelled: its failure stops nothing.
    rig.audio->pause_changed(rig.audio, 0);
    QCOMPARE(rig.state(), int(VraxPlayLogicData::Starting));
    QVERIFY(rig.player.stop().isFinished());
    QCoreApplication::processEvents();
    QTest::qWait(100);
    QCOMPARE(rig.state(), int(VraxPlayLogicData::Stopped));
    QVERIFY(log.messagesAtLeast(log4cplus::WARN_LOG_LEVEL).isEmpty());
    QVERIFY(!rig.player.pipeline()->counters().senderConnected);
}

void TestOrvelloPlayLogic::libraryPlayingFromCreate_data()
{
    QTest::addColumn<QByteArray>("modes");
    QTest::newRow("polite: first turn") << QByteArray();
    QTest::newRow("at create") << QByteArray("early-audio");
    QTest::newRow("from two threads") << QByteArray("two-threads");
    QTest::newRow("at create, from two threads") << QByteArray("early-audio,two-threads");
}

// However early and from however many threads the library starts, the pipeline gets its audio
// from the first sample on, every sample once, in order, in one playback: what a polite library
// gives.
void TestOrvelloPlayLogic::libraryPlayingFromCreate()
{
    QFETCH(QByteArray, modes);
    PlayingRig rig(modes);
    QVERIFY(rig.lib->ok());
    QList<int> states{rig.state()}; // state changes come through the event loop, none before this
    connect(rig.logic.get(), &PlayLogicInterface::dataChanged, this, [&](const VraxPlayLogicData& d) {
        if (states.last() != d.state())
            states << d.state();
    });
    const std::uint64_t twoSeconds = 44100 * 2 * 2 * 2;
    QTRY_VERIFY_WITH_TIMEOUT(rig.bytes() >= twoSeconds, 20000);
    QCOMPARE(rig.state(), int(VraxPlayLogicData::Playing));
    QCOMPARE(rig.player.pipeline()->counters().connections, std::uint64_t(1));
    if (states.first() == VraxPlayLogicData::Stopped)
        states.removeFirst();
    QCOMPARE(states, (QList<int>{VraxPlayLogicData::Starting, VraxPlayLogicData::Playing}));
    rig.logic.reset();
    const std::vector<short> samples = rig.written();
    QVERIFY2(samples.size() * 2 >= twoSeconds, qPrintable(QString::number(samples.size())));
    const std::size_t at = counterBreak(samples);
    QVERIFY2(at == samples.size(), qPrintable(QStringLiteral("sample %1 of %2 is %3").arg(at).arg(samples.size())
                                                  .arg(at < samples.size() ? samples[at] : 0)));
}

// Play while playing keeps the stream (the library goes on delivering meanwhile); stop then play
// brings the music back.
void TestOrvelloPlayLogic::deviceControlsWhileTheLibraryDelivers()
{
    PlayingRig rig("");
    QTRY_COMPARE_WITH_TIMEOUT(rig.state(), int(VraxPlayLogicData::Playing), 10000);
    LogCapture log;
    for (int i = 0; i < 5; ++i) {
        QVERIFY(!rig.player.play(playRoles(), false).isError());
        QTRY_COMPARE(rig.state(), int(VraxPlayLogicData::Playing));
    }
    const std::uint64_t afterPlays = rig.bytes();
    QTRY_VERIFY(rig.bytes() > afterPlays); // still streaming
    QCOMPARE(rig.player.pipeline()->counters().connections, std::uint64_t(1));
    QVERIFY2(log.messagesAtLeast(log4cplus::WARN_LOG_LEVEL).isEmpty(), qPrintable(log.dump()));

    QVERIFY(!rig.player.stop().isError());
    QCOMPARE(rig.state(), int(VraxPlayLogicData::Stopped));
    QVERIFY(rig.lib->playbackApi()->isPaused());
    // The stop finished the WAV file: the counter is whole up to there.
    const std::vector<short> beforeStop = readWav(rig.wav).samples;
    QVERIFY(beforeStop.size() > 44100 * 2);
    QCOMPARE(counterBreak(beforeStop), beforeStop.size());

    const std::uint64_t stopped = rig.bytes();
    QVERIFY(!rig.player.resume().isError());
    QTRY_COMPARE_WITH_TIMEOUT(rig.state(), int(VraxPlayLogicData::Playing), 10000);
    QTRY_VERIFY(rig.bytes() > stopped + 44100 * 4);
    QVERIFY2(log.messagesAtLeast(log4cplus::WARN_LOG_LEVEL).isEmpty(), qPrintable(log.dump()));

    // The restart went on in the same file after what the stop left; the stop may have cut a
    // chunk in flight, what follows it is whole.
    rig.logic.reset();
    const std::vector<short> recording = rig.written();
    QVERIFY(recording.size() > beforeStop.size() + 44100 * 2);
    QVERIFY(std::equal(beforeStop.begin(), beforeStop.end(), recording.begin()));
    const std::size_t restart = beforeStop.size();
    QCOMPARE(counterBreak(recording, restart, recording[restart]), recording.size());
}

// A play request waiting for the format is part of its playback: once stopped, a later format
// announcement connects nothing.
void TestOrvelloPlayLogic::pendingConnectEndsWithThePlayback()
{
    Rig rig;
    rig.audio->pause_changed(rig.audio, 0);
    QCOMPARE(rig.state(), int(VraxPlayLogicData::Starting)); // no format yet: the connect waits
    QVERIFY(!rig.player.stop().isError());
    LogCapture log;
    rig.audio->init(rig.audio, 2, 48000);
    QTest::qWait(300); // a connection attempt would change the sender's state within this
    QVERIFY2(log.messages(log4cplus::INFO_LOG_LEVEL, QStringLiteral("OrvelloAudioTransfer")).isEmpty(),
             qPrintable(log.dump()));
    QCOMPARE(rig.state(), int(VraxPlayLogicData::Stopped));
}

// The library's thread is in the middle of delivering when the play logic goes: it waits for
// that call, and the library's later calls take nothing.
void TestOrvelloPlayLogic::destroyedWhileTheLibraryDelivers()
{
    PlayingRig rig("two-threads");
    QTRY_VERIFY_WITH_TIMEOUT(rig.bytes() > 44100 * 4, 10000);
    rig.logic.reset();
    const unsigned long long taken = oplayertest::fakeSamplesTaken();
    QTest::qWait(100); // the library keeps offering meanwhile
    QCOMPARE(oplayertest::fakeSamplesTaken(), taken);
    QVERIFY(rig.lib->ok());
}

void TestOrvelloPlayLogic::quietAcrossLibrarySwap_data()
{
    QTest::addColumn<QByteArray>("modes");
    QTest::addColumn<int>("quiet");
    QTest::addColumn<int>("again");
    QTest::newRow("stop; resumes at its first turn; device play") << QByteArray() << int(DeviceStop) << int(DevicePlay);
    QTest::newRow("stop; resumes at create; service play") << QByteArray("early-audio") << int(DeviceStop) << int(ServicePlay);
    QTest::newRow("pause; resumes at its first turn; device pause") << QByteArray() << int(DevicePause)
                                                                    << int(DevicePauseToggle);
    QTest::newRow("pause; resumes at create from two threads; device play")
        << QByteArray("early-audio,two-threads") << int(DevicePause) << int(DevicePlay);
    QTest::newRow("pause; resumes at create; service play") << QByteArray("early-audio") << int(DevicePause)
                                                            << int(ServicePlay);
    QTest::newRow("paused by the service: not kept") << QByteArray() << int(ServicePause) << int(ServicePlay);
}

// The library's loop ends (as for an update) while the music is quiet, and a new instance that
// resumes its session by itself is created. A stop or pause from the device holds: none of the
// new instance's audio is taken, the state stays, one INFO line says so; the device's next
// play or pause, or a later play from the service, brings the music back on it.
void TestOrvelloPlayLogic::quietAcrossLibrarySwap()
{
    QFETCH(QByteArray, modes);
    QFETCH(int, quiet);
    QFETCH(int, again);
    PlayingRig rig(modes);
    QTRY_COMPARE_WITH_TIMEOUT(rig.state(), int(VraxPlayLogicData::Playing), 10000);
    QTRY_VERIFY(rig.bytes() > 0);
    OPlayerPlaybackApi* library = rig.lib->playbackApi();
    if (quiet == DeviceStop)
        QVERIFY(!rig.player.stop().isError());
    else if (quiet == DevicePause)
        QVERIFY(!rig.player.pause().isError());
    else
        QVERIFY(library->pause()); // the service's app pauses: the library announces it
    QTRY_COMPARE(rig.state(), int(quiet == DeviceStop ? VraxPlayLogicData::Stopped : VraxPlayLogicData::Paused));
    const int quietState = rig.state();

    LogCapture log;
    rig.lib->requestExit(); // nothing plays: the loop ends at its next turn
    QTRY_VERIFY_WITH_TIMEOUT(!rig.lib->ok(), 10000);
    const std::uint64_t heard = rig.bytes();
    // As an update does: the file is closed and opened again, so the new instance counts from 0.
    rig.lib->unload();
    qputenv("ORVELLO_FAKE_MODES", modes);
    rig.lib->load();
    qunsetenv("ORVELLO_FAKE_MODES");
    QVERIFY(rig.lib->ok());
    const unsigned long long taken = 0;

    if (quiet == ServicePause) {
        // Only the device's stop or pause holds: the new instance plays as it decides.
        QTRY_COMPARE_WITH_TIMEOUT(rig.state(), int(VraxPlayLogicData::Playing), 10000);
        QTRY_VERIFY(oplayertest::fakeSamplesTaken() > taken);
        QCOMPARE(keptLines(log), 0);
        return;
    }
    const QString kept = quiet == DeviceStop ? kStopKept : kPauseKept;
    QTRY_VERIFY_WITH_TIMEOUT(log.contains(log4cplus::INFO_LOG_LEVEL, kept), 10000);
    QTRY_VERIFY(library->isPaused());
    QCOMPARE(rig.state(), quietState);
    QCOMPARE(oplayertest::fakeSamplesTaken(), taken);
    QCOMPARE(rig.bytes(), heard);
    QCOMPARE(keptLines(log), 1);

    if (again == DevicePlay)
        QVERIFY(!rig.player.resume().isError());
    else if (again == DevicePauseToggle)
        QVERIFY(!rig.player.pause().isError());
    else
        QVERIFY(library->resume());
    QTRY_COMPARE_WITH_TIMEOUT(rig.state(), int(VraxPlayLogicData::Playing), 10000);
    QTRY_VERIFY_WITH_TIMEOUT(oplayertest::fakeSamplesTaken() > taken + 44100 * 2, 10000);
    QTRY_VERIFY(rig.bytes() > heard);
    QCOMPARE(keptLines(log), 1);
    QVERIFY2(log.messagesAtLeast(log4cplus::WARN_LOG_LEVEL).isEmpty(), qPrintable(log.dump()));
}

void TestOrvelloPlayLogic::ownResumeAfterSwap_data()
{
    // What the library announces (1 paused, 0 playing) from the instance that ended, then from the
    // new one; how many pauses the play logic sends it; how many INFO lines; the state after.
    QTest::addColumn<QList<int>>("fromOld");
    QTest::addColumn<QList<int>>("fromNew");
    QTest::addColumn<int>("pausesSent");
    QTest::addColumn<int>("infoLines");
    QTest::addColumn<int>("state");
    QTest::newRow("own resume") << QList<int>{} << QList<int>{0} << 1 << 1 << int(VraxPlayLogicData::Stopped);
    QTest::newRow("the old instance's resume, then the own one")
        << QList<int>{1, 0} << QList<int>{0} << 1 << 1 << int(VraxPlayLogicData::Stopped);
    QTest::newRow("own resume, then a play from the service")
        << QList<int>{} << QList<int>{0, 0} << 1 << 1 << int(VraxPlayLogicData::Starting);
    QTest::newRow("starts paused, then a play from the service")
        << QList<int>{} << QList<int>{1, 0} << 0 << 0 << int(VraxPlayLogicData::Starting);
}

// Which of the library's resumes after a held swap is its own: the first announcement of the new
// instance, told from those still queued from the old one by the order of the event queue.
void TestOrvelloPlayLogic::ownResumeAfterSwap()
{
    QFETCH(QList<int>, fromOld);
    QFETCH(QList<int>, fromNew);
    QFETCH(int, pausesSent);
    QFETCH(int, infoLines);
    QFETCH(int, state);
    Rig rig;
    QVERIFY(rig.startPlaying());
    QVERIFY(!rig.player.stop().isError());
    QCOMPARE(fake::pauses.load(), 1);

    LogCapture log;
    rig.bridge.announceLoopEnded();
    for (int paused : fromOld)
        rig.audio->pause_changed(rig.audio, paused);
    QCOMPARE(rig.state(), int(VraxPlayLogicData::Stopped));
    QCoreApplication::processEvents(); // what the old instance queued has been delivered
    for (int paused : fromNew)
        rig.audio->pause_changed(rig.audio, paused);
    QCOMPARE(fake::pauses.load(), 1 + pausesSent);
    QCOMPARE(keptLines(log), infoLines);
    QCOMPARE(rig.state(), state);
}

QTEST_GUILESS_MAIN(TestOrvelloPlayLogic)
#include "tst_orvelloplaylogic.moc"
