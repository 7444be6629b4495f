#include "check/check.h"
#include "shell/platform.h"

int main(int argc, char** argv) { return zq::check::run_check_cli(zq::command_line_args(argc, argv)); }
