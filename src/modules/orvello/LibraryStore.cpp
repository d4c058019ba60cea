#include "LibraryStore.h"

#include "OrvelloLogging.h"

#include <QDir>
#include <QFile>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace {
log4cplus::Logger logger = log4cplus::Logger::getInstance("Orvello");

constexpr char kLibraryName[] = "/liboplayer-1.so";

bool exists(const QString& path)
{
    struct stat info;
    return ::lstat(QFile::encodeName(path).constData(), &info) == 0;
}

bool isRegularFile(const QString& path)
{
    struct stat info;
    return ::lstat(QFile::encodeName(path).constData(), &info) == 0 && S_ISREG(info.st_mode);
}

// Removal inside a directory that only this process's user can write: unlink never follows a link.
void removeFile(const QString& path)
{
    ::unlink(QFile::encodeName(path).constData());
}
} // namespace

LibraryStore::LibraryStore(const QString& scratchDirectory, const QString& persistentDirectory,
                           const UpdateSignature& signature)
    : m_scratch(scratchDirectory)
    , m_persistent(persistentDirectory)
    , m_signature(signature)
{
}

QString LibraryStore::downloadPath() const
{
    return m_scratch + QLatin1String(kLibraryName);
}

QString LibraryStore::downloadTempPath() const
{
    return downloadPath() + QStringLiteral(".tmp");
}

QString LibraryStore::recordPath() const
{
    return downloadPath() + QStringLiteral(".verified");
}

QString LibraryStore::installedPath() const
{
    return m_persistent + QLatin1String(kLibraryName);
}

QStringList LibraryStore::searchList() const
{
    // Where a device's system image keeps the library, and a developer build tree (relative to
    // the working directory). The installed update comes first so that it wins over them.
    return QStringList{installedPath(), QStringLiteral("/usr/lib64/liboplayer-1.so.1"),
                       QStringLiteral("/usr/lib/liboplayer-1.so.1"),
                       QStringLiteral("../../build/Hollowkit-blobs-links/Orvello/lib/linux_x86_64/liboplayer-1.so")};
}

QString LibraryStore::scratchProblem() const
{
    return LibraryFiles::directoryTrustProblem(m_scratch);
}

QString LibraryStore::persistentProblem() const
{
    return LibraryFiles::directoryTrustProblem(m_persistent);
}

void LibraryStore::preparePersistentDirectory()
{
    QString error;
    if (!LibraryFiles::makeDirectory(m_persistent, &error)) {
        LOG4CPLUS_ERROR(logger, "Failed to create: " << m_persistent << ", update will not work");
        LOG4CPLUS_ERROR(logger, "Cannot create " << m_persistent << " (" << error << ")");
        return;
    }
    const QString problem = persistentProblem();
    if (!problem.isEmpty()) {
        LOG4CPLUS_ERROR(logger, "Not using " << m_persistent << ": " << problem
                                             << "; no update is installed there and no library is loaded from it");
        return;
    }
    // Left by an install that a power cut interrupted.
    removeFile(installedPath() + QStringLiteral(".new"));
}

bool LibraryStore::downloadWaiting() const
{
    return exists(downloadPath());
}

QString LibraryStore::openProblem(const QString& path)
{
    if (path == installedPath()) {
        const QString problem = persistentProblem();
        if (!problem.isEmpty())
            return QStringLiteral("its directory cannot be trusted: ") + problem;
    }
    const QString problem = LibraryFiles::fileTrustProblem(path);
    if (!problem.isEmpty())
        return problem;
    // dlopen maps whatever the headers say; a segment past the end of the file is SIGBUS.
    return LibraryFiles::sharedObjectProblem(path);
}

void LibraryStore::loaded(const QString& path, const QString& version)
{
    m_runningPath = path;
    m_runningVersion = version;
    m_runningChecksum.clear();
    if (path != installedPath())
        return;
    if (!m_rollingBack.isEmpty())
        LOG4CPLUS_ERROR(logger, m_rollingBack << " does not load from " << path
                                              << "; the previous library is back in its place and version "
                                              << escapedForLog(version)
                                              << " plays on");
    m_rollingBack.clear();
    m_proving = false;
    m_provingVersion.clear();
    const QString previous = installedPath() + QStringLiteral(".previous");
    QString error;
    if (exists(previous) && !LibraryFiles::removeDurably(previous, &error))
        LOG4CPLUS_ERROR(logger, "Failed to delete old library binary: " << previous << " (" << error << ")");
}

