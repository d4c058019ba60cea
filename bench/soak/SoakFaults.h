#pragma once

// The update service's failures that the soak injects, taking turns, and the windows they held.
#include <QStringList>

#include <vector>

namespace bench {

struct FaultKind
{
    const char* name;
    QStringList modes;   // empty: the service is killed and started again
    int holdSeconds;
    // Slow answers carry the offer of when they were asked, so they come while nothing newer is
    // offered; otherwise one would bring back an offer after its swap.
    bool withOffer;
    int graceSeconds;    // log lines this long after the fault was cleared still come from it
    const char* what;
};

// The kinds in the order they take turns.
const std::vector<FaultKind>& faultKinds();

struct FaultWindow
{
    int kind = 0;
    qint64 from = 0;
    qint64 to = 0;             // cleared
    qint64 offeredNs = 0;      // the offer it spoiled, or the first one after it
    qint64 swapDoneNs = 0;     // that offer's swap, once done
};

} // namespace bench
