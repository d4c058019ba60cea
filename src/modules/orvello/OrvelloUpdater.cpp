#include "OrvelloUpdater.h"

#include "LibraryStore.h"
#include "OrvelloLogging.h"

#include "crypto/cryptohash.h"
#include "http/httpclient.h"
#include "model/cmworker.h"
#include "vrax/vraxconnect.h"
#include "vrax/vraxjson.h"
#include "vrax/vraxpaths.h"

#include <QFile>
#include <QPointer>
#include <QTimer>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <limits>
#include <memory>

namespace {
log4cplus::Logger logger = log4cplus::Logger::getInstance("Orvello");

constexpr int kDownloadSizeLimit = 16777216;
constexpr qint64 kVerifyBlockSize = 4096;

VraxHash platformValue(const CMPath& path)
{
    return VraxHash(CMRoot()->getValue(path).toHash());
}

// Why version cannot name a library: empty when it is 1 to MaxVersionLength printable ASCII
// characters.
QString versionProblem(const QString& version)
{
    if (version.isEmpty())
        return QStringLiteral("it is empty or not text");
    for (int i = 0; i < version.size(); ++i) {
        const ushort c = version.at(i).unicode();
        if (c < 0x20 || c > 0x7e)
            return QStringLiteral("character %1 is U+%2").arg(i + 1).arg(c, 4, 16, QLatin1Char('0'));
    }
    if (version.size() > OrvelloUpdater::MaxVersionLength)
        return QStringLiteral("it is %1 characters long").arg(version.size());
    return QString();
}

// Remote text for an error line: escaped, and cut where it would swamp the log.
QString shortened(const QString& text)
{
    constexpr int kShown = 80;
    return escapedForLog(text.size() > kShown ? text.left(kShown) + QStringLiteral("...") : text);
}

QString seconds(std::chrono::milliseconds duration)
{
    return QString::number(double(duration.count()) / 1000.0);
}

// The download under way: its temporary file, removed by name when the transfer fails.
struct DownloadFile
{
    QFile file;
    LibraryStore* store;
    void discard()
    {
        file.close();
        store->removeDownloadTemp();
    }
};
} // namespace

struct OrvelloUpdater::Deadline
{
    QPointer<QTimer> timer;
    bool expired = false;

    // Called once the request has ended; false when the deadline had passed (and said so).
    bool end()
    {
        if (timer) {
            timer->stop();
            timer->deleteLater();
        }
        return !expired;
    }
};

OrvelloUpdater::OrvelloUpdater(LibraryStore* store)
    : QObject(nullptr)
    , m_httpClient(new HttpClient(this, HttpClient::Http1_1, true))
    , m_checkTimer(new QTimer(this))
    , m_url()
    , m_download()
    , m_ownStore(store ? nullptr : std::make_unique<LibraryStore>())
    , m_store(store ? store : m_ownStore.get())
    , m_signature(UpdateSignature::builtIn())
{
    m_url = VraxUrl::fromEncoded(platformValue(VraxOrvelloVersionUrl()).string_());
    if (m_url.isEmpty()) {
        LOG4CPLUS_FATAL(logger, "Version url is empty, updater will not work");
        return;
    }
    const qint32 intervalSeconds = platformValue(VraxOrvelloUpdateCheckIntervalSeconds()).i32_();
    if (intervalSeconds < 1)
        return;
    // QTimer counts in int milliseconds: about 24 days is the longest interval it can hold.
    m_checkTimer->setInterval(int(std::min<qint64>(qint64(intervalSeconds) * 1000, std::numeric_limits<int>::max())));
    vraxConnect(m_checkTimer, &QTimer::timeout, this, &OrvelloUpdater::on_checkTimer_timeout);
    m_checkTimer->start();
    check();
}

// The client goes first: nothing it still holds may reach a store that is gone.
OrvelloUpdater::~OrvelloUpdater()
{
    delete m_httpClient;
}

void OrvelloUpdater::setDeadlines(std::chrono::milliseconds check, std::chrono::milliseconds download)
{
    m_checkDeadline = check;
    m_downloadDeadline = download;
}

