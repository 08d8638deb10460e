#ifndef TARNADAPTERFRAME_TARNASN1PROTOCOLADAPTER_H
#define TARNADAPTERFRAME_TARNASN1PROTOCOLADAPTER_H

#include "tarnadapterframe/Export.h"
#include "tarnadapterframe/TarnProtocolAdapter.h"

/// The protocol adapter that all ASN.1 messages belong to. It hands out their serials, and every adapter manager
/// registers it under protocol id 1. It stays when the library is stopped, and serves the next start.
class TARN_ADAPTER_API TarnAsn1ProtocolAdapter : public TarnProtocolAdapter
{
public:
    /// The one instance, created on first use and never deleted; null when ACE's process-wide lock cannot be
    /// taken, or without memory.
    static TarnAsn1ProtocolAdapter* Instance();

    ~TarnAsn1ProtocolAdapter() override;

    /// Forgets an ASN.1 message in the correlation maps, so that a late answer finds nobody.
    /// @return as TEAdapterManager::UnRegisterSourceMessage; -1 for null, or a message of another kind
    int CancelMessage(TEMessage* pMessage) override;
    /// TEMessage::HandleMessage of an ASN.1 message. @return its result; -1 for null, or a message of another kind
    int HandleMessage(TEMessage* pMessage) override;

private:
    TarnAsn1ProtocolAdapter();
};

#endif
