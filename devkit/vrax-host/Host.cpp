#include "Host.h"

#include "model/cmnode.h"
#include "model/cmworker.h"
#include "vrax/vraxpaths.h"
#include "vrax_api/vraxplatform.h"
#include "vrax_api_play/deviceplayer.h"
#include "vrax_api_play/systemvolume.h"
#include "vrax_audio_pipeline/audiopipeline.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>

#include <chrono>

namespace {

// Appends "<CLOCK_MONOTONIC ns> event" to the trace file the pipeline also writes (see --trace).
bool traceEvent(const QString& file, const char* event)
{
    QFile trace(file);
    if (!trace.open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::Unbuffered))
        return false;
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    const QByteArray line = QByteArray::number(qint64(std::chrono::duration_cast<std::chrono::nanoseconds>(now).count()))
                            + ' ' + event + '\n';
    return trace.write(line) == line.size();
}

QJsonValue jsonOf(const QVariant& value)
{
    return QJsonValue::fromVariant(value);
}

QJsonObject errorJson(const CMError& error)
{
    return QJsonObject{{QStringLiteral("name"), error.name()},
                       {QStringLiteral("message"), error.text()},
                       {QStringLiteral("title"), error.title().toString()}};
}

// A typed hash ({"string_": ...}) as it is, or a plain JSON value typed as the settings file types it.
bool typedValue(const QJsonValue& json, VraxHash* value, QString* error)
{
    if (json.isObject()) {
        *value = VraxHash(json.toObject().toVariantHash());
        return true;
    }
    VraxValue typed;
    if (!vrax::SettingsStore::typedFromJson(json, &typed, error))
        return false;
    *value = VraxHash(typed.hash());
    return true;
}

// Answers the HTTP request with the platform reply's outcome once it comes.
void answerWith(const CMVoidReply& reply, const std::shared_ptr<ControlApi::Response>& response)
{
    CMReply<QVariant> valueReply(reply);
    reply.onFinished(nullptr, [valueReply, response] {
        const CMError error = valueReply.error();
        if (error.isSet()) {
            response->send(422, QJsonObject{{QStringLiteral("ok"), false}, {QStringLiteral("error"), errorJson(error)}});
            return;
        }
        QJsonObject body{{QStringLiteral("ok"), true}};
        if (valueReply.value().isValid())
            body.insert(QStringLiteral("value"), jsonOf(valueReply.value()));
        response->send(200, body);
    });
}

} // namespace

Host::Host(const HostOptions& options) : m_options(options), m_api(this) {}

Host::~Host()
{
    stop();
}

bool Host::start(QString* error)
{
    if (!QDir().mkpath(m_options.dataDir) || !QDir::setCurrent(m_options.dataDir)) {
        *error = QStringLiteral("cannot use %1 as the data directory").arg(m_options.dataDir);
        return false;
    }
    m_platform = std::make_unique<vrax::Platform>();
    const bool explicitSettings = !m_options.settingsFile.isEmpty();
    const QString settingsFile = explicitSettings ? m_options.settingsFile
                                                  : QDir::current().filePath(QStringLiteral("settings.json"));
    if (!m_platform->settings().open(settingsFile, !explicitSettings, error))
        return false;

    std::string sinkSpec;
    switch (m_options.audioOut) {
    case HostOptions::AudioOut::Null:
        sinkSpec = "null";
        break;
    case HostOptions::AudioOut::Wav:
        sinkSpec = "wav:" + m_options.audioTarget.toStdString();
        break;
    case HostOptions::AudioOut::Alsa:
        if (!vrax::alsaAvailable()) {
            *error = QStringLiteral("--audio-out alsa: this build has no ALSA support");
            return false;
        }
        sinkSpec = "alsa:" + m_options.audioTarget.toStdString();
        break;
    }
    m_player = std::make_unique<vrax::DevicePlayer>(
        sinkSpec, m_options.pace == HostOptions::Pace::Fast ? vrax::AudioPace::Fast : vrax::AudioPace::Realtime);
    if (!m_options.traceFile.isEmpty()) {
        if (!traceEvent(m_options.traceFile, "host_start")) {
            *error = QStringLiteral("cannot write the trace file %1").arg(m_options.traceFile);
            return false;
        }
        m_player->setPipelineTrace(m_options.traceFile.toStdString());
    }

    addRoutes();
    if (!m_api.listen(m_options.controlPort, error))
        return false;

    m_module.setFileName(m_options.modulePath);
    m_module.setLoadHints(QLibrary::ResolveAllSymbolsHint);
    if (!m_module.load()) {
        *error = QStringLiteral("cannot load the module %1: %2").arg(m_options.modulePath, m_module.errorString());
        m_api.stop();
        return false;
    }
    auto create = reinterpret_cast<CMWorkerCreateFunction>(m_module.resolve("worker_create"));
    if (!create) {
        *error = QStringLiteral("the module %1 has no worker_create entry").arg(m_options.modulePath);
        m_api.stop();
        return false;
    }
    const QVariantHash config;
    if (!m_options.traceFile.isEmpty())
        traceEvent(m_options.traceFile, "worker_create");
    m_worker = create(nullptr, &config);
    return true;
}

