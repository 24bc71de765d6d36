#pragma once
#include <stdexcept>
#include <string>

namespace tilegrid::io {

/// A file or a request that cannot be served. The text says what, where and what to do.
class InputError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

}  // namespace tilegrid::io
