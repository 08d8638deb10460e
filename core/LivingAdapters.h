#ifndef TARN_CORE_LIVINGADAPTERS_H
#define TARN_CORE_LIVINGADAPTERS_H

#include <cstdint>

class TarnProtocolAdapter;

/// Whether there is an adapter at this address, and has this id. A message adapter lives as long as the process, the
/// adapters that it names only until the library's stop.
bool IsLivingAdapter(const TarnProtocolAdapter* pAdapter, std::uint32_t ulProtocolID);

#endif
