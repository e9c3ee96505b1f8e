// Time specs into local moments: a relative spec (7d, 24h, 30m, 2w) is
// that long before now on the local wall clock; an ISO date or date-time is
// read as Python 3.10's datetime.fromisoformat reads it, on every version.
// While datetime and timedelta are the classes bound at load, the moment is
// built with the datetime C API; otherwise through what the namespace holds.
#include <Python.h>
#include <datetime.h>
#include <time.h>

#ifndef _WIN32
#include <dlfcn.h>
#endif

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "core/iso_time.hpp"
#include "git_utils/binding/helpers.hpp"
#include "git_utils/history/time_specs.hpp"

namespace gu {
namespace {

// "since must be <forms>; got <repr>", with the forms read from the namespace.
PyObject* refuse(PyObject* module, PyObject* since) {
    Ref forms = lookup(module, Name::TIME_SPEC_FORMS);
    if (!forms) return nullptr;
    Ref shown = Ref::steal(PyObject_Repr(since));
    if (!shown) return nullptr;
    PyErr_Format(PyExc_ValueError, "since must be %S; got %U", forms.get(), shown.get());
    return nullptr;
}

// What a failed parse raises: a value error refuses the spec (its message is
// dropped); an overflow becomes "reaches outside the calendar" with the
// overflow as its cause; anything else passes unchanged.
PyObject* refusal_of_failure(PyObject* module, PyObject* since) {
    if (PyErr_ExceptionMatches(PyExc_ValueError)) {
        PyErr_Clear();
        return refuse(module, since);
    }
    if (!PyErr_ExceptionMatches(PyExc_OverflowError)) return nullptr;
    Ref overflow = Ref::steal(PyErr_GetRaisedException());
    Ref shown = Ref::steal(PyObject_Repr(since));
    if (!shown) return nullptr;
    Ref message = Ref::steal(PyUnicode_FromFormat("since %U reaches outside the calendar", shown.get()));
    if (!message) return nullptr;
    Ref error = call(PyExc_ValueError, message.get());
    if (!error) return nullptr;
    PyException_SetContext(error.get(), overflow.newref());
    PyException_SetCause(error.get(), overflow.release());  // `from`: also suppresses the context
    PyErr_SetObject(PyExc_ValueError, error.get());
    return nullptr;
}

// 3.10 and 3.11 may still meet a str made by the old API, whose characters
// are not in place until it is readied; later versions have no such str.
int ready(PyObject* text) {
#if PY_VERSION_HEX < 0x030C0000
    return PyUnicode_READY(text);
#else
    (void)text;
    return 0;
#endif
}

// The spec: `since` without the blanks around it. For an exact str it is a
// range of the argument's own characters (stripped with str.strip's own test),
// so the usual specs allocate nothing; anything else goes through its own
// strip() and the spec is the whole of what that returns.
struct Spec {
    Ref text;
    Py_ssize_t start = 0;
    Py_ssize_t end = 0;
    bool ranged = false;  // the spec is text[start:end] of an exact str
};

int strip_spec(PyObject* module, PyObject* since, Spec& spec) {
    if (PyUnicode_CheckExact(since)) {
        if (ready(since) < 0) return -1;
        const auto kind = PyUnicode_KIND(since);
        const void* data = PyUnicode_DATA(since);
        Py_ssize_t start = 0, end = PyUnicode_GET_LENGTH(since);
        while (start < end && Py_UNICODE_ISSPACE(PyUnicode_READ(kind, data, start))) ++start;
        while (end > start && Py_UNICODE_ISSPACE(PyUnicode_READ(kind, data, end - 1))) --end;
        spec.text = Ref::borrow(since);
        spec.start = start;
        spec.end = end;
        spec.ranged = true;
        return 0;
    }
    spec.text = Ref::steal(PyObject_CallMethodNoArgs(since, state_of(module)->str_strip));
    return spec.text && (!PyUnicode_Check(spec.text.get()) || ready(spec.text.get()) == 0) ? 0 : -1;
}

// The spec as a str object; a new one only when blanks were cut off.
Ref spec_object(const Spec& spec) {
    PyObject* text = spec.text.get();
    if (!spec.ranged || (spec.start == 0 && spec.end == PyUnicode_GET_LENGTH(text))) return Ref::borrow(text);
    return Ref::steal(PyUnicode_Substring(text, spec.start, spec.end));
}

Py_ssize_t spec_length(const Spec& spec) {
    return spec.ranged ? spec.end - spec.start : PyObject_Length(spec.text.get());
}

// The spec's characters, when they are all ASCII (and so also its UTF-8).
bool ascii_chars(const Spec& spec, std::string_view& out) {
    PyObject* text = spec.text.get();
    if (!PyUnicode_Check(text) || !PyUnicode_IS_ASCII(text)) return false;
    const Py_ssize_t start = spec.ranged ? spec.start : 0;
    const Py_ssize_t end = spec.ranged ? spec.end : PyUnicode_GET_LENGTH(text);
    out =
        std::string_view(static_cast<const char*>(PyUnicode_DATA(text)) + start, static_cast<std::size_t>(end - start));
    return true;
}

// A relative spec that matched: its count and its unit letter. A native match
// keeps the count as its ASCII digits, a match of the namespace's pattern as
// the int that int() made of group 1.
struct Relative {
    std::string_view digits;
    Ref count;
    Ref letter;
};

// Matches _RELATIVE_SPEC against the whole spec: natively when the pattern is
// the one bound at load and the spec is ASCII, otherwise with the pattern
// found in the namespace (its \d also takes other scripts' digits).
// Returns 1 with `rel` set, 0 for no match, -1 on error.
int match_relative(PyObject* module, const Spec& spec, Relative& rel) {
    Ref pattern = lookup(module, Name::_RELATIVE_SPEC);
    if (!pattern) return -1;
    std::string_view s;
    if (is_original(state_of(module), Name::_RELATIVE_SPEC, pattern.get()) && ascii_chars(spec, s)) {
        if (s.size() < 2) return 0;
        const char letter = s.back();
        if (letter != 'm' && letter != 'h' && letter != 'd' && letter != 'w') return 0;
        const std::string_view digits = s.substr(0, s.size() - 1);
        for (const char c : digits)
            if (c < '0' || c > '9') return 0;
        rel.digits = digits;
        rel.letter = Ref::steal(PyUnicode_FromOrdinal(static_cast<unsigned char>(letter)));
        return rel.letter ? 1 : -1;
    }
    Ref text = spec_object(spec);
    if (!text) return -1;
    Ref match = call_method(pattern.get(), "fullmatch", text.get());
    if (!match) return -1;
    if (match.get() == Py_None) return 0;
    Ref digits = call_method(match.get(), "group", "i", 1);
    if (!digits) return -1;
    rel.letter = call_method(match.get(), "group", "i", 2);
    if (!rel.letter) return -1;
    rel.count = Ref::steal(PyNumber_Long(digits.get()));
    return rel.count ? 1 : -1;
}

// count > 0; -1 on error.
int count_above_zero(const Relative& rel) {
    if (!rel.count) return rel.digits.find_first_not_of('0') != std::string_view::npos;
    Ref zero = Ref::steal(PyLong_FromLong(0));
    if (!zero) return -1;
    return PyObject_RichCompareBool(rel.count.get(), zero.get(), Py_GT);
}

Ref count_object(const Relative& rel) {
    if (rel.count) return Ref::borrow(rel.count.get());
    const std::string digits(rel.digits);
    return Ref::steal(PyLong_FromString(digits.c_str(), nullptr, 10));
}

// The datetime C API as loading imported it; null when this interpreter's
// datetime has none (then every moment is built generically).
const PyDateTime_CAPI* datetime_api(PyObject* module) {
    return static_cast<const PyDateTime_CAPI*>(state_of(module)->datetime_api);
}

// Whether `found`, what the namespace holds under `name`, is the class bound
// at load and that class is the C type `type` of the C API: then moments are
// built with the type's own constructor and arithmetic, which is what calling
// the class does.
bool native_class(PyObject* module, Name name, PyObject* found, PyTypeObject* PyDateTime_CAPI::*type) {
    if (!is_original(state_of(module), name, found)) return false;
    const PyDateTime_CAPI* api = datetime_api(module);
    return api != nullptr && found == reinterpret_cast<PyObject*>(api->*type);
}

bool native_datetime(PyObject* module, PyObject* datetime) {
    return native_class(module, Name::datetime, datetime, &PyDateTime_CAPI::DateTimeType);
}

// Used by the POSIX local-time paths only.
[[maybe_unused]] bool native_timedelta(PyObject* module, PyObject* timedelta) {
    return native_class(module, Name::timedelta, timedelta, &PyDateTime_CAPI::DeltaType);
}

// datetime(year, ..., microsecond) and timedelta(days, seconds,
// microseconds) with the C types' constructors, through the API table in
// module state (the header's macros go through a process-wide pointer).
Ref new_datetime(const PyDateTime_CAPI* api, int year, int month, int day, int hour, int minute, int second,
                 int microsecond) {
    return Ref::steal(
        api->DateTime_FromDateAndTime(year, month, day, hour, minute, second, microsecond, Py_None, api->DateTimeType));
}

Ref new_delta(const PyDateTime_CAPI* api, int days, int seconds, int microseconds) {
    return Ref::steal(api->Delta_FromDelta(days, seconds, microseconds, 1, api->DeltaType));
}

Ref native_moment(const PyDateTime_CAPI* api, const core::IsoMoment& m) {
    return new_datetime(api, m.year, m.month, m.day, m.hour, m.minute, m.second, m.microsecond);
}

// Reading the local clock and zone needs localtime_r and tm_gmtoff: on
// Windows relative specs and offsets take the generic path.
#ifndef _WIN32

constexpr long long kSecondsPerDay = 86'400;
constexpr long long kMaxDeltaDays = 999'999'999;  // timedelta.max.days
// Counts up to this times a week's seconds still fit a long long.
constexpr unsigned long long kMaxNativeCount = 10'000'000'000'000ULL;
// int() of a str reads this many digits whatever the interpreter's limit on
// them (sys.set_int_max_str_digits accepts nothing lower but 0, no limit);
// a longer count, leading zeros and all, goes through int() and its limit.
constexpr std::size_t kDigitsBelowAnyLimit = 640;

// localtime_r as datetime's own calls make it: 0, or -1 with an OSError.
int local_time(time_t t, std::tm& out) {
    errno = 0;
    if (localtime_r(&t, &out) == nullptr) {
        if (errno == 0) errno = EINVAL;
        PyErr_SetFromErrno(PyExc_OSError);
        return -1;
    }
    return 0;
}

// datetime.now() the way it reads the clock: the system clock floored to the
// microsecond, broken down by localtime_r, a leap second held at 59. Its fold
// is left at 0: subtracting a delta drops it anyway.
Ref local_now(const PyDateTime_CAPI* api) {
    timespec now{};
    if (clock_gettime(CLOCK_REALTIME, &now) != 0) return Ref::steal(PyErr_SetFromErrno(PyExc_OSError));
    std::tm local{};
    if (local_time(now.tv_sec, local) < 0) return Ref();
    return new_datetime(api, local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min,
                        std::min(local.tm_sec, 59), static_cast<int>(now.tv_nsec / 1000));
}

// Seconds in the unit _SPEC_UNITS gives (its value decides, also when a host
// changed the dict in place); 0 for a unit the native path leaves alone.
long long unit_seconds(PyObject* unit_name) {
    static constexpr struct {
        const char* name;
        long long seconds;
    } kUnits[] = {{"minutes", 60}, {"hours", 3'600}, {"days", kSecondsPerDay}, {"weeks", 7 * kSecondsPerDay}};
    if (!PyUnicode_CheckExact(unit_name)) return 0;
    for (const auto& unit : kUnits)
        if (PyUnicode_CompareWithASCIIString(unit_name, unit.name) == 0) return unit.seconds;
    return 0;
}

// now - timedelta(**{unit_name: count}) with the C types (null with an
// exception on failure). Nothing when the delta is beyond what the native
// path builds: then the timedelta constructor itself runs, and raises what
// Python raises. The subtraction is the type's own, with its OverflowError
// before year 1.
Native native_relative(const PyDateTime_CAPI* api, std::string_view digits, PyObject* unit_name) {
    const long long unit = unit_seconds(unit_name);
    if (unit == 0) return declined;
    if (digits.size() > kDigitsBelowAnyLimit) return declined;
    unsigned long long count = 0;
    for (const char c : digits) {
        count = count * 10 + static_cast<unsigned>(c - '0');
        if (count > kMaxNativeCount) return declined;
    }
    const long long seconds = static_cast<long long>(count) * unit;
    if (seconds / kSecondsPerDay > kMaxDeltaDays) return declined;
    Ref span =
        new_delta(api, static_cast<int>(seconds / kSecondsPerDay), static_cast<int>(seconds % kSecondsPerDay), 0);
    Ref now = span ? local_now(api) : Ref();
    return now ? Ref::steal(PyNumber_Subtract(now.get(), span.get())) : Ref();
}

// Days from 1970-01-01 to a date of the proleptic Gregorian calendar.
long long days_since_epoch(long long year, long long month, long long day) {
    year -= month <= 2;
    const long long era = (year >= 0 ? year : year - 399) / 400;
    const long long year_of_era = year - era * 400;
    const long long day_of_year = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    const long long day_of_era = year_of_era * 365 + year_of_era / 4 - year_of_era / 100 + day_of_year;
    return era * 146'097 + day_of_era - 719'468;
}

// moment.astimezone().replace(tzinfo=None) for a moment at a fixed offset, in
// astimezone's own steps: to UTC by subtracting the offset, then the local
// zone's offset at that UTC second (localtime_r of the floored timestamp)
// added back. The arithmetic is the C types', so a moment pushed outside the
// calendar raises the same OverflowError.
Ref native_local_moment(const PyDateTime_CAPI* api, const core::IsoMoment& m) {
    Ref moment = native_moment(api, m);
    if (!moment) return Ref();
    const int offset_seconds = m.offset_hours * 3'600 + m.offset_minutes * 60 + m.offset_seconds;
    Ref offset = new_delta(api, 0, m.offset_sign * offset_seconds, m.offset_sign * m.offset_microseconds);
    if (!offset) return Ref();
    Ref utc = Ref::steal(PyNumber_Subtract(moment.get(), offset.get()));
    if (!utc) return Ref();
    PyObject* u = utc.get();
    const long long timestamp =
        days_since_epoch(PyDateTime_GET_YEAR(u), PyDateTime_GET_MONTH(u), PyDateTime_GET_DAY(u)) * kSecondsPerDay +
        PyDateTime_DATE_GET_HOUR(u) * 3'600LL + PyDateTime_DATE_GET_MINUTE(u) * 60LL + PyDateTime_DATE_GET_SECOND(u);
    std::tm local{};
    if (local_time(static_cast<time_t>(timestamp), local) < 0) return Ref();
    if (local.tm_gmtoff <= -kSecondsPerDay || local.tm_gmtoff >= kSecondsPerDay) {
        PyErr_SetString(PyExc_ValueError,
                        "offset must be a timedelta strictly between -timedelta(hours=24) and "
                        "timedelta(hours=24)");
        return Ref();
    }
    Ref zone = new_delta(api, 0, static_cast<int>(local.tm_gmtoff), 0);
    if (!zone) return Ref();
    return Ref::steal(PyNumber_Add(u, zone.get()));
}

#endif  // _WIN32

// now - timedelta(**{_SPEC_UNITS[unit]: count}), or null.
Ref relative_moment(PyObject* module, const Relative& rel) {
    Ref units = lookup(module, Name::_SPEC_UNITS);
    if (!units) return Ref();
    Ref datetime = lookup(module, Name::datetime);
    if (!datetime) return Ref();
    Ref timedelta = lookup(module, Name::timedelta);
    if (!timedelta) return Ref();
    Ref unit_name = Ref::steal(PyObject_GetItem(units.get(), rel.letter.get()));
    if (!unit_name) return Ref();
#ifndef _WIN32
    if (!rel.count && native_datetime(module, datetime.get()) && native_timedelta(module, timedelta.get()) &&
        allowed(state_of(module), FastPath::clock)) {
        if (Native moment = native_relative(datetime_api(module), rel.digits, unit_name.get()))
            return std::move(*moment);
    }
#endif
    Ref count = count_object(rel);
    if (!count) return Ref();
    Ref kwargs = Ref::steal(PyDict_New());
    if (!kwargs || PyDict_SetItem(kwargs.get(), unit_name.get(), count.get()) < 0) return Ref();
    Ref empty = Ref::steal(PyTuple_New(0));
    if (!empty) return Ref();
    Ref span = Ref::steal(PyObject_Call(timedelta.get(), empty.get(), kwargs.get()));
    if (!span) return Ref();
    Ref now = call_method(datetime.get(), "now");
    if (!now) return Ref();
    return Ref::steal(PyNumber_Subtract(now.get(), span.get()));
}

// The moment with an offset made with the namespace's datetime and timedelta,
// then converted by its own astimezone() and stripped of its zone.
Ref generic_local_moment(PyObject* timedelta, PyObject* moment, const core::IsoMoment& m) {
    Ref datetime_module = Ref::steal(PyImport_ImportModule("datetime"));
    if (!datetime_module) return Ref();
    Ref timezone = Ref::steal(PyObject_GetAttrString(datetime_module.get(), "timezone"));
    const int sign = m.offset_sign;
    const int seconds = m.offset_hours * 3'600 + m.offset_minutes * 60 + m.offset_seconds;
    Ref offset = Ref::steal(
        PyObject_CallFunction(timedelta, "iiiiii", 0, sign * seconds, sign * m.offset_microseconds, 0, 0, 0));
    if (!timezone || !offset) return Ref();
    Ref zone = call(timezone.get(), offset.get());
    if (!zone) return Ref();
    Ref kwargs = Ref::steal(Py_BuildValue("{s:O}", "tzinfo", zone.get()));
    Ref empty = Ref::steal(PyTuple_New(0));
    if (!kwargs || !empty) return Ref();
    Ref replace = Ref::steal(PyObject_GetAttrString(moment, "replace"));
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

// The moment an ISO spec names, as 3.10's datetime.fromisoformat reads it;
// one with an offset is converted to local time and loses its zone.
Ref iso_moment(PyObject* module, const Spec& spec) {
    std::string_view text;
    Ref bytes;
    if (!ascii_chars(spec, text)) {
        Ref whole = spec_object(spec);
        if (!whole) return Ref();
        bytes = Ref::steal(PyUnicode_AsEncodedString(whole.get(), "utf-8", "surrogatepass"));
        if (!bytes) return Ref();
        text =
            std::string_view(PyBytes_AS_STRING(bytes.get()), static_cast<std::size_t>(PyBytes_GET_SIZE(bytes.get())));
    }
    core::IsoMoment m;
    if (core::parse_iso_datetime(text, m) != core::IsoError::none) {
        PyErr_SetString(PyExc_ValueError, "Invalid isoformat string");
        return Ref();
    }
    Ref datetime = lookup(module, Name::datetime);
    if (!datetime) return Ref();
    const bool native = native_datetime(module, datetime.get());
    Ref moment;
    if (native) {
        if (!m.has_offset) return native_moment(datetime_api(module), m);
    } else {
        moment = Ref::steal(PyObject_CallFunction(datetime.get(), "iiiiiii", m.year, m.month, m.day, m.hour, m.minute,
                                                  m.second, m.microsecond));
        if (!moment || !m.has_offset) return moment;
    }
    Ref timedelta = lookup(module, Name::timedelta);
    if (!timedelta) return Ref();
#ifndef _WIN32
    if (native && native_timedelta(module, timedelta.get())) return native_local_moment(datetime_api(module), m);
#endif
    if (!moment) moment = native_moment(datetime_api(module), m);
    if (!moment) return Ref();
    return generic_local_moment(timedelta.get(), moment.get(), m);
}

PyObject* parse_time_spec(PyObject* module, PyObject* const* a) {
    PyObject* since = a[0];
    Spec spec;
    if (strip_spec(module, since, spec) < 0) return nullptr;
    Relative rel;
    const int relative = match_relative(module, spec, rel);
    if (relative < 0) return refusal_of_failure(module, since);
    if (relative > 0) {
        const int positive = count_above_zero(rel);
        if (positive < 0) return nullptr;
        if (!positive) return refuse(module, since);
        Ref moment = relative_moment(module, rel);
        return moment ? moment.release() : refusal_of_failure(module, since);
    }
    const Py_ssize_t length = spec_length(spec);
    if (length < 0) return nullptr;
    if (length == 0) return refuse(module, since);
    Ref moment = iso_moment(module, spec);
    return moment ? moment.release() : refusal_of_failure(module, since);
}

// Whether two C functions come from the same shared object (or both from
// the executable).
bool same_library(const void* a, const void* b) {
#ifndef _WIN32
    Dl_info ia{}, ib{};
    return dladdr(a, &ia) != 0 && dladdr(b, &ib) != 0 && ia.dli_fbase == ib.dli_fbase;
#else
    (void)a;
    (void)b;
    return true;
#endif
}

}  // namespace

void keep_datetime_api(PyObject* module) {
    // Kept in module state only: the header's own static pointer is shared by
    // every interpreter that loads the module, and is never written here.
    state_of(module)->datetime_api = PyCapsule_Import(PyDateTime_CAPSULE_NAME, 0);
    if (state_of(module)->datetime_api == nullptr) PyErr_Clear();
}

int clock_guard(PyObject* module, GuardBuilder& guard) {
    const ModuleState* st = state_of(module);
    const PyDateTime_CAPI* api = datetime_api(module);
    if (api == nullptr) return 0;
    PyObject* datetime = st->originals[index(Name::datetime)];
    if (datetime != reinterpret_cast<PyObject*>(api->DateTimeType)) return 0;
    Ref now = Ref::steal(PyObject_GetAttrString(datetime, "now"));
    if (!now) return -1;
    if (!PyCFunction_Check(now.get())) return 0;
    // Genuine when the function is datetime's own, not a clock double's
    // installed before the import; a double swapped in later (time-machine
    // swaps the C function in place) fails the guard.
    const PyCFunction impl = PyCFunction_GetFunction(now.get());
    if (!same_library(reinterpret_cast<const void*>(impl),
                      reinterpret_cast<const void*>(api->DateTime_FromDateAndTime)))
        return 0;
    guard.subject(now.get());
    guard.runs(impl);
    return 0;
}

const FunctionDef kDefs[] = {
    {Name::parse_time_spec, "(since: str) -> datetime",
     "Turn a time spec into the local moment at which the period starts.\n\n"
     "A relative spec, a positive whole number followed by m, h, d or w (30m,\n"
     "24h, 7d, 2w), means that long before now, on the local wall clock. An ISO\n"
     "date or date-time (as Python 3.10's datetime.fromisoformat reads it, on\n"
     "every version) means that moment; one with an offset is converted to local\n"
     "time. The result never carries a zone. Blanks around the spec are ignored.\n"
     "Raises ValueError naming the accepted forms for any other spec, and\n"
     "ValueError \"since ... reaches outside the calendar\" for a moment beyond\n"
     "the calendar.",
     parse_time_spec},
};

const std::span<const FunctionDef> kTimeSpecFunctions = kDefs;

}  // namespace gu
