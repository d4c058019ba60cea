#include "DeviceState.h"

#include "model/cmnode.h"
#include "model/cmworker.h"
#include "vrax/vraxpaths.h"
#include "vrax_api/vraxplatform.h"
#include "vrax_api_play/deviceplayer.h"
#include "vrax_api_play/systemvolume.h"
#include "vrax_audio_pipeline/audiopipeline.h"

#include <algorithm>

namespace deviceState {

namespace {
QString stringSetting(const CMPath& path)
{
    return CMRoot()->getValue(path).toHash().value(QStringLiteral("string_")).toString();
}
} // namespace

bool isSecret(const QString& path)
{
    return path == VraxOrvelloTokenPath().toString() || path == VraxOrvelloVendorSecretPath().toString();
}

void insertValue(QJsonObject* json, const QString& path, const QVariant& value)
{
    if (!isSecret(path)) {
        json->insert(QStringLiteral("value"), QJsonValue::fromVariant(value));
        return;
    }
    bool set = false;
    for (const QVariant& typed : value.toHash())
        set = set || !typed.toString().isEmpty();
    json->insert(QStringLiteral("secret"), true);
    json->insert(QStringLiteral("set"), set);
}

QJsonObject node(const CMNode* node)
{
    QJsonObject json{{QStringLiteral("path"), node->path().toString()}};
    if (auto* ui = qobject_cast<const CMUINode*>(node))
        json.insert(QStringLiteral("title"), ui->title().toString());
    if (auto* value = qobject_cast<const CMValueNode*>(node)) {
        json.insert(QStringLiteral("kind"), QStringLiteral("value"));
        insertValue(&json, node->path().toString(), value->value().toVariant());
    } else if (auto* list = qobject_cast<const CMListRowsNode*>(node)) {
        QJsonArray rows;
        for (const CMPath& row : list->rows())
            rows.append(row.toString());
        json.insert(QStringLiteral("kind"), QStringLiteral("list"));
        json.insert(QStringLiteral("rows"), rows);
    } else if (qobject_cast<const CMActivateNode*>(node)) {
        json.insert(QStringLiteral("kind"), QStringLiteral("action"));
    } else {
        json.insert(QStringLiteral("kind"), QStringLiteral("node"));
    }
    return json;
}

QJsonArray nodes(const vrax::Platform& platform)
{
    QList<CMPath> paths = platform.nodePaths();
    std::sort(paths.begin(), paths.end());
    QJsonArray nodes;
    for (const CMPath& path : paths)
        if (const CMNode* found = platform.node(path))
            nodes.append(node(found));
    return nodes;
}

QJsonObject playLogic(const QString& path)
{
    const QVariantHash data = CMRoot()->getValue(CMPath(path)).toHash();
    const QVariantHash roles = data.value(QStringLiteral("trackRoles")).toHash();
    const QVariantHash meta = roles.value(QStringLiteral("mediaData")).toHash().value(QStringLiteral("metaData")).toHash();
    return QJsonObject{
        {QStringLiteral("path"), path},
        {QStringLiteral("exists"), !data.isEmpty()},
        {QStringLiteral("state"), data.value(QStringLiteral("state")).toInt()},
        {QStringLiteral("title"), roles.value(QStringLiteral("title")).toString()},
        {QStringLiteral("artist"), meta.value(QStringLiteral("artist")).toString()},
        {QStringLiteral("album"), meta.value(QStringLiteral("album")).toString()},
        {QStringLiteral("icon"), roles.value(QStringLiteral("icon")).toString()},
        {QStringLiteral("duration"), data.value(QStringLiteral("status")).toHash().value(QStringLiteral("duration")).toLongLong()},
        {QStringLiteral("playTime"), data.value(QStringLiteral("playTime")).toLongLong()}};
}

QJsonObject volume()
{
    const vrax::SystemVolume& volume = vrax::SystemVolume::instance();
    return QJsonObject{{QStringLiteral("volume"), volume.volume()}, {QStringLiteral("muted"), volume.muted()}};
}

QJsonObject pipeline(const vrax::DevicePlayer& player, vrax::AudioPace pace)
{
    const vrax::AudioPipeline* pipeline = player.pipeline();
    const vrax::AudioPipelineCounters counters = pipeline ? pipeline->counters() : vrax::AudioPipelineCounters();
    const double bytesPerSecond = double(counters.format.sampleRate()) * counters.format.channels() * 2;
    return QJsonObject{
        {QStringLiteral("socket"), pipeline ? QString::fromStdString(pipeline->socketPath()) : QString()},
        {QStringLiteral("listening"), pipeline && pipeline->isListening()},
        {QStringLiteral("senderConnected"), counters.senderConnected},
        {QStringLiteral("bytes"), double(counters.bytes)},
        {QStringLiteral("seconds"), bytesPerSecond > 0 ? double(counters.bytes) / bytesPerSecond : 0.0},
        {QStringLiteral("sequences"), double(counters.sequences)},
        {QStringLiteral("flushes"), double(counters.flushes)},
        {QStringLiteral("underruns"), double(counters.underruns)},
        {QStringLiteral("connections"), double(counters.connections)},
        {QStringLiteral("droppedStrangers"), double(counters.droppedStrangers)},
        {QStringLiteral("refusedPeers"), double(counters.refusedPeers)},
        {QStringLiteral("sampleRate"), counters.format.sampleRate()},
        {QStringLiteral("channels"), counters.format.channels()},
        {QStringLiteral("pace"), QString::fromLatin1(vrax::AudioPipeline::toString(pace))}};
}

QJsonObject device()
{
    const QString deviceId = stringSetting(VraxOrvelloDeviceId());
    return QJsonObject{{QStringLiteral("productName"), stringSetting(VraxSystemProductNamePath())},
                       {QStringLiteral("serialNumber"), stringSetting(VraxSystemSerialNumberPath())},
                       {QStringLiteral("paired"), !stringSetting(VraxOrvelloTokenPath()).isEmpty()},
                       {QStringLiteral("deviceId"), deviceId}};
}

} // namespace deviceState
