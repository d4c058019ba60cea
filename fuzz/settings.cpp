// The settings-file loader on a damaged or hostile file: the fuzzer's bytes are the file.
// A file that loads must survive being written back: reopening it gives the same settings.
#include "vrax_api/settingsstore.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace {
std::unique_ptr<QTemporaryDir> s_dir;

[[noreturn]] void fault(const char* what, const QString& detail = QString())
{
    std::fprintf(stderr, "fuzz_settings: %s %s\n", what, qPrintable(detail));
    std::abort();
}

bool typedOnce(const VraxValue& value)
{
    const QVariantHash& hash = value.hash();
    return hash.size() == 1
           && (hash.contains(VraxValue::I32Key()) || hash.contains(VraxValue::StringKey())
               || hash.contains(VraxValue::BoolKey()));
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
    // Writing the file back syncs it to disk, which costs more than everything else of a run
    // on a real disk; in memory it costs nothing.
    const QString base = QDir(QStringLiteral("/dev/shm")).exists() ? QStringLiteral("/dev/shm") : QDir::tempPath();
    s_dir = std::make_unique<QTemporaryDir>(base + QStringLiteral("/fuzz-settings-XXXXXX"));
    if (!s_dir->isValid())
        fault("cannot create a temporary directory");
    std::atexit([] { s_dir.reset(); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QString file = s_dir->filePath(QStringLiteral("settings.json"));
    {
        QFile out(file);
        if (!out.open(QIODevice::WriteOnly | QIODevice::Truncate)
            || out.write(reinterpret_cast<const char*>(data), qint64(size)) != qint64(size))
            fault("cannot write", file);
    }

    vrax::SettingsStore store;
    QString error;
    if (!store.open(file, false, &error)) {
        if (error.isEmpty())
            fault("a refused file came without a reason");
        if (!store.fileName().isEmpty() || !store.all().isEmpty())
            fault("a refused file changed the store");
        return 0;
    }
    const QHash<CMPath, VraxValue> loaded = store.all();
    for (auto it = loaded.begin(); it != loaded.end(); ++it)
        if (!typedOnce(it.value()))
            fault("loaded a setting that is not one typed value:", it.key().toString());

    // A change writes the whole file back.
    const CMPath extra(QStringLiteral("settings/fuzz/written"));
    VraxValue change;
    change.setI32_(store.value(extra).i32_() == 1 ? 2 : 1);
    if (!store.setValue(extra, change, &error))
        fault("cannot write the loaded settings back:", error);

    vrax::SettingsStore reopened;
    if (!reopened.open(file, false, &error))
        fault("the written file does not load:", error);
    if (reopened.all() != store.all())
        fault("the written file loads different settings");
    return 0;
}
