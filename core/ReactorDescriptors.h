#ifndef TARN_CORE_REACTORDESCRIPTORS_H
#define TARN_CORE_REACTORDESCRIPTORS_H

/// True when a reactor built now would get descriptors that it can wait on. Ask before building one: ACE's
/// select and thread-pool reactors open a notification pipe, and abort the process inside their constructor
/// when its descriptor numbers are beyond FD_SETSIZE.
bool ReactorDescriptorsAvailable();

#endif
