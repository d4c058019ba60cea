#include "OrvelloWorker.h"

#include "LibraryFiles.h"
#include "LibraryStore.h"
#include "OPlayerLib.h"
#include "OrvelloLogging.h"
#include "OrvelloPlayLogic.h"
#include "OrvelloUI.h"
#include "OrvelloUpdater.h"
#include "ScratchDirectory.h"
#include "UpdateSignature.h"

#include "model/cmnode.h"
#include "play/vraxplaylogicdata.h"
#include "vrax/vraxconnect.h"
#include "vrax/vraxpaths.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTimer>

#include <unistd.h>

#include <algorithm>

namespace {
log4cplus::Logger logger = log4cplus::Logger::getInstance("Orvello");

const QString kScratchDirectory = QString::fromLatin1(OrvelloUpdater::TMP_DOWNLOAD_PATH);
const QString kPrivateScratchPattern = kScratchDirectory + QStringLiteral("-XXXXXX");

constexpr int kFirstRetrySeconds = 1;
constexpr int kLongestRetrySeconds = 60;

VraxHash setting(const CMPath& path)
{
    return VraxHash(CMRoot()->getValue(path).toHash());
}
} // namespace

extern "C" __attribute__((visibility("default"))) CMWorker* worker_create(void* /*reserved*/,
                                                                         const QVariantHash* config)
{
    return new OrvelloWorker(config ? *config : QVariantHash());
}

OrvelloWorker::OrvelloWorker(const QVariantHash& config)
    : CMNodesWorker(config, QStringLiteral("OrvelloWorker"))
    , m_initialized(false)
    , m_ui(new OrvelloUI(nodes(), VraxOrvelloBrowsePath()))
    , m_sdkVersionNode(CMValueNode::create(nodes(), VraxOrvelloSdkVersion(), nullptr))
    , m_updater(nullptr)
    , m_oplayerLib(nullptr)
    , m_playLogic(nullptr)
{
    ORVELLO_ENTER(logger);
    m_sdkVersionNode->setTitle(ORVELLO_TR("Orvello SDK version number"));
    if (!UpdateSignature::builtIn().hasKey())
        LOG4CPLUS_WARN(logger, "Player library updates are not authenticated: this module was built without an "
                               "update key, so it installs any library whose checksum matches the service's document");
    const QString scratch = chooseScratchDirectory();
    if (scratch.isEmpty()) {
        LOG4CPLUS_ERROR(logger, "Can not init OrvelloWorker without " << kScratchDirectory << " dir");
        return;
    }
    m_privateScratch = scratch != kScratchDirectory;
    ScratchDirectory::use(scratch);
    m_store = new LibraryStore(scratch);
    CMActivateNode::create(nodes(), VraxOrvelloSetPairCode())
        ->setInvoke(this, &OrvelloWorker::on_setPairingCode_activated, Qt::QueuedConnection);
    maybeInitialize(false);
}

// The play logic goes before the host whose bridge it uses; the library's threads are joined
// first, so none of them calls the audio callbacks of a play logic that is gone.
OrvelloWorker::~OrvelloWorker()
{
    if (m_oplayerLib)
        m_oplayerLib->shutdown();
    delete m_playLogic;
    delete m_oplayerLib;
    delete m_updater;
    if (m_store && m_privateScratch)
        m_store->removeScratchDirectory();
    delete m_store;
    delete m_sdkVersionNode;
    delete m_ui;
}

CMError OrvelloWorker::maybeInitialize(bool force)
{
    ORVELLO_ENTER(logger);
    if (m_initialized) {
        LOG4CPLUS_TRACE(logger, "Already initialized, doing nothing.");
        return CMError();
    }
    if (!force && setting(VraxOrvelloTokenPath()).string_().isEmpty()) {
        LOG4CPLUS_INFO(logger, "Waiting for pairing code before initializing..");
        return CMError(ORVELLO_TR("Missing pairing code"));
    }

    oplayer_init_params params;
    params.maxBandwidthKbps = setting(VraxOrvelloMaxBandwidthKbpsPath()).i32_();
    params.cacheDir = setting(VraxOrvelloCacheDirPath()).string_();
    params.cacheMaxMb = setting(VraxOrvelloCacheMaxMbPath()).i32_();
    params.cacheRemainMb = setting(VraxOrvelloCacheRemainMbPath()).i32_();
    params.outputSampleRate = setting(VraxOrvelloOutputSampleRatePath()).i32_();
    params.outputChannels = setting(VraxOrvelloOutputChannelsPath()).i32_();
    params.vendorSecret = setting(VraxOrvelloVendorSecretPath()).string_();
    params.serialNumber = setting(VraxSystemSerialNumberPath()).string_();
    params.productName = setting(VraxSystemProductNamePath()).string_();

    delete m_oplayerLib;
    m_oplayerLib = new OPlayerLib(params, m_store);
    if (!m_oplayerLib->ok()) {
        delete m_oplayerLib;
        m_oplayerLib = nullptr;
        const CMError error(ORVELLO_TR("Failed to load library"));
        if (!force)
            startHealing();
        return error;
    }
    delete m_playLogic;
    m_playLogic = new OrvelloPlayLogic(nodes(), m_oplayerLib->playbackApi());
    // One that runs already (started while no library loaded) keeps its download going.
    const bool newUpdater = !m_updater;
    if (newUpdater)
        m_updater = new OrvelloUpdater(m_store);
    m_initialized = true;
    if (newUpdater)
        vraxConnect(m_updater, &OrvelloUpdater::updateFinished, this, &OrvelloWorker::on_updater_updateFinished);
    vraxConnect(m_oplayerLib, &OPlayerLib::endOfLoop, this, &OrvelloWorker::on_lib_endOfLoop);
    if (m_retryTimer)
        m_retryTimer->stop();
    return CMError();
}

