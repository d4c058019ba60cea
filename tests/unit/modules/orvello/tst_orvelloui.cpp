// The pairing page: its nodes, and which typed codes reach the pairing action.
#include "LogCapture.h"
#include "TestPlatform.h"

#include "OrvelloUI.h"

#include "model/cmnode.h"
#include "model/cmnodes.h"
#include "model/cmworker.h"
#include "vrax/vraxpaths.h"

#include <QTest>

class PairingAction : public QObject
{
    Q_OBJECT
public:
    QList<CMSetDataRequest> requests;
    void onInvoke(const CMSetDataRequest& request) { requests << request; }
};

class TestOrvelloUI : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void publishesPage();
    void validatesCode_data();
    void validatesCode();
};

void TestOrvelloUI::publishesPage()
{
    TestPlatform t;
    CMNodes nodes;
    LogCapture log;
    OrvelloUI ui(&nodes, VraxOrvelloBrowsePath());

    auto* list = qobject_cast<CMListRowsNode*>(t.platform().node(CMPath(QStringLiteral("orvello/browse"))));
    auto* row = qobject_cast<CMValueNode*>(t.platform().node(CMPath(QStringLiteral("orvello/browse/uiPairCode"))));
    QVERIFY(list && row);
    QCOMPARE(list->title().toString(), QStringLiteral("Orvello Streams"));
    QCOMPARE(list->title().context(), QStringLiteral("OrvelloUI"));
    QCOMPARE(list->rows(), QList<CMPath>{row->path()});
    QCOMPARE(row->title().toString(), QStringLiteral("Pairing Code"));
    QVERIFY(row->hasValidate());
    QVERIFY(row->value().hash().contains(VraxValue::StringKey()));
    QCOMPARE(row->value().string_(), QString());
    QCOMPARE(log.messages(log4cplus::TRACE_LOG_LEVEL, QStringLiteral("Orvello")),
             QStringList{QStringLiteral("Enter OrvelloUI::OrvelloUI(CMNodes*, const CMPath&)")});
}

void TestOrvelloUI::validatesCode_data()
{
    QTest::addColumn<QString>("entered");
    QTest::addColumn<QString>("forwarded"); // null: refused as invalid
    QTest::newRow("upper") << "ABCDEF" << "ABCDEF";
    QTest::newRow("lower") << "abcdef" << "abcdef";
    QTest::newRow("mixed case kept") << "AbCdEf" << "AbCdEf";
    QTest::newRow("hyphen at 3") << "ABC-DEF" << "ABCDEF";
    QTest::newRow("hyphen, lower") << "abc-def" << "abcdef";
    QTest::newRow("non-ASCII letter") << QStringLiteral("ÄBCDEF") << QStringLiteral("ÄBCDEF");
    QTest::newRow("non-ASCII with hyphen") << QStringLiteral("ÅÉÎ-ØÜß") << QStringLiteral("ÅÉÎØÜß");
    QTest::newRow("Greek letters") << QStringLiteral("αβγδεζ") << QStringLiteral("αβγδεζ");
    QTest::newRow("hyphen at 4") << "ABCD-EF" << QString();
    QTest::newRow("leading hyphen") << "-ABCDEF" << QString();
    QTest::newRow("hyphen, too short") << "ABC-DE" << QString();
    QTest::newRow("two hyphens") << "AB-C-DE" << QString();
    QTest::newRow("digit") << "ABC1EF" << QString();
    QTest::newRow("blank inside") << "ABC DEF" << QString();
    QTest::newRow("too long") << "ABCDEFG" << QString();
    QTest::newRow("empty") << "" << QString();
    QTest::newRow("trailing blank") << "ABCDEF " << QString();
    QTest::newRow("leading blank") << " ABCDEF" << QString();
    QTest::newRow("underscore at 3") << "ABC_DEF" << QString();
    QTest::newRow("superscript digit") << QStringLiteral("ABCDE²") << QString();
}

void TestOrvelloUI::validatesCode()
{
    QFETCH(QString, entered);
    QFETCH(QString, forwarded);
    TestPlatform t;
    CMNodes nodes;
    OrvelloUI ui(&nodes, VraxOrvelloBrowsePath());
    PairingAction action;
    CMActivateNode::create(&nodes, VraxOrvelloSetPairCode())
        ->setInvoke(&action, &PairingAction::onInvoke, Qt::QueuedConnection);
    auto* row = qobject_cast<CMValueNode*>(t.platform().node(CMPath(QStringLiteral("orvello/browse/uiPairCode"))));
    const VraxValue before = row->value();

    VraxHash value;
    value.setString_(entered);
    CMReply<QVariant> reply;
    CMRoot()->setValue(row->path(), value, reply);

    if (forwarded.isNull()) {
        QTRY_VERIFY(reply.isFinished());
        QCOMPARE(reply.error().text(), QStringLiteral("Invalid pairing code"));
        QCOMPARE(reply.error().name(), CMError::DefaultName());
        QCOMPARE(reply.error().title(), CMError::DefaultTitle());
        QCoreApplication::processEvents();
        QVERIFY(action.requests.isEmpty());
    } else {
        QTRY_COMPARE(action.requests.size(), 1);
        const CMSetDataRequest& request = action.requests.first();
        QCOMPARE(request.path(), VraxOrvelloSetPairCode());
        QCOMPARE(VraxValue(request.data().toHash()).string_(), forwarded);
        // The action answers the caller's own reply; the page leaves it to the action.
        QVERIFY(request.reply() == reply);
        QVERIFY(!reply.isFinished());
    }
    QCOMPARE(row->value(), before);
}

QTEST_GUILESS_MAIN(TestOrvelloUI)
#include "tst_orvelloui.moc"
