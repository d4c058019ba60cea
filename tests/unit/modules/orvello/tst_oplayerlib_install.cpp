// The library host installing a verified update as it starts, and refusing what did not verify.
#include "tst_oplayerlib.h"

#include "TestFiles.h"

#include <QRandomGenerator>
#include <QScopeGuard>
#include <QTest>

using namespace oplayerlibtest;

namespace {
QByteArray randomBytes(int size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (char& byte : bytes)
        byte = char(QRandomGenerator::global()->bounded(256));
    return bytes;
}
} // namespace

// What the constructor makes of a waiting download and of an install a power cut
// interrupted: what runs, what stays installed, what is said.
void TestOPlayerLib::install_data()
{
    QTest::addColumn<QString>("installed"); // data-rw/orvello/liboplayer-1.so before
    QTest::addColumn<QString>("previous");  // data-rw/orvello/liboplayer-1.so.previous before
    QTest::addColumn<QString>("fourth");    // the developer build tree
    QTest::addColumn<QString>("download");  // /tmp/orvello/liboplayer-1.so; "random": random bytes
    QTest::addColumn<QString>("record");    // verified record: "match", "other" checksum or "none"
    QTest::addColumn<bool>("blockNewCopy"); // a directory where the new copy is written
    QTest::addColumn<QString>("runsFrom");  // "installed", "fourth" or "" (nothing runs)
    QTest::addColumn<QString>("after");     // what is installed afterwards ("" none, "download")
    QTest::addColumn<bool>("downloadLeft");
    QTest::addColumn<bool>("rejected");     // the rejected record names the installed download
    QTest::addColumn<QStringList>("problems");

    const QString good = QStringLiteral(FAKE_PLAYING);
    const QString other = QStringLiteral(FAKE_CREATE_FAILS_WITH_HANDLE); // also loads
    const QString noSymbol = QStringLiteral(FAKE_NOSYMBOL);
    const QString createFails = QStringLiteral(FAKE_CREATE_FAILS);
    const QString update = QStringLiteral("ERROR Update to version 1.1.0 does not load from ") + kInstalledPath;
    const QString putBack = update + "; the previous library is back in its place and version 0.1.0 plays on";
    const QString removed = update + "; there is no previous copy, so it is removed and the rest of the search list is tried";
    const QString failed = QStringLiteral("ERROR Failed to load oplayer-1 library");
    const QString unverified = QStringLiteral("ERROR Not installing /tmp/orvello/liboplayer-1.so: it has not passed "
                                              "verification; it stays where it is and the installed library is kept");
    const QString resolve = QStringLiteral("ERROR Error resolving the OPLAYER_API symbol: *");
    // clang-format off
    QTest::newRow("update replaces the installed copy")
        << good << "" << "" << other << "match" << false << "installed" << "download" << false << false << QStringList{};
    QTest::newRow("first update")
        << "" << "" << good << other << "match" << false << "installed" << "download" << false << false << QStringList{};
    QTest::newRow("no entry symbol: previous put back")
        << good << "" << "" << noSymbol << "match" << false << "installed" << good << false << true
        << QStringList{resolve, putBack};
    QTest::newRow("create fails: previous put back")
        << good << "" << good << createFails << "match" << false << "installed" << good << false << true
        << QStringList{"ERROR Unable to allocate OPlayer. Error: 5", putBack};
    QTest::newRow("random bytes: previous put back")
        << good << "" << "" << "random" << "match" << false << "installed" << good << false << true
        << QStringList{"ERROR Not loading liboplayer at " + kInstalledPath + ": not an ELF file (*", putBack};
    QTest::newRow("no entry symbol, no previous: system copy")
        << "" << "" << good << noSymbol << "match" << false << "fourth" << "" << false << true
        << QStringList{resolve, removed};
    QTest::newRow("no entry symbol, nothing else")
        << "" << "" << "" << noSymbol << "match" << false << "" << "" << false << true
        << QStringList{resolve, removed, failed, failed};
    QTest::newRow("not verified")
        << good << "" << "" << other << "none" << false << "installed" << good << true << false
        << QStringList{unverified};
    QTest::newRow("not the file that verified")
        << good << "" << "" << other << "other" << false << "installed" << good << true << false
        << QStringList{"ERROR Not installing /tmp/orvello/liboplayer-1.so: it is not the file that passed "
                       "verification; it stays where it is and the installed library is kept"};
    QTest::newRow("new copy cannot be written")
        << good << "" << "" << other << "match" << true << "installed" << good << true << false
        << QStringList{"ERROR Failed to move updated library binary to location: " + kInstalledPath,
                       "WARN Installing version 1.1.0 failed (*"};
    QTest::newRow("interrupted install that loads")
        << other << good << "" << "" << "none" << false << "installed" << other << false << false << QStringList{};
    QTest::newRow("interrupted install that does not load")
        << noSymbol << good << "" << "" << "none" << false << "installed" << good << false << true
        << QStringList{resolve, "ERROR The update installed before the restart does not load from " + kInstalledPath
                                    + "; the previous library is back in its place and version 0.1.0 plays on"};
    // clang-format on
}

