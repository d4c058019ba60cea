// The module as the platform sees it: liborvello.so loaded with dlopen, worker_create, the
// published nodes, the scratch directory, and clean deletion.
#include "LogCapture.h"
#include "TestFiles.h"
#include "TestPlatform.h"

#include "OrvelloWorker.h"
#include "ScratchDirectory.h"

#include "model/cmnode.h"
#include "vrax/vraxpaths.h"

#include <QDir>
#include <QFileInfo>
#include <QScopeGuard>
#include <QTest>

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

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
    void init()
    {
        QFile::remove(kScratch);
        QDir(kScratch).removeRecursively();
    }
    void moduleCreatesWorkerThroughEntry();
    void prepareDirectoryCreatesParents();
    void scratchDirectory_data();
    void scratchDirectory();
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

void TestOrvelloWorker::scratchDirectory_data()
{
    QTest::addColumn<QString>("before"); // what stands at /tmp/orvello: "", "squatted", "link", "open", "file"
    QTest::addColumn<int>("mask");
    QTest::addColumn<QStringList>("errors"); // ERROR lines, "*" ending a prefix
    const QString privately = "; nothing in it is read, installed or loaded, and a private directory is used instead";
    QTest::newRow("missing") << "" << 022 << QStringList();
    QTest::newRow("missing, umask 000") << "" << 0 << QStringList();
    QTest::newRow("another account's") << "squatted" << 022
                                       << QStringList{"Not using /tmp/orvello: it is owned by uid 65534, not by this "
                                                      "process's user (uid 0)" + privately};
    QTest::newRow("a link") << "link" << 022
                            << QStringList{"Not using /tmp/orvello: it is a symbolic link, not a real directory" + privately};
    QTest::newRow("writable by others") << "open" << 022
                                        << QStringList{"Not using /tmp/orvello: it is writable by its group and others "
                                                       "(mode 0777)" + privately};
    QTest::newRow("a file") << "file" << 022
                            << QStringList{"Can not create directory :/tmp/orvello",
                                           "Trying a private scratch directory instead of /tmp/orvello"};
}

// Whatever another account left at /tmp/orvello, the worker starts with a scratch directory only
// this process's user can write (its own private one when it must), names the audio socket in
// it, and takes a private one away with it.
void TestOrvelloWorker::scratchDirectory()
{
    QFETCH(QString, before);
    QFETCH(int, mask);
    QFETCH(QStringList, errors);
    if (::geteuid() != 0)
        QSKIP("giving /tmp/orvello to another account needs root");
    TestPlatform t;
    const QByteArray scratch = kScratch.toLocal8Bit();
    if (before == QLatin1String("squatted"))
        QVERIFY(::mkdir(scratch, 0755) == 0 && ::chown(scratch, 65534, 65534) == 0);
    if (before == QLatin1String("link"))
        QVERIFY(QDir().mkpath(t.dir() + "/elsewhere") && ::symlink(qPrintable(t.dir() + "/elsewhere"), scratch) == 0);
    if (before == QLatin1String("open"))
        QVERIFY(::mkdir(scratch, 0777) == 0 && ::chmod(scratch, 0777) == 0);
    if (before == QLatin1String("file"))
        QVERIFY(writeBytes(kScratch, "planted"));
    LogCapture log;
    const mode_t previousMask = ::umask(mode_t(mask));
    auto worker = std::make_unique<OrvelloWorker>(QVariantHash());
    ::umask(previousMask);

    const QString used = ScratchDirectory::path();
    QStringList said = log.messages(log4cplus::ERROR_LOG_LEVEL);
    QCOMPARE(said, errors);
    struct stat info;
    QVERIFY(::lstat(QFile::encodeName(used).constData(), &info) == 0);
    QCOMPARE(info.st_mode & 07777, mode_t(0700));
    QCOMPARE(info.st_uid, ::geteuid());
    QCOMPARE(ScratchDirectory::socketAddress(), used + "/smt2socketaddress");
    QCOMPARE(ScratchDirectory::streamUri(), "smt2://" + used + "/smt2socketaddress");
    QVERIFY(t.platform().node(VraxOrvelloSetPairCode())); // not inert
    if (before.isEmpty()) {
        QCOMPARE(used, kScratch);
        QVERIFY(log.messages(log4cplus::WARN_LOG_LEVEL).isEmpty());
    } else {
        QVERIFY2(used.startsWith(kScratch + "-") && used.size() == kScratch.size() + 7, qPrintable(used));
        QCOMPARE(log.messages(log4cplus::WARN_LOG_LEVEL),
                 QStringList{"Using the private scratch directory " + used + " for library downloads and the audio socket"});
    }
    worker.reset();
    QCOMPARE(QFileInfo::exists(used), before.isEmpty());
    ScratchDirectory::use(kScratch);
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
