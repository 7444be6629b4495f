#pragma once
// The console the program was started in. Implemented in console_win32.cpp and
// console_posix.cpp; the decision to hold a window open is made once, in console.cpp.

namespace zq {

// Console text from here on is UTF-8, so that paths and names in any script print as typed; the
// console's own setting comes back at exit. Nothing to do where terminals take UTF-8 already.
void use_utf8_console_output();

// True when this process alone is attached to a console that shows its output: the window that
// Explorer opens for a double-click (or a shortcut), which closes the moment the process ends.
// False when started from cmd, PowerShell, a script or a pipe, and always on POSIX, where a
// terminal outlives its program. A test fakes the count through SARNLINK_TEST_CONSOLE_PROCESSES.
bool console_window_is_own();

// The last step of main: when the window would close on a failure (exit code not 0), or on any
// end when always is set, says so and waits for Enter (or the end of the input). Returns
// exit_code.
int end_in_console(int exit_code, bool always = false);

}  // namespace zq
