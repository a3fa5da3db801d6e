// kelvane-color: a command-line host of the color processing library.
#include <string>
#include <vector>

#include "application.h"

int main(int argc, char** argv) {
    return kv_tool::run_kelvane_color(std::vector<std::string>(argv + 1, argv + argc));
}