bool LibraryStore::loadFailed(const QString& path)
{
    if (path != installedPath())
        return false;
    const QString previous = installedPath() + QStringLiteral(".previous");
    if (!m_rollingBack.isEmpty()) {
        LOG4CPLUS_ERROR(logger, m_rollingBack << " does not load from " << path
                                              << ", nor does the previous library put back there; trying the rest of "
                                                 "the search list");
        m_rollingBack.clear();
        return false;
    }
    const bool proving = std::exchange(m_proving, false);
    // Nothing the store installed is in question, or the directory is not ours to change.
    if (!(proving || exists(previous)) || !persistentProblem().isEmpty())
        return false;
    const QString failed = proving ? QStringLiteral("Update to version ") + escapedForLog(m_provingVersion)
                                   : QStringLiteral("The update installed before the restart");
    const bool hasPrevious = exists(previous);
    QString error;
    const bool restored = rollBack(&error);
    m_provingVersion.clear();
    if (!restored) {
        LOG4CPLUS_ERROR(logger, failed << " does not load from " << path << " and cannot be taken out (" << error
                                       << "); trying the rest of the search list");
        return false;
    }
    if (!hasPrevious) {
        LOG4CPLUS_ERROR(logger, failed << " does not load from " << path
                                       << "; there is no previous copy, so it is removed and the rest of the "
                                          "search list is tried");
        return false;
    }
    m_rollingBack = failed;
    return true;
}

bool LibraryStore::rollBack(QString* error)
{
    const QString installed = installedPath();
    const QString previous = installed + QStringLiteral(".previous");
    const QString checksum = LibraryFiles::sha256Hex(installed);
    const bool restored = exists(previous) ? LibraryFiles::replace(previous, installed, error)
                                           : LibraryFiles::removeDurably(installed, error);
    if (!checksum.isEmpty()) {
        m_rolledBack.insert(checksum);
        QString recordError;
        if (!LibraryFiles::writeRecord(installed + QStringLiteral(".rejected"), {m_provingVersion, checksum, QString()},
                                       &recordError))
            LOG4CPLUS_WARN(logger, "Cannot record that the library with checksum "
                                       << checksum << " does not load (" << recordError
                                       << "); after a restart it may be installed and rolled back once more");
    }
    return restored;
}

QString LibraryStore::runningChecksum()
{
    if (m_runningChecksum.isEmpty() && !m_runningPath.isEmpty())
        m_runningChecksum = LibraryFiles::sha256Hex(m_runningPath);
    return m_runningChecksum;
}

QString LibraryStore::mayInstall(const VerifiedDownload& download, bool* obsolete)
{
    *obsolete = false;
    if (m_failedInstalls.contains(download.checksum))
        return QStringLiteral("Not installing version ") + escapedForLog(download.version)
            + QStringLiteral(" again: its install failed earlier; the installed library is kept until a restart or "
                             "another verified download");
    if (m_rolledBack.contains(download.checksum)
        || LibraryFiles::readRecord(installedPath() + QStringLiteral(".rejected")).checksum == download.checksum)
        return QStringLiteral("Not installing version ") + escapedForLog(download.version)
            + QStringLiteral(" again: it did not load on this device and was rolled back; the installed library is kept");
    *obsolete = true;
    if (!m_runningPath.isEmpty() && runningChecksum() == download.checksum)
        return QStringLiteral("Not installing version %1: its file is the library that runs already (from %2)")
            .arg(escapedForLog(download.version), m_runningPath);
    if (!m_runningVersion.isEmpty() && !(m_runningVersion < download.version))
        return QStringLiteral("Not installing version %1: version %2 runs, and %1 does not sort after it")
            .arg(escapedForLog(download.version), escapedForLog(m_runningVersion));
    *obsolete = false;
    return QString();
}

bool LibraryStore::pendingUpdate(VerifiedDownload* verified)
{
    const QString download = downloadPath();
    if (!downloadWaiting())
        return false;
    if (!QDir(m_persistent).exists()) {
        LOG4CPLUS_ERROR(logger, "The persistent Orvello directory does not exist: " << m_persistent);
        return false;
    }
    QString problem = scratchProblem();
    if (!problem.isEmpty()) {
        LOG4CPLUS_ERROR(logger, "Not installing " << download << ": " << m_scratch << " cannot be trusted (" << problem
                                                  << "); nothing in it is installed and the installed library is kept");
        return false;
    }
    problem = persistentProblem();
    if (!problem.isEmpty()) {
        LOG4CPLUS_ERROR(logger, "Not installing " << download << ": " << m_persistent << " cannot be trusted ("
                                                  << problem << "); the installed library is kept");
        return false;
    }
    *verified = isRegularFile(download) ? LibraryFiles::readRecord(recordPath()) : VerifiedDownload();
    if (verified->isEmpty()) {
        LOG4CPLUS_ERROR(logger, "Not installing " << download
                                                  << ": it has not passed verification; it stays where it is and the "
                                                     "installed library is kept");
        return false;
    }
    if (const QString problem = signatureProblem(*verified); !problem.isEmpty()) {
        LOG4CPLUS_ERROR(logger, "Not installing version " << escapedForLog(verified->version) << " from " << download
                                                          << ": " << problem
                                                          << "; the download is removed and the installed library is kept");
        discardDownload();
        return false;
    }
    bool obsolete = false;
    const QString refusal = mayInstall(*verified, &obsolete);
    if (refusal.isEmpty())
        return true;
    if (obsolete) {
        LOG4CPLUS_INFO(logger, refusal << "; the download is removed");
        discardDownload();
    } else {
        LOG4CPLUS_INFO(logger, refusal);
    }
    return false;
}

