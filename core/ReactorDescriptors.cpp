#include "core/ReactorDescriptors.h"

#include <fcntl.h>
#include <sys/select.h>
#include <unistd.h>

#include <cstddef>

bool ReactorDescriptorsAvailable()
{
    // The reactor's pipe, and as many descriptors as other threads may take meanwhile.
    constexpr std::size_t PIPES = 2;
    int descriptors[2 * PIPES] = {-1, -1, -1, -1};
    bool bAvailable = true;
    for (std::size_t i = 0; i < PIPES; ++i)
        bAvailable = bAvailable && pipe2(&descriptors[2 * i], O_CLOEXEC) == 0;
    for (const int iDescriptor : descriptors)
    {
        bAvailable = bAvailable && iDescriptor < FD_SETSIZE;
        if (iDescriptor >= 0)
            close(iDescriptor);
    }
    return bAvailable;
}
