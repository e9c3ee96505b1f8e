// The patch parser: a zero-context patch into the LineSpan records of each
// file's newer side, and its three helpers (_span, _patch_path, _unquote).
//
// The core walks the patch's lines and skips each hunk's body by the counts
// of its head. Each helper the parser uses is read from the namespace once
// per call: what loading bound runs natively, a replacement is called where
// the algorithm calls the helper.
#include <cstdint>
#include <iterator>
#include <limits>
#include <optional>
#include <string>
#include <utility>

#include "core/patch.hpp"
#include "core/unquote.hpp"
#include "git_utils/binding/collaborators.hpp"
#include "git_utils/binding/gc_pause.hpp"
#include "git_utils/binding/helpers.hpp"
#include "git_utils/changes/line_spans.hpp"
#include "git_utils/changes/records.hpp"
#include "git_utils/changes/scan_text.hpp"

namespace gu {
namespace {

// The message of bytearray.append() for a value outside a byte.
constexpr const char* kByteRange = "byte must be in range(0, 256)";

Ref int_of(std::int64_t v) { return Ref::steal(PyLong_FromLongLong(v)); }

// The value of ASCII digits, whatever their length.
template <class Unit>
Ref int_of_digits(core::Piece<Unit> digits) {
    const std::string text(digits.begin(), digits.end());  // ASCII in any width
    return Ref::steal(PyLong_FromString(text.c_str(), nullptr, 10));
}

// An int as the walk's counter: saturated to 64 bits (no patch holds that
// many lines, so a larger count never runs out before the patch does).
std::int64_t saturated(PyObject* value) {
    int overflow = 0;
    const long long v = PyLong_AsLongLongAndOverflow(value, &overflow);
    if (overflow > 0) return std::numeric_limits<std::int64_t>::max();
    if (overflow < 0) return std::numeric_limits<std::int64_t>::min();
    return v;
}

// ---- _unquote --------------------------------------------------------------

// Whether _C_ESCAPE and _C_ESCAPES are still what loading made, holding what
// the core's escape table says, so the core's unquoting gives what they would.
bool native_unquote(PyObject* module) {
    const Collaborator pattern(module, Name::_C_ESCAPE);
    const Collaborator escapes(module, Name::_C_ESCAPES);
    return pattern.as_loaded() && escapes.holds_table(core::control_escapes, [](const core::ControlEscape& e, Ref c) {
        return PyUnicode_CheckExact(c.get()) && PyUnicode_GET_LENGTH(c.get()) == 1 &&
               PyUnicode_READ_CHAR(c.get(), 0) == static_cast<Py_UCS4>(e.byte);
    });
}

Ref unquote_natively(std::string_view escaped) {
    std::string bytes;
    if (!core::unquote(escaped, bytes)) {
        PyErr_SetString(PyExc_ValueError, kByteRange);
        return Ref();
    }
    return Ref::steal(PyUnicode_DecodeUTF8(bytes.data(), static_cast<Py_ssize_t>(bytes.size()), "replace"));
}

// Appends text[from:to] as UTF-8.
int append_utf8(PyObject* text, Py_ssize_t from, Py_ssize_t to, std::string& out) {
    Ref piece = Ref::steal(PySequence_GetSlice(text, from, to));
    if (!piece) return -1;
    Ref encoded = call_method(piece.get(), "encode", "s", "utf-8");
    if (!encoded) return -1;
    char* data = nullptr;
    Py_ssize_t size = 0;
    if (PyBytes_AsStringAndSize(encoded.get(), &data, &size) < 0) return -1;
    out.append(data, static_cast<std::size_t>(size));
    return 0;
}

// The escape a match of _C_ESCAPE captured, appended as bytes.
int append_escape(PyObject* code, PyObject* escapes, std::string& out) {
    const Py_ssize_t length = PyObject_Length(code);
    if (length < 0) return -1;
    if (length == 3) {  // an octal byte
        Ref value = Ref::steal(PyLong_FromUnicodeObject(code, 8));
        if (!value) return -1;
        const long byte = PyLong_AsLong(value.get());
        if (byte == -1 && PyErr_Occurred()) return -1;
        if (byte < 0 || byte > 255) {
            PyErr_SetString(PyExc_ValueError, kByteRange);
            return -1;
        }
        out.push_back(static_cast<char>(byte));
        return 0;
    }
    Ref character = call_method(escapes, "get", "OO", code, code);
    if (!character) return -1;
    const Py_ssize_t size = PyObject_Length(character.get());
    return size < 0 ? -1 : append_utf8(character.get(), 0, size, out);
}

// The algorithm over what the namespace holds: every match of _C_ESCAPE
// replaced by its byte or its character, the whole decoded at the end.
Ref unquote_through_objects(PyObject* module, PyObject* text) {
    Ref pattern = lookup(module, Name::_C_ESCAPE);
    if (!pattern) return Ref();
    Ref matches = call_method(pattern.get(), "finditer", text);
    if (!matches) return Ref();
    Ref iterator = Ref::steal(PyObject_GetIter(matches.get()));
    if (!iterator) return Ref();
    Collaborator escapes(module, Name::_C_ESCAPES);
    std::string bytes;
    Py_ssize_t position = 0;
    while (Ref match = Ref::steal(PyIter_Next(iterator.get()))) {
        Ref start = call_method(match.get(), "start");
        Ref end = call_method(match.get(), "end");
        Ref code = call_method(match.get(), "group", "i", 1);
        if (!start || !end || !code) return Ref();
        const Py_ssize_t from = PyLong_AsSsize_t(start.get());
        const Py_ssize_t to = PyLong_AsSsize_t(end.get());
        if ((from == -1 || to == -1) && PyErr_Occurred()) return Ref();
        if (append_utf8(text, position, from, bytes) < 0 || escapes.get() == nullptr ||
            append_escape(code.get(), escapes.get(), bytes) < 0)
            return Ref();
        position = to;
    }
    if (PyErr_Occurred() || append_utf8(text, position, PY_SSIZE_T_MAX, bytes) < 0) return Ref();
    return Ref::steal(PyUnicode_DecodeUTF8(bytes.data(), static_cast<Py_ssize_t>(bytes.size()), "replace"));
}

PyObject* unquote(PyObject* module, PyObject* const* a) {
    PyObject* text = a[0];
    if (PyUnicode_Check(text) && native_unquote(module)) {
        Utf8View bytes;
        if (bytes.open(text) < 0) return nullptr;
        // A surrogate fails the encoding: the object tier raises what Python does.
        if (!has_surrogate(bytes.view())) return unquote_natively(bytes.view()).release();
    }
    return unquote_through_objects(module, text).release();
}

// ---- _patch_path -----------------------------------------------------------

// _patch_path over the object's own operations: what it gives for a str
// and the errors Python code would raise for anything else.
PyObject* patch_path(PyObject* module, PyObject* const* a) {
    Ref name = Ref::borrow(a[0]);
    const int tab = truth(call_method(name.get(), "endswith", "s", "\t"));
    if (tab < 0) return nullptr;
    if (tab) {
        name = Ref::steal(PySequence_GetSlice(name.get(), 0, -1));
        if (!name) return nullptr;
    }
    Ref dev_null = Ref::steal(PyUnicode_FromString("/dev/null"));
    if (!dev_null) return nullptr;
    const int is_null = truth(Ref::steal(PyObject_RichCompare(name.get(), dev_null.get(), Py_EQ)));
    if (is_null < 0) return nullptr;
    if (is_null) Py_RETURN_NONE;
    const Py_ssize_t length = PyObject_Length(name.get());
    if (length < 0) return nullptr;
    if (length >= 2) {
        Ref quote = Ref::steal(PyUnicode_FromString("\""));
        Ref first = Ref::steal(PySequence_GetItem(name.get(), 0));
        if (!quote || !first) return nullptr;
        int quoted = truth(Ref::steal(PyObject_RichCompare(first.get(), quote.get(), Py_EQ)));
        if (quoted > 0) {
            Ref last = Ref::steal(PySequence_GetItem(name.get(), -1));
            quoted = truth(last ? Ref::steal(PyObject_RichCompare(last.get(), quote.get(), Py_EQ)) : Ref());
        }
        if (quoted < 0) return nullptr;
        if (quoted) {
            Ref inner = Ref::steal(PySequence_GetSlice(name.get(), 1, -1));
            return inner ? call_name(module, Name::_unquote, inner.get()).release() : nullptr;
        }
    }
    return name.release();
}

// ---- _span -----------------------------------------------------------------

// A LineSpan, made as `spans` makes the call's records.
Ref line_span(RecordMaker& spans, PyObject* start, PyObject* end, PyObject* added) {
    PyObject* values[] = {start, end, added};
    return spans.make(values);
}

Ref span_natively(RecordMaker& spans, const core::Span& s) {
    Ref start = int_of(s.start);
    Ref end = int_of(s.end);
    if (!start || !end) return Ref();
    return line_span(spans, start.get(), end.get(), s.added ? Py_True : Py_False);
}

// The span of a hunk over the objects' own arithmetic.
Ref span_through_objects(RecordMaker& spans, PyObject* start, PyObject* new_count, PyObject* old_count) {
    Ref zero = Ref::steal(PyLong_FromLong(0));
    Ref one = Ref::steal(PyLong_FromLong(1));
    if (!zero || !one) return Ref();
    const int removal = truth(Ref::steal(PyObject_RichCompare(new_count, zero.get(), Py_EQ)));
    if (removal < 0) return Ref();
    if (removal) {
        // max(start, 1): 1 only when it is greater.
        const int above = truth(Ref::steal(PyObject_RichCompare(one.get(), start, Py_GT)));
        if (above < 0) return Ref();
        PyObject* line = above ? one.get() : start;
        return line_span(spans, line, line, Py_False);
    }
    Ref sum = Ref::steal(PyNumber_Add(start, new_count));
    if (!sum) return Ref();
    Ref end = Ref::steal(PyNumber_Subtract(sum.get(), one.get()));
    if (!end) return Ref();
    Ref added = Ref::steal(PyObject_RichCompare(old_count, zero.get(), Py_EQ));
    if (!added) return Ref();
    return line_span(spans, start, end.get(), added.get());
}

bool small_int(PyObject* o, std::int64_t& v) {
    if (!PyLong_CheckExact(o)) return false;
    int overflow = 0;
    v = PyLong_AsLongLongAndOverflow(o, &overflow);
    return overflow == 0;
}

Ref span_of(RecordMaker& spans, PyObject* start, PyObject* new_count, PyObject* old_count) {
    std::int64_t s = 0, n = 0, o = 0;
    if (small_int(start, s) && small_int(new_count, n) && small_int(old_count, o))
        if (const std::optional<core::Span> span = core::make_span(s, n, o)) return span_natively(spans, *span);
    return span_through_objects(spans, start, new_count, old_count);
}

PyObject* span(PyObject* module, PyObject* const* a) {
    RecordMaker spans(module, Record::line_span);
    return span_of(spans, a[0], a[1], a[2]).release();
}

// ---- parse_line_spans ------------------------------------------------------

// How one call of parse_line_spans runs, decided at its start: the helpers
// it calls, which of them run natively, and how its records are made.
struct LineSpansPlan {
    Collaborator hunk_header, span, patch_path, unquote;
    RecordMaker spans;
    bool native_header, native_span, native_path, native_unquote;

