#include "tarnadapterframe/TEMessageAdapter.h"

#include "tarnadapterframe/TEAdapterManager.h"
#include "tarnadapterframe/TEMessage.h"

TEMessageAdapter::TEMessageAdapter(TarnProtocolAdapter* pSrcAdapter, TarnProtocolAdapter* pSinkAdapter)
    : m_pSrcAdapter(pSrcAdapter)
    , m_pSinkAdapter(pSinkAdapter)
{}

TEMessageAdapter::~TEMessageAdapter() = default;

bool TEMessageAdapter::CanTranslate(TEMessage* /*pMessage*/)
{
    return false;
}

int TEMessageAdapter::HandleMessage(TEMessage* /*pMessage*/)
{
    return -1;
}

int TEMessageAdapter::HandleResponse(TEMessage* /*pSource*/, TEMessage* /*pSink*/, void* /*pUserData*/,
                                     bool /*bFlag*/)
{
    return -1;
}

int TEMessageAdapter::HandleReport(TEMessage* /*pMessage*/)
{
    return -1;
}

int TEMessageAdapter::HandleAsyncError(TEMessage* pSource, void* pUserData, EAdapterError /*eError*/)
{
    delete static_cast<TEMsgUserData*>(pUserData);
    delete pSource;
    return 0;
}

int TEMessageAdapter::RegisterPrivateMessage(TEMessage* pSource, TEMessageAdapter* pMsgAdapter,
                                             void* pUserData, int nTimeOut)
{
    TEAdapterManager* pManager = TEAdapterManager::Instance();
    return pManager != nullptr ? pManager->RegisterPrivateMessage(pSource, pMsgAdapter, pUserData, nTimeOut)
                               : -1;
}

int TEMessageAdapter::RegisterMessage(TEMessage* pSource, TEMessage* pSink)
{
    TEAdapterManager* pManager = TEAdapterManager::Instance();
    return pManager != nullptr ? pManager->RegisterMessage(pSource, pSink) : -1;
}

TarnProtocolAdapter* TEMessageAdapter::SrcProtocolInstance() const
{
    return m_pSrcAdapter;
}

TarnProtocolAdapter* TEMessageAdapter::SinkProtocolInstance() const
{
    return m_pSinkAdapter;
}
