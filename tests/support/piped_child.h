// A child process driven through pipes, for tests and tools that run the programs of tools/.
#ifndef QV_TEST_PIPED_CHILD_H
#define QV_TEST_PIPED_CHILD_H

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

// Upper bound of a wait for a child: it only stops a broken run from hanging.
constexpr int kPipedChildWaitMs = 60000;

// A child process with its stdin and stdout on pipes. Its descriptors other than 0-2 are closed,
// so no child keeps another one's pipe (or the proxy's sockets) open.
class PipedChild {
  public:
    PipedChild() = default;
    PipedChild(const PipedChild&) = delete;
    PipedChild& operator=(const PipedChild&) = delete;
    ~PipedChild() { kill(SIGKILL); }

    // env entries ("K=V") are added to this process's environment; stderr goes to errFile.
    bool start(const std::string& path, const std::vector<std::string>& args,
               const std::vector<std::string>& env, const std::string& errFile) {
        std::vector<std::string> argv = {path};
        argv.insert(argv.end(), args.begin(), args.end());
        std::vector<std::string> envs = env;
        for (char** e = environ; *e != nullptr; ++e) envs.emplace_back(*e);
        std::vector<char*> cargv, cenv;
        for (std::string& a : argv) cargv.push_back(a.data());
        for (std::string& e : envs) cenv.push_back(e.data());
        cargv.push_back(nullptr);
        cenv.push_back(nullptr);
        int in[2], out[2];
        if (pipe2(in, O_CLOEXEC) != 0) return false;
        if (pipe2(out, O_CLOEXEC) != 0) {
            close(in[0]);
            close(in[1]);
            return false;
        }
        pid_ = fork();
        if (pid_ == 0) {
            dup2(in[0], 0);
            dup2(out[1], 1);
            const int err = open(errFile.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
            if (err >= 0) dup2(err, 2);
            close_range(3, ~0U, 0);
            execve(path.c_str(), cargv.data(), cenv.data());
            _exit(127);
        }
        close(in[0]);
        close(out[1]);
        stdin_ = in[1];
        stdout_ = out[0];
        return pid_ > 0;
    }

    pid_t pid() const { return pid_; }

    bool send(const std::string& text) {
        for (size_t done = 0; done < text.size();) {
            const ssize_t w = stdin_ >= 0 ? write(stdin_, text.data() + done, text.size() - done) : -1;
            if (w <= 0) return false;
            done += static_cast<size_t>(w);
        }
        return true;
    }

    // The next line of its stdout without the newline; "" when none came within ms.
    std::string readLine(int ms = kPipedChildWaitMs) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        for (;;) {
            const size_t nl = buffered_.find('\n');
            if (nl != std::string::npos) {
                std::string line = buffered_.substr(0, nl);
                buffered_.erase(0, nl + 1);
                return line;
            }
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            pollfd p{stdout_, POLLIN, 0};
            if (stdout_ < 0 || left.count() <= 0 || poll(&p, 1, static_cast<int>(left.count())) <= 0)
                return "";
            char buf[4096];
            const ssize_t n = read(stdout_, buf, sizeof(buf));
            if (n <= 0) return "";
            buffered_.append(buf, static_cast<size_t>(n));
        }
    }

    // The number after key in the next line, -1 when it is missing.
    long long answer(const std::string& key) {
        const std::string line = readLine();
        const size_t at = line.find(key);
        return at == std::string::npos ? -1 : atoll(line.c_str() + at + key.size());
    }

    bool alive() { return !reaped(); }

    // Exit code once it ended (128 + signal when killed), -1 if it still runs after ms.
    int waitExit(int ms = kPipedChildWaitMs) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        while (!reaped()) {
            if (std::chrono::steady_clock::now() >= deadline) return -1;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return exitCode_;
    }

    void kill(int sig) {
        if (pid_ > 0 && ::kill(pid_, sig) == 0 && sig == SIGKILL) waitExit(10000);
    }

  private:
    // True once the child ended (or never started): its exit code is kept, its pipes closed.
    bool reaped() {
        int st = 0;
        if (pid_ > 0 && waitpid(pid_, &st, WNOHANG) == pid_) {
            exitCode_ = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
            pid_ = -1;
            if (stdin_ >= 0) close(stdin_);
            if (stdout_ >= 0) close(stdout_);
            stdin_ = stdout_ = -1;
        }
        return pid_ <= 0;
    }

    pid_t pid_ = -1;
    int stdin_ = -1;
    int stdout_ = -1;
    int exitCode_ = -1;
    std::string buffered_;
};

#endif
