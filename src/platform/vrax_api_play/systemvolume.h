#pragma once

#include <QList>
#include <QObject>

class SystemVolumeProxy;

namespace vrax {

// The device's one system volume, 0 to 100, with a mute. Main thread only. Services see it
// through SystemVolumeProxy; the emulator's control API sets it directly.
class SystemVolume : public QObject
{
    Q_OBJECT
public:
    static SystemVolume& instance();

    int volume() const { return m_volume; }
    bool muted() const { return m_muted; }
    // origin: the proxy that made the change (it is not told), or null for the device itself.
    void setVolume(int volume, SystemVolumeProxy* origin = nullptr);
    void setMuted(bool muted);

    void attach(SystemVolumeProxy* proxy);
    void detach(SystemVolumeProxy* proxy);

Q_SIGNALS:
    void changed(int volume, bool muted);

private:
    void notify(SystemVolumeProxy* origin);

    int m_volume = 50;
    bool m_muted = false;
    QList<SystemVolumeProxy*> m_proxies;
};

} // namespace vrax
