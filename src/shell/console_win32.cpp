#include "shell/console.h"

#include <windows.h>

#include <fcntl.h>
#include <io.h>

#include <cstdio>
#include <cstdlib>

#include "shell/platform.h"

namespace zq {

namespace {

UINT g_output_code_page = 0;

void restore_output_code_page() {
    std::fflush(stdout);
    SetConsoleOutputCP(g_output_code_page);
}

}  // namespace

void use_utf8_console_output() {
    // A file or a pipe takes the UTF-8 bytes as they are.
    DWORD mode = 0;
    if (!GetConsoleMode(GetStdHandle(STD_OUTPUT_HANDLE), &mode)) return;
    // The code page belongs to the console, which a cmd window shares with us and keeps after we end.
    g_output_code_page = GetConsoleOutputCP();
    if (g_output_code_page != CP_UTF8 && SetConsoleOutputCP(CP_UTF8)) std::atexit(restore_output_code_page);
    // The C runtime's text mode may pass the bytes through a code page of its own, and an
    // unbuffered console stream may be written a byte at a time, which splits every UTF-8
    // sequence; so the bytes go out unchanged, a whole flushed line at a time. The console
    // starts a new line on a line feed alone.
    _setmode(_fileno(stdout), _O_BINARY);
    std::setvbuf(stdout, nullptr, _IOFBF, 1 << 14);
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
