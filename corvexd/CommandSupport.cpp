#include "corvexd/CommandSupport.h"

#include <iostream>
#include <unistd.h>

#include "Platform/UnixSocket.h"

namespace corvexd {

int fail(const std::string& message) {
    std::cerr << "corvexd: " << message << "\n";
    return 1;
}

int connectTo(const std::string& path) { return platform::connectUnixSocket(path).fd; }

bool accepts(const std::string& path) {
    int fd = connectTo(path);
    if (fd < 0) return false;
    ::close(fd);
    return true;
}

} // namespace corvexd
