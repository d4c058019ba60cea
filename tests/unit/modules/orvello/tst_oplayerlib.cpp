// The library host's search list: which file loads, in which order the candidates are tried, and
// which damaged files are never opened. tst_oplayerlib.h lists the other parts.
#include "tst_oplayerlib.h"

#include "TestFiles.h"

#include "model/cmnodes.h"

#include <QScopeGuard>
#include <QTest>

#include <elf.h>

#include <algorithm>
#include <cstring>
#include <type_traits>

using namespace oplayerlibtest;

namespace {
using Ehdr = std::conditional_t<sizeof(void*) == 8, Elf64_Ehdr, Elf32_Ehdr>;
using Phdr = std::conditional_t<sizeof(void*) == 8, Elf64_Phdr, Elf32_Phdr>;

// A good shared object spoiled in one way.
QByteArray spoiled(QByteArray elf, const QString& how)
{
    Ehdr header;
    std::memcpy(&header, elf.constData(), sizeof(header));
    if (how == QLatin1String("empty"))
        return QByteArray();
    if (how == QLatin1String("cut in the ELF header"))
        return elf.left(40);
    if (how == QLatin1String("cut in the program headers"))
        return elf.left(int(header.e_phoff) + int(sizeof(Phdr)) / 2);
    // Where the loadable segments end; what follows (section headers, debug data) is not mapped.
    qint64 loadEnd = 0;
    for (int i = 0; i < header.e_phnum; ++i) {
        Phdr segment;
        std::memcpy(&segment, elf.constData() + header.e_phoff + i * sizeof(Phdr), sizeof(segment));
        if (segment.p_type == PT_LOAD)
            loadEnd = std::max<qint64>(loadEnd, segment.p_offset + segment.p_filesz);
    }
    if (how == QLatin1String("cut in the segments"))
        return elf.left(int(loadEnd / 2));
    if (how == QLatin1String("one byte short"))
        return elf.left(int(loadEnd - 1));
    if (how == QLatin1String("cut after the segments"))
        return elf.left(int(header.e_shoff + header.e_shentsize));
    if (how == QLatin1String("other class"))
        elf[EI_CLASS] = char(sizeof(void*) == 8 ? ELFCLASS32 : ELFCLASS64);
    if (how == QLatin1String("other byte order"))
        elf[EI_DATA] = char(elf[EI_DATA] == ELFDATA2LSB ? ELFDATA2MSB : ELFDATA2LSB);
    if (how == QLatin1String("other machine"))
        header.e_machine = header.e_machine == EM_AARCH64 ? EM_X86_64 : EM_AARCH64;
    if (how == QLatin1String("executable"))
        header.e_type = ET_EXEC;
    if (how == QLatin1String("other machine") || how == QLatin1String("executable"))
        std::memcpy(elf.data(), &header, sizeof(header));
    if (how == QLatin1String("segment past the end")) {
        for (int i = header.e_phnum - 1; i >= 0; --i) {
            Phdr segment;
            char* at = elf.data() + header.e_phoff + i * sizeof(Phdr);
            std::memcpy(&segment, at, sizeof(segment));
            if (segment.p_type != PT_LOAD)
                continue;
            segment.p_filesz = elf.size() - segment.p_offset + 4096;
            std::memcpy(at, &segment, sizeof(segment));
            break;
        }
    }
    return elf;
}
} // namespace

void TestOPlayerLib::initTestCase()
{
    for (const QString& system : {kSearchList.at(1), kSearchList.at(2)}) {
        if (QFile::exists(system))
            QSKIP("a system copy of the player library is installed on this machine");
    }
    QVERIFY(!QFile::exists(kDownloadPath));
}

void TestOPlayerLib::searchList_data()
{
    QTest::addColumn<QString>("first");  // placed at data-rw/orvello
    QTest::addColumn<QString>("fourth"); // placed in the developer build tree
    QTest::addColumn<bool>("ok");
    QTest::addColumn<QStringList>("lines");

    auto missing = [](const QString& path) {
        return QStringList{QStringLiteral("TRACE Considering liboplayer path: ") + path,
                           QStringLiteral("TRACE ") + path + QStringLiteral(" does not exist")};
    };
    auto found = [](const QString& path) {
        return QStringList{QStringLiteral("TRACE Considering liboplayer path: ") + path,
                           QStringLiteral("DEBUG Found liboplayer at ") + path + QStringLiteral(" loading")};
    };
    const QString enter = QStringLiteral("TRACE Enter OPlayerLib::load()");
    const QString running = QStringLiteral("INFO Running SDK version: 0.1.0");

    QTest::newRow("nothing anywhere")
        << QString() << QString() << false
        << (QStringList{enter} + missing(kSearchList[0]) + missing(kSearchList[1]) + missing(kSearchList[2])
            + missing(kSearchList[3]) + QStringList{QStringLiteral("ERROR Failed to load oplayer-1 library")});
    QTest::newRow("good first") << QStringLiteral(FAKE_PLAYING) << QString() << true
                                << (QStringList{enter} + found(kSearchList[0]) + QStringList{running});
    QTest::newRow("without entry symbol, then good")
        << QStringLiteral(FAKE_NOSYMBOL) << QStringLiteral(FAKE_PLAYING) << true
        << (QStringList{enter} + found(kSearchList[0])
            + QStringList{QStringLiteral("ERROR Error resolving the OPLAYER_API symbol: *")}
            + missing(kSearchList[1]) + missing(kSearchList[2]) + found(kSearchList[3]) + QStringList{running});
    QTest::newRow("entry table without run_once, then good")
        << QStringLiteral(FAKE_NO_RUN_ONCE) << QStringLiteral(FAKE_PLAYING) << true
        << (QStringList{enter} + found(kSearchList[0])
            + QStringList{QStringLiteral("ERROR The OPLAYER_API table of ") + kSearchList[0]
                          + QStringLiteral(" has no run_once entry; trying the next path")}
            + missing(kSearchList[1]) + missing(kSearchList[2]) + found(kSearchList[3]) + QStringList{running});
    QTest::newRow("create fails, then good")
        << QStringLiteral(FAKE_CREATE_FAILS) << QStringLiteral(FAKE_PLAYING) << true
        << (QStringList{enter} + found(kSearchList[0])
            + QStringList{QStringLiteral("ERROR Unable to allocate OPlayer. Error: 5")} + missing(kSearchList[1])
            + missing(kSearchList[2]) + found(kSearchList[3]) + QStringList{running});
    QTest::newRow("create fails but sets the handle")
        << QStringLiteral(FAKE_CREATE_FAILS_WITH_HANDLE) << QString() << true
        << (QStringList{enter} + found(kSearchList[0]) + QStringList{running});
}

