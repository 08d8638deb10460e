#ifndef TARN_TESTS_SUPPORT_DESCRIPTORHOG_H
#define TARN_TESTS_SUPPORT_DESCRIPTORHOG_H

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

/// Holds every descriptor number below iCount.
class DescriptorHog
{
public:
    explicit DescriptorHog(int iCount)
    {
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = std::max<rlim_t>(limit.rlim_cur, static_cast<rlim_t>(iCount) + 100);
        setrlimit(RLIMIT_NOFILE, &limit);
        for (int iNext = 0; iNext < iCount - 1;)
        {
            iNext = open("/dev/null", O_RDONLY | O_CLOEXEC);
            if (iNext < 0)
                break;
            m_descriptors.push_back(iNext);
        }
    }
    ~DescriptorHog()
    {
        for (const int iDescriptor : m_descriptors)
            close(iDescriptor);
    }
    DescriptorHog(const DescriptorHog&) = delete;
    DescriptorHog& operator=(const DescriptorHog&) = delete;

    int Highest() const { return m_descriptors.empty() ? -1 : m_descriptors.back(); }

private:
    std::vector<int> m_descriptors;
};

#endif
