#pragma once

namespace corvexd {

// `corvexd bridge`: relays standard input and output to the daemon's socket, starting the
// daemon when none runs.
int bridge();

} // namespace corvexd
