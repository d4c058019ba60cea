#include "Service.h"

#include <QCryptographicHash>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>

namespace {

constexpr size_t kChunkBytes = 64 * 1024;
// Just over the 16 MiB that devices accept.
constexpr size_t kOversizedBytes = 16 * 1024 * 1024 + kChunkBytes;
constexpr int kLongVersionLength = 1000;
// What a version or link with control characters carries: a whole log line of its own.
const QString kForgedLine = QStringLiteral("\n12:00:00.000 INFO  [Orvello] Running SDK version: 6.6.6-forged");
const char* const kDeviceHeaders[] = {"X-Device-Key-0", "X-Device-Id-0", "X-Device-Vendor"};

void delay(int ms)
{
    if (ms > 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

// kLongVersionLength characters that sort after version, so a device takes it for newer.
QString longVersion(const QString& version)
{
    return (version + QStringLiteral(".9")).leftJustified(kLongVersionLength, QLatin1Char('9'), true);
}

std::string errorBody(const std::string& why)
{
    return QJsonDocument(QJsonObject{{QStringLiteral("error"), QString::fromStdString(why)}})
        .toJson(QJsonDocument::Compact)
        .toStdString();
}

QByteArray fileSha256Hex(const QString& path, QString* error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("cannot read %1: %2").arg(path, file.errorString());
        return QByteArray();
    }
    QCryptographicHash hash(QCryptographicHash::Sha256);
    hash.addData(&file);
    return hash.result().toHex();
}

} // namespace

bool checkLibrary(const QString& dir, const QString& name, QString* error)
{
    if (name.isEmpty() || name.contains(QLatin1Char('/'))) {
        *error = QStringLiteral("library '%1' must be a file name inside the directory").arg(name);
        return false;
    }
    const QFileInfo info(dir + QLatin1Char('/') + name);
    if (!info.isFile() || !info.isReadable()) {
        *error = QStringLiteral("library '%1' is not a readable file").arg(info.filePath());
        return false;
    }
    return true;
}

Service::Service(QString dir, QString version, QString library, Faults faults, Keys keys)
    : m_server(devkit::LocalHttpServer::Limits(), errorBody)
    , m_dir(std::move(dir))
    , m_keys(std::move(keys))
    , m_version(std::move(version))
    , m_library(std::move(library))
    , m_faults(std::move(faults))
{
    // It serves no pages: nothing of it may run or be framed in a browser.
    m_server.setContentSecurityPolicy("default-src 'none'; frame-ancestors 'none'");
    m_server.onRefused([](const std::string& line) {
        std::fprintf(stderr, "orvello-service: %s\n", line.c_str());
        std::fflush(stderr);
    });
    m_server.Get("/config.json", [this](const httplib::Request&, httplib::Response& res) { serveConfig(res); });
    m_server.Get(R"(/files/([^/]+))", [this](const httplib::Request& req, httplib::Response& res) {
        serveFile(req.matches[1].str(), res);
    });
    m_server.Get("/admin/state", [this](const httplib::Request&, httplib::Response& res) { sendState(res); });
    m_server.Post("/admin/state", [this](const httplib::Request& req, httplib::Response& res) { changeState(req, res); });
    m_server.Get("/admin/requests", [this](const httplib::Request&, httplib::Response& res) { sendRequests(res); });
    // Without SO_REUSEPORT (httplib's default sets it), a busy port is refused.
    m_server.set_socket_options([](socket_t sock) {
        int on = 1;
        setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    });
    m_server.set_logger([this](const httplib::Request& req, const httplib::Response& res) { logRequest(req, res); });
}

bool Service::bind(int port, int* boundPort)
{
    if (port == 0) {
        *boundPort = m_server.bind_to_any_port("127.0.0.1");
        return *boundPort > 0;
    }
    *boundPort = port;
    return m_server.bind_to_port("127.0.0.1", port);
}

void Service::setPort(int port)
{
    m_port = port;
    m_server.setOwnPort(port);
}

void Service::serveConfig(httplib::Response& res)
{
    const Faults faults = currentFaults();
    const auto [version, library] = currentOffer();
    delay(faults.configDelayMs);
    if (faults.configStatus) {
        res.status = faults.configStatus;
        res.set_content("configuration unavailable\n", "text/plain");
        return;
    }
    if (faults.configEmpty) {
        res.set_content("", "application/json");
        return;
    }
    if (faults.configNotJson) {
        res.set_content("version=" + version.toStdString() + "\n", "application/json");
        return;
    }
    if (faults.configMissingFields) {
        res.set_content("{}", "application/json");
        return;
    }
    if (faults.configWrongTypes) {
        res.set_content(R"({"version": 110, "link": ["not", "a", "link"], "checksum": false})", "application/json");
        return;
    }
    if (faults.configEndless) {
        // No length, no end: a device that reads it whole never stops reading.
        res.set_chunked_content_provider("application/json", [version](size_t offset, httplib::DataSink& sink) {
            static const std::string padding(kChunkBytes, 'x');
            if (offset == 0) {
                const std::string start = R"({"version": ")" + version.toStdString() + R"(", "padding": ")";
                return sink.write(start.data(), start.size());
            }
            return sink.write(padding.data(), padding.size());
        });
        return;
    }
    QString error;
    QByteArray checksum = faults.wrongChecksum
        ? QCryptographicHash::hash("not the library", QCryptographicHash::Sha256).toHex()
        : fileSha256Hex(m_dir + QLatin1Char('/') + library, &error);
    if (!error.isEmpty()) {
        res.status = 500;
        res.set_content(error.toStdString() + "\n", "text/plain");
        return;
    }
    const QString offered = faults.configLongVersion ? longVersion(version)
        : faults.configControlVersion                ? version + kForgedLine
                                                     : version;
    const QString base = m_publicUrl.isEmpty() ? QStringLiteral("http://127.0.0.1:%1").arg(m_port) : m_publicUrl;
    QJsonObject document{
        {QStringLiteral("version"), offered},
        {QStringLiteral("link"), base + QStringLiteral("/files/") + library + (faults.configControlLink ? kForgedLine : QString())},
        {QStringLiteral("checksum"), QString::fromLatin1(faults.uppercaseChecksum ? checksum.toUpper() : checksum)},
    };
    const std::shared_ptr<Signer> signer = faults.signatureOtherKey ? m_keys.otherSigner : m_keys.signer;
    if (signer && !faults.signatureMissing)
        document.insert(QStringLiteral("signature"),
                        signer->sign(faults.signatureVersion.value_or(offered), checksum));
    const std::string body = QJsonDocument(document).toJson(QJsonDocument::Compact).toStdString();
    if (faults.configDripMs > 0) {
        // One byte at a time, each after a pause: never idle for long, never done.
        const int dripMs = faults.configDripMs;
        res.set_chunked_content_provider("application/json", [body, dripMs](size_t offset, httplib::DataSink& sink) {
            if (offset >= body.size()) {
                sink.done();
                return true;
            }
            if (offset > 0)
                delay(dripMs);
            return sink.write(body.data() + offset, 1);
        });
        return;
    }
    res.set_content(body, "application/json");
}

