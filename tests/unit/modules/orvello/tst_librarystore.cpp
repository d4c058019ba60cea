// The library store's rules on plain files: what it trusts, how it creates files whatever the
// umask, that it never writes through a link, what it installs or refuses and how it rolls back.
// No library is ever opened here; the host's tests (tst_oplayerlib) load real ones.
#include "LogCapture.h"
#include "TestFiles.h"
#include "TestSigning.h"

#include "LibraryFiles.h"
#include "LibraryStore.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <log4cplus/logger.h>
#include <log4cplus/nullappender.h>

#include <sys/stat.h>
#include <unistd.h>

#include <optional>

namespace {
// Another local account, as /etc/passwd's "nobody".
constexpr uid_t kOtherAccount = 65534;
const QByteArray kOld("the library that runs: 1.0.0");
const QByteArray kNew("the library offered: 1.1.0");

// Builds a tree under root from lines "d PATH MODE" (directory), "f PATH MODE" (file), "l PATH
// TARGET" (symbolic link) and "o PATH" (given to another account, links themselves included);
// modes are octal and set explicitly, whatever the umask.
bool build(const QString& root, const QStringList& lines)
{
    for (const QString& line : lines) {
        const QStringList word = line.split(QLatin1Char(' '));
        const QByteArray path = QFile::encodeName(root + QLatin1Char('/') + word.value(1));
        const mode_t mode = mode_t(word.value(2).toUInt(nullptr, 8));
        bool done = false;
        if (word.first() == QLatin1String("d"))
            done = QDir().mkpath(QFile::decodeName(path)) && ::chmod(path.constData(), mode) == 0;
        else if (word.first() == QLatin1String("f"))
            done = writeBytes(QFile::decodeName(path), "bytes") && ::chmod(path.constData(), mode) == 0;
        else if (word.first() == QLatin1String("l"))
            done = ::symlink(qPrintable(word.value(2)), path.constData()) == 0;
        else if (word.first() == QLatin1String("o"))
            done = ::lchown(path.constData(), kOtherAccount, kOtherAccount) == 0;
        if (!done) {
            qWarning("cannot build '%s'", qPrintable(line));
            return false;
        }
    }
    return true;
}

bool needsRoot(const QStringList& lines)
{
    for (const QString& line : lines)
        if (line.startsWith(QLatin1String("o ")))
            return true;
    return false;
}

mode_t modeOf(const QString& path)
{
    struct stat info;
    return ::lstat(QFile::encodeName(path).constData(), &info) == 0 ? info.st_mode & 07777 : 07777;
}

// A store on root/scratch and root/data-rw/orvello, the working directory being root.
struct StoreFixture
{
    StoreFixture()
    {
        previous = QDir::currentPath();
        QDir::setCurrent(dir.path());
        QDir().mkpath(QStringLiteral("scratch"));
        ::chmod("scratch", 0700);
    }
    ~StoreFixture() { QDir::setCurrent(previous); }
    QString scratch() const { return dir.path() + QStringLiteral("/scratch"); }
    // A download left by the updater, with the record it writes once it verified.
    // The record is signed by the module's test key unless a signature is given.
    bool offer(const QByteArray& bytes, const QString& version, const QString& checksum,
               const std::optional<QString>& signature = std::nullopt)
    {
        QString error;
        return writeBytes(store.downloadPath(), bytes)
            && (checksum.isNull()
                || LibraryFiles::writeRecord(store.recordPath(),
                                             {version, checksum, signature.value_or(testSignature(version, checksum))},
                                             &error));
    }
    QTemporaryDir dir;
    QString previous;
    LibraryStore store{dir.path() + QStringLiteral("/scratch")};
};

QStringList problems(const LogCapture& log)
{
    return log.messagesAtLeast(log4cplus::INFO_LOG_LEVEL);
}
} // namespace

class TestLibraryStore : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        log4cplus::Logger root = log4cplus::Logger::getRoot();
        if (root.getAllAppenders().empty())
            root.addAppender(log4cplus::SharedAppenderPtr(new log4cplus::NullAppender()));
    }
    void trust_data();
    void trust();
    void modesWhateverTheUmask_data();
    void modesWhateverTheUmask();
    void neverThroughALink_data();
    void neverThroughALink();
    void installRules_data();
    void installRules();
    void rollBack_data();
    void rollBack();
    void failedInstallWaitsForARestart();
    void records_data();
    void records();
};

