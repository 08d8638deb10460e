#ifndef TARN_CORE_TEMESSAGETIMER_H
#define TARN_CORE_TEMESSAGETIMER_H

#include <ace/Event_Handler.h>
#include <ace/Time_Value.h>

/// The adapter manager's timer event: times asynchronous messages out, see TEAdapterManager::HandleTimeOut.
class TEMessageTimer : public ACE_Event_Handler
{
public:
    /// Seconds between two ticks, and what each tick takes off a message's remaining time.
    static constexpr int TICK_SECONDS = 5;

    TEMessageTimer();

    /// Called on the manager's timer thread. @return 0, so that the timer stays scheduled
    int handle_timeout(const ACE_Time_Value& currentTime, const void* pArg) override;
};

#endif