    explicit LineSpansPlan(PyObject* module)
        : hunk_header(module, Name::_HUNK_HEADER),
          span(module, Name::_span),
          patch_path(module, Name::_patch_path),
          unquote(module, Name::_unquote),
          spans(module, Record::line_span),
          native_header(hunk_header.as_loaded()),
          native_span(span.as_loaded()),
          native_path(patch_path.as_loaded()),
          native_unquote(native_path && unquote.as_loaded() && gu::native_unquote(module)) {}

    // Whether every helper runs natively and the records are filled
    // natively, so that no Python code runs in the call; then the records'
    // decision is settled for the whole call.
    bool all_native() {
        return native_header && native_span && native_path && native_unquote && spans.fills() && spans.settle();
    }
};

// The parser's state. The core's walk reports each "+++ " line and asks
// about every other line outside a hunk. The first Python call that fails
// leaves its exception set and the collector failed: the walk's remaining
// lines are passed over without calling anything.
template <class Unit>
class SpanCollector {
public:
    using Piece = core::Piece<Unit>;

    SpanCollector(LineSpansPlan& plan, const Text<Unit>& text) : plan_(plan), text_(text) {}

    int start() {
        spans_ = Ref::steal(PyDict_New());
        path_ = Ref::borrow(Py_None);
        return spans_ ? 0 : -1;
    }

