#include "core/ApplicationCall.h"
#include "core/LogArguments.h"
#include "core/ManagerParts.h"
#include "core/StopGate.h"
#include "tarnadapterframe/TEAdapterManager.h"
#include "tarnadapterframe/TarnAdapterTrace.h"
#include "tarnadapterframe/TarnProtocolAdapter.h"
#include "tarnadapterframe/tarnbaseutil.h"

#include <algorithm>
#include <atomic>

namespace {

// Counts the changes of the registered adapters, of every manager. A change is counted within its lock.
std::atomic<std::uint64_t> s_uChanges{0};

} // namespace

int TEAdapterManager::RegisterProtocolAdapter(std::uint32_t ulProtocolID, TarnProtocolAdapter* pProtocolMgr,
                                              bool bStartAsyncIO)
{
    if (pProtocolMgr == nullptr)
    {
        TarnAdapterFrmtTrace(
            1, "TEAdapterManager::RegisterProtocolAdapter fail, input para pProtocolMgr=NULL\n");
        return -1;
    }
    if (ulProtocolID == 0)
    {
        TarnAdapterFrmtTrace(1,
                             "TEAdapterManager::RegisterProtocolAdapter fail, input para ulProtocolID=0\n");
        return -1;
    }
    bool bInserted = false;
    const bool bMemory = WithMemory("TEAdapterManager::RegisterProtocolAdapter", false, [&] {
        bInserted = InsertProtocolAdapter(ulProtocolID, pProtocolMgr);
        return true;
    });
    if (!bMemory)
        return -1;
    if (!bInserted)
    {
        TarnAdapterFrmtTrace(2, "RegisterProtocolAdapter, the protocol(ID=%d) is already registed",
                             AsInt(ulProtocolID));
        return 1;
    }
    if (bStartAsyncIO && !RequestAsyncIO())
    {
        TarnAdapterFrmtTrace(1, "TEAdapterManager::RegisterProtocolAdapter fail to  start AsyncIO.\n");
        RetireProtocolAdapter(ulProtocolID, pProtocolMgr);
        return -1;
    }
    return 0;
}

// False when the id is taken. Either everything is inserted or, without memory, nothing.
bool TEAdapterManager::InsertProtocolAdapter(std::uint32_t ulProtocolID, TarnProtocolAdapter* pProtocolMgr)
{
    const TarnGuard guard(m_RegistryMutex);
    if (m_mapProtocolAdapter.count(ulProtocolID) != 0)
        return false;
    // The entry last: an adapter that owns nothing yet may be known as owned, but not the other way round.
    const bool bOwned = pProtocolMgr != m_pBuiltInAdapter && m_setOwnedAdapter.insert(pProtocolMgr).second;
    try
    {
        m_mapProtocolAdapter.emplace(ulProtocolID, pProtocolMgr);
        ++s_uChanges;
    }
    catch (...)
    {
        if (bOwned)
            m_setOwnedAdapter.erase(pProtocolMgr);
        throw;
    }
    return true;
}

// Starts asynchronous I/O, or leaves the wish for Init while the manager is not started. The flag is set
// before the started flag is looked at, and Init looks at them in the other order, so that between them no
// wish is lost.
bool TEAdapterManager::RequestAsyncIO()
{
    // Once the stop has begun nothing is started any more: it would outlive its own stop.
    const StopGate::Pass pass(*m_pStartGate);
    if (!pass)
        return false;
    if (!s_bStarted)
    {
        s_bAsyncIOPending = true;
        if (!s_bStarted)
            return true;
    }
    return StartAsyncIO() >= 0;
}

int TEAdapterManager::StartAsyncIO()
{
    if (g_ManagerParts.pfnStartAsyncIO == nullptr)
    {
        TarnAdapterFrmtTrace(1, "TEAdapterManager, the library is built without asynchronous I/O\n");
        return -1;
    }
    return g_ManagerParts.pfnStartAsyncIO();
}

int TEAdapterManager::UnRegisterProtocolAdapter(std::uint32_t ulProtocolID)
{
    if (RetireProtocolAdapter(ulProtocolID, nullptr))
        return 0;
    TarnAdapterFrmtTrace(2, "UnRegisterProtocolAdapter(ID = %d) failed\n", AsInt(ulProtocolID));
    return -1;
}

// Moves the adapter registered under the id to the retired ones; with pOnly only if it is that one. An entry
// that is there already keeps its place; the adapter is remembered as owned all the same.
bool TEAdapterManager::RetireProtocolAdapter(std::uint32_t ulProtocolID, const TarnProtocolAdapter* pOnly)
{
    const TarnGuard guard(m_RegistryMutex);
    const auto it = m_mapProtocolAdapter.find(ulProtocolID);
    if (it == m_mapProtocolAdapter.end() || (pOnly != nullptr && it->second != pOnly))
        return false;
    m_mapRetiredAdapter.insert(m_mapProtocolAdapter.extract(it));
    ++s_uChanges;
    return true;
}

