// The yardstick for the runner: spawn a command line, drain both pipes with
// poll, reap it; no decoding, no interpreter.
//   bare_spawn RUNS CWD git ARGS...     prints the mean wall time of one run
//                                       in microseconds and the bytes read
//   bare_spawn serve FD CWD git ARGS... one run per line read from FD, each
//                                       answered with "microseconds bytes"
// The serving form stays warm, and lets a benchmark alternate single runs of
// it and of the module so that the machine's noise hits both alike. Its
// requests come on a descriptor of their own (closed in git), so git
// inherits the same standard input as under the module.
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

extern char** environ;

static size_t run_once(char** argv) {
    int out[2], err[2];
    if (pipe2(out, O_CLOEXEC) || pipe2(err, O_CLOEXEC)) std::exit(1);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, out[1], 1);
    posix_spawn_file_actions_adddup2(&fa, err[1], 2);
    pid_t pid;
    if (posix_spawnp(&pid, argv[0], &fa, nullptr, argv, environ)) std::exit(1);
    posix_spawn_file_actions_destroy(&fa);
    close(out[1]);
    close(err[1]);
    std::vector<char> buf(1 << 16);
    std::string sink;
    size_t total = 0;
    pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
    int open_fds = 2;
    while (open_fds) {
        poll(fds, 2, -1);
        for (auto& f : fds) {
            if (f.fd < 0 || !f.revents) continue;
            const ssize_t n = read(f.fd, buf.data(), buf.size());
            if (n > 0) {
                sink.append(buf.data(), static_cast<size_t>(n));
                total += static_cast<size_t>(n);
            } else {
                close(f.fd);
                f.fd = -1;
                --open_fds;
            }
        }
    }
    int status;
    waitpid(pid, &status, 0);
    return total;
}

static double micros_since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count();
}

static int serve(int requests_fd, char** command) {
    if (fcntl(requests_fd, F_SETFD, FD_CLOEXEC) != 0) return 1;
    FILE* requests = fdopen(requests_fd, "r");
    if (!requests) return 1;
    char line[64];
    while (std::fgets(line, sizeof line, requests)) {
        const auto start = std::chrono::steady_clock::now();
        const size_t bytes = run_once(command);
        std::printf("%.1f %zu\n", micros_since(start), bytes);
        std::fflush(stdout);
    }
    return 0;
}

int main(int argc, char** argv) {
    if (argc < 4) return 2;
    if (std::strcmp(argv[1], "serve") == 0) {
        if (argc < 5 || chdir(argv[3])) return 1;
        return serve(std::atoi(argv[2]), argv + 4);
    }
    const int runs = std::atoi(argv[1]);
    if (chdir(argv[2])) return 1;
    size_t bytes = 0;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < runs; ++i) bytes = run_once(argv + 3);
    std::printf("%.1f %zu\n", micros_since(start) / runs, bytes);
    return 0;
}
