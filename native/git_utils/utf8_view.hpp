// The UTF-8 bytes of a str, for the byte-level parsers, and the way back:
// strs made from views of those bytes, each distinct text made once per call.
#pragma once

#include <Python.h>

#include <string_view>
#include <unordered_map>

#include "git_utils/ref.hpp"

namespace gu {

// The bytes of a str as UTF-8. An ASCII str is read in place; any other is
// encoded into a temporary that lives as long as the view (lone surrogates
// pass through as their three-byte forms, which hold no byte the parsers
// look for, so cutting the bytes cuts the text at the same places).
class Utf8View {
public:
    // False with an exception set when `text` is not a str or can't be encoded.
    bool open(PyObject* text) {
        if (!PyUnicode_Check(text)) {
            PyErr_Format(PyExc_TypeError, "expected str, not %.200s", Py_TYPE(text)->tp_name);
            return false;
        }
        if (PyUnicode_IS_ASCII(text)) {
            view_ = {static_cast<const char*>(PyUnicode_DATA(text)), static_cast<std::size_t>(PyUnicode_GET_LENGTH(text))};
            return true;
        }
        owner_ = Ref::steal(PyUnicode_AsEncodedString(text, "utf-8", "surrogatepass"));
        if (!owner_) return false;
        view_ = {PyBytes_AS_STRING(owner_.get()), static_cast<std::size_t>(PyBytes_GET_SIZE(owner_.get()))};
        return true;
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

// Where the bytes a parser reads come from, which tells how to make strs of
// them: from a str through a Utf8View (valid UTF-8 but for surrogates,
// which pass back unchanged), or straight from git (any bytes, invalid
// sequences replaced with U+FFFD as decoding git's whole output does;
// git's separators are ASCII, so decoding a piece of it gives the piece
// of the decoded whole).
enum class Origin { str, git };

inline Ref str_of(std::string_view bytes, Origin origin) {
    return Ref::steal(PyUnicode_DecodeUTF8(bytes.data(), static_cast<Py_ssize_t>(bytes.size()),
                                           origin == Origin::str ? "surrogatepass" : "replace"));
}

// One str per distinct text: a path that a diff names in its raw and its
// numstat record, or that every commit of a log touches, is made once.
class StrCache {
public:
    explicit StrCache(Origin origin) : origin_(origin) {}

    // A borrowed reference owned by the cache, or null with an exception set.
    PyObject* get(std::string_view bytes) {
        auto it = map_.find(bytes);
        if (it != map_.end()) return it->second.get();
        Ref s = str_of(bytes, origin_);
        if (!s) return nullptr;
        PyObject* raw = s.get();
        map_.emplace(bytes, std::move(s));
        return raw;
    }

private:
    Origin origin_;
    std::unordered_map<std::string_view, Ref> map_;
};

}  // namespace gu
