// orvello-service: the Orvello Streams update service on loopback, for tests and the demo.
// Serves the configuration document (signed, given a key) and the library files of one
// directory, logs every request with the device headers, and fails on demand.
#include "LocalHttpServer.h"

#include <openssl/evp.h>
#include <openssl/pem.h>

#include <QByteArray>
#include <QCryptographicHash>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QString>
#include <QStringList>
#include <QUrl>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <pthread.h>
#include <unistd.h>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr size_t kChunkBytes = 64 * 1024;
// Just over the 16 MiB that devices accept.
constexpr size_t kOversizedBytes = 16 * 1024 * 1024 + kChunkBytes;
constexpr int kLongVersionLength = 1000;
// What a version or link with control characters carries: a whole log line of its own.
const QString kForgedLine = QStringLiteral("\n12:00:00.000 INFO  [Orvello] Running SDK version: 6.6.6-forged");
const char* const kDeviceHeaders[] = {"X-Device-Key-0", "X-Device-Id-0", "X-Device-Vendor"};

const char* const kUsage =
    "usage: orvello-service --dir DIR --version VERSION --library FILE [--port N] [--fail MODE ...]\n"
    "                       [--signing-key FILE] [--other-signing-key FILE] [--public-url URL]\n"
    "                       [--stop-on-eof]\n"
    "  --dir DIR          directory whose files are served under /files/\n"
    "  --version VERSION  library version that the configuration document offers\n"
    "  --library FILE     file in DIR that the document links to\n"
    "  --port N           port on 127.0.0.1 (default 0: a free port)\n"
    "  --signing-key FILE Ed25519 private key (PEM) that signs every document\n"
    "  --other-signing-key FILE  a second key, for the signature-other-key mode\n"
    "  --public-url URL   where devices reach this service (links start with it;\n"
    "                     default http://127.0.0.1:PORT), for a TLS proxy in front\n"
    "  --fail MODE        config-status=CODE library-status=CODE config-delay=MS library-delay=MS\n"
    "                     library-stall=MS config-empty config-not-json config-missing-fields\n"
    "                     config-wrong-types config-long-version library-truncated library-oversized\n"
    "                     library-oversized-chunked wrong-checksum uppercase-checksum\n"
    "                     signature-missing signature-other-key signature-version=TEXT\n"
    "                     config-endless config-drip=MS config-control-version config-control-link\n"
    "  --stop-on-eof      stop when standard input ends (the starting process went away)\n";

// What the service is told to get wrong; every field off by default.
struct Faults
{
    int configStatus = 0;
    int libraryStatus = 0;
    int configDelayMs = 0;
    int libraryDelayMs = 0;
    int libraryStallMs = 0;
    bool configEmpty = false;
    bool configNotJson = false;
    bool configMissingFields = false;
    bool configWrongTypes = false;
    bool configLongVersion = false;
    bool libraryTruncated = false;
    bool libraryOversized = false;
    bool libraryOversizedChunked = false;
    bool wrongChecksum = false;
    bool uppercaseChecksum = false;
    bool signatureMissing = false;
    bool signatureOtherKey = false;
    std::optional<QString> signatureVersion; // signed instead of the offered version
    bool configEndless = false;
    int configDripMs = 0;
    bool configControlVersion = false;
    bool configControlLink = false;
    QStringList modes;
};

bool parseNumber(const QString& text, int min, int max, int* value)
{
    bool ok = false;
    const int number = text.toInt(&ok);
    if (!ok || number < min || number > max)
        return false;
    *value = number;
    return true;
}

