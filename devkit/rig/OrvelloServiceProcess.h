#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QProcess>
#include <QString>
#include <QStringList>

// The update service emulator (orvello-service) as a child process on loopback, for one test.
// Stopped (SIGTERM, then killed) when destroyed.
class OrvelloServiceProcess
{
public:
    OrvelloServiceProcess() = default;
    ~OrvelloServiceProcess();
    OrvelloServiceProcess(const OrvelloServiceProcess&) = delete;
    OrvelloServiceProcess& operator=(const OrvelloServiceProcess&) = delete;

    // Starts the service with these arguments and waits for its "listening on" line.
    // False (with the service's own output in error) when it does not come up.
    bool start(const QStringList& arguments, QString* error);
    int port() const { return m_port; }
    // "http://127.0.0.1:PORT" followed by path.
    QString url(const QString& path) const;

    // POST /admin/state; false with the service's answer in error when refused.
    bool setState(const QJsonObject& change, QString* error = nullptr);
    // GET /admin/requests: every non-admin request seen, in order.
    QJsonArray requests() const;

private:
    QProcess m_process;
    int m_port = 0;
};
