// The module as the platform sees it: liborvello.so loaded with dlopen, worker_create, the
// published nodes, the scratch directory, and clean deletion.
#include "LogCapture.h"
#include "TestPlatform.h"

#include "OrvelloWorker.h"

#include "model/cmnode.h"
#include "vrax/vraxpaths.h"

#include <QDir>
#include <QFileInfo>
#include <QScopeGuard>
#include <QTest>

#include <dlfcn.h>

#include <memory>

namespace {
const QString kScratch = QStringLiteral("/tmp/orvello");

QStringList errors(const LogCapture& log)
{
    return log.messagesAtLeast(log4cplus::WARN_LOG_LEVEL);
}
} // namespace

class TestOrvelloWorker : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init() { QDir(kScratch).removeRecursively(); }
    void moduleCreatesWorkerThroughEntry();
    void prepareDirectoryCreatesParents();
    void initialisationGate();
    void pendingPairingCancelledWithTheWorker();
};

void TestOrvelloWorker::moduleCreatesWorkerThroughEntry()
{
    TestPlatform t;
    LogCapture log;
    void* module = dlopen(ORVELLO_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
    QVERIFY2(module, dlerror());
    auto create = reinterpret_cast<CMWorkerCreateFunction>(dlsym(module, "worker_create"));
    QVERIFY(create);
    QVERIFY(!dlsym(module, "_ZN13OrvelloWorker16prepareDirectoryERK7QStringKi")); // nothing else is exported

    const QVariantHash config{{QStringLiteral("ignored"), 1}};
    CMWorker* worker = create(nullptr, &config);
    QVERIFY(worker);
    QCOMPARE(worker->name(), QStringLiteral("OrvelloWorker"));

    auto* page = qobject_cast<CMListRowsNode*>(t.platform().node(CMPath(QStringLiteral("orvello/browse"))));
    auto* row = qobject_cast<CMValueNode*>(t.platform().node(CMPath(QStringLiteral("orvello/browse/uiPairCode"))));
    auto* version = qobject_cast<CMValueNode*>(t.platform().node(CMPath(QStringLiteral("orvello/sdkVersion"))));
    QVERIFY(page && row && version);
    QCOMPARE(row->title().toString(), QStringLiteral("Pairing Code"));
    QCOMPARE(version->title().toString(), QStringLiteral("Orvello SDK version number"));
    QCOMPARE(version->title().context(), QStringLiteral("OrvelloWorker"));
    QVERIFY(QFileInfo(kScratch).isDir());
    QVERIFY2(errors(log).isEmpty(), qPrintable(log.dump()));
    QCOMPARE(log.messages(log4cplus::TRACE_LOG_LEVEL).first(),
             QStringLiteral("Enter OrvelloUI::OrvelloUI(CMNodes*, const CMPath&)"));
    QVERIFY(log.contains(log4cplus::TRACE_LOG_LEVEL, QStringLiteral("Enter OrvelloWorker::OrvelloWorker(const QVariantHash&)")));
    QVERIFY(log.contains(log4cplus::TRACE_LOG_LEVEL,
                         QStringLiteral("Enter OrvelloWorker::prepareDirectory(const QString&) const: /tmp/orvello")));

    delete worker;
    QVERIFY(t.platform().nodePaths().isEmpty());
    QCOMPARE(dlclose(module), 0);
}

void TestOrvelloWorker::prepareDirectoryCreatesParents()
{
    TestPlatform t;
    OrvelloWorker worker{QVariantHash()};
    LogCapture log;
    const QString nested = t.dir() + QStringLiteral("/a/b/c");
    QVERIFY(worker.prepareDirectory(nested));
    QVERIFY(QFileInfo(nested).isDir());

    QFile blocker(t.dir() + QStringLiteral("/file"));
    QVERIFY(blocker.open(QIODevice::WriteOnly));
    blocker.close();
    QVERIFY(!worker.prepareDirectory(blocker.fileName() + QStringLiteral("/sub")));
    QCOMPARE(log.messages(log4cplus::ERROR_LOG_LEVEL),
             QStringList{QStringLiteral("Can not create directory :") + blocker.fileName() + QStringLiteral("/sub")});
}

// The gate with a fake library whose pairing start answers 7, so every pairing request ends at
// once with that error.
void TestOrvelloWorker::initialisationGate()
{
    TestPlatform t({{VraxOrvelloOutputChannelsPath().toString(), 2},
                    {VraxOrvelloOutputSampleRatePath().toString(), 44100}});
    LogCapture log;
    OrvelloWorker worker{QVariantHash()};
    QCOMPARE(log.messages(log4cplus::INFO_LOG_LEVEL, QStringLiteral("Orvello")),
             QStringList{QStringLiteral("Waiting for pairing code before initializing..")});
    QVERIFY(t.platform().node(VraxOrvelloSetPairCode()));

    CMError error = worker.maybeInitialize(false);
    QCOMPARE(error.text(), QStringLiteral("Missing pairing code"));
    QCOMPARE(error.message().context(), QStringLiteral("OrvelloWorker"));
    error = worker.maybeInitialize(true);
    QCOMPARE(error.text(), QStringLiteral("Failed to load library"));
    QCOMPARE(error.name(), CMError::DefaultName());
    QVERIFY(log.contains(log4cplus::ERROR_LOG_LEVEL, QStringLiteral("Failed to load oplayer-1 library")));

    QVERIFY(QDir().mkpath(QStringLiteral("data-rw/orvello")));
    QVERIFY(QFile::copy(QStringLiteral(FAKE_PLAYING), QStringLiteral("data-rw/orvello/liboplayer-1.so")));
    qputenv("ORVELLO_FAKE_MODES", "pair-start-error");
    const auto modes = qScopeGuard([] { qunsetenv("ORVELLO_FAKE_MODES"); });
    VraxHash code;
    code.setString_(QStringLiteral("ABCDEF"));
    for (int attempt = 0; attempt < 2; ++attempt) {
        log.clear();
        CMReply<QVariant> reply;
        CMRoot()->invoke(VraxOrvelloSetPairCode(), code, reply);
        QVERIFY(!reply.isFinished()); // queued to the worker
        QTRY_VERIFY(reply.isFinished());
        QCOMPARE(reply.error().text(), QStringLiteral("Error while initiating device pairing, error: 7"));
        QVERIFY(log.contains(log4cplus::TRACE_LOG_LEVEL,
                             QStringLiteral("Enter OrvelloWorker::on_setPairingCode_activated(const CMSetDataRequest&): "
                                            "{\"string_\":\"ABCDEF\"}")));
        // The library is loaded once; the second request finds the worker initialised.
        QCOMPARE(log.count(log4cplus::TRACE_LOG_LEVEL, QStringLiteral("Already initialized, doing nothing.")), attempt);
        QCOMPARE(log.messages(log4cplus::INFO_LOG_LEVEL).filter(QStringLiteral("Running SDK version")).size(), 1 - attempt);
    }
}

// A pairing the library never answers is cancelled when the platform deletes the worker, not
// left hanging.
void TestOrvelloWorker::pendingPairingCancelledWithTheWorker()
{
    TestPlatform t({{VraxOrvelloOutputChannelsPath().toString(), 2},
                    {VraxOrvelloOutputSampleRatePath().toString(), 44100}});
    // The developer build tree's place on the search list: the process still has another
    // library mapped under the name of the installed one, which dlopen would hand back.
    QVERIFY(QDir().mkpath(QStringLiteral("a/b")));
    QVERIFY(QDir::setCurrent(QStringLiteral("a/b")));
    const QString library = QStringLiteral("../../build/Hollowkit-blobs-links/Orvello/lib/linux_x86_64/liboplayer-1.so");
    QVERIFY(QDir().mkpath(QFileInfo(library).path()));
    QVERIFY(QFile::copy(QStringLiteral(FAKE_PLAYING), library));
    qputenv("ORVELLO_FAKE_MODES", "pair-never");
    auto worker = std::make_unique<OrvelloWorker>(QVariantHash());
    LogCapture log;
    VraxHash code;
    code.setString_(QStringLiteral("ABCDEF"));
    CMReply<QVariant> reply;
    int answers = 0;
    reply.onFinished(nullptr, [&answers] { ++answers; });
    CMRoot()->invoke(VraxOrvelloSetPairCode(), code, reply);
    QTRY_VERIFY(log.contains(log4cplus::INFO_LOG_LEVEL, QStringLiteral("new value: ABCDEF. Initiating pairing.")));
    QTest::qWait(250); // a few polls go unanswered
    QVERIFY2(!reply.isFinished(), qPrintable(log.dump()));
    worker.reset();
    qunsetenv("ORVELLO_FAKE_MODES");
    QCOMPARE(answers, 1);
    QCOMPARE(reply.error().name(), CMVoidReply::ErrorCancel());
}

QTEST_GUILESS_MAIN(TestOrvelloWorker)
#include "tst_orvelloworker.moc"
