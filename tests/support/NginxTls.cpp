#include "NginxTls.h"

#include "TestFiles.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTcpSocket>

#include <unistd.h>

#include <memory>
#include <vector>

namespace {
const QString kSystemCertificates = QStringLiteral("/etc/ssl/certs");
constexpr int kStartMs = 10000;

const QString kCaConfig = QStringLiteral(R"([ ca ]
default_ca = test_ca
[ test_ca ]
dir = .
database = index.txt
new_certs_dir = issued
serial = serial
default_md = sha256
policy = any
copy_extensions = copy
unique_subject = no
[ any ]
commonName = supplied
)");

QString name(NginxTls::Certificate certificate)
{
    switch (certificate) {
    case NginxTls::Certificate::Trusted:
        return QStringLiteral("trusted");
    case NginxTls::Certificate::OtherName:
        return QStringLiteral("other-name");
    case NginxTls::Certificate::Expired:
        return QStringLiteral("expired");
    case NginxTls::Certificate::SelfSigned:
        return QStringLiteral("self-signed");
    }
    return QString();
}

const QList<NginxTls::Certificate> kCertificates{NginxTls::Certificate::Trusted, NginxTls::Certificate::OtherName,
                                                 NginxTls::Certificate::Expired, NginxTls::Certificate::SelfSigned};

QByteArray linkTarget(const QString& path)
{
    char target[256];
    const ssize_t length = ::readlink(QFile::encodeName(path).constData(), target, sizeof target);
    return length > 0 ? QByteArray(target, int(length)) : QByteArray();
}
} // namespace

bool inPrivateMountNamespace()
{
    const QByteArray own = linkTarget(QStringLiteral("/proc/self/ns/mnt"));
    const QByteArray parent = linkTarget(QStringLiteral("/proc/%1/ns/mnt").arg(::getppid()));
    return !own.isEmpty() && !parent.isEmpty() && own != parent;
}

// Debian puts nginx in /usr/sbin, which a test's PATH may lack.
static QString nginxProgram()
{
    return QStandardPaths::findExecutable(QStringLiteral("nginx"), {QStringLiteral("/usr/sbin"), QStringLiteral("/usr/bin")});
}

QString NginxTls::unavailable()
{
    QStringList missing;
    if (nginxProgram().isEmpty())
        missing << QStringLiteral("nginx (Debian package nginx-light)");
    if (QStandardPaths::findExecutable(QStringLiteral("openssl")).isEmpty())
        missing << QStringLiteral("openssl");
    return missing.isEmpty() ? QString() : QStringLiteral("not installed: ") + missing.join(QStringLiteral(", "));
}

NginxTls::NginxTls(const QString& workDir) : m_dir(workDir)
{
    QDir().mkpath(m_dir);
    // Held open together, so the four ports differ; nginx binds them a moment later.
    std::vector<std::unique_ptr<QTcpServer>> holders;
    for (const Certificate certificate : kCertificates) {
        holders.push_back(std::make_unique<QTcpServer>());
        holders.back()->listen(QHostAddress::LocalHost);
        m_ports.insert(certificate, holders.back()->serverPort());
    }
}

NginxTls::~NginxTls()
{
    if (m_nginx.state() != QProcess::NotRunning) {
        m_nginx.terminate();
        if (!m_nginx.waitForFinished(5000)) {
            m_nginx.kill();
            m_nginx.waitForFinished(5000);
        }
    }
    if (m_trustMounted)
        QProcess::execute(QStringLiteral("umount"), {QStringLiteral("-l"), kSystemCertificates});
}

QString NginxTls::url(Certificate certificate, const QString& path) const
{
    return QStringLiteral("https://localhost:%1%2").arg(m_ports.value(certificate)).arg(path);
}

bool NginxTls::run(const QString& program, const QStringList& arguments, QString* error)
{
    QProcess process;
    process.setWorkingDirectory(m_dir);
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, arguments);
    if (!process.waitForFinished(30000) || process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0) {
        *error = QStringLiteral("%1 %2 failed: %3 %4")
                     .arg(program, arguments.join(QLatin1Char(' ')),
                          QString::fromLocal8Bit(process.readAll()).trimmed(), process.errorString());
        return false;
    }
    return true;
}

// One openssl command, its arguments written as one line (none of them holds a blank).
bool NginxTls::openssl(const QString& arguments, QString* error)
{
    return run(QStringLiteral("openssl"), arguments.split(QLatin1Char(' '), Qt::SkipEmptyParts), error);
}

