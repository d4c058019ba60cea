#pragma once

#include "OPlayerPlaybackApi.h"
#include "oplayer/oplayer.h"

#include "model/cmreply.h"
#include "model/cmrequest.h"

#include <QList>
#include <QObject>
#include <QSet>
#include <QString>

#include <cstddef>

class QLibrary;
class VraxOrvelloVersionInfo;

// The device settings the player library is created from; filled by the worker.
struct oplayer_init_params
{
    qint32 maxBandwidthKbps = 0;
    QString cacheDir;
    qint32 cacheMaxMb = 0;
    qint32 cacheRemainMb = 0;
    qint32 outputSampleRate = 0;
    qint32 outputChannels = 0;
    QString serialNumber;
    QString vendorSecret;
    QString productName;
};

// Hosts the service's player library: finds it on the search list, creates one instance,
// turns its main loop on the owner's event loop, pairs the device and installs downloaded
// library versions. Lives on the worker's thread; nothing here is thread-safe.
//
// Failures are logged and leave ok() false; nothing is thrown or reported from here.
class OPlayerLib : public QObject
{
    Q_OBJECT
public:
    // Loads the library (installing a finished download first, if one is waiting).
    explicit OPlayerLib(const oplayer_init_params& params);
    // Does not destroy a live instance and leaves the library file mapped: end the loop first
    // (requestExit, endOfLoop) when the library has threads of its own. Pairing attempts still
    // under way are cancelled.
    ~OPlayerLib() override;

    bool ok() const;
    // The bridge; valid for the host's whole life, across reloads.
    OPlayerPlaybackApi* playbackApi();

    // Walks the search list until a library loads, resolves and creates an instance. A file
    // that is not a complete shared object for this machine is skipped without being opened.
    // An installed copy that has not loaded yet and fails is replaced by the previous one.
    void load();
    // Closes the library file last opened; the instance, if any, is not touched.
    void unload();

    // One turn of the library's loop; scheduled by load() and by itself only.
    void mainLoop();
    // Destroys a running instance now, joining the library's threads, without endOfLoop: once
    // it returns no library thread calls the audio table. For the owner's destruction; pairing
    // attempts still under way are cancelled.
    void shutdown();
    // Asks the library to leave its loop when the current song has finished; endOfLoop follows.
    void requestExit();

    // Starts pairing with the code in the request's value; the request's reply gets the outcome,
    // exactly once. When the library's loop ends first, the instance is asked once more and the
    // reply gets its outcome or "Pairing was interrupted, please enter the pairing code again".
    void pair(const CMSetDataRequest& request);
    // One poll of a pairing attempt; re-schedules itself every 100 ms until the outcome is known.
    // Does nothing for an attempt that has been answered already.
    void doPairLoop(CMReply<QVariant> reply);

    // Installs a verified download into the persistent directory (durably, keeping the previous
    // copy until the new one has loaded) and loads again. False, changing nothing, when nothing
    // installable waits (see hasInstallableUpdate); else ok() after the reload. The library's
    // loop must have ended.
    bool update();
    // Whether update() would install the waiting download: it passed verification, and it
    // neither failed to install earlier in this process nor was rolled back on this device.
    // Logs why not.
    bool hasInstallableUpdate();

Q_SIGNALS:
    // The library instance has been destroyed at the end of its loop.
    void endOfLoop();

private:
    // Destroys the instance and detaches the bridge from it.
    void destroyInstance();
    // Polls once; when the library has the outcome, answers the reply with it and gives the
    // record back.
    bool collectPairingOutcome(CMReply<QVariant>& reply);
    // The loop has ended: every attempt under way gets this instance's outcome or the
    // interruption error.
    void interruptPairings();
    void cancelPairings();
    // Each logged once per host, the first time the library does it.
    enum PairingFault : unsigned { NoPairingTable = 1u << 0, NoPairingRelease = 1u << 1, NoDeviceId = 1u << 2 };
    bool firstTime(PairingFault fault);

    // One path of load(): true when it runs an instance.
    bool loadFrom(const QString& path);
    // The installed copy has loaded: its previous copy is not needed any more.
    void keepInstalled();
    // The installed copy that has not loaded yet failed: puts the previous copy back (or removes
    // the failed one when there is none) and remembers its checksum, also across restarts.
    bool rollBack(QString* error);
    bool pendingUpdate(VraxOrvelloVersionInfo* verified);

    QLibrary* m_library;
    oplayer_init_params m_params;
    const oplayer_api* m_api;
    oplayer* m_oplayer;
    const oplayer_pairing_api* m_pairingApi;
    oplayer_create_params m_createParams;
    OPlayerPlaybackApi m_playbackApi;
    QString m_runningVersion;
    // Set while update() loads what it has just installed.
    bool m_installing;
    QString m_installingVersion;
    // Checksums of downloads not to install again: failed to install, did not load.
    QSet<QString> m_failedInstalls;
    QSet<QString> m_rolledBack;
    // Pairing attempts still polling, in the order they started.
    QList<CMReply<QVariant>> m_pairings;
    unsigned m_pairingFaultsLogged = 0;
};

// The token store handed to the library in the creation record; callable from any thread.
// The reader copies at most size bytes and writes no terminating NUL.
extern "C" void orvello_load_token(char* buffer, size_t size);
extern "C" void orvello_save_token(const char* token);