void OrvelloUpdater::startDeadline(const std::shared_ptr<Deadline>& deadline, HttpClient::RequestId id,
                                   std::chrono::milliseconds after, std::function<void()> expired)
{
    auto* timer = new QTimer(this);
    timer->setSingleShot(true);
    deadline->timer = timer;
    vraxConnect(timer, &QTimer::timeout, this, [this, deadline, id, expired = std::move(expired)] {
        deadline->expired = true;
        expired();
        deadline->timer->deleteLater();
        m_httpClient->abort(id);
    });
    timer->start(after);
}

void OrvelloUpdater::on_checkTimer_timeout()
{
    check();
}

void OrvelloUpdater::check()
{
    LOG4CPLUS_INFO(logger, "Enter " << ORVELLO_FUNCTION);
    const QString deviceId = platformValue(VraxOrvelloDeviceId()).string_();
    const QString vendorId = platformValue(VraxOrvelloProvisioningVendorIdPath()).string_();
    LOG4CPLUS_INFO(logger, "Checking for update with device id <" << deviceId << "> and vendor id <" << vendorId
                                                                  << "> at " << m_url);
    HttpClientHeaders headers;
    headers.insert(QStringLiteral("X-Device-Key-0"), QStringLiteral("eth0"));
    headers.insert(QStringLiteral("X-Device-Id-0"), deviceId);
    headers.insert(QStringLiteral("X-Device-Vendor"), vendorId);
    HttpClientOptions options;
    options.setHeaders(headers);
    options.setReadSizeLimit(ConfigSizeLimit);
    // The check's own deadline ends it, slow or silent; one limit gives one clear line.
    options.setTimeout(0);

    auto deadline = std::make_shared<Deadline>();
    auto fetched = [this, deadline](const HttpClientResult& result) {
        if (deadline->end())
            onConfigFetched(result);
    };
    const HttpClient::RequestId id = m_httpClient->get(m_url, options, std::move(fetched));
    startDeadline(deadline, id, m_checkDeadline, [this] {
        LOG4CPLUS_ERROR(logger, "The config JSON did not arrive within " << seconds(m_checkDeadline)
                                                                        << " s; the check is cancelled, the next one "
                                                                           "comes at the next interval");
    });
}

