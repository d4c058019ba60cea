#include "ScenarioKit.h"

#include "TestFiles.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>

#include <random>

Setup offering(const QString& version, const QStringList& faults)
{
    Setup setup;
    setup.offer = version;
    setup.serviceFaults = faults;
    return setup;
}

QString randomFile(FaultDevice& d)
{
    const QString path = d.workDir() + QStringLiteral("/random.so");
    QByteArray bytes(80 * 1024, Qt::Uninitialized);
    std::mt19937 generator(16);
    for (char& byte : bytes)
        byte = char(generator() & 0xff);
    if (!writeBytes(path, bytes))
        d.setupError(QStringLiteral("cannot write %1").arg(path));
    return path;
}

QNetworkReply* pairLater(QNetworkAccessManager& manager, FaultDevice& d, const QString& code)
{
    QNetworkRequest request(QUrl(QStringLiteral("http://127.0.0.1:%1/api/value").arg(d.rig().controlPort())));
    request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
    const QJsonObject body{{QStringLiteral("path"), QStringLiteral("orvello/browse/uiPairCode")}, {QStringLiteral("value"), code}};
    return manager.post(request, QJsonDocument(body).toJson(QJsonDocument::Compact));
}

void expectAnswer(FaultDevice& d, const DeviceRig::Answer& answer, const QString& what, const QString& error)
{
    if (error.isEmpty() ? !answer.ok() : answer.status != 422 || answer.errorMessage() != error)
        d.fail(QStringLiteral("%1 was answered %2 \"%3\"").arg(what).arg(answer.status).arg(answer.errorMessage()));
}

void expectInstalled(FaultDevice& d, const QString& file)
{
    const bool there = QFile::exists(d.installedLibrary());
    if (file.isEmpty() ? there : fileBytes(d.installedLibrary()) != fileBytes(file))
        d.fail(there ? QStringLiteral("the installed library is not the one expected") : QStringLiteral("no library is installed"));
}

void expectAnswered(FaultDevice& d, QNetworkReply* reply, const QString& what)
{
    d.observeUntil([reply] { return reply->isFinished(); }, kClientTimeoutMs + 5000);
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (status != 200 && status != 422)
        d.fail(QStringLiteral("%1 was not answered (HTTP %2 %3)").arg(what).arg(status).arg(reply->errorString()));
}

bool startStalledDownload(FaultDevice& d)
{
    Setup setup = offering(QStringLiteral("1.1.0"), {QStringLiteral("library-stall=30000")});
    setup.checkSeconds = 2;
    if (!d.start(setup) || !d.waitForLog(QStringLiteral("Downloading version 1.1.0"), 5000)) {
        d.fail(QStringLiteral("no download began"));
        return false;
    }
    d.observe(500);
    return true;
}

bool startUnpaired(FaultDevice& d)
{
    Setup setup;
    setup.paired = false;
    return d.start(setup);
}

bool player(FaultDevice& d, const char* command)
{
    const DeviceRig::Answer answer = d.rig().post(QStringLiteral("/api/player/") + QLatin1String(command), QJsonObject());
    expectAnswer(d, answer, QLatin1String(command));
    return answer.ok();
}
