// The running library: the end of its loop, pairing through it, and a pairing whose instance
// ends (by itself, at a swap, at shutdown) before it answers.
#include "tst_oplayerlib.h"

#include "model/cmnodes.h"
#include "model/cmworker.h"

#include <QSignalSpy>
#include <QTest>

#include <memory>

using namespace oplayerlibtest;

void TestOPlayerLib::mainLoopEnds()
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

void TestOPlayerLib::pairing_data()
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

void TestOPlayerLib::pairing()
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

void TestOPlayerLib::pairingAcrossTheLoopsEnd_data()
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
void TestOPlayerLib::pairingAcrossTheLoopsEnd()
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
