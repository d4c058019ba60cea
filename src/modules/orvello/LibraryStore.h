#pragma once

#include "LibraryFiles.h"
#include "ScratchDirectory.h"
#include "UpdateSignature.h"

#include <QSet>
#include <QString>
#include <QStringList>

// The one owner of the player library's files: a download waiting in the scratch directory and
// its verification record, the installed copy in the persistent directory with its new,
// previous and rejected companions, and the search list the host walks.
//
// The updater hands it verified downloads (wantsDownload, createDownloadFile, publishDownload,
// addVerifiedDownload); the library host asks it whether a file on the search list may be opened
// (openProblem), tells it whether a load worked (loaded, loadFailed) and has it install a waiting
// download (install); the worker asks it whether an update waits (hasInstallableUpdate).
//
// Trusts nothing it has not looked at: the scratch and persistent directories must be real
// directories of this process's user that nobody else can write, checked before each use; a file
// on the search list must be owned by root or this user and live where nobody else can write.
// Everything it creates is created exclusively, never through a link, files 0600 and
// directories 0700 whatever the umask; only the bytes that were hashed are installed.
//
// In a module built with an update key, a download is installed only while its record carries
// the service's signature of its version and checksum: the record is checked again at install,
// not only when the updater wrote it.
//
// Lives on the worker's thread; not thread-safe. Logs on the logger "Orvello". Keeps in memory
// (for the life of the store) which downloads failed to install and which were rolled back.
class LibraryStore
{
public:
    // signature: the key installs are checked against; the module's own by default.
    explicit LibraryStore(const QString& scratchDirectory = ScratchDirectory::path(),
                          const QString& persistentDirectory = QStringLiteral("data-rw/orvello"),
                          const UpdateSignature& signature = UpdateSignature::builtIn());

    QString scratchDirectory() const { return m_scratch; }
    // scratch/liboplayer-1.so: a finished download, verified and later installed.
    QString downloadPath() const;
    // The download while it is under way.
    QString downloadTempPath() const;
    // The version, checksum and signature downloadPath() verified against.
    QString recordPath() const;
    // persistent/liboplayer-1.so, the first entry of the search list.
    QString installedPath() const;
    // Where the host looks for a library, in order.
    QStringList searchList() const;

    // ---- the host ----
    // Creates the persistent directory (0700) when it is missing, says when it cannot be trusted,
    // and removes a new copy that an interrupted install left there.
    void preparePersistentDirectory();
    // A file stands at downloadPath() (verified or not).
    bool downloadWaiting() const;
    // Why the existing file at path, an entry of the search list, must not be opened: who else
    // controls it (see LibraryFiles::fileTrustProblem), or that it is not a complete shared
    // object for this process. Empty when the host may load it.
    QString openProblem(const QString& path);
    // The host runs the library loaded from path. An installed copy that had not loaded yet has
    // proven itself: its previous copy is removed.
    void loaded(const QString& path, const QString& version);
    // The host could not load path. For an installed copy that has not loaded yet (just
    // installed, or left so by an interrupted install) the previous copy is put back (or the
    // failed one removed when there is none) and its checksum remembered, also across restarts.
    // True when the previous copy is now at path and the host should try path again.
    bool loadFailed(const QString& path);
    // Whether install() would install the waiting download: it passed verification and may be
    // installed (see mayInstall). Logs why not.
    bool hasInstallableUpdate();
    // Installs the waiting download into the persistent directory durably, keeping the
    // installed copy as the previous one until the new one has loaded. False, changing nothing
    // that runs, when nothing installable waits or the install failed (logged); the host loads
    // the search list again either way.
    bool install();

    // ---- the updater ----
    // Whether the check should download the offered file: not when it would not be installed
    // (see mayInstall; logged at INFO), nor while a verified download waits to be installed, be
    // it this one or another (DEBUG): one swap at a time.
    bool wantsDownload(const QString& version, const QString& checksum);
    // Creates downloadTempPath() anew (an earlier one removed), exclusively, mode 0600, in a
    // trusted scratch directory: a writable descriptor the caller closes, or -1 with the reason.
    int createDownloadFile(QString* error);
    void removeDownloadTemp();
    // Gives the completed temporary file the name downloadPath(). A file already standing there
    // is not replaced: it stays and is what gets verified.
    void publishDownload();
    // Records that downloadPath() passed verification against download.
    bool addVerifiedDownload(const VerifiedDownload& download, QString* error);
    // downloadPath() has not passed verification (any more).
    void forgetVerification();
    // Removes the download and its record: it will never be installed.
    void discardDownload();

    // ---- the worker ----
    // Removes the module's files from the scratch directory and the directory itself when
    // nothing else is left in it: for a private directory, when the worker goes.
    void removeScratchDirectory();

private:
    QString scratchProblem() const;
    QString persistentProblem() const;
    bool pendingUpdate(VerifiedDownload* verified);
    // The one place that decides whether a verified download may be installed: why not, as the
    // INFO line says it, or empty. `obsolete` is set for a download that will never be installed
    // (it is the file that runs, or its version does not sort after the running one).
    QString mayInstall(const VerifiedDownload& download, bool* obsolete);
    QString runningChecksum();
    // Why the record's signature does not authenticate it, in a module built with an update key.
    QString signatureProblem(const VerifiedDownload& download) const;
    // A verified download waits and may be installed; nothing is logged.
    bool installableWaiting(VerifiedDownload* waiting);
    // Puts the previous copy back in the installed copy's place, or removes the installed copy
    // when there is none, and records the failed copy's checksum as rejected.
    bool rollBack(QString* error);

    QString m_scratch;
    QString m_persistent;
    UpdateSignature m_signature;
    // Checksums of downloads not to install again: failed to install, did not load.
    QSet<QString> m_failedInstalls;
    QSet<QString> m_rolledBack;
    // Set from install() until the installed copy has loaded or been taken out.
    bool m_proving = false;
    QString m_provingVersion;
    // While the previous copy is back and tried again: what failed, for the log.
    QString m_rollingBack;
    // The library that runs (or ran last), and the checksum of its file once asked for.
    QString m_runningPath;
    QString m_runningVersion;
    QString m_runningChecksum;
};
