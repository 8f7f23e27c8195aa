#pragma once

#include <string_view>

namespace platform {

// Writes all of `bytes`, going on after interruptions and short writes; false on the first
// error. To a socket it sends without raising SIGPIPE.
bool writeAll(int fd, std::string_view bytes);

} // namespace platform