void TestLibraryStore::trust_data()
{
    QTest::addColumn<QStringList>("tree");
    QTest::addColumn<QString>("path");    // relative to the tree; "a/b" is the working directory
    QTest::addColumn<bool>("directory");  // checked as the store's own directory, else as a library
    QTest::addColumn<QString>("problem"); // ROOT stands for the tree; empty: trusted
    const QStringList lib{"d lib 0755", "f lib/liboplayer-1.so 0644"};
    // clang-format off
    QTest::newRow("library") << lib << "lib/liboplayer-1.so" << false << "";
    QTest::newRow("library writable by others") << QStringList{"d lib 0755", "f lib/liboplayer-1.so 0666"} << "lib/liboplayer-1.so" << false << "the file is writable by its group and others (mode 0666)";
    QTest::newRow("library writable by its group") << QStringList{"d lib 0755", "f lib/liboplayer-1.so 0664"} << "lib/liboplayer-1.so" << false << "the file is writable by its group (mode 0664)";
    QTest::newRow("library of another account") << lib + QStringList{"o lib/liboplayer-1.so"} << "lib/liboplayer-1.so" << false << "the file is owned by uid 65534, neither root nor this process's user (uid 0)";
    QTest::newRow("directory others can write") << QStringList{"d lib 0777", "f lib/liboplayer-1.so 0644"} << "lib/liboplayer-1.so" << false << "its directory ROOT/lib is writable by its group and others (mode 0777)";
    QTest::newRow("sticky directory others can write") << QStringList{"d lib 1777", "f lib/liboplayer-1.so 0644"} << "lib/liboplayer-1.so" << false << "its directory ROOT/lib is writable by its group and others (mode 01777)";
    QTest::newRow("directory of another account") << lib + QStringList{"o lib"} << "lib/liboplayer-1.so" << false << "its directory ROOT/lib is owned by uid 65534, neither root nor this process's user (uid 0)";
    QTest::newRow("above it, a directory others can write") << QStringList{"d open 0777", "d open/lib 0755", "f open/lib/liboplayer-1.so 0644"} << "open/lib/liboplayer-1.so" << false << "ROOT/open on the way to it is writable by its group and others (mode 0777) without the sticky bit";
    QTest::newRow("above it, a sticky directory others can write") << QStringList{"d tmp 1777", "d tmp/lib 0755", "f tmp/lib/liboplayer-1.so 0644"} << "tmp/lib/liboplayer-1.so" << false << "";
    QTest::newRow("versioned system copy") << lib + QStringList{"l lib/liboplayer-1.so.1 liboplayer-1.so"} << "lib/liboplayer-1.so.1" << false << "";
    QTest::newRow("link into a directory others can write") << QStringList{"d open 0777", "f open/liboplayer-1.so 0644", "d lib 0755", "l lib/liboplayer-1.so.1 ../open/liboplayer-1.so"} << "lib/liboplayer-1.so.1" << false << "its directory ROOT/open is writable by its group and others (mode 0777)";
    QTest::newRow("link of another account in a sticky directory") << QStringList{"d tmp 1777", "d lib 0755", "f lib/liboplayer-1.so 0644", "l tmp/liboplayer-1.so ../lib/liboplayer-1.so", "o tmp/liboplayer-1.so"} << "tmp/liboplayer-1.so" << false << "the link ROOT/tmp/liboplayer-1.so on the way to it is owned by uid 65534, neither root nor this process's user (uid 0)";
    QTest::newRow("developer tree under a directory others can write") << QStringList{"d a/b 0755", "d build 0777", "d build/lib 0755", "f build/lib/liboplayer-1.so 0644"} << "../../build/lib/liboplayer-1.so" << false << "ROOT/build on the way to it is writable by its group and others (mode 0777) without the sticky bit";
    QTest::newRow("developer tree") << QStringList{"d a/b 0755", "d build/lib 0755", "f build/lib/liboplayer-1.so 0644"} << "../../build/lib/liboplayer-1.so" << false << "";
    QTest::newRow("link loop") << QStringList{"d lib 0755", "l lib/x y", "l lib/y x"} << "lib/x" << false << "too many symbolic links on the way to it";
    QTest::newRow("not a file") << QStringList{"d lib/liboplayer-1.so 0755"} << "lib/liboplayer-1.so" << false << "not a regular file";
    QTest::newRow("missing") << QStringList{"d lib 0755"} << "lib/liboplayer-1.so" << false << "ROOT/lib/liboplayer-1.so: No such file or directory";
    QTest::newRow("own directory") << QStringList{"d orvello 0700"} << "orvello" << true << "";
    QTest::newRow("own directory others can read") << QStringList{"d orvello 0755"} << "orvello" << true << "";
    QTest::newRow("own directory others can write") << QStringList{"d orvello 0777"} << "orvello" << true << "it is writable by its group and others (mode 0777)";
    QTest::newRow("own directory its group can write") << QStringList{"d orvello 0770"} << "orvello" << true << "it is writable by its group (mode 0770)";
    QTest::newRow("own directory squatted by another account") << QStringList{"d orvello 0755", "o orvello"} << "orvello" << true << "it is owned by uid 65534, not by this process's user (uid 0)";
    QTest::newRow("own directory is a link") << QStringList{"d real 0700", "l orvello real"} << "orvello" << true << "it is a symbolic link, not a real directory";
    QTest::newRow("own directory is a file") << QStringList{"f orvello 0600"} << "orvello" << true << "it is not a directory";
    QTest::newRow("own directory missing") << QStringList{} << "orvello" << true << "it cannot be looked at: No such file or directory";
    QTest::newRow("own directory below a directory others can write") << QStringList{"d data 0777", "d data/orvello 0700"} << "data/orvello" << true << "ROOT/data on the way to it is writable by its group and others (mode 0777) without the sticky bit";
    // clang-format on
}

