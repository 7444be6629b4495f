#include <csignal>
#include <mutex>
#include <thread>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/process.h"
#include "support/wait.h"

extern char** environ;

namespace testing_support {

std::filesystem::path cli_path() { return SARNLINK_CLI_PATH; }

struct Process::Impl {
    pid_t pid = -1;
    int out_fd = -1;
    int in_fd = -1;
    mutable std::mutex output_lock;
    std::string output;
    std::thread reader;
    int exit_code = -1;
    bool reaped = false;
};

Process::Process(const std::filesystem::path& program, const std::vector<std::string>& args,
                 const std::filesystem::path& working_dir, const std::map<std::string, std::string>& env)
    : impl_(std::make_unique<Impl>()) {
    int pipe_fds[2], in_fds[2];
    if (pipe2(pipe_fds, O_CLOEXEC) != 0) return;
    if (pipe2(in_fds, O_CLOEXEC) != 0) {
        close(pipe_fds[0]);
        close(pipe_fds[1]);
        return;
    }
    std::vector<std::string> argv_text{program.string()};
    argv_text.insert(argv_text.end(), args.begin(), args.end());
    std::map<std::string, std::string> environment;
    for (char** e = environ; *e; ++e) {
        std::string entry = *e;
        auto eq = entry.find('=');
        if (eq != std::string::npos) environment[entry.substr(0, eq)] = entry.substr(eq + 1);
    }
    for (const auto& [k, v] : env) environment[k] = v;
    std::vector<std::string> env_text;
    for (const auto& [k, v] : environment) env_text.push_back(k + "=" + v);
    std::vector<char*> argv, envp;
    for (auto& a : argv_text) argv.push_back(a.data());
    argv.push_back(nullptr);
    for (auto& e : env_text) envp.push_back(e.data());
    envp.push_back(nullptr);

    pid_t pid = fork();
    if (pid == 0) {
        dup2(in_fds[0], 0);
        dup2(pipe_fds[1], 1);
        dup2(pipe_fds[1], 2);
        if (!working_dir.empty() && chdir(working_dir.c_str()) != 0) _exit(126);
        execve(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    close(pipe_fds[1]);
    close(in_fds[0]);
    impl_->pid = pid;
    impl_->out_fd = pipe_fds[0];
    impl_->in_fd = in_fds[1];
    impl_->reader = std::thread([impl = impl_.get()] {
        char buffer[4096];
        for (;;) {
            ssize_t n = read(impl->out_fd, buffer, sizeof buffer);
            if (n <= 0) break;
            std::lock_guard<std::mutex> guard(impl->output_lock);
            impl->output.append(buffer, static_cast<std::size_t>(n));
        }
    });
}

Process::~Process() {
    if (impl_->pid > 0 && !impl_->reaped) {
        kill(impl_->pid, SIGKILL);
        wait(5.0);
    }
    if (impl_->reader.joinable()) impl_->reader.join();
    if (impl_->out_fd >= 0) close(impl_->out_fd);
    if (impl_->in_fd >= 0) close(impl_->in_fd);
}

long Process::id() const { return impl_->pid; }

std::string Process::output() const {
    std::lock_guard<std::mutex> guard(impl_->output_lock);
    return impl_->output;
}

void Process::interrupt() {
    if (impl_->pid > 0 && !impl_->reaped) kill(impl_->pid, SIGINT);
}

void Process::send_input(const std::string& text) {
    if (impl_->in_fd < 0) return;
    // A child that has ended reads nothing; its closed pipe must not end the test program.
    std::signal(SIGPIPE, SIG_IGN);
    ssize_t written = ::write(impl_->in_fd, text.data(), text.size());
    (void)written;
}

bool Process::running() const {
    if (impl_->pid <= 0 || impl_->reaped) return false;
    // WNOWAIT leaves an ended child for wait() to reap.
    siginfo_t info{};
    return waitid(P_PID, static_cast<id_t>(impl_->pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == 0;
}

int Process::wait(double seconds) {
    if (impl_->pid <= 0) return -1;
    if (!impl_->reaped) {
        int status = 0;
        bool done = wait_until([&] { return waitpid(impl_->pid, &status, WNOHANG) == impl_->pid; }, seconds);
        if (!done) {
            kill(impl_->pid, SIGKILL);
            waitpid(impl_->pid, &status, 0);
            impl_->exit_code = -1;
        } else {
            impl_->exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        impl_->reaped = true;
    }
    // The child's end closes the pipe; the reader has then seen everything.
    if (impl_->reader.joinable()) impl_->reader.join();
    return impl_->exit_code;
}

}  // namespace testing_support
