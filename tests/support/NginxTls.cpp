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

QString NginxTls::unavailable()
{
    QStringList missing;
    if (QStandardPaths::findExecutable(QStringLiteral("nginx"), {QStringLiteral("/usr/sbin"), QStringLiteral("/usr/bin")}).isEmpty())
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
                     .arg(program, arguments.join(QLatin1Char(' ')), QString::fromLocal8Bit(process.readAll()).trimmed(),
                          process.errorString());
        return false;
    }
    return true;
}

bool NginxTls::makeCertificates(QString* error)
{
    if (!writeBytes(m_dir + QStringLiteral("/ca.cnf"), kCaConfig.toUtf8()) || !writeBytes(m_dir + QStringLiteral("/index.txt"), "")
        || !writeBytes(m_dir + QStringLiteral("/serial"), "01\n") || !QDir().mkpath(m_dir + QStringLiteral("/issued"))) {
        *error = QStringLiteral("cannot write the certificate authority's files in %1").arg(m_dir);
        return false;
    }
    const QString openssl = QStringLiteral("openssl");
    const QStringList newKey{QStringLiteral("-newkey"), QStringLiteral("ec"), QStringLiteral("-pkeyopt"),
                             QStringLiteral("ec_paramgen_curve:prime256v1"), QStringLiteral("-nodes")};
    if (!run(openssl,
             QStringList{QStringLiteral("req"), QStringLiteral("-x509")} + newKey
                 + QStringList{QStringLiteral("-keyout"), QStringLiteral("ca.key"), QStringLiteral("-out"), QStringLiteral("ca.pem"),
                               QStringLiteral("-days"), QStringLiteral("2"), QStringLiteral("-subj"), QStringLiteral("/CN=Orvello Test CA"),
                               QStringLiteral("-addext"), QStringLiteral("basicConstraints=critical,CA:TRUE"),
                               QStringLiteral("-addext"), QStringLiteral("keyUsage=critical,keyCertSign,cRLSign")},
             error))
        return false;
    if (!run(openssl,
             QStringList{QStringLiteral("req"), QStringLiteral("-x509")} + newKey
                 + QStringList{QStringLiteral("-keyout"), QStringLiteral("self-signed.key"), QStringLiteral("-out"),
                               QStringLiteral("self-signed.pem"), QStringLiteral("-days"), QStringLiteral("2"),
                               QStringLiteral("-subj"), QStringLiteral("/CN=localhost"), QStringLiteral("-addext"),
                               QStringLiteral("subjectAltName=DNS:localhost,IP:127.0.0.1")},
             error))
        return false;
    struct Issued
    {
        Certificate certificate;
        QString names;
        QStringList validity;
    };
    const QStringList twoDays{QStringLiteral("-days"), QStringLiteral("2")};
    const QList<Issued> issued{
        {Certificate::Trusted, QStringLiteral("DNS:localhost,IP:127.0.0.1"), twoDays},
        {Certificate::OtherName, QStringLiteral("DNS:other.example"), twoDays},
        {Certificate::Expired, QStringLiteral("DNS:localhost,IP:127.0.0.1"),
         {QStringLiteral("-startdate"), QStringLiteral("20200101000000Z"), QStringLiteral("-enddate"), QStringLiteral("20200201000000Z")}},
    };
    for (const Issued& certificate : issued) {
        const QString base = name(certificate.certificate);
        const QString commonName = certificate.names.section(QLatin1Char(','), 0, 0).section(QLatin1Char(':'), 1);
        if (!run(openssl,
                 QStringList{QStringLiteral("req"), QStringLiteral("-new")} + newKey
                     + QStringList{QStringLiteral("-keyout"), base + QStringLiteral(".key"), QStringLiteral("-out"),
                                   base + QStringLiteral(".csr"), QStringLiteral("-subj"), QStringLiteral("/CN=") + commonName,
                                   QStringLiteral("-addext"), QStringLiteral("subjectAltName=") + certificate.names},
                 error)
            || !run(openssl,
                    QStringList{QStringLiteral("ca"), QStringLiteral("-batch"), QStringLiteral("-notext"), QStringLiteral("-config"),
                                QStringLiteral("ca.cnf"), QStringLiteral("-cert"), QStringLiteral("ca.pem"), QStringLiteral("-keyfile"),
                                QStringLiteral("ca.key"), QStringLiteral("-in"), base + QStringLiteral(".csr"), QStringLiteral("-out"),
                                base + QStringLiteral(".pem")}
                        + certificate.validity,
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
    if (!writeBytes(m_dir + QStringLiteral("/nginx.conf"), config.toUtf8()) || !QDir().mkpath(m_dir + QStringLiteral("/temp"))) {
        *error = QStringLiteral("cannot write nginx's configuration in %1").arg(m_dir);
        return false;
    }
    m_nginx.setProcessChannelMode(QProcess::MergedChannels);
    m_nginx.setWorkingDirectory(m_dir);
    const QString nginx = QStandardPaths::findExecutable(QStringLiteral("nginx"), {QStringLiteral("/usr/sbin"), QStringLiteral("/usr/bin")});
    m_nginx.start(nginx, {QStringLiteral("-p"), m_dir + QLatin1Char('/'), QStringLiteral("-c"), QStringLiteral("nginx.conf"),
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
                                  QString::fromLocal8Bit(fileBytes(m_dir + QStringLiteral("/error.log"))).trimmed());
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
    if (!QDir().mkpath(trust) || !QFile::copy(m_dir + QStringLiteral("/ca.pem"), trust + QStringLiteral("/orvello-test-ca.pem"))) {
        *error = QStringLiteral("cannot put the test authority into %1 (start() makes it)").arg(trust);
        return false;
    }
    if (!run(QStringLiteral("openssl"), {QStringLiteral("rehash"), trust}, error)
        || !run(QStringLiteral("mount"), {QStringLiteral("--bind"), trust, kSystemCertificates}, error))
        return false;
    m_trustMounted = true;
    return true;
}