void TestLibraryStore::trust()
{
    QFETCH(QStringList, tree);
    QFETCH(QString, path);
    QFETCH(bool, directory);
    QFETCH(QString, problem);
    if (needsRoot(tree) && ::geteuid() != 0)
        QSKIP("giving a file to another account needs root");
    QTemporaryDir dir;
    const QString root = QDir(dir.path()).canonicalPath();
    QVERIFY(build(root, tree));
    const QString previous = QDir::currentPath();
    QDir().mkpath(root + QStringLiteral("/a/b"));
    QDir::setCurrent(root + QStringLiteral("/a/b"));
    const QString checked = path.startsWith(QLatin1String("..")) ? path : root + QLatin1Char('/') + path;
    const QString got = directory ? LibraryFiles::directoryTrustProblem(checked) : LibraryFiles::fileTrustProblem(checked);
    QDir::setCurrent(previous);
    QString expected = problem;
    expected.replace(QStringLiteral("ROOT"), root).replace(QStringLiteral("uid 0)"), QStringLiteral("uid %1)").arg(::geteuid()));
    // A link that leads elsewhere is named where it really is.
    QCOMPARE(got.section(QStringLiteral(" (it is "), 0, 0), expected);
}

void TestLibraryStore::modesWhateverTheUmask_data()
{
    QTest::addColumn<int>("mask");
    QTest::newRow("umask 000") << 0;
    QTest::newRow("umask 022") << 022;
    QTest::newRow("umask 777") << 0777;
}

// Everything the store creates, through a whole update: nobody else can write it, and the
// module itself can use it even where the umask would have left no permission at all.
void TestLibraryStore::modesWhateverTheUmask()
{
    QFETCH(int, mask);
    StoreFixture f;
    const mode_t before = ::umask(mode_t(mask));
    f.store.preparePersistentDirectory();
    QString error;
    const int fd = f.store.createDownloadFile(&error);
    const bool written = fd >= 0 && ::write(fd, kNew.constData(), size_t(kNew.size())) == kNew.size();
    if (fd >= 0)
        ::close(fd);
    f.store.publishDownload();
    const bool recorded = f.store.addVerifiedDownload({"1.1.0", sha256Hex(kNew), testSignature("1.1.0", sha256Hex(kNew))}, &error);
    const bool installed = f.store.install();
    const QString privateDir = LibraryFiles::makePrivateDirectory(f.dir.path() + QStringLiteral("/private-XXXXXX"), &error);
    ::umask(before);
    QVERIFY2(written && recorded && installed && !privateDir.isEmpty(), qPrintable(error));
    QCOMPARE(fileBytes(f.store.installedPath()), kNew);
    QCOMPARE(modeOf(QStringLiteral("data-rw")), mode_t(0700));
    QCOMPARE(modeOf(QStringLiteral("data-rw/orvello")), mode_t(0700));
    QCOMPARE(modeOf(f.store.installedPath()), mode_t(0600));
    QCOMPARE(modeOf(privateDir), mode_t(0700));
    // The download and its record were made 0600 before the install removed them.
    QVERIFY(!QFile::exists(f.store.downloadPath()) && !QFile::exists(f.store.recordPath()));
    QVERIFY(QDir(f.scratch()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden).isEmpty());
}

