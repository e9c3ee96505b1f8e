// The text the byte-level parsers scan, and the strs made of its pieces.
#pragma once

#include <Python.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "core/raw_numstat.hpp"
#include "git_utils/ref.hpp"

namespace gu {

// False with a TypeError unless `text` is a str.
inline bool require_str(PyObject* text) {
    if (PyUnicode_Check(text)) return true;
    PyErr_Format(PyExc_TypeError, "expected str, not %.200s", Py_TYPE(text)->tp_name);
    return false;
}

// The bytes of a str as UTF-8, for undoing C-style escapes, which work on
// bytes. An ASCII str is read in place; any other is encoded into a
// temporary that lives as long as the view (lone surrogates pass through as
// their three-byte forms, for has_surrogate to find).
class Utf8View {
public:
    // False with an exception set when `text` is not a str or can't be encoded.
    bool open(PyObject* text) {
        if (!require_str(text)) return false;
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

// The text a parser scans, and the way back from its pieces to strs. Every
// separator and marker the parsers look for is ASCII, so a str is scanned
// through a narrow projection of its code points: ASCII as itself, anything
// else as a byte of 0x80 or above (a 1-byte str is scanned in place). A
// piece's offsets are then code-point indexes, and its str is a substring
// of the original: exact, surrogates included. Git's own output is scanned
// as the UTF-8 bytes it printed, and a piece's str replaces invalid
// sequences with U+FFFD as decoding the whole output does (git's separators
// are ASCII, so decoding a piece gives the piece of the decoded whole).
class ScanText {
public:
    // False with a TypeError when `text` is not a str. The str must outlive
    // the scan.
    bool open(PyObject* text) {
        if (!require_str(text)) return false;
        source_ = text;
        kind_ = PyUnicode_KIND(text);
        const std::size_t n = static_cast<std::size_t>(PyUnicode_GET_LENGTH(text));
        if (kind_ == PyUnicode_1BYTE_KIND) {
            scan_ = {reinterpret_cast<const char*>(PyUnicode_1BYTE_DATA(text)), n};
            return true;
        }
        narrow_.reset(new char[n]);
        if (kind_ == PyUnicode_2BYTE_KIND)
            project(PyUnicode_2BYTE_DATA(text), n);
        else
            project(PyUnicode_4BYTE_DATA(text), n);
        scan_ = {narrow_.get(), n};
        return true;
    }
    void open_git(std::string_view bytes) {
        source_ = nullptr;
        kind_ = PyUnicode_1BYTE_KIND;
        scan_ = bytes;
    }

    std::string_view view() const noexcept { return scan_; }

    // The str of a piece of view(); null with an exception set.
    Ref str(std::string_view piece) const {
        if (source_ == nullptr)
            return Ref::steal(PyUnicode_DecodeUTF8(piece.data(), static_cast<Py_ssize_t>(piece.size()), "replace"));
        const Py_ssize_t at = piece.data() - scan_.data();
        return Ref::steal(PyUnicode_Substring(source_, at, at + static_cast<Py_ssize_t>(piece.size())));
    }

    // What tells pieces apart: the piece itself, or for a projection the
    // original code units it stands for.
    std::string_view key(std::string_view piece) const noexcept {
        if (source_ == nullptr || kind_ == PyUnicode_1BYTE_KIND) return piece;
        const char* units = static_cast<const char*>(PyUnicode_DATA(source_));
        return {units + static_cast<std::size_t>(piece.data() - scan_.data()) * static_cast<std::size_t>(kind_),
                piece.size() * static_cast<std::size_t>(kind_)};
    }

    // key() for the core's path table.
    core::PathKey path_key() const noexcept {
        return {[](std::string_view piece, const void* self) { return static_cast<const ScanText*>(self)->key(piece); },
                this};
    }

private:
    // Branch-free, so that the compiler makes it a few vector instructions
    // per 16 or 32 code points.
    template <class Unit>
    void project(const Unit* units, std::size_t n) {
        char* out = narrow_.get();
        for (std::size_t i = 0; i < n; ++i) out[i] = static_cast<char>(std::min<Unit>(units[i], 0x80));
    }

    PyObject* source_ = nullptr;  // borrowed; null for git's bytes
    int kind_ = PyUnicode_1BYTE_KIND;
    std::unique_ptr<char[]> narrow_;
    std::string_view scan_;
};

// The strs of a parse. Shared: one str per distinct text, for a log, where
// every commit that touches a file names its path again (an open-addressing
// table, one allocation per growth). Not shared: a new str each time, for a
// diff, where each path is made once anyway.
class StrCache {
public:
    StrCache(const ScanText& text, bool shared) : text_(text), shared_(shared) {}

    // A new reference, or null with an exception set.
    Ref get(std::string_view piece) {
        if (!shared_) return text_.str(piece);
        if ((count_ + 1) * 2 > slots_.size()) grow();
        const std::string_view key = text_.key(piece);
        const std::size_t hash = std::hash<std::string_view>{}(key);
        const std::size_t mask = slots_.size() - 1;
        for (std::size_t i = hash & mask;; i = (i + 1) & mask) {
            Slot& slot = slots_[i];
            if (!slot.str) {
                slot.str = text_.str(piece);
                if (!slot.str) return Ref();
                slot.hash = hash;
                slot.key = key;
                ++count_;
                return Ref::borrow(slot.str.get());
            }
            if (slot.hash == hash && slot.key == key) return Ref::borrow(slot.str.get());
        }
    }

private:
    struct Slot {
        std::size_t hash = 0;
        std::string_view key;
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

    const ScanText& text_;
    bool shared_;
    std::vector<Slot> slots_;
    std::size_t count_ = 0;
};

}  // namespace gu
