#pragma once

#include "Faults.h"
#include "LocalHttpServer.h"
#include "Signer.h"

#include <QJsonArray>
#include <QString>

#include <memory>
#include <mutex>
#include <utility>

// Whether name is a regular, readable file directly inside dir; false with the reason in error.
bool checkLibrary(const QString& dir, const QString& name, QString* error);

struct Keys
{
    std::shared_ptr<Signer> signer;      // none: documents go out unsigned
    std::shared_ptr<Signer> otherSigner; // for signature-other-key
};

// The update service on 127.0.0.1: the configuration document at /config.json (signed when
// given a key), the library files of dir at /files/NAME, and the admin API (/admin/state to read
// or change the offer and the failure modes, /admin/requests for the requests seen so far).
// Every request but the admin API's is logged to standard output with the device headers.
//
// Threads: bind, setPort and setPublicUrl before run(), which serves on the server's threads
// until stop() (from any thread). The offer, the failure modes and the request log are guarded
// by one mutex.
class Service
{
public:
    Service(QString dir, QString version, QString library, Faults faults, Keys keys);

    // Binds 127.0.0.1:port, a free port for 0; boundPort says which.
    bool bind(int port, int* boundPort);
    // The bound port: the one requests must name in their Host header, and in the links.
    void setPort(int port);
    // Where devices reach the service (links start with it); empty: http://127.0.0.1:PORT.
    void setPublicUrl(const QString& url) { m_publicUrl = url; }
    // Serves until stop(); false when the server could not run.
    bool run() { return m_server.listen_after_bind(); }
    void stop() { m_server.stop(); }

private:
    void serveConfig(httplib::Response& res);
    void serveFile(const std::string& name, httplib::Response& res);
    void sendState(httplib::Response& res);
    // {"version": V, "library": FILE, "fail": [MODE, ...]}: each given key replaces its part
    // of the state; "fail": [] clears every failure.
    void changeState(const httplib::Request& req, httplib::Response& res);
    void sendRequests(httplib::Response& res);
    void logRequest(const httplib::Request& req, const httplib::Response& res);
    Faults currentFaults();
    std::pair<QString, QString> currentOffer();

    devkit::LocalHttpServer m_server;
    const QString m_dir;
    const Keys m_keys;
    int m_port = 0;
    QString m_publicUrl;
    std::mutex m_mutex;
    QString m_version;
    QString m_library;
    Faults m_faults;
    QJsonArray m_requests;
};
