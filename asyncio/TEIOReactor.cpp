#include "asyncio/TEIOReactor.h"

#include "connection/WouldBlock.h"

#include <ace/Event_Handler.h>
#include <ace/Guard_T.h>
#include <ace/Select_Reactor_Base.h>

#include <sys/socket.h>

#include <cerrno>

namespace {

// The handler call that this thread has begun last. ACE suspends the handle on the dispatching thread before
// the call, and drops or resumes it on the same thread afterwards.
struct DispatchedCall
{
    const TEIOReactor* pReactor = nullptr;
    ACE_HANDLE handle = ACE_INVALID_HANDLE;
    std::uint32_t ulGeneration = 0;
};
thread_local DispatchedCall t_Call;

// What ACE removes after a handler call that failed: the one event of the call. Whoever unregisters a handle
// removes more.
bool IsSingleEvent(ACE_Reactor_Mask mask)
{
    return mask == ACE_Event_Handler::READ_MASK || mask == ACE_Event_Handler::WRITE_MASK ||
           mask == ACE_Event_Handler::EXCEPT_MASK;
}

/// The writing end of a reactor's notification pipe, which ACE keeps to itself.
class NotificationPipe : public ACE_Select_Reactor_Notify
{
public:
    static ACE_HANDLE WriteHandle(ACE_Reactor_Notify* pNotify)
    {
        auto* pPipe = dynamic_cast<ACE_Select_Reactor_Notify*>(pNotify);
        return pPipe != nullptr ? (pPipe->*(&NotificationPipe::notification_pipe_)).write_handle()
                                : ACE_INVALID_HANDLE;
    }
};

bool Switch(ACE_Handle_Set& set, ACE_HANDLE handle, bool bOn)
{
    if ((set.is_set(handle) != 0) == bOn)
        return false;
    if (bOn)
        set.set_bit(handle);
    else
        set.clr_bit(handle);
    return true;
}

} // namespace

TEIOReactor::TEIOReactor()
    : m_WakeHandle(NotificationPipe::WriteHandle(notify_handler_))
{}

int TEIOReactor::notify(ACE_Event_Handler* pHandler, ACE_Reactor_Mask mask, ACE_Time_Value* pTimeout)
{
    if (pHandler != nullptr)
        return StoppableReactor::notify(pHandler, mask, pTimeout);
    const ACE_Notification_Buffer buffer(nullptr, mask);
    const auto iSent = send(m_WakeHandle, &buffer, sizeof(buffer), MSG_DONTWAIT | MSG_NOSIGNAL);
    // In a full pipe there are wake-ups enough.
    if (iSent == static_cast<ssize_t>(sizeof(buffer)) || (iSent == -1 && IsWouldBlock(errno)))
        return 0;
    return StoppableReactor::notify(pHandler, mask, pTimeout); // not a socket, or not open
}

int TEIOReactor::EnableWriteEvents(ACE_HANDLE handle)
{
    return SwitchWriteEvents(handle, true);
}

int TEIOReactor::DisableWriteEvents(ACE_HANDLE handle)
{
    return SwitchWriteEvents(handle, false);
}

int TEIOReactor::SwitchWriteEvents(ACE_HANDLE handle, bool bOn)
{
    ACE_GUARD_RETURN(ACE_Select_Reactor_Token, guard, token_, -1);
    // First of all: it knows the range of handles, the sets do not.
    if (handler_rep_.find(handle) == nullptr)
        return 0;
    if (wait_set_.rd_mask_.is_set(handle) != 0)
        return Switch(wait_set_.wr_mask_, handle, bOn) ? 1 : 0;
    if (suspend_set_.rd_mask_.is_set(handle) != 0)
        return Switch(suspend_set_.wr_mask_, handle, bOn) ? 1 : 0;
    return 0;
}

void TEIOReactor::clear_dispatch_mask(ACE_HANDLE handle, ACE_Reactor_Mask mask)
{
    if (handler_rep_.find(handle) == nullptr)
    {
        ACE_TP_Reactor::clear_dispatch_mask(handle, mask);
        return;
    }
    ready_set_.rd_mask_.clr_bit(handle);
    ready_set_.wr_mask_.clr_bit(handle);
    ready_set_.ex_mask_.clr_bit(handle);
}

int TEIOReactor::any_ready(ACE_Select_Reactor_Handle_Set& waitSet)
{
    return any_ready_i(waitSet);
}

int TEIOReactor::register_handler_i(ACE_HANDLE handle, ACE_Event_Handler* pHandler, ACE_Reactor_Mask mask)
{
    const bool bFirst = handler_rep_.find(handle) == nullptr;
    const int iResult = ACE_TP_Reactor::register_handler_i(handle, pHandler, mask);
    if (iResult == 0 && bFirst && handle < FD_SETSIZE)
        ++m_Generation[static_cast<std::size_t>(handle)];
    return iResult;
}

int TEIOReactor::remove_handler_i(ACE_HANDLE handle, ACE_Reactor_Mask mask)
{
    if (IsSingleEvent(mask) && IsStaleCall(handle))
        return 0;
    return ACE_TP_Reactor::remove_handler_i(handle, mask);
}

int TEIOReactor::suspend_i(ACE_HANDLE handle)
{
    const int iResult = ACE_TP_Reactor::suspend_i(handle);
    if (iResult == 0)
        t_Call = {this, handle, m_Generation[static_cast<std::size_t>(handle)]};
    return iResult;
}

int TEIOReactor::resume_i(ACE_HANDLE handle)
{
    return IsStaleCall(handle) ? 0 : ACE_TP_Reactor::resume_i(handle);
}

// True when this thread's last handler call was for an earlier registration of the handle.
bool TEIOReactor::IsStaleCall(ACE_HANDLE handle) const
{
    return t_Call.pReactor == this && t_Call.handle == handle &&
           t_Call.ulGeneration != m_Generation[static_cast<std::size_t>(handle)];
}
