// The text the byte-level parsers scan, and the strs made of its pieces.
#pragma once

#include <Python.h>

#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>

#include "core/tokens.hpp"
#include "git_utils/binding/ref.hpp"

namespace gu {

// -1 with a TypeError unless `text` is a str.
inline int require_str(PyObject* text) {
    if (PyUnicode_Check(text)) return 0;
    PyErr_Format(PyExc_TypeError, "expected str, not %.200s", Py_TYPE(text)->tp_name);
    return -1;
}

// The bytes of a str as UTF-8, for undoing C-style escapes, which work on
// bytes. An ASCII str is read in place; any other is encoded into a
// temporary that lives as long as the view (lone surrogates pass through as
// their three-byte forms, for has_surrogate to find).
class Utf8View {
public:
    // -1 with an exception set when `text` is not a str or can't be encoded.
    int open(PyObject* text) {
        if (require_str(text) < 0) return -1;
        if (PyUnicode_IS_ASCII(text)) {
            view_ = {static_cast<const char*>(PyUnicode_DATA(text)),
                     static_cast<std::size_t>(PyUnicode_GET_LENGTH(text))};
            return 0;
        }
        owner_ = Ref::steal(PyUnicode_AsEncodedString(text, "utf-8", "surrogatepass"));
        if (!owner_) return -1;
        view_ = {PyBytes_AS_STRING(owner_.get()), static_cast<std::size_t>(PyBytes_GET_SIZE(owner_.get()))};
        return 0;
    }
    std::string_view view() const noexcept { return view_; }

private:
    Ref owner_;
    std::string_view view_;
};

// Whether bytes from a Utf8View hold a lone surrogate (ED A0..BF xx), which
// str.encode("utf-8") refuses.
inline bool has_surrogate(std::string_view bytes) {
    for (std::size_t i = 0; i + 1 < bytes.size(); ++i)
        if (static_cast<unsigned char>(bytes[i]) == 0xED && static_cast<unsigned char>(bytes[i + 1]) >= 0xA0)
            return true;
    return false;
}

// The text a parser scans, in the code units it is stored in, and the way
// back from its pieces to strs. A str is read in place, one, two or four
// bytes per character as CPython keeps it (every separator and marker the
// parsers look for is ASCII, the same value in every width), so a piece's
// offsets are code-point indexes and its str is exactly that substring,
// surrogates included. Git's own output is read as the UTF-8 bytes it
// printed, and a piece's str is then its decoding.
template <class Unit>
class Text {
public:
    // The units of the str `source`, which must outlive the scan.
    static Text of_str(PyObject* source) {
        Text t;
        t.source_ = source;
        t.ascii_ = PyUnicode_IS_ASCII(source);
        t.units_ = {static_cast<const Unit*>(PyUnicode_DATA(source)),
                    static_cast<std::size_t>(PyUnicode_GET_LENGTH(source))};
        return t;
    }

    const Unit* base() const noexcept { return units_.data(); }
    core::Piece<Unit> view() const noexcept { return units_; }

    // The str of a piece of view(); null with an exception set. `checked`:
    // the piece is known to be well-formed UTF-8 (for git's bytes).
    Ref str(core::Piece<Unit> piece, bool checked = false) const {
        const auto n = static_cast<Py_ssize_t>(piece.size());
        if constexpr (sizeof(Unit) == 1) {
            // Git's bytes: ASCII pieces (most paths) copied as they are,
            // well-formed ones decoded straight into their kind, and only
            // the rest left to the decoder that replaces what is invalid.
            if (source_ == nullptr && !core::is_ascii(piece))
                return checked || core::valid_utf8(piece)
                           ? str_of_valid_utf8(piece)
                           : Ref::steal(PyUnicode_DecodeUTF8(piece.data(), n, "replace"));
            if (ascii_ || source_ == nullptr) {
                Ref s = Ref::steal(PyUnicode_New(n, 127));
                if (s && n) std::memcpy(PyUnicode_DATA(s.get()), piece.data(), piece.size());
                return s;
            }
        }
        if constexpr (sizeof(Unit) > 1) {
            // The OR of a piece's units names its narrowest kind exactly (a
            // unit past a kind's range sets a bit past it), so the str is
            // made in that kind at once and filled by a narrowing copy, where
            // the generic constructor would look for the widest character
            // first. Most pieces (paths) come out ASCII.
            std::uint32_t any = 0;
            for (const Unit c : piece) any |= static_cast<std::uint32_t>(c);
            const Py_UCS4 widest = any < 0x80 ? 0x7F : any < 0x100 ? 0xFF : any < 0x10000 ? 0xFFFF : 0x10FFFF;
            return new_str(n, widest, [piece](auto* out) {
                using Out = std::remove_pointer_t<decltype(out)>;
                for (std::size_t i = 0; i < piece.size(); ++i) out[i] = static_cast<Out>(piece[i]);
            });
        }
        return Ref::steal(PyUnicode_FromKindAndData(PyUnicode_1BYTE_KIND, piece.data(), n));
    }

protected:
    PyObject* source_ = nullptr;  // borrowed; null for git's bytes

    // A new str of `length` characters in the kind `widest` calls for, its
    // characters written by fill(out), `out` pointing to that kind's units.
    template <class Fill>
    static Ref new_str(Py_ssize_t length, Py_UCS4 widest, Fill fill) {
        Ref s = Ref::steal(PyUnicode_New(length, widest));
        if (!s) return s;
        void* data = PyUnicode_DATA(s.get());
        switch (PyUnicode_KIND(s.get())) {
            case PyUnicode_1BYTE_KIND: fill(static_cast<Py_UCS1*>(data)); break;
            case PyUnicode_2BYTE_KIND: fill(static_cast<Py_UCS2*>(data)); break;
            default: fill(static_cast<Py_UCS4*>(data)); break;
        }
        return s;
    }

    // The str of well-formed UTF-8 that is not all ASCII.
    static Ref str_of_valid_utf8(std::string_view valid) {
        const core::Utf8Shape shape = core::utf8_shape(valid);
        return new_str(static_cast<Py_ssize_t>(shape.length), shape.widest,
                       [valid](auto* out) { core::decode_utf8(valid, out); });
    }

    bool ascii_ = false;
    core::Piece<Unit> units_;
};

// Git's output as the bytes it printed. Decoding a piece gives the piece of
// the decoded whole, invalid bytes replaced alike (git's separators are
// ASCII, which ends any invalid sequence); two pieces are the same text
// exactly when their bytes are only where both are well-formed UTF-8, which
// the parsers that compare pieces check.
class GitText : public Text<char> {
public:
    explicit GitText(std::string_view bytes) { units_ = bytes; }
};

// f(text) with the Text of the str `s` in its own width.
template <class F>
decltype(auto) with_text(PyObject* s, F&& f) {
    switch (PyUnicode_KIND(s)) {
        case PyUnicode_1BYTE_KIND: {
            const Text<char> t = Text<char>::of_str(s);
            return f(t);
        }
        case PyUnicode_2BYTE_KIND: {
            const Text<char16_t> t = Text<char16_t>::of_str(s);
            return f(t);
        }
        default: {
            const Text<char32_t> t = Text<char32_t>::of_str(s);
            return f(t);
        }
    }
}

}  // namespace gu
