#include "OrvelloAudioTransfer.h"

#include "OrvelloLogging.h"
#include "ScratchDirectory.h"

#include "audioUtils/pcmaudioinfo.h"
#include "miscUtils/notime.h"
#include "model/cmerror.h"
#include "vrax/vraxassert.h"

#include <QFile>

#include <algorithm>
#include <memory>
#include <string>

namespace {
log4cplus::Logger logger = log4cplus::Logger::getInstance("OrvelloAudioTransfer");

constexpr int kMaxChunk = 131072;
constexpr std::int32_t kStreamingState = 3;
} // namespace

OrvelloAudioTransfer::OrvelloAudioTransfer()
    : m_loopThread(new miscUtils::IOEventLoopThread(1000UL, "orvelloAudioLoopThread"))
    , m_bufferPool()
    , m_channel(m_loopThread->ioEventLoop())
    , m_sender(&m_bufferPool)
    , m_senderState(0)
    , m_pendingFuture()
{
    ORVELLO_ENTER(logger);
    const std::string address = QFile::encodeName(ScratchDirectory::socketAddress()).toStdString();
    LOG4CPLUS_DEBUG(logger, "Setting socket address: " << address);
    m_channel.setSocketAddress(address);
    m_channel.setSendBufferSize(kMaxChunk);
    m_sender.setTransportChannel(m_channel);
    m_sender.onHandshakeFailed([this](smt2::Error) {
        LOG4CPLUS_WARN(logger, "SMT sender handshake failed");
        m_sender.disconnect();
    });
    m_sender.onStateChange([this](smt2::Sender::State oldState, smt2::Sender::State newState) {
        LOG4CPLUS_INFO(logger, "SMT changed state from " << int(oldState) << " to " << int(newState));
        m_senderState.store(std::int32_t(newState), std::memory_order_seq_cst);
    });
}

OrvelloAudioTransfer::~OrvelloAudioTransfer()
{
    ORVELLO_ENTER(logger);
    m_sender.disconnect();
    std::lock_guard<std::mutex> lock(m_pendingMutex);
    m_pendingFuture.reset();
    m_connectFuture.reset();
    // The members go in reverse order: sender, channel, pool, and last the loop they ran on.
}

CMReply<void> OrvelloAudioTransfer::connect()
{
    CMReply<void> reply;
    smt2::Future<smt2::ErrorID> attempt;
    {
        std::lock_guard<std::mutex> lock(m_pendingMutex);
        if (m_senderState.load(std::memory_order_seq_cst) == kStreamingState) {
            // Connecting again would make the sender refuse and end the stream that plays.
            LOG4CPLUS_DEBUG(logger, "SMT already streaming, keeping the connection");
            reply.setValue();
            return reply;
        }
        if (m_connectFuture.valid() && !m_connectFuture.isReady()) {
            LOG4CPLUS_DEBUG(logger, "SMT connection under way, answering when it completes");
            attempt = m_connectFuture;
        } else {
            m_connectFuture = m_sender.connect();
            m_pendingFuture = m_connectFuture;
            attempt = m_connectFuture;
        }
    }
    auto sharedReply = std::make_shared<CMReply<void>>(reply);
    attempt.then([sharedReply](smt2::Future<smt2::ErrorID> future) {
        const smt2::ErrorID error = future.get();
        if (error == smt2::ErrorID::Success) {
            LOG4CPLUS_DEBUG(logger, "SMT connected");
            sharedReply->setValue();
            return;
        }
        LOG4CPLUS_DEBUG(logger, "SMT not connected, error=" << smt2::toString(error));
        CMError cmError;
        cmError.insert(CMError::Name(), QVariant(CMError::DefaultName()));
        cmError.insert(CMError::Message(), QVariant::fromValue(TrString("Failed to connect")));
        cmError.insert(CMError::Title(), QVariant::fromValue(CMError::DefaultTitle()));
        sharedReply->setError(cmError);
    });
    return reply;
}

bool OrvelloAudioTransfer::connected()
{
    return m_senderState.load(std::memory_order_seq_cst) != 0;
}

void OrvelloAudioTransfer::close()
{
    ORVELLO_ENTER(logger);
    m_sender.disconnect();
}

void OrvelloAudioTransfer::setStreamFormat(int channels, int sampleRate)
{
    const audioUtils::PcmAudioInfo info(sampleRate, channels, audioUtils::PcmFormat(0));
    const std::string type = audioUtils::pcmAudioType();
    const miscUtils::VariantHash hash = info.toVariant().asHash();
    m_sender.setAudioSequenceInfo(type, hash);
}

int OrvelloAudioTransfer::processData(const char* data, size_t size)
{
    ORVELLO_ENTER(logger);
    if (m_senderState.load(std::memory_order_seq_cst) != kStreamingState) {
        LOG4CPLUS_DEBUG(logger, "Leave " << ORVELLO_FUNCTION << ": Not connected");
        return 0;
    }
    int result = 0;
    std::unique_lock<std::mutex> lock(m_pendingMutex);
    if (size != 0 && !(m_pendingFuture.valid() && !m_pendingFuture.isReady())) {
        // Capped before it becomes an int: a size of 2^31 or more from a library would be negative.
        const int n = static_cast<int>(std::min(size, static_cast<size_t>(kMaxChunk)));
        VRAX_ASSERT(data != nullptr);
        m_pendingFuture = m_sender.sendAudioData(
            miscUtils::NoTimeValue, miscUtils::NoTimeValue,
            nonstd::span_lite::span<const unsigned char>(reinterpret_cast<const unsigned char*>(data), size_t(n)));
        result = n;
    }
    lock.unlock();
    LOG4CPLUS_DEBUG(logger, "Leave " << ORVELLO_FUNCTION << ": written: " << result);
    return result;
}

void OrvelloAudioTransfer::flush()
{
    ORVELLO_ENTER(logger);
    m_sender.sendFlush();
}

void OrvelloAudioTransfer::sendStreamEnd()
{
    m_sender.endCurrentAudioSequence();
}
