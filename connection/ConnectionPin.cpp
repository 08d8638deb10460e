#include "connection/ConnectionPin.h"

#include "connection/TarnConnectorImpl.h"
#include "tarnadapterframe/TarnAdapterTrace.h"
#include "tarnadapterframe/TarnConnector.h"

ConnectionPin::ConnectionPin(TarnConnector& connector, const char* pszMissing)
{
    {
        const TarnGuard guard(connector.m_ImplLock);
        m_pImpl = connector.m_pImpl;
        if (m_pImpl != nullptr)
            m_pImpl->Pin();
    }
    if (m_pImpl == nullptr && pszMissing != nullptr)
        TarnAdapterFrmtTrace(1, "%s", pszMissing);
}

ConnectionPin::ConnectionPin(TarnConnectorImpl& connection)
    : m_pImpl(&connection)
{
    m_pImpl->Pin();
}

ConnectionPin::~ConnectionPin()
{
    if (m_pImpl != nullptr)
        m_pImpl->Unpin();
}
