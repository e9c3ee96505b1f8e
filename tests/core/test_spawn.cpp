// The spawner against /bin/sh: output, status, the errors of a start that
// fails in the child, the time limit with what the child started, and no
// descriptor left behind in the parent or passed on to the child.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "check.hpp"
#include "core/spawn.hpp"

namespace {

using gu::core::Finished;
using gu::core::Outcome;
using gu::core::SpawnSpec;
using gu::core::StartFailure;

int open_descriptors() {
    int count = 0;
    if (DIR* dir = opendir("/proc/self/fd")) {
        while (readdir(dir) != nullptr) ++count;
        closedir(dir);
    }
    return count;
}

SpawnSpec shell(const std::string& script, std::string cwd = "/") {
    return SpawnSpec{{"sh", "-c", script}, {"/nonexistent/sh", "/bin/sh"}, std::move(cwd)};
}

// Starts `spec` and waits; `failure` tells how the start went.
Finished run(const SpawnSpec& spec, StartFailure& failure, int& error, double timeout = 10) {
    gu::core::OutputPipes pipes;
    CHECK(gu::core::make_output_pipes(pipes) == 0);
    gu::core::Child child = gu::core::start(spec, std::move(pipes));
    failure = child.failure();
    error = child.error();
    if (failure != StartFailure::none) return Finished{};
    return gu::core::finish(child, timeout, {});
}

}  // namespace

void test_spawn() {
    const int before = open_descriptors();
    StartFailure failure;
    int error;

    // Both streams, the status, and only 0 to 2 open in the child (a
    // descriptor of the parent's without close-on-exec included).
    const int leaked = ::open("/dev/null", O_RDONLY);
    Finished done = run(shell("echo out; echo err >&2; ls /proc/self/fd | wc -l >&2; exit 3"), failure, error);
    CHECK(failure == StartFailure::none);
    CHECK(done.outcome == Outcome::exited && done.returncode == 3);
    CHECK(done.out.view() == "out\n");
    CHECK(done.err.view().substr(0, 4) == "err\n");
    CHECK(std::stoi(std::string(done.err.view().substr(4))) == 4);  // 0-2 and ls's own listing
    ::close(leaked);

    // Failures in the child, as the interpreter reports them.
    run(shell("true", "/nonexistent"), failure, error);
    CHECK(failure == StartFailure::cwd && error == ENOENT);
    run(shell("true", "/etc/passwd"), failure, error);
    CHECK(failure == StartFailure::cwd && error == ENOTDIR);
    run(SpawnSpec{{"x"}, {"/nonexistent/x", "/etc/passwd", "/nonexistent/y"}, "/"}, failure, error);
    CHECK(failure == StartFailure::program && error == EACCES);  // the first error that is not "missing"
    run(SpawnSpec{{"x"}, {"/nonexistent/x", "/etc/nonexistent/y"}, "/"}, failure, error);
    CHECK(failure == StartFailure::program && error == ENOENT);

    // The time limit ends the child's whole group, even while a grandchild
    // holds the pipes open.
    done = run(shell("sleep 30 & wait"), failure, error, 0.3);
    CHECK(done.outcome == Outcome::timed_out);
    done = run(shell("sleep 0.2; echo late"), failure, error, 10);
    CHECK(done.outcome == Outcome::exited && done.out.view() == "late\n");

    // A signal's death reads as minus the signal.
    done = run(shell("kill -9 $$"), failure, error);
    CHECK(done.returncode == -SIGKILL);

    CHECK(open_descriptors() == before);
}
