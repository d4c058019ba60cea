#include "OrvelloServiceProcess.h"

#include "Loopback.h"

#include <QJsonDocument>

OrvelloServiceProcess::OrvelloServiceProcess(const QString& program, const QString& logFile) : m_logFile(logFile)
{
    m_process.setProgram(program);
}

OrvelloServiceProcess::~OrvelloServiceProcess()
{
    stop();
}

QStringList OrvelloServiceProcess::testKeyArguments()
{
    return {QStringLiteral("--signing-key"), QStringLiteral(ORVELLO_TEST_SIGNING_KEY), QStringLiteral("--other-signing-key"),
            QStringLiteral(ORVELLO_OTHER_SIGNING_KEY)};
}

bool OrvelloServiceProcess::start(const QStringList& arguments, QString* error)
{
    m_process.setProcessChannelMode(QProcess::SeparateChannels);
    if (!m_logFile.isEmpty())
        m_process.setStandardErrorFile(m_logFile);
    m_process.setArguments(QStringList{QStringLiteral("--stop-on-eof")} + arguments);
    m_process.start();
    m_port = readListeningPort(&m_process, QStringLiteral("listening on"), error);
    if (m_port != 0)
        return true;
    if (!m_logFile.isEmpty())
        *error += QStringLiteral(" (its log: %1)").arg(m_logFile);
    stop();
    return false;
}

QString OrvelloServiceProcess::url(const QString& path) const
{
    return QStringLiteral("http://127.0.0.1:%1%2").arg(m_port).arg(path);
}

bool OrvelloServiceProcess::setState(const QJsonObject& change, QString* error)
{
    const QByteArray body = QJsonDocument(change).toJson(QJsonDocument::Compact);
    const LoopbackReply reply = loopbackRequest(m_port, "POST", QStringLiteral("/admin/state"), body);
    if (reply.status != 200 && error)
        *error = QStringLiteral("the service refused %1: %2 %3")
                     .arg(QString::fromUtf8(body))
                     .arg(reply.status)
                     .arg(QJsonDocument::fromJson(reply.body).object().value(QStringLiteral("error")).toString());
    return reply.status == 200;
}

QJsonArray OrvelloServiceProcess::requests(bool* ok) const
{
    const LoopbackReply reply = loopbackRequest(m_port, "GET", QStringLiteral("/admin/requests"), QByteArray());
    if (ok)
        *ok = reply.status == 200;
    return QJsonDocument::fromJson(reply.body).array();
}

void OrvelloServiceProcess::stop()
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.closeWriteChannel();
    if (!m_process.waitForFinished(5000))
        kill();
}

void OrvelloServiceProcess::kill()
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.kill();
    m_process.waitForFinished(5000);
}
