#pragma once

#include "play/playlogic.h"

// The player's way into a play logic's protected operations.
class PlayFrameworkAccess
{
public:
    static void setState(PlayLogicBase* logic, int state) { logic->setState(state); }
    static void publishTrackRoles(PlayLogicBase* logic, const VraxRoles& roles) { logic->publishTrackRoles(roles); }
    static void publishStatus(PlayLogicBase* logic, const VraxPlayLogicStatus& status) { logic->publishStatus(status); }
    static void playbackEnded(PlayLogicBase* logic) { logic->playbackEnded(); }
    static void playTimeChanged(PlayLogicBase* logic, long long ms) { logic->playTimeChangedInternal(ms); }
    // The play logic published at path, or null.
    static PlayLogicBase* find(const CMPath& path);
};
