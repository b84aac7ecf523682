#include "samples.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <stdexcept>

namespace vm
{

double quantile(Samples samples, double fraction)
{
    if (samples.empty())
        throw std::logic_error("a quantile of nothing");
    std::sort(samples.begin(), samples.end());
    double place = fraction * static_cast<double>(samples.size() - 1);
    auto below = static_cast<std::size_t>(std::floor(place));
    auto above = static_cast<std::size_t>(std::ceil(place));
    return samples[below] + (place - std::floor(place)) * (samples[above] - samples[below]);
}

Samples ratios(const Samples &of, const Samples &to)
{
    Samples result;
    for (std::size_t i = 0; i < of.size(); i++)
        result.push_back(of[i] / to.at(i));
    return result;
}

Samples means(const Samples &one, const Samples &other)
{
    Samples result;
    for (std::size_t i = 0; i < one.size(); i++)
        result.push_back((one[i] + other.at(i)) / 2);
    return result;
}

std::string withSpread(const Samples &samples, int digits)
{
    return format("%.*f (%.*f to %.*f)", digits, median(samples), digits, quantile(samples, 0.25),
                  digits, quantile(samples, 0.75));
}

std::string format(const char *pattern, ...)
{
    char text[256];
    va_list arguments;
    va_start(arguments, pattern);
    int length = std::vsnprintf(text, sizeof(text), pattern, arguments);
    va_end(arguments);
    if (length < 0 || length >= static_cast<int>(sizeof(text)))
        throw std::logic_error("a line that is too long");
    return text;
}

} // namespace vm
