#include "ScratchDirectory.h"

#include "OrvelloUpdater.h"

#include <QMutex>
#include <QMutexLocker>

namespace {
QMutex& mutex()
{
    static QMutex instance;
    return instance;
}

QString& current()
{
    static QString dir = QString::fromLatin1(OrvelloUpdater::TMP_DOWNLOAD_PATH);
    return dir;
}
} // namespace

namespace ScratchDirectory {

QString path()
{
    QMutexLocker lock(&mutex());
    return current();
}

void use(const QString& dir)
{
    QMutexLocker lock(&mutex());
    current() = dir;
}

QString socketAddress()
{
    return path() + QStringLiteral("/smt2socketaddress");
}

QString streamUri()
{
    return QStringLiteral("smt2://") + socketAddress();
}

} // namespace ScratchDirectory
