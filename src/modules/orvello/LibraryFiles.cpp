// The helpers the parts of LibraryFiles share (LibraryFiles_p.h).
#include "LibraryFiles_p.h"

#include <QFile>
#include <QFileInfo>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace LibraryFiles::detail {

QString systemError(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

QString modeText(mode_t mode)
{
    return QStringLiteral("0") + QString::number(mode & 07777, 8);
}

int openNoFollow(const QString& path, int flags)
{
    return ::open(QFile::encodeName(path).constData(), flags | O_NOFOLLOW | O_CLOEXEC);
}

bool setMode(int fd, mode_t mode, const QString& path, QString* error, bool byName)
{
    struct stat info;
    const QByteArray name = "/proc/self/fd/" + QByteArray::number(fd);
    if ((byName ? ::chmod(name.constData(), mode) : ::fchmod(fd, mode)) != 0 || ::fstat(fd, &info) != 0) {
        *error = path + QStringLiteral(": ") + systemError(errno);
        return false;
    }
    if ((info.st_mode & 07777) != mode || info.st_uid != ::geteuid()) {
        *error = path + QStringLiteral(": mode %1 and owner uid %2 after creation, not %3 and uid %4")
                            .arg(modeText(info.st_mode)).arg(info.st_uid).arg(modeText(mode)).arg(::geteuid());
        return false;
    }
    return true;
}

bool writeAll(int fd, const char* data, qint64 length)
{
    while (length > 0) {
        const ssize_t written = ::write(fd, data, size_t(length));
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return false;
        data += written;
        length -= written;
    }
    return true;
}

bool syncDirectoryOf(const QString& path, QString* error)
{
    const QString dir = QFileInfo(path).absolutePath();
    const int fd = ::open(QFile::encodeName(dir).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        *error = dir + QStringLiteral(": ") + systemError(errno);
        return false;
    }
    const bool synced = ::fsync(fd) == 0;
    const int syncError = errno;
    ::close(fd);
    if (!synced)
        *error = dir + QStringLiteral(": ") + systemError(syncError);
    return synced;
}

} // namespace LibraryFiles::detail
