#include "core/CorrelationHold.h"

#include <array>
#include <cstddef>
#include <utility>

namespace {

struct PutOffAction
{
    CorrelationHold::Action action;
    void* pArgument;
};

// One answer wakes one thread, mostly.
constexpr std::size_t MAX_PUT_OFF = 8;

thread_local unsigned t_nHolds = 0;
thread_local std::size_t t_nPutOff = 0;
thread_local std::array<PutOffAction, MAX_PUT_OFF> t_PutOff;

} // namespace

void CorrelationHold::Begin()
{
    ++t_nHolds;
}

void CorrelationHold::End()
{
    if (t_nHolds == 0 || --t_nHolds != 0)
        return;
    const std::size_t nPutOff = std::exchange(t_nPutOff, 0);
    for (std::size_t i = 0; i < nPutOff; ++i)
        t_PutOff[i].action(t_PutOff[i].pArgument);
}

bool CorrelationHold::PutOff(Action action, void* pArgument)
{
    if (t_nHolds == 0 || t_nPutOff == t_PutOff.size())
        return false;
    t_PutOff[t_nPutOff++] = {action, pArgument};
    return true;
}
