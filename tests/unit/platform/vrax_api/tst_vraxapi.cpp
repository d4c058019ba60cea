// The desktop platform's core: replies, settings store, value and action delivery, texts.
#include "LogCapture.h"
#include "TestFiles.h"
#include "TestPlatform.h"

#include "model/cmnode.h"
#include "model/cmnodes.h"
#include "model/cmworker.h"
#include "vrax/dbglog.h"
#include "vrax/vraxpaths.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <sys/stat.h>

#include <atomic>

class Receiver : public QObject
{
    Q_OBJECT
public:
    QList<CMSetDataRequest> requests;
    QList<VraxValue> values;
    void onValidate(const CMSetDataRequest& request, const VraxValue& value)
    {
        requests << request;
        values << value;
    }
    void onInvoke(const CMSetDataRequest& request) { requests << request; }
};

class TestVraxApi : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void replyIsAnsweredOnce();
    void lateWatcherRunsFromEventLoop();
    void watcherRunsOnReceiverThread();
    void watcherOfDestroyedReceiverIsDropped();
    void cancelKeepsAnEarlierAnswer();

    void settingsAreTypedAndWrittenBack();
    void badSettingsFileIsRefused_data();
    void badSettingsFileIsRefused();
    void settingsFileMode_data();
    void settingsFileMode();
    void unwritableSettingIsKeptAndRetried_data();
    void unwritableSettingIsKeptAndRetried();
    void unsavedSettingAtExit_data();
    void unsavedSettingAtExit();

    void setValueRoutes();
    void invokeDeliversQueuedToTheAction();

    void signatureTexts_data();
    void signatureTexts();
    void translatableTextAppliesArguments();
};

void TestVraxApi::replyIsAnsweredOnce()
{
    LogCapture log;
    CMReply<QVariant> reply;
    int finished = 0;
    reply.onFinished(nullptr, [&] { ++finished; });
    CMVoidReply copy = reply;
    copy.setError(CMError(TrString("first")));
    reply.setValue(QVariant(42));
    QCOMPARE(finished, 1);
    QVERIFY(reply.isFinished());
    QCOMPARE(reply.error().message(), TrString("first"));
    QVERIFY(!reply.value().isValid());
    QCOMPARE(log.messages(log4cplus::WARN_LOG_LEVEL).size(), 1);
}

void TestVraxApi::lateWatcherRunsFromEventLoop()
{
    CMReply<int> reply;
    reply.setValue(7);
    QObject receiver;
    int got = 0;
    reply.onSuccess(&receiver, [&](const int& value) { got = value; });
    QCOMPARE(got, 0); // never inside the call that adds it
    QTRY_COMPARE(got, 7);

    bool errorSeen = false;
    reply.onError(&receiver, [&](const CMError&) { errorSeen = true; });
    QCoreApplication::processEvents();
    QVERIFY(!errorSeen);
}

void TestVraxApi::watcherRunsOnReceiverThread()
{
    QObject receiver;
    CMVoidReply reply;
    std::atomic<QThread*> ranOn{nullptr};
    reply.onFinished(&receiver, [&] { ranOn = QThread::currentThread(); });
    QThread* answering = QThread::create([reply]() mutable { reply.setValue(); });
    answering->start();
    QVERIFY(answering->wait(5000));
    delete answering;
    QTRY_COMPARE(ranOn.load(), QThread::currentThread());
}

void TestVraxApi::watcherOfDestroyedReceiverIsDropped()
{
    CMVoidReply reply;
    bool ran = false;
    {
        QObject receiver;
        reply.onFinished(&receiver, [&] { ran = true; });
    }
    reply.setValue();
    QCoreApplication::processEvents();
    QVERIFY(!ran);
}

void TestVraxApi::cancelKeepsAnEarlierAnswer()
{
    LogCapture log;
    CMVoidReply done;
    done.setValue();
    done.cancel();
    QVERIFY(!done.isError());
    QVERIFY(log.messagesAtLeast(log4cplus::WARN_LOG_LEVEL).isEmpty());

    CMVoidReply pending;
    pending.cancel();
    QCOMPARE(pending.error().name(), CMVoidReply::ErrorCancel());
}

