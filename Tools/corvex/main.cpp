#include <iostream>
#include <string>
#include <vector>

#include "Tools/corvex/Cli.h"

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    return corvex::cli::run(args, std::cin, std::cout, std::cerr);
}
