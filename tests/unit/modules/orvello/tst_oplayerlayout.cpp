#include "oplayer/oplayer_layout.h"

#include <QTest>

// The C interface as this (C++) compiler lays it out; devkit's oplayer_ref_layout_check runs
// the same check compiled as C.
class TestOPlayerLayout : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void layoutMatchesTheLibrary()
    {
        char report[4096];
        const int mismatches = oplayer_layout_check(report, sizeof(report));
        QVERIFY2(mismatches == 0, report);
    }
};

QTEST_GUILESS_MAIN(TestOPlayerLayout)
#include "tst_oplayerlayout.moc"
