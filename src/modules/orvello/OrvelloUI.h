#pragma once

#include "model/cmpath.h"
#include "model/cmrequest.h"
#include "vrax/vraxvalue.h"

#include <QObject>

class CMListRowsNode;
class CMNodes;
class CMValueNode;

// The service's page in the device UI: a list with one editable row, the pairing code.
// A code of six letters (optionally with a hyphen after the third) goes to the pairing action;
// anything else is refused with "Invalid pairing code". Lives on the worker's thread.
class OrvelloUI : public QObject
{
    Q_OBJECT
public:
    OrvelloUI(CMNodes* nodes, const CMPath& path);

    // Validate handler of the pairing-code row, queued from the platform. Answers the request's
    // reply itself when the code is invalid; otherwise the pairing action answers it.
    void on_pairingCode_validate(const CMSetDataRequest& request, const VraxValue& value);

private:
    CMListRowsNode* m_listNode;
    CMValueNode* m_pairCodeNode;
};
