#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QProcess>
#include <QString>
#include <QStringList>

// The update service emulator (orvello-service) as a child process on loopback: the one way the
// rig, the tests and the benchmarks start it. It runs with --stop-on-eof, so it ends when this
// process's end of its standard input closes and never outlives its starter, however that ends.
// Stopped when destroyed. Used on one thread; every call waits on that thread.
class OrvelloServiceProcess
{
public:
    // program: the orvello-service to run. logFile: where its standard error goes; when empty it
    // is kept for the message of a start that fails.
    explicit OrvelloServiceProcess(const QString& program, const QString& logFile = QString());
    ~OrvelloServiceProcess();
    OrvelloServiceProcess(const OrvelloServiceProcess&) = delete;
    OrvelloServiceProcess& operator=(const OrvelloServiceProcess&) = delete;

    // The repository's test keys (devkit/keys) as arguments: every document is signed with the
    // key the modules built here trust, and the signature-other-key mode signs with the other.
    static QStringList testKeyArguments();

    // Starts the service (once) with these arguments and waits for its "listening on" line.
    // False with the reason, and what it said on standard error, in error.
    bool start(const QStringList& arguments, QString* error);
    // The port it listens on; it stays what it was after stop() or kill().
    int port() const { return m_port; }
    // "http://127.0.0.1:PORT" followed by path.
    QString url(const QString& path) const;

    // POST /admin/state (version, library, fail); false with the service's answer in error.
    bool setState(const QJsonObject& change, QString* error = nullptr);
    // GET /admin/requests: every non-admin request it has seen, in order; ok (when given) is
    // false when it did not answer.
    QJsonArray requests(bool* ok = nullptr) const;

    // Closes its standard input and waits for it to end; killed after 5 s.
    void stop();
    // SIGKILL, as a service that vanishes mid-answer.
    void kill();

private:
    QProcess m_process;
    QString m_logFile;
    int m_port = 0;
};
