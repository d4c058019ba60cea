// Loading, running, ending and unloading the reference library again and again leaves nothing
// behind: no thread, no mapping, and (in the sanitizer build) no leak.
#include "OPlayerTestUtil.h"

#include "TestPlatform.h"

#include <QTest>

#include <memory>

using namespace oplayertest;

namespace {
int threadCount()
{
    return QDir(QStringLiteral("/proc/self/task")).entryList(QDir::Dirs | QDir::NoDotAndDotDot).size();
}

bool libraryMapped()
{
    QFile maps(QStringLiteral("/proc/self/maps"));
    return maps.open(QIODevice::ReadOnly) && maps.readAll().contains("liboplayer-1.so");
}
} // namespace

class TestOPlayerRefCycles : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        qputenv("OPLAYER_REF_TRACK_SECONDS", "0.5");
    }

    void tenCycles()
    {
        TestPlatform platform;
        QVERIFY(placeLibrary(QStringLiteral(OPLAYER_REF_1_0_0), kInstalledPath));
        const int threadsBefore = threadCount();
        for (int cycle = 0; cycle < 10; ++cycle) {
            auto lib = std::make_unique<OPlayerLib>(initParams());
            QVERIFY(lib->ok());
            QCOMPARE(threadCount(), threadsBefore + 1); // the library's audio thread
            AudioSink sink(lib->playbackApi());
            QVERIFY(lib->playbackApi()->resume());
            QTRY_VERIFY(sink.consumed > 0);
            stopLibrary(*lib);
            QCOMPARE(sink.shutdowns.load(), 1);
            lib.reset();
            // A joined thread can stay listed for a moment while the kernel (or an emulator)
            // finishes it; one that never goes is a leak.
            QTRY_COMPARE(threadCount(), threadsBefore);
            QVERIFY2(!libraryMapped(), "the player library is still mapped after unload");
        }
    }
};

QTEST_GUILESS_MAIN(TestOPlayerRefCycles)
#include "tst_oplayerref_cycles.moc"