void TestLibraryStore::neverThroughALink_data()
{
    QTest::addColumn<QString>("link"); // the name in the scratch or persistent directory pointing at the victim
    QTest::addColumn<bool>("installs");
    QTest::newRow("download in progress") << "scratch/liboplayer-1.so.tmp" << true;
    QTest::newRow("finished download") << "scratch/liboplayer-1.so" << false;
    QTest::newRow("verification record") << "scratch/liboplayer-1.so.verified" << true;
    QTest::newRow("new copy while installing") << "data-rw/orvello/liboplayer-1.so.new" << true;
}

// A link planted where the store writes or reads points at a file it must not touch: the
// victim keeps its bytes, and what the link offers is never installed.
void TestLibraryStore::neverThroughALink()
{
    QFETCH(QString, link);
    QFETCH(bool, installs);
    StoreFixture f;
    f.store.preparePersistentDirectory();
    const QString victim = f.dir.path() + QStringLiteral("/victim");
    QVERIFY(writeBytes(victim, kNew)); // bytes that would verify, were they read through the link
    QVERIFY(::symlink(qPrintable(victim), qPrintable(link)) == 0);

    LogCapture log;
    QString error;
    const int fd = f.store.createDownloadFile(&error);
    QVERIFY2(fd >= 0, qPrintable(error));
    QVERIFY(::write(fd, kNew.constData(), size_t(kNew.size())) == kNew.size());
    ::close(fd);
    f.store.publishDownload();
    QVERIFY(f.store.addVerifiedDownload({"1.1.0", sha256Hex(kNew), testSignature("1.1.0", sha256Hex(kNew))}, &error));
    QCOMPARE(f.store.install(), installs);
    QCOMPARE(fileBytes(victim), kNew);
    QCOMPARE(modeOf(victim), mode_t(0644));
    QCOMPARE(QFile::exists(f.store.installedPath()), installs);
    if (!installs) // what the link offers is not taken for a download
        QCOMPARE(problems(log), QStringList{"Not installing " + f.store.downloadPath()
                                            + ": it has not passed verification; it stays where it is and the installed "
                                              "library is kept"});
}

