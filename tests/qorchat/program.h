#pragma once
// Runs the real qorchat binary as a child process with pipes on its three standard streams, so
// that tests can type into it, read what it prints, and send it signals.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace qortest {

class Program {
 public:
  // Starts qorchat with the arguments and these variables over the test's environment (an empty
  // value removes the variable).
  Program(const std::vector<std::string>& arguments,
          const std::map<std::string, std::string>& env) {
    int in[2], out[2], err[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0)
      throw std::runtime_error("pipe failed");
    std::vector<std::string> args{QORCHAT_BINARY};
    args.insert(args.end(), arguments.begin(), arguments.end());
    pid_ = fork();
    if (pid_ < 0) throw std::runtime_error("fork failed");
    if (pid_ == 0) {
      dup2(in[0], STDIN_FILENO);
      dup2(out[1], STDOUT_FILENO);
      dup2(err[1], STDERR_FILENO);
      for (const auto& [name, value] : env) {
        if (value.empty()) {
          unsetenv(name.c_str());
        } else {
          setenv(name.c_str(), value.c_str(), 1);
        }
      }
      std::vector<char*> argv;
      for (std::string& arg : args)
        argv.push_back(arg.data());
      argv.push_back(nullptr);
      execv(argv[0], argv.data());
      _exit(127);
    }
    close(in[0]);
    close(out[1]);
    close(err[1]);
    stdin_ = in[1];
    stdout_ = out[0];
    stderr_ = err[0];
  }

  ~Program() {
    if (stdin_ >= 0) close(stdin_);
    if (!status_) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    close(stdout_);
    close(stderr_);
  }

  void write(const std::string& text) {
    if (::write(stdin_, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
      throw std::runtime_error("write to qorchat failed");
  }
  void closeInput() {
    close(stdin_);
    stdin_ = -1;
  }
  void signal(int number) { kill(pid_, number); }

  // Reads until the predicate holds on what standard output or error has shown, or the time is
  // up; true when it held.
  bool waitFor(const std::function<bool()>& done,
               std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!done()) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          end - std::chrono::steady_clock::now());
      if (left.count() <= 0) return false;
      pump(static_cast<int>(std::min<long>(left.count(), 50)));
    }
    return true;
  }
  bool waitForOutput(const std::string& text) {
    return waitFor([&] { return out.find(text) != std::string::npos; });
  }
  bool waitForError(const std::string& text) {
    return waitFor([&] { return err.find(text) != std::string::npos; });
  }

  // Waits for the exit, reading everything printed, and returns the status (128 + signal when
  // killed).
  int finish(std::chrono::milliseconds limit = std::chrono::seconds(30)) {
    if (stdin_ >= 0) closeInput();
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!status_) {
      pump(20);
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      } else if (std::chrono::steady_clock::now() > end) {
        throw std::runtime_error("qorchat did not exit in time");
      }
    }
    while (pump(0)) {
    }
    return *status_;
  }

  std::string out;
  std::string err;

 private:
  // Reads what is available within the wait; true when anything was read.
  bool pump(int waitMs) {
    pollfd fds[2] = {{stdout_, POLLIN, 0}, {stderr_, POLLIN, 0}};
    if (poll(fds, 2, waitMs) <= 0) return false;
    bool any = false;
    char buffer[65536];
    for (int i = 0; i < 2; ++i) {
      if (!(fds[i].revents & (POLLIN | POLLHUP))) continue;
      const ssize_t got = read(fds[i].fd, buffer, sizeof buffer);
      if (got > 0) {
        (i == 0 ? out : err).append(buffer, static_cast<std::size_t>(got));
        any = true;
      }
    }
    return any;
  }

  pid_t pid_ = -1;
  int stdin_ = -1, stdout_ = -1, stderr_ = -1;
  std::optional<int> status_;
};

// Runs qorchat to its end with the input given at once.
struct Outcome {
  int status;
  std::string out;
  std::string err;
};
inline Outcome runQorchat(const std::vector<std::string>& arguments,
                          const std::map<std::string, std::string>& env = {},
                          const std::string& input = "") {
  Program program(arguments, env);
  if (!input.empty()) program.write(input);
  const int status = program.finish();
  return {status, program.out, program.err};
}

}  // namespace qortest
