#pragma once

#include <QMap>
#include <QProcess>
#include <QString>

// A real HTTPS server in front of an HTTP one, for tests of the TLS path: nginx (Debian's
// nginx-light) as a child process, with a certificate authority and server certificates made
// by the openssl command when it starts. One https server on 127.0.0.1 per kind of certificate,
// each passing every request on to http://127.0.0.1:UPSTREAM. Stopped when destroyed.
class NginxTls
{
public:
    enum class Certificate {
        Trusted,    // for localhost and 127.0.0.1, issued by the test authority
        OtherName,  // issued by the test authority for other.example
        Expired,    // for localhost, issued by the test authority, valid only in January 2020
        SelfSigned, // for localhost, issued by nobody
    };

    // workDir: where the certificates, the configuration and nginx's logs go. Ports are chosen
    // here, so URLs are known before start().
    explicit NginxTls(const QString& workDir);
    ~NginxTls();
    NginxTls(const NginxTls&) = delete;
    NginxTls& operator=(const NginxTls&) = delete;

    // Makes the certificates and starts nginx in front of upstreamPort; returns once every
    // server accepts connections. False with the reason in error.
    bool start(int upstreamPort, QString* error);
    // "https://localhost:PORT" of the server with that certificate, followed by path. The
    // Trusted server also answers /to-http/PATH with a redirect to http://127.0.0.1:UPSTREAM/PATH.
    QString url(Certificate certificate, const QString& path) const;

    // Makes the test authority the only one that this process and its children trust (a bind
    // mount over the system's certificate directory, /etc/ssl/certs, where Qt and OpenSSL look).
    // Refused unless the process is root in a mount namespace of its own, so the machine's own
    // trust is never touched. Call it before the first TLS connection.
    bool trustAuthority(QString* error);

    // Empty when nginx and openssl are there to run; otherwise what is missing.
    static QString unavailable();

private:
    bool makeCertificates(QString* error);
    bool run(const QString& program, const QStringList& arguments, QString* error);
    bool openssl(const QString& arguments, QString* error);

    QString m_dir;
    QMap<Certificate, int> m_ports;
    QProcess m_nginx;
    bool m_trustMounted = false;
};

// True when this process runs in a mount namespace other than its parent's (tests/support/
// private-tmp), where mounts stay private to the test.
bool inPrivateMountNamespace();
