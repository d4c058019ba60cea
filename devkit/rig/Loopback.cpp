#include "Loopback.h"

#include <QDeadlineTimer>
#include <QEventLoop>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QProcess>
#include <QRegularExpression>
#include <QTimer>

namespace {
constexpr int kStartTimeoutMs = 15000;
constexpr int kRequestTimeoutMs = 40000;
} // namespace

int readListeningPort(QProcess* process, const QString& prefix, QString* error)
{
    QDeadlineTimer deadline(kStartTimeoutMs);
    while (!process->canReadLine()) {
        if (process->state() == QProcess::NotRunning || !process->waitForReadyRead(int(deadline.remainingTime()))) {
            if (process->state() == QProcess::NotRunning || deadline.hasExpired()) {
                const QString how = process->state() != QProcess::NotRunning   ? QStringLiteral("still starting")
                                    : process->error() == QProcess::FailedToStart ? process->errorString()
                                    : process->exitStatus() == QProcess::CrashExit
                                        ? QStringLiteral("crashed")
                                        : QStringLiteral("exit status %1").arg(process->exitCode());
                *error = QStringLiteral("%1 did not start (%2): %3")
                             .arg(process->program(), how, QString::fromLocal8Bit(process->readAllStandardError().trimmed()));
                return 0;
            }
        }
    }
    const QString line = QString::fromLocal8Bit(process->readLine()).trimmed();
    const QRegularExpressionMatch match = QRegularExpression(prefix + QStringLiteral(" 127\\.0\\.0\\.1:(\\d+)$")).match(line);
    if (!match.hasMatch()) {
        *error = QStringLiteral("%1 said '%2' instead of where it listens").arg(process->program(), line);
        return 0;
    }
    return match.captured(1).toInt();
}

LoopbackReply loopbackRequest(int port, const QByteArray& method, const QString& path, const QByteArray& body)
{
    QNetworkAccessManager manager;
    QNetworkRequest request(QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(port).arg(path)));
    request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
    QNetworkReply* reply = manager.sendCustomRequest(request, method, body);
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    QTimer::singleShot(kRequestTimeoutMs, &loop, &QEventLoop::quit);
    loop.exec();
    LoopbackReply answer;
    if (reply->isFinished()) {
        answer.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        answer.body = reply->readAll();
    }
    reply->abort();
    delete reply;
    return answer;
}
