#include "core/ManagerParts.h"

#include "asyncio/AsyncIOLife.h"
#include "tarnadapterframe/TarnAsn1ProtocolAdapter.h"

namespace {

TarnProtocolAdapter* BuiltInAdapter()
{
    return TarnAsn1ProtocolAdapter::Instance();
}

} // namespace

ManagerParts g_ManagerParts = {&BuiltInAdapter, &StartAsyncIO, &StopAsyncIO, &DestroyAsyncIO};