void TestVraxApi::settingsAreTypedAndWrittenBack()
{
    TestPlatform t({{QStringLiteral("settings/orvello/token"), QStringLiteral("tok")},
                    {QStringLiteral("settings/orvello/outputChannels"), 2},
                    {QStringLiteral("settings/orvello/cacheEnabled"), true}});
    CMAbstractWorker* root = CMRoot();
    QCOMPARE(VraxHash(root->getValue(VraxOrvelloTokenPath()).toHash()).string_(), QStringLiteral("tok"));
    QCOMPARE(VraxHash(root->getValue(VraxOrvelloOutputChannelsPath()).toHash()).i32_(), 2);
    QCOMPARE(VraxHash(root->getValue(VraxOrvelloCacheEnabled()).toHash()).bool_(), true);
    QVERIFY(root->getValue(VraxOrvelloDeviceId()).toHash().isEmpty());

    VraxHash id;
    id.setString_(QStringLiteral("dev-1"));
    CMVoidReply reply;
    root->setValue(VraxOrvelloDeviceId(), id, reply);
    QVERIFY(reply.isFinished() && !reply.isError());

    QFile file(t.settingsFile());
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QJsonObject written = QJsonDocument::fromJson(file.readAll()).object();
    QCOMPARE(written.value(QStringLiteral("settings/orvello/deviceId")).toString(), QStringLiteral("dev-1"));
    QCOMPARE(written.value(QStringLiteral("settings/orvello/outputChannels")).toInt(), 2);
    QCOMPARE(written.value(QStringLiteral("settings/orvello/cacheEnabled")).toBool(), true);

    vrax::SettingsStore reread;
    QString error;
    QVERIFY2(reread.open(t.settingsFile(), false, &error), qPrintable(error));
    QCOMPARE(reread.value(VraxOrvelloDeviceId()).string_(), QStringLiteral("dev-1"));
}

void TestVraxApi::badSettingsFileIsRefused_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("errorPart");
    QTest::newRow("not JSON") << QByteArray("{\"a\": ") << QStringLiteral("is not valid JSON");
    QTest::newRow("not an object") << QByteArray("[1, 2]") << QStringLiteral("must hold one JSON object");
    QTest::newRow("array value") << QByteArray("{\"settings/x\": [1]}") << QStringLiteral("setting \"settings/x\"");
    QTest::newRow("fraction") << QByteArray("{\"settings/x\": 1.5}") << QStringLiteral("not a 32-bit integer");
    QTest::newRow("too large") << QByteArray("{\"settings/x\": 4294967296}") << QStringLiteral("not a 32-bit integer");
    QTest::newRow("null") << QByteArray("{\"settings/x\": null}") << QStringLiteral("only strings, integers and booleans");
}

void TestVraxApi::badSettingsFileIsRefused()
{
    QFETCH(QByteArray, content);
    QFETCH(QString, errorPart);
    TestPlatform t({{QStringLiteral("settings/kept"), QStringLiteral("yes")}});
    const QString bad = t.dir() + QStringLiteral("/bad.json");
    QFile file(bad);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(content);
    file.close();

    QString error;
    QVERIFY(!t.platform().settings().open(bad, false, &error));
    QVERIFY2(error.contains(errorPart) && error.contains(bad), qPrintable(error));
    // The store keeps what it had rather than becoming empty.
    QCOMPARE(t.platform().settings().value(CMPath(QStringLiteral("settings/kept"))).string_(), QStringLiteral("yes"));
    QCOMPARE(t.platform().settings().fileName(), t.settingsFile());

    QVERIFY(!t.platform().settings().open(t.dir() + QStringLiteral("/missing.json"), false, &error));
    QVERIFY(error.contains(QStringLiteral("does not exist")));
}

// The settings hold the pairing token and the vendor secret: no rewrite makes them readable by
// accounts that could not read them before, whatever the umask.
void TestVraxApi::settingsFileMode_data()
{
    QTest::addColumn<int>("umask");
    QTest::addColumn<int>("existingMode"); // -1: no file yet
    QTest::addColumn<bool>("throughLink");
    QTest::addColumn<int>("expectedMode");
    QTest::newRow("new file, umask 000") << 0000 << -1 << false << 0600;
    QTest::newRow("new file, umask 022") << 0022 << -1 << false << 0600;
    QTest::newRow("existing 0640, umask 000") << 0000 << 0640 << false << 0640;
    QTest::newRow("existing 0640, umask 077") << 0077 << 0640 << false << 0640;
    QTest::newRow("existing 0600, umask 000") << 0000 << 0600 << false << 0600;
    QTest::newRow("a link to a 0640 file") << 0000 << 0640 << true << 0640;
}

