/* What is said of numbers that vary from round to round. */
#pragma once

#include <string>
#include <vector>

namespace vm
{

using Samples = std::vector<double>;

// Of at least one sample; between two of them where it falls between them.
double quantile(Samples samples, double fraction);
inline double median(const Samples &samples)
{
    return quantile(samples, 0.5);
}

// Of each sample to that of the same round.
Samples ratios(const Samples &of, const Samples &to);
// Of the two samples of each round.
Samples means(const Samples &one, const Samples &other);
// "0.98 (0.95 to 1.01)": the median, and the quartiles as its spread.
std::string withSpread(const Samples &samples, int digits);

std::string format(const char *pattern, ...) __attribute__((format(printf, 1, 2)));

} // namespace vm
