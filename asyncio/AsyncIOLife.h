#ifndef TARN_ASYNCIO_ASYNCIOLIFE_H
#define TARN_ASYNCIO_ASYNCIOLIFE_H

/// @file
/// Start and stop of asynchronous I/O as the adapter manager asks for them, see ManagerParts.

/// @return 0, or -1 when there is no engine to start
int StartAsyncIO();
void StopAsyncIO();
void DestroyAsyncIO();

#endif
