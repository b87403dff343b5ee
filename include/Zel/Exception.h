// The runtime's exceptions. Each carries the exact message its contract names; what() returns
// it unchanged.
#pragma once

#include <stdexcept>
#include <string>

namespace Zel {

class Exception : public std::runtime_error {
public:
  explicit Exception(std::string const& message) : std::runtime_error(message) {}
};

// A value outside an attribute's declared range, a null pointer given to a mutator that forbids
// it, or a string form that does not parse.
class RangeException : public Exception {
public:
  using Exception::Exception;
};

// A child re-instantiated under its key with a different constructor parameter.
class NameInUseException : public Exception {
public:
  using Exception::Exception;
};

// A virtual operation that a derived class must supply was called on its base.
class NoImplementationException : public Exception {
public:
  using Exception::Exception;
};

// Reflection asked for an operation that the attribute's kind forbids (writing a constructor
// parameter, for example).
class OperationNotSupportedException : public Exception {
public:
  using Exception::Exception;
};

// A system call failed. The message is "<context>: <strerror(errno)>".
class ErrnoException : public Exception {
public:
  ErrnoException(std::string const& context, int errorNumber);
  int errorNumber() const noexcept { return errorNumber_; }

private:
  int errorNumber_;
};

}  // namespace Zel