    Ref result() { return failed_ ? Ref() : std::move(spans_); }

    void path_line(Piece rest) {
        if (failed_) return;
        path_ = plan_.native_path ? path_natively(rest) : call_helper(plan_.patch_path, text_.str(rest));
        failed_ = !path_;
        list_.reset();
    }

    std::optional<std::pair<std::int64_t, std::int64_t>> header(Piece line) {
        if (failed_) return std::nullopt;
        if (plan_.native_header) {
            if (const std::optional<core::BasicHunkHeader<Unit>> h = core::match_hunk_header(line)) return record(*h);
            std::size_t at = 0;
            if (!core::detail::take(line, at, "@@ -") || core::is_ascii(line)) return std::nullopt;
            // \d also takes other scripts' digits: the pattern decides.
        }
        return header_through_pattern(line);
    }

private:
    LineSpansPlan& plan_;
    const Text<Unit>& text_;
    bool failed_ = false;
    Ref spans_;
    Ref path_;  // None, or the key of the current file's spans
    Ref list_;  // the current file's list, once looked up

    Ref call_helper(Collaborator& helper, Ref arg) {
        if (!arg || helper.get() == nullptr) return Ref();
        return call(helper.get(), arg.get());
    }

    Ref path_natively(Piece rest) {
        using P = core::BasicPatchPath<Unit>;
        const P p = core::patch_path(rest);
        switch (p.kind) {
            case P::null: return Ref::borrow(Py_None);
            case P::plain: return text_.str(p.text);
            case P::quoted: break;
        }
        // The escapes are undone on the name's UTF-8 bytes, as the decoded
        // text gives them; a surrogate goes to _unquote, which refuses it.
        Ref name = text_.str(p.text);
        if (name && plan_.native_unquote) {
            Utf8View bytes;
            if (bytes.open(name.get()) < 0) return Ref();
            if (!has_surrogate(bytes.view())) return unquote_natively(bytes.view());
        }
        return call_helper(plan_.unquote, std::move(name));
    }

