#include "core/ReactorDescriptors.h"

#include <fcntl.h>
#include <sys/select.h>
#include <unistd.h>

#include <array>

bool ReactorDescriptorsAvailable()
{
    // The pipe's two, and two that other threads may take meanwhile.
    std::array<int, 4> descriptors{};
    bool bAvailable = true;
    for (int& iDescriptor : descriptors)
    {
        iDescriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
        bAvailable = bAvailable && iDescriptor >= 0 && iDescriptor < FD_SETSIZE;
    }
    for (const int iDescriptor : descriptors)
    {
        if (iDescriptor >= 0)
            close(iDescriptor);
    }
    return bAvailable;
}
