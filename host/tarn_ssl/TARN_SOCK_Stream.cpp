#include "StreamState.h"

#include <cerrno>
#include <utility>

TlsConnection::Deadline DeadlineAfter(const ACE_Time_Value* pTimeout)
{
    constexpr time_t LONG = 100'000'000; // seconds, three years: as good as no limit, and no overflow
    if (pTimeout == nullptr || pTimeout->sec() > LONG)
        return {};
    return TlsConnection::Clock::now() + std::chrono::seconds(pTimeout->sec()) +
           std::chrono::microseconds(pTimeout->usec());
}

TARN_SOCK_Stream::TARN_SOCK_Stream(TARN_Lmt_SOCK_Stream* /*pUnused*/)
    : m_pState(std::make_unique<State>())
{}

TARN_SOCK_Stream::~TARN_SOCK_Stream()
{
    close();
}

ACE_HANDLE TARN_SOCK_Stream::get_handle() const
{
    const auto pConnection = m_pState->Connection();
    return pConnection != nullptr ? pConnection->Socket() : ACE_INVALID_HANDLE;
}

int TARN_SOCK_Stream::close()
{
    if (const auto pConnection = m_pState->Close())
        pConnection->Close();
    return 0;
}

int TARN_SOCK_Stream::send_n(const void* pData, std::size_t uLength, const ACE_Time_Value* pTimeout,
                             std::size_t* puSent) const
{
    const auto pConnection = m_pState->Connection();
    std::size_t uSent = 0;
    errno = ENOTCONN;
    const int iResult = pConnection == nullptr ? -1
                                               : pConnection->Send(static_cast<const char*>(pData), uLength,
                                                                   DeadlineAfter(pTimeout), uSent);
    if (puSent != nullptr)
        *puSent = uSent;
    return iResult;
}

int TARN_SOCK_Stream::recv(char* pData, std::size_t uLength, const ACE_Time_Value* pTimeout) const
{
    const auto pConnection = m_pState->Connection();
    errno = ENOTCONN;
    return pConnection == nullptr ? -1 : pConnection->Receive(pData, uLength, DeadlineAfter(pTimeout));
}

bool TARN_SOCK_Stream::has_unread() const
{
    const auto pConnection = m_pState->Connection();
    return pConnection != nullptr && pConnection->HasUnread();
}

bool TARN_SOCK_Stream::has_unsent() const
{
    const auto pConnection = m_pState->Connection();
    return pConnection != nullptr && pConnection->HasUnsent();
}

bool TARN_SOCK_Stream::send_awaits_input() const
{
    const auto pConnection = m_pState->Connection();
    return pConnection != nullptr && pConnection->SendAwaitsInput();
}
