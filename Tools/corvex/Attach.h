#pragma once

#include <cstdint>

namespace corvex {
class CorvexdBackend;
}

namespace corvex::cli {

// Shows the pane in this terminal until the user detaches, the pane ends or the daemon goes.
// The pane is drawn from a local terminal fed with its stream, so that nothing the program
// asks of its terminal reaches the user's; `prefix` introduces the attach keys.
int attachSession(CorvexdBackend& backend, uint64_t pane, char prefix);

} // namespace corvex::cli
