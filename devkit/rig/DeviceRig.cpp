#include "DeviceRig.h"

#include "Loopback.h"
#include "OrvelloServiceProcess.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QThread>

QString DeviceRig::Answer::errorMessage() const
{
    const QJsonValue error = body.value(QStringLiteral("error"));
    return error.isObject() ? error.toObject().value(QStringLiteral("message")).toString() : error.toString();
}

DeviceRig::DeviceRig(const Paths& paths, const QString& workDir) : m_paths(paths), m_workDir(workDir)
{
    QDir().mkpath(dataDir());
}

DeviceRig::~DeviceRig()
{
    stopHost();
    stopService();
}

void DeviceRig::stopService()
{
    m_service.reset();
}

void DeviceRig::killService()
{
    if (m_service)
        m_service->kill();
}

int DeviceRig::servicePort() const
{
    return m_service ? m_service->port() : 0;
}

QString DeviceRig::dataDir() const
{
    return m_workDir + QStringLiteral("/device/data");
}

QString DeviceRig::devTreeLibraryPath() const
{
    return QDir::cleanPath(dataDir() + QStringLiteral("/../../build/Hollowkit-blobs-links/Orvello/lib/linux_x86_64/liboplayer-1.so"));
}

QString DeviceRig::serviceDir() const
{
    return m_workDir + QStringLiteral("/service");
}

bool DeviceRig::startService(const QString& version, const QString& libraryFile, QString* error,
                             const QStringList& arguments)
{
    stopService();
    const QString dir = serviceDir();
    QDir().mkpath(dir);
    const QString name = QStringLiteral("liboplayer-1.so");
    QFile::remove(dir + QLatin1Char('/') + name);
    if (!QFile::copy(libraryFile, dir + QLatin1Char('/') + name)) {
        *error = QStringLiteral("cannot copy %1 for the service").arg(libraryFile);
        return false;
    }
    m_service = std::make_unique<OrvelloServiceProcess>(m_paths.service, m_workDir + QStringLiteral("/service.log"));
    return m_service->start(QStringList{QStringLiteral("--dir"), dir, QStringLiteral("--version"), version,
                                        QStringLiteral("--library"), name}
                                + OrvelloServiceProcess::testKeyArguments() + arguments,
                            error);
}

QString DeviceRig::versionUrl() const
{
    return QStringLiteral("http://127.0.0.1:%1/config.json").arg(servicePort());
}

bool DeviceRig::startHost(const QVariantHash& settings, const QString& audioOut, const QString& pace,
                          const QStringList& env, QString* error)
{
    const QString settingsFile = m_workDir + QStringLiteral("/device/settings.json");
    QFile file(settingsFile);
    if (!file.open(QIODevice::WriteOnly) || file.write(QJsonDocument(QJsonObject::fromVariantHash(settings)).toJson()) < 0) {
        *error = QStringLiteral("cannot write %1").arg(settingsFile);
        return false;
    }
    file.close();
    m_hostEnvironment = QProcessEnvironment::systemEnvironment();
    for (const QString& entry : env)
        m_hostEnvironment.insert(entry.section(QLatin1Char('='), 0, 0), entry.section(QLatin1Char('='), 1));
    m_hostArguments = QStringList{QStringLiteral("--module"), m_paths.module, QStringLiteral("--data-dir"), dataDir(),
                                  QStringLiteral("--settings"), settingsFile, QStringLiteral("--control-port"),
                                  QStringLiteral("0"), QStringLiteral("--audio-out"), audioOut, QStringLiteral("--pace"), pace}
                      + m_extraHostArguments;
    return launchHost(error);
}

bool DeviceRig::restartHost(QString* error)
{
    if (m_hostArguments.isEmpty()) {
        *error = QStringLiteral("the host was never started");
        return false;
    }
    if (hostRunning()) {
        *error = QStringLiteral("the host is still running");
        return false;
    }
    return launchHost(error);
}

