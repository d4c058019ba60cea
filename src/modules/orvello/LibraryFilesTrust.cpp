// LibraryFiles: whether anyone but this process's user (and root) controls a file or a
// directory, judged along every directory and link on the way to it.
#include "LibraryFiles.h"
#include "LibraryFiles_p.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QList>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

using namespace LibraryFiles::detail;

namespace {

// As the kernel's own limit on links followed in one lookup.
constexpr int kMaxLinks = 40;

QString writers(mode_t mode)
{
    if ((mode & S_IWGRP) && (mode & S_IWOTH))
        return QStringLiteral("its group and others");
    return (mode & S_IWOTH) ? QStringLiteral("others") : QStringLiteral("its group");
}

bool trustedOwner(uid_t owner)
{
    return owner == 0 || owner == ::geteuid();
}

QString ownerText(uid_t owner)
{
    return QStringLiteral("owned by uid %1, neither root nor this process's user (uid %2)").arg(owner).arg(::geteuid());
}

QByteArray joined(const QByteArray& dir, const QByteArray& name)
{
    return dir == "/" ? dir + name : dir + '/' + name;
}

QList<QByteArray> components(const QByteArray& path)
{
    QList<QByteArray> out;
    for (const QByteArray& part : path.split('/'))
        if (!part.isEmpty())
            out << part;
    return out;
}

// Why another account could change the entries of dir: it owns it, or it may write there and
// the sticky bit does not keep it to its own entries.
QString passageProblem(const QByteArray& dir, const struct stat& info)
{
    if (!trustedOwner(info.st_uid))
        return QString::fromLocal8Bit(dir) + QStringLiteral(" on the way to it is ") + ownerText(info.st_uid);
    if ((info.st_mode & (S_IWGRP | S_IWOTH)) && !(info.st_mode & S_ISVTX))
        return QString::fromLocal8Bit(dir)
            + QStringLiteral(" on the way to it is writable by %1 (mode %2) without the sticky bit")
                  .arg(writers(info.st_mode), modeText(info.st_mode));
    return QString();
}

QByteArray parentOf(const QByteArray& path)
{
    const int slash = int(path.lastIndexOf('/'));
    return slash <= 0 ? QByteArray("/") : path.left(slash);
}

// Where path really is once every symbolic link is followed, walked one name at a time from the
// root so that every directory passed through and every link followed is looked at: each
// directory the walk goes down from or finds a link in must pass passageProblem, and each link
// must be owned by root or this process's user. The directory the result lies in is left to the
// caller's own rule: `real` gets the real path and `info` its lstat, `dir` and `dirInfo` that
// directory's. Empty when nobody else controls the way.
QString walk(const QString& path, QByteArray* real, struct stat* info, QByteArray* dir, struct stat* dirInfo)
{
    QByteArray absolute = QFile::encodeName(path);
    if (!absolute.startsWith('/')) {
        char cwd[PATH_MAX];
        if (!::getcwd(cwd, sizeof(cwd)))
            return QStringLiteral("the working directory cannot be read: ") + systemError(errno);
        absolute = QByteArray(cwd) + '/' + absolute;
    }
    QList<QByteArray> pending = components(absolute);
    // Always a real path: no link in it, so its lexical parent is its parent.
    QByteArray current = "/";
    struct stat currentInfo;
    int links = 0;
    for (;;) {
        while (!pending.isEmpty() && (pending.first() == "." || pending.first() == "..")) {
            if (pending.takeFirst() == "..")
                current = parentOf(current);
        }
        if (::lstat(current.constData(), &currentInfo) != 0)
            return QString::fromLocal8Bit(current) + QStringLiteral(": ") + systemError(errno);
        if (pending.isEmpty()) {
            // The path names a directory through "." or "..".
            *real = current;
            *info = currentInfo;
            *dir = parentOf(current);
            return ::lstat(dir->constData(), dirInfo) == 0 ? QString()
                                                           : QString::fromLocal8Bit(*dir) + QStringLiteral(": ") + systemError(errno);
        }
        const QByteArray next = joined(current, pending.takeFirst());
        struct stat nextInfo;
        if (::lstat(next.constData(), &nextInfo) != 0)
            return QString::fromLocal8Bit(next) + QStringLiteral(": ") + systemError(errno);
        if (!S_ISLNK(nextInfo.st_mode) && pending.isEmpty()) {
            *real = next;
            *info = nextInfo;
            *dir = current;
            *dirInfo = currentInfo;
            return QString();
        }
        const QString passage = passageProblem(current, currentInfo);
        if (!passage.isEmpty())
            return passage;
        if (S_ISLNK(nextInfo.st_mode)) {
            if (++links > kMaxLinks)
                return QStringLiteral("too many symbolic links on the way to it");
            if (!trustedOwner(nextInfo.st_uid))
                return QStringLiteral("the link ") + QString::fromLocal8Bit(next) + QStringLiteral(" on the way to it is ")
                    + ownerText(nextInfo.st_uid);
            char target[PATH_MAX];
            const ssize_t length = ::readlink(next.constData(), target, sizeof(target) - 1);
            if (length <= 0)
                return QString::fromLocal8Bit(next) + QStringLiteral(": ") + systemError(errno);
            const QByteArray to(target, int(length));
            pending = components(to) + pending;
            if (to.startsWith('/'))
                current = "/";
            continue;
        }
        if (!S_ISDIR(nextInfo.st_mode))
            return QString::fromLocal8Bit(next) + QStringLiteral(" on the way to it is not a directory");
        current = next;
    }
}

} // namespace

