#include "shell/cli.h"
#include "shell/platform.h"

int main(int argc, char** argv) { return zq::run_cli(zq::command_line_args(argc, argv)); }