    // The list of the current path in spans, made on its first span; held
    // strongly, as helpers that are Python code run between its uses.
    PyObject* current_list() {
        if (list_) return list_.get();
        Ref found;
        const int present = dict_get(spans_.get(), path_.get(), found);
        if (present < 0) return nullptr;
        if (!present) {
            found = Ref::steal(PyList_New(0));
            if (!found || PyDict_SetItem(spans_.get(), path_.get(), found.get()) < 0) return nullptr;
        }
        list_ = std::move(found);
        return list_.get();
    }

    void append(Ref span) {
        PyObject* list = span ? current_list() : nullptr;
        failed_ = list == nullptr || PyList_Append(list, span.get()) < 0;
    }

    // A head the core matched: its counts, and its span when a file is open.
    std::pair<std::int64_t, std::int64_t> record(const core::BasicHunkHeader<Unit>& h) {
        const std::pair<std::int64_t, std::int64_t> counts{h.old_lines, h.new_lines};
        if (path_.get() != Py_None) {
            if (plan_.native_span) {
                const std::optional<core::Span> s =
                    h.exact ? core::make_span(h.start, h.new_lines, h.old_lines) : core::make_span(h);
                if (s) {
                    append(span_natively(plan_.spans, *s));
                    return counts;
                }
            }
            Ref old_count = h.old_count.empty() ? int_of(1) : int_of_digits(h.old_count);
            Ref start = int_of_digits(h.new_start);
            Ref new_count = h.new_count.empty() ? int_of(1) : int_of_digits(h.new_count);
            if (!old_count || !start || !new_count) {
                failed_ = true;
                return counts;
            }
            append_span(start.get(), new_count.get(), old_count.get());
        }
        return counts;
    }

    void append_span(PyObject* start, PyObject* new_count, PyObject* old_count) {
        if (plan_.native_span) {
            append(span_of(plan_.spans, start, new_count, old_count));
            return;
        }
        PyObject* f = plan_.span.get();
        append(f ? call(f, start, new_count, old_count) : Ref());
    }

    // int(match.group(n)), or 1 when the group did not take part.
    static Ref group_count(PyObject* match, int n, bool default_one) {
        Ref g = call_method(match, "group", "i", n);
        if (!g) return Ref();
        if (default_one && g.get() == Py_None) return int_of(1);
        return Ref::steal(PyNumber_Long(g.get()));
    }