bool DeviceRig::launchHost(QString* error)
{
    m_host = std::make_unique<QProcess>();
    m_host->setProcessEnvironment(m_hostEnvironment);
    m_hostLog.clear();
    m_partialLine.clear();
    QObject::connect(m_host.get(), &QProcess::readyReadStandardError, [this] { readHostLog(); });
    m_host->start(m_paths.host, m_hostArguments);
    m_controlPort = readListeningPort(m_host.get(), QStringLiteral("control API listening on"), error);
    if (m_controlPort == 0) {
        readHostLog();
        m_host->kill();
        m_host->waitForFinished();
        return false;
    }
    return true;
}

bool DeviceRig::hostRunning() const
{
    return m_host && m_host->state() != QProcess::NotRunning;
}

qint64 DeviceRig::hostPid() const
{
    return hostRunning() ? m_host->processId() : 0;
}

int DeviceRig::stopHost()
{
    if (!m_host)
        return -1;
    if (m_host->state() != QProcess::NotRunning) {
        m_host->terminate();
        if (!m_host->waitForFinished(20000)) {
            m_host->kill();
            m_host->waitForFinished(5000);
            readHostLog();
            m_host.reset();
            return -1;
        }
    }
    return finishedHostCode();
}

int DeviceRig::waitForHostExit(int timeoutMs)
{
    if (!m_host)
        return -1;
    if (m_host->state() != QProcess::NotRunning && !m_host->waitForFinished(timeoutMs))
        return -1;
    return finishedHostCode();
}

int DeviceRig::finishedHostCode()
{
    readHostLog();
    const int code = m_host->exitStatus() == QProcess::NormalExit ? m_host->exitCode() : -1;
    m_host.reset();
    return code;
}

void DeviceRig::readHostLog()
{
    if (!m_host)
        return;
    m_partialLine += m_host->readAllStandardError();
    int newline;
    while ((newline = m_partialLine.indexOf('\n')) >= 0) {
        m_hostLog << QString::fromUtf8(m_partialLine.left(newline));
        m_partialLine.remove(0, newline + 1);
    }
}

QStringList DeviceRig::hostLog()
{
    QCoreApplication::processEvents();
    readHostLog();
    return m_hostLog;
}

bool DeviceRig::waitForLog(const QString& text, int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    do {
        for (const QString& line : hostLog())
            if (line.contains(text))
                return true;
        QThread::msleep(20);
    } while (!deadline.hasExpired());
    return false;
}

DeviceRig::Answer DeviceRig::request(const QByteArray& method, const QString& path, const QByteArray& body)
{
    const LoopbackReply reply = loopbackRequest(m_controlPort, method, path, body);
    const QJsonDocument document = QJsonDocument::fromJson(reply.body);
    Answer answer;
    answer.status = reply.status;
    answer.body = document.object();
    answer.array = document.array();
    return answer;
}

DeviceRig::Answer DeviceRig::get(const QString& path)
{
    return request("GET", path, QByteArray());
}

DeviceRig::Answer DeviceRig::post(const QString& path, const QJsonObject& body)
{
    return request("POST", path, QJsonDocument(body).toJson(QJsonDocument::Compact));
}

DeviceRig::Answer DeviceRig::setValue(const QString& path, const QJsonValue& value)
{
    return post(QStringLiteral("/api/value"), QJsonObject{{QStringLiteral("path"), path}, {QStringLiteral("value"), value}});
}

bool DeviceRig::setServiceState(const QJsonObject& change, QString* error)
{
    if (!m_service) {
        *error = QStringLiteral("the service was never started");
        return false;
    }
    return m_service->setState(change, error);
}

QJsonArray DeviceRig::serviceRequests(bool* ok)
{
    if (!m_service) {
        if (ok)
            *ok = false;
        return QJsonArray();
    }
    return m_service->requests(ok);
}
