#ifndef TARNADAPTERFRAME_TARNADAPTERFRAME_H
#define TARNADAPTERFRAME_TARNADAPTERFRAME_H

/// @file
/// Everything that a protocol adapter or an application needs of the framework.

#include "tarnadapterframe/AdapterTypes.h"
#include "tarnadapterframe/ConnectionTypes.h"
#include "tarnadapterframe/Export.h"
#include "tarnadapterframe/PSyncHelp.h"
#include "tarnadapterframe/TEAdapterManager.h"
#include "tarnadapterframe/TEAsyncIOMgr.h"
#include "tarnadapterframe/TEMessage.h"
#include "tarnadapterframe/TEMessageAdapter.h"
#include "tarnadapterframe/TEMessageInfo.h"
#include "tarnadapterframe/TarnAdapterObject.h"
#include "tarnadapterframe/TarnAdapterTrace.h"
#include "tarnadapterframe/TarnAsn1Message.h"
#include "tarnadapterframe/TarnAsn1ProtocolAdapter.h"
#include "tarnadapterframe/TarnAsyncMessageReceiver.h"
#include "tarnadapterframe/TarnConnector.h"
#include "tarnadapterframe/TarnConnectorMgr.h"
#include "tarnadapterframe/TarnLock.h"
#include "tarnadapterframe/TarnProtocolAdapter.h"
#include "tarnadapterframe/TarnTarget.h"
#include "tarnadapterframe/TraceHexData.h"
#include "tarnadapterframe/tarnadapter.h"

#endif