void TestLibraryStore::installRules_data()
{
    QTest::addColumn<QString>("running");  // what runs: "old" (the installed copy), "new" (the offered file), "" nothing
    QTest::addColumn<QString>("version");  // of what runs
    QTest::addColumn<QString>("record");   // "match", "other" (another file's checksum), "none", "garbage",
                                           // "unsigned", "other key" (matching, but not signed by the module's key)
    QTest::addColumn<QString>("setup");    // "", "rejected", "no persistent", "open persistent", "open scratch", "foreign scratch"
    QTest::addColumn<bool>("wants");       // a check downloads the offered file (nothing waiting)
    QTest::addColumn<bool>("installs");
    QTest::addColumn<bool>("downloadLeft");
    QTest::addColumn<QString>("line");     // the one INFO-or-above line of hasInstallableUpdate and install
    const QString waiting = "Not installing SCRATCH/liboplayer-1.so: ";
    // clang-format off
    QTest::newRow("verified") << "old" << "1.0.0" << "match" << "" << true << true << false << "";
    QTest::newRow("verified, first start") << "" << "" << "match" << "" << true << true << false << "";
    QTest::newRow("not verified") << "old" << "1.0.0" << "none" << "" << true << false << true << waiting + "it has not passed verification; it stays where it is and the installed library is kept";
    QTest::newRow("record of another file") << "old" << "1.0.0" << "other" << "" << true << false << true << waiting + "it is not the file that passed verification; it stays where it is and the installed library is kept";
    QTest::newRow("record that is no record") << "old" << "1.0.0" << "garbage" << "" << true << false << true << waiting + "it has not passed verification; it stays where it is and the installed library is kept";
    QTest::newRow("record without a signature") << "old" << "1.0.0" << "unsigned" << "" << true << false << false << "Not installing version 1.1.0 from SCRATCH/liboplayer-1.so: the signature is missing; the download is removed and the installed library is kept";
    QTest::newRow("record signed by another key") << "old" << "1.0.0" << "other key" << "" << true << false << false << "Not installing version 1.1.0 from SCRATCH/liboplayer-1.so: the signature does not verify with the device's update key; the download is removed and the installed library is kept";
    QTest::newRow("the file that runs") << "new" << "1.1.0" << "match" << "" << false << false << false << "Not installing version 1.1.0: its file is the library that runs already (from data-rw/orvello/liboplayer-1.so); the download is removed";
    QTest::newRow("not newer than what runs") << "old" << "1.2.0" << "match" << "" << false << false << false << "Not installing version 1.1.0: version 1.2.0 runs, and 1.1.0 does not sort after it; the download is removed";
    QTest::newRow("rolled back on this device") << "old" << "1.0.0" << "match" << "rejected" << false << false << true << "Not installing version 1.1.0 again: it did not load on this device and was rolled back; the installed library is kept";
    QTest::newRow("no persistent directory") << "" << "" << "match" << "no persistent" << true << false << true << "The persistent Orvello directory does not exist: data-rw/orvello";
    QTest::newRow("persistent directory others can write") << "old" << "1.0.0" << "match" << "open persistent" << true << false << true << "Not installing SCRATCH/liboplayer-1.so: data-rw/orvello cannot be trusted (it is writable by its group and others (mode 0777)); the installed library is kept";
    QTest::newRow("scratch directory others can write") << "old" << "1.0.0" << "match" << "open scratch" << true << false << true << waiting + "SCRATCH cannot be trusted (it is writable by its group and others (mode 0777)); nothing in it is installed and the installed library is kept";
    QTest::newRow("scratch directory of another account") << "old" << "1.0.0" << "match" << "foreign scratch" << true << false << true << waiting + "SCRATCH cannot be trusted (it is owned by uid 65534, not by this process's user (uid 0)); nothing in it is installed and the installed library is kept";
    // clang-format on
}

void TestLibraryStore::installRules()
{
    QFETCH(QString, running);
    QFETCH(QString, version);
    QFETCH(QString, record);
    QFETCH(QString, setup);
    QFETCH(bool, wants);
    QFETCH(bool, installs);
    QFETCH(bool, downloadLeft);
    QFETCH(QString, line);
    if (setup == QLatin1String("foreign scratch") && ::geteuid() != 0)
        QSKIP("giving a directory to another account needs root");
    StoreFixture f;
    f.store.preparePersistentDirectory();
    const QString installed = f.store.installedPath();
    QVERIFY(writeBytes(installed, running == QLatin1String("new") ? kNew : kOld));
    if (!running.isEmpty())
        f.store.loaded(installed, version);
    QString error;
    if (setup == QLatin1String("rejected"))
        QVERIFY(LibraryFiles::writeRecord(installed + ".rejected", {"1.1.0", sha256Hex(kNew), QString()}, &error));
    QCOMPARE(f.store.wantsDownload("1.1.0", sha256Hex(kNew)), wants);

    const bool matching = record == QLatin1String("match") || record == QLatin1String("unsigned")
                          || record == QLatin1String("other key");
    const QString checksum = matching                             ? sha256Hex(kNew)
                             : record == QLatin1String("other")   ? sha256Hex("another file")
                             : record == QLatin1String("garbage") ? sha256Hex(kNew).toUpper()
                                                                  : QString();
    const std::optional<QString> signature = record == QLatin1String("unsigned")    ? std::optional<QString>(QString())
                                             : record == QLatin1String("other key") ? signatureBy(otherSigningKeyPath(), "1.1.0", checksum)
                                                                                    : std::optional<QString>();
    QVERIFY(f.offer(kNew, "1.1.0", checksum, signature));
    if (setup == QLatin1String("no persistent"))
        QVERIFY(QDir(QStringLiteral("data-rw/orvello")).removeRecursively());
    if (setup == QLatin1String("open persistent"))
        QVERIFY(::chmod("data-rw/orvello", 0777) == 0);
    if (setup == QLatin1String("open scratch"))
        QVERIFY(::chmod("scratch", 0777) == 0);
    if (setup == QLatin1String("foreign scratch"))
        QVERIFY(::chown("scratch", kOtherAccount, kOtherAccount) == 0);

    LogCapture log;
    const bool installable = f.store.hasInstallableUpdate();
    QCOMPARE(f.store.install(), installs);
    QCOMPARE(installable, installs || record == QLatin1String("other"));
    QString expected = line;
    expected.replace(QStringLiteral("SCRATCH"), f.scratch()).replace(QStringLiteral("uid 0)"), QStringLiteral("uid %1)").arg(::geteuid()));
    // Said at each question while the download waits; once when it is removed.
    const QStringList said = problems(log);
    QCOMPARE(said.isEmpty(), expected.isEmpty());
    for (const QString& line : said)
        QCOMPARE(line, expected);
    QCOMPARE(QFile::exists(f.store.downloadPath()), downloadLeft);
    if (setup != QLatin1String("no persistent"))
        QCOMPARE(fileBytes(installed), installs || running == QLatin1String("new") ? kNew : kOld);
    if (installs) { // the copy it replaced waits as the previous one until the new one has loaded
        QCOMPARE(fileBytes(installed + ".previous"), kOld);
        f.store.loaded(installed, "1.1.0");
        QVERIFY(!QFile::exists(installed + ".previous"));
        QVERIFY(!f.store.wantsDownload("1.1.0", sha256Hex(kNew))); // installed and running: never again
    }
}

