#pragma once

#include <iosfwd>
#include <memory>
#include <string>

namespace corvex {
class CorvexdTransport;
}

namespace corvex::cli {

// The transport of `--ssh TARGET`, after the machine was set up as the app sets it up: the
// probe, an upload on first contact, the choice of the daemon to bridge to. Progress and
// the daemon's version status go to `err`. On a failure it prints what went wrong (and, when
// ssh itself failed, what to do about it) and yields null.
std::shared_ptr<CorvexdTransport> prepareRemote(const std::string& target, std::ostream& err);

} // namespace corvex::cli
