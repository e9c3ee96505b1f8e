// The UTF-8 bytes of a str, for the byte-level parsers, and the way back:
// strs made from views of those bytes, each distinct text made once per call.
#pragma once

#include <Python.h>

#include <string_view>
#include <functional>
#include <vector>

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

// The strs of a parse. Shared: one str per distinct text, for a log, where
// every commit that touches a file names its path again (an open-addressing
// table, one allocation per growth). Not shared: a new str each time, for a
// diff, where each path is made once anyway.
class StrCache {
public:
    StrCache(Origin origin, bool shared) : origin_(origin), shared_(shared) {}

    // A new reference, or null with an exception set.
    Ref get(std::string_view bytes) {
        if (!shared_) return str_of(bytes, origin_);
        if ((count_ + 1) * 2 > slots_.size()) grow();
        const std::size_t hash = std::hash<std::string_view>{}(bytes);
        const std::size_t mask = slots_.size() - 1;
        for (std::size_t i = hash & mask;; i = (i + 1) & mask) {
            Slot& slot = slots_[i];
            if (!slot.str) {
                slot.str = str_of(bytes, origin_);
                if (!slot.str) return Ref();
                slot.hash = hash;
                slot.bytes = bytes;
                ++count_;
                return Ref::borrow(slot.str.get());
            }
            if (slot.hash == hash && slot.bytes == bytes) return Ref::borrow(slot.str.get());
        }
    }

private:
    struct Slot {
        std::size_t hash = 0;
        std::string_view bytes;
        Ref str;
    };

    void grow() {
        std::vector<Slot> old = std::move(slots_);
        slots_ = std::vector<Slot>(old.empty() ? 64 : old.size() * 2);
        const std::size_t mask = slots_.size() - 1;
        for (Slot& slot : old) {
            if (!slot.str) continue;
            std::size_t i = slot.hash & mask;
            while (slots_[i].str) i = (i + 1) & mask;
            slots_[i] = std::move(slot);
        }
    }

    Origin origin_;
    bool shared_;
    std::vector<Slot> slots_;
    std::size_t count_ = 0;
};

}  // namespace gu
