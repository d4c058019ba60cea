#pragma once

#include "model/cmerror.h"
#include "model/cmrequest.h"
#include "model/cmworker.h"

#include <QElapsedTimer>
#include <QString>
#include <QVariantHash>

class CMValueNode;
class LibraryStore;
class OPlayerLib;
class OrvelloPlayLogic;
class OrvelloUI;
class OrvelloUpdater;
class QTimer;

// The module's worker: publishes the service's page, the player library's version node and
// the pairing action, and starts the player library, the play logic and the updater once the
// device is paired or a pairing code has been entered. A verified library update is swapped
// in at the end of the current song. While no library runs after that, the library list is
// searched again with a growing pause (1 s up to 60 s) and the play logic claims nothing.
// A paired device on which no library loads at start searches the same way, with the updater
// running, and starts as usual once a library loads.
//
// Owns the library store and chooses the scratch directory: "/tmp/orvello" when it can be
// prepared and nobody else controls it, else a private directory of its own.
// Created by worker_create and deleted by the platform, on the platform's main thread.
class OrvelloWorker : public CMNodesWorker
{
    Q_OBJECT
public:
    explicit OrvelloWorker(const QVariantHash& config);
    ~OrvelloWorker() override;

    // Makes sure path exists as a directory (parents included, created 0700) and is writable.
    bool prepareDirectory(const QString& path) const;

    // Creates the library host, the play logic and the updater unless that is done already or
    // the device has no token and force is false. Returns "Missing pairing code" or
    // "Failed to load library" when it did not get there; in the second case, with a token and
    // without force, the updater runs anyway and the library list is searched again.
    CMError maybeInitialize(bool force);

    // Handler of the pairing action (queued): initialises if needed, then pairs with the code
    // in the request; the request's reply gets the outcome.
    void on_setPairingCode_activated(const CMSetDataRequest& request);
    // A verified library update waits: let the library finish the current song (or install it
    // at once when no library runs). Nothing happens for a download the host would not install.
    void on_updater_updateFinished();
    // The library's loop has ended: install the update and load the library again.
    void on_lib_endOfLoop();
    // One more search of the library list while none runs (or, on a paired device where none
    // has loaded yet, one more attempt of the gate).
    void on_retryTimer_timeout();

private:
    bool m_initialized;
    OrvelloUI* m_ui;
    CMValueNode* m_sdkVersionNode;
    OrvelloUpdater* m_updater;
    OPlayerLib* m_oplayerLib;
    OrvelloPlayLogic* m_playLogic;
    LibraryStore* m_store = nullptr;
    // The scratch directory is the worker's own, removed with it.
    bool m_privateScratch = false;

    // "/tmp/orvello", or a private directory when that cannot be used or trusted; empty when
    // neither can be had.
    QString chooseScratchDirectory() const;
    // After a reload: stops the play logic and schedules a search when no library runs.
    void retryUnlessRunning();
    // A paired device without a library: the updater runs, and the gate is tried again.
    void startHealing();

    static int retryDelaySeconds(int attempt);

    QTimer* m_retryTimer = nullptr;
    int m_retryAttempt = 0;
    // When a retry last loaded a library; invalid until one did.
    QElapsedTimer m_retryLoaded;
};
