#include "Host.h"

#include "model/cmnode.h"
#include "model/cmworker.h"
#include "vrax_api/vraxplatform.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>

namespace {

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
    m_worker = create(nullptr, &config);
    return true;
}

void Host::stop()
{
    m_api.stop();
    delete m_worker;
    m_worker = nullptr;
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

    auto pathAndValue = [](const ControlApi::Request& request, const std::shared_ptr<ControlApi::Response>& response,
                           CMPath* path, VraxHash* value) {
        *path = CMPath(request.body.value(QStringLiteral("path")).toString());
        QString why;
        if (path->isEmpty()) {
            response->error(400, QStringLiteral("the body needs a \"path\" string"));
            return false;
        }
        if (!request.body.contains(QStringLiteral("value"))) {
            response->error(400, QStringLiteral("the body needs a \"value\""));
            return false;
        }
        if (!typedValue(request.body.value(QStringLiteral("value")), value, &why)) {
            response->error(400, QStringLiteral("unusable value: %1").arg(why));
            return false;
        }
        return true;
    };

    m_api.post("/api/value", [pathAndValue](const ControlApi::Request& request,
                                            const std::shared_ptr<ControlApi::Response>& response) {
        CMPath path;
        VraxHash value;
        if (!pathAndValue(request, response, &path, &value))
            return;
        CMVoidReply reply;
        answerWith(reply, response);
        CMRoot()->setValue(path, value, reply);
    });

    m_api.post("/api/invoke", [pathAndValue](const ControlApi::Request& request,
                                             const std::shared_ptr<ControlApi::Response>& response) {
        CMPath path;
        VraxHash value;
        if (!pathAndValue(request, response, &path, &value))
            return;
        CMReply<QVariant> reply;
        answerWith(reply, response);
        CMRoot()->invoke(path, value, reply);
    });
}
