// History over time: time specs into local moments, the authors of a
// period, commit counting and the commit at a moment.
#include "git_utils/history.hpp"

#include <string_view>
#include <utility>

#include "core/iso_time.hpp"
#include "git_utils/runner.hpp"
#include "git_utils/state.hpp"

namespace gu {
namespace {

constexpr const char* kGitMomentFormat = "%Y-%m-%d %H:%M:%S";

Ref call_method(PyObject* o, const char* name) { return Ref::steal(PyObject_CallMethod(o, name, nullptr)); }

Ref concat(PyObject* a, PyObject* b) { return Ref::steal(PyUnicode_Concat(a, b)); }

// f"{value}" for the parts of a git argument.
Ref formatted(PyObject* value) { return Ref::steal(PyObject_Format(value, nullptr)); }

Ref git_moment(PyObject* moment) {
    return Ref::steal(PyObject_CallMethod(moment, "strftime", "s", kGitMomentFormat));
}

// ---- time specs ------------------------------------------------------------

// "since must be <forms>; got <repr>", with the forms read from the namespace.
PyObject* refuse(PyObject* module, PyObject* since) {
    Ref forms = lookup(module, Name::TIME_SPEC_FORMS);
    if (!forms) return nullptr;
    Ref shown = Ref::steal(PyObject_Repr(since));
    if (!shown) return nullptr;
    PyErr_Format(PyExc_ValueError, "since must be %S; got %U", forms.get(), shown.get());
    return nullptr;
}

// The guard around the parse: a value error refuses the spec (its message is
// dropped); an overflow becomes "reaches outside the calendar" with the
// overflow as its cause; anything else passes unchanged.
PyObject* guard_failure(PyObject* module, PyObject* since) {
    if (PyErr_ExceptionMatches(PyExc_ValueError)) {
        PyErr_Clear();
        return refuse(module, since);
    }
    if (!PyErr_ExceptionMatches(PyExc_OverflowError)) return nullptr;
    PyObject *type, *value, *traceback;
    PyErr_Fetch(&type, &value, &traceback);
    PyErr_NormalizeException(&type, &value, &traceback);
    Ref overflow_type = Ref::steal(type);
    Ref overflow = Ref::steal(value);
    Ref overflow_tb = Ref::steal(traceback);
    if (overflow_tb) PyException_SetTraceback(overflow.get(), overflow_tb.get());
    Ref shown = Ref::steal(PyObject_Repr(since));
    if (!shown) return nullptr;
    Ref message = Ref::steal(PyUnicode_FromFormat("since %U reaches outside the calendar", shown.get()));
    if (!message) return nullptr;
    Ref error = Ref::steal(PyObject_CallOneArg(PyExc_ValueError, message.get()));
    if (!error) return nullptr;
    PyException_SetContext(error.get(), overflow.newref());
    PyException_SetCause(error.get(), overflow.release());  // `from`: also suppresses the context
    PyErr_SetObject(PyExc_ValueError, error.get());
    return nullptr;
}

// The digits and unit letter of a relative spec, matched natively when the
// spec is ASCII and the pattern is the one bound at load; otherwise the
// pattern found in the namespace decides (its \d takes other scripts' digits).
// Returns 1 with amount/unit set, 0 for no match, -1 on error.
int match_relative(PyObject* module, PyObject* spec, Ref& amount, Ref& unit) {
    Ref pattern = lookup(module, Name::_RELATIVE_SPEC);
    if (!pattern) return -1;
    if (is_original(state_of(module), Name::_RELATIVE_SPEC, pattern.get()) && PyUnicode_Check(spec) &&
        PyUnicode_IS_ASCII(spec)) {
        const std::string_view s(static_cast<const char*>(PyUnicode_DATA(spec)),
                                 static_cast<std::size_t>(PyUnicode_GET_LENGTH(spec)));
        if (s.size() < 2) return 0;
        const char letter = s.back();
        if (letter != 'm' && letter != 'h' && letter != 'd' && letter != 'w') return 0;
        for (std::size_t i = 0; i + 1 < s.size(); ++i)
            if (s[i] < '0' || s[i] > '9') return 0;
        Ref digits = Ref::steal(PyUnicode_Substring(spec, 0, static_cast<Py_ssize_t>(s.size() - 1)));
        if (!digits) return -1;
        amount = Ref::steal(PyLong_FromUnicodeObject(digits.get(), 10));
        unit = Ref::steal(PyUnicode_FromStringAndSize(&letter, 1));
        return amount && unit ? 1 : -1;
    }
    Ref match = Ref::steal(PyObject_CallMethod(pattern.get(), "fullmatch", "O", spec));
    if (!match) return -1;
    if (match.get() == Py_None) return 0;
    Ref digits = Ref::steal(PyObject_CallMethod(match.get(), "group", "i", 1));
    unit = Ref::steal(PyObject_CallMethod(match.get(), "group", "i", 2));
    if (!digits || !unit) return -1;
    amount = Ref::steal(PyNumber_Long(digits.get()));
    return amount ? 1 : -1;
}

// now - timedelta(**{_SPEC_UNITS[unit]: amount}), or null.
Ref relative_moment(PyObject* module, PyObject* amount, PyObject* unit) {
    Ref units = lookup(module, Name::_SPEC_UNITS);
    Ref datetime = lookup(module, Name::datetime);
    Ref timedelta = lookup(module, Name::timedelta);
    if (!units || !datetime || !timedelta) return Ref();
    Ref unit_name = Ref::steal(PyObject_GetItem(units.get(), unit));
    if (!unit_name) return Ref();
    Ref kwargs = Ref::steal(PyDict_New());
    if (!kwargs || PyDict_SetItem(kwargs.get(), unit_name.get(), amount) < 0) return Ref();
    Ref empty = Ref::steal(PyTuple_New(0));
    if (!empty) return Ref();
    Ref span = Ref::steal(PyObject_Call(timedelta.get(), empty.get(), kwargs.get()));
    if (!span) return Ref();
    Ref now = call_method(datetime.get(), "now");
    if (!now) return Ref();
    return Ref::steal(PyNumber_Subtract(now.get(), span.get()));
}

// The moment an ISO spec names, as 3.10's datetime.fromisoformat reads it,
// made with the namespace's datetime; one with an offset is converted to
// local time and loses its zone.
Ref iso_moment(PyObject* module, PyObject* spec) {
    Ref bytes = Ref::steal(PyUnicode_AsEncodedString(spec, "utf-8", "surrogatepass"));
    if (!bytes) return Ref();
    core::IsoMoment m;
    const std::string_view text(PyBytes_AS_STRING(bytes.get()), static_cast<std::size_t>(PyBytes_GET_SIZE(bytes.get())));
    if (core::parse_iso_datetime(text, m) != core::IsoError::none) {
        PyErr_SetString(PyExc_ValueError, "Invalid isoformat string");
        return Ref();
    }
    Ref datetime = lookup(module, Name::datetime);
    if (!datetime) return Ref();
    Ref moment = Ref::steal(PyObject_CallFunction(datetime.get(), "iiiiiii", m.year, m.month, m.day, m.hour, m.minute,
                                                  m.second, m.microsecond));
    if (!moment || !m.has_offset) return moment;
    Ref timedelta = lookup(module, Name::timedelta);
    Ref datetime_module = Ref::steal(PyImport_ImportModule("datetime"));
    if (!timedelta || !datetime_module) return Ref();
    Ref timezone = Ref::steal(PyObject_GetAttrString(datetime_module.get(), "timezone"));
    const int sign = m.offset_sign;
    Ref offset = Ref::steal(PyObject_CallFunction(timedelta.get(), "iiiiii", 0, sign * (m.offset_hours * 3600 + m.offset_minutes * 60 + m.offset_seconds),
                                                  sign * m.offset_microseconds, 0, 0, 0));
    if (!timezone || !offset) return Ref();
    Ref zone = Ref::steal(PyObject_CallOneArg(timezone.get(), offset.get()));
    if (!zone) return Ref();
    Ref kwargs = Ref::steal(Py_BuildValue("{s:O}", "tzinfo", zone.get()));
    Ref empty = Ref::steal(PyTuple_New(0));
    if (!kwargs || !empty) return Ref();
    Ref replace = Ref::steal(PyObject_GetAttrString(moment.get(), "replace"));
    if (!replace) return Ref();
    Ref aware = Ref::steal(PyObject_Call(replace.get(), empty.get(), kwargs.get()));
    if (!aware) return Ref();
    Ref local = call_method(aware.get(), "astimezone");
    if (!local) return Ref();
    Ref none_kwargs = Ref::steal(Py_BuildValue("{s:O}", "tzinfo", Py_None));
    Ref local_replace = Ref::steal(PyObject_GetAttrString(local.get(), "replace"));
    if (!none_kwargs || !local_replace) return Ref();
    return Ref::steal(PyObject_Call(local_replace.get(), empty.get(), none_kwargs.get()));
}

PyObject* parse_time_spec(PyObject* module, PyObject* const* a) {
    PyObject* since = a[0];
    Ref spec = call_method(since, "strip");
    if (!spec) return nullptr;
    Ref amount, unit;
    const int relative = match_relative(module, spec.get(), amount, unit);
    if (relative < 0) return guard_failure(module, since);
    if (relative > 0) {
        Ref zero = Ref::steal(PyLong_FromLong(0));
        if (!zero) return nullptr;
        const int positive = PyObject_RichCompareBool(amount.get(), zero.get(), Py_GT);
        if (positive < 0) return nullptr;
        if (!positive) return refuse(module, since);
        Ref moment = relative_moment(module, amount.get(), unit.get());
        return moment ? moment.release() : guard_failure(module, since);
    }
    const Py_ssize_t length = PyObject_Length(spec.get());
    if (length < 0) return nullptr;
    if (length == 0) return refuse(module, since);
    Ref moment = iso_moment(module, spec.get());
    return moment ? moment.release() : guard_failure(module, since);
}

// ---- author statistics -----------------------------------------------------

Ref text(const char* s) { return Ref::steal(PyUnicode_FromString(s)); }

// One "count<TAB>name <email>" line into its entry; null with no error for a
// line to skip.
Ref author_entry(PyObject* raw_line, bool& failed) {
    failed = true;
    Ref line = call_method(raw_line, "strip");
    if (!line) return Ref();
    const Py_ssize_t length = PyUnicode_GET_LENGTH(line.get());
    const Py_ssize_t tab = PyUnicode_FindChar(line.get(), '\t', 0, length, 1);
    if (tab == -2) return Ref();
    failed = false;
    if (tab < 0) return Ref();
    failed = true;
    Ref count_text = Ref::steal(PyUnicode_Substring(line.get(), 0, tab));
    Ref rest = Ref::steal(PyUnicode_Substring(line.get(), tab + 1, length));
    if (!count_text || !rest) return Ref();
    Ref stripped_count = call_method(count_text.get(), "strip");
    if (!stripped_count) return Ref();
    Ref count = Ref::steal(PyLong_FromUnicodeObject(stripped_count.get(), 10));
    if (!count) return Ref();
    const Py_ssize_t rest_length = PyUnicode_GET_LENGTH(rest.get());
    const Py_ssize_t lt = PyUnicode_FindChar(rest.get(), '<', 0, rest_length, 1);
    const Py_ssize_t gt = PyUnicode_FindChar(rest.get(), '>', 0, rest_length, 1);
    Ref name, email;
    if (lt >= 0 && gt >= 0) {
        Ref before = Ref::steal(PyUnicode_Substring(rest.get(), 0, lt));
        if (!before) return Ref();
        name = call_method(before.get(), "strip");
        Py_ssize_t end = rest_length;
        for (Py_ssize_t i = lt + 1; i < rest_length; ++i) {
            const Py_UCS4 c = PyUnicode_READ_CHAR(rest.get(), i);
            if (c == '<' || c == '>') {
                end = i;
                break;
            }
        }
        email = Ref::steal(PyUnicode_Substring(rest.get(), lt + 1, end));
    } else {
        name = Ref::borrow(rest.get());
        email = text("");
    }
    if (!name || !email) return Ref();
    Ref entry = Ref::steal(PyDict_New());
    if (!entry || PyDict_SetItemString(entry.get(), "name", name.get()) < 0 ||
        PyDict_SetItemString(entry.get(), "email", email.get()) < 0 ||
        PyDict_SetItemString(entry.get(), "commits", count.get()) < 0)
        return Ref();
    failed = false;
    return entry;
}

PyObject* get_authors_for_period(PyObject* module, PyObject* const* a) {
    PyObject* repo_root = a[0];
    Ref parse = lookup(module, Name::parse_time_spec);
    if (!parse) return nullptr;
    Ref start = Ref::steal(PyObject_CallOneArg(parse.get(), a[1]));
    if (!start) return nullptr;
    Ref when = git_moment(start.get());
    Ref prefix = text("--since=");
    if (!when || !prefix) return nullptr;
    Ref since_arg = concat(prefix.get(), when.get());
    if (!since_arg) return nullptr;
    Ref args = Ref::steal(Py_BuildValue("[sOs]", "shortlog", since_arg.get(), "-sne"));
    if (!args) return nullptr;
    Ref result = call_run_git_command(module, repo_root, args.get());
    if (!result) return nullptr;
    Ref parts[3];
    if (!unpack_git_result(result.get(), parts)) return nullptr;
    PyObject* out = parts[0].get();
    PyObject* err = parts[1].get();
    PyObject* code = parts[2].get();
    Ref zero = Ref::steal(PyLong_FromLong(0));
    if (!zero) return nullptr;
    const int failed = PyObject_RichCompareBool(code, zero.get(), Py_NE);
    if (failed < 0) return nullptr;
    if (failed) {
        Ref logger = lookup(module, Name::logger);
        Ref stripped = call_method(err, "strip");
        if (!logger || !stripped) return nullptr;
        Ref r = Ref::steal(PyObject_CallMethod(logger.get(), "debug", "sOO",
                                               "get_authors_for_period: git shortlog failed rc=%s stderr=%s", code,
                                               stripped.get()));
        if (!r) return nullptr;
        return PyList_New(0);
    }
    Ref body = call_method(out, "strip");
    Ref newline = text("\n");
    if (!body || !newline) return nullptr;
    Ref lines = Ref::steal(PyUnicode_Split(body.get(), newline.get(), -1));
    Ref authors = Ref::steal(PyList_New(0));
    if (!lines || !authors) return nullptr;
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(lines.get()); ++i) {
        PyObject* line = PyList_GET_ITEM(lines.get(), i);
        if (PyUnicode_GET_LENGTH(line) == 0) continue;
        bool entry_failed = false;
        Ref entry = author_entry(line, entry_failed);
        if (entry_failed) return nullptr;
        if (entry && PyList_Append(authors.get(), entry.get()) < 0) return nullptr;
    }
    return authors.release();
}

// ---- counting and lookup ---------------------------------------------------

// _git_output(...).strip(), and whether anything is left of it.
Ref stripped_output(PyObject* module, PyObject* repo_root, PyObject* args, int& has_text) {
    Ref out = call_git_output(module, repo_root, args);
    if (!out) return Ref();
    Ref stripped = call_method(out.get(), "strip");
    if (!stripped) return Ref();
    has_text = PyObject_IsTrue(stripped.get());
    return has_text < 0 ? Ref() : std::move(stripped);
}

PyObject* count_commits(PyObject* module, PyObject* const* a) {
    Ref base = formatted(a[1]);
    Ref head = formatted(a[2]);
    Ref dots = text("..");
    if (!base || !head || !dots) return nullptr;
    Ref left = concat(base.get(), dots.get());
    if (!left) return nullptr;
    Ref range = concat(left.get(), head.get());
    if (!range) return nullptr;
    Ref args = Ref::steal(Py_BuildValue("[ssO]", "rev-list", "--count", range.get()));
    if (!args) return nullptr;
    int has_text = 0;
    Ref stripped = stripped_output(module, a[0], args.get(), has_text);
    if (!stripped) return nullptr;
    if (!has_text) return PyLong_FromLong(0);
    return PyLong_FromUnicodeObject(stripped.get(), 10);
}

PyObject* commit_before(PyObject* module, PyObject* const* a) {
    Ref when = git_moment(a[2]);
    Ref prefix = text("--before=");
    if (!when || !prefix) return nullptr;
    Ref before = concat(prefix.get(), when.get());
    if (!before) return nullptr;
    Ref args = Ref::steal(Py_BuildValue("[ssOO]", "rev-list", "-1", before.get(), a[1]));
    if (!args) return nullptr;
    int has_text = 0;
    Ref stripped = stripped_output(module, a[0], args.get(), has_text);
    if (!stripped) return nullptr;
    if (!has_text) Py_RETURN_NONE;
    return stripped.release();
}

}  // namespace

