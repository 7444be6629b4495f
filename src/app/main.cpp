#include <cstdio>
#include <exception>

#include "app/cli.h"
#include "shell/console.h"
#include "shell/platform.h"
#include "shell/util.h"

int main(int argc, char** argv) {
    zq::ignore_broken_pipe();
    zq::use_utf8_console_output();
    int code = 1;
    // The last net only: every input the user controls has its own message before this.
    try {
        code = zq::run_cli(zq::command_line_args(argc, argv));
    } catch (const std::exception& e) {
        std::printf("sarnlink-cli stopped on an unexpected error: %s\n", zq::printable(e.what()).c_str());
        std::fflush(stdout);
    }
    // A double-clicked start that fails would otherwise close its window before anyone reads why.
    return zq::end_in_console(code);
}
