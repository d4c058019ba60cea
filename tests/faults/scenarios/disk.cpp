// The disk: data-rw and /tmp read-only, full or gone.
#include "Scenarios.h"
#include "ScenarioKit.h"

#include <QDir>
#include <QJsonArray>
#include <QRegularExpression>

void dataRwReadOnly(FaultDevice& d)
{
    Setup setup = offering(QStringLiteral("1.1.0"));
    setup.beforeHost = [&d] {
        const QString dataRw = d.dataDir() + QStringLiteral("/data-rw");
        return QDir().mkpath(dataRw + QStringLiteral("/orvello")) && d.mountReadOnly(dataRw);
    };
    if (!d.start(setup))
        return;
    d.expectKeepsPlaying(10000, QStringLiteral("updates that cannot be installed"));
    d.expectLog(QStringLiteral("Failed to move updated library binary to location: "));
    d.expectLogAtMost(kSwapped, 1);
    d.expectVersion(QStringLiteral("1.0.0"));
}

void dataRwFull(FaultDevice& d)
{
    Setup setup = offering(QStringLiteral("1.1.0"));
    setup.beforeHost = [&d] { return d.mountTmpfs(d.dataDir() + QStringLiteral("/data-rw/orvello"), QStringLiteral("40k")); };
    if (!d.start(setup))
        return;
    d.expectKeepsPlaying(10000, QStringLiteral("an update into a full data-rw"));
    d.expectLogAtMost(kSwapped, 1);
    d.expectVersion(QStringLiteral("1.0.0"));
}

void tmpFull(FaultDevice& d)
{
    if (!d.start(Setup()) || !d.resizeTmp(QStringLiteral("2m")))
        return;
    const QString filler = d.fill(QStringLiteral("/tmp"));
    if (!d.offer(QStringLiteral("1.1.0"), d.binaries().library110))
        return;
    d.expectKeepsPlaying(6000, QStringLiteral("downloads into a full /tmp"));
    d.expectLog(QStringLiteral("Error while writing to local file"));
    d.expectVersion(QStringLiteral("1.0.0"));
    QFile::remove(filler);
    d.expectLog(kUpdated, kUpdateMs);
    d.expectKeepsPlaying(3000, QStringLiteral("the update once /tmp has room"));
}

void tmpOrvelloRemoved(FaultDevice& d)
{
    if (!d.start(Setup()))
        return;
    if (!QDir(QStringLiteral("/tmp/orvello")).removeRecursively())
        return d.setupError(QStringLiteral("cannot remove /tmp/orvello"));
    d.expectKeepsPlaying(3000, QStringLiteral("/tmp/orvello gone"));
    if (!d.offer(QStringLiteral("1.1.0"), d.binaries().library110))
        return;
    d.expectLog(QStringLiteral("Unable to open destination:/tmp/orvello/liboplayer-1.so.tmp"), 5000);
    d.expectKeepsPlaying(3000, QStringLiteral("an update it cannot download"));
    d.expectVersion(QStringLiteral("1.0.0"));
}

// /tmp/orvello not writable at start: the worker says so, takes a private scratch directory,
// plays and still installs an update.
void tmpOrvelloReadOnly(FaultDevice& d)
{
    Setup setup = offering(QStringLiteral("1.1.0"));
    setup.beforeHost = [&d] { return QDir().mkpath(QStringLiteral("/tmp/orvello")) && d.mountReadOnly(QStringLiteral("/tmp/orvello")); };
    if (!d.start(setup))
        return;
    d.expectLog(QStringLiteral("ERROR [Orvello] Can not write to /tmp/orvello"));
    d.expectLog(QStringLiteral("ERROR [Orvello] Trying a private scratch directory instead of /tmp/orvello"));
    d.expectLog(QStringLiteral("WARN  [Orvello] Using the private scratch directory /tmp/orvello-"));
    d.expectNoLog(QStringLiteral("Can not init OrvelloWorker"));
    d.expectLog(kUpdated, kUpdateMs);
    d.expectKeepsPlaying(3000, QStringLiteral("the update through the private directory"));
}

// No scratch directory at all (/tmp read-only): the worker stays inert (its page and version
// node, no pairing action), says why, and nothing crashes.
void tmpReadOnly(FaultDevice& d)
{
    Setup setup;
    setup.waitForAudio = false;
    setup.beforeHost = [&d] { return d.mountReadOnly(QStringLiteral("/tmp")); };
    if (!d.start(setup))
        return;
    d.expectLog(QStringLiteral("ERROR [Orvello] Can not create directory :/tmp/orvello"), 10000);
    d.expectLog(QStringLiteral("ERROR [Orvello] Cannot have a private scratch directory either (/tmp/orvello-"));
    d.expectLog(QStringLiteral("ERROR [Orvello] Can not init OrvelloWorker without /tmp/orvello dir"));
    QStringList paths;
    for (const QJsonValue& node : d.rig().get(QStringLiteral("/api/nodes")).body.value(QStringLiteral("nodes")).toArray())
        paths << node.toObject().value(QStringLiteral("path")).toString();
    paths = paths.filter(QRegularExpression(QStringLiteral("^orvello/")));
    paths.sort();
    if (paths != QStringList{QStringLiteral("orvello/browse"), QStringLiteral("orvello/browse/uiPairCode"), QStringLiteral("orvello/sdkVersion")})
        d.fail(QStringLiteral("the inert worker publishes %1").arg(paths.join(QStringLiteral(", "))));
    d.observe(2000);
    d.expectState(0);
}
