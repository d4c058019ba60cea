#include "OrvelloLogging.h"

#include <QtTest>

class tst_OrvelloLogging : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void escapedForLog_data();
    void escapedForLog();
    void bytesAreReadAsUtf8();
};

void tst_OrvelloLogging::escapedForLog_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("logged");
    // clang-format off
    QTest::newRow("plain") << "1.1.0" << "1.1.0";
    QTest::newRow("empty") << "" << "";
    QTest::newRow("printable punctuation and backslash kept") << R"({"a": "b\n"} <x> 100%)" << R"({"a": "b\n"} <x> 100%)";
    QTest::newRow("non-ASCII letters kept") << QStringLiteral("Gr\u00fc\u00dfe \u4e16\u754c") << QStringLiteral("Gr\u00fc\u00dfe \u4e16\u754c");
    QTest::newRow("a forged line") << "1.1.0\n12:00:00.000 INFO  [Orvello] Running SDK version: 6.6.6"
                                   << "1.1.0\\n12:00:00.000 INFO  [Orvello] Running SDK version: 6.6.6";
    QTest::newRow("carriage return and tab") << "a\r\tb" << "a\\r\\tb";
    QTest::newRow("terminal escape") << "\x1b[31mred" << "\\x1b[31mred";
    QTest::newRow("NUL and DEL") << QString(QChar(0)) + QChar(0x7f) << "\\x00\\x7f";
    QTest::newRow("C1 next line") << QStringLiteral("a\u0085b") << "a\\x85b";
    QTest::newRow("line and paragraph separators") << QStringLiteral("a\u2028b\u2029c") << "a\\u{2028}b\\u{2029}c";
    // clang-format on
}

void tst_OrvelloLogging::escapedForLog()
{
    QFETCH(QString, text);
    QFETCH(QString, logged);
    QCOMPARE(::escapedForLog(text), logged);
}

void tst_OrvelloLogging::bytesAreReadAsUtf8()
{
    QCOMPARE(::escapedForLog(QByteArray("v\xc3\xa9\n")), QStringLiteral("v\u00e9\\n"));
    QCOMPARE(::escapedForLog(QByteArray("\xff\n")), QStringLiteral("\ufffd\\n"));
}

QTEST_GUILESS_MAIN(tst_OrvelloLogging)
#include "tst_orvellologging.moc"
