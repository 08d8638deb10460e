#include "TlsSessions.h"

#include <utility>

namespace {

int ExDataIndex()
{
    static const int s_iIndex = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
    return s_iIndex;
}

} // namespace

TlsSessions::TlsSessions(std::string strPeer, std::chrono::seconds lifetime)
    : m_strPeer(std::move(strPeer))
    , m_Lifetime(lifetime)
{}

void TlsSessions::Watch(SSL_CTX* pContext)
{
    SSL_CTX_set_session_cache_mode(pContext, SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL);
    SSL_CTX_sess_set_new_cb(pContext, &TlsSessions::Keep);
}

void TlsSessions::Attach(SSL* pSsl)
{
    SSL_set_ex_data(pSsl, ExDataIndex(), this);
    if (const Session pSession = Take())
        SSL_set_session(pSsl, pSession.get()); // counts a reference of its own
}

/// @return 1: the session is kept here and freed here
int TlsSessions::Keep(SSL* pSsl, SSL_SESSION* pSession)
{
    auto* pSessions = static_cast<TlsSessions*>(SSL_get_ex_data(pSsl, ExDataIndex()));
    if (pSessions == nullptr)
        return 0;
    Session pOld(pSession);
    const std::lock_guard<std::mutex> guard(pSessions->m_Mutex);
    pSessions->m_pSession.swap(pOld);
    return 1;
}

void TlsSessions::NoteVerified()
{
    const std::lock_guard<std::mutex> guard(m_Mutex);
    m_tVerified = std::chrono::steady_clock::now();
}

void TlsSessions::Forget()
{
    const std::lock_guard<std::mutex> guard(m_Mutex);
    m_pSession.reset();
}

/// The session to be offered. Those of TLS 1.3 are offered once, as RFC 8446 (C.4) advises: the peer hands out new ones.
TlsSessions::Session TlsSessions::Take()
{
    const std::lock_guard<std::mutex> guard(m_Mutex);
    if (std::chrono::steady_clock::now() - m_tVerified >= m_Lifetime)
        m_pSession.reset();
    if (m_pSession == nullptr || SSL_SESSION_get_protocol_version(m_pSession.get()) >= TLS1_3_VERSION)
        return std::move(m_pSession);
    SSL_SESSION_up_ref(m_pSession.get());
    return Session(m_pSession.get());
}
