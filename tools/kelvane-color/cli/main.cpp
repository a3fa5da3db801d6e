// kelvane-color: a command-line host of the color processing library.
#include <string>
#include <vector>

#include "cli/application.h"
#include "pipeline/interruption.h"

int main(int argc, char** argv) {
    kv_tool::install_interruption_cleanup();
    return kv_tool::run_kelvane_color(std::vector<std::string>(argv + 1, argv + argc));
}