// Adds one failure mode; false with a message when the mode is unknown or malformed.
bool addFault(Faults& faults, const QString& mode, QString* error)
{
    const int eq = mode.indexOf(QLatin1Char('='));
    const QString name = eq < 0 ? mode : mode.left(eq);
    const QString argument = eq < 0 ? QString() : mode.mid(eq + 1);
    const bool hasArgument = eq >= 0;
    bool ok = true;
    if (name == QLatin1String("config-status"))
        ok = hasArgument && parseNumber(argument, 100, 599, &faults.configStatus);
    else if (name == QLatin1String("library-status"))
        ok = hasArgument && parseNumber(argument, 100, 599, &faults.libraryStatus);
    else if (name == QLatin1String("config-delay"))
        ok = hasArgument && parseNumber(argument, 0, 600000, &faults.configDelayMs);
    else if (name == QLatin1String("library-delay"))
        ok = hasArgument && parseNumber(argument, 0, 600000, &faults.libraryDelayMs);
    else if (name == QLatin1String("library-stall"))
        ok = hasArgument && parseNumber(argument, 0, 600000, &faults.libraryStallMs);
    else if (name == QLatin1String("config-drip"))
        ok = hasArgument && parseNumber(argument, 1, 600000, &faults.configDripMs);
    else if (name == QLatin1String("signature-version") && hasArgument)
        faults.signatureVersion = argument;
    else if (hasArgument)
        ok = false;
    else if (name == QLatin1String("config-empty"))
        faults.configEmpty = true;
    else if (name == QLatin1String("config-not-json"))
        faults.configNotJson = true;
    else if (name == QLatin1String("config-missing-fields"))
        faults.configMissingFields = true;
    else if (name == QLatin1String("config-wrong-types"))
        faults.configWrongTypes = true;
    else if (name == QLatin1String("config-long-version"))
        faults.configLongVersion = true;
    else if (name == QLatin1String("library-truncated"))
        faults.libraryTruncated = true;
    else if (name == QLatin1String("library-oversized"))
        faults.libraryOversized = true;
    else if (name == QLatin1String("library-oversized-chunked"))
        faults.libraryOversizedChunked = true;
    else if (name == QLatin1String("wrong-checksum"))
        faults.wrongChecksum = true;
    else if (name == QLatin1String("uppercase-checksum"))
        faults.uppercaseChecksum = true;
    else if (name == QLatin1String("signature-missing"))
        faults.signatureMissing = true;
    else if (name == QLatin1String("signature-other-key"))
        faults.signatureOtherKey = true;
    else if (name == QLatin1String("config-endless"))
        faults.configEndless = true;
    else if (name == QLatin1String("config-control-version"))
        faults.configControlVersion = true;
    else if (name == QLatin1String("config-control-link"))
        faults.configControlLink = true;
    else {
        *error = QStringLiteral("unknown failure mode '%1'").arg(mode);
        return false;
    }
    if (!ok) {
        *error = QStringLiteral("malformed failure mode '%1'").arg(mode);
        return false;
    }
    faults.modes << mode;
    return true;
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

// A regular, readable file named name directly inside dir.
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

// An Ed25519 private key that signs documents: the signature of version, a line feed and the
// lowercase checksum, as devices check it, in base64.
class Signer
{
public:
    // Reads a PEM private key as `openssl genpkey -algorithm ed25519` writes it.
    static std::shared_ptr<Signer> load(const QString& path, QString* error)
    {
        const QByteArray encodedPath = QFile::encodeName(path);
        std::FILE* file = std::fopen(encodedPath.constData(), "rb");
        if (!file) {
            *error = QStringLiteral("cannot read the signing key %1").arg(path);
            return nullptr;
        }
        EVP_PKEY* key = PEM_read_PrivateKey(file, nullptr, nullptr, nullptr);
        std::fclose(file);
        if (!key || EVP_PKEY_id(key) != EVP_PKEY_ED25519) {
            EVP_PKEY_free(key);
            *error = QStringLiteral("%1 is not an Ed25519 private key in PEM").arg(path);
            return nullptr;
        }
        return std::shared_ptr<Signer>(new Signer(key));
    }
    ~Signer() { EVP_PKEY_free(m_key); }
    Signer(const Signer&) = delete;
    Signer& operator=(const Signer&) = delete;

    QString sign(const QString& version, const QByteArray& checksum) const
    {
        const QByteArray message = version.toUtf8() + '\n' + checksum.toLower();
        unsigned char signature[64];
        size_t length = sizeof signature;
        EVP_MD_CTX* context = EVP_MD_CTX_new();
        const bool ok = context && EVP_DigestSignInit(context, nullptr, nullptr, nullptr, m_key) == 1
            && EVP_DigestSign(context, signature, &length, reinterpret_cast<const unsigned char*>(message.constData()),
                              size_t(message.size())) == 1;
        EVP_MD_CTX_free(context);
        if (!ok)
            return QString();
        return QString::fromLatin1(QByteArray(reinterpret_cast<const char*>(signature), int(length)).toBase64());
    }

private:
    explicit Signer(EVP_PKEY* key) : m_key(key) {}
    EVP_PKEY* m_key;
};

// A mode that needs something the service was not started with; empty when none does.
QString missingForFaults(const Faults& faults, bool hasOtherKey)
{
    if (faults.signatureOtherKey && !hasOtherKey)
        return QStringLiteral("signature-other-key needs --other-signing-key");
    return QString();
}

struct Keys
{
    std::shared_ptr<Signer> signer;      // none: documents go out unsigned
    std::shared_ptr<Signer> otherSigner; // for signature-other-key
};

class Service
{
public:
    Service(QString dir, QString version, QString library, Faults faults, Keys keys)
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

    bool bind(int port, int* boundPort)
    {
        if (port == 0) {
            *boundPort = m_server.bind_to_any_port("127.0.0.1");
            return *boundPort > 0;
        }
        *boundPort = port;
        return m_server.bind_to_port("127.0.0.1", port);
    }
    void setPort(int port)
    {
        m_port = port;
        m_server.setOwnPort(port);
    }
    void setPublicUrl(const QString& url) { m_publicUrl = url; }
    bool run() { return m_server.listen_after_bind(); }
    void stop() { m_server.stop(); }

private:
    void serveConfig(httplib::Response& res)
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

    void serveFile(const std::string& name, httplib::Response& res)
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

    void sendState(httplib::Response& res)
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

    // {"version": V, "library": FILE, "fail": [MODE, ...]}: each given key replaces its part
    // of the state; "fail": [] clears every failure.
    void changeState(const httplib::Request& req, httplib::Response& res)
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

    void sendRequests(httplib::Response& res)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        res.set_content(QJsonDocument(m_requests).toJson(QJsonDocument::Compact).toStdString(), "application/json");
    }

    void logRequest(const httplib::Request& req, const httplib::Response& res)
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

    Faults currentFaults()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_faults;
    }
    std::pair<QString, QString> currentOffer()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return {m_version, m_library};
    }
    static void delay(int ms)
    {
        if (ms > 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    }
    // kLongVersionLength characters that sort after version, so a device takes it for newer.
    static QString longVersion(const QString& version)
    {
        return (version + QStringLiteral(".9")).leftJustified(kLongVersionLength, QLatin1Char('9'), true);
    }

    static std::string errorBody(const std::string& why)
    {
        return QJsonDocument(QJsonObject{{QStringLiteral("error"), QString::fromStdString(why)}})
            .toJson(QJsonDocument::Compact)
            .toStdString();
    }

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

int fail(const QString& message)
{
    std::fprintf(stderr, "orvello-service: %s\n", qPrintable(message));
    return 1;
}

} // namespace

