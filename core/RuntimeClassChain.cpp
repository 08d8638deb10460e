#include "tarnadapterframe/TarnAdapterObject.h"
#include "tarnadapterframe/TarnAsn1Message.h"
#include "tarnadapterframe/TarnTarget.h"

// The registrars of the framework's own classes stand together in this file: only inside one file is the
// order in which statics are constructed the order in which they are written, whatever the order of linking.
// The chain reads the last one first.

namespace {

const TARN_ADAPTER_CLASSINIT g_InitTarnAdapterObject(&TarnAdapterObject::classTarnAdapterObject);
const TARN_ADAPTER_CLASSINIT g_InitTarnAsn1Message(&TarnAsn1Message::classTarnAsn1Message);
const TARN_ADAPTER_CLASSINIT g_InitTarnTarget(&TarnTarget::classTarnTarget);
const TARN_ADAPTER_CLASSINIT g_InitTarnAsn1Target(&TarnAsn1Target::classTarnAsn1Target);

} // namespace
