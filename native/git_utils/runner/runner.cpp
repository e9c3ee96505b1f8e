#include "git_utils/runner/runner.hpp"

#include <cerrno>
#include <cstring>
#include <optional>
#include <string>

#include "core/line_ends.hpp"
#include "git_utils/binding/genuine.hpp"
#include "git_utils/binding/helpers.hpp"
#include "git_utils/binding/log_line.hpp"
#include "git_utils/binding/state.hpp"
#include "git_utils/binding/unlocked.hpp"
#include "git_utils/runner/command_line.hpp"

#ifndef _WIN32
#include "core/spawn.hpp"
#endif

namespace gu {

const char* const kGitErrorDoc = "A git command failed; the message carries what git said.";

namespace {

// One run of git as run_git_command makes it: what the call was given and
// what Python code would have made of it, passed whole down the run.
struct RunRequest {
    PyObject* module;
    PyObject* args;     // the caller's list, as the log lines show it
    PyObject* argv;     // ["git"] + args
    PyObject* cwd;      // str(repo_root)
    PyObject* timeout;  // as given, as the time-out's log line shows it
};

// Seconds the native wait uses; larger limits go to subprocess.run, whose
// own handling of them (and of odd values) is the reference.
constexpr double kMaxNativeTimeout = 1e6;

Ref git_triple(PyObject* out, PyObject* err, PyObject* code) { return Ref::steal(PyTuple_Pack(3, out, err, code)); }

// ("", message, 1): what a time-out or a missing git gives.
Ref substitute(const char* message) {
    Ref empty = text("");
    Ref msg = text(message);
    Ref one = Ref::steal(PyLong_FromLong(1));
    if (!empty || !msg || !one) return Ref();
    return git_triple(empty.get(), msg.get(), one.get());
}

// logger.<level>(format, *values) through the namespace's logger, as a line
// of run_git_command.
int log(PyObject* module, LogLevel level, const char* format, std::initializer_list<PyObject*> values) {
    return log_line(module, level, "run_git_command", format, values);
}

Ref timed_out(const RunRequest& run) {
    if (log(run.module, LogLevel::warning, "git command timed out after %ss: args=%s", {run.timeout, run.args}) < 0)
        return Ref();
    return substitute("Command timed out");
}

Ref not_found(const RunRequest& run) {
    if (log(run.module, LogLevel::warning, "git executable not found while running args=%s", {run.args}) < 0)
        return Ref();
    return substitute("git not found");
}

// The debug line of a git that exited with a non-zero code.
int log_failure(const RunRequest& run, PyObject* code, PyObject* err) {
    Ref stripped = Ref::steal(PyObject_CallMethodNoArgs(err, state_of(run.module)->str_strip));
    if (!stripped) return -1;
    return log(run.module, LogLevel::debug, "git command failed: args=%s rc=%s stderr=%s",
               {run.args, code, stripped.get()});
}

// What the interpreter names a callable in its call errors: "subprocess.run()".
Ref function_str(PyObject* f) {
    Ref qualname = Ref::steal(PyObject_GetAttrString(f, "__qualname__"));
    if (!qualname) {
        PyErr_Clear();
        return Ref::steal(PyObject_Str(f));
    }
    Ref module = Ref::steal(PyObject_GetAttrString(f, "__module__"));
    if (!module) PyErr_Clear();
    if (module && !(PyUnicode_Check(module.get()) && PyUnicode_CompareWithASCIIString(module.get(), "builtins") == 0))
        return Ref::steal(PyUnicode_FromFormat("%S.%S()", module.get(), qualname.get()));
    return Ref::steal(PyUnicode_FromFormat("%S()", qualname.get()));
}

// kwargs.update(**options) with the errors of a call's ** unpacking.
int merge_options(PyObject* callee, PyObject* kwargs, PyObject* options) {
    Ref keys;
    if (PyDict_Check(options)) {
        keys = Ref::steal(PyDict_Keys(options));
    } else {
        keys = call_method(options, "keys");
        if (!keys && PyErr_ExceptionMatches(PyExc_AttributeError)) {
            PyErr_Clear();
            Ref name = function_str(callee);
            if (name)
                PyErr_Format(PyExc_TypeError, "%U argument after ** must be a mapping, not %.200s", name.get(),
                             Py_TYPE(options)->tp_name);
            return -1;
        }
    }
    if (!keys) return -1;
    Ref iter = Ref::steal(PyObject_GetIter(keys.get()));
    if (!iter) return -1;
    while (Ref key = Ref::steal(PyIter_Next(iter.get()))) {
        const int present = PyDict_Contains(kwargs, key.get());
        if (present < 0) return -1;
        if (present) {
            Ref name = function_str(callee);
            if (!name) return -1;
            if (PyUnicode_Check(key.get()))
                PyErr_Format(PyExc_TypeError, "%U got multiple values for keyword argument '%S'", name.get(),
                             key.get());
            else
                PyErr_Format(PyExc_TypeError, "%U keywords must be strings", name.get());
            return -1;
        }
        Ref value = Ref::steal(PyObject_GetItem(options, key.get()));
        if (!value || PyDict_SetItem(kwargs, key.get(), value.get()) < 0) return -1;
    }
    return PyErr_Occurred() ? -1 : 0;
}

// subprocess.run(argv, cwd=cwd, capture_output=True, encoding="utf-8",
// errors="replace", timeout=timeout, **options), and what the runner makes
// of its result or of a time-out or missing git.
Ref run_through_subprocess(const RunRequest& request, PyObject* subprocess, PyObject* run, PyObject* options) {
    Ref kwargs = Ref::steal(Py_BuildValue("{s:O,s:O,s:s,s:s,s:O}", "cwd", request.cwd, "capture_output", Py_True,
                                          "encoding", "utf-8", "errors", "replace", "timeout", request.timeout));
    if (!kwargs || merge_options(run, kwargs.get(), options) < 0) return Ref();
    Ref call_args = Ref::steal(PyTuple_Pack(1, request.argv));
    if (!call_args) return Ref();
    Ref result = Ref::steal(PyObject_Call(run, call_args.get(), kwargs.get()));
    if (!result) {
        Ref pending = Ref::steal(PyErr_GetRaisedException());
        // A failing lookup replaces the pending error, as a failing except clause does.
        Ref expired = Ref::steal(PyObject_GetAttrString(subprocess, "TimeoutExpired"));
        if (!expired) return Ref();
        if (PyErr_GivenExceptionMatches(pending.get(), expired.get())) return timed_out(request);
        if (PyErr_GivenExceptionMatches(pending.get(), PyExc_FileNotFoundError)) return not_found(request);
        PyErr_SetRaisedException(pending.release());
        return Ref();
    }
    Ref code = Ref::steal(PyObject_GetAttrString(result.get(), "returncode"));
    Ref out = Ref::steal(PyObject_GetAttrString(result.get(), "stdout"));
    Ref err = Ref::steal(PyObject_GetAttrString(result.get(), "stderr"));
    if (!code || !out || !err) return Ref();
    const int failed = code_compare(code.get(), Py_NE);
    if (failed < 0 || (failed && log_failure(request, code.get(), err.get()) < 0)) return Ref();
    return git_triple(out.get(), err.get(), code.get());
}

#ifndef _WIN32

// os.fsencode(text) into `out`: 1; 0 (no error set) when the text can't be
// encoded or holds a NUL: subprocess.run then raises the interpreter's error;
// -1 when memory ran out.
int fs_bytes(PyObject* text_obj, std::string& out) {
    if (!PyUnicode_CheckExact(text_obj)) return 0;
    Ref b = Ref::steal(PyUnicode_EncodeFSDefault(text_obj));
    if (!b) {
        if (PyErr_ExceptionMatches(PyExc_MemoryError)) return -1;
        PyErr_Clear();
        return 0;
    }
    const char* data = PyBytes_AS_STRING(b.get());
    const Py_ssize_t size = PyBytes_GET_SIZE(b.get());
    if (std::memchr(data, '\0', static_cast<std::size_t>(size)) != nullptr) return 0;
    out.assign(data, static_cast<std::size_t>(size));
    return 1;
}

// The time-out in seconds when it is a plain, positive int or float that the
// native wait handles; nothing otherwise.
std::optional<double> plain_timeout(PyObject* timeout) {
    if (PyLong_CheckExact(timeout)) {
        int overflow = 0;
        const long long v = PyLong_AsLongLongAndOverflow(timeout, &overflow);
        if (overflow || v <= 0 || static_cast<double>(v) > kMaxNativeTimeout) return std::nullopt;
        return static_cast<double>(v);
    }
    if (PyFloat_CheckExact(timeout)) {
        const double v = PyFloat_AS_DOUBLE(timeout);
        if (!(v > 0 && v <= kMaxNativeTimeout)) return std::nullopt;
        return v;
    }
    return std::nullopt;
}

// The bytes of PATH as os.get_exec_path() would return them, read straight
// from the byte dict behind os.environ while that is still the os module's
// own _Environ. The function itself runs under warnings.catch_warnings(),
// which costs some 20 microseconds per run among process starts (cold
// caches); the dict gives the same bytes. Nothing when the shortcut does not
// apply (os.environ replaced, PATH unset): then the function is called.
std::optional<std::string> environ_path(PyObject* get_exec_path) {
    if (!PyFunction_Check(get_exec_path)) return std::nullopt;
    PyObject* os_dict = PyFunction_GET_GLOBALS(get_exec_path);
    Ref environ_obj, environ_type, data, key, value;
    const bool found = dict_get(os_dict, "environ", environ_obj) > 0 &&
                       dict_get(os_dict, "_Environ", environ_type) > 0 &&
                       reinterpret_cast<PyObject*>(Py_TYPE(environ_obj.get())) == environ_type.get() &&
                       (data = Ref::steal(PyObject_GetAttrString(environ_obj.get(), "_data"))) &&
                       PyDict_CheckExact(data.get()) && (key = Ref::steal(PyBytes_FromStringAndSize("PATH", 4))) &&
                       dict_get(data.get(), key.get(), value) > 0 && PyBytes_CheckExact(value.get());
    if (!found) {
        PyErr_Clear();
        return std::nullopt;
    }
    return std::string(PyBytes_AS_STRING(value.get()), static_cast<std::size_t>(PyBytes_GET_SIZE(value.get())));
}

// os.path.join(dir, program) for each directory of the search path.
void add_candidate(core::SpawnSpec& spec, std::string dir) {
    if (!dir.empty() && dir.back() != '/') dir += '/';
    spec.candidates.push_back(dir + spec.argv[0]);
}

// The argument vector, working directory and PATH candidates as bytes.
// Returns 1 when ready, 0 when some input is not plain (the subprocess.run
// path then gives the interpreter's own behaviour), -1 on error.
int prepare(const ModuleState* st, PyObject* argv, PyObject* cwd, core::SpawnSpec& spec) {
    const Py_ssize_t n = PyList_GET_SIZE(argv);
    spec.argv.resize(static_cast<std::size_t>(n));
    for (Py_ssize_t i = 0; i < n; ++i)
        if (const int plain = fs_bytes(PyList_GET_ITEM(argv, i), spec.argv[static_cast<std::size_t>(i)]); plain <= 0)
            return plain;
    if (const int plain = fs_bytes(cwd, spec.cwd); plain <= 0) return plain;
    if (const std::optional<std::string> path = environ_path(st->os_get_exec_path)) {
        // path.split(os.pathsep), on the bytes: ':' never occurs inside a
        // multi-byte character of the file system encoding.
        std::size_t from = 0;
        for (std::size_t colon; (colon = path->find(':', from)) != std::string::npos; from = colon + 1)
            add_candidate(spec, path->substr(from, colon - from));
        add_candidate(spec, path->substr(from));
        return 1;
    }
    Ref dirs = call(st->os_get_exec_path);
    if (!dirs) return -1;
    Ref iter = Ref::steal(PyObject_GetIter(dirs.get()));
    if (!iter) return -1;
    while (Ref dir = Ref::steal(PyIter_Next(iter.get()))) {
        std::string bytes;
        if (const int plain = fs_bytes(dir.get(), bytes); plain <= 0) return plain;
        add_candidate(spec, std::move(bytes));
    }
    return PyErr_Occurred() ? -1 : 1;
}

// A signal interrupted the wait: run the interpreter's handlers, with the
// lock taken back for the moment; -1 when a handler raised (Ctrl-C): the
// wait stops, and the exception propagates.
int check_signals(void* saved) {
    Relock lock(*static_cast<PyThreadState**>(saved));
    return PyErr_CheckSignals();
}

// A stream as the runner gives it: line ends normalised, then UTF-8 with
// invalid bytes replaced. The buffer is emptied.
Ref stream_text(core::ByteBuffer& bytes) {
    const std::size_t size = core::normalize_line_ends(bytes.data(), bytes.size());
    Ref s =
        Ref::steal(PyUnicode_DecodeUTF8(bytes.data() ? bytes.data() : "", static_cast<Py_ssize_t>(size), "replace"));
    bytes.clear();
    return s;
}

Ref raise_errno(int err, PyObject* filename) {
    errno = err;
    return Ref::steal(filename ? PyErr_SetFromErrnoWithFilenameObject(PyExc_OSError, filename)
                               : PyErr_SetFromErrno(PyExc_OSError));
}

#endif

// What a run gives its caller: git's triple, or, for a caller that parses
// stdout itself, that stdout left in the caller's buffer as bytes (git ran
// natively and exited with 0). Neither: an exception is set.
struct RunResult {
    Ref triple;
    bool captured = false;
    explicit operator bool() const { return captured || triple; }
};

#ifndef _WIN32

// Spawns git natively with the interpreter's lock released: the same
// triple, exceptions and log lines as the subprocess.run path.
RunResult run_natively(const RunRequest& run, const core::SpawnSpec& spec, double seconds, core::ByteBuffer* capture) {
    // The output pipes, then the audit event, in the interpreter's order:
    // a full descriptor table or a refusing hook stops both paths alike.
    core::OutputPipes pipes;
    if (const int pipe_error = core::make_output_pipes(pipes)) return {raise_errno(pipe_error, nullptr)};
    PyObject* program = PyList_GET_ITEM(run.argv, 0);
    if (PySys_Audit("subprocess.Popen", "OOOO", program, run.argv, run.cwd, Py_None) < 0) return {};
    // The child lives inside the unlocked work, so that however the work
    // ends (an allocation failure, the thread ended at exit) git is killed
    // and reaped before anything else happens.
    core::StartFailure failure = core::StartFailure::none;
    int error = 0;
    core::Finished done;
    run_unlocked([&](PyThreadState*& saved) {
        core::Child child = core::start(spec, std::move(pipes));
        failure = child.failure();
        error = child.error();
        if (failure == core::StartFailure::none)
            done = core::finish(child, seconds, core::Interrupt{check_signals, &saved});
    });

    switch (failure) {
        case core::StartFailure::none: break;
        case core::StartFailure::cwd: return {error == ENOENT ? not_found(run) : raise_errno(error, run.cwd)};
        case core::StartFailure::program: return {error == ENOENT ? not_found(run) : raise_errno(error, program)};
        case core::StartFailure::system: return {raise_errno(error, nullptr)};
    }
    switch (done.outcome) {
        case core::Outcome::exited: break;
        case core::Outcome::timed_out: return {timed_out(run)};
        case core::Outcome::interrupted:
            if (!PyErr_Occurred()) PyErr_SetString(PyExc_OSError, "waiting for git failed");
            return {};
    }
    if (capture != nullptr && done.returncode == 0) {
        done.out.resize_down(core::normalize_line_ends(done.out.data(), done.out.size()));
        *capture = std::move(done.out);
        return {Ref(), true};
    }
    Ref out = stream_text(done.out);
    if (!out) return {};
    Ref err = stream_text(done.err);
    Ref code = Ref::steal(PyLong_FromLong(done.returncode));
    if (!err || !code) return {};
    if (done.returncode != 0 && log_failure(run, code.get(), err.get()) < 0) return {};
    return {git_triple(out.get(), err.get(), code.get())};
}

// The native spawn, declined when some input is not plain: the
// subprocess.run path then gives the interpreter's own behaviour.
std::optional<RunResult> spawn_natively(const RunRequest& run, double seconds, core::ByteBuffer* capture) {
    core::SpawnSpec spec;
    const int ready = prepare(state_of(run.module), run.argv, run.cwd, spec);
    if (ready == 0) return std::nullopt;
    if (ready < 0) return RunResult{};
    return run_natively(run, spec, seconds, capture);
}

#endif

// run_git_command, and for a caller that parses stdout itself (`capture`
// given): when git runs natively and exits with 0, stdout is left in
// `capture` as bytes with line ends normalised, not decoded.
RunResult run_command(PyObject* module, PyObject* repo_root, PyObject* args, PyObject* timeout,
                      [[maybe_unused]] core::ByteBuffer* capture) {
    ModuleState* st = state_of(module);

    // The order in which Python code would evaluate the call's parts.
    Ref subprocess = lookup(module, Name::subprocess);
    if (!subprocess) return {};
    Ref run = Ref::steal(PyObject_GetAttr(subprocess.get(), st->str_run));
    if (!run) return {};
    Ref prefix = arg_list({"git"});
    if (!prefix) return {};
    Ref argv = Ref::steal(PyNumber_Add(prefix.get(), args));
    if (!argv) return {};
    Ref cwd = Ref::steal(PyObject_Str(repo_root));
    if (!cwd) return {};
    Ref options = call_name(module, Name::get_subprocess_hidden_kwargs);
    if (!options) return {};
    const RunRequest request{module, args, argv.get(), cwd.get(), timeout};

#ifndef _WIN32
    if (is_original(st, Name::subprocess, subprocess.get()) && allowed_for(st, FastPath::spawn, run.get()) &&
        PyDict_CheckExact(options.get()) && PyDict_GET_SIZE(options.get()) == 0 && PyList_CheckExact(argv.get())) {
        if (const std::optional<double> seconds = plain_timeout(timeout))
            if (std::optional<RunResult> done = spawn_natively(request, *seconds, capture)) return std::move(*done);
    }
#endif
    return {run_through_subprocess(request, subprocess.get(), run.get(), options.get())};
}

PyObject* run_git_command(PyObject* module, PyObject* const* a) {
    return run_command(module, a[0], a[1], a[2], nullptr).triple.release();
}

// What _git_output makes of the runner's result: stdout, or GitError.
Ref output_or_error(PyObject* module, PyObject* result) {
    Ref parts[3];
    if (unpack_git_result(result, parts) < 0) return Ref();
    const int failed = code_compare(parts[2].get(), Py_NE);
    if (failed < 0) return Ref();
    if (!failed) return std::move(parts[0]);

    // GitError(stderr.strip() or f"git exited with code {returncode}")
    Ref message = Ref::steal(PyObject_CallMethodNoArgs(parts[1].get(), state_of(module)->str_strip));
    if (!message) return Ref();
    const int has_text = PyObject_IsTrue(message.get());
    if (has_text < 0) return Ref();
    if (!has_text) {
        Ref code = Ref::steal(PyObject_Format(parts[2].get(), nullptr));
        if (!code) return Ref();
        message = Ref::steal(PyUnicode_FromFormat("git exited with code %U", code.get()));
        if (!message) return Ref();
    }
    raise_git_error(module, std::move(message));
    return Ref();
}

PyObject* git_output(PyObject* module, PyObject* const* a) {
    Ref result = call_run_git_command(module, a[0], a[1]);
    return result ? output_or_error(module, result.get()).release() : nullptr;
}

// The time-out run_git_command(repo_root, args) runs with: its last default;
// declined when it has none (the call would then fail as Python's does).
Native default_timeout(PyObject* run_git_command) {
    Ref defaults = Ref::steal(PyObject_GetAttrString(run_git_command, "__defaults__"));
    if (!defaults) return Ref();
    if (!PyTuple_Check(defaults.get()) || PyTuple_GET_SIZE(defaults.get()) == 0) return declined;
    return Ref::borrow(PyTuple_GET_ITEM(defaults.get(), PyTuple_GET_SIZE(defaults.get()) - 1));
}

// The methods of Popen that subprocess.run reaches on every run.
constexpr const char* kPopenMethods[] = {"__init__", "__enter__", "__exit__", "communicate",   "wait",
                                         "kill",     "poll",      "_wait",    "_execute_child"};

}  // namespace

int spawn_guard(PyObject* module, GuardBuilder& guard) {
    PyObject* subprocess = state_of(module)->originals[index(Name::subprocess)];
    if (!PyModule_Check(subprocess)) return 0;
    PyObject* dict = PyModule_GetDict(subprocess);
    Ref modules = Ref::steal(PyTuple_Pack(1, dict));
    if (!modules) return -1;
    guard.entry(dict, "run");
    guard.entry(dict, "Popen");
    guard.entry(dict, "PIPE");
    guard.entry(dict, "TimeoutExpired");
    guard.entry(dict, "CompletedProcess");
    Ref run, popen;
    if (dict_get(dict, "run", run) < 0 || dict_get(dict, "Popen", popen) < 0) return -1;
    if (!run || !popen || !PyType_Check(popen.get())) return 0;
    guard.subject(run.get());
    guard.genuine_function(run.get(), modules.get());
    guard.genuine_class(popen.get(), modules.get());
    guard.has_attributes(popen.get(), kPopenMethods);
    return guard.ok() ? 0 : -1;
}

int unpack_git_result(PyObject* value, Ref out[3]) {
    if (PyTuple_CheckExact(value) && PyTuple_GET_SIZE(value) == 3) {
        for (Py_ssize_t i = 0; i < 3; ++i) out[i] = Ref::borrow(PyTuple_GET_ITEM(value, i));
        return 0;
    }
    Ref iter = Ref::steal(PyObject_GetIter(value));
    if (!iter) {
        if (PyErr_ExceptionMatches(PyExc_TypeError) && Py_TYPE(value)->tp_iter == nullptr && !PySequence_Check(value)) {
            PyErr_Clear();
            PyErr_Format(PyExc_TypeError, "cannot unpack non-iterable %.200s object", Py_TYPE(value)->tp_name);
        }
        return -1;
    }
    for (int i = 0; i < 3; ++i) {
        out[i] = Ref::steal(PyIter_Next(iter.get()));
        if (!out[i]) {
            if (!PyErr_Occurred())
                PyErr_Format(PyExc_ValueError, "not enough values to unpack (expected 3, got %d)", i);
            return -1;
        }
    }
    Ref extra = Ref::steal(PyIter_Next(iter.get()));
    if (extra) {
#if PY_VERSION_HEX >= 0x030E0000
        // From 3.14 the interpreter also says how many there were when the
        // value is an exact list, tuple or dict and knows its length.
        Py_ssize_t got = 0;
        if (PyDict_CheckExact(value))
            got = PyDict_Size(value);
        else if (PyList_CheckExact(value))
            got = PyList_GET_SIZE(value);
        else if (PyTuple_CheckExact(value))
            got = PyTuple_GET_SIZE(value);
        if (got > 3) {
            PyErr_Format(PyExc_ValueError, "too many values to unpack (expected 3, got %zd)", got);
            return -1;
        }
#endif
        PyErr_SetString(PyExc_ValueError, "too many values to unpack (expected 3)");
        return -1;
    }
    return PyErr_Occurred() ? -1 : 0;
}

Ref call_run_git_command(PyObject* module, PyObject* repo_root, PyObject* args) {
    return call_name(module, Name::run_git_command, repo_root, args);
}

Ref call_git_output(PyObject* module, PyObject* repo_root, PyObject* args) {
    return call_name(module, Name::_git_output, repo_root, args);
}

int git_output_for_parser(PyObject* module, PyObject* repo_root, PyObject* args, GitOutput& out) {
    const ModuleState* st = state_of(module);
    Ref strict = lookup(module, Name::_git_output);
    if (!strict) return -1;
    if (is_original(st, Name::_git_output, strict.get())) {
        Ref lenient = lookup(module, Name::run_git_command);
        if (!lenient) return -1;
        Native timeout =
            is_original(st, Name::run_git_command, lenient.get()) ? default_timeout(lenient.get()) : declined;
        if (timeout && !*timeout) return -1;
        if (timeout) {
            RunResult result = run_command(module, repo_root, args, timeout->get(), &out.bytes);
            if (!result) return -1;
            out.is_bytes = result.captured;
            if (!out.is_bytes) out.text = output_or_error(module, result.triple.get());
            return out.is_bytes || out.text ? 0 : -1;
        }
    }
    out.text = call(strict.get(), repo_root, args);
    return out.text ? 0 : -1;
}

const FunctionDef kDefs[] = {
    {Name::run_git_command, "(repo_root: Path, args: list[str], timeout: int = 30) -> tuple[str, str, int]",
     "Run git with args in repo_root and return (stdout, stderr, returncode).\n\n"
     "args are git's arguments without the leading \"git\", each passed as one\n"
     "argument (no shell). Both streams are decoded as UTF-8 with invalid bytes\n"
     "replaced and line ends normalised to LF; nothing is trimmed. A non-zero\n"
     "exit is logged at debug level and returned as it is. Never raises for a\n"
     "failed, timed-out or missing git: a run longer than timeout seconds is\n"
     "killed and gives (\"\", \"Command timed out\", 1); a git (or, on POSIX, a\n"
     "working directory) that does not exist gives (\"\", \"git not found\", 1);\n"
     "both are logged at warning level. Other failures to start git, and a\n"
     "non-list args, raise the interpreter's own errors.",
     run_git_command},
    {Name::_git_output, "(repo_root: Path, args: list[str]) -> str",
     "Run git through run_git_command (default time-out) and return its stdout.\n\n"
     "Raises GitError when git exits with a non-zero code: the message is git's\n"
     "stripped standard error, or \"git exited with code N\" when that is empty,\n"
     "or the runner's \"Command timed out\" / \"git not found\". The output is not\n"
     "stripped.",
     git_output},
};

const std::span<const FunctionDef> kRunnerFunctions = kDefs;

}  // namespace gu