int main(int argc, char** argv)
{
    QString dir;
    QString version;
    QString library;
    int port = 0;
    bool stopOnEof = false;
    QString signingKey;
    QString otherSigningKey;
    QString publicUrl;
    Faults faults;
    for (int i = 1; i < argc; ++i) {
        const QString arg = QString::fromLocal8Bit(argv[i]);
        if (arg == QLatin1String("--help") || arg == QLatin1String("-h")) {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (arg == QLatin1String("--stop-on-eof")) {
            stopOnEof = true;
            continue;
        }
        if (i + 1 >= argc) {
            std::fputs(kUsage, stderr);
            return fail(QStringLiteral("%1 needs a value").arg(arg));
        }
        const QString value = QString::fromLocal8Bit(argv[++i]);
        QString error;
        if (arg == QLatin1String("--dir"))
            dir = value;
        else if (arg == QLatin1String("--version"))
            version = value;
        else if (arg == QLatin1String("--library"))
            library = value;
        else if (arg == QLatin1String("--signing-key"))
            signingKey = value;
        else if (arg == QLatin1String("--other-signing-key"))
            otherSigningKey = value;
        else if (arg == QLatin1String("--public-url"))
            publicUrl = value;
        else if (arg == QLatin1String("--port")) {
            if (!parseNumber(value, 0, 65535, &port))
                return fail(QStringLiteral("--port needs a number from 0 to 65535, not '%1'").arg(value));
        } else if (arg == QLatin1String("--fail")) {
            if (!addFault(faults, value, &error))
                return fail(error);
        } else {
            std::fputs(kUsage, stderr);
            return fail(QStringLiteral("unknown argument '%1'").arg(arg));
        }
    }
    if (dir.isEmpty() || version.isEmpty() || library.isEmpty()) {
        std::fputs(kUsage, stderr);
        return fail(QStringLiteral("--dir, --version and --library are required"));
    }
    if (!QFileInfo(dir).isDir())
        return fail(QStringLiteral("'%1' is not a directory").arg(dir));
    QString error;
    if (!checkLibrary(dir, library, &error))
        return fail(error);
    Keys keys;
    if (!signingKey.isEmpty() && !(keys.signer = Signer::load(signingKey, &error)))
        return fail(error);
    if (!otherSigningKey.isEmpty() && !(keys.otherSigner = Signer::load(otherSigningKey, &error)))
        return fail(error);
    error = missingForFaults(faults, keys.otherSigner != nullptr);
    if (!error.isEmpty())
        return fail(error);
    const QUrl parsedPublicUrl(publicUrl, QUrl::StrictMode);
    if (!publicUrl.isEmpty() && (!parsedPublicUrl.isValid() || parsedPublicUrl.host().isEmpty()))
        return fail(QStringLiteral("--public-url needs an absolute URL such as https://localhost:8443, not '%1'").arg(publicUrl));
    while (publicUrl.endsWith(QLatin1Char('/')))
        publicUrl.chop(1);

    // Signals are taken by one thread of our own, so the server's threads never see them.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    Service service(dir, version, library, faults, keys);
    int boundPort = 0;
    if (!service.bind(port, &boundPort))
        return fail(QStringLiteral("cannot listen on 127.0.0.1:%1 (port busy or not allowed)").arg(port));
    service.setPort(boundPort);
    service.setPublicUrl(publicUrl);
    std::printf("listening on 127.0.0.1:%d\n", boundPort);
    std::fflush(stdout);

    std::atomic<bool> stopping{false};
    std::promise<void> finished;
    std::shared_future<void> whenFinished = finished.get_future().share();
    std::thread signalThread([&] {
        int signal = 0;
        sigwait(&stopSignals, &signal);
        if (whenFinished.wait_for(std::chrono::seconds(0)) == std::future_status::ready)
            return;
        stopping = true;
        service.stop();
        // The server waits for connections that clients keep alive and for delayed answers;
        // nothing is lost by not waiting for them.
        if (whenFinished.wait_for(std::chrono::milliseconds(500)) != std::future_status::ready) {
            std::fflush(stdout);
            std::_Exit(0);
        }
    });
    if (stopOnEof) {
        // Blocked in read() until the other end closes; the process ends without joining it.
        std::thread([] {
            char buffer[256];
            while (std::fread(buffer, 1, sizeof buffer, stdin) > 0) {
            }
            kill(getpid(), SIGTERM);
        }).detach();
    }
    const bool ok = service.run();
    finished.set_value();
    if (!stopping)
        pthread_kill(signalThread.native_handle(), SIGTERM);
    signalThread.join();
    if (!ok && !stopping)
        return fail(QStringLiteral("the server stopped unexpectedly"));
    return 0;
}
