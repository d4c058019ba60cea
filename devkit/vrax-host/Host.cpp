#include "Host.h"

#include "DeviceEvents.h"
#include "DeviceState.h"
#include "LogTail.h"

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
#include <QJsonDocument>

#include <log4cplus/logger.h>

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
            body.insert(QStringLiteral("value"), QJsonValue::fromVariant(valueReply.value()));
        response->send(200, body);
    });
}

// Log lines kept for a page that opens later, and events a page may fall behind by before its
// stream is ended (it reconnects to a fresh snapshot).
constexpr int kLogLines = 200;
constexpr std::size_t kMaxQueuedEvents = 2000;

} // namespace

Host::Host(const HostOptions& options)
    : m_options(options), m_hub(ControlApi::kMaxEventStreams, kLogLines, kMaxQueuedEvents), m_api(this)
{
}

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

    if (m_options.audioOut.kind == vrax::AudioOutput::Kind::Alsa && !vrax::alsaAvailable()) {
        *error = QStringLiteral("--audio-out alsa: this build has no ALSA support");
        return false;
    }
    m_player = std::make_unique<vrax::DevicePlayer>(m_options.audioOut, m_options.pace);
    m_events = std::make_unique<DeviceEvents>(m_platform.get(), m_player.get(), m_options.pace, &m_hub);
    m_logTail = log4cplus::SharedAppenderPtr(new LogTail(&m_hub));
    log4cplus::Logger::getRoot().addAppender(m_logTail);
    if (!m_options.traceFile.isEmpty()) {
        if (!traceEvent(m_options.traceFile, "host_start")) {
            *error = QStringLiteral("cannot write the trace file %1").arg(m_options.traceFile);
            return false;
        }
        m_player->setPipelineTrace(m_options.traceFile.toStdString());
    }

    addRoutes();
    if (!addPage(error) || !m_api.listen(m_options.controlPort, error)) {
        stop();
        return false;
    }

    m_module.setFileName(m_options.modulePath);
    m_module.setLoadHints(QLibrary::ResolveAllSymbolsHint);
    if (!m_module.load()) {
        *error = QStringLiteral("cannot load the module %1: %2").arg(m_options.modulePath, m_module.errorString());
        stop();
        return false;
    }
    auto create = reinterpret_cast<CMWorkerCreateFunction>(m_module.resolve("worker_create"));
    if (!create) {
        *error = QStringLiteral("the module %1 has no worker_create entry").arg(m_options.modulePath);
        stop();
        return false;
    }
    const QVariantHash config;
    if (!m_options.traceFile.isEmpty())
        traceEvent(m_options.traceFile, "worker_create");
    m_worker = create(nullptr, &config);
    m_events->watch(m_worker);
    return true;
}

void Host::stop()
{
    m_api.stop();
    delete m_worker;
    m_worker = nullptr;
    m_events.reset();
    m_player.reset();
    if (m_logTail) {
        log4cplus::Logger::getRoot().removeAppender(m_logTail);
        m_logTail->close();
        m_logTail = nullptr;
    }
}

bool Host::addPage(QString* error)
{
    const struct
    {
        const char* path;
        const char* resource;
        const char* type;
    } files[] = {{"/", ":/web/index.html", "text/html; charset=utf-8"},
                 {"/app.js", ":/web/app.js", "text/javascript; charset=utf-8"},
                 {"/style.css", ":/web/style.css", "text/css; charset=utf-8"}};
    for (const auto& file : files) {
        QFile resource(QString::fromLatin1(file.resource));
        if (!resource.open(QIODevice::ReadOnly)) {
            *error = QStringLiteral("the device page's %1 is missing from this build").arg(QString::fromLatin1(file.resource));
            return false;
        }
        m_api.file(file.path, resource.readAll(), file.type);
    }
    m_api.events("/api/events", &m_hub, [this] { return m_events->snapshot(); });
    return true;
}

void Host::addRoutes()
{
    m_api.get("/api/nodes", [this](const ControlApi::Request&, const std::shared_ptr<ControlApi::Response>& response) {
        response->send(200, QJsonObject{{QStringLiteral("nodes"), deviceState::nodes(*m_platform)}});
    });

    m_api.get("/api/value", [](const ControlApi::Request& request, const std::shared_ptr<ControlApi::Response>& response) {
        const QString path = request.query.value(QStringLiteral("path"));
        if (path.isEmpty()) {
            response->error(400, QStringLiteral("path is missing"));
            return;
        }
        QJsonObject answer{{QStringLiteral("path"), path}};
        deviceState::insertValue(&answer, path, CMRoot()->getValue(CMPath(path)));
        response->send(200, answer);
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
        response->send(200, deviceState::playLogic(
                                request.query.value(QStringLiteral("path"), VraxOrvelloPlayLogicPath().toString())));
    });

    m_api.post("/api/player/(play|pause|stop)", [this](const ControlApi::Request& request,
                                                        const std::shared_ptr<ControlApi::Response>& response) {
        CMVoidReply reply = request.match == QLatin1String("play")    ? m_player->resume()
                          : request.match == QLatin1String("pause") ? m_player->pause()
                                                                     : m_player->stop();
        answerWith(reply, response);
    });

    m_api.get("/api/volume", [](const ControlApi::Request&, const std::shared_ptr<ControlApi::Response>& response) {
        response->send(200, deviceState::volume());
    });
    m_api.post("/api/volume", [](const ControlApi::Request& request,
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
        response->send(200, deviceState::volume());
    });

    m_api.get("/api/pipeline", [this](const ControlApi::Request&, const std::shared_ptr<ControlApi::Response>& response) {
        response->send(200, deviceState::pipeline(*m_player, m_options.pace));
    });
}
