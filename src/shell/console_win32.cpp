#include "shell/console.h"

#include <windows.h>

#include <cstdlib>

#include "shell/platform.h"

namespace zq {

namespace {

UINT g_output_code_page = 0;

void restore_output_code_page() { SetConsoleOutputCP(g_output_code_page); }

}  // namespace

void use_utf8_console_output() {
    // The code page belongs to the console, which a cmd window shares with us and keeps after we end.
    g_output_code_page = GetConsoleOutputCP();
    if (g_output_code_page == 0 || g_output_code_page == CP_UTF8 || !SetConsoleOutputCP(CP_UTF8)) return;
    std::atexit(restore_output_code_page);
}

bool console_window_is_own() {
    if (std::optional<std::string> faked = get_env("SARNLINK_TEST_CONSOLE_PROCESSES"))
        return std::atoi(faked->c_str()) == 1;
    // Output that goes to a file or a pipe is not read in the window, whoever owns it.
    DWORD mode = 0;
    if (!GetConsoleMode(GetStdHandle(STD_OUTPUT_HANDLE), &mode)) return false;
    // The count includes the shell that started us, if any; 0 means no console at all.
    DWORD ids[2];
    return GetConsoleProcessList(ids, 2) == 1;
}

}  // namespace zq
