// The raw and numstat parsers: git's `--raw --numstat -z` output of a diff
// into FileChange records, and of a log into CommitChanges records.
//
// When every collaborator is what loading bound, the byte-level scanner of
// the core reads the output and the records are filled natively. Otherwise
// the same algorithm runs over Python objects and calls what the namespace
// holds where the algorithm uses it.
#include <cstdint>
#include <iterator>
#include <optional>
#include <type_traits>
#include <vector>

#include "core/raw_numstat.hpp"
#include "git_utils/binding/collaborators.hpp"
#include "git_utils/binding/gc_pause.hpp"
#include "git_utils/binding/helpers.hpp"
#include "git_utils/changes/file_changes.hpp"
#include "git_utils/changes/records.hpp"
#include "git_utils/changes/scan_text.hpp"

namespace gu {
namespace {

// ---- line counts -----------------------------------------------------------

template <class Unit>
bool all_ascii_digits(core::Piece<Unit> s) {
    for (const Unit c : s)
        if (c < Unit('0') || c > Unit('9')) return false;
    return !s.empty();
}

// int(field) when the str `field` is all decimal digits, else 0.
Ref line_count_of_str(PyObject* field) {
    const int yes = truth(call_method(field, "isdecimal"));
    if (yes < 0) return Ref();
    return Ref::steal(yes ? PyLong_FromUnicodeObject(field, 10) : PyLong_FromLong(0));
}

// _line_count of a field, a piece of `text`.
template <class Unit>
Ref line_count_of(core::Piece<Unit> field, const Text<Unit>& text) {
    std::uint64_t value = 0;
    if (core::ascii_count(field, value)) return Ref::steal(PyLong_FromUnsignedLongLong(value));
    if (core::is_ascii(field)) {
        if (!all_ascii_digits(field)) return Ref::steal(PyLong_FromLong(0));
        Ref s = text.str(field);  // more digits than 64 bits hold
        return s ? Ref::steal(PyLong_FromUnicodeObject(s.get(), 10)) : Ref();
    }
    Ref s = text.str(field);  // other scripts' digits count too
    return s ? line_count_of_str(s.get()) : Ref();
}

// ---- the native path -------------------------------------------------------

// The status word of each core status, read from _STATUS_BY_LETTER while it
// is still the mapping loading made, holding what the core's letter table
// says. Returns false (no exception) when the mapping was replaced or changed.
struct StatusWords {
    Ref word[5];  // by core::Status

    bool read(const Collaborator& status_by_letter) {
        return status_by_letter.holds_table(core::status_letters, [this](const core::StatusLetter& s, Ref w) {
            if (!PyUnicode_CheckExact(w.get()) || PyUnicode_CompareWithASCIIString(w.get(), s.word) != 0) return false;
            Ref& slot = word[static_cast<int>(s.status)];
            if (!slot) slot = std::move(w);
            return true;
        });
    }
};

// Which function a parse serves: _file_changes (tokens), parse_file_changes
// (a diff) or parse_commit_changes (a log).
enum class Parse { tokens, diff, log };

// How one call of the raw and numstat parsers runs, decided at its start:
// the collaborators it uses, whether the core's scanner reads the output
// (every helper and constant the scan stands in for is what loading bound),
// and how its records are made.
struct FileChangesPlan {
    Collaborator two_path_letters, status_by_letter, line_count, file_changes, commit_start;
    RecordMaker files, commits;
    StatusWords words;
    PyObject* module;
    Parse parse;
    bool scan = false;

    FileChangesPlan(PyObject* module_of, Parse parse_of)
        : two_path_letters(module_of, Name::_TWO_PATH_LETTERS),
          status_by_letter(module_of, Name::_STATUS_BY_LETTER),
          line_count(module_of, Name::_line_count),
          file_changes(module_of, Name::_file_changes),
          commit_start(module_of, Name::_COMMIT_START),
          files(module_of, Record::file_change),
          commits(module_of, Record::commit_changes),
          module(module_of),
          parse(parse_of) {
        scan = two_path_letters.as_loaded() && line_count.as_loaded() && words.read(status_by_letter) &&
               (parse == Parse::tokens || file_changes.as_loaded()) &&
               (parse != Parse::log || commit_start.as_loaded());
    }

