#include "asyncio/TEIOHandlerRecycler.h"

#include "connection/TarnConnectorMgrImpl.h"
#include "core/ApplicationCall.h"

TEIOHandlerRecycler::TEIOHandlerRecycler()
    : ACE_Event_Handler(nullptr, 0)
{}

int TEIOHandlerRecycler::handle_timeout(const ACE_Time_Value& /*currentTime*/, const void* /*pArg*/)
{
    // It exists since the start and goes after the timer thread.
    TarnConnectorMgrImpl* pConnectorMgr = TarnConnectorMgrImpl::Existing();
    return pConnectorMgr == nullptr ? 0 : WithMemory("SweepRubbish", 0, [&] {
        pConnectorMgr->SweepRubbish();
        return 0;
    });
}