void TestVraxApi::settingsFileMode()
{
    QFETCH(int, umask);
    QFETCH(int, existingMode);
    QFETCH(bool, throughLink);
    QFETCH(int, expectedMode);
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString file = dir.filePath(QStringLiteral("settings.json"));
    const QString link = dir.filePath(QStringLiteral("link.json"));
    if (existingMode >= 0) {
        QVERIFY(writeBytes(file, "{\"settings/orvello/token\": \"old\"}"));
        QVERIFY(::chmod(QFile::encodeName(file).constData(), mode_t(existingMode)) == 0);
    }
    if (throughLink)
        QVERIFY(QFile::link(file, link));
    const mode_t previousUmask = ::umask(mode_t(umask));
    auto restoreUmask = qScopeGuard([&] { ::umask(previousUmask); });

    vrax::SettingsStore store;
    QString error;
    QVERIFY2(store.open(throughLink ? link : file, existingMode < 0, &error), qPrintable(error));
    VraxValue secret;
    secret.setString_(QStringLiteral("secret"));
    QVERIFY2(store.setValue(VraxOrvelloVendorSecretPath(), secret, &error), qPrintable(error));

    struct stat written = {};
    QVERIFY(::stat(QFile::encodeName(file).constData(), &written) == 0);
    QCOMPARE(int(written.st_mode & 07777), expectedMode);
    QVERIFY(fileBytes(file).contains("secret"));
    if (throughLink)
        QVERIFY(QFileInfo(link).isSymLink());
    // No temporary file is left beside it.
    QCOMPARE(QDir(dir.path()).entryList(QDir::Files | QDir::System).size(), throughLink ? 2 : 1);
}

namespace {
// Makes the settings file at file unwritable in one of two ways, and writable again.
struct SettingsDamage
{
    QString kind;
    QString file;
    QString dir() const { return QFileInfo(file).path(); }
    bool apply() const
    {
        if (kind == QLatin1String("remove directory"))
            return QDir(dir()).removeRecursively();
        return QFile::remove(file) && QDir().mkpath(file);
    }
    bool repair() const
    {
        if (kind == QLatin1String("remove directory"))
            return QDir().mkpath(dir());
        return QDir(file).removeRecursively();
    }
};

const QString kUnsavedLine = QStringLiteral(
    "^Cannot write settings file %1: .+; %2 keeps its new value unsaved until the file can be written \\(retried "
    "with back-off, and at exit\\)$");
} // namespace

void TestVraxApi::unwritableSettingIsKeptAndRetried_data()
{
    QTest::addColumn<QString>("damage");
    QTest::newRow("directory removed") << QStringLiteral("remove directory");
    QTest::newRow("a directory in the file's place") << QStringLiteral("directory at file");
}

// A setting the file cannot take is in effect at once, reported once, and written by a retry
// once the file can be written: a token saved while the disk was read-only survives the next start.
void TestVraxApi::unwritableSettingIsKeptAndRetried()
{
    QFETCH(QString, damage);
    TestPlatform t({{QStringLiteral("settings/orvello/token"), QStringLiteral("old")}});
    const SettingsDamage broken{damage, t.dir() + QStringLiteral("/etc/settings.json")};
    QVERIFY(QDir().mkpath(broken.dir()));
    QVERIFY(QFile::copy(t.settingsFile(), broken.file));
    QString error;
    QVERIFY2(t.platform().settings().open(broken.file, false, &error), qPrintable(error));
    QVERIFY(broken.apply());

    LogCapture log;
    auto setToken = [](const QString& text) {
        VraxHash token;
        token.setString_(text);
        CMVoidReply reply;
        CMRoot()->setValue(VraxOrvelloTokenPath(), token, reply);
        return reply;
    };
    const CMVoidReply reply = setToken(QStringLiteral("new"));
    QVERIFY(reply.isFinished());
    QVERIFY(reply.isError());
    QVERIFY2(reply.error().text().startsWith(QStringLiteral("settings/orvello/token is not saved yet: settings file ")
                                             + broken.file),
             qPrintable(reply.error().text()));
    QCOMPARE(VraxHash(CMRoot()->getValue(VraxOrvelloTokenPath()).toHash()).string_(), QStringLiteral("new"));
    const QStringList errors = log.messagesAtLeast(log4cplus::WARN_LOG_LEVEL);
    QCOMPARE(errors.size(), 1);
    QCOMPARE(log.messages(log4cplus::ERROR_LOG_LEVEL, QStringLiteral("Vrax")), errors);
    const QRegularExpression line(kUnsavedLine.arg(QRegularExpression::escape(broken.file), QStringLiteral("settings/orvello/token")));
    QVERIFY2(line.match(errors.first()).hasMatch(), qPrintable(errors.first()));

    // Changed again and retried while the file still fails: no second report.
    QVERIFY(setToken(QStringLiteral("newer")).isError());
    QTRY_VERIFY_WITH_TIMEOUT(!log.messages(log4cplus::DEBUG_LOG_LEVEL, QStringLiteral("Vrax")).filter(QStringLiteral("still cannot be written")).isEmpty(), 5000);
    QCOMPARE(log.messagesAtLeast(log4cplus::WARN_LOG_LEVEL), errors);

    QVERIFY(broken.repair());
    QTRY_VERIFY_WITH_TIMEOUT(fileBytes(broken.file).contains("newer"), 10000);
    QVERIFY2(log.contains(log4cplus::INFO_LOG_LEVEL, QStringLiteral("Settings file %1 written; saved at last: settings/orvello/token").arg(broken.file)),
             qPrintable(log.dump()));
    vrax::SettingsStore reread;
    QVERIFY2(reread.open(broken.file, false, &error), qPrintable(error));
    QCOMPARE(reread.value(VraxOrvelloTokenPath()).string_(), QStringLiteral("newer"));
    // Saved again: the next change is plain.
    QVERIFY(!setToken(QStringLiteral("newest")).isError());
    QCOMPARE(log.messagesAtLeast(log4cplus::WARN_LOG_LEVEL), errors);

    VraxValue twoTypes;
    twoTypes.setString_(QStringLiteral("x"));
    twoTypes.setI32_(1);
    bool unsaved = true;
    QVERIFY(!t.platform().settings().setValue(CMPath(QStringLiteral("settings/a")), twoTypes, &error, &unsaved));
    QVERIFY(!unsaved);
}

