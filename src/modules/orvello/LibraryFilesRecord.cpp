// LibraryFiles: the record of a verified download, as text and on disk.
#include "LibraryFiles.h"
#include "LibraryFiles_p.h"
#include "UpdateSignature.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

using namespace LibraryFiles::detail;

namespace {

// Longest record read or written; one is a few hundred bytes, but the version text is the
// service's.
constexpr qint64 kMaxRecordSize = 1048576;
const QString kVersionKey = QStringLiteral("version");
const QString kChecksumKey = QStringLiteral("checksum");
const QString kSignatureKey = QStringLiteral("signature");

} // namespace

namespace LibraryFiles {

QByteArray recordText(const VerifiedDownload& record)
{
    const QJsonObject object{{kVersionKey, record.version}, {kChecksumKey, record.checksum}, {kSignatureKey, record.signature}};
    return QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n';
}

VerifiedDownload parseRecord(const QByteArray& text)
{
    if (text.size() > kMaxRecordSize)
        return VerifiedDownload();
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(text, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return VerifiedDownload();
    const QJsonObject object = document.object();
    const QJsonValue version = object.value(kVersionKey);
    const QJsonValue checksum = object.value(kChecksumKey);
    const QJsonValue signature = object.value(kSignatureKey);
    if (!version.isString() || !checksum.isString() || !(signature.isUndefined() || signature.isString())
        || !UpdateSignature::isChecksumText(checksum.toString()))
        return VerifiedDownload();
    return VerifiedDownload{version.toString(), checksum.toString(), signature.toString()};
}

bool writeRecord(const QString& path, const VerifiedDownload& record, QString* error)
{
    const QByteArray text = recordText(record);
    if (text.size() > kMaxRecordSize) {
        *error = path + QStringLiteral(": a record of %1 bytes would not be read back").arg(text.size());
        return false;
    }
    QByteArray temporary = QFile::encodeName(path) + ".XXXXXX";
    const int fd = ::mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0) {
        *error = path + QStringLiteral(": ") + systemError(errno);
        return false;
    }
    const QString temporaryPath = QFile::decodeName(temporary);
    bool written = setMode(fd, 0600, temporaryPath, error);
    if (written && (!writeAll(fd, text.constData(), text.size()) || ::fsync(fd) != 0)) {
        *error = temporaryPath + QStringLiteral(": ") + systemError(errno);
        written = false;
    }
    ::close(fd);
    if (!written || !replace(temporaryPath, path, error)) {
        ::unlink(temporary.constData());
        return false;
    }
    return true;
}

VerifiedDownload readRecord(const QString& path)
{
    const int fd = openNoFollow(path, O_RDONLY);
    if (fd < 0)
        return VerifiedDownload();
    struct stat info;
    QByteArray text;
    if (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) {
        std::vector<char> block(size_t(kCopyBlockSize), 0);
        ssize_t length;
        while (text.size() <= kMaxRecordSize
               && ((length = ::read(fd, block.data(), block.size())) > 0 || (length < 0 && errno == EINTR)))
            if (length > 0)
                text.append(block.data(), int(length));
    }
    ::close(fd);
    return parseRecord(text);
}

} // namespace LibraryFiles
