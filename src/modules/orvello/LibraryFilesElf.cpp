// LibraryFiles: whether a file can be mapped as a shared object of this process.
#include "LibraryFiles.h"

#include <QFile>

#include <elf.h>

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

} // namespace LibraryFiles
