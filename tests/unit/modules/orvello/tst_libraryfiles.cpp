// LibraryFiles' own refusals, where the library store's tests (tst_librarystore) do not reach
// them: each durable operation against what may already lie at its path, what it answers and
// what it leaves behind. The trust walk, the ELF check and the record's text have tests of
// their own (tst_librarystore's trust and records, tst_oplayerlib's unloadable files).
#include "TestFiles.h"

#include "LibraryFiles.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include <sys/stat.h>
#include <unistd.h>

namespace {

// Lines "f NAME BYTES" (a file) and "l NAME TARGET" (a symbolic link) under root.
bool build(const QString& root, const QStringList& lines)
{
    for (const QString& line : lines) {
        const QStringList word = line.split(QLatin1Char(' '));
        const QString path = root + QLatin1Char('/') + word.value(1);
        const bool done = word.first() == QLatin1String("f") ? writeBytes(path, word.value(2).toUtf8())
                                                             : ::symlink(qPrintable(word.value(2)), qPrintable(path)) == 0;
        if (!done)
            return false;
    }
    return true;
}

// What lies at path: its bytes, "->TARGET" for a link, "<dir>" or "<none>".
QString contentOf(const QString& path)
{
    const QFileInfo info(path);
    if (info.isSymLink())
        return QStringLiteral("->") + info.symLinkTarget().section(QLatin1Char('/'), -1);
    if (info.isDir())
        return QStringLiteral("<dir>");
    return info.exists() ? QString::fromUtf8(fileBytes(path)) : QStringLiteral("<none>");
}

} // namespace

class TestLibraryFiles : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void durableOperations_data();
    void durableOperations();
};

void TestLibraryFiles::durableOperations_data()
{
    QTest::addColumn<QString>("operation");
    QTest::addColumn<QStringList>("tree");
    QTest::addColumn<bool>("succeeds");
    QTest::addColumn<QString>("error");      // ROOT stands for the tree; * for any text
    QTest::addColumn<QStringList>("after");  // "NAME CONTENT" as contentOf gives it
    const QString tooLong = QString(1100000, QLatin1Char('9'));
    // clang-format off
    QTest::newRow("create over a file") << "createExclusive" << QStringList{"f target old"} << false << "ROOT/target: File exists" << QStringList{"target old"};
    QTest::newRow("create over a link") << "createExclusive" << QStringList{"f victim kept", "l target victim"} << false << "ROOT/target: File exists" << QStringList{"target ->victim", "victim kept"};
    QTest::newRow("create") << "createExclusive" << QStringList{} << true << "" << QStringList{"target "};
    QTest::newRow("copy onto a file") << "copyDurably" << QStringList{"f source new", "f target old"} << false << "ROOT/target: File exists" << QStringList{"target old", "source new"};
    QTest::newRow("copy from a link") << "copyDurably" << QStringList{"f victim secret", "l source victim"} << false << "ROOT/source: Too many levels of symbolic links" << QStringList{"target <none>"};
    QTest::newRow("copy") << "copyDurably" << QStringList{"f source new"} << true << "" << QStringList{"target new", "source new"};
    QTest::newRow("second name that is taken") << "addName" << QStringList{"f source new", "f target old"} << false << "ROOT/target: File exists" << QStringList{"target old"};
    QTest::newRow("second name") << "addName" << QStringList{"f source new"} << true << "" << QStringList{"target new", "source new"};
    QTest::newRow("replace") << "replace" << QStringList{"f source new", "f target old"} << true << "" << QStringList{"target new", "source <none>"};
    QTest::newRow("replace a link, not its target") << "replace" << QStringList{"f source new", "f victim kept", "l target victim"} << true << "" << QStringList{"target new", "victim kept"};
    QTest::newRow("remove what is not there") << "removeDurably" << QStringList{} << true << "" << QStringList{"target <none>"};
    QTest::newRow("remove a link, not its target") << "removeDurably" << QStringList{"f victim kept", "l target victim"} << true << "" << QStringList{"target <none>", "victim kept"};
    QTest::newRow("directory below a file") << "makeDirectory" << QStringList{"f target old"} << false << "ROOT/target: Not a directory" << QStringList{"target old"};
    QTest::newRow("directory") << "makeDirectory" << QStringList{} << true << "" << QStringList{"target <dir>", "target/sub <dir>"};
    QTest::newRow("record too long to read back") << "writeRecord " + tooLong << QStringList{"f target old"} << false << "ROOT/target: a record of * bytes would not be read back" << QStringList{"target old"};
    QTest::newRow("record over a link") << "writeRecord 1.1.0" << QStringList{"f victim kept", "l target victim"} << true << "" << QStringList{"victim kept"};
    QTest::newRow("record read through a link") << "readRecord" << QStringList{"l target victim"} << false << "" << QStringList{};
    // clang-format on
}

