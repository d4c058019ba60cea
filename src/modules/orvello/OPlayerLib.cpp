#include "OPlayerLib.h"

#include "LibraryStore.h"
#include "OrvelloLogging.h"

#include "model/cmerror.h"
#include "model/cmworker.h"
#include "vrax/vraxpaths.h"
#include "vrax/vraxvalue.h"

#include <QFile>
#include <QLibrary>
#include <QList>
#include <QTimer>

#include <algorithm>
#include <cstring>
#include <utility>

namespace {
log4cplus::Logger logger = log4cplus::Logger::getInstance("Orvello");

void storeString(const CMPath& path, const QString& text)
{
    CMAbstractWorker* root = CMRoot();
    if (!root)
        return;
    VraxValue value{VraxHash()};
    value.setString_(text);
    root->setValue(path, value, CMVoidReply());
}
} // namespace

extern "C" void orvello_load_token(char* buffer, size_t size)
{
    CMAbstractWorker* root = CMRoot();
    if (!root || !buffer)
        return;
    const QByteArray token = VraxHash(root->getValue(VraxOrvelloTokenPath()).toHash()).string_().toUtf8();
    std::memcpy(buffer, token.constData(), std::min(size, static_cast<size_t>(token.size())));
}

extern "C" void orvello_save_token(const char* token)
{
    storeString(VraxOrvelloTokenPath(), QString::fromLatin1(token));
}

OPlayerLib::OPlayerLib(const oplayer_init_params& params, LibraryStore* store)
    : QObject(nullptr)
    , m_library(nullptr)
    , m_params(params)
    , m_api(nullptr)
    , m_oplayer(nullptr)
    , m_pairingApi(nullptr)
    , m_createParams()
    , m_ownStore(store ? nullptr : std::make_unique<LibraryStore>())
    , m_store(store ? store : m_ownStore.get())
{
    std::memset(&m_createParams, 0, sizeof(m_createParams));
    m_store->preparePersistentDirectory();
    if (m_store->downloadWaiting()) {
        if (update())
            return;
    }
    load();
}

OPlayerLib::~OPlayerLib()
{
    cancelPairings();
    delete m_library;
}

bool OPlayerLib::ok() const
{
    return m_oplayer != nullptr;
}

OPlayerPlaybackApi* OPlayerLib::playbackApi()
{
    return &m_playbackApi;
}

void OPlayerLib::load()
{
    ORVELLO_ENTER(logger);
    const QStringList paths = m_store->searchList();
    for (const QString& path : paths) {
        // The store may have put the previous copy back at path: it gets one more try.
        do {
            if (loadFrom(path)) {
                m_store->loaded(path, m_runningVersion);
                return;
            }
        } while (m_store->loadFailed(path));
    }
    LOG4CPLUS_ERROR(logger, "Failed to load oplayer-1 library");
}

void OPlayerLib::unload()
{
    if (!m_library)
        return;
    m_library->unload();
    delete m_library;
    m_library = nullptr;
}

void OPlayerLib::mainLoop()
{
    // A turn still queued when shutdown() destroyed the instance.
    if (!m_oplayer)
        return;
    if (m_api->run_once(m_oplayer) != 0) {
        m_playbackApi.pump();
        QTimer::singleShot(0, Qt::PreciseTimer, this, &OPlayerLib::mainLoop);
        return;
    }
    LOG4CPLUS_INFO(logger, "End of oplayer main loop, cleaning up");
    interruptPairings();
    destroyInstance();
    m_playbackApi.announceLoopEnded();
    Q_EMIT endOfLoop();
}

void OPlayerLib::destroyInstance()
{
    m_api->destroy(m_oplayer);
    m_oplayer = nullptr;
    m_pairingApi = nullptr;
    m_playbackApi.setControlsApi(nullptr);
    m_playbackApi.setMetadataApi(nullptr);
    m_playbackApi.setOPlayer(nullptr);
}

void OPlayerLib::shutdown()
{
    if (!m_oplayer)
        return;
    LOG4CPLUS_INFO(logger, "Shutting down the running oplayer instance");
    cancelPairings();
    destroyInstance();
}

void OPlayerLib::requestExit()
{
    ORVELLO_ENTER(logger);
    if (!m_oplayer) {
        LOG4CPLUS_ERROR(logger, "m_oplayer is nullptr, returning");
        return;
    }
    LOG4CPLUS_INFO(logger, "Requesting exit at end of song");
    if (!m_api->request_exit) {
        LOG4CPLUS_WARN(logger, "The player library has no request_exit entry; it plays on, and the update waits "
                               "until its loop ends by itself");
        return;
    }
    m_api->request_exit(m_oplayer, OPLAYER_EXIT_AT_END_OF_SONG);
}

