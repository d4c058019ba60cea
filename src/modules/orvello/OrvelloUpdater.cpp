#include "OrvelloUpdater.h"

#include "LibraryFiles.h"
#include "OrvelloLogging.h"

#include "crypto/cryptohash.h"
#include "http/httpclient.h"
#include "model/cmworker.h"
#include "vrax/vraxconnect.h"
#include "vrax/vraxjson.h"
#include "vrax/vraxpaths.h"

#include <QFile>
#include <QTimer>

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
} // namespace

OrvelloUpdater::OrvelloUpdater()
    : QObject(nullptr)
    , m_httpClient(new HttpClient(this, HttpClient::Http1_1, true))
    , m_checkTimer(new QTimer(this))
    , m_url()
    , m_download()
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

OrvelloUpdater::~OrvelloUpdater() = default;

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

    m_httpClient->get(m_url, options, [this](const HttpClientResult& result) {
        if (result.httpCode() != 200) {
            LOG4CPLUS_ERROR(logger, "Getting config JSON ended with HTTP code: " << result.httpCode());
            return;
        }
        if (result.output().isEmpty()) {
            LOG4CPLUS_ERROR(logger, "JSON fetch result output is empty.");
            return;
        }
        LOG4CPLUS_TRACE(logger, "OVM Config JSON:" << result.output());
        VraxError error;
        const VraxOrvelloVersionInfo info(VraxJson::parse(result.output(), error, nullptr).toHash());
        if (!error.isEmpty()) {
            LOG4CPLUS_ERROR(logger, "An error occurred during parsing of the config JSON: " << error);
            return;
        }
        LOG4CPLUS_DEBUG(logger, "Config version: " << info.version());
        LOG4CPLUS_DEBUG(logger, "Config link: " << info.link());
        const QString currentVersion = platformValue(VraxOrvelloSdkVersion()).string_();
        LOG4CPLUS_INFO(logger, "Current version:" << currentVersion);
        if (!(currentVersion < info.version())) {
            LOG4CPLUS_INFO(logger, "Version " << info.version() << " already on the device, ignoring...");
            return;
        }
        if (downloadRunning()) {
            LOG4CPLUS_DEBUG(logger, "A library download is still running, not starting another for version "
                                        << info.version());
            return;
        }
        LOG4CPLUS_INFO(logger, "Downloading version " << info.version());
        downloadLibrary(info.link()).onSuccess(this, [this, info](const bool& downloaded) {
            if (!downloaded) {
                LOG4CPLUS_ERROR(logger, "Failed to download new OVM library version.");
                return;
            }
            LOG4CPLUS_INFO(logger, "Completed downloading new OVM library version.");
            const QString record = QString::fromLatin1(TMP_DOWNLOAD_RECORD);
            if (!verifyDownloadedLib(info)) {
                QFile::remove(record);
                LOG4CPLUS_ERROR(logger, "Failed to verify downlaoded library");
                return;
            }
            QString error;
            if (!LibraryFiles::writeRecord(record, info.version(), info.checksum(), &error)) {
                QFile::remove(record);
                LOG4CPLUS_ERROR(logger, "Cannot record the verified download of version "
                                            << info.version() << " (" << error
                                            << "), so it will not be installed; trying again at the next check");
                return;
            }
            Q_EMIT updateFinished();
        });
    });
}

CMReply<bool> OrvelloUpdater::downloadLibrary(const QString& url)
{
    ORVELLO_ENTER_ARG(logger, "url: '" << url);
    CMReply<bool> reply;
    if (downloadRunning()) {
        LOG4CPLUS_ERROR(logger, "A library download is still running, not starting another from " << url);
        reply.setValue(false);
        return reply;
    }
    HttpClientOptions options;
    options.setReadSizeLimit(kDownloadSizeLimit);
    options.setImmediateRead(true);
    static const QString tmpPath = QString::fromLatin1(TMP_DOWNLOAD_DEST) + QStringLiteral(".tmp");

    auto file = std::make_shared<QFile>(tmpPath);
    if (!file->open(QIODevice::WriteOnly)) {
        LOG4CPLUS_ERROR(logger, "Unable to open destination:" << tmpPath);
        reply.setValue(false);
        return reply;
    }
    m_download = reply;
    m_httpClient->get(VraxUrl::fromEncoded(url), options, [reply, file](const HttpClientResult& result) mutable {
        if (reply.isFinished())
            return;
        if (result.httpCode() != 200) {
            LOG4CPLUS_ERROR(logger, "Downloading library failed with HTTP code: " << result.httpCode());
            file->remove();
            reply.setValue(false);
            return;
        }
        switch (result.state()) {
        case HttpClientResult::DataAvailable:
            if (result.output().isEmpty()) {
                LOG4CPLUS_ERROR(logger, "Library download result output is empty.");
                file->remove();
                reply.setValue(false);
            } else if (file->write(result.output()) == -1) {
                LOG4CPLUS_ERROR(logger, "Error while writing to local file");
                file->remove();
                reply.setValue(false);
            }
            return;
        case HttpClientResult::Complete:
            // The copy does not overwrite, so a stale download at the destination is what
            // gets verified and installed; the reply is true either way.
            file->copy(QString::fromLatin1(TMP_DOWNLOAD_DEST));
            file->remove();
            reply.setValue(true);
            return;
        case HttpClientResult::NetworkError:
        case HttpClientResult::Timeout:
        case HttpClientResult::SizeLimitExceeded:
        case HttpClientResult::Aborted:
            file->remove();
            reply.setValue(false);
            return;
        }
    });
    return reply;
}

bool OrvelloUpdater::downloadRunning() const
{
    return m_download && !m_download->isFinished();
}

bool OrvelloUpdater::verifyDownloadedLib(const VraxOrvelloVersionInfo& info)
{
    QFile file(QString::fromLatin1(TMP_DOWNLOAD_DEST));
    if (!file.open(QIODevice::ReadOnly))
        return false;
    CryptoHash hash(CryptoHash::Sha256);
    char block[kVerifyBlockSize];
    qint64 length;
    while ((length = file.read(block, kVerifyBlockSize)) > 0)
        hash.update(block, static_cast<int>(length));
    QByteArray digest;
    hash.finalize(&digest);
    return info.checksum() == QString::fromLatin1(digest.toHex());
}
