#include "tests/support/Process.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

extern char** environ;

namespace vontu::testing {

namespace {

void closePair(int fds[2]) {
    ::close(fds[0]);
    ::close(fds[1]);
}

}  // namespace

ProcessResult runProcess(const std::filesystem::path& program, const std::vector<std::string>& args,
                         const std::string& input,
                         const std::map<std::string, std::string>& extraEnv,
                         double timeoutSeconds) {
    ProcessResult result;
    int in[2], out[2], err[2];
    if (::pipe2(in, O_CLOEXEC) != 0) return result;
    if (::pipe2(out, O_CLOEXEC) != 0) { closePair(in); return result; }
    if (::pipe2(err, O_CLOEXEC) != 0) { closePair(in); closePair(out); return result; }

    std::vector<std::string> envStrings;
    for (char** e = environ; *e != nullptr; ++e) {
        std::string entry = *e;
        auto name = entry.substr(0, entry.find('='));
        if (!extraEnv.contains(name)) envStrings.push_back(entry);
    }
    for (const auto& [name, value] : extraEnv) envStrings.push_back(name + "=" + value);
    std::vector<char*> envp, argv;
    for (auto& s : envStrings) envp.push_back(s.data());
    envp.push_back(nullptr);
    std::string programString = program.string();
    argv.push_back(programString.data());
    std::vector<std::string> argsCopy = args;
    for (auto& a : argsCopy) argv.push_back(a.data());
    argv.push_back(nullptr);

    pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(in[0], 0);
        ::dup2(out[1], 1);
        ::dup2(err[1], 2);
        ::execve(argv[0], argv.data(), envp.data());
        ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    ::close(err[1]);
    if (pid < 0) {
        ::close(in[1]); ::close(out[0]); ::close(err[0]);
        return result;
    }

    ::signal(SIGPIPE, SIG_IGN);
    std::size_t inputWritten = 0;
    int inFd = in[1];
    if (input.empty()) { ::close(inFd); inFd = -1; }
    ::fcntl(inFd, F_SETFL, O_NONBLOCK);
    auto deadline = std::chrono::steady_clock::now() +
                    std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                        std::chrono::duration<double>(timeoutSeconds));
    bool outOpen = true, errOpen = true, killed = false;
    while (outOpen || errOpen) {
        pollfd fds[3] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}, {inFd, POLLOUT, 0}};
        if (!outOpen) fds[0].fd = -1;
        if (!errOpen) fds[1].fd = -1;
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                        deadline - std::chrono::steady_clock::now()).count();
        if (left <= 0) {
            ::kill(pid, SIGKILL);
            killed = true;
            break;
        }
        if (::poll(fds, 3, static_cast<int>(std::min<long long>(left, 1000))) < 0) continue;
        char buffer[65536];
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd >= 0 && (fds[i].revents & (POLLIN | POLLHUP))) {
                ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
                if (n <= 0) {
                    (i == 0 ? outOpen : errOpen) = false;
                } else {
                    (i == 0 ? result.out : result.err).append(buffer, static_cast<std::size_t>(n));
                }
            }
        }
        if (inFd >= 0 && (fds[2].revents & (POLLOUT | POLLERR | POLLHUP))) {
            ssize_t n = ::write(inFd, input.data() + inputWritten, input.size() - inputWritten);
            if (n > 0) inputWritten += static_cast<std::size_t>(n);
            if (n < 0 || inputWritten == input.size()) {
                ::close(inFd);
                inFd = -1;
            }
        }
    }
    if (inFd >= 0) ::close(inFd);
    ::close(out[0]);
    ::close(err[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    if (killed || WIFSIGNALED(status)) {
        result.exitCode = 128 + (WIFSIGNALED(status) ? WTERMSIG(status) : SIGKILL);
    } else {
        result.exitCode = WEXITSTATUS(status);
    }
    return result;
}

std::filesystem::path builtProgram(const std::string& relativePath) {
    return std::filesystem::path(VONTU_BINARY_DIR) / relativePath;
}

}  // namespace vontu::testing
