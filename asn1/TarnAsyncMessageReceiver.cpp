#include "tarnadapterframe/TarnAsyncMessageReceiver.h"

#include "core/ApplicationCall.h"
#include "core/SpareNodes.h"
#include "tarnadapterframe/TEMessage.h"
#include "tarnadapterframe/TarnAdapterTrace.h"

#include <ace/Guard_T.h>
#include <ace/Object_Manager.h>

std::atomic<TarnAsyncMessageReceiver*> TarnAsyncMessageReceiver::m_pInstance{nullptr};

AsynCallBack::AsynCallBack() = default;

AsynCallBack::AsynCallBack(TEMessage* pMessage, Function pfn, void* pUser1, void* pUser2)
    : m_pUser1(pUser1)
    , m_pUser2(pUser2)
    , m_pMessage(pMessage)
    , m_pfn(pfn)
{
    if (TarnAsyncMessageReceiver* pReceiver = TarnAsyncMessageReceiver::Instance())
        pReceiver->RegisterMessage(pMessage, this);
}

AsynCallBack& AsynCallBack::operator=(const AsynCallBack& other) = default;

TEMessage* AsynCallBack::GetMessage() const
{
    return m_pMessage;
}

int AsynCallBack::operator()(TEMessage* pMessage, void* /*pUnused1*/, void* /*pUnused2*/)
{
    return m_pfn != nullptr ? m_pfn(pMessage, m_pUser1, m_pUser2) : 0;
}

TarnAsyncMessageReceiver::TarnAsyncMessageReceiver()
    : m_pSpares(std::make_unique<SpareNodes<MapCallBack>>())
{}

TarnAsyncMessageReceiver::~TarnAsyncMessageReceiver()
{
    for (const auto& [ulSerial, pCallBack] : m_mapCallBack)
        delete pCallBack;
}

TarnAsyncMessageReceiver* TarnAsyncMessageReceiver::Instance()
{
    if (m_pInstance.load(std::memory_order_acquire) == nullptr)
    {
        ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, *ACE_Static_Object_Lock::instance(), nullptr);
        if (m_pInstance.load(std::memory_order_relaxed) == nullptr)
            m_pInstance.store(WithMemory("TarnAsyncMessageReceiver::Instance",
                                         static_cast<TarnAsyncMessageReceiver*>(nullptr),
                                         [] { return new TarnAsyncMessageReceiver; }),
                              std::memory_order_release);
    }
    return m_pInstance.load(std::memory_order_acquire);
}

void TarnAsyncMessageReceiver::Destroy()
{
    ACE_GUARD(ACE_Recursive_Thread_Mutex, guard, *ACE_Static_Object_Lock::instance());
    delete m_pInstance.exchange(nullptr);
}

void TarnAsyncMessageReceiver::RegisterMessage(TEMessage* pMessage, AsynCallBack* pCallBack)
{
    if (pMessage == nullptr || pCallBack == nullptr)
    {
        TarnAdapterFrmtTrace(1, "TarnAsyncMessageReceiver RegisterMessage error");
        return;
    }
    const std::uint32_t ulSerial = pMessage->GetMessageSerial();
    WithMemory("TarnAsyncMessageReceiver::RegisterMessage", -1, [&] {
        const TarnGuard guard(m_Lock);
        pMessage->m_bMayHaveCallBack = true;
        if (!m_pSpares->Insert(m_mapCallBack, ulSerial, pCallBack).second)
            TarnAdapterFrmtTrace(1, "TarnAsyncMessageReceiver RegisterMessage error,msg alredy exist");
        return 0;
    });
}

bool TarnAsyncMessageReceiver::HaveRegisterAsyncMsgCallBack(TEMessage* pMessage)
{
    if (pMessage == nullptr)
    {
        TarnAdapterFrmtTrace(2, "HaveRegisterAsyncMsgCallBack input para is NULL");
        return false;
    }
    const std::uint32_t ulSerial = pMessage->GetMessageSerial();
    const TarnGuard guard(m_Lock);
    return m_mapCallBack.count(ulSerial) != 0;
}

bool TarnAsyncMessageReceiver::HaveRegisterAsyncMsgCallBack(TEMessage* pMessage, AsynCallBack*& pCallBack)
{
    if (pMessage == nullptr)
    {
        TarnAdapterFrmtTrace(1, "HaveRegisterAsyncMsgCallBack error , input para is NULL");
        return false;
    }
    const std::uint32_t ulSerial = pMessage->GetMessageSerial();
    const TarnGuard guard(m_Lock);
    const auto it = m_mapCallBack.find(ulSerial);
    if (it == m_mapCallBack.end())
        return false;
    pCallBack = it->second;
    return true;
}

TEMessage* TarnAsyncMessageReceiver::GetResponseMessage(unsigned long ulSerial)
{
    const TarnGuard guard(m_Lock);
    const auto it = m_mapCallBack.find(static_cast<std::uint32_t>(ulSerial));
    return it != m_mapCallBack.end() ? it->second->GetMessage() : nullptr;
}

void TarnAsyncMessageReceiver::UnRegisterMessage(TEMessage* pMessage)
{
    if (pMessage == nullptr)
        return;
    const std::uint32_t ulSerial = pMessage->GetMessageSerial();
    const TarnGuard guard(m_Lock);
    const auto it = m_mapCallBack.find(ulSerial);
    if (it != m_mapCallBack.end())
        EraseLocked(it);
}

void TarnAsyncMessageReceiver::EraseLocked(MapCallBack::iterator it)
{
    delete it->second;
    m_pSpares->Keep(m_mapCallBack.extract(it));
}

bool TarnAsyncMessageReceiver::Copy(const TEMessage& message, AsynCallBack& callBack)
{
    TarnAsyncMessageReceiver* pReceiver = m_pInstance;
    if (pReceiver == nullptr)
        return false;
    const std::uint32_t ulSerial = message.GetMessageSerial();
    const TarnGuard guard(pReceiver->m_Lock);
    const auto it = pReceiver->m_mapCallBack.find(ulSerial);
    if (it == pReceiver->m_mapCallBack.end())
        return false;
    callBack = *it->second;
    return true;
}

void TarnAsyncMessageReceiver::RemoveOwn(const TEMessage& message)
{
    TarnAsyncMessageReceiver* pReceiver = m_pInstance;
    if (pReceiver == nullptr || !message.m_bMayHaveCallBack)
        return;
    const std::uint32_t ulSerial = message.GetMessageSerial();
    const TarnGuard guard(pReceiver->m_Lock);
    const auto it = pReceiver->m_mapCallBack.find(ulSerial);
    if (it == pReceiver->m_mapCallBack.end() || it->second->GetMessage() != &message)
        return;
    pReceiver->EraseLocked(it);
}

void TarnAsyncMessageReceiver::RemoveLast(const TEMessage& message)
{
    RemoveOwn(message);
    message.m_bMayHaveCallBack = false;
}