void TestOPlayerLib::install()
{
    QFETCH(QString, installed);
    QFETCH(QString, previous);
    QFETCH(QString, fourth);
    QFETCH(QString, download);
    QFETCH(QString, record);
    QFETCH(bool, blockNewCopy);
    QFETCH(QString, runsFrom);
    QFETCH(QString, after);
    QFETCH(bool, downloadLeft);
    QFETCH(bool, rejected);
    QFETCH(QStringList, problems);
    Fixture fixture;
    const QString newCopy = kInstalledPath + QStringLiteral(".new");
    const QString previousPath = kInstalledPath + QStringLiteral(".previous");
    const QString recordPath = LibraryStore().recordPath();
    QDir(QStringLiteral("/tmp/orvello")).removeRecursively();
    QVERIFY(QDir().mkpath(QStringLiteral("data-rw/orvello")));
    if (!installed.isEmpty())
        QVERIFY(placeLibrary(installed, kInstalledPath));
    if (!previous.isEmpty())
        QVERIFY(placeLibrary(previous, previousPath));
    if (!fourth.isEmpty())
        QVERIFY(placeLibrary(fourth, kSearchList[3]));
    const QByteArray downloaded = download == QLatin1String("random") ? randomBytes(100000)
                                  : download.isEmpty()                ? QByteArray()
                                                                      : fileBytes(download);
    if (!download.isEmpty())
        QVERIFY(writeBytes(kDownloadPath, downloaded));
    QString error;
    const QString checksum = sha256Hex(record == QLatin1String("match") ? downloaded : "other");
    if (record != QLatin1String("none"))
        QVERIFY2(LibraryFiles::writeRecord(recordPath,
                                           {QStringLiteral("1.1.0"), checksum, testSignature("1.1.0", checksum)},
                                           &error),
                 qPrintable(error));
    if (blockNewCopy)
        QVERIFY(QDir().mkpath(newCopy));

    LogCapture log;
    OPlayerLib lib(initParams());
    const auto unload = qScopeGuard([&lib] { unloadLibrary(lib); });
    QVERIFY2(linesMatch(problemLines(log), problems), qPrintable(log.dump()));
    QCOMPARE(lib.ok(), !runsFrom.isEmpty());
    if (runsFrom == QLatin1String("installed"))
        QCOMPARE(fakeCounter(kInstalledPath, "fake_create_calls"), 1);
    if (runsFrom == QLatin1String("fourth"))
        QVERIFY(loadedSymbol(kSearchList[3], "fake_create_calls"));
    if (after.isEmpty())
        QVERIFY(!QFile::exists(kInstalledPath));
    else
        QVERIFY(fileBytes(kInstalledPath) == (after == QLatin1String("download") ? downloaded : fileBytes(after)));
    QCOMPARE(QFile::exists(kDownloadPath), downloadLeft);
    QCOMPARE(QFile::exists(recordPath), downloadLeft && record != QLatin1String("none"));
    QVERIFY(!QFile::exists(previousPath));
    QCOMPARE(QFileInfo::exists(newCopy), blockNewCopy);
    const VerifiedDownload rejection = LibraryFiles::readRecord(kInstalledPath + QStringLiteral(".rejected"));
    QCOMPARE(!rejection.isEmpty(), rejected);
    if (rejected && !download.isEmpty())
        QCOMPARE(rejection.checksum, sha256Hex(downloaded));
    if (!downloadLeft && lib.ok()) { // nothing waiting: update() changes nothing, silently
        log.clear();
        QVERIFY(!lib.update());
        QVERIFY(lib.ok() && log.lines().isEmpty());
    }
}

void TestOPlayerLib::updateWithoutPersistentDirectory()
{
    Fixture fixture;
    OPlayerLib lib(initParams());
    QVERIFY(QDir(QStringLiteral("data-rw/orvello")).removeRecursively());
    QVERIFY(placeLibrary(QStringLiteral(FAKE_PLAYING), kDownloadPath));
    LogCapture log;
    QVERIFY(!lib.update());
    QCOMPARE(log.messages(log4cplus::ERROR_LOG_LEVEL, QStringLiteral("Orvello")),
             QStringList{QStringLiteral("The persistent Orvello directory does not exist: data-rw/orvello")});
    QVERIFY(QFile::exists(kDownloadPath));
    QVERIFY(QFile::remove(kDownloadPath));
}
