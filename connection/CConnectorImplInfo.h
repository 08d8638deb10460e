#ifndef TARN_CONNECTION_CCONNECTORIMPLINFO_H
#define TARN_CONNECTION_CCONNECTORIMPLINFO_H

#include "connection/ConnectionKey.h"
#include "tarnadapterframe/TarnLock.h"

#include <ace/Time_Value.h>

#include <map>
#include <tuple>

class TarnConnectorImpl;

/// One record of the connect queue. Made when a connection is queued, deleted by whoever removes it. The queue
/// holds one reference on the connection for it. A free record becomes busy, and the queue is changed, under the
/// queue mutex; whoever holds the record busy needs its lock only.
struct CConnectorImplInfo
{
    CConnectorImplInfo(TarnConnectorImpl* pConnection, const ACE_Time_Value& now, bool bAgain)
        : pConnector(pConnection)
        , time(now)
        , bReconnect(bAgain)
    {}

    TarnRWThreadMutex lock;
    TarnConnectorImpl* const pConnector;
    ACE_Time_Value time TARN_GUARDED_BY(lock); ///< of the queuing or of the last failed attempt; wall clock
    bool bReconnect TARN_GUARDED_BY(lock);     ///< not to be tried before `nConnectSleep` seconds after time
    bool bBusy TARN_GUARDED_BY(lock) = false;  ///< held by a connect thread, nobody else's to remove
};

/// The queue is ordered by the connections' keys. A connection that took the key of a retired one is a record
/// of its own.
struct ConnectTargetKey
{
    ConnectionKey connection;
    TarnConnectorImpl* pConnector;

    bool operator<(const ConnectTargetKey& other) const
    {
        return std::tie(connection, pConnector) < std::tie(other.connection, other.pConnector);
    }
};

using MAPCONNECTTARGET = std::map<ConnectTargetKey, CConnectorImplInfo*>;

#endif
