#include "OPlayerTestUtil.h"

#include "LibraryFiles.h"
#include "LogCapture.h"
#include "OrvelloUpdater.h"
#include "TestFiles.h"
#include "TestPlatform.h"

#include "model/cmnode.h"
#include "model/cmnodes.h"
#include "model/cmworker.h"
#include "vrax/vraxpaths.h"

#include <QRandomGenerator>
#include <QScopeGuard>
#include <QSignalSpy>
#include <QTest>

#include <elf.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <type_traits>

using namespace oplayertest;

namespace {
const QString kBuildTreePath =
    QStringLiteral("../../build/Hollowkit-blobs-links/Orvello/lib/linux_x86_64/liboplayer-1.so");
const QStringList kSearchList = {kInstalledPath, QStringLiteral("/usr/lib64/liboplayer-1.so.1"),
                                 QStringLiteral("/usr/lib/liboplayer-1.so.1"), kBuildTreePath};

// A platform whose working directory is two levels below its temporary directory, so the
// build-tree entry of the search list lands inside it too.
struct Fixture
{
    explicit Fixture(const QVariantHash& settings = {}) : platform(settings)
    {
        QDir(platform.dir()).mkpath(QStringLiteral("a/b"));
        QDir::setCurrent(platform.dir() + QStringLiteral("/a/b"));
    }
    TestPlatform platform;
};

CMSetDataRequest pairRequest(const QString& code, CMVoidReply reply)
{
    VraxValue value;
    value.setString_(code);
    return CMSetDataRequest(VraxOrvelloSetPairCode(), QStringLiteral("value"), value.toVariant(), reply);
}

// "LEVEL message" of the host's lines; a trailing '*' in expected lines matches any rest.
QStringList hostLines(const LogCapture& log)
{
    QStringList out;
    for (const LogCapture::Line& line : log.lines()) {
        if (line.logger != QLatin1String("Orvello"))
            continue;
        const char* level = line.level == log4cplus::TRACE_LOG_LEVEL   ? "TRACE"
                            : line.level == log4cplus::DEBUG_LOG_LEVEL ? "DEBUG"
                            : line.level == log4cplus::INFO_LOG_LEVEL  ? "INFO"
                            : line.level == log4cplus::WARN_LOG_LEVEL  ? "WARN"
                                                                       : "ERROR";
        out << QString::fromLatin1(level) + QLatin1Char(' ') + line.message;
    }
    return out;
}

// The WARN and ERROR lines of the host, as hostLines gives them.
QStringList problemLines(const LogCapture& log)
{
    QStringList out;
    for (const QString& line : hostLines(log))
        if (line.startsWith(QLatin1String("WARN ")) || line.startsWith(QLatin1String("ERROR ")))
            out << line;
    return out;
}

QByteArray randomBytes(int size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (char& byte : bytes)
        byte = char(QRandomGenerator::global()->bounded(256));
    return bytes;
}

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

bool linesMatch(const QStringList& actual, const QStringList& expected)
{
    if (actual.size() != expected.size())
        return false;
    for (int i = 0; i < actual.size(); ++i) {
        const QString& e = expected.at(i);
        if (e.endsWith(QLatin1Char('*')) ? !actual.at(i).startsWith(e.chopped(1)) : actual.at(i) != e)
            return false;
    }
    return true;
}
} // namespace