void OrvelloWorker::startHealing()
{
    if (!m_updater) {
        LOG4CPLUS_WARN(logger, "No player library loads on this paired device; the update check runs all the same, so "
                               "that a verified update can bring one");
        m_updater = new OrvelloUpdater(m_store);
        vraxConnect(m_updater, &OrvelloUpdater::updateFinished, this, &OrvelloWorker::on_updater_updateFinished);
    }
    retryUnlessRunning();
}

void OrvelloWorker::on_setPairingCode_activated(const CMSetDataRequest& request)
{
    ORVELLO_ENTER_ARG(logger, request.data());
    const CMError error = maybeInitialize(true);
    if (error.isSet()) {
        request.reply().setError(error);
        return;
    }
    Q_ASSERT(m_oplayerLib != nullptr);
    m_oplayerLib->pair(request);
}

void OrvelloWorker::on_updater_updateFinished()
{
    if (!m_store->hasInstallableUpdate())
        return;
    if (!m_oplayerLib) {
        // The host installs the waiting download when it starts.
        LOG4CPLUS_INFO(logger, "No player library is running, so the verified update is installed now");
        maybeInitialize(false);
        return;
    }
    if (!m_oplayerLib->ok()) {
        LOG4CPLUS_INFO(logger, "No player library is running, so the verified update is installed now");
        m_oplayerLib->update();
        retryUnlessRunning();
        return;
    }
    m_oplayerLib->requestExit();
}

void OrvelloWorker::on_lib_endOfLoop()
{
    m_oplayerLib->update();
    retryUnlessRunning();
}

void OrvelloWorker::retryUnlessRunning()
{
    if (m_oplayerLib && m_oplayerLib->ok()) {
        if (m_retryTimer)
            m_retryTimer->stop();
        return;
    }
    if (m_playLogic && m_playLogic->data().state() != VraxPlayLogicData::Stopped)
        m_playLogic->stop();
    if (!m_retryTimer) {
        m_retryTimer = new QTimer(this);
        m_retryTimer->setSingleShot(true);
        vraxConnect(m_retryTimer, &QTimer::timeout, this, &OrvelloWorker::on_retryTimer_timeout);
    }
    if (m_retryTimer->isActive())
        return;
    // A library that ends its loop soon after a retry loaded it keeps the pause growing, so one
    // that dies at once is not restarted every second for ever; one that played for a while
    // starts the count again.
    if (!m_retryLoaded.isValid() || m_retryLoaded.hasExpired(kLongestRetrySeconds * 1000))
        m_retryAttempt = 0;
    const int delay = retryDelaySeconds(m_retryAttempt);
    LOG4CPLUS_WARN(logger, "No player library is running; searching the library list again in " << delay << " s");
    m_retryTimer->start(delay * 1000);
}

int OrvelloWorker::retryDelaySeconds(int attempt)
{
    return std::min(kLongestRetrySeconds, kFirstRetrySeconds << std::min(attempt, 6));
}

void OrvelloWorker::on_retryTimer_timeout()
{
    ++m_retryAttempt;
    const int next = retryDelaySeconds(m_retryAttempt);
    LOG4CPLUS_INFO(logger, "Searching the library list again (attempt " << m_retryAttempt
                                                                         << "); if no library loads, the next attempt follows in "
                                                                         << next << " s");
    // Armed first: a gate that fails again finds the search scheduled and leaves the pause growing.
    m_retryTimer->start(next * 1000);
    if (m_oplayerLib) {
        m_oplayerLib->load();
    } else {
        maybeInitialize(false);
        // The token is gone: the device waits for a pairing code instead.
        if (!m_initialized && setting(VraxOrvelloTokenPath()).string_().isEmpty())
            m_retryTimer->stop();
    }
    if (m_oplayerLib && m_oplayerLib->ok()) {
        m_retryTimer->stop();
        m_retryLoaded.start();
    }
}

QString OrvelloWorker::chooseScratchDirectory() const
{
    if (prepareDirectory(kScratchDirectory)) {
        const QString problem = LibraryFiles::directoryTrustProblem(kScratchDirectory);
        if (problem.isEmpty())
            return kScratchDirectory;
        LOG4CPLUS_ERROR(logger, "Not using " << kScratchDirectory << ": " << problem
                                             << "; nothing in it is read, installed or loaded, and a private directory "
                                                "is used instead");
    } else {
        LOG4CPLUS_ERROR(logger, "Trying a private scratch directory instead of " << kScratchDirectory);
    }
    QString error;
    const QString dir = LibraryFiles::makePrivateDirectory(kPrivateScratchPattern, &error);
    const QString problem = dir.isEmpty() ? error : LibraryFiles::directoryTrustProblem(dir);
    if (!problem.isEmpty()) {
        if (!dir.isEmpty())
            ::rmdir(QFile::encodeName(dir).constData());
        LOG4CPLUS_ERROR(logger, "Cannot have a private scratch directory either (" << problem << ")");
        return QString();
    }
    LOG4CPLUS_WARN(logger, "Using the private scratch directory " << dir
                                                                  << " for library downloads and the audio socket");
    return dir;
}

bool OrvelloWorker::prepareDirectory(const QString& path) const
{
    ORVELLO_ENTER_ARG(logger, path);
    QString error;
    if (!QDir(path).exists() && !LibraryFiles::makeDirectory(path, &error)) {
        LOG4CPLUS_ERROR(logger, "Can not create directory :" << path);
        return false;
    }
    const QFileInfo info(path);
    if (!info.isWritable()) {
        LOG4CPLUS_ERROR(logger, "Can not write to " << info.absoluteFilePath());
        return false;
    }
    return true;
}
