// The library host driving the reference player library.
#include "OPlayerTestUtil.h"

#include "TestFiles.h"
#include "TestPlatform.h"

#include "vrax/vraxpaths.h"

#include <QSignalSpy>
#include <QTemporaryFile>
#include <QTest>

#include <unistd.h>

using namespace oplayertest;

namespace {
const QString kPositionFile = QStringLiteral("cache/oplayer-ref-position");

QString titleOf(const QList<QVariant>& dataChanged)
{
    return dataChanged.at(0).value<VraxStreamerData>().trackRoles().title().toString();
}

// The library's notes on standard error, read back while they are written.
class StderrCapture
{
public:
    StderrCapture()
    {
        if (m_file.open()) {
            std::fflush(stderr);
            m_saved = dup(STDERR_FILENO);
            dup2(m_file.handle(), STDERR_FILENO);
        }
    }
    ~StderrCapture()
    {
        if (m_saved >= 0) {
            std::fflush(stderr);
            dup2(m_saved, STDERR_FILENO);
            close(m_saved);
        }
    }
    QString text() const { return QString::fromUtf8(fileBytes(m_file.fileName())); }

private:
    QTemporaryFile m_file;
    int m_saved = -1;
};

// Collects the bridge's pause and volume signals on the test's thread (they are emitted on the
// library's audio thread).
struct Announcements : QObject
{
    explicit Announcements(OPlayerPlaybackApi* api)
    {
        connect(api, &OPlayerPlaybackApi::pauseChanged, this, [this](bool paused) { pauses << paused; });
        connect(api, &OPlayerPlaybackApi::volumeChanged, this, [this](int volume) { volumes << volume; });
    }
    QList<bool> pauses;
    QList<int> volumes;
};

// Takes half of what is offered and nothing every third call, and checks that every offer
// starts exactly where the host stopped taking.
class HalfSink : public AudioSink
{
public:
    using AudioSink::AudioSink;
    std::atomic<int> discontinuities{0};

protected:
    unsigned long onData(const short* samples, unsigned long count, unsigned int* out) override
    {
        *out = 0;
        const int call = ++calls;
        if (call > 1 && m_expectFirst && samples[0] != m_nextSample)
            ++discontinuities;
        if (call % 3 == 0) {
            m_expectFirst = true;
            m_nextSample = samples[0];
            return 0;
        }
        const unsigned long taken = count > 1 ? count / 2 : count;
        m_expectFirst = taken < count;
        if (m_expectFirst)
            m_nextSample = samples[taken];
        consumed += taken;
        return taken;
    }

private:
    bool m_expectFirst = false; // only the library's audio thread touches these
    short m_nextSample = 0;
};
} // namespace

