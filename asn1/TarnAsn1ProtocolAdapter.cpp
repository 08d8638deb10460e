#include "tarnadapterframe/TarnAsn1ProtocolAdapter.h"

#include "core/ApplicationCall.h"
#include "core/ExistingManager.h"
#include "core/ManagerParts.h"
#include "tarnadapterframe/TEAdapterManager.h"
#include "tarnadapterframe/TarnAdapterTrace.h"
#include "tarnadapterframe/TarnAsn1Message.h"

#include <ace/Guard_T.h>
#include <ace/Object_Manager.h>

#include <atomic>

namespace {

std::atomic<TarnAsn1ProtocolAdapter*> g_pAdapter{nullptr};

} // namespace

TarnAsn1ProtocolAdapter::TarnAsn1ProtocolAdapter()
    : TarnProtocolAdapter(BUILT_IN_PROTOCOL_ID)
{}

TarnAsn1ProtocolAdapter::~TarnAsn1ProtocolAdapter() = default;

TarnAsn1ProtocolAdapter* TarnAsn1ProtocolAdapter::Instance()
{
    if (g_pAdapter.load(std::memory_order_acquire) == nullptr)
    {
        ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, *ACE_Static_Object_Lock::instance(), nullptr);
        if (g_pAdapter.load(std::memory_order_relaxed) == nullptr)
            g_pAdapter.store(WithMemory("TarnAsn1ProtocolAdapter::Instance",
                                        static_cast<TarnAsn1ProtocolAdapter*>(nullptr),
                                        [] { return new TarnAsn1ProtocolAdapter; }),
                             std::memory_order_release);
    }
    return g_pAdapter.load(std::memory_order_acquire);
}

int TarnAsn1ProtocolAdapter::CancelMessage(TEMessage* pMessage)
{
    if (pMessage == nullptr)
    {
        TarnAdapterFrmtTrace(1, "TarnAsn1ProtocolAdapter::CancelMessage,NULL ==pMessage\n");
        return -1;
    }
    if (!pMessage->IsKindOf(&TarnAsn1Message::classTarnAsn1Message))
    {
        TarnAdapterFrmtTrace(1, "TarnAsn1ProtocolAdapter::CancelMessage, not a TarnAsn1Message\n");
        return -1;
    }
    const ExistingManager manager; // without one nothing is announced
    return manager.Get() != nullptr ? manager.Get()->UnRegisterSourceMessage(pMessage) : 0;
}

int TarnAsn1ProtocolAdapter::HandleMessage(TEMessage* pMessage)
{
    if (pMessage == nullptr)
    {
        TarnAdapterFrmtTrace(1, "TarnAsn1ProtocolAdapter::HandleMessage,NULL ==pMessage\n");
        return -1;
    }
    if (!pMessage->IsKindOf(&TarnAsn1Message::classTarnAsn1Message))
    {
        TarnAdapterFrmtTrace(1, "TarnAsn1ProtocolAdapter::HandleMessage, not a TarnAsn1Message\n");
        return -1;
    }
    int iResult = -1;
    CallApplication("HandleMessage", typeid(*pMessage), [&] { iResult = pMessage->HandleMessage(); });
    return iResult;
}
