#include "tarnadapterframe/tarnbaseutil.h"

#include "InstalledFunction.h"

namespace {

InstalledFunction<bool> g_AppExitQuery;

} // namespace

bool TarnAppIsExit()
{
    return g_AppExitQuery.CallOr(false, [] { return false; });
}

TarnAppExitQuery TarnInstallAppExit(TarnAppExitQuery pfnQuery)
{
    return g_AppExitQuery.Install(pfnQuery);
}
