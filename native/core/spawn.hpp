// Starting a program with both output streams captured, and waiting for it
// with a time limit. Plain POSIX, no interpreter: the binding layer releases
// its lock around these calls and maps the outcomes to its own results.
//
// The child gets: standard output and standard error on two pipes of their
// own, standard input and the environment inherited, the working directory
// changed, every other descriptor closed, SIGPIPE and SIGXFSZ back at their
// default action, the signal mask inherited, and a session (so a process
// group) of its own, led by the child: what it starts joins that group
// unless it leaves it, and a child given up on is killed with its group.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "core/byte_buffer.hpp"

namespace gu::core {

struct SpawnSpec {
    std::vector<std::string> argv;        // argv[0] is the program name as given
    std::vector<std::string> candidates;  // the paths to try for it, in PATH order
    std::string cwd;                      // the child's working directory
};

enum class StartFailure {
    none,
    cwd,      // the working directory can't be entered; `error` tells why
    program,  // no candidate could be executed; `error` tells why
    system,   // pipes or spawn attributes could not be made
};

// A started child and the read ends of its two pipes. Destroying a child
// that was never waited for kills its group and reaps it.
class Child {
public:
    Child() = default;
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    Child(Child&& o) noexcept;
    Child& operator=(Child&& o) noexcept;
    ~Child();

    StartFailure failure() const noexcept { return failure_; }
    int error() const noexcept { return error_; }

private:
    friend Child start(const SpawnSpec& spec);
    friend struct Waiter;
    void close_all() noexcept;
    void forget_pid() noexcept;  // reaped: off the table of live children

    pid_t pid_ = -1;
    int out_fd_ = -1;
    int err_fd_ = -1;
    int pid_fd_ = -1;  // to wait for the exit with a time limit, where the kernel offers it
    StartFailure failure_ = StartFailure::none;
    int error_ = 0;
};

// Starts argv[0] from the first candidate that can be executed, as the
// interpreter's own spawner searches PATH: a candidate that does not exist
// (ENOENT, ENOTDIR) is passed over; otherwise the first error is reported,
// or the last one when every candidate was missing.
Child start(const SpawnSpec& spec);

// Asked when a signal interrupts the wait; true stops the wait (the child's
// group is then killed and the child reaped).
struct Interrupt {
    bool (*check)(void* context) = nullptr;
    void* context = nullptr;
};

enum class Outcome { exited, timed_out, interrupted };

struct Finished {
    Outcome outcome = Outcome::exited;
    int returncode = 0;  // the exit status, or minus the signal that killed it
    ByteBuffer out;
    ByteBuffer err;
};

// Drains both pipes until both close, then reaps the child. With a positive
// `timeout_seconds`, a child still running (or its pipes still open) when
// the time is up is killed with SIGKILL, its whole group with it, reaped,
// and its output dropped.
Finished finish(Child& child, double timeout_seconds, Interrupt interrupt);

// Kills, with their groups, the children this process started and has not
// reaped yet: for a process that exits while threads still wait for git.
// Async-signal-safe and lock-free.
void kill_unfinished() noexcept;

}  // namespace gu::core
