// Attackers: another local account, the update server and the network path.
//
// Both plant the same library (tests/fakes, FAKE_PLANTED): a working player library whose
// constructor appends "uid=N" to a mark file the moment the file is mapped. Held always means
// the mark never appears, and the music went on.
//
// Another local account (uid 65534, as "nobody") can write /tmp and whatever it was given.
// A server on the network path answers the device's check in place of the service, or stands
// between the two; held also means nothing was downloaded, the log says why, and the genuine
// service's update still arrives afterwards.
#include "Scenarios.h"
#include "ScenarioKit.h"

#include "NginxTls.h"
#include "TestFiles.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>

#include <sys/stat.h>
#include <unistd.h>

#include <memory>

namespace {

constexpr uid_t kOtherAccount = 65534;

QString plantedMark(FaultDevice& d)
{
    return d.workDir() + QStringLiteral("/planted-code-ran");
}

bool giveToOtherAccount(FaultDevice& d, const QStringList& paths)
{
    for (const QString& path : paths) {
        if (::lchown(QFile::encodeName(path).constData(), kOtherAccount, kOtherAccount) != 0) {
            d.setupError(QStringLiteral("cannot give %1 to uid %2").arg(path).arg(kOtherAccount));
            return false;
        }
    }
    return true;
}

// Nothing was downloaded from the service.
void expectNothingDownloaded(FaultDevice& d)
{
    for (const QJsonValue& request : d.rig().serviceRequests())
        if (request.toObject().value(QStringLiteral("path")).toString().startsWith(QLatin1String("/files/")))
            return d.fail(QStringLiteral("the device downloaded %1").arg(request.toObject().value(QStringLiteral("path")).toString()));
    if (QFile::exists(QStringLiteral("/tmp/orvello/liboplayer-1.so")))
        d.fail(QStringLiteral("a download stands at /tmp/orvello/liboplayer-1.so"));
}

void expectPlantedNeverRan(FaultDevice& d)
{
    if (QFile::exists(plantedMark(d)))
        d.fail(QStringLiteral("the planted library's code ran (%1)").arg(QString::fromUtf8(fileBytes(plantedMark(d))).trimmed()));
}

mode_t modeOf(const QString& path)
{
    struct stat info;
    return ::lstat(QFile::encodeName(path).constData(), &info) == 0 ? info.st_mode : 0;
}

} // namespace

// The account squats /tmp/orvello before the device starts: its library, a verification record
// naming it, and the download's temporary name as a link to a file only root may write. Held:
// the planted code never ran, nothing was written through the link or into the squatted
// directory, the music went on, and the genuine update still arrived and was swapped in.
void squattedScratchDirectory(FaultDevice& d)
{
    const QString victim = d.workDir() + QStringLiteral("/root-only");
    const QByteArray victimBytes("root's own file\n");
    const QString planted = QStringLiteral(FAKE_PLANTED);
    Setup setup = offering(QStringLiteral("1.1.0"));
    setup.env = QStringList{QStringLiteral("ORVELLO_PLANTED_MARK=") + plantedMark(d)};
    setup.beforeHost = [&] {
        const QByteArray record = "{\"version\":\"9.9.9\",\"checksum\":\"" + sha256Hex(fileBytes(planted)).toLatin1()
                                  + "\",\"signature\":\"\"}\n";
        return writeBytes(victim, victimBytes) && ::chmod(qPrintable(victim), 0600) == 0
               && ::mkdir("/tmp/orvello", 0755) == 0 && QFile::copy(planted, QStringLiteral("/tmp/orvello/liboplayer-1.so"))
               && writeBytes(QStringLiteral("/tmp/orvello/liboplayer-1.so.verified"), record)
               && ::symlink(qPrintable(victim), "/tmp/orvello/liboplayer-1.so.tmp") == 0
               && giveToOtherAccount(d, {"/tmp/orvello", "/tmp/orvello/liboplayer-1.so", "/tmp/orvello/liboplayer-1.so.verified",
                                         "/tmp/orvello/liboplayer-1.so.tmp"});
    };
    if (!d.start(setup))
        return;
    d.expectLog(QStringLiteral("ERROR [Orvello] Not using /tmp/orvello: it is owned by uid 65534, not by this process's user"));
    d.expectLog(QStringLiteral("WARN  [Orvello] Using the private scratch directory /tmp/orvello-"));
    d.expectLog(kUpdated, kUpdateMs);
    d.expectKeepsPlaying(3000, QStringLiteral("the genuine update"));
    d.expectVersion(QStringLiteral("1.1.0"));
    expectInstalled(d, d.binaries().library110);
    d.expectCleanExit();
    expectPlantedNeverRan(d);
    if (fileBytes(victim) != victimBytes || (modeOf(victim) & 07777) != 0600)
        d.fail(QStringLiteral("the root-only file was written through the planted link"));
    if (fileBytes(QStringLiteral("/tmp/orvello/liboplayer-1.so")) != fileBytes(planted)
        || !QFileInfo(QStringLiteral("/tmp/orvello/liboplayer-1.so.tmp")).isSymLink())
        d.fail(QStringLiteral("the module changed the squatted directory"));
}

