#include "LogCapture.h"
#include "OPlayerPlaybackApi.h"

#include <QSignalSpy>
#include <QTest>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

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
    bool noRecord = false;
    oplayer_track_metadata track{};
    const oplayer_track_metadata* released = nullptr;
} lib;

oplayer* const kHandle = reinterpret_cast<oplayer*>(0x1000);

int hasNewData(oplayer*) { ++lib.hasNewDataCalls; return lib.hasNewData; }
int yes(oplayer*) { return 1; }
int no(oplayer*) { return 0; }
int skip(oplayer*, int tracks) { lib.lastSkip = tracks; return 1; }
int getVolume(oplayer*) { return 42; }
int setVolume(oplayer*, int volume) { ++lib.setVolumeCalls; lib.lastVolume = volume; return 1; }
oplayer_track_metadata* getCurrent(oplayer* player)
{
    ++lib.getCurrentCalls;
    return player == kHandle && !lib.noRecord ? &lib.track : nullptr;
}
void release(oplayer_track_metadata* track) { ++lib.releaseCalls; lib.released = track; }

const oplayer_controls_api kControls = {nullptr, hasNewData, yes, yes, skip, getVolume, setVolume, no};
const oplayer_metadata_api kMetadata = {nullptr, nullptr, getCurrent, nullptr, nullptr, release};
const oplayer_controls_api kNoControlEntries = {};
const oplayer_metadata_api kNoMetadataEntries = {};
const oplayer_metadata_api kMetadataWithoutRelease = {nullptr, nullptr, getCurrent, nullptr, nullptr, nullptr};
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
        QTest::addColumn<bool>("detached"); // a library was there; its loop ended and everything was cleared
        QTest::newRow("nothing set") << false << false << false;
        QTest::newRow("controls without handle") << true << false << false;
        QTest::newRow("handle without controls") << false << true << false;
        QTest::newRow("detached after the loop ended") << false << false << true;
    }

    void fallbacksWithoutLibrary()
    {
        QFETCH(bool, controls);
        QFETCH(bool, handle);
        QFETCH(bool, detached);
        OPlayerPlaybackApi api;
        if (detached) {
            api.setControlsApi(&kControls);
            api.setOPlayer(kHandle);
            QCOMPARE(api.skip(-2), true);
            QCOMPARE(lib.lastSkip, -2);
        }
        api.setControlsApi(controls ? &kControls : nullptr);
        api.setMetadataApi(detached ? nullptr : &kMetadata);
        api.setOPlayer(handle ? kHandle : nullptr);
        QCOMPARE(api.isPaused(), true);
        QCOMPARE(api.pause(), false);
        QCOMPARE(api.resume(), false);
        QCOMPARE(api.skip(1), false);
        QCOMPARE(api.getVolume(), -1);
        QCOMPARE(api.setVolume(50), false);
        QCOMPARE(lib.setVolumeCalls, 0);
        lib.hasNewData = 1;
        if (!controls)
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
        QTest::addColumn<int>("artistCount"); // -1: the library has nothing new
        QTest::addColumn<QString>("artist");
        QTest::newRow("nothing new") << -1 << QString();
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
        lib.track.artists = artistCount > 0 ? artists : nullptr;
        lib.track.artist_count = artistCount;
        lib.track.duration = 123456;
        lib.track.position = 77;
        lib.track.image = "https://art/1.png";
        lib.hasNewData = artistCount >= 0;

        OPlayerPlaybackApi api;
        api.setControlsApi(&kControls);
        api.setMetadataApi(&kMetadata);
        api.setOPlayer(kHandle);
        QSignalSpy spy(&api, &OPlayerPlaybackApi::dataChanged);
        api.pump();

        QCOMPARE(lib.hasNewDataCalls, 1);
        QCOMPARE(lib.getCurrentCalls, lib.hasNewData);
        QCOMPARE(spy.count(), lib.hasNewData);
        if (!lib.hasNewData)
            return;
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

    void announcementsBeforeCallbacks_data()
    {
        QTest::addColumn<bool>("shutdown");
        QTest::newRow("format announced") << false;
        QTest::newRow("format ended by shutdown") << true;
    }

    // The library may use its table before anything is installed: data takes nothing, and the
    // format, pause state and volume it announced are there for whoever comes later.
    void announcementsBeforeCallbacks()
    {
        QFETCH(bool, shutdown);
        OPlayerPlaybackApi api;
        oplayer_audio_api* table = api.getAudioApi();
        QCOMPARE(api.announcedPaused(), -1);
        QCOMPARE(api.announcedVolume(), -1);
        const short samples[4] = {};
        unsigned int out = 7;
        QCOMPARE(table->data(table, samples, 4, &out), 0ul);
        QCOMPARE(out, 0u);
        QCOMPARE(table->data(table, samples, 4, nullptr), 0ul);
        // No buffer behind the count: refused before any callback could read it.
        bool called = false;
        api.setAudioDataCb([&](const short*, unsigned long count, unsigned int*) { called = true; return count; });
        LogCapture log;
        out = 7;
        QCOMPARE(table->data(table, nullptr, 4, &out), 0ul);
        QCOMPARE(table->data(table, nullptr, 4, &out), 0ul);
        QCOMPARE(out, 0u);
        QVERIFY(!called);
        QCOMPARE(log.messages(log4cplus::WARN_LOG_LEVEL),
                 QStringList{QStringLiteral("The player library offered 4 samples without a buffer; taking none of them")});
        api.setAudioDataCb(nullptr);
        table->flush(table);
        table->init(table, 2, 48000);
        table->pause_changed(table, 3);
        table->volume_changed(table, 30);
        if (shutdown)
            table->shutdown(table);
        QCOMPARE(api.announcedPaused(), 1);
        QCOMPARE(api.announcedVolume(), 30);

        QList<QList<int>> inits;
        api.setAudioInitCb([&](int channels, int rate) { inits << QList<int>{channels, rate}; });
        const QList<QList<int>> handedOver = shutdown ? QList<QList<int>>() : QList<QList<int>>{{2, 48000}};
        QCOMPARE(inits, handedOver);
        table->init(table, 1, 22050);
        QCOMPARE(inits.size(), shutdown ? 1 : 2);
        QCOMPARE(inits.last(), (QList<int>{1, 22050}));
    }

    // Two library threads call the table while the callback is replaced over and over: calls
    // never overlap, and once a replacement returns the old callback is neither running nor
    // called again.
    void callsTakeTurnsWithInstallation()
    {
        OPlayerPlaybackApi api;
        oplayer_audio_api* table = api.getAudioApi();
        struct Generation
        {
            std::atomic<bool> replaced{false};
            std::atomic<int> lateCalls{0};
        };
        std::atomic<int> inside{0};
        std::atomic<int> overlaps{0};
        std::atomic<bool> stop{false};
        auto install = [&](Generation* generation) {
            api.setAudioDataCb([&, generation](const short*, unsigned long count, unsigned int* out) {
                if (++inside > 1)
                    ++overlaps;
                if (generation->replaced)
                    ++generation->lateCalls;
                std::this_thread::yield();
                *out = 0;
                --inside;
                return count;
            });
        };
        std::vector<std::unique_ptr<Generation>> generations;
        generations.push_back(std::make_unique<Generation>());
        install(generations.back().get());
        std::vector<std::thread> libraryThreads;
        for (int t = 0; t < 2; ++t)
            libraryThreads.emplace_back([&] {
                const short samples[8] = {};
                unsigned int out = 1;
                while (!stop)
                    table->data(table, samples, 8, &out);
            });
        int stillRunning = 0;
        for (int i = 0; i < 2000; ++i) {
            generations.push_back(std::make_unique<Generation>());
            install(generations.back().get());
            generations[generations.size() - 2]->replaced = true;
        }
        api.setAudioDataCb(nullptr);
        stillRunning = inside;
        generations.back()->replaced = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20)); // the library threads keep calling
        stop = true;
        for (std::thread& t : libraryThreads)
            t.join();
        QCOMPARE(overlaps.load(), 0);
        QCOMPARE(stillRunning, 0);
        for (const auto& generation : generations)
            QCOMPARE(generation->lateCalls.load(), 0);
    }

    void libraryLeavesThingsOut_data()
    {
        QTest::addColumn<int>("controls");  // 0 full, 1 none, 2 without entries
        QTest::addColumn<int>("metadata");  // 0 full, 1 none, 2 without entries, 3 without release
        QTest::addColumn<QString>("record"); // full, none, null strings, null artist
        QTest::addColumn<int>("published"); // dataChanged of two pumps
        QTest::addColumn<QStringList>("warnings");

        const QString missingEntry = QStringLiteral("The player library's controls table has no %1 entry; it gets "
                                                    "the answer for a missing library");
        QTest::newRow("no controls table")
            << 1 << 0 << "full" << 0
            << QStringList{QStringLiteral("The player library gave no controls table; play, pause, volume and track "
                                          "data get the answers for a missing library")};
        QTest::newRow("controls without entries")
            << 2 << 0 << "full" << 0
            << QStringList{missingEntry.arg("is_paused"), missingEntry.arg("pause"), missingEntry.arg("resume"),
                           missingEntry.arg("skip"), missingEntry.arg("get_volume"), missingEntry.arg("set_volume"),
                           missingEntry.arg("has_new_data")};
        QTest::newRow("no metadata table")
            << 0 << 1 << "full" << 0
            << QStringList{QStringLiteral("The player library gave no metadata table; no track data is published")};
        QTest::newRow("metadata without entries")
            << 0 << 2 << "full" << 0
            << QStringList{QStringLiteral("The player library's metadata table has no get_current entry; no track "
                                          "data is published")};
        QTest::newRow("metadata without release")
            << 0 << 3 << "full" << 2
            << QStringList{QStringLiteral("The player library's metadata table has no release entry; its track "
                                          "records are not given back")};
        QTest::newRow("no track record")
            << 0 << 0 << "none" << 0
            << QStringList{QStringLiteral("The player library said it had new track data but gave no track record; "
                                          "the track data stays as it was")};
        QTest::newRow("null strings and artists")
            << 0 << 0 << "null strings" << 2
            << QStringList{QStringLiteral("The player library gave a track record without a title; publishing it "
                                          "empty"),
                           QStringLiteral("The player library gave a track record of 2 artists without the artists; "
                                          "publishing no artist")};
        QTest::newRow("null artist")
            << 0 << 0 << "null artist" << 2
            << QStringList{QStringLiteral("The player library gave a track record without an artist; publishing it "
                                          "empty")};
    }

    // Whatever the library leaves null gets the answer for a missing library, and one WARN line
    // the first time.
    void libraryLeavesThingsOut()
    {
        QFETCH(int, controls);
        QFETCH(int, metadata);
        QFETCH(QString, record);
        QFETCH(int, published);
        QFETCH(QStringList, warnings);
        static const char* const artists[] = {"Ana"};
        static const char* const nullArtist[] = {nullptr};
        lib.hasNewData = 1;
        lib.noRecord = record == QLatin1String("none");
        lib.track.title = "T";
        lib.track.album = "A";
        lib.track.image = "I";
        lib.track.artists = record == QLatin1String("null artist") ? nullArtist : artists;
        lib.track.artist_count = 1;
        if (record == QLatin1String("null strings")) {
            lib.track = oplayer_track_metadata{};
            lib.track.artist_count = 2;
        }
        const oplayer_controls_api* controlTables[] = {&kControls, nullptr, &kNoControlEntries};
        const oplayer_metadata_api* metadataTables[] = {&kMetadata, nullptr, &kNoMetadataEntries,
                                                        &kMetadataWithoutRelease};
        OPlayerPlaybackApi api;
        api.setControlsApi(controlTables[controls]);
        api.setMetadataApi(metadataTables[metadata]);
        api.setOPlayer(kHandle);
        QSignalSpy spy(&api, &OPlayerPlaybackApi::dataChanged);
        LogCapture log;
        for (int round = 0; round < 2; ++round) {
            QCOMPARE(api.isPaused(), controls != 0);
            QCOMPARE(api.pause(), controls == 0);
            QCOMPARE(api.resume(), controls == 0);
            QCOMPARE(api.skip(1), controls == 0);
            QCOMPARE(api.getVolume(), controls == 0 ? 42 : -1);
            QCOMPARE(api.setVolume(5), controls == 0);
            api.pump();
        }
        QCOMPARE(spy.count(), published);
        QCOMPARE(lib.releaseCalls, metadata == 0 ? published : 0);
        QCOMPARE(log.messages(log4cplus::WARN_LOG_LEVEL, QStringLiteral("Orvello")), warnings);
        if (published && record != QLatin1String("full")) {
            const auto data = spy.at(0).at(0).value<VraxStreamerData>();
            QVERIFY(data.trackRoles().mediaData().metaData().artist().isEmpty());
            QCOMPARE(data.trackRoles().title().toString().isEmpty(), record == QLatin1String("null strings"));
            QCOMPARE(data.trackRoles().icon().isEmpty(), record == QLatin1String("null strings"));
        }
    }
};

QTEST_GUILESS_MAIN(TestOPlayerPlaybackApi)
#include "tst_oplayerplaybackapi.moc"