class TestOPlayerRef : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        qputenv("OPLAYER_REF_TRACK_SECONDS", "2");
    }

    void mainLoopPublishesTrackData()
    {
        TestPlatform platform;
        QVERIFY(placeLibrary(QStringLiteral(OPLAYER_REF_1_0_0), kInstalledPath));
        OPlayerLib lib(initParams());
        QVERIFY(lib.ok());
        // One and a half seconds of stereo at 44.1 kHz, then the sink refuses everything.
        AudioSink sink(lib.playbackApi(), 44100ul * 2 * 3 / 2);
        Announcements announced(lib.playbackApi());
        QSignalSpy data(lib.playbackApi(), &OPlayerPlaybackApi::dataChanged);
        QVERIFY(lib.playbackApi()->isPaused());

        QVERIFY(lib.playbackApi()->resume());
        QTRY_COMPARE(announced.pauses, QList<bool>{false});
        QCOMPARE(sink.inits.load(), 1);
        QCOMPARE(sink.channelsSeen.load(), 2);
        QCOMPARE(sink.rateSeen.load(), 44100);
        QTRY_VERIFY(!data.isEmpty() && data.last().at(1).value<long>() == 1000L);
        QTRY_COMPARE(sink.consumed.load(), 44100ul * 3);
        const auto track = data.last().at(0).value<VraxStreamerData>();
        QCOMPARE(track.trackRoles().title().toString(), QStringLiteral("Morning Light"));
        QCOMPARE(track.trackRoles().mediaData().metaData().artist(), QStringLiteral("Ada Lumen"));
        QCOMPARE(track.trackRoles().mediaData().metaData().album(), QStringLiteral("Open Hours"));
        QCOMPARE(track.trackRoles().icon(), QStringLiteral("https://art.oplayer-ref.invalid/1.png"));
        QCOMPARE(track.status().duration(), 2000LL);

        // The device's own volume is not echoed: an echo in flight could undo its next change.
        QVERIFY(lib.playbackApi()->setVolume(30));
        QCOMPARE(lib.playbackApi()->getVolume(), 30);
        QVERIFY(lib.playbackApi()->pause());
        QTRY_COMPARE(announced.pauses, (QList<bool>{false, true}));
        QVERIFY(lib.playbackApi()->isPaused());
        stopLibrary(lib);
        QCOMPARE(sink.shutdowns.load(), 1);
        QCoreApplication::processEvents();
        QCOMPARE(announced.volumes, QList<int>{});
    }

    // An update verified while the device waits for its pairing code: the track the pairing
    // starts is the song whose end the swap waits for, not an idle library to end at once.
    void exitAskedBeforePairingWaitsForTheFirstTrack()
    {
        TestPlatform platform;
        QVERIFY(placeLibrary(QStringLiteral(OPLAYER_REF_1_0_0), kInstalledPath));
        OPlayerLib lib(initParams());
        QVERIFY(lib.ok());
        AudioSink sink(lib.playbackApi());
        QSignalSpy ended(&lib, &OPlayerLib::endOfLoop);
        CMVoidReply reply;
        VraxValue code;
        code.setString_(QStringLiteral("ORVELO"));
        lib.pair(CMSetDataRequest(VraxOrvelloSetPairCode(), QStringLiteral("value"), code.toVariant(), reply));
        lib.requestExit();
        QTRY_VERIFY_WITH_TIMEOUT(!ended.isEmpty(), 10000);
        QVERIFY(reply.isFinished() && !reply.isError());
        QCOMPARE(sink.inits.load(), 1);
        QCOMPARE(sink.consumed.load(), 2ul * 44100 * 2); // the whole first track, and no more
        unloadLibrary(lib);
    }

    void unconsumedAudioIsOfferedAgain()
    {
        TestPlatform platform;
        QVERIFY(placeLibrary(QStringLiteral(OPLAYER_REF_1_0_0), kInstalledPath));
        OPlayerLib lib(initParams());
        HalfSink sink(lib.playbackApi());
        QVERIFY(lib.playbackApi()->resume());
        QTRY_VERIFY(sink.calls > 300);
        QVERIFY(lib.playbackApi()->pause());
        stopLibrary(lib);
        QCOMPARE(sink.discontinuities.load(), 0);
    }

    void remoteVolume_data()
    {
        QTest::addColumn<QByteArray>("setting");
        QTest::addColumn<bool>("created");
        QTest::addColumn<QList<int>>("announced");
        QTest::newRow("in the first track") << QByteArray("1:30") << true << QList<int>{30};
        QTest::newRow("in the second track") << QByteArray("2.5:30") << true << QList<int>{30};
        QTest::newRow("the volume it has") << QByteArray("1:80") << true << QList<int>{};
        QTest::newRow("later than played") << QByteArray("3.5:30") << true << QList<int>{};
        QTest::newRow("no seconds") << QByteArray("30") << false << QList<int>{};
        QTest::newRow("volume 101") << QByteArray("1:101") << false << QList<int>{};
        QTest::newRow("negative seconds") << QByteArray("-1:30") << false << QList<int>{};
    }

    // The volume change that the service makes from its side, scripted through the environment.
    void remoteVolume()
    {
        QFETCH(QByteArray, setting);
        QFETCH(bool, created);
        QFETCH(QList<int>, announced);
        TestPlatform platform;
        QVERIFY(placeLibrary(QStringLiteral(OPLAYER_REF_1_0_0), kInstalledPath));
        qputenv("OPLAYER_REF_REMOTE_VOLUME", setting);
        OPlayerLib lib(initParams());
        qunsetenv("OPLAYER_REF_REMOTE_VOLUME");
        QCOMPARE(lib.ok(), created);
        if (!created)
            return;
        // Three seconds of stereo at 44.1 kHz (tracks of two seconds), then nothing more is taken.
        AudioSink sink(lib.playbackApi(), 44100ul * 2 * 3);
        Announcements heard(lib.playbackApi());
        QVERIFY(lib.playbackApi()->resume());
        QTRY_COMPARE(sink.consumed.load(), 44100ul * 2 * 3);
        QTRY_COMPARE(heard.volumes, announced);
        QCOMPARE(lib.playbackApi()->getVolume(), announced.isEmpty() ? 80 : announced.last());
        QVERIFY(lib.playbackApi()->pause()); // paused, the library ends its loop without finishing the track
        stopLibrary(lib);
    }

    // Where the station goes on from, with what the library says about it.
    void goesOnWhereTheStationWas_data()
    {
        QTest::addColumn<QString>("cacheDir");
        QTest::addColumn<QByteArray>("stored"); // null: no position file; "<dir>": a directory in its place
        QTest::addColumn<QString>("firstTitle");
        QTest::addColumn<QStringList>("notes");
        QTest::addColumn<QByteArray>("saved"); // the position file once playback started; null: none

        const QString first = QStringLiteral("Morning Light"); // the station's first track
        QTest::newRow("no cache directory")
            << QString() << QByteArray() << first
            << QStringList{"oplayer-ref: no cache directory; starting at the first track, the position is not kept"}
            << QByteArray();
        QTest::newRow("first start") << "cache" << QByteArray() << first
                                     << QStringList{"oplayer-ref: no position in cache yet; starting at the first track"}
                                     << QByteArray("track 1 of 4\n");
        QTest::newRow("after the last track")
            << "cache" << QByteArray("track 4 of 4\n") << first
            << QStringList{"oplayer-ref: track 4 of 4 (\"Closing Time\") played last; going on with track 1 (\"Morning Light\")"}
            << QByteArray("track 1 of 4\n");
        QTest::newRow("damaged") << "cache" << QByteArray("track two\n") << first
                                 << QStringList{"oplayer-ref: cache/oplayer-ref-position is damaged; starting at the first track"}
                                 << QByteArray("track 1 of 4\n");
        QTest::newRow("another station")
            << "cache" << QByteArray("track 5 of 9\n") << first
            << QStringList{"oplayer-ref: cache/oplayer-ref-position names track 5 of 9, this station has 4 tracks; "
                           "starting at the first track"}
            << QByteArray("track 1 of 4\n");
        QTest::newRow("unreadable, and no place to write")
            << "cache" << QByteArray("<dir>") << first
            << QStringList{"oplayer-ref: cannot read cache/oplayer-ref-position: Is a directory; starting at the first track",
                           "oplayer-ref: cannot keep the position in cache/oplayer-ref-position: Is a directory; playing on"}
            << QByteArray();
        QTest::newRow("cache directory cannot be made")
            << "settings.json/cache" << QByteArray() << first
            << QStringList{"oplayer-ref: cannot create the cache directory settings.json/cache: Not a directory; "
                           "starting at the first track, the position is not kept"}
            << QByteArray();
    }

    void goesOnWhereTheStationWas()
    {
        QFETCH(QString, cacheDir);
        QFETCH(QByteArray, stored);
        QFETCH(QString, firstTitle);
        QFETCH(QStringList, notes);
        QFETCH(QByteArray, saved);
        TestPlatform platform;
        QVERIFY(placeLibrary(QStringLiteral(OPLAYER_REF_1_0_0), kInstalledPath));
        if (stored == "<dir>") {
            QVERIFY(QDir().mkpath(kPositionFile));
        } else if (!stored.isNull()) {
            QVERIFY(QDir().mkpath(QStringLiteral("cache")));
            QFile file(kPositionFile);
            QVERIFY(file.open(QIODevice::WriteOnly) && file.write(stored) == stored.size());
        }
        oplayer_init_params params = initParams();
        params.cacheDir = cacheDir;

        StderrCapture written;
        OPlayerLib lib(params);
        QVERIFY(lib.ok());
        AudioSink sink(lib.playbackApi(), 4096); // stays in the first track
        QSignalSpy data(lib.playbackApi(), &OPlayerPlaybackApi::dataChanged);
        QVERIFY(lib.playbackApi()->resume());
        QTRY_VERIFY(sink.consumed == 4096);
        QTRY_VERIFY(!data.isEmpty());
        QCOMPARE(titleOf(data.last()), firstTitle);
        for (const QString& note : notes)
            QTRY_VERIFY2(written.text().contains(note + QLatin1Char('\n')), qPrintable(written.text()));
        if (saved.isNull())
            QVERIFY(!QFileInfo(kPositionFile).isFile());
        else
            QTRY_COMPARE(fileBytes(kPositionFile), saved);
        QVERIFY(lib.playbackApi()->pause()); // the song would never end for a sink that takes nothing
        stopLibrary(lib);
        QCOMPARE(QDir(QStringLiteral("cache")).entryList({QStringLiteral("oplayer-ref-position.*")}, QDir::Files),
                 QStringList()); // no temporary file left behind
    }

};

QTEST_GUILESS_MAIN(TestOPlayerRef)
#include "tst_oplayerref.moc"
