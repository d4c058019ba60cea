// The check that stands between a file on the search list and dlopen: the fuzzer's bytes are
// the file. A file the check passes must be one whose mapping stays inside it: an ELF shared
// object of this process's class, byte order and machine whose program headers, loadable
// segments and section headers all lie within the file. This is judged again here on the bytes
// themselves, without the file reads and seeks the check makes.
#include "LibraryFiles.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <elf.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <type_traits>

namespace {
std::unique_ptr<QTemporaryDir> s_dir;
QString s_path;

using Ehdr = std::conditional_t<sizeof(void*) == 8, Elf64_Ehdr, Elf32_Ehdr>;
using Phdr = std::conditional_t<sizeof(void*) == 8, Elf64_Phdr, Elf32_Phdr>;

[[noreturn]] void fault(const char* what, const QString& detail = QString())
{
    std::fprintf(stderr, "fuzz_libraryelf: %s %s\n", what, qPrintable(detail));
    std::abort();
}

bool inside(quint64 offset, quint64 length, quint64 size)
{
    return offset <= size && length <= size - offset;
}

// What may be mapped, read straight from the bytes.
bool mapsInside(const uint8_t* data, size_t size)
{
    Ehdr header;
    if (size < sizeof(header))
        return false;
    std::memcpy(&header, data, sizeof(header));
    if (std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 || header.e_type != ET_DYN
        || header.e_phentsize != sizeof(Phdr) || header.e_phnum == 0
        || !inside(header.e_phoff, quint64(header.e_phnum) * sizeof(Phdr), size))
        return false;
    for (int i = 0; i < header.e_phnum; ++i) {
        Phdr segment;
        std::memcpy(&segment, data + header.e_phoff + quint64(i) * sizeof(Phdr), sizeof(segment));
        if (segment.p_type == PT_LOAD && !inside(segment.p_offset, segment.p_filesz, size))
            return false;
    }
    return header.e_shoff == 0 || inside(header.e_shoff, quint64(header.e_shnum) * header.e_shentsize, size);
}
} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    const QString base = QDir(QStringLiteral("/dev/shm")).exists() ? QStringLiteral("/dev/shm") : QDir::tempPath();
    s_dir = std::make_unique<QTemporaryDir>(base + QStringLiteral("/fuzz-libraryelf-XXXXXX"));
    if (!s_dir->isValid())
        fault("cannot create a temporary directory");
    s_path = s_dir->filePath(QStringLiteral("liboplayer-1.so"));
    std::atexit([] { s_dir.reset(); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    QFile file(s_path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)
        || file.write(reinterpret_cast<const char*>(data), qint64(size)) != qint64(size))
        fault("cannot write the input", file.errorString());
    file.close();
    const QString problem = LibraryFiles::sharedObjectProblem(s_path);
    if (problem.isEmpty() && !mapsInside(data, size))
        fault("a file whose mapping leaves it passed the check");
    if (!problem.isEmpty() && problem.trimmed() != problem)
        fault("the reason is not one clean phrase:", problem);
    return 0;
}