void OrvelloUpdater::onConfigFetched(const HttpClientResult& result)
{
    if (result.httpCode() != 200) {
        LOG4CPLUS_ERROR(logger, "Getting config JSON ended with HTTP code: " << result.httpCode());
        if (result.isFailure())
            LOG4CPLUS_ERROR(logger, "Getting config JSON failed: " << escapedForLog(result.errorString())
                                                                   << "; checking again at the next interval");
        return;
    }
    if (result.state() == HttpClientResult::SizeLimitExceeded) {
        LOG4CPLUS_ERROR(logger, "The config JSON is longer than " << ConfigSizeLimit
                                                                  << " bytes; it is cut there and not used, "
                                                                     "checking again at the next interval");
        return;
    }
    if (result.isFailure()) {
        LOG4CPLUS_ERROR(logger, "Getting config JSON failed: " << escapedForLog(result.errorString())
                                                               << "; checking again at the next interval");
        return;
    }
    if (result.output().isEmpty()) {
        LOG4CPLUS_ERROR(logger, "JSON fetch result output is empty.");
        return;
    }
    LOG4CPLUS_TRACE(logger, "OVM Config JSON:" << escapedForLog(result.output()));
    VraxError error;
    const VraxOrvelloVersionInfo info(VraxJson::parse(result.output(), error, nullptr).toHash());
    if (!error.isEmpty()) {
        LOG4CPLUS_ERROR(logger, "An error occurred during parsing of the config JSON: " << error);
        return;
    }
    if (!acceptable(info))
        return;
    LOG4CPLUS_DEBUG(logger, "Config version: " << escapedForLog(info.version()));
    LOG4CPLUS_DEBUG(logger, "Config link: " << escapedForLog(info.link()));
    const QString currentVersion = platformValue(VraxOrvelloSdkVersion()).string_();
    LOG4CPLUS_INFO(logger, "Current version:" << escapedForLog(currentVersion));
    if (!(currentVersion < info.version())) {
        LOG4CPLUS_INFO(logger, "Version " << info.version() << " already on the device, ignoring...");
        return;
    }
    const QVariant signatureValue = info.hash().value(QLatin1String(SignatureKey));
    const QString signature = signatureValue.toString();
    if (m_signature.hasKey()) {
        const QString problem = signatureValue.isValid() && signatureValue.userType() != QMetaType::QString
            ? QStringLiteral("the signature is not a JSON string")
            : m_signature.problem(info.version(), info.checksum(), signature);
        if (!problem.isEmpty()) {
            LOG4CPLUS_ERROR(logger, "Not downloading version " << info.version() << ": " << problem
                                                               << "; checking again at the next interval");
            return;
        }
        LOG4CPLUS_INFO(logger, "Version " << info.version() << " is signed with the device's update key");
    }
    if (!m_store->wantsDownload(info.version(), info.checksum()))
        return;
    if (downloadRunning()) {
        LOG4CPLUS_DEBUG(logger, "A library download is still running, not starting another for version "
                                    << info.version());
        return;
    }
    LOG4CPLUS_INFO(logger, "Downloading version " << info.version());
    downloadLibrary(info.link()).onSuccess(this, [this, info, signature](const bool& downloaded) {
        if (!downloaded) {
            LOG4CPLUS_ERROR(logger, "Failed to download new OVM library version.");
            return;
        }
        LOG4CPLUS_INFO(logger, "Completed downloading new OVM library version.");
        // A swap while it downloaded may have brought this version (or a newer one) already.
        const QString running = platformValue(VraxOrvelloSdkVersion()).string_();
        if (!(running < info.version())) {
            m_store->discardDownload();
            LOG4CPLUS_INFO(logger, "Version " << info.version() << " finished downloading, but version "
                                              << escapedForLog(running) << " runs now; the download is dropped");
            return;
        }
        if (!verifyDownloadedLib(info)) {
            m_store->forgetVerification();
            LOG4CPLUS_ERROR(logger, "Failed to verify downlaoded library");
            return;
        }
        QString error;
        if (!m_store->addVerifiedDownload(VerifiedDownload{info.version(), info.checksum(), signature}, &error)) {
            m_store->forgetVerification();
            LOG4CPLUS_ERROR(logger, "Cannot record the verified download of version "
                                        << info.version() << " (" << escapedForLog(error)
                                        << "), so it will not be installed; trying again at the next check");
            return;
        }
        Q_EMIT updateFinished();
    });
}

bool OrvelloUpdater::acceptable(const VraxOrvelloVersionInfo& info) const
{
    const QString version = info.version();
    const QString problem = versionProblem(version);
    if (!problem.isEmpty()) {
        LOG4CPLUS_ERROR(logger, "Refusing the config JSON: its version \"" << shortened(version)
                                    << "\" is not 1 to " << MaxVersionLength << " printable ASCII characters ("
                                    << problem << "); checking again at the next interval");
        return false;
    }
    if (m_signature.hasKey() && !UpdateSignature::isChecksumText(info.checksum().toLower())) {
        LOG4CPLUS_ERROR(logger, "Refusing the config JSON of version "
                                    << version << ": its checksum \"" << shortened(info.checksum())
                                    << "\" is not 64 hexadecimal digits; checking again at the next interval");
        return false;
    }
    return true;
}

