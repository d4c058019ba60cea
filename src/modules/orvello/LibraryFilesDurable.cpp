// LibraryFiles: creation that never goes through a link and whatever the umask, and the
// copies, names and removals that must survive a power cut.
#include "LibraryFiles.h"
#include "LibraryFiles_p.h"

#include "crypto/cryptohash.h"

#include <QDir>
#include <QFile>
#include <QStringList>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

using namespace LibraryFiles::detail;

namespace {

// Gives a directory just created mode 0700 and checks it, never through a link.
bool settleDirectory(const QString& path, QString* error)
{
    const QByteArray name = QFile::encodeName(path);
    int fd = ::open(name.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    bool byName = false;
    // A umask that took the owner's own bits away leaves a directory it cannot open for reading.
    if (fd < 0 && errno == EACCES) {
        fd = ::open(name.constData(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        byName = true;
    }
    if (fd < 0) {
        *error = path + QStringLiteral(": ") + systemError(errno);
        return false;
    }
    const bool set = setMode(fd, 0700, path, error, byName);
    ::close(fd);
    return set;
}

} // namespace

namespace LibraryFiles {

bool makeDirectory(const QString& path, QString* error)
{
    const QString clean = QDir::cleanPath(path);
    QString prefix = clean.startsWith(QLatin1Char('/')) ? QStringLiteral("/") : QString();
    const QStringList parts = clean.split(QLatin1Char('/'), Qt::SkipEmptyParts);
    for (const QString& part : parts) {
        prefix += (prefix.isEmpty() || prefix.endsWith(QLatin1Char('/')) ? QString() : QStringLiteral("/")) + part;
        const QByteArray name = QFile::encodeName(prefix);
        if (::mkdir(name.constData(), 0700) != 0) {
            const int mkdirError = errno;
            struct stat info;
            if (mkdirError == EEXIST && ::stat(name.constData(), &info) == 0 && S_ISDIR(info.st_mode))
                continue;
            *error = prefix + QStringLiteral(": ") + systemError(mkdirError == EEXIST ? ENOTDIR : mkdirError);
            return false;
        }
        if (!settleDirectory(prefix, error))
            return false;
    }
    return true;
}

QString makePrivateDirectory(const QString& pattern, QString* error)
{
    QByteArray name = QFile::encodeName(pattern);
    if (!::mkdtemp(name.data())) {
        *error = pattern + QStringLiteral(": ") + systemError(errno);
        return QString();
    }
    const QString path = QFile::decodeName(name);
    if (!settleDirectory(path, error)) {
        ::rmdir(name.constData());
        return QString();
    }
    return path;
}

int createExclusive(const QString& path, mode_t mode, QString* error)
{
    const int fd = openNoFollow(path, O_WRONLY | O_CREAT | O_EXCL);
    if (fd < 0) {
        *error = path + QStringLiteral(": ") + systemError(errno);
        return -1;
    }
    if (!setMode(fd, mode, path, error)) {
        ::close(fd);
        ::unlink(QFile::encodeName(path).constData());
        return -1;
    }
    return fd;
}

bool copyDurably(const QString& from, const QString& to, QByteArray* sha256, QString* error)
{
    const int in = openNoFollow(from, O_RDONLY);
    if (in < 0) {
        *error = from + QStringLiteral(": ") + systemError(errno);
        return false;
    }
    const int out = createExclusive(to, 0600, error);
    if (out < 0) {
        ::close(in);
        return false;
    }
    CryptoHash hash(CryptoHash::Sha256);
    std::vector<char> block(size_t(kCopyBlockSize), 0);
    bool copied = true;
    for (;;) {
        const ssize_t length = ::read(in, block.data(), size_t(kCopyBlockSize));
        if (length < 0 && errno == EINTR)
            continue;
        if (length < 0) {
            *error = from + QStringLiteral(": ") + systemError(errno);
            copied = false;
            break;
        }
        if (length == 0)
            break;
        hash.update(block.data(), int(length));
        if (!writeAll(out, block.data(), length)) {
            *error = to + QStringLiteral(": ") + systemError(errno);
            copied = false;
            break;
        }
    }
    if (copied && ::fsync(out) != 0) {
        *error = to + QStringLiteral(": ") + systemError(errno);
        copied = false;
    }
    ::close(in);
    ::close(out);
    if (copied)
        hash.finalize(sha256);
    return copied;
}

QString sha256Hex(const QString& path)
{
    const int fd = openNoFollow(path, O_RDONLY);
    if (fd < 0)
        return QString();
    CryptoHash hash(CryptoHash::Sha256);
    std::vector<char> block(size_t(kCopyBlockSize), 0);
    ssize_t length;
    while ((length = ::read(fd, block.data(), size_t(kCopyBlockSize))) > 0 || (length < 0 && errno == EINTR))
        if (length > 0)
            hash.update(block.data(), int(length));
    ::close(fd);
    if (length < 0)
        return QString();
    QByteArray digest;
    hash.finalize(&digest);
    return QString::fromLatin1(digest.toHex());
}

bool addName(const QString& existing, const QString& name, QString* error)
{
    if (::link(QFile::encodeName(existing).constData(), QFile::encodeName(name).constData()) == 0)
        return syncDirectoryOf(name, error);
    const int linkError = errno;
    // File systems without hard links (FAT) get a copy instead.
    if (linkError != EPERM && linkError != EOPNOTSUPP && linkError != EMLINK) {
        *error = name + QStringLiteral(": ") + systemError(linkError);
        return false;
    }
    QByteArray digest;
    if (!copyDurably(existing, name, &digest, error)) {
        QFile::remove(name);
        return false;
    }
    return syncDirectoryOf(name, error);
}

bool replace(const QString& from, const QString& to, QString* error)
{
    if (::rename(QFile::encodeName(from).constData(), QFile::encodeName(to).constData()) != 0) {
        *error = to + QStringLiteral(": ") + systemError(errno);
        return false;
    }
    return syncDirectoryOf(to, error);
}

bool removeDurably(const QString& path, QString* error)
{
    if (::unlink(QFile::encodeName(path).constData()) != 0 && errno != ENOENT) {
        *error = path + QStringLiteral(": ") + systemError(errno);
        return false;
    }
    return syncDirectoryOf(path, error);
}

} // namespace LibraryFiles
