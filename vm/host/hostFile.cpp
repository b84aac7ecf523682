#include "hostFile.h"

#include <fstream>
#include <iterator>
#include <stdexcept>

namespace vm
{

std::string contentsOf(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw std::runtime_error(path + ": cannot be read");
    return {std::istreambuf_iterator<char>(in), {}};
}

} // namespace vm
