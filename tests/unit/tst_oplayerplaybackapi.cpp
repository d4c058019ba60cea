#include "OPlayerPlaybackApi.h"

#include <QSignalSpy>
#include <QTest>

#include <functional>

namespace {
// What the fake library tables below were asked; the test runs on one thread.
struct Library
{
    int hasNewData = 0;
    int hasNewDataCalls = 0;
    int getCurrentCalls = 0;
    int releaseCalls = 0;
    int setVolumeCalls = 0;
    int lastVolume = -1;
    int lastSkip = 0;
    oplayer_track_metadata track{};
    const oplayer_track_metadata* released = nullptr;
} lib;

oplayer* const kHandle = reinterpret_cast<oplayer*>(0x1000);

int hasNewData(oplayer*) { ++lib.hasNewDataCalls; return lib.hasNewData; }
int yes(oplayer*) { return 1; }
int skip(oplayer*, int tracks) { lib.lastSkip = tracks; return 1; }
int getVolume(oplayer*) { return 42; }
int setVolume(oplayer*, int volume) { ++lib.setVolumeCalls; lib.lastVolume = volume; return 1; }
oplayer_track_metadata* getCurrent(oplayer* player)
{
    ++lib.getCurrentCalls;
    return player == kHandle ? &lib.track : nullptr;
}
void release(oplayer_track_metadata* track) { ++lib.releaseCalls; lib.released = track; }

const oplayer_controls_api kControls = {nullptr, hasNewData, yes, yes, skip, getVolume, setVolume, yes};
const oplayer_metadata_api kMetadata = {nullptr, nullptr, getCurrent, nullptr, nullptr, release};
} // namespace

