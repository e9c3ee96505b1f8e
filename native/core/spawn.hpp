// Starting a program with both output streams captured, and waiting for it
// with a time limit. Plain POSIX, no interpreter: the binding layer releases
// its lock around these calls and maps the outcomes to its own results.
//
// The start follows the interpreter's own spawner step for step, so that a
// kernel, sandbox or limit that refuses a step refuses it to both alike and
// the two fail the same way: the output pipes, then (after the caller's
// audit event) an error pipe and vfork; in the child dup2 onto 1 and 2, the
// working directory entered, SIGPIPE and SIGXFSZ back at their default
// action, caught signals reset, the signal mask restored, every descriptor
// from 3 up closed (close_range, else by the list in /proc/self/fd, else one
// by one), and execve along the candidates; a failure in the child comes
// back through the error pipe. Standard input and the environment are
// inherited.
//
// Beyond the interpreter's steps the child starts a session (so a process
// group) of its own, led by the child: what it starts joins that group
// unless it leaves it, and a child given up on is killed with its group.
// Where the session is refused, git stays in the host's group and is killed
// alone. The parent waits on a process descriptor where the kernel gives
// one, and polls waitpid otherwise.
#pragma once

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

#include "core/byte_buffer.hpp"

namespace gu::core {

// An owned descriptor: closed when dropped.
class Fd {
public:
    Fd() noexcept = default;
    explicit Fd(int fd) noexcept : fd_(fd) {}
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    Fd(Fd&& o) noexcept : fd_(std::exchange(o.fd_, -1)) {}
    Fd& operator=(Fd&& o) noexcept;
    ~Fd() { reset(); }

    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }
    void reset() noexcept;

private:
    int fd_ = -1;
};

struct SpawnSpec {
    std::vector<std::string> argv;        // argv[0] is the program name as given
    std::vector<std::string> candidates;  // the paths to try for it, in PATH order
    std::string cwd;                      // the child's working directory
};

// The pipes of the child's standard output and error, made before the start
// as the interpreter makes them before its audit event.
struct OutputPipes {
    Fd out_read, out_write, err_read, err_write;
};

// 0, or the errno of the pipe that could not be made.
int make_output_pipes(OutputPipes& pipes) noexcept;

enum class StartFailure {
    none,
    cwd,      // the child failed before exec: the interpreter reports that against the working directory
    program,  // no candidate could be executed; `error` tells why
    system,   // the error pipe or the process could not be made
};

class LiveSlot;

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
    friend Child start(const SpawnSpec& spec, OutputPipes pipes);
    friend struct Waiter;
    void close_all() noexcept;
    void forget_pid() noexcept;  // reaped: off the table of live children

    pid_t pid_ = -1;
    LiveSlot* slot_ = nullptr;  // its entry in the table of live children
    Fd out_;
    Fd err_;
    Fd pid_fd_;  // to wait for the exit with a time limit, where the kernel offers it
    StartFailure failure_ = StartFailure::none;
    int error_ = 0;
};

// Starts argv[0] from the first candidate that can be executed, as the
// interpreter's own spawner searches PATH: a candidate that does not exist
// (ENOENT, ENOTDIR) is passed over; otherwise the first error is reported,
// or the last one when every candidate was missing. The pipes' write ends
// go to the child; their read ends stay with the returned child.
Child start(const SpawnSpec& spec, OutputPipes pipes);

// Asked when a signal interrupts the wait, and now and then in between:
// -1 stops the wait (the child's group is then killed and the child reaped;
// whatever the check reported stays with its caller), 0 goes on.
struct Interrupt {
    int (*check)(void* context) = nullptr;
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
