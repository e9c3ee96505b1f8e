#include "core/spawn.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <chrono>
#include <cmath>
#include <ctime>
#include <optional>

#ifdef __APPLE__
#include <crt_externs.h>
#else
extern char** environ;
#endif

namespace gu::core {
namespace {

using Clock = std::chrono::steady_clock;

void close_fd(int& fd) noexcept {
    if (fd >= 0) {
        ::close(fd);
        fd = -1;
    }
}

// Keeps pipe ends off descriptors 0 to 2, so that the child's dup2 onto 1 and
// 2 never overwrites the other pipe when the host runs with stdio closed.
int above_stdio(int fd) noexcept {
    if (fd > 2) return fd;
    const int moved = ::fcntl(fd, F_DUPFD_CLOEXEC, 3);
    const int saved = errno;
    ::close(fd);
    errno = saved;
    return moved;
}

char** environment() noexcept {
#ifdef __APPLE__
    return *_NSGetEnviron();  // a loadable bundle has no `environ` of its own
#else
    return environ;
#endif
}

bool make_pipe(int fds[2]) noexcept {
#ifdef __APPLE__
    // No pipe2 here. The window before FD_CLOEXEC is set does not reach our
    // own children: their spawn keeps only the descriptors it names.
    if (::pipe(fds) != 0) return false;
    ::fcntl(fds[0], F_SETFD, FD_CLOEXEC);
    ::fcntl(fds[1], F_SETFD, FD_CLOEXEC);
#else
    if (::pipe2(fds, O_CLOEXEC) != 0) return false;
#endif
    fds[0] = above_stdio(fds[0]);
    fds[1] = above_stdio(fds[1]);
    if (fds[0] < 0 || fds[1] < 0) {
        const int saved = errno;
        close_fd(fds[0]);
        close_fd(fds[1]);
        errno = saved;
        return false;
    }
    return true;
}

#ifdef O_PATH
constexpr int kDirectoryOpen = O_PATH | O_DIRECTORY | O_CLOEXEC;
#else
// Where O_PATH is missing (macOS), opening needs read permission: a
// directory that can be entered but not listed is refused as the cwd.
constexpr int kDirectoryOpen = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
#endif

int open_pid_fd(pid_t pid) noexcept {
#ifdef SYS_pidfd_open
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

// git starts in a session of its own, so that everything it starts shares
// its process group and a give-up can kill them all (git's pid names the
// group). A session rather than a mere process group: a background group on
// the host's terminal would be stopped by SIGTTIN or SIGTTOU the moment git
// or a child touched that terminal (a credential prompt, stty). Without a
// controlling terminal nothing is ever stopped by job control, while a
// terminal on standard input still reads as one (isatty), so shortlog still
// summarises HEAD. The terminal's Ctrl-C now reaches only the host, whose
// wait sees it and kills the group. Where spawn can't start a session, a
// process group of its own is the fallback.
#ifdef POSIX_SPAWN_SETSID
constexpr short kOwnGroup = POSIX_SPAWN_SETSID;
#else
constexpr short kOwnGroup = POSIX_SPAWN_SETPGROUP;
#endif

#if defined(__GLIBC__) && defined(__linux__)
// Whether the host ignores signal `sig`, asked of the kernel: glibc's own
// sigaction refuses its internal signals. Every kernel layout of the
// structure begins with the handler except MIPS's, which begins with flags.
bool host_ignores(int sig) noexcept {
#if defined(SYS_rt_sigaction) && !defined(__mips__)
    unsigned long action[8] = {};  // larger than any architecture's layout
    constexpr long kKernelSetBytes = 8;  // 64 signals outside MIPS
    if (::syscall(SYS_rt_sigaction, sig, nullptr, action, kKernelSetBytes) != 0)
        return false;
    return action[0] == reinterpret_cast<unsigned long>(SIG_IGN);
#else
    (void)sig;
    return false;
#endif
}
#endif

// The children started and not yet reaped, each beside the process that
// started it (a fork's copy of the table is not its own): at the host's exit,
// a thread that waits for git never comes back to reap it, and
// kill_unfinished ends what it started. A full table leaves a child out.
class LiveChildren {
public:
    void add(pid_t child) noexcept {
        const std::uint64_t entry = pack(child);
        for (auto& slot : slots_) {
            std::uint64_t empty = 0;
            if (slot.compare_exchange_strong(empty, entry, std::memory_order_relaxed)) return;
        }
    }
    void remove(pid_t child) noexcept {
        const std::uint64_t entry = pack(child);
        for (auto& slot : slots_) {
            std::uint64_t found = entry;
            if (slot.compare_exchange_strong(found, 0, std::memory_order_relaxed)) return;
        }
    }
    void kill_all() noexcept {
        const std::uint64_t mine = pack(0);
        for (auto& slot : slots_) {
            const std::uint64_t entry = slot.load(std::memory_order_relaxed);
            if (entry == 0 || (entry & ~kPidMask) != mine) continue;
            const auto child = static_cast<pid_t>(entry & kPidMask);
            ::kill(-child, SIGKILL);
            ::kill(child, SIGKILL);
        }
    }

private:
    static constexpr std::uint64_t kPidMask = 0xffffffffu;
    static std::uint64_t pack(pid_t child) noexcept {
        return static_cast<std::uint64_t>(static_cast<std::uint32_t>(::getpid())) << 32 |
               static_cast<std::uint32_t>(child);
    }
    std::atomic<std::uint64_t> slots_[64] = {};
};

LiveChildren live_children;

class SpawnSetup {
public:
    SpawnSetup(int out_w, int err_w, int cwd_fd) {
        ::posix_spawn_file_actions_init(&actions_);
        ::posix_spawnattr_init(&attr_);
        sigset_t defaults;
        sigemptyset(&defaults);
        sigaddset(&defaults, SIGPIPE);
        sigaddset(&defaults, SIGXFSZ);
#if defined(__GLIBC__) && defined(__linux__)
        // glibc's spawn helper ignores its two internal signals (32 and 33)
        // in the child unless told to default them, and an ignored signal
        // stays ignored across exec. The interpreter's spawner (fork, exec)
        // leaves each as exec leaves it: ignored where the host ignores it
        // (a host itself started by posix_spawn), default otherwise. So
        // default those the host does not ignore; sigaddset refuses them,
        // so their bits are set directly.
        for (const int internal : {32, 33})
            if (!host_ignores(internal)) defaults.__val[0] |= 1UL << (internal - 1);
#endif
        error_ = ::posix_spawn_file_actions_adddup2(&actions_, out_w, 1);
        if (!error_) error_ = ::posix_spawn_file_actions_adddup2(&actions_, err_w, 2);
        if (!error_) error_ = ::posix_spawn_file_actions_addfchdir_np(&actions_, cwd_fd);
#ifdef __APPLE__
        // POSIX_SPAWN_CLOEXEC_DEFAULT (below) closes what the actions don't
        // name, standard input included unless it is named as inherited.
        if (!error_ && ::fcntl(0, F_GETFD) >= 0) error_ = ::posix_spawn_file_actions_addinherit_np(&actions_, 0);
#else
        if (!error_) error_ = ::posix_spawn_file_actions_addclosefrom_np(&actions_, 3);
#endif
        if (!error_) error_ = ::posix_spawnattr_setsigdefault(&attr_, &defaults);
        short flags = POSIX_SPAWN_SETSIGDEF | kOwnGroup;
#ifndef POSIX_SPAWN_SETSID
        if (!error_) error_ = ::posix_spawnattr_setpgroup(&attr_, 0);
#endif
#ifdef __APPLE__
        flags |= POSIX_SPAWN_CLOEXEC_DEFAULT;
#endif
        if (!error_) error_ = ::posix_spawnattr_setflags(&attr_, flags);
    }
    ~SpawnSetup() {
        ::posix_spawn_file_actions_destroy(&actions_);
        ::posix_spawnattr_destroy(&attr_);
    }
    SpawnSetup(const SpawnSetup&) = delete;
    SpawnSetup& operator=(const SpawnSetup&) = delete;

    int error() const noexcept { return error_; }
    int spawn(pid_t* pid, const char* path, char* const* argv) {
        return ::posix_spawn(pid, path, &actions_, &attr_, argv, environment());
    }

private:
    posix_spawn_file_actions_t actions_;
    posix_spawnattr_t attr_;
    int error_ = 0;
};

}  // namespace

Child::Child(Child&& o) noexcept { *this = std::move(o); }

Child& Child::operator=(Child&& o) noexcept {
    if (this != &o) {
        close_all();
        pid_ = std::exchange(o.pid_, -1);
        out_fd_ = std::exchange(o.out_fd_, -1);
        err_fd_ = std::exchange(o.err_fd_, -1);
        pid_fd_ = std::exchange(o.pid_fd_, -1);
        failure_ = o.failure_;
        error_ = o.error_;
    }
    return *this;
}

Child::~Child() { close_all(); }

void Child::forget_pid() noexcept {
    live_children.remove(pid_);
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
        forget_pid();
    }
    close_fd(out_fd_);
    close_fd(err_fd_);
    close_fd(pid_fd_);
}

Child start(const SpawnSpec& spec) {
    Child child;
    auto fail = [&child](StartFailure what, int err) {
        child.failure_ = what;
        child.error_ = err;
        return std::move(child);
    };

    // The interpreter's spawner changes directory in the child and reports a
    // refusal against the directory; checking here gives the same errors.
    int cwd_fd = ::open(spec.cwd.c_str(), kDirectoryOpen);
    if (cwd_fd < 0) return fail(StartFailure::cwd, errno);
    // With standard output or error closed in the host, the directory would
    // take that number, and the child's dup2 of a pipe onto it would replace
    // the directory before the change into it.
    cwd_fd = above_stdio(cwd_fd);
    if (cwd_fd < 0) return fail(StartFailure::system, errno);
    if (::faccessat(AT_FDCWD, spec.cwd.c_str(), X_OK, AT_EACCESS) != 0) {
        const int err = errno;
        ::close(cwd_fd);
        return fail(StartFailure::cwd, err);
    }

    int out[2] = {-1, -1};
    int err[2] = {-1, -1};
    if (!make_pipe(out) || !make_pipe(err)) {
        const int e = errno;
        ::close(cwd_fd);
        close_fd(out[0]);
        close_fd(out[1]);
        return fail(StartFailure::system, e);
    }

    std::vector<char*> argv;
    argv.reserve(spec.argv.size() + 1);
    for (const std::string& a : spec.argv) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);

