#include "core/spawn.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <ctime>
#include <new>
#include <optional>

#ifdef __APPLE__
#include <crt_externs.h>
#else
extern char** environ;
#endif

#ifdef __linux__
// Numbers of the calls newer than some C libraries' headers; the same on
// every architecture.
#ifndef SYS_pidfd_open
#define SYS_pidfd_open 434
#endif
#ifndef SYS_close_range
#define SYS_close_range 436
#endif
#endif

namespace gu::core {

Fd& Fd::operator=(Fd&& o) noexcept {
    if (this != &o) {
        reset();
        fd_ = std::exchange(o.fd_, -1);
    }
    return *this;
}

void Fd::reset() noexcept {
    if (fd_ >= 0) ::close(std::exchange(fd_, -1));
}

// The children started and not yet reaped, each beside the process that
// started it (a fork's copy of the table is not its own): at the host's exit,
// a thread that waits for git never comes back to reap it, and
// kill_unfinished ends what it started. A slot is taken before the start, so
// that a started child always has one; the table grows by blocks, never
// shrinks, and is read without a lock.
class LiveSlot {
public:
    void hold(pid_t child) noexcept { entry_.store(pack(child), std::memory_order_relaxed); }
    void release() noexcept { entry_.store(0, std::memory_order_relaxed); }
    bool take() noexcept {
        std::uint64_t empty = 0;
        return entry_.compare_exchange_strong(empty, pack(0), std::memory_order_relaxed);
    }
    void kill_if_mine() noexcept {
        const std::uint64_t entry = entry_.load(std::memory_order_relaxed);
        const auto child = static_cast<pid_t>(entry & kPidMask);
        if (child <= 0 || (entry & ~kPidMask) != pack(0)) return;
        ::kill(-child, SIGKILL);
        ::kill(child, SIGKILL);
    }

private:
    static constexpr std::uint64_t kPidMask = 0xffffffffu;
    static std::uint64_t pack(pid_t child) noexcept {
        return static_cast<std::uint64_t>(static_cast<std::uint32_t>(::getpid())) << 32 |
               static_cast<std::uint32_t>(child);
    }
    std::atomic<std::uint64_t> entry_{0};
};

namespace {

using Clock = std::chrono::steady_clock;

class LiveChildren {
public:
    // A free slot, taken; throws std::bad_alloc when the table can't grow.
    LiveSlot* take() {
        for (Block* block = &first_;;) {
            for (LiveSlot& slot : block->slots)
                if (slot.take()) return &slot;
            Block* next = block->next.load(std::memory_order_acquire);
            if (next == nullptr) {
                Block* fresh = new Block();
                if (block->next.compare_exchange_strong(next, fresh, std::memory_order_acq_rel)) {
                    next = fresh;
                } else {
                    delete fresh;  // another thread grew it first; `next` is its block
                }
            }
            block = next;
        }
    }
    void kill_all() noexcept {
        for (Block* block = &first_; block != nullptr; block = block->next.load(std::memory_order_acquire))
            for (LiveSlot& slot : block->slots) slot.kill_if_mine();
    }

private:
    struct Block {
        LiveSlot slots[64];
        std::atomic<Block*> next{nullptr};
    };
    Block first_;
};

LiveChildren live_children;

char** environment() noexcept {
#ifdef __APPLE__
    return *_NSGetEnviron();  // a loadable bundle has no `environ` of its own
#else
    return environ;
#endif
}

int make_pipe(Fd& read_end, Fd& write_end) noexcept {
    int fds[2];
#ifdef __APPLE__
    // No pipe2 here. The window before FD_CLOEXEC is set does not reach our
    // own children: they close every descriptor from 3 up.
    if (::pipe(fds) != 0) return errno;
    ::fcntl(fds[0], F_SETFD, FD_CLOEXEC);
    ::fcntl(fds[1], F_SETFD, FD_CLOEXEC);
#else
    if (::pipe2(fds, O_CLOEXEC) != 0) return errno;
#endif
    read_end = Fd(fds[0]);
    write_end = Fd(fds[1]);
    return 0;
}

int open_pid_fd(pid_t pid) noexcept {
#ifdef __linux__
    const long fd = ::syscall(SYS_pidfd_open, pid, 0);
    return fd < 0 ? -1 : static_cast<int>(fd);
#else
    (void)pid;
    return -1;
#endif
}

void reap(pid_t pid, int& status) noexcept {
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
}

int returncode_of(int status) noexcept {
    if (WIFSIGNALED(status)) return -WTERMSIG(status);
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    return status;
}

// What the child reports through the error pipe when it can't exec.
struct ChildReport {
    StartFailure stage;
    int error;
};

// All the child reads, made before the start: until it execs, the child
// shares the parent's memory and may neither allocate nor touch a lock.
struct ChildPlan {
    char* const* argv;
    char* const* candidates;  // null-terminated
    const char* cwd;
    char* const* envp;
    int out;  // write ends of the pipes, for 1 and 2
    int err;
    int report;            // write end of the error pipe
    int max_fd;            // where closing one by one stops
    const sigset_t* mask;  // the parent's mask, the child's from exec on
};

bool set_inheritable(int fd) noexcept {
    const int flags = ::fcntl(fd, F_GETFD);
    return flags >= 0 && ::fcntl(fd, F_SETFD, flags & ~FD_CLOEXEC) == 0;
}

// Standard output and error onto the pipes. As in the interpreter's child, a
// pipe end on a descriptor that a later dup2 would overwrite moves first.
int redirect_output(int out, int err) noexcept {
    if (out == 0 && (out = ::dup(out)) < 0) return errno;
    while (err == 0 || err == 1)
        if ((err = ::dup(err)) < 0) return errno;
    if (out == 1 ? !set_inheritable(out) : ::dup2(out, 1) < 0) return errno;
    if (err == 2 ? !set_inheritable(err) : ::dup2(err, 2) < 0) return errno;
    return 0;
}

// Back to the default action every signal the parent catches (a handler must
// not run in the child while it shares the parent's memory) and SIGPIPE and
// SIGXFSZ, which the interpreter ignores; then the parent's mask again.
// Signals the C library keeps for itself refuse sigaction and are left as
// they are, as the interpreter's child leaves them.
int reset_signals(const sigset_t* mask) noexcept {
    struct sigaction dfl = {};
    dfl.sa_handler = SIG_DFL;
    for (int sig = 1; sig < NSIG; ++sig) {
        if (sig == SIGKILL || sig == SIGSTOP || sigismember(mask, sig) == 1) continue;
        struct sigaction old = {};
        if (::sigaction(sig, nullptr, &old) != 0 || old.sa_handler == SIG_IGN || old.sa_handler == SIG_DFL) continue;
        (void)::sigaction(sig, &dfl, nullptr);
    }
    for (const int sig : {SIGPIPE, SIGXFSZ}) (void)::sigaction(sig, &dfl, nullptr);
    return ::pthread_sigmask(SIG_SETMASK, mask, nullptr);
}

// Closes every descriptor from `lowest` up but `keep` (above `lowest`).
void close_from(int lowest, int keep, int max_fd) noexcept {
#ifdef __linux__
    if (::syscall(SYS_close_range, lowest, keep - 1, 0) == 0 && ::syscall(SYS_close_range, keep + 1, ~0U, 0) == 0)
        return;
    // No close_range (an older kernel, a sandbox): the open ones, as listed.
    const int dir = ::open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir >= 0) {
        alignas(8) char buffer[2048];
        long n;
        while ((n = ::syscall(SYS_getdents64, dir, buffer, sizeof buffer)) > 0) {
            for (long at = 0; at < n;) {
                // struct linux_dirent64: ino (8), off (8), reclen (2), type (1), name
                unsigned short length;
                __builtin_memcpy(&length, buffer + at + 16, sizeof length);
                const char* name = buffer + at + 19;
                int fd = 0;
                bool number = *name != '\0';
                for (const char* c = name; *c != '\0'; ++c) {
                    if (*c < '0' || *c > '9')
                        number = false;
                    else
                        fd = fd * 10 + (*c - '0');
                }
                if (number && fd >= lowest && fd != keep && fd != dir) ::close(fd);
                at += length;
            }
        }
        ::close(dir);
        if (n == 0) return;
    }
#endif
    for (int fd = lowest; fd < max_fd; ++fd)
        if (fd != keep) ::close(fd);
}

[[noreturn]] void exec_child(const ChildPlan& plan) noexcept {
    ChildReport report{StartFailure::cwd, redirect_output(plan.out, plan.err)};
    if (report.error == 0 && ::chdir(plan.cwd) != 0) report.error = errno;
    if (report.error == 0) report.error = reset_signals(plan.mask);
    if (report.error == 0) {
        // A session of its own; refused, git stays in the host's group.
        (void)::setsid();
        close_from(3, plan.report, plan.max_fd);
        report.stage = StartFailure::program;
        for (char* const* candidate = plan.candidates; *candidate != nullptr; ++candidate) {
            ::execve(*candidate, plan.argv, plan.envp);
            if (errno != ENOENT && errno != ENOTDIR && report.error == 0) report.error = errno;
        }
        if (report.error == 0) report.error = errno;
    }
    (void)!::write(plan.report, &report, sizeof report);
    ::_exit(255);
}

// vfork, as the interpreter's spawner uses it: the parent's thread waits
// until the child has exec'd or exited, and no memory is copied. Where vfork
// is refused (a sandbox, a kernel that forbids it), fork, as the
// interpreter then forks. Elsewhere a plain fork.
[[gnu::noinline]] pid_t fork_child(const ChildPlan& plan) noexcept {
#ifdef __linux__
    if (const pid_t pid = ::vfork(); pid != -1) {
        if (pid == 0) exec_child(plan);
        return pid;
    }
#endif
    const pid_t pid = ::fork();
    if (pid == 0) exec_child(plan);
    return pid;
}

// The pointers of `strings`, null-terminated.
std::vector<char*> c_strings(const std::vector<std::string>& strings) {
    std::vector<char*> pointers;
    pointers.reserve(strings.size() + 1);
    for (const std::string& s : strings) pointers.push_back(const_cast<char*>(s.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

}  // namespace

int make_output_pipes(OutputPipes& pipes) noexcept {
    if (const int error = make_pipe(pipes.out_read, pipes.out_write)) return error;
    return make_pipe(pipes.err_read, pipes.err_write);
}

Child::Child(Child&& o) noexcept { *this = std::move(o); }

Child& Child::operator=(Child&& o) noexcept {
    if (this != &o) {
        close_all();
        pid_ = std::exchange(o.pid_, -1);
        slot_ = std::exchange(o.slot_, nullptr);
        out_ = std::move(o.out_);
        err_ = std::move(o.err_);
        pid_fd_ = std::move(o.pid_fd_);
        failure_ = o.failure_;
        error_ = o.error_;
    }
    return *this;
}

Child::~Child() { close_all(); }

void Child::forget_pid() noexcept {
    if (slot_ != nullptr) std::exchange(slot_, nullptr)->release();
    pid_ = -1;
}

void kill_unfinished() noexcept { live_children.kill_all(); }

void Child::close_all() noexcept {
    if (pid_ > 0) {
        // Git's pid can't be reused while git is unreaped, so the group it
        // names is still git's: kill whatever git started, then git.
        ::kill(-pid_, SIGKILL);
        ::kill(pid_, SIGKILL);
        int status = 0;
        reap(pid_, status);
    }
    forget_pid();
    out_.reset();
    err_.reset();
    pid_fd_.reset();
}

Child start(const SpawnSpec& spec, OutputPipes pipes) {
    Child child;
    const std::vector<char*> argv = c_strings(spec.argv);
    const std::vector<char*> candidates = c_strings(spec.candidates);
    child.slot_ = live_children.take();

    Fd report_read, report_write;
    if (const int error = make_pipe(report_read, report_write)) {
        child.failure_ = StartFailure::system;
        child.error_ = error;
        return child;
    }
    const long open_max = ::sysconf(_SC_OPEN_MAX);
    sigset_t all, mask;
    sigfillset(&all);
    ::pthread_sigmask(SIG_BLOCK, &all, &mask);
    const ChildPlan plan{argv.data(),
                         candidates.data(),
                         spec.cwd.c_str(),
                         environment(),
                         pipes.out_write.get(),
                         pipes.err_write.get(),
                         report_write.get(),
                         open_max > 0 && open_max < (1L << 30) ? static_cast<int>(open_max) : 256,
                         &mask};
    const pid_t pid = fork_child(plan);
    const int fork_error = errno;
    ::pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    report_write.reset();
    pipes.out_write.reset();
    pipes.err_write.reset();
    if (pid < 0) {
        child.failure_ = StartFailure::system;
        child.error_ = fork_error;
        return child;
    }
    child.pid_ = pid;
    child.slot_->hold(pid);

    // The child has exec'd or exited by now; a report means it failed.
    ChildReport report{};
    ssize_t got;
    while ((got = ::read(report_read.get(), &report, sizeof report)) < 0 && errno == EINTR) {
    }
    if (got == static_cast<ssize_t>(sizeof report)) {
        int status = 0;
        reap(pid, status);
        child.forget_pid();
        child.failure_ = report.stage;
        child.error_ = report.error;
        return child;
    }
    child.out_ = std::move(pipes.out_read);
    child.err_ = std::move(pipes.err_read);
    // Opened now, while git starts up, rather than after its output ended:
    // then the wait for its exit costs one poll.
    child.pid_fd_ = Fd(open_pid_fd(pid));
    return child;
}

// How often a wait asks about pending signals when none interrupted it: a
// signal may arrive while output is being read, or be taken by another
// thread, and a Ctrl-C must still stop the wait soon.
constexpr auto kSignalCheck = std::chrono::milliseconds(50);

struct Waiter {
    Child& child;
    Interrupt interrupt;
    bool has_deadline;
    Clock::time_point deadline;
    int last_status = 0;
    Clock::time_point next_check = Clock::now() + kSignalCheck;

    // Milliseconds poll may sleep: up to the deadline, and no later than the
    // next look at pending signals; 0 when the time is up.
    int poll_ms() const {
        const Clock::time_point until = has_deadline && deadline < next_check ? deadline : next_check;
        const auto left = until - Clock::now();
        if (left <= Clock::duration::zero()) return 0;
        return static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(left).count());
    }
    bool expired() const { return has_deadline && Clock::now() >= deadline; }
    bool interrupted() const { return interrupt.check && interrupt.check(interrupt.context) < 0; }

    // The time-out, checked on every pass as the interpreter's own wait does,
    // and the signals, once their check is due.
    std::optional<Outcome> due() {
        const Clock::time_point now = Clock::now();
        if (has_deadline && now >= deadline) return Outcome::timed_out;
        if (now >= next_check) {
            next_check = now + kSignalCheck;
            if (interrupted()) return Outcome::interrupted;
        }
        return std::nullopt;
    }

    Finished stop(Outcome outcome) {
        Finished f;
        f.outcome = outcome;
        child.close_all();  // kills and reaps
        return f;
    }

    static void drain_one(Fd& fd, ByteBuffer& into) {
        // Larger reads as the output grows keep the number of calls low.
        std::size_t chunk = into.size() / 4;
        if (chunk < 65536) chunk = 65536;
        if (chunk > (1u << 22)) chunk = 1u << 22;
        // Grow only when little room is left: a short output then stays in
        // its first allocation instead of doubling it on the second read.
        if (into.tail_room() < 4096) into.reserve_tail(chunk);
        const ssize_t n = ::read(fd.get(), into.data() + into.size(), into.tail_room());
        if (n > 0) {
            into.commit(static_cast<std::size_t>(n));
        } else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
            fd.reset();
        }
    }

    Finished run() {
        Finished result;
        while (child.out_ || child.err_) {
            if (const std::optional<Outcome> stop_now = due()) return stop(*stop_now);
            pollfd fds[2];
            ByteBuffer* sinks[2] = {};
            Fd* owners[2] = {};
            nfds_t n = 0;
            if (child.out_) {
                fds[n] = {child.out_.get(), POLLIN, 0};
                sinks[n] = &result.out;
                owners[n++] = &child.out_;
            }
            if (child.err_) {
                fds[n] = {child.err_.get(), POLLIN, 0};
                sinks[n] = &result.err;
                owners[n++] = &child.err_;
            }
            const int ready = ::poll(fds, n, poll_ms());
            if (ready < 0) {
                if (errno == EINTR) {
                    if (interrupted()) return stop(Outcome::interrupted);
                    continue;
                }
                return stop(Outcome::interrupted);
            }
            if (ready == 0) continue;
            for (nfds_t i = 0; i < n; ++i)
                if (fds[i].revents != 0) drain_one(*owners[i], *sinks[i]);
        }
        const Outcome reaped = reap();
        if (reaped != Outcome::exited) return stop(reaped);
        return result;
    }

    // Reaps the child once its pipes have closed. It closed them on its way
    // out, but is usually not a zombie yet when the end of file arrives: the
    // kernel reports the exit some microseconds after it released the
    // descriptors. A blocking wait is right without a time limit; with one,
    // the process descriptor wakes the poll at the exit itself. (Sleeping in
    // growing steps, as the interpreter's own wait with a time-out does, costs
    // most of a step on almost every run.)
    Outcome reap() {
        if (has_deadline) {
            const Outcome outcome = wait_for_exit();
            if (outcome != Outcome::exited) return outcome;
        }
        while (child.pid_ > 0) {
            if (::waitpid(child.pid_, &last_status, 0) >= 0 || errno != EINTR) {
                child.forget_pid();
            } else if (interrupted()) {
                return Outcome::interrupted;
            }
        }
        child.pid_fd_.reset();
        return Outcome::exited;
    }

    // Waits, up to the deadline, until the child has exited (or is reaped).
    Outcome wait_for_exit() {
        while (child.pid_fd_) {
            if (const std::optional<Outcome> stop_now = due()) return *stop_now;
            pollfd fd{child.pid_fd_.get(), POLLIN, 0};
            const int ready = ::poll(&fd, 1, poll_ms());
            if (ready > 0) return Outcome::exited;
            if (ready == 0) {
                continue;
            } else if (errno != EINTR) {
                break;
            } else if (interrupted()) {
                return Outcome::interrupted;
            }
        }
        // No process descriptor (an older kernel): look again after growing
        // pauses, starting short since the exit is usually a moment away.
        long pause_ns = 20000;
        while (!try_reap()) {
            if (const std::optional<Outcome> stop_now = due()) return *stop_now;
            timespec pause{0, pause_ns};
            if (::nanosleep(&pause, nullptr) != 0 && errno == EINTR && interrupted()) return Outcome::interrupted;
            if (pause_ns < 50000000) pause_ns *= 2;
        }
        return Outcome::exited;
    }

    // True once the child is reaped, or can't be waited for (SIGCHLD
    // ignored: the status is then lost and reads as 0, as the interpreter's).
    bool try_reap() {
        for (;;) {
            const pid_t r = ::waitpid(child.pid_, &last_status, WNOHANG);
            if (r == 0) return false;
            if (r > 0 || errno != EINTR) {
                if (r < 0) last_status = 0;
                child.forget_pid();
                return true;
            }
        }
    }
};

Finished finish(Child& child, double timeout_seconds, Interrupt interrupt) {
    Waiter w{child, interrupt, timeout_seconds > 0 && std::isfinite(timeout_seconds), {}};
    if (w.has_deadline)
        w.deadline =
            Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(timeout_seconds));
    Finished f = w.run();
    if (f.outcome == Outcome::exited) f.returncode = returncode_of(w.last_status);
    return f;
}

}  // namespace gu::core
