#pragma once

#include <cstddef>
#include <string>

namespace tern {

// `length` lower-case ASCII letters, each drawn on its own and uniformly from "a" to "z" with
// the system's cryptographic random source (no modulo bias). Used where an identifier only has
// to be unlikely to collide, such as the attachments this library adds to a notification.
// A length of 0 gives "".
std::string random(std::size_t length);

}  // namespace tern