void Host::stop()
{
    m_api.stop();
    delete m_worker;
    m_worker = nullptr;
    m_player.reset();
}

QJsonObject Host::describeNode(const CMNode* node) const
{
    QJsonObject json{{QStringLiteral("path"), node->path().toString()}};
    if (auto* ui = qobject_cast<const CMUINode*>(node))
        json.insert(QStringLiteral("title"), ui->title().toString());
    if (auto* value = qobject_cast<const CMValueNode*>(node)) {
        json.insert(QStringLiteral("kind"), QStringLiteral("value"));
        json.insert(QStringLiteral("value"), jsonOf(value->value().toVariant()));
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

void Host::addRoutes()
{
    m_api.get("/api/nodes", [this](const ControlApi::Request&, const std::shared_ptr<ControlApi::Response>& response) {
        QList<CMPath> paths = m_platform->nodePaths();
        std::sort(paths.begin(), paths.end());
        QJsonArray nodes;
        for (const CMPath& path : paths)
            if (const CMNode* node = m_platform->node(path))
                nodes.append(describeNode(node));
        response->send(200, QJsonObject{{QStringLiteral("nodes"), nodes}});
    });

    m_api.get("/api/value", [](const ControlApi::Request& request, const std::shared_ptr<ControlApi::Response>& response) {
        const QString path = request.query.value(QStringLiteral("path"));
        if (path.isEmpty()) {
            response->error(400, QStringLiteral("path is missing"));
            return;
        }
        response->send(200, QJsonObject{{QStringLiteral("path"), path},
                                        {QStringLiteral("value"), jsonOf(CMRoot()->getValue(CMPath(path)))}});
    });

    // POST {"path", "value"} handed to the platform; the platform reply's outcome is the answer.
    auto pathAndValueRoute = [](void (*deliver)(const CMPath&, const VraxHash&, const CMReply<QVariant>&)) {
        return [deliver](const ControlApi::Request& request, const std::shared_ptr<ControlApi::Response>& response) {
            const CMPath path(request.body.value(QStringLiteral("path")).toString());
            if (path.isEmpty()) {
                response->error(400, QStringLiteral("the body needs a \"path\" string"));
                return;
            }
            if (!request.body.contains(QStringLiteral("value"))) {
                response->error(400, QStringLiteral("the body needs a \"value\""));
                return;
            }
            VraxHash value;
            QString why;
            if (!typedValue(request.body.value(QStringLiteral("value")), &value, &why)) {
                response->error(400, QStringLiteral("unusable value: %1").arg(why));
                return;
            }
            CMReply<QVariant> reply;
            answerWith(reply, response);
            deliver(path, value, reply);
        };
    };
    m_api.post("/api/value", pathAndValueRoute([](const CMPath& path, const VraxHash& value, const CMReply<QVariant>& reply) {
        CMRoot()->setValue(path, value, reply);
    }));
    m_api.post("/api/invoke", pathAndValueRoute([](const CMPath& path, const VraxHash& value, const CMReply<QVariant>& reply) {
        CMRoot()->invoke(path, value, reply);
    }));

    m_api.get("/api/playlogic", [](const ControlApi::Request& request,
                                   const std::shared_ptr<ControlApi::Response>& response) {
        const QString path = request.query.value(QStringLiteral("path"), VraxOrvelloPlayLogicPath().toString());
        const QVariantHash data = CMRoot()->getValue(CMPath(path)).toHash();
        const QVariantHash roles = data.value(QStringLiteral("trackRoles")).toHash();
        const QVariantHash meta = roles.value(QStringLiteral("mediaData")).toHash().value(QStringLiteral("metaData")).toHash();
        response->send(200, QJsonObject{
            {QStringLiteral("path"), path},
            {QStringLiteral("exists"), !data.isEmpty()},
            {QStringLiteral("state"), data.value(QStringLiteral("state")).toInt()},
            {QStringLiteral("title"), roles.value(QStringLiteral("title")).toString()},
            {QStringLiteral("artist"), meta.value(QStringLiteral("artist")).toString()},
            {QStringLiteral("album"), meta.value(QStringLiteral("album")).toString()},
            {QStringLiteral("icon"), roles.value(QStringLiteral("icon")).toString()},
            {QStringLiteral("duration"), data.value(QStringLiteral("status")).toHash().value(QStringLiteral("duration")).toLongLong()},
            {QStringLiteral("playTime"), data.value(QStringLiteral("playTime")).toLongLong()}});
    });

    m_api.post("/api/player/(play|pause|stop)", [this](const ControlApi::Request& request,
                                                        const std::shared_ptr<ControlApi::Response>& response) {
        CMVoidReply reply = request.match == QLatin1String("play")    ? m_player->resume()
                          : request.match == QLatin1String("pause") ? m_player->pause()
                                                                     : m_player->stop();
        answerWith(reply, response);
    });

    auto volumeJson = [] {
        const vrax::SystemVolume& volume = vrax::SystemVolume::instance();
        return QJsonObject{{QStringLiteral("volume"), volume.volume()}, {QStringLiteral("muted"), volume.muted()}};
    };
    m_api.get("/api/volume", [volumeJson](const ControlApi::Request&, const std::shared_ptr<ControlApi::Response>& response) {
        response->send(200, volumeJson());
    });
    m_api.post("/api/volume", [volumeJson](const ControlApi::Request& request,
                                           const std::shared_ptr<ControlApi::Response>& response) {
        const QJsonValue volume = request.body.value(QStringLiteral("volume"));
        const QJsonValue muted = request.body.value(QStringLiteral("muted"));
        if ((!volume.isUndefined() && (!volume.isDouble() || volume.toDouble() != volume.toInt() || volume.toInt() < 0
                                       || volume.toInt() > 100))
            || (!muted.isUndefined() && !muted.isBool()) || (volume.isUndefined() && muted.isUndefined())) {
            response->error(400, QStringLiteral("the body needs \"volume\" (an integer from 0 to 100) and/or \"muted\" (a bool)"));
            return;
        }
        if (!volume.isUndefined())
            vrax::SystemVolume::instance().setVolume(volume.toInt());
        if (!muted.isUndefined())
            vrax::SystemVolume::instance().setMuted(muted.toBool());
        response->send(200, volumeJson());
    });

    m_api.get("/api/pipeline", [this](const ControlApi::Request&, const std::shared_ptr<ControlApi::Response>& response) {
        const vrax::AudioPipeline* pipeline = m_player->pipeline();
        const vrax::AudioPipelineCounters counters = pipeline ? pipeline->counters() : vrax::AudioPipelineCounters();
        const double bytesPerSecond = double(counters.format.sampleRate()) * counters.format.channels() * 2;
        response->send(200, QJsonObject{
            {QStringLiteral("socket"), pipeline ? QString::fromStdString(pipeline->socketPath()) : QString()},
            {QStringLiteral("listening"), pipeline && pipeline->isListening()},
            {QStringLiteral("senderConnected"), counters.senderConnected},
            {QStringLiteral("bytes"), double(counters.bytes)},
            {QStringLiteral("seconds"), bytesPerSecond > 0 ? double(counters.bytes) / bytesPerSecond : 0.0},
            {QStringLiteral("sequences"), double(counters.sequences)},
            {QStringLiteral("flushes"), double(counters.flushes)},
            {QStringLiteral("underruns"), double(counters.underruns)},
            {QStringLiteral("connections"), double(counters.connections)},
            {QStringLiteral("sampleRate"), counters.format.sampleRate()},
            {QStringLiteral("channels"), counters.format.channels()},
            {QStringLiteral("pace"), QString::fromLatin1(vrax::AudioPipeline::toString(
                                         m_options.pace == HostOptions::Pace::Fast ? vrax::AudioPace::Fast
                                                                                   : vrax::AudioPace::Realtime))}});
    });
}