void TestOPlayerLib::searchList()
{
    QFETCH(QString, first);
    QFETCH(QString, fourth);
    QFETCH(bool, ok);
    QFETCH(QStringList, lines);
    Fixture fixture;
    CMNodes nodes;
    CMValueNode* version = CMValueNode::create(&nodes, VraxOrvelloSdkVersion(), nullptr);
    if (!first.isEmpty())
        QVERIFY(placeLibrary(first, kSearchList[0]));
    if (!fourth.isEmpty())
        QVERIFY(placeLibrary(fourth, kSearchList[3]));

    LogCapture log;
    OPlayerLib lib(initParams());
    const QStringList actual = hostLines(log);
    QVERIFY2(linesMatch(actual, lines), qPrintable(log.dump()));
    QCOMPARE(lib.ok(), ok);
    QCOMPARE(version->value().string_(), ok ? QStringLiteral("0.1.0") : QString());
    if (!first.isEmpty() && first != QLatin1String(FAKE_PLAYING) && !fourth.isEmpty())
        QVERIFY2(!loadedSymbol(kSearchList[0], "fake_create_calls"), "the failed library is still mapped");
    unloadLibrary(lib);
}

// A damaged file at the head of the list is never opened; the search goes on.
void TestOPlayerLib::damagedFileIsSkipped_data()
{
    QTest::addColumn<QString>("damage");
    QTest::addColumn<QString>("problem"); // how the ERROR line's reason starts
    const QString bits = QString::number(8 * int(sizeof(void*)));
    QTest::newRow("empty") << "empty" << "not an ELF file (0 bytes)";
    QTest::newRow("cut in the ELF header") << "cut in the ELF header"
                                           << "truncated: 40 bytes, shorter than an ELF header";
    QTest::newRow("cut in the program headers") << "cut in the program headers"
                                                << "truncated: the program headers end at byte ";
    QTest::newRow("cut in the segments") << "cut in the segments" << "truncated: loadable segment ";
    QTest::newRow("one byte short") << "one byte short" << "truncated: loadable segment ";
    QTest::newRow("segment past the end") << "segment past the end" << "truncated: loadable segment ";
    QTest::newRow("cut after the segments") << "cut after the segments" << "truncated: the section headers end at byte ";
    QTest::newRow("other class") << "other class"
                                 << QStringLiteral("a %1-bit ELF file, this process is %2-bit")
                                        .arg(sizeof(void*) == 8 ? 32 : 64).arg(bits);
    QTest::newRow("other byte order") << "other byte order" << "an ELF file of the other byte order";
    QTest::newRow("other machine") << "other machine" << "built for ";
    QTest::newRow("executable") << "executable" << "not a shared object (ELF type 2)";
}

void TestOPlayerLib::damagedFileIsSkipped()
{
    QFETCH(QString, damage);
    QFETCH(QString, problem);
    Fixture fixture;
    QVERIFY(writeBytes(kSearchList[0], spoiled(fileBytes(QStringLiteral(FAKE_PLAYING)), damage)));
    QVERIFY(placeLibrary(QStringLiteral(FAKE_PLAYING), kSearchList[3]));
    LogCapture log;
    OPlayerLib lib(initParams());
    const auto unload = qScopeGuard([&lib] { unloadLibrary(lib); });
    QVERIFY(lib.ok());
    const QStringList errors = problemLines(log);
    QCOMPARE(errors.size(), 1);
    const QString prefix = QStringLiteral("ERROR Not loading liboplayer at ") + kSearchList[0] + QStringLiteral(": ");
    QVERIFY2(errors.first().startsWith(prefix + problem), qPrintable(errors.first()));
    QVERIFY2(errors.first().endsWith(QLatin1String("; trying the next path")), qPrintable(errors.first()));
    QVERIFY(!hostLines(log).contains(QStringLiteral("DEBUG Found liboplayer at ") + kSearchList[0] + " loading"));
    QVERIFY(loadedSymbol(kSearchList[3], "fake_create_calls"));
}

QTEST_GUILESS_MAIN(TestOPlayerLib)
