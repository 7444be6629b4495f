#include "shell/console.h"

#include <cstdio>

namespace zq {

int end_in_console(int exit_code, bool always) {
    if ((exit_code == 0 && !always) || !console_window_is_own()) return exit_code;
    std::fputs("Press Enter to close this window.\n", stdout);
    std::fflush(stdout);
    // Any line ends the wait, and so does the end of the input.
    for (int c = std::getchar(); c != EOF && c != '\n'; c = std::getchar()) {
    }
    return exit_code;
}

}  // namespace zq