void TestLibraryStore::rollBack_data()
{
    QTest::addColumn<bool>("installedBefore"); // a copy was installed before this update
    QTest::addColumn<bool>("previousLoads");   // the copy put back loads
    QTest::addColumn<bool>("interrupted");     // the install happened before a restart (a new store)
    QTest::addColumn<QStringList>("errors");
    const QString update = "Update to version 1.1.0 does not load from data-rw/orvello/liboplayer-1.so";
    const QString restart = "The update installed before the restart does not load from data-rw/orvello/liboplayer-1.so";
    QTest::newRow("previous put back") << true << true << false
                                       << QStringList{update + "; the previous library is back in its place and version 1.0.0 plays on"};
    QTest::newRow("previous put back does not load either")
        << true << false << false
        << QStringList{update + ", nor does the previous library put back there; trying the rest of the search list"};
    QTest::newRow("first update") << false << false << false
                                  << QStringList{update + "; there is no previous copy, so it is removed and the rest of the search list is tried"};
    QTest::newRow("installed before a restart")
        << true << true << true << QStringList{restart + "; the previous library is back in its place and version 1.0.0 plays on"};
}

// The host reports that the installed update does not load: the copy before it comes back, the
// failed file is remembered, also by a store of a later start, and is not installed again.
void TestLibraryStore::rollBack()
{
    QFETCH(bool, installedBefore);
    QFETCH(bool, previousLoads);
    QFETCH(bool, interrupted);
    QFETCH(QStringList, errors);
    StoreFixture f;
    f.store.preparePersistentDirectory();
    const QString installed = f.store.installedPath();
    if (installedBefore)
        QVERIFY(writeBytes(installed, kOld));
    QVERIFY(f.offer(kNew, "1.1.0", sha256Hex(kNew)));
    QVERIFY(f.store.install());
    LibraryStore restarted(f.scratch());
    LibraryStore& store = interrupted ? restarted : f.store;

    LogCapture log;
    QVERIFY(!store.loadFailed(QStringLiteral("/usr/lib/liboplayer-1.so.1"))); // not the store's to roll back
    QCOMPARE(store.loadFailed(installed), installedBefore);
    if (installedBefore) {
        QCOMPARE(fileBytes(installed), kOld);
        if (previousLoads)
            store.loaded(installed, "1.0.0");
        else
            QVERIFY(!store.loadFailed(installed));
    }
    QCOMPARE(log.messagesAtLeast(log4cplus::WARN_LOG_LEVEL), errors);
    QCOMPARE(QFile::exists(installed), installedBefore);
    QVERIFY(!QFile::exists(installed + ".previous"));
    const VerifiedDownload rejected = LibraryFiles::readRecord(installed + ".rejected");
    QCOMPARE(rejected.checksum, sha256Hex(kNew));
    QCOMPARE(rejected.version, interrupted ? QString() : QStringLiteral("1.1.0"));

    LibraryStore later(f.scratch());
    log.clear();
    QVERIFY(!later.wantsDownload("1.1.0", sha256Hex(kNew)));
    QVERIFY(later.wantsDownload("1.1.1", sha256Hex("another build")));
    QCOMPARE(log.messages(log4cplus::INFO_LOG_LEVEL),
             QStringList{"Not installing version 1.1.0 again: it did not load on this device and was rolled back; the "
                         "installed library is kept"});
}