bool NginxTls::makeCertificates(QString* error)
{
    const QString dir = m_dir + QLatin1Char('/');
    if (!writeBytes(dir + QStringLiteral("ca.cnf"), kCaConfig.toUtf8())
        || !writeBytes(dir + QStringLiteral("index.txt"), "") || !writeBytes(dir + QStringLiteral("serial"), "01\n")
        || !QDir().mkpath(dir + QStringLiteral("issued"))) {
        *error = QStringLiteral("cannot write the certificate authority's files in %1").arg(m_dir);
        return false;
    }
    const QString newKey = QStringLiteral("-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes");
    const QString localhost = QStringLiteral("DNS:localhost,IP:127.0.0.1");
    if (!openssl(QStringLiteral("req -x509 %1 -keyout ca.key -out ca.pem -days 2 -subj /CN=Orvello-Test-CA "
                                "-addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign,cRLSign")
                     .arg(newKey),
                 error)
        || !openssl(QStringLiteral("req -x509 %1 -keyout self-signed.key -out self-signed.pem -days 2 -subj /CN=localhost "
                                   "-addext subjectAltName=%2")
                        .arg(newKey, localhost),
                    error))
        return false;
    struct Issued
    {
        Certificate certificate;
        QString names;
        QString validity;
    };
    const QList<Issued> issued{
        {Certificate::Trusted, localhost, QStringLiteral("-days 2")},
        {Certificate::OtherName, QStringLiteral("DNS:other.example"), QStringLiteral("-days 2")},
        {Certificate::Expired, localhost, QStringLiteral("-startdate 20200101000000Z -enddate 20200201000000Z")},
    };
    for (const Issued& certificate : issued) {
        const QString base = name(certificate.certificate);
        const QString commonName = certificate.names.section(QLatin1Char(','), 0, 0).section(QLatin1Char(':'), 1);
        if (!openssl(QStringLiteral("req -new %1 -keyout %2.key -out %2.csr -subj /CN=%3 -addext subjectAltName=%4")
                         .arg(newKey, base, commonName, certificate.names),
                     error)
            || !openssl(QStringLiteral("ca -batch -notext -config ca.cnf -cert ca.pem -keyfile ca.key -in %1.csr "
                                       "-out %1.pem %2")
                            .arg(base, certificate.validity),
                        error))
            return false;
    }
    return true;
}

bool NginxTls::start(int upstreamPort, QString* error)
{
    if (!makeCertificates(error))
        return false;
    const QString upstream = QStringLiteral("http://127.0.0.1:%1").arg(upstreamPort);
    QString servers;
    for (const Certificate certificate : kCertificates) {
        const QString base = name(certificate);
        servers += QStringLiteral(R"(
  server {
    listen 127.0.0.1:%1 ssl;
    ssl_certificate %2.pem;
    ssl_certificate_key %2.key;
    location / { proxy_pass %3; proxy_buffering off; }
    location /to-http/ { rewrite ^/to-http/(.*)$ %3/$1 redirect; }
  })")
                       .arg(m_ports.value(certificate))
                       .arg(base, upstream);
    }
    const QString config = QStringLiteral(R"(daemon off;
master_process off;
worker_processes 1;
pid nginx.pid;
events { worker_connections 64; }
http {
  access_log access.log;
  client_body_temp_path temp/body;
  proxy_temp_path temp/proxy;
  fastcgi_temp_path temp/fastcgi;
  uwsgi_temp_path temp/uwsgi;
  scgi_temp_path temp/scgi;%1
}
)")
                               .arg(servers);
    const QString dir = m_dir + QLatin1Char('/');
    if (!writeBytes(dir + QStringLiteral("nginx.conf"), config.toUtf8()) || !QDir().mkpath(dir + QStringLiteral("temp"))) {
        *error = QStringLiteral("cannot write nginx's configuration in %1").arg(m_dir);
        return false;
    }
    m_nginx.setProcessChannelMode(QProcess::MergedChannels);
    m_nginx.setWorkingDirectory(m_dir);
    m_nginx.start(nginxProgram(), {QStringLiteral("-p"), dir, QStringLiteral("-c"), QStringLiteral("nginx.conf"),
                                   QStringLiteral("-e"), QStringLiteral("error.log")});
    const QDeadlineTimer deadline(kStartMs);
    for (const Certificate certificate : kCertificates) {
        for (;;) {
            QTcpSocket probe;
            probe.connectToHost(QHostAddress::LocalHost, quint16(m_ports.value(certificate)));
            if (probe.waitForConnected(500))
                break;
            if (m_nginx.state() == QProcess::NotRunning || deadline.hasExpired()) {
                *error = QStringLiteral("nginx did not start: %1 %2")
                             .arg(QString::fromLocal8Bit(m_nginx.readAll()).trimmed(),
                                  QString::fromLocal8Bit(fileBytes(dir + QStringLiteral("error.log"))).trimmed());
                return false;
            }
            m_nginx.waitForFinished(50); // nginx is still binding: a moment, unless it ends
        }
    }
    return true;
}

bool NginxTls::trustAuthority(QString* error)
{
    if (::getuid() != 0 || !inPrivateMountNamespace()) {
        *error = QStringLiteral("trusting the test authority needs root in a private mount namespace "
                                "(tests/support/private-tmp), so the machine's own trust is never changed");
        return false;
    }
    const QString trust = m_dir + QStringLiteral("/trust");
    if (!QDir().mkpath(trust)
        || !QFile::copy(m_dir + QStringLiteral("/ca.pem"), trust + QStringLiteral("/orvello-test-ca.pem"))) {
        *error = QStringLiteral("cannot put the test authority into %1 (start() makes it)").arg(trust);
        return false;
    }
    if (!run(QStringLiteral("openssl"), {QStringLiteral("rehash"), trust}, error)
        || !run(QStringLiteral("mount"), {QStringLiteral("--bind"), trust, kSystemCertificates}, error))
        return false;
    m_trustMounted = true;
    return true;
}
