#ifndef TARN_TESTS_SUPPORT_LIVING_H
#define TARN_TESTS_SUPPORT_LIVING_H

#include <cstddef>
#include <mutex>
#include <set>

/// Knows the living objects of a class: those that are queued or registered at a stop are nobody's afterwards.
template <class Derived>
class Living
{
public:
    Living(const Living&) = delete;
    Living& operator=(const Living&) = delete;

    static std::size_t Alive()
    {
        const std::lock_guard<std::mutex> guard(s_Mutex);
        return s_Alive.size();
    }

    /// Deletes what is left when no thread of the library runs any more. @return how many there were
    static std::size_t DeleteLeft()
    {
        const std::set<Living*> left = s_Alive;
        for (Living* pLeft : left)
            delete static_cast<Derived*>(pLeft);
        return left.size();
    }

protected:
    Living()
    {
        const std::lock_guard<std::mutex> guard(s_Mutex);
        s_Alive.insert(this);
    }
    ~Living()
    {
        const std::lock_guard<std::mutex> guard(s_Mutex);
        s_Alive.erase(this);
    }

private:
    static inline std::mutex s_Mutex;
    static inline std::set<Living*> s_Alive; // guarded by s_Mutex
};

#endif
