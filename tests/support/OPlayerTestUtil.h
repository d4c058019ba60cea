#pragma once

// Helpers shared by the player library host's tests.
#include "LibraryFiles.h"
#include "LibraryStore.h"
#include "TestSigning.h"
#include "OPlayerLib.h"
#include "OrvelloUpdater.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTest>

#include <dlfcn.h>

#include <atomic>
#include <mutex>

namespace oplayertest {

inline const QString kInstalledPath = QStringLiteral("data-rw/orvello/liboplayer-1.so");
inline const QString kDownloadPath = QStringLiteral("/tmp/orvello/liboplayer-1.so");

// Copies a built library to path (relative to the working directory), parents created.
inline bool placeLibrary(const QString& from, const QString& path)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile::remove(path);
    return QFile::copy(from, path);
}

// Leaves a copy of library where the updater leaves a download, with the record it writes when
// the download passes verification.
inline bool placeVerifiedDownload(const QString& library, const QString& version = QStringLiteral("1.1.0"))
{
    QString error;
    return placeLibrary(library, kDownloadPath)
        && LibraryFiles::writeRecord(LibraryStore().recordPath(),
                                     {version, LibraryFiles::sha256Hex(library),
                                      testSignature(version, LibraryFiles::sha256Hex(library))},
                                     &error);
}

// A symbol of a library the process has already loaded from path, or null.
inline void* loadedSymbol(const QString& path, const char* symbol)
{
    void* handle = dlopen(QFileInfo(path).absoluteFilePath().toLocal8Bit().constData(), RTLD_NOW | RTLD_NOLOAD);
    if (!handle)
        return nullptr;
    void* address = dlsym(handle, symbol);
    dlclose(handle);
    return address;
}

inline int fakeCounter(const QString& path, const char* symbol)
{
    auto fn = reinterpret_cast<int (*)()>(loadedSymbol(path, symbol));
    return fn ? fn() : -1;
}

// Samples the fake playing library at the installed path has had taken by the host.
inline unsigned long long fakeSamplesTaken()
{
    auto fn = reinterpret_cast<unsigned long long (*)()>(loadedSymbol(kInstalledPath, "fake_samples_taken"));
    return fn ? fn() : 0;
}

inline oplayer_init_params initParams()
{
    oplayer_init_params params;
    params.maxBandwidthKbps = 0x1234;
    // Relative: inside the test's own working directory; the reference library writes there.
    params.cacheDir = QStringLiteral("cache");
    params.cacheMaxMb = 300;
    params.cacheRemainMb = 50;
    params.outputSampleRate = 44100;
    params.outputChannels = 2;
    params.serialNumber = QStringLiteral("SN-0042");
    params.vendorSecret = QStringLiteral("vendor-secret");
    params.productName = QStringLiteral("Vrax Test Amp");
    return params;
}

// Ends the library instance at once and closes its file: none of its threads outlives its code.
inline void unloadLibrary(OPlayerLib& lib)
{
    lib.shutdown();
    lib.unload();
}

// Ends a running library's loop (as the worker does before an update) and closes its file, so
// the next test starts with nothing mapped.
inline void stopLibrary(OPlayerLib& lib)
{
    if (lib.ok()) {
        lib.requestExit();
        QTRY_VERIFY_WITH_TIMEOUT(!lib.ok(), 10000);
    }
    unloadLibrary(lib);
}

// Audio callbacks standing in for the play logic. Runs on the library's threads; every field
// is atomic. Consumes everything offered until budget samples have been taken, then nothing.
class AudioSink
{
public:
    explicit AudioSink(OPlayerPlaybackApi* api, unsigned long budget = ~0ul) : m_budget(budget)
    {
        api->setAudioInitCb([this](int channels, int rate) {
            channelsSeen = channels;
            rateSeen = rate;
            ++inits;
        });
        api->setAudioShutdownCb([this]() { ++shutdowns; });
        api->setAudioFlushCb([this]() { ++flushes; });
        api->setAudioDataCb([this](const short* samples, unsigned long count, unsigned int* out) {
            return onData(samples, count, out);
        });
    }

    virtual ~AudioSink() = default;

    std::atomic<int> channelsSeen{0};
    std::atomic<int> rateSeen{0};
    std::atomic<int> inits{0};
    std::atomic<int> shutdowns{0};
    std::atomic<int> flushes{0};
    std::atomic<unsigned long> consumed{0};
    std::atomic<int> calls{0};

protected:
    virtual unsigned long onData(const short*, unsigned long count, unsigned int* out)
    {
        *out = 0;
        ++calls;
        const unsigned long left = m_budget - consumed;
        const unsigned long taken = count < left ? count : left;
        consumed += taken;
        return taken;
    }

private:
    const unsigned long m_budget;
};

} // namespace oplayertest