void OPlayerLib::pair(const CMSetDataRequest& request)
{
    ORVELLO_ENTER(logger);
    if (!m_oplayer) {
        LOG4CPLUS_ERROR(logger, "m_oplayer is nullptr, returning");
        request.reply().setError(CMError(ORVELLO_TR("Internal error, library is not initialized")));
        return;
    }
    const QString code = VraxHash(request.data().toHash()).string_();
    LOG4CPLUS_INFO(logger, "new value: " << escapedForLog(code) << ". Initiating pairing.");
    if (!m_pairingApi || !m_pairingApi->start || !m_pairingApi->poll) {
        if (firstTime(NoPairingTable))
            LOG4CPLUS_WARN(logger, "The player library gave no pairing table, or one without start or poll; "
                                   "pairing requests are answered as without a library");
        request.reply().setError(CMError(ORVELLO_TR("Internal error, library is not initialized")));
        return;
    }
    const QByteArray bytes = code.toUtf8();
    const int result = m_pairingApi->start(m_oplayer, bytes.constData(), bytes.size());
    if (result != 0) {
        LOG4CPLUS_ERROR(logger, "Error while initiating device pairing, code: " << result);
        request.reply().setError(
            CMError(ORVELLO_TR("Error while initiating device pairing, error: %1", {TrArg(result, 0, 10, QLatin1Char(' '))})));
        return;
    }
    m_pairings.append(request.reply());
    doPairLoop(request.reply());
}

void OPlayerLib::doPairLoop(CMReply<QVariant> reply)
{
    // Answered when the library's loop ended; the instance that polled for it may be gone.
    if (!m_pairings.contains(reply))
        return;
    if (!collectPairingOutcome(reply)) {
        QTimer::singleShot(100, Qt::PreciseTimer, this, [this, reply]() { doPairLoop(reply); });
        return;
    }
    m_pairings.removeOne(reply);
}

bool OPlayerLib::collectPairingOutcome(CMReply<QVariant>& reply)
{
    oplayer_pairing_result* result = m_pairingApi->poll(m_oplayer);
    if (!result)
        return false;
    if (result->success != 0) {
        LOG4CPLUS_INFO(logger, "Pairing successful");
        if (!result->device_id && firstTime(NoDeviceId))
            LOG4CPLUS_WARN(logger, "The player library paired the device without a device id; storing an empty one");
        storeString(VraxOrvelloDeviceId(), QString::fromLatin1(result->device_id));
        reply.setValue(QVariant());
    } else {
        LOG4CPLUS_ERROR(logger, "Error while initiating device pairing, message: "
                                    << escapedForLog(QString::fromUtf8(result->message ? result->message : "")));
        reply.setError(CMError(ORVELLO_TR("Error while initiating device pairing, error: %1",
                                          {TrArg(QString(result->message))})));
    }
    if (m_pairingApi->release) {
        m_pairingApi->release(result);
    } else if (firstTime(NoPairingRelease)) {
        LOG4CPLUS_WARN(logger, "The player library's pairing table has no release entry; its pairing outcomes are "
                               "not given back");
    }
    return true;
}

void OPlayerLib::interruptPairings()
{
    const QList<CMReply<QVariant>> pending = std::exchange(m_pairings, {});
    for (CMReply<QVariant> reply : pending) {
        if (collectPairingOutcome(reply))
            continue;
        LOG4CPLUS_WARN(logger, "The player library's loop ended before pairing finished; the pairing code has to "
                               "be entered again");
        reply.setError(CMError(ORVELLO_TR("Pairing was interrupted, please enter the pairing code again")));
    }
}

void OPlayerLib::cancelPairings()
{
    const QList<CMReply<QVariant>> pending = std::exchange(m_pairings, {});
    for (CMReply<QVariant> reply : pending) {
        LOG4CPLUS_INFO(logger, "Cancelling a pairing still under way: the player library is shutting down");
        reply.cancel();
    }
}

bool OPlayerLib::firstTime(PairingFault fault)
{
    const bool first = (m_pairingFaultsLogged & fault) == 0;
    m_pairingFaultsLogged |= fault;
    return first;
}