// The account can write the top of the developer tree (the working directory's neighbourhood is
// world-writable) and plants its library where the search list's last entry points; no other
// copy exists. Held: the planted code never ran, the ERROR line names the path and why, the
// device goes on searching, and the genuine update brings the music.
void plantedInOpenDeveloperTree(FaultDevice& d)
{
    Setup setup = offering(QStringLiteral("1.1.0"));
    setup.library = LibraryAt::Nowhere;
    setup.waitForAudio = false;
    setup.env = QStringList{QStringLiteral("ORVELLO_PLANTED_MARK=") + plantedMark(d)};
    const QString tree = QDir(d.workDir()).canonicalPath() + QStringLiteral("/build");
    setup.beforeHost = [&] {
        const QString library = d.rig().devTreeLibraryPath();
        return QDir().mkpath(QFileInfo(library).path()) && ::chmod(qPrintable(tree), 0777) == 0
               && QFile::copy(QStringLiteral(FAKE_PLANTED), library) && giveToOtherAccount(d, {library});
    };
    if (!d.start(setup))
        return;
    d.expectLog(QStringLiteral("ERROR [Orvello] Not loading liboplayer at ../../build/Hollowkit-blobs-links/Orvello/lib/"
                               "linux_x86_64/liboplayer-1.so: ")
                    + tree + QStringLiteral(" on the way to it is writable by its group and others (mode 0777) without the sticky bit; "
                                            "trying the next path"),
                5000);
    d.expectLog(QStringLiteral("WARN  [Orvello] No player library is running; searching the library list again in 1 s"));
    d.expectLog(kUpdated, kUpdateMs);
    d.expectPlaying(10000, QStringLiteral("the genuine update"));
    d.expectVersion(QStringLiteral("1.1.0"));
    d.expectCleanExit();
    expectPlantedNeverRan(d);
}

// The host started under umask 000 and an update installed: nothing the module created can be
// written by group or others (the audio socket is the pipeline's, not the module's).
void createdUnderUmask000(FaultDevice& d)
{
    const mode_t previous = ::umask(0);
    const bool started = d.start(offering(QStringLiteral("1.1.0")));
    ::umask(previous);
    if (!started)
        return;
    d.expectLog(kUpdated, kUpdateMs);
    d.expectKeepsPlaying(2000, QStringLiteral("the update"));
    const QString dataRw = d.dataDir() + QStringLiteral("/data-rw");
    QStringList made{QStringLiteral("/tmp/orvello"), dataRw, dataRw + QStringLiteral("/orvello")};
    for (const QString& dir : {QStringLiteral("/tmp/orvello"), dataRw + QStringLiteral("/orvello")})
        for (const QString& name : QDir(dir).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System))
            if (name != QLatin1String("smt2socketaddress"))
                made << dir + QLatin1Char('/') + name;
    if (!made.contains(dataRw + QStringLiteral("/orvello/liboplayer-1.so")))
        d.fail(QStringLiteral("no library was installed"));
    for (const QString& path : made) {
        const mode_t mode = modeOf(path);
        if ((mode & (S_IWGRP | S_IWOTH)) || (S_ISDIR(mode) && (mode & 07777) != 0700))
            d.fail(QStringLiteral("%1 has mode %2").arg(path, QString::number(mode & 07777, 8)));
    }
}

