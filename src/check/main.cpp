#include "check/check.h"
#include "shell/console.h"
#include "shell/platform.h"

int main(int argc, char** argv) {
    zq::use_utf8_console_output();
    // The report is all this program gives; a double-clicked window keeps it until it was read.
    return zq::end_in_console(zq::check::run_check_cli(zq::command_line_args(argc, argv)), true);
}
