#include "camsim/cli.h"

#include <iostream>

int main(int argc, char** argv)
{
    return camsim::runCommandLine(std::vector<std::string>(argv + 1, argv + argc), std::cout, std::cerr);
}
