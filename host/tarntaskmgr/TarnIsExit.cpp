#include "tarnadapterframe/tarntaskmgr.h"

#include "InstalledFunction.h"

namespace {

InstalledFunction<bool> g_ExitQuery;

} // namespace

bool TarnIsExit()
{
    return g_ExitQuery.CallOr(false, [] { return false; });
}

TarnExitQuery TarnInstallExit(TarnExitQuery pfnQuery)
{
    return g_ExitQuery.Install(pfnQuery);
}
