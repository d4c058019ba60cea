// What the library is handed at create (the creation record, byte by byte) and how it reads and
// saves the pairing token.
#include "tst_oplayerlib.h"

#include <QTest>

#include <cstring>

using namespace oplayerlibtest;

void TestOPlayerLib::creationRecord_data()
{
    QTest::addColumn<QVariant>("cacheEnabled");
    QTest::addColumn<int>("disableCache");
    QTest::newRow("cache enabled") << QVariant(true) << 0;
    QTest::newRow("cache disabled") << QVariant(false) << 1;
    QTest::newRow("cache setting absent") << QVariant() << 1;
}

void TestOPlayerLib::creationRecord()
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

void TestOPlayerLib::tokenReader_data()
{
    QTest::addColumn<QString>("token");
    QTest::addColumn<QByteArray>("buffer"); // an 8-byte buffer filled with '#' before the call
    QTest::newRow("shorter") << QStringLiteral("abc") << QByteArray("abc#####");
    QTest::newRow("exactly the size, no NUL") << QStringLiteral("abcdefgh") << QByteArray("abcdefgh");
    QTest::newRow("longer, cut") << QStringLiteral("abcdefghij") << QByteArray("abcdefgh");
    QTest::newRow("multi-byte") << QStringLiteral("\u00e4\u00e4") << QByteArray("\xc3\xa4\xc3\xa4####");
    QTest::newRow("none") << QString() << QByteArray("########");
}

void TestOPlayerLib::tokenReader()
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

void TestOPlayerLib::tokenWriter()
{
    TestPlatform platform;
    orvello_save_token("t0k3n");
    QCOMPARE(platform.setting(VraxOrvelloTokenPath()).toHash().value(VraxValue::StringKey()).toString(),
             QStringLiteral("t0k3n"));
    orvello_save_token(nullptr);
    QVERIFY(platform.setting(VraxOrvelloTokenPath()).toHash().value(VraxValue::StringKey()).toString().isEmpty());
}
