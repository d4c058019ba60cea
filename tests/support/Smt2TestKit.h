#pragma once

// The two ends of the smt2 transport as the tests drive them: a sender on its own loop thread,
// and what the emulated pipeline's hooks report.
#include "WaitFor.h"
#include "audiopipeline.h"

#include "audioUtils/pcmaudioinfo.h"
#include "miscUtils/ioeventloop.h"
#include "miscUtils/notime.h"
#include "smt2/audiosender.h"
#include "smt2/unixclientsocketchannel.h"

#include <QByteArray>
#include <QList>
#include <QStringList>

#include <mutex>
#include <string>
#include <vector>

// Std containers throughout: Qt's implicitly shared ones would be shared across threads inside
// uninstrumented Qt code.

// The pipeline's hook calls in order, as short texts: "connected", "start 48000/2", "audio
// 1000", "flush", "end", "disconnected". Folded: a run of audio messages is one "audio".
class PipelineEvents
{
public:
    explicit PipelineEvents(bool foldAudio = false) : m_foldAudio(foldAudio) {}

    vrax::AudioPipelineHooks hooks()
    {
        vrax::AudioPipelineHooks h;
        h.senderConnected = [this] { add("connected"); };
        h.sequenceStarted = [this](const audioUtils::PcmAudioInfo& f) {
            add("start " + std::to_string(f.sampleRate()) + "/" + std::to_string(f.channels()));
        };
        h.audioArrived = [this](const std::uint8_t*, std::size_t n) { add(m_foldAudio ? "audio" : "audio " + std::to_string(n)); };
        h.flushed = [this] { add("flush"); };
        h.sequenceEnded = [this] { add("end"); };
        h.senderDisconnected = [this] { add("disconnected"); };
        return h;
    }
    QStringList all()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        QStringList list;
        for (const std::string& e : m_events)
            list << QString::fromStdString(e);
        return list;
    }

private:
    void add(const std::string& e)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!(m_foldAudio && e == "audio" && !m_events.empty() && m_events.back() == e))
            m_events.push_back(e);
    }

    const bool m_foldAudio;
    std::mutex m_mutex;
    std::vector<std::string> m_events;
};

// A sender on its own loop thread, recording its state changes and refused handshakes.
struct Smt2Client
{
    explicit Smt2Client(const std::string& path) : loop(1000, "tstSmt2Client"), channel(loop.ioEventLoop()), sender(&pool)
    {
        channel.setSocketAddress(path);
        channel.setSendBufferSize(131072);
        sender.setTransportChannel(channel);
        sender.onStateChange([this](smt2::Sender::State, smt2::Sender::State s) {
            std::lock_guard<std::mutex> lock(mutex);
            states.push_back(int(s));
        });
        sender.onHandshakeFailed([this](smt2::Error e) {
            std::lock_guard<std::mutex> lock(mutex);
            handshakeFailures.push_back(e.details.asHash().at("reason").asString());
        });
    }
    QList<int> stateList()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return QList<int>(states.begin(), states.end());
    }
    QStringList failures()
    {
        std::lock_guard<std::mutex> lock(mutex);
        QStringList list;
        for (const std::string& f : handshakeFailures)
            list << QString::fromStdString(f);
        return list;
    }
    bool connect()
    {
        auto f = sender.connect();
        return waitFor([&] { return f.isReady(); }) && f.get() == smt2::ErrorID::Success;
    }
    void format(int rate, int channels)
    {
        sender.setAudioSequenceInfo(audioUtils::pcmAudioType(),
                                    audioUtils::PcmAudioInfo(rate, channels, audioUtils::PcmFormat::S16LE).toVariant().asHash());
    }
    smt2::Future<smt2::ErrorID> send(const std::vector<unsigned char>& bytes)
    {
        return sender.sendAudioData(miscUtils::NoTimeValue, miscUtils::NoTimeValue, bytes);
    }
    // Sends bytes and waits until they are written.
    bool sendAndWait(const QByteArray& bytes)
    {
        auto f = sender.sendAudioData(miscUtils::NoTimeValue, miscUtils::NoTimeValue,
                                      {reinterpret_cast<const unsigned char*>(bytes.constData()), size_t(bytes.size())});
        return waitFor([&] { return f.isReady(); }) && f.get() == smt2::ErrorID::Success;
    }

    // Declared first: the sender's handlers may run until the sender is gone.
    std::mutex mutex;
    std::vector<int> states;
    std::vector<std::string> handshakeFailures;
    miscUtils::IOEventLoopThread loop;
    smt2::BufferPool pool;
    smt2::UnixClientSocketChannel channel;
    smt2::AudioSender sender;
};