void TestVraxApi::unsavedSettingAtExit_data()
{
    QTest::addColumn<bool>("repaired");
    QTest::newRow("writable again by then") << true;
    QTest::newRow("still unwritable") << false;
}

// What no retry saved is written when the store goes (the host's exit), or reported lost.
void TestVraxApi::unsavedSettingAtExit()
{
    QFETCH(bool, repaired);
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const SettingsDamage broken{QStringLiteral("remove directory"), dir.filePath(QStringLiteral("etc/settings.json"))};
    QVERIFY(writeBytes(broken.file, "{\"settings/orvello/token\": \"old\"}"));
    LogCapture log;
    {
        vrax::SettingsStore store;
        QString error;
        QVERIFY2(store.open(broken.file, false, &error), qPrintable(error));
        QVERIFY(broken.apply());
        VraxValue token;
        token.setString_(QStringLiteral("new"));
        bool unsaved = false;
        QVERIFY(!store.setValue(VraxOrvelloTokenPath(), token, &error, &unsaved));
        QVERIFY(unsaved);
        if (repaired)
            QVERIFY(broken.repair());
    }
    if (repaired) {
        QVERIFY(fileBytes(broken.file).contains("\"new\""));
        QVERIFY2(log.contains(log4cplus::INFO_LOG_LEVEL, QStringLiteral("Settings file %1 written at exit; saved at last: settings/orvello/token").arg(broken.file)),
                 qPrintable(log.dump()));
        QCOMPARE(log.messages(log4cplus::ERROR_LOG_LEVEL).size(), 1);
    } else {
        const QStringList errors = log.messages(log4cplus::ERROR_LOG_LEVEL, QStringLiteral("Vrax"));
        QCOMPARE(errors.size(), 2);
        const QRegularExpression lost(QStringLiteral("^Cannot write settings file %1 at exit: .+; lost: settings/orvello/token$")
                                          .arg(QRegularExpression::escape(broken.file)));
        QVERIFY2(lost.match(errors.last()).hasMatch(), qPrintable(errors.last()));
    }
}