const FunctionDef kParseTimeSpec = {
    Name::parse_time_spec,
    "(since: str) -> datetime",
    "Turn a time spec into the local moment at which the period starts.\n\n"
    "A relative spec, a positive whole number followed by m, h, d or w (30m,\n"
    "24h, 7d, 2w), means that long before now, on the local wall clock. An ISO\n"
    "date or date-time (as Python 3.10's datetime.fromisoformat reads it, on\n"
    "every version) means that moment; one with an offset is converted to local\n"
    "time. The result never carries a zone. Blanks around the spec are ignored.\n"
    "Raises ValueError naming the accepted forms for any other spec, and\n"
    "ValueError \"since ... reaches outside the calendar\" for a moment beyond\n"
    "the calendar.",
    parse_time_spec,
};

const FunctionDef kGetAuthorsForPeriod = {
    Name::get_authors_for_period,
    "(repo_root: Path, since: str = \"30d\") -> list[dict[str, Any]]",
    "List the authors of the period since `since` (a time spec), most commits\n"
    "first, as git's shortlog counts them: dicts with \"name\", \"email\" and\n"
    "\"commits\". A refused spec raises ValueError before git runs; a failed,\n"
    "timed-out or missing git gives an empty list (logged at debug level).\n"
    "git reads the log from standard input when that is not a terminal.",
    get_authors_for_period,
};

const FunctionDef kCountCommits = {
    Name::count_commits,
    "(repo_root: Path, base: str, head: str) -> int",
    "Count the commits reachable from head and not from base (git rev-list\n"
    "--count base..head). Raises GitError when git fails.",
    count_commits,
};

const FunctionDef kCommitBefore = {
    Name::commit_before,
    "(repo_root: Path, ref: str, moment: datetime) -> str | None",
    "Return the full id of the newest commit of ref's history committed at or\n"
    "before moment (written to git as local time, to the second), or None when\n"
    "there is none. Raises GitError when git fails.",
    commit_before,
};

}  // namespace gu