// The planted library offered as 9.9.9 with its matching checksum and a signature that is
// missing or wrong in the way mode says; then the genuine service offers 1.1.0, signed.
Scenario plantedOffer(const QString& mode, const QString& problem)
{
    return [=](FaultDevice& d) {
        Setup setup = offering(QStringLiteral("9.9.9"), {mode});
        setup.offerFile = QStringLiteral(FAKE_PLANTED);
        setup.env = QStringList{QStringLiteral("ORVELLO_PLANTED_MARK=") + plantedMark(d)};
        if (!d.start(setup))
            return;
        d.expectKeepsPlaying(5000, QStringLiteral("offers of a planted library"));
        d.expectLog(QStringLiteral("ERROR [Orvello] Not downloading version 9.9.9: ") + problem
                    + QStringLiteral("; checking again at the next interval"));
        d.expectNoLog(QStringLiteral("Downloading version 9.9.9"));
        expectNothingDownloaded(d);
        d.expectVersion(QStringLiteral("1.0.0"));
        if (!d.offer(QStringLiteral("1.1.0"), d.binaries().library110) || !d.serviceFails({}))
            return;
        d.expectLog(kUpdated, kUpdateMs);
        d.expectKeepsPlaying(3000, QStringLiteral("the genuine update"));
        expectPlantedNeverRan(d);
    };
}

// One https case: nginx, with its certificates and the test authority trusted inside this
// case's mount namespace, stands in front of the service. check: the certificate the
// configuration URL meets (Trusted with /to-http/ redirects to plain http); download: the one
// the document's links meet. errors: the ERROR lines it must say; none for a genuine update.
Scenario overHttps(NginxTls::Certificate check, const QString& checkPath, NginxTls::Certificate download,
                   const QStringList& errors)
{
    return [=](FaultDevice& d) {
        auto tls = std::make_shared<NginxTls>(d.workDir() + QStringLiteral("/tls"));
        Setup setup = offering(QStringLiteral("1.1.0"));
        setup.versionUrl = tls->url(check, checkPath);
        setup.serviceArguments = QStringList{QStringLiteral("--public-url"), tls->url(download, QString())};
        setup.beforeHost = [&d, tls] {
            QString error;
            if (!tls->start(d.rig().servicePort(), &error) || !tls->trustAuthority(&error)) {
                d.setupError(error);
                return false;
            }
            return true;
        };
        if (!d.start(setup))
            return;
        if (errors.isEmpty()) {
            d.expectLog(kUpdated, kUpdateMs);
            d.expectKeepsPlaying(3000, QStringLiteral("the update over https"));
            return;
        }
        d.expectKeepsPlaying(5000, QStringLiteral("checks the device cannot make safely"));
        for (const QString& error : errors)
            d.expectLog(QStringLiteral("ERROR [Orvello] ") + error);
        d.expectNoLog(QStringLiteral("Completed downloading new OVM library version."));
        expectNothingDownloaded(d);
        d.expectVersion(QStringLiteral("1.0.0"));
    };
}

QString tlsError(const QString& problem)
{
    return QStringLiteral("Getting config JSON failed: TLS error: ") + problem;
}
