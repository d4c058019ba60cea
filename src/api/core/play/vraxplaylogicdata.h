#pragma once

#include "play/vraxplaydata.h"

#include <QMetaType>
#include <QVariantHash>

// Which controls a play logic offers the UI at the moment.
class VraxPlayLogicControls
{
public:
    bool pause() const { return m_pause; }
    void setPause(bool available) { m_pause = available; }
    bool stop() const { return m_stop; }
    void setStop(bool available) { m_stop = available; }
    bool next() const { return m_next; }
    void setNext(bool available) { m_next = available; }
    bool previous() const { return m_previous; }
    void setPrevious(bool available) { m_previous = available; }
    bool seek() const { return m_seek; }
    void setSeek(bool available) { m_seek = available; }

    QVariantHash toVariant() const;
    friend bool operator==(const VraxPlayLogicControls& a, const VraxPlayLogicControls& b);

private:
    bool m_pause = false;
    bool m_stop = false;
    bool m_next = false;
    bool m_previous = false;
    bool m_seek = false;
};

// Everything a play logic publishes: its state, controls, status, current track and play time.
// States: 0 stopped, 1 starting, 2 playing, 3 paused.
class VraxPlayLogicData
{
public:
    enum State { Stopped = 0, Starting = 1, Playing = 2, Paused = 3 };

    int state() const { return m_state; }
    void setState(int state) { m_state = state; }
    const VraxPlayLogicControls& controls() const { return m_controls; }
    void setControls(const VraxPlayLogicControls& controls) { m_controls = controls; }
    const VraxPlayLogicStatus& status() const { return m_status; }
    void setStatus(const VraxPlayLogicStatus& status) { m_status = status; }
    const VraxRoles& trackRoles() const { return m_trackRoles; }
    void setTrackRoles(const VraxRoles& roles) { m_trackRoles = roles; }
    // Milliseconds into the current track.
    long long playTime() const { return m_playTime; }
    void setPlayTime(long long ms) { m_playTime = ms; }

    QVariantHash toVariant() const;
    friend bool operator==(const VraxPlayLogicData& a, const VraxPlayLogicData& b);
    friend bool operator!=(const VraxPlayLogicData& a, const VraxPlayLogicData& b) { return !(a == b); }

private:
    int m_state = Stopped;
    VraxPlayLogicControls m_controls;
    VraxPlayLogicStatus m_status;
    VraxRoles m_trackRoles;
    long long m_playTime = 0;
};

// Arguments of a play request.
class VraxPlayLogicPlayArgs
{
public:
    VraxPlayLogicPlayArgs() = default;
    VraxPlayLogicPlayArgs(const VraxRoles& roles, bool startPaused) : m_roles(roles), m_startPaused(startPaused) {}

    const VraxRoles& mediaRoles() const { return m_roles; }
    bool startPaused() const { return m_startPaused; }

private:
    VraxRoles m_roles;
    bool m_startPaused = false;
};

Q_DECLARE_METATYPE(VraxPlayLogicData)
