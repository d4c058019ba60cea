#include "LibraryFiles.h"

#include "crypto/cryptohash.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>

#include <elf.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <type_traits>

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

bool copyDurably(const QString& from, const QString& to, QByteArray* sha256, QString* error)
{
    QFile in(from);
    if (!in.open(QIODevice::ReadOnly)) {
        *error = from + QStringLiteral(": ") + in.errorString();
        return false;
    }
    QFile out(to);
    if (!out.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        *error = to + QStringLiteral(": ") + out.errorString();
        return false;
    }
    CryptoHash hash(CryptoHash::Sha256);
    QByteArray block(int(kCopyBlockSize), Qt::Uninitialized);
    for (;;) {
        const qint64 length = in.read(block.data(), kCopyBlockSize);
        if (length < 0) {
            *error = from + QStringLiteral(": ") + in.errorString();
            return false;
        }
        if (length == 0)
            break;
        hash.update(block.constData(), int(length));
        if (out.write(block.constData(), length) != length) {
            *error = to + QStringLiteral(": ") + out.errorString();
            return false;
        }
    }
    if (!out.flush()) {
        *error = to + QStringLiteral(": ") + out.errorString();
        return false;
    }
    if (::fsync(out.handle()) != 0) {
        *error = to + QStringLiteral(": ") + systemError(errno);
        return false;
    }
    out.close();
    hash.finalize(sha256);
    return true;
}

QString sha256Hex(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QString();
    CryptoHash hash(CryptoHash::Sha256);
    QByteArray block(int(kCopyBlockSize), Qt::Uninitialized);
    qint64 length;
    while ((length = file.read(block.data(), kCopyBlockSize)) > 0)
        hash.update(block.constData(), int(length));
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

bool writeRecord(const QString& path, const QString& version, const QString& checksum, QString* error,
                 const QString& signature)
{
    QJsonObject record{{VraxOrvelloVersionInfo::VersionKey(), version},
                       {VraxOrvelloVersionInfo::ChecksumKey(), checksum}};
    if (!signature.isEmpty())
        record.insert(QStringLiteral("signature"), signature);
    const QByteArray text = QJsonDocument(record).toJson(QJsonDocument::Compact) + '\n';
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(text) != text.size() || !file.flush()) {
        *error = path + QStringLiteral(": ") + file.errorString();
        return false;
    }
    if (::fsync(file.handle()) != 0) {
        *error = path + QStringLiteral(": ") + systemError(errno);
        return false;
    }
    if (!file.commit()) {
        *error = path + QStringLiteral(": ") + file.errorString();
        return false;
    }
    return syncDirectoryOf(path, error);
}

VraxOrvelloVersionInfo readRecord(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return VraxOrvelloVersionInfo();
    return VraxOrvelloVersionInfo(QJsonDocument::fromJson(file.readAll()).object().toVariantHash());
}

} // namespace LibraryFiles
