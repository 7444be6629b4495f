#include <cstdio>
#include <exception>

#include "shell/cli.h"
#include "shell/platform.h"

int main(int argc, char** argv) {
    zq::ignore_broken_pipe();
    // The last net only: every input the user controls has its own message before this.
    try {
        return zq::run_cli(zq::command_line_args(argc, argv));
    } catch (const std::exception& e) {
        std::printf("sarnlink-cli stopped on an unexpected error: %s\n", e.what());
        std::fflush(stdout);
        return 1;
    }
}
