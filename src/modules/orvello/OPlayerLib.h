#pragma once

#include "OPlayerPlaybackApi.h"
#include "oplayer/oplayer.h"

#include "model/cmreply.h"
#include "model/cmrequest.h"

#include <QList>
#include <QObject>
#include <QString>

#include <cstddef>
#include <memory>

class LibraryStore;
class QLibrary;

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

// Hosts the service's player library: walks the library store's search list, creates one
// instance, turns its main loop on the owner's event loop, pairs the device, and has the store
// install downloaded library versions. The store decides what may be opened and what is
// installed; the host loads. Lives on the worker's thread; nothing here is thread-safe.
//
// Failures are logged and leave ok() false; nothing is thrown or reported from here.
class OPlayerLib : public QObject
{
    Q_OBJECT
public:
    // Loads the library (installing a finished download first, if one is waiting). store is the
    // worker's and must outlive the host; without one the host keeps a store of its own on the
    // default paths.
    explicit OPlayerLib(const oplayer_init_params& params, LibraryStore* store = nullptr);
    // Does not destroy a live instance and leaves the library file mapped: end the loop first
    // (requestExit, endOfLoop) when the library has threads of its own. Pairing attempts still
    // under way are cancelled.
    ~OPlayerLib() override;

    bool ok() const;
    // The bridge; valid for the host's whole life, across reloads.
    OPlayerPlaybackApi* playbackApi();

    // Walks the search list until a library loads, resolves and creates an instance. A file
    // the store will not have opened (another account controls it, or it is not a complete
    // shared object for this machine) is skipped without being opened. An installed copy that
    // has not loaded yet and fails is replaced by the previous one.
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

    // Has the store install a verified download (durably, keeping the previous copy until the
    // new one has loaded) and loads again. False, changing nothing, when nothing installable
    // waits (LibraryStore::hasInstallableUpdate); else ok() after the reload. The library's loop
    // must have ended.
    bool update();

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

    QLibrary* m_library;
    oplayer_init_params m_params;
    const oplayer_api* m_api;
    oplayer* m_oplayer;
    const oplayer_pairing_api* m_pairingApi;
    oplayer_create_params m_createParams;
    OPlayerPlaybackApi m_playbackApi;
    QString m_runningVersion;
    std::unique_ptr<LibraryStore> m_ownStore;
    LibraryStore* m_store;
    // Pairing attempts still polling, in the order they started.
    QList<CMReply<QVariant>> m_pairings;
    unsigned m_pairingFaultsLogged = 0;
};

// The token store handed to the library in the creation record; callable from any thread.
// The reader copies at most size bytes and writes no terminating NUL.
extern "C" void orvello_load_token(char* buffer, size_t size);
extern "C" void orvello_save_token(const char* token);
