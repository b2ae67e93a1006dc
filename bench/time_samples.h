// Where a program's time goes, by shared object: what each takes itself, without what it calls in others.
#pragma once

#include <map>
#include <string>

namespace bench
{

// Looks at the program counter of the process several thousand times a second, from construction to destruction.
// For programs of one thread; one at a time. Throws std::runtime_error when there is no timer.
class Time_Samples
{
public:
    Time_Samples();
    ~Time_Samples();
    Time_Samples(const Time_Samples &) = delete;
    Time_Samples &operator=(const Time_Samples &) = delete;

    // Part of the time so far, 0 to 1, by file name of the object, without its folder. Time in the kernel counts for
    // the object that called it.
    std::map<std::string, double> shares() const;

private:
    void *timer_ = nullptr;
};

} // namespace bench
