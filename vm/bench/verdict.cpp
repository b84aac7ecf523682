#include "verdict.h"

namespace vm
{

const char *verdict(const Goal &goal)
{
    bool met = median(goal.byRate) >= goal.least;
    bool sure = (quantile(goal.byRate, met ? 0.25 : 0.75) >= goal.least) == met;
    if (met)
        return sure ? "met" : "met, within the noise";
    return sure ? "MISSED" : "MISSED, within the noise";
}

const char *verdict(const FreezeTimes &times)
{
    if (median(times.large) <= median(times.small) + times.tick)
        return "met";
    bool sure = quantile(times.large, 0.25) > quantile(times.small, 0.75);
    return sure ? "MISSED" : "MISSED, within the noise";
}

} // namespace vm
