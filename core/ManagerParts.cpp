#include "core/ManagerParts.h"

#include "asyncio/AsyncIOLife.h"

ManagerParts g_ManagerParts = {nullptr, &StartAsyncIO, &StopAsyncIO, &DestroyAsyncIO};
