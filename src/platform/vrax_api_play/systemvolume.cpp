#include "systemvolume.h"

#include "play/systemvolumeproxy.h"

#include <QTimer>

#include <algorithm>

class SystemVolumeAccess
{
public:
    static void changed(SystemVolumeProxy* proxy) { proxy->systemChanged(); }
};

namespace vrax {

SystemVolume& SystemVolume::instance()
{
    static SystemVolume volume;
    return volume;
}

void SystemVolume::setVolume(int volume, SystemVolumeProxy* origin)
{
    volume = std::clamp(volume, 0, 100);
    if (volume == m_volume)
        return;
    m_volume = volume;
    notify(origin);
}

void SystemVolume::setMuted(bool muted)
{
    if (muted == m_muted)
        return;
    m_muted = muted;
    notify(nullptr);
}

void SystemVolume::attach(SystemVolumeProxy* proxy)
{
    m_proxies.append(proxy);
}

void SystemVolume::detach(SystemVolumeProxy* proxy)
{
    m_proxies.removeAll(proxy);
}

void SystemVolume::notify(SystemVolumeProxy* origin)
{
    Q_EMIT changed(m_volume, m_muted);
    for (SystemVolumeProxy* proxy : m_proxies)
        if (proxy != origin)
            SystemVolumeAccess::changed(proxy);
}

} // namespace vrax

SystemVolumeProxy::SystemVolumeProxy(const QString& name, int maxVolume, int notifyDelayMs, bool announceOnEnable)
    : m_name(name), m_maxVolume(std::max(maxVolume, 1)), m_notifyDelayMs(std::max(notifyDelayMs, 0)),
      m_announceOnEnable(announceOnEnable), m_notifyTimer(new QTimer(this))
{
    m_notifyTimer->setSingleShot(true);
    m_notifyTimer->setInterval(m_notifyDelayMs);
    connect(m_notifyTimer, &QTimer::timeout, this, [this] { Q_EMIT volumeChanged(volume()); });
    vrax::SystemVolume::instance().attach(this);
}

SystemVolumeProxy::~SystemVolumeProxy()
{
    vrax::SystemVolume::instance().detach(this);
}

void SystemVolumeProxy::setNoMuteService()
{
    m_noMute = true;
}

void SystemVolumeProxy::enable()
{
    m_enabled = true;
    if (m_announceOnEnable)
        Q_EMIT volumeChanged(volume());
}

void SystemVolumeProxy::setVolume(int volume)
{
    const int clamped = std::clamp(volume, 0, m_maxVolume);
    vrax::SystemVolume::instance().setVolume((clamped * 100 + m_maxVolume / 2) / m_maxVolume, this);
}

int SystemVolumeProxy::volume() const
{
    const vrax::SystemVolume& system = vrax::SystemVolume::instance();
    if (system.muted() && !m_noMute)
        return 0;
    return toService(system.volume());
}

int SystemVolumeProxy::toService(int systemVolume) const
{
    return (systemVolume * m_maxVolume + 50) / 100;
}

void SystemVolumeProxy::systemChanged()
{
    if (m_enabled)
        m_notifyTimer->start();
}
