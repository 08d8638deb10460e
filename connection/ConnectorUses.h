#ifndef TARN_CONNECTION_CONNECTORUSES_H
#define TARN_CONNECTION_CONNECTORUSES_H

#include <atomic>

/// How many threads use a facade: its unregistration waits for them, so that its owner may destroy it then.
struct ConnectorUses
{
    int nHooks = 0; ///< calls of hooks under way; guarded by the connection manager's lock for all facades
    std::atomic<int> nLent{0}; ///< between TarnConnectorMgr::GetConnectorByID and ReleaseConnector
};

#endif
