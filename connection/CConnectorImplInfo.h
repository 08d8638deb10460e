#ifndef TARN_CONNECTION_CCONNECTORIMPLINFO_H
#define TARN_CONNECTION_CCONNECTORIMPLINFO_H

#include "connection/ConnectionKey.h"
#include "tarnadapterframe/TarnLock.h"

#include <ace/Time_Value.h>

#include <map>
#include <set>
#include <tuple>

class TarnConnectorImpl;

struct CConnectorImplInfo;

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

/// A record that a connect thread may take. Ordered as they are taken: first requests by their keys, then the retry that
/// has waited longest. The queue has one for each free record, so that nobody looks through all of it.
struct FreeConnectTarget
{
    bool bReconnect;
    ACE_Time_Value time; ///< of a retry; else zero
    ConnectTargetKey key;
    CConnectorImplInfo* pInfo;

    bool operator<(const FreeConnectTarget& other) const
    {
        return std::tie(bReconnect, time, key) < std::tie(other.bReconnect, other.time, other.key);
    }
};

using MAPCONNECTTARGET = std::map<ConnectTargetKey, CConnectorImplInfo*>;
using SETFREETARGET = std::set<FreeConnectTarget>;

/// One record of the connect queue. Made when a connection is queued, deleted by whoever removes it. The queue
/// holds one reference on the connection for it. A record becomes busy and free, and the queue is changed, under the
/// queue mutex; whoever holds the record busy needs its lock only.
struct CConnectorImplInfo
{
    CConnectorImplInfo(TarnConnectorImpl* pConnection, const ACE_Time_Value& now, bool bAgain)
        : pConnector(pConnection)
        , time(now)
        , bReconnect(bAgain)
    {}

    FreeConnectTarget AsFree(const ConnectTargetKey& key) TARN_REQUIRES_SHARED(lock)
    {
        return {bReconnect, bReconnect ? time : ACE_Time_Value::zero, key, this};
    }

    TarnRWThreadMutex lock;
    TarnConnectorImpl* const pConnector;
    ACE_Time_Value time TARN_GUARDED_BY(lock); ///< of the queuing or of the last failed attempt; wall clock
    bool bReconnect TARN_GUARDED_BY(lock);     ///< not to be tried before `nConnectSleep` seconds after time
    bool bBusy TARN_GUARDED_BY(lock) = false;  ///< held by a connect thread, nobody else's to remove
    /// Its entry among the free records, kept while it is busy: making it free takes no memory. Guarded by the queue mutex.
    SETFREETARGET::node_type freeEntry;
};

#endif
