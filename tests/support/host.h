#pragma once
// Facts about the machine the tests run on, for skipping by name what cannot run there.

#include <filesystem>
#include <string>
#include <vector>

namespace testing_support {

// True when this Windows build runs under Wine.
bool running_under_wine();

// True in a build under AddressSanitizer or ThreadSanitizer, whose shadow memory and
// quarantines make the process's memory figures say nothing about the program's own. The
// sanitizer presets build with GCC, which names them so.
constexpr bool sanitizer_build() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return true;
#else
    return false;
#endif
}

// Where file modes and the per-process file handle limit exist (POSIX, not Windows).
bool posix_files();

// The Windows build, on Windows or under Wine: a console window there closes with the program
// that owns it.
bool windows_build();

// Takes every file handle of this process but `spare`, lowering its limit first, for tests of
// what a server does when accept finds none; false where there is no such limit.
// give_back_file_handles() undoes it.
bool take_file_handles(int spare);
void give_back_file_handles();

// The full path of a program found on PATH, or an empty path.
std::filesystem::path find_program(const std::string& name);

// The program and arguments that run a bash script, given after them, as another user (the
// user nobody); empty, with the reason in *why, where this process cannot do that.
std::vector<std::string> bash_as_another_user(std::string* why);
// Runs script with that command line; what it wrote to its standard output.
std::string run_as_another_user(const std::vector<std::string>& bash, const std::string& script);

// Sets (or with an empty value, removes) an environment variable of this process.
void set_env(const std::string& name, const std::string& value);

}  // namespace testing_support
