#include "tarnadapterframe/tarnadapter.h"

#include "core/Settings.h"
#include "tarnadapterframe/TEAdapterManager.h"
#include "tarnadapterframe/TarnAdapterTrace.h"

bool tarnadapter::m_bTarnadapterInit = false;
bool tarnadapter::m_bTarnadapterFini = false;

int tarnadapter::Init()
{
    if (m_bTarnadapterInit)
    {
        TarnAdapterTrace(2, "tarnadapter::Init ,Init again.\n", true, false);
        return 0;
    }
    ReadSettings();

    TEAdapterManager* pManager = TEAdapterManager::Instance();
    if (pManager == nullptr || pManager->Init() == -1)
    {
        TarnAdapterTrace(2, "TEAdapterManager::Init ,Init false.\n", true, false);
        return -1;
    }
    m_bTarnadapterInit = true;
    m_bTarnadapterFini = false;
    return 0;
}

void tarnadapter::Fini()
{
    if (m_bTarnadapterFini)
    {
        TarnAdapterTrace(2, "tarnadapter::Fini ,Fini again", true, false);
        // A start that failed after the stop, or a late use, has left a manager.
        TEAdapterManager::Destroy();
        return;
    }
    TEAdapterManager::Destroy();
    m_bTarnadapterFini = true;
    m_bTarnadapterInit = false;
}