CMReply<bool> OrvelloUpdater::downloadLibrary(const QString& url)
{
    ORVELLO_ENTER_ARG(logger, "url: '" << escapedForLog(url));
    CMReply<bool> reply;
    if (downloadRunning()) {
        LOG4CPLUS_ERROR(logger,
                        "A library download is still running, not starting another from " << escapedForLog(url));
        reply.setValue(false);
        return reply;
    }
    HttpClientOptions options;
    options.setReadSizeLimit(kDownloadSizeLimit);
    options.setImmediateRead(true);
    const QString tmpPath = m_store->downloadTempPath();

    auto download = std::make_shared<DownloadFile>();
    download->store = m_store;
    QString error;
    const int fd = m_store->createDownloadFile(&error);
    if (fd < 0 || !download->file.open(fd, QIODevice::WriteOnly, QFileDevice::AutoCloseHandle)) {
        if (fd >= 0)
            ::close(fd);
        LOG4CPLUS_ERROR(logger, "Unable to open destination:" << tmpPath);
        LOG4CPLUS_ERROR(logger, "The download cannot be written (" << escapedForLog(error)
                                                                   << "); trying again at the next check");
        reply.setValue(false);
        return reply;
    }
    m_download = reply;
    auto deadline = std::make_shared<Deadline>();
    auto callback = [reply, download, deadline](const HttpClientResult& result) mutable {
        // Ended even when the reply was answered earlier (a failed write lets the transfer run on).
        const bool inTime = result.state() == HttpClientResult::DataAvailable || deadline->end();
        if (reply.isFinished())
            return;
        if (!inTime) {
            download->discard();
            reply.setValue(false);
            return;
        }
        if (result.httpCode() != 200) {
            LOG4CPLUS_ERROR(logger, "Downloading library failed with HTTP code: " << result.httpCode());
            if (result.isFailure())
                LOG4CPLUS_ERROR(logger, "Downloading library failed: " << escapedForLog(result.errorString()));
            download->discard();
            reply.setValue(false);
            return;
        }
        switch (result.state()) {
        case HttpClientResult::DataAvailable:
            if (result.output().isEmpty()) {
                LOG4CPLUS_ERROR(logger, "Library download result output is empty.");
                download->discard();
                reply.setValue(false);
            } else if (download->file.write(result.output()) == -1) {
                LOG4CPLUS_ERROR(logger, "Error while writing to local file");
                download->discard();
                reply.setValue(false);
            }
            return;
        case HttpClientResult::Complete:
            // A stale download at the destination is not replaced: it is what gets verified
            // and installed; the reply is true either way.
            if (!download->file.flush()) {
                LOG4CPLUS_ERROR(logger, "Error while writing to local file");
                download->discard();
                reply.setValue(false);
                return;
            }
            download->file.close();
            download->store->publishDownload();
            reply.setValue(true);
            return;
        case HttpClientResult::NetworkError:
        case HttpClientResult::Timeout:
        case HttpClientResult::SizeLimitExceeded:
        case HttpClientResult::Aborted:
            LOG4CPLUS_ERROR(logger, "Downloading library failed: " << escapedForLog(result.errorString()));
            download->discard();
            reply.setValue(false);
            return;
        }
    };
    const HttpClient::RequestId id = m_httpClient->get(VraxUrl::fromEncoded(url), options, std::move(callback));
    startDeadline(deadline, id, m_downloadDeadline, [this, url] {
        LOG4CPLUS_ERROR(logger, "The library download from " << escapedForLog(url) << " did not finish within "
                                                             << seconds(m_downloadDeadline)
                                                             << " s; it is cancelled, trying again at the next check");
    });
    return reply;
}

bool OrvelloUpdater::downloadRunning() const
{
    return m_download && !m_download->isFinished();
}

bool OrvelloUpdater::verifyDownloadedLib(const VraxOrvelloVersionInfo& info)
{
    const int fd = ::open(QFile::encodeName(m_store->downloadPath()).constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    QFile file;
    if (fd < 0 || !file.open(fd, QIODevice::ReadOnly, QFileDevice::AutoCloseHandle)) {
        if (fd >= 0)
            ::close(fd);
        return false;
    }
    CryptoHash hash(CryptoHash::Sha256);
    char block[kVerifyBlockSize];
    qint64 length;
    while ((length = file.read(block, kVerifyBlockSize)) > 0)
        hash.update(block, static_cast<int>(length));
    QByteArray digest;
    hash.finalize(&digest);
    return info.checksum() == QString::fromLatin1(digest.toHex());
}
