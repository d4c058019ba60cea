#pragma once

#include "model/cmpath.h"
#include "model/cmreply.h"
#include "model/cmrequest.h"
#include "play/vraxplaylogicdata.h"

#include <QHash>
#include <QObject>
#include <QVariant>

#include <mutex>

class CMNodes;
class CMValueNode;

// Something that plays: a service's play logic, or the device's player, which plays roles by
// asking the play logic named in their metadata. Used on the main thread.
class PlayLogicInterface : public QObject
{
    Q_OBJECT
public:
    using QObject::QObject;

    // The device's player. It exists while the platform's play framework runs.
    static PlayLogicInterface* playerInstance();

    // Each request's reply tells whether it was taken.
    virtual CMVoidReply play(const VraxRoles& roles, bool startPaused) = 0;
    virtual CMVoidReply pause() = 0;
    virtual CMVoidReply stop() = 0;
    virtual VraxPlayLogicData data() const = 0;

Q_SIGNALS:
    void dataChanged(const VraxPlayLogicData& data);
};

// The framework's part of a play logic: its published data (a node at its path), requests
// turned into the virtual operations below, and the player driving its state.
class PlayLogicBase : public PlayLogicInterface
{
    Q_OBJECT
public:
    PlayLogicBase(CMNodes* nodes, const CMPath& path);
    ~PlayLogicBase() override;

    const CMPath& path() const { return m_path; }

    // Thread-safe: audio callbacks read the state from the threads they run on.
    VraxPlayLogicData data() const override;
    // Publishes data as it is (no translation: the play logic made it).
    void setData(const VraxPlayLogicData& data);
    void setPlayTime(long long ms);

    CMVoidReply play(const VraxRoles& roles, bool startPaused) override;
    CMVoidReply pause() override;
    CMVoidReply stop() override;
    CMVoidReply next();
    CMVoidReply previous();
    CMVoidReply seek(long long ms);

protected:
    // The service's operations, in the framework's order. Each answers its request's reply.
    virtual void playInternal(const CMSetDataRequest& request, const VraxPlayLogicPlayArgs& args) = 0;
    // Default: answers success and leaves the state as it is.
    virtual void pauseInternal(const CMSetDataRequest& request);
    // Every track roles and status the framework publishes itself pass through these first.
    virtual VraxRoles translateTrackRoles(const VraxRoles& roles);
    virtual VraxPlayLogicStatus translatePlayLogicStatus(const VraxPlayLogicStatus& status);
    // The player has stopped this play logic's playback. Default: state 0, no controls.
    virtual void playbackEnded();
    // The framework's play clock advanced (from the audio the pipeline played). Default:
    // setPlayTime(ms).
    virtual void playTimeChangedInternal(long long ms);
    // Default: stops through the player and answers success.
    virtual void stopInternal(const CMSetDataRequest& request);
    // Defaults answer "Not supported".
    virtual void nextInternal(const CMSetDataRequest& request);
    virtual void previousInternal(const CMSetDataRequest& request);
    virtual void seekInternal(const CMSetDataRequest& request, long long ms);

    // Publishing by the framework: the value passes through the translate operation.
    void publishTrackRoles(const VraxRoles& roles);
    void publishStatus(const VraxPlayLogicStatus& status);
    void setState(int state);

private:
    friend class PlayFrameworkAccess;
    CMSetDataRequest newRequest(const QVariant& data, const CMVoidReply& reply) const;

    CMPath m_path;
    CMValueNode* m_node;
    mutable std::mutex m_dataMutex;
    VraxPlayLogicData m_data;
};

// A play logic for a service that streams its own program to the device's audio pipeline.
class StreamerPlayLogic : public PlayLogicBase
{
    Q_OBJECT
public:
    StreamerPlayLogic(CMNodes* nodes, const CMPath& path);

protected:
    // Makes the player open the roles' first resource (for "smt2://PATH" the audio pipeline is
    // listening on PATH when this returns) and publishes the roles; the state becomes 1 and
    // follows the pipeline from there.
    CMVoidReply sendPlayCommand(const VraxRoles& roles, const QHash<QString, QVariant>& options);
    // Stops this play logic's playback in the player; ends with playbackEnded().
    void stopPlayLogic();

    // Toggles between playing (2) and paused (3), the pipeline with it, and answers success.
    void pauseInternal(const CMSetDataRequest& request) override;
};
