#pragma once

#include <QObject>
#include <QString>

// A service's view of the device's one system volume (0 to 100 on the device), scaled to the
// service's own range. Changes made through this proxy are not announced back to it; changes
// from anywhere else are, as volumeChanged. Used on the main thread.
class SystemVolumeProxy : public QObject
{
    Q_OBJECT
public:
    // maxVolume: top of the service's scale. notifyDelayMs: changes of the system volume are
    // announced after this delay, the latest one only (a slider sends many). announceOnEnable:
    // enable() announces the current volume at once.
    SystemVolumeProxy(const QString& name, int maxVolume, int notifyDelayMs, bool announceOnEnable);
    ~SystemVolumeProxy() override;

    // The system's mute does not silence this service (it is not told volume 0 on mute).
    void setNoMuteService();
    // Starts following the system volume.
    void enable();
    // Sets the system volume from the service's scale (clamped to it).
    void setVolume(int volume);
    // The system volume in the service's scale (0 while muted, unless a no-mute service).
    int volume() const;

    const QString& name() const { return m_name; }

Q_SIGNALS:
    void volumeChanged(int volume);

private:
    friend class SystemVolumeAccess;
    void systemChanged();
    int toService(int systemVolume) const;

    QString m_name;
    int m_maxVolume;
    int m_notifyDelayMs;
    bool m_announceOnEnable;
    bool m_noMute = false;
    bool m_enabled = false;
    class QTimer* m_notifyTimer = nullptr;
};
