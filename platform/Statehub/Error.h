// The errors of the state database. Each message names the path and the instance.
#pragma once

#include "Kel/Exception.h"

namespace Statehub {

// Bad use: a malformed path or instance name, a path published with another entity type,
// a key or value too large for its table, a table full.
class Error : public Kel::Exception {
 public:
  using Kel::Exception::Exception;
};

// Another live process publishes the path.
class PublisherExistsError : public Error {
 public:
  using Error::Error;
};

}  // namespace Statehub