namespace LibraryFiles {

QString fileTrustProblem(const QString& path)
{
    QByteArray real;
    struct stat info;
    QByteArray dirPath;
    struct stat directory;
    const QString way = walk(path, &real, &info, &dirPath, &directory);
    if (!way.isEmpty())
        return way;
    // Named where it really lives when links lead elsewhere.
    const QString realPath = QFile::decodeName(real);
    const QString where = realPath == QDir::cleanPath(QFileInfo(path).absoluteFilePath())
                              ? QString()
                              : QStringLiteral(" (it is ") + realPath + QLatin1Char(')');
    if (!S_ISREG(info.st_mode))
        return QStringLiteral("not a regular file") + where;
    if (!trustedOwner(info.st_uid))
        return QStringLiteral("the file is ") + ownerText(info.st_uid) + where;
    if (info.st_mode & (S_IWGRP | S_IWOTH))
        return QStringLiteral("the file is writable by %1 (mode %2)").arg(writers(info.st_mode), modeText(info.st_mode)) + where;
    const QString dir = QFile::decodeName(dirPath);
    if (!trustedOwner(directory.st_uid))
        return QStringLiteral("its directory ") + dir + QStringLiteral(" is ") + ownerText(directory.st_uid);
    if (directory.st_mode & (S_IWGRP | S_IWOTH))
        return QStringLiteral("its directory %1 is writable by %2 (mode %3)")
            .arg(dir, writers(directory.st_mode), modeText(directory.st_mode));
    return QString();
}

QString directoryTrustProblem(const QString& path)
{
    struct stat own;
    if (::lstat(QFile::encodeName(path).constData(), &own) != 0)
        return QStringLiteral("it cannot be looked at: ") + systemError(errno);
    if (S_ISLNK(own.st_mode))
        return QStringLiteral("it is a symbolic link, not a real directory");
    QByteArray real;
    struct stat info;
    QByteArray parent;
    struct stat parentInfo;
    const QString way = walk(path, &real, &info, &parent, &parentInfo);
    if (!way.isEmpty())
        return way;
    if (!S_ISDIR(info.st_mode))
        return QStringLiteral("it is not a directory");
    if (info.st_uid != ::geteuid())
        return QStringLiteral("it is owned by uid %1, not by this process's user (uid %2)").arg(info.st_uid).arg(::geteuid());
    if (info.st_mode & (S_IWGRP | S_IWOTH))
        return QStringLiteral("it is writable by %1 (mode %2)").arg(writers(info.st_mode), modeText(info.st_mode));
    return real == "/" ? QString() : passageProblem(parent, parentInfo);
}

} // namespace LibraryFiles