void TestLibraryFiles::durableOperations()
{
    QFETCH(QString, operation);
    QFETCH(QStringList, tree);
    QFETCH(bool, succeeds);
    QFETCH(QString, error);
    QFETCH(QStringList, after);
    QTemporaryDir dir;
    const QString root = dir.path();
    QVERIFY(build(root, tree));
    const QString source = root + QStringLiteral("/source");
    const QString target = root + QStringLiteral("/target");
    const QString checksum = sha256Hex("library");
    QString why;
    bool done = false;
    if (operation == QLatin1String("createExclusive")) {
        const int fd = LibraryFiles::createExclusive(target, 0600, &why);
        done = fd >= 0;
        if (done)
            ::close(fd);
    } else if (operation == QLatin1String("copyDurably")) {
        QByteArray digest;
        done = LibraryFiles::copyDurably(source, target, &digest, &why);
        if (done)
            QCOMPARE(QString::fromLatin1(digest.toHex()), sha256Hex(fileBytes(source)));
    } else if (operation == QLatin1String("addName")) {
        done = LibraryFiles::addName(source, target, &why);
    } else if (operation == QLatin1String("replace")) {
        done = LibraryFiles::replace(source, target, &why);
    } else if (operation == QLatin1String("removeDurably")) {
        done = LibraryFiles::removeDurably(target, &why);
    } else if (operation == QLatin1String("makeDirectory")) {
        done = LibraryFiles::makeDirectory(target + QStringLiteral("/sub"), &why);
    } else if (operation.startsWith(QLatin1String("writeRecord "))) {
        const VerifiedDownload record{operation.section(QLatin1Char(' '), 1), checksum, QString()};
        done = LibraryFiles::writeRecord(target, record, &why);
        if (done)
            QCOMPARE(LibraryFiles::readRecord(target), record);
    } else if (operation == QLatin1String("readRecord")) {
        QVERIFY(LibraryFiles::writeRecord(root + QStringLiteral("/victim"), {"1.1.0", checksum, QString()}, &why));
        done = !LibraryFiles::readRecord(target).isEmpty();
    } else {
        QFAIL(qPrintable("no such operation: " + operation));
    }
    QCOMPARE(done, succeeds);
    const QString expected = QString(error).replace(QStringLiteral("ROOT"), root);
    if (expected.isEmpty())
        QVERIFY2(why.isEmpty(), qPrintable(why));
    else
        QVERIFY2(why.startsWith(expected.section(QLatin1Char('*'), 0, 0)) && why.endsWith(expected.section(QLatin1Char('*'), -1)),
                 qPrintable(why));
    for (const QString& line : after)
        QCOMPARE(line.section(QLatin1Char(' '), 0, 0) + QLatin1Char(' ') + contentOf(root + QLatin1Char('/') + line.section(QLatin1Char(' '), 0, 0)), line);
    // Nothing the module writes is left readable or writable by others.
    struct stat info;
    if (succeeds && ::lstat(qPrintable(target), &info) == 0 && S_ISREG(info.st_mode) && operation != QLatin1String("replace")
        && operation != QLatin1String("addName"))
        QCOMPARE(int(info.st_mode & 07777), 0600);
}

QTEST_GUILESS_MAIN(TestLibraryFiles)
#include "tst_libraryfiles.moc"