bool OPlayerLib::loadFrom(const QString& path)
{
    LOG4CPLUS_TRACE(logger, "Considering liboplayer path: " << path);
    if (!QFile::exists(path)) {
        LOG4CPLUS_TRACE(logger, path << " does not exist");
        return false;
    }
    const QString problem = m_store->openProblem(path);
    if (!problem.isEmpty()) {
        LOG4CPLUS_ERROR(logger, "Not loading liboplayer at " << path << ": " << problem << "; trying the next path");
        return false;
    }
    LOG4CPLUS_DEBUG(logger, "Found liboplayer at " << path << " loading");
    QLibrary* previous = m_library;
    m_library = new QLibrary(path);
    delete previous;
    if (!m_library->load()) {
        LOG4CPLUS_ERROR(logger, "Error loading the oplayer-1 library from path " << path << ": "
                                                                                 << m_library->errorString());
        return false;
    }

    std::memset(&m_createParams, 0, sizeof(m_createParams));
    m_createParams.init_tag = OPLAYER_INIT_TAG;
    m_createParams.max_bandwidth_kbps = m_params.maxBandwidthKbps;
    CMAbstractWorker* root = CMRoot();
    const bool cacheEnabled = root && VraxValue(root->getValue(VraxOrvelloCacheEnabled()).toHash()).bool_();
    m_createParams.disable_cache = cacheEnabled ? 0 : 1;
    const QByteArray cacheDir = m_params.cacheDir.toUtf8();
    const QByteArray serialNumber = m_params.serialNumber.toUtf8();
    const QByteArray vendorSecret = m_params.vendorSecret.toUtf8();
    const QByteArray productName = m_params.productName.toUtf8();
    m_createParams.cache_dir = cacheDir.constData();
    m_createParams.serial_number = serialNumber.constData();
    m_createParams.vendor_secret = vendorSecret.constData();
    m_createParams.product_name = productName.constData();
    m_createParams.cache_max_mb = m_params.cacheMaxMb;
    m_createParams.cache_remain_mb = m_params.cacheRemainMb;
    m_createParams.output_channels = m_params.outputChannels;
    m_createParams.output_sample_rate = m_params.outputSampleRate;
    m_createParams.client_version = "1.0";
    m_createParams.option_b = 1;
    m_createParams.audio_api = m_playbackApi.getAudioApi();
    m_createParams.load_token = &orvello_load_token;
    m_createParams.save_token = &orvello_save_token;

    m_api = reinterpret_cast<const oplayer_api*>(m_library->resolve(OPLAYER_API_SYMBOL));
    if (!m_api) {
        LOG4CPLUS_ERROR(logger, "Error resolving the OPLAYER_API symbol: " << m_library->errorString());
        unload();
        return false;
    }
    // Without these the host could neither start, turn nor end an instance.
    const char* missing = !m_api->create ? "create" : !m_api->run_once ? "run_once" : !m_api->destroy ? "destroy" : nullptr;
    if (missing) {
        LOG4CPLUS_ERROR(logger, "The OPLAYER_API table of " << path << " has no " << missing
                                                            << " entry; trying the next path");
        m_api = nullptr;
        unload();
        return false;
    }

    const int result = m_api->create(m_createParams, &m_oplayer);
    if (!m_oplayer) {
        LOG4CPLUS_ERROR(logger, "Unable to allocate OPlayer. Error: " << result);
        m_api = nullptr;
        unload();
        return false;
    }

    char version[1024];
    std::memset(version, 0, sizeof(version));
    if (m_api->get_version)
        m_api->get_version(nullptr, version, sizeof(version));
    else
        LOG4CPLUS_WARN(logger, "The player library has no get_version entry; its version is published empty");
    m_runningVersion = QString::fromLatin1(version, static_cast<int>(qstrnlen(version, sizeof(version))));
    LOG4CPLUS_INFO(logger, "Running SDK version: " << escapedForLog(m_runningVersion));
    storeString(VraxOrvelloSdkVersion(), m_runningVersion);

    // A missing getter is a missing table; the bridge and pair() answer those as without a library.
    m_playbackApi.setControlsApi(m_api->controls_api ? m_api->controls_api() : nullptr);
    m_playbackApi.setMetadataApi(m_api->metadata_api ? m_api->metadata_api() : nullptr);
    m_playbackApi.setOPlayer(m_oplayer);
    m_pairingApi = m_api->pairing_api ? m_api->pairing_api() : nullptr;

    QTimer::singleShot(0, Qt::PreciseTimer, this, &OPlayerLib::mainLoop);
    return true;
}

bool OPlayerLib::update()
{
    if (!m_store->hasInstallableUpdate())
        return false;
    unload();
    m_store->install();
    load();
    return ok();
}