class TestOPlayerPlaybackApi : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init() { lib = Library(); }

    void fallbacksWithoutLibrary_data()
    {
        QTest::addColumn<bool>("controls");
        QTest::addColumn<bool>("handle");
        QTest::newRow("nothing set") << false << false;
        QTest::newRow("controls without handle") << true << false;
        QTest::newRow("handle without controls") << false << true;
    }

    void fallbacksWithoutLibrary()
    {
        QFETCH(bool, controls);
        QFETCH(bool, handle);
        OPlayerPlaybackApi api;
        api.setControlsApi(controls ? &kControls : nullptr);
        api.setMetadataApi(&kMetadata);
        api.setOPlayer(handle ? kHandle : nullptr);
        QCOMPARE(api.isPaused(), true);
        QCOMPARE(api.pause(), false);
        QCOMPARE(api.resume(), false);
        QCOMPARE(api.skip(1), false);
        QCOMPARE(api.getVolume(), -1);
        QCOMPARE(api.setVolume(50), false);
        QCOMPARE(lib.setVolumeCalls, 0);
    }

    void detachedAfterLoopEnd()
    {
        OPlayerPlaybackApi api;
        api.setControlsApi(&kControls);
        api.setMetadataApi(&kMetadata);
        api.setOPlayer(kHandle);
        QCOMPARE(api.getVolume(), 42);
        QCOMPARE(api.skip(-2), true);
        QCOMPARE(lib.lastSkip, -2);
        api.setControlsApi(nullptr);
        api.setMetadataApi(nullptr);
        api.setOPlayer(nullptr);
        QCOMPARE(api.isPaused(), true);
        QCOMPARE(api.getVolume(), -1);
        lib.hasNewData = 1;
        api.pump();
        QCOMPARE(lib.hasNewDataCalls, 0);
    }

    void setVolumeRange_data()
    {
        QTest::addColumn<int>("volume");
        QTest::addColumn<bool>("reachesLibrary");
        QTest::newRow("-1") << -1 << false;
        QTest::newRow("0") << 0 << true;
        QTest::newRow("100") << 100 << true;
        QTest::newRow("101") << 101 << false;
    }

    void setVolumeRange()
    {
        QFETCH(int, volume);
        QFETCH(bool, reachesLibrary);
        OPlayerPlaybackApi api;
        api.setControlsApi(&kControls);
        api.setOPlayer(kHandle);
        QCOMPARE(api.maxVolume(), 100);
        QCOMPARE(api.setVolume(volume), reachesLibrary);
        QCOMPARE(lib.setVolumeCalls, reachesLibrary ? 1 : 0);
        if (reachesLibrary)
            QCOMPARE(lib.lastVolume, volume);
    }

    void pumpPublishesTrack_data()
    {
        QTest::addColumn<int>("artistCount");
        QTest::addColumn<QString>("artist");
        QTest::newRow("no artist") << 0 << QString();
        QTest::newRow("three artists, first used") << 3 << QStringLiteral("Ana");
    }

    void pumpPublishesTrack()
    {
        QFETCH(int, artistCount);
        QFETCH(QString, artist);
        static const char* const artists[] = {"Ana", "Bo", "Cy"};
        lib.track.title = "Titel \xc3\xa4";
        lib.track.album = nullptr;
        lib.track.artists = artistCount ? artists : nullptr;
        lib.track.artist_count = artistCount;
        lib.track.duration = 123456;
        lib.track.position = 77;
        lib.track.image = "https://art/1.png";
        lib.hasNewData = 1;

        OPlayerPlaybackApi api;
        api.setControlsApi(&kControls);
        api.setMetadataApi(&kMetadata);
        api.setOPlayer(kHandle);
        QSignalSpy spy(&api, &OPlayerPlaybackApi::dataChanged);
        api.pump();

        QCOMPARE(spy.count(), 1);
        QCOMPARE(lib.releaseCalls, 1);
        QCOMPARE(lib.released, &lib.track);
        const auto data = spy.at(0).at(0).value<VraxStreamerData>();
        QCOMPARE(spy.at(0).at(1).value<long>(), 77000L);
        QCOMPARE(data.status().duration(), 123456LL);
        QCOMPARE(data.trackRoles().title().toString(), QStringLiteral("Titel ä"));
        QCOMPARE(data.trackRoles().icon(), QStringLiteral("https://art/1.png"));
        QVERIFY(data.trackRoles().mediaData().metaData().album().isNull());
        QCOMPARE(data.trackRoles().mediaData().metaData().artist(), artist);
        QCOMPARE(data.trackRoles().mediaData().metaData().artist().isNull(), artistCount == 0);
    }

    void pumpWithoutNewData()
    {
        OPlayerPlaybackApi api;
        api.setControlsApi(&kControls);
        api.setMetadataApi(&kMetadata);
        api.setOPlayer(kHandle);
        QSignalSpy spy(&api, &OPlayerPlaybackApi::dataChanged);
        api.pump();
        QCOMPARE(lib.hasNewDataCalls, 1);
        QCOMPARE(lib.getCurrentCalls, 0);
        QCOMPARE(spy.count(), 0);
    }

    void audioTableForwards()
    {
        OPlayerPlaybackApi api;
        oplayer_audio_api* first = api.getAudioApi();
        QVERIFY(first);
        oplayer_audio_api* table = api.getAudioApi();
        QCOMPARE(table->user, static_cast<void*>(&api));

        QList<int> init;
        int shutdowns = 0;
        int flushes = 0;
        const short* seenSamples = nullptr;
        unsigned long seenCount = 0;
        api.setAudioInitCb([&](int channels, int rate) { init = {channels, rate}; });
        api.setAudioShutdownCb([&]() { ++shutdowns; });
        api.setAudioFlushCb([&]() { ++flushes; });
        api.setAudioDataCb([&](const short* samples, unsigned long count, unsigned int* out) {
            seenSamples = samples;
            seenCount = count;
            *out = 0;
            return count / 2;
        });
        QSignalSpy pause(&api, &OPlayerPlaybackApi::pauseChanged);
        QSignalSpy volume(&api, &OPlayerPlaybackApi::volumeChanged);

        table->init(table, 2, 48000);
        QCOMPARE(init, (QList<int>{2, 48000}));
        table->flush(table);
        table->shutdown(table);
        QCOMPARE(flushes, 1);
        QCOMPARE(shutdowns, 1);
        const short samples[6] = {};
        unsigned int out = 7;
        QCOMPARE(table->data(table, samples, 6, &out), 3ul);
        QCOMPARE(seenSamples, samples);
        QCOMPARE(seenCount, 6ul);
        QCOMPARE(out, 0u);
        table->pause_changed(table, 5);
        table->pause_changed(table, 0);
        table->volume_changed(table, 130);
        QCOMPARE(pause.count(), 2);
        QCOMPARE(pause.at(0).at(0).toBool(), true);
        QCOMPARE(pause.at(1).at(0).toBool(), false);
        QCOMPARE(volume.count(), 1);
        QCOMPARE(volume.at(0).at(0).toInt(), 130);
    }

    void missingCallbackThrows()
    {
        OPlayerPlaybackApi api;
        oplayer_audio_api* table = api.getAudioApi();
        QVERIFY_EXCEPTION_THROWN(table->flush(table), std::bad_function_call);
    }
};

QTEST_GUILESS_MAIN(TestOPlayerPlaybackApi)
#include "tst_oplayerplaybackapi.moc"