    int first_error = 0;
    int last_error = ENOENT;
    pid_t pid = -1;
    {
        SpawnSetup setup(out[1], err[1], cwd_fd);
        if (setup.error()) {
            first_error = setup.error();
        } else {
            for (const std::string& candidate : spec.candidates) {
                // A candidate that does not exist would fail exec with the same
                // error; skipping it saves a process start per PATH entry.
                struct stat st;
                if (::fstatat(cwd_fd, candidate.c_str(), &st, 0) != 0 && (errno == ENOENT || errno == ENOTDIR)) {
                    last_error = errno;
                    continue;
                }
                const int rc = setup.spawn(&pid, candidate.c_str(), argv.data());
                if (rc == 0) break;
                pid = -1;
                last_error = rc;
                if (rc != ENOENT && rc != ENOTDIR && first_error == 0) first_error = rc;
            }
        }
    }
    ::close(cwd_fd);
    close_fd(out[1]);
    close_fd(err[1]);
    if (pid < 0) {
        close_fd(out[0]);
        close_fd(err[0]);
        return fail(StartFailure::program, first_error ? first_error : last_error);
    }
    child.pid_ = pid;
    live_children.add(pid);
    child.out_fd_ = out[0];
    child.err_fd_ = err[0];
    // Opened now, while git starts up, rather than after its output ended:
    // then the wait for its exit costs one poll.
    child.pid_fd_ = open_pid_fd(pid);
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
    bool interrupted() const { return interrupt.check && interrupt.check(interrupt.context); }

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

