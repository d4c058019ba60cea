#include "LibraryFiles.h"

#include "crypto/cryptohash.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QList>

#include <elf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <type_traits>
#include <vector>

namespace {

constexpr bool k64Bit = sizeof(void*) == 8;
using Ehdr = std::conditional_t<k64Bit, Elf64_Ehdr, Elf32_Ehdr>;
using Phdr = std::conditional_t<k64Bit, Elf64_Phdr, Elf32_Phdr>;
constexpr unsigned char kClass = k64Bit ? ELFCLASS64 : ELFCLASS32;
constexpr unsigned char kByteOrder = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? ELFDATA2LSB : ELFDATA2MSB;

#if defined(__x86_64__)
constexpr int kMachine = EM_X86_64;
#elif defined(__aarch64__)
constexpr int kMachine = EM_AARCH64;
#elif defined(__arm__)
constexpr int kMachine = EM_ARM;
#elif defined(__i386__)
constexpr int kMachine = EM_386;
#elif defined(__riscv)
constexpr int kMachine = EM_RISCV;
#else
#error "add this architecture's ELF machine (e_machine) here"
#endif

constexpr qint64 kCopyBlockSize = 65536;

QString machineName(int machine)
{
    switch (machine) {
    case EM_X86_64:
        return QStringLiteral("x86-64");
    case EM_AARCH64:
        return QStringLiteral("AArch64");
    case EM_ARM:
        return QStringLiteral("32-bit ARM");
    case EM_386:
        return QStringLiteral("i386");
    case EM_RISCV:
        return QStringLiteral("RISC-V");
    default:
        return QStringLiteral("ELF machine %1").arg(machine);
    }
}

QString systemError(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
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

// Longest record read or written; one is a few hundred bytes, but the version text is the
// service's.
constexpr qint64 kMaxRecordSize = 1048576;
// As the kernel's own limit on links followed in one lookup.
constexpr int kMaxLinks = 40;

QString modeText(mode_t mode)
{
    return QStringLiteral("0") + QString::number(mode & 07777, 8);
}

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

int openNoFollow(const QString& path, int flags)
{
    return ::open(QFile::encodeName(path).constData(), flags | O_NOFOLLOW | O_CLOEXEC);
}

// The mode and owner the module gives what it creates, set on the open object and checked.
// byName: fd was opened with O_PATH (fchmod does not take those), so the mode is set through the
// descriptor's name under /proc, which names that very object.
bool setMode(int fd, mode_t mode, const QString& path, QString* error, bool byName = false)
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

bool isLowercaseHexDigest(const QString& text)
{
    if (text.size() != 64)
        return false;
    for (const QChar c : text)
        if (!((c >= QLatin1Char('0') && c <= QLatin1Char('9')) || (c >= QLatin1Char('a') && c <= QLatin1Char('f'))))
            return false;
    return true;
}

const QString kVersionKey = QStringLiteral("version");
const QString kChecksumKey = QStringLiteral("checksum");
const QString kSignatureKey = QStringLiteral("signature");

} // namespace

namespace LibraryFiles {

QString sharedObjectProblem(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QStringLiteral("cannot be read: ") + file.errorString();
    const qint64 size = file.size();
    Ehdr header;
    std::memset(&header, 0, sizeof(header));
    const qint64 got = file.read(reinterpret_cast<char*>(&header), sizeof(header));
    if (got < SELFMAG || std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0)
        return QStringLiteral("not an ELF file (%1 bytes)").arg(size);
    if (got > EI_CLASS && header.e_ident[EI_CLASS] != kClass)
        return QStringLiteral("a %1-bit ELF file, this process is %2-bit")
            .arg(header.e_ident[EI_CLASS] == ELFCLASS32 ? 32 : header.e_ident[EI_CLASS] == ELFCLASS64 ? 64 : 0)
            .arg(k64Bit ? 64 : 32);
    if (got > EI_DATA && header.e_ident[EI_DATA] != kByteOrder)
        return QStringLiteral("an ELF file of the other byte order");
    if (got < qint64(sizeof(header)))
        return QStringLiteral("truncated: %1 bytes, shorter than an ELF header").arg(size);
    if (header.e_type != ET_DYN)
        return QStringLiteral("not a shared object (ELF type %1)").arg(header.e_type);
    if (header.e_machine != kMachine)
        return QStringLiteral("built for %1, this process runs on %2")
            .arg(machineName(header.e_machine), machineName(kMachine));
    if (header.e_phentsize != sizeof(Phdr) || header.e_phnum == 0)
        return QStringLiteral("no usable program headers");
    const quint64 fileSize = quint64(size);
    const quint64 tableSize = quint64(header.e_phnum) * sizeof(Phdr);
    if (header.e_phoff > fileSize || tableSize > fileSize - header.e_phoff)
        return QStringLiteral("truncated: the program headers end at byte %1, the file has %2")
            .arg(quint64(header.e_phoff) + tableSize).arg(size);
    if (!file.seek(qint64(header.e_phoff)))
        return QStringLiteral("cannot be read: ") + file.errorString();
    for (int i = 0; i < header.e_phnum; ++i) {
        Phdr segment;
        if (file.read(reinterpret_cast<char*>(&segment), sizeof(segment)) != qint64(sizeof(segment)))
            return QStringLiteral("cannot be read: ") + file.errorString();
        if (segment.p_type != PT_LOAD)
            continue;
        if (segment.p_offset > fileSize || segment.p_filesz > fileSize - segment.p_offset)
            return QStringLiteral("truncated: loadable segment %1 ends at byte %2, the file has %3")
                .arg(i).arg(quint64(segment.p_offset) + quint64(segment.p_filesz)).arg(size);
    }
    // The section headers come last in the file; strip keeps them, so a library without the
    // end of its table has been cut short, even when every segment made it.
    const quint64 sectionsSize = quint64(header.e_shnum) * header.e_shentsize;
    if (header.e_shoff != 0 && (header.e_shoff > fileSize || sectionsSize > fileSize - header.e_shoff))
        return QStringLiteral("truncated: the section headers end at byte %1, the file has %2")
            .arg(quint64(header.e_shoff) + sectionsSize).arg(size);
    return QString();
}

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
        || !isLowercaseHexDigest(checksum.toString()))
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