class TestOPlayerLib : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        for (const QString& system : {kSearchList.at(1), kSearchList.at(2)}) {
            if (QFile::exists(system))
                QSKIP("a system copy of the player library is installed on this machine");
        }
        QVERIFY(!QFile::exists(kDownloadPath));
    }

    void searchList_data()
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

    void searchList()
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

    void creationRecord_data()
    {
        QTest::addColumn<QVariant>("cacheEnabled");
        QTest::addColumn<int>("disableCache");
        QTest::newRow("cache enabled") << QVariant(true) << 0;
        QTest::newRow("cache disabled") << QVariant(false) << 1;
        QTest::newRow("cache setting absent") << QVariant() << 1;
    }

    void creationRecord()
    {
        QFETCH(QVariant, cacheEnabled);
        QFETCH(int, disableCache);
        QVariantHash settings;
        if (cacheEnabled.isValid())
            settings.insert(VraxOrvelloCacheEnabled().toString(), cacheEnabled);
        Fixture fixture(settings);
        QVERIFY(placeLibrary(QStringLiteral(FAKE_PLAYING), kInstalledPath));
        OPlayerLib lib(initParams());
        QVERIFY(lib.ok());

        unsigned char bytes[sizeof(oplayer_create_params)];
        auto record = reinterpret_cast<void (*)(unsigned char*)>(loadedSymbol(kInstalledPath, "fake_create_params_bytes"));
        auto text = reinterpret_cast<const char* (*)(int)>(loadedSymbol(kInstalledPath, "fake_create_string"));
        QVERIFY(record && text);
        record(bytes);
        auto i32 = [&](int offset) { qint32 v; std::memcpy(&v, bytes + offset, 4); return v; };
        auto ptr = [&](int offset) { void* v; std::memcpy(&v, bytes + offset, 8); return v; };

        QCOMPARE(i32(0), 5);
        QCOMPARE(i32(4), 0);
        auto* audio = static_cast<oplayer_audio_api*>(ptr(8));
        QVERIFY(audio);
        QCOMPARE(audio->user, static_cast<void*>(lib.playbackApi()));
        QCOMPARE(i32(16), 0x1234);
        QCOMPARE(i32(20), 0);
        QCOMPARE(i32(32), 300);
        QCOMPARE(i32(36), 50);
        QCOMPARE(i32(40), 2);     // channels first in the C record
        QCOMPARE(i32(44), 44100); // then the rate
        QCOMPARE(QByteArray(text(0)), QByteArray("cache"));
        QCOMPARE(QByteArray(text(1)), QByteArray("SN-0042"));
        QCOMPARE(QByteArray(text(2)), QByteArray("Vrax Test Amp")); // product before secret
        QCOMPARE(QByteArray(text(3)), QByteArray("vendor-secret"));
        QCOMPARE(QByteArray(text(4)), QByteArray("1.0"));
        QCOMPARE(int(bytes[80]), 0);
        QCOMPARE(int(bytes[81]), 1);
        QCOMPARE(int(bytes[82]), disableCache);
        for (int offset = 83; offset < 88; ++offset)
            QCOMPARE(int(bytes[offset]), 0);
        QCOMPARE(ptr(88), reinterpret_cast<void*>(&orvello_load_token));
        QCOMPARE(ptr(96), reinterpret_cast<void*>(&orvello_save_token));
        unloadLibrary(lib);
    }

    void tokenReader_data()
    {
        QTest::addColumn<QString>("token");
        QTest::addColumn<QByteArray>("buffer"); // an 8-byte buffer filled with '#' before the call
        QTest::newRow("shorter") << QStringLiteral("abc") << QByteArray("abc#####");
        QTest::newRow("exactly the size, no NUL") << QStringLiteral("abcdefgh") << QByteArray("abcdefgh");
        QTest::newRow("longer, cut") << QStringLiteral("abcdefghij") << QByteArray("abcdefgh");
        QTest::newRow("multi-byte") << QStringLiteral("\u00e4\u00e4") << QByteArray("\xc3\xa4\xc3\xa4####");
        QTest::newRow("none") << QString() << QByteArray("########");
    }

    void tokenReader()
    {
        QFETCH(QString, token);
        QFETCH(QByteArray, buffer);
        QVariantHash settings;
        if (!token.isNull())
            settings.insert(VraxOrvelloTokenPath().toString(), token);
        TestPlatform platform(settings);
        QByteArray out(9, '#');
        out[8] = '!';
        orvello_load_token(out.data(), 8);
        QCOMPARE(out, buffer + '!');
    }

    void tokenWriter()
    {
        TestPlatform platform;
        orvello_save_token("t0k3n");
        QCOMPARE(platform.setting(VraxOrvelloTokenPath()).toHash().value(VraxValue::StringKey()).toString(),
                 QStringLiteral("t0k3n"));
        orvello_save_token(nullptr);
        QVERIFY(platform.setting(VraxOrvelloTokenPath()).toHash().value(VraxValue::StringKey()).toString().isEmpty());
    }

    void mainLoopEnds()
    {
        Fixture fixture;
        QVERIFY(placeLibrary(QStringLiteral(FAKE_PLAYING), kInstalledPath));
        OPlayerLib lib(initParams());
        QVERIFY(lib.ok());
        OPlayerPlaybackApi* bridge = lib.playbackApi();
        QCOMPARE(bridge->getVolume(), 80);
        QSignalSpy ended(&lib, &OPlayerLib::endOfLoop);
        LogCapture log;
        lib.requestExit();
        QCOMPARE(fakeCounter(kInstalledPath, "fake_exit_mode"), 2);
        QTRY_COMPARE(ended.count(), 1);
        QCOMPARE(fakeCounter(kInstalledPath, "fake_destroy_calls"), 1);
        QVERIFY(!lib.ok());
        QCOMPARE(lib.playbackApi(), bridge);
        QVERIFY(bridge->isPaused());
        QCOMPARE(bridge->getVolume(), -1);
        QCOMPARE(log.messages(log4cplus::INFO_LOG_LEVEL, QStringLiteral("Orvello")),
                 (QStringList{QStringLiteral("Requesting exit at end of song"),
                              QStringLiteral("End of oplayer main loop, cleaning up")}));
        lib.requestExit();
        QVERIFY(log.contains(log4cplus::ERROR_LOG_LEVEL, QStringLiteral("m_oplayer is nullptr, returning")));
        unloadLibrary(lib);
    }

    void pairing_data()
    {
        QTest::addColumn<QByteArray>("modes"); // of the fake library; null: no library
        QTest::addColumn<bool>("success");
        QTest::addColumn<QString>("errorLine");
        QTest::addColumn<QVariant>("errorArg");
        QTest::newRow("no library") << QByteArray() << false << QStringLiteral("m_oplayer is nullptr, returning")
                                    << QVariant();
        QTest::newRow("start refused with 7")
            << QByteArray("pair-start-error") << false
            << QStringLiteral("Error while initiating device pairing, code: 7") << QVariant(7);
        QTest::newRow("failed outcome without message")
            << QByteArray("pair-fails") << false
            << QStringLiteral("Error while initiating device pairing, message: ") << QVariant(QString());
        QTest::newRow("success after 300 ms") << QByteArray("") << true << QString() << QVariant();
    }

    void pairing()
    {
        QFETCH(QByteArray, modes);
        QFETCH(bool, success);
        QFETCH(QString, errorLine);
        QFETCH(QVariant, errorArg);
        Fixture fixture;
        const bool library = !modes.isNull();
        if (library)
            QVERIFY(placeLibrary(QStringLiteral(FAKE_PLAYING), kInstalledPath));
        qputenv("ORVELLO_FAKE_MODES", modes);
        OPlayerLib lib(initParams());
        qunsetenv("ORVELLO_FAKE_MODES");
        QCOMPARE(lib.ok(), library);

        LogCapture log;
        CMVoidReply reply;
        int answers = 0;
        reply.onFinished(this, [&answers]() { ++answers; });
        lib.pair(pairRequest(QStringLiteral("AB\u00c412"), reply));
        QTRY_VERIFY_WITH_TIMEOUT(reply.isFinished(), 5000);
        QTRY_COMPARE(answers, 1);

        if (library) {
            char code[16] = {};
            auto lastCode = reinterpret_cast<int (*)(char*, int)>(loadedSymbol(kInstalledPath, "fake_last_code"));
            QVERIFY(lastCode);
            QCOMPARE(lastCode(code, sizeof(code)), 6);
            QCOMPARE(QByteArray(code, 6), QByteArray("AB\xc3\x84" "12"));
        }
        QCOMPARE(reply.isError(), !success);
        const QString deviceId = VraxHash(CMRoot()->getValue(VraxOrvelloDeviceId()).toHash()).string_();
        if (success) {
            QCOMPARE(deviceId, QStringLiteral("fake-device-2"));
            QCOMPARE(log.messages(log4cplus::INFO_LOG_LEVEL, QStringLiteral("Orvello")).last(),
                     QStringLiteral("Pairing successful"));
            const int polls = fakeCounter(kInstalledPath, "fake_poll_calls");
            QVERIFY2(polls >= 2 && polls <= 6, qPrintable(QString::number(polls))); // one per 100 ms
            QCOMPARE(fakeCounter(kInstalledPath, "fake_release_calls"), 1);
        } else {
            QVERIFY(deviceId.isEmpty());
            QCOMPARE(log.messages(log4cplus::ERROR_LOG_LEVEL, QStringLiteral("Orvello")), QStringList{errorLine});
            const TrString message = reply.error().message();
            QCOMPARE(message.context(), QStringLiteral("OPlayerLib"));
            if (!library) {
                QCOMPARE(message.source(), QStringLiteral("Internal error, library is not initialized"));
                QVERIFY(message.args().isEmpty());
            } else {
                QCOMPARE(message.source(), QStringLiteral("Error while initiating device pairing, error: %1"));
                QCOMPARE(message.args().size(), 1);
                QCOMPARE(message.args().first().value(), errorArg);
            }
        }
        if (modes == "pair-fails")
            QCOMPARE(fakeCounter(kInstalledPath, "fake_release_calls"), 1);
        unloadLibrary(lib);
    }

    // A damaged file at the head of the list is never opened; the search goes on.
    void damagedFileIsSkipped_data()
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

    void damagedFileIsSkipped()
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

    // What the constructor makes of a waiting download and of an install a power cut
    // interrupted: what runs, what stays installed, what is said.
    void install_data()
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

    void install()
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

    void pairingAcrossTheLoopsEnd_data()
    {
        QTest::addColumn<QString>("modes");
        QTest::addColumn<QString>("end");     // how the loop ends: "itself", "swap" or "shutdown"
        QTest::addColumn<QString>("swapTo");  // the downloaded library update() installs
        QTest::addColumn<QString>("outcome"); // empty: paired; else the reply's error name or message

        const QString interrupted = QStringLiteral("Pairing was interrupted, please enter the pairing code again");
        QTest::newRow("the library ends its loop") << "loop-ends,pair-never" << "itself" << QString() << interrupted;
        QTest::newRow("the outcome comes with the loop's end")
            << "loop-ends,pair-at-end" << "itself" << QString() << QString();
        QTest::newRow("swap to a library that fails to load")
            << "pair-never" << "swap" << QStringLiteral(FAKE_CREATE_FAILS) << interrupted;
        QTest::newRow("swap to a good library")
            << "pair-never" << "swap" << QStringLiteral(FAKE_CREATE_FAILS_WITH_HANDLE) << interrupted;
        QTest::newRow("host shut down") << "pair-never" << "shutdown" << QString() << CMVoidReply::ErrorCancel();
    }

    // Whatever ends the instance that was asked to pair, the reply is answered once, from that
    // instance, and no poll reaches another instance or an unloaded library.
    void pairingAcrossTheLoopsEnd()
    {
        QFETCH(QString, modes);
        QFETCH(QString, end);
        QFETCH(QString, swapTo);
        QFETCH(QString, outcome);
        Fixture fixture;
        QVERIFY(placeLibrary(QStringLiteral(FAKE_PLAYING), kInstalledPath));
        qputenv("ORVELLO_FAKE_MODES", modes.toLatin1());
        auto lib = std::make_unique<OPlayerLib>(initParams());
        QVERIFY(lib->ok());
        int ends = 0;
        connect(lib.get(), &OPlayerLib::endOfLoop, this, [&] {
            ++ends;
            lib->update(); // as the worker does
        });

        LogCapture log;
        CMVoidReply reply;
        int answers = 0;
        reply.onFinished(this, [&answers]() { ++answers; });
        lib->pair(pairRequest(QStringLiteral("ABCDEF"), reply));
        QVERIFY(!reply.isFinished());
        if (end == QLatin1String("swap")) {
            QVERIFY(placeVerifiedDownload(swapTo));
            lib->requestExit();
        } else if (end == QLatin1String("shutdown")) {
            lib->shutdown();
        }
        QTRY_COMPARE_WITH_TIMEOUT(answers, 1, 5000);
        QCOMPARE(ends, end == QLatin1String("shutdown") ? 0 : 1);
        QTest::qWait(350); // polls come every 100 ms: a second answer, or a poll of a gone library, shows here
        QCOMPARE(answers, 1);
        qunsetenv("ORVELLO_FAKE_MODES");

        const QStringList warnings = log.messages(log4cplus::WARN_LOG_LEVEL, QStringLiteral("Orvello"));
        if (outcome.isEmpty()) {
            QVERIFY2(!reply.isError(), qPrintable(log.dump()));
            QCOMPARE(VraxHash(CMRoot()->getValue(VraxOrvelloDeviceId()).toHash()).string_(), QStringLiteral("fake-device-2"));
            QVERIFY(warnings.isEmpty());
        } else if (outcome == CMVoidReply::ErrorCancel()) {
            QCOMPARE(reply.error().name(), outcome);
            QVERIFY(warnings.isEmpty());
        } else {
            QCOMPARE(reply.error().message().source(), outcome);
            QCOMPARE(reply.error().message().context(), QStringLiteral("OPlayerLib"));
            QCOMPARE(warnings, QStringList{QStringLiteral("The player library's loop ended before pairing finished; "
                                                          "the pairing code has to be entered again")});
        }
        if (swapTo == QLatin1String(FAKE_CREATE_FAILS_WITH_HANDLE)) {
            QVERIFY(lib->ok());
            QCOMPARE(fakeCounter(kInstalledPath, "fake_poll_calls"), 0); // the new instance was never asked
        }
        if (lib->ok())
            stopLibrary(*lib);
        unloadLibrary(*lib);
    }

    void updateWithoutPersistentDirectory()
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
};

QTEST_GUILESS_MAIN(TestOPlayerLib)
#include "tst_oplayerlib.moc"