bool LibraryStore::hasInstallableUpdate()
{
    VerifiedDownload verified;
    return pendingUpdate(&verified);
}

bool LibraryStore::install()
{
    VerifiedDownload verified;
    if (!pendingUpdate(&verified))
        return false;
    const QString download = downloadPath();
    const QString installed = installedPath();
    const QString newCopy = installed + QStringLiteral(".new");
    const QString previous = installed + QStringLiteral(".previous");

    // Written aside and renamed over the installed copy, so a power cut leaves the old or the
    // new library there, never part of one. The bytes copied are the bytes hashed.
    removeFile(newCopy);
    QByteArray digest;
    QString error;
    bool done = LibraryFiles::copyDurably(download, newCopy, &digest, &error);
    if (done && QString::fromLatin1(digest.toHex()) != verified.checksum) {
        removeFile(newCopy);
        LOG4CPLUS_ERROR(logger, "Not installing " << download
                                                  << ": it is not the file that passed verification; it stays where it "
                                                     "is and the installed library is kept");
        return false;
    }
    // The installed copy keeps a second name until the new one has loaded. One that is there
    // already is the last copy that loaded, and stays.
    if (done && exists(installed) && !exists(previous))
        done = LibraryFiles::addName(installed, previous, &error);
    if (done)
        done = LibraryFiles::replace(newCopy, installed, &error);
    if (!done) {
        removeFile(newCopy);
        m_failedInstalls.insert(verified.checksum);
        LOG4CPLUS_ERROR(logger, "Failed to move updated library binary to location: " << installed);
        LOG4CPLUS_WARN(logger, "Installing version " << escapedForLog(verified.version) << " failed (" << error
                                                     << "); loading the installed library again, and this download is "
                                                        "not installed again before a restart or another verified download");
        return false;
    }
    discardDownload();
    m_proving = true;
    m_provingVersion = verified.version;
    return true;
}

bool LibraryStore::wantsDownload(const QString& version, const QString& checksum)
{
    bool obsolete = false;
    const QString refusal = mayInstall({version, checksum, QString()}, &obsolete);
    if (!refusal.isEmpty()) {
        LOG4CPLUS_INFO(logger, refusal << (obsolete ? "; not downloading it" : ""));
        return false;
    }
    // One swap at a time: a download would not replace the file waiting (see publishDownload).
    VerifiedDownload waiting;
    if (installableWaiting(&waiting)) {
        if (waiting.version == version && waiting.checksum == checksum)
            LOG4CPLUS_DEBUG(logger, "Version " << escapedForLog(version)
                                               << " is downloaded and verified already and waits to be installed at "
                                                  "the end of the song; not downloading it again");
        else
            LOG4CPLUS_DEBUG(logger, "Version " << escapedForLog(waiting.version)
                                               << " is downloaded and verified already and waits to be installed at "
                                                  "the end of the song; version "
                                               << escapedForLog(version) << " is downloaded once it is in");
        return false;
    }
    return true;
}

bool LibraryStore::installableWaiting(VerifiedDownload* waiting)
{
    if (!isRegularFile(downloadPath()) || !scratchProblem().isEmpty())
        return false;
    *waiting = LibraryFiles::readRecord(recordPath());
    bool obsolete = false;
    return !waiting->isEmpty() && signatureProblem(*waiting).isEmpty() && mayInstall(*waiting, &obsolete).isEmpty();
}

QString LibraryStore::signatureProblem(const VerifiedDownload& download) const
{
    return m_signature.hasKey() ? m_signature.problem(download.version, download.checksum, download.signature) : QString();
}

int LibraryStore::createDownloadFile(QString* error)
{
    const QString problem = scratchProblem();
    if (!problem.isEmpty()) {
        *error = m_scratch + QStringLiteral(" cannot be trusted: ") + problem;
        return -1;
    }
    removeFile(downloadTempPath());
    return LibraryFiles::createExclusive(downloadTempPath(), 0600, error);
}

void LibraryStore::removeDownloadTemp()
{
    removeFile(downloadTempPath());
}

void LibraryStore::publishDownload()
{
    QString error;
    if (scratchProblem().isEmpty() && !exists(downloadPath()))
        LibraryFiles::addName(downloadTempPath(), downloadPath(), &error);
    removeDownloadTemp();
}

bool LibraryStore::addVerifiedDownload(const VerifiedDownload& download, QString* error)
{
    const QString problem = scratchProblem();
    if (!problem.isEmpty()) {
        *error = m_scratch + QStringLiteral(" cannot be trusted: ") + problem;
        return false;
    }
    return LibraryFiles::writeRecord(recordPath(), download, error);
}

void LibraryStore::forgetVerification()
{
    removeFile(recordPath());
}

void LibraryStore::discardDownload()
{
    removeFile(downloadPath());
    removeFile(recordPath());
}

void LibraryStore::removeScratchDirectory()
{
    if (!scratchProblem().isEmpty())
        return;
    removeDownloadTemp();
    discardDownload();
    // The audio pipeline's socket, if the platform left it, keeps the directory until /tmp is
    // cleared.
    ::rmdir(QFile::encodeName(m_scratch).constData());
}