    static void drain_one(int& fd, ByteBuffer& into) {
        // Larger reads as the output grows keep the number of calls low.
        std::size_t chunk = into.size() / 4;
        if (chunk < 65536) chunk = 65536;
        if (chunk > (1u << 22)) chunk = 1u << 22;
        // Grow only when little room is left: a short output then stays in
        // its first allocation instead of doubling it on the second read.
        if (into.tail_room() < 4096) into.reserve_tail(chunk);
        const ssize_t n = ::read(fd, into.data() + into.size(), into.tail_room());
        if (n > 0) {
            into.commit(static_cast<std::size_t>(n));
        } else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
            close_fd(fd);
        }
    }

    Finished run() {
        Finished result;
        while (child.out_fd_ >= 0 || child.err_fd_ >= 0) {
            if (const std::optional<Outcome> stop_now = due()) return stop(*stop_now);
            pollfd fds[2];
            ByteBuffer* sinks[2] = {};
            int* owners[2] = {};
            nfds_t n = 0;
            if (child.out_fd_ >= 0) {
                fds[n] = {child.out_fd_, POLLIN, 0};
                sinks[n] = &result.out;
                owners[n++] = &child.out_fd_;
            }
            if (child.err_fd_ >= 0) {
                fds[n] = {child.err_fd_, POLLIN, 0};
                sinks[n] = &result.err;
                owners[n++] = &child.err_fd_;
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
        close_fd(child.pid_fd_);
        return Outcome::exited;
    }

    // Waits, up to the deadline, until the child has exited (or is reaped).
    Outcome wait_for_exit() {
        while (child.pid_fd_ >= 0) {
            if (const std::optional<Outcome> stop_now = due()) return *stop_now;
            pollfd fd{child.pid_fd_, POLLIN, 0};
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
        w.deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                        std::chrono::duration<double>(timeout_seconds));
    Finished f = w.run();
    if (f.outcome == Outcome::exited) f.returncode = returncode_of(w.last_status);
    return f;
}

}  // namespace gu::core
