// The soak's faults: the update service failing in turns, each held and then cleared.
#include "Soak.h"

#include <QJsonArray>
#include <QThread>

namespace bench {

const std::vector<FaultKind>& faultKinds()
{
    static const std::vector<FaultKind> kinds = {
        {"config-500", {QStringLiteral("config-status=500")}, 8, true, 3, "the update document answers status 500"},
        {"library-truncated", {QStringLiteral("library-truncated")}, 8, true, 3,
         "the library download announces its length, sends half and closes"},
        {"config-not-json", {QStringLiteral("config-not-json")}, 8, true, 3, "the update document is not JSON"},
        {"wrong-checksum", {QStringLiteral("wrong-checksum")}, 8, true, 3, "the document's checksum is not the file's"},
        {"service-down", {}, 8, true, 3, "the service killed, started again on its port 8 s later"},
        {"config-slow", {QStringLiteral("config-delay=3000")}, 8, false, 6, "the update document answers after 3 s"},
        {"library-503", {QStringLiteral("library-status=503")}, 8, true, 3, "library downloads answer status 503"},
        {"config-empty", {QStringLiteral("config-empty")}, 8, true, 3, "status 200 with an empty document"},
        {"library-oversized", {QStringLiteral("library-oversized")}, 8, true, 3, "a library body of 16 MiB + 64 KiB"},
        {"uppercase-checksum", {QStringLiteral("uppercase-checksum")}, 8, true, 3, "the checksum in uppercase hex"},
        {"library-stall", {QStringLiteral("library-stall=4000")}, 8, true, 3,
         "the library download sends half, waits 4 s, then the rest"},
        {"config-missing-fields", {QStringLiteral("config-missing-fields")}, 8, true, 3, "the document is {}"},
        {"library-slow", {QStringLiteral("library-delay=3000")}, 8, true, 6, "library downloads answer after 3 s"},
        {"config-wrong-types", {QStringLiteral("config-wrong-types")}, 8, true, 3, "the document's fields have the wrong types"},
        {"config-timeout", {QStringLiteral("config-delay=32000")}, 40, false, 35,
         "the update document answers after 32 s, past the client's 30 s timeout"},
    };
    return kinds;
}

bool Soak::insideFault(qint64 ns) const
{
    for (const FaultWindow& f : m_record.faults)
        if (ns >= f.from && (f.to == 0 || ns <= f.to + qint64(faultKinds().at(std::size_t(f.kind)).graceSeconds) * kS))
            return true;
    return false;
}

bool Soak::applyService(const QJsonObject& change)
{
    for (auto it = change.begin(); it != change.end(); ++it)
        m_serviceState.insert(it.key(), it.value());
    if (m_serviceDown)
        return true;   // applied when the service is back
    // A service busy with slow answers may keep the request waiting past the rig's timeout.
    QString error;
    for (int attempt = 0; attempt < 3; ++attempt)
        if (m_rig->setServiceState(change, &error))
            return true;
    m_record.aborted = error;
    return false;
}

void Soak::startFault(int kind, bool modesPosted)
{
    const FaultKind& k = faultKinds().at(std::size_t(kind));
    m_record.faults.push_back({kind, nowNs(), 0, 0});
    m_faultActive = true;
    if (k.modes.isEmpty()) {
        // Its request log goes with it.
        countDownloads();
        m_record.downloadsBefore += m_record.downloadsNow;
        m_record.downloadsNow = 0;
        m_rig->killService();
        m_serviceDown = true;
    } else if (!modesPosted) {
        applyService(QJsonObject{{QStringLiteral("fail"), QJsonArray::fromStringList(k.modes)}});
    }
}

void Soak::driveFault()
{
    if (!m_faultActive)
        return;
    const FaultWindow& f = m_record.faults.back();
    if (nowNs() - f.from >= qint64(faultKinds().at(std::size_t(f.kind)).holdSeconds) * kS)
        clearFault();
}

void Soak::countDownloads()
{
    for (int attempt = 0; attempt < 3; ++attempt) {
        bool ok = false;
        const QJsonArray requests = m_rig->serviceRequests(&ok);
        if (!ok)
            continue;
        m_record.downloadsNow = 0;
        for (const QJsonValue& request : requests) {
            const QJsonObject r = request.toObject();
            m_record.downloadsNow += r.value(QStringLiteral("path")).toString().startsWith(QLatin1String("/files/"))
                              && r.value(QStringLiteral("status")).toInt() == 200;
        }
        return;
    }
    ++m_record.requestLogsMissed;
}

bool Soak::restartService(QString* error)
{
    const Library& library = libraryFor(m_serviceState.value(QStringLiteral("version")).toString());
    for (int attempt = 0; attempt < 10; ++attempt) {
        if (m_rig->startService(m_serviceState.value(QStringLiteral("version")).toString(), library.source, error,
                                {QStringLiteral("--port"), QString::number(m_servicePort)}))
            return m_rig->setServiceState(m_serviceState, error);
        QThread::msleep(500);
    }
    return false;
}

void Soak::clearFault()
{
    FaultWindow& f = m_record.faults.back();
    f.to = nowNs();
    m_faultActive = false;
    m_nextFault++;
    m_nextFaultNs = f.to + qint64(m_options.faultEverySeconds) * kS;
    if (m_serviceDown) {
        m_serviceDown = false;
        m_serviceState.insert(QStringLiteral("fail"), QJsonArray());
        QString error;
        if (!restartService(&error))
            m_record.aborted = QStringLiteral("the update service did not start again on port %1: %2").arg(m_servicePort).arg(error);
        return;
    }
    applyService(QJsonObject{{QStringLiteral("fail"), QJsonArray()}});
}

} // namespace bench