void TestVraxApi::setValueRoutes()
{
    TestPlatform t;
    CMNodes nodes;
    Receiver receiver;
    CMValueNode* plain = CMValueNode::create(&nodes, CMPath(QStringLiteral("test/plain")), nullptr);
    CMValueNode* validated = CMValueNode::create(&nodes, CMPath(QStringLiteral("test/validated")), nullptr);
    validated->setValidate(&receiver, &Receiver::onValidate, Qt::QueuedConnection);

    VraxHash value;
    value.setString_(QStringLiteral("v"));
    CMVoidReply plainReply;
    CMRoot()->setValue(plain->path(), value, plainReply);
    QVERIFY(plainReply.isFinished() && !plainReply.isError());
    QCOMPARE(plain->value(), VraxValue(value));

    CMVoidReply validatedReply;
    CMRoot()->setValue(validated->path(), value, validatedReply);
    QVERIFY(receiver.requests.isEmpty()); // queued, never inside setValue
    QTRY_COMPARE(receiver.requests.size(), 1);
    QVERIFY(validated->value().isEmpty()); // the handler decides, nothing is stored
    QCOMPARE(receiver.values.first(), VraxValue(value));
    QCOMPARE(receiver.requests.first().path(), validated->path());
    receiver.requests.first().reply().setValue(QVariant());
    QVERIFY(validatedReply.isFinished() && !validatedReply.isError());

    CMVoidReply unknownReply;
    CMRoot()->setValue(CMPath(QStringLiteral("test/none")), value, unknownReply);
    QCOMPARE(unknownReply.error().text(), QStringLiteral("There is no value at test/none"));

    delete plain;
    CMVoidReply goneReply;
    CMRoot()->setValue(CMPath(QStringLiteral("test/plain")), value, goneReply);
    QVERIFY(goneReply.isError());
}

void TestVraxApi::invokeDeliversQueuedToTheAction()
{
    TestPlatform t;
    CMNodes nodes;
    Receiver receiver;
    CMActivateNode* action = CMActivateNode::create(&nodes, CMPath(QStringLiteral("test/action")));
    action->setInvoke(&receiver, &Receiver::onInvoke, Qt::QueuedConnection);

    VraxHash value;
    value.setString_(QStringLiteral("CODE"));
    CMReply<QVariant> reply;
    CMRoot()->invoke(action->path(), value, reply);
    QVERIFY(receiver.requests.isEmpty());
    QTRY_COMPARE(receiver.requests.size(), 1);
    QCOMPARE(VraxValue(receiver.requests.first().data().toHash()).string_(), QStringLiteral("CODE"));
    QVERIFY(receiver.requests.first().reply() == reply);

    CMReply<QVariant> noAction;
    CMRoot()->invoke(CMPath(QStringLiteral("test/none")), value, noAction);
    QCOMPARE(noAction.error().text(), QStringLiteral("There is no action at test/none"));
}

void TestVraxApi::signatureTexts_data()
{
    QTest::addColumn<QString>("signature");
    QTest::addColumn<QString>("function");
    QTest::addColumn<QString>("context");
    QTest::newRow("member") << "CMError OrvelloWorker::maybeInitialize(bool)"
                            << "OrvelloWorker::maybeInitialize(bool)" << "OrvelloWorker";
    QTest::newRow("constructor") << "OrvelloUI::OrvelloUI(CMNodes*, const CMPath&)"
                                 << "OrvelloUI::OrvelloUI(CMNodes*, const CMPath&)" << "OrvelloUI";
    QTest::newRow("lambda") << "OrvelloPlayLogic::OrvelloPlayLogic(CMNodes*, OPlayerPlaybackApi*)::<lambda(int, int)>"
                            << "OrvelloPlayLogic::OrvelloPlayLogic(CMNodes*, OPlayerPlaybackApi*)::<lambda(int, int)>"
                            << "OrvelloPlayLogic";
    QTest::newRow("pointer result") << "const char* A::name() const" << "A::name() const" << "A";
    QTest::newRow("template result") << "QList<QString> A::list(int)" << "A::list(int)" << "A";
    QTest::newRow("free") << "int helper(int)" << "helper(int)" << "helper";
    QTest::newRow("scope dropped") << "void Orvello::Thing::run()" << "Thing::run()" << "Orvello::Thing";
}

void TestVraxApi::signatureTexts()
{
    QFETCH(QString, signature);
    QFETCH(QString, function);
    QFETCH(QString, context);
    const QByteArray sig = signature.toUtf8();
    QCOMPARE(QString::fromStdString(dbglog_scopedFunction(sig.constData(), "Orvello")), function);
    QCOMPARE(trExtractContext(sig.constData()), context);
}

void TestVraxApi::translatableTextAppliesArguments()
{
    const TrString text(QStringLiteral("OPlayerLib"), "Error while initiating device pairing, error: %1", {TrArg(7)});
    QCOMPARE(text.toString(), QStringLiteral("Error while initiating device pairing, error: 7"));
    QCOMPARE(text.args().first().value(), QVariant(7));
    const CMError error(text);
    QCOMPARE(error.name(), CMError::DefaultName());
    QCOMPARE(error.title(), CMError::DefaultTitle());
    QVERIFY(error.isSet() && !CMError().isSet());
    QCOMPARE(TrString(nullptr).toString(), QString());
}

QTEST_GUILESS_MAIN(TestVraxApi)
#include "tst_vraxapi.moc"
