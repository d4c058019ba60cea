// The record of a verified download (and of a rejected update) as the library store reads it
// back from disk: the fuzzer's bytes are the file. What it takes for a record must be one the
// updater could have written: a checksum of 64 lowercase hexadecimal digits, and the same record
// again once written and read back; reading the file gives what parsing its bytes gives.
#include "LibraryFiles.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace {
std::unique_ptr<QTemporaryDir> s_dir;
QString s_path;

[[noreturn]] void fault(const char* what, const QString& detail = QString())
{
    std::fprintf(stderr, "fuzz_libraryrecord: %s %s\n", what, qPrintable(detail));
    std::abort();
}

bool lowercaseDigest(const QString& text)
{
    if (text.size() != 64)
        return false;
    for (const QChar c : text)
        if (!((c >= QLatin1Char('0') && c <= QLatin1Char('9')) || (c >= QLatin1Char('a') && c <= QLatin1Char('f'))))
            return false;
    return true;
}
} // namespace

// Qt has no frame pointers: only the full unwinder sees the Qt function that the leak
// suppressions name (tests/sanitizers/lsan.supp). ASAN_OPTIONS adds to this.
extern "C" const char* __asan_default_options()
{
    return "fast_unwind_on_malloc=0";
}

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    const QString base = QDir(QStringLiteral("/dev/shm")).exists() ? QStringLiteral("/dev/shm") : QDir::tempPath();
    s_dir = std::make_unique<QTemporaryDir>(base + QStringLiteral("/fuzz-libraryrecord-XXXXXX"));
    if (!s_dir->isValid())
        fault("cannot create a temporary directory");
    s_path = s_dir->filePath(QStringLiteral("liboplayer-1.so.verified"));
    std::atexit([] { s_dir.reset(); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray text(reinterpret_cast<const char*>(data), int(size));
    const VerifiedDownload record = LibraryFiles::parseRecord(text);
    if (record.isEmpty()) {
        if (!record.version.isEmpty() || !record.signature.isEmpty())
            fault("a refused record carries a version or a signature");
    } else {
        if (!lowercaseDigest(record.checksum))
            fault("a record was taken with the checksum", record.checksum);
        if (!(LibraryFiles::parseRecord(LibraryFiles::recordText(record)) == record))
            fault("a record does not read back as it was written");
    }
    QFile file(s_path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(text) != text.size())
        fault("cannot write the input", file.errorString());
    file.close();
    if (!(LibraryFiles::readRecord(s_path) == record))
        fault("the file reads otherwise than its bytes parse");
    return 0;
}
