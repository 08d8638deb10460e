#ifndef TARN_BENCH_PROCESSFIGURES_H
#define TARN_BENCH_PROCESSFIGURES_H

#include <sys/resource.h>

#include <fstream>
#include <string>

inline double Seconds(const timeval& time)
{
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

/// Processor time of this process so far.
inline double ProcessorSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return Seconds(usage.ru_utime) + Seconds(usage.ru_stime);
}

/// A number of /proc/self/status, in kB or a plain count.
inline long ProcessStatus(const std::string& strField)
{
    std::ifstream status("/proc/self/status");
    for (std::string strName; status >> strName;)
    {
        long nValue = 0;
        if (strName == strField + ":" && status >> nValue)
            return nValue;
        std::getline(status, strName);
    }
    return 0;
}

#endif