// An install that failed (here: the new copy cannot be written) is not tried again at every
// check or song end, only after a restart; the installed copy stays.
void TestLibraryStore::failedInstallWaitsForARestart()
{
    StoreFixture f;
    f.store.preparePersistentDirectory();
    const QString installed = f.store.installedPath();
    QVERIFY(writeBytes(installed, kOld));
    QVERIFY(f.offer(kNew, "1.1.0", sha256Hex(kNew)));
    QVERIFY(QDir().mkpath(installed + ".new"));
    LogCapture log;
    QVERIFY(!f.store.install());
    QCOMPARE(log.messages(log4cplus::ERROR_LOG_LEVEL),
             QStringList{"Failed to move updated library binary to location: data-rw/orvello/liboplayer-1.so"});
    QVERIFY(log.messages(log4cplus::WARN_LOG_LEVEL).value(0).startsWith("Installing version 1.1.0 failed ("));
    log.clear();
    QVERIFY(!f.store.hasInstallableUpdate());
    QVERIFY(!f.store.wantsDownload("1.1.0", sha256Hex(kNew)));
    const QString refusal = "Not installing version 1.1.0 again: its install failed earlier; the installed library is "
                            "kept until a restart or another verified download";
    QCOMPARE(log.messages(log4cplus::INFO_LOG_LEVEL), (QStringList{refusal, refusal}));
    QCOMPARE(fileBytes(installed), kOld);
    QVERIFY(QFile::exists(f.store.downloadPath()));

    QVERIFY(QDir(installed + ".new").removeRecursively());
    LibraryStore restarted(f.scratch());
    QVERIFY(restarted.install());
    QCOMPARE(fileBytes(installed), kNew);
}

void TestLibraryStore::records_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<bool>("valid");
    const QByteArray sum = sha256Hex("x").toLatin1();
    QTest::newRow("written by the updater") << LibraryFiles::recordText({"1.1.0", QString::fromLatin1(sum), "c2ln"}) << true;
    QTest::newRow("a 100,000-character version") << LibraryFiles::recordText({QString(100000, '9'), QString::fromLatin1(sum), ""}) << true;
    QTest::newRow("without a signature") << "{\"version\":\"1.1.0\",\"checksum\":\"" + sum + "\"}" << true;
    QTest::newRow("uppercase checksum") << "{\"version\":\"1.1.0\",\"checksum\":\"" + sum.toUpper() + "\"}" << false;
    QTest::newRow("short checksum") << "{\"version\":\"1.1.0\",\"checksum\":\"" + sum.left(63) + "\"}" << false;
    QTest::newRow("no version") << "{\"checksum\":\"" + sum + "\"}" << false;
    QTest::newRow("signature not text") << "{\"version\":\"1\",\"checksum\":\"" + sum + "\",\"signature\":7}" << false;
    QTest::newRow("an array") << "[\"1.1.0\",\"" + sum + "\"]" << false;
    QTest::newRow("not JSON") << QByteArray("version=1.1.0") << false;
    QTest::newRow("longer than 1 MiB") << "{\"version\":\"" + QByteArray(1100000, '1') + "\",\"checksum\":\"" + sum + "\"}" << false;
}

// Only a record the updater could have written passes for one; the signature is carried as it came.
void TestLibraryStore::records()
{
    QFETCH(QByteArray, text);
    QFETCH(bool, valid);
    const VerifiedDownload record = LibraryFiles::parseRecord(text);
    QCOMPARE(!record.isEmpty(), valid);
    if (valid)
        QCOMPARE(LibraryFiles::parseRecord(LibraryFiles::recordText(record)), record);
    else
        QVERIFY(record.version.isEmpty() && record.signature.isEmpty());
}

QTEST_GUILESS_MAIN(TestLibraryStore)
#include "tst_librarystore.moc"
