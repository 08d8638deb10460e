#ifndef TARN_ASYNCIO_TEIOHANDLERRECYCLER_H
#define TARN_ASYNCIO_TEIOHANDLERRECYCLER_H

#include <ace/Event_Handler.h>
#include <ace/Time_Value.h>

/// The timer event that has retired connections deleted, see TarnConnectorMgrImpl::SweepRubbish.
class TEIOHandlerRecycler : public ACE_Event_Handler
{
public:
    static constexpr int INTERVAL_SECONDS = 30;

    TEIOHandlerRecycler();

    /// Called on the timer thread. @return 0, so that the timer stays scheduled
    int handle_timeout(const ACE_Time_Value& currentTime, const void* pArg) override;
};

#endif
