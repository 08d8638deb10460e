#include "asyncio/TEAsyncIOMgrImpl.h"
#include "connection/HandlerCall.h"
#include "connection/TarnConnectorImpl.h"
#include "core/ActiveThreads.h"

#include <ace/Thread.h>

namespace {

/// Session numbers start again at 1 some day.
bool IsLater(std::uint32_t ulSession, std::uint32_t ulOther)
{
    return static_cast<std::int32_t>(ulSession - ulOther) > 0;
}

} // namespace

void TarnConnectorImpl::set_handle(ACE_HANDLE handle)
{
    const TarnGuard guard(m_RegistrationMutex);
    // Without a handle, a connection that is entered but not served can still be found and taken out.
    if (IsServed() || (IsRegistered() && handle != ACE_INVALID_HANDLE))
        TakeBackRegistration();
    const DescriptorGuard::Change change(m_DescriptorGuard);
    StoreHandle(handle);
}

void TarnConnectorImpl::StoreHandle(ACE_HANDLE handle)
{
    const TarnWriteGuard guard(m_ParameterLock);
    // The session first: who reads the handle without the guard must not take it for the last session's.
    if (handle != ACE_INVALID_HANDLE && ++m_ulSession == 0)
        m_ulSession = 1; // 0 stands for none
    m_Handle = handle;
}

ACE_HANDLE TarnConnectorImpl::GetHandle()
{
    return m_Handle;
}

ACE_HANDLE TarnConnectorImpl::UsableHandle()
{
    const HandlerCall* pCall = HandlerCall::CurrentOf(*this);
    return pCall != nullptr && pCall->Session() != m_ulSession ? ACE_INVALID_HANDLE : GetHandle();
}

int TarnConnectorImpl::CloseDescriptor(const std::function<int()>& close)
{
    const TarnGuard guard(m_RegistrationMutex);
    if (IsRegistered())
        TakeBackRegistration();
    const DescriptorGuard::Change change(m_DescriptorGuard);
    const int iResult = close();
    if (iResult != 0)
        return iResult;
    // Closed on purpose, so what an I/O thread may still see of it is no break.
    ClaimBreak(m_ulSession, BreakTold::NO);
    StoreHandle(ACE_INVALID_HANDLE);
    return 0;
}

/// A registration that is left behind would read the next owner of the number.
void TarnConnectorImpl::TakeBackRegistration()
{
    if (TEAsyncIOMgrImpl* pAsyncIOMgr = TEAsyncIOMgrImpl::Existing())
        pAsyncIOMgr->UnregisterLocked(*this);
}

std::uint32_t TarnConnectorImpl::OpenSession()
{
    const DescriptorGuard::Use use(m_DescriptorGuard);
    return GetHandle() != ACE_INVALID_HANDLE ? m_ulSession.load() : 0;
}

std::uint32_t TarnConnectorImpl::ServedSession()
{
    const DescriptorGuard::Use use(m_DescriptorGuard);
    const std::uint32_t ulSession = m_ulSession;
    if (GetHandle() == ACE_INVALID_HANDLE || m_ulServed != ulSession)
        return 0;
    return IsLater(ulSession, m_ulBreakClaimed) ? ulSession : 0;
}

void TarnConnectorImpl::SetServed(bool bServed)
{
    m_ulServed = bServed ? m_ulSession.load() : 0;
    if (bServed)
        m_ulFailedSession = 0; // no call is under way
    if (!bServed || IsControlParaTrue(AUTO_CONNECT))
        return;
    // A descriptor of the caller's may be served again after a break, and may then break again.
    const std::lock_guard<std::mutex> guard(m_ClaimMutex);
    m_ulBreakClaimed = m_ulSession - 1;
}

std::uint32_t TarnConnectorImpl::ClaimOpened()
{
    const std::uint32_t ulSession = OpenSession();
    const std::lock_guard<std::mutex> guard(m_ClaimMutex);
    if (ulSession == 0 || !IsLater(ulSession, m_ulOpenedClaimed) || !IsLater(ulSession, m_ulBreakClaimed))
        return 0;
    m_ulOpenedClaimed = ulSession;
    // Within the lock: a break that is claimed later is announced later. Served, but not announced, is the best
    // that can be done without memory.
    static_cast<void>(m_Hooks.ReserveOpened());
    return ulSession;
}

BreakClaim TarnConnectorImpl::ClaimBreak(std::uint32_t ulSession, BreakTold eTold)
{
    const std::lock_guard<std::mutex> guard(m_ClaimMutex);
    if (ulSession == 0 || !IsLater(ulSession, m_ulBreakClaimed))
        return BreakClaim::NOT_MINE;
    const bool bTell =
        eTold == BreakTold::YES || (eTold == BreakTold::IF_OPENING_WAS && m_ulOpenedClaimed == ulSession);
    if (bTell && !m_Hooks.ReserveBroken())
        return BreakClaim::NOT_MINE; // without memory the reactor finds it broken again, and again
    m_ulBreakClaimed = ulSession;
    return bTell ? BreakClaim::TELL : BreakClaim::SILENT;
}

void TarnConnectorImpl::CloseSession(std::uint32_t ulSession)
{
    // Looked at before, so that nobody waits for an attempt to connect that follows the session.
    if (OpenSession() != ulSession)
        return;
    const TarnGuard guard(m_OpenMutex);
    // A descriptor that the host has closed behind the transport's back fails once and is forgotten then.
    if (OpenSession() == ulSession && DisConnect() != 0)
        DisConnect();
}

ACE_Event_Handler::Reference_Count TarnConnectorImpl::add_reference()
{
    const std::lock_guard<std::mutex> guard(m_PinMutex);
    return ++m_nReactorPins;
}

ACE_Event_Handler::Reference_Count TarnConnectorImpl::remove_reference()
{
    const std::lock_guard<std::mutex> guard(m_PinMutex);
    m_PinReleased.notify_all();
    return --m_nReactorPins;
}

void TarnConnectorImpl::Pin()
{
    const std::lock_guard<std::mutex> guard(m_PinMutex);
    ++m_nUsePins;
}

void TarnConnectorImpl::Unpin()
{
    const std::lock_guard<std::mutex> guard(m_PinMutex);
    m_PinReleased.notify_all();
    --m_nUsePins;
}

bool TarnConnectorImpl::WaitForOldCalls(std::chrono::milliseconds timeout)
{
    const int nOwn = HandlerCall::CurrentOf(*this) != nullptr ? 1 : 0;
    std::unique_lock<std::mutex> lock(m_PinMutex);
    if (m_nReactorPins > nOwn)
        ActiveThreads::NoteBlocked();
    return m_PinReleased.wait_for(lock, timeout, [&] { return m_nReactorPins <= nOwn; });
}

bool TarnConnectorImpl::WaitUntilUnpinned(std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(m_PinMutex);
    return m_PinReleased.wait_for(lock, timeout, [this] { return m_nReactorPins == 0 && m_nUsePins == 0; });
}

bool TarnConnectorImpl::IsUnused()
{
    // In this order: a reactor call holds its pin longer than its reference, and without a reference nobody
    // can register the connection anew.
    if (GetRefCount() > m_nAbandoned)
        return false;
    const std::lock_guard<std::mutex> guard(m_PinMutex);
    return m_nReactorPins == 0 && m_nUsePins == 0;
}
