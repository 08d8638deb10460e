#include "core/MessageAdapterTable.h"

#include "core/ApplicationCall.h"
#include "tarnadapterframe/TEAdapterManager.h"
#include "tarnadapterframe/TarnAdapterTrace.h"

#include <map>
#include <new>
#include <vector>

namespace {

using MessageAdapterList = std::vector<TEMessageAdapter*>;

// A message class's list -> the adapters collected for it. Created by the first registrar, which may run
// before this file's statics are constructed, and never freed, since registrars of other libraries may
// outlive them. Written while libraries are loaded and read by the manager's start; not locked.
std::map<MessageAdapterList*, MessageAdapterList>* s_Tarn_Te_Msg_Adapter_Map = nullptr;

bool CreateTable()
{
    if (s_Tarn_Te_Msg_Adapter_Map == nullptr)
        s_Tarn_Te_Msg_Adapter_Map = new (std::nothrow) std::map<MessageAdapterList*, MessageAdapterList>;
    return s_Tarn_Te_Msg_Adapter_Map != nullptr;
}

} // namespace

TEInitMessageAdapter::TEInitMessageAdapter(std::vector<TEMessageAdapter*>* pMsgAdapterList,
                                           TEMessageAdapter* pMsgAdapter)
{
    if (pMsgAdapterList == nullptr)
    {
        TarnAdapterFrmtTrace(1, "TEInitMessageAdapter fail, input para pMsgAdapterList=null");
        return;
    }
    if (pMsgAdapter == nullptr)
    {
        TarnAdapterFrmtTrace(1, "TEInitMessageAdapter fail, input para MsgAdapter=null");
        return;
    }
    const bool bListed = WithMemory("TEInitMessageAdapter", false, [&] {
        if (!CreateTable())
            return false;
        (*s_Tarn_Te_Msg_Adapter_Map)[pMsgAdapterList].push_back(pMsgAdapter);
        return true;
    });
    if (!bListed)
        TarnAdapterFrmtTrace(
            1, "TEInitMessageAdapter::TEInitMessageAdapter() new s_Tarn_Te_Msg_Adapter_Map failed.");
}

bool DistributeMessageAdapters()
{
    if (!CreateTable())
    {
        TarnAdapterFrmtTrace(1, "TEAdapterManager::Init() - new s_Tarn_Te_Msg_Adapter_Map failed.");
        return false;
    }
    return WithMemory("TEAdapterManager::Init", false, [] {
        for (const auto& [pList, lstCollected] : *s_Tarn_Te_Msg_Adapter_Map)
            *pList = lstCollected;
        return true;
    });
}