    std::optional<std::pair<std::int64_t, std::int64_t>> header_through_pattern(Piece line) {
        Ref text = text_.str(line);
        Ref match = text && plan_.hunk_header.get() ? call_method(plan_.hunk_header.get(), "match", text.get()) : Ref();
        const int matched = truth(match);  // None, or a match (always true)
        if (matched <= 0) {
            failed_ = matched < 0;
            return std::nullopt;
        }
        Ref old_count = group_count(match.get(), 1, true);
        Ref start = old_count ? group_count(match.get(), 2, false) : Ref();
        Ref new_count = start ? group_count(match.get(), 3, true) : Ref();
        if (!new_count) {
            failed_ = true;
            return std::nullopt;
        }
        if (path_.get() != Py_None) append_span(start.get(), new_count.get(), old_count.get());
        return std::make_pair(saturated(old_count.get()), saturated(new_count.get()));
    }
};

template <class Unit>
Ref spans_of(PyObject* module, const Text<Unit>& text) {
    LineSpansPlan plan(module);
    SpanCollector<Unit> collector(plan, text);
    if (collector.start() < 0) return Ref();
    GcPause pause(plan.all_native());
    core::walk_patch(text.view(), collector);
    return collector.result();
}

PyObject* parse_line_spans(PyObject* module, PyObject* const* a) {
    PyObject* patch = a[0];
    if (!PyUnicode_Check(patch)) {
        // patch.split("\n") fails for anything but a str; what it raises is
        // what the caller gets.
        Ref lines = call_method(patch, "split", "s", "\n");
        if (lines)
            PyErr_Format(PyExc_TypeError, "parse_line_spans() argument 'patch' must be str, not %.200s",
                         Py_TYPE(patch)->tp_name);
        return nullptr;
    }
    return with_text(patch, [&](const auto& text) { return spans_of(module, text); }).release();
}

}  // namespace

Ref make_c_escapes(PyObject*, Name) {
    Ref mapping = Ref::steal(PyDict_New());
    if (!mapping) return Ref();
    for (const core::ControlEscape& e : core::control_escapes) {
        Ref key = Ref::steal(PyUnicode_FromStringAndSize(&e.letter, 1));
        Ref value = Ref::steal(PyUnicode_FromStringAndSize(&e.byte, 1));
        if (!key || !value || PyDict_SetItem(mapping.get(), key.get(), value.get()) < 0) return Ref();
    }
    return mapping;
}

// Paths decode with invalid bytes replaced; names that decode alike are
// one key of the result, as they are when the decoded text is parsed.
Ref parse_line_spans_from_git(PyObject* module, std::string_view patch) {
    return spans_of<char>(module, GitText(patch));
}

const FunctionDef kDefs[] = {
    {Name::parse_line_spans, "(patch: str) -> dict[str, list[LineSpan]]",
     "Parse a zero-context patch (git diff -U0 --no-prefix) into the lines each\n"
     "file's newer side had touched: a dict from path to its LineSpan records,\n"
     "one per hunk, in patch order.\n\n"
     "The lines of each hunk are counted off its header, so content that looks\n"
     "like a file or hunk header is never read as one. A deleted file (newer\n"
     "side /dev/null) and a file without hunks get no key; quoted names are\n"
     "unquoted. Odd or truncated patches never fail: unknown lines are skipped.",
     parse_line_spans},
    {Name::_span, "(start: int, new_count: int, old_count: int) -> LineSpan",
     "The LineSpan of one hunk header: lines start to start + new_count - 1,\n"
     "added when the hunk removes no line; a hunk that only removes lines marks\n"
     "the line above the removal (at least line 1), not added.",
     span},
    {Name::_patch_path, "(text: str) -> str | None",
     "The path of a \"+++ \" line (the text after those four characters): one\n"
     "trailing tab removed, None for /dev/null, a name in double quotes\n"
     "unquoted, any other name as it stands.",
     patch_path},
    {Name::_unquote, "(text: str) -> str",
     "Undo git's C-style quoting of a name (the text between the quotes):\n"
     "\\ooo octal escapes are bytes, \\a \\b \\f \\n \\r \\t \\v control\n"
     "characters, any other escaped character stands for itself; the bytes are\n"
     "decoded as UTF-8 with invalid sequences replaced. Raises ValueError for\n"
     "an octal escape above \\377.",
     unquote},
};

const std::span<const FunctionDef> kLineSpanFunctions = kDefs;

}  // namespace gu
