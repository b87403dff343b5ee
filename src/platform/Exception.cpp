#include <Zel/Exception.h>

#include <cstring>

namespace Zel {

ErrnoException::ErrnoException(std::string const& context, int errorNumber)
    : Exception(context + ": " + std::strerror(errorNumber)), errorNumber_(errorNumber) {}

}  // namespace Zel
