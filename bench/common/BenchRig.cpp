#include "BenchRig.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace bench {

DeviceRig::Paths devicePaths()
{
    return {QStringLiteral(VRAX_HOST_PATH), QStringLiteral(ORVELLO_MODULE_PATH), QStringLiteral(ORVELLO_SERVICE_PATH)};
}

QString referenceLibrary(const QString& version)
{
    if (version == QLatin1String("1.0.0"))
        return QStringLiteral(OPLAYER_REF_1_0_0);
    if (version == QLatin1String("1.1.0"))
        return QStringLiteral(OPLAYER_REF_1_1_0);
    return QString();
}

std::unique_ptr<DeviceRig> freshRig(const QString& dir, QString* error)
{
    QDir(dir).removeRecursively();
    if (!QDir().mkpath(dir)) {
        *error = QStringLiteral("cannot create %1").arg(dir);
        return nullptr;
    }
    QFile::remove(QStringLiteral("/tmp/orvello/liboplayer-1.so"));
    auto rig = std::make_unique<DeviceRig>(devicePaths(), dir);
    QDir().mkpath(QFileInfo(rig->devTreeLibraryPath()).absolutePath());
    if (!QFile::copy(referenceLibrary(QStringLiteral("1.0.0")), rig->devTreeLibraryPath())) {
        *error = QStringLiteral("cannot install the player library at %1").arg(rig->devTreeLibraryPath());
        return nullptr;
    }
    return rig;
}

QVariantHash playerSettings(const DeviceRig& rig, const QString& name, bool paired, int updateIntervalSeconds)
{
    QVariantHash s{{QStringLiteral("settings/orvello/outputSampleRate"), 44100},
                   {QStringLiteral("settings/orvello/outputChannels"), 2},
                   {QStringLiteral("settings/orvello/cacheEnabled"), true},
                   {QStringLiteral("settings/orvello/cacheDir"), rig.workDir() + QStringLiteral("/cache")},
                   {QStringLiteral("settings/orvello/updateCheckIntervalSeconds"), updateIntervalSeconds},
                   {QStringLiteral("settings/orvello/provisioningVendorId"), QStringLiteral("vendor-") + name.toLower()},
                   {QStringLiteral("settings/system/serialNumber"), QStringLiteral("SN-") + name.toUpper()},
                   {QStringLiteral("settings/system/productName"), name + QStringLiteral(" Amp")}};
    if (paired)
        s.insert(QStringLiteral("settings/orvello/token"), QStringLiteral("paired-earlier"));
    if (rig.servicePort())
        s.insert(QStringLiteral("settings/orvello/versionUrl"), rig.versionUrl());
    return s;
}

} // namespace bench