    // Whether the scan runs and fills every record natively, so that no
    // Python code runs in the call from here on; then the records' decision
    // is settled for the whole call.
    bool all_native() {
        const bool with_commits = parse == Parse::log;
        if (!scan || !files.fills() || (with_commits && !commits.fills())) return false;
        files.settle();
        if (with_commits) commits.settle();
        return true;
    }
};

// Whether the core can hold offsets into a text of `size` units; a longer
// one is parsed over Python objects.
bool fits_records(std::size_t size) { return size <= core::max_record_text; }

// The count a core record holds, as an int.
template <class Unit>
Ref count_of(const core::FileRecord& r, std::uint32_t exact, bool first, const Text<Unit>& text) {
    switch (r.counts) {
        case core::Counts::none: return Ref::steal(PyLong_FromLong(0));
        case core::Counts::exact: return Ref::steal(PyLong_FromUnsignedLong(exact));
        case core::Counts::fields: break;
    }
    const auto fields = core::count_fields(r, text.base());
    return line_count_of(first ? fields.first : fields.second, text);
}

// FileChange records of the core's records, in order, into `out` (a list
// or, for a commit, a tuple, of the records' size). `paths_checked`: the
// collector found every path well-formed UTF-8.
template <class Unit>
int fill_file_changes(FileChangesPlan& plan, const std::vector<core::FileRecord>& records, const Text<Unit>& text,
                      PyObject* out, bool paths_checked) {
    const bool is_tuple = PyTuple_Check(out);
    const Unit* base = text.base();
    for (std::size_t i = 0; i < records.size(); ++i) {
        const core::FileRecord& r = records[i];
        Ref path = text.str(core::path_of(r, base), paths_checked);
        const std::optional<core::Piece<Unit>> old = core::old_path_of(r, base);
        Ref old_path = old ? text.str(*old) : Ref::borrow(Py_None);
        if (!path || !old_path) return -1;
        Ref added = count_of(r, r.added, true, text);
        Ref deleted = count_of(r, r.deleted, false, text);
        if (!added || !deleted) return -1;
        PyObject* values[] = {path.get(), plan.words.word[static_cast<int>(r.status)].get(), added.get(), deleted.get(),
                              old_path.get()};
        Ref record = plan.files.make(values);
        if (!record) return -1;
        if (is_tuple)
            PyTuple_SET_ITEM(out, static_cast<Py_ssize_t>(i), record.release());
        else
            PyList_SET_ITEM(out, static_cast<Py_ssize_t>(i), record.release());
    }
    return 0;
}

// The records the scanner collects from `stream`. For git's bytes, given
// `utf8_paths`: whether every path in them is well-formed UTF-8. Paths that
// don't decode alike may differ as bytes, so the caller then parses the
// decoded text instead.
template <class Unit>
std::vector<core::FileRecord> collect_files(const Text<Unit>& text, core::BasicTokenStream<Unit>& stream,
                                            bool* utf8_paths = nullptr) {
    std::vector<core::FileRecord> records;
    core::FileCollector<Unit> collector;  // its table is gone before the records are made
    if (utf8_paths != nullptr) collector.check_utf8();
    collector.collect(stream, text.base(), records);
    if (utf8_paths != nullptr) *utf8_paths = collector.paths_valid();
    return records;
}

// The list of FileChange records of what the scanner collected.
template <class Unit>
Ref file_changes_natively(FileChangesPlan& plan, const std::vector<core::FileRecord>& records, const Text<Unit>& text,
                          bool paths_checked = false) {
    Ref list = Ref::steal(PyList_New(static_cast<Py_ssize_t>(records.size())));
    if (!list) return Ref();
    GcPause pause(plan.all_native());
    if (fill_file_changes(plan, records, text, list.get(), paths_checked) < 0) return Ref();
    return list;
}

// ---- the same algorithm over Python objects --------------------------------

// next(iterator, ""): a new reference, or null with an exception set.
Ref next_or_empty(PyObject* iterator) {
    Ref item = Ref::steal(PyIter_Next(iterator));
    if (item || PyErr_Occurred()) return item;
    return Ref::steal(PyUnicode_FromStringAndSize("", 0));
}

Ref pair(PyObject* a, PyObject* b) { return Ref::steal(PyTuple_Pack(2, a, b)); }

// A raw record head: the status of the path tokens that follow it.
int read_raw_record(PyObject* token, PyObject* iterator, Collaborator& two_path_letters, Collaborator& status_by_letter,
                    PyObject* statuses) {
    Ref parts = call_method(token, "rsplit", "si", " ", 1);
    if (!parts) return -1;
    Ref last = Ref::steal(PySequence_GetItem(parts.get(), -1));
    if (!last) return -1;
    Ref letter = Ref::steal(PySequence_GetSlice(last.get(), 0, 1));
    if (!letter || two_path_letters.get() == nullptr) return -1;
    const int two_paths = PySequence_Contains(two_path_letters.get(), letter.get());
    if (two_paths < 0) return -1;
    Ref old_path = two_paths ? next_or_empty(iterator) : Ref::borrow(Py_None);
    if (!old_path) return -1;
    Ref path = next_or_empty(iterator);
    const int named = truth(path);
    if (named <= 0) return named;
    if (status_by_letter.get() == nullptr) return -1;
    Ref status = call_method(status_by_letter.get(), "get", "Os", letter.get(), "modified");
    if (!status) return -1;
    Ref value = pair(status.get(), old_path.get());
    return value ? PyObject_SetItem(statuses, path.get(), value.get()) : -1;
}

// A numstat record, or any other token (skipped).
int read_numstat_record(PyObject* token, PyObject* iterator, Collaborator& line_count, PyObject* counts) {
    Ref parts = call_method(token, "split", "si", "\t", 2);
    if (!parts) return -1;
    const Py_ssize_t n = PyObject_Length(parts.get());
    if (n < 0) return -1;
    if (n != 3) return 0;
    Ref added = Ref::steal(PySequence_GetItem(parts.get(), 0));
    Ref deleted = Ref::steal(PySequence_GetItem(parts.get(), 1));
    Ref path = Ref::steal(PySequence_GetItem(parts.get(), 2));
    const int named = truth(path);
    if (!added || !deleted || named < 0) return -1;
    if (!named) {
        if (!next_or_empty(iterator)) return -1;  // the older path of a rename or copy
        path = next_or_empty(iterator);
        if (!path) return -1;
    }
    if (line_count.get() == nullptr) return -1;
    Ref a = call(line_count.get(), added.get());
    if (!a) return -1;
    Ref d = call(line_count.get(), deleted.get());
    if (!d) return -1;
    Ref value = pair(a.get(), d.get());
    return value ? PyObject_SetItem(counts, path.get(), value.get()) : -1;
}

Ref file_changes_through_objects(FileChangesPlan& plan, PyObject* tokens) {
    Ref statuses = Ref::steal(PyDict_New());
    Ref counts = Ref::steal(PyDict_New());
    Ref iterator = Ref::steal(PyObject_GetIter(tokens));
    if (!statuses || !counts || !iterator) return Ref();
    while (Ref raw = Ref::steal(PyIter_Next(iterator.get()))) {
        Ref token = call_method(raw.get(), "lstrip", "s", "\n");
        const int head = truth(token ? call_method(token.get(), "startswith", "s", ":") : Ref());
        if (head < 0) return Ref();
        const int done = head ? read_raw_record(token.get(), iterator.get(), plan.two_path_letters,
                                                plan.status_by_letter, statuses.get())
                              : read_numstat_record(token.get(), iterator.get(), plan.line_count, counts.get());
        if (done < 0) return Ref();
    }
    if (PyErr_Occurred()) return Ref();

    Ref result = Ref::steal(PyList_New(0));
    Ref zero = Ref::steal(PyLong_FromLong(0));
    if (!result || !zero) return Ref();
    Ref no_counts = pair(zero.get(), zero.get());
    if (!no_counts) return Ref();
    // The class may be Python code: each entry is held strongly while it is called.
    Py_ssize_t pos = 0;
    PyObject *path_found, *status_found;
    while (PyDict_Next(statuses.get(), &pos, &path_found, &status_found)) {
        Ref path = Ref::borrow(path_found);
        Ref status_pair = Ref::borrow(status_found);
        Ref counted;
        const int present = dict_get(counts.get(), path.get(), counted);
        if (present < 0) return Ref();
        if (!present) counted = Ref::borrow(no_counts.get());
        PyObject* values[] = {path.get(), PyTuple_GET_ITEM(status_pair.get(), 0), PyTuple_GET_ITEM(counted.get(), 0),
                              PyTuple_GET_ITEM(counted.get(), 1), PyTuple_GET_ITEM(status_pair.get(), 1)};
        Ref record = plan.files.make(values);
        if (!record || PyList_Append(result.get(), record.get()) < 0) return Ref();
    }
    return result;
}

// ---- the functions ---------------------------------------------------------

// A list or tuple of exact strs, none holding a NUL: the tokens read back
// unchanged from their NUL-joined text.
bool joinable(PyObject* tokens) {
    if (!PyList_CheckExact(tokens) && !PyTuple_CheckExact(tokens)) return false;
    const Py_ssize_t n = PySequence_Fast_GET_SIZE(tokens);
    PyObject** items = PySequence_Fast_ITEMS(tokens);
    for (Py_ssize_t i = 0; i < n; ++i) {
        if (!PyUnicode_CheckExact(items[i])) return false;
        if (PyUnicode_FindChar(items[i], 0, 0, PyUnicode_GET_LENGTH(items[i]), 1) != -1) return false;
    }
    return true;
}

PyObject* file_changes(PyObject* module, PyObject* const* a) {
    PyObject* tokens = a[0];
    FileChangesPlan plan(module, Parse::tokens);
    if (!plan.scan || !joinable(tokens)) return file_changes_through_objects(plan, tokens).release();
    const auto count = static_cast<std::size_t>(PySequence_Fast_GET_SIZE(tokens));
    Ref nul = Ref::steal(PyUnicode_FromStringAndSize("\0", 1));
    if (!nul) return nullptr;
    Ref joined = Ref::steal(PyUnicode_Join(nul.get(), tokens));
    if (!joined) return nullptr;
    return with_text(joined.get(),
                     [&](const auto& text) {
                         if (!fits_records(text.view().size())) return file_changes_through_objects(plan, tokens);
                         core::BasicTokenStream stream(core::BasicTokenRun{text.view(), count});
                         return file_changes_natively(plan, collect_files(text, stream), text);
                     })
        .release();
}

// output.split("\x00"), with the errors of that call for a non-str.
Ref nul_tokens(PyObject* output) {
    Ref nul = Ref::steal(PyUnicode_FromStringAndSize("\0", 1));
    return nul ? call_method(output, "split", nul.get()) : Ref();
}

Ref file_changes_of_tokens(FileChangesPlan& plan, PyObject* output) {
    Ref tokens = nul_tokens(output);
    PyObject* helper = tokens ? plan.file_changes.get() : nullptr;
    return helper ? call(helper, tokens.get()) : Ref();
}

// parse_file_changes of a str, by the plan.
Ref file_changes_of_str(FileChangesPlan& plan, PyObject* output) {
    if (!PyUnicode_Check(output) || !plan.scan) return file_changes_of_tokens(plan, output);
    return with_text(output, [&](const auto& text) {
        if (!fits_records(text.view().size())) return file_changes_of_tokens(plan, output);
        core::BasicTokenStream stream(text.view());
        return file_changes_natively(plan, collect_files(text, stream), text);
    });
}

PyObject* parse_file_changes(PyObject* module, PyObject* const* a) {
    FileChangesPlan plan(module, Parse::diff);
    return file_changes_of_str(plan, a[0]).release();
}

// `int(field) if field and field.isdigit() else 0` for a field that is no
// str, through its own methods: None, 0 or [] count 0, b"12" counts 12.
Ref line_count_of_object(PyObject* field) {
    const int nonempty = PyObject_IsTrue(field);
    if (nonempty <= 0) return nonempty < 0 ? Ref() : Ref::steal(PyLong_FromLong(0));
    const int digits = truth(call_method(field, "isdigit"));
    if (digits < 0) return Ref();
    return Ref::steal(digits ? PyNumber_Long(field) : PyLong_FromLong(0));
}

PyObject* line_count(PyObject*, PyObject* const* a) {
    PyObject* field = a[0];
    if (!PyUnicode_Check(field)) return line_count_of_object(field).release();
    return with_text(field, [](const auto& text) { return line_count_of(text.view(), text).release(); });
}

// ---- commits ---------------------------------------------------------------

// int(time.strip()) for the time of a commit header, a piece of `text`.
template <class Unit>
Ref commit_time(PyObject* module, core::Piece<Unit> time_text, const Text<Unit>& text) {
    std::size_t begin = 0, end = time_text.size();
    const auto blank = [](Unit c) {
        return c == Unit(' ') || (c >= Unit('\t') && c <= Unit('\r')) || (c >= Unit('\x1c') && c <= Unit('\x1f'));
    };
    while (begin < end && blank(time_text[begin])) ++begin;
    while (end > begin && blank(time_text[end - 1])) --end;
    std::uint64_t value = 0;
    if (core::ascii_count(time_text.substr(begin, end - begin), value))
        return Ref::steal(PyLong_FromUnsignedLongLong(value));
    Ref s = text.str(time_text);  // signs, underscores, other scripts' blanks and digits, or no number
    if (!s) return Ref();
    Ref stripped = strip(module, s.get());
    return stripped ? Ref::steal(PyLong_FromUnicodeObject(stripped.get(), 10)) : Ref();
}

// One pass over the log: each commit's body is read straight off it, by
// one collector into one buffer of core records that serve every commit.
// Declined for git's bytes (`git_bytes`) when a path is not well-formed
// UTF-8 (see collect_files); a str is never declined.
template <class Unit>
Native commits_natively(FileChangesPlan& plan, const Text<Unit>& text, bool git_bytes) {
    Ref commits = Ref::steal(PyList_New(0));
    if (!commits) return Ref();
    GcPause pause(plan.all_native());
    core::FileCollector<Unit> collector;
    if (git_bytes) collector.check_utf8();
    std::vector<core::FileRecord> records;
    core::BasicLogStream<Unit> log(text.view());
    core::Piece<Unit> time_text;
    while (log.next_commit(time_text)) {
        Ref time = commit_time(plan.module, time_text, text);
        if (!time) return Ref();
        collector.collect(log, text.base(), records, false);
        if (!collector.paths_valid()) return declined;  // the commits so far are dropped, unseen
        Ref files = Ref::steal(PyTuple_New(static_cast<Py_ssize_t>(records.size())));
        if (!files || fill_file_changes(plan, records, text, files.get(), git_bytes) < 0) return Ref();
        PyObject* values[] = {time.get(), files.get()};
        Ref commit = plan.commits.make(values);
        if (!commit || PyList_Append(commits.get(), commit.get()) < 0) return Ref();
    }
    return commits;
}

// The commit that `time` heads, with the files of its body.
int close_commit(FileChangesPlan& plan, PyObject* time_text, PyObject* body, PyObject* commits) {
    Ref time = Ref::steal(PyNumber_Long(time_text));
    if (!time || plan.file_changes.get() == nullptr) return -1;
    Ref listed = call(plan.file_changes.get(), body);
    if (!listed) return -1;
    Ref files = Ref::steal(PySequence_Tuple(listed.get()));
    if (!files) return -1;
    PyObject* values[] = {time.get(), files.get()};
    Ref commit = plan.commits.make(values);
    return commit ? PyList_Append(commits, commit.get()) : -1;
}

Ref commits_through_objects(FileChangesPlan& plan, PyObject* output) {
    Ref tokens = nul_tokens(output);
    if (!tokens) return Ref();
    Collaborator& commit_start = plan.commit_start;
    Ref commits = Ref::steal(PyList_New(0));
    Ref iterator = Ref::steal(PyObject_GetIter(tokens.get()));
    if (!commits || !iterator) return Ref();
    Ref time, body;  // no current commit while time is null
    while (Ref token = Ref::steal(PyIter_Next(iterator.get()))) {
        Ref stripped = call_method(token.get(), "lstrip", "s", "\n");
        if (!stripped || commit_start.get() == nullptr) return Ref();
        const int header = truth(call_method(stripped.get(), "startswith", commit_start.get()));
        if (header < 0) return Ref();
        if (header) {
            if (time && close_commit(plan, time.get(), body.get(), commits.get()) < 0) return Ref();
            Ref rest = Ref::steal(PySequence_GetSlice(stripped.get(), 1, PY_SSIZE_T_MAX));
            if (!rest) return Ref();
            time = strip(plan.module, rest.get());
            body = Ref::steal(PyList_New(0));
            if (!time || !body) return Ref();
        } else if (time && PyList_Append(body.get(), token.get()) < 0) {
            return Ref();
        }
    }
    if (PyErr_Occurred()) return Ref();
    if (time && close_commit(plan, time.get(), body.get(), commits.get()) < 0) return Ref();
    return commits;
}

// parse_commit_changes of a str, by the plan.
Ref commits_of_str(FileChangesPlan& plan, PyObject* output) {
    if (!PyUnicode_Check(output) || !plan.scan) return commits_through_objects(plan, output);
    return with_text(output, [&](const auto& text) {
        if (!fits_records(text.view().size())) return commits_through_objects(plan, output);
        Native parsed = commits_natively(plan, text, false);
        return parsed ? std::move(*parsed) : Ref();  // a str is never declined
    });
}

PyObject* parse_commit_changes(PyObject* module, PyObject* const* a) {
    FileChangesPlan plan(module, Parse::log);
    return commits_of_str(plan, a[0]).release();
}

// What git printed, decoded as the runner decodes it (its line ends are
// normalised already).
Ref runner_text(std::string_view output) {
    return Ref::steal(PyUnicode_DecodeUTF8(output.data(), static_cast<Py_ssize_t>(output.size()), "replace"));
}

}  // namespace

Ref make_status_by_letter(PyObject*, Name) {
    Ref mapping = Ref::steal(PyDict_New());
    if (!mapping) return Ref();
    for (const core::StatusLetter& s : core::status_letters) {
        const char letter[] = {s.letter, '\0'};
        Ref key = Ref::steal(PyUnicode_InternFromString(letter));
        Ref word = Ref::steal(PyUnicode_InternFromString(s.word));
        if (!key || !word || PyDict_SetItem(mapping.get(), key.get(), word.get()) < 0) return Ref();
    }
    return mapping;
}

Ref make_two_path_letters(PyObject*, Name) {
    Ref letters = Ref::steal(PyUnicode_FromStringAndSize(core::two_path_letters.data(),
                                                         static_cast<Py_ssize_t>(core::two_path_letters.size())));
    return letters ? Ref::steal(PyFrozenSet_New(letters.get())) : Ref();
}

// Git's bytes are parsed in place while every path in them is well-formed
// UTF-8. Otherwise different bytes may decode alike (each invalid sequence
// to U+FFFD), and paths must be told apart as their decoded text is, so the
// output is decoded first, as the runner would, and parsed as that str.

Ref parse_file_changes_from_git(PyObject* module, std::string_view output) {
    FileChangesPlan plan(module, Parse::diff);
    if (plan.scan && fits_records(output.size())) {
        const GitText text(output);
        core::TokenStream stream(output);
        bool utf8_paths = false;
        const std::vector<core::FileRecord> records = collect_files<char>(text, stream, &utf8_paths);
        if (utf8_paths) return file_changes_natively<char>(plan, records, text, true);
    }
    Ref text = runner_text(output);
    return text ? file_changes_of_str(plan, text.get()) : Ref();
}

Ref parse_commit_changes_from_git(PyObject* module, std::string_view output) {
    FileChangesPlan plan(module, Parse::log);
    if (plan.scan && fits_records(output.size()))
        if (Native parsed = commits_natively<char>(plan, GitText(output), true)) return std::move(*parsed);
    Ref text = runner_text(output);
    return text ? commits_of_str(plan, text.get()) : Ref();
}

const FunctionDef kDefs[] = {
    {Name::parse_file_changes, "(output: str) -> list[FileChange]",
     "Parse what git diff --raw --numstat -z printed into FileChange records.\n\n"
     "One record per file named by a raw record, in the order of the raw\n"
     "records, with the counts of its numstat record (0 and 0 for a binary file\n"
     "or a file without one). Renames and copies carry old_path. Odd or\n"
     "truncated output never fails: what is not recognised is skipped.",
     parse_file_changes},
    {Name::parse_commit_changes, "(output: str) -> list[CommitChanges]",
     "Parse what git log --format=%x1e%ct --raw --numstat -z printed into\n"
     "CommitChanges records, one per commit in the order of the output.\n\n"
     "Each commit header (the RS character and the commit time) starts a\n"
     "commit whose files are the raw and numstat records up to the next header;\n"
     "a commit without shown changes (a merge) has no files. Tokens before the\n"
     "first header are ignored. Raises ValueError when a header's time is not a\n"
     "whole number.",
     parse_commit_changes},
    {Name::_file_changes, "(tokens: Sequence[str]) -> list[FileChange]",
     "Pair the raw and numstat records among the NUL-separated tokens of one\n"
     "diff (or one commit) by path into FileChange records, in the order of\n"
     "each path's first raw record, with the status of its last raw record and\n"
     "the counts of its last numstat record. Numstat records never add a file;\n"
     "missing tokens read as empty texts.",
     file_changes},
    {Name::_line_count, "(field: str) -> int",
     "Read one count of a numstat record: its value when the field is made of\n"
     "digits, else 0 (git writes \"-\" for a binary file).",
     line_count},
};

const std::span<const FunctionDef> kFileChangeFunctions = kDefs;

}  // namespace gu
