#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QVariantHash>

#include <memory>

class OrvelloServiceProcess;

// Runs an emulated device for scripts and end-to-end tests: the update service emulator and
// vrax-host as child processes, with the host's control API as a client. Children never outlive
// the rig (the service stops when its standard input closes; the host is stopped on destruction).
class DeviceRig
{
public:
    struct Paths
    {
        QString host;         // vrax-host
        QString module;       // liborvello.so
        QString service;      // orvello-service
    };
    struct Answer
    {
        int status = 0;       // HTTP status, 0 when the host could not be reached
        QJsonObject body;
        QJsonArray array;     // the body when it is an array
        bool ok() const { return status == 200; }
        QString errorMessage() const;
    };

    DeviceRig(const Paths& paths, const QString& workDir);
    ~DeviceRig();

    const QString& workDir() const { return m_workDir; }
    // The host's data directory (its working directory).
    QString dataDir() const;
    // Where the module looks for a library in a developer build tree, seen from the data directory.
    QString devTreeLibraryPath() const;

    // Starts orvello-service (OrvelloServiceProcess) offering version with the library file
    // (copied into the service's directory), signing its documents with the repository's test
    // keys. arguments are added to its command line (--fail MODE, --port N). A service already
    // running is stopped first. Its log goes to WORKDIR/service.log. False with the reason in error.
    bool startService(const QString& version, const QString& libraryFile, QString* error,
                      const QStringList& arguments = {});
    // The service's port, 0 before it started; a killed service keeps its port.
    int servicePort() const;
    QString versionUrl() const;
    // The directory the service serves files from.
    QString serviceDir() const;
    // POST /admin/state (version, library, fail); false with the service's answer in error.
    bool setServiceState(const QJsonObject& change, QString* error);
    // The service's non-admin requests so far (GET /admin/requests); ok (when given) is false
    // when the service did not answer.
    QJsonArray serviceRequests(bool* ok = nullptr);
    // SIGKILL, as a service that vanishes mid-answer.
    void killService();

    // Writes the settings (path -> plain value) and starts vrax-host on them. env: extra
    // environment of the host (the reference library reads its own variables).
    bool startHost(const QVariantHash& settings, const QString& audioOut, const QString& pace,
                   const QStringList& env, QString* error);
    // Command-line arguments added to those of the next startHost (for example --trace FILE).
    void setExtraHostArguments(const QStringList& arguments) { m_extraHostArguments = arguments; }
    // The running host's control port (its web page is at /), 0 before it started.
    int controlPort() const { return m_controlPort; }
    // Starts vrax-host again with the arguments and environment of the last startHost, on the
    // settings file as the device left it.
    bool restartHost(QString* error);
    // SIGTERM and wait; the host's exit code, or -1 when it did not end in time or crashed.
    int stopHost();
    // Waits up to timeoutMs for the host to end by itself (after a signal sent from outside);
    // its exit code, or -1 when it crashed or is still running.
    int waitForHostExit(int timeoutMs);
    bool hostRunning() const;
    // The running host's process id, 0 when there is none.
    qint64 hostPid() const;
    // Log lines the host has written so far (its standard error).
    QStringList hostLog();
    // True when the host's log has a line containing text (waits up to timeoutMs).
    bool waitForLog(const QString& text, int timeoutMs);

    // The module that the next startHost loads (instead of Paths::module).
    void setModule(const QString& module) { m_paths.module = module; }

    Answer get(const QString& path);
    Answer post(const QString& path, const QJsonObject& body);
    // POST /api/value of a plain value.
    Answer setValue(const QString& path, const QJsonValue& value);

private:
    Answer request(const QByteArray& method, const QString& path, const QByteArray& body);
    bool launchHost(QString* error);
    int finishedHostCode();
    void readHostLog();
    void stopService();

    Paths m_paths;
    QString m_workDir;
    std::unique_ptr<OrvelloServiceProcess> m_service;
    std::unique_ptr<QProcess> m_host;
    int m_controlPort = 0;
    QStringList m_extraHostArguments;
    QStringList m_hostArguments;
    QProcessEnvironment m_hostEnvironment;
    QStringList m_hostLog;
    QByteArray m_partialLine;
};