TarnProtocolAdapter* TEAdapterManager::GetProtocolAdapter(std::uint32_t ulProtocolID)
{
    // Each thread asks for the same adapter for every message that it cuts out of the bytes.
    struct Found
    {
        std::uint64_t uChanges = 0;
        std::uint32_t ulProtocolID = 0;
        TarnProtocolAdapter* pAdapter = nullptr;
    };
    thread_local Found t_Found;
    if (t_Found.uChanges == s_uChanges && t_Found.ulProtocolID == ulProtocolID && t_Found.pAdapter != nullptr)
        return t_Found.pAdapter;
    {
        const TarnGuard guard(m_RegistryMutex);
        const auto it = m_mapProtocolAdapter.find(ulProtocolID);
        if (it != m_mapProtocolAdapter.end())
        {
            t_Found = {s_uChanges, ulProtocolID, it->second};
            return it->second;
        }
    }
    TarnAdapterFrmtTrace(2, "GetProtocolAdapter(ID = %d) failed,ProtocolAdapter not registed\n",
                         AsInt(ulProtocolID));
    return nullptr;
}

int TEAdapterManager::CheckMessageValid(void* pHandle, std::vector<unsigned char>& data,
                                        std::uint32_t ulProtocolID)
{
    if (TarnAppIsExit())
        return 0;
    TarnProtocolAdapter* pAdapter = GetProtocolAdapter(ulProtocolID);
    if (pAdapter == nullptr)
    {
        TarnAdapterFrmtTrace(1, "Attention! not find protocols(ID = %d) ! \n", AsInt(ulProtocolID));
        return 0;
    }
    int iResult = -1;
    CallApplication("CheckMessageValid", typeid(*pAdapter),
                    [&] { iResult = pAdapter->CheckMessageValid(pHandle, data); });
    if (iResult >= 0)
        return iResult;
    if (iResult == -2 || iResult == -3)
    {
        TarnAdapterFrmtTrace(2,
                             "Attention! Message if valid but the count is not enough, data has not received "
                             "completely,count is %d \n",
                             iResult);
        return 0;
    }
    TarnAdapterFrmtTrace(2, "Attention! Message not valid for protocol,count is %d \n", iResult);
    return -1;
}

// Deletes every adapter that was ever taken over, each once. No lock is held while an adapter's destructor
// runs, and those that wait for their turn can still be found by it.
void TEAdapterManager::DeleteProtocolAdapters()
{
    for (AdapterEntry entry = TakeRegistered(); entry.second != nullptr; entry = TakeRegistered())
    {
        TarnAdapterFrmtTrace(1, "while ~TEAdapterManager,protocol(ID=%d) has not unregist",
                             AsInt(entry.first));
        if (!IsRegistered(entry.second)) // under another id
            DeleteIfOwned(entry.second);
    }
    for (AdapterEntry entry = TakeRetired(); entry.second != nullptr; entry = TakeRetired())
        DeleteIfOwned(entry.second);
    // What is left was unregistered under an id that another adapter had been unregistered under before.
    while (TarnProtocolAdapter* pAdapter = FirstOwned())
        DeleteIfOwned(pAdapter);
}

TEAdapterManager::AdapterEntry TEAdapterManager::TakeFirst(AdapterMap& mapAdapter)
{
    if (mapAdapter.empty())
        return {0, nullptr};
    const AdapterEntry entry = *mapAdapter.begin();
    mapAdapter.erase(mapAdapter.begin());
    return entry;
}

TEAdapterManager::AdapterEntry TEAdapterManager::TakeRegistered()
{
    const TarnGuard guard(m_RegistryMutex);
    ++s_uChanges;
    return TakeFirst(m_mapProtocolAdapter);
}

TEAdapterManager::AdapterEntry TEAdapterManager::TakeRetired()
{
    const TarnGuard guard(m_RegistryMutex);
    return TakeFirst(m_mapRetiredAdapter);
}

bool TEAdapterManager::IsRegistered(const TarnProtocolAdapter* pAdapter)
{
    const TarnGuard guard(m_RegistryMutex);
    return std::any_of(m_mapProtocolAdapter.begin(), m_mapProtocolAdapter.end(),
                       [pAdapter](const auto& entry) { return entry.second == pAdapter; });
}

TarnProtocolAdapter* TEAdapterManager::FirstOwned()
{
    const TarnGuard guard(m_RegistryMutex);
    return m_setOwnedAdapter.empty() ? nullptr : *m_setOwnedAdapter.begin();
}

void TEAdapterManager::DeleteIfOwned(TarnProtocolAdapter* pAdapter)
{
    {
        const TarnGuard guard(m_RegistryMutex);
        if (m_setOwnedAdapter.erase(pAdapter) == 0)
            return;
    }
    delete pAdapter;
}