void Service::serveFile(const std::string& name, httplib::Response& res)
{
    const Faults faults = currentFaults();
    delay(faults.libraryDelayMs);
    if (faults.libraryStatus) {
        res.status = faults.libraryStatus;
        res.set_content("library unavailable\n", "text/plain");
        return;
    }
    if (faults.libraryOversized || faults.libraryOversizedChunked) {
        auto produce = [](size_t offset, httplib::DataSink& sink) {
            if (offset >= kOversizedBytes) {
                sink.done();
                return true;
            }
            static const std::string chunk(kChunkBytes, '\x5a');
            return sink.write(chunk.data(), std::min(kChunkBytes, kOversizedBytes - offset));
        };
        if (faults.libraryOversizedChunked)
            res.set_chunked_content_provider("application/octet-stream", produce);
        else
            res.set_content_provider(kOversizedBytes, "application/octet-stream",
                                     [produce](size_t offset, size_t, httplib::DataSink& sink) {
                                         return produce(offset, sink);
                                     });
        return;
    }
    QString error;
    const QString qname = QString::fromStdString(name);
    if (!checkLibrary(m_dir, qname, &error)) {
        res.status = 404;
        res.set_content(error.toStdString() + "\n", "text/plain");
        return;
    }
    auto file = std::make_shared<QFile>(m_dir + QLatin1Char('/') + qname);
    if (!file->open(QIODevice::ReadOnly)) {
        res.status = 500;
        res.set_content(file->errorString().toStdString() + "\n", "text/plain");
        return;
    }
    const size_t size = static_cast<size_t>(file->size());
    const size_t sendUpTo = faults.libraryTruncated ? size / 2 : size;
    const size_t stallAt = faults.libraryStallMs > 0 ? size / 2 : size;
    const int stallMs = faults.libraryStallMs;
    res.set_content_provider(size, "application/octet-stream",
                             [file, sendUpTo, stallAt, stallMs](size_t offset, size_t length, httplib::DataSink& sink) {
                                 if (offset >= sendUpTo)
                                     return false; // closes the connection mid-body
                                 if (offset == stallAt)
                                     delay(stallMs);
                                 length = std::min(length, offset < stallAt ? stallAt - offset : length);
                                 QByteArray block(static_cast<int>(std::min({length, kChunkBytes, sendUpTo - offset})),
                                                  Qt::Uninitialized);
                                 if (!file->seek(static_cast<qint64>(offset))
                                     || file->read(block.data(), block.size()) != block.size())
                                     return false;
                                 return sink.write(block.constData(), static_cast<size_t>(block.size()));
                             });
}

