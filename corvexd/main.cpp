#include <string>
#include <vector>

#include "corvexd/Commands.h"

int main(int argc, char** argv) {
    return corvexd::runCommand(std::vector<std::string>(argv + 1, argv + argc));
}
