#include "connection/HandlerCall.h"

#include "connection/TarnConnectorImpl.h"

namespace {

thread_local HandlerCall* t_pCurrent = nullptr;

} // namespace

HandlerCall::HandlerCall(TarnConnectorImpl& connection)
    : m_Connection(connection)
    , m_Input(connection.Input())
    , m_ulSession(connection.ServedSession())
    , m_pOuter(t_pCurrent)
{
    t_pCurrent = this;
}

HandlerCall::HandlerCall(TarnConnectorImpl& connection, const InputBuffer& input)
    : m_Connection(connection)
    , m_Input(input)
    , m_ulSession(connection.OpenSession())
    , m_pOuter(t_pCurrent)
{
    t_pCurrent = this;
}

HandlerCall::~HandlerCall()
{
    t_pCurrent = m_pOuter;
}

HandlerCall* HandlerCall::Current()
{
    return t_pCurrent;
}

HandlerCall* HandlerCall::CurrentOf(const TarnConnectorImpl& connection)
{
    for (HandlerCall* pCall = t_pCurrent; pCall != nullptr; pCall = pCall->m_pOuter)
        if (&pCall->m_Connection == &connection)
            return pCall;
    return nullptr;
}