void Service::sendState(httplib::Response& res)
{
    const Faults faults = currentFaults();
    const auto [version, library] = currentOffer();
    const QJsonObject state{
        {QStringLiteral("version"), version},
        {QStringLiteral("library"), library},
        {QStringLiteral("fail"), QJsonArray::fromStringList(faults.modes)},
    };
    res.set_content(QJsonDocument(state).toJson(QJsonDocument::Compact).toStdString(), "application/json");
}

void Service::changeState(const httplib::Request& req, httplib::Response& res)
{
    auto refuse = [&res](const QString& why) {
        res.status = 400;
        res.set_content(errorBody(why.toStdString()), "application/json");
    };
    QJsonParseError parseError;
    const QJsonDocument doc = QJsonDocument::fromJson(QByteArray::fromStdString(req.body), &parseError);
    if (!doc.isObject())
        return refuse(QStringLiteral("body must be a JSON object: %1").arg(parseError.errorString()));
    const QJsonObject change = doc.object();
    Faults faults;
    const bool setFaults = change.contains(QStringLiteral("fail"));
    if (setFaults) {
        if (!change.value(QStringLiteral("fail")).isArray())
            return refuse(QStringLiteral("\"fail\" must be an array of failure modes"));
        for (const QJsonValue& mode : change.value(QStringLiteral("fail")).toArray()) {
            QString error;
            if (!mode.isString() || !addFault(faults, mode.toString(), &error))
                return refuse(error.isEmpty() ? QStringLiteral("failure modes must be strings") : error);
        }
        const QString missing = missingForFaults(faults, m_keys.otherSigner != nullptr);
        if (!missing.isEmpty())
            return refuse(missing);
    }
    const QJsonValue version = change.value(QStringLiteral("version"));
    if (!version.isUndefined() && !version.isString())
        return refuse(QStringLiteral("\"version\" must be a string"));
    const QJsonValue library = change.value(QStringLiteral("library"));
    if (!library.isUndefined()) {
        QString error;
        if (!library.isString() || !checkLibrary(m_dir, library.toString(), &error))
            return refuse(error.isEmpty() ? QStringLiteral("\"library\" must be a string") : error);
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (setFaults)
            m_faults = faults;
        if (version.isString())
            m_version = version.toString();
        if (library.isString())
            m_library = library.toString();
    }
    sendState(res);
}

void Service::sendRequests(httplib::Response& res)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    res.set_content(QJsonDocument(m_requests).toJson(QJsonDocument::Compact).toStdString(), "application/json");
}

void Service::logRequest(const httplib::Request& req, const httplib::Response& res)
{
    if (req.path.rfind("/admin/", 0) == 0)
        return;
    QJsonObject entry{
        {QStringLiteral("method"), QString::fromStdString(req.method)},
        {QStringLiteral("path"), QString::fromStdString(req.path)},
        {QStringLiteral("status"), res.status},
    };
    std::string line = req.method + " " + req.path + " " + std::to_string(res.status);
    for (const char* name : kDeviceHeaders) {
        const bool present = req.has_header(name);
        const std::string value = req.get_header_value(name);
        if (present)
            entry.insert(QString::fromLatin1(name), QString::fromStdString(value));
        line += std::string(" ") + name + (present ? "=\"" + value + "\"" : "=<absent>");
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_requests.append(entry);
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

Faults Service::currentFaults()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_faults;
}

std::pair<QString, QString> Service::currentOffer()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return {m_version, m_library};
}
