#include "OrvelloServiceProcess.h"

#include <QDeadlineTimer>
#include <QEventLoop>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QRegularExpression>

namespace {
// Waits for the reply with a nested event loop; the admin endpoints answer at once.
QByteArray waitForBody(QNetworkReply* reply, int* status)
{
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    if (!reply->isFinished())
        loop.exec();
    *status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    const QByteArray body = reply->readAll();
    reply->deleteLater();
    return body;
}
} // namespace

OrvelloServiceProcess::~OrvelloServiceProcess()
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.terminate();
    if (!m_process.waitForFinished(5000)) {
        m_process.kill();
        m_process.waitForFinished(5000);
    }
}

bool OrvelloServiceProcess::start(const QStringList& arguments, QString* error)
{
    m_process.setProcessChannelMode(QProcess::SeparateChannels);
    // Our end of its standard input closes when this process dies, however it dies.
    m_process.start(QStringLiteral(ORVELLO_SERVICE_BINARY), QStringList(arguments) << QStringLiteral("--stop-on-eof"));
    if (!m_process.waitForStarted(5000)) {
        *error = m_process.errorString();
        return false;
    }
    const QDeadlineTimer deadline(10000);
    while (!m_process.canReadLine() && m_process.state() == QProcess::Running && !deadline.hasExpired())
        m_process.waitForReadyRead(int(deadline.remainingTime()));
    const QString line = QString::fromUtf8(m_process.readLine()).trimmed();
    const QRegularExpressionMatch match =
        QRegularExpression(QStringLiteral("^listening on 127\\.0\\.0\\.1:(\\d+)$")).match(line);
    if (!match.hasMatch()) {
        m_process.waitForFinished(1000);
        *error = QStringLiteral("no listening line; got '%1', stderr: %2")
                     .arg(line, QString::fromUtf8(m_process.readAllStandardError()));
        return false;
    }
    m_port = match.captured(1).toInt();
    return true;
}

QString OrvelloServiceProcess::url(const QString& path) const
{
    return QStringLiteral("http://127.0.0.1:%1%2").arg(m_port).arg(path);
}

bool OrvelloServiceProcess::setState(const QJsonObject& change, QString* error)
{
    QNetworkAccessManager manager;
    QNetworkRequest request{QUrl(url(QStringLiteral("/admin/state")))};
    request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
    int status = 0;
    const QByteArray body = waitForBody(manager.post(request, QJsonDocument(change).toJson()), &status);
    if (status != 200 && error)
        *error = QString::fromUtf8(body);
    return status == 200;
}

QJsonArray OrvelloServiceProcess::requests() const
{
    QNetworkAccessManager manager;
    int status = 0;
    const QByteArray body =
        waitForBody(manager.get(QNetworkRequest(QUrl(url(QStringLiteral("/admin/requests"))))), &status);
    return QJsonDocument::fromJson(body).array();
}
